// Conversions: packed ranges, set representation conversion, bitfield building and counting,
// bytea decoders.
#include "zelmorraPgUtils.h"
#include "zelmorraPgBitFieldServer.h"
#include "zelmorraPgPackedRange.h"
#include "zelmorraPgSetConversion.h"

extern "C" {
#include "miscadmin.h"
}

// ---- packed ranges ----

extern "C" {
PG_FUNCTION_INFO_V1(zm_range_pack);
PG_FUNCTION_INFO_V1(zm_rangepacked_lower);
PG_FUNCTION_INFO_V1(zm_rangepacked_upper);
}

// One entry point behind two SQL signatures, told apart by the argument count: (lower, upper) or
// one int4[] of exactly two elements. The array's lower bound is not looked at.
extern "C" Datum zm_range_pack(PG_FUNCTION_ARGS)
{
    int32 lower;
    int32 upper;
    if (PG_NARGS() == 2)
    {
        lower = PG_GETARG_INT32(0);
        upper = PG_GETARG_INT32(1);
    }
    else if (PG_NARGS() == 1)
    {
        ArrayType* array = PG_GETARG_ARRAYTYPE_P(0);
        // A null bitmap is refused even when no element is null.
        if (ARR_ELEMTYPE(array) != INT4OID || ARR_NDIM(array) != 1 || ARR_HASNULL(array) || ARR_DIMS(array)[0] != 2)
            zm::pg::raise(zm::pg::site::packArrayShape);
        const int32* bounds = zm::pg::int4Data(array);
        lower = bounds[0];
        upper = bounds[1];
    }
    else
        zm::pg::raise(zm::pg::site::packArity);
    if (lower > upper)
        zm::pg::raiseWithDetail(zm::pg::site::packInvalidRange, "The lower bound %d is above the upper bound %d.", lower, upper);
    PG_RETURN_INT64(zm::pgRangeArray::packRange(lower, upper));
}

// No checks: any int8 splits into its two halves, also one whose halves are out of order.
extern "C" Datum zm_rangepacked_lower(PG_FUNCTION_ARGS)
{
    PG_RETURN_INT32(zm::pgRangeArray::unpackRange(PG_GETARG_INT64(0)).lower);
}

extern "C" Datum zm_rangepacked_upper(PG_FUNCTION_ARGS)
{
    PG_RETURN_INT32(zm::pgRangeArray::unpackRange(PG_GETARG_INT64(0)).upper);
}

// ---- set representation conversion ----

extern "C" {
PG_FUNCTION_INFO_V1(zm_int4setconv_int4);
PG_FUNCTION_INFO_V1(zm_sort_int4);
}

namespace zm {
namespace pg {
namespace setConversionGlue {

// Largest int4[] the server can allocate in one piece.
constexpr size_t maxInt4ArrayLength = (MaxAllocSize - ARR_OVERHEAD_NONULLS(1)) / sizeof(int32_t);

// The error site of each failed conversion status of zm_int4setconv_int4.
const ErrorSite& conversionSite(setConversion::Status status)
{
    using setConversion::Status;
    switch (status)
    {
        case Status::ScalarToRangeNotSorted: return site::convertScalarToRangeNotSorted;
        case Status::ScalarToMixNotSorted: return site::convertScalarToMixNotSorted;
        case Status::OddRangeCount: return site::convertOdd;
        case Status::OutputTooSmall: return site::convertOutputTooSmall;
        case Status::InvalidRangeDefinition: return site::convertInvalidRange;
        case Status::ArrayOverflow: return site::convertRangeOverflow;
        case Status::MixArrayOverflow: return site::convertOverflow;
        case Status::Ok:
        case Status::ConversionError:
        case Status::FloatPayloadLength:
        case Status::MixPayloadLength: break;
    }
    return site::convertError;
}

// Reports a failed conversion; `inputElements` is the element count of the set (argument 2).
[[noreturn]] void raiseConversionStatus(setConversion::Status status, int32_t inputElements)
{
    using setConversion::Status;
    const ErrorSite& failed = conversionSite(status);
    if (status == Status::OddRangeCount)
        raiseWithDetail(failed, ZM_ODD_RANGE_ARRAY_DETAIL, 2, inputElements);
    if (status == Status::ArrayOverflow || status == Status::MixArrayOverflow)
        raiseWithDetail(failed, "%s", "The result would hold more than 2147483647 elements, the most an array holds.");
    raise(failed);
}

ArrayType* checkedInt4Argument(FunctionCallInfo fcinfo, int argument, const ErrorSite& refused)
{
    ArrayType* array = PG_GETARG_ARRAYTYPE_P(argument);
    if (ARR_ELEMTYPE(array) != INT4OID)
        raise(refused);
    return array;
}

template <typename Vector>
ArrayType* finishVector(Vector& out, setConversion::Status status, int32_t inputElements)
{
    if (status != setConversion::Status::Ok)
    {
        out.release();
        raiseConversionStatus(status, inputElements);
    }
    ArrayType* result;
    if constexpr (std::is_same_v<Vector, RangeVector>)
        result = rangesToArray(out.data, out.size);
    else
        result = valuesToArray(out.data, out.size);
    out.release();
    return result;
}

}  // namespace setConversionGlue
}  // namespace pg
}  // namespace zm

// Rewrites an int4 set from one form ('s' scalar, 'r' range, 'm' mix array) into another.
extern "C" Datum zm_int4setconv_int4(PG_FUNCTION_ARGS)
{
    using namespace zm::pg;
    using namespace zm::pg::setConversionGlue;
    using zm::setConversion::Status;
    if (PG_ARGISNULL(0) || PG_ARGISNULL(1) || PG_ARGISNULL(2))
        PG_RETURN_NULL();
    const auto from = zm::pgRangeArray::ArrayDataTypeFromChar(PG_GETARG_CHAR(0));
    const auto to = zm::pgRangeArray::ArrayDataTypeFromChar(PG_GETARG_CHAR(2));
    ArrayType* array = checkedInt4Argument(fcinfo, 1, site::convertNotInt4);
    if (from == to)
        raise(site::convertSameKind);
    const Int4ArrayView input = viewInt4Array(array);
    const size_t count = static_cast<size_t>(input.count);

    ArrayType* result = nullptr;
    // The expansions write every value they allocate.
    auto makeOutput = [&result](size_t n) {
        result = allocateInt4ArrayForOverwrite(n);
        return int4Data(result);
    };
    if (from == zm::pgRangeArray::ArrayDataTypeScalar && to == zm::pgRangeArray::ArrayDataTypeRange)
    {
        RangeVector out;
        out.init(zm::setConversion::initialCapacity);
        const Status status = zm::setConversion::scalarToRanges(input.data, count, out);
        result = finishVector(out, status, input.count);
    }
    else if (from == zm::pgRangeArray::ArrayDataTypeScalar)
    {
        Int4Vector out;
        out.init(std::max(zm::setConversion::initialCapacity, count / 2 + 2));
        const Status status = zm::setConversion::scalarToMix(input.data, count, out);
        result = finishVector(out, status, input.count);
    }
    else if (from == zm::pgRangeArray::ArrayDataTypeRange && to == zm::pgRangeArray::ArrayDataTypeScalar)
    {
        const Status status = zm::setConversion::rangesToScalars<ServerInterruptCheck>(input.data, count, makeOutput);
        if (status != Status::Ok)
            raiseConversionStatus(status, input.count);
    }
    else if (from == zm::pgRangeArray::ArrayDataTypeRange)
    {
        Int4Vector out;
        out.init(zm::setConversion::initialCapacity);
        const Status status = zm::setConversion::rangesToMix(input.data, count, out);
        result = finishVector(out, status, input.count);
    }
    else if (to == zm::pgRangeArray::ArrayDataTypeScalar)
    {
        const Status status =
            zm::setConversion::mixToScalars<ServerInterruptCheck>(input.data, count, maxInt4ArrayLength, makeOutput);
        if (status != Status::Ok)
            raiseConversionStatus(status, input.count);
    }
    else
    {
        RangeVector out;
        out.init(zm::setConversion::initialCapacity);
        const Status status = zm::setConversion::mixToRanges(input.data, count, out);
        result = finishVector(out, status, input.count);
    }
    PG_RETURN_ARRAYTYPE_P(result);
}

// Sorts an int4[] ascending, duplicates kept.
extern "C" Datum zm_sort_int4(PG_FUNCTION_ARGS)
{
    using namespace zm::pg;
    if (PG_ARGISNULL(0))
        PG_RETURN_NULL();
    ArrayType* array = setConversionGlue::checkedInt4Argument(fcinfo, 0, site::sortNotInt4);
    const Int4ArrayView input = viewInt4Array(array);
    const size_t n = static_cast<size_t>(input.count);
    // sortInt4 writes every element on each of its paths.
    ArrayType* result = allocateInt4ArrayForOverwrite(n);
    if (n)
    {
        int32_t* scratch = static_cast<int32_t*>(PallocAllocator::allocate(n * sizeof(int32_t)));
        zm::setConversion::sortInt4<ServerInterruptCheck>(input.data, int4Data(result), scratch, n);
        pfree(scratch);
    }
    PG_RETURN_ARRAYTYPE_P(result);
}

// ---- bitfield conversion and counting ----
// The persisted bitfield of a set, and the number of values a set holds.

extern "C" {
PG_FUNCTION_INFO_V1(zm_int4set2bitfield_int4);
PG_FUNCTION_INFO_V1(zm_count_scalar_in_int4set);
}

namespace {

// Sum of (upper - lower + 1) over the pairs, each width wrapped in int32 and summed in 64 bits;
// four pairs per step so that the compiler can keep the widths in vector registers.
int64_t sumRangeWidthsOfChunk(const int32_t* pairs, uint32_t pairCount)
{
    int64_t sums[4] = {0, 0, 0, 0};
    uint32_t i = 0;
    for (; i + 4 <= pairCount; i += 4)
        for (uint32_t k = 0; k < 4; ++k)
        {
            const uint32_t width =
                static_cast<uint32_t>(pairs[2 * (i + k) + 1]) - static_cast<uint32_t>(pairs[2 * (i + k)]) + 1u;
            sums[k] += static_cast<int32_t>(width);
        }
    int64_t total = sums[0] + sums[1] + sums[2] + sums[3];
    for (; i < pairCount; ++i)
        total += static_cast<int32_t>(static_cast<uint32_t>(pairs[2 * i + 1]) - static_cast<uint32_t>(pairs[2 * i]) + 1u);
    return total;
}

// The same over any number of pairs, interruptCheckInterval at a time with a check in between.
int64_t sumRangeWidths(const int32_t* pairs, uint32_t pairCount)
{
    constexpr uint32_t chunk = zm::interruptCheckInterval;
    int64_t total = 0;
    while (pairCount > chunk)
    {
        total += sumRangeWidthsOfChunk(pairs, chunk);
        pairs += 2 * size_t{chunk};
        pairCount -= chunk;
        zm::pg::ServerInterruptCheck::check();
    }
    return total + sumRangeWidthsOfChunk(pairs, pairCount);
}

}  // namespace

// The set as a persisted bitfield. Unsorted input is not rejected: values and range parts outside
// the span [first element, final element] are left out, so nothing is written outside the data.
extern "C" Datum zm_int4set2bitfield_int4(PG_FUNCTION_ARGS)
{
    ArrayType* array = zm::pg::detoastArray(PG_GETARG_DATUM(1));
    if (ARR_ELEMTYPE(array) != INT4OID)
        zm::pg::raise(zm::pg::site::bitFieldBuildNotInt4);
    const zm::pgRangeArray::ArrayDataType kind = zm::pgRangeArray::ArrayDataTypeFromChar(PG_GETARG_CHAR(0));
    const zm::pg::Int4ArrayView set = zm::pg::viewInt4Array(array);
    const uint32_t n = static_cast<uint32_t>(set.count);

    zm::BitFieldShape shape;
    switch (kind)
    {
    case zm::pgRangeArray::ArrayDataTypeRange:
        if (n % 2 != 0)
            zm::pg::raiseWithDetail(zm::pg::site::bitFieldBuildOdd, ZM_ODD_RANGE_ARRAY_DETAIL, 2, set.count);
        shape = zm::bitFieldShapeOfRangeArray(set.data, n);
        break;
    case zm::pgRangeArray::ArrayDataTypeScalar:
        shape = zm::bitFieldShapeOfScalarArray(set.data, n);
        break;
    case zm::pgRangeArray::ArrayDataTypeMix:
        shape = zm::bitFieldShapeOfMixArray(set.data, n);
        break;
    default:  // ArrayDataTypeFromChar gives no other kind
        pg_unreachable();
    }

    bytea* result = zm::pg::allocateBytea(8 + size_t{shape.dataLength});
    uint8_t* bytes = reinterpret_cast<uint8_t*>(VARDATA(result));
    memcpy(bytes, &shape.first, sizeof(int32_t));
    memcpy(bytes + 4, &shape.last, sizeof(int32_t));
    // The data is not zeroed first: the writer stores each byte once (see BitFieldSetWriter).
    zm::BitFieldSetWriter<zm::pg::ServerInterruptCheck> writer(bytes + 8, shape);
    if (shape.writeItems)
    {
        if (kind == zm::pgRangeArray::ArrayDataTypeRange)
            writer.rangeArray(set.data, n);
        else if (kind == zm::pgRangeArray::ArrayDataTypeScalar)
            writer.scalarArray(set.data, n);
        else if (!writer.mixItems(set.data + 1, n - 1))
            zm::pg::raiseWithDetail(zm::pg::site::bitFieldBuildDanglingOpener, ZM_DANGLING_OPENER_DETAIL, 2);
    }
    writer.finish();
    PG_RETURN_BYTEA_P(result);
}

// Number of values of the set: summed range widths, the scalar count, or a mix array's stored count.
extern "C" Datum zm_count_scalar_in_int4set(PG_FUNCTION_ARGS)
{
    if (PG_ARGISNULL(0))
        PG_RETURN_NULL();
    ArrayType* array = zm::pg::detoastArray(PG_GETARG_DATUM(1));
    if (ARR_ELEMTYPE(array) != INT4OID)
        PG_RETURN_NULL();
    const zm::pgRangeArray::ArrayDataType kind = zm::pgRangeArray::ArrayDataTypeFromChar(PG_GETARG_CHAR(0));
    const zm::pg::Int4ArrayView set = zm::pg::viewInt4Array(array);
    switch (kind)
    {
    case zm::pgRangeArray::ArrayDataTypeRange:
        if (ARR_NDIM(array) == 1 && ARR_DIMS(array)[0] % 2 != 0)
            zm::pg::raiseWithDetail(zm::pg::site::countOdd, ZM_ODD_RANGE_ARRAY_DETAIL, 2, ARR_DIMS(array)[0]);
        PG_RETURN_INT32(static_cast<int32_t>(sumRangeWidths(set.data, static_cast<uint32_t>(set.count) / 2)));
    case zm::pgRangeArray::ArrayDataTypeScalar:
        PG_RETURN_INT32(set.count);
    case zm::pgRangeArray::ArrayDataTypeMix:
        PG_RETURN_INT32(set.count > 0 ? set.data[0] : 0);
    default:  // ArrayDataTypeFromChar gives no other kind
        pg_unreachable();
    }
}

// ---- bytea decoders ----
extern "C" {
PG_FUNCTION_INFO_V1(zm_bytea2floatarray);
PG_FUNCTION_INFO_V1(zm_bytea2mix2rangearray);
}

// A bytea of packed float4 values (machine byte order) as float4[]; the bytes are copied as they
// are, special values and byte order included.
extern "C" Datum zm_bytea2floatarray(PG_FUNCTION_ARGS)
{
    if (PG_ARGISNULL(0))
        PG_RETURN_NULL();
    bytea* payload = PG_GETARG_BYTEA_P(0);
    const size_t bytes = VARSIZE(payload) - VARHDRSZ;
    size_t count = 0;
    const zm::setConversion::Status status = zm::setConversion::floatPayloadElements(bytes, count);
    if (status != zm::setConversion::Status::Ok)
        zm::pg::raise(zm::pg::site::floatPayloadLength);
    ArrayType* result = zm::pg::allocateResultArrayForOverwrite<float4, FLOAT4OID>(count);
    zm::copyInterruptibly<zm::pg::ServerInterruptCheck>(ARR_DATA_PTR(result), VARDATA(payload), bytes);
    PG_RETURN_ARRAYTYPE_P(result);
}

// A bytea holding the int4 elements of a mix array (machine byte order) as the range array of its
// items, in item order; element 0, the count, is skipped.
extern "C" Datum zm_bytea2mix2rangearray(PG_FUNCTION_ARGS)
{
    using zm::setConversion::Status;
    if (PG_ARGISNULL(0))
        PG_RETURN_NULL();
    bytea* payload = PG_GETARG_BYTEA_P(0);
    zm::pg::RangeVector out;
    out.init(zm::setConversion::initialCapacity);
    const Status status = zm::setConversion::mixPayloadToRanges(VARDATA(payload), VARSIZE(payload) - VARHDRSZ, out);
    if (status != Status::Ok)
    {
        out.release();
        zm::pg::raise(status == Status::MixPayloadLength       ? zm::pg::site::mixPayloadLength
                      : status == Status::InvalidRangeDefinition ? zm::pg::site::mixPayloadInvalidRange
                                                                 : zm::pg::site::mixPayloadOverflow);
    }
    ArrayType* result = zm::pg::rangesToArray(out.data, out.size);
    out.release();
    PG_RETURN_ARRAYTYPE_P(result);
}
