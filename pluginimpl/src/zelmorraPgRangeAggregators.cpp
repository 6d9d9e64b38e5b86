// Range-array set operators and the aggregates built on the range algorithms.
#include "zelmorraPgUtils.h"
#include "zelmorraPgSetExpression.h"
#include "zelmorraPgSetAggregate.h"
#include "zelmorraPgBitFieldServer.h"

extern "C" {
#include "miscadmin.h"
#include "nodes/primnodes.h"
}

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

namespace site = zm::pg::site;
using zm::pg::ErrorSite;

// Reads a range-array argument; an odd element count is the caller's error site.
Int4ArrayView readRangeArrayArgument(FunctionCallInfo fcinfo, int argument, const ErrorSite& odd)
{
    Int4ArrayView view = zm::pg::viewInt4Array(PG_GETARG_ARRAYTYPE_P(argument));
    if (view.count % 2 != 0)
        zm::pg::raiseWithDetail(odd, ZM_ODD_RANGE_ARRAY_DETAIL, argument + 1, view.count);
    return view;
}

// The result when one argument of union or exclusion is NULL: the other one, copied as given.
Datum copyRangeArrayArgument(FunctionCallInfo fcinfo, int argument, const ErrorSite& odd)
{
    Int4ArrayView view = readRangeArrayArgument(fcinfo, argument, odd);
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
Datum computeSetOperation(FunctionCallInfo fcinfo, const ErrorSite& odd)
{
    const Int4ArrayView a = readRangeArrayArgument(fcinfo, 0, odd);
    const Int4ArrayView b = readRangeArrayArgument(fcinfo, 1, odd);
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
    if (PG_ARGISNULL(0) && PG_ARGISNULL(1))
        PG_RETURN_NULL();
    if (PG_ARGISNULL(0))
        return copyRangeArrayArgument(fcinfo, 1, site::unionOddOneNull);
    if (PG_ARGISNULL(1))
        return copyRangeArrayArgument(fcinfo, 0, site::unionOddOneNull);
    return computeSetOperation<zm::pgRangeArray::computeUnion<int, ResultArrayAllocator>>(fcinfo, site::unionOdd);
}

extern "C" Datum zm_int4range_intersection(PG_FUNCTION_ARGS)
{
    if (PG_ARGISNULL(0) || PG_ARGISNULL(1))
        PG_RETURN_NULL();
    return computeSetOperation<zm::pgRangeArray::computeIntersection<int, ResultArrayAllocator>>(fcinfo, site::intersectionOdd);
}

extern "C" Datum zm_int4range_exclusion(PG_FUNCTION_ARGS)
{
    if (PG_ARGISNULL(0))
        PG_RETURN_NULL();
    if (PG_ARGISNULL(1))
        return copyRangeArrayArgument(fcinfo, 0, site::exclusionOddOneNull);
    return computeSetOperation<zm::pgRangeArray::computeExclusion<int, ResultArrayAllocator>>(fcinfo, site::exclusionOdd);
}

extern "C" Datum zm_int4range_is_strictly_include(PG_FUNCTION_ARGS)
{
    if (PG_ARGISNULL(0) || PG_ARGISNULL(1))
        PG_RETURN_NULL();
    const Int4ArrayView a = readRangeArrayArgument(fcinfo, 0, site::strictlyIncludeOdd);
    const Int4ArrayView b = readRangeArrayArgument(fcinfo, 1, site::strictlyIncludeOdd);
    PG_RETURN_BOOL((zm::pgRangeArray::isStrictlyIncluded<int, zm::pg::ServerInterruptCheck>(a.rangesBegin(), a.rangesEnd(), b.rangesBegin(), b.rangesEnd())));
}

extern "C" Datum zm_int4range_is_overlap(PG_FUNCTION_ARGS)
{
    if (PG_ARGISNULL(0) || PG_ARGISNULL(1))
        PG_RETURN_NULL();
    const Int4ArrayView a = readRangeArrayArgument(fcinfo, 0, site::isOverlapOdd);
    const Int4ArrayView b = readRangeArrayArgument(fcinfo, 1, site::isOverlapOdd);
    PG_RETURN_BOOL((zm::pgRangeArray::isOverlapping<int, zm::pg::ServerInterruptCheck>(a.rangesBegin(), a.rangesEnd(), b.rangesBegin(), b.rangesEnd())));
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
        default: break;
    }
    const unsigned char byte = static_cast<unsigned char>(letter);
    if (byte == 0)
        pg::raiseWithDetail(pg::site::kindLetter, "%s", "Received no letter (NULL or an empty \"char\").");
    if (byte < 0x20 || byte >= 0x7f)
        pg::raiseWithDetail(pg::site::kindLetter, "Received the byte 0x%02x.", byte);
    pg::raiseWithDetail(pg::site::kindLetter, "Received '%c'; letters are case-sensitive.", letter);
}

}  // namespace pgRangeArray
}  // namespace zm

// ---- set-expression aggregate ----
// zm_int4range_op(int2, int4[]): rows of op codes and range arrays evaluated eagerly as one
// parenthesised expression. The evaluation itself is in zelmorraPgSetExpression.h.

extern "C" {
PG_FUNCTION_INFO_V1(zm_int4range_op_transfn);
PG_FUNCTION_INFO_V1(zm_int4range_op_finalfn);
}

namespace {

struct SetExpressionErrors
{
    [[noreturn]] static void closeRootGroup()
    {
        zm::pg::raise(site::closeRootGroup);
    }
    [[noreturn]] static void maxDepthReached()
    {
        zm::pg::raise(site::maxGroupDepth);
    }
    [[noreturn]] static void unknownOperation(int32_t id)
    {
        zm::pg::raise(site::unknownOperation, id);
    }
    [[noreturn]] static void oddOperandLength(int32_t count)
    {
        zm::pg::raiseWithDetail(site::oddOperand, ZM_ODD_RANGE_ARRAY_DETAIL, 2, count);
    }
};

// A call without ORDER BY inside its parentheses applies the rows in the order the plan delivers
// them, which is rarely what an expression of groups needs: its errors say so, and how to fix it.
void hintRowOrder(void*)
{
    const int code = geterrcode();
    if (code == ERRCODE_QUERY_CANCELED || code == zm::pg::outOfMemory)
        return;
    errhint("zm_int4range_op applies its rows in the order they arrive, which the plan chooses; order them inside "
            "the call: zm_int4range_op(op, operand ORDER BY ...).");
}

// Installs hintRowOrder for the errors of this call when the aggregate has no ORDER BY; the
// server's error recovery drops it with the rest of the error context stack.
struct RowOrderHint
{
    ErrorContextCallback callback;
    bool installed;

    void install(FunctionCallInfo fcinfo)
    {
        const Aggref* aggref = AggGetAggref(fcinfo);
        installed = aggref != nullptr && aggref->aggorder == NIL;
        if (!installed)
            return;
        callback.callback = hintRowOrder;
        callback.arg = nullptr;
        callback.previous = error_context_stack;
        error_context_stack = &callback;
    }
    void remove()
    {
        if (installed)
            error_context_stack = callback.previous;
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
    MemoryContext aggregateContext = zm::pg::aggregateContext(fcinfo, function);
    RowOrderHint hint;
    hint.install(fcinfo);
    if (PG_ARGISNULL(1))
        zm::pg::raise(site::nullOperation);
    SetExpressionAggState* state =
        PG_ARGISNULL(0) ? nullptr : reinterpret_cast<SetExpressionAggState*>(PG_GETARG_POINTER(0));
    if (state == nullptr)
        state = createSetExpressionState(aggregateContext);
    if (PG_ARGISNULL(2))
    {
        hint.remove();
        PG_RETURN_POINTER(state);
    }

    alignas(8) char scratch[SetExpressionScratchSize];
    const Int4ArrayView operand = zm::pg::viewInt4Array(setExpressionOperand(PG_GETARG_DATUM(2), scratch));
    const int16 opCode = PG_GETARG_INT16(1);

    // Buffers that grow take their storage from the state's context.
    MemoryContext caller = MemoryContextSwitchTo(state->data.context);
    SetExpression::addValue(state->data, opCode, operand.data, operand.count);
    MemoryContextSwitchTo(caller);
    hint.remove();
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
    RowOrderHint hint;
    hint.install(fcinfo);
    SetExpression::closeAllGroups(state->data);
    const SetExpression::Buffer& root = SetExpression::rootValue(state->data);
    if (root.size > static_cast<size_t>(INT32_MAX / 2))
        zm::pg::raiseWithDetail(site::setExpressionOverflow, ZM_OVERSIZED_DETAIL, 2 * static_cast<uint64_t>(root.size));
    ArrayType* result = zm::pg::rangesToArray(root.data, root.size);
    hint.remove();
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

// zm_int4set_agg: int4 values, lower/upper pairs or whole sets from many rows into one set, kept
// as a sorted list of disjoint ranges (state logic in zelmorraPgSetAggregate.h).

extern "C" {
PG_FUNCTION_INFO_V1(zm_int4set_agg_transfn_A);
PG_FUNCTION_INFO_V1(zm_int4set_agg_transfn_B);
PG_FUNCTION_INFO_V1(zm_int4set_agg_finalfn);
PG_FUNCTION_INFO_V1(zm_int4set_agg_combinefn);
PG_FUNCTION_INFO_V1(zm_int4set_agg_serialfn);
PG_FUNCTION_INFO_V1(zm_int4set_agg_deserialfn);
}

namespace zm {
namespace pg {

using Int4ToSetOpDataSet = Int4ToSetOpDataSetBase<PallocAllocator, ServerInterruptCheck>;
static_assert(std::is_trivially_destructible_v<Int4ToSetOpDataSet>, "states live across longjmp");

}  // namespace pg
}  // namespace zm

namespace {

using zm::SetAggStatus;
using zm::pg::Int4ToSetOpDataSet;

// Reports a failed state operation; called after the caller's memory context is restored.
// `rowElements` is the element count of the row's set (for an odd range array).
[[noreturn]] void raiseSetAggStatus(SetAggStatus status, int32_t rowElements = 0)
{
    switch (status)
    {
        case SetAggStatus::NotRangeArray: zm::pg::raiseWithDetail(site::setAggNotRangeArray, ZM_ODD_RANGE_ARRAY_DETAIL, 2, rowElements);
        case SetAggStatus::NotImplemented: zm::pg::raise(site::setAggNotImplemented);
        case SetAggStatus::CombineMismatch: zm::pg::raise(site::combineMismatch);
        case SetAggStatus::EmptyBytea: zm::pg::raise(site::setAggEmptyBytea);
        case SetAggStatus::EmptyRangeArray: zm::pg::raise(site::setAggEmptyRangeArray);
        case SetAggStatus::InvalidRangeArraySize: zm::pg::raise(site::setAggInvalidSize);
        case SetAggStatus::DanglingOpener: zm::pg::raiseWithDetail(site::setAggDanglingOpener, ZM_DANGLING_OPENER_DETAIL, 2);
        case SetAggStatus::Ok: break;
    }
    pg_unreachable();
}

bool argumentGiven(FunctionCallInfo fcinfo, int n) { return n < PG_NARGS() && !PG_ARGISNULL(n); }

// A "char" argument (its low byte); a NULL letter reads as 0 and is refused as a kind letter.
char letterArgument(FunctionCallInfo fcinfo, int n)
{
    return argumentGiven(fcinfo, n) ? DatumGetChar(PG_GETARG_DATUM(n)) : '\0';
}

Int4ToSetOpDataSet* setStateArgument(FunctionCallInfo fcinfo, int n)
{
    return PG_ARGISNULL(n) ? nullptr : reinterpret_cast<Int4ToSetOpDataSet*>(PG_GETARG_POINTER(n));
}

// A fresh state in a memory context of its own under the aggregate context, named after the
// function that makes it.
Int4ToSetOpDataSet* newSetState(MemoryContext aggregate, const char* contextName, bool rowsFollow)
{
    MemoryContext own = zm::pg::createStateContext(aggregate, contextName);
    MemoryContext caller = MemoryContextSwitchTo(own);
    Int4ToSetOpDataSet* state = static_cast<Int4ToSetOpDataSet*>(palloc0(sizeof(Int4ToSetOpDataSet)));
    state->init(own, rowsFollow);
    MemoryContextSwitchTo(caller);
    return state;
}

// Merges buffered rows (compact: and frees the buffer); allocation happens in the state's context.
void flushSetState(Int4ToSetOpDataSet* state, bool compact = false)
{
    MemoryContext caller = MemoryContextSwitchTo(static_cast<MemoryContext>(state->memoryContext));
    if (compact)
        state->compact();
    else
        state->flush();
    MemoryContextSwitchTo(caller);
}

// Shared body of both transition entry points; `letterGivesInput` is true for variant B.
Datum int4SetAggTransition(FunctionCallInfo fcinfo, bool letterGivesInput)
{
    MemoryContext aggregate = zm::pg::aggregateContext(fcinfo, "zm_int4set_agg_transfn");
    Int4ToSetOpDataSet* state = setStateArgument(fcinfo, 0);
    if (state == nullptr)
        state = newSetState(aggregate, "zm_int4set_agg_transfn", true);

    if (state->inputType == zm::pgRangeArray::ArrayDataTypeUninitialised)
    {
        const int nargs = PG_NARGS();
        const int32_t input = letterGivesInput ? zm::pgRangeArray::ArrayDataTypeFromChar(letterArgument(fcinfo, 1))
                                               : (nargs == 3 ? zm::pgRangeArray::ArrayDataTypeSingleValue : zm::pgRangeArray::ArrayDataTypeLowerUpperPair);
        const int32_t output = zm::pgRangeArray::ArrayDataTypeFromChar(letterArgument(fcinfo, nargs == 3 ? 2 : 3));
        state->inputType = input;
        state->outputType = output;
    }

    // Arrays are detoasted in the caller's (per-row) context so that the copies do not pile up in
    // the state's context.
    const int32_t input = state->inputType;
    zm::pg::Int4ArrayView set{nullptr, 0, false};
    const bool isSetRow = input == zm::pgRangeArray::ArrayDataTypeScalar || input == zm::pgRangeArray::ArrayDataTypeRange || input == zm::pgRangeArray::ArrayDataTypeMix;
    if (isSetRow && argumentGiven(fcinfo, 2))
        set = zm::pg::viewInt4Array(zm::pg::detoastArray(PG_GETARG_DATUM(2)));

    SetAggStatus status = SetAggStatus::Ok;
    MemoryContext caller = MemoryContextSwitchTo(static_cast<MemoryContext>(state->memoryContext));
    switch (input)
    {
        case zm::pgRangeArray::ArrayDataTypeSingleValue:
            if (argumentGiven(fcinfo, 1))
                state->addValue(PG_GETARG_INT32(1));
            break;
        case zm::pgRangeArray::ArrayDataTypeLowerUpperPair:
            if (argumentGiven(fcinfo, 1) && argumentGiven(fcinfo, 2))
                state->addRange(PG_GETARG_INT32(1), PG_GETARG_INT32(2));
            break;
        case zm::pgRangeArray::ArrayDataTypeScalar:
            state->addScalarArray(set.data, static_cast<size_t>(set.count));
            break;
        case zm::pgRangeArray::ArrayDataTypeRange:
            status = state->addRangeArray(set.data, static_cast<size_t>(set.count));
            break;
        case zm::pgRangeArray::ArrayDataTypeMix:
            status = state->addMixArray(set.data, static_cast<size_t>(set.count));
            break;
        default:
            status = SetAggStatus::NotImplemented;
            break;
    }
    MemoryContextSwitchTo(caller);
    if (status != SetAggStatus::Ok)
        raiseSetAggStatus(status, set.count);
    PG_RETURN_POINTER(state);
}

}  // namespace

extern "C" Datum zm_int4set_agg_transfn_A(PG_FUNCTION_ARGS) { return int4SetAggTransition(fcinfo, false); }

extern "C" Datum zm_int4set_agg_transfn_B(PG_FUNCTION_ARGS) { return int4SetAggTransition(fcinfo, true); }

// Builds the result in the caller's context. The state is not destroyed here: a hashed aggregate
// that is rescanned without new input finalises every group again, whatever FINALFUNC_MODIFY says,
// and must find the state intact. Deleting it earlier would not lower the peak
// either: a hashed aggregate holds every group's state until it finalises the first one, and a
// sorted one resets the aggregate context between groups.
extern "C" Datum zm_int4set_agg_finalfn(PG_FUNCTION_ARGS)
{
    Int4ToSetOpDataSet* state = setStateArgument(fcinfo, 0);
    if (state == nullptr)
        PG_RETURN_ARRAYTYPE_P(zm::pg::allocateInt4Array(0));
    flushSetState(state, true);

    ArrayType* result = nullptr;
    switch (state->outputType)
    {
        case zm::pgRangeArray::ArrayDataTypeRange:
        {
            if (state->ranges.size > static_cast<size_t>(INT32_MAX) / 2)
                zm::pg::raiseWithDetail(site::setAggRangeOverflow, ZM_OVERSIZED_DETAIL, 2 * static_cast<uint64_t>(state->ranges.size));
            result = zm::pg::rangesToArray(state->ranges.data, state->ranges.size);
            break;
        }
        case zm::pgRangeArray::ArrayDataTypeScalar:
        case zm::pgRangeArray::ArrayDataTypeMix:
        {
            const bool scalar = state->outputType == zm::pgRangeArray::ArrayDataTypeScalar;
            const uint64_t count = scalar ? state->scalarCount() : state->mixElementCount();
            if (count > static_cast<uint64_t>(INT32_MAX))
                zm::pg::raiseWithDetail(site::setAggOverflow, ZM_OVERSIZED_DETAIL, count);
            result = zm::pg::allocateInt4ArrayForOverwrite(static_cast<size_t>(count));
            if (scalar)
                state->writeScalar(zm::pg::int4Data(result));
            else
                state->writeMix(zm::pg::int4Data(result));
            break;
        }
        default:
            zm::pg::raise(site::setAggFinalNotImplemented);
    }

    // The state stays for the aggregate's memory context to reclaim: see the comment above.
    PG_RETURN_ARRAYTYPE_P(result);
}

// A fresh state holding the union of both arguments; neither argument is changed.
extern "C" Datum zm_int4set_agg_combinefn(PG_FUNCTION_ARGS)
{
    MemoryContext aggregate = zm::pg::aggregateContext(fcinfo, "zm_int4set_agg_combinefn");
    Int4ToSetOpDataSet* state = newSetState(aggregate, "zm_int4set_agg_combinefn", false);
    Int4ToSetOpDataSet* first = setStateArgument(fcinfo, 0);
    Int4ToSetOpDataSet* second = setStateArgument(fcinfo, 1);
    if (first != nullptr)
        flushSetState(first);
    if (second != nullptr)
        flushSetState(second);
    MemoryContext caller = MemoryContextSwitchTo(static_cast<MemoryContext>(state->memoryContext));
    const SetAggStatus status = state->addOtherCtxPair(first, second);
    MemoryContextSwitchTo(caller);
    if (status != SetAggStatus::Ok)
        raiseSetAggStatus(status);
    PG_RETURN_POINTER(state);
}

// bytea: input type byte, output type byte, then the ranges as int32 lower, upper pairs.
extern "C" Datum zm_int4set_agg_serialfn(PG_FUNCTION_ARGS)
{
    Int4ToSetOpDataSet* state = setStateArgument(fcinfo, 0);
    if (state == nullptr)
        PG_RETURN_NULL();
    flushSetState(state, true);
    // A state without ranges travels as NULL: its six-byte form would be refused by the deserial
    // function, failing a parallel plan whose worker saw only NULL or empty sets for a group, and it
    // adds nothing to the union.
    if (state->ranges.size == 0)
        PG_RETURN_NULL();
    bytea* result = zm::pg::allocateBytea(state->serialisedSize());
    state->toBytes(reinterpret_cast<uint8_t*>(VARDATA(result)));
    PG_RETURN_BYTEA_P(result);
}

extern "C" Datum zm_int4set_agg_deserialfn(PG_FUNCTION_ARGS)
{
    MemoryContext aggregate = zm::pg::aggregateContext(fcinfo, "zm_int4set_agg_deserialfn");
    Int4ToSetOpDataSet* state = newSetState(aggregate, "zm_int4set_agg_deserialfn", false);
    if (PG_ARGISNULL(0))
        PG_RETURN_POINTER(state);
    bytea* bytes = reinterpret_cast<bytea*>(PG_DETOAST_DATUM(PG_GETARG_DATUM(0)));
    MemoryContext caller = MemoryContextSwitchTo(static_cast<MemoryContext>(state->memoryContext));
    const SetAggStatus status =
        state->fromBytes(reinterpret_cast<const uint8_t*>(VARDATA(bytes)), VARSIZE(bytes) - VARHDRSZ);
    MemoryContextSwitchTo(caller);
    if (status != SetAggStatus::Ok)
        raiseSetAggStatus(status);
    PG_RETURN_POINTER(state);
}

// ---- optimised set aggregate ----

// zm_int4set_agg_optimized: the same job for values known to lie in 0..maxinput, on a bitfield
// sized once on the first row (state logic in zelmorraPgSetAggregate.h).

extern "C" {
PG_FUNCTION_INFO_V1(zm_int4set_agg_optimized_transfn_A);
PG_FUNCTION_INFO_V1(zm_int4set_agg_optimized_transfn_B);
PG_FUNCTION_INFO_V1(zm_int4set_agg_optimized_finalfn);
PG_FUNCTION_INFO_V1(zm_int4set_agg_optimized_combinefn);
PG_FUNCTION_INFO_V1(zm_int4set_agg_optimized_serialfn);
PG_FUNCTION_INFO_V1(zm_int4set_agg_optimized_deserialfn);
}

namespace zm {
namespace pg {

using Int4ToSetOpDataOptimized = Int4ToSetOpDataOptimizedBase<BitFieldPallocAllocator, BitFieldErrorReport, ServerInterruptCheck>;
static_assert(std::is_trivially_destructible_v<Int4ToSetOpDataOptimized>, "states live across longjmp");
static_assert(offsetof(Int4ToSetOpDataOptimized, pending) == 40, "context, two types, capacity, size, data, fill");

}  // namespace pg
}  // namespace zm

namespace {

using zm::OptimizedAggStatus;
using zm::pg::Int4ToSetOpDataOptimized;

// Reports a failed state operation; called after the caller's memory context is restored.
// `value` is the offending single value, `top` the largest accepted value, `rowElements` the
// element count of the row's set (for an odd range array).
[[noreturn]] void raiseOptimizedStatus(OptimizedAggStatus status, int32_t value, int32_t top, int32_t rowElements = 0)
{
    switch (status)
    {
        case OptimizedAggStatus::InvalidMaxInput: zm::pg::raise(site::optimizedMaxInput);
        case OptimizedAggStatus::ValueOutOfRange: zm::pg::raise(site::optimizedValueOutOfRange, value, top);
        case OptimizedAggStatus::RangeOutOfRange: zm::pg::raise(site::optimizedRangeOutOfRange, top);
        case OptimizedAggStatus::ScalarOutOfRange: zm::pg::raise(site::optimizedScalarOutOfRange, top);
        case OptimizedAggStatus::NotRangeArray:
            zm::pg::raiseWithDetail(site::optimizedNotRangeArray, ZM_ODD_RANGE_ARRAY_DETAIL, 3, rowElements);
        case OptimizedAggStatus::NotImplemented: zm::pg::raise(site::optimizedNotImplemented);
        case OptimizedAggStatus::DanglingOpener: zm::pg::raiseWithDetail(site::optimizedDanglingOpener, ZM_DANGLING_OPENER_DETAIL, 3);
        case OptimizedAggStatus::CombineMismatch: zm::pg::raise(site::combineMismatch);
        case OptimizedAggStatus::EmptyBytea: zm::pg::raise(site::optimizedEmptyBytea);
        case OptimizedAggStatus::Corrupted: zm::pg::raise(site::optimizedCorrupted);
        case OptimizedAggStatus::Ok: break;
    }
    pg_unreachable();
}

Int4ToSetOpDataOptimized* optimizedStateArgument(FunctionCallInfo fcinfo, int n)
{
    return PG_ARGISNULL(n) ? nullptr : reinterpret_cast<Int4ToSetOpDataOptimized*>(PG_GETARG_POINTER(n));
}

Int4ToSetOpDataOptimized* newOptimizedState(MemoryContext aggregate, const char* contextName)
{
    MemoryContext own = zm::pg::createStateContext(aggregate, contextName);
    Int4ToSetOpDataOptimized* state =
        static_cast<Int4ToSetOpDataOptimized*>(MemoryContextAllocZero(own, sizeof(Int4ToSetOpDataOptimized)));
    state->init(own);
    return state;
}

// One row into the state. Arguments: (value | lower, upper | input letter, set), maxinput, output
// letter. The first row fixes maxinput, the input form and the output letter: maxinput <= 0, or a
// NULL third argument, is refused; the bitfield is sized for 0 .. maxinput once. Every row then sets
// the bits of its value, range or set; values outside the bitfield are errors (a set row adds what
// lies inside first).
void addOptimizedRow(Int4ToSetOpDataOptimized* state, FunctionCallInfo fcinfo, bool letterGivesInput)
{
    const int nargs = PG_NARGS();
    const int maxInputAt = nargs == 4 ? 2 : 3;
    if (state->inputType == zm::pgRangeArray::ArrayDataTypeUninitialised)
    {
        // The NULL test looks at argument 2 whatever the form, so a NULL upper bound or set on the
        // first row reads as a missing maxinput too.
        const int32_t maxInput = argumentGiven(fcinfo, maxInputAt) ? PG_GETARG_INT32(maxInputAt) : 0;
        if (maxInput <= 0 || PG_ARGISNULL(2))
            raiseOptimizedStatus(OptimizedAggStatus::InvalidMaxInput, 0, 0);
        const int32_t input = letterGivesInput ? zm::pgRangeArray::ArrayDataTypeFromChar(letterArgument(fcinfo, 1))
                                               : (nargs == 4 ? zm::pgRangeArray::ArrayDataTypeSingleValue : zm::pgRangeArray::ArrayDataTypeLowerUpperPair);
        const int32_t output = zm::pgRangeArray::ArrayDataTypeFromChar(letterArgument(fcinfo, maxInputAt + 1));
        MemoryContext caller = MemoryContextSwitchTo(static_cast<MemoryContext>(state->memoryContext));
        state->sizeFor(maxInput);
        MemoryContextSwitchTo(caller);
        state->inputType = input;
        state->outputType = output;
    }

    // Rows never allocate in the state: no context switch. Arrays are detoasted in the per-row
    // context.
    OptimizedAggStatus status = OptimizedAggStatus::Ok;
    int32_t value = 0;
    int32_t rowElements = 0;
    const int32_t input = state->inputType;
    if (input == zm::pgRangeArray::ArrayDataTypeSingleValue)
    {
        if (argumentGiven(fcinfo, 1))
        {
            value = PG_GETARG_INT32(1);
            status = state->addValue(value);
        }
    }
    else if (input == zm::pgRangeArray::ArrayDataTypeLowerUpperPair)
    {
        if (argumentGiven(fcinfo, 1) && argumentGiven(fcinfo, 2))
            status = state->addRange(PG_GETARG_INT32(1), PG_GETARG_INT32(2));
    }
    else if (input == zm::pgRangeArray::ArrayDataTypeScalar || input == zm::pgRangeArray::ArrayDataTypeRange || input == zm::pgRangeArray::ArrayDataTypeMix)
    {
        if (argumentGiven(fcinfo, 2))
        {
            const zm::pg::Int4ArrayView set = zm::pg::viewInt4Array(zm::pg::detoastArray(PG_GETARG_DATUM(2)));
            rowElements = set.count;
            const size_t count = static_cast<size_t>(set.count);
            if (input == zm::pgRangeArray::ArrayDataTypeScalar)
                status = state->addScalarArray(set.data, count);
            else if (input == zm::pgRangeArray::ArrayDataTypeRange)
                status = state->addRangeArray(set.data, count);
            else
                status = state->addMixArray(set.data, count);
        }
    }
    else
        status = OptimizedAggStatus::NotImplemented;
    if (status != OptimizedAggStatus::Ok)
        raiseOptimizedStatus(status, value, state->maxAccepted(), rowElements);
}

Datum zm_int4set_agg_optimized_transfn_impl(FunctionCallInfo fcinfo, bool letterGivesInput)
{
    MemoryContext aggregate = zm::pg::aggregateContext(fcinfo, "zm_int4set_agg_optimized_transfn_impl");
    Int4ToSetOpDataOptimized* state = optimizedStateArgument(fcinfo, 0);
    if (state == nullptr)
        state = newOptimizedState(aggregate, "zm_int4set_agg_optimized_transfn_impl");
    addOptimizedRow(state, fcinfo, letterGivesInput);
    PG_RETURN_POINTER(state);
}

}  // namespace

extern "C" Datum zm_int4set_agg_optimized_transfn_A(PG_FUNCTION_ARGS)
{
    return zm_int4set_agg_optimized_transfn_impl(fcinfo, false);
}

extern "C" Datum zm_int4set_agg_optimized_transfn_B(PG_FUNCTION_ARGS)
{
    return zm_int4set_agg_optimized_transfn_impl(fcinfo, true);
}

// Builds the result in the caller's context; the state is left intact, as for zm_int4set_agg.
extern "C" Datum zm_int4set_agg_optimized_finalfn(PG_FUNCTION_ARGS)
{
    Int4ToSetOpDataOptimized* state = optimizedStateArgument(fcinfo, 0);
    if (state == nullptr)
        PG_RETURN_ARRAYTYPE_P(zm::pg::allocateInt4Array(0));
    state->flush();

    uint64_t count = 0;
    switch (state->outputType)
    {
        case zm::pgRangeArray::ArrayDataTypeScalar:
            count = state->bitCount();
            break;
        case zm::pgRangeArray::ArrayDataTypeRange:
            count = 2 * state->runCount();
            break;
        case zm::pgRangeArray::ArrayDataTypeMix:
            count = state->mixElementCount();
            break;
        default:
            zm::pg::raise(site::optimizedFinalNotImplemented);
    }
    if (count > static_cast<uint64_t>(INT32_MAX))
        zm::pg::raiseWithDetail(site::optimizedOverflow, ZM_OVERSIZED_DETAIL, count);
    ArrayType* result = zm::pg::allocateInt4ArrayForOverwrite(static_cast<size_t>(count));  // the writers fill all of it
    int32_t* out = zm::pg::int4Data(result);
    if (state->outputType == zm::pgRangeArray::ArrayDataTypeScalar)
        state->writeScalar(out);
    else if (state->outputType == zm::pgRangeArray::ArrayDataTypeRange)
        state->writeRanges(out);
    else
        state->writeMix(out);

    // The state stays for the aggregate's memory context to reclaim, as for zm_int4set_agg.
    PG_RETURN_ARRAYTYPE_P(result);
}

// A fresh state: a copy of the first argument with the second one's bits ORed in; neither argument
// is changed.
extern "C" Datum zm_int4set_agg_optimized_combinefn(PG_FUNCTION_ARGS)
{
    MemoryContext aggregate = zm::pg::aggregateContext(fcinfo, "zm_int4set_agg_optimized_combinefn");
    Int4ToSetOpDataOptimized* state = newOptimizedState(aggregate, "zm_int4set_agg_optimized_combinefn");
    Int4ToSetOpDataOptimized* first = optimizedStateArgument(fcinfo, 0);
    Int4ToSetOpDataOptimized* second = optimizedStateArgument(fcinfo, 1);
    OptimizedAggStatus status = OptimizedAggStatus::Ok;
    if (first != nullptr)
        first->flush();
    if (second != nullptr)
        second->flush();
    MemoryContext caller = MemoryContextSwitchTo(static_cast<MemoryContext>(state->memoryContext));
    if (first != nullptr)
        state->copyFrom(*first);
    if (second != nullptr)
    {
        if (state->inputType == zm::pgRangeArray::ArrayDataTypeUninitialised)
            state->copyFrom(*second);
        else
            status = state->addOtherCtx(*second);
    }
    MemoryContextSwitchTo(caller);
    if (status != OptimizedAggStatus::Ok)
        raiseOptimizedStatus(status, 0, 0);
    PG_RETURN_POINTER(state);
}

// bytea: input type byte, output type byte, int32 capacity, then the bytes in use.
extern "C" Datum zm_int4set_agg_optimized_serialfn(PG_FUNCTION_ARGS)
{
    Int4ToSetOpDataOptimized* state = optimizedStateArgument(fcinfo, 0);
    if (state == nullptr)
        PG_RETURN_NULL();
    state->flush();
    bytea* result = zm::pg::allocateBytea(state->serialisedSize());
    state->toBytes(reinterpret_cast<uint8_t*>(VARDATA(result)));
    PG_RETURN_BYTEA_P(result);
}

extern "C" Datum zm_int4set_agg_optimized_deserialfn(PG_FUNCTION_ARGS)
{
    MemoryContext aggregate = zm::pg::aggregateContext(fcinfo, "zm_int4set_agg_optimized_deserialfn");
    Int4ToSetOpDataOptimized* state = newOptimizedState(aggregate, "zm_int4set_agg_optimized_deserialfn");
    if (PG_ARGISNULL(0))
        PG_RETURN_POINTER(state);
    bytea* bytes = reinterpret_cast<bytea*>(PG_DETOAST_DATUM(PG_GETARG_DATUM(0)));
    MemoryContext caller = MemoryContextSwitchTo(static_cast<MemoryContext>(state->memoryContext));
    const OptimizedAggStatus status =
        state->fromBytes(reinterpret_cast<const uint8_t*>(VARDATA(bytes)), VARSIZE(bytes) - VARHDRSZ);
    MemoryContextSwitchTo(caller);
    if (status != OptimizedAggStatus::Ok)
        raiseOptimizedStatus(status, 0, 0);
    PG_RETURN_POINTER(state);
}
