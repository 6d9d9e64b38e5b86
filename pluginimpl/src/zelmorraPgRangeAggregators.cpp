// Range-array set operators and the aggregates built on the range algorithms.
#include "zelmorraPgUtils.h"

using zm::pg::Int4ArrayView;
using zm::pg::RangeVector;
using zm::pgRangeArray::Range;

extern "C" {
PG_FUNCTION_INFO_V1(zm_int4range_union);
PG_FUNCTION_INFO_V1(zm_int4range_intersection);
PG_FUNCTION_INFO_V1(zm_int4range_exclusion);
PG_FUNCTION_INFO_V1(zm_int4range_is_strictly_include);
PG_FUNCTION_INFO_V1(zm_int4range_is_overlap);
}

namespace {

const char* const LENGTH_NOT_EVEN = "array length should be even";

// Reads a range-array argument; an odd element count is reported at the caller's fixed location.
Int4ArrayView readRangeArrayArgument(FunctionCallInfo fcinfo, int argument, int line, const char* function)
{
    Int4ArrayView view = zm::pg::viewInt4Array(PG_GETARG_ARRAYTYPE_P(argument));
    if (view.count % 2 != 0)
        ZM_ERROR(ZM_SQLSTATE_DATATYPE_MISMATCH, line, function, "%s", LENGTH_NOT_EVEN);
    return view;
}

// The result when one argument of union or exclusion is NULL: the other one, copied as given.
Datum copyRangeArrayArgument(FunctionCallInfo fcinfo, int argument, int line, const char* function)
{
    Int4ArrayView view = readRangeArrayArgument(fcinfo, argument, line, function);
    PG_RETURN_ARRAYTYPE_P(zm::pg::valuesToArray(view.data, static_cast<size_t>(view.count)));
}

template <void (*Operation)(const Range<int>*, const Range<int>*, const Range<int>*, const Range<int>*, RangeVector&)>
Datum computeSetOperation(FunctionCallInfo fcinfo, int line, const char* function)
{
    const Int4ArrayView a = readRangeArrayArgument(fcinfo, 0, line, function);
    const Int4ArrayView b = readRangeArrayArgument(fcinfo, 1, line, function);
    RangeVector out;
    out.init(static_cast<size_t>(std::max({a.rangeCount(), b.rangeCount(), 1})));
    Operation(a.rangesBegin(), a.rangesEnd(), b.rangesBegin(), b.rangesEnd(), out);
    ArrayType* result = zm::pg::rangesToArray(out.data, out.size);
    out.release();
    PG_RETURN_ARRAYTYPE_P(result);
}

}  // namespace

extern "C" Datum zm_int4range_union(PG_FUNCTION_ARGS)
{
    const char* const function = "zm_int4range_union";
    if (PG_ARGISNULL(0) && PG_ARGISNULL(1))
        PG_RETURN_NULL();
    if (PG_ARGISNULL(0))
        return copyRangeArrayArgument(fcinfo, 1, 60, function);
    if (PG_ARGISNULL(1))
        return copyRangeArrayArgument(fcinfo, 0, 60, function);
    return computeSetOperation<zm::pgRangeArray::computeUnion<int, zm::pg::PallocAllocator>>(fcinfo, 80, function);
}

extern "C" Datum zm_int4range_intersection(PG_FUNCTION_ARGS)
{
    if (PG_ARGISNULL(0) || PG_ARGISNULL(1))
        PG_RETURN_NULL();
    return computeSetOperation<zm::pgRangeArray::computeIntersection<int, zm::pg::PallocAllocator>>(fcinfo, 132, "zm_int4range_intersection");
}

extern "C" Datum zm_int4range_exclusion(PG_FUNCTION_ARGS)
{
    const char* const function = "zm_int4range_exclusion";
    if (PG_ARGISNULL(0))
        PG_RETURN_NULL();
    if (PG_ARGISNULL(1))
        return copyRangeArrayArgument(fcinfo, 0, 181, function);
    return computeSetOperation<zm::pgRangeArray::computeExclusion<int, zm::pg::PallocAllocator>>(fcinfo, 201, function);
}

extern "C" Datum zm_int4range_is_strictly_include(PG_FUNCTION_ARGS)
{
    if (PG_ARGISNULL(0) || PG_ARGISNULL(1))
        PG_RETURN_NULL();
    const char* const function = "zm_int4range_is_strictly_include";
    const Int4ArrayView a = readRangeArrayArgument(fcinfo, 0, 252, function);
    const Int4ArrayView b = readRangeArrayArgument(fcinfo, 1, 252, function);
    PG_RETURN_BOOL(zm::pgRangeArray::isStrictlyIncluded(a.rangesBegin(), a.rangesEnd(), b.rangesBegin(), b.rangesEnd()));
}

extern "C" Datum zm_int4range_is_overlap(PG_FUNCTION_ARGS)
{
    if (PG_ARGISNULL(0) || PG_ARGISNULL(1))
        PG_RETURN_NULL();
    const char* const function = "zm_int4range_is_overlap";
    const Int4ArrayView a = readRangeArrayArgument(fcinfo, 0, 284, function);
    const Int4ArrayView b = readRangeArrayArgument(fcinfo, 1, 284, function);
    PG_RETURN_BOOL(zm::pgRangeArray::isOverlapping(a.rangesBegin(), a.rangesEnd(), b.rangesBegin(), b.rangesEnd()));
}

namespace zm {
namespace pgRangeArray {

ArrayDataType ArrayDataTypeFromChar(char letter)
{
    switch (letter)
    {
        case 'r': return ArrayDataTypeRange;
        case 's': return ArrayDataTypeScalar;
        case 'm': return ArrayDataTypeMix;
        default:
            ZM_ERROR(ZM_SQLSTATE_VALUE_ERROR, 555, "ArrayDataTypeFromChar", "int4_agg array type should be 'r','s' or 'm'");
    }
}

}  // namespace pgRangeArray
}  // namespace zm

// ---- set-expression aggregate ----


// ---- set aggregates ----


// ---- optimised set aggregate ----
