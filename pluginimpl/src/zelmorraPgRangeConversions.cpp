// Conversions: packed ranges, set representation conversion, bitfield building and counting,
// bytea decoders.
#include "zelmorraPgUtils.h"

// ---- packed ranges ----


// ---- set representation conversion ----


// ---- bitfield conversion and counting ----
// The persisted bitfield of a set, and the number of values a set holds.
#include "zelmorraPgBitFieldServer.h"

extern "C" {
#include "miscadmin.h"

PG_FUNCTION_INFO_V1(zm_int4set2bitfield_int4);
PG_FUNCTION_INFO_V1(zm_count_scalar_in_int4set);
}

namespace {

struct InterruptPoll
{
    void operator()() const { CHECK_FOR_INTERRUPTS(); }
};

// Sum of (upper - lower + 1) over the pairs, each width wrapped in int32 and summed in 64 bits;
// four pairs per step so that the compiler can keep the widths in vector registers.
int64_t sumRangeWidths(const int32_t* pairs, uint32_t pairCount)
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

}  // namespace

// The set as a persisted bitfield. Unsorted input is not rejected: values and range parts outside
// the span [first element, final element] are left out, so nothing is written outside the data.
extern "C" Datum zm_int4set2bitfield_int4(PG_FUNCTION_ARGS)
{
    ArrayType* array = zm::pg::detoastArray(PG_GETARG_DATUM(1));
    if (ARR_ELEMTYPE(array) != INT4OID)
        ZM_ERROR(ZM_SQLSTATE_INVALID_PARAMETER, __LINE__, "zm_int4set2bitfield_int4", "accept only int4[]");
    const zm::pgRangeArray::ArrayDataType kind = zm::pgRangeArray::ArrayDataTypeFromChar(PG_GETARG_CHAR(0));
    const zm::pg::Int4ArrayView set = zm::pg::viewInt4Array(array);
    const uint32_t n = static_cast<uint32_t>(set.count);

    zm::BitFieldShape shape;
    switch (kind)
    {
    case zm::pgRangeArray::ArrayDataTypeRange:
        if (n % 2 != 0)
            ZM_ERROR(ZM_SQLSTATE_INVALID_BINARY, __LINE__, "zm_int4set2bitfield_int4",
                     "invalid int4 count to represent a rangearray");
        shape = zm::bitFieldShapeOfRangeArray(set.data, n);
        break;
    case zm::pgRangeArray::ArrayDataTypeScalar:
        shape = zm::bitFieldShapeOfScalarArray(set.data, n);
        break;
    case zm::pgRangeArray::ArrayDataTypeMix:
        shape = zm::bitFieldShapeOfMixArray(set.data, n);
        break;
    default:
        ZM_ERROR(ZM_SQLSTATE_INVALID_BINARY, __LINE__, "zm_int4set2bitfield_int4", "unsuported conversion");
    }

    bytea* result = zm::pg::allocateBytea(8 + size_t{shape.dataLength});
    uint8_t* bytes = reinterpret_cast<uint8_t*>(VARDATA(result));
    memcpy(bytes, &shape.first, sizeof(int32_t));
    memcpy(bytes + 4, &shape.last, sizeof(int32_t));
    // The data is not zeroed first: the writer stores each byte once (see BitFieldSetWriter).
    InterruptPoll poll;
    zm::BitFieldSetWriter<InterruptPoll> writer(bytes + 8, shape, poll);
    if (shape.writeItems)
    {
        if (kind == zm::pgRangeArray::ArrayDataTypeRange)
            writer.rangeArray(set.data, n);
        else if (kind == zm::pgRangeArray::ArrayDataTypeScalar)
            writer.scalarArray(set.data, n);
        else
            writer.mixItems(set.data + 1, n - 1);
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
            ZM_ERROR(ZM_SQLSTATE_INVALID_BINARY, __LINE__, "zm_count_scalar_in_int4set",
                     "invalid int4 count to represent a rangearray");
        PG_RETURN_INT32(static_cast<int32_t>(sumRangeWidths(set.data, static_cast<uint32_t>(set.count) / 2)));
    case zm::pgRangeArray::ArrayDataTypeScalar:
        PG_RETURN_INT32(set.count);
    case zm::pgRangeArray::ArrayDataTypeMix:
        PG_RETURN_INT32(set.count > 0 ? set.data[0] : 0);
    default:
        ZM_ERROR(ZM_SQLSTATE_INVALID_BINARY, __LINE__, "zm_count_scalar_in_int4set", "Unsuported input type");
    }
}



// ---- bytea decoders ----
