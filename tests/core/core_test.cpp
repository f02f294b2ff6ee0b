// Core library: aligned allocation, the test hooks the other suites rely on, the feature mask.
#include <dlfcn.h>

#include <cstdint>
#include <cstring>

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
    void* small = vlkMalloc(100);  // below the high-water mark, which stays
    EXPECT_EQ(vlkTestPeakBytes() - before, 1 + 63 + 64 + 1000 + (1 << 20));
    vlkFree(small);
    EXPECT_EQ(vlkTestAllocationCalls(), 6);
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

// The shipped build, which the test programs do not otherwise load: the same allocation
// contract without the test build's size prefix, and none of its hooks.
TEST(CoreAlloc, ShippedBuildAllocatesAlignedBlocks)
{
    void* lib = dlopen(VLKCORE_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    auto* shippedMalloc = reinterpret_cast<void* (*)(int)>(dlsym(lib, "vlkMalloc"));
    auto* shippedFree = reinterpret_cast<void (*)(void*)>(dlsym(lib, "vlkFree"));
    auto* shippedFeatures =
        reinterpret_cast<unsigned long long (*)()>(dlsym(lib, "vlkGetEnabledCpuFeatures"));
    ASSERT_TRUE(shippedMalloc && shippedFree && shippedFeatures);
    ASSERT_NE(reinterpret_cast<void*>(shippedMalloc), reinterpret_cast<void*>(&vlkMalloc));
    EXPECT_EQ(dlsym(lib, "vlkTestLiveBytes"), nullptr);

    EXPECT_EQ(shippedMalloc(0), nullptr);
    EXPECT_EQ(shippedMalloc(-5), nullptr);
    shippedFree(nullptr);
    for (int size : {1, 63, 64, 65, 1000, 1 << 20}) {
        auto* block = static_cast<unsigned char*>(shippedMalloc(size));
        ASSERT_NE(block, nullptr) << size;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 64, 0u) << size;
        std::memset(block, 0x5A, std::size_t(size));  // the whole length is writable
        EXPECT_EQ(block[size - 1], 0x5A);
        shippedFree(block);
    }
    vlkTestOverrideCpuFeatures(0, 0);
    EXPECT_EQ(shippedFeatures(), vlkGetEnabledCpuFeatures());
    dlclose(lib);
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

// Each feature from its own CPUID bit alone (positions as the processor manuals give them), the
// AVX family only where XCR0 says the operating system saves YMM state, and AVX-512F only where
// it also saves the opmask and both ZMM halves.
TEST(CoreFeatures, EachBitDecodedAloneAndWithTheStateItNeeds)
{
    enum Word { kEcx1, kEdx1, kEbx7 };
    enum Needs { kNone, kYmm, kZmm };
    const struct {
        Word word;
        int bit;
        unsigned long long flag;
        Needs needs;
    } rows[] = {{kEdx1, 23, VLK_CPU_MMX, kNone},   {kEdx1, 25, VLK_CPU_SSE, kNone},
                {kEdx1, 26, VLK_CPU_SSE2, kNone},  {kEcx1, 0, VLK_CPU_SSE3, kNone},
                {kEcx1, 9, VLK_CPU_SSSE3, kNone},  {kEcx1, 22, VLK_CPU_MOVBE, kNone},
                {kEcx1, 19, VLK_CPU_SSE41, kNone}, {kEcx1, 20, VLK_CPU_SSE42, kNone},
                {kEcx1, 28, VLK_CPU_AVX, kYmm},    {kEcx1, 25, VLK_CPU_AES, kNone},
                {kEcx1, 1, VLK_CPU_CLMUL, kNone},  {kEcx1, 30, VLK_CPU_RDRAND, kNone},
                {kEcx1, 29, VLK_CPU_F16C, kNone},  {kEbx7, 5, VLK_CPU_AVX2, kYmm},
                {kEcx1, 12, VLK_CPU_FMA, kYmm},    {kEbx7, 3, VLK_CPU_BMI1, kNone},
                {kEbx7, 8, VLK_CPU_BMI2, kNone},   {kEcx1, 23, VLK_CPU_POPCNT, kNone},
                {kEbx7, 16, VLK_CPU_AVX512F, kZmm}};
    // XCR0: nothing, SSE only, SSE and AVX, all but one ZMM half, everything.
    const struct {
        unsigned xcr0;
        Needs gives;
    } states[] = {{0x0, kNone}, {0x2, kNone}, {0x6, kYmm}, {0x66, kYmm}, {0xE6, kZmm}};
    unsigned long long all = 0;
    unsigned words[3] = {};
    for (const auto& r : rows) {
        all |= r.flag;
        words[r.word] |= 1u << r.bit;
        unsigned w[3] = {};
        w[r.word] = 1u << r.bit;
        for (const auto& st : states) {
            const unsigned long long want = r.needs <= st.gives ? r.flag : 0;
            EXPECT_EQ(vlkTestCpuFeaturesFrom(w[kEcx1], w[kEdx1], w[kEbx7], st.xcr0), want)
                << "bit " << r.bit << " of word " << r.word << ", xcr0 " << st.xcr0;
        }
    }
    EXPECT_EQ(vlkTestCpuFeaturesFrom(words[kEcx1], words[kEdx1], words[kEbx7], 0xE6), all);
    EXPECT_EQ(vlkTestCpuFeaturesFrom(~words[kEcx1], ~words[kEdx1], ~words[kEbx7], ~0u), 0u)
        << "no other bit counts";
}

TEST(CoreFeatures, OverrideReplacesTheProbe)
{
    vlkTestOverrideCpuFeatures(1, 0x1234);
    EXPECT_EQ(vlkGetEnabledCpuFeatures(), 0x1234u);
    vlkTestOverrideCpuFeatures(0, 0);
    EXPECT_NE(vlkGetEnabledCpuFeatures(), 0x1234u);
}

}  // namespace
