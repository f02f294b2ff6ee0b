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

// The words the feature mask is read from: CPUID leaf 1 ECX and EDX, leaf 7 EBX (0 where the
// processor has no leaf 7) and XCR0 (0 where the operating system does not report it).
struct CpuidWords {
    unsigned ecx1, edx1, ebx7, xcr0;
};

unsigned long long featureMask(const CpuidWords& w) noexcept
{
    auto bit = [](unsigned reg, int n) { return (reg >> n) & 1u; };
    const bool ymm = (w.xcr0 & 0x6) == 0x6;    // XMM and YMM state enabled
    const bool zmm = (w.xcr0 & 0xE6) == 0xE6;  // XMM, YMM, opmask and both ZMM halves
    const unsigned ecx1 = w.ecx1, edx1 = w.edx1, ebx7 = w.ebx7;
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
    if (bit(ebx7, 16) && zmm) mask |= VLK_CPU_AVX512F;
    return mask;
}

CpuidWords readCpuid() noexcept
{
    unsigned a, b, c, d;
    __cpuid(1, a, b, c, d);  // every 64-bit processor has leaf 1
    CpuidWords w{c, d, 0, 0};
    if (__get_cpuid_max(0, nullptr) >= 7) {
        __cpuid_count(7, 0, a, b, c, d);
        w.ebx7 = b;
    }
    constexpr unsigned kOsxsave = 1u << 27;
    if (w.ecx1 & kOsxsave) {  // XGETBV faults unless the operating system enabled it
        unsigned lo, hi;
        __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
        w.xcr0 = lo;
    }
    return w;
}

// Blocks rounded up to whole 64-byte units, as aligned allocation wants; null when short.
void* alignedBlock(std::size_t bytes) noexcept
{
    return std::aligned_alloc(kAlignment, (bytes + kAlignment - 1) / kAlignment * kAlignment);
}

}  // namespace

extern "C" {

VLKCORE_API void* vlkMalloc(int length)
{
    if (length <= 0) return nullptr;
#ifdef VLKCORE_TESTING
    ++gStats.calls;
    const bool fail = gStats.failAt != 0 && gStats.calls == gStats.failAt;
    char* raw = static_cast<char*>(fail ? nullptr : alignedBlock(kAlignment + std::size_t(length)));
    if (!raw) return nullptr;
    *reinterpret_cast<long long*>(raw) = length;
    gStats.liveBytes += length;
    if (gStats.liveBytes > gStats.peakBytes) gStats.peakBytes = gStats.liveBytes;
    return raw + kAlignment;
#else
    return alignedBlock(std::size_t(length));
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
    return featureMask(readCpuid());
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

VLKCORE_API unsigned long long vlkTestCpuFeaturesFrom(unsigned ecx1, unsigned edx1, unsigned ebx7,
                                                      unsigned xcr0)
{
    return featureMask({ecx1, edx1, ebx7, xcr0});
}
#endif

}  // extern "C"
