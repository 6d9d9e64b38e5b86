// Conversions between the scalar, range and mix forms of an int4 set, the int4 sort, and the
// walk over mix-array items shared with the bytea decoder.
//
// The conversions rewrite their input literally: they check what each one needs (sortedness, even
// length, well-formed range items) and never sort, merge or deduplicate beyond the run rule of the
// scalar conversions. Failures come back as a Status; the caller reports them (and releases its
// buffers first), so nothing here longjmps with a half-written output.
//
// No PostgreSQL dependency: templates over the allocator of the output vectors and over an
// Interrupts policy (`static void check()`) that long loops call now and then, so unit tests and
// fuzz targets instantiate them with plain malloc and a no-op.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "zelmorraPgRadixSort.h"
#include "zelmorraPgRangeArray.h"
#include "zelmorraPgVector.h"

namespace zm {
namespace setConversion {

using pgRangeArray::Range;

enum class Status
{
    Ok,
    ScalarToRangeNotSorted,
    ScalarToMixNotSorted,
    OddRangeCount,
    OutputTooSmall,
    InvalidRangeDefinition,
    ConversionError,
    ArrayOverflow,     // result length beyond int32
    MixArrayOverflow,  // the same in scalar-to-mix, whose message has no trailing blank
    FloatPayloadLength,  // bytea decoders: a payload that is not a whole number of 4-byte elements
    MixPayloadLength,
};

// Initial capacity of the working vectors; they double from there.
constexpr size_t initialCapacity = 1024;

constexpr size_t maxResultLength = 0x7fffffff;

// Number of values in [lower, upper]; 0 when lower > upper.
inline uint64_t valueCount(int32_t lower, int32_t upper)
{
    return lower <= upper ? static_cast<uint64_t>(static_cast<int64_t>(upper) - lower) + 1 : 0;
}

// Writes lower, lower + 1, ..., upper (lower <= upper) and returns the position after the last
// one. Counting happens in uint32 and stops after writing upper, so a run ending at 2147483647
// does not overflow.
template <typename Interrupts>
int32_t* writeValues(int32_t* out, int32_t lower, int32_t upper)
{
    uint32_t value = static_cast<uint32_t>(lower);
    uint64_t remaining = valueCount(lower, upper);
    while (remaining)
    {
        const size_t chunk = static_cast<size_t>(std::min<uint64_t>(remaining, interruptCheckInterval));
        for (size_t i = 0; i < chunk; ++i)
            out[i] = static_cast<int32_t>(value + static_cast<uint32_t>(i));
        out += chunk;
        value += static_cast<uint32_t>(chunk);
        remaining -= chunk;
        if (remaining)
            Interrupts::check();
    }
    return out;
}

// Walks mix-array items (element 0, the count, already skipped) with mix::walkItems, which the
// conversions hold to their stricter rule: a range's upper end must be non-negative and not lie
// below its lower end, and a dangling opener is no item; any of these is InvalidRangeDefinition.
// `visit(lower, upper)` sees every item in order until the first bad one.
template <typename Visit>
Status walkMixItems(const int32_t* item, const int32_t* end, Visit&& visit)
{
    bool invalid = false;
    const mix::Walk walk = mix::walkItems(item, static_cast<size_t>(end - item), [&visit, &invalid](int32_t lower, int32_t upper) {
        if (lower != upper && (upper < 0 || upper < lower))
        {
            invalid = true;
            return false;
        }
        visit(lower, upper);
        return true;
    });
    return invalid || walk == mix::Walk::DanglingOpener ? Status::InvalidRangeDefinition : Status::Ok;
}

// Scalar array -> range array. Values must not decrease; a value at most one above the current
// run's end (32-bit wrapping difference) extends the run, duplicates included.
template <typename A, typename Interrupts = typename pgRangeArray::InterruptPolicyOf<A>::type>
Status scalarToRanges(const int32_t* values, size_t count, tVectorBase<Range<int>, A>& out)
{
    out.clear();
    if (count == 0)
        return Status::Ok;
    InterruptCountdown<Interrupts> countdown;
    Range<int> run{values[0], values[0]};
    for (size_t i = 1; i < count; ++i)
    {
        countdown.step();
        const int32_t x = values[i];
        if (x < run.upper)
            return Status::ScalarToRangeNotSorted;
        if (pgRangeArray::wrappedDifference(x, run.upper) <= 1)
        {
            run.upper = x;
            continue;
        }
        out.push_back(run);
        run = Range<int>{x, x};
    }
    out.push_back(run);
    if (out.size > maxResultLength / 2)
        return Status::ArrayOverflow;
    return Status::Ok;
}

// Scalar array -> mix array. Element 0 receives the input length (duplicates counted), the runs
// follow as single values or (lower | bit 31, upper) pairs.
template <typename A, typename Interrupts = typename pgRangeArray::InterruptPolicyOf<A>::type>
Status scalarToMix(const int32_t* values, size_t count, tVectorBase<int32_t, A>& out)
{
    out.clear();
    if (count == 0)
        return Status::Ok;
    InterruptCountdown<Interrupts> countdown;
    out.push_back(static_cast<int32_t>(count));
    int32_t start = values[0];
    int32_t last = values[0];
    for (size_t i = 1; i < count; ++i)
    {
        countdown.step();
        const int32_t x = values[i];
        if (x < last)
            return Status::ScalarToMixNotSorted;
        if (pgRangeArray::wrappedDifference(x, last) <= 1)
        {
            last = x;
            continue;
        }
        if (start == last)
        {
            out.push_back(start);
        }
        else
        {
            out.push_back(mix::rangeOpener(start));
            out.push_back(last);
        }
        start = last = x;
    }
    pgRangeArray::pushIntoMixArray(out, start, last);
    if (out.size > maxResultLength)
        return Status::MixArrayOverflow;
    return Status::Ok;
}

// Range array -> scalars: every pair with lower <= upper expanded in input order, reversed pairs
// skipped. `makeOutput(n)` returns room for the n values (it may fail on its own terms).
template <typename Interrupts, typename MakeOutput>
Status rangesToScalars(const int32_t* data, size_t count, MakeOutput&& makeOutput)
{
    if (count % 2 != 0)
        return Status::OddRangeCount;
    const Range<int>* first = reinterpret_cast<const Range<int>*>(data);
    const Range<int>* last = first + count / 2;
    uint64_t total = 0;
    InterruptCountdown<Interrupts> countdown;
    for (const Range<int>* r = first; r != last; ++r)
    {
        countdown.step();
        total += valueCount(r->lower, r->upper);
    }
    if (total > maxResultLength)
        return Status::ArrayOverflow;
    int32_t* out = makeOutput(static_cast<size_t>(total));
    size_t sinceCheck = 0;
    for (const Range<int>* r = first; r != last; ++r)
    {
        if (r->lower > r->upper)
            continue;
        out = writeValues<Interrupts>(out, r->lower, r->upper);
        if (++sinceCheck == interruptCheckInterval)
        {
            sinceCheck = 0;
            Interrupts::check();
        }
    }
    return Status::Ok;
}

// Range array -> mix array: one item per pair in input order, neither validated nor merged; the
// count element is the 32-bit wrapping sum of upper - lower + 1.
template <typename A, typename Interrupts = typename pgRangeArray::InterruptPolicyOf<A>::type>
Status rangesToMix(const int32_t* data, size_t count, tVectorBase<int32_t, A>& out)
{
    out.clear();
    if (count % 2 != 0)
        return Status::OddRangeCount;
    if (count == 0)
        return Status::Ok;
    InterruptCountdown<Interrupts> countdown;
    out.push_back(0);
    int32_t total = 0;
    for (size_t i = 0; i < count; i += 2)
    {
        countdown.step();
        const int32_t lower = data[i];
        const int32_t upper = data[i + 1];
        total = pgRangeArray::wrappedAdd(total, pgRangeArray::wrappedAdd(pgRangeArray::wrappedDifference(upper, lower), 1));
        if (lower == upper)
        {
            out.push_back(lower);
        }
        else
        {
            out.push_back(mix::rangeOpener(lower));
            out.push_back(upper);
        }
    }
    out[0] = total;
    if (out.size > maxResultLength)
        return Status::ArrayOverflow;
    return Status::Ok;
}

// Mix array -> scalars. Element 0 declares the value count N; the items must expand to exactly N
// values, checked before anything is written, so lying counts never write past the output.
// `maxValues` is the largest output the caller can hold; `makeOutput(n)` returns room for n values.
template <typename Interrupts, typename MakeOutput>
Status mixToScalars(const int32_t* data, size_t count, size_t maxValues, MakeOutput&& makeOutput)
{
    if (count == 0)
    {
        makeOutput(0);
        return Status::Ok;
    }
    const int32_t declared = data[0];
    if (declared < 0 || static_cast<size_t>(declared) > maxValues)
        return Status::OutputTooSmall;
    uint64_t total = 0;
    InterruptCountdown<Interrupts> countdown;
    const Status status = walkMixItems(data + 1, data + count, [&total, &countdown](int32_t lower, int32_t upper) {
        countdown.step();
        total += valueCount(lower, upper);
    });
    if (status != Status::Ok)
        return status;
    if (total != static_cast<uint64_t>(declared))
        return Status::ConversionError;
    int32_t* out = makeOutput(static_cast<size_t>(declared));
    size_t sinceCheck = 0;
    walkMixItems(data + 1, data + count, [&out, &sinceCheck](int32_t lower, int32_t upper) {
        out = writeValues<Interrupts>(out, lower, upper);
        if (++sinceCheck == interruptCheckInterval)
        {
            sinceCheck = 0;
            Interrupts::check();
        }
    });
    return Status::Ok;
}

// Mix array -> range array: one range per item in item order (element 0 is not read).
template <typename A, typename Interrupts = typename pgRangeArray::InterruptPolicyOf<A>::type>
Status mixToRanges(const int32_t* data, size_t count, tVectorBase<Range<int>, A>& out)
{
    out.clear();
    if (count <= 1)
        return Status::Ok;
    InterruptCountdown<Interrupts> countdown;
    const Status status = walkMixItems(data + 1, data + count, [&out, &countdown](int32_t lower, int32_t upper) {
        countdown.step();
        out.push_back(Range<int>{lower, upper});
    });
    if (status != Status::Ok)
        return status;
    if (out.size > maxResultLength / 2)
        return Status::ArrayOverflow;
    return Status::Ok;
}

// ---- bytea decoders ----

// Number of float4 elements of a payload of `bytes` bytes (copied as they are by the caller).
inline Status floatPayloadElements(size_t bytes, size_t& count)
{
    if (bytes % sizeof(float) != 0)
        return Status::FloatPayloadLength;
    count = bytes / sizeof(float);
    return Status::Ok;
}

// A payload of `bytes` bytes holding the int4 elements of a mix array in machine byte order, as
// the range array of its items (mixToRanges). A payload that is not int-aligned is read from an
// aligned copy taken from the allocator and given back before returning.
template <typename A>
Status mixPayloadToRanges(const void* payload, size_t bytes, tVectorBase<Range<int>, A>& out)
{
    out.clear();
    if (bytes % sizeof(int32_t) != 0)
        return Status::MixPayloadLength;
    const size_t count = bytes / sizeof(int32_t);
    const int32_t* elements = static_cast<const int32_t*>(payload);
    int32_t* aligned = nullptr;
    if (count && reinterpret_cast<uintptr_t>(payload) % alignof(int32_t) != 0)
    {
        aligned = static_cast<int32_t*>(A::allocate(bytes));
        std::memcpy(aligned, payload, bytes);
        elements = aligned;
    }
    const Status status = mixToRanges(elements, count, out);
    if (aligned)
        A::deallocate(aligned);
    return status;
}

// Ascending sort of src[0, n) into dst[0, n); scratch holds n elements too. src is only read. Input
// that is already in order (the usual case for scalar arrays) is copied as it is; anything else
// goes through the module's radix sort (zelmorraPgRadixSort.h).
template <typename Interrupts>
void sortInt4(const int32_t* src, int32_t* dst, int32_t* scratch, size_t n)
{
    if (std::is_sorted(src, src + n))
    {
        if (n)
            std::memcpy(dst, src, n * sizeof(int32_t));
        return;
    }
    radixSortBySignedKey<Interrupts>(src, dst, scratch, n, [](int32_t v) { return v; });
}

}  // namespace setConversion
}  // namespace zm
