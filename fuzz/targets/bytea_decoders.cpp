// The bytea decoders: a float4 payload and a mix-array payload turned into arrays, from arbitrary
// bytes at every alignment. The float payload must be taken whole or refused; the mix payload must
// give the item-by-item reading of its elements (or its refusal) whatever its alignment.
#include <vector>

#include "FuzzSupport.h"
#include "zelmorraPgSetConversion.h"

namespace {

using zm::setConversion::Status;
using IntRange = zm::pgRangeArray::Range<int>;
using RangeVec = zm::tVectorBase<IntRange, fuzz::Allocator>;

// The mix payload read element by element, as the decoder is defined.
Status referenceMix(const uint8_t* bytes, size_t length, std::vector<int32_t>& out)
{
    if (length % 4 != 0)
        return Status::MixPayloadLength;
    const size_t n = length / 4;
    const auto at = [bytes](size_t i) {
        int32_t v;
        std::memcpy(&v, bytes + 4 * i, 4);
        return v;
    };
    for (size_t i = 1; i < n; ++i)
    {
        const int32_t e = at(i);
        if (e >= 0)
        {
            out.push_back(e);
            out.push_back(e);
            continue;
        }
        const int32_t lower = e & 0x7fffffff;
        if (i + 1 == n || at(i + 1) < 0 || at(i + 1) < lower)
            return Status::InvalidRangeDefinition;
        out.push_back(lower);
        out.push_back(at(++i));
    }
    return Status::Ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::runInput([&] {
        if (size == 0)
            return;
        const size_t misalign = data[0] % 4;
        const size_t length = size - 1;
        // The payload at the chosen misalignment, in a block that ends where the payload ends.
        uint8_t* block = fuzz::exactArray<uint8_t>(misalign + length);
        uint8_t* payload = block + misalign;
        if (length)
            std::memcpy(payload, data + 1, length);

        size_t count = 0;
        const Status floatStatus = zm::setConversion::floatPayloadElements(length, count);
        if (length % 4 != 0)
            FUZZ_CHECK(floatStatus == Status::FloatPayloadLength);
        else
            FUZZ_CHECK(floatStatus == Status::Ok && count * 4 == length);

        RangeVec out;
        out.init(1);
        const Status status = zm::setConversion::mixPayloadToRanges(payload, length, out);
        std::vector<int32_t> expected;
        const Status expectedStatus = referenceMix(payload, length, expected);
        FUZZ_CHECK(status == expectedStatus);
        if (status != Status::Ok)
            return;
        FUZZ_CHECK(out.size * 2 == expected.size());
        for (size_t i = 0; i < out.size; ++i)
            FUZZ_CHECK(out.data[i].lower == expected[2 * i] && out.data[i].upper == expected[2 * i + 1]);
        FUZZ_CHECK(length == 0 || out.size <= length / 4 - 1);
    });
}
