// Interrupt checks of the long loops: a server must be able to cancel any call that can run for
// long (huge expansions, wide bitfield writes and scans, aggregate steps over huge states). Each
// test counts the checks a loop makes on an input large enough to need several, and checks that
// the result is the one the loop gives without checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <random>
#include <stdexcept>
#include <vector>

#include "TestAllocator.h"
#include "zelmorraPgBitField.h"
#include "zelmorraPgSetAggregate.h"
#include "zelmorraPgSetConversion.h"

namespace {

struct Checks
{
    static inline int count = 0;
    static void check() { ++count; }
};

// ---- bitfield tests ----

constexpr uint32_t wideBits = uint32_t{1} << 27;  // a 16 MB bitfield: 16 scan slices

struct WideBitField
{
    std::vector<uint8_t> data;
    zm::BitFieldInfo info{};
    explicit WideBitField(uint8_t fill, int32_t first = 0) : data(wideBits / 8, fill)
    {
        info.status = zm::BitFieldStatus::Ok;
        info.first = first;
        info.last = static_cast<int32_t>(static_cast<uint32_t>(first) + wideBits - 1);
        info.count = wideBits;
        info.begin = data.data();
        info.end = data.data() + data.size();
    }
};

std::vector<int32_t> repeatedPair(int32_t lower, int32_t upper, int times)
{
    std::vector<int32_t> out;
    for (int i = 0; i < times; ++i)
    {
        out.push_back(lower);
        out.push_back(upper);
    }
    return out;
}

TEST(InterruptChecks, BitFieldOverlapPollsPerMegabyteScanned)
{
    const WideBitField zero(0x00);
    const std::vector<int32_t> pairs = repeatedPair(1, static_cast<int32_t>(wideBits - 2), 4);
    Checks::count = 0;
    EXPECT_FALSE(zm::bitFieldAnyRange<Checks>(zero.info, pairs.data(), 4));
    EXPECT_GE(Checks::count, 4 * 15);
    EXPECT_FALSE(zm::bitFieldAnyRange(zero.info, pairs.data(), 4));

    // The same ranges as mix items: an opener (lower | bit 31), then the upper end.
    std::vector<int32_t> items;
    for (int i = 0; i < 4; ++i)
    {
        items.push_back(static_cast<int32_t>(1u | 0x80000000u));
        items.push_back(static_cast<int32_t>(wideBits - 2));
    }
    Checks::count = 0;
    EXPECT_EQ(zm::bitFieldAnyMixItem<Checks>(zero.info, items.data(), static_cast<uint32_t>(items.size())), zm::BitFieldSetTest::False);
    EXPECT_GE(Checks::count, 4 * 15);

    // One wide range (the packed-range test).
    Checks::count = 0;
    EXPECT_FALSE(zm::bitFieldOverlapsRange<Checks>(zero.info, 0, static_cast<int32_t>(wideBits - 1)));
    EXPECT_GE(Checks::count, 15);
}

TEST(InterruptChecks, BitFieldInclusionPollsPerMegabyteScanned)
{
    const WideBitField full(0xFF);
    const std::vector<int32_t> pairs = repeatedPair(0, static_cast<int32_t>(wideBits - 1), 4);
    Checks::count = 0;
    EXPECT_TRUE(zm::bitFieldAllRanges<Checks>(full.info, pairs.data(), 4));
    EXPECT_GE(Checks::count, 4 * 15);
    EXPECT_TRUE(zm::bitFieldAllRanges(full.info, pairs.data(), 4));

    std::vector<int32_t> items;
    for (int i = 0; i < 4; ++i)
    {
        items.push_back(static_cast<int32_t>(0x80000000u));
        items.push_back(static_cast<int32_t>(wideBits - 1));
    }
    Checks::count = 0;
    EXPECT_EQ(zm::bitFieldAllMixItems<Checks>(full.info, items.data(), static_cast<uint32_t>(items.size())), zm::BitFieldSetTest::True);
    EXPECT_GE(Checks::count, 4 * 15);
}

TEST(InterruptChecks, BitFieldTestsPollPerManyMembers)
{
    const WideBitField zero(0x00);
    std::vector<int32_t> values(4 * size_t{zm::interruptCheckInterval} + 1);
    for (size_t i = 0; i < values.size(); ++i)
        values[i] = static_cast<int32_t>(i * 7);
    Checks::count = 0;
    EXPECT_FALSE(zm::bitFieldAnyValue<Checks>(zero.info, values.data(), static_cast<uint32_t>(values.size())));
    EXPECT_GE(Checks::count, 4);

    const WideBitField full(0xFF);
    Checks::count = 0;
    EXPECT_TRUE(zm::bitFieldAllValues<Checks>(full.info, values.data(), static_cast<uint32_t>(values.size())));
    EXPECT_GE(Checks::count, 4);

    // Narrow ranges: polled by their number.
    const int32_t pairCount = 3 * static_cast<int32_t>(zm::interruptCheckInterval) + 1;
    std::vector<int32_t> pairs;
    for (int32_t i = 0; i < pairCount; ++i)
    {
        pairs.push_back(i * 10);
        pairs.push_back(i * 10 + 3);
    }
    Checks::count = 0;
    EXPECT_TRUE(zm::bitFieldAllRanges<Checks>(full.info, pairs.data(), static_cast<uint32_t>(pairCount)));
    EXPECT_GE(Checks::count, 3);
}

// The sliced scans give the answers of the plain ones, ranges across slice borders included.
TEST(InterruptChecks, SlicedBitFieldScansAgreeWithPlainOnes)
{
    std::mt19937 rng(20240611);
    for (int round = 0; round < 4; ++round)
    {
        WideBitField bits(0x00, -1000);
        // A few set bits, and a run of set bits across the border of slices 3 and 4.
        for (int k = 0; k < 6; ++k)
            zm::setBit(bits.data.data(), rng() % wideBits);
        zm::writeRange(bits.data.data(), 3 * zm::bitFieldScanSliceBits - 77 - round, 3 * zm::bitFieldScanSliceBits + 5);
        for (int q = 0; q < 400; ++q)
        {
            int32_t a = static_cast<int32_t>(rng() % (wideBits + 2000)) - 2000;
            int32_t b = static_cast<int32_t>(rng() % (wideBits + 2000)) - 2000;
            if (a > b)
                std::swap(a, b);
            Checks::count = 0;
            ASSERT_EQ(zm::bitFieldOverlapsRange<Checks>(bits.info, a, b), zm::bitFieldOverlapsRange(bits.info, a, b))
                << a << ".." << b;
            ASSERT_EQ(zm::bitFieldIncludesRange<Checks>(bits.info, a, b), zm::bitFieldIncludesRange(bits.info, a, b))
                << a << ".." << b;
        }
    }
}

// ---- optimised set aggregate ----

struct ThrowingPolicy
{
    [[noreturn]] static void report(zm::BitFieldError) { throw std::runtime_error("bitfield error"); }
};

using OptState = zm::Int4ToSetOpDataOptimizedBase<TestAllocator, ThrowingPolicy, Checks>;

struct OwnedOpt
{
    OptState s;
    explicit OwnedOpt(int32_t maxInput, int32_t input = 2)
    {
        s.init(nullptr);
        s.sizeFor(maxInput);
        s.inputType = input;
        s.outputType = 4;
    }
    ~OwnedOpt() { s.release(); }
};

constexpr int32_t wideMax = static_cast<int32_t>(wideBits - 1);  // a 16 MB bitfield

TEST(InterruptChecks, OptimisedAggregateSizingChecksPerMegabyte)
{
    Checks::count = 0;
    OwnedOpt st(wideMax);
    EXPECT_GE(Checks::count, 15);
    EXPECT_EQ(st.s.bits.size, wideBits / 8);
    EXPECT_TRUE(std::all_of(st.s.bits.data, st.s.bits.data + st.s.bits.size, [](uint8_t b) { return b == 0; }));
}

TEST(InterruptChecks, OptimisedAggregateWideRangesChecksPerMegabyte)
{
    OwnedOpt st(wideMax, 4);
    const std::vector<int32_t> pairs = repeatedPair(0, wideMax, 3);
    Checks::count = 0;
    EXPECT_EQ(st.s.addRangeArray(pairs.data(), pairs.size()), zm::OptimizedAggStatus::Ok);
    EXPECT_GE(Checks::count, 3 * 15);
    EXPECT_EQ(st.s.runCount(), 1u);
    EXPECT_EQ(st.s.bitCount(), uint64_t{wideBits});

    // The same through a mix row.
    OwnedOpt mix(wideMax, 5);
    const int32_t items[] = {0, static_cast<int32_t>(0x80000000u), wideMax, static_cast<int32_t>(0x80000000u), wideMax};
    Checks::count = 0;
    EXPECT_EQ(mix.s.addMixArray(items, 5), zm::OptimizedAggStatus::Ok);
    EXPECT_GE(Checks::count, 2 * 15);
    EXPECT_EQ(mix.s.bitCount(), uint64_t{wideBits});
}

// Pair rows on a bitfield large enough to batch: narrow ranges are buffered, wide ones written at
// once with checks, so no later flush writes many wide ranges in one step.
TEST(InterruptChecks, OptimisedAggregateBuffersOnlyNarrowPairs)
{
    OwnedOpt st(wideMax);
    ASSERT_NE(st.s.pending, nullptr);
    EXPECT_EQ(st.s.addRange(10, 20), zm::OptimizedAggStatus::Ok);
    EXPECT_EQ(st.s.pendingCount, 1u);
    Checks::count = 0;
    EXPECT_EQ(st.s.addRange(100, wideMax), zm::OptimizedAggStatus::Ok);
    EXPECT_EQ(st.s.pendingCount, 1u);
    EXPECT_GE(Checks::count, 15);
    st.s.flush();
    EXPECT_EQ(st.s.runCount(), 2u);
    EXPECT_EQ(st.s.bitCount(), uint64_t{11} + uint64_t{wideBits} - 100);
}

TEST(InterruptChecks, OptimisedAggregateCombineAndSerialChecksPerMegabyte)
{
    OwnedOpt a(wideMax);
    OwnedOpt b(wideMax);
    a.s.addRange(0, 5);
    b.s.addRange(wideMax - 5, wideMax);
    a.s.flush();
    b.s.flush();

    OptState copy;
    copy.init(nullptr);
    Checks::count = 0;
    copy.copyFrom(a.s);
    EXPECT_GE(Checks::count, 15);
    Checks::count = 0;
    EXPECT_EQ(copy.addOtherCtx(b.s), zm::OptimizedAggStatus::Ok);
    EXPECT_GE(Checks::count, 15);
    EXPECT_EQ(copy.bitCount(), 12u);

    std::vector<uint8_t> bytes(copy.serialisedSize());
    Checks::count = 0;
    copy.toBytes(bytes.data());
    EXPECT_GE(Checks::count, 15);
    OptState back;
    back.init(nullptr);
    Checks::count = 0;
    EXPECT_EQ(back.fromBytes(bytes.data(), bytes.size()), zm::OptimizedAggStatus::Ok);
    EXPECT_GE(Checks::count, 15);
    EXPECT_EQ(back.bitCount(), 12u);
    EXPECT_EQ(back.runCount(), 2u);
    back.release();
    copy.release();
}

// ---- set aggregate ----

using SetState = zm::Int4ToSetOpDataSetBase<TestAllocator, Checks>;

struct OwnedSet
{
    SetState s;
    explicit OwnedSet(bool rowsFollow = true) { s.init(nullptr, rowsFollow); }
    ~OwnedSet() { s.release(); }
};

TEST(InterruptChecks, SetAggregateScalarOutputChecksWithinOneWideRange)
{
    OwnedSet st;
    st.s.addRange(-5, (3 << 20) - 6);
    st.s.compact();
    std::vector<int32_t> out(st.s.scalarCount());
    ASSERT_EQ(out.size(), size_t{3} << 20);
    Checks::count = 0;
    st.s.writeScalar(out.data());
    EXPECT_GE(Checks::count, 2);
    for (size_t i = 0; i < out.size(); ++i)
        ASSERT_EQ(out[i], static_cast<int32_t>(i) - 5);

    // Across ranges the count goes on: many ranges of a few values.
    OwnedSet many;
    for (int32_t i = 0; i < 400000; ++i)
        many.s.addRange(i * 10, i * 10 + 7);
    many.s.compact();
    std::vector<int32_t> values(many.s.scalarCount());
    Checks::count = 0;
    many.s.writeScalar(values.data());
    EXPECT_GE(Checks::count, 3);
    EXPECT_EQ(values[8], 10);
    EXPECT_EQ(values.back(), 3999997);
}

// After a range ending at 2147483647 every range is inserted literally; inserts at the front move
// the whole list, so the checks follow the ranges moved rather than the rows.
TEST(InterruptChecks, SetAggregateLiteralInsertsCheckByRangesMoved)
{
    OwnedSet st;
    for (int32_t i = 0; i < 4000; ++i)
        st.s.addRange(2 * i, 2 * i);
    st.s.addRange(INT32_MAX, INT32_MAX);
    ASSERT_TRUE(st.s.insertEachRow);
    Checks::count = 0;
    for (int32_t i = 1; i <= 2000; ++i)
        st.s.addRange(-2 * i, -2 * i);
    EXPECT_GE(Checks::count, 7);  // about 4000 * 2000 + 2000^2 / 2 ranges moved
    EXPECT_EQ(st.s.ranges.size, 6001u);
    EXPECT_EQ(st.s.ranges[0].lower, -4000);
}

TEST(InterruptChecks, SetAggregateSortUnionAndCopiesCheck)
{
    using IntRange = zm::pgRangeArray::Range<int>;
    const size_t n = size_t{3} << 20;
    std::vector<IntRange> data(n);
    std::vector<IntRange> temp(n);
    std::mt19937 rng(7);
    for (IntRange& r : data)
    {
        const int32_t v = static_cast<int32_t>(rng());
        r = IntRange{v, v};
    }
    Checks::count = 0;
    zm::radixSortBySignedKey<Checks>(data.data(), data.data(), temp.data(), n, [](const IntRange& r) { return r.lower; });
    EXPECT_GE(Checks::count, 2 + 3 * 2);
    EXPECT_TRUE(std::is_sorted(data.begin(), data.end(), [](const IntRange& x, const IntRange& y) { return x.lower < y.lower; }));

    // Two interleaved lists of separate ranges: the walk takes every range of both.
    std::vector<IntRange> a(n / 2);
    std::vector<IntRange> b(n / 2);
    for (size_t i = 0; i < n / 2; ++i)
    {
        a[i] = IntRange{static_cast<int32_t>(4 * i), static_cast<int32_t>(4 * i)};
        b[i] = IntRange{static_cast<int32_t>(4 * i + 2), static_cast<int32_t>(4 * i + 2)};
    }
    OwnedRanges checked(n);
    OwnedRanges plain(n);
    Checks::count = 0;
    zm::setAggDetail::unionWithRoom<Checks>(a.data(), a.data() + a.size(), b.data(), b.data() + b.size(), checked.v);
    EXPECT_GE(Checks::count, 2);
    zm::setAggDetail::unionWithRoom(a.data(), a.data() + a.size(), b.data(), b.data() + b.size(), plain.v);
    EXPECT_EQ(checked.v.size, n);
    EXPECT_TRUE(std::equal(checked.v.begin(), checked.v.end(), plain.v.begin(), plain.v.end(),
                           [](const IntRange& x, const IntRange& y) { return x.lower == y.lower && x.upper == y.upper; }));

    // Serial form of a state of three million ranges (24 MB).
    OwnedSet st(false);
    st.s.inputType = 1;
    st.s.outputType = 4;
    st.s.ranges.append(checked.v.begin(), checked.v.end());
    std::vector<uint8_t> bytes(st.s.serialisedSize());
    Checks::count = 0;
    st.s.toBytes(bytes.data());
    EXPECT_GE(Checks::count, 20);
    OwnedSet back(false);
    Checks::count = 0;
    EXPECT_EQ(back.s.fromBytes(bytes.data(), bytes.size()), zm::SetAggStatus::Ok);
    EXPECT_GE(Checks::count, 20);
    EXPECT_EQ(back.s.ranges.size, n);
    EXPECT_EQ(back.s.ranges[n - 1].lower, checked.v[n - 1].lower);
}

// ---- conversions ----

TEST(InterruptChecks, SortChecksWithinEachRadixPass)
{
    const size_t n = size_t{3} << 20;
    std::vector<int32_t> in(n);
    std::mt19937 rng(11);
    for (int32_t& v : in)
        v = static_cast<int32_t>(rng());
    std::vector<int32_t> out(n);
    std::vector<int32_t> scratch(n);
    Checks::count = 0;
    zm::setConversion::sortInt4<Checks>(in.data(), out.data(), scratch.data(), n);
    // Two checks in the histogram, two in each of the three passes, one after each pass.
    EXPECT_GE(Checks::count, 2 + 3 * 2 + 3);
    std::sort(in.begin(), in.end());
    EXPECT_EQ(out, in);
}

}  // namespace

// ---- input-linear walks ----

namespace {

struct RangeChecks
{
    static inline int count = 0;
    static void check() { ++count; }
};

// Walks that write through an allocator take its interrupt policy, as the server's does.
struct CheckingAllocator : TestAllocator
{
    using Interrupts = RangeChecks;
};
using CheckedRanges = zm::tVectorBase<Range, CheckingAllocator>;
using CheckedInts = zm::tVectorBase<int32_t, CheckingAllocator>;

std::vector<Range> separateRanges(size_t n, int32_t offset)
{
    std::vector<Range> out(n);
    for (size_t i = 0; i < n; ++i)
        out[i] = Range{static_cast<int32_t>(4 * i) + offset, static_cast<int32_t>(4 * i) + offset};
    return out;
}

TEST(InterruptChecks, RangeAlgorithmsCheckEveryMillionSteps)
{
    namespace ra = zm::pgRangeArray;
    const size_t n = size_t{3} << 20;
    const std::vector<Range> a = separateRanges(n, 0);
    const std::vector<Range> b = separateRanges(n, 2);
    const std::vector<Range> c = separateRanges(n, 0);
    CheckedRanges checked;
    checked.init(n);
    OwnedRanges plain(n);
    const auto same = [&checked, &plain] {
        return std::equal(checked.begin(), checked.end(), plain.v.begin(), plain.v.end(),
                          [](const Range& x, const Range& y) { return x.lower == y.lower && x.upper == y.upper; });
    };

    RangeChecks::count = 0;
    ra::computeUnion(a.data(), a.data() + n, b.data(), b.data() + n, checked);
    EXPECT_GE(RangeChecks::count, 5);
    ra::computeUnion(a.data(), a.data() + n, b.data(), b.data() + n, plain.v);
    EXPECT_TRUE(same());

    RangeChecks::count = 0;
    ra::computeIntersection(a.data(), a.data() + n, c.data(), c.data() + n, checked);
    EXPECT_GE(RangeChecks::count, 2);
    ra::computeIntersection(a.data(), a.data() + n, c.data(), c.data() + n, plain.v);
    EXPECT_TRUE(same());

    RangeChecks::count = 0;
    ra::computeExclusion(a.data(), a.data() + n, b.data(), b.data() + n, checked);
    EXPECT_GE(RangeChecks::count, 2);
    ra::computeExclusion(a.data(), a.data() + n, b.data(), b.data() + n, plain.v);
    EXPECT_TRUE(same());
    checked.release();

    RangeChecks::count = 0;
    EXPECT_FALSE((ra::isOverlapping<int, RangeChecks>(a.data(), a.data() + n, b.data(), b.data() + n)));
    EXPECT_GE(RangeChecks::count, 5);
    RangeChecks::count = 0;
    EXPECT_TRUE((ra::isStrictlyIncluded<int, RangeChecks>(a.data(), a.data() + n, c.data(), c.data() + n)));
    EXPECT_GE(RangeChecks::count, 2);
    RangeChecks::count = 0;
    const Range probe{static_cast<int32_t>(4 * n - 4), static_cast<int32_t>(4 * n - 4)};
    EXPECT_TRUE((ra::rangeOverlapsList<int, RangeChecks>(probe, a.data(), a.data() + n)));
    EXPECT_GE(RangeChecks::count, 2);
}

TEST(InterruptChecks, InputLinearConversionsCheckEveryMillionElements)
{
    namespace sc = zm::setConversion;
    const size_t n = size_t{3} << 20;
    std::vector<int32_t> values(n);
    for (size_t i = 0; i < n; ++i)
        values[i] = static_cast<int32_t>(2 * i);

    CheckedRanges ranges;
    ranges.init(1);
    RangeChecks::count = 0;
    EXPECT_EQ(sc::scalarToRanges(values.data(), n, ranges), sc::Status::Ok);
    EXPECT_GE(RangeChecks::count, 2);
    EXPECT_EQ(ranges.size, n);
    ranges.release();

    CheckedInts mix;
    mix.init(1);
    RangeChecks::count = 0;
    EXPECT_EQ(sc::scalarToMix(values.data(), n, mix), sc::Status::Ok);
    EXPECT_GE(RangeChecks::count, 2);
    EXPECT_EQ(mix.size, n + 1);

    CheckedRanges back;
    back.init(1);
    RangeChecks::count = 0;
    EXPECT_EQ(sc::mixToRanges(mix.data, mix.size, back), sc::Status::Ok);
    EXPECT_GE(RangeChecks::count, 2);
    EXPECT_EQ(back.size, n);
    back.release();

    // Without an interrupt policy nothing is checked.
    IntVec unchecked;
    unchecked.init(1);
    RangeChecks::count = 0;
    EXPECT_EQ(sc::scalarToMix(values.data(), n, unchecked), sc::Status::Ok);
    EXPECT_EQ(RangeChecks::count, 0);
    unchecked.release();

    // The range array {0,0, 2,2, ...} as its pairs' elements.
    std::vector<int32_t> pairs(2 * n);
    for (size_t i = 0; i < n; ++i)
        pairs[2 * i] = pairs[2 * i + 1] = static_cast<int32_t>(2 * i);
    CheckedInts mixed;
    mixed.init(1);
    RangeChecks::count = 0;
    EXPECT_EQ(sc::rangesToMix(pairs.data(), pairs.size(), mixed), sc::Status::Ok);
    EXPECT_GE(RangeChecks::count, 2);
    EXPECT_EQ(std::vector<int32_t>(mixed.begin(), mixed.end()), std::vector<int32_t>(mix.begin(), mix.end()));

    // Counting pass of the expansions: many one-value ranges.
    std::vector<int32_t> out(n);
    RangeChecks::count = 0;
    EXPECT_EQ(sc::rangesToScalars<RangeChecks>(pairs.data(), pairs.size(), [&out](size_t) { return out.data(); }), sc::Status::Ok);
    EXPECT_GE(RangeChecks::count, 2 + 2);
    EXPECT_EQ(out, values);
    RangeChecks::count = 0;
    EXPECT_EQ(sc::mixToScalars<RangeChecks>(mix.data, mix.size, n, [&out](size_t) { return out.data(); }), sc::Status::Ok);
    EXPECT_GE(RangeChecks::count, 2 + 2);
    EXPECT_EQ(out, values);
    mix.release();
    mixed.release();
}

}  // namespace
