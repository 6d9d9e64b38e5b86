#include <gtest/gtest.h>

#include <climits>
#include <random>

#include "zelmorraPgPackedRange.h"

using zm::pgRangeArray::packRange;
using zm::pgRangeArray::unpackRange;

TEST(PackedRange, BitPlacement)
{
    EXPECT_EQ(packRange(5, 5), 21474836485LL);
    EXPECT_EQ(packRange(-1, 0), 4294967295LL);  // a negative lower end stays in the low half
    EXPECT_EQ(packRange(-2, -1), -2LL);         // all bits set but bit 0
    EXPECT_EQ(packRange(-5, 3), 17179869179LL);
    EXPECT_EQ(packRange(0, 0), 0LL);
    EXPECT_EQ(packRange(-1, -1), -1LL);
    EXPECT_EQ(packRange(INT_MIN, INT_MAX), static_cast<int64_t>(0x7FFFFFFF80000000ULL));
    EXPECT_EQ(packRange(INT_MIN, INT_MIN), static_cast<int64_t>(0x8000000080000000ULL));
}

TEST(PackedRange, UnpackGivesBothEnds)
{
    const auto r = unpackRange(-2);
    EXPECT_EQ(r.lower, -2);
    EXPECT_EQ(r.upper, -1);
    const auto s = unpackRange(17179869179LL);
    EXPECT_EQ(s.lower, -5);
    EXPECT_EQ(s.upper, 3);
    // Any int8 splits, also one whose halves are out of order.
    const auto t = unpackRange(packRange(5, 4));
    EXPECT_EQ(t.lower, 5);
    EXPECT_EQ(t.upper, 4);
}

TEST(PackedRange, RoundTripRandom)
{
    std::mt19937 rng(7);
    std::uniform_int_distribution<int32_t> any(INT_MIN, INT_MAX);
    for (int i = 0; i < 100000; ++i)
    {
        const int32_t lo = any(rng);
        const int32_t hi = any(rng);
        const int64_t packed = packRange(lo, hi);
        EXPECT_EQ(unpackRange(packed).lower, lo);
        EXPECT_EQ(unpackRange(packed).upper, hi);
        // The packed value read as a signed number has the sign of the upper end.
        EXPECT_EQ(packed < 0, hi < 0);
        EXPECT_EQ(packRange(unpackRange(packed).lower, unpackRange(packed).upper), packed);
    }
}
