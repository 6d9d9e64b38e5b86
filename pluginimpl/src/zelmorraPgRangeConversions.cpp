// Conversions: packed ranges, set representation conversion, bitfield building and counting,
// bytea decoders.
#include "zelmorraPgUtils.h"

// ---- packed ranges ----
#include "zelmorraPgPackedRange.h"

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
            ZM_ERROR(ZM_SQLSTATE_INVALID_PARAMETER, __LINE__, "zm_range_pack", "accept only int4[] with a size of 2 ");
        const int32* bounds = zm::pg::int4Data(array);
        lower = bounds[0];
        upper = bounds[1];
    }
    else
        ZM_ERROR(ZM_SQLSTATE_INVALID_PARAMETER, __LINE__, "zm_range_pack", "accept only int4[] with a size of 2 or 2 int4");
    if (lower > upper)
        ZM_ERROR(ZM_SQLSTATE_INVALID_PARAMETER, __LINE__, "zm_range_pack", "invalid range");
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


// ---- bitfield conversion and counting ----


// ---- bytea decoders ----
