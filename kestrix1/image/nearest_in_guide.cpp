#include "kestrix1/image/nearest_in_guide.h"

#include <algorithm>

#include <opencv2/core/hal/intrin.hpp>

#include "kestrix1/kernels/px_dispatch.h"

#if KX_HAVE_AVX2_PATHS
#include <immintrin.h>
#endif

namespace nearest {

namespace {

using u16 = std::uint16_t;

// One candidate of a run of choices: its guide values and its values in each plane, read at
// the same index as the target.
template <int N>
struct Candidate {
    u16 const *guide;
    u16 const *value[N];
};

template <int N>
using Candidates = Candidate<N>[4];

// Candidate m of c: the guide values, and value(k) the values in plane k.
template <int N, class ValueOf>
void setCandidate(Candidates<N> &c, int m, u16 const *guide, ValueOf value) {
    c[m].guide = guide;
    for (int k = 0; k < N; ++k)
        c[m].value[k] = value(k);
}

inline u16 absDiff(u16 a, u16 b) {
    return u16(a > b ? a - b : b - a);
}

// out[k][j] = the value in plane k of the candidate whose guide is nearest to t[j], for j
// from j0 below n. A later candidate wins only when strictly nearer, so ties keep the
// earlier one.
template <int N>
void chooseScalar(u16 const *t, Candidates<N> const &c, u16 *const out[N], int j0, int n) {
    for (int j = j0; j < n; ++j) {
        int best = 0;
        u16 bestDist = absDiff(c[0].guide[j], t[j]);
        for (int m = 1; m < 4; ++m) {
            u16 const d = absDiff(c[m].guide[j], t[j]);
            if (d < bestDist) bestDist = d, best = m;
        }
        for (int k = 0; k < N; ++k)
            out[k][j] = c[best].value[k][j];
    }
}

#if CV_SIMD128
// Eight choices a vector on OpenCV's portable intrinsics (SSE2 on x86-64, NEON on ARM).
// Returns the first j not done.
template <int N>
int choose128(u16 const *t, Candidates<N> const &c, u16 *const out[N], int j, int n) {
    using namespace cv;
    for (; j + 8 <= n; j += 8) {
        v_uint16x8 const tj = v_load(t + j);
        v_uint16x8 best = v_absdiff(v_load(c[0].guide + j), tj);
        v_uint16x8 keep[4];
        for (int m = 1; m < 4; ++m) {
            // best - d saturates at 0, so it is nonzero exactly where d is strictly nearer;
            // taking it from best leaves min(best, d) without an unsigned compare, which
            // SSE2 lacks.
            v_uint16x8 const gain = best - v_absdiff(v_load(c[m].guide + j), tj);
            best = v_sub_wrap(best, gain);
            keep[m] = gain == v_setzero_u16();
        }
        for (int k = 0; k < N; ++k) {
            v_uint16x8 v = v_load(c[0].value[k] + j);
            for (int m = 1; m < 4; ++m)
                v = v_select(keep[m], v, v_load(c[m].value[k] + j));
            v_store(out[k] + j, v);
        }
    }
    return j;
}
#endif

#if KX_HAVE_AVX2_PATHS
KX_AVX2_TARGET inline __m256i load256(u16 const *p) {
    return _mm256_loadu_si256(reinterpret_cast<__m256i const *>(p));
}
KX_AVX2_TARGET inline void store256(u16 *p, __m256i v) {
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(p), v);
}

// Sixteen choices a vector, as choose128.
template <int N>
KX_AVX2_TARGET int choose256(u16 const *t, Candidates<N> const &c, u16 *const out[N], int j,
                             int n) {
    for (; j + 16 <= n; j += 16) {
        __m256i const tj = load256(t + j);
        __m256i best = _mm256_or_si256(_mm256_subs_epu16(load256(c[0].guide + j), tj),
                                       _mm256_subs_epu16(tj, load256(c[0].guide + j)));
        __m256i keep[4];
        for (int m = 1; m < 4; ++m) {
            __m256i const g = load256(c[m].guide + j);
            __m256i const d = _mm256_or_si256(_mm256_subs_epu16(g, tj), _mm256_subs_epu16(tj, g));
            __m256i const gain = _mm256_subs_epu16(best, d);
            best = _mm256_sub_epi16(best, gain);
            keep[m] = _mm256_cmpeq_epi16(gain, _mm256_setzero_si256());
        }
        for (int k = 0; k < N; ++k) {
            __m256i v = load256(c[0].value[k] + j);
            for (int m = 1; m < 4; ++m)
                v = _mm256_blendv_epi8(load256(c[m].value[k] + j), v, keep[m]);
            store256(out[k] + j, v);
        }
    }
    return j;
}

// The even and odd columns of a row; returns the first column not done.
KX_AVX2_TARGET int split256(u16 const *row, u16 *even, u16 *odd, int W) {
    __m256i const low = _mm256_set1_epi32(0xFFFF);
    int x = 0;
    for (; x + 32 <= W; x += 32) {
        __m256i const a = load256(row + x), b = load256(row + x + 16);
        // The packs work within 128-bit halves; the permute puts the quarters in order.
        __m256i const e =
            _mm256_packus_epi32(_mm256_and_si256(a, low), _mm256_and_si256(b, low));
        __m256i const o = _mm256_packus_epi32(_mm256_srli_epi32(a, 16), _mm256_srli_epi32(b, 16));
        store256(even + x / 2, _mm256_permute4x64_epi64(e, 0xd8));
        store256(odd + x / 2, _mm256_permute4x64_epi64(o, 0xd8));
    }
    return x;
}

// row[2j] = even[j], row[2j + 1] = odd[j]; returns the first j not done.
KX_AVX2_TARGET int merge256(u16 const *even, u16 const *odd, u16 *row, int n) {
    int j = 0;
    for (; j + 16 <= n; j += 16) {
        __m256i const e = load256(even + j), o = load256(odd + j);
        __m256i const lo = _mm256_unpacklo_epi16(e, o), hi = _mm256_unpackhi_epi16(e, o);
        store256(row + 2 * j, _mm256_permute2x128_si256(lo, hi, 0x20));
        store256(row + 2 * j + 16, _mm256_permute2x128_si256(lo, hi, 0x31));
    }
    return j;
}

KX_AVX512_TARGET inline __m512i load512(u16 const *p) {
    return _mm512_loadu_si512(p);
}
KX_AVX512_TARGET inline __m512i absDiff512(__m512i a, __m512i b) {
    return _mm512_sub_epi16(_mm512_max_epu16(a, b), _mm512_min_epu16(a, b));
}

// Thirty-two choices a vector. AVX-512 compares unsigned lanes and selects under a mask,
// so here the rule reads as written: a candidate is taken where strictly nearer than the
// best so far.
template <int N>
KX_AVX512_TARGET int choose512(u16 const *t, Candidates<N> const &c, u16 *const out[N], int j,
                               int n) {
    // Local copies of the pointers, which the stores could otherwise alias.
    u16 const *g[4], *v[4][N];
    u16 *o[N];
    for (int m = 0; m < 4; ++m) {
        g[m] = c[m].guide;
        for (int k = 0; k < N; ++k)
            v[m][k] = c[m].value[k];
    }
    for (int k = 0; k < N; ++k)
        o[k] = out[k];
    for (; j + 32 <= n; j += 32) {
        __m512i const tj = load512(t + j);
        __m512i best = absDiff512(load512(g[0] + j), tj);
        __m512i take[4];
        for (int m = 1; m < 4; ++m) {
            __m512i const d = absDiff512(load512(g[m] + j), tj);
            take[m] = _mm512_movm_epi16(_mm512_cmplt_epu16_mask(d, best));
            best = _mm512_min_epu16(best, d);
        }
        // The selects as bitwise take ? candidate : r. Under a mask register the compiler
        // folds them into masked loads, which wait on the register they merge into.
        for (int k = 0; k < N; ++k) {
            __m512i r = load512(v[0][k] + j);
            for (int m = 1; m < 4; ++m)
                r = _mm512_ternarylogic_epi32(take[m], load512(v[m][k] + j), r, 0xCA);
            _mm512_storeu_si512(o[k] + j, r);
        }
    }
    return j;
}

// Lane indices into the pair of vectors (a, b), b's lanes counted from 32.
alignas(64) constexpr u16 kEvenLanes[32] = {0,  2,  4,  6,  8,  10, 12, 14, 16, 18, 20,
                                            22, 24, 26, 28, 30, 32, 34, 36, 38, 40, 42,
                                            44, 46, 48, 50, 52, 54, 56, 58, 60, 62};
alignas(64) constexpr u16 kZipLanes[2][32] = {
    {0, 32, 1, 33, 2,  34, 3,  35, 4,  36, 5,  37, 6,  38, 7,  39,
     8, 40, 9, 41, 10, 42, 11, 43, 12, 44, 13, 45, 14, 46, 15, 47},
    {16, 48, 17, 49, 18, 50, 19, 51, 20, 52, 21, 53, 22, 54, 23, 55,
     24, 56, 25, 57, 26, 58, 27, 59, 28, 60, 29, 61, 30, 62, 31, 63}};

KX_AVX512_TARGET int split512(u16 const *row, u16 *even, u16 *odd, int W) {
    __m512i const evens = load512(kEvenLanes);
    __m512i const odds = _mm512_add_epi16(evens, _mm512_set1_epi16(1));
    int x = 0;
    for (; x + 64 <= W; x += 64) {
        __m512i const a = load512(row + x), b = load512(row + x + 32);
        _mm512_storeu_si512(even + x / 2, _mm512_permutex2var_epi16(a, evens, b));
        _mm512_storeu_si512(odd + x / 2, _mm512_permutex2var_epi16(a, odds, b));
    }
    return x;
}

KX_AVX512_TARGET int merge512(u16 const *even, u16 const *odd, u16 *row, int n) {
    __m512i const lo = load512(kZipLanes[0]), hi = load512(kZipLanes[1]);
    int j = 0;
    for (; j + 32 <= n; j += 32) {
        __m512i const e = load512(even + j), o = load512(odd + j);
        _mm512_storeu_si512(row + 2 * j, _mm512_permutex2var_epi16(e, lo, o));
        _mm512_storeu_si512(row + 2 * j + 32, _mm512_permutex2var_epi16(e, hi, o));
    }
    return j;
}
#endif

// The run of choices with the widest loop the CPU offers.
template <int N>
void choose(u16 const *t, Candidates<N> const &c, u16 *const out[N], int n) {
    int j = 0;
#if KX_HAVE_AVX2_PATHS
    if (kxHasAvx512()) j = choose512<N>(t, c, out, j, n);
    if (kxHasAvx2()) j = choose256<N>(t, c, out, j, n);
#endif
#if CV_SIMD128
    j = choose128<N>(t, c, out, j, n);
#endif
    chooseScalar<N>(t, c, out, j, n);
}

// The even and odd columns of a row of W values.
void split(u16 const *row, u16 *even, u16 *odd, int W) {
    int x = 0;
#if KX_HAVE_AVX2_PATHS
    if (kxHasAvx512()) x = split512(row, even, odd, W);
    if (kxHasAvx2()) x += split256(row + x, even + x / 2, odd + x / 2, W - x);
#endif
#if CV_SIMD128
    for (; x + 16 <= W; x += 16) {
        cv::v_uint16x8 e, o;
        cv::v_load_deinterleave(row + x, e, o);
        cv::v_store(even + x / 2, e);
        cv::v_store(odd + x / 2, o);
    }
#endif
    for (; x < W; ++x) {
        if (x % 2)
            odd[x / 2] = row[x];
        else
            even[x / 2] = row[x];
    }
}

// row[2j] = even[j] and row[2j + 1] = odd[j] for j below n.
void merge(u16 const *even, u16 const *odd, u16 *row, int n) {
    int j = 0;
#if KX_HAVE_AVX2_PATHS
    if (kxHasAvx512()) j = merge512(even, odd, row, n);
    if (kxHasAvx2()) j += merge256(even + j, odd + j, row + 2 * j, n - j);
#endif
#if CV_SIMD128
    for (; j + 8 <= n; j += 8)
        cv::v_store_interleave(row + 2 * j, cv::v_load(even + j), cv::v_load(odd + j));
#endif
    for (; j < n; ++j) {
        row[2 * j] = even[j];
        row[2 * j + 1] = odd[j];
    }
}

}  // namespace

template <int N>
RowEnlarger<N>::RowEnlarger(cv::Mat const &y, cv::Mat const *const in[N])
    : y_(y), H_(y.rows), W_(y.cols) {
    for (int k = 0; k < N; ++k)
        in_[k] = in[k];
    // Half-width rows, with room for the odd half of an odd width's split.
    std::size_t const half = std::size_t(W_ + 1) / 2;
    store_.assign((8 + 3 * N) * half, 0);
    u16 *p = store_.data();
    auto next = [&] {
        u16 *q = p;
        p += half;
        return q;
    };
    for (int s = 0; s < 4; ++s) {
        guideEven_[s] = next();
        guideOdd_[s] = next();
        guideRow_[s] = -1;
    }
    for (int s = 0; s < 2; ++s) {
        for (int k = 0; k < N; ++k)
            diag_[s][k] = next();
        diagRow_[s] = -1;
    }
    for (int k = 0; k < N; ++k)
        cross_[k] = next();
}

template <int N>
void RowEnlarger<N>::split(int r) {
    if (guideRow_[r & 3] == r) return;
    nearest::split(y_.ptr<u16>(r), guideEven_[r & 3], guideOdd_[r & 3], W_);
    guideRow_[r & 3] = r;
}

// Row r = 2i + 1 takes, at odd columns c = 2j + 1 below W - 1, the nearest of the corners
// (r - 1, c - 1), (r - 1, c + 1), (r + 1, c - 1), (r + 1, c + 1): of the half-size planes,
// (i, j), (i, j + 1), (i + 1, j), (i + 1, j + 1). An even width's last column sees only the
// two corners to its left, the lower one winning only when strictly nearer.
template <int N>
void RowEnlarger<N>::diagonal(int i) {
    if (diagRow_[i & 1] == i) return;
    int const r = 2 * i + 1;
    split(r - 1);
    split(r);
    split(r + 1);
    u16 *const *d = diag_[i & 1];
    u16 const *up = even(r - 1), *down = even(r + 1), *t = odd(r);
    Candidates<N> c;
    setCandidate<N>(c, 0, up, [&](int k) { return plane(k, i); });
    setCandidate<N>(c, 1, up + 1, [&](int k) { return plane(k, i) + 1; });
    setCandidate<N>(c, 2, down, [&](int k) { return plane(k, i + 1); });
    setCandidate<N>(c, 3, down + 1, [&](int k) { return plane(k, i + 1) + 1; });
    choose<N>(t, c, d, (W_ - 1) / 2);
    if (W_ % 2 == 0) {
        int const j = W_ / 2 - 1;
        for (int k = 0; k < N; ++k)
            d[k][j] = absDiff(down[j], t[j]) < absDiff(up[j], t[j]) ? plane(k, i + 1)[j]
                                                                     : plane(k, i)[j];
    }
    diagRow_[i & 1] = i;
}

// Row r = 2i keeps the half-size row i at even columns; each odd column c = 2j + 1 below
// W - 1 takes the nearest of up (an odd-odd choice, j of row 2i - 1), left and right (j
// and j + 1 of row i) and down (j of row 2i + 1, or of the last row of an even height,
// which repeats the half-size row i).
template <int N>
void RowEnlarger<N>::evenRow(int r, u16 *const out[N]) {
    int const i = r / 2;
    bool const lastBelow = r + 1 == H_ - 1 && H_ % 2 == 0;
    diagonal(i - 1);
    if (!lastBelow) diagonal(i);
    split(r - 1);
    split(r);
    split(r + 1);
    Candidates<N> c;
    setCandidate<N>(c, 0, odd(r - 1), [&](int k) { return diag_[(i - 1) & 1][k]; });
    setCandidate<N>(c, 1, even(r), [&](int k) { return plane(k, i); });
    setCandidate<N>(c, 2, even(r) + 1, [&](int k) { return plane(k, i) + 1; });
    setCandidate<N>(c, 3, odd(r + 1), [&](int k) -> u16 const * {
        return lastBelow ? plane(k, i) : diag_[i & 1][k];
    });
    int const n = (W_ - 1) / 2;
    choose<N>(odd(r), c, cross_, n);
    for (int k = 0; k < N; ++k) {
        merge(plane(k, i), cross_[k], out[k], n);
        for (int x = 2 * n; x < W_; ++x)
            out[k][x] = plane(k, i)[x / 2];
    }
}

// Row r = 2i + 1 holds the odd-odd choices at odd columns; each even column c = 2j from 2
// below W - 1 takes the nearest of up (j of half-size row i), left and right (j - 1 and j
// of the odd-odd choices) and down (j of half-size row i + 1).
template <int N>
void RowEnlarger<N>::oddRow(int r, u16 *const out[N]) {
    int const i = r / 2;
    diagonal(i);
    u16 const *up = even(r - 1), *down = even(r + 1), *mid = odd(r);
    u16 *const *d = diag_[i & 1];
    Candidates<N> c;
    setCandidate<N>(c, 0, up + 1, [&](int k) { return plane(k, i) + 1; });
    setCandidate<N>(c, 1, mid, [&](int k) { return d[k]; });
    setCandidate<N>(c, 2, mid + 1, [&](int k) { return d[k] + 1; });
    setCandidate<N>(c, 3, down + 1, [&](int k) { return plane(k, i + 1) + 1; });
    u16 *from1[N];
    for (int k = 0; k < N; ++k)
        from1[k] = cross_[k] + 1;
    choose<N>(even(r) + 1, c, from1, (W_ - 2) / 2);
    // Column 0, from cross_[k][0], and an odd width's last column, left as it was, are
    // outer columns, which row() sets after.
    for (int k = 0; k < N; ++k)
        merge(cross_[k], diag_[i & 1][k], out[k], W_ / 2);
}

template <int N>
void RowEnlarger<N>::row(int r, u16 *const out[N]) {
    if (H_ == 2) {
        // No inner row: both rows repeat the half-size plane's last row.
        for (int k = 0; k < N; ++k)
            for (int x = 0; x < W_; ++x)
                out[k][x] = plane(k, in_[k]->rows - 1)[x / 2];
    } else {
        // The first and last rows repeat their inner neighbours.
        int const q = std::min(std::max(r, 1), H_ - 2);
        if (q % 2)
            oddRow(q, out);
        else
            evenRow(q, out);
    }
    // So do the outer columns, the first one first (which matters for a width of 2).
    for (int k = 0; k < N; ++k) {
        out[k][0] = out[k][1];
        out[k][W_ - 1] = out[k][W_ - 2];
    }
}

template class RowEnlarger<1>;
template class RowEnlarger<2>;

}  // namespace nearest
