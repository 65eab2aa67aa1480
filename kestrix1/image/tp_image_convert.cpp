// TPImage: colour transforms between R, G, B and Y, Dr, Db, and the host-buffer conversions.
//
// Every per-pixel loop runs through parallelRows. The formulas keep their exact precision
// (which products are float, which double, where a value is rounded or truncated), because
// hosts compare pixels of one version of the library against another.

#include <algorithm>
#include <cstdint>
#include <vector>

#include <opencv2/core/hal/intrin.hpp>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "kestrix1/frame/errors.h"
#include "kestrix1/image/nearest_in_guide.h"
#include "kestrix1/image/scaling.h"
#include "kestrix1/image/tp_image.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/px_filter.h"
#include "kestrix1/kernels/px_geometry.h"
#include "kestrix1/kernels/px_halve.h"
#include "kestrix1/kernels/px_memory.h"

using cv::Mat;

namespace {

using u8 = std::uint8_t;
using u16 = std::uint16_t;

// ---- rounding and saturation ---------------------------------------------------------------

// rint (ties to even, the default mode) for |v| below 2^22: adding and removing 1.5 x 2^23
// rounds in the current mode and, unlike a library call, vectorises.
inline float rintF(float v) {
    return (v + 12582912.0f) - 12582912.0f;
}
inline double rintD(double v) {
    return (v + 6755399441055744.0) - 6755399441055744.0;
}

inline u16 sat16(int v) {
    return u16(std::min(std::max(v, 0), 65535));
}
inline u8 sat8(int v) {
    return u8(std::min(std::max(v, 0), 255));
}

// Rounded and saturated, for values known to lie well inside the int range (every formula
// of 16-bit inputs). Rounding first and clamping the integer gives what clamping first would,
// as the bounds are integers, and keeps the loops free of float compares so they vectorise.
inline u16 sat16i(float v) {
    return sat16(int(rintF(v)));
}
inline u16 sat16i(double v) {
    return sat16(int(rintD(v)));
}

// The same for values of any size (float inputs, single pixels): clamped before rounding.
inline u16 sat16r(double v) {
    v = v > 0.0 ? v : 0.0;
    v = v < 65535.0 ? v : 65535.0;
    return u16(rintD(v));
}
inline u8 sat8r(double v) {
    v = v > 0.0 ? v : 0.0;
    v = v < 255.0 ? v : 255.0;
    return u8(rintD(v));
}

// ---- per-pixel formulas ---------------------------------------------------------------------

// The luminance sum in float, in this order of addition.
inline float lumaSum(int r, int g, int b) {
    return 0.299f * float(r) + 0.587f * float(g) + 0.114f * float(b);
}

// One output pixel of a formula.
template <class T>
struct Px {
    T r, g, b;
};

// Each formula maps one pixel's Y, Dr, Db (16-bit) to r, g, b of its output type.
struct F16 {
    using Out = u16;
    Px<u16> operator()(int y, int dr, int db) const {
        int const R = sat16(y + 2 * dr - 65536);
        int const B = sat16(y + 2 * db - 65536);
        float const t = float(y) - float(R) * 0.299f - float(B) * 0.114f;
        return {u16(R), sat16i(double(t) * 1.7036), u16(B)};
    }
};

struct F15 {
    using Out = u16;
    Px<u16> operator()(int y, int dr, int db) const {
        int const yh = y >> 1;
        int const R = sat16(dr + yh - 32768);
        int const B = sat16(db + yh - 32768);
        float const t = float(yh) - 0.299f * float(R) - 0.114f * float(B);
        return {u16(R), sat16i(double(t) * 1.7036), u16(B)};
    }
};

struct F8 {
    using Out = u8;
    Px<u8> operator()(int y, int dr, int db) const {
        float const rf = float((dr - 32768) * 2 + y);
        float const bf = float((db - 32768) * 2 + y);
        float const gf = (float(y) - 0.299f * rf - 0.114f * bf) * 1.7036f;
        return {u8(sat16i(rf) >> 8), u8(sat16i(gf) >> 8), u8(sat16i(bf) >> 8)};
    }
};

struct F32 {
    using Out = float;
    Px<float> operator()(int y, int dr, int db) const {
        // (Y >> 1) drops the low bit of Y in r and b; hosts of this path expect it.
        float const rf = float(dr + (y >> 1) - 32768) * 2.0f;
        float const bf = float((y >> 1) + db - 32768) * 2.0f;
        float const t = float(y) - 0.299f * rf - 0.114f * bf;
        return {float(rf / 65535.0), float(double(t) * 1.7036 / 65535.0), float(bf / 65535.0)};
    }
};

struct F32V {
    using Out = float;
    Px<float> operator()(int y, int dr, int db) const {
        float const R = float(float(y + 2 * dr - 65536) / 65535.0);
        float const B = float(float(y + 2 * db - 65536) / 65535.0);
        return {R, float((y / 65535.0 - 0.299f * R - 0.114f * B) * 1.7036), B};
    }
};

// Three rows a loop starts fetching while it works on its own: the next rows' first reads
// would otherwise wait on memory, as the processor's prefetcher wakes only on their misses.
// One line of each is asked for per 64 bytes of work, so the requests spread over the row.
// Each row must be at least as long, in bytes, as the work's 16-bit row.
struct Ahead {
    char const *row[3];
};

inline Ahead aheadRows(void const *a, void const *b, void const *c) {
    return {{static_cast<char const *>(a), static_cast<char const *>(b),
             static_cast<char const *>(c)}};
}

// Where a loop without rows to fetch points its requests: at what it reads anyway.
inline Ahead aheadOr(Ahead const *ahead, void const *here) {
    return ahead ? *ahead : aheadRows(here, here, here);
}

// One row of a formula. A function of its own with restrict-qualified pointers (outputs never
// overlap inputs), so that the compiler vectorises it without run-time overlap checks.
template <class F, class Out>
void formulaRow(u16 const *__restrict y, u16 const *__restrict dr, u16 const *__restrict db,
                Out *__restrict r, Out *__restrict g, Out *__restrict b, int cols, F f,
                bool /*stream*/ = false, Ahead const * /*ahead*/ = nullptr) {
    for (int x = 0; x < cols; ++x) {
        Px<Out> const p = f(y[x], dr[x], db[x]);
        r[x] = p.r;
        g[x] = p.g;
        b[x] = p.b;
    }
}

#if CV_SIMD128
// The 16-bit formula eight pixels at a time, with the same values: R and B by two saturating
// steps of d - 32768 (up) or 32768 - d (down), G's float sum in the same order and its
// product in double, rounded to nearest even and saturated by the pack.
inline cv::v_uint16x8 plusTwice(cv::v_uint16x8 y, cv::v_uint16x8 d) {
    cv::v_uint16x8 const half = cv::v_setall_u16(32768);
    cv::v_uint16x8 const up = d - half, down = half - d;  // saturating: one of them is 0
    return ((y + up) + up) - down - down;
}

inline cv::v_int32x4 greenOf4(cv::v_uint32x4 y, cv::v_uint32x4 r, cv::v_uint32x4 b) {
    using namespace cv;
    v_float32x4 const t = v_cvt_f32(v_reinterpret_as_s32(y)) -
                          v_cvt_f32(v_reinterpret_as_s32(r)) * v_setall_f32(0.299f) -
                          v_cvt_f32(v_reinterpret_as_s32(b)) * v_setall_f32(0.114f);
    v_float64x2 const k = v_setall_f64(1.7036);
    return v_round(v_cvt_f64(t) * k, v_cvt_f64_high(t) * k);
}

#if KX_HAVE_AVX2_PATHS
// The line `offset` bytes into each of the rows to fetch ahead.
inline void fetchLines(Ahead const &next, std::ptrdiff_t offset) {
    for (char const *row : next.row)
        _mm_prefetch(row + offset, _MM_HINT_T0);
}

// y + 2 (d - 32768), saturated, sixteen lanes at a time, as plusTwice.
KX_AVX2_TARGET inline __m256i plusTwice16(__m256i y, __m256i d) {
    __m256i const half = _mm256_set1_epi16(-32768);
    __m256i const up = _mm256_subs_epu16(d, half), down = _mm256_subs_epu16(half, d);
    return _mm256_subs_epu16(
        _mm256_subs_epu16(_mm256_adds_epu16(_mm256_adds_epu16(y, up), up), down), down);
}

// Eight 16-bit lanes as floats.
KX_AVX2_TARGET inline __m256 wide8(__m128i v) {
    return _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(v));
}

// Sixteen 16-bit values.
KX_AVX2_TARGET inline __m256i load16(u16 const *p) {
    return _mm256_loadu_si256(reinterpret_cast<__m256i const *>(p));
}

// G of eight pixels as rounded 32-bit integers, as greenOf4.
KX_AVX2_TARGET inline __m256i green8(__m128i y, __m128i r, __m128i b) {
    __m256 const t =
        _mm256_sub_ps(_mm256_sub_ps(wide8(y), _mm256_mul_ps(wide8(r), _mm256_set1_ps(0.299f))),
                      _mm256_mul_ps(wide8(b), _mm256_set1_ps(0.114f)));
    __m256d const k = _mm256_set1_pd(1.7036);
    __m128i const lo =
        _mm256_cvtpd_epi32(_mm256_mul_pd(_mm256_cvtps_pd(_mm256_castps256_ps128(t)), k));
    __m128i const hi =
        _mm256_cvtpd_epi32(_mm256_mul_pd(_mm256_cvtps_pd(_mm256_extractf128_ps(t, 1)), k));
    return _mm256_set_m128i(hi, lo);
}

// The 16-bit formula sixteen pixels at a time; returns the first pixel not done.
KX_AVX2_TARGET int formulaRowAvx2(u16 const *__restrict y, u16 const *__restrict dr,
                                  u16 const *__restrict db, u16 *__restrict r, u16 *__restrict g,
                                  u16 *__restrict b, int cols, Ahead const *ahead) {
    Ahead const next = aheadOr(ahead, y);
    int x = 0;
    for (; x + 16 <= cols; x += 16) {
        fetchLines(next, 2 * x);
        __m256i const Y = load16(y + x);
        __m256i const R = plusTwice16(Y, load16(dr + x)), B = plusTwice16(Y, load16(db + x));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(r + x), R);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(b + x), B);
        __m256i const G = _mm256_packus_epi32(
            green8(_mm256_castsi256_si128(Y), _mm256_castsi256_si128(R), _mm256_castsi256_si128(B)),
            green8(_mm256_extracti128_si256(Y, 1), _mm256_extracti128_si256(R, 1),
                   _mm256_extracti128_si256(B, 1)));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(g + x), _mm256_permute4x64_epi64(G, 0xd8));
    }
    return x;
}

// y + 2 (d - 32768), saturated, thirty-two lanes at a time. One of up and down is 0; 2 up
// is at most 65534, and 2 down saturates only from 65536, where y - 65535 and y - 65536
// both saturate to 0. So two steps give what plusTwice's four do.
KX_AVX512_TARGET inline __m512i plusTwice32(__m512i y, __m512i d) {
    __m512i const half = _mm512_set1_epi16(-32768);
    __m512i const up = _mm512_subs_epu16(d, half), down = _mm512_subs_epu16(half, d);
    return _mm512_subs_epu16(_mm512_adds_epu16(y, _mm512_add_epi16(up, up)),
                             _mm512_adds_epu16(down, down));
}

// The conversions below are written in their zero-masking forms with every lane kept: the
// same instructions, but without the undefined pass-through operand that g++ 12 takes for
// an uninitialised variable.

// Lanes of 16-bit values as floats: the lower or upper four of each 128-bit quarter.
KX_AVX512_TARGET inline __m512 lowerFloats(__m512i v) {
    return _mm512_maskz_cvtepi32_ps(0xFFFF, _mm512_unpacklo_epi16(v, _mm512_setzero_si512()));
}
KX_AVX512_TARGET inline __m512 upperFloats(__m512i v) {
    return _mm512_maskz_cvtepi32_ps(0xFFFF, _mm512_unpackhi_epi16(v, _mm512_setzero_si512()));
}

// Eight floats times 1.7036 in double, rounded to 32-bit integers.
KX_AVX512_TARGET inline __m256i greenOf8(__m256 t) {
    __m512d const wide = _mm512_maskz_cvtps_pd(0xFF, t);
    return _mm512_maskz_cvtpd_epi32(0xFF, _mm512_mul_pd(wide, _mm512_set1_pd(1.7036)));
}

// G of sixteen pixels as rounded 32-bit integers in their lanes, as greenOf4.
KX_AVX512_TARGET inline __m512i green16(__m512 y, __m512 r, __m512 b) {
    __m512 const t = _mm512_sub_ps(_mm512_sub_ps(y, _mm512_mul_ps(r, _mm512_set1_ps(0.299f))),
                                   _mm512_mul_ps(b, _mm512_set1_ps(0.114f)));
    __m256i const lo = greenOf8(_mm512_maskz_extractf32x8_ps(0xFF, t, 0));
    __m256i const hi = greenOf8(_mm512_maskz_extractf32x8_ps(0xFF, t, 1));
    return _mm512_maskz_inserti64x4(0xFF, _mm512_castsi256_si512(lo), hi, 1);
}

template <bool stream>
KX_AVX512_TARGET inline void store512(u16 *p, __m512i v) {
    if (stream)
        _mm512_stream_si512(reinterpret_cast<__m512i *>(p), v);
    else
        _mm512_storeu_si512(p, v);
}

// The 16-bit formula thirty-two pixels at a time; returns the first pixel not done. The
// unpacks widen within 128-bit quarters and the pack narrows within them, so the lanes come
// back in order. With `stream` the outputs must be 64-byte aligned; the stores then go
// straight to memory, without first reading lines that are only to be overwritten.
template <bool stream>
KX_AVX512_TARGET int formulaRowAvx512(u16 const *__restrict y, u16 const *__restrict dr,
                                      u16 const *__restrict db, u16 *__restrict r,
                                      u16 *__restrict g, u16 *__restrict b, int cols,
                                      Ahead const *ahead) {
    Ahead const next = aheadOr(ahead, y);
    int x = 0;
    for (; x + 32 <= cols; x += 32) {
        fetchLines(next, 2 * x);
        __m512i const Y = _mm512_loadu_si512(y + x);
        __m512i const R = plusTwice32(Y, _mm512_loadu_si512(dr + x));
        __m512i const B = plusTwice32(Y, _mm512_loadu_si512(db + x));
        store512<stream>(r + x, R);
        store512<stream>(b + x, B);
        __m512i const lower = green16(lowerFloats(Y), lowerFloats(R), lowerFloats(B));
        __m512i const upper = green16(upperFloats(Y), upperFloats(R), upperFloats(B));
        store512<stream>(g + x, _mm512_packus_epi32(lower, upper));
    }
    if (stream) _mm_sfence();  // the streamed lines are visible before the row is done
    return x;
}

// Pixels before r, g and b all reach a 64-byte boundary, or -1 if they never do together.
inline int alignedFrom(u16 const *r, u16 const *g, u16 const *b) {
    auto offset = [](u16 const *p) { return reinterpret_cast<std::uintptr_t>(p) % 64; };
    if (offset(r) != offset(g) || offset(r) != offset(b) || offset(r) % 2) return -1;
    return int((64 - offset(r)) % 64 / 2);
}
#endif

// `stream` asks for stores that bypass the cache, for outputs too big to stay there: the
// host's planes. `ahead`, if given, names rows to fetch while this one is worked on, each
// at least 2 x cols bytes long.
void formulaRow(u16 const *__restrict y, u16 const *__restrict dr, u16 const *__restrict db,
                u16 *__restrict r, u16 *__restrict g, u16 *__restrict b, int cols, F16 f,
                bool stream = false, Ahead const *ahead = nullptr) {
    using namespace cv;
    int x = 0;
#if KX_HAVE_AVX2_PATHS
    int const lead = stream ? alignedFrom(r, g, b) : -1;
    if (kxHasAvx512() && lead >= 0 && lead < cols) {
        formulaRow<F16, u16>(y, dr, db, r, g, b, lead, f);
        x = lead + formulaRowAvx512<true>(y + lead, dr + lead, db + lead, r + lead, g + lead,
                                          b + lead, cols - lead, ahead);
    } else if (kxHasAvx512()) {
        x = formulaRowAvx512<false>(y, dr, db, r, g, b, cols, ahead);
    }
    if (kxHasAvx2())
        x += formulaRowAvx2(y + x, dr + x, db + x, r + x, g + x, b + x, cols - x,
                            x == 0 ? ahead : nullptr);
#endif
    for (; x + 8 <= cols; x += 8) {
        v_uint16x8 const Y = v_load(y + x);
        v_uint16x8 const R = plusTwice(Y, v_load(dr + x)), B = plusTwice(Y, v_load(db + x));
        v_uint32x4 y0, y1, r0, r1, b0, b1;
        v_expand(Y, y0, y1);
        v_expand(R, r0, r1);
        v_expand(B, b0, b1);
        v_store(r + x, R);
        v_store(b + x, B);
        v_store(g + x, v_pack_u(greenOf4(y0, r0, b0), greenOf4(y1, r1, b1)));
    }
    for (; x < cols; ++x) {
        Px<u16> const p = f(y[x], dr[x], db[x]);
        r[x] = p.r;
        g[x] = p.g;
        b[x] = p.b;
    }
}
#endif

// Applies a formula over full-size planes; outputs are the caller's, of F::Out.
template <class F>
void ydrdbRows(Mat const &Y, Mat const &Dr, Mat const &Db, Mat &R, Mat &G, Mat &B, F f) {
    using Out = typename F::Out;
    int const cols = Y.cols;
    parallelRows(Y.rows, std::int64_t(Y.rows) * cols, [&](int row) {
        formulaRow(Y.ptr<u16>(row), Dr.ptr<u16>(row), Db.ptr<u16>(row), R.ptr<Out>(row),
                   G.ptr<Out>(row), B.ptr<Out>(row), cols, f);
    });
}

// A formula over Y and the half-size Dr, Db enlarged with Y as guide. Each chroma row is
// made into a scratch row of its thread and consumed at once, so no full-size chroma plane
// is ever made.
template <class F>
void nearestChromaRows(Mat const &Y, Mat const &Dr, Mat const &Db, Mat rgb[3], F f) {
    using Out = typename F::Out;
    int const H = Y.rows, W = Y.cols;
    if (H < 2 || W < 2) {
        Mat Drf, Dbf;
        upSize2XGuidedByYSimple(Y, Dr, Drf);
        upSize2XGuidedByYSimple(Y, Db, Dbf);
        ydrdbRows(Y, Drf, Dbf, rgb[0], rgb[1], rgb[2], f);
        return;
    }
    struct Scratch {
        nearest::RowEnlarger<2> rows;
        std::vector<u16> chroma;  // a row of Dr, then one of Db
    };
    Mat const *const planes[2] = {&Dr, &Db};
    // Planes far larger than the cache are written past it, since the host reads them later,
    // and a cache that held them would only have to write them back.
    bool const stream = std::int64_t(H) * W * 3 * sizeof(Out) > (std::int64_t(64) << 20);
    parallelChunks(
        H, nearest::kChunkRows, std::int64_t(H) * W,
        [&] { return Scratch{{Y, planes}, std::vector<u16>(2 * std::size_t(W))}; },
        [&](Scratch &s, int y0, int y1) {
            u16 *const dst[2] = {s.chroma.data(), s.chroma.data() + W};
            for (int r = y0; r < y1; ++r) {
                // Four rows on: the rows of the guide and the chroma that the enlargement
                // reaches two rows from now, with margin. (2 W bytes of a chroma row cover
                // it and the next.)
                int const ry = std::min(r + 4, H - 1), rc = std::min(r / 2 + 3, Dr.rows - 1);
                Ahead const ahead = aheadRows(Y.ptr<u16>(ry), Dr.ptr<u16>(rc), Db.ptr<u16>(rc));
                s.rows.row(r, dst);
                formulaRow(Y.ptr<u16>(r), dst[0], dst[1], rgb[0].ptr<Out>(r),
                           rgb[1].ptr<Out>(r), rgb[2].ptr<Out>(r), W, f, stream, &ahead);
            }
        });
}

// A formula over Y and the half-size Dr, Db enlarged by cubic resampling.
template <class F>
void cubicChromaRows(Mat const &Y, Mat const &Dr, Mat const &Db, Mat rgb[3], F f) {
    Mat Drf = pxTempPlane(Y.rows, Y.cols, CV_16UC1), Dbf = pxTempPlane(Y.rows, Y.cols, CV_16UC1);
    upSize2XGuidedByY(Y, Dr, Drf, false, 4);
    upSize2XGuidedByY(Y, Db, Dbf, false, 4);
    ydrdbRows(Y, Drf, Dbf, rgb[0], rgb[1], rgb[2], f);
}

// One row of Y from 16-bit R, G, B; `doubled` for hosts whose data run 0..32768.
template <bool doubled>
KX_VECTOR_CLONES void lumaRow(u16 const *__restrict r, u16 const *__restrict g,
                              u16 const *__restrict b, u16 *__restrict y, int cols) {
    for (int x = 0; x < cols; ++x) {
        float const s = lumaSum(r[x], g[x], b[x]);
        y[x] = sat16i(doubled ? s + s : s);
    }
}

#if KX_HAVE_AVX2_PATHS
// Eight 16-bit values as floats.
KX_AVX2_TARGET inline __m256 load8(u16 const *p) {
    return _mm256_cvtepi32_ps(
        _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<__m128i const *>(p))));
}

// Eight sums of lumaRow as rounded 32-bit integers: the products and additions in the same
// order, the rounding to nearest even of the default mode.
template <bool doubled>
KX_AVX2_TARGET inline __m256i lumaSum8(u16 const *r, u16 const *g, u16 const *b) {
    __m256 s = _mm256_add_ps(_mm256_mul_ps(_mm256_set1_ps(0.299f), load8(r)),
                             _mm256_mul_ps(_mm256_set1_ps(0.587f), load8(g)));
    s = _mm256_add_ps(s, _mm256_mul_ps(_mm256_set1_ps(0.114f), load8(b)));
    if (doubled) s = _mm256_add_ps(s, s);
    return _mm256_cvtps_epi32(s);
}

// lumaRow sixteen pixels at a time; the pack saturates as sat16 does.
template <bool doubled>
KX_AVX2_TARGET void lumaRowAvx2(u16 const *__restrict r, u16 const *__restrict g,
                                u16 const *__restrict b, u16 *__restrict y, int cols) {
    int x = 0;
    for (; x + 16 <= cols; x += 16) {
        __m256i const packed =
            _mm256_packus_epi32(lumaSum8<doubled>(r + x, g + x, b + x),
                                lumaSum8<doubled>(r + x + 8, g + x + 8, b + x + 8));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(y + x),
                            _mm256_permute4x64_epi64(packed, 0xd8));
    }
    lumaRow<doubled>(r + x, g + x, b + x, y + x, cols - x);
}

// Sixteen 16-bit values as floats (zero-masking forms, as in the formula above).
KX_AVX512_TARGET inline __m512 load16f(u16 const *p) {
    __m256i const v = _mm256_loadu_si256(reinterpret_cast<__m256i const *>(p));
    return _mm512_maskz_cvtepi32_ps(0xFFFF, _mm512_maskz_cvtepu16_epi32(0xFFFF, v));
}

template <bool doubled>
KX_AVX512_TARGET inline __m512i lumaSum16(u16 const *r, u16 const *g, u16 const *b) {
    __m512 s = _mm512_add_ps(_mm512_mul_ps(_mm512_set1_ps(0.299f), load16f(r)),
                             _mm512_mul_ps(_mm512_set1_ps(0.587f), load16f(g)));
    s = _mm512_add_ps(s, _mm512_mul_ps(_mm512_set1_ps(0.114f), load16f(b)));
    if (doubled) s = _mm512_add_ps(s, s);
    return _mm512_maskz_cvtps_epi32(0xFFFF, s);
}

// lumaRow thirty-two pixels at a time. The pack interleaves the two halves by 128-bit
// quarters; the permute puts the quarters back in order.
template <bool doubled>
KX_AVX512_TARGET int lumaRowAvx512(u16 const *__restrict r, u16 const *__restrict g,
                                   u16 const *__restrict b, u16 *__restrict y, int cols) {
    __m512i const order = _mm512_set_epi64(7, 5, 3, 1, 6, 4, 2, 0);
    int x = 0;
    for (; x + 32 <= cols; x += 32) {
        __m512i const packed =
            _mm512_packus_epi32(lumaSum16<doubled>(r + x, g + x, b + x),
                                lumaSum16<doubled>(r + x + 16, g + x + 16, b + x + 16));
        _mm512_storeu_si512(y + x, _mm512_maskz_permutexvar_epi64(0xFF, order, packed));
    }
    return x;
}
#endif

// One row of Y, with the widest loop the CPU offers.
template <bool doubled>
void lumaOf(u16 const *r, u16 const *g, u16 const *b, u16 *y, int cols) {
#if KX_HAVE_AVX2_PATHS
    int const x = kxHasAvx512() ? lumaRowAvx512<doubled>(r, g, b, y, cols) : 0;
    if (kxHasAvx2()) return lumaRowAvx2<doubled>(r + x, g + x, b + x, y + x, cols - x);
    r += x, g += x, b += x, y += x, cols -= x;
#endif
    lumaRow<doubled>(r, g, b, y, cols);
}

template <bool doubled>
void lumaRows(Mat const &R, Mat const &G, Mat const &B, Mat &Y) {
    parallelRows(R.rows, std::int64_t(R.rows) * R.cols, [&](int row) {
        lumaOf<doubled>(R.ptr<u16>(row), G.ptr<u16>(row), B.ptr<u16>(row), Y.ptr<u16>(row), R.cols);
    });
}

// One difference in 16-bit steps, so that the loop vectorises on 16-bit lanes. Plain:
// (c - y) / 2 + 32768 truncating towards zero, as 32768 + (c - y) / 2 when c is above y and
// 32768 - (y - c) / 2 otherwise (with m the larger, one of m - y and m - c is 0); both stay
// within 1..65535, so nothing saturates. Doubled: c + (32768 - (y >> 1)), where the second
// term is 1..32768, capped at 65535 by taking c at most 65535 less that term.
template <bool doubled>
inline u16 difference(u16 c, u16 y) {
    if (doubled) {
        u16 const add = u16(32768 - (y >> 1));
        return u16(std::min(c, u16(65535 - add)) + add);
    }
    u16 const m = std::max(c, y);
    return u16(32768 + (u16(m - y) >> 1) - (u16(m - c) >> 1));
}

// One row of Dr, Db in place from reduced R, B and reduced Y. Plain: (c - Y) / 2 + 32768,
// truncating towards zero and saturated. Doubled: c - (Y >> 1) + 32768, which cannot go
// below 0.
template <bool doubled>
KX_VECTOR_CLONES void differenceRow(u16 *__restrict dr, u16 *__restrict db, u16 const *__restrict y,
                                    int cols) {
    for (int x = 0; x < cols; ++x) {
        dr[x] = difference<doubled>(dr[x], y[x]);
        db[x] = difference<doubled>(db[x], y[x]);
    }
}

template <bool doubled>
void differenceRows(Mat &Dr, Mat &Db, Mat const &Yh) {
    parallelRows(Yh.rows, std::int64_t(Yh.rows) * Yh.cols, [&](int row) {
        differenceRow<doubled>(Dr.ptr<u16>(row), Db.ptr<u16>(row), Yh.ptr<u16>(row), Yh.cols);
    });
}

// Y at full size and Dr, Db at half size in one walk down the host's rows, for even sizes:
// each source row becomes a row of Y and is halved across (Y, R and B) while it is still in
// cache, and each row of Dr, Db is finished from the last four rows halved. The values are
// those of the plain order: Y, then the three planes reduced, then the differences.
// rowOf(n, scratch, rgb) points rgb at source row n's R, G, B, using the three scratch rows
// from `scratch` on if it must.
template <bool doubled, class RowOf>
void fusedFrom(TPImage &im, RowOf rowOf) {
    int const W = im.width(), H = im.height(), w = W / 2, h = H / 2;
    struct Scratch {
        PxHalveRing ringY, ringR, ringB;
        std::vector<u16> rows;  // R, G, B rows for rowOf, then a spare row of Y
        std::vector<u16> yHalf;
    };
    // Runs of 32 output rows: each redoes about two input rows above and below itself.
    parallelChunks(
        h, 32, std::int64_t(W) * H * 4,
        [&] {
            return Scratch{PxHalveRing(w), PxHalveRing(w), PxHalveRing(w),
                           std::vector<u16>(std::size_t(W) * 4), std::vector<u16>(w)};
        },
        [&](Scratch &s, int i0, int i1) {
            u16 *const spareY = s.rows.data() + std::size_t(W) * 3;
            // The rows of Y that are this run's own; the rows read above and below it are
            // made again in scratch, so no row is written by two threads.
            int const own0 = 2 * i0, own1 = 2 * i1;
            int next = pxHalveTap(i0, 0, H);
            for (int i = i0; i < i1; ++i) {
                for (int last = pxHalveTap(i, 3, H); next <= last; ++next) {
                    u16 const *rgb[3];
                    rowOf(next, s.rows.data(), rgb);
                    u16 *y = next >= own0 && next < own1 ? im.m_Y.ptr<u16>(next) : spareY;
                    lumaOf<doubled>(rgb[0], rgb[1], rgb[2], y, W);
                    pxHalveCubicAcross(y, W, s.ringY.slot(next));
                    pxHalveCubicAcross(rgb[0], W, s.ringR.slot(next));
                    pxHalveCubicAcross(rgb[2], W, s.ringB.slot(next));
                }
                u16 *dr = im.m_Dr.ptr<u16>(i), *db = im.m_Db.ptr<u16>(i);
                s.ringY.down(i, H, s.yHalf.data());
                s.ringR.down(i, H, dr);
                s.ringB.down(i, H, db);
                differenceRow<doubled>(dr, db, s.yHalf.data(), w);
            }
        });
}

// The host's three planes as matrices over its memory. A stride of 0 means contiguous rows,
// and a single row has no stride to speak of, whatever the host passed.
template <class T>
void wrapPlanes(T *const *planes, int width, int height, int stride, Mat out[3]) {
    int const type = sizeof(T) == 1 ? CV_8UC1 : CV_16UC1;
    std::size_t const step =
        stride != 0 && height > 1 ? std::size_t(stride) : std::size_t(width) * sizeof(T);
    for (int c = 0; c < 3; ++c)
        out[c] = Mat(height, width, type, planes[c], step);
}

bool emptyArea(int width, int height) {
    return std::int64_t(width) * height < 1;
}

// ---- region of a matrix ---------------------------------------------------------------------

template <class T>
Mat matRoi(Mat const &in, int x, int y, int width, int height, int zoom, bool smooth) {
    int const x1 = std::min(x + zoom * width, in.cols);
    int const y1 = std::min(y + zoom * height, in.rows);
    Mat const area = in(cv::Rect(x, y, x1 - x, y1 - y));
    // Hosts ask for a new region on every pan or zoom: its planes come from pxTempPlane, as
    // fresh pages of ordinary size would cost more to fault in than the resampling itself.
    if (!smooth) {
        Mat out =
            pxTempPlane(zoom == 1 ? area.rows : height, zoom == 1 ? area.cols : width, in.type());
        if (zoom == 1)
            area.copyTo(out);
        else
            downSizeNX(area, out, zoom, 4);
        return out;
    }
    // Box passes against aliasing: a wider box and more passes the more the area shrinks.
    int const m = std::min(area.cols, area.rows);
    int r = 1;
    int passes = zoom / 4 + 1;
    if (zoom >= 5) {
        int const a = (zoom + 1) / 3;
        r = std::max(a, m / 2000 + 1);
        passes = zoom - 3 * a + 2;
    }
    IppiSize const size{area.cols, area.rows};
    IppiSize const whole{area.cols + 2 * r, area.rows + 2 * r};
    Mat work = pxTempPlane(whole.height, whole.width, in.type());
    pxCopyReplicateBorder(area.ptr<T>(), int(area.step), size, work.ptr<T>(), int(work.step), whole,
                          r, r);
    IppiSize const mask{2 * r + 1, 2 * r + 1};
    IppiPoint const anchor{r, r};
    T *inner = work.ptr<T>(r) + r;
    if (zoom == 1) {
        Mat out = pxTempPlane(area.rows, area.cols, in.type());
        pxFilterBox(inner, int(work.step), out.ptr<T>(), int(out.step), size, mask, anchor);
        return out;
    }
    for (int p = 0; p < passes; ++p) {
        if (p > 0) pxReplicateBorderInPlace(inner, int(work.step), size, whole, r, r);
        pxFilterBoxInPlace(inner, int(work.step), size, mask, anchor);
    }
    Mat out = pxTempPlane(height, width, in.type());
    downSizeNX(work(cv::Rect(r, r, area.cols, area.rows)), out, zoom, 4);
    return out;
}

// ---- single pixels --------------------------------------------------------------------------

// Brings r, g, b into 0..1 by scaling about the pixel's own extreme, which keeps the hue
// better than clipping each channel.
void intoGamut(float &r, float &g, float &b) {
    float const mn = std::min(r, std::min(g, b));
    float const mx = std::max(r, std::max(g, b));
    double const d = (double(mx) - double(mn)) + 1e-7;
    if (mn < 0.0f) {
        if (mx <= 0.0f) {
            r = g = b = 0.0f;
        } else {
            double const s = mx / d;
            r = float((r - mx) * s + mx);
            g = float((g - mx) * s + mx);
            b = float((b - mx) * s + mx);
        }
    } else if (mx > 1.0f) {
        if (mn >= 1.0f) {
            r = g = b = 1.0f;
        } else {
            double const s = (1.0 - mn) / d;
            r = float((r - mn) * s + mn);
            g = float((g - mn) * s + mn);
            b = float((b - mn) * s + mn);
        }
    }
}

// Chroma on the 8-bit television-style scale.
inline u8 chromaU8(float r, float y) {
    return sat8r((r - y) * 128.0 / 0.701f + 128.0);
}
inline u8 chromaV8(float b, float y) {
    return sat8r((b - y) * 128.0 / 0.886f + 128.0);
}

// G from y and the already inverted r and b, with the exact 0.587.
inline float greenOf(double y, double r, double b) {
    return float((y - 0.299f * r - 0.114f * b) / 0.587f);
}

bool halvesExactly(TPImage const &im) {
    return im.width() % 2 == 0 && im.height() % 2 == 0;
}

void finishFrom(TPImage &im) {
    im.m_halfMask.setTo(255);
    if (im.uid() != nullptr) im.uid()->update();
}

// Y at full size; colour is reduced before the difference is taken, and G only ever enters
// Y. `doubled` for hosts whose data run 0..32768.
template <bool doubled>
void fromPlanes(TPImage &im, unsigned short *const *planes, int width, int height, int stride) {
    if (emptyArea(width, height)) return;
    im.create(width, height, true);
    Mat rgb[3];
    wrapPlanes(planes, width, height, stride, rgb);
    if (halvesExactly(im)) {
        fusedFrom<doubled>(im, [&](int n, u16 *, u16 const *rows[3]) {
            for (int c = 0; c < 3; ++c)
                rows[c] = rgb[c].ptr<u16>(n);
        });
    } else {
        lumaRows<doubled>(rgb[0], rgb[1], rgb[2], im.m_Y);
        Mat Yh = pxTempPlane(im.hHeight(), im.hWidth(), CV_16UC1);
        downSize2X(im.m_Y, Yh, 4);
        downSize2X(rgb[0], im.m_Dr, 4);
        downSize2X(rgb[2], im.m_Db, 4);
        differenceRows<doubled>(im.m_Dr, im.m_Db, Yh);
    }
    finishFrom(im);
}

// One packed row of B, G, R, A split into three 16-bit rows, bytes into the high byte.
template <class T>
void splitPackedRow(T const *__restrict in, u16 *__restrict r, u16 *__restrict g, u16 *__restrict b,
                    int width) {
    int const shift = sizeof(T) == 1 ? 8 : 0;
    for (int x = 0; x < width; ++x) {
        b[x] = u16(in[4 * x] << shift);
        g[x] = u16(in[4 * x + 1] << shift);
        r[x] = u16(in[4 * x + 2] << shift);
    }
}

// Packed B, G, R, A pixels (the row stride in elements): split into 16-bit rows on the way
// for even sizes, otherwise into three planes for the planar path.
template <class T>
void fromPacked(TPImage &im, T const *buffer, int width, int height, int stride) {
    if (emptyArea(width, height)) return;
    auto rowIn = [&](int row) { return buffer + std::ptrdiff_t(row) * stride; };
    if (width % 2 == 0 && height % 2 == 0) {
        im.create(width, height, true);
        fusedFrom<false>(im, [&](int n, u16 *scratch, u16 const *rows[3]) {
            u16 *r = scratch, *g = scratch + width, *b = scratch + 2 * std::size_t(width);
            splitPackedRow(rowIn(n), r, g, b, width);
            rows[0] = r;
            rows[1] = g;
            rows[2] = b;
        });
        finishFrom(im);
        return;
    }
    Mat R = pxTempPlane(height, width, CV_16UC1), G = pxTempPlane(height, width, CV_16UC1),
        B = pxTempPlane(height, width, CV_16UC1);
    parallelRows(height, std::int64_t(height) * width, [&](int row) {
        splitPackedRow(rowIn(row), R.ptr<u16>(row), G.ptr<u16>(row), B.ptr<u16>(row), width);
    });
    unsigned short *planes[3] = {R.ptr<u16>(), G.ptr<u16>(), B.ptr<u16>()};
    fromPlanes<false>(im, planes, width, height, int(R.step));
}

}  // namespace

// ---- from host buffers ------------------------------------------------------------------------

void TPImage::convertFrompRGB(unsigned short **const planes, int width, int height, int stride) {
    fromPlanes<false>(*this, planes, width, height, stride);
}

void TPImage::convertFrompRGB15U(unsigned short **const planes, int width, int height, int stride) {
    fromPlanes<true>(*this, planes, width, height, stride);
}

void TPImage::convertFrom(unsigned char const *buffer, int width, int height, int stride) {
    fromPacked(*this, buffer, width, height, stride);
}

void TPImage::convertFrom(unsigned short const *buffer, int width, int height, int stride) {
    fromPacked(*this, buffer, width, height, stride);
}

// ---- to host buffers --------------------------------------------------------------------------

void TPImage::convertTo(unsigned char *buffer, int stride) const {
    if (bEmpty()) return;
    YDRDBToQImage(m_Y, m_Dr, m_Db, buffer, width(), height(), stride);
}

void TPImage::convertTopRGB(unsigned short **const planes, int stride) const {
    if (bEmpty()) return;
    Mat const Yf = getfY();
    Mat rgb[3];
    wrapPlanes(planes, Yf.cols, Yf.rows, stride, rgb);
    nearestChromaRows(Yf, m_Dr, m_Db, rgb, F16());
}

void TPImage::convertTopRGB8U(unsigned char **const planes, int stride) const {
    if (bEmpty()) return;
    Mat rgb[3];
    wrapPlanes(planes, width(), height(), stride, rgb);
    cubicChromaRows(getfY(), m_Dr, m_Db, rgb, F8());
}

void TPImage::convertTopRGB15U(unsigned short **const planes, int stride) const {
    if (bEmpty()) return;
    Mat rgb[3];
    wrapPlanes(planes, width(), height(), stride, rgb);
    cubicChromaRows(getfY(), m_Dr, m_Db, rgb, F15());
}

void TPImage::convertToHalfpRGB(unsigned char **const planes, int stride) const {
    if (bEmpty()) return;
    Mat Yh = m_fY;
    if (Yh.empty()) {
        Yh = pxTempPlane(hHeight(), hWidth(), CV_16UC1);
        downSize2X(m_Y, Yh, 4);
    }
    Mat rgb[3];
    wrapPlanes(planes, hWidth(), hHeight(), stride, rgb);
    ydrdbRows(Yh, m_Dr, m_Db, rgb[0], rgb[1], rgb[2], F8());
}

// ---- between matrices -------------------------------------------------------------------------

void TPImage::YDRDB2RGB(Mat const &Y, Mat const &Dr, Mat const &Db, Mat &R, Mat &G, Mat &B) {
    ydrdbRows(Y, Dr, Db, R, G, B, F16());
}

void TPImage::YDRDB2RGB15U(Mat const &Y, Mat const &Dr, Mat const &Db, Mat &R, Mat &G,
                           Mat &B) const {
    ydrdbRows(Y, Dr, Db, R, G, B, F15());
}

void TPImage::YDRDB2RGB8U(Mat const &Y, Mat const &Dr, Mat const &Db, Mat &R, Mat &G,
                          Mat &B) const {
    ydrdbRows(Y, Dr, Db, R, G, B, F8());
}

void TPImage::YDRDB2RGB32F(Mat const &Y, Mat const &Dr, Mat const &Db, Mat &R, Mat &G,
                           Mat &B) const {
    ydrdbRows(Y, Dr, Db, R, G, B, F32());
}

void TPImage::YDRDB2RGB(std::vector<Mat> &ydrdb, std::vector<Mat> &rgb) {
    for (int c = 0; c < 3; ++c)
        rgb[c].create(ydrdb[0].size(), CV_16UC1);
    ydrdbRows(ydrdb[0], ydrdb[1], ydrdb[2], rgb[0], rgb[1], rgb[2], F16());
}

void TPImage::YDRDB2RGB32F(std::vector<Mat> &ydrdb, std::vector<Mat> &rgb) {
    for (int c = 0; c < 3; ++c)
        rgb[c].create(ydrdb[0].size(), CV_32FC1);
    ydrdbRows(ydrdb[0], ydrdb[1], ydrdb[2], rgb[0], rgb[1], rgb[2], F32V());
}

void TPImage::RGB2YDRDB(std::vector<Mat> &rgb, std::vector<Mat> &ydrdb) {
    for (int c = 0; c < 3; ++c)
        ydrdb[c].create(rgb[0].size(), CV_16UC1);
    lumaRows<false>(rgb[0], rgb[1], rgb[2], ydrdb[0]);
    // Same size on both sides: the difference of each pixel, not of reduced planes.
    rgb[0].copyTo(ydrdb[1]);
    rgb[2].copyTo(ydrdb[2]);
    differenceRows<false>(ydrdb[1], ydrdb[2], ydrdb[0]);
}

void TPImage::RGB32F2YDRDB(std::vector<Mat> &rgb, std::vector<Mat> &ydrdb) {
    Mat const R = rgb[0], G = rgb[1], B = rgb[2];
    for (int c = 0; c < 3; ++c)
        ydrdb[c].create(R.size(), CV_16UC1);
    Mat Y = ydrdb[0], Dr = ydrdb[1], Db = ydrdb[2];
    int const cols = R.cols;
    parallelRows(R.rows, std::int64_t(R.rows) * cols, [&](int row) {
        float const *r = R.ptr<float>(row);
        float const *g = G.ptr<float>(row);
        float const *b = B.ptr<float>(row);
        u16 *y = Y.ptr<u16>(row);
        u16 *dr = Dr.ptr<u16>(row);
        u16 *db = Db.ptr<u16>(row);
        for (int x = 0; x < cols; ++x) {
            float const s = 0.299f * r[x] + 0.587f * g[x] + 0.114f * b[x];
            u16 const Yv = sat16r(s * 65535.0);
            y[x] = Yv;
            dr[x] = sat16r((r[x] * 65535.0 - Yv) * 0.5 + 32768.0);
            db[x] = sat16r((b[x] * 65535.0 - Yv) * 0.5 + 32768.0);
        }
    });
}

void TPImage::PRGB2Y(Mat const &R, Mat const &G, Mat const &B, Mat &Y) {
    Y.create(R.size(), CV_16UC1);
    lumaRows<false>(R, G, B, Y);
}

void TPImage::PRGB15U2Y(Mat const &R, Mat const &G, Mat const &B, Mat &Y) {
    Y.create(R.size(), CV_16UC1);
    lumaRows<true>(R, G, B, Y);
}

// ---- packed 8-bit for display -----------------------------------------------------------------

void TPImage::YDRDBToQImage(Mat const &Y, Mat const &Dr, Mat const &Db, unsigned char *out,
                            int width, int height, int stride) {
    kxRequire(Y.type() == CV_16UC1 && Dr.type() == CV_16UC1 && Db.type() == CV_16UC1,
              "ERROR TPImage::YDrDbToQImage - input type");
    Mat Drf = pxTempPlane(Y.rows, Y.cols, CV_16UC1), Dbf = pxTempPlane(Y.rows, Y.cols, CV_16UC1);
    upSize2XGuidedByYSimple(Y, Dr, Drf);
    upSize2XGuidedByYSimple(Y, Db, Dbf);
    parallelRows(height, std::int64_t(height) * width, [&](int row) {
        u16 const *y = Y.ptr<u16>(row);
        u16 const *dr = Drf.ptr<u16>(row);
        u16 const *db = Dbf.ptr<u16>(row);
        u8 *o = out + std::ptrdiff_t(row) * stride;
        for (int x = 0; x < width; ++x) {
            int const r = y[x] + 2 * dr[x] - 65536;
            int const b = y[x] + 2 * db[x] - 65536;
            // Truncated, not rounded: display previews of hosts match this byte for byte.
            int const g = int((float(y[x]) - float(r) * 0.299f - float(b) * 0.114f) * 1.7036f);
            o[4 * x] = sat8(b >> 8);
            o[4 * x + 1] = sat8(g >> 8);
            o[4 * x + 2] = sat8(r >> 8);
            o[4 * x + 3] = 255;
        }
    });
}

void TPImage::RGBC3ToQImage(Mat const &rgb, unsigned char *out, int width, int height, int stride) {
    int const type = rgb.type();
    kxRequire(type == CV_8UC3 || type == CV_16UC3,
              "TPImage::RGBC3ToQImage - Wrong input data type");
    parallelRows(height, std::int64_t(height) * width, [&](int row) {
        u8 *o = out + std::ptrdiff_t(row) * stride;
        if (type == CV_8UC3) {
            u8 const *in = rgb.ptr<u8>(row);
            for (int x = 0; x < width; ++x) {
                o[4 * x] = in[3 * x];
                o[4 * x + 1] = in[3 * x + 1];
                o[4 * x + 2] = in[3 * x + 2];
                o[4 * x + 3] = 255;
            }
        } else {
            u16 const *in = rgb.ptr<u16>(row);
            for (int x = 0; x < width; ++x) {
                o[4 * x] = u8(in[3 * x] >> 8);
                o[4 * x + 1] = u8(in[3 * x + 1] >> 8);
                o[4 * x + 2] = u8(in[3 * x + 2] >> 8);
                o[4 * x + 3] = 255;
            }
        }
    });
}

Mat TPImage::MatRoi(Mat const &in, int x, int y, int width, int height, int zoom, bool half,
                    bool smooth) {
    int const type = in.type();
    kxRequire(type == CV_8UC1 || type == CV_16UC1 || type == CV_32FC1,
              "ERROR TPImage::MatRoi - input type");
    if (half) {
        x /= 2;
        y /= 2;
        width = TPImage::half(width);
        height = TPImage::half(height);
    }
    switch (type) {
        case CV_8UC1:
            return matRoi<u8>(in, x, y, width, height, zoom, smooth);
        case CV_16UC1:
            return matRoi<u16>(in, x, y, width, height, zoom, smooth);
        default:
            return matRoi<float>(in, x, y, width, height, zoom, smooth);
    }
}

// ---- single pixels ----------------------------------------------------------------------------

void TPImage::RGB2YUV(float r, float g, float b, unsigned short &y, unsigned char &u,
                      unsigned char &v) {
    intoGamut(r, g, b);
    float const yf = 0.299f * r + 0.587f * g + 0.114f * b;
    y = sat16r(yf * 65535.0);
    u = chromaU8(r, yf);
    v = chromaV8(b, yf);
}

void TPImage::RGB2YUV(float r, float g, float b, unsigned char &y, unsigned char &u,
                      unsigned char &v) {
    intoGamut(r, g, b);
    float const yf = 0.299f * r + 0.587f * g + 0.114f * b;
    y = sat8r(yf * 255.0);
    u = chromaU8(r, yf);
    v = chromaV8(b, yf);
}

void TPImage::RGB2YUV(float r, float g, float b, unsigned short &y, unsigned short &u,
                      unsigned short &v) {
    intoGamut(r, g, b);
    float const yf = 0.299f * r + 0.587f * g + 0.114f * b;
    y = sat16r(yf * 65535.0);
    u = sat16r((r - yf) * 0.5 * 32768.0 + 32768.0);
    v = sat16r((b - yf) * 0.5 * 32768.0 + 32768.0);
}

void TPImage::RGB2YUV(float r, float g, float b, float &y, float &u, float &v) {
    y = 0.299f * r + 0.587f * g + 0.114f * b;
    u = (r - y) * 0.5f / 0.701f + 0.5f;
    v = (b - y) * 0.5f / 0.886f + 0.5f;
}

void TPImage::YUV2RGB(unsigned short y, unsigned char u, unsigned char v, float &r, float &g,
                      float &b) {
    double const yd = y / 65535.0;
    double const rd = (u - 128.0) * 0.0078125 * 0.701f + yd;
    double const bd = (v - 128.0) * 0.0078125 * 0.886f + yd;
    r = float(rd);
    g = greenOf(yd, rd, bd);
    b = float(bd);
}

void TPImage::YUV2RGB(unsigned char y, unsigned char u, unsigned char v, float &r, float &g,
                      float &b) {
    double const yd = y / 255.0;
    double const rd = (u - 128.0) * 0.0078125 * 0.701f + yd;
    double const bd = (v - 128.0) * 0.0078125 * 0.886f + yd;
    r = float(rd);
    g = greenOf(yd, rd, bd);
    b = float(bd);
}

void TPImage::YUV2RGB(unsigned short y, unsigned short u, unsigned short v, float &r, float &g,
                      float &b) {
    double const yd = y / 65535.0;
    double const rd = (u - 32768.0) * 2.0 * 3.0517578e-5 + yd;
    double const bd = (v - 32768.0) * 2.0 * 3.0517578e-5 + yd;
    r = float(rd);
    g = greenOf(yd, rd, bd);
    b = float(bd);
}

void TPImage::YUV2RGB(float y, float u, float v, float &r, float &g, float &b) {
    r = (u - 0.5f) * 2.0f * 0.701f + y;
    b = (v - 0.5f) * 2.0f * 0.886f + y;
    g = (y - 0.299f * r - 0.114f * b) / 0.587f;
}

void TPImage::RGB2YdRdB(float r, float g, float b, unsigned short &Y, unsigned short &Dr,
                        unsigned short &Db) {
    double const s = 65535.0;
    // y, not the rounded Y, enters the differences.
    double const y = g * s * 0.587f + 0.299f * (r * s) + 0.114f * (b * s);
    Y = sat16r(y);
    Dr = sat16r((r * s - y) * 0.5 + 32768.0);
    Db = sat16r((b * s - y) * 0.5 + 32768.0);
}

void TPImage::YdRdB2RGB(unsigned short Y, unsigned short Dr, unsigned short Db, float &r, float &g,
                        float &b) {
    float const rf = (Dr - 32768.0f) * 2.0f + Y;
    float const bf = (Db - 32768.0f) * 2.0f + Y;
    float const gf = rintF((Y - 0.299f * rf - 0.114f * bf) * 1.7036f);
    r = float(sat16r(rf) / 65535.0);
    g = float(sat16r(gf) / 65535.0);
    b = float(sat16r(bf) / 65535.0);
}

float TPImage::smoothstep(float edge0, float edge1, float x) {
    if (x < edge0) return 0.0f;
    if (x >= edge1) return 1.0f;
    float const t = (x - edge0) / (edge1 - edge0);
    return t * t * (3.0f - t - t);
}
