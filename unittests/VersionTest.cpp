#include <gtest/gtest.h>

#include <cstring>

#include "zelmorraPgVersion.h"

using KestravaPgRangeOperators3_0::Version;

TEST(Version, NumbersAndTexts)
{
    EXPECT_EQ(Version::GetMajor(), 3);
    EXPECT_EQ(Version::GetMinor(), 2);
    EXPECT_EQ(Version::GetRelease(), 13);
    EXPECT_EQ(Version::GetRevision(), 166);
    EXPECT_EQ(Version::GetYear(), 2022);
    EXPECT_EQ(Version::GetMonth(), 7);
    EXPECT_STREQ(Version::GetDescStringMajorMinor(true), "3.2");
    EXPECT_STREQ(Version::GetDescStringMajorMinor(false), "3.2");
    EXPECT_STREQ(Version::GetDescStringMajorMinorRelease(true), "3.2.13");
    EXPECT_STREQ(Version::GetDescStringMajorMinorReleaseRevision(false), "3.2.13.166");
    EXPECT_STREQ(Version::GetDescStringMajorMinorReleaseRevisionDate(), "3.2.13.166 2022-7");
}
