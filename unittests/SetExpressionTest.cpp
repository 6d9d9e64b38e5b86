// Group closing, buffer swapping and error order of the set-expression evaluator, outside the server.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <random>
#include <set>
#include <vector>

#include "TestAllocator.h"
#include "zelmorraPgSetExpression.h"

using zm::pgRangeArray::decodeSetExpressionOpCode;
using zm::pgRangeArray::encodeSetExpressionOpCode;
using zm::pgRangeArray::Exclusion;
using zm::pgRangeArray::Int4RangeOpGroup;
using zm::pgRangeArray::Intersection;
using zm::pgRangeArray::SetExpression;
using zm::pgRangeArray::SetExpressionBufferCapacity;
using zm::pgRangeArray::SetExpressionBufferCount;
using zm::pgRangeArray::SetExpressionGroupCount;
using zm::pgRangeArray::SetExpressionMaxDepth;
using zm::pgRangeArray::SetExpressionOpCode;
using zm::pgRangeArray::Union;

namespace {

enum class Failure
{
    CloseRoot,
    MaxDepth,
    UnknownOperation,
    OddLength,
};

struct SetExpressionFailure
{
    Failure failure;
    int32_t id;
};

struct ThrowingErrors
{
    [[noreturn]] static void closeRootGroup() { throw SetExpressionFailure{Failure::CloseRoot, 0}; }
    [[noreturn]] static void maxDepthReached() { throw SetExpressionFailure{Failure::MaxDepth, 0}; }
    [[noreturn]] static void unknownOperation(int32_t id) { throw SetExpressionFailure{Failure::UnknownOperation, id}; }
    [[noreturn]] static void oddOperandLength(int32_t) { throw SetExpressionFailure{Failure::OddLength, 0}; }
};

// Counts allocations so that the steady state can be shown to allocate nothing.
struct CountingAllocator
{
    static inline size_t allocations = 0;
    static inline size_t live = 0;
    static void* allocate(size_t bytes)
    {
        ++allocations;
        ++live;
        return TestAllocator::allocate(bytes);
    }
    static void deallocate(void* block)
    {
        --live;
        TestAllocator::deallocate(block);
    }
    static void diagnostic(const char* line) { TestAllocator::diagnostic(line); }
    [[noreturn]] static void outOfMemory() { TestAllocator::outOfMemory(); }
};

using Eval = SetExpression<void*, CountingAllocator, ThrowingErrors>;
using State = Eval::State;

// Owns one evaluator state for a test.
struct Expression
{
    State state{};
    Expression() { Eval::initialise(state); }
    ~Expression() { Eval::releaseBuffers(state); }

    void row(int16_t opCode, std::vector<int32_t> elements) { Eval::addValue(state, opCode, elements.data(), static_cast<int32_t>(elements.size())); }
    // An operand that reads as the empty set (NULL element, no or several dimensions).
    void emptyRow(int16_t opCode) { Eval::addValue(state, opCode, nullptr, 0); }

    std::vector<int32_t> finish()
    {
        Eval::closeAllGroups(state);
        return root();
    }
    std::vector<int32_t> root() const { return flatten(Eval::rootValue(state)); }
    std::vector<int32_t> valueOf(int32_t group) const { return flatten(state.buffers[state.groups[group].buffer]); }

    static std::vector<int32_t> flatten(const State::Buffer& buffer)
    {
        std::vector<int32_t> out;
        for (const Range& r : buffer)
        {
            out.push_back(r.lower);
            out.push_back(r.upper);
        }
        return out;
    }

    bool buffersArePermutation() const
    {
        std::vector<int32_t> seen{state.spareBuffer};
        for (const Int4RangeOpGroup& g : state.groups)
            seen.push_back(g.buffer);
        std::sort(seen.begin(), seen.end());
        for (int32_t i = 0; i < SetExpressionBufferCount; ++i)
            if (seen[static_cast<size_t>(i)] != i)
                return false;
        return true;
    }
};

Failure failureOf(const std::function<void()>& f, int32_t* id = nullptr)
{
    try
    {
        f();
    }
    catch (const SetExpressionFailure& e)
    {
        if (id)
            *id = e.id;
        return e.failure;
    }
    ADD_FAILURE() << "no error reported";
    return Failure::CloseRoot;
}

constexpr int16_t op(int32_t operation, int32_t closes = 0, int32_t opens = 0)
{
    return encodeSetExpressionOpCode(operation, closes, opens);
}

using V = std::vector<int32_t>;

}  // namespace

TEST(SetExpressionOpCode, DecodesTheThreeFields)
{
    const SetExpressionOpCode a = decodeSetExpressionOpCode(1);
    EXPECT_EQ(a.operation, 1);
    EXPECT_EQ(a.closeCount, 0);
    EXPECT_EQ(a.openCount, 0);
    const SetExpressionOpCode b = decodeSetExpressionOpCode(513);
    EXPECT_EQ(b.operation, 1);
    EXPECT_EQ(b.closeCount, 0);
    EXPECT_EQ(b.openCount, 1);
    const SetExpressionOpCode c = decodeSetExpressionOpCode(7);
    EXPECT_EQ(c.operation, 3);
    EXPECT_EQ(c.closeCount, 1);
    EXPECT_EQ(c.openCount, 0);
    // The int2 is read as 16 unsigned bits.
    const SetExpressionOpCode d = decodeSetExpressionOpCode(-1);
    EXPECT_EQ(d.operation, 3);
    EXPECT_EQ(d.closeCount, 127);
    EXPECT_EQ(d.openCount, 127);
    const SetExpressionOpCode e = decodeSetExpressionOpCode(static_cast<int16_t>(-32767));  // 0x8001
    EXPECT_EQ(e.operation, 1);
    EXPECT_EQ(e.closeCount, 0);
    EXPECT_EQ(e.openCount, 64);
    EXPECT_EQ(op(3, 1, 0), 7);
    EXPECT_EQ(op(1, 0, 1), 513);
    EXPECT_EQ(op(2, 2, 3), 2 + 8 + 1536);
}

TEST(SetExpression, InitialState)
{
    Expression x;
    EXPECT_EQ(x.state.spareBuffer, 6);
    EXPECT_EQ(x.state.depth, 0);
    for (int32_t k = 0; k < SetExpressionGroupCount; ++k)
    {
        EXPECT_EQ(x.state.groups[k].buffer, k);
        EXPECT_EQ(x.state.groups[k].operation, 0);
    }
    for (const auto& b : x.state.buffers)
    {
        EXPECT_EQ(b.capacity, 1024u);
        EXPECT_EQ(b.size, 0u);
        EXPECT_NE(b.data, nullptr);
    }
}

TEST(SetExpression, OperandResultGoesToSpareWhichTradesPlacesWithTheGroup)
{
    Expression x;
    x.row(op(1), {1, 5});
    EXPECT_EQ(x.state.groups[0].buffer, 6);
    EXPECT_EQ(x.state.spareBuffer, 0);
    EXPECT_EQ(x.root(), (V{1, 5}));
    x.row(op(1), {10, 12});
    EXPECT_EQ(x.state.groups[0].buffer, 0);
    EXPECT_EQ(x.state.spareBuffer, 6);
    EXPECT_EQ(x.root(), (V{1, 5, 10, 12}));
}

TEST(SetExpression, WorkedExampleStepByStep)
{
    // A u (B n C) - D
    Expression x;
    x.row(op(1), {1, 5});  // A
    EXPECT_EQ(x.root(), (V{1, 5}));
    x.row(513, {3, 10});  // open 1 with union, B
    EXPECT_EQ(x.state.depth, 1);
    EXPECT_EQ(x.state.groups[1].operation, 1);
    EXPECT_EQ(x.valueOf(1), (V{3, 10}));
    EXPECT_EQ(x.root(), (V{1, 5}));
    x.row(2, {4, 20});  // n C
    EXPECT_EQ(x.valueOf(1), (V{4, 10}));
    x.row(7, {6, 7});  // close 1, - D
    EXPECT_EQ(x.state.depth, 0);
    EXPECT_EQ(x.root(), (V{1, 5, 8, 10}));
    EXPECT_TRUE(x.buffersArePermutation());
}

TEST(SetExpression, ClosingPutsTheResultInTheParentAndLeavesTheClosedBufferStale)
{
    Expression x;
    x.row(op(1), {1, 10});                 // root: buffer 6, spare 0
    x.row(op(Exclusion, 0, 1), {3, 4});   // group 1 (buffer 1) gets spare 0, spare 1
    ASSERT_EQ(x.state.groups[1].buffer, 0);
    ASSERT_EQ(x.state.spareBuffer, 1);
    const int32_t parentBefore = x.state.groups[0].buffer;  // 6
    const int32_t spareBefore = x.state.spareBuffer;        // 1
    const int32_t closedBuffer = x.state.groups[1].buffer;  // 0

    Eval::closeGroup(x.state);
    EXPECT_EQ(x.state.depth, 0);
    EXPECT_EQ(x.state.groups[0].buffer, spareBefore);
    EXPECT_EQ(x.state.spareBuffer, parentBefore);
    EXPECT_EQ(x.state.groups[1].buffer, closedBuffer);
    EXPECT_EQ(x.root(), (V{1, 2, 5, 10}));
    // The closed group's buffer still holds its old value ...
    EXPECT_EQ(x.valueOf(1), (V{3, 4}));
    // ... until a group is opened again at that depth.
    x.row(op(Union, 0, 1), {});
    EXPECT_EQ(x.valueOf(1), V{});
    EXPECT_TRUE(x.buffersArePermutation());
}

TEST(SetExpression, SeveralOpensInOneRowKeepTheRowOperationInTheOutermostGroup)
{
    Expression x;
    x.row(op(1), {1, 20});
    x.row(op(Intersection, 0, 3), {5, 8});
    EXPECT_EQ(x.state.depth, 3);
    EXPECT_EQ(x.state.groups[1].operation, Intersection);
    EXPECT_EQ(x.state.groups[2].operation, Union);
    EXPECT_EQ(x.state.groups[3].operation, Union);
    EXPECT_EQ(x.valueOf(3), (V{5, 8}));
    EXPECT_EQ(x.valueOf(2), V{});
    EXPECT_EQ(x.valueOf(1), V{});
    x.row(op(Union, 2), {30, 40});  // closes 3 and 2, then union into group 1
    EXPECT_EQ(x.state.depth, 1);
    EXPECT_EQ(x.valueOf(1), (V{5, 8, 30, 40}));
    EXPECT_EQ(x.finish(), (V{5, 8}));
    EXPECT_TRUE(x.buffersArePermutation());
}

TEST(SetExpression, ExclusionGroupIsAppliedAtItsCloseThenTheRowOperation)
{
    Expression x;
    x.row(op(1), {1, 10});
    x.row(515, {3, 4});
    x.row(op(Union, 1), {20, 21});  // root := ({1..10} - {3,4}) u {20,21}
    EXPECT_EQ(x.root(), (V{1, 2, 5, 10, 20, 21}));
}

TEST(SetExpression, FinalClosesFromTheInnermostWithEachPendingOperation)
{
    {
        Expression x;  // A u (B n C)
        x.row(1, {1, 5});
        x.row(513, {3, 10});
        x.row(2, {4, 20});
        EXPECT_EQ(x.finish(), (V{1, 10}));
    }
    {
        Expression x;  // A - B
        x.row(1, {1, 10});
        x.row(515, {3, 4});
        EXPECT_EQ(x.finish(), (V{1, 2, 5, 10}));
    }
    {
        Expression x;  // A - (B u (C n D)), two groups left open
        x.row(1, {1, 100});
        x.row(op(Exclusion, 0, 1), {10, 20});
        x.row(op(Union, 0, 1), {30, 60});
        x.row(op(Intersection), {50, 70});
        EXPECT_EQ(x.finish(), (V{1, 9, 21, 49, 61, 100}));
        EXPECT_EQ(x.state.depth, 0);
    }
    {
        Expression x;  // the group opened with operation 0 fails when it is closed
        x.row(1, {1, 5});
        x.row(512, {7, 8});
        int32_t id = -1;
        EXPECT_EQ(failureOf([&] { x.finish(); }, &id), Failure::UnknownOperation);
        EXPECT_EQ(id, 0);
    }
}

TEST(SetExpression, FirstRowAgainstTheEmptyRoot)
{
    {
        Expression x;
        x.row(op(Intersection), {1, 5});
        EXPECT_EQ(x.finish(), V{});
    }
    {
        Expression x;
        x.row(op(Exclusion), {1, 5});
        EXPECT_EQ(x.finish(), V{});
    }
    {
        Expression x;
        int32_t id = -1;
        EXPECT_EQ(failureOf([&] { x.row(0, {1, 5}); }, &id), Failure::UnknownOperation);
        EXPECT_EQ(id, 0);
    }
}

TEST(SetExpression, EmptyOperands)
{
    Expression x;
    x.row(1, {1, 5, 8, 9});
    x.emptyRow(op(Union));
    EXPECT_EQ(x.root(), (V{1, 5, 8, 9}));
    x.emptyRow(op(Exclusion));
    EXPECT_EQ(x.root(), (V{1, 5, 8, 9}));
    x.emptyRow(op(Intersection));
    EXPECT_EQ(x.root(), V{});
}

TEST(SetExpression, AdjacentResultsMerge)
{
    Expression x;
    x.row(1, {1, 5});
    x.row(1, {6, 9});
    EXPECT_EQ(x.finish(), (V{1, 9}));
}

TEST(SetExpression, FiveGroupsMayBeOpenNotSix)
{
    {
        Expression x;
        x.row(op(Union, 0, 5), {1, 2});
        EXPECT_EQ(x.state.depth, 5);
        EXPECT_EQ(x.finish(), (V{1, 2}));
    }
    {
        Expression x;
        EXPECT_EQ(failureOf([&] { x.row(op(Union, 0, 6), {1, 2}); }), Failure::MaxDepth);
        EXPECT_LE(x.state.depth, SetExpressionMaxDepth);
    }
    {
        Expression x;
        x.row(op(Union, 0, 3), {1, 2});
        x.row(op(Union, 0, 2), {1, 2});
        EXPECT_EQ(failureOf([&] { x.row(op(Union, 0, 1), {1, 2}); }), Failure::MaxDepth);
    }
    {
        Expression x;  // closing makes room again
        x.row(op(Union, 0, 5), {1, 2});
        x.row(op(Union, 1, 1), {3, 4});
        EXPECT_EQ(x.state.depth, 5);
        EXPECT_EQ(x.finish(), (V{1, 4}));
    }
}

TEST(SetExpression, CloseAtTheRoot)
{
    Expression x;
    EXPECT_EQ(failureOf([&] { x.row(4, {1, 2}); }), Failure::CloseRoot);
    Expression y;
    y.row(op(Union, 0, 1), {1, 2});
    EXPECT_EQ(failureOf([&] { y.row(op(Union, 2), {1, 2}); }), Failure::CloseRoot);
}

TEST(SetExpression, CloseWithOperationZeroClosesThenRejectsTheOperand)
{
    Expression x;
    x.row(op(Union), {1, 2});
    x.row(op(Union, 0, 1), {5, 6});
    int32_t id = -1;
    EXPECT_EQ(failureOf([&] { x.row(4, {1, 2}); }, &id), Failure::UnknownOperation);
    EXPECT_EQ(id, 0);
    EXPECT_EQ(x.state.depth, 0);
    EXPECT_EQ(x.root(), (V{1, 2, 5, 6}));
}

TEST(SetExpression, ErrorsAreDetectedInStepOrder)
{
    {
        Expression x;  // closes before opens
        EXPECT_EQ(failureOf([&] { x.row(op(Union, 1, 7), {1, 2, 3}); }), Failure::CloseRoot);
    }
    {
        Expression x;  // opens before the operand's length
        EXPECT_EQ(failureOf([&] { x.row(op(Union, 0, 6), {1, 2, 3}); }), Failure::MaxDepth);
    }
    {
        Expression x;  // length before the operation
        EXPECT_EQ(failureOf([&] { x.row(0, {1, 2, 3}); }), Failure::OddLength);
    }
    {
        Expression x;  // operation 0 opening a group is accepted at its row
        x.row(op(0, 0, 1), {1, 2});
        EXPECT_EQ(x.state.depth, 1);
        int32_t id = -1;
        EXPECT_EQ(failureOf([&] { x.row(op(Union, 1), {4, 5}); }, &id), Failure::UnknownOperation);
        EXPECT_EQ(id, 0);
    }
}

TEST(SetExpression, OddOperandLength)
{
    Expression x;
    EXPECT_EQ(failureOf([&] { x.row(1, {1, 2, 3}); }), Failure::OddLength);
}

TEST(SetExpression, BuffersGrowForLargeOperandsAndStayPermuted)
{
    Expression x;
    std::vector<int32_t> big;
    for (int32_t i = 0; i < 5000; ++i)
    {
        big.push_back(4 * i);
        big.push_back(4 * i + 1);
    }
    x.row(op(Union), big);
    x.row(op(Union, 0, 2), big);
    x.row(op(Intersection), {0, 1000});
    EXPECT_EQ(x.finish(), big);
    EXPECT_TRUE(x.buffersArePermutation());
    size_t grown = 0;
    for (const auto& b : x.state.buffers)
        grown += b.capacity > SetExpressionBufferCapacity;
    EXPECT_GE(grown, 1u);
}

TEST(SetExpression, SteadyStateAllocatesNothing)
{
    const size_t before = CountingAllocator::allocations;
    {
        Expression x;
        EXPECT_EQ(CountingAllocator::allocations - before, 7u);
        std::mt19937 rng(7);
        const size_t afterInit = CountingAllocator::allocations;
        for (int32_t i = 0; i < 100000; ++i)
        {
            const int32_t base = static_cast<int32_t>(rng() % 1000);
            const int32_t opens = x.state.depth < 5 && rng() % 4 == 0 ? 1 : 0;
            const int32_t closes = x.state.depth > 0 && rng() % 4 == 0 ? 1 : 0;
            x.row(op(1 + static_cast<int32_t>(rng() % 3), closes, opens), {base, base + 3, base + 10, base + 12});
        }
        x.finish();
        EXPECT_EQ(CountingAllocator::allocations, afterInit);
    }
    EXPECT_EQ(CountingAllocator::live, 0u);
}

TEST(SetExpression, ReleaseEmptiesEveryBuffer)
{
    State state{};
    Eval::initialise(state);
    state.buffers[3].resize(5000);
    Eval::releaseBuffers(state);
    for (const auto& b : state.buffers)
    {
        EXPECT_EQ(b.data, nullptr);
        EXPECT_EQ(b.capacity, 0u);
        EXPECT_EQ(b.size, 0u);
    }
}

// Random expressions against a reference evaluator over std::set, written as a recursive descent
// over an explicit expression tree rather than as a stack of groups.
namespace {

struct Node
{
    int32_t operation;            // how the item joins the running value of its group
    std::vector<int32_t> operand;  // a leaf's range array
    std::vector<Node> group;       // a subgroup's items (leaf when empty and isGroup is false)
    bool isGroup = false;
};

std::set<int32_t> toSet(const std::vector<int32_t>& ranges)
{
    std::set<int32_t> s;
    for (size_t i = 0; i + 1 < ranges.size(); i += 2)
        for (int32_t v = ranges[i]; v <= ranges[i + 1]; ++v)
            s.insert(v);
    return s;
}

std::set<int32_t> evaluate(const std::vector<Node>& items, int32_t firstOperation)
{
    std::set<int32_t> value;
    bool first = true;
    for (const Node& item : items)
    {
        const int32_t operation = first ? firstOperation : item.operation;
        first = false;
        const std::set<int32_t> x = item.isGroup ? evaluate(item.group, Union) : toSet(item.operand);
        std::set<int32_t> out;
        if (operation == Union)
            std::set_union(value.begin(), value.end(), x.begin(), x.end(), std::inserter(out, out.end()));
        else if (operation == Intersection)
            std::set_intersection(value.begin(), value.end(), x.begin(), x.end(), std::inserter(out, out.end()));
        else
            std::set_difference(value.begin(), value.end(), x.begin(), x.end(), std::inserter(out, out.end()));
        value.swap(out);
    }
    return value;
}

std::vector<int32_t> canonical(const std::set<int32_t>& s)
{
    std::vector<int32_t> out;
    for (int32_t v : s)
    {
        if (!out.empty() && out.back() + 1 == v)
            out.back() = v;
        else
        {
            out.push_back(v);
            out.push_back(v);
        }
    }
    return out;
}

std::vector<Node> randomGroup(std::mt19937& rng, int32_t level)
{
    std::vector<Node> items(1 + rng() % 4);
    for (Node& item : items)
    {
        item.operation = 1 + static_cast<int32_t>(rng() % 3);
        if (level < SetExpressionMaxDepth && rng() % 3 == 0)
        {
            item.isGroup = true;
            item.group = randomGroup(rng, level + 1);
        }
        else
        {
            std::set<int32_t> s;
            for (uint32_t n = rng() % 4; n > 0; --n)
            {
                const int32_t lo = static_cast<int32_t>(rng() % 60);
                for (int32_t v = lo; v <= lo + static_cast<int32_t>(rng() % 8); ++v)
                    s.insert(v);
            }
            item.operand = canonical(s);
        }
    }
    return items;
}

struct Row
{
    int16_t opCode;
    std::vector<int32_t> operand;
};

// The first leaf of a group carries the opens of every group that starts with it; the row after a
// group's last leaf carries its close.
void emitRows(const std::vector<Node>& items, int32_t firstOperation, int32_t pendingOpens, int32_t& pendingCloses,
              std::vector<Row>& rows, bool isRoot)
{
    bool first = true;
    for (const Node& item : items)
    {
        const int32_t operation = first ? firstOperation : item.operation;
        const int32_t opens = first ? pendingOpens : 0;
        first = false;
        if (item.isGroup)
            emitRows(item.group, operation, opens + 1, pendingCloses, rows, false);
        else
        {
            rows.push_back(Row{op(operation, pendingCloses, opens), item.operand});
            pendingCloses = 0;
        }
    }
    if (!isRoot)
        ++pendingCloses;
}

}  // namespace

TEST(SetExpression, RandomExpressionsMatchAReferenceEvaluator)
{
    std::mt19937 rng(20220713);
    int mismatches = 0;
    int deepest = 0;
    for (int n = 0; n < 3000; ++n)
    {
        const std::vector<Node> tree = randomGroup(rng, 0);
        const int32_t firstOperation = 1 + static_cast<int32_t>(rng() % 3);
        std::vector<Row> rows;
        int32_t pendingCloses = 0;
        emitRows(tree, firstOperation, 0, pendingCloses, rows, true);

        Expression x;
        for (const Row& r : rows)
        {
            x.row(r.opCode, r.operand);
            deepest = std::max(deepest, x.state.depth);
            ASSERT_TRUE(x.buffersArePermutation());
        }
        if (x.finish() != canonical(evaluate(tree, firstOperation)))
            ++mismatches;
    }
    EXPECT_EQ(mismatches, 0);
    EXPECT_EQ(deepest, SetExpressionMaxDepth);
}
