#include "kestrix1/filters/local_filter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "kestrix1/frame/clock.h"
#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/kestrix.h"
#include "kestrix1/frame/messages.h"
#include "kestrix1/frame/t_progress.h"
#include "kestrix1/frame/timing.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/px_memory.h"
#include "kestrix1/tables/lut_smoothing.h"

using cv::Mat;
using u16 = std::uint16_t;

namespace {

char const kProcType[] = "ERROR - LocalFilter::proc - src.type()!=CV_16UC1";

constexpr int kTableUsed = 65536;
constexpr int kTableAllocated = 65544;

// Planes of a few megapixels come from the huge-page allocator: every level-0 plane is made
// and dropped once per call.
Mat workPlane(int rows, int cols) {
    return std::int64_t(rows) * cols >= (1 << 20) ? pxTempPlane(rows, cols, CV_16UC1)
                                                  : Mat(rows, cols, CV_16UC1);
}

// Rows handed out in runs of kRowRun as threads become free: the passes here are short and
// many, and a thread held up by another process would otherwise hold up every pass.
// Results do not depend on which thread takes which rows. A filter run makes some ten passes
// per reference; those over less than a quarter megapixel cost less than waking a team.
constexpr int kRowRun = 32;

inline std::int64_t teamWork(std::int64_t pixels) {
    return pixels >= (1 << 18) ? pixels : 0;
}

template <class Make, class Body>
void rowRuns(int rows, std::int64_t pixels, Make &&make, Body &&body) {
    parallelChunks(rows, kRowRun, teamWork(pixels), make, body);
}

template <class Body>
void eachRow(int rows, std::int64_t work, Body &&body) {
    rowRuns(
        rows, work, [] { return 0; },
        [&](int, int y0, int y1) {
            for (int y = y0; y < y1; ++y)
                body(y);
        });
}

// rint of a non-negative float below 2^22, ties to even, in a form that vectorises.
inline float roundEven(float v) {
    return (v + 12582912.0f) - 12582912.0f;
}

// ---- the shift-based pyramid ---------------------------------------------------------------

// (1 2 1) / 4 along an input row at its odd places, truncated.
KX_VECTOR_CLONES
void halveAlong(u16 const *x, u16 *h, int inner) {
    for (int j = 0; j < inner; ++j)
        h[j] = u16((x[2 * j] + x[2 * j + 2] + 2u * x[2 * j + 1]) >> 2);
}

// (1 2 1) / 4 across three rows of halveAlong, truncated.
KX_VECTOR_CLONES
void halveAcross(u16 const *a, u16 const *b, u16 const *c, u16 *out, int n) {
    for (int j = 0; j < n; ++j)
        out[j] = u16((a[j] + c[j] + 2u * b[j]) >> 2);
}

// The last output row: two input rows, each weighted (1 2 1) / 4 with shifts, halved, added.
KX_VECTOR_CLONES
void halveLastRow(u16 const *p, u16 const *q, u16 *out, int inner) {
    for (int j = 0; j < inner; ++j) {
        unsigned const tp = ((p[2 * j] >> 2) + (p[2 * j + 1] >> 1) + (p[2 * j + 2] >> 2)) >> 1;
        unsigned const tq = ((q[2 * j] >> 2) + (q[2 * j + 1] >> 1) + (q[2 * j + 2] >> 2)) >> 1;
        out[j] = u16(tp + tq);
    }
}

void lookupRow(u16 const *in, u16 *out, int cols, u16 const *table) {
    for (int x = 0; x < cols; ++x)
        out[x] = table[in[x]];
}

// Rows of one thread's share of a halving: input rows (through the table when there is one)
// and their halveAlong rows, three kept, each with its last two values' shifted mean at the
// end, so that a row shared by two output rows is filtered once.
class RowHalver {
public:
    RowHalver(Mat const &src, u16 const *table)
        : src_(src),
          table_(table),
          inner_((src.cols - 1) / 2),
          along_(std::size_t(inner_ + 1) * 3),
          raw_(table != nullptr ? std::size_t(src.cols) * 2 : 0) {}

    // Input row r, mapped; `which` (0 or 1) picks the buffer when two are needed at once.
    u16 const *input(int r, int which) {
        if (table_ == nullptr) return src_.ptr<u16>(r);
        u16 *out = raw_.data() + std::size_t(which) * src_.cols;
        lookupRow(src_.ptr<u16>(r), out, src_.cols, table_);
        return out;
    }
    u16 const *along(int r) {
        u16 *h = along_.data() + std::size_t(r % 3) * (inner_ + 1);
        if (tags_[r % 3] != r) {
            u16 const *x = input(r, 0);
            int const c0 = std::max(src_.cols - 2, 0), c1 = src_.cols - 1;
            halveAlong(x, h, inner_);
            h[inner_] = u16((x[c0] >> 1) + (x[c1] >> 1));
            tags_[r % 3] = r;
        }
        return h;
    }

private:
    Mat const &src_;
    u16 const *table_;
    int inner_;
    std::vector<u16> along_, raw_;
    int tags_[3] = {-1, -1, -1};
};

// spd of src, or of table[src] when a table is given.
void halve(Mat const &src, Mat &dst, u16 const *table = nullptr) {
    int const rows = src.rows, cols = src.cols;
    int const innerRows = (rows - 1) / 2, innerCols = (cols - 1) / 2;
    dst.create((rows + 1) / 2, (cols + 1) / 2, CV_16UC1);
    // The last two columns and rows, one and the same when there is only one.
    int const c0 = std::max(cols - 2, 0), c1 = cols - 1;
    int const r0 = std::max(rows - 2, 0), r1 = rows - 1;
    rowRuns(
        dst.rows, std::int64_t(rows) * cols, [&] { return RowHalver(src, table); },
        [&](RowHalver &rows2, int i0, int i1) {
            for (int i = i0; i < i1; ++i) {
                u16 *out = dst.ptr<u16>(i);
                if (i < innerRows) {
                    u16 const *a = rows2.along(2 * i), *b = rows2.along(2 * i + 1);
                    u16 const *c = rows2.along(2 * i + 2);
                    halveAcross(a, b, c, out, innerCols);
                    out[innerCols] =
                        u16((a[innerCols] >> 2) + (b[innerCols] >> 1) + (c[innerCols] >> 2));
                } else {
                    u16 const *p = rows2.input(r0, 0), *q = rows2.input(r1, 1);
                    halveLastRow(p, q, out, innerCols);
                    double const mean = (double(p[c0]) + p[c1] + q[c0] + q[c1]) / 4.0;
                    out[innerCols] = u16(mean);
                }
            }
        });
}

// The doubling along a row: source row p into output row q of `cols` >= 3 values. Sample k
// lands at 2k + 1; even places take the mean of their two neighbours, odd places 3, 5, ...
// (c < cols - 1) are smoothed with theirs.
KX_VECTOR_CLONES
void doubleRow(u16 const *p, u16 *q, int cols) {
    int const pairs = (cols - 1) / 2;  // k = 1 .. pairs - 1 write q[2k + 1] and q[2k + 2]
    q[2] = u16((p[0] >> 1) + (p[1] >> 1));
    for (int k = 1; k < pairs; ++k) {
        u16 const e0 = u16((p[k] >> 1) + (p[k - 1] >> 1));
        u16 const e1 = u16((p[k + 1] >> 1) + (p[k] >> 1));
        q[2 * k + 1] = u16((p[k] >> 1) + (e0 >> 2) + (e1 >> 2));
        q[2 * k + 2] = e1;
    }
    q[0] = q[2];
    q[1] = u16((p[0] >> 1) + 2 * (q[2] >> 2));
    u16 const last = p[(cols + 1) / 2 - 1];
    if (cols % 2 == 0) {
        q[cols - 1] = u16((q[cols - 2] >> 1) + (last >> 1));
    } else {
        q[cols - 1] = q[cols - 3];
        q[cols - 2] = u16((q[cols - 3] >> 1) + (last >> 1));
    }
}

KX_VECTOR_CLONES
void meanRows(u16 const *a, u16 const *b, u16 *out, int cols) {
    for (int x = 0; x < cols; ++x)
        out[x] = u16((a[x] >> 1) + (b[x] >> 1));
}

KX_VECTOR_CLONES
void smoothInto(u16 const *row, u16 const *above, u16 const *below, u16 *out, int cols) {
    for (int x = 0; x < cols; ++x)
        out[x] = u16((row[x] >> 1) + (below[x] >> 2) + (above[x] >> 2));
}

// a - b + 32768 (sign -1) or a + b - 32768 (sign +1), saturated.
KX_VECTOR_CLONES
void offsetSumRow(u16 const *a, u16 const *b, u16 *out, int cols, int sign) {
    if (sign < 0) {
        for (int x = 0; x < cols; ++x)
            out[x] = u16(std::min(std::max(int(a[x]) - int(b[x]) + 32768, 0), 65535));
    } else {
        for (int x = 0; x < cols; ++x)
            out[x] = u16(std::min(std::max(int(a[x]) + int(b[x]) - 32768, 0), 65535));
    }
}

void offsetSum(Mat const &a, Mat const &b, Mat &out, int sign) {
    if (out.data != a.data && out.data != b.data) out.create(a.size(), CV_16UC1);
    eachRow(a.rows, a.total(), [&](int y) {
        offsetSumRow(a.ptr<u16>(y), b.ptr<u16>(y), out.ptr<u16>(y), a.cols, sign);
    });
}

// ---- blend ---------------------------------------------------------------------------------

// Coefficients of interval j. With f = G / step (divide) or G * scale, k = min((int)f, top)
// and frac = f - k: where k == j, out = trunc(hi frac + lo (1 - frac)) saturated to 16 bits.
// top = n - 2 extrapolates in the last interval; a top above every k leaves such pixels alone.
struct Blend {
    float scale;  // step, or 1 / step
    bool divide;
    int j, top;
    // Values of G whose k is j (blended), and whose k is j or j + 1 (where the new
    // reference's coefficients are read, now or in the next interval). k grows with G, so
    // both are ranges; lo > hi when empty.
    int blendLo = kTableUsed, blendHi = -1, needLo = kTableUsed, needHi = -1;

    int k(int g) const {
        float const f = divide ? float(g) / scale : float(g) * scale;
        return std::min(int(f), top);
    }
    void findRanges() {
        for (int g = 0; g < kTableUsed; ++g) {
            int const kg = k(g);
            if (kg == j) {
                blendLo = std::min(blendLo, g);
                blendHi = g;
            }
            if (kg == j || kg == j + 1) {
                needLo = std::min(needLo, g);
                needHi = g;
            }
        }
    }
};

template <bool Divide>
KX_VECTOR_CLONES void blendRowT(u16 const *g, u16 const *lo, u16 const *hi, u16 *out, int cols,
                                float scale, int j, int top) {
    for (int x = 0; x < cols; ++x) {
        float const f = Divide ? float(g[x]) / scale : float(g[x]) * scale;
        int k = int(f);
        k = k < top ? k : top;
        float const fr = f - float(k);
        float v = float(hi[x]) * fr + float(lo[x]) * (1.0f - fr);
        v = v < 0.0f ? 0.0f : v;
        v = v > 65535.0f ? 65535.0f : v;
        u16 const o = u16(int(v));
        u16 const keep = out[x];
        out[x] = k == j ? o : keep;
    }
}

KX_VECTOR_CLONES
void blendDivide(u16 const *g, u16 const *lo, u16 const *hi, u16 *out, int cols, float scale, int j,
                 int top) {
    blendRowT<true>(g, lo, hi, out, cols, scale, j, top);
}

KX_VECTOR_CLONES
void blendInverse(u16 const *g, u16 const *lo, u16 const *hi, u16 *out, int cols, float scale,
                  int j, int top) {
    blendRowT<false>(g, lo, hi, out, cols, scale, j, top);
}

inline void blendRow(Blend const &b, u16 const *g, u16 const *lo, u16 const *hi, u16 *out,
                     int cols) {
    if (b.divide)
        blendDivide(g, lo, hi, out, cols, b.scale, b.j, b.top);
    else
        blendInverse(g, lo, hi, out, cols, b.scale, b.j, b.top);
}

constexpr int kChunk = 64;

// The least and greatest value of every run of kChunk values along the rows of a plane of G:
// a run whose values all lie outside an interval's range is passed over without reading it.
struct RunSpans {
    int perRow = 0;
    std::vector<u16> lo, hi;

    void make(Mat const &g);
    u16 const *rowLo(int y) const { return lo.data() + std::size_t(y) * perRow; }
    u16 const *rowHi(int y) const { return hi.data() + std::size_t(y) * perRow; }
};

KX_VECTOR_CLONES
void runSpan(u16 const *g, int w, u16 *lo, u16 *hi) {
    u16 mn = 65535, mx = 0;
    for (int x = 0; x < w; ++x) {
        mn = g[x] < mn ? g[x] : mn;
        mx = g[x] > mx ? g[x] : mx;
    }
    *lo = mn;
    *hi = mx;
}

inline bool outside(u16 lo, u16 hi, int from, int to) {
    return hi < from || lo > to;
}

// One row of a reference's Laplacian level, out = a -+ f +- 32768 as the sign says, with the
// blend of its output level fused in. Without a blend every value is made; with one, runs
// whose G lies outside the values of this interval and the next are left as they are:
// nothing ever reads them.
// With a table, a's values are first mapped through it.
void combineRow(u16 const *a, u16 const *table, u16 const *f, u16 *out, int cols, int sign,
                Blend const *b, u16 const *g, u16 const *lo, u16 *o, u16 const *runLo,
                u16 const *runHi) {
    if (b == nullptr && table == nullptr) {
        offsetSumRow(a, f, out, cols, sign);
        return;
    }
    u16 mapped[kChunk];
    for (int x = 0, r = 0; x < cols; x += kChunk, ++r) {
        if (b != nullptr && outside(runLo[r], runHi[r], b->needLo, b->needHi)) continue;
        int const w = std::min(kChunk, cols - x);
        u16 const *ax = a + x;
        if (table != nullptr) {
            lookupRow(ax, mapped, w, table);
            ax = mapped;
        }
        offsetSumRow(ax, f + x, out + x, w, sign);
        if (b != nullptr && !outside(runLo[r], runHi[r], b->blendLo, b->blendHi))
            blendRow(*b, g + x, lo + x, out + x, o + x, w);
    }
}

// The top level: the blend alone, by the same runs.
void blendOnly(Blend const &b, u16 const *g, u16 const *lo, u16 const *hi, u16 *o, int cols,
               u16 const *runLo, u16 const *runHi) {
    for (int x = 0, r = 0; x < cols; x += kChunk, ++r)
        if (!outside(runLo[r], runHi[r], b.blendLo, b.blendHi))
            blendRow(b, g + x, lo + x, hi + x, o + x, std::min(kChunk, cols - x));
}

// The planes one level of the blend reads and writes; lo and hi may be one plane.
struct BlendLevel {
    Mat const *g, *lo;
    Mat *o;
    RunSpans const *spans;
};

// ---- doubling, one output row at a time ----------------------------------------------------

// The doubling's final rows straight from the source: odd rows are first the doubled source
// rows U (row 2s + 1 from source row s), even rows E the mean of their two neighbours, then
// odd rows 3, 5, ... below rows - 2 are smoothed with the finished even rows beside them,
// and the first and last rows are copied or averaged. Every final row depends on at most
// three source rows, so bands of rows are independent. Needs rows >= 4, cols >= 3 and a
// source of at least ((rows + 1) / 2) x ((cols + 1) / 2) samples.
class RowDoubler {
public:
    RowDoubler(Mat const &src, int rows, int cols)
        : src_(src), rows_(rows), cols_(cols), buf_(std::size_t(cols) * 7) {}

    // Final row r; the pointer stays valid until the next call.
    u16 const *row(int r) {
        int const R = rows_;
        u16 *f = slot(4), *e0 = slot(5), *e1 = slot(6);
        if (r == 0) {
            even(2, f);
        } else if (r == 1) {
            even(2, e0);
            meanRows(U(0), e0, f, cols_);
        } else if (R % 2 == 0 && r == R - 1) {
            even(R - 2, e0);
            meanRows(U((R - 2) / 2), e0, f, cols_);
        } else if (R % 2 == 1 && r == R - 1) {
            even(R - 3, f);
        } else if (R % 2 == 1 && r == R - 2) {
            even(R - 3, e0);
            meanRows(U((R - 3) / 2), e0, f, cols_);
        } else if (r % 2 == 0) {
            even(r, f);
        } else {
            even(r - 1, e0);
            even(r + 1, e1);
            smoothInto(U((r - 1) / 2), e0, e1, f, cols_);
        }
        return f;
    }

private:
    u16 *slot(int i) { return buf_.data() + std::size_t(i) * cols_; }
    // The doubled source row s, kept in one of four slots.
    u16 const *U(int s) {
        u16 *p = slot(s & 3);
        if (tags_[s & 3] != s) {
            doubleRow(src_.ptr<u16>(s), p, cols_);
            tags_[s & 3] = s;
        }
        return p;
    }
    void even(int e, u16 *out) {
        u16 const *a = U(e / 2 - 1);
        meanRows(a, U(e / 2), out, cols_);
    }

    Mat const &src_;
    int rows_, cols_;
    std::vector<u16> buf_;
    int tags_[4] = {-1, -1, -1, -1};
};

// out = up(src) (sign 0), a - up(src) + 32768 (sign -1) or a + up(src) - 32768 (sign +1),
// for the sizes RowDoubler takes; out may be a. With `blend`, each finished row of out is
// then blended into the output level as the upper reference.
void doubleCombine(Mat const &src, Mat const *a, Mat &out, int sign, Blend const *blend,
                   BlendLevel const *level, u16 const *table = nullptr) {
    int const rows = out.rows, cols = out.cols;
    rowRuns(
        rows, std::int64_t(rows) * cols, [&] { return RowDoubler(src, rows, cols); },
        [&](RowDoubler &doubler, int y0, int y1) {
            for (int y = y0; y < y1; ++y) {
                u16 const *f = doubler.row(y);
                u16 *o = out.ptr<u16>(y);
                if (sign == 0)
                    std::memcpy(o, f, cols * sizeof(u16));
                else if (blend == nullptr)
                    combineRow(a->ptr<u16>(y), table, f, o, cols, sign, nullptr, nullptr, nullptr,
                               nullptr, nullptr, nullptr);
                else
                    combineRow(a->ptr<u16>(y), table, f, o, cols, sign, blend,
                               level->g->ptr<u16>(y), level->lo->ptr<u16>(y), level->o->ptr<u16>(y),
                               level->spans->rowLo(y), level->spans->rowHi(y));
            }
        });
}

void doubleSize(Mat const &src, Mat &dst, cv::Size size) {
    if (size.width <= 0 || size.height <= 0) {
        dst.create(std::max(size.height, 0), std::max(size.width, 0), CV_16UC1);
        return;
    }
    int const rows = std::max(size.height, 4), cols = std::max(size.width, 3);
    int const needRows = (rows + 1) / 2, needCols = (cols + 1) / 2;
    if (rows == size.height && cols == size.width && src.rows >= needRows && src.cols >= needCols) {
        Mat out = dst.data == src.data ? Mat(size, CV_16UC1) : (dst.create(size, CV_16UC1), dst);
        doubleCombine(src, nullptr, out, 0, nullptr, nullptr);
        dst = out;
        return;
    }
    // Small or short sources: work on a source extended by its last row and column and an
    // output of the least size, and keep the corner asked for.
    int const haveRows = std::min(src.rows, needRows), haveCols = std::min(src.cols, needCols);
    Mat extended;
    cv::copyMakeBorder(src(cv::Rect(0, 0, haveCols, haveRows)), extended, 0, needRows - haveRows, 0,
                       needCols - haveCols, cv::BORDER_REPLICATE);
    Mat whole(rows, cols, CV_16UC1);
    doubleCombine(extended, nullptr, whole, 0, nullptr, nullptr);
    whole(cv::Rect(0, 0, size.width, size.height)).copyTo(dst);
}

// ---- remap ---------------------------------------------------------------------------------

// r_g(x) for a row, the table index rounded at run time.
KX_VECTOR_CLONES
void remapRow(u16 const *in, u16 *out, int cols, u16 const *table, float g) {
    for (int x = 0; x < cols; ++x) {
        float const d = roundEven((float(in[x]) - g) * 0.5f + 32768.0f);
        int const i = int(std::min(std::max(d, 0.0f), 65535.0f));
        int const v = int(in[x]) + 2 * int(table[i]) - 65536;
        out[x] = u16(std::min(std::max(v, 0), 65535));
    }
}

u16 const *rampTable() {
    static std::vector<u16> const ramp = [] {
        std::vector<u16> r(kTableUsed);
        for (int i = 0; i < kTableUsed; ++i)
            r[i] = u16(i);
        return r;
    }();
    return ramp.data();
}

void lookup(Mat const &in, Mat &out, u16 const *table) {
    eachRow(in.rows, in.total(), [&](int y) {
        u16 const *s = in.ptr<u16>(y);
        u16 *d = out.ptr<u16>(y);
        for (int x = 0; x < in.cols; ++x)
            d[x] = table[s[x]];
    });
}

// ---- reference pyramids --------------------------------------------------------------------

// Which of the two pyramid methods a variant uses.
struct Pyramid {
    bool opencv;
    Mat scratch;  // full-size plane for OpenCV's doubling

    void down(Mat const &in, Mat &out) const {
        if (opencv)
            cv::pyrDown(in, out, cv::Size(0, 0), cv::BORDER_REFLECT101);
        else
            halve(in, out);
    }

    // next doubled to `size` in the scratch plane, by OpenCV or by the shift-based steps.
    Mat doubled(Mat const &next, cv::Size size) {
        Mat u = scratch(cv::Rect(0, 0, size.width, size.height));
        if (opencv)
            cv::pyrUp(next, u, size, cv::BORDER_REFLECT101);
        else
            doubleSize(next, u, size);
        return u;
    }

    // out = a - up(next) + 32768; then, with blend, level blended with out as upper end.
    // With a table (the shift-based pyramid only), a is the plane before the remap.
    void laplacianLevel(Mat const &next, Mat const &a, Mat &out, Blend const *blend,
                        BlendLevel const *level, u16 const *table = nullptr) {
        if (out.data != a.data) out.create(a.size(), CV_16UC1);
        if (!opencv && a.rows >= 4 && a.cols >= 3) {
            doubleCombine(next, &a, out, -1, blend, level, table);
            return;
        }
        Mat const u = doubled(next, a.size());
        eachRow(a.rows, a.total(), [&](int y) {
            bool const b = blend != nullptr;
            combineRow(a.ptr<u16>(y), table, u.ptr<u16>(y), out.ptr<u16>(y), a.cols, -1, blend,
                       b ? level->g->ptr<u16>(y) : nullptr, b ? level->lo->ptr<u16>(y) : nullptr,
                       b ? level->o->ptr<u16>(y) : nullptr, b ? level->spans->rowLo(y) : nullptr,
                       b ? level->spans->rowHi(y) : nullptr);
        });
    }

    // out = a + up(next) - 32768.
    void collapseLevel(Mat const &next, Mat const &a, Mat &out) {
        if (out.data != a.data) out.create(a.size(), CV_16UC1);
        if (!opencv && a.rows >= 4 && a.cols >= 3) {
            doubleCombine(next, &a, out, +1, nullptr, nullptr);
            return;
        }
        Mat const u = doubled(next, a.size());
        offsetSum(a, u, out, +1);
    }

    // levels[0] holds a plane; levels 1..depth-1 become its Gaussian levels, then levels
    // 0..depth-2 its Laplacian ones in place, the top staying Gaussian. Each level can have
    // the blend of its output level fused in, with `lower` the interval's lower reference
    // (null: this pyramid is both ends).
    // With a table, levels[0] is only storage: the reference is table[G[0]], remapped as it
    // is read.
    void build(std::vector<Mat> &levels, Blend const *blend, std::vector<Mat> const *lower,
               std::vector<Mat> const &G, std::vector<Mat> &O, std::vector<RunSpans> const &spans,
               u16 const *table) {
        int const depth = int(levels.size());
        for (int i = 1; i < depth; ++i) {
            if (i == 1 && table != nullptr)
                halve(G[0], levels[1], table);
            else
                down(levels[i - 1], levels[i]);
        }
        for (int i = 0; i < depth; ++i) {
            BlendLevel const level{&G[i], lower != nullptr ? &(*lower)[i] : &levels[i], &O[i],
                                   &spans[i]};
            if (i == 0 && table != nullptr && depth > 1) {
                laplacianLevel(levels[1], G[0], levels[0], blend, &level, table);
            } else if (i + 1 < depth) {
                laplacianLevel(levels[i + 1], levels[i], levels[i], blend, &level);
            } else if (blend != nullptr) {
                Mat const &g = G[i], &lo = *level.lo, &hi = levels[i];
                Mat &o = O[i];
                eachRow(g.rows, g.total(), [&](int y) {
                    blendOnly(*blend, g.ptr<u16>(y), lo.ptr<u16>(y), hi.ptr<u16>(y), o.ptr<u16>(y),
                              g.cols, spans[i].rowLo(y), spans[i].rowHi(y));
                });
            }
        }
    }
};

void RunSpans::make(Mat const &g) {
    perRow = (g.cols + kChunk - 1) / kChunk;
    lo.resize(std::size_t(perRow) * g.rows);
    hi.resize(lo.size());
    eachRow(g.rows, g.total(), [&](int y) {
        u16 const *row = g.ptr<u16>(y);
        u16 *l = lo.data() + std::size_t(y) * perRow, *h = hi.data() + std::size_t(y) * perRow;
        for (int x = 0, r = 0; x < g.cols; x += kChunk, ++r)
            runSpan(row + x, std::min(kChunk, g.cols - x), l + r, h + r);
    });
}

}  // namespace

// ---- construction and tables ---------------------------------------------------------------

LocalFilter::LocalFilter() : LocalFilter(8, 16) {}

LocalFilter::LocalFilter(int pyrLevels, int remapLevels)
    : pyrLevels(pyrLevels), remapLevels(remapLevels) {
    remapLut = pxMalloc_16u(kTableAllocated);
    std::fill(remapLut, remapLut + kTableAllocated, u16(0));
    resetTable();
    int const levels[] = {0, 32760, 32764, 32768, 32772, 32776, 65535};
    int const values[] = {32768, 32768, 32764, 32768, 32772, 32768, 32768};
    applyPairs(levels, values, 7);
}

LocalFilter::LocalFilter(LocalFilter const &other)
    : strength(other.strength),
      range(other.range),
      pyrLevels(other.pyrLevels),
      remapLevels(other.remapLevels),
      initialized(other.initialized) {
    remapLut = pxMalloc_16u(kTableAllocated);
    std::memcpy(remapLut, other.remapLut, kTableAllocated * sizeof(u16));
    if (other.levelLuts != nullptr && other.m_lutRows >= 0) {
        std::size_t const n = std::size_t(other.m_lutRows + 1) << 16;
        levelLuts = pxMalloc_16u(int(n));
        std::memcpy(levelLuts, other.levelLuts, n * sizeof(u16));
        m_lutRows = other.m_lutRows;
    }
}

LocalFilter &LocalFilter::operator=(LocalFilter const &other) {
    if (this != &other) {
        LocalFilter copy(other);
        std::swap(strength, copy.strength);
        std::swap(range, copy.range);
        std::swap(pyrLevels, copy.pyrLevels);
        std::swap(remapLevels, copy.remapLevels);
        std::swap(initialized, copy.initialized);
        std::swap(remapLut, copy.remapLut);
        std::swap(levelLuts, copy.levelLuts);
        std::swap(m_lutRows, copy.m_lutRows);
    }
    return *this;
}

LocalFilter::~LocalFilter() {
    pxFree(remapLut);
    pxFree(levelLuts);
}

void LocalFilter::resetTable() {
    for (int i = 0; i < kTableUsed; ++i)
        remapLut[i] = u16(i);
}

// Entries in [levels[k], levels[k+1]) take the line between the two pairs; the division
// truncates towards zero.
void LocalFilter::applyPairs(int const *levels, int const *values, int count) {
    for (int k = 0; k + 1 < count; ++k) {
        std::int64_t const l0 = levels[k], l1 = levels[k + 1];
        std::int64_t const v0 = values[k], dv = std::int64_t(values[k + 1]) - v0;
        for (std::int64_t i = std::max<std::int64_t>(l0, 0);
             i < std::min<std::int64_t>(l1, kTableUsed); ++i)
            remapLut[i] = u16(std::clamp<std::int64_t>(v0 + (i - l0) * dv / (l1 - l0), 0, 65535));
    }
}

void LocalFilter::calRemapLut(float strength, float) {
    int const r = int(std::fabs(strength) * 32768.0f + 8.0f);
    int const h = r / 2;
    int const s = strength >= 0 ? r : -r;
    int const levels[] = {0, 32768 - r, 32768 - h, 32768, 32768 + h, 32768 + r, 65535};
    int const values[] = {32768, 32768, 32768 - s / 2, 32768, 32768 + s / 2, 32768, 32768};
    resetTable();
    applyPairs(levels, values, 7);
}

bool LocalFilter::setup(float strength, int pyrLevels, int remapLevels) {
    this->strength = strength;
    this->pyrLevels = pyrLevels;
    this->remapLevels = remapLevels;
    calRemapLut(strength, 0.0f);
    return true;
}

bool LocalFilter::setup(float strength) {
    this->strength = strength;
    remapLevels = 64;
    calRemapLut(strength, 0.0f);
    return true;
}

bool LocalFilter::setup(cv::Mat const &controlPoints, int remapLevels, float smooth) {
    int n = remapLevels == 0 ? 32 : remapLevels;
    n = std::clamp(n, 8, 256);
    this->remapLevels = n;

    Mat cp;
    controlPoints.convertTo(cp, CV_32F);
    int const k = cp.cols * cp.channels() >= 2 ? cp.rows : 0;
    float const R = range * 32768.0f;
    float lastGain = 1.0f;
    std::vector<std::pair<int, int>> pairs;
    pairs.emplace_back(32768, 32768);
    for (int i = 0; i < k; ++i) {
        float const x = cp.ptr<float>(i)[0], y = cp.ptr<float>(i)[1];
        float const a = R * x, b = (y - 1.0f) * a;
        pairs.emplace_back(int(32768.0f + a), int(32768.0f + b));
        pairs.emplace_back(int(32768.0f - a), int(32768.0f - b));
        lastGain = y;
    }
    pairs.emplace_back(int(32768.0f + R), int(32768.0f + (lastGain - 1.0f) * R));
    pairs.emplace_back(int(32768.0f - R), int(32768.0f - (lastGain - 1.0f) * R));
    std::stable_sort(pairs.begin(), pairs.end(),
                     [](auto const &p, auto const &q) { return p.first < q.first; });
    std::vector<int> levels, values;
    for (auto const &p : pairs) {
        levels.push_back(p.first);
        values.push_back(p.second);
    }
    resetTable();
    applyPairs(levels.data(), values.data(), int(levels.size()));
    for (int i = 1; i <= 32766; ++i)
        remapLut[32768 - i] = u16(-remapLut[32768 + i]);
    smoothTable(remapLut, kTableUsed, smooth, 2);
    setupLUT(n);
    return true;
}

bool LocalFilter::setup(float *const p) {
    int const x[6] = {32768, 34406, 36044, 39321, 45875, 65536};
    double const negative[4] = {1146.88, 2293.76, 3932.16, 6553.6};
    double const positive[4] = {3276.8, 7372.8, 8192.0, 13107.2};
    int y[6];
    y[0] = 32768;
    int lo = 32768, hi = 32768;
    for (int i = 0; i < 4; ++i) {
        y[i + 1] = int(32768.0 + double(p[i]) * (p[i] < 0 ? negative[i] : positive[i]));
        lo = std::min(lo, y[i + 1]);
        hi = std::max(hi, y[i + 1]);
    }
    y[5] = int(65535.0 - 1.75 * double(std::max(hi - lo, 0)));

    char text[160];
    std::snprintf(text, sizeof text, "cp: %d,%d; %d,%d; %d,%d; %d,%d; %d,%d; %d,%d; ", x[0], y[0],
                  x[1], y[1], x[2], y[2], x[3], y[3], x[4], y[4], x[5], y[5]);
    Kestrix::toQDebug("LocalFilter::setup", 231, text);

    for (int i = 32768; i <= 65534; ++i)
        remapLut[i] = u16(i);
    applyPairs(x, y, 6);
    remapLut[32768] = 32768;
    for (int i = 1; i <= 32766; ++i)
        remapLut[32768 - i] = u16(-remapLut[32769 + i]);
    remapLut[1] = remapLut[2];
    remapLut[0] = remapLut[1];
    remapLut[32767] = remapLut[32766];

    double const a = std::fabs(double(p[0]));
    int const n = std::clamp(int((a * 42.0 + (1.0 - a) * 22.0) * 1.5), 8, 256);
    remapLevels = n;
    smoothTable(remapLut, kTableUsed, float(26213.6 / n), 3);
    setupLUT(n);
    return true;
}

bool LocalFilter::adjustRemap(cv::Mat const &table) {
    if (table.total() * table.channels() != 256) return false;
    Mat t;
    table.convertTo(t, CV_32F);
    t = t.reshape(1, 1);
    if (!t.isContinuous()) t = t.clone();
    float const *c = t.ptr<float>();
    int levels[256], values[256];
    for (int i = 0; i < 256; ++i) {
        levels[i] = i * 65535 / 256;
        values[i] = int((c[i] - float(i) / 255.0f) * 32767.0f + 32768.0f);
    }
    resetTable();
    applyPairs(levels, values, 256);
    return true;
}

void LocalFilter::setupLUT(int levels) {
    pxFree(levelLuts);
    levelLuts = nullptr;
    m_lutRows = 0;
    if (levels < 1 || levels > 32767) return;
    levelLuts = pxMalloc_16u(levels << 16);
    m_lutRows = levels - 1;
    float const step = range * 65535.0f / float(std::max(remapLevels, 1));
    std::fill(levelLuts + (std::size_t(levels - 1) << 16), levelLuts + (std::size_t(levels) << 16),
              u16(0));
    u16 const *ramp = rampTable();
    parallelRows(levels - 1, std::int64_t(levels - 1) << 16, [&](int row) {
        remapRow(ramp, levelLuts + (std::size_t(row) << 16), kTableUsed, remapLut,
                 float(row + 1) * step);
    });
}

// ---- pyramid primitives --------------------------------------------------------------------

bool LocalFilter::spd(cv::Mat &src, cv::Mat &dst) {
    if (src.empty()) return true;
    if (dst.data == src.data) {
        Mat out;
        halve(src, out);
        dst = out;
    } else {
        halve(src, dst);
    }
    return true;
}

bool LocalFilter::spu(cv::Mat &src, cv::Mat &dst, cv::Size_<int> size) {
    if (src.empty()) return true;
    doubleSize(src, dst, size);
    return true;
}

bool LocalFilter::sadd(cv::Mat &a, cv::Mat &b, cv::Mat &dst) {
    offsetSum(a, b, dst, +1);
    return true;
}

bool LocalFilter::ssubstract(cv::Mat &a, cv::Mat &b, cv::Mat &dst) {
    offsetSum(a, b, dst, -1);
    return true;
}

// ---- proc ----------------------------------------------------------------------------------

bool LocalFilter::proc3(cv::Mat const &src, cv::Mat &dst, TProgress *progress) {
    return run(src, dst, progress, Variant::cvPyramid);
}

bool LocalFilter::proc4(cv::Mat const &src, cv::Mat &dst, TProgress *progress) {
    return run(src, dst, progress, Variant::simplePyramid);
}

bool LocalFilter::proc5(cv::Mat const &src, cv::Mat &dst, TProgress *progress) {
    return run(src, dst, progress, Variant::levelTables);
}

bool LocalFilter::run(cv::Mat const &src, cv::Mat &dst, TProgress *progress, Variant variant) {
    if (src.empty()) return true;
    kxRequire(src.type() == CV_16UC1, kProcType);
    bool const tables = variant == Variant::levelTables;
    int const n = remapLevels;
    if (tables && n >= 2 && (levelLuts == nullptr || m_lutRows < n - 1)) setupLUT(n);

    // The working image, scaled around mid-grey.
    if (range == 1.0f)
        src.copyTo(dst);
    else
        src.convertTo(dst, CV_16UC1, range, (1.0 - range) * 32768.0);
    int const rows = dst.rows, cols = dst.cols;

    // The depth: floor(log2(min side)).
    int exponent = 0;
    std::frexp(double(std::min(rows, cols)), &exponent);
    int const depth = exponent - 1;
    pyrLevels = depth;

    int const total = n + 2;
    auto report = [&](int count) { return progress == nullptr || progress->prog(count, total); };
    auto unscale = [&](Mat const &from) {
        if (range == 1.0f)
            from.copyTo(dst);
        else
            from.convertTo(dst, CV_16UC1, 1.0 / range, (1.0 - 1.0 / range) * 32768.0);
    };
    if (depth < 1) {
        // A side of one pixel has no pyramid: the image comes back as it went in.
        if (!report(1)) return false;
        unscale(dst);
        return report(total);
    }

    Pyramid pyramid{variant == Variant::cvPyramid, Mat()};
    bool const simple = !pyramid.opencv;
    if (!simple || std::min(rows, cols) < 4) pyramid.scratch = workPlane(rows, cols);

    // The input's Gaussian levels G and, in O, its Laplacian ones to start the output.
    std::vector<Mat> G(depth), O(depth);
    G[0] = dst;
    for (int i = 1; i < depth; ++i)
        pyramid.down(G[i - 1], G[i]);
    O[0] = workPlane(rows, cols);
    for (int i = 0; i + 1 < depth; ++i)
        pyramid.laplacianLevel(G[i + 1], G[i], O[i], nullptr, nullptr);
    G[depth - 1].copyTo(O[depth - 1]);
    std::vector<RunSpans> spans(depth);
    for (int i = 0; i < depth; ++i)
        spans[i].make(G[i]);

    // Two reference pyramids, reused interval after interval.
    std::vector<Mat> B[2];
    for (auto &slot : B) {
        slot.resize(depth);
        slot[0] = workPlane(rows, cols);
    }

    if (!report(1)) return false;

    float const step = range * 65535.0f / float(n);
    long remapMs = 0, buildMs = 0, blendMs = 0;
    // The remap for reference `level` as a table over all values: a row of levelLuts, or the
    // same values worked out for this call from remapLut. The shift-based pyramids read the
    // image through it as they halve it; OpenCV's need the remapped plane.
    std::vector<u16> remapTables[2];
    auto tableFor = [&](int level, int slot) -> u16 const * {
        if (tables) return levelLuts + (std::size_t(level - 1) << 16);
        remapTables[slot].resize(kTableUsed);
        remapRow(rampTable(), remapTables[slot].data(), kTableUsed, remapLut, float(level) * step);
        return remapTables[slot].data();
    };
    bool const fused = simple && depth > 1 && std::min(rows, cols) >= 4;

    for (int j = 0; j + 1 < n; ++j) {
        int const hi = (j + 1) % 2, lo = j % 2;
        // The reference g_{j+1}, and at j = 0 the lower end of the first interval.
        long t = kxClockMs();
        u16 const *tableHi = tableFor(j + 1, hi);
        u16 const *tableLo = (j == 0 && !tables) ? tableFor(0, lo) : nullptr;
        if (!fused) {
            lookup(dst, B[hi][0], tableHi);
            if (tableLo != nullptr) lookup(dst, B[lo][0], tableLo);
        }
        remapMs += kxClockMs() - t;
        // The pyramid of the new reference, each level blended into the output as
        // soon as it is finished. proc5's first interval has both ends at g_1.
        t = kxClockMs();
        if (tableLo != nullptr)
            pyramid.build(B[lo], nullptr, nullptr, G, O, spans, fused ? tableLo : nullptr);
        Blend blend{tables ? 1.0f / step : step, !tables, j, tables ? n : n - 2};
        blend.findRanges();
        pyramid.build(B[hi], &blend, (j == 0 && tables) ? nullptr : &B[lo], G, O, spans,
                      fused ? tableHi : nullptr);
        buildMs += kxClockMs() - t;
        if (!report(j + 1)) return false;
    }
    for (auto &slot : B)
        slot.clear();

    // Collapse, then back to the host's contrast.
    long const t = kxClockMs();
    for (int l = depth - 2; l >= 0; --l)
        pyramid.collapseLevel(O[l + 1], O[l], O[l]);
    unscale(O[0]);
    blendMs += kxClockMs() - t;

    // The times, sums of processor-clock differences.
    if (!tables) {
        long const now = kxClockMs();
        kxPrintTimingNumber(kxTimeRemap, now - remapMs);
        kxPrintTimingNumber(
            variant == Variant::cvPyramid ? kxTimeBuildPyramidCv : kxTimeBuildPyramidSimple,
            now - buildMs);
        kxPrintTimingNumber(kxTimeReconstruct, now - blendMs);
    }
    return report(total);
}
