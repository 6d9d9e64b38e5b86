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

// A persisted bitfield argument, detoasted and read: `truncated` is raised for a datum shorter than
// its header, `badLength` for a data length other than ceil(count / 64) * 8 bytes. What comes back
// has status Ok, or Empty for an empty bitfield.
inline BitFieldInfo readBitFieldArgument(Datum datum, const ErrorSite& truncated, const ErrorSite& badLength)
{
    const bytea* bitfield = reinterpret_cast<const bytea*>(PG_DETOAST_DATUM(datum));
    const BitFieldInfo info = readBitField(bitfield, VARSIZE(bitfield));
    if (info.truncated)
        raise(truncated);
    if (info.status != BitFieldStatus::Ok && info.status != BitFieldStatus::Empty)
        raise(badLength);
    return info;
}

}  // namespace pg
}  // namespace zm
