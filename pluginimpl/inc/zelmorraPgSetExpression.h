// Eager evaluation of a parenthesised set expression written one row at a time.
//
// Each row carries an op code (operation + 4 x groups to close + 512 x groups to open) and one
// range-array operand. Only one partial result per open group is kept: seven range buffers serve
// the root, five nested groups and one spare that receives every computed result, after which the
// spare and the changed group trade buffer indices. Nothing is copied and, once the buffers are
// large enough, nothing is allocated per row.
//
// No PostgreSQL dependency: the state is templated over its memory-context handle and allocator,
// and failures go through an error policy, so unit tests drive the same code outside the server.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "zelmorraPgRangeArray.h"
#include "zelmorraPgVector.h"

namespace zm {
namespace pgRangeArray {

enum OperationId : int32_t
{
    OperationNone = 0,
    Union = 1,
    Intersection = 2,
    Exclusion = 3,
};

// The root group plus at most five nested groups.
constexpr int32_t SetExpressionGroupCount = 6;
constexpr int32_t SetExpressionMaxDepth = SetExpressionGroupCount - 1;
// One buffer per group and the spare.
constexpr int32_t SetExpressionBufferCount = SetExpressionGroupCount + 1;
constexpr size_t SetExpressionBufferCapacity = 1024;

struct SetExpressionOpCode
{
    int32_t operation;   // bits 0-1
    int32_t closeCount;  // bits 2-8
    int32_t openCount;   // bits 9-15
};

// Only the 16 bits of the int2 are read, as an unsigned value.
constexpr SetExpressionOpCode decodeSetExpressionOpCode(int16_t code)
{
    const uint32_t bits = static_cast<uint16_t>(code);
    return SetExpressionOpCode{static_cast<int32_t>(bits & 0x3u), static_cast<int32_t>((bits >> 2) & 0x7fu),
                               static_cast<int32_t>((bits >> 9) & 0x7fu)};
}

constexpr int16_t encodeSetExpressionOpCode(int32_t operation, int32_t closeCount, int32_t openCount)
{
    return static_cast<int16_t>(static_cast<uint16_t>((operation & 0x3) | ((closeCount & 0x7f) << 2) |
                                                      ((openCount & 0x7f) << 9)));
}

struct Int4RangeOpGroup
{
    int32_t operation;  // joins the group to its parent when it is closed; unused for the root
    int32_t buffer;     // index of the buffer holding the group's current value
};

// Allocated zero-filled inside its own memory context; `context` is that context.
template <typename Context, typename Allocator>
struct Int4RangeOpData
{
    using Buffer = tVectorBase<Range<int>, Allocator>;

    Context context;
    Buffer buffers[SetExpressionBufferCount];
    int32_t spareBuffer;
    Int4RangeOpGroup groups[SetExpressionGroupCount];
    int32_t depth;  // innermost open group; 0 = only the root is open
};

// Error policy concept (every function reports and does not return):
//   static void closeRootGroup();                "try to close root parenthesis group"
//   static void maxDepthReached();               "reach max parenthesis group depth"
//   static void unknownOperation(int32_t id);    "Unknown operation id %i"
//   static void oddOperandLength(int32_t count); "array length should be even"
// Interrupts: see zelmorraPgRangeArray.h (each operand's walk checks every 2^20 steps).
template <typename Context, typename Allocator, typename Errors,
          typename Interrupts = typename InterruptPolicyOf<Allocator>::type>
struct SetExpression
{
    using State = Int4RangeOpData<Context, Allocator>;
    using Buffer = typename State::Buffer;

    static_assert(std::is_trivially_destructible_v<State>, "the state lives across longjmp-raised errors");

    // Buffers come from the allocator's current source: inside the server, the state's context.
    static void initialise(State& state)
    {
        for (int32_t i = 0; i < SetExpressionBufferCount; ++i)
            state.buffers[i].init(SetExpressionBufferCapacity);
        state.spareBuffer = SetExpressionBufferCount - 1;
        for (int32_t k = 0; k < SetExpressionGroupCount; ++k)
            state.groups[k] = Int4RangeOpGroup{OperationNone, k};
        state.depth = 0;
    }

    static Buffer& groupValue(State& state, int32_t group) { return state.buffers[state.groups[group].buffer]; }

    // group := group op [first, last), computed into the spare buffer, which then becomes the
    // group's buffer; the group's old buffer is the new spare.
    static void addToCurrentGroup(State& state, int32_t group, int32_t operation, const Range<int>* first,
                                  const Range<int>* last)
    {
        Buffer& out = state.buffers[state.spareBuffer];
        const Buffer& value = groupValue(state, group);
        out.clear();
        switch (operation)
        {
            case Union: computeUnion<int, Allocator, Interrupts>(value.begin(), value.end(), first, last, out); break;
            case Intersection:
                computeIntersection<int, Allocator, Interrupts>(value.begin(), value.end(), first, last, out);
                break;
            case Exclusion: computeExclusion<int, Allocator, Interrupts>(value.begin(), value.end(), first, last, out); break;
            default: Errors::unknownOperation(operation);
        }
        const int32_t former = state.groups[group].buffer;
        state.groups[group].buffer = state.spareBuffer;
        state.spareBuffer = former;
    }

    // Joins the innermost group into its parent with the operation recorded when it was opened. The
    // closed group keeps its (now stale) buffer until a group is opened again at that depth.
    static void closeGroup(State& state)
    {
        if (state.depth == 0)
            Errors::closeRootGroup();
        const Int4RangeOpGroup closed = state.groups[state.depth];
        --state.depth;
        const Buffer& value = state.buffers[closed.buffer];
        addToCurrentGroup(state, state.depth, closed.operation, value.begin(), value.end());
    }

    // Completes an unbalanced expression as if the missing closing parentheses stood at its end.
    static void closeAllGroups(State& state)
    {
        while (state.depth != 0)
            closeGroup(state);
    }

    // One row: its closes, its opens, then its operand. `elements` and `count` are the operand's
    // int4 elements as read (count 0 for an operand that reads as the empty set).
    static void addValue(State& state, int16_t opCode, const int32_t* elements, int32_t count)
    {
        const SetExpressionOpCode code = decodeSetExpressionOpCode(opCode);
        for (int32_t i = 0; i < code.closeCount; ++i)
            closeGroup(state);
        int32_t operation = code.operation;
        if (code.openCount != 0)
        {
            for (int32_t j = 1; j <= code.openCount; ++j)
            {
                // Tested before the state changes, so a refused open leaves the state consistent.
                if (state.depth + 1 > SetExpressionMaxDepth)
                    Errors::maxDepthReached();
                ++state.depth;
                Int4RangeOpGroup& opened = state.groups[state.depth];
                opened.operation = j == 1 ? code.operation : static_cast<int32_t>(Union);
                state.buffers[opened.buffer].clear();
            }
            // The operand is the first content of the innermost new group; the row's own operation
            // waits in the outermost new group until that group is closed.
            operation = Union;
        }
        if (count % 2 != 0)
            Errors::oddOperandLength(count);
        const Range<int>* first = reinterpret_cast<const Range<int>*>(elements);
        addToCurrentGroup(state, state.depth, operation, first, first + count / 2);
    }

    static const Buffer& rootValue(const State& state) { return state.buffers[state.groups[0].buffer]; }

    static void releaseBuffers(State& state)
    {
        for (int32_t i = 0; i < SetExpressionBufferCount; ++i)
            state.buffers[i].release();
    }
};

}  // namespace pgRangeArray
}  // namespace zm
