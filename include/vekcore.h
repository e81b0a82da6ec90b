/* vekcore: the core services the vekr rendering library stands on.
 * Aligned allocation, processor features, the library thread count and cache size.
 * Compiles as C11 and as C++. */
#ifndef VEKCORE_H
#define VEKCORE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(VEKCORE_BUILDING)
#define VEKCORE_API __attribute__((visibility("default")))
#else
#define VEKCORE_API
#endif

/* Processor feature bits reported by vekGetEnabledCpuFeatures. A bit is set only when the
 * processor has the feature and, for the vector register states, the operating system
 * saves those registers (XCR0), so the instructions are usable. */
enum {
    VekCpuSse = 0x1,         /* SSE */
    VekCpuSse2 = 0x2,        /* SSE2 */
    VekCpuSse3 = 0x4,        /* SSE3 */
    VekCpuSsse3 = 0x8,       /* SSSE3 */
    VekCpuAvx = 0x10,        /* AVX instructions (CPUID.1:ECX bit 28) */
    VekCpuAvxOsState = 0x20, /* OS saves the XMM and YMM registers (OSXSAVE, XCR0 bits 1-2) */
    VekCpuSse41 = 0x40,      /* SSE4.1 */
    VekCpuSse42 = 0x80,      /* SSE4.2 */
    VekCpuFma = 0x100,       /* FMA3 */
    VekCpuAvx2 = 0x200,      /* AVX2 */
    VekCpuF16c = 0x400,      /* F16C half-float conversion */
    VekCpuPopcnt = 0x800,    /* POPCNT */
    VekCpuAvx512f = 0x1000   /* AVX-512 Foundation, with the OS saving the ZMM state */
};

/* Allocates size bytes aligned to 64 bytes; null when size is 0 or memory is short. */
VEKCORE_API void* vekMalloc(size_t size);

/* Releases a block from vekMalloc; a null pointer is ignored. */
VEKCORE_API void vekFree(void* ptr);

/* The feature bits above for this processor and operating system (read once, then cached). */
VEKCORE_API unsigned long long vekGetEnabledCpuFeatures(void);

/* Sets the number of threads a parallel region of the libraries may use. Returns 0, or -6
 * (the libraries' bad-size code) with nothing changed when threadCount is below 1. */
VEKCORE_API int vekSetNumThreads(int threadCount);

/* The thread count set by vekSetNumThreads; until it is called, the OpenMP runtime's maximum. */
VEKCORE_API int vekGetNumThreads(void);

/* The thread count for one parallel region of the libraries (the same value as vekGetNumThreads).
 */
VEKCORE_API int ownGetNumThreads(void);

/* Size in bytes of the largest data or unified cache of the processor, 0 when unknown. */
VEKCORE_API int vekGetMaxCacheSizeB(void);

/* --- Testing hooks ---------------------------------------------------------------------
 * They let a test make one allocation fail and check that nothing leaks; applications
 * need not call them. */

/* Makes the n-th vekMalloc call from now (n >= 1) return null; n = 0 disarms. */
VEKCORE_API void vekFailNthAllocation(int n);

/* Number of vekMalloc blocks not yet released by vekFree. */
VEKCORE_API long long vekGetLiveAllocationCount(void);

/* Size in bytes asked for by the most recent vekMalloc call (whether or not it succeeded). */
VEKCORE_API size_t vekGetLastAllocationSize(void);

#ifdef __cplusplus
}
#endif

#endif /* VEKCORE_H */
