#include "kestrix1/filters/dt_filter.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

#include <opencv2/core/hal/intrin.hpp>

#include "kestrix1/frame/errors.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/px_point.h"

namespace {

char const kDepth[] = "ERROR - DTFilter::proc - in.depth()!=CV_32F";
char const kGuide[] = "ERROR - DTFilter::proc - guide is not CV_32F of in's size";
char const kNoGuides[] = "ERROR - DTFilter::proc - guides.empty()";

constexpr double kSqrt3 = 1.7320508075688772;
constexpr double kSqrt2 = 1.4142135623730951;

// Columns per strip of the vertical recursive pass: a strip's weights and pixels over the
// whole image height stay in the core's cache between the downward and the upward sweep.
constexpr int kStripCols = 64;
// Columns per strip of the vertical normalised pass, whose walks run together.
constexpr int kNcStrip = 16;

// base^e by repeated squaring in double; a negative exponent gives the reciprocal.
double powi(double base, int e) {
    bool const negative = e < 0;
    unsigned n = negative ? 0u - unsigned(e) : unsigned(e);
    double r = 1.0;
    while (n) {
        if (n & 1u) r *= base;
        base *= base;
        n >>= 1;
    }
    return negative ? 1.0 / r : r;
}

// The width of recursive iteration i of n, from the previous one: the widths compound.
float nextSigma(float sigma, int i, int n) {
    return float(double(sigma) * kSqrt3 * powi(2.0, n - 1 - i) / std::sqrt(powi(4.0, n) - 1.0));
}

// The exponent factor of the recursive weights, W = exp(D * factor).
float weightFactor(float sigma) {
    return float(-kSqrt2 / double(sigma));
}

// Calls f with std::integral_constant<int, ch> for the usual channel counts, with 0 (read the
// count at run time) for the others.
template <class F>
void withChannels(int ch, F &&f) {
    switch (ch) {
        case 1:
            f(std::integral_constant<int, 1>());
            break;
        case 2:
            f(std::integral_constant<int, 2>());
            break;
        case 3:
            f(std::integral_constant<int, 3>());
            break;
        case 4:
            f(std::integral_constant<int, 4>());
            break;
        default:
            f(std::integral_constant<int, 0>());
            break;
    }
}

template <bool Square>
inline float gradientTerm(float d) {
    return Square ? d * d : std::fabs(d);
}

// ---- domain planes -------------------------------------------------------------------------

// Dx = 1 + ratio * Sx and Dy = 1 + ratio * Sy in one sweep over g, where S is the per-pixel
// channel sum of the gradient: Sx[y][x] from the pair (x, x+1), Sy[y][x] from (y, y+1). The
// last row and column of both sums stay zero, so D is 1 there.
template <int CH, bool Square>
void domainPlanes(cv::Mat const &g, int chRun, float ratio, cv::Mat &dx, cv::Mat &dy) {
    int const rows = g.rows, cols = g.cols, ch = CH ? CH : chRun;
    parallelRows(rows, std::int64_t(rows) * cols * ch, [&](int y) {
        float *ox = dx.ptr<float>(y);
        float *oy = dy.ptr<float>(y);
        if (y == rows - 1) {
            std::fill(ox, ox + cols, 1.0f);
            std::fill(oy, oy + cols, 1.0f);
            return;
        }
        float const *a = g.ptr<float>(y);
        float const *b = g.ptr<float>(y + 1);
        for (int x = 0; x < cols - 1; ++x) {
            float sx = 0.0f, sy = 0.0f;
            for (int c = 0; c < ch; ++c) {
                sx += gradientTerm<Square>(a[(x + 1) * ch + c] - a[x * ch + c]);
                sy += gradientTerm<Square>(b[x * ch + c] - a[x * ch + c]);
            }
            ox[x] = sx * ratio + 1.0f;
            oy[x] = sy * ratio + 1.0f;
        }
        ox[cols - 1] = 1.0f;
        oy[cols - 1] = 1.0f;
    });
}

// The gradient sums of the vector form over all guides, into Sx and Sy (CV_32FC1, of the
// guides' size): the values csum gives over the planes of diffx and diffy, added guide
// after guide and channel after channel in the same order, with the differences taken on
// the way, so that no plane of them is made on each call. The terms csum would add for the
// zero last column (and last row of Sy) are left out: adding +0 to a sum of terms that are
// never negative changes nothing.
template <bool Square>
void guideGradientSums(std::vector<cv::Mat> const &guides, cv::Mat &Sx, cv::Mat &Sy) {
    int const rows = Sx.rows, cols = Sx.cols;
    parallelRows(rows, std::int64_t(rows) * cols * std::int64_t(guides.size()), [&](int y) {
        float *sx = Sx.ptr<float>(y);
        float *sy = Sy.ptr<float>(y);
        std::fill(sx, sx + cols, 0.0f);
        std::fill(sy, sy + cols, 0.0f);
        for (cv::Mat const &g : guides) {
            int const ch = g.channels();
            float const *a = g.ptr<float>(y);
            for (int c = 0; c < ch; ++c)
                for (int x = 0; x < cols - 1; ++x)
                    sx[x] += gradientTerm<Square>(a[(x + 1) * ch + c] - a[x * ch + c]);
            if (y == rows - 1) continue;
            float const *b = g.ptr<float>(y + 1);
            for (int c = 0; c < ch; ++c)
                for (int x = 0; x < cols - 1; ++x)
                    sy[x] += gradientTerm<Square>(b[x * ch + c] - a[x * ch + c]);
        }
    });
}

// S * ratio + 1, in place.
void sumToDomain(cv::Mat &S, float ratio) {
    parallelRows(S.rows, std::int64_t(S.rows) * S.cols, [&](int y) {
        float *s = S.ptr<float>(y);
        for (int x = 0; x < S.cols; ++x)
            s[x] = s[x] * ratio + 1.0f;
    });
}

// ---- recursive filter ----------------------------------------------------------------------

// G rows of CH channels at once: the recursions of different rows are independent, so
// interleaving them keeps the processor busy through the latency of each one. The running
// values stay in registers. src may equal dst; the leftward sweep reads dst.
template <int CH, int G>
void recurseRowGroup(float const *const *src, float *const *dst, float const *const *w, int cols) {
    float prev[G][CH];
    for (int r = 0; r < G; ++r)
        for (int c = 0; c < CH; ++c)
            dst[r][c] = prev[r][c] = src[r][c];
    for (int x = 1; x < cols; ++x)
        for (int r = 0; r < G; ++r) {
            float const wr = w[r][x];
            for (int c = 0; c < CH; ++c) {
                float const v = src[r][x * CH + c];
                prev[r][c] = v + (prev[r][c] - v) * wr;
                dst[r][x * CH + c] = prev[r][c];
            }
        }
    for (int r = 0; r < G; ++r)
        for (int c = 0; c < CH; ++c)
            prev[r][c] = dst[r][(cols - 1) * CH + c];
    for (int x = cols - 2; x >= 0; --x)
        for (int r = 0; r < G; ++r) {
            float const wr = w[r][x + 1];
            for (int c = 0; c < CH; ++c) {
                float const v = dst[r][x * CH + c];
                prev[r][c] = v + (prev[r][c] - v) * wr;
                dst[r][x * CH + c] = prev[r][c];
            }
        }
}

// The same for G rows of two channels (G even) with vectors: each vector carries one pixel
// of two rows, both channels, and the lanes take exactly the steps of the plain loop. Twice
// as many rows as the plain form interleave for the same number of registers.
template <int G>
void recurseRowPairs(float const *const *src, float *const *dst, float const *const *w, int cols) {
    constexpr int P = G / 2;
    cv::v_float32x4 prev[P];
    auto weights = [&](int k, int x) {
        float const a = w[2 * k][x], b = w[2 * k + 1][x];
        return cv::v_float32x4(a, a, b, b);
    };
    for (int k = 0; k < P; ++k) {
        prev[k] = cv::v_load_halves(src[2 * k], src[2 * k + 1]);
        cv::v_store_low(dst[2 * k], prev[k]);
        cv::v_store_high(dst[2 * k + 1], prev[k]);
    }
    for (int x = 1; x < cols; ++x)
#pragma GCC unroll 8
        for (int k = 0; k < P; ++k) {
            cv::v_float32x4 const v = cv::v_load_halves(src[2 * k] + 2 * x, src[2 * k + 1] + 2 * x);
            prev[k] = v + (prev[k] - v) * weights(k, x);
            cv::v_store_low(dst[2 * k] + 2 * x, prev[k]);
            cv::v_store_high(dst[2 * k + 1] + 2 * x, prev[k]);
        }
    for (int x = cols - 2; x >= 0; --x)
#pragma GCC unroll 8
        for (int k = 0; k < P; ++k) {
            cv::v_float32x4 const v = cv::v_load_halves(dst[2 * k] + 2 * x, dst[2 * k + 1] + 2 * x);
            prev[k] = v + (prev[k] - v) * weights(k, x + 1);
            cv::v_store_low(dst[2 * k] + 2 * x, prev[k]);
            cv::v_store_high(dst[2 * k + 1] + 2 * x, prev[k]);
        }
}

// One row of any channel count.
void recurseRow(float const *src, float *dst, float const *w, int cols, int ch) {
    for (int c = 0; c < ch; ++c)
        dst[c] = src[c];
    for (int x = 1; x < cols; ++x)
        for (int c = 0; c < ch; ++c) {
            float const v = src[x * ch + c];
            dst[x * ch + c] = v + (dst[(x - 1) * ch + c] - v) * w[x];
        }
    for (int x = cols - 2; x >= 0; --x)
        for (int c = 0; c < ch; ++c) {
            float const v = dst[x * ch + c];
            dst[x * ch + c] = v + (dst[(x + 1) * ch + c] - v) * w[x + 1];
        }
}

constexpr int groupRows(int ch) {
    return ch == 1 || ch == 2 ? 8 : ch == 0 ? 1 : 2;
}

// Floats of scratch per thread for rowsPass.
std::size_t rowsScratch(int cols) {
    return 2 * std::size_t(groupRows(1)) * std::size_t(cols);
}

// The horizontal pass from src[p] into dst[p] (which may be src[p]) for each of the planes
// planes, all of one size and channel count, with weights from D: each group of rows takes
// its weights once for all planes.
template <int CH>
void rowsPass(cv::Mat const *src, cv::Mat *dst, int planes, cv::Mat const &D, float factor,
              float *scratch, std::size_t perThread) {
    constexpr int G = groupRows(CH);
    int const rows = src[0].rows, cols = src[0].cols, ch = src[0].channels();
    int const groups = (rows + G - 1) / G;
    std::int64_t const work = std::int64_t(rows) * cols * (std::int64_t(ch) * planes + 8);
    parallelRuns(groups, 4, work, [&](int g0, int g1) {
        float *prod = scratch + perThread * std::size_t(omp_get_thread_num());
        float *w = prod + std::size_t(G) * cols;
        for (int g = g0; g < g1; ++g) {
            int const y0 = g * G, n = std::min(G, rows - y0);
            for (int r = 0; r < n; ++r) {
                float const *d = D.ptr<float>(y0 + r);
                float *p = prod + std::size_t(r) * cols;
                for (int x = 0; x < cols; ++x)
                    p[x] = d[x] * factor;
            }
            pxExpRun(prod, w, n * cols);
            float const *wr[G];
            for (int r = 0; r < n; ++r)
                wr[r] = w + std::size_t(r) * cols;
            for (int p = 0; p < planes; ++p) {
                float const *s[G];
                float *o[G];
                for (int r = 0; r < n; ++r) {
                    s[r] = src[p].ptr<float>(y0 + r);
                    o[r] = dst[p].ptr<float>(y0 + r);
                }
                if constexpr (CH == 0) {
                    for (int r = 0; r < n; ++r)
                        recurseRow(s[r], o[r], wr[r], cols, ch);
                } else if (n < G) {
                    for (int r = 0; r < n; ++r)
                        recurseRowGroup<CH, 1>(s + r, o + r, wr + r, cols);
                } else if constexpr (CH == 2) {
                    recurseRowPairs<G>(s, o, wr, cols);
                } else {
                    recurseRowGroup<CH, G>(s, o, wr, cols);
                }
            }
        }
    });
}

// Rows of a strip whose weights are computed by one call of the exponential: enough to
// repay the call, few enough to stay in the first-level cache.
constexpr int kExpRows = 32;

// Floats of scratch per thread for colsPass: a strip's weights, and the exponents of a batch.
std::size_t colsScratch(int rows) {
    return (std::size_t(rows) + kExpRows) * std::size_t(kStripCols);
}

// Rows ahead of the current one whose strip segment the vertical passes fetch: a strip reads
// a short segment of every row, which the processor's own prefetching does not foresee.
constexpr int kRowsAhead = 8;

inline void prefetchSegment(float const *p, int floats) {
    for (int i = 0; i < floats; i += 16)
        __builtin_prefetch(p + i);
}

// The same for a segment about to be rewritten in place. Fetching it to be written rather
// than read nearly halved the downward sweep in runs where this machine's memory was slow
// (the sweep then takes four times as long as in other runs), and costs nothing elsewhere.
inline void prefetchSegmentToWrite(float *p, int floats, bool hint) {
    for (int i = 0; i < floats; i += 16)
        kxPrefetchToWrite(p + i, hint);
}

// Both sweeps of the vertical pass over the strip of n columns from x0 of img, w holding the
// strip's weights row after row.
template <int CH>
void sweepStrip(cv::Mat &img, int x0, int n, int chRun, float const *w, bool hint) {
    int const rows = img.rows, ch = CH ? CH : chRun, width = n * ch;
    std::size_t const ahead = kRowsAhead * img.step1();
    for (int y = 1; y < rows; ++y) {
        float *p = img.ptr<float>(y) + std::size_t(x0) * ch;
        float const *q = img.ptr<float>(y - 1) + std::size_t(x0) * ch;
        float const *wy = w + std::size_t(y) * n;
        if (y + kRowsAhead < rows) prefetchSegmentToWrite(p + ahead, width, hint);
        for (int i = 0; i < n; ++i)
            for (int c = 0; c < ch; ++c)
                p[i * ch + c] += (q[i * ch + c] - p[i * ch + c]) * wy[i];
    }
    for (int y = rows - 2; y >= 0; --y) {
        float *p = img.ptr<float>(y) + std::size_t(x0) * ch;
        float const *q = img.ptr<float>(y + 1) + std::size_t(x0) * ch;
        float const *wy = w + std::size_t(y + 1) * n;
        if (y >= kRowsAhead) prefetchSegmentToWrite(p - ahead, width, hint);
        for (int i = 0; i < n; ++i)
            for (int c = 0; c < ch; ++c)
                p[i * ch + c] += (q[i * ch + c] - p[i * ch + c]) * wy[i];
    }
}

// The vertical pass in place over each of the planes img[0..planes), all of one size and
// channel count, in strips of columns of the whole height: each strip's downward sweep runs
// along contiguous row segments, and its upward sweep finds most of the strip still in
// cache. A strip's weights serve every plane.
template <int CH>
void colsPass(cv::Mat *img, int planes, cv::Mat const &D, float factor, float *scratch,
              std::size_t perThread) {
    int const rows = img[0].rows, cols = img[0].cols, ch = CH ? CH : img[0].channels();
    if (rows < 2) return;
    int const stripCols = kStripCols;
    int const strips = (cols + stripCols - 1) / stripCols;
    bool const hint = kxHasPrefetchW();
    std::int64_t const work = std::int64_t(rows) * cols * (std::int64_t(ch) * planes + 8);
    parallelRuns(strips, 1, work, [&](int s0, int s1) {
        float *w = scratch + perThread * std::size_t(omp_get_thread_num());
        float *prod = w + std::size_t(rows) * kStripCols;
        for (int s = s0; s < s1; ++s) {
            int const x0 = s * stripCols, n = std::min(stripCols, cols - x0);
            for (int y0 = 1; y0 < rows; y0 += kExpRows) {
                int const y1 = std::min(rows, y0 + kExpRows);
                for (int y = y0; y < y1; ++y) {
                    float const *d = D.ptr<float>(y) + x0;
                    if (y + kRowsAhead < rows) prefetchSegment(d + kRowsAhead * D.step1(), n);
                    float *p = prod + std::size_t(y - y0) * n;
                    for (int i = 0; i < n; ++i)
                        p[i] = d[i] * factor;
                }
                pxExpRun(prod, w + std::size_t(y0) * n, (y1 - y0) * n);
            }
            for (int k = 0; k < planes; ++k)
                sweepStrip<CH>(img[k], x0, n, ch, w, hint);
        }
    });
}

// ---- normalised convolution ----------------------------------------------------------------

// Rows of the horizontal pass are walked in groups, and columns of the vertical pass in
// strips: the walks of several lines interleave, so the processor overlaps their chains of
// loads and compares.
constexpr int kNcGroup = 4;
// Pixels of a row whose means are divided together, through a buffer that stays in the
// first-level cache: the divisions then run by vector.
constexpr int kNcChunk = 256;

// Position lines carry this many +infinity sentinels after their n samples, so that a window
// end at n may still read a whole vector of them.
constexpr int kPosTail = 4;
// How far ahead of its pixels, in samples, the vertical pass fetches a line's positions.
constexpr int kAhead = 128;

// The first index at or after j whose position exceeds bound, or n if none does: the same
// answer as stepping one sample at a time, found a vector of positions at once. A window end
// mostly moves by a few samples per pixel, by amounts that follow the image, so one compare
// usually settles it without a branch to mispredict.
inline int firstAbove(float const *p, int j, int n, float bound) {
    cv::v_float32x4 const b = cv::v_setall_f32(bound);
    for (;;) {
        int const mask = cv::v_signmask(cv::v_load(p + j) > b);
        // The sentinels exceed any bound that a sample of the line exceeds, so a hit is at n
        // at the latest.
        if (mask) return j + __builtin_ctz(unsigned(mask));
        j += 4;
        if (j >= n) return n;
    }
}

// One pixel of a line: its window [lo, hi) is the samples whose position lies strictly above
// at - radius and at most at + radius, found by moving the previous pixel's ends forward (a
// merge of linear cost). Writes, per channel, the window's sum from the running sums sat
// (entry m * satStep + c: the sum of the first m samples) and its sample count; the mean is
// their quotient. The count is exact, as window ends stay far below 2^24.
template <int CH>
inline void ncWindow(float const *pos, int n, float at, float radius, int &lo, int &hi,
                     float const *sat, std::size_t satStep, int ch, float *num, float *cnt) {
    lo = firstAbove(pos, lo, n, at - radius);
    hi = firstAbove(pos, hi, n, at + radius);
    float const count = float(hi) - float(lo);
    float const *a = sat + std::size_t(hi) * satStep;
    float const *b = sat + std::size_t(lo) * satStep;
    for (int c = 0; c < (CH ? CH : ch); ++c) {
        num[c] = a[c] - b[c];
        cnt[c] = count;
    }
}

inline void divide(float const *num, float const *cnt, float *out, int n) {
    for (int e = 0; e < n; ++e)
        out[e] = num[e] / cnt[e];
}

// Floats of scratch per thread for the horizontal pass: the group's position lines with their
// sentinels, its running sums, and the numerators and counts of one chunk.
std::size_t ncRowsScratch(int cols, int ch) {
    return std::size_t(kNcGroup) * (std::size_t(cols + kPosTail) +
                                    (std::size_t(cols) + 1 + 2 * kNcChunk) * std::size_t(ch));
}

// G rows of n pixels from src into dst (which may be src): pos[r] holds row r's positions
// with their sentinels, sat[r] room for its running sums, num and cnt room for a chunk.
template <int CH, int G>
void ncRowGroup(float const *const *pos, float const *const *src, float *const *dst, int n,
                int chRun, float radius, float *const *sat, float *num, float *cnt) {
    int const ch = CH ? CH : chRun;
    for (int r = 0; r < G; ++r) {
        std::fill(sat[r], sat[r] + ch, 0.0f);
        for (int e = 0; e < n * ch; ++e)
            sat[r][e + ch] = sat[r][e] + src[r][e];
    }
    int lo[G] = {}, hi[G] = {};
    std::size_t const chunk = std::size_t(kNcChunk) * ch;
    for (int x0 = 0; x0 < n; x0 += kNcChunk) {
        int const m = std::min(kNcChunk, n - x0);
        for (int x = 0; x < m; ++x)
#pragma GCC unroll 8
            for (int r = 0; r < G; ++r)
                ncWindow<CH>(pos[r], n, pos[r][x0 + x], radius, lo[r], hi[r], sat[r], ch, ch,
                             num + r * chunk + x * ch, cnt + r * chunk + x * ch);
        for (int r = 0; r < G; ++r)
            divide(num + r * chunk, cnt + r * chunk, dst[r] + std::size_t(x0) * ch, m * ch);
    }
}

// The horizontal normalised pass, src into dst, ct the row-wise cumulative domain.
template <int CH>
void ncRowsPass(cv::Mat const &src, cv::Mat &dst, cv::Mat const &ct, float radius, float *scratch,
                std::size_t perThread) {
    int const rows = src.rows, cols = src.cols, ch = src.channels();
    int const groups = (rows + kNcGroup - 1) / kNcGroup;
    std::size_t const line = std::size_t(cols) + kPosTail, sums = (std::size_t(cols) + 1) * ch;
    parallelRuns(groups, 8, std::int64_t(rows) * cols * (ch + 8), [&](int g0, int g1) {
        float *buf = scratch + perThread * std::size_t(omp_get_thread_num());
        float *num = buf + (line + sums) * kNcGroup,
              *cnt = num + std::size_t(kNcChunk) * ch * kNcGroup;
        float const *pos[kNcGroup], *s[kNcGroup];
        float *d[kNcGroup], *sat[kNcGroup];
        for (int r = 0; r < kNcGroup; ++r) {
            float *p = buf + line * r;
            std::fill(p + cols, p + line, std::numeric_limits<float>::infinity());
            pos[r] = p;
            sat[r] = buf + line * kNcGroup + sums * r;
        }
        for (int g = g0; g < g1; ++g) {
            int const y0 = g * kNcGroup, lines = std::min(kNcGroup, rows - y0);
            for (int r = 0; r < lines; ++r) {
                std::memcpy(buf + line * r, ct.ptr<float>(y0 + r), sizeof(float) * cols);
                s[r] = src.ptr<float>(y0 + r);
                d[r] = dst.ptr<float>(y0 + r);
            }
            if (lines == kNcGroup) {
                ncRowGroup<CH, kNcGroup>(pos, s, d, cols, ch, radius, sat, num, cnt);
            } else {
                for (int r = 0; r < lines; ++r)
                    ncRowGroup<CH, 1>(pos + r, s + r, d + r, cols, ch, radius, sat + r, num, cnt);
            }
        }
    });
}

// Floats of scratch per thread for the vertical pass: a strip's running sums, and the
// numerators and counts of one of its rows.
std::size_t ncColsScratch(int rows, int ch) {
    return (std::size_t(rows) + 3) * std::size_t(kNcStrip) * std::size_t(ch);
}

// The vertical normalised pass in place, in strips of kNcStrip columns. ctT holds the
// column-wise cumulative domain transposed, one column's positions per row, each followed by
// its sentinels. A strip's running sums are made down its rows and its means written back a
// row segment at a time; the column walks of a strip interleave.
template <int CH>
void ncColsPass(cv::Mat &img, cv::Mat const &ctT, float radius, float *scratch,
                std::size_t perThread) {
    int const rows = img.rows, cols = img.cols, ch = CH ? CH : img.channels();
    int const strips = (cols + kNcStrip - 1) / kNcStrip;
    parallelRuns(strips, 2, std::int64_t(rows) * cols * (ch + 8), [&](int s0, int s1) {
        float *sat = scratch + perThread * std::size_t(omp_get_thread_num());
        float *num = sat + (std::size_t(rows) + 1) * kNcStrip * ch, *cnt = num + kNcStrip * ch;
        for (int s = s0; s < s1; ++s) {
            int const x0 = s * kNcStrip, n = std::min(kNcStrip, cols - x0), width = n * ch;
            std::fill(sat, sat + width, 0.0f);
            for (int y = 0; y < rows; ++y) {
                float const *p = img.ptr<float>(y) + std::size_t(x0) * ch;
                if (y + 8 < rows) __builtin_prefetch(p + 8 * img.step1());
                float const *above = sat + std::size_t(y) * width;
                float *below = sat + std::size_t(y + 1) * width;
                for (int e = 0; e < width; ++e)
                    below[e] = above[e] + p[e];
            }
            int lo[kNcStrip] = {}, hi[kNcStrip] = {};
            for (int y = 0; y < rows; ++y) {
                // The strip's lines are read as that many streams from memory: ask for each
                // one's data well before its windows reach it.
                if (y % 16 == 0 && y + kAhead < rows)
                    for (int i = 0; i < n; ++i)
                        __builtin_prefetch(ctT.ptr<float>(x0 + i) + y + kAhead);
                for (int i = 0; i < n; ++i) {
                    float const *pos = ctT.ptr<float>(x0 + i);
                    ncWindow<CH>(pos, rows, pos[y], radius, lo[i], hi[i], sat + i * ch, width, ch,
                                 num + i * ch, cnt + i * ch);
                }
                divide(num, cnt, img.ptr<float>(y) + std::size_t(x0) * ch, width);
            }
        }
    });
}

// Cumulative sums of the domain: along each row in place, and down each column in place.
void cumulateRows(cv::Mat &d) {
    parallelRows(d.rows, std::int64_t(d.rows) * d.cols, [&](int y) {
        float *p = d.ptr<float>(y);
        for (int x = 1; x < d.cols; ++x)
            p[x] += p[x - 1];
    });
}

void cumulateCols(cv::Mat &d) {
    parallelRuns(d.cols, 512, std::int64_t(d.rows) * d.cols, [&](int x0, int x1) {
        for (int y = 1; y < d.rows; ++y) {
            float *p = d.ptr<float>(y);
            float const *q = d.ptr<float>(y - 1);
            for (int x = x0; x < x1; ++x)
                p[x] += q[x];
        }
    });
}

// The column positions of ct as lines: row x of ctT holds column x of ct, followed by
// kPosTail sentinels, so that the vertical walks read contiguous positions.
void transposePositions(cv::Mat const &ct, cv::Mat &ctT) {
    ctT.create(ct.cols, ct.rows + kPosTail, CV_32FC1);
    ctT.colRange(ct.rows, ctT.cols).setTo(std::numeric_limits<float>::infinity());
    parallelRuns(ct.rows, 256, std::int64_t(ct.rows) * ct.cols, [&](int y0, int y1) {
        cv::Mat part = ctT(cv::Rect(y0, 0, y1 - y0, ct.cols));
        cv::transpose(ct.rowRange(y0, y1), part);
    });
}

bool sharesPixels(cv::Mat const &a, cv::Mat const &b) {
    return a.data == b.data && a.step == b.step;
}

void checkImage(cv::Mat const &in) {
    kxRequire(in.depth() == CV_32F && in.dims <= 2, kDepth);
}

void checkGuide(cv::Mat const &guide, cv::Size size) {
    kxRequire(guide.depth() == CV_32F && guide.dims <= 2 && guide.size() == size, kGuide);
}

}  // namespace

DTFilter::DTFilter(DTFilter const &other)
    : sigmaS(other.sigmaS), sigmaR(other.sigmaR), numIter(other.numIter), metric(other.metric) {}

DTFilter &DTFilter::operator=(DTFilter const &other) {
    sigmaS = other.sigmaS;
    sigmaR = other.sigmaR;
    numIter = other.numIter;
    metric = other.metric;
    return *this;
}

DTFilter::~DTFilter() = default;

bool DTFilter::setup(float sigmaS_, float sigmaR_, int iterations, enum METRIC metric_) {
    sigmaS = sigmaS_;
    sigmaR = sigmaR_;
    numIter = float(iterations);
    metric = metric_;
    // Process-wide and lasting: every later parallel region of the process runs under these.
    omp_set_num_threads(std::min(omp_get_num_procs(), 4));
    omp_set_max_active_levels(omp_get_supported_active_levels());  // nesting on
    omp_set_dynamic(0);
    return true;
}

bool DTFilter::proc(cv::Mat const &in, cv::Mat &out, int mode) {
    if ((mode != 0 && mode != 1) || in.empty()) return true;
    checkImage(in);
    if (mode == 0)
        RF(in, out, sigmaS, sigmaR, 3);
    else
        NCF(in, out, sigmaS, sigmaR);
    return true;
}

bool DTFilter::proc(cv::Mat const &in, cv::Mat const &guide, cv::Mat &out, int mode) {
    if (mode != 0 || in.empty()) return true;
    checkImage(in);
    checkGuide(guide, in.size());
    // The domain comes first: out may share in's or the guide's pixels.
    domain(guide, sigmaS / sigmaR);
    recurse(in, out, sigmaS, 3);
    return true;
}

bool DTFilter::proc(std::vector<cv::Mat> const &in, std::vector<cv::Mat> &out, int mode,
                    std::vector<cv::Mat> &guides) {
    bool const empty =
        std::all_of(in.begin(), in.end(), [](cv::Mat const &p) { return p.empty(); });
    if (mode != 0 || empty) return true;
    kxRequire(!guides.empty(), kNoGuides);
    cv::Size const size = guides[0].size();
    for (cv::Mat const &g : guides)
        checkGuide(g, size);
    for (cv::Mat const &p : in) {
        checkImage(p);
        checkGuide(p, size);
    }
    RF(in, out, sigmaS, sigmaR, guides);
    return true;
}

// ---- building blocks -----------------------------------------------------------------------

void DTFilter::diffx(cv::Mat const &in, cv::Mat &d) {
    d.create(in.size(), in.type());
    d.setTo(0);
    int const n = (in.cols - 1) * in.channels(), ch = in.channels();
    parallelRows(in.rows, std::int64_t(in.rows) * in.cols * ch, [&](int y) {
        float const *p = in.ptr<float>(y);
        float *o = d.ptr<float>(y);
        for (int i = 0; i < n; ++i)
            o[i] = p[i + ch] - p[i];
    });
}

void DTFilter::diffx(std::vector<cv::Mat> const &in, std::vector<cv::Mat> &d) {
    d.resize(in.size());
    for (std::size_t i = 0; i < in.size(); ++i)
        diffx(in[i], d[i]);
}

void DTFilter::diffy(cv::Mat const &in, cv::Mat &d) {
    d.create(in.size(), in.type());
    d.setTo(0);
    int const n = (in.cols - 1) * in.channels();
    parallelRows(in.rows - 1, std::int64_t(in.rows) * in.cols * in.channels(), [&](int y) {
        float const *p = in.ptr<float>(y);
        float const *q = in.ptr<float>(y + 1);
        float *o = d.ptr<float>(y);
        for (int i = 0; i < n; ++i)
            o[i] = q[i] - p[i];
    });
}

void DTFilter::diffy(std::vector<cv::Mat> const &in, std::vector<cv::Mat> &d) {
    d.resize(in.size());
    for (std::size_t i = 0; i < in.size(); ++i)
        diffy(in[i], d[i]);
}

void DTFilter::csum(cv::Mat const &d, cv::Mat &S, METRIC metric_) {
    S.create(d.size(), CV_32FC1);
    S.setTo(0);
    int const ch = d.channels(), cols = d.cols;
    bool const square = metric_ != L1;
    parallelRows(d.rows - 1, std::int64_t(d.rows) * cols * ch, [&](int y) {
        float const *p = d.ptr<float>(y);
        float *s = S.ptr<float>(y);
        for (int x = 0; x < cols - 1; ++x) {
            float sum = 0.0f;
            for (int c = 0; c < ch; ++c)
                sum +=
                    square ? gradientTerm<true>(p[x * ch + c]) : gradientTerm<false>(p[x * ch + c]);
            s[x] = sum;
        }
    });
}

void DTFilter::csum(std::vector<cv::Mat> const &d, cv::Mat &S, METRIC metric_) {
    if (d.empty()) return;
    S.create(d[0].size(), CV_32FC1);
    S.setTo(0);
    bool const square = metric_ != L1;
    int const cols = S.cols;
    parallelRows(S.rows, std::int64_t(S.rows) * cols * std::int64_t(d.size()), [&](int y) {
        float *s = S.ptr<float>(y);
        for (cv::Mat const &plane : d) {
            int const ch = plane.channels();
            float const *p = plane.ptr<float>(y);
            for (int c = 0; c < ch; ++c)
                for (int x = 0; x < cols; ++x)
                    s[x] += square ? gradientTerm<true>(p[x * ch + c])
                                   : gradientTerm<false>(p[x * ch + c]);
        }
    });
}

// ---- recursive filter ----------------------------------------------------------------------

float *DTFilter::scratch(std::size_t perThread) {
    std::size_t const need = perThread * std::size_t(std::max(1, omp_get_max_threads()));
    if (m_scratch.size() < need) m_scratch.resize(need);
    return m_scratch.data();
}

void DTFilter::domain(cv::Mat const &guide, float ratio) {
    m_dx.create(guide.size(), CV_32FC1);
    m_dy.create(guide.size(), CV_32FC1);
    bool const square = metric != L1;
    withChannels(guide.channels(), [&](auto c) {
        constexpr int CH = decltype(c)::value;
        if (square)
            domainPlanes<CH, true>(guide, guide.channels(), ratio, m_dx, m_dy);
        else
            domainPlanes<CH, false>(guide, guide.channels(), ratio, m_dx, m_dy);
    });
}

void DTFilter::recurse(cv::Mat const &in, cv::Mat &out, float sigmaS_, int N) {
    // Holding in by value keeps its pixels alive should out be reallocated over it.
    cv::Mat const src = in;
    out.create(src.size(), src.type());
    if (N <= 0) {
        if (!sharesPixels(src, out)) src.copyTo(out);
        return;
    }
    std::size_t const perThread = std::max(rowsScratch(src.cols), colsScratch(src.rows));
    float *buffer = scratch(perThread);
    float sigma = sigmaS_;
    withChannels(src.channels(), [&](auto c) {
        constexpr int CH = decltype(c)::value;
        for (int i = 0; i < N; ++i) {
            sigma = nextSigma(sigma, i, N);
            float const factor = weightFactor(sigma);
            rowsPass<CH>(i == 0 ? &src : &out, &out, 1, m_dx, factor, buffer, perThread);
            colsPass<CH>(&out, 1, m_dy, factor, buffer, perThread);
        }
    });
}

void DTFilter::RF(cv::Mat const &in, cv::Mat &out, float sigmaS_, float sigmaR_, int N) {
    domain(in, sigmaS_ / sigmaR_);
    recurse(in, out, sigmaS_, N);
}

void DTFilter::RF(std::vector<cv::Mat> const &in, std::vector<cv::Mat> &out, float sigmaS_,
                  float sigmaR_, std::vector<cv::Mat> const &guides) {
    kxRequire(!guides.empty(), kNoGuides);
    m_dx.create(guides[0].size(), CV_32FC1);
    m_dy.create(guides[0].size(), CV_32FC1);
    if (metric == L1)
        guideGradientSums<false>(guides, m_dx, m_dy);
    else
        guideGradientSums<true>(guides, m_dx, m_dy);
    float const ratio = sigmaS_ / sigmaR_;
    sumToDomain(m_dx, ratio);
    sumToDomain(m_dy, ratio);
    // Sources held by value: out may be the same vector as in.
    std::vector<cv::Mat> const src(in.begin(), in.end());
    out.resize(src.size());
    int const N = int(numIter), planes = int(src.size());
    for (int p = 0; p < planes; ++p)
        out[p].create(src[p].size(), src[p].type());
    if (N <= 0) {
        for (int p = 0; p < planes; ++p)
            if (!sharesPixels(src[p], out[p])) src[p].copyTo(out[p]);
        return;
    }
    std::size_t const perThread = std::max(rowsScratch(m_dx.cols), colsScratch(m_dx.rows));
    float *buffer = scratch(perThread);
    // Planes of one channel count share each pass's weights; others take their own.
    bool const alike = std::all_of(src.begin(), src.end(), [&](cv::Mat const &p) {
        return p.channels() == src[0].channels();
    });
    float sigma = sigmaS_;
    for (int i = 0; i < N; ++i) {
        sigma = nextSigma(sigma, i, N);
        float const factor = weightFactor(sigma);
        std::vector<cv::Mat> const &from = i == 0 ? src : out;
        for (int p = 0, step = alike ? planes : 1; p < planes; p += step)
            withChannels(src[p].channels(), [&](auto c) {
                constexpr int CH = decltype(c)::value;
                rowsPass<CH>(&from[p], &out[p], step, m_dx, factor, buffer, perThread);
                colsPass<CH>(&out[p], step, m_dy, factor, buffer, perThread);
            });
    }
}

void DTFilter::RFCH(cv::Mat &img, cv::Mat const &D, float sigma) {
    std::size_t const perThread = rowsScratch(img.cols);
    float *buffer = scratch(perThread);
    withChannels(img.channels(), [&](auto c) {
        rowsPass<decltype(c)::value>(&img, &img, 1, D, weightFactor(sigma), buffer, perThread);
    });
}

void DTFilter::RFCV(cv::Mat &img, cv::Mat const &D, float sigma) {
    std::size_t const perThread = colsScratch(img.rows);
    float *buffer = scratch(perThread);
    withChannels(img.channels(), [&](auto c) {
        colsPass<decltype(c)::value>(&img, 1, D, weightFactor(sigma), buffer, perThread);
    });
}

// ---- normalised convolution ----------------------------------------------------------------

void DTFilter::NC(cv::Mat &img, cv::Mat const &ct, float radius) {
    int const ch = img.channels();
    std::size_t const perThread = ncRowsScratch(img.cols, ch);
    float *buffer = scratch(perThread);
    withChannels(ch, [&](auto c) {
        ncRowsPass<decltype(c)::value>(img, img, ct, radius, buffer, perThread);
    });
}

void DTFilter::NCF(cv::Mat const &in, cv::Mat &out, float sigmaS_, float sigmaR_) {
    domain(in, sigmaS_ / sigmaR_);
    cumulateRows(m_dx);
    cumulateCols(m_dy);
    transposePositions(m_dy, m_ct);
    cv::Mat const src = in;
    out.create(src.size(), src.type());
    int const ch = src.channels();
    std::size_t const perThread =
        std::max(ncRowsScratch(src.cols, ch), ncColsScratch(src.rows, ch));
    float *buffer = scratch(perThread);
    withChannels(ch, [&](auto c) {
        constexpr int CH = decltype(c)::value;
        for (int i = 0; i < 3; ++i) {
            float const sigmaH =
                float(powi(2.0, 2 - i) * (double(sigmaS_) * kSqrt3) / std::sqrt(63.0));
            float const radius = float(double(sigmaH) * kSqrt3);
            ncRowsPass<CH>(i == 0 ? src : out, out, m_dx, radius, buffer, perThread);
            ncColsPass<CH>(out, m_ct, radius, buffer, perThread);
        }
    });
}
