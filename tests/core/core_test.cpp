// Core library: aligned allocation, the test hooks the other suites rely on, the feature mask.
#include <cstdint>

#include <gtest/gtest.h>

#include "vlkcore_testing.h"

namespace {

TEST(CoreAlloc, NonPositiveLengthsGiveNull)
{
    EXPECT_EQ(vlkMalloc(0), nullptr);
    EXPECT_EQ(vlkMalloc(-1), nullptr);
    EXPECT_EQ(vlkMalloc(INT32_MIN), nullptr);
    vlkFree(nullptr);
}

TEST(CoreAlloc, BlocksAreAlignedTo64AndCounted)
{
    vlkTestResetAllocations();
    const long long before = vlkTestLiveBytes();
    void* blocks[5];
    const int sizes[5] = {1, 63, 64, 1000, 1 << 20};
    for (int i = 0; i < 5; ++i) {
        blocks[i] = vlkMalloc(sizes[i]);
        ASSERT_NE(blocks[i], nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(blocks[i]) % 64, 0u);
    }
    EXPECT_EQ(vlkTestLiveBytes() - before, 1 + 63 + 64 + 1000 + (1 << 20));
    for (void* b : blocks) vlkFree(b);
    EXPECT_EQ(vlkTestLiveBytes(), before);
    EXPECT_EQ(vlkTestPeakBytes() - before, 1 + 63 + 64 + 1000 + (1 << 20));
    EXPECT_EQ(vlkTestAllocationCalls(), 5);
}

TEST(CoreAlloc, InjectedFailureHitsExactlyTheChosenCall)
{
    vlkTestResetAllocations();
    vlkTestFailAllocationAt(3);
    void* a = vlkMalloc(8);
    void* b = vlkMalloc(8);
    void* c = vlkMalloc(8);
    void* d = vlkMalloc(8);
    EXPECT_NE(a, nullptr);
    EXPECT_NE(b, nullptr);
    EXPECT_EQ(c, nullptr);
    EXPECT_NE(d, nullptr);
    vlkFree(a);
    vlkFree(b);
    vlkFree(d);
    vlkTestResetAllocations();
}

TEST(CoreFeatures, MaskAgreesWithTheCompilersProbe)
{
    vlkTestOverrideCpuFeatures(0, 0);
    const unsigned long long mask = vlkGetEnabledCpuFeatures();
    __builtin_cpu_init();
    EXPECT_TRUE(mask & VLK_CPU_SSE2);
    EXPECT_EQ(!!(mask & VLK_CPU_SSE3), !!__builtin_cpu_supports("sse3"));
    EXPECT_EQ(!!(mask & VLK_CPU_SSSE3), !!__builtin_cpu_supports("ssse3"));
    EXPECT_EQ(!!(mask & VLK_CPU_SSE41), !!__builtin_cpu_supports("sse4.1"));
    EXPECT_EQ(!!(mask & VLK_CPU_SSE42), !!__builtin_cpu_supports("sse4.2"));
    EXPECT_EQ(!!(mask & VLK_CPU_POPCNT), !!__builtin_cpu_supports("popcnt"));
    EXPECT_EQ(!!(mask & VLK_CPU_AVX), !!__builtin_cpu_supports("avx"));
    EXPECT_EQ(!!(mask & VLK_CPU_AVX2), !!__builtin_cpu_supports("avx2"));
    EXPECT_EQ(!!(mask & VLK_CPU_FMA), !!__builtin_cpu_supports("fma"));
    EXPECT_EQ(!!(mask & VLK_CPU_BMI1), !!__builtin_cpu_supports("bmi"));
    EXPECT_EQ(!!(mask & VLK_CPU_BMI2), !!__builtin_cpu_supports("bmi2"));
    EXPECT_EQ(!!(mask & VLK_CPU_AVX512F), !!__builtin_cpu_supports("avx512f"));
}

TEST(CoreFeatures, OverrideReplacesTheProbe)
{
    vlkTestOverrideCpuFeatures(1, 0x1234);
    EXPECT_EQ(vlkGetEnabledCpuFeatures(), 0x1234u);
    vlkTestOverrideCpuFeatures(0, 0);
    EXPECT_NE(vlkGetEnabledCpuFeatures(), 0x1234u);
}

}  // namespace
