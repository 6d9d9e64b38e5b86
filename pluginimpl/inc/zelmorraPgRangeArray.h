// Set algorithms on sequences of closed int32 ranges.
//
// Inputs are half-open pointer intervals over Range records (usually a range array's data read in
// place); output goes into a tVectorBase that the caller owns and has given a capacity of at least
// one range. The rules below (which ranges merge, which comparisons wrap around) define the
// results of every set operator and aggregate, so they are followed to the letter, also for
// inputs that are not canonical. No PostgreSQL dependency: unit tests and fuzz targets include
// this header with an ordinary allocator.
#pragma once

#include <algorithm>
#include <cstdint>
#include <type_traits>

#include "zelmorraPgVector.h"

namespace zm {
namespace pgRangeArray {

template <typename T>
struct Range
{
    T lower;
    T upper;
};

static_assert(sizeof(Range<int>) == 8, "a range is read in place from two int4 elements");

// Interrupt policy of the walks below (`static void check()`): the server passes one that lets a
// cancel request through. Walks that write through an allocator default to the allocator's
// `Interrupts` member type, so work done in server memory is interruptible without further ado;
// otherwise (and for allocators without one: unit tests, fuzz targets) nothing interrupts.
struct NoInterruptCheck
{
    static void check() {}
};

template <typename A, typename = void>
struct InterruptPolicyOf
{
    using type = NoInterruptCheck;
};

template <typename A>
struct InterruptPolicyOf<A, std::void_t<typename A::Interrupts>>
{
    using type = typename A::Interrupts;
};

// Steps between two checks: a walk over a gigabyte of ranges can take seconds.
constexpr uint32_t interruptCheckInterval = uint32_t{1} << 20;

// Counts the steps of a walk and checks every interruptCheckInterval of them; with
// NoInterruptCheck it compiles to nothing.
template <typename Interrupts>
struct InterruptCountdown
{
    uint32_t left = interruptCheckInterval;
    void step()
    {
        if (--left == 0)
        {
            left = interruptCheckInterval;
            Interrupts::check();
        }
    }
};

// a - b in 32-bit two's complement, read as signed: the order of bounds more than 2^31 apart is
// decided this way on purpose.
inline int32_t wrappedDifference(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

inline int32_t wrappedAdd(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// The touch rule: r joins `last` when it starts at most one value after last ends.
template <typename T>
inline bool touches(const Range<T>& last, const Range<T>& r)
{
    return wrappedDifference(r.lower, last.upper) <= 1;
}

template <typename T>
inline void mergeInto(Range<T>& last, const Range<T>& r)
{
    last.upper = std::max(last.upper, r.upper);
}

template <typename T, typename A>
inline void appendOrMerge(tVectorBase<Range<T>, A>& out, const Range<T>& r)
{
    if (!out.empty() && touches(out.back(), r))
        mergeInto(out.back(), r);
    else
        out.push_back(r);
}

// Appends [first, last) to out; only the leading input ranges are tested against out's last range,
// the rest is copied as one block.
template <typename T, typename A>
void pushOrMerge(tVectorBase<Range<T>, A>& out, const Range<T>* first, const Range<T>* last)
{
    if (first == last)
        return;
    if (!out.empty())
    {
        Range<T>& tail = out.back();
        while (first != last && touches(tail, *first))
        {
            mergeInto(tail, *first);
            ++first;
        }
    }
    out.append(first, last);
}

// Inserts r into the sorted vector out, joining every range that r overlaps or touches.
template <typename T, typename A>
void rangeArrayInsert(tVectorBase<Range<T>, A>& out, const Range<T>& r)
{
    if (out.empty())
    {
        out.push_back(r);
        return;
    }
    const T afterUpper = wrappedAdd(r.upper, 1);
    Range<T>* hi = std::upper_bound(out.begin(), out.end(), afterUpper,
                                    [](T key, const Range<T>& e) { return key < e.lower; });
    if (hi == out.begin())
    {
        const size_t oldSize = out.size;
        out.resize(oldSize + 1);
        std::memmove(out.data + 1, out.data, oldSize * sizeof(Range<T>));
        out.data[0] = r;
        return;
    }
    Range<T>* lo = std::lower_bound(out.begin(), hi, r.lower,
                                    [](const Range<T>& e, T key) { return wrappedAdd(e.upper, 1) < key; });
    if (lo == out.end())
    {
        out.push_back(r);
        return;
    }
    if (lo == hi)
    {
        const size_t at = static_cast<size_t>(lo - out.begin());
        const size_t oldSize = out.size;
        out.resize(oldSize + 1);
        std::memmove(out.data + at + 1, out.data + at, (oldSize - at) * sizeof(Range<T>));
        out.data[at] = r;
        return;
    }
    lo->lower = std::min(r.lower, lo->lower);
    lo->upper = std::max(r.upper, (hi - 1)->upper);
    const size_t removed = static_cast<size_t>(hi - lo) - 1;
    if (removed)
    {
        std::memmove(lo + 1, hi, static_cast<size_t>(out.end() - hi) * sizeof(Range<T>));
        out.size -= removed;
    }
}

template <typename T, typename A, typename Interrupts = typename InterruptPolicyOf<A>::type>
void computeUnion(const Range<T>* aBegin, const Range<T>* aEnd, const Range<T>* bBegin, const Range<T>* bEnd,
                  tVectorBase<Range<T>, A>& out)
{
    InterruptCountdown<Interrupts> countdown;
    out.clear();
    if (aBegin == aEnd || bBegin == bEnd)
    {
        // One side empty: the other is copied as given, not normalised.
        if (aBegin != aEnd)
            out.append(aBegin, aEnd);
        else
            out.append(bBegin, bEnd);
        return;
    }
    while (aBegin != aEnd && bBegin != bEnd)
    {
        countdown.step();
        const bool takeB = wrappedDifference(bBegin->lower, aBegin->lower) < 0;
        appendOrMerge(out, takeB ? *bBegin++ : *aBegin++);
    }
    if (aBegin != aEnd)
        pushOrMerge(out, aBegin, aEnd);
    else if (bBegin != bEnd)
        pushOrMerge(out, bBegin, bEnd);
}

template <typename T, typename A, typename Interrupts = typename InterruptPolicyOf<A>::type>
void computeIntersection(const Range<T>* aBegin, const Range<T>* aEnd, const Range<T>* bBegin,
                         const Range<T>* bEnd, tVectorBase<Range<T>, A>& out)
{
    InterruptCountdown<Interrupts> countdown;
    out.clear();
    const Range<T>* a = aBegin;
    const Range<T>* b = bBegin;
    while (a != aEnd && b != bEnd)
    {
        countdown.step();
        if (a->lower < b->lower)
        {
            while (a->upper >= b->upper)
            {
                countdown.step();
                out.push_back(*b);
                if (++b == bEnd)
                    return;
            }
            if (b->lower <= a->upper)
                out.push_back(Range<T>{b->lower, a->upper});
            ++a;
        }
        else
        {
            while (b->upper >= a->upper)
            {
                countdown.step();
                out.push_back(*a);
                if (++a == aEnd)
                    return;
            }
            if (b->upper >= a->lower)
                out.push_back(Range<T>{a->lower, b->upper});
            ++b;
        }
    }
}

// A - B. Pieces of an A range that several B ranges cut are emitted when the next cutting B range
// is reached; the A ranges left after B runs out are appended with pushOrMerge.
template <typename T, typename A, typename Interrupts = typename InterruptPolicyOf<A>::type>
void computeExclusion(const Range<T>* aBegin, const Range<T>* aEnd, const Range<T>* bBegin,
                      const Range<T>* bEnd, tVectorBase<Range<T>, A>& out)
{
    InterruptCountdown<Interrupts> countdown;
    out.clear();
    if (aBegin == aEnd)
        return;
    if (bBegin == bEnd)
    {
        out.append(aBegin, aEnd);
        return;
    }
    const Range<T>* a = aBegin;
    const Range<T>* b = bBegin;
    while (a != aEnd && b != bEnd)
    {
        countdown.step();
        if (a->upper < b->lower)
        {
            out.push_back(*a++);
            continue;
        }
        for (;;)  // the B ranges that can cut a, starting with b
        {
            countdown.step();
            const Range<T>* next = b + 1;
            const bool hasNext = next != bEnd;
            if (b->upper < a->lower)
            {
                if (!(hasNext && next->lower <= a->upper))
                    out.push_back(*a);
            }
            else
            {
                if (a->lower < b->lower)
                {
                    const T pieceLower = b == bBegin ? a->lower : std::max(wrappedAdd((b - 1)->upper, 1), a->lower);
                    out.push_back(Range<T>{pieceLower, wrappedAdd(b->lower, -1)});
                }
                if (a->upper < b->upper)
                {
                    ++a;  // b runs past a: it may cut the next A range too
                    break;
                }
                if (hasNext)
                {
                    if (!(a->upper >= next->lower || a->upper == b->upper))
                        out.push_back(Range<T>{wrappedAdd(b->upper, 1), a->upper});
                }
                else if (a->upper <= b->upper)
                {
                    b = bEnd;  // b ends where a ends: B is exhausted
                    ++a;
                    break;
                }
                else
                {
                    out.push_back(Range<T>{wrappedAdd(b->upper, 1), a->upper});
                }
            }
            if (++b == bEnd)
            {
                ++a;
                break;
            }
            if (b->lower > a->upper)
            {
                ++a;
                break;
            }
        }
    }
    pushOrMerge(out, a, aEnd);
}

// True when every range of A lies inside a single range of B; B ranges are not joined.
template <typename T, typename Interrupts = NoInterruptCheck>
bool isStrictlyIncluded(const Range<T>* aBegin, const Range<T>* aEnd, const Range<T>* bBegin, const Range<T>* bEnd)
{
    if (aBegin == aEnd || bBegin == bEnd)
        return false;
    InterruptCountdown<Interrupts> countdown;
    const Range<T>* b = bBegin;
    for (const Range<T>* a = aBegin; a != aEnd; ++a)
    {
        countdown.step();
        while (b->upper < a->lower)
        {
            countdown.step();
            if (++b == bEnd)
                return false;
        }
        if (b->lower > a->lower || b->upper < a->upper)
            return false;
    }
    return true;
}

// True when some value lies in a range of A and in a range of B; touching is not overlapping.
template <typename T, typename Interrupts = NoInterruptCheck>
bool isOverlapping(const Range<T>* a, const Range<T>* aEnd, const Range<T>* b, const Range<T>* bEnd)
{
    if (a == aEnd || b == bEnd)
        return false;
    InterruptCountdown<Interrupts> countdown;
    for (;;)
    {
        countdown.step();
        if (a->lower < b->lower)
        {
            if (b->lower <= a->upper)
                return true;
            if (++a == aEnd)
                return false;
        }
        else
        {
            if (a->lower <= b->upper)
                return true;
            if (++b == bEnd)
                return false;
        }
    }
}

// One range r against a sorted range list: bounds check first, then a forward scan.
template <typename T, typename Interrupts = NoInterruptCheck>
bool rangeOverlapsList(const Range<T>& r, const Range<T>* first, const Range<T>* last)
{
    if (first == last || (last - 1)->upper < r.lower || r.upper < first->lower)
        return false;
    InterruptCountdown<Interrupts> countdown;
    for (; first != last; ++first)
    {
        countdown.step();
        if (r.upper < first->lower)
            return false;
        if (r.lower <= first->upper)
            return true;
    }
    return false;
}

// Binary search for the first range whose upper bound is at least v.
template <typename T>
bool valueInRanges(T v, const Range<T>* first, const Range<T>* last)
{
    const Range<T>* r = std::lower_bound(first, last, v, [](const Range<T>& e, T key) { return e.upper < key; });
    return r != last && v >= r->lower;
}

// Appends one item to a mix array: a single value as itself, a range as (lower | bit 31), upper.
template <typename A>
void pushIntoMixArray(tVectorBase<int32_t, A>& out, int32_t lower, int32_t upper)
{
    if (lower == upper)
    {
        out.push_back(lower);
        return;
    }
    out.push_back(static_cast<int32_t>(static_cast<uint32_t>(lower) | 0x80000000u));
    out.push_back(upper);
}

}  // namespace pgRangeArray
}  // namespace zm
