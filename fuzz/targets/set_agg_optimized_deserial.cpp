// The deserialiser of zm_int4set_agg_optimized states on arbitrary bytes. A state it accepts must
// keep its bytes in use within its capacity and serialise back to the same bytes; combining and the
// final forms must cope with whatever bits it holds.
#include <vector>

#include "FuzzSupport.h"
#include "zelmorraPgSetAggregate.h"

namespace {

using State = zm::Int4ToSetOpDataOptimizedBase<fuzz::NullableAllocator, fuzz::BitFieldErrors, zm::NoInterrupts>;
using zm::OptimizedAggStatus;

State* deserialise(const uint8_t* data, size_t length)
{
    uint8_t* exact = fuzz::exactArray<uint8_t>(length);
    if (length)
        std::memcpy(exact, data, length);
    State* state = fuzz::exactArray<State>(1);
    state->init(nullptr);
    OptimizedAggStatus status;
    try
    {
        status = state->fromBytes(exact, length);
    }
    catch (const fuzz::FuzzError& error)
    {
        // The bitfield's own refusals: a capacity not a multiple of 8, or one it cannot allocate.
        FUZZ_CHECK(error.code == fuzz::bitFieldError && length >= 6);
        int32_t capacity;
        std::memcpy(&capacity, data + 2, 4);
        FUZZ_CHECK(capacity % 8 != 0 || static_cast<size_t>(capacity) > fuzz::Arena::maxRequest);
        return nullptr;
    }
    if (length < 6)
    {
        FUZZ_CHECK(status == OptimizedAggStatus::EmptyBytea);
        return nullptr;
    }
    int32_t capacity;
    std::memcpy(&capacity, data + 2, 4);
    const size_t d = length - 6;
    if (capacity < 0 || d > static_cast<size_t>(capacity))
    {
        FUZZ_CHECK(status == OptimizedAggStatus::Corrupted);
        return nullptr;
    }
    FUZZ_CHECK(status == OptimizedAggStatus::Ok);
    FUZZ_CHECK(state->bits.size == d && state->bits.capacity == static_cast<uint32_t>(capacity));
    FUZZ_CHECK(state->bits.size <= state->bits.capacity);
    FUZZ_CHECK(d == 0 || std::memcmp(state->bits.data, data + 6, d) == 0);
    if (state->inputType != zm::pgRangeArray::ArrayDataTypeUninitialised)
    {
        FUZZ_CHECK(state->serialisedSize() == length);
        uint8_t* again = fuzz::exactArray<uint8_t>(length);
        state->toBytes(again);
        FUZZ_CHECK(std::memcmp(again, data, length) == 0);
    }
    return state;
}

void finalForms(State& state)
{
    state.flush();
    const uint64_t values = state.bitCount();
    FUZZ_CHECK(values <= uint64_t{state.bits.size} * 8);
    int32_t* scalar = fuzz::exactArray<int32_t>(values);
    state.writeScalar(scalar);
    for (uint64_t i = 0; i < values; ++i)
        FUZZ_CHECK(state.bits.test(static_cast<uint32_t>(scalar[i])) && (i == 0 || scalar[i] > scalar[i - 1]));
    const uint64_t runs = state.runCount();
    int32_t* ranges = fuzz::exactArray<int32_t>(2 * runs);
    state.writeRanges(ranges);
    const uint64_t mixCount = state.mixElementCount();
    FUZZ_CHECK(mixCount <= 2 * runs + 1);
    int32_t* mix = fuzz::exactArray<int32_t>(mixCount);
    state.writeMix(mix);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::runInput([&] {
        const size_t split = size ? std::min<size_t>(data[0], size - 1) : 0;
        const uint8_t* a = data + (size ? 1 : 0);
        const uint8_t* b = a + split;
        const size_t bLength = size ? size - 1 - split : 0;
        State* first = deserialise(a, split);
        State* second = deserialise(b, bLength);
        if (first)
            finalForms(*first);
        if (second)
            finalForms(*second);

        // Combine as the combine function does: a fresh copy of the first, the second ORed in.
        State* combined = fuzz::exactArray<State>(1);
        combined->init(nullptr);
        OptimizedAggStatus status = OptimizedAggStatus::Ok;
        if (first)
            combined->copyFrom(*first);
        if (second)
        {
            if (combined->inputType == zm::pgRangeArray::ArrayDataTypeUninitialised)
                combined->copyFrom(*second);
            else
                status = combined->addOtherCtx(*second);
        }
        if (status != OptimizedAggStatus::Ok)
        {
            FUZZ_CHECK(status == OptimizedAggStatus::CombineMismatch);
            return;
        }
        FUZZ_CHECK(combined->bits.size <= combined->bits.capacity);
        if (first && second && first->inputType != zm::pgRangeArray::ArrayDataTypeUninitialised)
        {
            FUZZ_CHECK(combined->bits.size == std::max(first->bits.size, second->bits.size));
            for (uint32_t i = 0; i < combined->bits.size; ++i)
            {
                const uint8_t a8 = i < first->bits.size ? first->bits.data[i] : 0;
                const uint8_t b8 = i < second->bits.size ? second->bits.data[i] : 0;
                FUZZ_CHECK(combined->bits.data[i] == (a8 | b8));
            }
        }
        finalForms(*combined);
    });
}
