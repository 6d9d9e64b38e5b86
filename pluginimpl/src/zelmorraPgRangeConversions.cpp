// Conversions: packed ranges, set representation conversion, bitfield building and counting,
// bytea decoders.
#include "zelmorraPgUtils.h"

// ---- packed ranges ----


// ---- set representation conversion ----
#include "zelmorraPgSetConversion.h"

extern "C" {
#include "miscadmin.h"

PG_FUNCTION_INFO_V1(zm_int4setconv_int4);
PG_FUNCTION_INFO_V1(zm_sort_int4);
}

namespace zm {
namespace pg {
namespace setConversionGlue {

struct ServerInterrupts
{
    static void check() { CHECK_FOR_INTERRUPTS(); }
};

// Largest int4[] the server can allocate in one piece.
constexpr size_t maxInt4ArrayLength = (MaxAllocSize - ARR_OVERHEAD_NONULLS(1)) / sizeof(int32_t);

[[noreturn]] void raiseStatus(setConversion::Status status, int line, const char* function)
{
    const int sqlstate = status == setConversion::Status::OddRangeCount ? ZM_SQLSTATE_INVALID_BINARY : ZM_SQLSTATE_VALUE_ERROR;
    raiseError(sqlstate, __FILE__, line, function, "%s", setConversion::statusMessage(status));
}

ArrayType* checkedInt4Argument(FunctionCallInfo fcinfo, int argument, const char* function)
{
    ArrayType* array = PG_GETARG_ARRAYTYPE_P(argument);
    if (ARR_ELEMTYPE(array) != INT4OID)
        ZM_ERROR(ZM_SQLSTATE_INVALID_PARAMETER, __LINE__, function, "accept only int4[]");
    return array;
}

template <typename Vector>
ArrayType* finishVector(Vector& out, setConversion::Status status, const char* function)
{
    if (status != setConversion::Status::Ok)
    {
        out.release();
        raiseStatus(status, __LINE__, function);
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
    const char* const function = "zm_int4setconv_int4";
    if (PG_ARGISNULL(0) || PG_ARGISNULL(1) || PG_ARGISNULL(2))
        PG_RETURN_NULL();
    const auto from = zm::pgRangeArray::ArrayDataTypeFromChar(PG_GETARG_CHAR(0));
    const auto to = zm::pgRangeArray::ArrayDataTypeFromChar(PG_GETARG_CHAR(2));
    ArrayType* array = checkedInt4Argument(fcinfo, 1, function);
    if (from == to)
        ZM_ERROR(ZM_SQLSTATE_INVALID_BINARY, __LINE__, function, "unsuported conversion");
    const Int4ArrayView input = viewInt4Array(array);
    const size_t count = static_cast<size_t>(input.count);

    ArrayType* result = nullptr;
    auto makeOutput = [&result](size_t n) {
        result = allocateInt4Array(n);
        return int4Data(result);
    };
    if (from == zm::pgRangeArray::ArrayDataTypeScalar && to == zm::pgRangeArray::ArrayDataTypeRange)
    {
        RangeVector out;
        out.init(zm::setConversion::initialCapacity);
        const Status status = zm::setConversion::scalarToRanges(input.data, count, out);
        result = finishVector(out, status, function);
    }
    else if (from == zm::pgRangeArray::ArrayDataTypeScalar)
    {
        Int4Vector out;
        out.init(std::max(zm::setConversion::initialCapacity, count / 2 + 2));
        const Status status = zm::setConversion::scalarToMix(input.data, count, out);
        result = finishVector(out, status, function);
    }
    else if (from == zm::pgRangeArray::ArrayDataTypeRange && to == zm::pgRangeArray::ArrayDataTypeScalar)
    {
        const Status status = zm::setConversion::rangesToScalars<ServerInterrupts>(input.data, count, makeOutput);
        if (status != Status::Ok)
            raiseStatus(status, __LINE__, function);
    }
    else if (from == zm::pgRangeArray::ArrayDataTypeRange)
    {
        Int4Vector out;
        out.init(zm::setConversion::initialCapacity);
        const Status status = zm::setConversion::rangesToMix(input.data, count, out);
        result = finishVector(out, status, function);
    }
    else if (to == zm::pgRangeArray::ArrayDataTypeScalar)
    {
        const Status status =
            zm::setConversion::mixToScalars<ServerInterrupts>(input.data, count, maxInt4ArrayLength, makeOutput);
        if (status != Status::Ok)
            raiseStatus(status, __LINE__, function);
    }
    else
    {
        RangeVector out;
        out.init(zm::setConversion::initialCapacity);
        const Status status = zm::setConversion::mixToRanges(input.data, count, out);
        result = finishVector(out, status, function);
    }
    PG_RETURN_ARRAYTYPE_P(result);
}

// Sorts an int4[] ascending, duplicates kept.
extern "C" Datum zm_sort_int4(PG_FUNCTION_ARGS)
{
    using namespace zm::pg;
    const char* const function = "zm_sort_int4";
    if (PG_ARGISNULL(0))
        PG_RETURN_NULL();
    ArrayType* array = setConversionGlue::checkedInt4Argument(fcinfo, 0, function);
    const Int4ArrayView input = viewInt4Array(array);
    const size_t n = static_cast<size_t>(input.count);
    ArrayType* result = allocateInt4Array(n);
    if (n)
    {
        int32_t* scratch = static_cast<int32_t*>(PallocAllocator::allocate(n * sizeof(int32_t)));
        zm::setConversion::sortInt4<setConversionGlue::ServerInterrupts>(input.data, int4Data(result), scratch, n);
        pfree(scratch);
    }
    PG_RETURN_ARRAYTYPE_P(result);
}

// ---- bitfield conversion and counting ----


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
    if (bytes % sizeof(float4) != 0)
        ZM_ERROR(ZM_SQLSTATE_INVALID_BINARY, __LINE__, "zm_bytea2floatarray", "invalid byte count to represent a float array");
    ArrayType* result = zm::pg::allocateResultArray<float4, FLOAT4OID>(bytes / sizeof(float4));
    if (bytes)
        memcpy(ARR_DATA_PTR(result), VARDATA(payload), bytes);
    PG_RETURN_ARRAYTYPE_P(result);
}

// A bytea holding the int4 elements of a mix array (machine byte order) as the range array of its
// items, in item order; element 0, the count, is skipped.
extern "C" Datum zm_bytea2mix2rangearray(PG_FUNCTION_ARGS)
{
    using zm::setConversion::Status;
    const char* const function = "zm_bytea2mix2rangearray";
    if (PG_ARGISNULL(0))
        PG_RETURN_NULL();
    bytea* payload = PG_GETARG_BYTEA_P(0);
    const size_t bytes = VARSIZE(payload) - VARHDRSZ;
    if (bytes % sizeof(int32_t) != 0)
        ZM_ERROR(ZM_SQLSTATE_INVALID_BINARY, __LINE__, function, "invalid byte count to represent an int4 mixarray");
    const size_t count = bytes / sizeof(int32_t);
    // A detoasted bytea's data is int-aligned; copy it in the unexpected case that it is not.
    const int32_t* elements = reinterpret_cast<const int32_t*>(VARDATA(payload));
    int32_t* aligned = nullptr;
    if (count && reinterpret_cast<uintptr_t>(elements) % alignof(int32_t) != 0)
    {
        aligned = static_cast<int32_t*>(zm::pg::PallocAllocator::allocate(bytes));
        memcpy(aligned, VARDATA(payload), bytes);
        elements = aligned;
    }
    zm::pg::RangeVector out;
    out.init(zm::setConversion::initialCapacity);
    const Status status = zm::setConversion::mixToRanges(elements, count, out);
    if (aligned)
        pfree(aligned);
    if (status != Status::Ok)
    {
        out.release();
        ZM_ERROR(ZM_SQLSTATE_VALUE_ERROR, __LINE__, function, "%s", zm::setConversion::statusMessage(status));
    }
    ArrayType* result = zm::pg::rangesToArray(out.data, out.size);
    out.release();
    PG_RETURN_ARRAYTYPE_P(result);
}
