// Keep-single aggregate: returns the one value a group holds. With policy true (the one-argument
// form) every row must carry the first row's value; with policy false the first value is kept and
// the rest ignored. By-value types are kept and compared as raw datums, text and bytea as a private
// detoasted copy compared by length and bytes.
//
// Each state owns a memory context under the aggregate context, which reclaims it with the
// aggregate: the final function copies the kept value out and leaves the state intact, because a
// hashed aggregate that is rescanned finalises its groups again. The aggregate is declared
// FINALFUNC_MODIFY = READ_WRITE, so that two identical calls in a query get a state each and window
// use is refused.
#include "zelmorraPgUtils.h"
#include "zelmorraPgKeepSingle.h"

#include <type_traits>

extern "C" {
PG_FUNCTION_INFO_V1(zm_agg_keep_single_transfn);
PG_FUNCTION_INFO_V1(zm_agg_keep_single_finalfn);
PG_FUNCTION_INFO_V1(zm_agg_keep_single_combinefn);
PG_FUNCTION_INFO_V1(zm_agg_keep_single_serialfn);
PG_FUNCTION_INFO_V1(zm_agg_keep_single_deserialfn);
}

namespace zm {
namespace pg {
namespace {

using keepSingle::ValueKind;
using keepSingle::valueKindOf;

struct AggKeepSingleState
{
    MemoryContext context;
    bool isNull;
    bool policy;
    Datum value;
    uint32 type;  // 0 until the first row
};
static_assert(std::is_trivially_destructible_v<AggKeepSingleState>, "states live across longjmp");

// A fresh empty state in a context of its own under the aggregate context; `function` (a string
// literal) names both the context and the caller in errors.
AggKeepSingleState* createState(FunctionCallInfo fcinfo, const char* function)
{
    MemoryContext context = createStateContext(aggregateContext(fcinfo, function), function);
    AggKeepSingleState* state = static_cast<AggKeepSingleState*>(MemoryContextAllocZero(context, sizeof(AggKeepSingleState)));
    state->context = context;
    state->isNull = true;
    state->policy = false;
    state->value = 0;
    state->type = 0;
    return state;
}

AggKeepSingleState* stateArgument(FunctionCallInfo fcinfo, int argument)
{
    return PG_ARGISNULL(argument) ? nullptr : reinterpret_cast<AggKeepSingleState*>(PG_GETARG_POINTER(argument));
}

// Stores a non-NULL value of `type` in the state: the datum itself, or a detoasted copy made in
// the current memory context (the state's).
void keepValue(AggKeepSingleState* state, uint32 type, Datum value)
{
    switch (valueKindOf(type))
    {
        case ValueKind::ByValue:
            state->value = static_cast<Datum>(keepSingle::canonicalDatum(type, value));
            return;
        case ValueKind::VariableLength:
            state->value = PointerGetDatum(PG_DETOAST_DATUM_COPY(value));
            return;
        case ValueKind::Unsupported: break;
    }
    raise(site::keepUnsupportedType);
}

// The checks that a further row (or a second state in combine) passes against the kept value.
void checkValue(const AggKeepSingleState* state, uint32 type, bool policy, bool isNull, Datum value)
{
    if (type != state->type || policy != state->policy)
        raise(site::keepTypeOrPolicyChanged);
    if (!state->policy)
        return;
    if (state->isNull)
    {
        if (isNull)
            return;
        raise(site::keepValueMismatch);
    }
    switch (valueKindOf(state->type))
    {
        case ValueKind::ByValue:
            // A NULL compares as its datum, 0.
            if (keepSingle::canonicalDatum(type, value) == keepSingle::canonicalDatum(type, state->value))
                return;
            raise(site::keepValueMismatch);
        case ValueKind::VariableLength:
        {
            if (isNull)
                raise(site::keepValueMismatch);
            const varlena* kept = reinterpret_cast<const varlena*>(DatumGetPointer(state->value));
            varlena* incoming = pg_detoast_datum_packed(reinterpret_cast<varlena*>(DatumGetPointer(value)));
            const bool same = keepSingle::sameBytes(VARDATA_ANY(kept), VARSIZE_ANY_EXHDR(kept), VARDATA_ANY(incoming),
                                                    VARSIZE_ANY_EXHDR(incoming));
            if (reinterpret_cast<Pointer>(incoming) != DatumGetPointer(value))
                pfree(incoming);
            if (same)
                return;
            raise(site::keepValueMismatch);
        }
        case ValueKind::Unsupported: break;
    }
    raise(site::keepUnsupportedCompare);
}

// Copies `from` into `to` (whose context is current): type, flags, and the value when not NULL.
void copyState(AggKeepSingleState* to, const AggKeepSingleState* from)
{
    to->type = from->type;
    to->isNull = from->isNull;
    to->policy = from->policy;
    if (!from->isNull)
        keepValue(to, from->type, from->value);
}

}  // namespace
}  // namespace pg
}  // namespace zm

using zm::pg::AggKeepSingleState;

// (state, value) with policy true, or (state, value, policy).
extern "C" Datum zm_agg_keep_single_transfn(PG_FUNCTION_ARGS)
{
    const char* const function = "zm_agg_keep_single_transfn";
    AggKeepSingleState* state = zm::pg::stateArgument(fcinfo, 0);
    if (state == nullptr)
        state = zm::pg::createState(fcinfo, function);
    else
        zm::pg::aggregateContext(fcinfo, function);
    MemoryContext caller = MemoryContextSwitchTo(state->context);

    const bool policy = PG_NARGS() >= 3 ? (!PG_ARGISNULL(2) && PG_GETARG_BOOL(2)) : true;
    const uint32 type = get_fn_expr_argtype(fcinfo->flinfo, 1);
    const bool isNull = PG_ARGISNULL(1);
    const Datum value = isNull ? static_cast<Datum>(0) : PG_GETARG_DATUM(1);
    if (state->type == 0)
    {
        state->type = type;
        state->isNull = isNull;
        state->policy = policy;
        if (!isNull)
            zm::pg::keepValue(state, type, value);
    }
    else
    {
        zm::pg::checkValue(state, type, policy, isNull, value);
    }
    MemoryContextSwitchTo(caller);
    PG_RETURN_POINTER(state);
}

// Returns the kept value (NULL when none). The state is left to the aggregate's memory context:
// a hashed aggregate that is rescanned without new input finalises each group again, whatever
// FINALFUNC_MODIFY says, and must find the state intact. It holds one value, so nothing is gained
// by freeing it earlier.
extern "C" Datum zm_agg_keep_single_finalfn(PG_FUNCTION_ARGS)
{
    AggKeepSingleState* state = zm::pg::stateArgument(fcinfo, 0);
    if (state == nullptr || state->isNull)
        PG_RETURN_NULL();
    // A partial state of another type than the aggregate returns (only a corrupt serialised state
    // can carry one) must not be handed out as a datum of the wrong type.
    const Oid resultType = get_fn_expr_rettype(fcinfo->flinfo);
    if (OidIsValid(resultType) && resultType != state->type)
        zm::pg::raise(zm::pg::site::keepFinalTypeChanged);
    switch (zm::keepSingle::valueKindOf(state->type))
    {
        case zm::keepSingle::ValueKind::VariableLength:
            PG_RETURN_POINTER(PG_DETOAST_DATUM_COPY(state->value));
        case zm::keepSingle::ValueKind::ByValue:
            return state->value;
        case zm::keepSingle::ValueKind::Unsupported: break;
    }
    zm::pg::raise(zm::pg::site::keepFinalUnsupported);
}

// Merges two states into a new one; the inputs are left as they are.
extern "C" Datum zm_agg_keep_single_combinefn(PG_FUNCTION_ARGS)
{
    const AggKeepSingleState* first = zm::pg::stateArgument(fcinfo, 0);
    const AggKeepSingleState* second = zm::pg::stateArgument(fcinfo, 1);
    AggKeepSingleState* result = zm::pg::createState(fcinfo, "zm_agg_keep_single_combinefn");
    MemoryContext caller = MemoryContextSwitchTo(result->context);
    if (first == nullptr)
    {
        if (second != nullptr)
            zm::pg::copyState(result, second);
    }
    else
    {
        zm::pg::copyState(result, first);
        if (second != nullptr)
        {
            if (result->type == 0)
                zm::pg::copyState(result, second);
            else
                zm::pg::checkValue(result, second->type, second->policy, second->isNull, second->value);
        }
    }
    MemoryContextSwitchTo(caller);
    PG_RETURN_POINTER(result);
}

// Writes the state as kind 1 (datum) or kind 2 (text/bytea bytes), with its policy.
extern "C" Datum zm_agg_keep_single_serialfn(PG_FUNCTION_ARGS)
{
    namespace ks = zm::keepSingle;
    const AggKeepSingleState* state = zm::pg::stateArgument(fcinfo, 0);
    if (state == nullptr)
        PG_RETURN_NULL();
    bytea* result;
    if (ks::valueKindOf(state->type) != ks::ValueKind::VariableLength)
    {
        result = zm::pg::allocateBytea(ks::datumStateSize);
        uint8_t* out = reinterpret_cast<uint8_t*>(VARDATA(result));
        ks::writeHeader(out, ks::datumKind, state->isNull, state->policy, state->type);
        ks::writeDatum(out, static_cast<uint64_t>(state->value));
    }
    else if (state->isNull)
    {
        // No value to write: a kind-2 state without payload.
        result = zm::pg::allocateBytea(ks::headerSize);
        ks::writeHeader(reinterpret_cast<uint8_t*>(VARDATA(result)), ks::payloadKind, true, state->policy, state->type);
    }
    else
    {
        varlena* kept = PG_DETOAST_DATUM(state->value);
        const size_t length = VARSIZE(kept) - VARHDRSZ;
        result = zm::pg::allocateBytea(length + ks::headerSize);
        uint8_t* out = reinterpret_cast<uint8_t*>(VARDATA(result));
        ks::writeHeader(out, ks::payloadKind, false, state->policy, state->type);
        if (length)
            memcpy(out + ks::headerSize, VARDATA(kept), length);
    }
    PG_RETURN_BYTEA_P(result);
}

// Rebuilds a state from its serialised form.
extern "C" Datum zm_agg_keep_single_deserialfn(PG_FUNCTION_ARGS)
{
    namespace ks = zm::keepSingle;
    AggKeepSingleState* state = zm::pg::createState(fcinfo, "zm_agg_keep_single_deserialfn");
    if (PG_ARGISNULL(0))
        PG_RETURN_POINTER(state);
    bytea* serialised = PG_GETARG_BYTEA_P(0);
    ks::DecodedState decoded;
    const ks::DecodeStatus status = ks::decodeState(reinterpret_cast<const uint8_t*>(VARDATA(serialised)),
                                                    VARSIZE(serialised) - VARHDRSZ, decoded);
    switch (status)
    {
        case ks::DecodeStatus::Ok: break;
        case ks::DecodeStatus::Empty: zm::pg::raise(zm::pg::site::keepEmptyBytea);
        case ks::DecodeStatus::UnexpectedSize: zm::pg::raise(zm::pg::site::keepUnexpectedSize);
        case ks::DecodeStatus::NotImplemented: zm::pg::raise(zm::pg::site::keepNotImplemented);
    }
    state->type = decoded.type;
    state->isNull = decoded.isNull;
    state->policy = decoded.policy;
    if (decoded.kind == ks::datumKind)
    {
        state->value = static_cast<Datum>(ks::canonicalDatum(decoded.type, decoded.datum));
    }
    else
    {
        MemoryContext caller = MemoryContextSwitchTo(state->context);
        bytea* value = zm::pg::allocateBytea(decoded.payloadLength);
        MemoryContextSwitchTo(caller);
        if (decoded.payloadLength)
            memcpy(VARDATA(value), decoded.payload, decoded.payloadLength);
        state->value = PointerGetDatum(value);
    }
    PG_RETURN_POINTER(state);
}
