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
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "zelmorraPgInterrupts.h"
#include "zelmorraPgSetForms.h"
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

// Interrupt policy of the walks below (zelmorraPgInterrupts.h). Walks that write through an
// allocator default to the allocator's `Interrupts` member type, so work done in server memory is
// interruptible without further ado; otherwise (and for allocators without one: unit tests, fuzz
// targets) nothing interrupts.
template <typename A, typename = void>
struct InterruptPolicyOf
{
    using type = NoInterrupts;
};

template <typename A>
struct InterruptPolicyOf<A, std::void_t<typename A::Interrupts>>
{
    using type = typename A::Interrupts;
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

// The intersection by the step-by-step rules, exact for every input.
template <typename T, typename A, typename Interrupts = typename InterruptPolicyOf<A>::type>
void computeIntersectionStepwise(const Range<T>* aBegin, const Range<T>* aEnd, const Range<T>* bBegin,
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

// A - B by the step-by-step rules, exact for every input. Pieces of an A range that several B
// ranges cut are emitted when the next cutting B range is reached; the A ranges left after B runs
// out are appended with pushOrMerge.
template <typename T, typename A, typename Interrupts = typename InterruptPolicyOf<A>::type>
void computeExclusionStepwise(const Range<T>* aBegin, const Range<T>* aEnd, const Range<T>* bBegin,
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

// ---- branch-free walks for canonical inputs ----
//
// On two closely interleaved sets every comparison of the step-by-step walks is a coin toss, and
// the mispredicted branches cost more than the merge itself. For inputs in canonical form those
// walks give the plain set result, piece by piece in ascending order, and a branch-free walk
// computes the same pieces: each step writes its candidate piece unconditionally, counts it only
// when it is not empty, and advances each input by the outcome of a comparison.
//
// The walk reads only ranges already checked for the canonical form; the check runs a block
// ahead of it, as a separate tight loop (folded into the walk it would double the walk's cost).
// It also covers the ranges that the step-by-step rules read beyond the walk. When a range breaks
// the form, the caller empties the output and runs the step-by-step rules from the start, so
// every input still gets exactly their result. Only int32 bounds take this path.
namespace canonicalWalk {

using Bound = int64_t;  // wide enough for the distance between two int32 bounds

// Ranges checked per block: the check overshoots what the walk reads by less than this.
constexpr ptrdiff_t CheckBlock = 128;

// One input list with the walk's position and the extent already checked. MinimumDistance is
// the least next.lower - previous.upper that a walk relies on: 1 for sorted and disjoint ranges,
// 2 for sorted, disjoint and not touching ones.
template <int MinimumDistance>
struct CheckedList
{
    const Range<int32_t>* begin;
    const Range<int32_t>* at;          // the walk's current range
    const Range<int32_t>* checkedEnd;  // [begin, checkedEnd) is in canonical form
    const Range<int32_t>* end;
    void (*poll)() = &NoInterrupts::check;  // the caller's interrupt check
    uint32_t checkedSincePoll = 0;

    static CheckedList unchecked(const Range<int32_t>* first, const Range<int32_t>* last)
    {
        return CheckedList{first, first, first, last};
    }

    // A list made up by the walk itself, canonical by construction.
    static CheckedList trusted(const Range<int32_t>* first, const Range<int32_t>* last)
    {
        return CheckedList{first, first, last, last};
    }

    bool more() const { return at != end; }

    // Checks one more block; false when a range in it breaks the canonical form.
    bool checkNextBlock()
    {
        const Range<int32_t>* const stop = end - checkedEnd > CheckBlock ? checkedEnd + CheckBlock : end;
        Bound previousUpper = checkedEnd == begin ? Bound{INT32_MIN} - MinimumDistance : Bound{checkedEnd[-1].upper};
        bool broken = false;
        for (const Range<int32_t>* r = checkedEnd; r != stop; ++r)
        {
            broken |= (r->lower > r->upper) | (Bound{r->lower} - previousUpper < MinimumDistance);
            previousUpper = r->upper;
        }
        checkedEnd = broken ? checkedEnd : stop;
        // The check runs ahead of the walk over both lists, so polling here paces the whole walk.
        checkedSincePoll += static_cast<uint32_t>(CheckBlock);
        if (checkedSincePoll >= interruptCheckInterval)
        {
            checkedSincePoll = 0;
            poll();
        }
        return !broken;
    }

    // True when r (at most one past the checked extent) is checked or is the end of the list.
    bool checkedUpTo(const Range<int32_t>* r) { return r != checkedEnd || r == end || checkNextBlock(); }

    bool checkedToEnd()
    {
        while (checkedEnd != end)
            if (!checkNextBlock())
                return false;
        return true;
    }
};

// How the walk sees its second list: the ranges themselves, or the gaps between them.
struct RangesOf
{
    static Range<int32_t> at(const Range<int32_t>* r) { return *r; }
};

// The gap before r, from the previous range's upper + 1 to r's lower - 1 (r is never the first
// range). Between checked ranges that do not touch it is not empty and cannot overflow.
struct GapsBefore
{
    static Range<int32_t> at(const Range<int32_t>* r) { return Range<int32_t>{r[-1].upper + 1, r->lower - 1}; }
};

// A comparison's outcome as 0 or 1 that the optimiser cannot see through: otherwise it may turn
// an advance by that outcome back into a jump, which mispredicts on every other step here.
inline size_t opaqueFlag(bool flag)
{
    size_t value = flag;
    asm("" : "+r"(value));
    return value;
}

// One step of the walk: the piece is the overlap of the current ranges (empty when lower >
// upper); the range that ends first is done, both when they end together. Advancing by a
// comparison's outcome instead of branching on it is what makes the walk fast.
template <typename Second>
inline Range<int32_t> overlapStep(const Range<int32_t>*& x, const Range<int32_t>*& y, bool& nonEmpty)
{
    const Range<int32_t> r = *x, s = Second::at(y);
    const Range<int32_t> piece{std::max(r.lower, s.lower), std::min(r.upper, s.upper)};
    nonEmpty = piece.lower <= piece.upper;
    x += opaqueFlag(r.upper <= s.upper);
    y += opaqueFlag(s.upper <= r.upper);
    return piece;
}

// Steps while both lists have checked ranges left and out has room for one more piece, writing
// each candidate piece without a capacity test or branch of its own.
template <typename Second, int D1, int D2, typename A>
void overlapsWhileChecked(CheckedList<D1>& first, CheckedList<D2>& second, tVectorBase<Range<int32_t>, A>& out)
{
    const Range<int32_t>* x = first.at;
    const Range<int32_t>* y = second.at;
    const Range<int32_t>* const xStop = first.checkedEnd;
    const Range<int32_t>* const yStop = second.checkedEnd;
    Range<int32_t>* const data = out.data;
    const size_t capacity = out.capacity;
    size_t n = out.size;
    while (n < capacity && x != xStop && y != yStop)
    {
        bool nonEmpty;
        data[n] = overlapStep<Second>(x, y, nonEmpty);
        n += opaqueFlag(nonEmpty);
    }
    first.at = x;
    second.at = y;
    out.size = n;
}

// Appends the overlaps of the two lists until either runs out; false when a range read (or the
// current range of the list that remains, which the step-by-step rules still look at) breaks the
// canonical form. out grows by the same doubling rule and at the same pieces as under the
// step-by-step rules, since everything read so far is canonical and their pieces are the same.
template <typename Second, int D1, int D2, typename A>
bool appendOverlaps(CheckedList<D1>& first, CheckedList<D2>& second, tVectorBase<Range<int32_t>, A>& out)
{
    for (;;)
    {
        if (!first.checkedUpTo(first.at) || !second.checkedUpTo(second.at))
            return false;
        if (!first.more() || !second.more())
            return true;
        if (out.size == out.capacity)
        {
            bool nonEmpty;
            const Range<int32_t> piece = overlapStep<Second>(first.at, second.at, nonEmpty);
            if (nonEmpty)
                out.push_back(piece);
            continue;
        }
        overlapsWhileChecked<Second>(first, second, out);
    }
}

// A ∩ B for sorted, disjoint ranges (touching ones included: the step-by-step rules also
// intersect them one by one).
template <typename A>
bool intersect(const Range<int32_t>* aBegin, const Range<int32_t>* aEnd, const Range<int32_t>* bBegin,
               const Range<int32_t>* bEnd, tVectorBase<Range<int32_t>, A>& out)
{
    CheckedList<1> a = CheckedList<1>::unchecked(aBegin, aEnd);
    a.poll = &InterruptPolicyOf<A>::type::check;
    CheckedList<1> b = CheckedList<1>::unchecked(bBegin, bEnd);
    b.poll = &InterruptPolicyOf<A>::type::check;
    return appendOverlaps<RangesOf>(a, b, out);
}

// A − B as the overlaps of A with the gaps of B: below B's first range, between its ranges and
// above its last one. Neither list may hold touching ranges: the step-by-step rules emit an
// inverted piece between touching B ranges, and merge a touching range at the start of A's tail.
template <typename A>
bool exclude(const Range<int32_t>* aBegin, const Range<int32_t>* aEnd, const Range<int32_t>* bBegin,
             const Range<int32_t>* bEnd, tVectorBase<Range<int32_t>, A>& out)
{
    // Empty inputs are a plain copy anyway. The step-by-step rules copy A's tail as it is, so all
    // of A must be canonical: it is checked first, which also makes its span known. They merge the
    // first range of that tail into the last piece by the wrapped touch rule; over a span of A
    // below 2^31 no difference wraps, so canonical pieces never merge.
    if (aBegin == aEnd || bBegin == bEnd)
        return false;
    CheckedList<2> a = CheckedList<2>::unchecked(aBegin, aEnd);
    a.poll = &InterruptPolicyOf<A>::type::check;
    if (!a.checkedToEnd() || Bound{(aEnd - 1)->upper} - aBegin->lower > INT32_MAX)
        return false;
    CheckedList<2> b = CheckedList<2>::unchecked(bBegin, bEnd);
    b.poll = &InterruptPolicyOf<A>::type::check;
    if (!b.checkedUpTo(bBegin))
        return false;
    if (bBegin->lower != INT32_MIN)  // below B's first range
    {
        const Range<int32_t> below{INT32_MIN, bBegin->lower - 1};
        CheckedList<2> gap = CheckedList<2>::trusted(&below, &below + 1);
        if (!appendOverlaps<RangesOf>(a, gap, out))
            return false;
    }
    b.at = bBegin + 1;
    if (!appendOverlaps<GapsBefore>(a, b, out))
        return false;
    // When A runs out, the step-by-step rules read the B ranges up to the first one that starts
    // above A's last range. The walk has reached that one, and checked it.
    if (!a.more())
        return true;
    // Above B's last range: the A ranges that start inside it keep their part above it, the
    // rest of A lies wholly above it and is copied as a block, as the step-by-step rules do.
    const int32_t bLastUpper = (bEnd - 1)->upper;
    for (; a.more() && a.at->lower <= bLastUpper; ++a.at)
        if (a.at->upper > bLastUpper)
            out.push_back(Range<int32_t>{bLastUpper + 1, a.at->upper});
    out.append(a.at, a.end);
    return true;
}

}  // namespace canonicalWalk

// A ∩ B, merging nothing: each piece is the overlap of one A range and one B range.
template <typename T, typename A, typename Interrupts = typename InterruptPolicyOf<A>::type>
void computeIntersection(const Range<T>* aBegin, const Range<T>* aEnd, const Range<T>* bBegin,
                         const Range<T>* bEnd, tVectorBase<Range<T>, A>& out)
{
    if constexpr (std::is_same_v<T, int32_t>)
    {
        out.clear();
        if (canonicalWalk::intersect(aBegin, aEnd, bBegin, bEnd, out))
            return;
    }
    computeIntersectionStepwise<T, A, Interrupts>(aBegin, aEnd, bBegin, bEnd, out);
}

// A − B: the parts of A's ranges outside every B range.
template <typename T, typename A, typename Interrupts = typename InterruptPolicyOf<A>::type>
void computeExclusion(const Range<T>* aBegin, const Range<T>* aEnd, const Range<T>* bBegin,
                      const Range<T>* bEnd, tVectorBase<Range<T>, A>& out)
{
    if constexpr (std::is_same_v<T, int32_t>)
    {
        out.clear();
        if (canonicalWalk::exclude(aBegin, aEnd, bBegin, bEnd, out))
            return;
    }
    computeExclusionStepwise<T, A, Interrupts>(aBegin, aEnd, bBegin, bEnd, out);
}

// True when every range of A lies inside a single range of B; B ranges are not joined.
template <typename T, typename Interrupts = NoInterrupts>
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
template <typename T, typename Interrupts = NoInterrupts>
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
template <typename T, typename Interrupts = NoInterrupts>
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
    out.push_back(mix::rangeOpener(lower));
    out.push_back(upper);
}

}  // namespace pgRangeArray
}  // namespace zm
