// The deserialiser of zm_int4set_agg states on arbitrary bytes. A state it accepts must serialise
// back to the same bytes, and combining and the final forms must cope with whatever ranges it
// stored (they are trusted as stored: unsorted, overlapping, reversed, at the int4 limits).
#include <vector>

#include "FuzzSupport.h"
#include "zelmorraPgSetAggregate.h"

namespace {

using IntRange = zm::pgRangeArray::Range<int>;
using RangeVec = zm::tVectorBase<IntRange, fuzz::Allocator>;
using State = zm::Int4ToSetOpDataSetBase<fuzz::Allocator, zm::NoInterrupts>;
using zm::SetAggStatus;

// A state from `length` bytes, or null when they are refused (with the refusal checked).
State* deserialise(const uint8_t* data, size_t length)
{
    uint8_t* exact = fuzz::exactArray<uint8_t>(length);
    if (length)
        std::memcpy(exact, data, length);
    State* state = fuzz::exactArray<State>(1);
    state->init(nullptr, false);
    const SetAggStatus status = state->fromBytes(exact, length);
    if (length < 2)
    {
        FUZZ_CHECK(status == SetAggStatus::EmptyBytea);
        return nullptr;
    }
    const size_t d = length - 2;
    if (d == 0)
    {
        FUZZ_CHECK(status == (data[0] == 0 ? SetAggStatus::Ok : SetAggStatus::EmptyRangeArray));
        if (status != SetAggStatus::Ok)
            return nullptr;
    }
    else if (d % 8 != 0)
    {
        FUZZ_CHECK(status == SetAggStatus::InvalidRangeArraySize);
        return nullptr;
    }
    else
        FUZZ_CHECK(status == SetAggStatus::Ok);
    FUZZ_CHECK(state->inputType == data[0] && state->outputType == data[1]);
    FUZZ_CHECK(state->ranges.size == d / 8 && state->ranges.size <= state->ranges.capacity);

    // Back to bytes: the same ones.
    FUZZ_CHECK(state->serialisedSize() == length);
    uint8_t* again = fuzz::exactArray<uint8_t>(length);
    state->toBytes(again);
    FUZZ_CHECK(std::memcmp(again, data, length) == 0);
    return state;
}

void finalForms(State& state)
{
    state.compact();
    const uint64_t values = state.scalarCount();
    if (values <= (1u << 20))
    {
        int32_t* out = fuzz::exactArray<int32_t>(values);
        state.writeScalar(out);
    }
    const uint64_t mixCount = state.mixElementCount();
    FUZZ_CHECK(mixCount <= 2 * state.ranges.size + 1);
    int32_t* mix = fuzz::exactArray<int32_t>(mixCount);
    state.writeMix(mix);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::runInput([&] {
        // Two serialised states: the first byte says where the first one ends.
        const size_t split = size ? std::min<size_t>(data[0], size - 1) : 0;
        const uint8_t* a = data + (size ? 1 : 0);
        const size_t aLength = split;
        const uint8_t* b = a + aLength;
        const size_t bLength = size ? size - 1 - split : 0;
        State* first = deserialise(a, aLength);
        State* second = deserialise(b, bLength);

        // Combine as the combine function does: a fresh state from both (either may be missing).
        State* combined = fuzz::exactArray<State>(1);
        combined->init(nullptr, false);
        const SetAggStatus status = combined->addOtherCtxPair(first, second);
        if (status == SetAggStatus::Ok)
        {
            size_t bound = 0;
            if (first)
                bound += first->ranges.size;
            if (second)
                bound += second->ranges.size;
            FUZZ_CHECK(combined->ranges.size <= std::max<size_t>(bound, 0));
            if (first && second && first->inputType != zm::pgRangeArray::ArrayDataTypeUninitialised)
            {
                RangeVec expected;
                expected.init(1);
                fuzz::signedUnion(first->ranges.begin(), first->ranges.end(), second->ranges.begin(),
                                  second->ranges.end(), expected);
                FUZZ_CHECK(expected.size == combined->ranges.size);
                FUZZ_CHECK(expected.size == 0 ||
                           std::memcmp(expected.data, combined->ranges.data, expected.size * sizeof(IntRange)) == 0);
            }
            finalForms(*combined);
        }
        else
            FUZZ_CHECK(status == SetAggStatus::CombineMismatch && first && second);
        if (first)
            finalForms(*first);
        if (second)
            finalForms(*second);
    });
}
