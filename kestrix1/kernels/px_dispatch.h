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

// Loops written with AVX2 or AVX-512 intrinsics, for work the compiler does not vectorise
// well by itself: KX_AVX2_TARGET or KX_AVX512_TARGET on the function, and a call only where
// kxHasAvx2() or kxHasAvx512() says the CPU has it. Elsewhere the portable loop beside it
// runs. The AVX-512 loops need its foundation and its byte-and-word, vector-length and
// doubleword-and-quadword parts, which every CPU with AVX-512 since 2017 has.
#if defined(__GNUC__) && defined(__x86_64__)
#define KX_HAVE_AVX2_PATHS 1
#define KX_AVX2_TARGET __attribute__((target("avx2")))
#define KX_AVX512_TARGET __attribute__((target("avx512f,avx512bw,avx512vl,avx512dq")))

// The widest vectors the library's loops may use. Tests lower it to check the narrower
// loops on the same machine.
enum class KxVectors { portable, avx2, avx512 };
inline KxVectors &kxVectorLimit() {
    static KxVectors limit = KxVectors::avx512;
    return limit;
}
inline bool kxHasAvx2() {
    static bool const has = __builtin_cpu_supports("avx2");
    return has && kxVectorLimit() >= KxVectors::avx2;
}
inline bool kxHasAvx512() {
    static bool const has = __builtin_cpu_supports("avx512f") &&
                            __builtin_cpu_supports("avx512bw") &&
                            __builtin_cpu_supports("avx512vl") &&
                            __builtin_cpu_supports("avx512dq");
    return has && kxVectorLimit() >= KxVectors::avx512;
}

// Whether the CPU has the fetch-for-writing hint; kxPrefetchToWrite asks for it only then.
inline bool kxHasPrefetchW() {
    static bool const has = __builtin_cpu_supports("prfchw");
    return has;
}
#else
#define KX_HAVE_AVX2_PATHS 0
inline bool kxHasPrefetchW() {
    return false;
}
#endif

// Fetches the cache line at p towards the core, to be written soon: with the hint where
// `hint` (kxHasPrefetchW(), read once by the caller) allows it, as a plain fetch elsewhere.
inline void kxPrefetchToWrite(void const *p, bool hint) {
#if KX_HAVE_AVX2_PATHS
    if (hint) {
        asm volatile("prefetchw (%0)" : : "r"(p));
        return;
    }
#endif
    (void)hint;
    __builtin_prefetch(p, 1);
}

// Calls run(Ops{}) with the widest of three tables of vector operations that the CPU and the
// vector limit allow. Where the library has no AVX paths only the last is looked at, so the
// caller may name one portable table three times there.
template <class Avx512Ops, class Avx2Ops, class BaseOps, class Run>
void kxWidest(Run &&run) {
#if KX_HAVE_AVX2_PATHS
    if (kxHasAvx512()) return run(Avx512Ops{});
    if (kxHasAvx2()) return run(Avx2Ops{});
#endif
    run(BaseOps{});
}
