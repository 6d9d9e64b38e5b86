// malloc-backed allocator for instantiating the algorithm templates outside the server.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <new>
#include <ostream>
#include <stdexcept>
#include <vector>

#include "zelmorraPgRangeArray.h"

struct TestAllocator
{
    static void* allocate(size_t bytes)
    {
        void* block = std::malloc(bytes ? bytes : 1);
        if (!block)
            outOfMemory();
        return block;
    }
    static void deallocate(void* block) { std::free(block); }
    static void diagnostic(const char* line) { std::puts(line); }
    [[noreturn]] static void outOfMemory() { throw std::bad_alloc(); }
};

using Range = zm::pgRangeArray::Range<int>;
using RangeVec = zm::tVectorBase<Range, TestAllocator>;
using IntVec = zm::tVectorBase<int32_t, TestAllocator>;

// Owns a vector for the duration of a test.
struct OwnedRanges
{
    RangeVec v;
    explicit OwnedRanges(size_t capacity = 1) { v.init(capacity); }
    ~OwnedRanges() { v.release(); }
    std::vector<Range> ranges() const { return std::vector<Range>(v.begin(), v.end()); }
};

// In the namespace of Range so that argument-dependent lookup finds them from inside GoogleTest and
// the standard containers (a global operator is hidden there by their own operators).
namespace zm {
namespace pgRangeArray {
inline bool operator==(const Range<int>& a, const Range<int>& b) { return a.lower == b.lower && a.upper == b.upper; }

inline std::ostream& operator<<(std::ostream& os, const Range<int>& r) { return os << '[' << r.lower << ',' << r.upper << ']'; }
}  // namespace pgRangeArray
}  // namespace zm
