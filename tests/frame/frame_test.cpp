// Library frame: the version record and the CPU flag recorded at load.
#include <cstring>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "frame/module_entry.h"
#include "vlkcore_testing.h"
#include "vlkr.h"

namespace {

constexpr unsigned long long kBoth = VLK_CPU_SSSE3 | VLK_CPU_MOVBE;  // the features the flag needs

TEST(VersionRecord, IsOneConstantRecord)
{
    const LibVersion* v = vlkrGetLibVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v, vlkrGetLibVersion());
    EXPECT_EQ(v->major, 8);
    EXPECT_EQ(v->minor, 1);
    EXPECT_EQ(v->majorBuild, 1);
    EXPECT_GT(v->build, 0);
    EXPECT_EQ(std::memcmp(v->targetCpu, "mx\0\0", 4), 0);
    EXPECT_STREQ(v->name, "vlkRR PX (mx)");
}

TEST(VersionRecord, VersionStringCarriesTheRevision)
{
    const LibVersion* v = vlkrGetLibVersion();
    EXPECT_EQ(std::string(v->version), "8.1.1 (r" + std::to_string(v->build) + ")");
}

TEST(VersionRecord, BuildDateHasSingleBlanks)
{
    // "Apr 10 2014", "Apr 1 2014": never the two blanks or leading zero of a padded day.
    const std::regex date(R"((Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [1-9][0-9]? \d{4})");
    EXPECT_TRUE(std::regex_match(vlkrGetLibVersion()->buildDate, date))
        << vlkrGetLibVersion()->buildDate;
}

TEST(CpuFlag, SetOnlyWhenBothFeatureBitsArePresent)
{
    constexpr unsigned long long lowSix =
        VLK_CPU_MMX | VLK_CPU_SSE | VLK_CPU_SSE2 | VLK_CPU_SSE3 | VLK_CPU_SSSE3 | VLK_CPU_MOVBE;
    const struct {
        unsigned long long mask;
        int flag;
    } cases[] = {{0, 0},     {VLK_CPU_SSSE3, 0},  {VLK_CPU_MOVBE, 0}, {kBoth, 1},
                 {~0ull, 1}, {~VLK_CPU_SSSE3, 0}, {lowSix, 1}};
    for (const auto& c : cases) {
        vlkTestOverrideCpuFeatures(1, c.mask);
        vlkr::frame::recordCpuFeatures();
        EXPECT_EQ(vlkr::frame::cpuFlag(), c.flag) << std::hex << c.mask;
    }
    vlkTestOverrideCpuFeatures(0, 0);
    vlkr::frame::recordCpuFeatures();
}

TEST(CpuFlag, LoadTimeFlagMatchesTheProcessor)
{
    const unsigned long long mask = vlkGetEnabledCpuFeatures();
    EXPECT_EQ(vlkr::frame::cpuFlag(), (mask & kBoth) == kBoth ? 1 : 0);
}

}  // namespace
