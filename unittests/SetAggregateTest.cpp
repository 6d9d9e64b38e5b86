// The zm_int4set_agg state outside the server: batched insertion against literal per-row
// rangeArrayInsert, combine, serialised layout and the final forms.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <random>
#include <vector>

#include "TestAllocator.h"
#include "zelmorraPgSetAggregate.h"

namespace {

struct NoHooks
{
    static int calls;
    static void check() { ++calls; }
};
int NoHooks::calls = 0;

using SetState = zm::Int4ToSetOpDataSetBase<TestAllocator, NoHooks>;
using zm::SetAggStatus;

// Ranges as pairs, which gtest can compare and print.
using Pairs = std::vector<std::pair<int32_t, int32_t>>;
template <typename It>
Pairs pairsOf(It first, It last)
{
    Pairs out;
    for (; first != last; ++first)
        out.emplace_back(first->lower, first->upper);
    return out;
}

struct OwnedState
{
    SetState s;
    explicit OwnedState(size_t minBatch = SetState::defaultMinBatch, bool rowsFollow = true)
    {
        s.init(nullptr, rowsFollow);
        s.minBatch = minBatch;
    }
    ~OwnedState() { s.release(); }
    Pairs ranges()
    {
        s.flush();
        return pairsOf(s.ranges.begin(), s.ranges.end());
    }
    std::vector<uint8_t> bytes()
    {
        s.flush();
        std::vector<uint8_t> out(s.serialisedSize());
        s.toBytes(out.data());
        return out;
    }
};

// Literal per-row insertion, the behaviour the state must reproduce.
struct Reference
{
    OwnedRanges list{1024};
    void add(int lower, int upper) { zm::pgRangeArray::rangeArrayInsert(list.v, Range{lower, upper}); }
    Pairs ranges() const { return pairsOf(list.v.begin(), list.v.end()); }
};

std::vector<int32_t> scalarOf(SetState& s)
{
    s.flush();
    std::vector<int32_t> out(s.scalarCount());
    s.writeScalar(out.data());
    return out;
}

std::vector<int32_t> mixOf(SetState& s)
{
    s.flush();
    std::vector<int32_t> out(s.mixElementCount());
    s.writeMix(out.data());
    return out;
}

// Random ranges of several shapes; `oddFraction` of them are the ones the merge rule treats
// specially (reversed, ending at INT32_MAX, starting at INT32_MIN).
struct RangeSource
{
    std::mt19937 rng;
    int32_t domain;
    double oddFraction;

    RangeSource(uint32_t seed, int32_t domain_, double oddFraction_) : rng(seed), domain(domain_), oddFraction(oddFraction_) {}

    int32_t value() { return std::uniform_int_distribution<int32_t>(-domain, domain)(rng); }

    Range next()
    {
        std::uniform_real_distribution<double> u(0, 1);
        if (u(rng) < oddFraction)
        {
            switch (std::uniform_int_distribution<int>(0, 6)(rng))
            {
                case 0: return Range{INT32_MAX, INT32_MAX};
                case 1: return Range{INT32_MAX - std::uniform_int_distribution<int32_t>(0, 3)(rng), INT32_MAX};
                case 2: return Range{INT32_MIN, INT32_MIN + std::uniform_int_distribution<int32_t>(0, 3)(rng)};
                case 3: { int32_t a = value(); return Range{a, a - 1 - std::uniform_int_distribution<int32_t>(0, 5)(rng)}; }
                case 4: return Range{value(), INT32_MAX};
                case 5: return Range{INT32_MIN, value()};
                default: { int32_t a = value(), b = value(); return Range{std::max(a, b), std::min(a, b)}; }
            }
        }
        const int32_t a = value();
        switch (std::uniform_int_distribution<int>(0, 2)(rng))
        {
            case 0: return Range{a, a};
            case 1: return Range{a, a + std::uniform_int_distribution<int32_t>(0, 5)(rng)};
            default: return Range{a, a + std::uniform_int_distribution<int32_t>(0, domain / 8 + 1)(rng)};
        }
    }
};

TEST(SetAggregate, FreshState)
{
    OwnedState st;
    EXPECT_EQ(st.s.inputType, 0);
    EXPECT_EQ(st.s.outputType, 0);
    EXPECT_EQ(st.s.ranges.capacity, 1024u);
    EXPECT_EQ(st.s.ranges.size, 0u);
    EXPECT_EQ(st.s.pending.data, nullptr);
}

TEST(SetAggregate, MatchesPerRowInsertionOnRandomInput)
{
    int mismatches = 0;
    for (uint32_t seed = 1; seed <= 400; ++seed)
    {
        const int32_t domains[] = {20, 300, 100000, INT32_MAX / 2};
        const double odd[] = {0.0, 0.0, 0.002, 0.05};
        RangeSource src(seed, domains[seed % 4], odd[(seed / 4) % 4]);
        OwnedState st(1 + seed % 37);
        Reference ref;
        std::mt19937 cut(seed * 7919u);
        const int rows = 50 + static_cast<int>(seed % 9) * 250;
        for (int i = 0; i < rows; ++i)
        {
            const Range r = src.next();
            st.s.addRange(r.lower, r.upper);
            ref.add(r.lower, r.upper);
            // Serial, combine and final steps flush at arbitrary points.
            if (cut() % 97 == 0 && st.ranges() != ref.ranges())
                ++mismatches;
        }
        if (st.ranges() != ref.ranges())
            ++mismatches;
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(SetAggregate, MatchesPerRowInsertionWithDefaultBatches)
{
    // Big enough for several batches of the default size, random and sorted, ordinary ranges only.
    for (int sorted = 0; sorted < 2; ++sorted)
    {
        std::mt19937 rng(42 + sorted);
        OwnedState st;
        Reference ref;
        const int rows = 150000;
        for (int i = 0; i < rows; ++i)
        {
            const int32_t v = sorted ? i * 3 + static_cast<int32_t>(rng() % 4) : static_cast<int32_t>(rng() % 2000000) - 1000000;
            st.s.addValue(v);
            ref.add(v, v);
        }
        EXPECT_FALSE(st.s.insertEachRow);
        EXPECT_EQ(st.ranges(), ref.ranges()) << "sorted=" << sorted;
    }
}

TEST(SetAggregate, ArraysMatchPerRowInsertion)
{
    std::mt19937 rng(7);
    int mismatches = 0;
    for (int round = 0; round < 200; ++round)
    {
        OwnedState st(1 + round % 13);
        Reference ref;
        RangeSource src(1000 + round, round % 2 ? 1000 : 50, round % 3 == 0 ? 0.03 : 0.0);
        for (int row = 0; row < 20; ++row)
        {
            std::vector<int32_t> a;
            const int n = static_cast<int>(rng() % 30);
            switch (round % 3)
            {
                case 0:
                    for (int i = 0; i < n; ++i)
                    {
                        const Range r = src.next();
                        a.push_back(r.lower);
                        a.push_back(r.upper);
                        ref.add(r.lower, r.upper);
                    }
                    EXPECT_EQ(st.s.addRangeArray(a.data(), a.size()), SetAggStatus::Ok);
                    break;
                case 1:
                    for (int i = 0; i < n; ++i)
                    {
                        const int32_t v = src.value();
                        a.push_back(v);
                        ref.add(v, v);
                    }
                    st.s.addScalarArray(a.data(), a.size());
                    break;
                default:
                    a.push_back(12345);  // count element, not read
                    for (int i = 0; i < n; ++i)
                    {
                        const int32_t v = std::abs(src.value());
                        if (rng() % 2)
                        {
                            const int32_t hi = v + static_cast<int32_t>(rng() % 10) - 2;
                            a.push_back(static_cast<int32_t>(static_cast<uint32_t>(v) | 0x80000000u));
                            a.push_back(hi);
                            ref.add(v, hi);
                        }
                        else
                        {
                            a.push_back(v);
                            ref.add(v, v);
                        }
                    }
                    st.s.addMixArray(a.data(), a.size());
                    break;
            }
        }
        if (st.ranges() != ref.ranges())
            ++mismatches;
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(SetAggregate, RangeEndingAtInt32MaxIsPutInFrontUnmerged)
{
    OwnedState st(4);
    st.s.addRange(10, 20);
    st.s.addRange(5, 5);
    st.s.addRange(100, INT32_MAX);
    EXPECT_TRUE(st.s.insertEachRow);
    const Pairs expected = {{100, INT32_MAX}, {5, 5}, {10, 20}};
    EXPECT_EQ(st.ranges(), expected);
}

TEST(SetAggregate, ReversedRangeIsKeptAsGiven)
{
    OwnedState st;
    st.s.addRange(5, 3);
    EXPECT_EQ(st.ranges(), (Pairs{{5, 3}}));
    st.s.addRange(10, 20);
    st.s.addRange(4, 4);
    Reference ref;
    ref.add(5, 3);
    ref.add(10, 20);
    ref.add(4, 4);
    EXPECT_EQ(st.ranges(), ref.ranges());
    // A reversed range: nothing in scalar output, its wrapped size in the mix count.
    OwnedState rev;
    rev.s.addRange(5, 3);
    EXPECT_TRUE(scalarOf(rev.s).empty());
    EXPECT_EQ(mixOf(rev.s), (std::vector<int32_t>{-1, static_cast<int32_t>(5u | 0x80000000u), 3}));
}

TEST(SetAggregate, SingleValuesInAllOutputForms)
{
    OwnedState st;
    for (int v : {7, 2, 1, 3})
        st.s.addValue(v);
    EXPECT_EQ(st.ranges(), (Pairs{{1, 3}, {7, 7}}));
    EXPECT_EQ(scalarOf(st.s), (std::vector<int32_t>{1, 2, 3, 7}));
    EXPECT_EQ(mixOf(st.s), (std::vector<int32_t>{4, -2147483647, 3, 7}));

    OwnedState pair;
    pair.s.addRange(5, 9);
    EXPECT_EQ(scalarOf(pair.s), (std::vector<int32_t>{5, 6, 7, 8, 9}));

    OwnedState empty;
    EXPECT_EQ(empty.s.scalarCount(), 0u);
    EXPECT_EQ(empty.s.mixElementCount(), 0u);
}

TEST(SetAggregate, ScalarOutputUpToInt32Max)
{
    OwnedState st;
    st.s.addRange(INT32_MAX - 2, INT32_MAX);
    EXPECT_EQ(scalarOf(st.s), (std::vector<int32_t>{INT32_MAX - 2, INT32_MAX - 1, INT32_MAX}));
    OwnedState wide;
    wide.s.addRange(INT32_MIN, INT32_MAX - 1);
    EXPECT_EQ(wide.s.scalarCount(), 0xFFFFFFFFull);
}

TEST(SetAggregate, ArrayForms)
{
    OwnedState st;
    const int32_t odd[] = {1, 2, 3};
    EXPECT_EQ(st.s.addRangeArray(odd, 3), SetAggStatus::NotRangeArray);
    const int32_t mix[] = {1, 5};
    EXPECT_EQ(st.s.addMixArray(mix, 2), SetAggStatus::Ok);
    EXPECT_EQ(st.ranges(), (Pairs{{5, 5}}));
    // An opener that is the last element has no upper bound: the items before it are added and
    // the row is refused.
    const int32_t dangling[] = {3, 9, static_cast<int32_t>(20u | 0x80000000u)};
    EXPECT_EQ(st.s.addMixArray(dangling, 3), SetAggStatus::DanglingOpener);
    EXPECT_EQ(st.ranges(), (Pairs{{5, 5}, {9, 9}}));
    // A negative element in the upper bound's place is an upper bound (here a reversed range, kept
    // as given), not an opener.
    OwnedState other;
    const int32_t negativeUpper[] = {1, static_cast<int32_t>(30u | 0x80000000u), -7};
    EXPECT_EQ(other.s.addMixArray(negativeUpper, 3), SetAggStatus::Ok);
    EXPECT_EQ(other.ranges(), (Pairs{{30, -7}}));
    const int32_t pairs[] = {10, 12, 1, 1};
    EXPECT_EQ(st.s.addRangeArray(pairs, 4), SetAggStatus::Ok);
    EXPECT_EQ(st.ranges(), (Pairs{{1, 1}, {5, 5}, {9, 12}}));
}

TEST(SetAggregate, AddOtherCtx)
{
    OwnedState a, b, fresh(SetState::defaultMinBatch, false);
    a.s.inputType = b.s.inputType = 1;
    a.s.outputType = b.s.outputType = 4;
    for (int v : {1, 2, 10, 30})
        a.s.addValue(v);
    for (int v : {3, 11, 12, 40})
        b.s.addValue(v);
    a.s.flush();
    b.s.flush();
    // An uninitialised state takes the other's types and ranges.
    EXPECT_EQ(fresh.s.addOtherCtx(a.s), SetAggStatus::Ok);
    EXPECT_EQ(fresh.s.inputType, 1);
    EXPECT_EQ(fresh.s.outputType, 4);
    EXPECT_EQ(fresh.s.addOtherCtx(b.s), SetAggStatus::Ok);
    EXPECT_EQ(fresh.ranges(), (Pairs{{1, 3}, {10, 12}, {30, 30}, {40, 40}}));
    // Neither argument changed.
    EXPECT_EQ(a.ranges(), (Pairs{{1, 2}, {10, 10}, {30, 30}}));

    OwnedState other;
    other.s.inputType = 1;
    other.s.outputType = 3;
    EXPECT_EQ(fresh.s.addOtherCtx(other.s), SetAggStatus::CombineMismatch);
    OwnedState uninitialised;
    EXPECT_EQ(fresh.s.addOtherCtx(uninitialised.s), SetAggStatus::CombineMismatch);
}

// A naive rendering of the aggregates' union walk: signed order (a first on equal lower bounds),
// a range joins the last output range when it starts at most one value after it ends (64-bit),
// and a list met alone is copied after its leading joining ranges.
Pairs signedUnion(const Pairs& a, const Pairs& b)
{
    Pairs out;
    auto put = [&out](std::pair<int32_t, int32_t> r) {
        if (!out.empty() && int64_t{r.first} <= int64_t{out.back().second} + 1)
            out.back().second = std::max(out.back().second, r.second);
        else
            out.push_back(r);
    };
    size_t i = 0, j = 0;
    while (i < a.size() && j < b.size())
        put(b[j].first < a[i].first ? b[j++] : a[i++]);
    const Pairs& rest = i < a.size() ? a : b;
    size_t k = i < a.size() ? i : j;
    for (; !out.empty() && k < rest.size() && int64_t{rest[k].first} <= int64_t{out.back().second} + 1; ++k)
        out.back().second = std::max(out.back().second, rest[k].second);
    out.insert(out.end(), rest.begin() + static_cast<long>(k), rest.end());
    return out;
}

TEST(SetAggregate, AddOtherCtxIsTheSignedUnionOnRandomStates)
{
    int mismatches = 0;
    for (uint32_t seed = 1; seed <= 200; ++seed)
    {
        RangeSource src(seed, seed % 2 ? 500 : (seed % 3 ? 100000 : INT32_MAX), seed % 5 == 0 ? 0.01 : 0.0);
        OwnedState a(8), b(8), c(SetState::defaultMinBatch, false);
        a.s.inputType = b.s.inputType = 2;
        a.s.outputType = b.s.outputType = 5;
        for (int i = 0; i < 300; ++i)
        {
            const Range r = src.next();
            (i % 2 ? a : b).s.addRange(r.lower, r.upper);
        }
        const Pairs expected = signedUnion(a.ranges(), b.ranges());
        c.s.addOtherCtx(a.s);
        c.s.addOtherCtx(b.s);
        if (c.ranges() != expected)
            ++mismatches;
    }
    EXPECT_EQ(mismatches, 0);
}

// Any split of the rows into partial states, combined in any order, gives what one state fed every
// row gives, for rows over the whole int4 range: a parallel plan answers as a serial one. Rows that
// end at INT32_MAX or are reversed are left out: for them per-row insertion itself depends on the
// order of the rows.
TEST(SetAggregate, CombinedPartialStatesEqualOneStateFedEveryRow)
{
    int mismatches = 0;
    for (uint32_t seed = 1; seed <= 400; ++seed)
    {
        std::mt19937 rng(seed);
        // Narrow domains make touching and overlapping rows, the whole range makes distant ones.
        const int64_t lowest = seed % 3 == 0 ? -500 : INT32_MIN;
        const int64_t highest = seed % 3 == 0 ? 500 : INT32_MAX - 1;
        std::uniform_int_distribution<int64_t> lowerOf(lowest, highest);
        const int rows = static_cast<int>(rng() % 400);
        const size_t parts = 1 + rng() % 4;
        std::vector<Range> all;
        for (int i = 0; i < rows; ++i)
        {
            const int64_t lower = lowerOf(rng);
            const int shape = static_cast<int>(rng() % 10);
            const int64_t length = shape < 4 ? 0 : (shape < 7 ? rng() % 6 : rng() % (highest - lowest + 1));
            Range r{static_cast<int32_t>(lower), static_cast<int32_t>(std::min<int64_t>(lower + length, INT32_MAX - 1))};
            if (shape == 9)
                r = rng() % 2 ? Range{INT32_MIN, INT32_MIN} : Range{INT32_MAX - 1, INT32_MAX - 1};
            all.push_back(r);
        }
        OwnedState serial(seed % 2 ? 8 : SetState::defaultMinBatch);
        Reference literal;
        serial.s.inputType = 2;
        serial.s.outputType = 4;
        for (const Range& r : all)
        {
            serial.s.addRange(r.lower, r.upper);
            literal.add(r.lower, r.upper);
        }
        std::vector<OwnedState> partial(parts);
        for (OwnedState& p : partial)
        {
            p.s.inputType = 2;
            p.s.outputType = 4;
            p.s.minBatch = seed % 2 ? 8 : SetState::defaultMinBatch;
        }
        for (const Range& r : all)
            partial[rng() % parts].s.addRange(r.lower, r.upper);
        for (OwnedState& p : partial)
            p.s.flush();
        // Combine as the executor does: a pair into a fresh state, then more into the result, in a
        // random order of the partial states.
        std::vector<size_t> order(parts);
        for (size_t i = 0; i < parts; ++i)
            order[i] = i;
        std::shuffle(order.begin(), order.end(), rng);
        OwnedState combined(SetState::defaultMinBatch, false);
        SetAggStatus status = combined.s.addOtherCtxPair(&partial[order[0]].s, parts > 1 ? &partial[order[1]].s : nullptr);
        for (size_t i = 2; i < parts && status == SetAggStatus::Ok; ++i)
            status = combined.s.addOtherCtx(partial[order[i]].s);
        EXPECT_EQ(status, SetAggStatus::Ok);
        const Pairs expected = serial.ranges();
        if (combined.ranges() != expected || literal.ranges() != expected)
            ++mismatches;
    }
    EXPECT_EQ(mismatches, 0);
}

// The union of the old wrap-around ordering differs here: INT32_MIN and INT32_MAX are 2^32 - 1
// apart, and values on both sides of zero more than 2^31 apart are still ordered by sign.
TEST(SetAggregate, CombineOrdersBoundsBySign)
{
    OwnedState a, b, c(SetState::defaultMinBatch, false);
    a.s.inputType = b.s.inputType = 1;
    a.s.outputType = b.s.outputType = 4;
    for (int v : {-2147483000, 5})
        a.s.addValue(v);
    for (int v : {-2147483001, 2147483000, 0})
        b.s.addValue(v);
    a.s.flush();
    b.s.flush();
    EXPECT_EQ(c.s.addOtherCtxPair(&a.s, &b.s), SetAggStatus::Ok);
    EXPECT_EQ(c.ranges(), (Pairs{{-2147483001, -2147483000}, {0, 0}, {5, 5}, {2147483000, 2147483000}}));
    OwnedState d, e, f(SetState::defaultMinBatch, false);
    d.s.inputType = e.s.inputType = 1;
    d.s.outputType = e.s.outputType = 4;
    d.s.addValue(INT32_MIN);
    e.s.addValue(INT32_MAX - 1);
    e.s.addValue(INT32_MIN + 1);
    d.s.flush();
    e.s.flush();
    EXPECT_EQ(f.s.addOtherCtxPair(&d.s, &e.s), SetAggStatus::Ok);
    EXPECT_EQ(f.ranges(), (Pairs{{INT32_MIN, INT32_MIN + 1}, {INT32_MAX - 1, INT32_MAX - 1}}));
}

TEST(SetAggregate, UnionWithRoomIsTheSignedUnion)
{
    // Arbitrary lists: unsorted, reversed, bounds more than 2^31 apart, touching runs.
    std::mt19937 rng(3);
    int mismatches = 0;
    for (int round = 0; round < 3000; ++round)
    {
        auto draw = [&](std::vector<Range>& v) {
            const int n = static_cast<int>(rng() % 12);
            int32_t at = static_cast<int32_t>(rng() % 64) - 32;
            for (int i = 0; i < n; ++i)
            {
                const int shape = static_cast<int>(rng() % 6);
                if (shape == 0)
                    at = static_cast<int32_t>(rng());  // anywhere
                else
                    at = zm::pgRangeArray::wrappedAdd(at, static_cast<int32_t>(rng() % 5));
                const int32_t upper = shape == 1 ? zm::pgRangeArray::wrappedAdd(at, -static_cast<int32_t>(rng() % 3))
                                                 : zm::pgRangeArray::wrappedAdd(at, static_cast<int32_t>(rng() % 4));
                v.push_back(Range{at, upper});
                at = upper;
            }
            if (rng() % 8 == 0)
                v.push_back(Range{INT32_MAX, INT32_MAX});
            if (rng() % 8 == 0)
                v.insert(v.begin(), Range{INT32_MIN, INT32_MIN + 1});
        };
        std::vector<Range> a, b;
        draw(a);
        draw(b);
        OwnedRanges got(std::max<size_t>(a.size() + b.size(), 1));
        zm::setAggDetail::unionWithRoom(a.data(), a.data() + a.size(), b.data(), b.data() + b.size(), got.v);
        if (signedUnion(pairsOf(a.begin(), a.end()), pairsOf(b.begin(), b.end())) != pairsOf(got.v.begin(), got.v.end()))
            ++mismatches;
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(SetAggregate, AddOtherCtxPairEqualsTwoAddOtherCtx)
{
    int mismatches = 0;
    for (uint32_t seed = 1; seed <= 300; ++seed)
    {
        RangeSource src(seed, seed % 2 ? 300 : 50000, seed % 3 == 0 ? 0.02 : 0.0);
        OwnedState a(4), b(4);
        // Types: mostly equal, sometimes different or uninitialised on either side.
        a.s.inputType = seed % 11 == 0 ? 0 : 2;
        a.s.outputType = seed % 11 == 0 ? 0 : 4;
        b.s.inputType = seed % 13 == 0 ? 0 : 2;
        b.s.outputType = seed % 7 == 0 ? 3 : (seed % 13 == 0 ? 0 : 4);
        const int rows = static_cast<int>(seed % 5) * 40;
        for (int i = 0; i < rows; ++i)
        {
            const Range r = src.next();
            (i % 3 ? a : b).s.addRange(r.lower, r.upper);
        }
        a.s.flush();
        b.s.flush();
        const SetState* args[4][2] = {{&a.s, &b.s}, {&a.s, nullptr}, {nullptr, &b.s}, {nullptr, nullptr}};
        for (const auto& pair : args)
        {
            OwnedState twoSteps(SetState::defaultMinBatch, false), oneStep(SetState::defaultMinBatch, false);
            SetAggStatus expected = SetAggStatus::Ok;
            if (pair[0])
                expected = twoSteps.s.addOtherCtx(*pair[0]);
            if (expected == SetAggStatus::Ok && pair[1])
                expected = twoSteps.s.addOtherCtx(*pair[1]);
            const SetAggStatus got = oneStep.s.addOtherCtxPair(pair[0], pair[1]);
            if (got != expected)
                ++mismatches;
            else if (got == SetAggStatus::Ok &&
                     (oneStep.ranges() != twoSteps.ranges() || oneStep.s.inputType != twoSteps.s.inputType ||
                      oneStep.s.outputType != twoSteps.s.outputType))
                ++mismatches;
        }
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(SetAggregate, SerialisedLayout)
{
    OwnedState st;
    st.s.inputType = 1;
    st.s.outputType = 4;
    st.s.addValue(7);
    st.s.addRange(-2, 3);
    const std::vector<uint8_t> bytes = st.bytes();
    ASSERT_EQ(bytes.size(), 2u + 16u);
    EXPECT_EQ(bytes[0], 1);
    EXPECT_EQ(bytes[1], 4);
    int32_t words[4];
    std::memcpy(words, bytes.data() + 2, sizeof words);
    EXPECT_EQ(words[0], -2);
    EXPECT_EQ(words[1], 3);
    EXPECT_EQ(words[2], 7);
    EXPECT_EQ(words[3], 7);

    OwnedState back(SetState::defaultMinBatch, false);
    EXPECT_EQ(back.s.fromBytes(bytes.data(), bytes.size()), SetAggStatus::Ok);
    EXPECT_EQ(back.s.inputType, 1);
    EXPECT_EQ(back.s.outputType, 4);
    EXPECT_EQ(back.ranges(), st.ranges());
    EXPECT_EQ(back.bytes(), bytes);
}

TEST(SetAggregate, SerialisedRoundTripOfLargeAndOddStates)
{
    for (uint32_t seed = 1; seed <= 20; ++seed)
    {
        RangeSource src(seed, 1000000, seed % 2 ? 0.001 : 0.0);
        OwnedState st(64);
        st.s.inputType = 2;
        st.s.outputType = 3;
        for (int i = 0; i < 5000; ++i)
        {
            const Range r = src.next();
            st.s.addRange(r.lower, r.upper);
        }
        const std::vector<uint8_t> bytes = st.bytes();
        OwnedState back(SetState::defaultMinBatch, false);
        ASSERT_EQ(back.s.fromBytes(bytes.data(), bytes.size()), SetAggStatus::Ok);
        EXPECT_EQ(back.ranges(), st.ranges());
        EXPECT_EQ(back.bytes(), bytes);
    }
}

TEST(SetAggregate, FromBytesErrors)
{
    OwnedState a(SetState::defaultMinBatch, false);
    const uint8_t none[1] = {4};
    EXPECT_EQ(a.s.fromBytes(none, 1), SetAggStatus::EmptyBytea);
    EXPECT_EQ(a.s.fromBytes(none, 0), SetAggStatus::EmptyBytea);

    OwnedState b(SetState::defaultMinBatch, false);
    const uint8_t uninitialised[2] = {0, 0};
    EXPECT_EQ(b.s.fromBytes(uninitialised, 2), SetAggStatus::Ok);
    EXPECT_EQ(b.s.inputType, 0);
    EXPECT_TRUE(b.ranges().empty());

    OwnedState c(SetState::defaultMinBatch, false);
    const uint8_t typed[2] = {4, 4};
    EXPECT_EQ(c.s.fromBytes(typed, 2), SetAggStatus::EmptyRangeArray);

    OwnedState d(SetState::defaultMinBatch, false);
    uint8_t twelve[14] = {4, 4};  // total length 18 with the varlena header
    EXPECT_EQ(d.s.fromBytes(twelve, 14), SetAggStatus::InvalidRangeArraySize);

    // Stored ranges are trusted: a reversed, unsorted pair survives.
    OwnedState e(SetState::defaultMinBatch, false);
    uint8_t raw[18] = {2, 5};
    const int32_t stored[4] = {9, 3, 1, 1};
    std::memcpy(raw + 2, stored, sizeof stored);
    EXPECT_EQ(e.s.fromBytes(raw, 18), SetAggStatus::Ok);
    EXPECT_EQ(e.ranges(), (Pairs{{9, 3}, {1, 1}}));

    // More ranges than the first buffer holds.
    std::vector<uint8_t> big(2 + 8 * 3000, 0);
    big[0] = 1;
    big[1] = 4;
    OwnedState f(SetState::defaultMinBatch, false);
    EXPECT_EQ(f.s.fromBytes(big.data(), big.size()), SetAggStatus::Ok);
    EXPECT_EQ(f.s.ranges.size, 3000u);
}

TEST(SetAggregate, LongArraysCheckForInterrupts)
{
    OwnedState st;
    std::vector<int32_t> values(3 * size_t{zm::interruptCheckInterval});
    for (size_t i = 0; i < values.size(); ++i)
        values[i] = static_cast<int32_t>((i * 2654435761u) % 1000003u);
    NoHooks::calls = 0;
    st.s.addScalarArray(values.data(), values.size());
    EXPECT_GE(NoHooks::calls, 3);
}

}  // namespace
