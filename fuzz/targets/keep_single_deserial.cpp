// The deserialiser of agg_keep_single states on arbitrary bytes: every refusal for its reason, and
// every accepted state written back by the serial layout gives the same bytes.
#include <vector>

#include "FuzzSupport.h"
#include "zelmorraPgKeepSingle.h"

namespace ks = zm::keepSingle;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::runInput([&] {
        uint8_t* exact = fuzz::exactArray<uint8_t>(size);
        if (size)
            std::memcpy(exact, data, size);
        ks::DecodedState state;
        const ks::DecodeStatus status = ks::decodeState(exact, size, state);
        if (size == 0)
        {
            FUZZ_CHECK(status == ks::DecodeStatus::Empty);
            return;
        }
        const uint8_t kind = data[0];
        if (kind != ks::datumKind && kind != ks::payloadKind)
        {
            FUZZ_CHECK(status == ks::DecodeStatus::NotImplemented);
            return;
        }
        if ((kind == ks::datumKind && size != ks::datumStateSize) || (kind == ks::payloadKind && size < ks::headerSize))
        {
            FUZZ_CHECK(status == ks::DecodeStatus::UnexpectedSize);
            return;
        }
        uint32_t type;
        std::memcpy(&type, data + 2, 4);
        const bool isNull = (data[1] & ks::nullFlag) != 0;
        const bool policy = (data[1] & ks::policyFlag) != 0;
        if (kind == ks::datumKind && !isNull && ks::valueKindOf(type) == ks::ValueKind::VariableLength)
        {
            // Its 8 bytes would be taken for a pointer to the value.
            FUZZ_CHECK(status == ks::DecodeStatus::NotImplemented);
            return;
        }
        FUZZ_CHECK(status == ks::DecodeStatus::Ok);
        FUZZ_CHECK(state.kind == kind && state.isNull == isNull && state.policy == policy && state.type == type);

        // The serial layout again: the same bytes (the flags byte without its unused bits).
        std::vector<uint8_t> again(size);
        ks::writeHeader(again.data(), state.kind, state.isNull, state.policy, state.type);
        if (kind == ks::datumKind)
            ks::writeDatum(again.data(), state.datum);
        else
        {
            FUZZ_CHECK(state.payload == exact + ks::headerSize && state.payloadLength == size - ks::headerSize);
            if (state.payloadLength)
                std::memcpy(again.data() + ks::headerSize, state.payload, state.payloadLength);
        }
        std::vector<uint8_t> expected(data, data + size);
        expected[1] = static_cast<uint8_t>(data[1] & (ks::nullFlag | ks::policyFlag));
        FUZZ_CHECK(again == expected);

        // A by-value datum in its canonical form stays there, and compares equal to itself.
        const uint64_t canonical = ks::canonicalDatum(state.type, state.datum);
        FUZZ_CHECK(ks::canonicalDatum(state.type, canonical) == canonical);
        if (kind == ks::payloadKind)
            FUZZ_CHECK(ks::sameBytes(state.payload, state.payloadLength, state.payload, state.payloadLength));
    });
}
