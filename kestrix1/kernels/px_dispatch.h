// Run-time choice of instruction set for hot row loops. Internal.
//
// The library is built for the baseline of its architecture, so that one binary runs on any
// machine. Loops that gain much from wider vectors carry KX_VECTOR_CLONES: the compiler makes
// an AVX2 copy beside the baseline one and the loader picks one for the running CPU. AVX2
// here does not bring fused multiply-add, so float results are the same in both copies.
// Only functions of internal linkage may carry it: the chooser of a clone with external
// linkage is exported whatever its visibility says.
#pragma once

#if defined(__GNUC__) && defined(__x86_64__) && !defined(__clang__)
#define KX_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define KX_VECTOR_CLONES
#endif

// Loops written with AVX2 intrinsics, for work the compiler does not vectorise well by
// itself: KX_AVX2_TARGET on the function, and a call only where kxHasAvx2() says the CPU has
// it. Elsewhere the portable loop beside it runs.
#if defined(__GNUC__) && defined(__x86_64__)
#define KX_HAVE_AVX2_PATHS 1
#define KX_AVX2_TARGET __attribute__((target("avx2")))
// Tests switch the AVX2 loops off to check the portable ones on the same machine.
inline bool &kxAvx2Allowed() {
    static bool allowed = true;
    return allowed;
}
inline bool kxHasAvx2() {
    static bool const has = __builtin_cpu_supports("avx2");
    return has && kxAvx2Allowed();
}
#else
#define KX_HAVE_AVX2_PATHS 0
#endif
