// The row readers of zm_int4set_agg: single values, lower/upper pairs, scalar, range and mix arrays
// (the mix-row reader included), on arbitrary values. The state batches ordinary ranges; whatever
// the rows, it must end exactly where literal per-row rangeArrayInsert ends. The rows are also
// dealt to two partial states: combined, they must give the same list whenever no row ends at
// INT32_MAX or is reversed (for those, per-row insertion itself depends on the order of the rows).
// Serialising, combining and the final forms are checked on the result.
#include <vector>

#include "FuzzSupport.h"
#include "zelmorraPgSetAggregate.h"

namespace {

using fuzz::Input;
using IntRange = zm::pgRangeArray::Range<int>;
using RangeVec = zm::tVectorBase<IntRange, fuzz::Allocator>;
using State = zm::Int4ToSetOpDataSetBase<fuzz::Allocator, zm::NoInterrupts>;

bool sameRanges(const RangeVec& a, const RangeVec& b)
{
    if (a.size != b.size)
        return false;
    for (size_t i = 0; i < a.size; ++i)
        if (a.data[i].lower != b.data[i].lower || a.data[i].upper != b.data[i].upper)
            return false;
    return true;
}

void insert(RangeVec& literal, int32_t lower, int32_t upper)
{
    zm::pgRangeArray::rangeArrayInsert(literal, IntRange{lower, upper});
}

// One row into the state, into the partial state `part` and into the literal list; false when the
// row is refused.
bool addRow(Input& in, State& state, State& part, RangeVec& literal, int32_t& base)
{
    const uint8_t op = in.u8();
    switch (op % 5)
    {
        case 0:
        {
            const int32_t v = in.valueNear(base);
            state.addValue(v);
            part.addValue(v);
            insert(literal, v, v);
            base = v;
            return true;
        }
        case 1:
        {
            const int32_t lower = in.valueNear(base);
            const int32_t upper = (op & 0x80) ? in.valueNear(lower) : Input::wrap(int64_t{lower} + in.u8());
            state.addRange(lower, upper);
            part.addRange(lower, upper);
            insert(literal, lower, upper);
            base = upper;
            return true;
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
                std::memcpy(exact, e.data(), n * sizeof(int32_t));
            if (op % 5 == 2)
            {
                state.addScalarArray(exact, n);
                part.addScalarArray(exact, n);
                for (int32_t v : e)
                    insert(literal, v, v);
            }
            else if (op % 5 == 3)
            {
                if (state.addRangeArray(exact, n) != zm::SetAggStatus::Ok)
                {
                    FUZZ_CHECK(n % 2 != 0);
                    return false;
                }
                FUZZ_CHECK(n % 2 == 0);
                FUZZ_CHECK(part.addRangeArray(exact, n) == zm::SetAggStatus::Ok);
                for (size_t i = 0; i < n; i += 2)
                    insert(literal, e[i], e[i + 1]);
            }
            else
            {
                const zm::SetAggStatus status = state.addMixArray(exact, n);
                FUZZ_CHECK(part.addMixArray(exact, n) == status);
                bool dangling = false;
                for (size_t i = 1; i < n; ++i)
                {
                    if (e[i] >= 0)
                        insert(literal, e[i], e[i]);
                    else if (i + 1 < n)
                    {
                        insert(literal, e[i] & 0x7fffffff, e[i + 1]);
                        ++i;
                    }
                    else
                        dangling = true;  // the last element opens a range: the row is refused
                }
                FUZZ_CHECK(status == (dangling ? zm::SetAggStatus::DanglingOpener : zm::SetAggStatus::Ok));
                if (dangling)
                    return false;  // the row's ERROR ends the aggregate
            }
            if (n)
                base = e[n - 1];
            return true;
        }
    }
}

void checkFinalForms(const State& state)
{
    const RangeVec& r = state.ranges;
    uint64_t values = 0;
    for (size_t i = 0; i < r.size; ++i)
        if (r.data[i].lower <= r.data[i].upper)
            values += static_cast<uint64_t>(int64_t{r.data[i].upper} - r.data[i].lower) + 1;
    FUZZ_CHECK(state.scalarCount() == values);
    if (values <= (1u << 20))
    {
        int32_t* out = fuzz::exactArray<int32_t>(values);
        state.writeScalar(out);
        size_t k = 0;
        for (size_t i = 0; i < r.size; ++i)
            for (int64_t v = r.data[i].lower; v <= r.data[i].upper; ++v)
                FUZZ_CHECK(out[k++] == v);
    }
    const uint64_t mixCount = state.mixElementCount();
    uint64_t expected = r.size ? 1 : 0;
    for (size_t i = 0; i < r.size; ++i)
        expected += r.data[i].lower == r.data[i].upper ? 1 : 2;
    FUZZ_CHECK(mixCount == expected);
    int32_t* mix = fuzz::exactArray<int32_t>(mixCount);
    state.writeMix(mix);
    if (r.size)
    {
        uint32_t count = 0;
        size_t k = 1;
        for (size_t i = 0; i < r.size; ++i)
        {
            count += static_cast<uint32_t>(r.data[i].upper) - static_cast<uint32_t>(r.data[i].lower) + 1u;
            if (r.data[i].lower == r.data[i].upper)
                FUZZ_CHECK(mix[k++] == r.data[i].lower);
            else
            {
                FUZZ_CHECK(mix[k++] == static_cast<int32_t>(static_cast<uint32_t>(r.data[i].lower) | 0x80000000u));
                FUZZ_CHECK(mix[k++] == r.data[i].upper);
            }
        }
        FUZZ_CHECK(mix[0] == static_cast<int32_t>(count));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::runInput([&] {
        Input in(data, size);
        State state;
        state.init(nullptr, true);
        state.minBatch = 1 + in.u8() % 64;  // small batches, so that merges happen often
        state.inputType = zm::pgRangeArray::ArrayDataTypeRange;
        state.outputType = zm::pgRangeArray::ArrayDataTypeRange;
        State parts[2];
        for (State& part : parts)
        {
            part.init(nullptr, true);
            part.minBatch = state.minBatch;
            part.inputType = state.inputType;
            part.outputType = state.outputType;
        }
        RangeVec literal;
        literal.init(1);
        int32_t base = in.valueNear(0);
        int rows = 256;
        while (!in.empty() && rows-- > 0)
        {
            if (!addRow(in, state, parts[in.u8() % 2], literal, base))
                return;  // the row's ERROR ends the aggregate
            if (in.u8() % 16 == 0)
            {
                state.flush();
                FUZZ_CHECK(sameRanges(state.ranges, literal));
            }
        }
        state.compact();
        FUZZ_CHECK(sameRanges(state.ranges, literal));
        FUZZ_CHECK(state.pending.size == 0);

        // Serial form round trip.
        const size_t length = state.serialisedSize();
        uint8_t* bytes = fuzz::exactArray<uint8_t>(length);
        state.toBytes(bytes);
        State copy;
        copy.init(nullptr, false);
        const zm::SetAggStatus status = copy.fromBytes(bytes, length);
        if (state.ranges.size == 0)
            FUZZ_CHECK(status == zm::SetAggStatus::EmptyRangeArray);
        else
        {
            FUZZ_CHECK(status == zm::SetAggStatus::Ok);
            FUZZ_CHECK(sameRanges(copy.ranges, state.ranges));
        }

        // The partial states combined: the serial list, unless a row made the order matter.
        parts[0].compact();
        parts[1].compact();
        State combinedParts;
        combinedParts.init(nullptr, false);
        FUZZ_CHECK(combinedParts.addOtherCtxPair(&parts[0], &parts[1]) == zm::SetAggStatus::Ok);
        if (!state.insertEachRow)
        {
            FUZZ_CHECK(!parts[0].insertEachRow && !parts[1].insertEachRow);
            FUZZ_CHECK(sameRanges(combinedParts.ranges, state.ranges));
        }

        // Combine with itself: the union of a list with itself.
        State combined;
        combined.init(nullptr, false);
        FUZZ_CHECK(combined.addOtherCtxPair(&state, &state) == zm::SetAggStatus::Ok);
        RangeVec expected;
        expected.init(1);
        fuzz::signedUnion(state.ranges.begin(), state.ranges.end(), state.ranges.begin(), state.ranges.end(), expected);
        FUZZ_CHECK(sameRanges(combined.ranges, expected));
        if (!state.insertEachRow)
            FUZZ_CHECK(sameRanges(combined.ranges, state.ranges));

        checkFinalForms(state);
    });
}
