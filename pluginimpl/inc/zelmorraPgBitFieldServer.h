// The bitfield inside the server: BitFieldBase over palloc with errors raised as ERROR reports
// (located in zelmorraPgBitField.h, where they arise), and the persisted-bitfield reader that
// raises "invalid bitfield array".
#pragma once

#include "zelmorraPgBitField.h"
#include "zelmorraPgUtils.h"

namespace zm {
namespace pg {

// Memory of the current memory context; null instead of an error so that reserve reports the
// failure itself.
struct BitFieldPallocAllocator
{
    static void* allocate(size_t bytes)
    {
        return bytes <= MaxAllocSize ? palloc_extended(bytes, MCXT_ALLOC_NO_OOM) : nullptr;
    }
    static void deallocate(void* block) { pfree(block); }
    static void diagnostic(const char* line) { writeDiagnosticLine(line); }
};

struct BitFieldErrorReport
{
    [[noreturn]] static void report(BitFieldError error, const char* file, int line, const char* function,
                                    const char* message)
    {
        const int sqlstate = error == BitFieldError::OutOfMemory ? ZM_SQLSTATE_OUT_OF_MEMORY : ZM_SQLSTATE_VALUE_ERROR;
        if (message)
            raiseError(sqlstate, file, line, function, "%s", message);
        raiseError(sqlstate, file, line, function, nullptr);
    }
};

// The in-memory bitfield of the aggregate states. Call init() (or zero-fill) before use.
using BitField = BitFieldBase<BitFieldPallocAllocator, BitFieldErrorReport>;
static_assert(std::is_trivially_destructible_v<BitField> && std::is_standard_layout_v<BitField>);

// Reads a detoasted persisted bitfield. first and last are stored as soon as the header is read;
// false for an empty bitfield (begin and end untouched); "invalid bitfield array" (22023) for a
// datum shorter than its header or with a data length other than ceil(count / 64) * 8 bytes.
bool getBitFieldInfo(const bytea* bitfield, const uint8_t*& begin, const uint8_t*& end, int32_t& first, int32_t& last);

}  // namespace pg
}  // namespace zm
