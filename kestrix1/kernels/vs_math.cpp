#include "kestrix1/kernels/vs_math.h"

#include <cmath>
#include <cstring>

#include "kestrix1/kernels/px_dispatch.h"

#if KX_HAVE_AVX2_PATHS
#include <immintrin.h>
#include <sleef.h>

// sleef.h declares its 256- and 512-bit functions only to code compiled for those vectors;
// the library is built for the baseline and calls them from functions that target them.
extern "C" {
__m256d Sleef_logd4_u10avx2(__m256d);
__m256d Sleef_powd4_u10avx2(__m256d, __m256d);
__m512d Sleef_logd8_u10avx512f(__m512d);
__m512d Sleef_powd8_u10avx512f(__m512d, __m512d);
}
#endif

namespace {

// kDoubles floats from memory, widened, through one double function, rounded back to memory.
#if KX_HAVE_AVX2_PATHS
struct Avx512 {
    static constexpr int kDoubles = 8;
    KX_AVX512_TARGET static void ln(float const *s, float *d, double) {
        __m512d const r = Sleef_logd8_u10avx512f(_mm512_maskz_cvtps_pd(0xFF, _mm256_loadu_ps(s)));
        _mm256_storeu_ps(d, _mm512_maskz_cvtpd_ps(0xFF, r));
    }
    KX_AVX512_TARGET static void pow(float const *s, float *d, double e) {
        __m512d const r = Sleef_powd8_u10avx512f(_mm512_maskz_cvtps_pd(0xFF, _mm256_loadu_ps(s)),
                                                 _mm512_set1_pd(e));
        _mm256_storeu_ps(d, _mm512_maskz_cvtpd_ps(0xFF, r));
    }
};

struct Avx2 {
    static constexpr int kDoubles = 4;
    KX_AVX2_TARGET static void ln(float const *s, float *d, double) {
        __m256d const r = Sleef_logd4_u10avx2(_mm256_cvtps_pd(_mm_loadu_ps(s)));
        _mm_storeu_ps(d, _mm256_cvtpd_ps(r));
    }
    KX_AVX2_TARGET static void pow(float const *s, float *d, double e) {
        __m256d const r = Sleef_powd4_u10avx2(_mm256_cvtps_pd(_mm_loadu_ps(s)), _mm256_set1_pd(e));
        _mm_storeu_ps(d, _mm256_cvtpd_ps(r));
    }
};

// 128-bit vectors: SLEEF picks its SSE2, SSE4.1 or AVX2 form for the running CPU.
struct Sse {
    static constexpr int kDoubles = 2;
    static __m128d load2(float const *s) {
        return _mm_cvtps_pd(
            _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<__m128i const *>(s))));
    }
    static void store2(float *d, __m128d v) {
        _mm_storel_epi64(reinterpret_cast<__m128i *>(d), _mm_castps_si128(_mm_cvtpd_ps(v)));
    }
    static void ln(float const *s, float *d, double) { store2(d, Sleef_logd2_u10(load2(s))); }
    static void pow(float const *s, float *d, double e) {
        store2(d, Sleef_powd2_u10(load2(s), _mm_set1_pd(e)));
    }
};
#else
// Elsewhere the C library, one element at a time.
struct Scalar {
    static constexpr int kDoubles = 1;
    static void ln(float const *s, float *d, double) { *d = float(std::log(double(*s))); }
    static void pow(float const *s, float *d, double e) { *d = float(std::pow(double(*s), e)); }
};
using Avx512 = Scalar;
using Avx2 = Scalar;
using Sse = Scalar;
#endif

// Whole vectors in place; the last, partial one through a padded copy (padding 1, a value
// both functions take without a fault).
template <int W, class F>
void unary(float const *a, float *y, int n, F f) {
    int i = 0;
    for (; i + W <= n; i += W)
        f(a + i, y + i);
    if (i < n) {
        float in[W], out[W];
        for (float &v : in)
            v = 1.0f;
        std::memcpy(in, a + i, sizeof(float) * unsigned(n - i));
        f(in, out);
        std::memcpy(y + i, out, sizeof(float) * unsigned(n - i));
    }
}

// The one place where this file chooses its table.
template <class Run>
void widest(Run &&run) {
    kxWidest<Avx512, Avx2, Sse>(run);
}

// The exact operations: plain loops the compiler vectorises, in an AVX2 copy as well. The
// inputs may be the output, so nothing is promised about aliasing.
KX_VECTOR_CLONES void subRun(int n, float const *a, float const *b, float *y) {
    for (int i = 0; i < n; ++i)
        y[i] = a[i] - b[i];
}

KX_VECTOR_CLONES void absRun(int n, float const *a, float *y) {
    for (int i = 0; i < n; ++i)
        y[i] = std::fabs(a[i]);
}

KX_VECTOR_CLONES void divRun(int n, float const *a, float const *b, float *y) {
    for (int i = 0; i < n; ++i)
        y[i] = a[i] / b[i];
}

}  // namespace

void vsLn(int n, float const *a, float *y) {
    widest([&](auto ops) {
        using Ops = decltype(ops);
        unary<Ops::kDoubles>(a, y, n, [](float const *s, float *d) { Ops::ln(s, d, 0.0); });
    });
}

void vsSub(int n, float const *a, float const *b, float *y) {
    subRun(n, a, b, y);
}

void vsAbs(int n, float const *a, float *y) {
    absRun(n, a, y);
}

void vsPowx(int n, float const *a, float b, float *y) {
    double const e = b;
    widest([&](auto ops) {
        using Ops = decltype(ops);
        unary<Ops::kDoubles>(a, y, n, [e](float const *s, float *d) { Ops::pow(s, d, e); });
    });
}

void vsDiv(int n, float const *a, float const *b, float *y) {
    divRun(n, a, b, y);
}
