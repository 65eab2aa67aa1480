#include "kestrix1/kernels/px_math.h"

#include <cmath>
#include <cstring>

#include "kestrix1/kernels/px_dispatch.h"

#if KX_HAVE_AVX2_PATHS
#include <immintrin.h>
#include <sleef.h>

// sleef.h declares its 256- and 512-bit functions only to code compiled for those vectors;
// the library is built for the baseline and calls them from functions that target them.
extern "C" {
struct KxSleefD4 {
    __m256d x, y;
};
struct KxSleefD8 {
    __m512d x, y;
};
__m256d Sleef_expd4_u10avx2(__m256d);
__m256 Sleef_exp2f8_u10avx2(__m256);
KxSleefD4 Sleef_sincosd4_u10avx2(__m256d);
__m512d Sleef_expd8_u10avx512f(__m512d);
__m512 Sleef_exp2f16_u10avx512f(__m512);
KxSleefD8 Sleef_sincosd8_u10avx512f(__m512d);
}
#endif

namespace {

// One vector's worth of each function, as a table per instruction set: kFloats floats or
// kDoubles doubles from memory to memory (exp: kDoubles floats, widened). Only pointers
// cross into these functions, so the run loops below stay baseline code.
#if KX_HAVE_AVX2_PATHS
struct Avx512 {
    static constexpr int kFloats = 16, kDoubles = 8;
    KX_AVX512_TARGET static void exp(float const *s, float *d) {
        __m512d const e = Sleef_expd8_u10avx512f(_mm512_maskz_cvtps_pd(0xFF, _mm256_loadu_ps(s)));
        _mm256_storeu_ps(d, _mm512_maskz_cvtpd_ps(0xFF, e));
    }
    KX_AVX512_TARGET static void exp2(float const *s, float *d) {
        _mm512_storeu_ps(d, Sleef_exp2f16_u10avx512f(_mm512_loadu_ps(s)));
    }
    KX_AVX512_TARGET static void sincos(double const *s, double *sn, double *cs) {
        KxSleefD8 const r = Sleef_sincosd8_u10avx512f(_mm512_loadu_pd(s));
        _mm512_storeu_pd(sn, r.x);
        _mm512_storeu_pd(cs, r.y);
    }
};

struct Avx2 {
    static constexpr int kFloats = 8, kDoubles = 4;
    KX_AVX2_TARGET static void exp(float const *s, float *d) {
        __m256d const e = Sleef_expd4_u10avx2(_mm256_cvtps_pd(_mm_loadu_ps(s)));
        _mm_storeu_ps(d, _mm256_cvtpd_ps(e));
    }
    KX_AVX2_TARGET static void exp2(float const *s, float *d) {
        _mm256_storeu_ps(d, Sleef_exp2f8_u10avx2(_mm256_loadu_ps(s)));
    }
    KX_AVX2_TARGET static void sincos(double const *s, double *sn, double *cs) {
        KxSleefD4 const r = Sleef_sincosd4_u10avx2(_mm256_loadu_pd(s));
        _mm256_storeu_pd(sn, r.x);
        _mm256_storeu_pd(cs, r.y);
    }
};

// 128-bit vectors: SLEEF picks its SSE2, SSE4.1 or AVX2 form for the running CPU.
struct Sse {
    static constexpr int kFloats = 4, kDoubles = 2;
    static void exp(float const *s, float *d) {
        __m128 const v = _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<__m128i const *>(s)));
        __m128 const e = _mm_cvtpd_ps(Sleef_expd2_u10(_mm_cvtps_pd(v)));
        _mm_storel_epi64(reinterpret_cast<__m128i *>(d), _mm_castps_si128(e));
    }
    static void exp2(float const *s, float *d) {
        _mm_storeu_ps(d, Sleef_exp2f4_u10(_mm_loadu_ps(s)));
    }
    static void sincos(double const *s, double *sn, double *cs) {
        Sleef___m128d_2 const r = Sleef_sincosd2_u10(_mm_loadu_pd(s));
        _mm_storeu_pd(sn, r.x);
        _mm_storeu_pd(cs, r.y);
    }
};
#else
// Elsewhere the C library, one element at a time.
struct Scalar {
    static constexpr int kFloats = 1, kDoubles = 1;
    static void exp(float const *s, float *d) { *d = float(std::exp(double(*s))); }
    static void exp2(float const *s, float *d) { *d = std::exp2(*s); }
    static void sincos(double const *s, double *sn, double *cs) {
        double const v = *s;
        *sn = std::sin(v);
        *cs = std::cos(v);
    }
};
using Avx512 = Scalar;
using Avx2 = Scalar;
using Sse = Scalar;
#endif

// Whole vectors in place; the last, partial one through a padded copy (padding 0, a value
// every function takes without a fault).
template <int W, class T, class F>
void unary(T const *src, T *dst, int n, F f) {
    int i = 0;
    for (; i + W <= n; i += W)
        f(src + i, dst + i);
    if (i < n) {
        T a[W] = {}, b[W];
        std::memcpy(a, src + i, sizeof(T) * unsigned(n - i));
        f(a, b);
        std::memcpy(dst + i, b, sizeof(T) * unsigned(n - i));
    }
}

template <class Ops>
void sinCosRun(double const *src, double *sn, double *cs, int n) {
    constexpr int W = Ops::kDoubles;
    int i = 0;
    for (; i + W <= n; i += W)
        Ops::sincos(src + i, sn + i, cs + i);
    if (i < n) {
        double a[W] = {}, s[W], c[W];
        std::memcpy(a, src + i, sizeof(double) * unsigned(n - i));
        Ops::sincos(a, s, c);
        std::memcpy(sn + i, s, sizeof(double) * unsigned(n - i));
        std::memcpy(cs + i, c, sizeof(double) * unsigned(n - i));
    }
}

// The one place where this file chooses its table.
template <class Run>
void widest(Run &&run) {
    kxWidest<Avx512, Avx2, Sse>(run);
}

}  // namespace

void pxMathExp(float const *src, float *dst, int n) {
    widest([&](auto ops) {
        using Ops = decltype(ops);
        unary<Ops::kDoubles>(src, dst, n, [](float const *s, float *d) { Ops::exp(s, d); });
    });
}

void pxMathExp2(float const *src, float *dst, int n) {
    widest([&](auto ops) {
        using Ops = decltype(ops);
        unary<Ops::kFloats>(src, dst, n, [](float const *s, float *d) { Ops::exp2(s, d); });
    });
}

void pxMathSinCos(double const *src, double *sinOut, double *cosOut, int n) {
    widest([&](auto ops) { sinCosRun<decltype(ops)>(src, sinOut, cosOut, n); });
}
