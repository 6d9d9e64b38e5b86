#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "TestAllocator.h"
#include "zelmorraPgSetConversion.h"

namespace sc = zm::setConversion;
using sc::Status;

namespace {

struct CountingInterrupts
{
    static inline int checks = 0;
    static void check() { ++checks; }
};

struct OwnedInts
{
    IntVec v;
    OwnedInts() { v.init(1); }
    ~OwnedInts() { v.release(); }
    std::vector<int32_t> values() const { return std::vector<int32_t>(v.begin(), v.end()); }
};

std::vector<int32_t> flatten(const std::vector<Range>& ranges)
{
    std::vector<int32_t> out;
    for (const Range& r : ranges)
    {
        out.push_back(r.lower);
        out.push_back(r.upper);
    }
    return out;
}

// Output of the expanding conversions: a buffer with guard elements on both sides so that a write
// outside the requested room is caught.
struct GuardedOutput
{
    static constexpr int32_t guard = 0x5a5a5a5a;
    static constexpr size_t guardCount = 16;
    std::vector<int32_t> buffer;
    size_t requested = SIZE_MAX;
    int calls = 0;

    int32_t* operator()(size_t n)
    {
        ++calls;
        requested = n;
        buffer.assign(n + 2 * guardCount, guard);
        return buffer.data() + guardCount;
    }
    std::vector<int32_t> values() const
    {
        return std::vector<int32_t>(buffer.begin() + guardCount, buffer.end() - guardCount);
    }
    bool guardsIntact() const
    {
        for (size_t i = 0; i < guardCount; ++i)
            if (buffer[i] != guard || buffer[buffer.size() - 1 - i] != guard)
                return false;
        return true;
    }
};

struct Converted
{
    Status status;
    std::vector<int32_t> values;
};

Converted toRanges(const std::vector<int32_t>& in)
{
    OwnedRanges out;
    const Status status = sc::scalarToRanges(in.data(), in.size(), out.v);
    return {status, flatten(out.ranges())};
}

Converted toMix(const std::vector<int32_t>& in)
{
    OwnedInts out;
    const Status status = sc::scalarToMix(in.data(), in.size(), out.v);
    return {status, out.values()};
}

Converted rangesToScalars(const std::vector<int32_t>& in)
{
    GuardedOutput out;
    const Status status = sc::rangesToScalars<zm::NoInterrupts>(in.data(), in.size(), std::ref(out));
    if (status == Status::Ok)
    {
        EXPECT_TRUE(out.guardsIntact());
    }
    return {status, status == Status::Ok ? out.values() : std::vector<int32_t>{}};
}

Converted rangesToMix(const std::vector<int32_t>& in)
{
    OwnedInts out;
    const Status status = sc::rangesToMix(in.data(), in.size(), out.v);
    return {status, out.values()};
}

Converted mixToScalars(const std::vector<int32_t>& in, size_t maxValues = 1u << 26)
{
    GuardedOutput out;
    const Status status = sc::mixToScalars<zm::NoInterrupts>(in.data(), in.size(), maxValues, std::ref(out));
    if (status == Status::Ok)
    {
        EXPECT_TRUE(out.guardsIntact());
        EXPECT_EQ(out.calls, 1);
    }
    else
    {
        EXPECT_EQ(out.calls, 0) << "nothing is allocated or written for a refused input";
    }
    return {status, status == Status::Ok ? out.values() : std::vector<int32_t>{}};
}

Converted mixToRanges(const std::vector<int32_t>& in)
{
    OwnedRanges out;
    const Status status = sc::mixToRanges(in.data(), in.size(), out.v);
    return {status, flatten(out.ranges())};
}

using V = std::vector<int32_t>;

}  // namespace

TEST(ConversionScalarToRange, RunsAndDuplicates)
{
    EXPECT_EQ(toRanges({1, 2, 3, 5, 7, 8}).values, (V{1, 3, 5, 5, 7, 8}));
    EXPECT_EQ(toRanges({4, 4, 4}).values, (V{4, 4}));
    EXPECT_EQ(toRanges({}).values, V{});
    EXPECT_EQ(toRanges({-3, -2, 0, 0, 1}).values, (V{-3, -2, 0, 1}));
    EXPECT_EQ(toRanges({INT_MIN, INT_MAX}).status, Status::Ok);
    EXPECT_EQ(toRanges({2147483646, 2147483647}).values, (V{2147483646, 2147483647}));
}

TEST(ConversionScalarToRange, WrappingDifferenceJoinsFarApartValues)
{
    // 2000000000 - (-2000000000) wraps to a negative difference, which is "at most 1".
    EXPECT_EQ(toRanges({-2000000000, 2000000000}).values, (V{-2000000000, 2000000000}));
    EXPECT_EQ(toRanges({-2, 2147483646}).values, (V{-2, 2147483646}));
    EXPECT_EQ(toRanges({-1, 2147483645}).values, (V{-1, -1, 2147483645, 2147483645}));
}

TEST(ConversionScalarToRange, Unsorted)
{
    EXPECT_EQ(toRanges({3, 2}).status, Status::ScalarToRangeNotSorted);
    EXPECT_EQ(toRanges({1, 5, 5, 4}).status, Status::ScalarToRangeNotSorted);
}

TEST(ConversionScalarToMix, CountElementAndItems)
{
    EXPECT_EQ(toMix({1, 2, 3, 5}).values, (V{4, -2147483647, 3, 5}));
    EXPECT_EQ(toMix({1, 1, 2}).values, (V{3, -2147483647, 2}));
    EXPECT_EQ(toMix({}).values, V{});
    EXPECT_EQ(toMix({7}).values, (V{1, 7}));
    EXPECT_EQ(toMix({0, 2, 4, 5}).values, (V{4, 0, 2, int32_t(4u | 0x80000000u), 5}));
    EXPECT_EQ(toMix({2, 1}).status, Status::ScalarToMixNotSorted);
}

TEST(ConversionRangeToScalar, ExpandsInInputOrder)
{
    EXPECT_EQ(rangesToScalars({1, 3, 7, 7}).values, (V{1, 2, 3, 7}));
    EXPECT_EQ(rangesToScalars({5, 4, 1, 1}).values, (V{1}));
    EXPECT_EQ(rangesToScalars({5, 6, 1, 2}).values, (V{5, 6, 1, 2}));
    EXPECT_EQ(rangesToScalars({1, 3, 2, 4}).values, (V{1, 2, 3, 2, 3, 4}));
    EXPECT_EQ(rangesToScalars({}).values, V{});
    EXPECT_EQ(rangesToScalars({1, 2, 3}).status, Status::OddRangeCount);
}

TEST(ConversionRangeToScalar, StopsAtTheLargestValue)
{
    EXPECT_EQ(rangesToScalars({2147483645, 2147483647}).values, (V{2147483645, 2147483646, 2147483647}));
    EXPECT_EQ(rangesToScalars({INT_MIN, INT_MIN + 1}).values, (V{INT_MIN, INT_MIN + 1}));
    EXPECT_EQ(rangesToScalars({INT_MAX, INT_MAX, INT_MAX, INT_MAX}).values, (V{INT_MAX, INT_MAX}));
}

TEST(ConversionRangeToScalar, OverflowIsRefusedBeforeAllocating)
{
    GuardedOutput out;
    const V whole{0, INT_MAX};  // 2^31 values
    EXPECT_EQ(sc::rangesToScalars<zm::NoInterrupts>(whole.data(), whole.size(), std::ref(out)), Status::ArrayOverflow);
    const V all{INT_MIN, INT_MAX};
    EXPECT_EQ(sc::rangesToScalars<zm::NoInterrupts>(all.data(), all.size(), std::ref(out)), Status::ArrayOverflow);
    const V twoHalves{0, 1 << 30, 0, 1 << 30};
    EXPECT_EQ(sc::rangesToScalars<zm::NoInterrupts>(twoHalves.data(), twoHalves.size(), std::ref(out)), Status::ArrayOverflow);
    EXPECT_EQ(out.calls, 0);
}

TEST(ConversionRangeToScalar, LongExpansionChecksForInterrupts)
{
    CountingInterrupts::checks = 0;
    const V in{0, (3 << 20) - 1};
    std::vector<int32_t> out(3 << 20);
    int32_t* outPtr = out.data();
    ASSERT_EQ(sc::rangesToScalars<CountingInterrupts>(in.data(), in.size(), [&](size_t n) {
                  EXPECT_EQ(n, out.size());
                  return outPtr;
              }),
              Status::Ok);
    EXPECT_GE(CountingInterrupts::checks, 2);
    for (size_t i = 0; i < out.size(); ++i)
        ASSERT_EQ(out[i], static_cast<int32_t>(i));
}

TEST(ConversionRangeToMix, ItemsAndWrappingCount)
{
    EXPECT_EQ(rangesToMix({1, 3, 7, 7}).values, (V{4, -2147483647, 3, 7}));
    EXPECT_EQ(rangesToMix({}).values, V{});
    EXPECT_EQ(rangesToMix({1, 2, 3}).status, Status::OddRangeCount);
    // A reversed pair is still a range item; its size counts as upper - lower + 1.
    EXPECT_EQ(rangesToMix({5, 3}).values, (V{-1, int32_t(5u | 0x80000000u), 3}));
    // Adjacent pairs are not merged.
    EXPECT_EQ(rangesToMix({1, 2, 3, 4}).values, (V{4, -2147483647, 2, -2147483645, 4}));
    // 0..2147483647 holds 2^31 values: the count wraps.
    EXPECT_EQ(rangesToMix({0, INT_MAX}).values, (V{INT_MIN, INT_MIN, INT_MAX}));
}

TEST(ConversionMixToScalar, Expands)
{
    EXPECT_EQ(mixToScalars({4, -2147483647, 3, 7}).values, (V{1, 2, 3, 7}));
    EXPECT_EQ(mixToScalars({}).values, V{});
    EXPECT_EQ(mixToScalars({0}).values, V{});
    EXPECT_EQ(mixToScalars({2, 9, 5}).values, (V{9, 5}));
    EXPECT_EQ(mixToScalars({3, -3, INT_MAX}).values, (V{2147483645, 2147483646, 2147483647}));
    EXPECT_EQ(mixToScalars({1, INT_MIN, 0}).values, (V{0}));
}

TEST(ConversionMixToScalar, BadItems)
{
    EXPECT_EQ(mixToScalars({3, -2147483647}).status, Status::InvalidRangeDefinition);
    EXPECT_EQ(mixToScalars({1, -2147483643, -1}).status, Status::InvalidRangeDefinition);
    EXPECT_EQ(mixToScalars({1, -2147483643, 2}).status, Status::InvalidRangeDefinition);
    EXPECT_EQ(mixToScalars({2, -2147483647, -2147483646}).status, Status::InvalidRangeDefinition);
}

TEST(ConversionMixToScalar, LyingCounts)
{
    EXPECT_EQ(mixToScalars({5, 1, 2}).status, Status::ConversionError);
    EXPECT_EQ(mixToScalars({1, 1, 2}).status, Status::ConversionError);
    EXPECT_EQ(mixToScalars({0, 1}).status, Status::ConversionError);
    EXPECT_EQ(mixToScalars({3, 1, 1, 2}).values, (V{1, 1, 2}));
    // More values than declared, by a huge range: refused without writing anything.
    EXPECT_EQ(mixToScalars({2, INT_MIN, INT_MAX}).status, Status::ConversionError);
    EXPECT_EQ(mixToScalars({-1, 5}).status, Status::OutputTooSmall);
    EXPECT_EQ(mixToScalars({INT_MIN}).status, Status::OutputTooSmall);
    EXPECT_EQ(mixToScalars({11, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, 10).status, Status::OutputTooSmall);
    EXPECT_EQ(mixToScalars({10, -2147483648, 9}, 10).values, (V{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST(ConversionMixToRange, ItemOrderKept)
{
    EXPECT_EQ(mixToRanges({4, -2147483647, 3, 7}).values, (V{1, 3, 7, 7}));
    EXPECT_EQ(mixToRanges({0}).values, V{});
    EXPECT_EQ(mixToRanges({}).values, V{});
    EXPECT_EQ(mixToRanges({2, 9, 5}).values, (V{9, 9, 5, 5}));
    EXPECT_EQ(mixToRanges({1, 5}).values, (V{5, 5}));
    EXPECT_EQ(mixToRanges({-77, 5}).values, (V{5, 5})) << "element 0 is not read";
    EXPECT_EQ(mixToRanges({1, -2147483643}).status, Status::InvalidRangeDefinition);
    EXPECT_EQ(mixToRanges({1, -2147483643, -1}).status, Status::InvalidRangeDefinition);
    EXPECT_EQ(mixToRanges({1, -2147483643, 2}).status, Status::InvalidRangeDefinition);
    EXPECT_EQ(mixToRanges({1, -2147483643, 5}).values, (V{5, 5}));
}

TEST(ConversionSort, SmallAndSpecial)
{
    auto sorted = [](V in) {
        V out(in.size()), scratch(in.size());
        sc::sortInt4<zm::NoInterrupts>(in.data(), out.data(), scratch.data(), in.size());
        return out;
    };
    EXPECT_EQ(sorted({3, 1, 2, 1}), (V{1, 1, 2, 3}));
    EXPECT_EQ(sorted({}), V{});
    V equal(1000, -5);
    EXPECT_EQ(sorted(equal), equal);
    V extremes;
    for (int i = 0; i < 500; ++i)
        extremes.insert(extremes.end(), {INT_MAX, INT_MIN, 0, -1, 1});
    V expected = extremes;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(sorted(extremes), expected);
    // Already in order, reversed, and in order but for the last element.
    V ascending(5000);
    for (size_t i = 0; i < ascending.size(); ++i)
        ascending[i] = static_cast<int32_t>(i * 3) - 7000;
    EXPECT_EQ(sorted(ascending), ascending);
    EXPECT_EQ(sorted(V(ascending.rbegin(), ascending.rend())), ascending);
    V almost = ascending;
    almost.back() = INT_MIN;
    V almostSorted = almost;
    std::sort(almostSorted.begin(), almostSorted.end());
    EXPECT_EQ(sorted(almost), almostSorted);
}

TEST(ConversionSort, RandomAgainstStdSort)
{
    std::mt19937 rng(42);
    for (size_t n : {1u, 2u, 255u, 256u, 257u, 1000u, 4096u, 100000u})
    {
        for (int spread = 0; spread < 4; ++spread)
        {
            V in(n);
            for (auto& v : in)
            {
                const uint32_t r = rng();
                switch (spread)
                {
                    case 0: v = static_cast<int32_t>(r); break;          // every digit varies
                    case 1: v = static_cast<int32_t>(r % 2000); break;   // only the low digit
                    case 2: v = static_cast<int32_t>(r % 5000000) - 2500000; break;
                    case 3: v = static_cast<int32_t>(r & 0xffc00000u); break;  // only the high digit
                }
            }
            const V original = in;
            V out(n), scratch(n);
            sc::sortInt4<zm::NoInterrupts>(in.data(), out.data(), scratch.data(), n);
            V expected = in;
            std::sort(expected.begin(), expected.end());
            EXPECT_EQ(out, expected) << "n=" << n << " spread=" << spread;
            EXPECT_EQ(in, original) << "the source is only read";
        }
    }
}

TEST(ConversionRoundTrip, RandomNonNegativeSets)
{
    std::mt19937 rng(7);
    for (int round = 0; round < 200; ++round)
    {
        const size_t n = rng() % 400;
        const uint32_t span = 1 + rng() % 2000;
        V in(n);
        for (auto& v : in)
            v = static_cast<int32_t>(rng() % span) + (round % 2 ? INT_MAX - 2000 : 0);
        std::sort(in.begin(), in.end());
        V unique = in;
        unique.erase(std::unique(unique.begin(), unique.end()), unique.end());

        const Converted ranges = toRanges(in);
        ASSERT_EQ(ranges.status, Status::Ok);
        const Converted mix = rangesToMix(ranges.values);
        ASSERT_EQ(mix.status, Status::Ok);
        const Converted back = mixToScalars(mix.values);
        ASSERT_EQ(back.status, Status::Ok);
        EXPECT_EQ(back.values, unique);

        EXPECT_EQ(rangesToScalars(ranges.values).values, unique);
        EXPECT_EQ(mixToRanges(mix.values).values, ranges.values);
        // Scalar to mix keeps the duplicates in its count only.
        const Converted directMix = toMix(in);
        ASSERT_EQ(directMix.status, Status::Ok);
        if (!in.empty())
        {
            EXPECT_EQ(directMix.values[0], static_cast<int32_t>(in.size()));
            EXPECT_EQ(V(directMix.values.begin() + 1, directMix.values.end()), V(mix.values.begin() + 1, mix.values.end()));
        }
    }
}

TEST(ConversionMixWalk, RandomGarbageNeverReadsPastTheEnd)
{
    // Random items in exactly sized heap blocks; AddressSanitizer builds catch a read past the end.
    std::mt19937 rng(3);
    for (int round = 0; round < 5000; ++round)
    {
        const size_t n = rng() % 12;
        std::unique_ptr<int32_t[]> data(new int32_t[n]);
        for (size_t i = 0; i < n; ++i)
            data[i] = (rng() % 3 == 0) ? static_cast<int32_t>(rng() | 0x80000000u) : static_cast<int32_t>(rng() % 50);
        OwnedRanges ranges;
        const Status rangeStatus = sc::mixToRanges(data.get(), n, ranges.v);
        GuardedOutput out;
        const Status scalarStatus = sc::mixToScalars<zm::NoInterrupts>(data.get(), n, 1000, std::ref(out));
        if (scalarStatus == Status::Ok)
        {
            EXPECT_TRUE(out.guardsIntact());
        }
        if (rangeStatus == Status::InvalidRangeDefinition && n > 0 && data[0] >= 0 && data[0] <= 1000)
        {
            EXPECT_EQ(scalarStatus, Status::InvalidRangeDefinition);
        }
    }
}
