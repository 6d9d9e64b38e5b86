// Bitfields: one bit per int4 value over a contiguous span of values.
//
// Two forms share the bit order: the value at offset k from the span's start is bit 0x80 >> (k & 7)
// of byte k >> 3 (the first value is the most significant bit of byte 0). Offsets are unsigned
// 32-bit.
//
// - BitFieldBase: a growable byte buffer whose span starts at value 0 (the optimised set
//   aggregate's state body). A plain aggregate without constructor or destructor, so it can live in
//   zero-filled aggregate states and on C++ frames that the server may longjmp across.
// - The persisted bitfield (a bytea): 4-byte varlena header, int32 first, int32 last, then the bits
//   in whole 64-bit words. readBitField() decodes and checks that layout without reporting anything;
//   the callers report their own errors.
//
// Ranges are written and tested a byte at a time with the mask tables below; inner bytes are set
// with memset and tested whole (8 bytes at a time where aligned), never bit by bit.
//
// No PostgreSQL dependency: the server instantiates BitFieldBase with a palloc allocator and an
// error policy that raises ERRORs, the unit tests with malloc and a throwing policy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "zelmorraPgInterrupts.h"
#include "zelmorraPgSetForms.h"

namespace zm {

// ---- masks -----------------------------------------------------------------------------------

// The bit of position p within its byte.
inline constexpr uint8_t bitFieldSingleBitMask[8] = {0x80, 0x40, 0x20, 0x10, 0x08, 0x04, 0x02, 0x01};
// Bits from position p to the end of the byte.
inline constexpr uint8_t bitFieldStartMask[8] = {0xFF, 0x7F, 0x3F, 0x1F, 0x0F, 0x07, 0x03, 0x01};
// Bits from the start of the byte to position p.
inline constexpr uint8_t bitFieldEndMask[8] = {0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE, 0xFF};

namespace detail {
struct BitFieldByteMaskTable
{
    uint8_t mask[8][8];
};
constexpr BitFieldByteMaskTable makeBitFieldByteMaskTable()
{
    BitFieldByteMaskTable t{};
    for (int p = 0; p < 8; ++p)
        for (int q = 0; q < 8; ++q)
            t.mask[p][q] = q < p ? 0 : static_cast<uint8_t>((0xFF >> p) & (0xFF << (7 - q)));
    return t;
}
inline constexpr BitFieldByteMaskTable bitFieldByteMaskTable = makeBitFieldByteMaskTable();
}  // namespace detail

// Bits of positions p..q of one byte (row p, column q); 0 when q < p.
inline constexpr const uint8_t (&bitFieldByteMask)[8][8] = detail::bitFieldByteMaskTable.mask;

static_assert(bitFieldByteMask[0][0] == 0x80 && bitFieldByteMask[0][7] == 0xFF && bitFieldByteMask[3][5] == 0x1C &&
                  bitFieldByteMask[7][7] == 0x01 && bitFieldByteMask[5][2] == 0x00,
              "bit order: most significant bit first");

// ---- bits and offset spans over a raw byte buffer -------------------------------------------------

inline void setBit(uint8_t* data, uint32_t offset) { data[offset >> 3] |= bitFieldSingleBitMask[offset & 7]; }

inline bool testBit(const uint8_t* data, uint32_t offset)
{
    return (data[offset >> 3] & bitFieldSingleBitMask[offset & 7]) != 0;
}

// Sets the bits of offsets lo..hi (lo <= hi; the caller guarantees hi lies inside the buffer).
inline void writeRange(uint8_t* data, uint32_t lo, uint32_t hi)
{
    const uint32_t bl = lo >> 3;
    const uint32_t bh = hi >> 3;
    if (bl == bh)
    {
        data[bl] |= bitFieldByteMask[lo & 7][hi & 7];
        return;
    }
    data[bl] |= bitFieldStartMask[lo & 7];
    if (bh - bl > 1)
        std::memset(data + bl + 1, 0xFF, bh - bl - 1);
    data[bh] |= bitFieldEndMask[hi & 7];
}

namespace detail {
// Whole bytes [from, to): any of them non-zero. Bytes up to an 8-byte boundary, then 64-bit words.
inline bool anyByteNonZero(const uint8_t* from, const uint8_t* to)
{
    while (from < to && (reinterpret_cast<uintptr_t>(from) & 7) != 0)
        if (*from++)
            return true;
    for (; to - from >= 32; from += 32)
    {
        uint64_t w[4];
        std::memcpy(w, from, sizeof w);
        if ((w[0] | w[1] | w[2] | w[3]) != 0)
            return true;
    }
    for (; to - from >= 8; from += 8)
    {
        uint64_t w;
        std::memcpy(&w, from, sizeof w);
        if (w)
            return true;
    }
    while (from < to)
        if (*from++)
            return true;
    return false;
}

// Whole bytes [from, to): all of them 0xFF.
inline bool allBytesFull(const uint8_t* from, const uint8_t* to)
{
    while (from < to && (reinterpret_cast<uintptr_t>(from) & 7) != 0)
        if (*from++ != 0xFF)
            return false;
    for (; to - from >= 32; from += 32)
    {
        uint64_t w[4];
        std::memcpy(w, from, sizeof w);
        if ((w[0] & w[1] & w[2] & w[3]) != ~uint64_t{0})
            return false;
    }
    for (; to - from >= 8; from += 8)
    {
        uint64_t w;
        std::memcpy(&w, from, sizeof w);
        if (w != ~uint64_t{0})
            return false;
    }
    while (from < to)
        if (*from++ != 0xFF)
            return false;
    return true;
}
}  // namespace detail

// Some bit of offsets lo..hi is set (lo <= hi, both inside the buffer).
inline bool anyBitSet(const uint8_t* data, uint32_t lo, uint32_t hi)
{
    const uint32_t bl = lo >> 3;
    const uint32_t bh = hi >> 3;
    if (bl == bh)
        return (data[bl] & bitFieldByteMask[lo & 7][hi & 7]) != 0;
    if (data[bl] & bitFieldStartMask[lo & 7])
        return true;
    if (data[bh] & bitFieldEndMask[hi & 7])
        return true;
    return detail::anyByteNonZero(data + bl + 1, data + bh);
}

// Every bit of offsets lo..hi is set (lo <= hi, both inside the buffer).
inline bool allBitsSet(const uint8_t* data, uint32_t lo, uint32_t hi)
{
    const uint32_t bl = lo >> 3;
    const uint32_t bh = hi >> 3;
    if (bl == bh)
    {
        const uint8_t mask = bitFieldByteMask[lo & 7][hi & 7];
        return (data[bl] & mask) == mask;
    }
    const uint8_t start = bitFieldStartMask[lo & 7];
    const uint8_t end = bitFieldEndMask[hi & 7];
    if ((data[bl] & start) != start || (data[bh] & end) != end)
        return false;
    return detail::allBytesFull(data + bl + 1, data + bh);
}

// ---- interruptible scans --------------------------------------------------------------------------
//
// A server must be able to cancel a long test: one over many wide ranges can scan a huge bitfield
// once per range. The scans below check their interrupt policy (zelmorraPgInterrupts.h) after every
// interruptCheckInterval bytes of bitfield and every interruptCheckInterval set members.

// Offsets per scan slice: interruptCheckInterval bytes of bitfield.
inline constexpr uint32_t bitFieldScanSliceBits = interruptCheckInterval * 8;

template <typename Interrupts>
bool anyBitSetInterruptibly(const uint8_t* data, uint32_t lo, uint32_t hi)
{
    while (hi - lo >= bitFieldScanSliceBits)
    {
        if (anyBitSet(data, lo, lo + bitFieldScanSliceBits - 1))
            return true;
        lo += bitFieldScanSliceBits;
        Interrupts::check();
    }
    return anyBitSet(data, lo, hi);
}

template <typename Interrupts>
bool allBitsSetInterruptibly(const uint8_t* data, uint32_t lo, uint32_t hi)
{
    while (hi - lo >= bitFieldScanSliceBits)
    {
        if (!allBitsSet(data, lo, lo + bitFieldScanSliceBits - 1))
            return false;
        lo += bitFieldScanSliceBits;
        Interrupts::check();
    }
    return allBitsSet(data, lo, hi);
}

// ---- in-memory BitField ---------------------------------------------------------------------------

enum class BitFieldError
{
    InvalidCapacity,  // reserve: capacity not a multiple of 8 ("bitfield invalid capacity")
    OutOfMemory,      // reserve: the allocator returned null (no message)
    SizeOverflow,     // resize: doubling the capacity would pass 2^32 ("tSize overflow ")
};

// Allocator concept (see zelmorraPgVector.h), here allowed to fail softly:
//   static void* allocate(size_t bytes);       null when the memory cannot be had
//   static void  deallocate(void* block);
//   static void  diagnostic(const char* line); one line to standard output
// ErrorPolicy concept:
//   [[noreturn]] static void report(BitFieldError error);
template <typename Allocator, typename ErrorPolicy>
struct BitFieldBase
{
    uint32_t capacity;  // bytes allocated, a multiple of 8
    uint32_t size;      // bytes in use: offsets 0 .. size * 8 - 1
    uint8_t* data;      // null while capacity is 0
    uint8_t fill;       // written into every byte that resize adds

    void init(uint8_t fillByte = 0)
    {
        capacity = 0;
        size = 0;
        data = nullptr;
        fill = fillByte;
    }

    void release()
    {
        if (data)
            Allocator::deallocate(data);
        data = nullptr;
        capacity = 0;
        size = 0;
    }

    // Replaces the buffer by one of newCapacity bytes, keeping the bytes in use.
    void reserve(uint32_t newCapacity)
    {
        if (newCapacity % 8 != 0)
            ErrorPolicy::report(BitFieldError::InvalidCapacity);
        uint8_t* grown = nullptr;
        if (newCapacity != 0)
        {
            grown = static_cast<uint8_t*>(Allocator::allocate(newCapacity));
            if (grown == nullptr)
            {
                Allocator::diagnostic("Out of memory");
                ErrorPolicy::report(BitFieldError::OutOfMemory);
            }
        }
        // Callers only grow; a smaller capacity keeps what still fits rather than overrun.
        const uint32_t kept = size < newCapacity ? size : newCapacity;
        if (kept)
            std::memcpy(grown, data, kept);
        if (data)
            Allocator::deallocate(data);
        data = grown;
        capacity = newCapacity;
        size = kept;
    }

    // Sets the bytes in use to newSize, doubling the capacity as needed (from 8 bytes when nothing
    // is allocated yet); added bytes are set to `fill`.
    void resize(uint32_t newSize)
    {
        if (newSize > capacity)
        {
            uint32_t c = capacity ? capacity : 8;
            while (c < newSize)
            {
                if (c & 0x80000000u)
                {
                    Allocator::diagnostic("tSize overflow");
                    ErrorPolicy::report(BitFieldError::SizeOverflow);
                }
                c *= 2;
            }
            reserve(c);
        }
        if (newSize > size)
            std::memset(data + size, fill, newSize - size);
        size = newSize;
    }

    // The aggregate's range check: the byte of v is in use (so up to 7 values past a bound M whose
    // last byte is partly used are accepted).
    bool holds(uint32_t v) const { return (v >> 3) < size; }
    void set(uint32_t v) { setBit(data, v); }
    bool test(uint32_t v) const { return testBit(data, v); }
    // Offsets lo..hi, lo <= hi, both held.
    void setRange(uint32_t lo, uint32_t hi) { writeRange(data, lo, hi); }
};

// ---- persisted bitfield ---------------------------------------------------------------------------

// varlena header, first, last.
inline constexpr uint32_t bitFieldHeaderSize = 12;

// Number of values of the span first..last: last - first + 1 in unsigned 32-bit arithmetic, so the
// empty span (last = first - 1) gives 0 and the full int4 range wraps to 0 as well.
inline uint32_t bitFieldCount(int32_t first, int32_t last)
{
    return static_cast<uint32_t>(last) - static_cast<uint32_t>(first) + 1u;
}

// Data bytes that hold `count` bits in whole 64-bit words: ceil(count / 64) * 8 (at most 2^29).
inline uint32_t bitFieldDataLength(uint32_t count)
{
    return static_cast<uint32_t>((static_cast<uint64_t>(count) + 63) / 64 * 8);
}

enum class BitFieldStatus : uint8_t
{
    Invalid,  // shorter than its header, or data length not ceil(count / 64) * 8
    Empty,    // count 0; begin and end are not set
    Ok,
};

struct BitFieldInfo
{
    BitFieldStatus status;
    bool truncated;     // Invalid because the datum is shorter than its 12-byte header
    int32_t first;      // read before the length check: set unless truncated
    int32_t last;
    uint32_t count;     // last - first + 1, unsigned 32-bit
    const uint8_t* begin;  // data byte 0 (Ok only)
    const uint8_t* end;    // one past the last data byte (Ok only)
};

// Decodes a persisted bitfield: `datum` points at its 4-byte varlena header, `totalLength` is the
// datum's total length including that header. Checks, in this order: the header fits; the span is
// empty (count 0, whatever the data length); the data length is exactly ceil(count / 64) * 8 bytes
// (trailing bytes are as wrong as missing ones). first <= last is not required: a reversed span has
// a huge count whose length does not match.
inline BitFieldInfo readBitField(const void* datum, uint32_t totalLength)
{
    BitFieldInfo info{};
    if (totalLength < bitFieldHeaderSize)
    {
        info.status = BitFieldStatus::Invalid;
        info.truncated = true;
        return info;
    }
    const uint8_t* bytes = static_cast<const uint8_t*>(datum);
    std::memcpy(&info.first, bytes + 4, sizeof(int32_t));
    std::memcpy(&info.last, bytes + 8, sizeof(int32_t));
    info.count = bitFieldCount(info.first, info.last);
    if (info.count == 0)
    {
        info.status = BitFieldStatus::Empty;
        return info;
    }
    const uint32_t dataLength = totalLength - bitFieldHeaderSize;
    if (dataLength != bitFieldDataLength(info.count))
    {
        info.status = BitFieldStatus::Invalid;
        return info;
    }
    info.begin = bytes + bitFieldHeaderSize;
    info.end = info.begin + dataLength;
    info.status = BitFieldStatus::Ok;
    return info;
}

// Offsets within a persisted span [first, last] (first <= v <= last assumed).
inline uint32_t bitFieldOffset(int32_t first, int32_t v)
{
    return static_cast<uint32_t>(v) - static_cast<uint32_t>(first);
}

// Value v is in the span and its bit is set. Ok status assumed.
inline bool bitFieldHasValue(const BitFieldInfo& info, int32_t v)
{
    if (v < info.first || v > info.last)
        return false;
    return testBit(info.begin, bitFieldOffset(info.first, v));
}

// Some value of [lower, upper] lies in the span with its bit set. Ok status assumed.
template <typename Interrupts = NoInterrupts>
inline bool bitFieldOverlapsRange(const BitFieldInfo& info, int32_t lower, int32_t upper)
{
    if (info.first > upper || info.last < lower || lower > upper)
        return false;
    const int32_t lo = lower > info.first ? lower : info.first;
    const int32_t hi = upper < info.last ? upper : info.last;
    return anyBitSetInterruptibly<Interrupts>(info.begin, bitFieldOffset(info.first, lo), bitFieldOffset(info.first, hi));
}

// ---- int4 sets against a persisted bitfield ------------------------------------------------------
//
// Sets come as the int4[] representations of the module: scalar arrays (values), range arrays
// (lower, upper pairs) and mix items (the elements after a mix array's count element, read by
// mix::walkItems). All take an Ok BitFieldInfo.
// A reversed range (lower > upper) holds no value: it never overlaps and is always included.

namespace detail {
// Clamps [lower, upper] to the span; false when nothing of it is left.
inline bool clampToSpan(const BitFieldInfo& info, int32_t lower, int32_t upper, uint32_t& lo, uint32_t& hi)
{
    const int32_t l = lower > info.first ? lower : info.first;
    const int32_t u = upper < info.last ? upper : info.last;
    if (l > u)
        return false;
    lo = bitFieldOffset(info.first, l);
    hi = bitFieldOffset(info.first, u);
    return true;
}

}  // namespace detail

// Every value of [lower, upper] lies in the span with its bit set (the rejects lower > last and
// upper < first come first).
template <typename Interrupts = NoInterrupts>
inline bool bitFieldIncludesRange(const BitFieldInfo& info, int32_t lower, int32_t upper)
{
    if (lower > info.last || upper < info.first)
        return false;
    uint32_t lo, hi;
    if (!detail::clampToSpan(info, lower, upper, lo, hi))
        return true;
    return allBitsSetInterruptibly<Interrupts>(info.begin, lo, hi);
}

template <typename Interrupts = NoInterrupts>
inline bool bitFieldAnyValue(const BitFieldInfo& info, const int32_t* values, uint32_t n)
{
    InterruptCountdown<Interrupts> members;
    for (uint32_t i = 0; i < n; ++i)
    {
        if (bitFieldHasValue(info, values[i]))
            return true;
        members.step();
    }
    return false;
}

template <typename Interrupts = NoInterrupts>
inline bool bitFieldAllValues(const BitFieldInfo& info, const int32_t* values, uint32_t n)
{
    InterruptCountdown<Interrupts> members;
    for (uint32_t i = 0; i < n; ++i)
    {
        if (!bitFieldHasValue(info, values[i]))
            return false;
        members.step();
    }
    return true;
}

template <typename Interrupts = NoInterrupts>
inline bool bitFieldAnyRange(const BitFieldInfo& info, const int32_t* pairs, uint32_t pairCount)
{
    InterruptCountdown<Interrupts> members;
    for (uint32_t i = 0; i < pairCount; ++i)
    {
        if (bitFieldOverlapsRange<Interrupts>(info, pairs[2 * i], pairs[2 * i + 1]))
            return true;
        members.step();
    }
    return false;
}

template <typename Interrupts = NoInterrupts>
inline bool bitFieldAllRanges(const BitFieldInfo& info, const int32_t* pairs, uint32_t pairCount)
{
    InterruptCountdown<Interrupts> members;
    for (uint32_t i = 0; i < pairCount; ++i)
    {
        if (!bitFieldIncludesRange<Interrupts>(info, pairs[2 * i], pairs[2 * i + 1]))
            return false;
        members.step();
    }
    return true;
}

enum class BitFieldSetTest : uint8_t
{
    False,
    True,
    OddRangeCount,    // a range array with an odd element count
    UnsupportedKind,  // a kind other than scalar, range or mix
    DanglingOpener,   // mix items whose last element opens a range (mix::walkItems)
};

// Mix items are read in order until the answer is known; a dangling opener reached before that is
// reported.
template <typename Interrupts = NoInterrupts>
inline BitFieldSetTest bitFieldAnyMixItem(const BitFieldInfo& info, const int32_t* items, uint32_t n)
{
    InterruptCountdown<Interrupts> members;
    const mix::Walk walk = mix::walkItems(items, n, [&info, &members](int32_t lower, int32_t upper) {
        members.step();
        return !(lower == upper ? bitFieldHasValue(info, lower) : bitFieldOverlapsRange<Interrupts>(info, lower, upper));
    });
    if (walk == mix::Walk::DanglingOpener)
        return BitFieldSetTest::DanglingOpener;
    return walk == mix::Walk::Stopped ? BitFieldSetTest::True : BitFieldSetTest::False;
}

template <typename Interrupts = NoInterrupts>
inline BitFieldSetTest bitFieldAllMixItems(const BitFieldInfo& info, const int32_t* items, uint32_t n)
{
    InterruptCountdown<Interrupts> members;
    const mix::Walk walk = mix::walkItems(items, n, [&info, &members](int32_t lower, int32_t upper) {
        members.step();
        return lower == upper ? bitFieldHasValue(info, lower) : bitFieldIncludesRange<Interrupts>(info, lower, upper);
    });
    if (walk == mix::Walk::DanglingOpener)
        return BitFieldSetTest::DanglingOpener;
    return walk == mix::Walk::Complete ? BitFieldSetTest::True : BitFieldSetTest::False;
}

// A whole int4 set against a persisted bitfield: every member has its bit set (included) or some
// member has (overlap). The set's quick bounds are taken without scanning, from its first and last
// elements (for a mix array the first item's lower bound; a lone count element gives 0 and 0), so
// an unsorted scalar array is judged by them before any element is tested.
// `elements` holds n > 0 elements; `info` is Ok.
template <typename Interrupts = NoInterrupts>
inline BitFieldSetTest bitFieldTestSet(int32_t kind, bool included, const BitFieldInfo& info, const int32_t* e,
                                       uint32_t n)
{
    const auto answer = [](bool b) { return b ? BitFieldSetTest::True : BitFieldSetTest::False; };
    int32_t min, max;
    switch (kind)
    {
    case pgRangeArray::ArrayDataTypeScalar:
    case pgRangeArray::ArrayDataTypeRange:
        min = e[0];
        max = e[n - 1];
        break;
    case pgRangeArray::ArrayDataTypeMix:
        min = n == 1 ? 0 : mix::rangeLower(e[1]);
        max = n == 1 ? 0 : e[n - 1];
        break;
    default:
        return BitFieldSetTest::UnsupportedKind;
    }
    if (min > info.last || max < info.first)
        return BitFieldSetTest::False;

    if (included && (min < info.first || max > info.last))
        return BitFieldSetTest::False;
    switch (kind)
    {
    case pgRangeArray::ArrayDataTypeScalar:
        return answer(included ? bitFieldAllValues<Interrupts>(info, e, n) : bitFieldAnyValue<Interrupts>(info, e, n));
    case pgRangeArray::ArrayDataTypeRange:
        if (n % 2 != 0)
            return BitFieldSetTest::OddRangeCount;
        return answer(included ? bitFieldAllRanges<Interrupts>(info, e, n / 2) : bitFieldAnyRange<Interrupts>(info, e, n / 2));
    case pgRangeArray::ArrayDataTypeMix:
        return included ? bitFieldAllMixItems<Interrupts>(info, e + 1, n - 1)
                        : bitFieldAnyMixItem<Interrupts>(info, e + 1, n - 1);
    }
    return BitFieldSetTest::UnsupportedKind;
}

// A GiST key [lower, upper] against a bitfield query (Ok info): on a leaf the bit of the key's
// lower end; on an inner page any set bit in the part of the span that the key covers. A wide key
// over a huge bitfield can mean hundreds of megabytes, so that part is scanned interruptibly.
template <typename Interrupts = NoInterrupts>
inline bool bitFieldKeyConsistent(const BitFieldInfo& info, int32_t lower, int32_t upper, bool leaf)
{
    if (leaf)
        return bitFieldHasValue(info, lower);
    if (info.first > upper || info.last < lower)
        return false;
    // A key with its ends reversed (only a damaged index holds one) covers nothing.
    uint32_t lo, hi;
    if (!detail::clampToSpan(info, lower, upper, lo, hi))
        return false;
    return anyBitSetInterruptibly<Interrupts>(info.begin, lo, hi);
}

// ---- building a persisted bitfield from an int4 set -------------------------------------------------

// Header values and data length of the bitfield built from a set; writeItems is false when the
// header does not describe the items (the data then stays zero).
struct BitFieldShape
{
    int32_t first;
    int32_t last;
    uint32_t dataLength;
    bool writeItems;
};

// Range array of n (even) elements: the span of the first lower to the last upper. No ranges: the
// 13-byte empty form (first 0, last -1, one zero data byte).
inline BitFieldShape bitFieldShapeOfRangeArray(const int32_t* elements, uint32_t n)
{
    if (n < 2)
        return BitFieldShape{0, -1, 1, false};
    const int32_t first = elements[0];
    const int32_t last = elements[n - 1];
    return BitFieldShape{first, last, bitFieldDataLength(bitFieldCount(first, last)), true};
}

// Scalar array: the span of element 0 to the final element, one data byte when they are reversed.
// No elements: the 20-byte empty form (first 0, last -1, eight zero data bytes).
inline BitFieldShape bitFieldShapeOfScalarArray(const int32_t* elements, uint32_t n)
{
    if (n == 0)
        return BitFieldShape{0, -1, 8, false};
    const int32_t first = elements[0];
    const int32_t last = elements[n - 1];
    const uint32_t length = first <= last ? bitFieldDataLength(bitFieldCount(first, last)) : 1;
    return BitFieldShape{first, last, length, true};
}

// Mix array (count element first): the span of the first item's lower bound to the final element,
// one data byte when they are reversed. No elements: the 20-byte empty form. A count element of 0
// gives the empty header (first 0, last -1) over zeroed data of that length. A lone count element N
// gives first 0, last 0 over zeroed data sized as if last were N.
inline BitFieldShape bitFieldShapeOfMixArray(const int32_t* elements, uint32_t n)
{
    if (n == 0)
        return BitFieldShape{0, -1, 8, false};
    const int32_t first = n >= 2 ? mix::rangeLower(elements[1]) : 0;
    const int32_t last = elements[n - 1];
    const uint32_t length = first <= last ? bitFieldDataLength(bitFieldCount(first, last)) : 1;
    if (elements[0] == 0)
        return BitFieldShape{0, -1, length, false};
    if (n == 1)
        return BitFieldShape{0, 0, length, false};
    return BitFieldShape{first, last, length, true};
}

// Writes a set into the (uninitialised) data of a BitFieldShape, each byte stored about once: the
// bytes before an item are zeroed when the item is reached, the inner bytes of a range are set to
// 0xFF directly, and finish() zeroes the rest. Items out of order are ORed into bytes already
// initialised, so any input gives the same bits as writing into zeroed data.
//
// Whatever the input, nothing is written outside the data: values and range parts outside
// [first, last] (possible only when the input is not sorted) are skipped, as is anything past the
// data's last bit. The interrupt policy is checked between slices of interruptCheckInterval bytes
// of long fills and every interruptCheckInterval items, so a long write can be interrupted.
template <typename Interrupts = NoInterrupts>
struct BitFieldSetWriter
{
    uint8_t* data;
    uint32_t dataLength;
    uint32_t initialised;  // bytes [0, initialised) hold their final value but for later ORs
    int32_t first;
    int32_t last;
    InterruptCountdown<Interrupts> items;

    BitFieldSetWriter(uint8_t* data_, const BitFieldShape& shape)
        : data(data_), dataLength(shape.dataLength), initialised(0), first(shape.first), last(shape.last)
    {
    }

    void tick() { items.step(); }

    void fill(uint32_t from, uint32_t to, uint8_t byte)
    {
        while (to - from > interruptCheckInterval)
        {
            std::memset(data + from, byte, interruptCheckInterval);
            from += interruptCheckInterval;
            Interrupts::check();
        }
        std::memset(data + from, byte, to - from);
    }

    void zeroUpTo(uint32_t end)
    {
        if (end > initialised)
        {
            fill(initialised, end, 0);
            initialised = end;
        }
    }

    // Offsets inside the data.
    void putBit(uint32_t offset)
    {
        zeroUpTo((offset >> 3) + 1);
        setBit(data, offset);
    }

    void putRange(uint32_t lo, uint32_t hi)
    {
        const uint32_t bl = lo >> 3;
        const uint32_t bh = hi >> 3;
        zeroUpTo(bl + 1);
        if (bl == bh)
        {
            data[bl] |= bitFieldByteMask[lo & 7][hi & 7];
            return;
        }
        data[bl] |= bitFieldStartMask[lo & 7];
        if (bh - bl > 1)
            fill(bl + 1, bh, 0xFF);
        if (bh > initialised)
            initialised = bh;
        zeroUpTo(bh + 1);
        data[bh] |= bitFieldEndMask[hi & 7];
    }

    void value(int32_t v)
    {
        tick();
        if (v < first || v > last)
            return;
        const uint32_t offset = bitFieldOffset(first, v);
        if ((offset >> 3) < dataLength)
            putBit(offset);
    }

    void range(int32_t lower, int32_t upper)
    {
        tick();
        const int32_t l = lower > first ? lower : first;
        const int32_t u = upper < last ? upper : last;
        if (l > u)
            return;
        const uint32_t lo = bitFieldOffset(first, l);
        uint32_t hi = bitFieldOffset(first, u);
        if ((lo >> 3) >= dataLength)
            return;
        if ((hi >> 3) >= dataLength)
            hi = static_cast<uint32_t>(uint64_t{dataLength} * 8 - 1);
        putRange(lo, hi);
    }

    void rangeArray(const int32_t* elements, uint32_t n)
    {
        for (uint32_t i = 0; i + 1 < n; i += 2)
            range(elements[i], elements[i + 1]);
    }

    void scalarArray(const int32_t* elements, uint32_t n)
    {
        for (uint32_t i = 0; i < n; ++i)
            value(elements[i]);
    }

    // The items after the count element.
    // False when the last element opens a range (mix::walkItems); the items before it are written.
    bool mixItems(const int32_t* items, uint32_t n)
    {
        return mix::walkItems(items, n, [this](int32_t lower, int32_t upper) {
                   if (lower == upper)
                       value(lower);
                   else
                       range(lower, upper);
                   return true;
               }) != mix::Walk::DanglingOpener;
    }

    // Zeroes the bytes that no item reached. Call once, after the items.
    void finish() { zeroUpTo(dataLength); }
};

}  // namespace zm
