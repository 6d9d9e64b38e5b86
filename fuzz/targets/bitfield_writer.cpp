// The bitfield writer: a range, scalar or mix array (sorted or not, well formed or not) turned into
// a persisted bitfield. The data is poisoned before writing, so a byte the writer forgets shows;
// the bits are compared with a bit-by-bit reference, and a sorted set must read back as included
// in its own bitfield.
#include <vector>

#include "FuzzSupport.h"

namespace {

using fuzz::Input;

constexpr uint32_t maxDataLength = 1u << 16;

// What the writer must produce: values and range parts inside [first, last] and inside the data.
std::vector<uint8_t> referenceBits(int32_t kind, const zm::BitFieldShape& shape, const std::vector<int32_t>& e)
{
    std::vector<uint8_t> bits(shape.dataLength, 0);
    if (!shape.writeItems)
        return bits;
    const int64_t first = shape.first;
    const int64_t last = shape.last;
    const uint64_t limit = uint64_t{shape.dataLength} * 8;
    const auto put = [&](int64_t lower, int64_t upper) {
        for (int64_t v = std::max(lower, first); v <= std::min(upper, last); ++v)
        {
            const uint64_t k = static_cast<uint64_t>(v - first);
            if (k >= limit)
                break;
            bits[k >> 3] |= static_cast<uint8_t>(0x80 >> (k & 7));
        }
    };
    const size_t n = e.size();
    if (kind == 4)
        for (size_t i = 0; i + 1 < n; i += 2)
            put(e[i], e[i + 1]);
    else if (kind == 3)
        for (int32_t v : e)
            put(v, v);
    else
        for (size_t i = 1; i < n; ++i)
        {
            if (e[i] >= 0)
            {
                put(e[i], e[i]);
                continue;
            }
            const int64_t lower = e[i] & 0x7fffffff;
            const int64_t upper = i + 1 < n ? e[++i] : lower;
            put(lower, upper);
        }
    return bits;
}

// A set that is sorted and well formed for its kind (so the writer's header describes it).
bool wellFormed(int32_t kind, const std::vector<int32_t>& e)
{
    const size_t n = e.size();
    if (kind == 3)
        return n > 0 && std::is_sorted(e.begin(), e.end());
    if (kind == 4)
    {
        if (n == 0 || n % 2 != 0)
            return false;
        for (size_t i = 0; i < n; i += 2)
            if (e[i] > e[i + 1] || (i > 0 && e[i] <= e[i - 1]))
                return false;
        return true;
    }
    if (n < 2 || e[0] == 0)
        return false;
    int64_t previous = -1;
    for (size_t i = 1; i < n; ++i)
    {
        int64_t lower = e[i], upper = e[i];
        if (e[i] < 0)
        {
            if (i + 1 == n)
                return false;
            lower = e[i] & 0x7fffffff;
            upper = e[++i];
            if (upper < lower)
                return false;
        }
        if (lower <= previous)
            return false;
        previous = upper;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::runInput([&] {
        Input in(data, size);
        const int32_t kind = 3 + in.u8() % 3;
        const int32_t base = in.valueNear(0);
        const size_t n = in.u8() % 64;
        const bool ascending = in.flag();
        std::vector<int32_t> e(n);
        for (size_t i = 0; i < n; ++i)
        {
            e[i] = in.valueNear(ascending && i > 0 ? e[i - 1] : base);
            if (kind == 5 && in.u8() % 4 == 0)
                e[i] = static_cast<int32_t>(static_cast<uint32_t>(e[i]) | 0x80000000u);  // a range opener
        }
        if (kind == 4 && n % 2 != 0)
            e.pop_back();  // the glue refuses an odd range array before the writer is reached

        zm::BitFieldShape shape;
        if (kind == 4)
            shape = zm::bitFieldShapeOfRangeArray(e.data(), static_cast<uint32_t>(e.size()));
        else if (kind == 3)
            shape = zm::bitFieldShapeOfScalarArray(e.data(), static_cast<uint32_t>(e.size()));
        else
            shape = zm::bitFieldShapeOfMixArray(e.data(), static_cast<uint32_t>(e.size()));
        if (shape.dataLength > maxDataLength)
            return;  // wide spans only cost time here; the writer's bounds do not depend on width

        // Header and poisoned data, exactly as large as the datum.
        const uint32_t total = zm::bitFieldHeaderSize + shape.dataLength;
        uint8_t* datum = fuzz::exactArray<uint8_t>(total);
        std::memset(datum, 0, 4);
        std::memcpy(datum + 4, &shape.first, 4);
        std::memcpy(datum + 8, &shape.last, 4);
        uint8_t* bits = datum + zm::bitFieldHeaderSize;
        std::memset(bits, 0xA5, shape.dataLength);
        zm::BitFieldSetWriter<zm::NoInterrupts> writer(bits, shape);
        if (shape.writeItems)
        {
            if (kind == 4)
                writer.rangeArray(e.data(), static_cast<uint32_t>(e.size()));
            else if (kind == 3)
                writer.scalarArray(e.data(), static_cast<uint32_t>(e.size()));
            else
                writer.mixItems(e.data() + 1, static_cast<uint32_t>(e.size() - 1));
        }
        writer.finish();
        const std::vector<uint8_t> expected = referenceBits(kind, shape, e);
        FUZZ_CHECK(std::equal(expected.begin(), expected.end(), bits));

        // The full int4 range has a count that wraps to 0: the format cannot tell it from empty.
        if (!wellFormed(kind, e) || shape.first > shape.last || zm::bitFieldCount(shape.first, shape.last) == 0)
            return;
        const zm::BitFieldInfo info = zm::readBitField(datum, total);
        FUZZ_CHECK(info.status == zm::BitFieldStatus::Ok);
        FUZZ_CHECK(zm::bitFieldTestSet(kind, true, info, e.data(), static_cast<uint32_t>(e.size())) ==
                   zm::BitFieldSetTest::True);
        FUZZ_CHECK(zm::bitFieldTestSet(kind, false, info, e.data(), static_cast<uint32_t>(e.size())) ==
                   zm::BitFieldSetTest::True);
    });
}
