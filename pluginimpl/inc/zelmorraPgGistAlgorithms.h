// Algorithms of the packed-range GiST operator classes: key union, the penalty rule, the
// consistency rules of each strategy and the two-ended greedy page split.
//
// Every key, leaf or inner, is one packed range [lower, upper]; an inner key is the smallest
// range covering the keys below it. No PostgreSQL dependency: the server instantiates the split
// with a palloc allocator and turns the returned status into an ERROR, the unit tests use malloc.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "zelmorraPgPackedRange.h"
#include "zelmorraPgRangeArray.h"
#include "zelmorraPgVector.h"

namespace zm {
namespace pgRangeArray {

// ---- union ------------------------------------------------------------------------------------

// [min lower, max upper] over keys 0..count-1 (count >= 1); keyAt(i) gives the packed key i.
template <typename KeyAt>
int64_t unionOfPackedKeys(int count, KeyAt keyAt)
{
    Range<int> u = unpackRange(keyAt(0));
    for (int i = 1; i < count; ++i)
    {
        const Range<int> k = unpackRange(keyAt(i));
        u.lower = std::min(u.lower, k.lower);
        u.upper = std::max(u.upper, k.upper);
    }
    return packRange(u.lower, u.upper);
}

// ---- penalty ------------------------------------------------------------------------------------

// Cost of adding `add` under the existing key `orig`: the integer part is the number of values the
// key grows by, the fractional part (below 1) prefers, among equal growths, the key in which the
// new range already lies more fully. Sizes are counted in 64 bits: a key may span all 2^32 int4
// values, and 32-bit sizes would wrap to negative growths on ordinary data whose values lie more
// than 2^31 apart. Since min(lower) <= orig.lower and max(upper) >= orig.upper, the growth is never
// negative, for any two keys.
inline float computePenalty(const Range<int>& orig, const Range<int>& add)
{
    const int64_t newSize = int64_t{add.upper} - add.lower + 1;
    const int64_t enlargement =
        (int64_t{std::max(orig.upper, add.upper)} - std::min(orig.lower, add.lower)) - (int64_t{orig.upper} - orig.lower);
    const float overlap = newSize > enlargement ? static_cast<float>(newSize - enlargement) : 0.0f;
    const float ratio = overlap / static_cast<float>(int64_t{orig.upper} - orig.lower + 1);
    float fraction = 1.0f - ratio;
    if (0.99f > fraction)
        fraction = std::max(fraction, 0.0f);
    else
        fraction = 0.99f;  // also when the ratio is not a number (a reversed key of size 0)
    return static_cast<float>(enlargement) + fraction;
}

// ---- consistency rules --------------------------------------------------------------------------

// Strategies of the operator classes. 1/11 take a range array, 2 a bitfield, 3/13/14/15 a packed
// range, 16 an int4 value.
enum GistStrategy : uint16_t
{
    GistStrategyRangeArray = 1,
    GistStrategyBitField = 2,
    GistStrategyPackedOverlap = 3,
    GistStrategyRangeArrayAlt = 11,
    GistStrategyPackedOverlapAlt = 13,
    GistStrategyPackedContainedBy = 14,
    GistStrategyPackedContains = 15,
    GistStrategyValue = 16,
};

// Packed-range query q against key k. An inner key only says that a matching leaf may lie below,
// so strategy 14 (k inside q) relaxes to overlap there.
inline bool packedQueryConsistent(uint16_t strategy, const Range<int>& k, const Range<int>& q, bool leaf)
{
    switch (strategy)
    {
        case GistStrategyPackedContainedBy:
            if (leaf)
                return k.lower >= q.lower && k.upper <= q.upper;
            return q.lower <= k.upper && k.lower <= q.upper;
        case GistStrategyPackedContains:
            return q.lower >= k.lower && q.upper <= k.upper;
        default:  // 3, 13
            return q.lower <= k.upper && k.lower <= q.upper;
    }
}

inline bool valueQueryConsistent(const Range<int>& k, int32_t v) { return k.lower <= v && v <= k.upper; }

// Range-array query: some pair overlaps k. The pairs are trusted to be sorted; the walk stops at
// the first pair that starts beyond the key.
template <typename Interrupts = NoInterrupts>
bool rangeArrayQueryConsistent(const Range<int>& k, const Range<int>* first, const Range<int>* last)
{
    return rangeOverlapsList<int, Interrupts>(k, first, last);
}

// ---- picksplit ----------------------------------------------------------------------------------

// One entry of the page being split: its key and its 1-based offset in the entry vector.
struct PackedRangeWithSplitOffset
{
    int64_t range;
    uint16_t offset;
};

// Lower list order: ascending lower end, ties by ascending upper end.
inline bool PackedRangeWithSplitOffsetSortLower(const PackedRangeWithSplitOffset& a, const PackedRangeWithSplitOffset& b)
{
    const Range<int> ra = unpackRange(a.range);
    const Range<int> rb = unpackRange(b.range);
    return ra.lower < rb.lower || (ra.lower == rb.lower && ra.upper < rb.upper);
}

// Upper list order: descending upper end, ties by descending lower end.
inline bool PackedRangeWithSplitOffsetSortUpper(const PackedRangeWithSplitOffset& a, const PackedRangeWithSplitOffset& b)
{
    const Range<int> ra = unpackRange(a.range);
    const Range<int> rb = unpackRange(b.range);
    return ra.upper > rb.upper || (ra.upper == rb.upper && ra.lower > rb.lower);
}

enum class SplitStatus
{
    Ok,
    InvalidSize,          // fewer than two entries
    LowerListOutOfBound,  // no untagged record left in the lower list (bookkeeping error)
    UpperListOutOfBound,  // no untagged record left in the upper list (bookkeeping error)
    RangeAlreadyTagged,   // a record was placed twice (bookkeeping error)
};

// One side of the split: the caller provides `offsets` with room for every entry.
struct SplitSide
{
    uint16_t* offsets;
    int count;
    Range<int> unionKey;  // defined once count > 0
};

namespace detail {

// Appends one record's offset to a side and widens the side's union.
inline void appendToSide(SplitSide& side, const PackedRangeWithSplitOffset& record)
{
    side.offsets[side.count] = record.offset;
    const Range<int> r = unpackRange(record.range);
    if (side.count == 0)
        side.unionKey = r;
    else
    {
        side.unionKey.lower = std::min(side.unionKey.lower, r.lower);
        side.unionKey.upper = std::max(side.unionKey.upper, r.upper);
    }
    ++side.count;
}

// Places one record on a side unless it has been placed already (its tag is set).
inline bool pushRange(SplitSide& side, uint8_t* tags, const PackedRangeWithSplitOffset& record)
{
    if (tags[record.offset])
        return false;
    tags[record.offset] = 1;
    appendToSide(side, record);
    return true;
}

}  // namespace detail

// Two-ended greedy split of entries 1..maxoff (keyAt(i) gives the packed key of entry i). The left
// side grows from the low end of the value line (entries by ascending lower end), the right side
// from the high end (entries by descending upper end); at each step the side whose extension costs
// less under computePenalty takes one entry, exact ties going to the smaller side, the right one
// first. Working memory comes from Allocator and is released before returning, also on failure.
template <typename Allocator, typename KeyAt>
SplitStatus pickSplit(uint16_t maxoff, KeyAt keyAt, SplitSide& left, SplitSide& right)
{
    left.count = 0;
    right.count = 0;
    if (maxoff < 2)
        return SplitStatus::InvalidSize;

    tVectorBase<PackedRangeWithSplitOffset, Allocator> lowerList;
    tVectorBase<PackedRangeWithSplitOffset, Allocator> upperList;
    lowerList.init(maxoff);
    upperList.init(maxoff);
    for (uint32_t i = 1; i <= maxoff; ++i)
    {
        const PackedRangeWithSplitOffset record{keyAt(static_cast<uint16_t>(i)), static_cast<uint16_t>(i)};
        lowerList.push_back(record);
        upperList.push_back(record);
    }
    uint8_t* tags = static_cast<uint8_t*>(Allocator::allocate(static_cast<size_t>(maxoff) + 1));
    std::memset(tags, 0, static_cast<size_t>(maxoff) + 1);

    std::sort(lowerList.begin(), lowerList.end(), PackedRangeWithSplitOffsetSortLower);
    std::sort(upperList.begin(), upperList.end(), PackedRangeWithSplitOffsetSortUpper);

    SplitStatus status = SplitStatus::Ok;
    size_t lowerCursor = 1;
    size_t upperCursor = 0;
    detail::pushRange(left, tags, lowerList[0]);
    if (tags[upperList[0].offset])
        upperCursor = 1;  // the entry with the smallest lower end also has the largest upper end
    if (!detail::pushRange(right, tags, upperList[upperCursor]))
        status = SplitStatus::RangeAlreadyTagged;
    ++upperCursor;

    while (status == SplitStatus::Ok && left.count + right.count != maxoff)
    {
        while (lowerCursor < lowerList.size && tags[lowerList[lowerCursor].offset])
            ++lowerCursor;
        if (lowerCursor == lowerList.size)
        {
            status = SplitStatus::LowerListOutOfBound;
            break;
        }
        while (upperCursor < upperList.size && tags[upperList[upperCursor].offset])
            ++upperCursor;
        if (upperCursor == upperList.size)
        {
            status = SplitStatus::UpperListOutOfBound;
            break;
        }
        const PackedRangeWithSplitOffset& candidateLeft = lowerList[lowerCursor];
        const PackedRangeWithSplitOffset& candidateRight = upperList[upperCursor];
        const float penaltyLeft = computePenalty(left.unionKey, unpackRange(candidateLeft.range));
        const float penaltyRight = computePenalty(right.unionKey, unpackRange(candidateRight.range));
        bool toLeft;
        if (penaltyLeft < penaltyRight)
            toLeft = true;
        else if (penaltyRight < penaltyLeft)
            toLeft = false;
        else
            toLeft = right.count > left.count;
        // The candidate that was not placed is offered again against the updated unions; a placed
        // one is skipped by its tag.
        if (!(toLeft ? detail::pushRange(left, tags, candidateLeft) : detail::pushRange(right, tags, candidateRight)))
            status = SplitStatus::RangeAlreadyTagged;
    }

    Allocator::deallocate(tags);
    lowerList.release();
    upperList.release();
    return status;
}

// ---- sorted-build split -------------------------------------------------------------------------

// Pages a sorted build should make of `count` entries at most `target` per page (at least two, as
// the entries did not fit on one).
inline uint32_t sortedBuildPageCount(uint32_t count, uint32_t target)
{
    const uint32_t pages = target ? (count + target - 1) / target : 2;
    return pages < 2 ? 2 : pages;
}

// Entries that go to the left side when a sorted build splits `count` entries in key order. The
// build splits a side again only while it does not fit on a page of `capacity` entries, so the
// left side is one page's share as long as the rest is still too big for one page; the last two
// pages share what remains evenly.
inline uint32_t sortedBuildLeftCount(uint32_t count, uint32_t target, uint32_t capacity)
{
    const uint32_t pages = sortedBuildPageCount(count, target);
    const uint32_t share = (count + pages - 1) / pages;
    if (count - share > capacity)
        return share;
    return count / 2;
}

// Split of a batch of pages that a sorted CREATE INDEX has filled with entries in key order: peel
// off pages of at most `target` entries in key order (see sortedBuildLeftCount). Ordinary page
// splits never come here; they use pickSplit. Working memory comes from Allocator and is released
// before returning.
template <typename Allocator, typename KeyAt>
SplitStatus pickSplitSorted(uint16_t maxoff, KeyAt keyAt, uint32_t target, uint32_t capacity, SplitSide& left,
                            SplitSide& right)
{
    left.count = 0;
    right.count = 0;
    if (maxoff < 2)
        return SplitStatus::InvalidSize;

    tVectorBase<PackedRangeWithSplitOffset, Allocator> records;
    records.init(maxoff);
    for (uint32_t i = 1; i <= maxoff; ++i)
        records.push_back(PackedRangeWithSplitOffset{keyAt(static_cast<uint16_t>(i)), static_cast<uint16_t>(i)});
    // The build hands the entries over in its sort order, which is this one; sorting is a safeguard.
    if (!std::is_sorted(records.begin(), records.end(), PackedRangeWithSplitOffsetSortLower))
        std::sort(records.begin(), records.end(), PackedRangeWithSplitOffsetSortLower);

    const uint32_t leftCount = sortedBuildLeftCount(maxoff, target, capacity);
    for (uint32_t i = 0; i < maxoff; ++i)
        detail::appendToSide(i < leftCount ? left : right, records[i]);
    records.release();
    return SplitStatus::Ok;
}

}  // namespace pgRangeArray
}  // namespace zm
