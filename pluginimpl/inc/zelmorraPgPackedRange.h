// Packed range: one closed int4 range in an int8, lower in bits 0..31, upper in bits 32..63.
// No PostgreSQL dependency.
#pragma once

#include <cstdint>

#include "zelmorraPgRangeArray.h"

namespace zm {
namespace pgRangeArray {

inline int64_t packRange(int32_t lower, int32_t upper)
{
    return static_cast<int64_t>((static_cast<uint64_t>(static_cast<uint32_t>(upper)) << 32) |
                                static_cast<uint32_t>(lower));
}

inline Range<int> unpackRange(int64_t packed)
{
    const uint64_t bits = static_cast<uint64_t>(packed);
    return Range<int>{static_cast<int32_t>(static_cast<uint32_t>(bits)), static_cast<int32_t>(static_cast<uint32_t>(bits >> 32))};
}

// p and q share at least one value.
inline bool packedOverlaps(const Range<int>& p, const Range<int>& q)
{
    return !(q.upper < p.lower) && p.upper >= q.lower;
}

// inner lies inside outer.
inline bool packedContains(const Range<int>& outer, const Range<int>& inner)
{
    return inner.lower >= outer.lower && inner.upper <= outer.upper;
}

inline bool packedContainsValue(const Range<int>& p, int32_t v)
{
    return v >= p.lower && v <= p.upper;
}

}  // namespace pgRangeArray
}  // namespace zm
