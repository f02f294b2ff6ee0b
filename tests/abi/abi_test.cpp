// Binary interface: record layouts, status values, and every exported name reachable by dlsym.
#include <dlfcn.h>

#include <cstddef>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vlkr.h"

extern "C" int vlkrHeaderCompilesAsC99(void);

namespace {

std::vector<std::string> namesInVersionScript()
{
    std::ifstream map(VLKR_SOURCE_DIR "/frame/vlkr.map");
    std::vector<std::string> names;
    std::string line;
    const std::regex entry(R"(^\s*(vlkr\w+);\s*$)");
    std::smatch m;
    while (std::getline(map, line))
        if (std::regex_match(line, m, entry)) names.push_back(m[1]);
    return names;
}

TEST(AbiLayout, RecordsHaveTheirFixedOffsets)
{
    EXPECT_EQ(offsetof(LibVersion, targetCpu), 16u);
    EXPECT_EQ(offsetof(LibVersion, buildDate), 40u);
    EXPECT_EQ(offsetof(TriangleAccel, e1v), 36u);
    EXPECT_EQ(offsetof(KDTreeBuildContext, quality), 8u);
    EXPECT_EQ(offsetof(KDTreeBuildContext, memory), 12u);
    EXPECT_EQ(offsetof(IntersectContext, pRootNode), 16u);
    EXPECT_EQ(offsetof(Cuboid, width), 12u);
    EXPECT_EQ(vlkrHeaderCompilesAsC99(), 8);
}

TEST(AbiLayout, StatusAndTagValues)
{
    const std::pair<int, int> codes[] = {
        {vlkStatusOk, 0},          {vlkStatusNoOperation, 1},   {vlkStatusDivByZero, 6},
        {vlkStatusWrongIntersectROI, 29}, {vlkStatusWrongIntersectVOI, 40},
        {vlkStatusNoMemory, -4},   {vlkStatusBadArg, -5},       {vlkStatusSize, -6},
        {vlkStatusAlgType, -7},    {vlkStatusNullPtr, -8},      {vlkStatusMemAlloc, -9},
        {vlkStatusOutOfRange, -11}, {vlkStatusStep, -14},       {vlkStatusInterpolation, -22},
        {vlkStatusResizeFactor, -23}, {vlkStatusNumChannels, -53}, {vlkStatusCoeff, -56},
        {vlkStatusRegionTooSmall, -57}};
    for (auto [got, want] : codes) EXPECT_EQ(got, want);
    EXPECT_EQ(KDTreeBuildSimple, 0x499D3DC2u);
    EXPECT_EQ(KDTreeBuildSAH, 0x2D07705Bu);
    EXPECT_EQ(SHTypeDirect, 0);
    EXPECT_EQ(SHTypeRecurrence, 1);
}

TEST(AbiExports, EveryListedNameResolvesToItsOwnCode)
{
    const auto names = namesInVersionScript();
    ASSERT_FALSE(names.empty());
    void* lib = dlopen(VLKR_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    std::set<void*> seen;
    for (const auto& name : names) {
        void* sym = dlsym(lib, name.c_str());
        EXPECT_NE(sym, nullptr) << name;
        EXPECT_TRUE(seen.insert(sym).second) << name << " shares its code with another export";
    }
    EXPECT_EQ(dlsym(lib, "vlkrGetLibVersion"), reinterpret_cast<void*>(&vlkrGetLibVersion));
    // Internal helpers stay hidden.
    EXPECT_EQ(dlsym(lib, "_ZN4vlkr8raytrace15computeBoundBoxEPKfiPf"), nullptr);
    dlclose(lib);
}

}  // namespace
