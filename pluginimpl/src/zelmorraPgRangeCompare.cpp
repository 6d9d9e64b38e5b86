// Membership and comparison tests between values, packed ranges, range arrays and bitfields.
// They read their arguments in place and allocate nothing beyond detoasting.
#include "zelmorraPgUtils.h"
#include "zelmorraPgPackedRange.h"
#include "zelmorraPgBitFieldServer.h"

extern "C" {
#include "miscadmin.h"
}

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
PG_FUNCTION_INFO_V1(zm_int4rangepacked_contains_value);
}

namespace {

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
        zm::pg::raiseWithDetail(zm::pg::site::overlapRangeArrayOdd, ZM_ODD_RANGE_ARRAY_DETAIL, a.count % 2 != 0 ? 1 : 2,
                                a.count % 2 != 0 ? a.count : b.count);
    if (a.rangeCount() == 1)
        PG_RETURN_BOOL((zm::pgRangeArray::rangeOverlapsList<int, zm::pg::ServerInterruptCheck>(*a.rangesBegin(), b.rangesBegin(),
                                                                                             b.rangesEnd())));
    if (b.rangeCount() == 1)
        PG_RETURN_BOOL((zm::pgRangeArray::rangeOverlapsList<int, zm::pg::ServerInterruptCheck>(*b.rangesBegin(), a.rangesBegin(),
                                                                                             a.rangesEnd())));
    PG_RETURN_BOOL((zm::pgRangeArray::isOverlapping<int, zm::pg::ServerInterruptCheck>(a.rangesBegin(), a.rangesEnd(),
                                                                                     b.rangesBegin(), b.rangesEnd())));
}

// Despite its name an overlap test: the packed range shares a value with some range of the array.
extern "C" Datum zm_int4rangepacked_in_rangearray(PG_FUNCTION_ARGS)
{
    const Range<int> packed = packedArgument(fcinfo, 0);
    const Int4ArrayView ranges = zm::pg::viewInt4Array(PG_GETARG_ARRAYTYPE_P(1));
    if (!ranges.oneDimensionalWithoutNulls)
        PG_RETURN_BOOL(false);
    if (ranges.count % 2 != 0)
        zm::pg::raiseWithDetail(zm::pg::site::packedInRangeArrayOdd, ZM_ODD_RANGE_ARRAY_DETAIL, 2, ranges.count);
    PG_RETURN_BOOL((zm::pgRangeArray::rangeOverlapsList<int, zm::pg::ServerInterruptCheck>(packed, ranges.rangesBegin(), ranges.rangesEnd())));
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

// The same test with the packed range first, for the operator int8 @> int4: an inlinable SQL
// wrapper would be expanded before the planner looks for an index, so this is a C function.
extern "C" Datum zm_int4rangepacked_contains_value(PG_FUNCTION_ARGS)
{
    PG_RETURN_BOOL(zm::pgRangeArray::packedContainsValue(packedArgument(fcinfo, 0), PG_GETARG_INT32(1)));
}

// ---- bitfield tests ----
// Persisted bitfields (zelmorraPgBitField.h): first and last value of the span, then one bit per
// value in whole 64-bit words.

extern "C" {
PG_FUNCTION_INFO_V1(zm_int4_in_rangebitfield);
PG_FUNCTION_INFO_V1(zm_int4rangepacked_in_rangebitfield);
PG_FUNCTION_INFO_V1(zm_int4set_overlap_bitfield);
PG_FUNCTION_INFO_V1(zm_int4set_included_in_bitfield);
}

namespace {

// Every member of the set (included) or some member of it (overlap) has its bit set; the rules are
// zm::bitFieldTestSet's.
bool int4set_test_bitfield(FunctionCallInfo fcinfo, bool included)
{
    using namespace zm::pgRangeArray;
    const ArrayDataType kind = ArrayDataTypeFromChar(PG_GETARG_CHAR(0));
    ArrayType* array = zm::pg::detoastArray(PG_GETARG_DATUM(1));
    if (ARR_ELEMTYPE(array) != INT4OID)
        zm::pg::raise(zm::pg::site::setTestNotInt4);

    const Int4ArrayView set = zm::pg::viewInt4Array(array);
    if (set.count <= 0)
        return false;
    const zm::BitFieldInfo info =
        zm::pg::readBitFieldArgument(PG_GETARG_DATUM(2), zm::pg::site::bitFieldArgument, zm::pg::site::bitFieldArgument);
    if (info.status == zm::BitFieldStatus::Empty)
        return false;
    switch (zm::bitFieldTestSet<zm::pg::ServerInterruptCheck>(kind, included, info, set.data, static_cast<uint32_t>(set.count)))
    {
    case zm::BitFieldSetTest::False:
        return false;
    case zm::BitFieldSetTest::True:
        return true;
    case zm::BitFieldSetTest::OddRangeCount:
        if (included)
            zm::pg::raiseWithDetail(zm::pg::site::setIncludedOdd, ZM_ODD_RANGE_ARRAY_DETAIL, 2, set.count);
        zm::pg::raiseWithDetail(zm::pg::site::setOverlapOdd, ZM_ODD_RANGE_ARRAY_DETAIL, 2, set.count);
    case zm::BitFieldSetTest::DanglingOpener:
        zm::pg::raiseWithDetail(zm::pg::site::setTestDanglingOpener, ZM_DANGLING_OPENER_DETAIL, 2);
    case zm::BitFieldSetTest::UnsupportedKind:
        break;
    }
    zm::pg::raise(zm::pg::site::setTestUnsupportedKind);
}

}  // namespace

extern "C" Datum zm_int4_in_rangebitfield(PG_FUNCTION_ARGS)
{
    const zm::BitFieldInfo info =
        zm::pg::readBitFieldArgument(PG_GETARG_DATUM(1), zm::pg::site::bitFieldArgument, zm::pg::site::bitFieldArgument);
    PG_RETURN_BOOL(info.status == zm::BitFieldStatus::Ok && zm::bitFieldHasValue(info, PG_GETARG_INT32(0)));
}

// Some value of the packed range has its bit set. A reversed packed range (lower > upper) holds no
// value and gives false.
extern "C" Datum zm_int4rangepacked_in_rangebitfield(PG_FUNCTION_ARGS)
{
    const Range<int> packed = packedArgument(fcinfo, 0);
    const zm::BitFieldInfo info = zm::pg::readBitFieldArgument(PG_GETARG_DATUM(1), zm::pg::site::packedInBitFieldShort,
                                                               zm::pg::site::packedInBitFieldLength);
    if (info.status == zm::BitFieldStatus::Empty)
        PG_RETURN_BOOL(false);
    PG_RETURN_BOOL(zm::bitFieldOverlapsRange<zm::pg::ServerInterruptCheck>(info, packed.lower, packed.upper));
}

extern "C" Datum zm_int4set_overlap_bitfield(PG_FUNCTION_ARGS)
{
    PG_RETURN_BOOL(int4set_test_bitfield(fcinfo, false));
}

extern "C" Datum zm_int4set_included_in_bitfield(PG_FUNCTION_ARGS)
{
    PG_RETURN_BOOL(int4set_test_bitfield(fcinfo, true));
}
