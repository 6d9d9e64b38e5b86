// The representation codes of int4 sets and the mix-array encoding, shared by every reader and
// writer of the forms (no PostgreSQL dependency).
//
// A mix array's element 0 is its value count; the items follow, a single value v as itself and a
// range [lower, upper] as (lower with bit 31 set), upper. So a mix array carries single values and
// range lower bounds in 0 .. 2147483647 only.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zm {
namespace pgRangeArray {

// The kind letters 's', 'r', 'm' give 3, 4 and 5 (ArrayDataTypeFromChar); the set aggregates add
// the input-only codes 1 and 2, and 0 marks a state that has seen no row.
enum ArrayDataType : int32_t
{
    ArrayDataTypeUninitialised = 0,
    ArrayDataTypeSingleValue = 1,
    ArrayDataTypeLowerUpperPair = 2,
    ArrayDataTypeScalar = 3,
    ArrayDataTypeRange = 4,
    ArrayDataTypeMix = 5,
};

}  // namespace pgRangeArray

namespace mix {

constexpr uint32_t rangeStartBit = 0x80000000u;

// An item that opens a range (bit 31 set).
inline bool opensRange(int32_t item) { return item < 0; }

// The opener of the range starting at `lower`.
inline int32_t rangeOpener(int32_t lower) { return static_cast<int32_t>(static_cast<uint32_t>(lower) | rangeStartBit); }

// The lower bound an opener stands for (bit 31 cleared; any other item is returned as it is).
inline int32_t rangeLower(int32_t item) { return static_cast<int32_t>(static_cast<uint32_t>(item) & ~rangeStartBit); }

enum class Walk : uint8_t
{
    Complete,
    Stopped,         // the visitor ended the walk
    DanglingOpener,  // the last element opens a range that has no upper bound
};

// The one reading of mix items (the elements after the count element): a value v is [v, v]; an
// opener and the element after it are [rangeLower(opener), that element], as given (the upper
// bound is not checked here). An opener that is the last element has no upper bound, so it is no
// item: the walk ends there with DanglingOpener, the items before it visited, and every reader
// reports it as an invalid range definition. visit(lower, upper) returns false to end the walk.
template <typename Visit>
Walk walkItems(const int32_t* items, size_t n, Visit&& visit)
{
    for (size_t i = 0; i < n; ++i)
    {
        const int32_t e = items[i];
        if (!opensRange(e))
        {
            if (!visit(e, e))
                return Walk::Stopped;
            continue;
        }
        if (i + 1 == n)
            return Walk::DanglingOpener;
        if (!visit(rangeLower(e), items[++i]))
            return Walk::Stopped;
    }
    return Walk::Complete;
}

}  // namespace mix
}  // namespace zm
