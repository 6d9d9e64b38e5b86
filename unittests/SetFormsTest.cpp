// The representation codes and the mix encoding shared by every reader and writer of the forms.
#include <gtest/gtest.h>

#include <climits>
#include <utility>
#include <vector>

#include "zelmorraPgSetForms.h"

namespace {

using Items = std::vector<std::pair<int32_t, int32_t>>;

zm::mix::Walk walk(const std::vector<int32_t>& items, Items& seen, size_t stopAfter = SIZE_MAX)
{
    seen.clear();
    return zm::mix::walkItems(items.data(), items.size(), [&seen, stopAfter](int32_t lower, int32_t upper) {
        seen.emplace_back(lower, upper);
        return seen.size() < stopAfter;
    });
}

}  // namespace

TEST(MixEncoding, OpenerRoundTrip)
{
    for (int32_t lower : {0, 1, 2, 12345, INT32_MAX})
    {
        const int32_t opener = zm::mix::rangeOpener(lower);
        EXPECT_TRUE(zm::mix::opensRange(opener));
        EXPECT_EQ(zm::mix::rangeLower(opener), lower);
        EXPECT_FALSE(zm::mix::opensRange(lower));
        EXPECT_EQ(zm::mix::rangeLower(lower), lower);  // a value is its own lower bound
    }
    EXPECT_EQ(zm::mix::rangeOpener(1), -2147483647);
    EXPECT_EQ(zm::mix::rangeOpener(0), INT32_MIN);
}

TEST(MixWalk, ValuesAndRangesInOrder)
{
    Items seen;
    // {4,-2147483647,3,5} without its count element: the range [1,3], then 5.
    EXPECT_EQ(walk({-2147483647, 3, 5}, seen), zm::mix::Walk::Complete);
    EXPECT_EQ(seen, (Items{{1, 3}, {5, 5}}));
    // The upper bound is taken as given, negative or below the lower bound.
    EXPECT_EQ(walk({zm::mix::rangeOpener(30), -7, 2}, seen), zm::mix::Walk::Complete);
    EXPECT_EQ(seen, (Items{{30, -7}, {2, 2}}));
    EXPECT_EQ(walk({}, seen), zm::mix::Walk::Complete);
    EXPECT_TRUE(seen.empty());
}

TEST(MixWalk, AnOpenerAsLastElementIsReportedAfterTheItemsBeforeIt)
{
    Items seen;
    EXPECT_EQ(walk({9, zm::mix::rangeOpener(20)}, seen), zm::mix::Walk::DanglingOpener);
    EXPECT_EQ(seen, (Items{{9, 9}}));
    EXPECT_EQ(walk({zm::mix::rangeOpener(0)}, seen), zm::mix::Walk::DanglingOpener);
    EXPECT_TRUE(seen.empty());
    // An opener in the upper bound's place is that range's upper bound, not a dangling opener.
    EXPECT_EQ(walk({zm::mix::rangeOpener(5), zm::mix::rangeOpener(6)}, seen), zm::mix::Walk::Complete);
    EXPECT_EQ(seen, (Items{{5, zm::mix::rangeOpener(6)}}));
}

TEST(MixWalk, TheVisitorEndsTheWalk)
{
    Items seen;
    EXPECT_EQ(walk({1, 2, zm::mix::rangeOpener(3)}, seen, 1), zm::mix::Walk::Stopped);
    EXPECT_EQ(seen, (Items{{1, 1}}));
}

TEST(SetForms, KindCodes)
{
    EXPECT_EQ(zm::pgRangeArray::ArrayDataTypeUninitialised, 0);
    EXPECT_EQ(zm::pgRangeArray::ArrayDataTypeSingleValue, 1);
    EXPECT_EQ(zm::pgRangeArray::ArrayDataTypeLowerUpperPair, 2);
    EXPECT_EQ(zm::pgRangeArray::ArrayDataTypeScalar, 3);
    EXPECT_EQ(zm::pgRangeArray::ArrayDataTypeRange, 4);
    EXPECT_EQ(zm::pgRangeArray::ArrayDataTypeMix, 5);
}
