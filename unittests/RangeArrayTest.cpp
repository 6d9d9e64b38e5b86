// Range-array algorithms: the worked examples, the 32-bit wrap-around rules, and randomized
// cross-checks against a plain reference (member sets over small universes, 64-bit interval
// arithmetic over wide ones).
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <random>
#include <vector>

#include "TestAllocator.h"
#include "zelmorraPgPackedRange.h"
#include "zelmorraPgRangeArray.h"

using zm::pgRangeArray::computeExclusion;
using zm::pgRangeArray::computeExclusionStepwise;
using zm::pgRangeArray::computeIntersection;
using zm::pgRangeArray::computeIntersectionStepwise;
using zm::pgRangeArray::computeUnion;
using zm::pgRangeArray::isOverlapping;
using zm::pgRangeArray::isStrictlyIncluded;
using zm::pgRangeArray::packedContains;
using zm::pgRangeArray::packedContainsValue;
using zm::pgRangeArray::packedOverlaps;
using zm::pgRangeArray::packRange;
using zm::pgRangeArray::pushIntoMixArray;
using zm::pgRangeArray::pushOrMerge;
using zm::pgRangeArray::rangeArrayInsert;
using zm::pgRangeArray::rangeOverlapsList;
using zm::pgRangeArray::unpackRange;
using zm::pgRangeArray::valueInRanges;

namespace {

using Ranges = std::vector<Range>;

constexpr int32_t MIN = INT32_MIN;
constexpr int32_t MAX = INT32_MAX;

const Range* first(const Ranges& r) { return r.data(); }
const Range* last(const Ranges& r) { return r.data() + r.size(); }

Ranges unionOf(const Ranges& a, const Ranges& b)
{
    OwnedRanges out;
    computeUnion(first(a), last(a), first(b), last(b), out.v);
    return out.ranges();
}

// Intersection and exclusion take a branch-free walk for canonical inputs and the step-by-step
// rules otherwise; every example here is checked against the step-by-step rules as well.
Ranges intersectionOf(const Ranges& a, const Ranges& b)
{
    OwnedRanges out, stepwise;
    computeIntersection(first(a), last(a), first(b), last(b), out.v);
    computeIntersectionStepwise(first(a), last(a), first(b), last(b), stepwise.v);
    EXPECT_EQ(out.ranges(), stepwise.ranges());
    return out.ranges();
}

Ranges exclusionOf(const Ranges& a, const Ranges& b)
{
    OwnedRanges out, stepwise;
    computeExclusion(first(a), last(a), first(b), last(b), out.v);
    computeExclusionStepwise(first(a), last(a), first(b), last(b), stepwise.v);
    EXPECT_EQ(out.ranges(), stepwise.ranges());
    return out.ranges();
}

Ranges pushOrMergeOnto(const Ranges& existing, const Ranges& input)
{
    OwnedRanges out;
    out.v.append(first(existing), last(existing));
    pushOrMerge(out.v, first(input), last(input));
    return out.ranges();
}

Ranges insertInto(const Ranges& existing, Range r)
{
    OwnedRanges out;
    out.v.append(first(existing), last(existing));
    rangeArrayInsert(out.v, r);
    return out.ranges();
}

}  // namespace

// ---- worked examples ----

TEST(RangeUnion, TouchingRangesMergeAndAGapOfOneDoesNot)
{
    EXPECT_EQ(unionOf({{1, 3}}, {{4, 6}}), (Ranges{{1, 6}}));
    EXPECT_EQ(unionOf({{1, 3}}, {{5, 6}}), (Ranges{{1, 3}, {5, 6}}));
    EXPECT_EQ(unionOf({{5, 6}}, {{1, 3}}), (Ranges{{1, 3}, {5, 6}}));
}

TEST(RangeUnion, OneSideEmptyReturnsTheOtherExactlyAsGiven)
{
    const Ranges odd{{5, 1}, {3, 4}, {2, 9}, {2, 9}};
    EXPECT_EQ(unionOf({}, odd), odd);
    EXPECT_EQ(unionOf(odd, {}), odd);
    EXPECT_EQ(unionOf({}, {}), Ranges{});
}

TEST(RangeUnion, OverlapsMergeKeepingTheLargerUpper)
{
    EXPECT_EQ(unionOf({{1, 10}}, {{3, 5}}), (Ranges{{1, 10}}));
    EXPECT_EQ(unionOf({{1, 10}, {20, 30}}, {{3, 5}, {11, 19}}), (Ranges{{1, 30}}));
    EXPECT_EQ(unionOf({{1, 2}, {8, 9}}, {{4, 5}}), (Ranges{{1, 2}, {4, 5}, {8, 9}}));
}

TEST(RangeUnion, EqualLowerBoundsTakeAFirst)
{
    // Both orders give the same set; A's range is taken first, then B's merges into it.
    EXPECT_EQ(unionOf({{1, 3}}, {{1, 7}}), (Ranges{{1, 7}}));
    EXPECT_EQ(unionOf({{1, 7}}, {{1, 3}}), (Ranges{{1, 7}}));
}

TEST(RangeUnion, ReusesTheOutputVectorAfterEmptyingIt)
{
    OwnedRanges out(8);
    out.v.push_back(Range{100, 200});
    out.v.push_back(Range{300, 400});
    Range* const block = out.v.data;
    const Ranges a{{1, 3}}, b{{4, 6}};
    computeUnion(first(a), last(a), first(b), last(b), out.v);
    EXPECT_EQ(out.ranges(), (Ranges{{1, 6}}));
    EXPECT_EQ(out.v.data, block);
    EXPECT_EQ(out.v.capacity, 8u);
    computeIntersection(first(a), last(a), first(b), last(b), out.v);
    EXPECT_TRUE(out.v.empty());
    computeExclusion(first(a), last(a), first(b), last(b), out.v);
    EXPECT_EQ(out.ranges(), (Ranges{{1, 3}}));
    EXPECT_EQ(out.v.data, block);
}

TEST(RangeIntersection, WorkedExamples)
{
    EXPECT_EQ(intersectionOf({{1, 10}}, {{3, 4}, {6, 12}}), (Ranges{{3, 4}, {6, 10}}));
    EXPECT_EQ(intersectionOf({{3, 4}, {6, 12}}, {{1, 10}}), (Ranges{{3, 4}, {6, 10}}));
    EXPECT_EQ(intersectionOf({{1, 3}}, {{4, 6}}), Ranges{});  // touching is not overlapping
    EXPECT_EQ(intersectionOf({{5, 5}}, {{5, 5}}), (Ranges{{5, 5}}));
}

TEST(RangeIntersection, EmptySideGivesEmpty)
{
    EXPECT_EQ(intersectionOf({}, {{1, 5}}), Ranges{});
    EXPECT_EQ(intersectionOf({{1, 5}}, {}), Ranges{});
}

TEST(RangeIntersection, EqualLowerBoundsGoThroughTheSecondBranch)
{
    // a.lower >= b.lower: a lies inside b and is appended unchanged, then B's tail cuts the next a.
    EXPECT_EQ(intersectionOf({{1, 3}, {6, 9}}, {{1, 7}}), (Ranges{{1, 3}, {6, 7}}));
    EXPECT_EQ(intersectionOf({{1, 7}}, {{1, 3}, {6, 9}}), (Ranges{{1, 3}, {6, 7}}));
}

TEST(RangeExclusion, WorkedExamples)
{
    EXPECT_EQ(exclusionOf({{1, 10}}, {{0, 3}, {5, 6}}), (Ranges{{4, 4}, {7, 10}}));
    EXPECT_EQ(exclusionOf({{1, 10}}, {{3, 4}, {6, 7}}), (Ranges{{1, 2}, {5, 5}, {8, 10}}));
    EXPECT_EQ(exclusionOf({{1, 5}, {7, 9}}, {{6, 6}}), (Ranges{{1, 5}, {7, 9}}));  // no merge across the hole
}

TEST(RangeExclusion, EmptySides)
{
    const Ranges odd{{9, 2}, {1, 1}, {1, 1}};
    EXPECT_EQ(exclusionOf(odd, {}), odd);  // A unchanged, even when not canonical
    EXPECT_EQ(exclusionOf({}, {{1, 2}}), Ranges{});
    EXPECT_EQ(exclusionOf({}, {}), Ranges{});
}

TEST(RangeExclusion, SeveralCutsAndBRangesBeforeA)
{
    EXPECT_EQ(exclusionOf({{1, 20}}, {{3, 4}, {6, 7}, {10, 12}}), (Ranges{{1, 2}, {5, 5}, {8, 9}, {13, 20}}));
    EXPECT_EQ(exclusionOf({{10, 20}}, {{1, 2}, {4, 5}, {15, 16}}), (Ranges{{10, 14}, {17, 20}}));
    EXPECT_EQ(exclusionOf({{10, 20}, {30, 40}}, {{1, 2}, {25, 26}}), (Ranges{{10, 20}, {30, 40}}));
    EXPECT_EQ(exclusionOf({{1, 5}, {10, 15}}, {{0, 12}}), (Ranges{{13, 15}}));
    EXPECT_EQ(exclusionOf({{1, 5}, {10, 15}}, {{0, 20}}), Ranges{});
    EXPECT_EQ(exclusionOf({{1, 5}, {10, 15}, {20, 25}}, {{5, 10}}), (Ranges{{1, 4}, {11, 15}, {20, 25}}));
}

TEST(RangePushOrMerge, OnlyTheLeadingRangesAreMerged)
{
    EXPECT_EQ(pushOrMergeOnto({{1, 3}}, {{4, 8}, {10, 12}}), (Ranges{{1, 8}, {10, 12}}));
    EXPECT_EQ(pushOrMergeOnto({{1, 3}}, {{6, 8}, {7, 12}}), (Ranges{{1, 3}, {6, 8}, {7, 12}}));
    // Several leading ranges merge in turn; after the first one that does not, nothing is tested.
    EXPECT_EQ(pushOrMergeOnto({{1, 3}}, {{2, 5}, {4, 20}, {30, 40}, {31, 32}}), (Ranges{{1, 20}, {30, 40}, {31, 32}}));
    // Merging keeps the larger upper bound.
    EXPECT_EQ(pushOrMergeOnto({{1, 10}}, {{3, 5}, {11, 11}}), (Ranges{{1, 11}}));
}

TEST(RangePushOrMerge, EmptyInputAndEmptyOutput)
{
    EXPECT_EQ(pushOrMergeOnto({{1, 3}}, {}), (Ranges{{1, 3}}));
    EXPECT_EQ(pushOrMergeOnto({}, {}), Ranges{});
    // Onto an empty output the input is copied unchanged, even when not canonical.
    EXPECT_EQ(pushOrMergeOnto({}, {{5, 6}, {1, 2}, {2, 3}}), (Ranges{{5, 6}, {1, 2}, {2, 3}}));
}

TEST(RangePushOrMerge, OnlyTheLastOutputRangeIsConsidered)
{
    EXPECT_EQ(pushOrMergeOnto({{1, 3}, {10, 12}}, {{13, 14}}), (Ranges{{1, 3}, {10, 14}}));
    EXPECT_EQ(pushOrMergeOnto({{1, 3}, {10, 12}}, {{14, 14}}), (Ranges{{1, 3}, {10, 12}, {14, 14}}));
    // A range starting before the last range's end is absorbed into it (upper = max); the ranges
    // before the last one are not looked at.
    EXPECT_EQ(pushOrMergeOnto({{1, 3}, {10, 12}}, {{5, 6}}), (Ranges{{1, 3}, {10, 12}}));
    EXPECT_EQ(pushOrMergeOnto({{1, 3}, {10, 12}}, {{0, 20}}), (Ranges{{1, 3}, {10, 20}}));
}

TEST(RangeInsert, WorkedExamples)
{
    EXPECT_EQ(insertInto({{1, 3}, {7, 9}}, {5, 5}), (Ranges{{1, 3}, {5, 5}, {7, 9}}));
    EXPECT_EQ(insertInto({{1, 3}, {7, 9}}, {4, 6}), (Ranges{{1, 9}}));
    EXPECT_EQ(insertInto({{1, 3}, {8, 9}}, {4, 6}), (Ranges{{1, 6}, {8, 9}}));
    EXPECT_EQ(insertInto({{1, 3}, {8, 9}}, {4, 7}), (Ranges{{1, 9}}));
}

TEST(RangeInsert, EachPlaceOfInsertion)
{
    EXPECT_EQ(insertInto({}, {3, 4}), (Ranges{{3, 4}}));
    EXPECT_EQ(insertInto({{5, 6}}, {1, 2}), (Ranges{{1, 2}, {5, 6}}));          // front, no touch
    EXPECT_EQ(insertInto({{5, 6}}, {1, 3}), (Ranges{{1, 3}, {5, 6}}));          // front, gap of one
    EXPECT_EQ(insertInto({{5, 6}}, {1, 4}), (Ranges{{1, 6}}));                  // touches the first
    EXPECT_EQ(insertInto({{5, 6}}, {8, 9}), (Ranges{{5, 6}, {8, 9}}));          // back
    EXPECT_EQ(insertInto({{5, 6}}, {7, 9}), (Ranges{{5, 9}}));                  // touches the last
    EXPECT_EQ(insertInto({{1, 2}, {10, 12}}, {5, 6}), (Ranges{{1, 2}, {5, 6}, {10, 12}}));
    EXPECT_EQ(insertInto({{1, 2}, {5, 6}, {9, 10}, {14, 15}}, {3, 11}), (Ranges{{1, 11}, {14, 15}}));
    EXPECT_EQ(insertInto({{1, 2}, {5, 6}, {9, 10}, {14, 15}}, {0, 100}), (Ranges{{0, 100}}));
    EXPECT_EQ(insertInto({{1, 20}}, {5, 6}), (Ranges{{1, 20}}));                // inside
}

TEST(MixArray, PushIntoMixArrayWritesValuesAndRanges)
{
    IntVec v;
    v.init(1);
    pushIntoMixArray(v, 7, 7);
    ASSERT_EQ(v.size, 1u);
    EXPECT_EQ(v[0], 7);

    v.clear();
    pushIntoMixArray(v, 2, 9);
    ASSERT_EQ(v.size, 2u);
    EXPECT_EQ(v[0], -2147483646);
    EXPECT_EQ(v[1], 9);

    // {1, 2, 3, 5}: the count element is the writer's business; the items are [1,3] then 5.
    v.clear();
    v.push_back(4);
    pushIntoMixArray(v, 1, 3);
    pushIntoMixArray(v, 5, 5);
    ASSERT_EQ(v.size, 4u);
    EXPECT_EQ(v[0], 4);
    EXPECT_EQ(v[1], -2147483647);
    EXPECT_EQ(v[2], 3);
    EXPECT_EQ(v[3], 5);
    EXPECT_EQ(v.capacity, 4u);
    v.release();
}

// ---- 32-bit wrap-around ----

TEST(RangeWrapAround, MergeRuleWrapsFromMinToMax)
{
    // MAX - MIN wraps to -1: the range is merged.
    EXPECT_EQ(pushOrMergeOnto({{MIN, MIN}}, {{MAX, MAX}}), (Ranges{{MIN, MAX}}));
    // After last.upper became MAX, a negative lower bound is "far after" it again (-7 - MAX wraps
    // to a large positive difference) and is appended.
    EXPECT_EQ(pushOrMergeOnto({{-5, MIN}}, {{MAX, MAX}, {-7, -6}}), (Ranges{{-5, MAX}, {-7, -6}}));
    // The same rule inside the union's merge walk.
    EXPECT_EQ(unionOf({{MIN, MIN}, {MAX, MAX}}, {{-10, -10}}), (Ranges{{MIN, MAX}, {-10, -10}}));
    // Without wrap a gap of one value never merges.
    EXPECT_EQ(pushOrMergeOnto({{MIN, MIN}}, {{MIN + 2, MIN + 3}}), (Ranges{{MIN, MIN}, {MIN + 2, MIN + 3}}));
    EXPECT_EQ(pushOrMergeOnto({{MAX - 3, MAX - 2}}, {{MAX, MAX}}), (Ranges{{MAX - 3, MAX - 2}, {MAX, MAX}}));
}

TEST(RangeWrapAround, UnionOrdersBoundsMoreThanTwoToThe31ApartByTheWrappedDifference)
{
    const Ranges low{{-2000000000, -1999999990}};
    const Ranges high{{2000000000, 2000000010}};
    // 2000000000 - (-2000000000) wraps to a negative number: the high range comes first.
    const Ranges expected{{2000000000, 2000000010}, {-2000000000, -1999999990}};
    EXPECT_EQ(unionOf(low, high), expected);
    EXPECT_EQ(unionOf(high, low), expected);
    // Less than 2^31 apart the order is the plain one.
    EXPECT_EQ(unionOf({{-1000000000, -999999990}}, {{1000000000, 1000000010}}),
              (Ranges{{-1000000000, -999999990}, {1000000000, 1000000010}}));
    // {MIN} and {MAX}: MAX comes first and MIN then merges into it (MIN - MAX wraps to 1).
    EXPECT_EQ(unionOf({{MIN, MIN}}, {{MAX, MAX}}), (Ranges{{MAX, MAX}}));
}

TEST(RangeWrapAround, InsertWithUpperAtMaxGoesToTheFrontWithoutMerge)
{
    // MAX + 1 wraps to MIN, so every range starts "after" the new one.
    EXPECT_EQ(insertInto({{5, 10}}, {8, MAX}), (Ranges{{8, MAX}, {5, 10}}));
    EXPECT_EQ(insertInto({{1, 2}, {20, 30}}, {0, MAX}), (Ranges{{0, MAX}, {1, 2}, {20, 30}}));
    // A range starting at MIN is not after MIN: the ordinary path applies.
    EXPECT_EQ(insertInto({{MIN, 0}}, {8, MAX}), (Ranges{{MIN, 0}, {8, MAX}}));
}

TEST(RangeWrapAround, InsertNextToARangeEndingAtMax)
{
    // e.upper + 1 wraps to MIN for a range ending at MAX, so the lower-bound search passes it.
    EXPECT_EQ(insertInto({{1, 3}, {10, MAX}}, {5, 20}), (Ranges{{1, 3}, {10, MAX}, {5, 20}}));
    EXPECT_EQ(insertInto({{10, MAX}}, {MIN, MIN}), (Ranges{{MIN, MIN}, {10, MAX}}));
}

TEST(RangeWrapAround, ExclusionTailMergesUnderTheWrappedTouchRule)
{
    // The piece [MIN, MIN] is followed by the untouched A range [5, 10]; 5 - MIN wraps negative.
    EXPECT_EQ(exclusionOf({{MIN, MIN + 3}, {5, 10}}, {{MIN + 1, MIN + 3}}), (Ranges{{MIN, 10}}));
    // The same with the last piece [MIN + 2, MIN + 3]: 5 - (MIN + 3) wraps negative as well.
    EXPECT_EQ(exclusionOf({{MIN, MIN + 3}, {5, 10}}, {{MIN + 1, MIN + 1}}), (Ranges{{MIN, MIN}, {MIN + 2, 10}}));
    // Far enough from MIN nothing wraps and the tail is appended.
    EXPECT_EQ(exclusionOf({{-10, -7}, {5, 10}}, {{-9, -9}}), (Ranges{{-10, -10}, {-8, -7}, {5, 10}}));
}

TEST(RangeWrapAround, IntersectionAndExclusionAtTheExtremes)
{
    EXPECT_EQ(intersectionOf({{MIN, MAX}}, {{MIN, MIN}, {0, 0}, {MAX, MAX}}), (Ranges{{MIN, MIN}, {0, 0}, {MAX, MAX}}));
    EXPECT_EQ(exclusionOf({{MIN, MAX}}, {{MIN, MIN}, {MAX, MAX}}), (Ranges{{MIN + 1, MAX - 1}}));
    EXPECT_EQ(exclusionOf({{MIN, MAX}}, {{-1, 0}}), (Ranges{{MIN, -2}, {1, MAX}}));
    EXPECT_EQ(exclusionOf({{MIN, MAX}}, {{MIN, MAX}}), Ranges{});
}

// ---- tests and membership ----

TEST(RangeTests, StrictInclusion)
{
    const Ranges empty;
    EXPECT_FALSE(isStrictlyIncluded(first(empty), last(empty), first(Ranges{{1, 5}}), last(Ranges{{1, 5}})));
    const Ranges a{{2, 3}, {4, 5}}, b{{1, 5}};
    EXPECT_TRUE(isStrictlyIncluded(first(a), last(a), first(b), last(b)));
    EXPECT_FALSE(isStrictlyIncluded(first(b), last(b), first(empty), last(empty)));
    const Ranges spans{{1, 6}}, adjacent{{1, 3}, {4, 6}};
    EXPECT_FALSE(isStrictlyIncluded(first(spans), last(spans), first(adjacent), last(adjacent)));
    const Ranges outside{{2, 3}, {7, 7}};
    EXPECT_FALSE(isStrictlyIncluded(first(outside), last(outside), first(b), last(b)));
}

TEST(RangeTests, Overlap)
{
    const Ranges a{{1, 3}}, b{{3, 9}}, c{{4, 9}}, empty;
    EXPECT_TRUE(isOverlapping(first(a), last(a), first(b), last(b)));
    EXPECT_FALSE(isOverlapping(first(a), last(a), first(c), last(c)));
    EXPECT_FALSE(isOverlapping(first(a), last(a), first(empty), last(empty)));
    EXPECT_FALSE(isOverlapping(first(empty), last(empty), first(a), last(a)));
}

TEST(RangeTests, OneRangeAgainstAList)
{
    const Ranges r15{{1, 5}}, r46{{4, 6}}, r36{{3, 6}}, empty;
    EXPECT_TRUE(rangeOverlapsList(Range{2, 3}, first(r15), last(r15)));
    EXPECT_FALSE(rangeOverlapsList(Range{2, 3}, first(r46), last(r46)));
    EXPECT_TRUE(rangeOverlapsList(Range{2, 3}, first(r36), last(r36)));
    EXPECT_FALSE(rangeOverlapsList(Range{1, 3}, first(r46), last(r46)));
    EXPECT_TRUE(rangeOverlapsList(Range{1, 4}, first(r46), last(r46)));
    EXPECT_FALSE(rangeOverlapsList(Range{1, 4}, first(empty), last(empty)));
    const Ranges holes{{1, 2}, {10, 12}, {20, 22}};
    EXPECT_FALSE(rangeOverlapsList(Range{13, 19}, first(holes), last(holes)));
    EXPECT_TRUE(rangeOverlapsList(Range{13, 20}, first(holes), last(holes)));
}

TEST(RangeTests, ValueMembership)
{
    const Ranges r{{1, 3}, {5, 9}}, oddTailIgnored{{1, 3}}, empty;
    EXPECT_TRUE(valueInRanges(5, first(r), last(r)));
    EXPECT_FALSE(valueInRanges(4, first(r), last(r)));
    EXPECT_TRUE(valueInRanges(1, first(r), last(r)));
    EXPECT_TRUE(valueInRanges(9, first(r), last(r)));
    EXPECT_FALSE(valueInRanges(10, first(r), last(r)));
    EXPECT_FALSE(valueInRanges(0, first(r), last(r)));
    EXPECT_FALSE(valueInRanges(4, first(oddTailIgnored), last(oddTailIgnored)));
    EXPECT_FALSE(valueInRanges(5, first(oddTailIgnored), last(oddTailIgnored)));
    EXPECT_FALSE(valueInRanges(0, first(empty), last(empty)));
    const Ranges extremes{{MIN, MIN}, {MAX, MAX}};
    EXPECT_TRUE(valueInRanges(MIN, first(extremes), last(extremes)));
    EXPECT_TRUE(valueInRanges(MAX, first(extremes), last(extremes)));
    EXPECT_FALSE(valueInRanges(0, first(extremes), last(extremes)));
}

TEST(PackedRange, PackAndUnpack)
{
    EXPECT_EQ(packRange(1, 2), (int64_t{2} << 32) | 1);
    EXPECT_EQ(packRange(-1, 0), int64_t{0xffffffff});
    EXPECT_EQ(packRange(0, -1), static_cast<int64_t>(0xffffffff00000000ull));
    for (const Range r : {Range{MIN, MAX}, Range{-7, -3}, Range{5, 5}, Range{MAX, MIN}})
        EXPECT_EQ(unpackRange(packRange(r.lower, r.upper)), r);
}

TEST(PackedRange, Comparisons)
{
    EXPECT_TRUE(packedOverlaps(Range{1, 5}, Range{5, 9}));
    EXPECT_FALSE(packedOverlaps(Range{1, 4}, Range{5, 9}));
    EXPECT_TRUE(packedContains(Range{1, 5}, Range{2, 3}));   // [2,3] lies inside [1,5]
    EXPECT_FALSE(packedContains(Range{2, 3}, Range{1, 5}));  // [2,3] does not contain [1,5]
    EXPECT_TRUE(packedContainsValue(Range{5, 5}, 5));
    EXPECT_FALSE(packedContainsValue(Range{5, 5}, 6));
}

// ---- randomized cross-checks ----

namespace {

struct Interval
{
    int64_t lower;
    int64_t upper;
};

using Intervals = std::vector<Interval>;

// Sorted, disjoint, non-adjacent form of any interval list (64-bit, so no wrap-around).
Intervals normalised(Intervals in)
{
    std::sort(in.begin(), in.end(), [](const Interval& x, const Interval& y) { return x.lower < y.lower; });
    Intervals out;
    for (const Interval& i : in)
    {
        if (!out.empty() && i.lower <= out.back().upper + 1)
            out.back().upper = std::max(out.back().upper, i.upper);
        else
            out.push_back(i);
    }
    return out;
}

Intervals toIntervals(const Ranges& r)
{
    Intervals out;
    for (const Range& x : r)
        out.push_back(Interval{x.lower, x.upper});
    return out;
}

Ranges toRanges(const Intervals& in)
{
    Ranges out;
    for (const Interval& i : in)
        out.push_back(Range{static_cast<int32_t>(i.lower), static_cast<int32_t>(i.upper)});
    return out;
}

Intervals referenceUnion(const Ranges& a, const Ranges& b)
{
    Intervals all = toIntervals(a);
    for (const Range& x : b)
        all.push_back(Interval{x.lower, x.upper});
    return normalised(all);
}

Intervals referenceIntersection(const Ranges& a, const Ranges& b)
{
    Intervals out;
    for (const Range& x : a)
        for (const Range& y : b)
        {
            const int64_t lower = std::max<int64_t>(x.lower, y.lower);
            const int64_t upper = std::min<int64_t>(x.upper, y.upper);
            if (lower <= upper)
                out.push_back(Interval{lower, upper});
        }
    return normalised(out);
}

Intervals referenceExclusion(const Ranges& a, const Ranges& b)
{
    Intervals pieces = toIntervals(a);
    for (const Range& y : b)
    {
        Intervals next;
        for (const Interval& p : pieces)
        {
            if (y.upper < p.lower || y.lower > p.upper)
            {
                next.push_back(p);
                continue;
            }
            if (p.lower < y.lower)
                next.push_back(Interval{p.lower, int64_t{y.lower} - 1});
            if (p.upper > y.upper)
                next.push_back(Interval{int64_t{y.upper} + 1, p.upper});
        }
        pieces = next;
    }
    return normalised(pieces);
}

bool referenceContains(const Ranges& a, int64_t v)
{
    return std::any_of(a.begin(), a.end(), [v](const Range& r) { return r.lower <= v && v <= r.upper; });
}

// Member sets over a small universe [base, base + size): the plainest possible reference.
struct Universe
{
    int64_t base;
    int64_t size;

    std::vector<bool> members(const Ranges& r) const
    {
        std::vector<bool> m(static_cast<size_t>(size), false);
        for (const Range& x : r)
            for (int64_t v = x.lower; v <= x.upper; ++v)
                m[static_cast<size_t>(v - base)] = true;
        return m;
    }

    Ranges fromMembers(const std::vector<bool>& m) const
    {
        Ranges out;
        for (int64_t i = 0; i < size; ++i)
        {
            if (!m[static_cast<size_t>(i)])
                continue;
            int64_t j = i;
            while (j + 1 < size && m[static_cast<size_t>(j + 1)])
                ++j;
            out.push_back(Range{static_cast<int32_t>(base + i), static_cast<int32_t>(base + j)});
            i = j;
        }
        return out;
    }
};

// Canonical random range arrays whose bounds come from a shared pool of points, so that the two
// operands often share bounds, touch and nest.
class Generator
{
public:
    Generator(uint32_t seed, int64_t lowest, int64_t highest) : rng_(seed), lowest_(lowest), highest_(highest) {}

    void newPool()
    {
        pool_.clear();
        const int seeds = 1 + static_cast<int>(rng_() % 12);
        for (int i = 0; i < seeds; ++i)
        {
            const int64_t p = uniform(lowest_, highest_);
            for (int64_t d = -2; d <= 2; ++d)
                if (p + d >= lowest_ && p + d <= highest_)
                    pool_.push_back(p + d);
        }
        if (rng_() % 4 == 0)
            pool_.push_back(lowest_);
        if (rng_() % 4 == 0)
            pool_.push_back(highest_);
    }

    Ranges canonical(int maxRanges)
    {
        const int n = static_cast<int>(rng_() % static_cast<uint32_t>(maxRanges + 1));
        std::vector<int64_t> points;
        for (int i = 0; i < 2 * n; ++i)
            points.push_back(pool_[rng_() % pool_.size()]);
        std::sort(points.begin(), points.end());
        Intervals raw;
        for (size_t i = 0; i + 1 < points.size(); i += 2)
            raw.push_back(Interval{points[i], points[i + 1]});
        return toRanges(normalised(raw));
    }

    Range anyRange()
    {
        int64_t x = pool_[rng_() % pool_.size()], y = pool_[rng_() % pool_.size()];
        if (x > y)
            std::swap(x, y);
        return Range{static_cast<int32_t>(x), static_cast<int32_t>(y)};
    }

    int64_t anyValue() { return rng_() % 2 ? pool_[rng_() % pool_.size()] : uniform(lowest_, highest_); }

private:
    int64_t uniform(int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng_); }

    std::mt19937 rng_;
    int64_t lowest_;
    int64_t highest_;
    std::vector<int64_t> pool_;
};

struct Window
{
    const char* name;
    int64_t lowest;
    int64_t highest;
};

// Windows no wider than 2^31 - 1: the wrapped differences of the union and merge rules agree with
// plain arithmetic there, so the results must be the exact canonical set.
const Window EXACT_WINDOWS[] = {
    {"around zero", -100, 100},
    {"at INT32_MIN", MIN, MIN + 150},
    {"at INT32_MAX", MAX - 150, MAX},
    {"negative half", MIN, -1},
    {"non-negative half", 0, MAX},
    {"centred", -(int64_t{1} << 30), (int64_t{1} << 30) - 1},
};

void expectSameSetOperations(const Ranges& a, const Ranges& b, const char* window, int iteration)
{
    SCOPED_TRACE(testing::Message() << window << ", case " << iteration);
    EXPECT_EQ(unionOf(a, b), toRanges(referenceUnion(a, b)));
    EXPECT_EQ(intersectionOf(a, b), toRanges(referenceIntersection(a, b)));
    EXPECT_EQ(exclusionOf(a, b), toRanges(referenceExclusion(a, b)));
}

}  // namespace

TEST(RangeRandomized, SetOperationsMatchTheIntervalReference)
{
    uint32_t seed = 20220701;
    for (const Window& w : EXACT_WINDOWS)
    {
        Generator gen(seed++, w.lowest, w.highest);
        for (int i = 0; i < 3000; ++i)
        {
            gen.newPool();
            const Ranges a = gen.canonical(i % 3 == 0 ? 3 : 12);
            const Ranges b = gen.canonical(i % 5 == 0 ? 3 : 12);
            expectSameSetOperations(a, b, w.name, i);
            if (HasFailure())
                return;
        }
    }
}

TEST(RangeRandomized, SetOperationsMatchMemberSets)
{
    const Window small[] = {{"around zero", -60, 60}, {"at INT32_MIN", MIN, MIN + 90}, {"at INT32_MAX", MAX - 90, MAX}};
    uint32_t seed = 7;
    for (const Window& w : small)
    {
        const Universe u{w.lowest, w.highest - w.lowest + 1};
        Generator gen(seed++, w.lowest, w.highest);
        for (int i = 0; i < 3000; ++i)
        {
            gen.newPool();
            const Ranges a = gen.canonical(10);
            const Ranges b = gen.canonical(10);
            const std::vector<bool> ma = u.members(a), mb = u.members(b);
            std::vector<bool> mu(ma.size()), mi(ma.size()), me(ma.size());
            for (size_t k = 0; k < ma.size(); ++k)
            {
                mu[k] = ma[k] || mb[k];
                mi[k] = ma[k] && mb[k];
                me[k] = ma[k] && !mb[k];
            }
            SCOPED_TRACE(testing::Message() << w.name << ", case " << i);
            EXPECT_EQ(unionOf(a, b), u.fromMembers(mu));
            EXPECT_EQ(intersectionOf(a, b), u.fromMembers(mi));
            EXPECT_EQ(exclusionOf(a, b), u.fromMembers(me));
            if (HasFailure())
                return;
        }
    }
}

TEST(RangeRandomized, IntersectionMatchesTheReferenceOverTheWholeInt32Line)
{
    // Intersection compares with plain signed arithmetic, so it is exact even for operands spread
    // from INT32_MIN to INT32_MAX.
    Generator gen(99, MIN, MAX);
    for (int i = 0; i < 5000; ++i)
    {
        gen.newPool();
        const Ranges a = gen.canonical(12);
        const Ranges b = gen.canonical(12);
        SCOPED_TRACE(testing::Message() << "case " << i);
        ASSERT_EQ(intersectionOf(a, b), toRanges(referenceIntersection(a, b)));
    }
}

TEST(RangeRandomized, InsertingOneByOneMatchesTheReference)
{
    // rangeArrayInsert is exact as long as no range ends at INT32_MAX (upper + 1 wraps there).
    const Window windows[] = {{"around zero", -100, 100},
                              {"at INT32_MIN", MIN, MIN + 150},
                              {"below INT32_MAX", MAX - 150, MAX - 1},
                              {"whole line but INT32_MAX", MIN, MAX - 1}};
    uint32_t seed = 4242;
    OwnedRanges out;
    for (const Window& w : windows)
    {
        Generator gen(seed++, w.lowest, w.highest);
        for (int i = 0; i < 1500; ++i)
        {
            gen.newPool();
            out.v.clear();
            Intervals reference;
            const int inserts = 1 + i % 25;
            for (int k = 0; k < inserts; ++k)
            {
                const Range r = gen.anyRange();
                rangeArrayInsert(out.v, r);
                reference.push_back(Interval{r.lower, r.upper});
                SCOPED_TRACE(testing::Message() << w.name << ", case " << i << ", insert " << k << " " << r);
                ASSERT_EQ(out.ranges(), toRanges(normalised(reference)));
            }
        }
    }
}

TEST(RangeRandomized, TestsAndMembershipMatchTheReference)
{
    const Window windows[] = {{"around zero", -100, 100}, {"whole line", MIN, MAX}};
    uint32_t seed = 31337;
    for (const Window& w : windows)
    {
        Generator gen(seed++, w.lowest, w.highest);
        for (int i = 0; i < 4000; ++i)
        {
            gen.newPool();
            const Ranges a = gen.canonical(i % 4 == 0 ? 2 : 10);
            const Ranges b = gen.canonical(10);
            SCOPED_TRACE(testing::Message() << w.name << ", case " << i);

            const bool overlap = !referenceIntersection(a, b).empty();
            ASSERT_EQ(isOverlapping(first(a), last(a), first(b), last(b)), overlap);
            ASSERT_EQ(isOverlapping(first(b), last(b), first(a), last(a)), overlap);

            // With canonical B a range inside the union of B lies inside a single B range.
            const bool included = !a.empty() && !b.empty() && referenceExclusion(a, b).empty();
            ASSERT_EQ(isStrictlyIncluded(first(a), last(a), first(b), last(b)), included);

            const Range r = gen.anyRange();
            ASSERT_EQ(rangeOverlapsList(r, first(b), last(b)), !referenceIntersection(Ranges{r}, b).empty()) << r;

            for (int k = 0; k < 4; ++k)
            {
                const int64_t v = gen.anyValue();
                ASSERT_EQ(valueInRanges(static_cast<int32_t>(v), first(b), last(b)), referenceContains(b, v)) << v;
            }
        }
    }
}

TEST(RangeRandomized, StrictInclusionOfSubsets)
{
    // Random subsets are rare among random pairs; build A from pieces of B so that true is common.
    std::mt19937 rng(5);
    Generator gen(6, -1000, 1000);
    for (int i = 0; i < 4000; ++i)
    {
        gen.newPool();
        const Ranges b = gen.canonical(8);
        Intervals pieces;
        for (const Range& r : b)
        {
            if (rng() % 3 == 0)
                continue;
            const int64_t span = int64_t{r.upper} - r.lower;
            const int64_t lo = r.lower + static_cast<int64_t>(rng() % static_cast<uint32_t>(span + 1));
            const int64_t hi = lo + static_cast<int64_t>(rng() % static_cast<uint32_t>(r.upper - lo + 1));
            pieces.push_back(Interval{lo, hi});
        }
        if (rng() % 4 == 0 && !pieces.empty())
            pieces.back().upper += 1 + rng() % 3;  // sometimes stick out
        const Ranges a = toRanges(normalised(pieces));
        const bool included = !a.empty() && !b.empty() && referenceExclusion(a, b).empty();
        SCOPED_TRACE(testing::Message() << "case " << i);
        ASSERT_EQ(isStrictlyIncluded(first(a), last(a), first(b), last(b)), included);
    }
}
