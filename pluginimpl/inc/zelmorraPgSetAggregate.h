// Transition states of the int4 set aggregates, without PostgreSQL dependency.
//
// Int4ToSetOpDataOptimizedBase (zm_int4set_agg_optimized) is a bitfield over 0..M sized once on the
// first row; see its comment below.
//
// Int4ToSetOpDataSetBase (zm_int4set_agg) keeps the set as a sorted list of disjoint closed
// ranges. Its contract is that every row's range goes through rangeArrayInsert, in row order. Done
// literally that is quadratic on unsorted input (each insert shifts half the list), so ordinary
// ranges are buffered and merged in batches instead. This is exact, not an approximation:
//
//   As long as the list is canonical (sorted, no two ranges touching, lower <= upper, no upper bound
//   at INT32_MAX) and the range r is ordinary (lower <= upper < INT32_MAX), rangeArrayInsert's two
//   binary searches see monotone predicates without wrap-around and its result is the canonical
//   form of list + r. The canonical form of a set is unique, so any sequence of such inserts ends
//   in the canonical form of the union, whatever the order; a sort and a merge produce the same.
//
// A range ending at INT32_MAX (r.upper + 1 wraps, so rangeArrayInsert puts it at the front without
// merging) or given reversed breaks the list's order, after which the binary searches' results
// depend on their exact probe sequence. The first such range therefore flushes the buffer and
// switches the state to literal per-row rangeArrayInsert for the rest of its life.
//
// State operations that can fail return a status instead of reporting, so that the server glue
// restores the caller's memory context before it raises the ERROR. Only allocation failures and
// the bitfield's own errors (through its error policy) are raised where they happen.
//
// Template parameters:
//   Allocator: see zelmorraPgVector.h (the bitfield's allocator: see zelmorraPgBitField.h).
//   BitFieldErrors: the bitfield's error policy (zelmorraPgBitField.h).
//   Interrupts: the interrupt policy (zelmorraPgInterrupts.h), checked between batches and every
//              interruptCheckInterval steps of long loops, so that a cancel request is honoured.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "zelmorraPgBitField.h"
#include "zelmorraPgRadixSort.h"
#include "zelmorraPgRangeArray.h"
#include "zelmorraPgVector.h"

namespace zm {


enum class SetAggStatus : uint8_t
{
    Ok,
    NotRangeArray,          // a range-array row with an odd element count
    NotImplemented,         // an input type outside 1..5
    CombineMismatch,        // addOtherCtx: states built for different input or output types
    EmptyBytea,             // fromBytea: shorter than the two type bytes
    EmptyRangeArray,        // fromBytea: an initialised state without ranges
    InvalidRangeArraySize,  // fromBytea: not a whole number of ranges
    DanglingOpener,         // a mix-array row whose last element opens a range (mix::walkItems)
};

namespace setAggDetail {

using IntRange = pgRangeArray::Range<int>;

// The aggregates' touch rule: r joins `last` when it starts at most one value after last ends,
// counted without wrap-around. Row insertion orders bounds by signed comparison, so this is the
// rule under which merging two lists gives what inserting the rows of both would have given.
// (The SQL-level union, computeUnion, orders and joins with 32-bit wrap-around instead.)
inline bool joinsLast(const IntRange& last, const IntRange& r) { return int64_t{r.lower} <= int64_t{last.upper} + 1; }

inline void joinInto(IntRange& last, const IntRange& r)
{
    if (r.upper > last.upper)
        last.upper = r.upper;
}

// Joins touching or overlapping ranges of a sequence sorted by lower bound, writing to out (which
// may be in); returns the count written.
inline size_t coalesceSorted(const IntRange* in, size_t n, IntRange* out)
{
    if (n == 0)
        return 0;
    size_t w = 0;
    out[0] = in[0];
    for (size_t i = 1; i < n; ++i)
    {
        const IntRange r = in[i];
        if (joinsLast(out[w], r))
            joinInto(out[w], r);
        else
            out[++w] = r;
    }
    return w + 1;
}

// Union of two range lists sorted by lower bound, as the set aggregates merge their states:
// signed order of lower bounds (equal bounds take a first) and joinsLast. On canonical lists this
// is the canonical form of the union, the list that inserting the rows behind both lists would
// have produced, whatever the order. The output holds room for every input range. As in
// pushOrMerge, a list met alone (the other empty or exhausted) is copied as a block after its
// leading ranges that join the output. The choice between the inputs is made without a branch,
// which on interleaved input halves the time of the walk. Interrupts are checked every 2^20 steps.
template <typename Interrupts = NoInterrupts, typename A>
void unionWithRoom(const IntRange* a, const IntRange* aEnd, const IntRange* b, const IntRange* bEnd,
                   tVectorBase<IntRange, A>& out)
{
    IntRange* o = out.data;
    size_t w = 0;
    size_t steps = 0;
    while (a != aEnd && b != bEnd)
    {
        if (++steps == interruptCheckInterval)
        {
            steps = 0;
            Interrupts::check();
        }
        const bool takeB = b->lower < a->lower;
        const IntRange r = takeB ? *b : *a;
        b += takeB;
        a += !takeB;
        if (w != 0 && joinsLast(o[w - 1], r))
            joinInto(o[w - 1], r);
        else
            o[w++] = r;
    }
    const IntRange* rest = a != aEnd ? a : b;
    const IntRange* restEnd = a != aEnd ? aEnd : bEnd;
    for (; w != 0 && rest != restEnd && joinsLast(o[w - 1], *rest); ++rest)
        joinInto(o[w - 1], *rest);
    const size_t restCount = static_cast<size_t>(restEnd - rest);
    if (restCount != 0)
        zm::copyInterruptibly<Interrupts>(o + w, rest, restCount * sizeof(IntRange));
    out.size = w + restCount;
}

inline bool isOrdinary(int32_t lower, int32_t upper) { return lower <= upper && upper != INT32_MAX; }

// Eight bytes as one word whose most significant bit is bit 0x80 of the first byte.
inline uint64_t loadBigEndian64(const uint8_t* from)
{
    uint64_t w;
    std::memcpy(&w, from, sizeof w);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    return w;
#else
    return __builtin_bswap64(w);
#endif
}

inline void storeInt32(uint8_t* to, int32_t v) { std::memcpy(to, &v, sizeof v); }
inline int32_t loadInt32(const uint8_t* from)
{
    int32_t v;
    std::memcpy(&v, from, sizeof v);
    return v;
}

}  // namespace setAggDetail

// State of zm_int4set_agg. The first four fields are the state as the aggregate defines it; the
// rest is the batching machinery described at the top of this file.
template <typename Allocator, typename Interrupts>
struct Int4ToSetOpDataSetBase
{
    using IntRange = pgRangeArray::Range<int>;
    using Ranges = tVectorBase<IntRange, Allocator>;

    static constexpr size_t initialCapacity = 1024;
    static constexpr size_t defaultMinBatch = 65536;

    void* memoryContext;
    int32_t inputType;
    int32_t outputType;
    Ranges ranges;

    // Ordinary ranges not merged into `ranges` yet (unsorted), allocated on first need.
    Ranges pending;
    // Smallest batch merged at once; batches also grow with the list (half of it), which keeps
    // the merging cost per row constant.
    size_t minBatch;
    // The list left its canonical form (or its provenance is unknown): literal rangeArrayInsert.
    bool insertEachRow;
    // Ranges that literal inserts may have moved since the last interrupt check: each insert can
    // shift the whole list, so a set row of many values checks by this rather than by its count.
    size_t literalInsertWork;

    // A fresh state with room for 1024 ranges. `rowsFollow` is false for states made by combine and
    // deserial, whose ranges are trusted as stored and which never receive rows.
    void init(void* context, bool rowsFollow = true)
    {
        memoryContext = context;
        inputType = pgRangeArray::ArrayDataTypeUninitialised;
        outputType = pgRangeArray::ArrayDataTypeUninitialised;
        ranges.init(initialCapacity);
        pending.capacity = 0;
        pending.size = 0;
        pending.data = nullptr;
        minBatch = defaultMinBatch;
        insertEachRow = !rowsFollow;
        literalInsertWork = 0;
    }

    void release()
    {
        ranges.release();
        pending.release();
    }

    // Before the state is serialised or finalised: merges the buffer and gives its block back.
    void compact()
    {
        flush();
        pending.release();
    }

    // ---- rows ----

    void addValue(int32_t v) { addRange(v, v); }

    // One range as rangeArrayInsert would insert it (bounds taken as given, reversed or not).
    void addRange(int32_t lower, int32_t upper)
    {
        if (!insertEachRow)
        {
            if (setAggDetail::isOrdinary(lower, upper))
            {
                addOrdinary(IntRange{lower, upper});
                return;
            }
            flush();
            insertEachRow = true;
            pending.release();
        }
        literalInsertWork += ranges.size;
        if (literalInsertWork >= interruptCheckInterval)
        {
            literalInsertWork = 0;
            Interrupts::check();
        }
        pgRangeArray::rangeArrayInsert(ranges, IntRange{lower, upper});
    }

    // Elements of a scalar array, each the range [e, e], in array order.
    void addScalarArray(const int32_t* data, size_t count)
    {
        InterruptCountdown<Interrupts> items;
        for (size_t i = 0; i < count; ++i)
        {
            items.step();
            addRange(data[i], data[i]);
        }
    }

    // Lower/upper pairs of a range array, in array order; an odd element count is refused.
    SetAggStatus addRangeArray(const int32_t* data, size_t count)
    {
        if (count % 2 != 0)
            return SetAggStatus::NotRangeArray;
        InterruptCountdown<Interrupts> items;
        for (size_t i = 0; i < count; i += 2)
        {
            items.step();
            addRange(data[i], data[i + 1]);
        }
        return SetAggStatus::Ok;
    }

    // Items of a mix array after its count element (mix::walkItems), each inserted as given.
    SetAggStatus addMixArray(const int32_t* data, size_t count)
    {
        if (count < 2)
            return SetAggStatus::Ok;
        InterruptCountdown<Interrupts> items;
        const mix::Walk walk = mix::walkItems(data + 1, count - 1, [this, &items](int32_t lower, int32_t upper) {
            items.step();
            addRange(lower, upper);
            return true;
        });
        return walk == mix::Walk::DanglingOpener ? SetAggStatus::DanglingOpener : SetAggStatus::Ok;
    }

    // ---- batches ----

    // Merges the buffered ranges into the list; afterwards `ranges` is exactly what per-row
    // insertion would have produced. Called before every combine, serial and final step.
    void flush()
    {
        using namespace setAggDetail;
        const size_t p = pending.size;
        if (p == 0)
            return;
        Interrupts::check();
        const size_t s = ranges.size;
        // The list's spare room doubles as the sort's scratch space and then takes the merge. It
        // grows by half the need rather than doubling: the list is the bulk of the state.
        if (ranges.capacity < s + p)
            regrow(ranges, s + p + (s + p) / 2);
        radixSortBySignedKey<Interrupts>(pending.data, pending.data, ranges.data + s, p, [](const IntRange& r) { return r.lower; });
        const size_t b = coalesceSorted(pending.data, p, pending.data);
        pending.size = 0;

        // Merge from the back: the list's ranges above the batch move up, the others stay put.
        IntRange* out = ranges.data;
        const IntRange* batch = pending.data;
        size_t i = s;
        size_t j = b;
        size_t k = s + b;
        // k == i + j throughout, so the write never reaches a list range not yet moved. The choice
        // is made without a branch: on unsorted input it is a coin toss.
        while (i > 0 && j > 0)
        {
            uint64_t fromList;
            uint64_t fromBatch;
            std::memcpy(&fromList, &out[i - 1], sizeof fromList);
            std::memcpy(&fromBatch, &batch[j - 1], sizeof fromBatch);
            const bool takeList = out[i - 1].lower > batch[j - 1].lower;
            const uint64_t taken = takeList ? fromList : fromBatch;
            std::memcpy(&out[--k], &taken, sizeof taken);
            i -= takeList;
            j -= !takeList;
            if ((k & (interruptCheckInterval - 1)) == 0)
                Interrupts::check();
        }
        while (j > 0)
            out[--k] = batch[--j];
        // out[0, i) is untouched and canonical; join touching ranges from the first moved one on.
        const size_t from = i > 0 ? i - 1 : 0;
        ranges.size = from + coalesceSorted(out + from, s + b - from, out + from);
        Interrupts::check();
    }

    // ---- combine ----

    // Merges other (flushed) into this (flushed) state; other is not changed.
    SetAggStatus addOtherCtx(const Int4ToSetOpDataSetBase& other)
    {
        if (inputType == pgRangeArray::ArrayDataTypeUninitialised)
        {
            inputType = other.inputType;
            outputType = other.outputType;
            ranges.clear();
            if (ranges.capacity < other.ranges.size)
            {
                ranges.release();
                ranges.init(other.ranges.size);
            }
            ranges.append(other.ranges.begin(), other.ranges.end());
            return SetAggStatus::Ok;
        }
        if (inputType != other.inputType || outputType != other.outputType)
            return SetAggStatus::CombineMismatch;
        Ranges merged;
        merged.init(std::max<size_t>(ranges.size + other.ranges.size, 1));
        setAggDetail::unionWithRoom<Interrupts>(ranges.begin(), ranges.end(), other.ranges.begin(), other.ranges.end(), merged);
        ranges.release();
        ranges = merged;
        return SetAggStatus::Ok;
    }

    // On a fresh state: the result of addOtherCtx(*a) then addOtherCtx(*b) (a null pointer stands
    // for an argument that is not there), without first copying a when both are there.
    SetAggStatus addOtherCtxPair(const Int4ToSetOpDataSetBase* a, const Int4ToSetOpDataSetBase* b)
    {
        if (a != nullptr && b != nullptr && a->inputType != pgRangeArray::ArrayDataTypeUninitialised &&
            inputType == pgRangeArray::ArrayDataTypeUninitialised)
        {
            if (a->inputType != b->inputType || a->outputType != b->outputType)
                return SetAggStatus::CombineMismatch;
            inputType = a->inputType;
            outputType = a->outputType;
            const size_t need = std::max<size_t>(a->ranges.size + b->ranges.size, 1);
            if (ranges.capacity < need)
            {
                ranges.release();
                ranges.init(need);
            }
            setAggDetail::unionWithRoom<Interrupts>(a->ranges.begin(), a->ranges.end(), b->ranges.begin(), b->ranges.end(),
                                               ranges);
            return SetAggStatus::Ok;
        }
        SetAggStatus status = SetAggStatus::Ok;
        if (a != nullptr)
            status = addOtherCtx(*a);
        if (status == SetAggStatus::Ok && b != nullptr)
            status = addOtherCtx(*b);
        return status;
    }

    // ---- serialised form: input type byte, output type byte, then the ranges ----

    static constexpr size_t headerBytes = 2;

    size_t serialisedSize() const { return headerBytes + ranges.size * sizeof(IntRange); }

    // Writes serialisedSize() bytes (a flushed state).
    void toBytes(uint8_t* out) const
    {
        out[0] = static_cast<uint8_t>(inputType);
        out[1] = static_cast<uint8_t>(outputType);
        zm::copyInterruptibly<Interrupts>(out + headerBytes, ranges.data, ranges.size * sizeof(IntRange));
    }

    // Rebuilds a fresh state from `length` serialised bytes. The ranges are trusted as stored.
    SetAggStatus fromBytes(const uint8_t* in, size_t length)
    {
        if (length < headerBytes)
            return SetAggStatus::EmptyBytea;
        inputType = in[0];
        outputType = in[1];
        const size_t d = length - headerBytes;
        if (d == 0)
            return inputType == pgRangeArray::ArrayDataTypeUninitialised ? SetAggStatus::Ok : SetAggStatus::EmptyRangeArray;
        if (d % sizeof(IntRange) != 0)
            return SetAggStatus::InvalidRangeArraySize;
        const size_t n = d / sizeof(IntRange);
        if (n > ranges.capacity)
        {
            ranges.release();
            ranges.init(n);
        }
        zm::copyInterruptibly<Interrupts>(ranges.data, in + headerBytes, d);
        ranges.size = n;
        return SetAggStatus::Ok;
    }

    // ---- final forms (a flushed state) ----

    // Values of the scalar output: ranges with lower <= upper expanded.
    uint64_t scalarCount() const
    {
        uint64_t n = 0;
        for (const IntRange& r : ranges)
            if (r.lower <= r.upper)
                n += static_cast<uint64_t>(static_cast<int64_t>(r.upper) - r.lower + 1);
        return n;
    }

    // Writes scalarCount() values, ascending within each range; interrupts are checked after
    // every 2^20 values, also within one wide range.
    void writeScalar(int32_t* out) const
    {
        constexpr uint64_t interval = interruptCheckInterval;
        uint64_t sinceCheck = 0;
        for (const IntRange& r : ranges)
        {
            if (r.lower > r.upper)
                continue;
            uint32_t v = static_cast<uint32_t>(r.lower);
            uint64_t remaining = static_cast<uint64_t>(static_cast<int64_t>(r.upper) - r.lower) + 1;
            while (remaining)
            {
                const uint64_t chunk = std::min(remaining, interval - sinceCheck);
                for (uint64_t i = 0; i < chunk; ++i)
                    out[i] = static_cast<int32_t>(v + static_cast<uint32_t>(i));
                out += chunk;
                v += static_cast<uint32_t>(chunk);
                remaining -= chunk;
                sinceCheck += chunk;
                if (sinceCheck == interval)
                {
                    sinceCheck = 0;
                    Interrupts::check();
                }
            }
        }
    }

    // Elements of the mix output: the count element and one or two per range; none when empty.
    uint64_t mixElementCount() const
    {
        if (ranges.size == 0)
            return 0;
        uint64_t n = 1;
        for (const IntRange& r : ranges)
            n += r.lower == r.upper ? 1 : 2;
        return n;
    }

    // Writes mixElementCount() elements: the value count (a wrapping int32 sum), then the items.
    void writeMix(int32_t* out) const
    {
        if (ranges.size == 0)
            return;
        int32_t* count = out++;
        uint32_t values = 0;
        for (const IntRange& r : ranges)
        {
            values += static_cast<uint32_t>(r.upper) - static_cast<uint32_t>(r.lower) + 1u;
            if (r.lower == r.upper)
                *out++ = r.lower;
            else
            {
                *out++ = mix::rangeOpener(r.lower);
                *out++ = r.upper;
            }
        }
        *count = static_cast<int32_t>(values);
    }

private:
    size_t batchLimit() const { return std::max(minBatch, ranges.size / 2); }

    void addOrdinary(const IntRange& r)
    {
        // At or after the list's last range (sorted input): join or append directly.
        if (ranges.size != 0)
        {
            IntRange& last = ranges.back();
            if (r.lower >= last.lower)
            {
                if (r.lower > last.upper + 1)
                    ranges.push_back(r);
                else if (r.upper > last.upper)
                    last.upper = r.upper;
                return;
            }
        }
        else
        {
            ranges.push_back(r);
            return;
        }
        // Before it: buffer, joining the previous buffered range when they touch (runs in
        // descending order stay one range).
        if (pending.size != 0)
        {
            IntRange& prev = pending.back();
            if (r.lower <= prev.upper + 1 && prev.lower <= r.upper + 1)
            {
                prev.lower = std::min(prev.lower, r.lower);
                prev.upper = std::max(prev.upper, r.upper);
                return;
            }
        }
        const size_t limit = batchLimit();
        if (pending.size == pending.capacity)
        {
            if (pending.capacity == 0)
                pending.init(256);
            else if (pending.capacity < limit)
                regrow(pending, std::min(2 * pending.capacity, limit));
            else
                flush();  // not reached: a full batch is merged as soon as it is complete
        }
        pending.data[pending.size++] = r;
        if (pending.size >= limit)
            flush();
    }

    // Replaces v's block by one of exactly `capacity` elements (at least its size).
    static void regrow(Ranges& v, size_t capacity)
    {
        IntRange* grown = static_cast<IntRange*>(Allocator::allocate(capacity * sizeof(IntRange)));
        if (v.size)
            std::memcpy(grown, v.data, v.size * sizeof(IntRange));
        if (v.data)
            Allocator::deallocate(v.data);
        v.data = grown;
        v.capacity = capacity;
    }
};

// ---- zm_int4set_agg_optimized ----------------------------------------------------------------

enum class OptimizedAggStatus : uint8_t
{
    Ok,
    InvalidMaxInput,   // first row: maxinput <= 0 (or argument 2 NULL, checked by the caller)
    ValueOutOfRange,   // a single value outside the bitfield
    RangeOutOfRange,   // a lower/upper pair reaching outside the bitfield
    ScalarOutOfRange,  // some values of a set row outside the bitfield (the others are set)
    NotRangeArray,     // a range-array row with an odd element count
    NotImplemented,    // an input type outside 1..5
    DanglingOpener,    // a mix-array row whose last element opens a range (mix::walkItems)
    CombineMismatch,   // states built for different input or output types
    EmptyBytea,        // fromBytea: shorter than its 6-byte header
    Corrupted,         // fromBytea: more bytes than the stored capacity
};

// State of zm_int4set_agg_optimized: one bit per value 0..M (bit order of zelmorraPgBitField.h),
// sized once from M on the first row. A value v is accepted when its byte is in use
// ((uint32) v >> 3 < size), so up to 7 values above M are accepted and negative ones are not.
template <typename Allocator, typename BitFieldErrors, typename Interrupts>
struct Int4ToSetOpDataOptimizedBase
{
    using Bits = BitFieldBase<Allocator, BitFieldErrors>;

    void* memoryContext;
    int32_t inputType;
    int32_t outputType;
    Bits bits;  // with its fill byte, 0

    // The fields above are the state as the aggregate defines it. Single values and pairs of rows
    // are checked at once but, on a bitfield too large for the caches, their bits are set in
    // batches: a row's bit write is then a cache miss, and misses overlap only within a tight loop.
    // Set before every combine, serial and final step (flush).
    static constexpr uint32_t batchSize = 1024;
    static constexpr uint32_t batchFromBytes = 256 * 1024;
    // Only ranges within this many bytes are buffered; a wider one gains nothing from batching and
    // is written at once (a thousand buffered ranges of 256 MB each would make one step of minutes).
    static constexpr uint32_t batchMaxSpanBytes = 64;
    // Long writes, copies and scans check for interrupts after each megabyte.
    pgRangeArray::Range<int>* pending;  // null: bits are set row by row
    uint32_t pendingCount;

    void init(void* context)
    {
        memoryContext = context;
        inputType = pgRangeArray::ArrayDataTypeUninitialised;
        outputType = pgRangeArray::ArrayDataTypeUninitialised;
        bits.init(0);
        pending = nullptr;
        pendingCount = 0;
    }

    void release()
    {
        bits.release();
        if (pending)
            Allocator::deallocate(pending);
        pending = nullptr;
        pendingCount = 0;
    }

    void flush()
    {
        const pgRangeArray::Range<int>* p = pending;
        const uint32_t n = pendingCount;
        uint8_t* data = bits.data;
        constexpr uint32_t ahead = 16;
        for (uint32_t i = 0; i < n; ++i)
        {
            if (i + ahead < n)
                __builtin_prefetch(data + (static_cast<uint32_t>(p[i + ahead].lower) >> 3), 1);
            const uint32_t lo = static_cast<uint32_t>(p[i].lower);
            const uint32_t hi = static_cast<uint32_t>(p[i].upper);
            if (lo == hi)
                setBit(data, lo);
            else
                writeRange(data, lo, hi);
        }
        pendingCount = 0;
    }

    // Sizing on the first row: whole 64-bit words for 0..M reserved, the bytes holding 0..M in use.
    // The caller has checked M > 0.
    void sizeFor(int32_t maxInput)
    {
        const uint32_t values = static_cast<uint32_t>(maxInput) + 1u;
        const uint32_t capacity = (values >> 6) * 8u + ((values & 63u) != 0 ? 8u : 0u);
        bits.fill = 0;
        bits.reserve(capacity);
        // Up to 256 MB to clear: a megabyte at a time, so that a cancel request gets through.
        const uint32_t lastByte = static_cast<uint32_t>(maxInput) >> 3;
        while (bits.size + interruptCheckInterval < lastByte + 1)
        {
            bits.resize(bits.size + interruptCheckInterval);
            Interrupts::check();
        }
        if (!(lastByte < bits.size))
            bits.resize(lastByte + 1);
        if (bits.size >= batchFromBytes)
        {
            pending = static_cast<pgRangeArray::Range<int>*>(
                Allocator::allocate(batchSize * sizeof(pgRangeArray::Range<int>)));
            if (pending == nullptr)
            {
                Allocator::diagnostic("Out of memory");
                BitFieldErrors::report(BitFieldError::OutOfMemory);
            }
        }
    }

    // The largest accepted value, as the error messages show it.
    int32_t maxAccepted() const { return static_cast<int32_t>(bits.size * 8u - 1u); }

    bool holds(int32_t v) const { return (static_cast<uint32_t>(v) >> 3) < bits.size; }

    // ---- rows ----

    OptimizedAggStatus addValue(int32_t v)
    {
        if (!holds(v))
            return OptimizedAggStatus::ValueOutOfRange;
        if (pending)
            buffer(v, v);
        else
            bits.set(static_cast<uint32_t>(v));
        return OptimizedAggStatus::Ok;
    }

    // lower > upper adds nothing; otherwise every value must be held.
    OptimizedAggStatus addRange(int32_t lower, int32_t upper)
    {
        if (lower > upper)
            return OptimizedAggStatus::Ok;
        if (!holds(lower) || !holds(upper))
            return OptimizedAggStatus::RangeOutOfRange;
        const uint32_t lo = static_cast<uint32_t>(lower);
        const uint32_t hi = static_cast<uint32_t>(upper);
        if (pending && (hi >> 3) - (lo >> 3) < batchMaxSpanBytes)
            buffer(lower, upper);
        else
            setRangeInterruptibly(lo, hi);
        return OptimizedAggStatus::Ok;
    }

    OptimizedAggStatus addScalarArray(const int32_t* data, size_t count)
    {
        bool outside = false;
        InterruptCountdown<Interrupts> items;
        for (size_t i = 0; i < count; ++i)
        {
            items.step();
            const int32_t v = data[i];
            if (holds(v))
                bits.set(static_cast<uint32_t>(v));
            else
                outside = true;
        }
        return outside ? OptimizedAggStatus::ScalarOutOfRange : OptimizedAggStatus::Ok;
    }

    OptimizedAggStatus addRangeArray(const int32_t* data, size_t count)
    {
        if (count % 2 != 0)
            return OptimizedAggStatus::NotRangeArray;
        bool outside = false;
        InterruptCountdown<Interrupts> items;
        for (size_t i = 0; i < count; i += 2)
        {
            items.step();
            clippedRange(data[i], data[i + 1], outside);
        }
        return outside ? OptimizedAggStatus::ScalarOutOfRange : OptimizedAggStatus::Ok;
    }

    // Items after the count element (mix::walkItems).
    OptimizedAggStatus addMixArray(const int32_t* data, size_t count)
    {
        if (count < 2)
            return OptimizedAggStatus::Ok;
        bool outside = false;
        InterruptCountdown<Interrupts> items;
        const mix::Walk walk = mix::walkItems(data + 1, count - 1, [this, &items, &outside](int32_t lower, int32_t upper) {
            items.step();
            if (lower != upper)
                clippedRange(lower, upper, outside);
            else if (holds(lower))
                bits.set(static_cast<uint32_t>(lower));
            else
                outside = true;
            return true;
        });
        if (walk == mix::Walk::DanglingOpener)
            return OptimizedAggStatus::DanglingOpener;
        return outside ? OptimizedAggStatus::ScalarOutOfRange : OptimizedAggStatus::Ok;
    }

    // ---- combine ----

    // Takes other's types, fill byte, capacity and bytes in use (this state is fresh).
    void copyFrom(const Int4ToSetOpDataOptimizedBase& other)
    {
        inputType = other.inputType;
        outputType = other.outputType;
        bits.fill = other.bits.fill;
        bits.size = 0;
        bits.reserve(other.bits.capacity);
        zm::copyInterruptibly<Interrupts>(bits.data, other.bits.data, other.bits.size);
        bits.size = other.bits.size;
    }

    // ORs other's bits into this state (initialised), growing it to other's size.
    OptimizedAggStatus addOtherCtx(const Int4ToSetOpDataOptimizedBase& other)
    {
        if (inputType != other.inputType || outputType != other.outputType)
            return OptimizedAggStatus::CombineMismatch;
        const uint32_t n = other.bits.size;
        if (n > bits.size)
            bits.resize(n);
        uint8_t* to = bits.data;
        const uint8_t* from = other.bits.data;
        uint32_t i = 0;
        for (; i + 8 <= n; i += 8)
        {
            if ((i & (interruptCheckInterval - 1)) == 0 && i != 0)
                Interrupts::check();
            uint64_t a;
            uint64_t b;
            std::memcpy(&a, to + i, 8);
            std::memcpy(&b, from + i, 8);
            a |= b;
            std::memcpy(to + i, &a, 8);
        }
        for (; i < n; ++i)
            to[i] |= from[i];
        return OptimizedAggStatus::Ok;
    }

    // ---- serialised form: input type byte, output type byte, int32 capacity, bytes in use ----

    static constexpr size_t headerBytes = 6;

    size_t serialisedSize() const
    {
        return headerBytes + (inputType == pgRangeArray::ArrayDataTypeUninitialised ? 0 : bits.size);
    }

    void toBytes(uint8_t* out) const
    {
        const bool initialised = inputType != pgRangeArray::ArrayDataTypeUninitialised;
        out[0] = static_cast<uint8_t>(inputType);
        out[1] = static_cast<uint8_t>(outputType);
        setAggDetail::storeInt32(out + 2, initialised ? static_cast<int32_t>(bits.capacity) : 0);
        if (initialised)
            zm::copyInterruptibly<Interrupts>(out + headerBytes, bits.data, bits.size);
    }

    // Rebuilds a fresh state from `length` serialised bytes. A capacity that is not a multiple of 8
    // is refused by the bitfield's reserve.
    OptimizedAggStatus fromBytes(const uint8_t* in, size_t length)
    {
        if (length < headerBytes)
            return OptimizedAggStatus::EmptyBytea;
        const size_t d = length - headerBytes;
        inputType = in[0];
        outputType = in[1];
        const int32_t capacity = setAggDetail::loadInt32(in + 2);
        if (capacity < 0 || d > static_cast<size_t>(capacity))
            return OptimizedAggStatus::Corrupted;
        if (d == 0 && capacity == 0)
            return OptimizedAggStatus::Ok;
        bits.reserve(static_cast<uint32_t>(capacity));
        zm::copyInterruptibly<Interrupts>(bits.data, in + headerBytes, d);
        bits.size = static_cast<uint32_t>(d);
        return OptimizedAggStatus::Ok;
    }

    // ---- final forms: values ascending from 0 ----

    uint64_t bitCount() const
    {
        uint64_t n = 0;
        forEachWord([&n](uint64_t, uint64_t w) {
            n += static_cast<uint64_t>(__builtin_popcountll(w));
            return true;
        });
        return n;
    }

    uint64_t runCount() const
    {
        uint64_t n = 0;
        uint64_t previousLowBit = 0;  // the value just before this word is set
        forEachWord([&](uint64_t, uint64_t w) {
            const uint64_t starts = w & ~((w >> 1) | (previousLowBit << 63));
            n += static_cast<uint64_t>(__builtin_popcountll(starts));
            previousLowBit = w & 1u;
            return true;
        });
        return n;
    }

    void writeScalar(int32_t* out) const
    {
        forEachWord([&out](uint64_t base, uint64_t w) {
            while (w != 0)
            {
                const int top = __builtin_clzll(w);
                *out++ = static_cast<int32_t>(static_cast<uint32_t>(base + static_cast<uint64_t>(top)));
                w &= ~(uint64_t{1} << (63 - top));
            }
            return true;
        });
    }

    // Maximal runs of set bits, ascending: f(first, last) with offsets.
    template <typename F>
    void forEachRun(F&& f) const
    {
        bool inRun = false;
        uint64_t runStart = 0;
        forEachWord([&](uint64_t base, uint64_t w) {
            if (inRun ? w == ~uint64_t{0} : w == 0)
                return true;
            int pos = 0;  // bit position from the top of the word
            while (pos < 64)
            {
                if (!inRun)
                {
                    const uint64_t rest = w << pos;
                    if (rest == 0)
                        break;
                    pos += __builtin_clzll(rest);
                    runStart = base + static_cast<uint64_t>(pos);
                    inRun = true;
                }
                else
                {
                    const uint64_t rest = ~w << pos;
                    if (rest == 0)
                        break;
                    pos += __builtin_clzll(rest);
                    f(runStart, base + static_cast<uint64_t>(pos) - 1);
                    inRun = false;
                }
            }
            return true;
        });
        if (inRun)
            f(runStart, static_cast<uint64_t>(bits.size) * 8u - 1u);
    }

    void writeRanges(int32_t* out) const
    {
        forEachRun([&out](uint64_t a, uint64_t b) {
            *out++ = static_cast<int32_t>(static_cast<uint32_t>(a));
            *out++ = static_cast<int32_t>(static_cast<uint32_t>(b));
        });
    }

    // Mix array: the count of set bits, then a run of one value as itself, a longer run as
    // (first | bit 31), last. Writes nothing when no bit is set.
    uint64_t mixElementCount() const
    {
        uint64_t n = 0;
        forEachRun([&n](uint64_t a, uint64_t b) { n += a == b ? 1 : 2; });
        return n == 0 ? 0 : n + 1;
    }

    void writeMix(int32_t* out) const
    {
        int32_t* count = out++;
        uint64_t values = 0;
        forEachRun([&](uint64_t a, uint64_t b) {
            values += b - a + 1;
            if (a == b)
                *out++ = static_cast<int32_t>(static_cast<uint32_t>(a));
            else
            {
                *out++ = mix::rangeOpener(a);
                *out++ = static_cast<int32_t>(static_cast<uint32_t>(b));
            }
        });
        if (values != 0)
            *count = static_cast<int32_t>(static_cast<uint32_t>(values));
    }

private:
    void buffer(int32_t lower, int32_t upper)
    {
        pending[pendingCount++] = pgRangeArray::Range<int>{lower, upper};
        if (pendingCount == batchSize)
            flush();
    }

    // Sets the held part of [lower, upper]; notes whether some of it lies outside.
    void clippedRange(int32_t lower, int32_t upper, bool& outside)
    {
        if (lower > upper)
            return;
        const int32_t top = maxAccepted();
        if (lower < 0 || upper > top)
            outside = true;
        const int32_t a = lower < 0 ? 0 : lower;
        const int32_t b = upper > top ? top : upper;
        if (a <= b)
            setRangeInterruptibly(static_cast<uint32_t>(a), static_cast<uint32_t>(b));
    }

    // Offsets lo..hi (lo <= hi, held), a megabyte at a time.
    void setRangeInterruptibly(uint32_t lo, uint32_t hi)
    {
        constexpr uint32_t sliceBits = interruptCheckInterval * 8u;
        while (hi - lo >= sliceBits)
        {
            bits.setRange(lo, lo + sliceBits - 1);
            lo += sliceBits;
            Interrupts::check();
        }
        bits.setRange(lo, hi);
    }

    // Calls f(first offset, word) for the bytes in use as 64-bit words, the first value in the most
    // significant bit; the bytes past `size` in the last word read as 0.
    template <typename F>
    void forEachWord(F&& f) const
    {
        const uint8_t* data = bits.data;
        const size_t size = bits.size;
        size_t i = 0;
        for (; i + 8 <= size; i += 8)
        {
            if ((i & (interruptCheckInterval - 1)) == 0 && i != 0)
                Interrupts::check();
            f(static_cast<uint64_t>(i) * 8u, setAggDetail::loadBigEndian64(data + i));
        }
        if (i < size)
        {
            uint8_t tail[8] = {0, 0, 0, 0, 0, 0, 0, 0};
            std::memcpy(tail, data + i, size - i);
            f(static_cast<uint64_t>(i) * 8u, setAggDetail::loadBigEndian64(tail));
        }
    }
};

}  // namespace zm
