#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "TestAllocator.h"
#include "zelmorraPgGistAlgorithms.h"

using zm::pgRangeArray::computePenalty;
using zm::pgRangeArray::packRange;
using zm::pgRangeArray::SplitSide;
using zm::pgRangeArray::SplitStatus;
using zm::pgRangeArray::unpackRange;

namespace {

// Ranges compared as (lower, upper) pairs.
std::pair<int32_t, int32_t> ends(const Range& r) { return {r.lower, r.upper}; }

float penaltyOf(Range orig, Range add) { return computePenalty(orig, add); }

// Entry vector of a split: keys[i] is the key of offset i + 1.
struct Split
{
    std::vector<int64_t> keys;
    std::vector<uint16_t> leftOffsets;
    std::vector<uint16_t> rightOffsets;
    SplitSide left{};
    SplitSide right{};
    SplitStatus status = SplitStatus::Ok;

    explicit Split(const std::vector<Range>& ranges)
    {
        for (const Range& r : ranges)
            keys.push_back(packRange(r.lower, r.upper));
        leftOffsets.assign(keys.size() + 1, 0);
        rightOffsets.assign(keys.size() + 1, 0);
        left.offsets = leftOffsets.data();
        right.offsets = rightOffsets.data();
    }

    SplitStatus run()
    {
        const std::vector<int64_t>& k = keys;
        status = zm::pgRangeArray::pickSplit<TestAllocator>(static_cast<uint16_t>(keys.size()),
                                                            [&k](uint16_t i) { return k.at(i - 1u); }, left, right);
        return status;
    }

    SplitStatus runSorted(uint32_t target, uint32_t capacity)
    {
        const std::vector<int64_t>& k = keys;
        status = zm::pgRangeArray::pickSplitSorted<TestAllocator>(
            static_cast<uint16_t>(keys.size()), [&k](uint16_t i) { return k.at(i - 1u); }, target, capacity, left, right);
        return status;
    }

    std::vector<uint16_t> leftList() const { return std::vector<uint16_t>(left.offsets, left.offsets + left.count); }
    std::vector<uint16_t> rightList() const { return std::vector<uint16_t>(right.offsets, right.offsets + right.count); }

    Range unionOf(const std::vector<uint16_t>& offsets) const
    {
        Range u = unpackRange(keys.at(offsets.at(0) - 1u));
        for (uint16_t o : offsets)
        {
            const Range r = unpackRange(keys.at(o - 1u));
            u.lower = std::min(u.lower, r.lower);
            u.upper = std::max(u.upper, r.upper);
        }
        return u;
    }

    // Every offset 1..n exactly once on one side, both sides non-empty, unions exact.
    void expectPartition() const
    {
        ASSERT_EQ(status, SplitStatus::Ok);
        ASSERT_GT(left.count, 0);
        ASSERT_GT(right.count, 0);
        ASSERT_EQ(static_cast<size_t>(left.count + right.count), keys.size());
        std::vector<int> seen(keys.size() + 1, 0);
        for (uint16_t o : leftList())
        {
            ASSERT_GE(o, 1);
            ASSERT_LE(o, keys.size());
            ++seen[o];
        }
        for (uint16_t o : rightList())
        {
            ASSERT_GE(o, 1);
            ASSERT_LE(o, keys.size());
            ++seen[o];
        }
        for (size_t o = 1; o <= keys.size(); ++o)
            ASSERT_EQ(seen[o], 1) << "offset " << o;
        EXPECT_EQ(ends(left.unionKey), ends(unionOf(leftList())));
        EXPECT_EQ(ends(right.unionKey), ends(unionOf(rightList())));
    }
};

// ---- an independent, naive rendering of the two-ended greedy split ------------------------------

// Sizes in 64-bit arithmetic: a union can span all 2^32 int4 values.
float referencePenalty(Range o, Range n)
{
    const int64_t newSize = int64_t{n.upper} - n.lower + 1;
    const int64_t enlargement =
        (int64_t{std::max(o.upper, n.upper)} - std::min(o.lower, n.lower)) - (int64_t{o.upper} - o.lower);
    float overlap = 0.0f;
    if (newSize > enlargement)
        overlap = static_cast<float>(newSize - enlargement);
    const float ratio = overlap / static_cast<float>(int64_t{o.upper} - o.lower + 1);
    float fraction = 1.0f - ratio;
    fraction = 0.99f > fraction ? (fraction > 0.0f ? fraction : 0.0f) : 0.99f;
    return static_cast<float>(enlargement) + fraction;
}

struct Reference
{
    std::vector<uint16_t> left;
    std::vector<uint16_t> right;
};

// Keys must be pairwise distinct (the order among identical ranges is left open).
Reference referenceSplit(const std::vector<Range>& keys)
{
    const size_t n = keys.size();
    std::vector<uint16_t> byLower(n);
    std::vector<uint16_t> byUpper(n);
    for (size_t i = 0; i < n; ++i)
        byLower[i] = byUpper[i] = static_cast<uint16_t>(i + 1);
    std::sort(byLower.begin(), byLower.end(), [&](uint16_t a, uint16_t b) {
        const Range& x = keys[a - 1u];
        const Range& y = keys[b - 1u];
        return std::make_pair(x.lower, x.upper) < std::make_pair(y.lower, y.upper);
    });
    std::sort(byUpper.begin(), byUpper.end(), [&](uint16_t a, uint16_t b) {
        const Range& x = keys[a - 1u];
        const Range& y = keys[b - 1u];
        return std::make_pair(x.upper, x.lower) > std::make_pair(y.upper, y.lower);
    });
    std::vector<bool> placed(n + 1, false);
    Reference result;
    Range leftUnion{};
    Range rightUnion{};
    auto place = [&](std::vector<uint16_t>& side, Range& u, uint16_t o) {
        const Range r = keys[o - 1u];
        u = side.empty() ? r : Range{std::min(u.lower, r.lower), std::max(u.upper, r.upper)};
        side.push_back(o);
        placed[o] = true;
    };
    auto firstUnplaced = [&](const std::vector<uint16_t>& order) {
        for (uint16_t o : order)
            if (!placed[o])
                return o;
        return uint16_t{0};
    };
    place(result.left, leftUnion, byLower[0]);
    place(result.right, rightUnion, firstUnplaced(byUpper));
    while (result.left.size() + result.right.size() < n)
    {
        const uint16_t l = firstUnplaced(byLower);
        const uint16_t u = firstUnplaced(byUpper);
        const float pl = referencePenalty(leftUnion, keys[l - 1u]);
        const float pr = referencePenalty(rightUnion, keys[u - 1u]);
        if (pl < pr)
            place(result.left, leftUnion, l);
        else if (pr < pl)
            place(result.right, rightUnion, u);
        else if (result.right.size() <= result.left.size())
            place(result.right, rightUnion, u);
        else
            place(result.left, leftUnion, l);
    }
    return result;
}

std::vector<Range> distinctRandomRanges(std::mt19937& rng, size_t n, int32_t lowest, int32_t span, int32_t maxLength)
{
    std::uniform_int_distribution<int32_t> lower(lowest, lowest + span);
    std::uniform_int_distribution<int32_t> length(0, maxLength);
    std::set<std::pair<int32_t, int32_t>> seen;
    std::vector<Range> out;
    while (out.size() < n)
    {
        const int32_t lo = lower(rng);
        const int32_t hi = lo + length(rng);
        if (seen.insert({lo, hi}).second)
            out.push_back(Range{lo, hi});
    }
    return out;
}

}  // namespace

// ---- penalty ------------------------------------------------------------------------------------

TEST(GistPenalty, GrowthPlusFraction)
{
    EXPECT_FLOAT_EQ(penaltyOf({0, 9}, {3, 4}), 0.8f);    // inside: 0 + (1 - 2/10)
    EXPECT_FLOAT_EQ(penaltyOf({0, 9}, {8, 12}), 3.8f);   // grows by 3, 2 of 5 values already inside
    EXPECT_FLOAT_EQ(penaltyOf({0, 9}, {20, 20}), 11.99f);  // grows by 11, fraction capped at 0.99
    EXPECT_FLOAT_EQ(penaltyOf({0, 9}, {0, 9}), 0.0f);    // exact fit
    EXPECT_FLOAT_EQ(penaltyOf({0, 9}, {-5, -1}), 5.99f);  // touching from below: no overlap
    EXPECT_FLOAT_EQ(penaltyOf({5, 5}, {5, 5}), 0.0f);
    EXPECT_FLOAT_EQ(penaltyOf({1, 1}, {2, 2}), 1.99f);
}

TEST(GistPenalty, FractionNeverReachesTheNextInteger)
{
    // A one-value range inside a huge key: 1 - 1/size rounds to 1.0f and is capped.
    EXPECT_FLOAT_EQ(penaltyOf({0, 1000000000}, {7, 7}), 0.99f);
    EXPECT_FLOAT_EQ(penaltyOf({0, 99}, {7, 7}), 0.99f);
    EXPECT_FLOAT_EQ(penaltyOf({0, 100}, {7, 7}), 0.99f);  // 1 - 1/101 is above the cap
    EXPECT_FLOAT_EQ(penaltyOf({0, 100}, {7, 8}), 1.0f - 2.0f / 101.0f);
    EXPECT_LT(penaltyOf({0, 100}, {7, 8}), penaltyOf({0, 100}, {7, 7}));
}

TEST(GistPenalty, NoWrapAroundOnExtremeRanges)
{
    // Unions spanning 2^31 values or more: the growth is counted in full, never wrapped negative.
    EXPECT_FLOAT_EQ(penaltyOf({0, 0}, {INT_MIN, INT_MAX}), 4294967295.0f);  // grows by 2^32 - 1, fully inside
    EXPECT_FLOAT_EQ(penaltyOf({0, 10}, {INT_MIN, INT_MAX}), 4294967285.0f);
    EXPECT_FLOAT_EQ(penaltyOf({-2000000000, -2000000000}, {-1999999999, 2000000000}), 4000000000.0f);
    EXPECT_FLOAT_EQ(penaltyOf({-5000, 5000}, {INT_MAX, INT_MAX}), static_cast<float>(int64_t{INT_MAX} - 5000));
    EXPECT_FLOAT_EQ(penaltyOf({INT_MIN, INT_MIN}, {INT_MAX, INT_MAX}), 4294967295.99f);
    // A key already spanning every value: no growth, and the size ratio divides by 2^32.
    EXPECT_FLOAT_EQ(penaltyOf({INT_MIN, INT_MAX}, {0, 0}), 0.99f);
    EXPECT_FLOAT_EQ(penaltyOf({INT_MIN, INT_MAX}, {INT_MIN, INT_MAX}), 0.0f);
    EXPECT_FLOAT_EQ(penaltyOf({0, 0}, {0, INT_MAX}), static_cast<float>(INT_MAX));
    // Growth stays ordered across the old wrap point.
    EXPECT_LT(penaltyOf({0, 0}, {0, INT_MAX}), penaltyOf({0, 0}, {INT_MIN, INT_MAX}));
    EXPECT_LT(penaltyOf({0, 0}, {-10, 10}), penaltyOf({0, 0}, {-2000000000, 2000000000}));
}

TEST(GistPenalty, NeverNegativeOnAnyKeys)
{
    // Any two int8 keys, reversed halves included: the growth of [min, max] over the existing key
    // cannot be negative once nothing wraps.
    std::mt19937 rng(11);
    std::uniform_int_distribution<int32_t> any(INT_MIN, INT_MAX);
    for (int i = 0; i < 100000; ++i)
    {
        const Range orig{any(rng), any(rng)};
        const Range add{any(rng), any(rng)};
        EXPECT_GE(penaltyOf(orig, add), 0.0f);
    }
}

// ---- union, consistency -------------------------------------------------------------------------

TEST(GistUnion, MinLowerMaxUpper)
{
    const std::vector<int64_t> keys{packRange(5, 7), packRange(-3, 0), packRange(6, 100)};
    const int64_t u = zm::pgRangeArray::unionOfPackedKeys(3, [&](int i) { return keys[i]; });
    EXPECT_EQ(ends(unpackRange(u)), ends(Range{-3, 100}));
    EXPECT_EQ(zm::pgRangeArray::unionOfPackedKeys(1, [&](int i) { return keys[i]; }), keys[0]);
    const std::vector<int64_t> extreme{packRange(INT_MIN, -5), packRange(3, INT_MAX)};
    EXPECT_EQ(ends(unpackRange(zm::pgRangeArray::unionOfPackedKeys(2, [&](int i) { return extreme[i]; }))),
              ends(Range{INT_MIN, INT_MAX}));
}

TEST(GistConsistent, PackedStrategies)
{
    using zm::pgRangeArray::packedQueryConsistent;
    for (bool leaf : {true, false})
    {
        // 3 and 13: overlap, both ends inclusive; touching is overlapping here.
        for (uint16_t s : {3, 13})
        {
            EXPECT_TRUE(packedQueryConsistent(s, {2, 5}, {5, 9}, leaf));
            EXPECT_TRUE(packedQueryConsistent(s, {2, 5}, {-1, 2}, leaf));
            EXPECT_FALSE(packedQueryConsistent(s, {2, 5}, {6, 9}, leaf));
            EXPECT_FALSE(packedQueryConsistent(s, {2, 5}, {0, 1}, leaf));
        }
        // 15: the key contains the query.
        EXPECT_TRUE(packedQueryConsistent(15, {2, 5}, {2, 5}, leaf));
        EXPECT_TRUE(packedQueryConsistent(15, {2, 5}, {3, 4}, leaf));
        EXPECT_FALSE(packedQueryConsistent(15, {2, 5}, {1, 4}, leaf));
        EXPECT_FALSE(packedQueryConsistent(15, {2, 5}, {3, 6}, leaf));
    }
    // 14: the key lies inside the query on a leaf; overlap on an inner page.
    EXPECT_TRUE(packedQueryConsistent(14, {2, 5}, {2, 5}, true));
    EXPECT_FALSE(packedQueryConsistent(14, {2, 5}, {3, 5}, true));
    EXPECT_TRUE(packedQueryConsistent(14, {2, 5}, {3, 5}, false));
    EXPECT_TRUE(packedQueryConsistent(14, {2, 5}, {0, 10}, true));
    EXPECT_FALSE(packedQueryConsistent(14, {2, 5}, {6, 10}, false));
    // A query with its ends reversed matches no leaf under 14.
    EXPECT_FALSE(packedQueryConsistent(14, {3, 3}, {5, 1}, true));
}

TEST(GistConsistent, ValueAndRangeArray)
{
    using zm::pgRangeArray::rangeArrayQueryConsistent;
    using zm::pgRangeArray::valueQueryConsistent;
    EXPECT_TRUE(valueQueryConsistent({5, 9}, 5));
    EXPECT_TRUE(valueQueryConsistent({5, 9}, 9));
    EXPECT_FALSE(valueQueryConsistent({5, 9}, 4));
    EXPECT_FALSE(valueQueryConsistent({5, 9}, 10));

    const std::vector<Range> ranges{{1, 3}, {10, 12}, {20, 20}};
    const Range* b = ranges.data();
    const Range* e = b + ranges.size();
    EXPECT_FALSE(rangeArrayQueryConsistent({5, 5}, b, b));  // no pairs
    EXPECT_TRUE(rangeArrayQueryConsistent({3, 3}, b, e));
    EXPECT_FALSE(rangeArrayQueryConsistent({4, 9}, b, e));
    EXPECT_TRUE(rangeArrayQueryConsistent({4, 10}, b, e));
    EXPECT_TRUE(rangeArrayQueryConsistent({20, 30}, b, e));
    EXPECT_FALSE(rangeArrayQueryConsistent({21, 30}, b, e));
    EXPECT_FALSE(rangeArrayQueryConsistent({-5, 0}, b, e));
    EXPECT_TRUE(rangeArrayQueryConsistent({INT_MIN, INT_MAX}, b, e));
}

// ---- picksplit ----------------------------------------------------------------------------------

TEST(GistPickSplit, SortOrders)
{
    using zm::pgRangeArray::PackedRangeWithSplitOffset;
    using zm::pgRangeArray::PackedRangeWithSplitOffsetSortLower;
    using zm::pgRangeArray::PackedRangeWithSplitOffsetSortUpper;
    const PackedRangeWithSplitOffset a{packRange(-5, 3), 1};
    const PackedRangeWithSplitOffset b{packRange(-5, 4), 2};
    const PackedRangeWithSplitOffset c{packRange(2, 4), 3};
    EXPECT_TRUE(PackedRangeWithSplitOffsetSortLower(a, b));  // equal lower: smaller upper first
    EXPECT_TRUE(PackedRangeWithSplitOffsetSortLower(b, c));  // signed: -5 before 2
    EXPECT_FALSE(PackedRangeWithSplitOffsetSortLower(a, a));
    EXPECT_TRUE(PackedRangeWithSplitOffsetSortUpper(b, a));  // larger upper first
    EXPECT_TRUE(PackedRangeWithSplitOffsetSortUpper(c, b));  // equal upper: larger lower first
    EXPECT_FALSE(PackedRangeWithSplitOffsetSortUpper(c, c));
}

TEST(GistPickSplit, TwoClusters)
{
    Split s({{0, 9}, {5, 5}, {20, 29}, {25, 26}});
    ASSERT_EQ(s.run(), SplitStatus::Ok);
    s.expectPartition();
    // Seeds 1 and 3; then 4 goes right (0.8 < 0.9), then 2 goes left (0.9 < 15.99).
    EXPECT_EQ(s.leftList(), (std::vector<uint16_t>{1, 2}));
    EXPECT_EQ(s.rightList(), (std::vector<uint16_t>{3, 4}));
    EXPECT_EQ(ends(s.left.unionKey), ends(Range{0, 9}));
    EXPECT_EQ(ends(s.right.unionKey), ends(Range{20, 29}));
}

TEST(GistPickSplit, EqualPenaltiesAlternateRightFirst)
{
    std::vector<Range> ranges;
    for (int v = 1; v <= 100; ++v)
        ranges.push_back({v, v});
    Split s(ranges);
    ASSERT_EQ(s.run(), SplitStatus::Ok);
    s.expectPartition();
    EXPECT_EQ(s.left.count, 50);
    EXPECT_EQ(s.right.count, 50);
    EXPECT_EQ(ends(s.left.unionKey), ends(Range{1, 50}));
    EXPECT_EQ(ends(s.right.unionKey), ends(Range{51, 100}));
    // Placement order: seeds 1 and 100, then 99 (right, sides equal), 2 (left), 98, 3, ...
    for (int i = 0; i < 50; ++i)
    {
        EXPECT_EQ(s.left.offsets[i], i + 1);
        EXPECT_EQ(s.right.offsets[i], 100 - i);
    }
}

TEST(GistPickSplit, CoveringEntrySeedsLeftAndSecondUpperSeedsRight)
{
    Split s({{10, 20}, {0, 100}, {50, 60}, {30, 40}});
    ASSERT_EQ(s.run(), SplitStatus::Ok);
    s.expectPartition();
    EXPECT_EQ(s.left.offsets[0], 2);   // smallest lower end, also the largest upper end
    EXPECT_EQ(s.right.offsets[0], 3);  // the next record of the upper list
    // Everything fits inside the covering entry at no growth, so the rest goes left.
    EXPECT_EQ(s.leftList(), (std::vector<uint16_t>{2, 1, 4}));
    EXPECT_EQ(s.rightList(), (std::vector<uint16_t>{3}));
}

TEST(GistPickSplit, TwoEntriesOneEachSide)
{
    Split s({{5, 6}, {1, 2}});
    ASSERT_EQ(s.run(), SplitStatus::Ok);
    s.expectPartition();
    EXPECT_EQ(s.leftList(), (std::vector<uint16_t>{2}));
    EXPECT_EQ(s.rightList(), (std::vector<uint16_t>{1}));
    // Two identical ranges are still two records, one on each side.
    Split t({{7, 7}, {7, 7}});
    ASSERT_EQ(t.run(), SplitStatus::Ok);
    t.expectPartition();
}

TEST(GistPickSplit, TooFewEntries)
{
    Split one({{1, 1}});
    EXPECT_EQ(one.run(), SplitStatus::InvalidSize);
    Split none(std::vector<Range>{});
    EXPECT_EQ(none.run(), SplitStatus::InvalidSize);
}

TEST(GistPickSplit, RangesSpanningMoreThanHalfTheDomainSplit)
{
    // Left seed [-2e9, -2e9]; the next lower entry stretches it over more than 2^31 values.
    Split s({{0, 0}, {-2000000000, -2000000000}, {2000000001, 2000000001}, {-1999999999, 2000000000}});
    ASSERT_EQ(s.run(), SplitStatus::Ok);
    s.expectPartition();
    const Reference ref = referenceSplit({{0, 0}, {-2000000000, -2000000000}, {2000000001, 2000000001}, {-1999999999, 2000000000}});
    EXPECT_EQ(s.leftList(), ref.left);
    EXPECT_EQ(s.rightList(), ref.right);
}

TEST(GistPickSplit, DuplicatesAndNegativesPartition)
{
    std::vector<Range> ranges;
    for (int i = 0; i < 300; ++i)
        ranges.push_back({-(i % 7), -(i % 7) + (i % 3)});
    Split s(ranges);
    ASSERT_EQ(s.run(), SplitStatus::Ok);
    s.expectPartition();
}

TEST(GistPickSplit, MatchesNaiveReferenceOnRandomVectors)
{
    std::mt19937 rng(2024);
    std::uniform_int_distribution<int> sizes(2, 600);
    for (int round = 0; round < 400; ++round)
    {
        const size_t n = static_cast<size_t>(sizes(rng));
        const int32_t maxLength = round % 4 == 0 ? 0 : (round % 4 == 1 ? 5 : (round % 4 == 2 ? 100 : 100000));
        const std::vector<Range> ranges = distinctRandomRanges(rng, n, -50000, 100000, maxLength);
        Split s(ranges);
        ASSERT_EQ(s.run(), SplitStatus::Ok);
        s.expectPartition();
        const Reference ref = referenceSplit(ranges);
        EXPECT_EQ(s.leftList(), ref.left) << "round " << round;
        EXPECT_EQ(s.rightList(), ref.right) << "round " << round;
    }
}

TEST(GistPickSplit, PartitionsRandomVectorsWithDuplicates)
{
    std::mt19937 rng(99);
    std::uniform_int_distribution<int> sizes(2, 1700);
    for (int round = 0; round < 300; ++round)
    {
        const int n = sizes(rng);
        std::uniform_int_distribution<int32_t> lower(-20, 20 + round);
        std::uniform_int_distribution<int32_t> length(0, round % 5);
        std::vector<Range> ranges;
        for (int i = 0; i < n; ++i)
        {
            const int32_t lo = lower(rng);
            ranges.push_back({lo, lo + length(rng)});
        }
        Split s(ranges);
        ASSERT_EQ(s.run(), SplitStatus::Ok);
        s.expectPartition();
    }
}

TEST(GistPickSplit, ExtremeRangesPartitionLikeTheReference)
{
    std::mt19937 rng(5);
    std::uniform_int_distribution<int32_t> any(INT_MIN, INT_MAX);
    for (int round = 0; round < 200; ++round)
    {
        std::vector<Range> ranges;
        for (int i = 0; i < 50; ++i)
        {
            const int32_t a = any(rng);
            const int32_t b = round % 2 ? any(rng) : a;  // values of an int4 column, or wide ranges
            ranges.push_back({std::min(a, b), std::max(a, b)});
        }
        ranges.push_back({INT_MIN, INT_MIN});
        ranges.push_back({INT_MAX, INT_MAX});
        Split s(ranges);
        ASSERT_EQ(s.run(), SplitStatus::Ok);
        s.expectPartition();
        const Reference ref = referenceSplit(ranges);
        EXPECT_EQ(s.leftList(), ref.left);
        EXPECT_EQ(s.rightList(), ref.right);
    }
}

// ---- sorted-build split -------------------------------------------------------------------------

namespace {

// Splits recursively as the sorted build does, until every piece fits a page of `capacity`
// entries; returns the piece sizes.
void splitUntilFits(const std::vector<Range>& ranges, uint32_t target, uint32_t capacity, std::vector<size_t>& pieces)
{
    if (ranges.size() <= capacity)
    {
        pieces.push_back(ranges.size());
        return;
    }
    Split s(ranges);
    ASSERT_EQ(s.runSorted(target, capacity), SplitStatus::Ok);
    s.expectPartition();
    // Key order is kept: every left key sorts before every right key.
    std::vector<Range> left;
    std::vector<Range> right;
    for (uint16_t o : s.leftList())
        left.push_back(ranges[o - 1u]);
    for (uint16_t o : s.rightList())
        right.push_back(ranges[o - 1u]);
    const Range& lastLeft = left.back();
    const Range& firstRight = right.front();
    EXPECT_TRUE(std::make_pair(lastLeft.lower, lastLeft.upper) <= std::make_pair(firstRight.lower, firstRight.upper));
    splitUntilFits(left, target, capacity, pieces);
    splitUntilFits(right, target, capacity, pieces);
}

std::vector<Range> sortedRandomRanges(std::mt19937& rng, size_t n)
{
    std::uniform_int_distribution<int32_t> lower(-1000000, 1000000);
    std::uniform_int_distribution<int32_t> length(0, 100);
    std::vector<Range> out;
    for (size_t i = 0; i < n; ++i)
    {
        const int32_t lo = lower(rng);
        out.push_back({lo, lo + length(rng)});
    }
    std::sort(out.begin(), out.end(),
              [](const Range& a, const Range& b) { return std::make_pair(a.lower, a.upper) < std::make_pair(b.lower, b.upper); });
    return out;
}

}  // namespace

TEST(GistSortedBuildSplit, PageCount)
{
    using zm::pgRangeArray::sortedBuildPageCount;
    EXPECT_EQ(sortedBuildPageCount(1628, 366), 5u);
    EXPECT_EQ(sortedBuildPageCount(1628, 407), 4u);
    EXPECT_EQ(sortedBuildPageCount(408, 407), 2u);
    EXPECT_EQ(sortedBuildPageCount(3, 407), 2u);
    EXPECT_EQ(sortedBuildPageCount(1628, 64), 26u);
}

TEST(GistSortedBuildSplit, LeftCount)
{
    using zm::pgRangeArray::sortedBuildLeftCount;
    EXPECT_EQ(sortedBuildLeftCount(1628, 366, 407), 326u);  // five pages: peel one
    EXPECT_EQ(sortedBuildLeftCount(650, 366, 407), 325u);   // the last two share evenly
    EXPECT_EQ(sortedBuildLeftCount(1628, 64, 407), 63u);
    EXPECT_EQ(sortedBuildLeftCount(470, 64, 407), 59u);     // the rest, 411, is still too big
    EXPECT_EQ(sortedBuildLeftCount(466, 64, 407), 233u);    // the rest would fit: last two pages
    EXPECT_EQ(sortedBuildLeftCount(408, 407, 407), 204u);
    EXPECT_EQ(sortedBuildLeftCount(2, 407, 407), 1u);
}

TEST(GistSortedBuildSplit, BatchOfFourPagesBecomesFillfactorPages)
{
    std::mt19937 rng(11);
    const std::vector<Range> batch = sortedRandomRanges(rng, 4 * 407);
    std::vector<size_t> pieces;
    splitUntilFits(batch, 366, 407, pieces);
    EXPECT_EQ(pieces.size(), 5u);
    for (size_t p : pieces)
    {
        EXPECT_LE(p, 366u);
        EXPECT_GE(p, 325u);
    }
    // At full fill the four pages come back whole.
    pieces.clear();
    splitUntilFits(batch, 407, 407, pieces);
    EXPECT_EQ(pieces, (std::vector<size_t>{407, 407, 407, 407}));
    // Small pages for inner levels: all but the last two are at most the target.
    pieces.clear();
    splitUntilFits(batch, 64, 407, pieces);
    ASSERT_GE(pieces.size(), 3u);
    for (size_t i = 0; i + 2 < pieces.size(); ++i)
        EXPECT_LE(pieces[i], 64u);
    EXPECT_LE(pieces[pieces.size() - 2] + pieces.back(), 407u + 64u);
}

TEST(GistSortedBuildSplit, AnySizePartitionsAndKeepsOrder)
{
    std::mt19937 rng(12);
    for (size_t n : {2u, 3u, 408u, 409u, 500u, 815u, 1221u, 1627u, 1628u})
    {
        std::vector<size_t> pieces;
        splitUntilFits(sortedRandomRanges(rng, n), 366, 407, pieces);
        size_t total = 0;
        for (size_t p : pieces)
        {
            EXPECT_GE(p, 1u);
            total += p;
        }
        EXPECT_EQ(total, n);
    }
    // Unsorted input is put in key order first.
    std::vector<Range> shuffled = sortedRandomRanges(rng, 900);
    std::shuffle(shuffled.begin(), shuffled.end(), rng);
    std::vector<size_t> pieces;
    splitUntilFits(shuffled, 366, 407, pieces);
    EXPECT_EQ(pieces.size(), 3u);
}
