// The branch-free walks of computeIntersection and computeExclusion against the step-by-step
// rules (computeIntersectionStepwise, computeExclusionStepwise), which define the result for every
// input: the output's contents, size and capacity must be the same for canonical inputs (where the
// walks run), for inputs that break the canonical form in one place (where they must give up) and
// for random garbage.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "TestAllocator.h"
#include "zelmorraPgRangeArray.h"

namespace walk = zm::pgRangeArray::canonicalWalk;
using zm::pgRangeArray::computeExclusion;
using zm::pgRangeArray::computeExclusionStepwise;
using zm::pgRangeArray::computeIntersection;
using zm::pgRangeArray::computeIntersectionStepwise;

namespace {

using Ranges = std::vector<Range>;

constexpr int32_t MIN = INT32_MIN;
constexpr int32_t MAX = INT32_MAX;

const Range* first(const Ranges& r) { return r.data(); }
const Range* last(const Ranges& r) { return r.data() + r.size(); }

enum class Operation
{
    Intersection,
    Exclusion
};

const char* nameOf(Operation op) { return op == Operation::Intersection ? "intersection" : "exclusion"; }

struct Outcome
{
    Ranges ranges;
    size_t capacity;
};

// The output vector starts with `initialCapacity` and some stale content, as a reused one would.
Outcome run(Operation op, bool stepwise, const Ranges& a, const Ranges& b, size_t initialCapacity)
{
    OwnedRanges out(initialCapacity);
    out.v.push_back(Range{-7, 7});
    if (op == Operation::Intersection)
    {
        if (stepwise)
            computeIntersectionStepwise(first(a), last(a), first(b), last(b), out.v);
        else
            computeIntersection(first(a), last(a), first(b), last(b), out.v);
    }
    else
    {
        if (stepwise)
            computeExclusionStepwise(first(a), last(a), first(b), last(b), out.v);
        else
            computeExclusion(first(a), last(a), first(b), last(b), out.v);
    }
    return Outcome{out.ranges(), out.v.capacity};
}

// Whether the branch-free walk accepts the inputs (it gives up when they are not canonical).
bool walkAccepts(Operation op, const Ranges& a, const Ranges& b)
{
    OwnedRanges out(1);
    return op == Operation::Intersection ? walk::intersect(first(a), last(a), first(b), last(b), out.v)
                                         : walk::exclude(first(a), last(a), first(b), last(b), out.v);
}

struct Tally
{
    int cases = 0;
    int walked = 0;  // cases in which the branch-free walk ran to the end
};

void expectSameAsStepwise(Operation op, const Ranges& a, const Ranges& b, size_t initialCapacity, Tally& tally)
{
    const Outcome fast = run(op, false, a, b, initialCapacity);
    const Outcome reference = run(op, true, a, b, initialCapacity);
    ++tally.cases;
    tally.walked += walkAccepts(op, a, b);
    if (fast.ranges == reference.ranges && fast.capacity == reference.capacity)
        return;
    ADD_FAILURE() << nameOf(op) << " differs from the step-by-step rules\nA = " << testing::PrintToString(a)
                  << "\nB = " << testing::PrintToString(b) << "\ninitial capacity " << initialCapacity
                  << "\nfast:      " << testing::PrintToString(fast.ranges) << " capacity " << fast.capacity
                  << "\nstepwise:  " << testing::PrintToString(reference.ranges) << " capacity "
                  << reference.capacity;
}

void expectBothSameAsStepwise(const Ranges& a, const Ranges& b, Tally& tally)
{
    for (size_t capacity : {size_t{1}, std::max<size_t>({a.size(), b.size(), 1})})
    {
        expectSameAsStepwise(Operation::Intersection, a, b, capacity, tally);
        expectSameAsStepwise(Operation::Exclusion, a, b, capacity, tally);
    }
}

// Random inputs: canonical lists of several shapes, the same with one defect, and garbage.
class Inputs
{
public:
    explicit Inputs(uint32_t seed) : rng_(seed) {}

    // A canonical list built upwards from a start point: lengths 1..maxLength values, at least
    // one missing value between ranges. Stops before passing INT32_MAX.
    Ranges canonical(int count, int64_t start, int64_t maxLength, int64_t maxGap)
    {
        Ranges out;
        int64_t lower = start;
        for (int i = 0; i < count; ++i)
        {
            const int64_t upper = lower + uniform(0, maxLength - 1);
            if (upper > MAX)
                break;
            out.push_back(Range{static_cast<int32_t>(lower), static_cast<int32_t>(upper)});
            lower = upper + 2 + uniform(0, maxGap);
            if (lower > MAX)
                break;
        }
        return out;
    }

    // Two canonical lists of one random shape: dense and interleaved, sparse, at either end of the
    // int32 line, or spread over more than 2^31.
    std::pair<Ranges, Ranges> canonicalPair()
    {
        const int shape = static_cast<int>(uniform(0, 5));
        const int countA = static_cast<int>(uniform(0, pick(12, 40, 300)));
        const int countB = static_cast<int>(uniform(0, pick(12, 40, 300)));
        switch (shape)
        {
            case 0:  // closely interleaved around zero
                return {canonical(countA, uniform(-30, 0), 4, 3), canonical(countB, uniform(-30, 0), 4, 3)};
            case 1:  // from INT32_MIN up
                return {canonical(countA, MIN + uniform(0, 3), 5, 4), canonical(countB, MIN + uniform(0, 3), 5, 4)};
            case 2:  // up to INT32_MAX, sometimes ending there
            {
                const int64_t start = int64_t{MAX} - uniform(0, 120);
                Ranges a = canonical(countA, start, 5, 4), b = canonical(countB, start - uniform(0, 10), 5, 4);
                for (Ranges* r : {&a, &b})
                    if (!r->empty() && uniform(0, 2) == 0)
                        r->back().upper = MAX;
                return {a, b};
            }
            case 3:  // spread over the whole line: spans of 2^31 and more
            {
                const int64_t step = (int64_t{1} << 32) / (std::max(countA, countB) + 1);
                return {canonical(countA, MIN + uniform(0, 2), step, step), canonical(countB, MIN, step, step)};
            }
            case 4:  // long and short ranges mixed
                return {canonical(countA, uniform(-1000, 0), 60, 30), canonical(countB, uniform(-1000, 0), 3, 40)};
            default:  // one side much shorter
                return {canonical(std::min(countA, 3), uniform(-50, 50), 30, 30), canonical(countB, uniform(-100, 0), 4, 4)};
        }
    }

    // One defect at a random place, or near the end of the list where the walks stop reading.
    void breakOnce(Ranges& r)
    {
        if (r.empty())
        {
            r.push_back(Range{5, 1});
            return;
        }
        const size_t n = r.size();
        const size_t i = uniform(0, 2) == 0 ? n - 1 - std::min<size_t>(n - 1, uniform(0, 2)) : uniform(0, n - 1);
        switch (uniform(0, 8))
        {
            case 0:  // reversed range
                std::swap(r[i].lower, r[i].upper);
                if (r[i].lower == r[i].upper)
                    r[i].lower = r[i].upper == MAX ? MAX : r[i].upper + 1;
                break;
            case 1:  // touches the next range
                if (i + 1 < n && r[i].upper < r[i + 1].upper)
                    r[i + 1].lower = r[i].upper + 1;
                break;
            case 2:  // overlaps the next range
                if (i + 1 < n)
                    r[i + 1].lower = static_cast<int32_t>(std::max<int64_t>(r[i].lower, int64_t{r[i].upper} - 1));
                break;
            case 3:  // unsorted tail
                std::shuffle(r.begin() + static_cast<ptrdiff_t>(i), r.end(), rng_);
                if (i + 1 < n)
                    std::swap(r[i], r[n - 1]);
                break;
            case 4:  // duplicated range
                r.insert(r.begin() + static_cast<ptrdiff_t>(i), r[i]);
                break;
            case 5:  // a range appended below the last one
                r.push_back(Range{r[i].lower, r[i].lower});
                break;
            case 6:  // a range at INT32_MIN after the first one
                r.insert(r.begin() + 1, Range{MIN, MIN});
                break;
            case 7:  // bounds at both ends of the line: canonical, but spanning everything
                r.front().lower = MIN;
                if (r.back().upper < MAX - 1)
                    r.push_back(Range{MAX, MAX});
                break;
            default:  // a range nested in the previous one
                if (i + 1 < n)
                    r.insert(r.begin() + static_cast<ptrdiff_t>(i) + 1, Range{r[i].upper, r[i].upper});
                break;
        }
    }

    Ranges garbage()
    {
        Ranges out(uniform(0, 10));
        for (Range& r : out)
        {
            r.lower = anyBound();
            r.upper = uniform(0, 3) == 0 ? anyBound() : static_cast<int32_t>(std::min<int64_t>(MAX, r.lower + uniform(0, 5)));
        }
        return out;
    }

    int64_t uniform(int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng_); }

private:
    int pick(int a, int b, int c)
    {
        const int64_t k = uniform(0, 9);
        return k < 6 ? a : k < 9 ? b : c;
    }

    int32_t anyBound()
    {
        switch (uniform(0, 3))
        {
            case 0: return static_cast<int32_t>(uniform(-8, 8));
            case 1: return MIN + static_cast<int32_t>(uniform(0, 2));
            case 2: return MAX - static_cast<int32_t>(uniform(0, 7));
            default: return static_cast<int32_t>(uniform(MIN, MAX));
        }
    }

    std::mt19937 rng_;
};

}  // namespace

TEST(RangeFastPath, CanonicalInputsMatchTheStepByStepRules)
{
    Inputs inputs(31337);
    Tally tally;
    for (int i = 0; i < 8000 && !HasFailure(); ++i)
    {
        const auto [a, b] = inputs.canonicalPair();
        expectBothSameAsStepwise(a, b, tally);
        expectBothSameAsStepwise(b, a, tally);
    }
    // The walk must really have run: it gives up only on spans of 2^31 and more (exclusion).
    EXPECT_GT(tally.walked, tally.cases * 8 / 10) << tally.walked << " of " << tally.cases;
}

TEST(RangeFastPath, InputsWithOneDefectMatchTheStepByStepRules)
{
    Inputs inputs(4711);
    Tally tally;
    for (int i = 0; i < 8000 && !HasFailure(); ++i)
    {
        auto [a, b] = inputs.canonicalPair();
        inputs.breakOnce(inputs.uniform(0, 1) == 0 ? a : b);
        if (inputs.uniform(0, 4) == 0)
            inputs.breakOnce(a);
        expectBothSameAsStepwise(a, b, tally);
        expectBothSameAsStepwise(b, a, tally);
    }
    // Many defects lie beyond what either walk reads, so both outcomes must be frequent.
    EXPECT_GT(tally.walked, tally.cases / 10) << tally.walked << " of " << tally.cases;
    EXPECT_LT(tally.walked, tally.cases * 9 / 10) << tally.walked << " of " << tally.cases;
}

TEST(RangeFastPath, GarbageMatchesTheStepByStepRules)
{
    Inputs inputs(2718);
    Tally tally;
    for (int i = 0; i < 8000 && !HasFailure(); ++i)
    {
        const Ranges a = inputs.garbage(), b = inputs.garbage();
        expectBothSameAsStepwise(a, b, tally);
    }
}

TEST(RangeFastPath, DefectsAroundTheCheckBlocks)
{
    // Long interleaved lists with one defect at every place near the ends of the first blocks.
    Inputs inputs(99);
    Tally tally;
    const auto [a0, b0] = std::pair<Ranges, Ranges>{inputs.canonical(400, 0, 4, 3), inputs.canonical(400, 1, 4, 3)};
    for (size_t at = 0; at < 400 && !HasFailure(); ++at)
    {
        const bool nearBlockEnd = at % walk::CheckBlock <= 2 || at % walk::CheckBlock >= walk::CheckBlock - 2;
        if (!nearBlockEnd && at % 17 != 0)
            continue;
        for (int kind = 0; kind < 3; ++kind)
        {
            Ranges a = a0, b = b0;
            Ranges& broken = kind == 1 ? b : a;
            if (at >= broken.size())
                continue;
            if (kind == 2)
                std::swap(broken[at].lower, broken[at].upper);
            else if (at > 0)
                broken[at].lower = broken[at - 1].upper;  // overlaps its predecessor
            else
                broken[at] = Range{broken[at].upper + 5, broken[at].upper};
            expectBothSameAsStepwise(a, b, tally);
            expectBothSameAsStepwise(b, a, tally);
        }
    }
}

TEST(RangeFastPath, TheRangeAfterTheWalkAtACheckBlockBoundary)
{
    // A's one range ends where B's range n - 1 ends, so the walk leaves B at range n: the
    // step-by-step intersection still compares it with A's range, and appends it when it lies
    // inside. At n = CheckBlock that range is the first one of the next check block.
    Inputs inputs(7);
    Tally tally;
    for (ptrdiff_t n : {walk::CheckBlock - 1, walk::CheckBlock, walk::CheckBlock + 1, 2 * walk::CheckBlock})
    {
        if (n < 1)
            continue;
        for (int kind = 0; kind < 3; ++kind)
        {
            Ranges b = inputs.canonical(static_cast<int>(n) + 3, 0, 4, 3);
            ASSERT_EQ(b.size(), static_cast<size_t>(n) + 3);
            const Range& lastRead = b[static_cast<size_t>(n) - 1];
            Range& next = b[static_cast<size_t>(n)];
            if (kind == 0)
                next = Range{lastRead.lower, lastRead.lower};  // inside A's range
            else if (kind == 1)
                next = Range{lastRead.upper + 1, next.upper};  // touches the range before
            else
                std::swap(next.lower, next.upper);
            const Ranges a{{b.front().lower - 1, lastRead.upper}};
            expectBothSameAsStepwise(a, b, tally);
            expectBothSameAsStepwise(b, a, tally);
        }
    }
}

TEST(RangeFastPath, RangesBeyondTheWalkThatTheStepByStepRulesStillRead)
{
    Tally tally;
    // A ends inside B's first range; B's second range is out of order and the step-by-step
    // intersection still appends it.
    expectBothSameAsStepwise({{0, 5}}, {{1, 5}, {2, 3}}, tally);
    expectBothSameAsStepwise({{1, 5}, {2, 3}}, {{0, 5}}, tally);
    EXPECT_EQ(run(Operation::Intersection, false, {{0, 5}}, {{1, 5}, {2, 3}}, 1).ranges, (Ranges{{1, 5}, {2, 3}}));
    // The exclusion looks at the B ranges that start up to A's last upper bound.
    expectBothSameAsStepwise({{0, 10}}, {{2, 3}, {5, 6}, {4, 4}}, tally);
    expectBothSameAsStepwise({{0, 10}}, {{2, 3}, {11, 12}, {4, 4}}, tally);
    // ...and copies A's tail after B as it is, merging its first range by the wrapped touch rule.
    expectBothSameAsStepwise({{0, 10}, {20, 30}, {25, 26}}, {{2, 3}}, tally);
    expectBothSameAsStepwise({{MIN, MIN + 3}, {5, 10}}, {{MIN + 1, MIN + 3}}, tally);
    expectBothSameAsStepwise({{0, 10}, {12, 20}}, {{12, 12}}, tally);
    // B's last range reaches INT32_MAX, so nothing of A is left above it, but the step-by-step
    // rules still append an A range that comes back below B (also beyond the first check block).
    expectBothSameAsStepwise({{0, 10}, {20, 30}, {1, 2}}, {{5, MAX}}, tally);
    EXPECT_EQ(run(Operation::Exclusion, false, {{0, 10}, {20, 30}, {1, 2}}, {{5, MAX}}, 1).ranges,
              (Ranges{{0, 4}, {1, 2}}));
    Ranges longA = Inputs(5).canonical(walk::CheckBlock + 40, 0, 4, 3);
    longA[walk::CheckBlock + 20] = Range{1, 2};
    expectBothSameAsStepwise(longA, {{5, MAX}}, tally);
    // Touching B ranges make the step-by-step exclusion emit an inverted piece.
    expectBothSameAsStepwise({{0, 10}}, {{2, 3}, {4, 6}}, tally);
    EXPECT_EQ(run(Operation::Exclusion, false, {{0, 10}}, {{2, 3}, {4, 6}}, 1).ranges,
              (Ranges{{0, 1}, {4, 3}, {7, 10}}));
}

TEST(RangeFastPath, WalkRunsOnCanonicalInputsAndGivesUpOtherwise)
{
    EXPECT_TRUE(walkAccepts(Operation::Intersection, {{1, 3}, {5, 9}}, {{2, 6}}));
    EXPECT_TRUE(walkAccepts(Operation::Intersection, {{1, 3}, {4, 9}}, {{2, 6}}));  // touching is fine here
    EXPECT_FALSE(walkAccepts(Operation::Intersection, {{1, 3}, {3, 9}}, {{2, 6}}));
    EXPECT_FALSE(walkAccepts(Operation::Intersection, {{3, 1}}, {{2, 6}}));
    EXPECT_TRUE(walkAccepts(Operation::Intersection, {{MIN, MIN}, {MAX, MAX}}, {{MIN, MAX}}));

    EXPECT_TRUE(walkAccepts(Operation::Exclusion, {{1, 3}, {5, 9}}, {{2, 6}}));
    EXPECT_FALSE(walkAccepts(Operation::Exclusion, {{1, 3}, {4, 9}}, {{2, 6}}));  // touching A
    EXPECT_FALSE(walkAccepts(Operation::Exclusion, {{1, 9}}, {{2, 3}, {4, 6}}));  // touching B
    EXPECT_TRUE(walkAccepts(Operation::Exclusion, {{0, MAX}}, {{MIN, MIN}, {5, 5}, {MAX, MAX}}));
    EXPECT_FALSE(walkAccepts(Operation::Exclusion, {{MIN, MIN}, {0, 0}}, {{5, 5}}));  // span of 2^31
    EXPECT_TRUE(walkAccepts(Operation::Exclusion, {{MIN, MIN}, {-1, -1}}, {{5, 5}}));
    EXPECT_FALSE(walkAccepts(Operation::Exclusion, {}, {{5, 5}}));  // plain copies stay stepwise
}

TEST(RangeFastPath, ExtremesOfTheLine)
{
    Tally tally;
    const Ranges whole{{MIN, MAX}};
    const Ranges ends{{MIN, MIN}, {0, 0}, {MAX, MAX}};
    const Ranges nearEnds{{MIN, MIN + 1}, {MIN + 3, MIN + 3}, {MAX - 3, MAX - 2}, {MAX, MAX}};
    for (const Ranges* a : {&whole, &ends, &nearEnds})
        for (const Ranges* b : {&whole, &ends, &nearEnds})
            expectBothSameAsStepwise(*a, *b, tally);
    expectBothSameAsStepwise({{MIN + 5, MIN + 9}}, {{MIN, MIN}, {MIN + 6, MIN + 6}}, tally);
    expectBothSameAsStepwise({{MAX - 9, MAX - 5}}, {{MAX - 6, MAX - 6}, {MAX, MAX}}, tally);
    expectBothSameAsStepwise({{-5, MAX}}, {{MIN, -3}, {MAX, MAX}}, tally);
}
