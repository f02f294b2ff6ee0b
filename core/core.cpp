// The vlkcore library: 64-byte-aligned allocation and the CPUID feature query.
#include "vlkcore.h"

#include <cpuid.h>
#include <cstdint>
#include <cstdlib>

#ifdef VLKCORE_TESTING
#include "vlkcore_testing.h"
#endif

namespace {

constexpr std::size_t kAlignment = 64;

#ifdef VLKCORE_TESTING
// Test build only: every block carries its size in a 64-byte prefix so that live bytes can be
// counted, and the Nth allocation can be made to fail.
struct AllocStats {
    long long calls = 0;
    long long failAt = 0;
    long long liveBytes = 0;
    long long peakBytes = 0;
    unsigned long long featureOverride = 0;
    bool overrideFeatures = false;
};
AllocStats gStats;  // test-only bookkeeping; the shipped library has no globals
#endif

bool osSavesYmm(unsigned ecx1) noexcept
{
    constexpr unsigned kOsxsave = 1u << 27;
    if (!(ecx1 & kOsxsave)) return false;
    unsigned lo, hi;
    __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    return (lo & 0x6) == 0x6;  // XMM and YMM state enabled
}

bool osSavesZmm() noexcept
{
    unsigned lo, hi;
    __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    return (lo & 0xE6) == 0xE6;  // XMM, YMM, opmask and both ZMM halves
}

unsigned long long readCpuFeatures() noexcept
{
    unsigned a, b, c, d;
    if (!__get_cpuid(1, &a, &b, &c, &d)) return 0;
    const unsigned ecx1 = c;
    const unsigned edx1 = d;
    unsigned ebx7 = 0;
    if (__get_cpuid_max(0, nullptr) >= 7) {
        __cpuid_count(7, 0, a, b, c, d);
        ebx7 = b;
    }
    auto bit = [](unsigned reg, int n) { return (reg >> n) & 1u; };
    const bool ymm = osSavesYmm(ecx1);
    unsigned long long mask = 0;
    if (bit(edx1, 23)) mask |= VLK_CPU_MMX;
    if (bit(edx1, 25)) mask |= VLK_CPU_SSE;
    if (bit(edx1, 26)) mask |= VLK_CPU_SSE2;
    if (bit(ecx1, 0)) mask |= VLK_CPU_SSE3;
    if (bit(ecx1, 9)) mask |= VLK_CPU_SSSE3;
    if (bit(ecx1, 22)) mask |= VLK_CPU_MOVBE;
    if (bit(ecx1, 19)) mask |= VLK_CPU_SSE41;
    if (bit(ecx1, 20)) mask |= VLK_CPU_SSE42;
    if (bit(ecx1, 28) && ymm) mask |= VLK_CPU_AVX;
    if (bit(ecx1, 25)) mask |= VLK_CPU_AES;
    if (bit(ecx1, 1)) mask |= VLK_CPU_CLMUL;
    if (bit(ecx1, 30)) mask |= VLK_CPU_RDRAND;
    if (bit(ecx1, 29)) mask |= VLK_CPU_F16C;
    if (bit(ebx7, 5) && ymm) mask |= VLK_CPU_AVX2;
    if (bit(ecx1, 12) && ymm) mask |= VLK_CPU_FMA;
    if (bit(ebx7, 3)) mask |= VLK_CPU_BMI1;
    if (bit(ebx7, 8)) mask |= VLK_CPU_BMI2;
    if (bit(ecx1, 23)) mask |= VLK_CPU_POPCNT;
    if (bit(ebx7, 16) && ymm && osSavesZmm()) mask |= VLK_CPU_AVX512F;
    return mask;
}

}  // namespace

extern "C" {

VLKCORE_API void* vlkMalloc(int length)
{
    if (length <= 0) return nullptr;
#ifdef VLKCORE_TESTING
    ++gStats.calls;
    if (gStats.failAt != 0 && gStats.calls == gStats.failAt) return nullptr;
    void* raw = nullptr;
    if (posix_memalign(&raw, kAlignment, kAlignment + static_cast<std::size_t>(length)) != 0)
        return nullptr;
    *static_cast<long long*>(raw) = length;
    gStats.liveBytes += length;
    if (gStats.liveBytes > gStats.peakBytes) gStats.peakBytes = gStats.liveBytes;
    return static_cast<char*>(raw) + kAlignment;
#else
    void* block = nullptr;
    if (posix_memalign(&block, kAlignment, static_cast<std::size_t>(length)) != 0) return nullptr;
    return block;
#endif
}

VLKCORE_API void vlkFree(void* ptr)
{
    if (!ptr) return;
#ifdef VLKCORE_TESTING
    char* raw = static_cast<char*>(ptr) - kAlignment;
    gStats.liveBytes -= *reinterpret_cast<long long*>(raw);
    std::free(raw);
#else
    std::free(ptr);
#endif
}

VLKCORE_API unsigned long long vlkGetEnabledCpuFeatures(void)
{
#ifdef VLKCORE_TESTING
    if (gStats.overrideFeatures) return gStats.featureOverride;
#endif
    return readCpuFeatures();
}

#ifdef VLKCORE_TESTING
VLKCORE_API void vlkTestResetAllocations(void)
{
    gStats.calls = 0;
    gStats.failAt = 0;
    gStats.peakBytes = gStats.liveBytes;
}

VLKCORE_API void vlkTestFailAllocationAt(long long call) { gStats.failAt = call; }
VLKCORE_API long long vlkTestAllocationCalls(void) { return gStats.calls; }
VLKCORE_API long long vlkTestLiveBytes(void) { return gStats.liveBytes; }
VLKCORE_API long long vlkTestPeakBytes(void) { return gStats.peakBytes; }

VLKCORE_API void vlkTestOverrideCpuFeatures(int enable, unsigned long long mask)
{
    gStats.overrideFeatures = enable != 0;
    gStats.featureOverride = mask;
}
#endif

}  // extern "C"
