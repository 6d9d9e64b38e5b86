// The bitfield inside the server: BitFieldBase over palloc with its errors raised at their sites
// (reported from zelmorraPgBitField.h), and the persisted-bitfield reader that raises "invalid
// bitfield array".
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
    [[noreturn]] static void report(BitFieldError error)
    {
        switch (error)
        {
            case BitFieldError::InvalidCapacity: raise(site::bitFieldInvalidCapacity);
            case BitFieldError::OutOfMemory: raise(site::bitFieldOutOfMemory);
            case BitFieldError::SizeOverflow: raise(site::bitFieldSizeOverflow);
        }
        pg_unreachable();
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
