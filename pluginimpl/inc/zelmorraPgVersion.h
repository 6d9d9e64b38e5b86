// Version record of the library, also shown by the SQL function kestrava_range_operators_version().
#pragma once

namespace KestravaPgRangeOperators3_0 {

class Version
{
public:
    static constexpr int GetMajor() { return 3; }
    static constexpr int GetMinor() { return 2; }
    static constexpr int GetRelease() { return 13; }
    static constexpr int GetRevision() { return 166; }
    static constexpr int GetYear() { return 2022; }
    static constexpr int GetMonth() { return 7; }

    // The flag is accepted for compatibility and does not change the text.
    static const char* GetDescStringMajorMinor(bool = false) { return "3.2"; }
    static const char* GetDescStringMajorMinorRelease(bool = false) { return "3.2.13"; }
    static const char* GetDescStringMajorMinorReleaseRevision(bool = false) { return "3.2.13.166"; }
    static const char* GetDescStringMajorMinorReleaseRevisionDate() { return "3.2.13.166 2022-7"; }
};

}  // namespace KestravaPgRangeOperators3_0
