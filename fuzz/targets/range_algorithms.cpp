// The range-array algorithms on arbitrary range lists (unsorted, overlapping, reversed, at the int4
// limits) and on canonical ones. For any input: no access outside the inputs and the output, and
// output sizes within their bounds. For canonical inputs inside a window of less than 2^31 values
// (where the wrapping comparisons agree with plain ones): the set-theoretic answer exactly.
#include <vector>

#include "FuzzSupport.h"
#include "zelmorraPgRangeArray.h"
#include "zelmorraPgSetAggregate.h"

namespace {

using fuzz::Input;
using IntRange = zm::pgRangeArray::Range<int>;
using RangeVec = zm::tVectorBase<IntRange, fuzz::Allocator>;
using Interval = std::pair<int64_t, int64_t>;

// A canonical list: sorted, disjoint, not touching, lower <= upper, inside [start, start + 2^30].
std::vector<IntRange> canonical(Input& in, int32_t start, size_t n)
{
    std::vector<IntRange> out;
    const int64_t limit = std::min<int64_t>(int64_t{start} + (int64_t{1} << 30), INT32_MAX);
    int64_t next = start;
    for (size_t i = 0; i < n; ++i)
    {
        const uint8_t shape = in.u8();
        const int64_t lower = next + ((shape & 0x80) ? in.u16() : in.u8() % 4);
        const int64_t upper = lower + ((shape & 0x40) ? in.u16() : in.u8() % 4);
        if (upper > limit)
            break;
        out.push_back(IntRange{static_cast<int32_t>(lower), static_cast<int32_t>(upper)});
        next = upper + 2;
    }
    return out;
}

std::vector<IntRange> arbitrary(Input& in, size_t n)
{
    std::vector<IntRange> out;
    int32_t base = in.valueNear(0);
    for (size_t i = 0; i < n; ++i)
    {
        const int32_t lower = in.valueNear(base);
        const int32_t upper = in.valueNear(lower);
        out.push_back(IntRange{lower, upper});
        base = upper;
    }
    return out;
}

// An exact copy in the arena: reading one range past the end is caught.
struct List
{
    const IntRange* begin;
    const IntRange* end;
    size_t size;
};

List place(const std::vector<IntRange>& v)
{
    IntRange* p = fuzz::exactArray<IntRange>(v.size());
    if (!v.empty())
        std::memcpy(p, v.data(), v.size() * sizeof(IntRange));
    return List{p, p + v.size(), v.size()};
}

std::vector<Interval> toIntervals(const List& l)
{
    std::vector<Interval> out;
    for (const IntRange* r = l.begin; r != l.end; ++r)
        out.emplace_back(r->lower, r->upper);
    return out;
}

std::vector<Interval> toIntervals(const RangeVec& v)
{
    std::vector<Interval> out;
    for (size_t i = 0; i < v.size; ++i)
        out.emplace_back(v.data[i].lower, v.data[i].upper);
    return out;
}

// The canonical form of a union of intervals (lower <= upper each).
std::vector<Interval> normalise(std::vector<Interval> v)
{
    std::sort(v.begin(), v.end());
    std::vector<Interval> out;
    for (const Interval& i : v)
    {
        if (!out.empty() && i.first <= out.back().second + 1)
            out.back().second = std::max(out.back().second, i.second);
        else
            out.push_back(i);
    }
    return out;
}

std::vector<Interval> intersect(const std::vector<Interval>& a, const std::vector<Interval>& b)
{
    std::vector<Interval> out;
    for (const Interval& x : a)
        for (const Interval& y : b)
        {
            const int64_t lo = std::max(x.first, y.first);
            const int64_t hi = std::min(x.second, y.second);
            if (lo <= hi)
                out.emplace_back(lo, hi);
        }
    return normalise(out);
}

std::vector<Interval> subtract(const std::vector<Interval>& a, const std::vector<Interval>& b)
{
    std::vector<Interval> out;
    for (const Interval& x : a)
    {
        std::vector<Interval> pieces{x};
        for (const Interval& y : b)
        {
            std::vector<Interval> next;
            for (const Interval& p : pieces)
            {
                if (y.second < p.first || y.first > p.second)
                {
                    next.push_back(p);
                    continue;
                }
                if (p.first < y.first)
                    next.emplace_back(p.first, y.first - 1);
                if (y.second < p.second)
                    next.emplace_back(y.second + 1, p.second);
            }
            pieces.swap(next);
        }
        out.insert(out.end(), pieces.begin(), pieces.end());
    }
    return normalise(out);
}

bool contains(const std::vector<Interval>& set, int64_t v)
{
    for (const Interval& i : set)
        if (i.first <= v && v <= i.second)
            return true;
    return false;
}

// pushOrMerge spelled out: the leading input ranges that touch the output's last range join it.
std::vector<Interval> referencePushOrMerge(std::vector<Interval> out, const List& in)
{
    const IntRange* r = in.begin;
    if (!out.empty())
        for (; r != in.end; ++r)
        {
            const int32_t d = static_cast<int32_t>(static_cast<uint32_t>(r->lower) - static_cast<uint32_t>(out.back().second));
            if (d > 1)
                break;
            out.back().second = std::max<int64_t>(out.back().second, r->upper);
        }
    for (; r != in.end; ++r)
        out.emplace_back(r->lower, r->upper);
    return out;
}

void anyInput(const List& a, const List& b)
{
    RangeVec out;
    out.init(1);
    zm::pgRangeArray::computeUnion(a.begin, a.end, b.begin, b.end, out);
    FUZZ_CHECK(out.size <= a.size + b.size);

    // The union walk of the set aggregates' combine step (signed order, no wrap-around).
    RangeVec room;
    room.init(std::max<size_t>(a.size + b.size, 1));
    zm::setAggDetail::unionWithRoom(a.begin, a.end, b.begin, b.end, room);
    RangeVec naive;
    naive.init(1);
    fuzz::signedUnion(a.begin, a.end, b.begin, b.end, naive);
    FUZZ_CHECK(toIntervals(room) == toIntervals(naive));

    zm::pgRangeArray::computeIntersection(a.begin, a.end, b.begin, b.end, out);
    FUZZ_CHECK(out.size <= a.size + b.size);
    zm::pgRangeArray::computeExclusion(a.begin, a.end, b.begin, b.end, out);
    FUZZ_CHECK(out.size <= 3 * a.size + 2 * b.size);

    RangeVec pushed;
    pushed.init(1);
    pushed.append(a.begin, a.end);
    const std::vector<Interval> expected = referencePushOrMerge(toIntervals(a), b);
    zm::pgRangeArray::pushOrMerge(pushed, b.begin, b.end);
    FUZZ_CHECK(toIntervals(pushed) == expected);

    (void)zm::pgRangeArray::isStrictlyIncluded(a.begin, a.end, b.begin, b.end);
    (void)zm::pgRangeArray::isOverlapping(a.begin, a.end, b.begin, b.end);
    if (a.size)
        (void)zm::pgRangeArray::rangeOverlapsList(*a.begin, b.begin, b.end);
    if (b.size)
        (void)zm::pgRangeArray::valueInRanges(b.begin->lower, a.begin, a.end);

    // Inserting into any list: one range more at most, never fewer than one.
    RangeVec list;
    list.init(1);
    list.append(a.begin, a.end);
    for (const IntRange* r = b.begin; r != b.end; ++r)
    {
        const size_t before = list.size;
        zm::pgRangeArray::rangeArrayInsert(list, *r);
        FUZZ_CHECK(list.size >= 1 && list.size <= before + 1);
    }
}

void canonicalInput(const List& a, const List& b, Input& in)
{
    const std::vector<Interval> sa = toIntervals(a);
    const std::vector<Interval> sb = toIntervals(b);
    RangeVec out;
    out.init(1);
    zm::pgRangeArray::computeUnion(a.begin, a.end, b.begin, b.end, out);
    std::vector<Interval> all = sa;
    all.insert(all.end(), sb.begin(), sb.end());
    FUZZ_CHECK(toIntervals(out) == normalise(all));
    zm::pgRangeArray::computeIntersection(a.begin, a.end, b.begin, b.end, out);
    const std::vector<Interval> common = intersect(sa, sb);
    FUZZ_CHECK(toIntervals(out) == common);
    zm::pgRangeArray::computeExclusion(a.begin, a.end, b.begin, b.end, out);
    FUZZ_CHECK(toIntervals(out) == subtract(sa, sb));

    FUZZ_CHECK(zm::pgRangeArray::isOverlapping(a.begin, a.end, b.begin, b.end) == !common.empty());
    FUZZ_CHECK(zm::pgRangeArray::isStrictlyIncluded(a.begin, a.end, b.begin, b.end) ==
               (a.size && b.size && subtract(sa, sb).empty()));
    for (const Interval& r : sa)
        FUZZ_CHECK(zm::pgRangeArray::rangeOverlapsList(IntRange{static_cast<int32_t>(r.first), static_cast<int32_t>(r.second)},
                                                       b.begin, b.end) == !intersect({r}, sb).empty());
    for (int k = 0; k < 8 && !in.empty(); ++k)
    {
        const int32_t v = sb.empty() ? in.i32() : in.valueNear(static_cast<int32_t>(sb[in.u8() % sb.size()].first));
        FUZZ_CHECK(zm::pgRangeArray::valueInRanges(v, b.begin, b.end) == contains(sb, v));
    }

    // Inserting ordinary ranges into a canonical list keeps it the canonical form of the union.
    RangeVec list;
    list.init(1);
    list.append(a.begin, a.end);
    std::vector<Interval> expected = sa;
    for (const Interval& r : sb)
    {
        if (r.second == INT32_MAX || (!expected.empty() && expected.back().second == INT32_MAX))
            break;
        zm::pgRangeArray::rangeArrayInsert(list, IntRange{static_cast<int32_t>(r.first), static_cast<int32_t>(r.second)});
        expected.push_back(r);
        expected = normalise(expected);
        FUZZ_CHECK(toIntervals(list) == expected);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::runInput([&] {
        Input in(data, size);
        const uint8_t mode = in.u8();
        const size_t na = in.u8() % 32;
        const size_t nb = in.u8() % 32;
        if (mode & 1)
        {
            // Both lists in one window, anywhere in the int4 range.
            const int32_t start = (mode & 2) ? in.valueNear(0) : Input::wrap(int64_t{INT32_MIN} + in.u16());
            const auto near = [&in, start] {
                const int64_t s = int64_t{start} + in.u8();
                return static_cast<int32_t>(std::min<int64_t>(s, INT32_MAX));
            };
            const int32_t startA = near();
            const int32_t startB = near();
            const List a = place(canonical(in, startA, na));
            const List b = place(canonical(in, startB, nb));
            canonicalInput(a, b, in);
            anyInput(a, b);
        }
        else
        {
            const List a = place(arbitrary(in, na));
            const List b = place(arbitrary(in, nb));
            anyInput(a, b);
        }
    });
}
