// The nearest-in-guide enlargement of half-size chroma planes, one band of rows at a time.
// Internal.
//
// Every output pixel depends only on the rows next to it, so a band of rows can be finished
// while it is still in cache, and a caller that consumes chroma row by row (the conversion
// to the host's RGB) never needs a full-size chroma plane at all. Which neighbour a pixel
// copies depends on the guide alone, so planes enlarged under one guide (Dr and Db) can
// share the choices.
//
// The choices run on 16-bit vectors of OpenCV's portable intrinsics where the build has
// them (SSE2 on x86-64, NEON on ARM): each vector decides eight consecutive columns at once
// from contiguous loads, and keeps only the columns of the parity the step fills. The scalar
// loops finish the columns no whole vector reaches, and are the whole of the work elsewhere;
// both give the same pixels.
#pragma once

#include <cstdint>
#include <cstring>

#include <opencv2/core.hpp>
#include <opencv2/core/hal/intrin.hpp>

#include "kestrix1/kernels/px_dispatch.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace nearest {

// Rows per band: few enough that the guide, chroma and output rows of a band of a
// 6000-pixel-wide photograph stay in a core's second-level cache between the steps (16 ran
// faster than 32 and 64), enough that the rows each band redoes above itself cost little.
constexpr int kBandRows = 16;

inline std::uint16_t absDiff(std::uint16_t a, std::uint16_t b) {
    // Two saturating differences, one of them 0: exact and vectorisable on 16-bit lanes.
    return std::uint16_t((a > b ? a - b : 0) | (b > a ? b - a : 0));
}

// One candidate of the choice: its guide values and its chroma values.
struct Candidate {
    std::uint16_t const *guide;
    std::uint16_t const *value;
};

// res[2i] = the value of the candidate whose guide is nearest to t[2i], for i below n; the
// candidates are read at the same stride. A later candidate wins only when strictly nearer,
// so ties keep the earlier one. res may lie in the row that holds the candidates' values as
// long as it writes none of the pixels they read.
inline void nearestOf4(std::uint16_t const *t, Candidate c0, Candidate c1, Candidate c2,
                       Candidate c3, std::uint16_t *__restrict res, int n) {
    for (int i = 0; i < 2 * n; i += 2) {
        // Every load is unconditional, so the choices compile to selects, not branches.
        std::uint16_t const ti = t[i];
        std::uint16_t const d0 = absDiff(c0.guide[i], ti), d1 = absDiff(c1.guide[i], ti);
        std::uint16_t const d2 = absDiff(c2.guide[i], ti), d3 = absDiff(c3.guide[i], ti);
        std::uint16_t const v0 = c0.value[i], v1 = c1.value[i];
        std::uint16_t const v2 = c2.value[i], v3 = c3.value[i];
        bool const take1 = d1 < d0;
        std::uint16_t const b01 = take1 ? d1 : d0, v01 = take1 ? v1 : v0;
        bool const take2 = d2 < b01;
        std::uint16_t const b012 = take2 ? d2 : b01, v012 = take2 ? v2 : v01;
        res[i] = d3 < b012 ? v3 : v012;
    }
}

#if CV_SIMD128

// Eight-column forms of the loops above, for N chroma planes under one guide: the choice
// depends on the guide alone, so it is made once and applied to every plane. Each returns
// the first column (or pair) it left undone, from which the scalar loop goes on.
namespace lanes {

using V = cv::v_uint16x8;

inline V load(std::uint16_t const *p) {
    return cv::v_load(p);
}

// Where each of the candidates 1, 2, 3 loses to the best before it, i.e. is not strictly
// nearer to the target than every earlier candidate.
struct Choice {
    V keep1, keep2, keep3;
};

// Folds the distance d of the next candidate into best and says where that candidate
// loses. best - d saturates at 0, so it is nonzero exactly where d is strictly nearer, and
// taking it away from best leaves min(best, d) without a compare of unsigned lanes, which
// SSE2 lacks.
inline V loses(V &best, V d) {
    V const gain = best - d;
    best = cv::v_sub_wrap(best, gain);
    return gain == cv::v_setzero_u16();
}

inline Choice choose(V t, V g0, V g1, V g2, V g3) {
    V best = cv::v_absdiff(g0, t);
    Choice c;
    c.keep1 = loses(best, cv::v_absdiff(g1, t));
    c.keep2 = loses(best, cv::v_absdiff(g2, t));
    c.keep3 = loses(best, cv::v_absdiff(g3, t));
    return c;
}

inline V pick(Choice const &c, V v0, V v1, V v2, V v3) {
    V const v01 = cv::v_select(c.keep1, v0, v1);
    V const v012 = cv::v_select(c.keep2, v01, v2);
    return cv::v_select(c.keep3, v012, v3);
}

// d[2j] = d[2j + 1] = s[j] for whole vectors of j from j below n; returns the first j not
// done.
inline int placePairs(std::uint16_t const *s, std::uint16_t *d, int j, int n) {
    for (; j + V::nlanes <= n; j += V::nlanes) {
        V lo, hi;
        V const v = load(s + j);
        cv::v_zip(v, v, lo, hi);
        cv::v_store(d + 2 * j, lo);
        cv::v_store(d + 2 * j + V::nlanes, hi);
    }
    return j;
}

// The diagonal choice of an odd row for odd columns from x, eight columns a vector; ou, od
// and d are the rows above, below and of the pixel in each plane. The even columns in
// between are stored too, with a meaningless choice: in the band's own rows the cross step
// and the outer columns write them before anything reads them, and an odd row outside the
// band is read only by the cross step of an even row, at odd columns. Reads reach column
// x + 8, so the last vector stops at W - 1.
template <int N>
int diagonalRow(std::uint16_t const *gu, std::uint16_t const *gr, std::uint16_t const *gd,
                std::uint16_t const *const *ou, std::uint16_t const *const *od,
                std::uint16_t *const *d, int x, int W) {
    for (; x + V::nlanes <= W - 1; x += V::nlanes) {
        Choice const c = choose(load(gr + x), load(gu + x - 1), load(gu + x + 1), load(gd + x - 1),
                                load(gd + x + 1));
        for (int k = 0; k < N; ++k)
            cv::v_store(d[k] + x, pick(c, load(ou[k] + x - 1), load(ou[k] + x + 1),
                                       load(od[k] + x - 1), load(od[k] + x + 1)));
    }
    return x;
}

// The cross choice of a row for columns from c (of the parity the row fills), in place.
// Only the lanes at c, c + 2, .. are written; the others are put back as loaded, because
// they are the left and right candidates of their neighbours. Those candidates are never
// written by this step, so the order of the vectors does not matter.
//
// The next vector's row values are loaded before this one is stored: its left candidates
// overlap the store, and a load that straddles a store just made cannot be forwarded from
// it and stalls the loop for many cycles. The lanes they share are not written, so the
// early load reads what the store leaves.
template <int N>
int crossRow(std::uint16_t const *gu, std::uint16_t const *gr, std::uint16_t const *gd,
             std::uint16_t const *const *ou, std::uint16_t const *const *od,
             std::uint16_t *const *d, int c, int W) {
    V const filled(0xFFFF, 0, 0xFFFF, 0, 0xFFFF, 0, 0xFFFF, 0);
    int x = c;
    if (x + V::nlanes > W - 1) return x;
    V here[N], left[N];
    for (int k = 0; k < N; ++k) {
        here[k] = load(d[k] + x);
        left[k] = load(d[k] + x - 1);
    }
    for (;;) {
        Choice const ch =
            choose(load(gr + x), load(gu + x), load(gr + x - 1), load(gr + x + 1), load(gd + x));
        V out[N];
        for (int k = 0; k < N; ++k) {
            V const chosen =
                pick(ch, load(ou[k] + x), left[k], load(d[k] + x + 1), load(od[k] + x));
            out[k] = cv::v_select(filled, chosen, here[k]);
        }
        int const next = x + V::nlanes;
        bool const more = next + V::nlanes <= W - 1;
        if (more)
            for (int k = 0; k < N; ++k) {
                here[k] = load(d[k] + next);
                left[k] = load(d[k] + next - 1);
            }
        for (int k = 0; k < N; ++k)
            cv::v_store(d[k] + x, out[k]);
        x = next;
        if (!more) return x;
    }
}

}  // namespace lanes

#endif

#if KX_HAVE_AVX2_PATHS

// The same loops on sixteen columns, for CPUs with AVX2; each hands the columns it leaves to
// the eight-column loop.
namespace lanes256 {

KX_AVX2_TARGET inline __m256i load(std::uint16_t const *p) {
    return _mm256_loadu_si256(reinterpret_cast<__m256i const *>(p));
}
KX_AVX2_TARGET inline void store(std::uint16_t *p, __m256i v) {
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(p), v);
}
KX_AVX2_TARGET inline __m256i absDiff16(__m256i a, __m256i b) {
    return _mm256_or_si256(_mm256_subs_epu16(a, b), _mm256_subs_epu16(b, a));
}

struct Choice {
    __m256i keep1, keep2, keep3;
};

KX_AVX2_TARGET inline __m256i loses(__m256i &best, __m256i d) {
    __m256i const gain = _mm256_subs_epu16(best, d);
    best = _mm256_sub_epi16(best, gain);
    return _mm256_cmpeq_epi16(gain, _mm256_setzero_si256());
}

KX_AVX2_TARGET inline Choice choose(__m256i t, __m256i g0, __m256i g1, __m256i g2, __m256i g3) {
    __m256i best = absDiff16(g0, t);
    Choice c;
    c.keep1 = loses(best, absDiff16(g1, t));
    c.keep2 = loses(best, absDiff16(g2, t));
    c.keep3 = loses(best, absDiff16(g3, t));
    return c;
}

// keep ? earlier : later, lane by lane.
KX_AVX2_TARGET inline __m256i pick(Choice const &c, __m256i v0, __m256i v1, __m256i v2,
                                   __m256i v3) {
    __m256i const v01 = _mm256_blendv_epi8(v1, v0, c.keep1);
    __m256i const v012 = _mm256_blendv_epi8(v2, v01, c.keep2);
    return _mm256_blendv_epi8(v3, v012, c.keep3);
}

KX_AVX2_TARGET inline int placePairs(std::uint16_t const *s, std::uint16_t *d, int j, int n) {
    for (; j + 16 <= n; j += 16) {
        __m256i const v = load(s + j);
        // Pairs within each 128-bit half, then the halves put in order.
        __m256i const lo = _mm256_unpacklo_epi16(v, v), hi = _mm256_unpackhi_epi16(v, v);
        store(d + 2 * j, _mm256_permute2x128_si256(lo, hi, 0x20));
        store(d + 2 * j + 16, _mm256_permute2x128_si256(lo, hi, 0x31));
    }
    return j;
}

template <int N>
KX_AVX2_TARGET int diagonalRow(std::uint16_t const *gu, std::uint16_t const *gr,
                               std::uint16_t const *gd, std::uint16_t const *const *ou,
                               std::uint16_t const *const *od, std::uint16_t *const *d, int x,
                               int W) {
    for (; x + 16 <= W - 1; x += 16) {
        Choice const c = choose(load(gr + x), load(gu + x - 1), load(gu + x + 1), load(gd + x - 1),
                                load(gd + x + 1));
        for (int k = 0; k < N; ++k)
            store(d[k] + x, pick(c, load(ou[k] + x - 1), load(ou[k] + x + 1), load(od[k] + x - 1),
                                 load(od[k] + x + 1)));
    }
    return x;
}

template <int N>
KX_AVX2_TARGET int crossRow(std::uint16_t const *gu, std::uint16_t const *gr,
                            std::uint16_t const *gd, std::uint16_t const *const *ou,
                            std::uint16_t const *const *od, std::uint16_t *const *d, int x, int W) {
    if (x + 16 > W - 1) return x;
    __m256i const filled = _mm256_set1_epi32(0xFFFF);  // lanes x, x + 2, ..
    __m256i here[N], left[N];
    for (int k = 0; k < N; ++k) {
        here[k] = load(d[k] + x);
        left[k] = load(d[k] + x - 1);
    }
    for (;;) {
        Choice const ch =
            choose(load(gr + x), load(gu + x), load(gr + x - 1), load(gr + x + 1), load(gd + x));
        __m256i out[N];
        for (int k = 0; k < N; ++k) {
            __m256i const chosen =
                pick(ch, load(ou[k] + x), left[k], load(d[k] + x + 1), load(od[k] + x));
            out[k] = _mm256_blendv_epi8(here[k], chosen, filled);
        }
        int const next = x + 16;
        bool const more = next + 16 <= W - 1;
        if (more)
            for (int k = 0; k < N; ++k) {
                here[k] = load(d[k] + next);
                left[k] = load(d[k] + next - 1);
            }
        for (int k = 0; k < N; ++k)
            store(d[k] + x, out[k]);
        x = next;
        if (!more) return x;
    }
}

}  // namespace lanes256

#endif

// Rows [a, b) of the enlargement of the N planes in[k] to the size of the guide `y` (all
// CV_16UC1, y at least 2 x 2). row(k, r) is where row r of plane k lives, for r from a - 2
// to b + 1 within the plane; rows outside [a, b) are scratch that the band fills with the
// placed values it reads. A band holds at least two rows, so that the first and last rows
// find their inner neighbour finished in the same band.
//
// The enlargement: even rows and columns receive in(r / 2, c / 2) (the last column of an
// even row the last pixel of in's row, the last row of an even height in's last row);
// odd-odd pixels take the nearest of their four diagonal corners, then the other pixels the
// nearest of up, left, right and down. Finally the first and last columns, then the first
// and last rows, copy their inner neighbours.
template <int N, class RowOf>
void enlargeBands(cv::Mat const &y, cv::Mat const *const *in, int a, int b, RowOf row) {
    int const H = y.rows, W = y.cols;
    auto g = [&](int r) { return y.ptr<std::uint16_t>(r); };
    int const top = a - 2 > 0 ? a - 2 : 0;
    int const bottom = b + 1 < H - 1 ? b + 1 : H - 1;
#if KX_HAVE_AVX2_PATHS
    bool const wide = kxHasAvx2();
#endif

    // Placed values. The odd columns of even rows get the same values, which is a
    // contiguous store; nothing reads them before the later steps replace them.
    for (int k = 0; k < N; ++k)
        for (int r = top + (top & 1); r <= bottom; r += 2) {
            std::uint16_t const *s = in[k]->ptr<std::uint16_t>(r / 2);
            std::uint16_t *d = row(k, r);
            int j = 0;
#if KX_HAVE_AVX2_PATHS
            if (wide) j = lanes256::placePairs(s, d, j, W / 2);
#endif
#if CV_SIMD128
            j = lanes::placePairs(s, d, j, W / 2);
#endif
            for (; j < W / 2; ++j)
                d[2 * j] = d[2 * j + 1] = s[j];
            d[W - 1] = s[in[k]->cols - 1];
        }
    // An even height leaves the last row without an even row of its own.
    if (H % 2 == 0 && bottom == H - 1)
        for (int k = 0; k < N; ++k) {
            std::uint16_t const *s = in[k]->ptr<std::uint16_t>(in[k]->rows - 1);
            std::uint16_t *d = row(k, H - 1);
            for (int c = 0; c < W; ++c)
                d[c] = s[c / 2];
        }
    // Odd rows, odd columns 1, 3, .. W - 2: the nearest of the four diagonal corners.
    int const first = a - 1 > 1 ? a - 1 : 1;
    int const last = b < H - 2 ? b : H - 2;
    for (int r = first + 1 - (first & 1); r <= last; r += 2) {
        std::uint16_t const *gu = g(r - 1), *gr = g(r), *gd = g(r + 1);
        std::uint16_t const *ou[N], *od[N];
        std::uint16_t *d[N];
        for (int k = 0; k < N; ++k)
            ou[k] = row(k, r - 1), od[k] = row(k, r + 1), d[k] = row(k, r);
        int x = 1;
#if KX_HAVE_AVX2_PATHS
        if (wide) x = lanes256::diagonalRow<N>(gu, gr, gd, ou, od, d, x, W);
#endif
#if CV_SIMD128
        x = lanes::diagonalRow<N>(gu, gr, gd, ou, od, d, x, W);
#endif
        for (int k = 0; k < N; ++k) {
            nearestOf4(gr + x, {gu + x - 1, ou[k] + x - 1}, {gu + x + 1, ou[k] + x + 1},
                       {gd + x - 1, od[k] + x - 1}, {gd + x + 1, od[k] + x + 1}, d[k] + x,
                       (W - x) / 2);
            if (W % 2 == 0) {
                int const c = W - 1;
                d[k][c] = absDiff(gd[c - 1], gr[c]) < absDiff(gu[c - 1], gr[c]) ? od[k][c - 1]
                                                                                : ou[k][c - 1];
            }
        }
    }
    // The pixels with r + c odd, c below W - 1: the nearest of up, left, right and down.
    for (int r = a > 1 ? a : 1; r < b && r < H - 1; ++r) {
        std::uint16_t const *gu = g(r - 1), *gr = g(r), *gd = g(r + 1);
        std::uint16_t const *ou[N], *od[N];
        std::uint16_t *d[N];
        for (int k = 0; k < N; ++k)
            ou[k] = row(k, r - 1), od[k] = row(k, r + 1), d[k] = row(k, r);
        int x = 1 + (r & 1);
#if KX_HAVE_AVX2_PATHS
        if (wide) x = lanes256::crossRow<N>(gu, gr, gd, ou, od, d, x, W);
#endif
#if CV_SIMD128
        x = lanes::crossRow<N>(gu, gr, gd, ou, od, d, x, W);
#endif
        for (int k = 0; k < N; ++k)
            nearestOf4(gr + x, {gu + x, ou[k] + x}, {gr + x - 1, d[k] + x - 1},
                       {gr + x + 1, d[k] + x + 1}, {gd + x, od[k] + x}, d[k] + x, (W - x) / 2);
    }
    // The outer columns, then the outer rows, copy their inner neighbours.
    std::size_t const rowBytes = std::size_t(W) * sizeof(std::uint16_t);
    for (int k = 0; k < N; ++k) {
        for (int r = a; r < b; ++r) {
            std::uint16_t *d = row(k, r);
            d[0] = d[1];
            d[W - 1] = d[W - 2];
        }
        if (a == 0) std::memcpy(row(k, 0), row(k, 1), rowBytes);
        if (b == H) std::memcpy(row(k, H - 1), row(k, H - 2), rowBytes);
    }
}

// One plane: row(r) is where its row r lives.
template <class RowOf>
void enlargeBand(cv::Mat const &y, cv::Mat const &in, int a, int b, RowOf row) {
    cv::Mat const *const planes[1] = {&in};
    enlargeBands<1>(y, planes, a, b, [&](int, int r) { return row(r); });
}

// Two planes under the same guide, such as Dr and Db: the choices are made once for both,
// which takes about three quarters of the time of two calls. row0(r) and row1(r) are where
// their rows r live.
template <class RowOf0, class RowOf1>
void enlargeBand(cv::Mat const &y, cv::Mat const &in0, cv::Mat const &in1, int a, int b,
                 RowOf0 row0, RowOf1 row1) {
    cv::Mat const *const planes[2] = {&in0, &in1};
    enlargeBands<2>(y, planes, a, b, [&](int k, int r) { return k == 0 ? row0(r) : row1(r); });
}

// Cuts [y0, y1) into bands of about `height` rows, none shorter than two, and calls
// band(a, b) for each in order. y1 - y0 must be at least two.
template <class Band>
void forEachBand(int y0, int y1, int height, Band band) {
    for (int a = y0; a < y1;) {
        int b = a + height < y1 ? a + height : y1;
        if (y1 - b < 2) b = y1;
        band(a, b);
        a = b;
    }
}

}  // namespace nearest
