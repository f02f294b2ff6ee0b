/* Hooks of the test build of vlkcore: allocation counting, injected failures, a fixed
 * feature mask. Only the test suite links this build; it shares the soname of the real one
 * so that libvlkr picks it up unchanged. */
#ifndef VLKCORE_TESTING_H
#define VLKCORE_TESTING_H

#include "vlkcore.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Zeroes the call count, disables failure injection and restarts the peak at the live bytes. */
VLKCORE_API void vlkTestResetAllocations(void);
/* Makes the call-th vlkMalloc call since the last reset return null (0 disables). */
VLKCORE_API void vlkTestFailAllocationAt(long long call);
VLKCORE_API long long vlkTestAllocationCalls(void);
VLKCORE_API long long vlkTestLiveBytes(void);
VLKCORE_API long long vlkTestPeakBytes(void);
/* While enabled, vlkGetEnabledCpuFeatures returns mask instead of reading CPUID. */
VLKCORE_API void vlkTestOverrideCpuFeatures(int enable, unsigned long long mask);
/* The mask vlkGetEnabledCpuFeatures makes of these CPUID leaf 1 ECX and EDX, leaf 7 EBX and
 * XCR0 words, without reading the processor. */
VLKCORE_API unsigned long long vlkTestCpuFeaturesFrom(unsigned ecx1, unsigned edx1, unsigned ebx7,
                                                      unsigned xcr0);

#ifdef __cplusplus
}
#endif

#endif /* VLKCORE_TESTING_H */
