// Membership and comparison tests between values, packed ranges, range arrays and bitfields.
// They read their arguments in place and allocate nothing beyond detoasting.
#include "zelmorraPgUtils.h"
#include "zelmorraPgPackedRange.h"

using zm::pg::Int4ArrayView;
using zm::pgRangeArray::Range;

extern "C" {
PG_FUNCTION_INFO_V1(zm_int4_in_rangearray);
PG_FUNCTION_INFO_V1(zm_int4range_overlap_rangearray);
PG_FUNCTION_INFO_V1(zm_int4rangepacked_in_rangearray);
PG_FUNCTION_INFO_V1(zm_int4rangepacked_in_int4rangepacked);
PG_FUNCTION_INFO_V1(zm_int4rangepacked_included_in_int4rangepacked);
PG_FUNCTION_INFO_V1(zm_int4rangepacked_contains_int4rangepacked);
PG_FUNCTION_INFO_V1(zm_int4_in_packedrange);
PG_FUNCTION_INFO_V1(zm_int4rangepacked_contains_int4);
}

namespace {

const char* const INVALID_RANGE_ARRAY = "invalid range array";

Range<int> packedArgument(FunctionCallInfo fcinfo, int argument)
{
    return zm::pgRangeArray::unpackRange(PG_GETARG_INT64(argument));
}

}  // namespace

extern "C" Datum zm_int4_in_rangearray(PG_FUNCTION_ARGS)
{
    const int32 value = PG_GETARG_INT32(0);
    const Int4ArrayView ranges = zm::pg::viewInt4Array(PG_GETARG_ARRAYTYPE_P(1));  // an odd tail is ignored
    PG_RETURN_BOOL(zm::pgRangeArray::valueInRanges(value, ranges.rangesBegin(), ranges.rangesEnd()));
}

extern "C" Datum zm_int4range_overlap_rangearray(PG_FUNCTION_ARGS)
{
    const Int4ArrayView a = zm::pg::viewInt4Array(PG_GETARG_ARRAYTYPE_P(0));
    const Int4ArrayView b = zm::pg::viewInt4Array(PG_GETARG_ARRAYTYPE_P(1));
    if (a.count % 2 != 0 || b.count % 2 != 0)
        ZM_ERROR(ZM_SQLSTATE_INVALID_PARAMETER, 123, "zm_int4range_overlap_rangearray", "%s", INVALID_RANGE_ARRAY);
    if (a.rangeCount() == 1)
        PG_RETURN_BOOL(zm::pgRangeArray::rangeOverlapsList(*a.rangesBegin(), b.rangesBegin(), b.rangesEnd()));
    if (b.rangeCount() == 1)
        PG_RETURN_BOOL(zm::pgRangeArray::rangeOverlapsList(*b.rangesBegin(), a.rangesBegin(), a.rangesEnd()));
    PG_RETURN_BOOL(zm::pgRangeArray::isOverlapping(a.rangesBegin(), a.rangesEnd(), b.rangesBegin(), b.rangesEnd()));
}

// Despite its name an overlap test: the packed range shares a value with some range of the array.
extern "C" Datum zm_int4rangepacked_in_rangearray(PG_FUNCTION_ARGS)
{
    const Range<int> packed = packedArgument(fcinfo, 0);
    const Int4ArrayView ranges = zm::pg::viewInt4Array(PG_GETARG_ARRAYTYPE_P(1));
    if (!ranges.oneDimensionalWithoutNulls)
        PG_RETURN_BOOL(false);
    if (ranges.count % 2 != 0)
        ZM_ERROR(ZM_SQLSTATE_INVALID_PARAMETER, 164, "zm_int4rangepacked_in_rangearray", "%s", INVALID_RANGE_ARRAY);
    PG_RETURN_BOOL(zm::pgRangeArray::rangeOverlapsList(packed, ranges.rangesBegin(), ranges.rangesEnd()));
}

extern "C" Datum zm_int4rangepacked_in_int4rangepacked(PG_FUNCTION_ARGS)
{
    PG_RETURN_BOOL(zm::pgRangeArray::packedOverlaps(packedArgument(fcinfo, 0), packedArgument(fcinfo, 1)));
}

extern "C" Datum zm_int4rangepacked_included_in_int4rangepacked(PG_FUNCTION_ARGS)
{
    PG_RETURN_BOOL(zm::pgRangeArray::packedContains(packedArgument(fcinfo, 1), packedArgument(fcinfo, 0)));
}

extern "C" Datum zm_int4rangepacked_contains_int4rangepacked(PG_FUNCTION_ARGS)
{
    PG_RETURN_BOOL(zm::pgRangeArray::packedContains(packedArgument(fcinfo, 0), packedArgument(fcinfo, 1)));
}

extern "C" Datum zm_int4_in_packedrange(PG_FUNCTION_ARGS)
{
    PG_RETURN_BOOL(zm::pgRangeArray::packedContainsValue(packedArgument(fcinfo, 1), PG_GETARG_INT32(0)));
}

// Called with three arguments: position 0 is not read, the value is at 1 and the packed range at 2.
extern "C" Datum zm_int4rangepacked_contains_int4(PG_FUNCTION_ARGS)
{
    PG_RETURN_BOOL(zm::pgRangeArray::packedContainsValue(packedArgument(fcinfo, 2), PG_GETARG_INT32(1)));
}

// ---- bitfield tests ----
// Persisted bitfields (zelmorraPgBitField.h): first and last value of the span, then one bit per
// value in whole 64-bit words.
#include "zelmorraPgBitFieldServer.h"

namespace zm {
namespace pg {

bool getBitFieldInfo(const bytea* bitfield, const uint8_t*& begin, const uint8_t*& end, int32_t& first, int32_t& last)
{
    const BitFieldInfo info = readBitField(bitfield, VARSIZE(bitfield));
    if (info.truncated)
        ZM_ERROR(ZM_SQLSTATE_INVALID_PARAMETER, __LINE__, "getBitFieldInfo", "invalid bitfield array");
    first = info.first;
    last = info.last;
    if (info.status == BitFieldStatus::Empty)
        return false;
    if (info.status != BitFieldStatus::Ok)
        ZM_ERROR(ZM_SQLSTATE_INVALID_PARAMETER, __LINE__, "getBitFieldInfo", "invalid bitfield array");
    begin = info.begin;
    end = info.end;
    return true;
}

}  // namespace pg
}  // namespace zm
