// The set-expression aggregate's row reader: op codes (operation, groups to close, groups to open)
// and range-array operands of any content, row after row. Refusals (closing the root, nesting too
// deep, an unknown operation, an odd operand) end the aggregate; nothing may read or write outside
// the buffers, and the nesting depth stays within its bounds.
#include <vector>

#include "FuzzSupport.h"
#include "zelmorraPgSetExpression.h"

namespace {

using fuzz::Input;
namespace ra = zm::pgRangeArray;

struct Errors
{
    [[noreturn]] static void closeRootGroup() { throw fuzz::FuzzError{fuzz::policyError}; }
    [[noreturn]] static void maxDepthReached() { throw fuzz::FuzzError{fuzz::policyError}; }
    [[noreturn]] static void unknownOperation(int32_t) { throw fuzz::FuzzError{fuzz::policyError}; }
    [[noreturn]] static void oddOperandLength(int32_t) { throw fuzz::FuzzError{fuzz::policyError}; }
};

using Expression = ra::SetExpression<void*, fuzz::Allocator, Errors>;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::runInput([&] {
        Input in(data, size);
        Expression::State* state = fuzz::exactArray<Expression::State>(1);
        std::memset(static_cast<void*>(state), 0, sizeof *state);
        Expression::initialise(*state);
        int32_t base = in.valueNear(0);
        int rows = 64;
        while (!in.empty() && rows-- > 0)
        {
            const uint8_t shape = in.u8();
            // Mostly small counts of closes and opens; now and then any 16 bits.
            const int16_t code = (shape & 0x80) ? static_cast<int16_t>(in.u16())
                                                : ra::encodeSetExpressionOpCode(in.u8() % 4, in.u8() % 3, in.u8() % 3);
            const size_t n = in.u8() % 24;
            std::vector<int32_t> e(n);
            for (size_t i = 0; i < n; ++i)
            {
                e[i] = (shape & 1) ? in.valueNear(base) : Input::wrap(int64_t{i > 0 ? e[i - 1] : base} + 1 + in.u8() % 8);
                base = e[i];
            }
            int32_t* operand = fuzz::exactArray<int32_t>(n);
            if (n)
                std::memcpy(operand, e.data(), n * sizeof(int32_t));
            Expression::addValue(*state, code, operand, static_cast<int32_t>(n));
            FUZZ_CHECK(state->depth >= 0 && state->depth <= ra::SetExpressionMaxDepth);
            FUZZ_CHECK(state->spareBuffer >= 0 && state->spareBuffer < ra::SetExpressionBufferCount);
        }
        Expression::closeAllGroups(*state);
        FUZZ_CHECK(state->depth == 0);
        // Every buffer index is used exactly once: by a group or as the spare.
        std::vector<int> used(ra::SetExpressionBufferCount, 0);
        ++used[state->spareBuffer];
        for (int32_t g = 0; g < ra::SetExpressionGroupCount; ++g)
            ++used[state->groups[g].buffer];
        for (int count : used)
            FUZZ_CHECK(count == 1);
        const auto& root = Expression::rootValue(*state);
        FUZZ_CHECK(root.size <= root.capacity);
    });
}
