// Bitfield masks, range writing, span tests, BitField growth and the persisted-bitfield reader and
// writer, checked against bit-by-bit references.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "zelmorraPgBitField.h"

namespace {

// The server reports each error kind at its own site (message, function); here only the kind is
// seen.
struct BitFieldFailure : std::runtime_error
{
    zm::BitFieldError error;
    explicit BitFieldFailure(zm::BitFieldError e) : std::runtime_error("bitfield error"), error(e) {}
};

struct ThrowingPolicy
{
    [[noreturn]] static void report(zm::BitFieldError error) { throw BitFieldFailure(error); }
};

// malloc with a switch to simulate an exhausted memory context, and a record of what was asked.
struct CountingAllocator
{
    static inline bool fail = false;
    static inline std::vector<size_t> requests;
    static inline std::vector<std::string> diagnostics;
    static void* allocate(size_t bytes)
    {
        requests.push_back(bytes);
        return fail ? nullptr : std::malloc(bytes);
    }
    static void deallocate(void* block) { std::free(block); }
    static void diagnostic(const char* line) { diagnostics.emplace_back(line); }
    static void reset()
    {
        fail = false;
        requests.clear();
        diagnostics.clear();
    }
};

using TestBitField = zm::BitFieldBase<CountingAllocator, ThrowingPolicy>;

struct OwnedBitField
{
    TestBitField b;
    OwnedBitField()
    {
        CountingAllocator::reset();
        b.init();
    }
    ~OwnedBitField() { b.release(); }
};

uint8_t naiveMask(int p, int q)
{
    uint8_t m = 0;
    for (int k = p; k <= q; ++k)
        m |= static_cast<uint8_t>(0x80 >> k);
    return m;
}

void naiveWrite(std::vector<uint8_t>& data, uint32_t lo, uint32_t hi)
{
    for (uint64_t k = lo; k <= hi; ++k)
        data[k >> 3] |= static_cast<uint8_t>(0x80 >> (k & 7));
}

bool naiveBit(const std::vector<uint8_t>& data, uint32_t k) { return data[k >> 3] & (0x80 >> (k & 7)); }

// A persisted datum: varlena length word, first, last, data.
std::vector<uint8_t> persisted(int32_t first, int32_t last, size_t dataLength, std::vector<uint8_t> data = {})
{
    std::vector<uint8_t> d(12 + dataLength, 0);
    const uint32_t total = static_cast<uint32_t>(d.size()) << 2;  // little-endian 4-byte varlena form
    std::memcpy(d.data(), &total, 4);
    std::memcpy(d.data() + 4, &first, 4);
    std::memcpy(d.data() + 8, &last, 4);
    if (!data.empty())
        std::memcpy(d.data() + 12, data.data(), std::min(data.size(), dataLength));
    return d;
}

zm::BitFieldInfo read(const std::vector<uint8_t>& d) { return zm::readBitField(d.data(), static_cast<uint32_t>(d.size())); }

}  // namespace

// ---- masks ----

TEST(BitFieldMasks, TablesFollowTheMostSignificantBitFirstOrder)
{
    const uint8_t single[8] = {0x80, 0x40, 0x20, 0x10, 0x08, 0x04, 0x02, 0x01};
    const uint8_t start[8] = {0xFF, 0x7F, 0x3F, 0x1F, 0x0F, 0x07, 0x03, 0x01};
    const uint8_t end[8] = {0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE, 0xFF};
    for (int p = 0; p < 8; ++p)
    {
        EXPECT_EQ(zm::bitFieldSingleBitMask[p], single[p]);
        EXPECT_EQ(zm::bitFieldStartMask[p], start[p]);
        EXPECT_EQ(zm::bitFieldEndMask[p], end[p]);
    }
    const uint8_t row0[8] = {0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE, 0xFF};
    for (int q = 0; q < 8; ++q)
        EXPECT_EQ(zm::bitFieldByteMask[0][q], row0[q]);
}

TEST(BitFieldMasks, WithinByteTableMatchesBitByBitMasks)
{
    for (int p = 0; p < 8; ++p)
        for (int q = 0; q < 8; ++q)
        {
            EXPECT_EQ(zm::bitFieldByteMask[p][q], q < p ? 0 : naiveMask(p, q)) << p << ',' << q;
            if (q >= p)
            {
                EXPECT_EQ(zm::bitFieldByteMask[p][q], (0xFF >> p) & (0xFF << (7 - q)) & 0xFF);
            }
        }
    for (int p = 0; p < 8; ++p)
    {
        EXPECT_EQ(zm::bitFieldByteMask[p][7], zm::bitFieldStartMask[p]);
        EXPECT_EQ(zm::bitFieldByteMask[0][p], zm::bitFieldEndMask[p]);
        EXPECT_EQ(zm::bitFieldByteMask[p][p], zm::bitFieldSingleBitMask[p]);
    }
}

// ---- range writing and span tests ----

TEST(BitFieldWriteRange, ThreeToSeventeen)
{
    uint8_t data[4] = {};
    zm::writeRange(data, 3, 17);
    EXPECT_EQ(data[0], 0x1F);
    EXPECT_EQ(data[1], 0xFF);
    EXPECT_EQ(data[2], 0xC0);
    EXPECT_EQ(data[3], 0x00);
}

TEST(BitFieldWriteRange, SingleByteAndByteBoundaries)
{
    uint8_t data[3] = {};
    zm::writeRange(data, 2, 4);
    EXPECT_EQ(data[0], 0x38);
    zm::writeRange(data, 7, 8);
    EXPECT_EQ(data[0], 0x39);
    EXPECT_EQ(data[1], 0x80);
    zm::writeRange(data, 16, 23);
    EXPECT_EQ(data[2], 0xFF);
    EXPECT_EQ(data[1], 0x80);
}

TEST(BitFieldWriteRange, RandomRangesMatchBitByBitWriting)
{
    std::mt19937 rng(42);
    for (int round = 0; round < 2000; ++round)
    {
        const uint32_t bytes = 1 + rng() % 80;
        std::vector<uint8_t> fast(bytes, 0), slow(bytes, 0);
        for (int r = 0; r < 4; ++r)
        {
            uint32_t lo = rng() % (bytes * 8), hi = rng() % (bytes * 8);
            if (lo > hi)
                std::swap(lo, hi);
            zm::writeRange(fast.data(), lo, hi);
            naiveWrite(slow, lo, hi);
        }
        ASSERT_EQ(fast, slow) << "round " << round;
    }
}

TEST(BitFieldSpanTests, RandomSpansMatchBitByBitTests)
{
    std::mt19937 rng(7);
    for (int round = 0; round < 3000; ++round)
    {
        const uint32_t bytes = 1 + rng() % 100;
        // Offset the buffer so that the whole-word paths meet every alignment.
        std::vector<uint8_t> storage(bytes + 8, 0);
        uint8_t* data = storage.data() + rng() % 8;
        std::vector<uint8_t> copy(bytes, 0);
        const int mode = rng() % 3;  // sparse, dense, full runs
        for (uint32_t k = 0; k < bytes * 8; ++k)
        {
            const bool bit = mode == 0 ? rng() % 97 == 0 : mode == 1 ? rng() % 5 != 0 : true;
            if (bit)
                copy[k >> 3] |= static_cast<uint8_t>(0x80 >> (k & 7));
        }
        if (mode == 2 && bytes > 2)
            copy[rng() % bytes] &= static_cast<uint8_t>(~(0x80 >> (rng() % 8)));
        std::memcpy(data, copy.data(), bytes);
        for (int q = 0; q < 10; ++q)
        {
            uint32_t lo = rng() % (bytes * 8), hi = rng() % (bytes * 8);
            if (lo > hi)
                std::swap(lo, hi);
            bool any = false, all = true;
            for (uint32_t k = lo; k <= hi; ++k)
            {
                any |= naiveBit(copy, k);
                all &= naiveBit(copy, k);
            }
            ASSERT_EQ(zm::anyBitSet(data, lo, hi), any) << lo << ".." << hi;
            ASSERT_EQ(zm::allBitsSet(data, lo, hi), all) << lo << ".." << hi;
        }
    }
}

TEST(BitFieldSpanTests, OnlyTheSpanIsLookedAt)
{
    uint8_t data[16];
    std::memset(data, 0xFF, sizeof data);
    data[5] = 0x00;
    EXPECT_FALSE(zm::anyBitSet(data, 40, 47));
    EXPECT_TRUE(zm::anyBitSet(data, 39, 47));
    EXPECT_TRUE(zm::anyBitSet(data, 40, 48));
    EXPECT_TRUE(zm::allBitsSet(data, 0, 39));
    EXPECT_FALSE(zm::allBitsSet(data, 0, 40));
    EXPECT_TRUE(zm::allBitsSet(data, 48, 127));
    EXPECT_FALSE(zm::allBitsSet(data, 47, 127));
    std::memset(data, 0, sizeof data);
    data[15] = 0x01;
    EXPECT_FALSE(zm::anyBitSet(data, 0, 126));
    EXPECT_TRUE(zm::anyBitSet(data, 0, 127));
    EXPECT_TRUE(zm::anyBitSet(data, 127, 127));
}

// ---- in-memory BitField ----

TEST(BitFieldMemory, NewBitFieldIsEmpty)
{
    OwnedBitField o;
    EXPECT_EQ(o.b.capacity, 0u);
    EXPECT_EQ(o.b.size, 0u);
    EXPECT_EQ(o.b.data, nullptr);
    EXPECT_EQ(o.b.fill, 0);
    EXPECT_EQ(sizeof(TestBitField), 24u);
}

TEST(BitFieldMemory, ReserveRejectsCapacitiesNotWholeWords)
{
    OwnedBitField o;
    for (uint32_t bad : {1u, 4u, 12u, 0x7FFFFFFFu})
    {
        try
        {
            o.b.reserve(bad);
            FAIL() << bad;
        }
        catch (const BitFieldFailure& f)
        {
            EXPECT_EQ(f.error, zm::BitFieldError::InvalidCapacity);
        }
    }
    EXPECT_TRUE(CountingAllocator::requests.empty());
}

TEST(BitFieldMemory, ReserveKeepsTheBytesInUse)
{
    OwnedBitField o;
    o.b.reserve(8);
    o.b.resize(3);
    o.b.data[0] = 1;
    o.b.data[1] = 2;
    o.b.data[2] = 3;
    o.b.reserve(32);
    EXPECT_EQ(o.b.capacity, 32u);
    EXPECT_EQ(o.b.size, 3u);
    EXPECT_EQ(o.b.data[0], 1);
    EXPECT_EQ(o.b.data[2], 3);
    EXPECT_EQ(CountingAllocator::requests, (std::vector<size_t>{8, 32}));
}

TEST(BitFieldMemory, ReserveZeroAllocatesNothing)
{
    OwnedBitField o;
    o.b.reserve(0);
    EXPECT_EQ(o.b.data, nullptr);
    EXPECT_EQ(o.b.capacity, 0u);
    EXPECT_TRUE(CountingAllocator::requests.empty());
}

TEST(BitFieldMemory, FailedAllocationReportsOutOfMemoryWithoutText)
{
    OwnedBitField o;
    CountingAllocator::fail = true;
    try
    {
        o.b.reserve(16);
        FAIL();
    }
    catch (const BitFieldFailure& f)
    {
        EXPECT_EQ(f.error, zm::BitFieldError::OutOfMemory);
    }
    EXPECT_EQ(CountingAllocator::diagnostics, (std::vector<std::string>{"Out of memory"}));
    EXPECT_EQ(o.b.capacity, 0u);
    CountingAllocator::fail = false;
}

TEST(BitFieldMemory, ResizeDoublesAndFills)
{
    OwnedBitField o;
    o.b.fill = 0xAB;
    o.b.reserve(8);
    o.b.resize(5);
    EXPECT_EQ(o.b.capacity, 8u);
    o.b.resize(9);  // 8 -> 16
    EXPECT_EQ(o.b.capacity, 16u);
    EXPECT_EQ(o.b.size, 9u);
    o.b.resize(33);  // 16 -> 32 -> 64
    EXPECT_EQ(o.b.capacity, 64u);
    EXPECT_EQ(o.b.size, 33u);
    for (uint32_t i = 0; i < 33; ++i)
        EXPECT_EQ(o.b.data[i], 0xAB) << i;
    EXPECT_EQ(CountingAllocator::requests, (std::vector<size_t>{8, 16, 64}));
    o.b.data[0] = 0;
    o.b.resize(2);  // shrinking only changes size
    EXPECT_EQ(o.b.capacity, 64u);
    EXPECT_EQ(o.b.size, 2u);
    o.b.resize(3);  // regrown bytes are filled again
    EXPECT_EQ(o.b.data[0], 0);
    EXPECT_EQ(o.b.data[2], 0xAB);
}

TEST(BitFieldMemory, ResizeWithoutBufferStartsFromEightBytes)
{
    OwnedBitField o;
    o.b.resize(20);
    EXPECT_EQ(o.b.capacity, 32u);
    EXPECT_EQ(o.b.size, 20u);
    EXPECT_EQ(o.b.data[19], 0);
}

TEST(BitFieldMemory, DoublingPastTwoToTheThirtyTwoIsTSizeOverflow)
{
    // A capacity with bit 31 set cannot double: check the report without allocating gigabytes.
    OwnedBitField o;
    o.b.capacity = 0x80000000u;
    o.b.size = 0;
    try
    {
        o.b.resize(0x80000001u);
        FAIL();
    }
    catch (const BitFieldFailure& f)
    {
        EXPECT_EQ(f.error, zm::BitFieldError::SizeOverflow);
    }
    EXPECT_EQ(CountingAllocator::diagnostics, (std::vector<std::string>{"tSize overflow"}));
    EXPECT_TRUE(CountingAllocator::requests.empty());
    o.b.capacity = 0;
}

TEST(BitFieldMemory, AggregateSizingForMaxInput)
{
    // reserve ceil((M + 1) / 64) * 8, then resize to (M >> 3) + 1.
    auto sized = [](uint32_t m, uint32_t& capacity, uint32_t& size, bool& holds71, bool& holds72) {
        OwnedBitField o;
        const uint32_t cap = ((m + 1) >> 6) * 8 + (((m + 1) & 63) ? 8 : 0);
        o.b.reserve(cap);
        if (!((m >> 3) < o.b.size))
            o.b.resize((m >> 3) + 1);
        capacity = o.b.capacity;
        size = o.b.size;
        holds71 = o.b.holds(71);
        holds72 = o.b.holds(72);
    };
    uint32_t c, s;
    bool h71, h72;
    sized(63, c, s, h71, h72);
    EXPECT_EQ(c, 8u);
    EXPECT_EQ(s, 8u);
    sized(64, c, s, h71, h72);
    EXPECT_EQ(c, 16u);
    EXPECT_EQ(s, 9u);
    EXPECT_TRUE(h71);
    EXPECT_FALSE(h72);
}

TEST(BitFieldMemory, SetTestAndRanges)
{
    OwnedBitField o;
    o.b.reserve(8);
    o.b.resize(4);
    o.b.set(0);
    o.b.set(9);
    o.b.setRange(20, 25);
    EXPECT_EQ(o.b.data[0], 0x80);
    EXPECT_EQ(o.b.data[1], 0x40);
    EXPECT_EQ(o.b.data[2], 0x0F);
    EXPECT_EQ(o.b.data[3], 0xC0);
    EXPECT_TRUE(o.b.test(9));
    EXPECT_FALSE(o.b.test(10));
    EXPECT_FALSE(o.b.holds(0xFFFFFFFFu));  // -1 as unsigned
}

// ---- persisted bitfield reader ----

TEST(BitFieldReader, ShorterThanHeaderIsInvalid)
{
    for (uint32_t length : {0u, 4u, 11u})
    {
        std::vector<uint8_t> d(16, 0);
        const zm::BitFieldInfo info = zm::readBitField(d.data(), length);
        EXPECT_EQ(info.status, zm::BitFieldStatus::Invalid);
        EXPECT_TRUE(info.truncated);
    }
}

TEST(BitFieldReader, EmptySpansAreEmptyWhateverTheLength)
{
    const zm::BitFieldInfo a = read(persisted(5, 4, 0));
    EXPECT_EQ(a.status, zm::BitFieldStatus::Empty);
    EXPECT_EQ(a.first, 5);
    EXPECT_EQ(a.last, 4);
    EXPECT_EQ(read(persisted(0, -1, 1)).status, zm::BitFieldStatus::Empty);  // 13 bytes
    EXPECT_EQ(read(persisted(0, -1, 8)).status, zm::BitFieldStatus::Empty);  // 20 bytes
    EXPECT_EQ(read(persisted(0, -1, 3)).status, zm::BitFieldStatus::Empty);
    // The whole int4 range has 2^32 values: the count wraps to 0.
    EXPECT_EQ(read(persisted(INT32_MIN, INT32_MAX, 0)).status, zm::BitFieldStatus::Empty);
}

TEST(BitFieldReader, DataLengthMustBeExact)
{
    const zm::BitFieldInfo ok = read(persisted(0, 63, 8));
    EXPECT_EQ(ok.status, zm::BitFieldStatus::Ok);
    EXPECT_EQ(ok.end - ok.begin, 8);
    EXPECT_EQ(read(persisted(0, 64, 16)).status, zm::BitFieldStatus::Ok);
    EXPECT_EQ(read(persisted(0, 63, 16)).status, zm::BitFieldStatus::Invalid);
    EXPECT_EQ(read(persisted(0, 64, 8)).status, zm::BitFieldStatus::Invalid);
    EXPECT_EQ(read(persisted(0, 0, 7)).status, zm::BitFieldStatus::Invalid);
    EXPECT_EQ(read(persisted(0, 0, 9)).status, zm::BitFieldStatus::Invalid);
    const zm::BitFieldInfo shortOne = read(persisted(7, 9, 0));
    EXPECT_EQ(shortOne.status, zm::BitFieldStatus::Invalid);
    EXPECT_FALSE(shortOne.truncated);
    EXPECT_EQ(shortOne.first, 7);  // read before the length check
    EXPECT_EQ(shortOne.last, 9);
}

TEST(BitFieldReader, ReversedSpanNeedsAHugeLength)
{
    // first 10, last 5: count 2^32 - 4, needing 2^29 data bytes.
    EXPECT_EQ(zm::bitFieldCount(10, 5), 0xFFFFFFFCu);
    EXPECT_EQ(zm::bitFieldDataLength(0xFFFFFFFCu), 0x20000000u);
    EXPECT_EQ(zm::bitFieldDataLength(0xFFFFFFFFu), 0x20000000u);
    EXPECT_EQ(read(persisted(10, 5, 8)).status, zm::BitFieldStatus::Invalid);
    EXPECT_EQ(zm::bitFieldDataLength(1), 8u);
    EXPECT_EQ(zm::bitFieldDataLength(64), 8u);
    EXPECT_EQ(zm::bitFieldDataLength(65), 16u);
}

TEST(BitFieldReader, NegativeFirstValue)
{
    // first -10: -10 is bit 0x80 of byte 0, -3 is 0x01 of byte 0, -2 is 0x80 of byte 1.
    const auto d = persisted(-10, 20, 8, {0x81, 0x80});
    const zm::BitFieldInfo info = read(d);
    ASSERT_EQ(info.status, zm::BitFieldStatus::Ok);
    EXPECT_TRUE(zm::bitFieldHasValue(info, -10));
    EXPECT_TRUE(zm::bitFieldHasValue(info, -3));
    EXPECT_TRUE(zm::bitFieldHasValue(info, -2));
    EXPECT_FALSE(zm::bitFieldHasValue(info, -9));
    EXPECT_FALSE(zm::bitFieldHasValue(info, -1));
    EXPECT_FALSE(zm::bitFieldHasValue(info, -11));
    EXPECT_FALSE(zm::bitFieldHasValue(info, 21));
}

TEST(BitFieldReader, ValueTwelveOfTenToTwenty)
{
    const auto d = persisted(10, 20, 8, {0x20});
    const zm::BitFieldInfo info = read(d);
    ASSERT_EQ(info.status, zm::BitFieldStatus::Ok);
    EXPECT_TRUE(zm::bitFieldHasValue(info, 12));
    EXPECT_FALSE(zm::bitFieldHasValue(info, 13));
    EXPECT_FALSE(zm::bitFieldHasValue(info, 9));
    EXPECT_FALSE(zm::bitFieldHasValue(info, 21));
    EXPECT_TRUE(zm::bitFieldOverlapsRange(info, 0, 12));
    EXPECT_FALSE(zm::bitFieldOverlapsRange(info, 13, 100));
    EXPECT_FALSE(zm::bitFieldOverlapsRange(info, 21, 30));
    EXPECT_FALSE(zm::bitFieldOverlapsRange(info, 12, 11));  // reversed: no value
    const int32_t scalars[] = {12};
    const int32_t twoScalars[] = {12, 13};
    const int32_t pair[] = {12, 12};
    EXPECT_TRUE(zm::bitFieldAllValues(info, scalars, 1));
    EXPECT_FALSE(zm::bitFieldAllValues(info, twoScalars, 2));
    EXPECT_TRUE(zm::bitFieldAnyValue(info, twoScalars, 2));
    EXPECT_TRUE(zm::bitFieldAllRanges(info, pair, 1));
}

// ---- GiST key rule ----

namespace {
struct PollCount
{
    static inline int calls = 0;
    static void check() { ++calls; }
};
}  // namespace

TEST(BitFieldGistRule, LeafLooksAtTheLowerEndInnerAtTheCoveredSpan)
{
    const auto d = persisted(10, 20, 8, {0x20});  // value 12
    const zm::BitFieldInfo info = read(d);
    ASSERT_EQ(info.status, zm::BitFieldStatus::Ok);
    PollCount::calls = 0;
    EXPECT_TRUE(zm::bitFieldKeyConsistent<PollCount>(info, 12, 100, true));
    EXPECT_FALSE(zm::bitFieldKeyConsistent<PollCount>(info, 11, 12, true));
    EXPECT_TRUE(zm::bitFieldKeyConsistent<PollCount>(info, 11, 12, false));
    EXPECT_TRUE(zm::bitFieldKeyConsistent<PollCount>(info, -5, 12, false));
    EXPECT_FALSE(zm::bitFieldKeyConsistent<PollCount>(info, 13, 100, false));
    EXPECT_FALSE(zm::bitFieldKeyConsistent<PollCount>(info, 21, 30, false));
    EXPECT_EQ(PollCount::calls, 0);
}

// Found by fuzzing: an inner key with its ends reversed (as only a damaged index holds) made the
// covered part of the span negative, and the byte scan ran far past the bitfield.
TEST(BitFieldGistRule, ReversedInnerKeyCoversNothing)
{
    const auto d = persisted(0, 100, 16);
    const zm::BitFieldInfo info = read(d);
    ASSERT_EQ(info.status, zm::BitFieldStatus::Ok);
    PollCount::calls = 0;
    EXPECT_FALSE(zm::bitFieldKeyConsistent<PollCount>(info, 50, 10, false));
    EXPECT_FALSE(zm::bitFieldKeyConsistent<PollCount>(info, 100, 0, false));
    EXPECT_EQ(PollCount::calls, 0);
}

// ---- writer ----

namespace {

struct CountPolls
{
    static inline int calls = 0;
    static void check() { ++calls; }
};

std::vector<uint8_t> build(char kind, const std::vector<int32_t>& e, int* polls = nullptr)
{
    zm::BitFieldShape shape{};
    const uint32_t n = static_cast<uint32_t>(e.size());
    if (kind == 'r')
        shape = zm::bitFieldShapeOfRangeArray(e.data(), n);
    else if (kind == 's')
        shape = zm::bitFieldShapeOfScalarArray(e.data(), n);
    else
        shape = zm::bitFieldShapeOfMixArray(e.data(), n);
    std::vector<uint8_t> d = persisted(shape.first, shape.last, shape.dataLength);
    std::fill(d.begin() + 12, d.end(), 0xA5);  // the writer must initialise every data byte
    CountPolls::calls = 0;
    zm::BitFieldSetWriter<CountPolls> w(d.data() + 12, shape);
    if (shape.writeItems)
    {
        if (kind == 'r')
            w.rangeArray(e.data(), n);
        else if (kind == 's')
            w.scalarArray(e.data(), n);
        else
            w.mixItems(e.data() + 1, n - 1);
    }
    w.finish();
    if (polls)
        *polls = CountPolls::calls;
    return d;
}

std::vector<uint8_t> dataOf(const std::vector<uint8_t>& d) { return std::vector<uint8_t>(d.begin() + 12, d.end()); }

}  // namespace

TEST(BitFieldWriter, LayoutsOfTheDocumentedCases)
{
    auto r = build('r', {3, 17});
    EXPECT_EQ(r.size(), 20u);
    EXPECT_EQ(dataOf(r), (std::vector<uint8_t>{0xFF, 0xFE, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(build('r', {}).size(), 13u);
    EXPECT_EQ(build('s', {}).size(), 20u);
    EXPECT_EQ(build('m', {}).size(), 20u);
    for (auto d : {build('r', {}), build('s', {}), build('m', {})})
        EXPECT_EQ(read(d).status, zm::BitFieldStatus::Empty);
    auto s = build('s', {5});
    EXPECT_EQ(s.size(), 20u);
    EXPECT_EQ(s[12], 0x80);
    auto m = build('m', {4, -2147483647, 3, 7});
    const zm::BitFieldInfo mi = read(m);
    ASSERT_EQ(mi.status, zm::BitFieldStatus::Ok);
    EXPECT_EQ(mi.first, 1);
    EXPECT_EQ(mi.last, 7);
    EXPECT_EQ(m[12], 0xE2);
}

TEST(BitFieldWriter, MixCountZeroAndLoneCountElement)
{
    auto zero = build('m', {0, 5, 9});
    EXPECT_EQ(zero.size(), 20u);
    EXPECT_EQ(read(zero).status, zm::BitFieldStatus::Empty);
    EXPECT_EQ(dataOf(zero), std::vector<uint8_t>(8, 0));
    auto lone = build('m', {200});  // first 0, last 0, sized for 0..200
    EXPECT_EQ(lone.size(), 12u + 32u);
    const zm::BitFieldInfo li = read(lone);
    EXPECT_EQ(li.first, 0);
    EXPECT_EQ(li.last, 0);
    EXPECT_EQ(li.status, zm::BitFieldStatus::Invalid);
    EXPECT_EQ(read(build('m', {63})).status, zm::BitFieldStatus::Ok);
}

TEST(BitFieldWriter, ReversedScalarSpanGetsOneByteAndWritesNothing)
{
    auto d = build('s', {9, 1, 5});
    EXPECT_EQ(d.size(), 13u);
    EXPECT_EQ(d[12], 0);
    EXPECT_EQ(read(d).status, zm::BitFieldStatus::Invalid);
    EXPECT_EQ(read(build('s', {9, 8})).status, zm::BitFieldStatus::Empty);  // last = first - 1
}

TEST(BitFieldWriter, UnsortedScalarsOutsideTheSpanAreLeftOut)
{
    auto d = build('s', {10, 1000, -5, 12, 20});
    const zm::BitFieldInfo info = read(d);
    ASSERT_EQ(info.status, zm::BitFieldStatus::Ok);
    EXPECT_EQ(d.size(), 20u);
    EXPECT_EQ(dataOf(d), (std::vector<uint8_t>{0xA0, 0x20, 0, 0, 0, 0, 0, 0}));
}

TEST(BitFieldWriter, FullInt4SpanWrapsToNoData)
{
    auto d = build('s', {INT32_MIN, 0, INT32_MAX});
    EXPECT_EQ(d.size(), 12u);
    EXPECT_EQ(read(d).status, zm::BitFieldStatus::Empty);
    auto r = build('r', {INT32_MIN, INT32_MAX});
    EXPECT_EQ(r.size(), 12u);
}

TEST(BitFieldWriter, ReversedRangeArraySpanIsSizedByTheWrappedCount)
{
    const int32_t reversed[] = {10, 20, 0, 5};
    const zm::BitFieldShape shape = zm::bitFieldShapeOfRangeArray(reversed, 4);
    EXPECT_EQ(shape.first, 10);
    EXPECT_EQ(shape.last, 5);
    EXPECT_EQ(shape.dataLength, 1u << 29);
    // Both ranges lie outside [10, 5] read as signed bounds: a writer over a one-word buffer (the
    // shape's length cut down) must touch nothing.
    std::vector<uint8_t> data(8, 0xA5);
    zm::BitFieldShape cut = shape;
    cut.dataLength = 8;
    CountPolls::calls = 0;
    zm::BitFieldSetWriter<CountPolls> w(data.data(), cut);
    w.rangeArray(reversed, 4);
    w.finish();
    EXPECT_EQ(data, std::vector<uint8_t>(8, 0));
    const int32_t pair[] = {5, 4};  // count 0: no data at all
    EXPECT_EQ(zm::bitFieldShapeOfRangeArray(pair, 2).dataLength, 0u);
}

TEST(BitFieldWriter, WideRangesAreWrittenInSlicesWithPolls)
{
    int polls = 0;
    auto d = build('r', {0, (1 << 26) - 1}, &polls);  // 8 MB of ones
    EXPECT_EQ(d.size(), 12u + (1u << 23));
    EXPECT_EQ(polls, 7);
    const zm::BitFieldInfo info = read(d);
    ASSERT_EQ(info.status, zm::BitFieldStatus::Ok);
    EXPECT_TRUE(zm::allBitsSet(info.begin, 0, (1u << 26) - 1));
}

TEST(BitFieldWriter, RandomSetsRoundTrip)
{
    std::mt19937 rng(2024);
    for (int round = 0; round < 300; ++round)
    {
        // A canonical range array, its scalar and mix forms.
        std::vector<int32_t> ranges, scalars, mix{0};
        int32_t v = static_cast<int32_t>(rng() % 2000) - 1000;
        const int k = 1 + rng() % 20;
        std::set<int32_t> members;
        int32_t count = 0;
        for (int i = 0; i < k; ++i)
        {
            const int32_t lo = v, hi = v + static_cast<int32_t>(rng() % (rng() % 2 ? 3 : 150));
            ranges.push_back(lo);
            ranges.push_back(hi);
            for (int32_t x = lo; x <= hi; ++x)
            {
                scalars.push_back(x);
                members.insert(x);
            }
            if (lo >= 0)
            {
                if (lo == hi)
                    mix.push_back(lo);
                else
                {
                    mix.push_back(static_cast<int32_t>(static_cast<uint32_t>(lo) | 0x80000000u));
                    mix.push_back(hi);
                }
            }
            count += hi - lo + 1;
            v = hi + 2 + static_cast<int32_t>(rng() % 100);
        }
        mix[0] = count;
        const bool mixUsable = ranges[0] >= 0;
        for (char kind : {'r', 's', 'm'})
        {
            if (kind == 'm' && !mixUsable)
                continue;
            const auto d = build(kind, kind == 'r' ? ranges : kind == 's' ? scalars : mix);
            const zm::BitFieldInfo info = read(d);
            ASSERT_EQ(info.status, zm::BitFieldStatus::Ok);
            ASSERT_EQ(info.first, ranges.front());
            ASSERT_EQ(info.last, ranges.back());
            for (int32_t x = ranges.front() - 70; x <= ranges.back() + 70; ++x)
                ASSERT_EQ(zm::bitFieldHasValue(info, x), members.count(x) == 1) << kind << ' ' << x;
            EXPECT_TRUE(zm::bitFieldAllRanges(info, ranges.data(), static_cast<uint32_t>(ranges.size() / 2)));
            EXPECT_TRUE(zm::bitFieldAllValues(info, scalars.data(), static_cast<uint32_t>(scalars.size())));
            if (mixUsable)
            {
                EXPECT_EQ(zm::bitFieldAllMixItems(info, mix.data() + 1, static_cast<uint32_t>(mix.size() - 1)),
                          zm::BitFieldSetTest::True);
            }
            if (k < 2)
                continue;
            // A gap value between the first two ranges is in no range: a range covering it and its
            // neighbours overlaps but is not included.
            const int32_t gap = ranges[1] + 1;
            const int32_t gapPair[] = {gap, gap};
            EXPECT_FALSE(zm::bitFieldAnyRange(info, gapPair, 1));
            const int32_t around[] = {gap - 1, gap + 1};
            EXPECT_TRUE(zm::bitFieldAnyRange(info, around, 1));
            EXPECT_FALSE(zm::bitFieldAllRanges(info, around, 1));
        }
    }
}

TEST(BitFieldWriter, OneStoreWritingMatchesOringIntoZeroedDataForAnyInput)
{
    std::mt19937 rng(99);
    for (int round = 0; round < 3000; ++round)
    {
        const int32_t first = static_cast<int32_t>(rng() % 200) - 100;
        const int32_t last = first + static_cast<int32_t>(rng() % 700);
        const zm::BitFieldShape shape{first, last, zm::bitFieldDataLength(zm::bitFieldCount(first, last)), true};
        std::vector<int32_t> items;
        const int k = rng() % 12;
        const bool sorted = rng() % 2;
        int32_t v = first - 20;
        for (int i = 0; i < k; ++i)
        {
            int32_t lo = sorted ? v + static_cast<int32_t>(rng() % 60) : first - 50 + static_cast<int32_t>(rng() % 800);
            int32_t hi = lo + static_cast<int32_t>(rng() % (rng() % 3 ? 12 : 200)) - (sorted ? 0 : 3);
            items.push_back(lo);
            items.push_back(hi);
            v = hi + 1;
        }
        std::vector<uint8_t> expected(shape.dataLength, 0);
        for (int i = 0; i + 1 < k * 2; i += 2)
        {
            const int32_t l = std::max(items[i], first), u = std::min(items[i + 1], last);
            if (l <= u)
                naiveWrite(expected, static_cast<uint32_t>(l - first), static_cast<uint32_t>(u - first));
        }
        std::vector<uint8_t> data(shape.dataLength, 0x5A);
        CountPolls::calls = 0;
        zm::BitFieldSetWriter<CountPolls> w(data.data(), shape);
        if (rng() % 2)
        {
            w.rangeArray(items.data(), static_cast<uint32_t>(items.size()));
        }
        else
        {
            for (size_t i = 0; i + 1 < items.size(); i += 2)
            {
                if (items[i] == items[i + 1])
                    w.value(items[i]);
                else
                    w.range(items[i], items[i + 1]);
            }
        }
        w.finish();
        ASSERT_EQ(data, expected) << "round " << round;
    }
}
