// The persisted bitfield reader and the bitfield tests: a value, a packed range, whole sets (scalar,
// range and mix kinds, included and overlap mode) and the GiST bitfield rule, on bitfields that
// are well formed or made of arbitrary bytes. Every answer is compared with a bit-by-bit reference.
#include <vector>

#include "FuzzSupport.h"

namespace {

using fuzz::Input;

// The reference reading of a persisted bitfield whose span does not wrap (first <= last).
struct Reference
{
    int64_t first;
    int64_t last;
    const uint8_t* bits;

    bool has(int64_t v) const
    {
        if (v < first || v > last)
            return false;
        const uint64_t k = static_cast<uint64_t>(v - first);
        return (bits[k >> 3] & (0x80 >> (k & 7))) != 0;
    }
    // Values of [lower, upper] inside the span: any / all of them set.
    bool any(int64_t lower, int64_t upper) const
    {
        for (int64_t v = std::max(lower, first); v <= std::min(upper, last); ++v)
            if (has(v))
                return true;
        return false;
    }
    bool all(int64_t lower, int64_t upper) const
    {
        for (int64_t v = std::max(lower, first); v <= std::min(upper, last); ++v)
            if (!has(v))
                return false;
        return true;
    }
};

// The set tests as the bitfield tests define them, spelled out item by item.
zm::BitFieldSetTest referenceSetTest(const Reference& ref, int32_t kind, bool included, const std::vector<int32_t>& e)
{
    using zm::BitFieldSetTest;
    const auto answer = [](bool b) { return b ? BitFieldSetTest::True : BitFieldSetTest::False; };
    const size_t n = e.size();
    int64_t min, max;
    if (kind == 3 || kind == 4)
    {
        min = e[0];
        max = e[n - 1];
    }
    else if (kind == 5)
    {
        min = n == 1 ? 0 : (e[1] & 0x7fffffff);
        max = n == 1 ? 0 : e[n - 1];
    }
    else
        return BitFieldSetTest::UnsupportedKind;
    if (min > ref.last || max < ref.first)
        return BitFieldSetTest::False;
    if (included && (min < ref.first || max > ref.last))
        return BitFieldSetTest::False;
    // One item [lower, upper]: included needs every value in the span set (after the rejects), a
    // value outside the span fails; overlap needs one value in the span set.
    const auto itemIncluded = [&ref](int64_t lower, int64_t upper, bool single) {
        if (single)
            return ref.has(lower);
        if (lower > ref.last || upper < ref.first)
            return false;
        return ref.all(lower, upper);
    };
    const auto itemOverlaps = [&ref](int64_t lower, int64_t upper) { return ref.any(lower, upper); };
    std::vector<std::pair<int64_t, int64_t>> items;
    std::vector<bool> single;
    bool dangling = false;
    if (kind == 3)
        for (int32_t v : e)
        {
            items.emplace_back(v, v);
            single.push_back(true);
        }
    else if (kind == 4)
    {
        if (n % 2 != 0)
            return BitFieldSetTest::OddRangeCount;
        for (size_t i = 0; i < n; i += 2)
        {
            items.emplace_back(e[i], e[i + 1]);
            single.push_back(false);
        }
    }
    else
        for (size_t i = 1; i < n; ++i)
        {
            if (e[i] >= 0)
            {
                items.emplace_back(e[i], e[i]);
                single.push_back(true);
                continue;
            }
            if (i + 1 == n)  // an opener at the end has no upper bound
            {
                dangling = true;
                break;
            }
            const int64_t lower = e[i] & 0x7fffffff;
            const int64_t upper = e[++i];
            items.emplace_back(lower, upper);
            single.push_back(lower == upper);
        }
    for (size_t i = 0; i < items.size(); ++i)
    {
        const bool hit = included ? itemIncluded(items[i].first, items[i].second, single[i])
                                  : itemOverlaps(items[i].first, items[i].second);
        if (included && !hit)
            return BitFieldSetTest::False;
        if (!included && hit)
            return BitFieldSetTest::True;
    }
    return dangling ? BitFieldSetTest::DanglingOpener : answer(included);
}

void queries(Input& in, const zm::BitFieldInfo& info)
{
    const bool plain = info.first <= info.last;  // else a span that wraps around the int4 range
    const Reference ref{info.first, info.last, info.begin};
    int budget = 64;
    while (!in.empty() && budget-- > 0)
    {
        const int32_t base = in.flag() ? info.first : info.last;
        switch (in.u8() % 4)
        {
            case 0:
            {
                const int32_t v = in.valueNear(base);
                const bool got = zm::bitFieldHasValue(info, v);
                if (plain)
                    FUZZ_CHECK(got == ref.has(v));
                break;
            }
            case 1:
            {
                const int32_t lower = in.valueNear(base);
                const int32_t upper = in.valueNear(base);
                const bool got = zm::bitFieldOverlapsRange(info, lower, upper);
                if (plain)
                    FUZZ_CHECK(got == ref.any(lower, upper));
                break;
            }
            case 2:
            {
                const int32_t kind = 2 + in.u8() % 5;  // 2 and 6: not a set kind
                const bool included = in.flag();
                const size_t n = 1 + in.u8() % 24;
                std::vector<int32_t> e(n);
                const bool ascending = in.flag();
                for (size_t i = 0; i < n; ++i)
                {
                    e[i] = in.valueNear(ascending && i > 0 ? e[i - 1] : base);
                    if (ascending && i > 0 && e[i] < e[i - 1] && !(kind == 5 && e[i] < 0))
                        e[i] = e[i - 1];
                }
                const zm::BitFieldSetTest got = zm::bitFieldTestSet(kind, included, info, e.data(), static_cast<uint32_t>(n));
                if (plain)
                    FUZZ_CHECK(got == referenceSetTest(ref, kind, included, e));
                break;
            }
            default:
            {
                const int32_t lower = in.valueNear(base);
                const int32_t upper = in.valueNear(base);
                const bool leaf = in.flag();
                const bool got = zm::bitFieldKeyConsistent(info, lower, upper, leaf);
                if (plain)
                    FUZZ_CHECK(got == (leaf ? ref.has(lower) : ref.any(lower, upper)));
                break;
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::runInput([&] {
        Input in(data, size);
        std::vector<uint8_t> datum;
        if (in.flag())
        {
            // A well-formed header: a span of up to 2^16 values and the data length it needs, bits
            // from the input.
            const int32_t first = in.valueNear(0);
            const uint32_t count = 1u + in.u16();
            const int32_t last = Input::wrap(static_cast<int64_t>(first) + count - 1);
            const uint32_t length = zm::bitFieldDataLength(count);
            datum.resize(zm::bitFieldHeaderSize + length);
            std::memcpy(datum.data() + 4, &first, 4);
            std::memcpy(datum.data() + 8, &last, 4);
            size_t got = 0;
            const uint8_t* bits = in.take(in.u16() % (length + 1), got);
            if (got)
                std::memcpy(datum.data() + zm::bitFieldHeaderSize, bits, got);
            if (in.flag())
                for (uint32_t i = 0; i < length; ++i)
                    datum[zm::bitFieldHeaderSize + i] = static_cast<uint8_t>(~datum[zm::bitFieldHeaderSize + i]);
        }
        else
        {
            // Arbitrary bytes, length word included (the reader takes the length separately).
            size_t got = 0;
            const uint8_t* bytes = in.take(in.u16() % 4096, got);
            datum.assign(bytes, bytes + got);
        }
        // An exact copy, so that reading past the datum is caught.
        uint8_t* exact = fuzz::exactArray<uint8_t>(datum.size());
        if (!datum.empty())
            std::memcpy(exact, datum.data(), datum.size());
        const zm::BitFieldInfo info = zm::readBitField(exact, static_cast<uint32_t>(datum.size()));
        const uint32_t total = static_cast<uint32_t>(datum.size());
        if (total < zm::bitFieldHeaderSize)
        {
            FUZZ_CHECK(info.status == zm::BitFieldStatus::Invalid && info.truncated);
            return;
        }
        FUZZ_CHECK(!info.truncated);
        FUZZ_CHECK(info.count == zm::bitFieldCount(info.first, info.last));
        if (info.status == zm::BitFieldStatus::Empty)
        {
            FUZZ_CHECK(info.count == 0);
            return;
        }
        if (info.status == zm::BitFieldStatus::Invalid)
        {
            FUZZ_CHECK(total - zm::bitFieldHeaderSize != zm::bitFieldDataLength(info.count));
            return;
        }
        FUZZ_CHECK(info.begin == exact + zm::bitFieldHeaderSize && info.end == exact + total);
        FUZZ_CHECK(static_cast<uint64_t>(info.end - info.begin) * 8 >= info.count);
        queries(in, info);
    });
}
