/* vlkcore: aligned allocation and the processor-feature query shared by the vlk libraries. */
#ifndef VLKCORE_H
#define VLKCORE_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(VLKCORE_BUILDING)
#define VLKCORE_API __attribute__((visibility("default")))
#else
#define VLKCORE_API
#endif

/* Bits of the mask returned by vlkGetEnabledCpuFeatures. Each bit is set only when the
 * processor reports the feature through CPUID and, for the AVX family, the operating
 * system saves the wide registers (XGETBV). */
#define VLK_CPU_MMX 0x0001ULL      /* CPUID.1:EDX[23] */
#define VLK_CPU_SSE 0x0002ULL      /* CPUID.1:EDX[25] */
#define VLK_CPU_SSE2 0x0004ULL     /* CPUID.1:EDX[26] */
#define VLK_CPU_SSE3 0x0008ULL     /* CPUID.1:ECX[0] */
#define VLK_CPU_SSSE3 0x0010ULL    /* CPUID.1:ECX[9] */
#define VLK_CPU_MOVBE 0x0020ULL    /* CPUID.1:ECX[22] */
#define VLK_CPU_SSE41 0x0040ULL    /* CPUID.1:ECX[19] */
#define VLK_CPU_SSE42 0x0080ULL    /* CPUID.1:ECX[20] */
#define VLK_CPU_AVX 0x0100ULL      /* CPUID.1:ECX[28] and OS support for YMM state */
#define VLK_CPU_AES 0x0200ULL      /* CPUID.1:ECX[25] */
#define VLK_CPU_CLMUL 0x0400ULL    /* CPUID.1:ECX[1] */
#define VLK_CPU_RDRAND 0x0800ULL   /* CPUID.1:ECX[30] */
#define VLK_CPU_F16C 0x1000ULL     /* CPUID.1:ECX[29] */
#define VLK_CPU_AVX2 0x2000ULL     /* CPUID.7.0:EBX[5] and OS support for YMM state */
#define VLK_CPU_FMA 0x4000ULL      /* CPUID.1:ECX[12] and OS support for YMM state */
#define VLK_CPU_BMI1 0x8000ULL     /* CPUID.7.0:EBX[3] */
#define VLK_CPU_BMI2 0x10000ULL    /* CPUID.7.0:EBX[8] */
#define VLK_CPU_POPCNT 0x20000ULL  /* CPUID.1:ECX[23] */
#define VLK_CPU_AVX512F 0x40000ULL /* CPUID.7.0:EBX[16] and OS support for ZMM state */

/* Returns length bytes aligned to 64, or null when length <= 0 or memory is short.
 * Release the block with vlkFree. */
VLKCORE_API void* vlkMalloc(int length);

/* Releases a block from vlkMalloc; null is accepted and ignored. */
VLKCORE_API void vlkFree(void* ptr);

/* Returns the VLK_CPU_* bits of the features this processor and operating system enable. */
VLKCORE_API unsigned long long vlkGetEnabledCpuFeatures(void);

#ifdef __cplusplus
}
#endif

#endif /* VLKCORE_H */
