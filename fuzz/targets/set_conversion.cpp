// The mix-array readers and the other set conversions: s->r, s->m, r->s, r->m, m->s, m->r and the
// int4 sort, on arbitrary arrays (sorted or not, lying counts, bad range items, int4 limits). Each
// result or refusal is compared with a literal re-reading of the conversion rules, and round trips
// that must be lossless are checked.
#include <vector>

#include "FuzzSupport.h"
#include "zelmorraPgSetConversion.h"

namespace {

using fuzz::Input;
using zm::setConversion::Status;
using IntRange = zm::pgRangeArray::Range<int>;
using RangeVec = zm::tVectorBase<IntRange, fuzz::Allocator>;
using IntVec = zm::tVectorBase<int32_t, fuzz::Allocator>;

constexpr size_t maxValues = size_t{1} << 20;  // the harness's stand-in for the largest int4[]

int32_t wrappedDiff(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b)); }
int32_t rangeStart(int32_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v) | 0x80000000u); }

struct Expected
{
    Status status = Status::Ok;
    std::vector<int32_t> elements;  // ranges as lower, upper pairs
};

// Scalar -> range (mix = false) or -> mix (mix = true): runs of values at most one apart (32-bit
// wrapping difference), a value below its predecessor refused.
Expected scalarRuns(const std::vector<int32_t>& v, bool mix)
{
    Expected x;
    if (v.empty())
        return x;
    std::vector<std::pair<int32_t, int32_t>> runs;
    int32_t start = v[0], last = v[0];
    for (size_t i = 1; i < v.size(); ++i)
    {
        if (v[i] < last)
        {
            x.status = mix ? Status::ScalarToMixNotSorted : Status::ScalarToRangeNotSorted;
            return x;
        }
        if (wrappedDiff(v[i], last) <= 1)
            last = v[i];
        else
        {
            runs.emplace_back(start, last);
            start = last = v[i];
        }
    }
    runs.emplace_back(start, last);
    if (mix)
        x.elements.push_back(static_cast<int32_t>(v.size()));
    for (const auto& r : runs)
    {
        if (mix && r.first == r.second)
            x.elements.push_back(r.first);
        else
        {
            x.elements.push_back(mix ? rangeStart(r.first) : r.first);
            x.elements.push_back(r.second);
        }
    }
    return x;
}

// Mix items after the count: (lower, upper) or a bad item.
bool mixItems(const std::vector<int32_t>& m, std::vector<std::pair<int32_t, int32_t>>& items, size_t& badAt)
{
    for (size_t i = 1; i < m.size(); ++i)
    {
        if (m[i] >= 0)
        {
            items.emplace_back(m[i], m[i]);
            continue;
        }
        const int32_t lower = m[i] & 0x7fffffff;
        if (i + 1 == m.size() || m[i + 1] < 0 || m[i + 1] < lower)
        {
            badAt = items.size();
            return false;
        }
        items.emplace_back(lower, m[++i]);
    }
    return true;
}

uint64_t width(int32_t lower, int32_t upper)
{
    return lower <= upper ? static_cast<uint64_t>(static_cast<int64_t>(upper) - lower) + 1 : 0;
}

template <typename Vec>
std::vector<int32_t> flat(const Vec& v)
{
    std::vector<int32_t> out;
    for (size_t i = 0; i < v.size; ++i)
    {
        if constexpr (std::is_same_v<Vec, RangeVec>)
        {
            out.push_back(v.data[i].lower);
            out.push_back(v.data[i].upper);
        }
        else
            out.push_back(v.data[i]);
    }
    return out;
}

// Output of the expanding conversions: exactly n values, so that writing one more is caught.
struct Output
{
    int32_t* data = nullptr;
    size_t size = 0;
    bool made = false;
    int32_t* operator()(size_t n)
    {
        FUZZ_CHECK(!made);
        if (n > maxValues)
            throw fuzz::FuzzError{fuzz::outOfMemoryError};  // as palloc refuses an oversized array
        made = true;
        size = n;
        data = fuzz::exactArray<int32_t>(n);
        return data;
    }
    std::vector<int32_t> values() const { return std::vector<int32_t>(data, data + size); }
};

std::vector<int32_t> readArray(Input& in)
{
    const int32_t base = in.valueNear(0);
    const size_t n = in.u8() % 48;
    const uint8_t shape = in.u8();
    std::vector<int32_t> v(n);
    for (size_t i = 0; i < n; ++i)
    {
        v[i] = in.valueNear((shape & 1) && i > 0 ? v[i - 1] : base);
        if ((shape & 2) && in.u8() % 4 == 0)
            v[i] = rangeStart(v[i] & 0xffff);  // a mix range opener
    }
    if ((shape & 4) && !v.empty())
        std::sort(v.begin(), v.end());
    if ((shape & 8) && !v.empty())
    {
        // A mix count element that matches the items (most of the time).
        std::vector<std::pair<int32_t, int32_t>> items;
        size_t bad = 0;
        mixItems(v, items, bad);
        uint64_t total = 0;
        for (const auto& it : items)
            total += width(it.first, it.second);
        v[0] = static_cast<int32_t>(total);
    }
    return v;
}

void scalarToRanges(const std::vector<int32_t>& v)
{
    RangeVec out;
    out.init(1);
    const Status status = zm::setConversion::scalarToRanges(v.data(), v.size(), out);
    const Expected x = scalarRuns(v, false);
    FUZZ_CHECK(status == x.status);
    if (status != Status::Ok)
        return;
    FUZZ_CHECK(flat(out) == x.elements);
    FUZZ_CHECK(out.size <= v.size());
    // Values within a window of 2^31 expand back to the distinct values.
    if (!v.empty() && static_cast<int64_t>(v.back()) - v.front() < (int64_t{1} << 31))
    {
        Output back;
        const Status again =
            zm::setConversion::rangesToScalars<zm::NoInterrupts>(x.elements.data(), x.elements.size(), back);
        FUZZ_CHECK(again == Status::Ok);
        std::vector<int32_t> distinct = v;
        distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
        FUZZ_CHECK(back.values() == distinct);
    }
}

void scalarToMix(const std::vector<int32_t>& v)
{
    IntVec out;
    out.init(1);
    const Status status = zm::setConversion::scalarToMix(v.data(), v.size(), out);
    const Expected x = scalarRuns(v, true);
    FUZZ_CHECK(status == x.status);
    if (status != Status::Ok)
        return;
    FUZZ_CHECK(flat(out) == x.elements);
    // Distinct non-negative values come back unchanged.
    if (!v.empty() && v.front() >= 0 && std::adjacent_find(v.begin(), v.end()) == v.end())
    {
        Output back;
        const Status again = zm::setConversion::mixToScalars<zm::NoInterrupts>(x.elements.data(), x.elements.size(),
                                                                              maxValues, back);
        FUZZ_CHECK(again == Status::Ok);
        FUZZ_CHECK(back.values() == v);
    }
}

void rangesToScalars(const std::vector<int32_t>& r)
{
    Output out;
    Status status;
    try
    {
        status = zm::setConversion::rangesToScalars<zm::NoInterrupts>(r.data(), r.size(), out);
    }
    catch (const fuzz::FuzzError&)
    {
        FUZZ_CHECK(!out.made);
        return;
    }
    if (r.size() % 2 != 0)
    {
        FUZZ_CHECK(status == Status::OddRangeCount && !out.made);
        return;
    }
    uint64_t total = 0;
    for (size_t i = 0; i < r.size(); i += 2)
        total += width(r[i], r[i + 1]);
    if (total > 0x7fffffff)
    {
        FUZZ_CHECK(status == Status::ArrayOverflow && !out.made);
        return;
    }
    FUZZ_CHECK(status == Status::Ok && out.made && out.size == total);
    size_t k = 0;
    for (size_t i = 0; i < r.size(); i += 2)
        for (int64_t v = r[i]; v <= r[i + 1]; ++v)
            FUZZ_CHECK(out.data[k++] == v);
}

void rangesToMix(const std::vector<int32_t>& r)
{
    IntVec out;
    out.init(1);
    const Status status = zm::setConversion::rangesToMix(r.data(), r.size(), out);
    if (r.size() % 2 != 0)
    {
        FUZZ_CHECK(status == Status::OddRangeCount);
        return;
    }
    FUZZ_CHECK(status == Status::Ok);
    std::vector<int32_t> x;
    if (!r.empty())
    {
        uint32_t total = 0;
        x.push_back(0);
        for (size_t i = 0; i < r.size(); i += 2)
        {
            total += static_cast<uint32_t>(r[i + 1]) - static_cast<uint32_t>(r[i]) + 1u;
            if (r[i] == r[i + 1])
                x.push_back(r[i]);
            else
            {
                x.push_back(rangeStart(r[i]));
                x.push_back(r[i + 1]);
            }
        }
        x[0] = static_cast<int32_t>(total);
    }
    FUZZ_CHECK(flat(out) == x);
    // Pairs 0 <= lower <= upper come back unchanged through the mix form.
    bool plain = true;
    for (size_t i = 0; i < r.size(); i += 2)
        plain = plain && r[i] >= 0 && r[i] <= r[i + 1];
    if (plain && !x.empty())
    {
        RangeVec back;
        back.init(1);
        FUZZ_CHECK(zm::setConversion::mixToRanges(x.data(), x.size(), back) == Status::Ok);
        FUZZ_CHECK(flat(back) == r);
    }
}

void mixToScalars(const std::vector<int32_t>& m)
{
    Output out;
    Status status;
    try
    {
        status = zm::setConversion::mixToScalars<zm::NoInterrupts>(m.data(), m.size(), maxValues, out);
    }
    catch (const fuzz::FuzzError&)
    {
        FUZZ_CHECK(false);  // the declared count is checked against maxValues first
        return;
    }
    if (m.empty())
    {
        FUZZ_CHECK(status == Status::Ok && out.made && out.size == 0);
        return;
    }
    const int32_t declared = m[0];
    if (declared < 0 || static_cast<size_t>(declared) > maxValues)
    {
        FUZZ_CHECK(status == Status::OutputTooSmall && !out.made);
        return;
    }
    std::vector<std::pair<int32_t, int32_t>> items;
    size_t badAt = 0;
    const bool valid = mixItems(m, items, badAt);
    uint64_t total = 0;
    for (const auto& it : items)
        total += width(it.first, it.second);
    if (!valid)
    {
        // Writing stops at the declared count: items holding more before the bad one may be
        // reported as the count error instead.
        FUZZ_CHECK(status == Status::InvalidRangeDefinition ||
                   (status == Status::ConversionError && total > static_cast<uint64_t>(declared)));
        return;
    }
    if (total != static_cast<uint64_t>(declared))
    {
        FUZZ_CHECK(status == Status::ConversionError);
        return;
    }
    FUZZ_CHECK(status == Status::Ok && out.made && out.size == total);
    size_t k = 0;
    for (const auto& it : items)
        for (int64_t v = it.first; v <= it.second; ++v)
            FUZZ_CHECK(out.data[k++] == v);
}

void mixToRanges(const std::vector<int32_t>& m)
{
    RangeVec out;
    out.init(1);
    const Status status = zm::setConversion::mixToRanges(m.data(), m.size(), out);
    std::vector<std::pair<int32_t, int32_t>> items;
    size_t badAt = 0;
    const bool valid = mixItems(m, items, badAt);
    if (!valid)
    {
        FUZZ_CHECK(status == Status::InvalidRangeDefinition);
        return;
    }
    FUZZ_CHECK(status == Status::Ok);
    std::vector<int32_t> x;
    for (const auto& it : items)
    {
        x.push_back(it.first);
        x.push_back(it.second);
    }
    FUZZ_CHECK(flat(out) == x);
}

void sortInt4(const std::vector<int32_t>& v, bool longer)
{
    std::vector<int32_t> input = v;
    if (longer)  // past the short-input limit, so that the radix sort runs
        for (size_t i = 0; input.size() < 300 && !v.empty(); ++i)
            input.push_back(static_cast<int32_t>(static_cast<uint32_t>(v[i % v.size()]) * 2654435761u + static_cast<uint32_t>(i)));
    const size_t n = input.size();
    int32_t* src = fuzz::exactArray<int32_t>(n);
    int32_t* dst = fuzz::exactArray<int32_t>(n);
    int32_t* scratch = fuzz::exactArray<int32_t>(n);
    if (n)
        std::memcpy(src, input.data(), n * sizeof(int32_t));
    zm::setConversion::sortInt4<zm::NoInterrupts>(src, dst, scratch, n);
    std::vector<int32_t> expected = input;
    std::sort(expected.begin(), expected.end());
    FUZZ_CHECK(std::equal(expected.begin(), expected.end(), dst));
    FUZZ_CHECK(std::equal(input.begin(), input.end(), src));  // the source is only read
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::runInput([&] {
        Input in(data, size);
        int budget = 16;
        while (!in.empty() && budget-- > 0)
        {
            const uint8_t op = in.u8();
            const std::vector<int32_t> v = readArray(in);
            fuzz::runInput([&] {
                switch (op % 7)
                {
                    case 0: scalarToRanges(v); break;
                    case 1: scalarToMix(v); break;
                    case 2: rangesToScalars(v); break;
                    case 3: rangesToMix(v); break;
                    case 4: mixToScalars(v); break;
                    case 5: mixToRanges(v); break;
                    default: sortInt4(v, (op & 0x80) != 0); break;
                }
            });
        }
    });
}
