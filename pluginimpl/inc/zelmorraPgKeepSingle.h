// Keep-single aggregate: the supported value types and the serialised state layout.
//
// Serialised state (the payload of a bytea, after its 4-byte length word; integers little-endian,
// no padding):
//   offset 0  1 byte   kind: 1 = an 8-byte datum follows, 2 = the bytes of a text/bytea value follow
//   offset 1  1 byte   flags: bit 0 isNull, bit 1 policy
//   offset 2  4 bytes  type oid
//   offset 6  kind 1: the datum's 8 bytes; kind 2: the value's bytes without their length word
// The policy travels with the state, so that the combine step compares the values of partial
// states exactly as the transition compares rows: the answer does not depend on whether the plan
// aggregates partially.
//
// No PostgreSQL dependency, so unit tests and fuzz targets cover the layout and the decoder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zm {
namespace keepSingle {

// Type oids of the supported types (fixed in the server's catalog).
constexpr uint32_t boolType = 16;
constexpr uint32_t byteaType = 17;
constexpr uint32_t int8Type = 20;
constexpr uint32_t int2Type = 21;
constexpr uint32_t int4Type = 23;
constexpr uint32_t textType = 25;
constexpr uint32_t float4Type = 700;
constexpr uint32_t float8Type = 701;

enum class ValueKind
{
    Unsupported,
    ByValue,         // kept and compared as the raw datum
    VariableLength,  // kept as a private detoasted copy, compared by length and bytes
};

inline ValueKind valueKindOf(uint32_t type)
{
    switch (type)
    {
        case boolType:
        case int8Type:
        case int2Type:
        case int4Type:
        case float4Type:
        case float8Type: return ValueKind::ByValue;
        case byteaType:
        case textType: return ValueKind::VariableLength;
        default: return ValueKind::Unsupported;
    }
}

// Messages of the value checks. The two "unsuported type" spellings differ by one blank and both
// are part of the interface: the first is raised where a value of an unsupported type would be
// stored (first row, copying a state in combine), the second where one would be compared or
// returned (a path that only a state of an unsupported type holding a value could take).
constexpr const char* unsupportedTypeOnStore = "agg_keep_single unsuported type";
constexpr const char* unsupportedTypeOnCompare = "agg_keep_singleunsuported type";
constexpr const char* typeOrPolicyChanged = "agg_keep_single type or policy changed";
constexpr const char* valueMismatch = "agg_keep_single value missmatch";

// Byte-wise equality of two text/bytea payloads; two empty values are equal.
inline bool sameBytes(const void* a, size_t aLength, const void* b, size_t bLength)
{
    return aLength == bLength && (aLength == 0 || std::memcmp(a, b, aLength) == 0);
}

constexpr uint8_t datumKind = 1;
constexpr uint8_t payloadKind = 2;
constexpr size_t headerSize = 6;                      // kind, flags, type
constexpr uint8_t nullFlag = 1;
constexpr uint8_t policyFlag = 2;
constexpr size_t datumStateSize = headerSize + 8;     // payload size of a kind-1 state

// Writes kind, flags and type at `out` (headerSize bytes).
inline void writeHeader(uint8_t* out, uint8_t kind, bool isNull, bool policy, uint32_t type)
{
    out[0] = kind;
    out[1] = static_cast<uint8_t>((isNull ? nullFlag : 0) | (policy ? policyFlag : 0));
    for (int i = 0; i < 4; ++i)
        out[2 + i] = static_cast<uint8_t>(type >> (8 * i));
}

inline void writeDatum(uint8_t* out, uint64_t datum)
{
    for (int i = 0; i < 8; ++i)
        out[headerSize + i] = static_cast<uint8_t>(datum >> (8 * i));
}

enum class DecodeStatus
{
    Ok,
    Empty,             // no bytes after the length word
    UnexpectedSize,    // kind 1 not of 14 bytes, kind 2 shorter than its header
    NotImplemented,    // unknown kind, or a kind that cannot carry a value of the stated type
};

struct DecodedState
{
    uint8_t kind;
    bool isNull;
    bool policy;
    uint32_t type;
    uint64_t datum;          // kind 1
    const uint8_t* payload;  // kind 2
    size_t payloadLength;    // kind 2
};

// Reads a serialised state of `length` payload bytes. Besides the size checks of the layout, a
// kind-1 state that claims a non-NULL text or bytea value is refused: its 8 bytes would later be
// taken for a pointer.
inline DecodeStatus decodeState(const uint8_t* bytes, size_t length, DecodedState& state)
{
    state = DecodedState{};
    if (length == 0)
        return DecodeStatus::Empty;
    state.kind = bytes[0];
    if (state.kind == datumKind)
    {
        if (length != datumStateSize)
            return DecodeStatus::UnexpectedSize;
    }
    else if (state.kind == payloadKind)
    {
        if (length < headerSize)
            return DecodeStatus::UnexpectedSize;
    }
    else
    {
        return DecodeStatus::NotImplemented;
    }
    state.isNull = (bytes[1] & nullFlag) != 0;
    state.policy = (bytes[1] & policyFlag) != 0;
    for (int i = 0; i < 4; ++i)
        state.type |= static_cast<uint32_t>(bytes[2 + i]) << (8 * i);
    if (state.kind == datumKind)
    {
        if (!state.isNull && valueKindOf(state.type) == ValueKind::VariableLength)
            return DecodeStatus::NotImplemented;
        for (int i = 0; i < 8; ++i)
            state.datum |= static_cast<uint64_t>(bytes[headerSize + i]) << (8 * i);
    }
    else
    {
        state.payload = bytes + headerSize;
        state.payloadLength = length - headerSize;
    }
    return DecodeStatus::Ok;
}

// The canonical datum of a by-value type: the server builds int2, int4 and float4 datums by
// sign-extending their bits and bool datums as 0 or 1; a datum read from elsewhere is brought to
// that form so that equal values always compare equal as raw datums.
inline uint64_t canonicalDatum(uint32_t type, uint64_t datum)
{
    switch (type)
    {
        case boolType: return datum != 0 ? 1 : 0;
        case int2Type: return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int16_t>(datum & 0xffff)));
        case int4Type:
        case float4Type: return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(datum & 0xffffffffu)));
        default: return datum;
    }
}

}  // namespace keepSingle
}  // namespace zm
