// The growable vector behind every range algorithm: doubling growth, resize, block appends.
// GCC 12 cannot see that size never exceeds capacity and warns about the growth copy on the
// shrinking resize calls below; the copy is not reached there.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wstringop-overflow"
#pragma GCC diagnostic ignored "-Warray-bounds"
#endif

#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string>

#include "TestAllocator.h"

namespace {

struct OwnedInts
{
    IntVec v;
    explicit OwnedInts(size_t capacity) { v.init(capacity); }
    ~OwnedInts() { v.release(); }
};

}  // namespace

TEST(Vector, InitReservesTheRequestedCapacity)
{
    OwnedInts owned(3);
    EXPECT_EQ(owned.v.capacity, 3u);
    EXPECT_EQ(owned.v.size, 0u);
    EXPECT_NE(owned.v.data, nullptr);
    EXPECT_TRUE(owned.v.empty());
}

TEST(Vector, FiveAppendsFromCapacityOneDoubleToEight)
{
    OwnedInts owned(1);
    IntVec& v = owned.v;
    const size_t expectedCapacity[] = {1, 2, 4, 4, 8};
    for (int i = 0; i < 5; ++i)
    {
        v.push_back(100 + i);
        EXPECT_EQ(v.size, static_cast<size_t>(i + 1));
        EXPECT_EQ(v.capacity, expectedCapacity[i]) << "after append " << i + 1;
    }
    EXPECT_EQ(v.capacity, 8u);
    EXPECT_EQ(v.size, 5u);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(v[i], 100 + i);
}

TEST(Vector, RangeElementsKeepTheirValuesAcrossGrowth)
{
    OwnedRanges owned(1);
    for (int i = 0; i < 9; ++i)
        owned.v.push_back(Range{i, -i});
    EXPECT_EQ(owned.v.capacity, 16u);
    ASSERT_EQ(owned.v.size, 9u);
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(owned.v[i], (Range{i, -i}));
    EXPECT_EQ(owned.v.back(), (Range{8, -8}));
}

TEST(Vector, ResizeWithinCapacityOnlyChangesSize)
{
    OwnedInts owned(8);
    IntVec& v = owned.v;
    for (int i = 0; i < 6; ++i)
        v.push_back(i * 7);
    int32_t* const block = v.data;

    v.resize(8);  // up to capacity
    EXPECT_EQ(v.size, 8u);
    EXPECT_EQ(v.capacity, 8u);
    EXPECT_EQ(v.data, block);

    v.resize(2);  // shrinking
    EXPECT_EQ(v.size, 2u);
    EXPECT_EQ(v.capacity, 8u);
    EXPECT_EQ(v.data, block);

    v.resize(0);
    EXPECT_EQ(v.size, 0u);
    EXPECT_EQ(v.capacity, 8u);
    EXPECT_EQ(v.data, block);
}

TEST(Vector, ShrinkingLeavesTheElementsInPlace)
{
    OwnedInts owned(8);
    IntVec& v = owned.v;
    for (int i = 0; i < 6; ++i)
        v.push_back(i * 7);
    v.resize(1);
    v.size = 6;  // the elements beyond the new size were not touched
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(v[i], i * 7);
}

TEST(Vector, ResizeBeyondCapacityDoublesAndKeepsElements)
{
    OwnedInts owned(3);
    IntVec& v = owned.v;
    v.push_back(1);
    v.push_back(2);
    v.resize(7);  // 3 -> 6 -> 12: doubling, not the exact request
    EXPECT_EQ(v.size, 7u);
    EXPECT_EQ(v.capacity, 12u);
    EXPECT_EQ(v[0], 1);
    EXPECT_EQ(v[1], 2);
}

TEST(Vector, BlockAppendGrowsByDoubling)
{
    OwnedInts owned(1);
    const int32_t values[] = {5, 6, 7, 8, 9};
    owned.v.append(values, values + 5);
    EXPECT_EQ(owned.v.size, 5u);
    EXPECT_EQ(owned.v.capacity, 8u);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(owned.v[i], values[i]);

    owned.v.append(values, values);  // nothing to append
    EXPECT_EQ(owned.v.size, 5u);
}

TEST(Vector, ClearKeepsTheBlock)
{
    OwnedInts owned(4);
    owned.v.push_back(1);
    int32_t* const block = owned.v.data;
    owned.v.clear();
    EXPECT_TRUE(owned.v.empty());
    EXPECT_EQ(owned.v.capacity, 4u);
    EXPECT_EQ(owned.v.data, block);
}

TEST(Vector, ReleaseLeavesAnEmptyVector)
{
    IntVec v;
    v.init(2);
    v.push_back(1);
    v.release();
    EXPECT_EQ(v.data, nullptr);
    EXPECT_EQ(v.size, 0u);
    EXPECT_EQ(v.capacity, 0u);
}

TEST(Vector, SizeOverflowIsReportedBeforeAnyAllocation)
{
    OwnedInts owned(1);
    testing::internal::CaptureStdout();
    bool failed = false;
    try
    {
        owned.v.resize(SIZE_MAX);
    }
    catch (const std::bad_alloc&)
    {
        failed = true;
    }
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(failed);
    EXPECT_EQ(out, "tSize overflow\n");
    EXPECT_EQ(owned.v.size, 0u);
    EXPECT_EQ(owned.v.capacity, 1u);
}
