// The row readers of zm_int4set_agg_optimized on a bitfield sized from maxinput: single values,
// pairs, scalar, range and mix arrays with values inside, at and beyond the bounds. The bits and
// every refusal are compared with a bit-by-bit reference; the final forms, the serial form and
// combining are checked on the result.
#include <vector>

#include "FuzzSupport.h"
#include "zelmorraPgSetAggregate.h"

namespace {

using fuzz::Input;
using OptimizedAggStatus = zm::OptimizedAggStatus;
using State = zm::Int4ToSetOpDataOptimizedBase<fuzz::NullableAllocator, fuzz::BitFieldErrors, zm::NoInterrupts>;

// Offsets 0 .. size * 8 - 1, in the bitfield's own bit order (so that comparing is one memcmp).
struct Reference
{
    std::vector<uint8_t> bytes;
    int64_t top() const { return static_cast<int64_t>(bytes.size()) * 8 - 1; }
    bool holds(int64_t v) const { return v >= 0 && v <= top(); }
    void set(int64_t v) { bytes[static_cast<size_t>(v >> 3)] |= static_cast<uint8_t>(0x80 >> (v & 7)); }
    bool test(int64_t v) const { return (bytes[static_cast<size_t>(v >> 3)] & (0x80 >> (v & 7))) != 0; }
    void setClipped(int64_t lower, int64_t upper, bool& outside)
    {
        if (lower > upper)
            return;
        if (lower < 0 || upper > top())
            outside = true;
        for (int64_t v = std::max<int64_t>(lower, 0); v <= std::min(upper, top()); ++v)
            set(v);
    }
};

OptimizedAggStatus addRow(Input& in, State& state, Reference& ref, int32_t& base)
{
    const uint8_t op = in.u8();
    switch (op % 5)
    {
        case 0:
        {
            const int32_t v = in.valueNear(base);
            base = v;
            const OptimizedAggStatus status = state.addValue(v);
            if (!ref.holds(v))
            {
                FUZZ_CHECK(status == OptimizedAggStatus::ValueOutOfRange);
                return status;
            }
            FUZZ_CHECK(status == OptimizedAggStatus::Ok);
            ref.set(v);
            return status;
        }
        case 1:
        {
            const int32_t lower = in.valueNear(base);
            const int32_t upper = (op & 0x80) ? in.valueNear(lower) : Input::wrap(int64_t{lower} + in.u16());
            base = upper;
            const OptimizedAggStatus status = state.addRange(lower, upper);
            if (lower > upper)
            {
                FUZZ_CHECK(status == OptimizedAggStatus::Ok);
                return status;
            }
            if (!ref.holds(lower) || !ref.holds(upper))
            {
                FUZZ_CHECK(status == OptimizedAggStatus::RangeOutOfRange);
                return status;
            }
            FUZZ_CHECK(status == OptimizedAggStatus::Ok);
            bool outside = false;
            ref.setClipped(lower, upper, outside);
            return status;
        }
        default:
        {
            const size_t n = in.u8() % 40;
            std::vector<int32_t> e(n);
            for (size_t i = 0; i < n; ++i)
            {
                e[i] = in.valueNear(i > 0 && (op & 0x40) ? e[i - 1] : base);
                if (op % 5 == 4 && in.u8() % 4 == 0)
                    e[i] = static_cast<int32_t>(static_cast<uint32_t>(e[i]) | 0x80000000u);
            }
            int32_t* exact = fuzz::exactArray<int32_t>(n);
            if (n)
            {
                std::memcpy(exact, e.data(), n * sizeof(int32_t));
                base = e[n - 1];
            }
            bool outside = false;
            OptimizedAggStatus status;
            if (op % 5 == 2)
            {
                status = state.addScalarArray(exact, n);
                for (int32_t v : e)
                    ref.setClipped(v, v, outside);
            }
            else if (op % 5 == 3)
            {
                status = state.addRangeArray(exact, n);
                if (n % 2 != 0)
                {
                    FUZZ_CHECK(status == OptimizedAggStatus::NotRangeArray);
                    return status;
                }
                for (size_t i = 0; i < n; i += 2)
                    ref.setClipped(e[i], e[i + 1], outside);
            }
            else
            {
                status = state.addMixArray(exact, n);
                bool dangling = false;
                for (size_t i = 1; i < n; ++i)
                {
                    if (e[i] >= 0)
                        ref.setClipped(e[i], e[i], outside);
                    else if (i + 1 < n)
                    {
                        ref.setClipped(e[i] & 0x7fffffff, e[i + 1], outside);
                        ++i;
                    }
                    else
                        dangling = true;  // the last element opens a range: the row is refused
                }
                if (dangling)
                {
                    FUZZ_CHECK(status == OptimizedAggStatus::DanglingOpener);
                    return status;
                }
            }
            FUZZ_CHECK(status == (outside ? OptimizedAggStatus::ScalarOutOfRange : OptimizedAggStatus::Ok));
            return status;
        }
    }
}

bool sameBits(const State& state, const Reference& ref)
{
    return state.bits.size == ref.bytes.size() &&
           (ref.bytes.empty() || std::memcmp(state.bits.data, ref.bytes.data(), ref.bytes.size()) == 0);
}

void checkFinalForms(const State& state, const Reference& ref)
{
    std::vector<std::pair<int64_t, int64_t>> runs;
    uint64_t values = 0;
    for (int64_t v = 0; v <= ref.top(); ++v)
    {
        if (!ref.test(v))
            continue;
        ++values;
        if (!runs.empty() && runs.back().second + 1 == static_cast<int64_t>(v))
            runs.back().second = static_cast<int64_t>(v);
        else
            runs.emplace_back(v, v);
    }
    FUZZ_CHECK(state.bitCount() == values);
    FUZZ_CHECK(state.runCount() == runs.size());
    int32_t* scalar = fuzz::exactArray<int32_t>(values);
    state.writeScalar(scalar);
    size_t k = 0;
    for (const auto& r : runs)
        for (int64_t v = r.first; v <= r.second; ++v)
            FUZZ_CHECK(scalar[k++] == v);
    int32_t* ranges = fuzz::exactArray<int32_t>(2 * runs.size());
    state.writeRanges(ranges);
    for (size_t i = 0; i < runs.size(); ++i)
        FUZZ_CHECK(ranges[2 * i] == runs[i].first && ranges[2 * i + 1] == runs[i].second);
    const uint64_t mixCount = state.mixElementCount();
    uint64_t expected = 0;
    for (const auto& r : runs)
        expected += r.first == r.second ? 1 : 2;
    FUZZ_CHECK(mixCount == (expected ? expected + 1 : 0));
    int32_t* mix = fuzz::exactArray<int32_t>(mixCount);
    state.writeMix(mix);
    if (mixCount)
    {
        FUZZ_CHECK(mix[0] == static_cast<int32_t>(values));
        k = 1;
        for (const auto& r : runs)
        {
            if (r.first == r.second)
                FUZZ_CHECK(mix[k++] == r.first);
            else
            {
                FUZZ_CHECK(mix[k++] == static_cast<int32_t>(static_cast<uint32_t>(r.first) | 0x80000000u));
                FUZZ_CHECK(mix[k++] == r.second);
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::runInput([&] {
        Input in(data, size);
        State state;
        state.init(nullptr);
        // maxinput: mostly small; now and then large enough for the batched bit writes (or beyond
        // what the arena grants, which is the allocation failure's report).
        const uint8_t sizing = in.u8();
        int32_t maxInput;
        if (sizing % 16 == 15)
            maxInput = static_cast<int32_t>((2u << 20) + in.u16() * 8u + in.u8() % 8);
        else if (sizing % 16 == 14)
        {
            // Either refused by the arena (beyond 2^27 values) or merely slow: the latter is skipped.
            maxInput = static_cast<int32_t>(in.u32() & 0x7fffffff);
            if (maxInput > (1 << 22) && maxInput < (1 << 28))
                return;
        }
        else
            maxInput = 1 + in.u16() % 4096;
        if (maxInput <= 0)
            return;  // refused by the transition before the state is sized
        state.sizeFor(maxInput);
        state.inputType = zm::pgRangeArray::ArrayDataTypeRange;
        state.outputType = zm::pgRangeArray::ArrayDataTypeRange;
        FUZZ_CHECK(state.bits.capacity % 8 == 0 && state.bits.size <= state.bits.capacity);
        FUZZ_CHECK(state.bits.size == (static_cast<uint32_t>(maxInput) >> 3) + 1);
        FUZZ_CHECK(uint64_t{state.bits.capacity} * 8 >= uint64_t(maxInput) + 1);
        Reference ref;
        ref.bytes.assign(state.bits.size, 0);
        int32_t base = in.flag() ? maxInput : static_cast<int32_t>(in.u16());
        int rows = 128;
        while (!in.empty() && rows-- > 0)
            if (addRow(in, state, ref, base) != OptimizedAggStatus::Ok)
                return;  // the row's ERROR ends the aggregate
        state.flush();
        FUZZ_CHECK(sameBits(state, ref));
        if (state.bits.size <= 8192)  // the value-by-value check is slow on the large ones
            checkFinalForms(state, ref);
        else
        {
            // Each form into an array of exactly its announced size.
            state.writeScalar(fuzz::exactArray<int32_t>(state.bitCount()));
            state.writeRanges(fuzz::exactArray<int32_t>(2 * state.runCount()));
            state.writeMix(fuzz::exactArray<int32_t>(state.mixElementCount()));
        }

        // Serial form round trip.
        const size_t length = state.serialisedSize();
        uint8_t* bytes = fuzz::exactArray<uint8_t>(length);
        state.toBytes(bytes);
        State copy;
        copy.init(nullptr);
        FUZZ_CHECK(copy.fromBytes(bytes, length) == OptimizedAggStatus::Ok);
        FUZZ_CHECK(copy.bits.capacity == state.bits.capacity && sameBits(copy, ref));

        // Combine: a copy ORed with itself is unchanged.
        State combined;
        combined.init(nullptr);
        combined.copyFrom(state);
        FUZZ_CHECK(combined.addOtherCtx(copy) == OptimizedAggStatus::Ok);
        FUZZ_CHECK(sameBits(combined, ref));
    });
}
