// The zm_int4set_agg_optimized state outside the server: sizing from maxinput, rows, combine,
// serialised layout and the final forms, checked against the range-list state and std::set.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "TestAllocator.h"
#include "zelmorraPgSetAggregate.h"

namespace {

struct OptimizedBitFieldFailure : std::runtime_error
{
    zm::BitFieldError error;
    explicit OptimizedBitFieldFailure(zm::BitFieldError e) : std::runtime_error("bitfield error"), error(e) {}
};

struct OptimizedThrowingPolicy
{
    [[noreturn]] static void report(zm::BitFieldError error) { throw OptimizedBitFieldFailure(error); }
};

struct OptimizedHooks
{
    static void check() {}
};

using OptState = zm::Int4ToSetOpDataOptimizedBase<TestAllocator, OptimizedThrowingPolicy, OptimizedHooks>;
using SetState = zm::Int4ToSetOpDataSetBase<TestAllocator, OptimizedHooks>;
using zm::OptimizedAggStatus;

struct OwnedOpt
{
    OptState s;
    explicit OwnedOpt(int32_t maxInput = 0, int32_t input = 1, int32_t output = 4)
    {
        s.init(nullptr);
        if (maxInput > 0)
        {
            s.sizeFor(maxInput);
            s.inputType = input;
            s.outputType = output;
        }
    }
    ~OwnedOpt() { s.release(); }
    std::vector<int32_t> scalar()
    {
        s.flush();
        std::vector<int32_t> out(s.bitCount());
        s.writeScalar(out.data());
        return out;
    }
    std::vector<int32_t> ranges()
    {
        s.flush();
        std::vector<int32_t> out(2 * s.runCount());
        s.writeRanges(out.data());
        return out;
    }
    std::vector<int32_t> mix()
    {
        s.flush();
        std::vector<int32_t> out(s.mixElementCount());
        s.writeMix(out.data());
        return out;
    }
    std::vector<uint8_t> bytes()
    {
        s.flush();
        std::vector<uint8_t> out(s.serialisedSize());
        s.toBytes(out.data());
        return out;
    }
};

struct OwnedSet
{
    SetState s;
    OwnedSet() { s.init(nullptr); }
    ~OwnedSet() { s.release(); }
    std::vector<int32_t> ranges()
    {
        s.flush();
        std::vector<int32_t> out;
        for (const auto& r : s.ranges)
        {
            out.push_back(r.lower);
            out.push_back(r.upper);
        }
        return out;
    }
    std::vector<int32_t> scalar()
    {
        s.flush();
        std::vector<int32_t> out(s.scalarCount());
        s.writeScalar(out.data());
        return out;
    }
    std::vector<int32_t> mix()
    {
        s.flush();
        std::vector<int32_t> out(s.mixElementCount());
        s.writeMix(out.data());
        return out;
    }
};

TEST(SetAggregateOptimized, FreshStateAndSizing)
{
    OwnedOpt fresh;
    EXPECT_EQ(offsetof(OptState, pending), 40u);
    EXPECT_EQ(fresh.s.inputType, 0);
    EXPECT_EQ(fresh.s.bits.capacity, 0u);
    EXPECT_EQ(fresh.s.bits.data, nullptr);

    OwnedOpt m63(63);
    EXPECT_EQ(m63.s.bits.capacity, 8u);
    EXPECT_EQ(m63.s.bits.size, 8u);
    OwnedOpt m64(64);
    EXPECT_EQ(m64.s.bits.capacity, 16u);
    EXPECT_EQ(m64.s.bits.size, 9u);
    EXPECT_EQ(m64.s.addValue(71), OptimizedAggStatus::Ok);
    EXPECT_EQ(m64.s.addValue(72), OptimizedAggStatus::ValueOutOfRange);
    OwnedOpt m10(10);
    EXPECT_EQ(m10.s.bits.size, 2u);
    EXPECT_EQ(m10.s.maxAccepted(), 15);
    EXPECT_EQ(m10.s.addValue(15), OptimizedAggStatus::Ok);
    EXPECT_EQ(m10.s.addValue(16), OptimizedAggStatus::ValueOutOfRange);
    EXPECT_EQ(m10.s.addValue(-1), OptimizedAggStatus::ValueOutOfRange);
    EXPECT_EQ(m10.scalar(), (std::vector<int32_t>{15}));
    // The whole int4 range above 0: 2^28 bytes, values up to 2147483647.
    OwnedOpt full(INT32_MAX);
    EXPECT_EQ(full.s.bits.capacity, 1u << 28);
    EXPECT_EQ(full.s.bits.size, 1u << 28);
    EXPECT_EQ(full.s.maxAccepted(), INT32_MAX);
    EXPECT_EQ(full.s.addRange(INT32_MAX - 9, INT32_MAX), OptimizedAggStatus::Ok);
    EXPECT_EQ(full.mix(), (std::vector<int32_t>{10, -10, INT32_MAX}));
}

TEST(SetAggregateOptimized, SingleValuesInAllOutputForms)
{
    OwnedOpt st(100);
    for (int v : {7, 3, 1, 2, 2})
        EXPECT_EQ(st.s.addValue(v), OptimizedAggStatus::Ok);
    EXPECT_EQ(st.ranges(), (std::vector<int32_t>{1, 3, 7, 7}));
    EXPECT_EQ(st.scalar(), (std::vector<int32_t>{1, 2, 3, 7}));
    EXPECT_EQ(st.mix(), (std::vector<int32_t>{4, -2147483647, 3, 7}));
    OwnedOpt empty(100);
    EXPECT_TRUE(empty.ranges().empty());
    EXPECT_TRUE(empty.scalar().empty());
    EXPECT_TRUE(empty.mix().empty());
}

TEST(SetAggregateOptimized, Pairs)
{
    OwnedOpt st(100, 2, 3);
    EXPECT_EQ(st.s.addRange(9, 3), OptimizedAggStatus::Ok);  // reversed: nothing
    EXPECT_TRUE(st.scalar().empty());
    EXPECT_EQ(st.s.addRange(5, 9), OptimizedAggStatus::Ok);
    EXPECT_EQ(st.scalar(), (std::vector<int32_t>{5, 6, 7, 8, 9}));
    EXPECT_EQ(st.s.addRange(100, 103), OptimizedAggStatus::Ok);  // the last byte in use ends at 103
    EXPECT_EQ(st.s.addRange(100, 104), OptimizedAggStatus::RangeOutOfRange);
    EXPECT_EQ(st.s.addRange(-1, 3), OptimizedAggStatus::RangeOutOfRange);
}

TEST(SetAggregateOptimized, SetRows)
{
    OwnedOpt st(10, 3, 4);
    const int32_t scalars[] = {3, 16, 1, -4, 2};
    EXPECT_EQ(st.s.addScalarArray(scalars, 5), OptimizedAggStatus::ScalarOutOfRange);
    EXPECT_EQ(st.ranges(), (std::vector<int32_t>{1, 3}));  // the others are set

    OwnedOpt r(20, 4, 4);
    const int32_t odd[] = {1, 2, 3};
    EXPECT_EQ(r.s.addRangeArray(odd, 3), OptimizedAggStatus::NotRangeArray);
    const int32_t pairs[] = {5, 3, 1, 2, 22, 30};
    EXPECT_EQ(r.s.addRangeArray(pairs, 6), OptimizedAggStatus::ScalarOutOfRange);
    EXPECT_EQ(r.ranges(), (std::vector<int32_t>{1, 2, 22, 23}));
    const int32_t inside[] = {-5, -1, 10, 12};
    EXPECT_EQ(r.s.addRangeArray(inside, 4), OptimizedAggStatus::ScalarOutOfRange);
    EXPECT_EQ(r.ranges(), (std::vector<int32_t>{1, 2, 10, 12, 22, 23}));

    OwnedOpt m(20, 5, 4);
    const int32_t mix[] = {99, 1, static_cast<int32_t>(5u | 0x80000000u), 7, 12, static_cast<int32_t>(9u | 0x80000000u)};
    EXPECT_EQ(m.s.addMixArray(mix, 6), OptimizedAggStatus::DanglingOpener);  // the items before it are set
    EXPECT_EQ(m.ranges(), (std::vector<int32_t>{1, 1, 5, 7, 12, 12}));
    const int32_t mixOut[] = {0, static_cast<int32_t>(20u | 0x80000000u), 40};
    EXPECT_EQ(m.s.addMixArray(mixOut, 3), OptimizedAggStatus::ScalarOutOfRange);
    EXPECT_EQ(m.ranges(), (std::vector<int32_t>{1, 1, 5, 7, 12, 12, 20, 23}));
}

TEST(SetAggregateOptimized, RunsAcrossWordsAndAtTheEnd)
{
    OwnedOpt st(200, 2, 4);
    st.s.addRange(0, 0);
    st.s.addRange(62, 130);
    st.s.addRange(132, 132);
    st.s.addRange(190, 207);  // up to the last bit in use (size 26 bytes)
    EXPECT_EQ(st.ranges(), (std::vector<int32_t>{0, 0, 62, 130, 132, 132, 190, 207}));
    EXPECT_EQ(st.mix(), (std::vector<int32_t>{1 + 69 + 1 + 18, 0, -2147483586, 130, 132, -2147483458, 207}));
    EXPECT_EQ(st.s.bitCount(), 89u);
}

TEST(SetAggregateOptimized, MatchesTheRangeListStateOnRandomInput)
{
    int mismatches = 0;
    for (uint32_t seed = 1; seed <= 300; ++seed)
    {
        std::mt19937 rng(seed);
        const int32_t maxInput = 1 + static_cast<int32_t>(rng() % (seed % 3 == 0 ? 5000 : 300));
        OwnedOpt opt(maxInput, 2, 4);
        OwnedSet set;
        std::set<int32_t> reference;
        const int rows = static_cast<int>(rng() % 400);
        for (int i = 0; i < rows; ++i)
        {
            const int32_t lo = static_cast<int32_t>(rng() % static_cast<uint32_t>(maxInput + 1));
            const int32_t hi = std::min<int32_t>(maxInput, lo + static_cast<int32_t>(rng() % 4 == 0 ? rng() % 50 : 0));
            opt.s.addRange(lo, hi);
            set.s.addRange(lo, hi);
            for (int32_t v = lo; v <= hi; ++v)
                reference.insert(v);
        }
        const std::vector<int32_t> expected(reference.begin(), reference.end());
        if (opt.scalar() != expected || opt.scalar() != set.scalar() || opt.ranges() != set.ranges() ||
            opt.mix() != set.mix())
            ++mismatches;
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(SetAggregateOptimized, LargeBitfieldsBufferRowsExactly)
{
    // From 256 KB on, single values and pairs are buffered; the bits after a flush are those of
    // direct writes, at any point of the input.
    const int32_t maxInput = 4000000;
    OwnedOpt batched(maxInput, 2, 4);
    ASSERT_NE(batched.s.pending, nullptr);
    OwnedOpt direct(maxInput, 2, 4);
    direct.s.release();
    direct.s.init(nullptr);
    direct.s.bits.reserve(batched.s.bits.capacity);
    direct.s.bits.resize(batched.s.bits.size);
    direct.s.inputType = 2;
    direct.s.outputType = 4;
    ASSERT_EQ(direct.s.pending, nullptr);
    std::mt19937 rng(11);
    int mismatches = 0;
    for (int i = 0; i < 20000; ++i)
    {
        const int32_t lo = static_cast<int32_t>(rng() % static_cast<uint32_t>(maxInput + 1));
        const int32_t hi = std::min<int32_t>(maxInput, lo + static_cast<int32_t>(rng() % 3 == 0 ? rng() % 100 : 0));
        EXPECT_EQ(batched.s.addRange(lo, hi), OptimizedAggStatus::Ok);
        direct.s.addRange(lo, hi);
        if (i % 3000 == 0)
        {
            EXPECT_LT(batched.s.pendingCount, OptState::batchSize);
            if (batched.bytes() != direct.bytes())
                ++mismatches;
        }
    }
    EXPECT_EQ(batched.s.addValue(maxInput + 8), OptimizedAggStatus::ValueOutOfRange);  // checked at once
    EXPECT_EQ(batched.s.addRange(5, maxInput + 8), OptimizedAggStatus::RangeOutOfRange);
    if (batched.bytes() != direct.bytes() || batched.mix() != direct.mix())
        ++mismatches;
    EXPECT_EQ(mismatches, 0);
    OwnedOpt small(OptState::batchFromBytes * 8 - 9, 1, 4);  // one byte short
    EXPECT_EQ(small.s.pending, nullptr);
}

TEST(SetAggregateOptimized, Combine)
{
    // maxinput 10 (2 bytes) and 100 (13 bytes): 13 bytes holding both sets.
    OwnedOpt a(10), b(100), fresh;
    a.s.addValue(3);
    a.s.addValue(15);
    b.s.addValue(4);
    b.s.addValue(100);
    fresh.s.copyFrom(a.s);
    EXPECT_EQ(fresh.s.addOtherCtx(b.s), OptimizedAggStatus::Ok);
    EXPECT_EQ(fresh.s.bits.size, 13u);
    EXPECT_EQ(fresh.s.bits.capacity, 16u);
    EXPECT_EQ(fresh.scalar(), (std::vector<int32_t>{3, 4, 15, 100}));
    EXPECT_EQ(a.scalar(), (std::vector<int32_t>{3, 15}));  // arguments unchanged
    EXPECT_EQ(b.s.bits.size, 13u);

    // The other way round: the larger state first, the smaller ORed into its first bytes.
    OwnedOpt fresh2;
    fresh2.s.copyFrom(b.s);
    EXPECT_EQ(fresh2.s.addOtherCtx(a.s), OptimizedAggStatus::Ok);
    EXPECT_EQ(fresh2.s.bits.size, 13u);
    EXPECT_EQ(fresh2.scalar(), (std::vector<int32_t>{3, 4, 15, 100}));

    OwnedOpt other(10, 1, 3);
    EXPECT_EQ(fresh.s.addOtherCtx(other.s), OptimizedAggStatus::CombineMismatch);
    OwnedOpt uninitialised;
    EXPECT_EQ(fresh.s.addOtherCtx(uninitialised.s), OptimizedAggStatus::CombineMismatch);

    // Large states are ORed word by word, with a tail.
    OwnedOpt big1(100000), big2(99999), merged;
    std::mt19937 rng(5);
    std::set<int32_t> reference;
    for (int i = 0; i < 3000; ++i)
    {
        const int32_t v = static_cast<int32_t>(rng() % 100000);
        (i % 2 ? big1 : big2).s.addValue(v);
        reference.insert(v);
    }
    merged.s.copyFrom(big2.s);
    EXPECT_EQ(merged.s.addOtherCtx(big1.s), OptimizedAggStatus::Ok);
    EXPECT_EQ(merged.scalar(), std::vector<int32_t>(reference.begin(), reference.end()));
}

TEST(SetAggregateOptimized, SerialisedLayout)
{
    OwnedOpt st(20, 1, 5);
    st.s.addValue(0);
    st.s.addValue(9);
    const std::vector<uint8_t> bytes = st.bytes();
    // types, capacity 8, then 3 bytes: 0x80, 0x40, 0x00
    EXPECT_EQ(bytes, (std::vector<uint8_t>{1, 5, 8, 0, 0, 0, 0x80, 0x40, 0x00}));
    OwnedOpt back;
    EXPECT_EQ(back.s.fromBytes(bytes.data(), bytes.size()), OptimizedAggStatus::Ok);
    EXPECT_EQ(back.s.inputType, 1);
    EXPECT_EQ(back.s.outputType, 5);
    EXPECT_EQ(back.s.bits.capacity, 8u);
    EXPECT_EQ(back.s.bits.size, 3u);
    EXPECT_EQ(back.bytes(), bytes);
    EXPECT_EQ(back.mix(), (std::vector<int32_t>{2, 0, 9}));

    OwnedOpt fresh;
    EXPECT_EQ(fresh.bytes(), (std::vector<uint8_t>{0, 0, 0, 0, 0, 0}));
}

TEST(SetAggregateOptimized, FromBytesErrors)
{
    // Total length 10 (header and 6 bytes), capacity 0: an empty state without buffer.
    const uint8_t empty[6] = {0, 0, 0, 0, 0, 0};
    OwnedOpt a;
    EXPECT_EQ(a.s.fromBytes(empty, 6), OptimizedAggStatus::Ok);
    EXPECT_EQ(a.s.bits.data, nullptr);
    OwnedOpt b;
    EXPECT_EQ(b.s.fromBytes(empty, 5), OptimizedAggStatus::EmptyBytea);
    // Total length 18 (8 data bytes) with capacity 4: corrupted.
    uint8_t eight[14] = {1, 4, 4, 0, 0, 0};
    OwnedOpt c;
    EXPECT_EQ(c.s.fromBytes(eight, 14), OptimizedAggStatus::Corrupted);
    // Capacity 12: refused by reserve.
    eight[2] = 12;
    OwnedOpt d;
    try
    {
        d.s.fromBytes(eight, 14);
        ADD_FAILURE() << "no error";
    }
    catch (const OptimizedBitFieldFailure& e)
    {
        EXPECT_EQ(e.error, zm::BitFieldError::InvalidCapacity);
    }
    // Negative capacity.
    uint8_t negative[6] = {1, 4, 0xF8, 0xFF, 0xFF, 0xFF};
    OwnedOpt e;
    EXPECT_EQ(e.s.fromBytes(negative, 6), OptimizedAggStatus::Corrupted);
    // Capacity given, no data bytes: an allocated but unused buffer.
    uint8_t noData[6] = {1, 4, 16, 0, 0, 0};
    OwnedOpt f;
    EXPECT_EQ(f.s.fromBytes(noData, 6), OptimizedAggStatus::Ok);
    EXPECT_EQ(f.s.bits.capacity, 16u);
    EXPECT_EQ(f.s.bits.size, 0u);
    EXPECT_TRUE(f.scalar().empty());
}

}  // namespace

namespace {

// Hostile serial forms: whatever the bytes, both readers either refuse them with a status (or the
// bitfield's capacity error) or give a state whose outputs can be computed within its buffers.
TEST(SetAggregateStates, HostileSerialForms)
{
    std::mt19937 rng(99);
    int accepted = 0;
    for (int round = 0; round < 20000; ++round)
    {
        std::vector<uint8_t> bytes(rng() % 48);
        for (auto& b : bytes)
            b = static_cast<uint8_t>(rng());
        if (bytes.size() >= 6 && rng() % 2)
        {
            // A plausible capacity: small, sometimes a multiple of 8 at least the data length.
            const int32_t capacity = static_cast<int32_t>(rng() % 4 == 0 ? rng() % 64 : ((bytes.size() - 6 + 7) / 8) * 8);
            std::memcpy(bytes.data() + 2, &capacity, 4);
        }
        {
            OwnedSet set;
            set.s.release();
            set.s.init(nullptr, false);
            if (set.s.fromBytes(bytes.data(), bytes.size()) == zm::SetAggStatus::Ok)
            {
                ++accepted;
                set.s.flush();
                if (set.s.scalarCount() < 100000)
                {
                    std::vector<int32_t> out(set.s.scalarCount());
                    set.s.writeScalar(out.data());
                }
                std::vector<int32_t> mix(set.s.mixElementCount());
                set.s.writeMix(mix.data());
            }
        }
        {
            OwnedOpt opt;
            try
            {
                if (opt.s.fromBytes(bytes.data(), bytes.size()) == OptimizedAggStatus::Ok)
                {
                    ++accepted;
                    std::vector<int32_t> out(opt.s.bitCount());
                    opt.s.writeScalar(out.data());
                    std::vector<int32_t> ranges(2 * opt.s.runCount());
                    opt.s.writeRanges(ranges.data());
                    std::vector<int32_t> mix(opt.s.mixElementCount());
                    opt.s.writeMix(mix.data());
                    std::vector<uint8_t> again(opt.s.serialisedSize());
                    opt.s.toBytes(again.data());
                }
            }
            catch (const OptimizedBitFieldFailure& e)
            {
                EXPECT_EQ(e.error, zm::BitFieldError::InvalidCapacity);
            }
        }
    }
    EXPECT_GT(accepted, 1000);
}

}  // namespace
