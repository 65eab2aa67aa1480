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
