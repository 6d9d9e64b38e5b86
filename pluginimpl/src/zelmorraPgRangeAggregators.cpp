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

// Memory for an output vector whose first block is the data of the result array: that block goes
// with the array and is never freed on its own; blocks the vector grows into come from palloc
// and go with the memory context.
struct ResultArrayAllocator
{
    static void* allocate(size_t bytes) { return zm::pg::PallocAllocator::allocate(bytes); }
    static void deallocate(void*) {}
    static void diagnostic(const char* line) { zm::pg::PallocAllocator::diagnostic(line); }
    [[noreturn]] static void outOfMemory() { zm::pg::PallocAllocator::outOfMemory(); }
};

using ResultRangeVector = zm::tVectorBase<Range<int>, ResultArrayAllocator>;

// The operation writes its ranges straight into the result array, not into a working vector that
// is then copied: at these sizes the extra block, its first-touch page faults and the copy cost
// about as much as the detoasting of the inputs. Every input range gives at most one output
// range, so room for all of them is enough; the array is not zero-filled, since only the ranges
// written are kept. Inputs too large for that bound get the usual max(A, B) ranges, and a vector
// that outgrows the array is copied into a new one.
template <void (*Operation)(const Range<int>*, const Range<int>*, const Range<int>*, const Range<int>*, ResultRangeVector&)>
Datum computeSetOperation(FunctionCallInfo fcinfo, int line, const char* function)
{
    const Int4ArrayView a = readRangeArrayArgument(fcinfo, 0, line, function);
    const Int4ArrayView b = readRangeArrayArgument(fcinfo, 1, line, function);
    const size_t na = static_cast<size_t>(a.rangeCount()), nb = static_cast<size_t>(b.rangeCount());
    const size_t maxRanges = (MaxAllocSize - ARR_OVERHEAD_NONULLS(1)) / sizeof(Range<int>);
    const size_t room = std::max<size_t>(na + nb <= maxRanges ? na + nb : std::max(na, nb), 1);

    ArrayType* result = zm::pg::allocateResultArray<int32_t, INT4OID>(2 * room, false);
    Range<int>* const arrayRanges = reinterpret_cast<Range<int>*>(zm::pg::int4Data(result));
    ResultRangeVector out{room, 0, arrayRanges};
    Operation(a.rangesBegin(), a.rangesEnd(), b.rangesBegin(), b.rangesEnd(), out);
    if (out.data != arrayRanges)
        PG_RETURN_ARRAYTYPE_P(zm::pg::rangesToArray(out.data, out.size));

    const size_t count = 2 * out.size;
    ARR_DIMS(result)[0] = static_cast<int>(count);
    SET_VARSIZE(result, ARR_OVERHEAD_NONULLS(1) + count * sizeof(int32_t));
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
    return computeSetOperation<zm::pgRangeArray::computeUnion<int, ResultArrayAllocator>>(fcinfo, 80, function);
}

extern "C" Datum zm_int4range_intersection(PG_FUNCTION_ARGS)
{
    if (PG_ARGISNULL(0) || PG_ARGISNULL(1))
        PG_RETURN_NULL();
    return computeSetOperation<zm::pgRangeArray::computeIntersection<int, ResultArrayAllocator>>(fcinfo, 132, "zm_int4range_intersection");
}

extern "C" Datum zm_int4range_exclusion(PG_FUNCTION_ARGS)
{
    const char* const function = "zm_int4range_exclusion";
    if (PG_ARGISNULL(0))
        PG_RETURN_NULL();
    if (PG_ARGISNULL(1))
        return copyRangeArrayArgument(fcinfo, 0, 181, function);
    return computeSetOperation<zm::pgRangeArray::computeExclusion<int, ResultArrayAllocator>>(fcinfo, 201, function);
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
// zm_int4range_op(int2, int4[]): rows of op codes and range arrays evaluated eagerly as one
// parenthesised expression. The evaluation itself is in zelmorraPgSetExpression.h.

#include "zelmorraPgSetExpression.h"

extern "C" {
PG_FUNCTION_INFO_V1(zm_int4range_op_transfn);
PG_FUNCTION_INFO_V1(zm_int4range_op_finalfn);
}

namespace {

struct SetExpressionErrors
{
    [[noreturn]] static void closeRootGroup()
    {
        ZM_ERROR(ZM_SQLSTATE_VALUE_ERROR, __LINE__, "closeGroup", "try to close root parenthesis group");
    }
    [[noreturn]] static void maxDepthReached()
    {
        ZM_ERROR(ZM_SQLSTATE_INVALID_PARAMETER, __LINE__, "addValue", "reach max parenthesis group depth");
    }
    [[noreturn]] static void unknownOperation(int32_t id)
    {
        ZM_ERROR(ZM_SQLSTATE_INVALID_PARAMETER, __LINE__, "addToCurrentGroup", "Unknown operation id %i", id);
    }
    [[noreturn]] static void oddOperandLength()
    {
        ZM_ERROR(ZM_SQLSTATE_DATATYPE_MISMATCH, __LINE__, "addValue", "%s", LENGTH_NOT_EVEN);
    }
};

using Int4RangeOpData = zm::pgRangeArray::Int4RangeOpData<MemoryContext, zm::pg::PallocAllocator>;
using SetExpression = zm::pgRangeArray::SetExpression<MemoryContext, zm::pg::PallocAllocator, SetExpressionErrors>;

// Room for the largest short-header (1-byte length) varlena widened to a 4-byte header.
constexpr size_t SetExpressionScratchSize = VARHDRSZ + 0x7f;

// The operand as an array with a 4-byte header. Short values, the usual form of small arrays read
// from a table, are widened into `scratch` rather than into a palloc'd copy, so that a row of small
// operands allocates nothing; compressed, out-of-line and expanded values are detoasted in the
// current (per-row) memory context.
ArrayType* setExpressionOperand(Datum datum, char* scratch)
{
    struct varlena* value = reinterpret_cast<struct varlena*>(DatumGetPointer(datum));
    // A TOAST pointer also has a 1-byte header: test for it first.
    if (VARATT_IS_SHORT(value) && !VARATT_IS_EXTERNAL(value))
    {
        const size_t payload = VARSIZE_SHORT(value) - VARHDRSZ_SHORT;
        SET_VARSIZE(scratch, payload + VARHDRSZ);
        memcpy(VARDATA(scratch), VARDATA_SHORT(value), payload);
        return reinterpret_cast<ArrayType*>(scratch);
    }
    if (VARATT_IS_EXTENDED(value))
        return reinterpret_cast<ArrayType*>(pg_detoast_datum(value));
    return reinterpret_cast<ArrayType*>(value);
}

// What the server holds as the aggregate's state. The evaluation state's buffers live in its own
// context, which the final function deletes; this holder stays in the aggregate context. A hashed
// aggregate that is rescanned without changed parameters finalises every group again, whatever
// FINALFUNC_MODIFY says, and the second call must find the kept result rather than freed memory.
struct SetExpressionAggState
{
    Int4RangeOpData data;    // first: data.context is the state's own context
    ArrayType* finalResult;  // the result, kept in the aggregate context once finalised
};

static_assert(std::is_trivially_destructible_v<SetExpressionAggState>, "lives across longjmp-raised errors");

SetExpressionAggState* createSetExpressionState(MemoryContext aggregateContext)
{
    SetExpressionAggState* state =
        static_cast<SetExpressionAggState*>(MemoryContextAllocZero(aggregateContext, sizeof(SetExpressionAggState)));
    state->data.context = zm::pg::createStateContext(aggregateContext, "zm_int4range_op_transfn");
    MemoryContext caller = MemoryContextSwitchTo(state->data.context);
    SetExpression::initialise(state->data);
    MemoryContextSwitchTo(caller);
    return state;
}

ArrayType* copySetExpressionResult(const ArrayType* array, MemoryContext context)
{
    ArrayType* copy = static_cast<ArrayType*>(MemoryContextAlloc(context, VARSIZE(array)));
    memcpy(copy, array, VARSIZE(array));
    return copy;
}

}  // namespace

// Non-strict: a NULL operand skips the row, a NULL op code is an error.
extern "C" Datum zm_int4range_op_transfn(PG_FUNCTION_ARGS)
{
    const char* const function = "zm_int4range_op_transfn";
    if (PG_ARGISNULL(1))
        ZM_ERROR(ZM_SQLSTATE_SET_EXPRESSION, __LINE__, function, "null operation is not now allowed");
    MemoryContext aggregateContext = zm::pg::aggregateContext(fcinfo, function);
    SetExpressionAggState* state =
        PG_ARGISNULL(0) ? nullptr : reinterpret_cast<SetExpressionAggState*>(PG_GETARG_POINTER(0));
    if (state == nullptr)
        state = createSetExpressionState(aggregateContext);
    if (PG_ARGISNULL(2))
        PG_RETURN_POINTER(state);

    alignas(8) char scratch[SetExpressionScratchSize];
    const Int4ArrayView operand = zm::pg::viewInt4Array(setExpressionOperand(PG_GETARG_DATUM(2), scratch));
    const int16 opCode = PG_GETARG_INT16(1);

    // Buffers that grow take their storage from the state's context.
    MemoryContext caller = MemoryContextSwitchTo(state->data.context);
    SetExpression::addValue(state->data, opCode, operand.data, operand.count);
    MemoryContextSwitchTo(caller);
    PG_RETURN_POINTER(state);
}

// Deletes the state's context and its buffers; only the holder with the kept result survives, in
// the aggregate context. FINALFUNC_MODIFY = READ_WRITE keeps the server from sharing a state between
// aggregate calls and from using the aggregate over a window.
extern "C" Datum zm_int4range_op_finalfn(PG_FUNCTION_ARGS)
{
    SetExpressionAggState* state =
        PG_ARGISNULL(0) ? nullptr : reinterpret_cast<SetExpressionAggState*>(PG_GETARG_POINTER(0));
    if (state == nullptr)
        PG_RETURN_ARRAYTYPE_P(zm::pg::allocateInt4Array(0));
    if (state->finalResult != nullptr)
        PG_RETURN_ARRAYTYPE_P(copySetExpressionResult(state->finalResult, CurrentMemoryContext));

    // Runs in the caller's context: a buffer that grows here is released with the others below.
    SetExpression::closeAllGroups(state->data);
    const SetExpression::Buffer& root = SetExpression::rootValue(state->data);
    if (root.size > static_cast<size_t>(INT32_MAX / 2))
        ZM_ERROR(ZM_SQLSTATE_VALUE_ERROR, __LINE__, "zm_int4range_op_finalfn", "array overflow ");
    ArrayType* result = zm::pg::rangesToArray(root.data, root.size);
    state->finalResult = copySetExpressionResult(result, GetMemoryChunkContext(state));

    MemoryContext context = state->data.context;
    MemoryContext caller = MemoryContextSwitchTo(context);
    SetExpression::releaseBuffers(state->data);
    MemoryContextSwitchTo(caller);
    MemoryContextDelete(context);
    state->data.context = nullptr;
    PG_RETURN_ARRAYTYPE_P(result);
}


// ---- set aggregates ----


// ---- optimised set aggregate ----
