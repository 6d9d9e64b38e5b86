// Module frame shared by every source file: PostgreSQL headers, the one error helper, the palloc
// allocator behind zm::pg::tVector, result-array and bytea allocation, and the shared rule for
// reading int4[] arguments.
//
// PostgreSQL leaves a failing call with longjmp. Nothing declared here has a destructor, so C++
// frames that are live when an ERROR is raised lose nothing but palloc'd memory, which the
// server's memory contexts reclaim.
#pragma once

extern "C" {
#include "postgres.h"

#include "catalog/pg_type.h"
#include "fmgr.h"
#include "miscadmin.h"
#include "utils/array.h"
#include "utils/memutils.h"
}

#include <cinttypes>
#include <cstdint>
#include <cstdio>

#include "zelmorraPgErrorSites.h"
#include "zelmorraPgRangeArray.h"
#include "zelmorraPgVector.h"

namespace zm {
namespace pg {

// The one way out for every failure: the site's ERROR report (zelmorraPgErrorSites.h) with its
// SQLSTATE, function, file, line and message, the message formatted with the arguments that follow.
// A report without message text (out of memory) says "out of memory" in its DETAIL.
[[noreturn]] void raiseFormatted(const ErrorSite& site, const char* format, ...);

template <typename... Args>
[[noreturn]] inline void raise(const ErrorSite& site, Args... args)
{
    raiseFormatted(site, site.message, args...);
}

// The site's report (a message without arguments) with a DETAIL formatted from `detailFormat`, for
// reports whose message alone does not say what was wrong (which argument, which value).
[[noreturn]] void raiseWithDetail(const ErrorSite& site, const char* detailFormat, ...) pg_attribute_printf(2, 3);

// The out-of-memory report of an allocation helper, with the size it asked for in its DETAIL.
[[noreturn]] void raiseOutOfMemory(const ErrorSite& site, size_t requestedBytes);

// DETAIL of a result too large for an int4[]: how many elements it would have held (uint64_t).
#define ZM_OVERSIZED_DETAIL "The result would hold %" PRIu64 " elements; an array holds at most 2147483647."

// DETAIL of a mix array whose last element opens a range (mix::walkItems).
#define ZM_DANGLING_OPENER_DETAIL "The last element of argument %d opens a range that has no upper bound."

// DETAIL of an odd range array: which argument, and how many elements it has.
#define ZM_ODD_RANGE_ARRAY_DETAIL "Argument %d has an odd element count (%d); a range array holds lower and upper bounds in pairs."

// Writes one diagnostic line to standard output.
void writeDiagnosticLine(const char* line);

// Interrupt policy of the server-independent algorithms: a pending cancel request or statement
// timeout ends the call at the algorithm's next check.
struct ServerInterruptCheck
{
    static void check() { CHECK_FOR_INTERRUPTS(); }
};

// Memory of the current memory context. A failed allocation writes "Out of memory" and reports
// 53200; requests beyond the server's allocation limit get the server's own error. Walks that
// write into it are interruptible (see pgRangeArray::InterruptPolicyOf).
struct PallocAllocator
{
    using Interrupts = ServerInterruptCheck;

    static void* allocate(size_t bytes)
    {
        void* block = palloc_extended(bytes, MCXT_ALLOC_NO_OOM);
        if (block == nullptr)
        {
            writeDiagnosticLine("Out of memory");
            outOfMemory();
        }
        return block;
    }
    static void deallocate(void* block) { pfree(block); }
    static void diagnostic(const char* line) { writeDiagnosticLine(line); }
    [[noreturn]] static void outOfMemory();
};

template <typename T>
using tVector = tVectorBase<T, PallocAllocator>;

using RangeVector = tVector<pgRangeArray::Range<int>>;
using Int4Vector = tVector<int32_t>;

// A bytea of `size` payload bytes with its length word set; the payload is not initialised.
bytea* allocateBytea(size_t size);

// A one-dimensional array of n elements (lower bound 1, no null bitmap, zero-filled data). An
// empty result keeps this one-dimensional form rather than the server's zero-dimensional one.
// A caller that writes the data itself may skip the zero fill.
template <typename T, Oid ElementType>
ArrayType* allocateResultArray(size_t n, bool zeroFill = true)
{
    const size_t bytes = ARR_OVERHEAD_NONULLS(1) + n * sizeof(T);
    const int flags = MCXT_ALLOC_NO_OOM | (zeroFill ? MCXT_ALLOC_ZERO : 0);
    void* block = bytes <= MaxAllocSize ? palloc_extended(bytes, flags) : nullptr;
    if (block == nullptr)
        raiseOutOfMemory(site::allocateResultArray, bytes);
    ArrayType* array = static_cast<ArrayType*>(block);
    SET_VARSIZE(array, bytes);
    array->ndim = 1;
    array->dataoffset = 0;
    array->elemtype = ElementType;
    ARR_DIMS(array)[0] = static_cast<int>(n);
    ARR_LBOUND(array)[0] = 1;
    return array;
}

inline ArrayType* allocateInt4Array(size_t n) { return allocateResultArray<int32_t, INT4OID>(n); }

// allocateResultArray with the data left uninitialised, for a caller that writes every element:
// the long expansions would otherwise zero up to a gigabyte first, in one step that doubles their
// memory traffic and cannot be interrupted. Failures are reported as allocateResultArray's.
template <typename T, Oid ElementType>
ArrayType* allocateResultArrayForOverwrite(size_t n)
{
    return allocateResultArray<T, ElementType>(n, false);
}

inline ArrayType* allocateInt4ArrayForOverwrite(size_t n) { return allocateResultArrayForOverwrite<int32_t, INT4OID>(n); }

inline int32_t* int4Data(ArrayType* array) { return reinterpret_cast<int32_t*>(ARR_DATA_PTR(array)); }

// An int4[] argument as the module reads it: a one-dimensional array without null bitmap gives
// its elements, anything else (zero or several dimensions, NULL elements) is an empty set.
struct Int4ArrayView
{
    const int32_t* data;
    int32_t count;
    bool oneDimensionalWithoutNulls;

    const pgRangeArray::Range<int>* rangesBegin() const
    {
        return reinterpret_cast<const pgRangeArray::Range<int>*>(data);
    }
    const pgRangeArray::Range<int>* rangesEnd() const { return rangesBegin() + count / 2; }
    int32_t rangeCount() const { return count / 2; }
};

inline Int4ArrayView viewInt4Array(ArrayType* array)
{
    if (ARR_NDIM(array) == 1 && !ARR_HASNULL(array))
        return Int4ArrayView{reinterpret_cast<const int32_t*>(ARR_DATA_PTR(array)), ARR_DIMS(array)[0], true};
    return Int4ArrayView{nullptr, 0, false};
}

inline ArrayType* detoastArray(Datum datum) { return reinterpret_cast<ArrayType*>(PG_DETOAST_DATUM(datum)); }

// The aggregate memory context of a support-function call. Raises an error when the function is
// called outside an aggregate (its state would otherwise leak into a top-level context).
MemoryContext aggregateContext(FunctionCallInfo fcinfo, const char* function);

// A state's own memory context under the aggregate context (default allocation-set sizes), named
// after the function that creates it; `name` must be a string literal.
MemoryContext createStateContext(MemoryContext aggregateContext, const char* name);

// Copies ranges into a new range array (lower, upper pairs).
ArrayType* rangesToArray(const pgRangeArray::Range<int>* first, size_t count);

// Copies int4 values into a new one-dimensional int4[].
ArrayType* valuesToArray(const int32_t* first, size_t count);

}  // namespace pg

namespace pgRangeArray {

// 'r', 's' and 'm' (case-sensitive); anything else is an error.
ArrayDataType ArrayDataTypeFromChar(char letter);

}  // namespace pgRangeArray
}  // namespace zm
