#include "kestrix1/filters/a_filter.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iostream>
#include <limits>

#include "kestrix1/frame/errors.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_geometry.h"
#include "kestrix1/kernels/px_memory.h"
#include "kestrix1/kernels/px_point.h"

namespace {

char const kInPlanes[] = "ERROR - AFilter::proc - in is not CV_32F planes of one size";
char const kGuide[] = "ERROR - AFilter::proc - guide is not CV_32F of in's size";
char const kResize[] = "ERROR - AFilter::resampling - pxResize failed";

constexpr double kSqrt2 = 1.4142135623730951;
constexpr float kFloatMax = 3.4028234663852886e+38f;
// Columns per strip of the vertical low-pass: a strip of the whole height stays in cache
// between the downward and the upward sweep.
constexpr int kStrip = 64;
// Rows interleaved in the horizontal low-pass, to overlap the latency of the recursions.
constexpr int kRowGroup = 8;
// Rows per chunk of the full-size passes and of the reduced-size splatting passes: threads
// take chunks as they come free, so a pass ends together when another process holds a core.
// Every row's result is the same whatever chunk or thread computes it.
constexpr int kChunk = 32;
constexpr int kChunkSmall = 8;
// Columns per tile of the slicing pass.
constexpr int kTile = 512;

// The make() of parallelChunks: each thread's own slice of a scratch block.
auto threadScratch(float *block, std::size_t perThread) {
    return [block, perThread] { return block + perThread * std::size_t(omp_get_thread_num()); };
}

// ---- linear resampling plans ---------------------------------------------------------------

// Target pixel t of one axis is s[i0] w0 + s[i1] w1.
struct Axis {
    std::vector<int> i0, i1;
    std::vector<float> w0, w1;
    int written = 0;  // targets the resize kernel writes: [0, written)
};

struct Plan {
    Axis x, y;
};

// The taps that pxResize's linear path uses, so that fused loops reproduce its values bit for
// bit: where its geometry is that of cv::resize it hands over to it, whose weights are floats
// from a float position, clamped to the edge pixel along x but not along y; otherwise it
// runs its own separable resampler with weights rounded from double positions.
Axis cvAxis(int src, int dst, bool clampWeights) {
    Axis a;
    a.i0.resize(dst), a.i1.resize(dst), a.w0.resize(dst), a.w1.resize(dst);
    double const scale = 1.0 / (double(dst) / src);
    for (int t = 0; t < dst; ++t) {
        float f = float((t + 0.5) * scale - 0.5);
        int s = int(std::floor(f));
        f -= float(s);
        if (clampWeights && s < 0) f = 0.0f, s = 0;
        if (clampWeights && s >= src - 1) f = 0.0f, s = src - 1;
        a.i0[t] = std::clamp(s, 0, src - 1);
        a.i1[t] = std::clamp(s + 1, 0, src - 1);
        a.w0[t] = 1.0f - f;
        a.w1[t] = f;
    }
    a.written = dst;
    return a;
}

Axis separableAxis(int src, int dst, double factor, int written) {
    Axis a;
    a.i0.resize(dst), a.i1.resize(dst), a.w0.resize(dst), a.w1.resize(dst);
    for (int t = 0; t < dst; ++t) {
        double const u = (t + 0.5) / factor - 0.5;
        double const i = std::floor(u), f = u - i;
        a.w0[t] = float(1.0 - f);
        a.w1[t] = float(f);
        a.i0[t] = std::clamp(int(i), 0, src - 1);
        a.i1[t] = std::clamp(int(i) + 1, 0, src - 1);
    }
    a.written = written;
    return a;
}

// Targets [0, n) whose centres fall inside the source: those the kernel writes.
int writtenCount(int src, int dst, double factor) {
    double const hi = std::ceil(src * factor - 0.5 - 1e-9);
    return int(std::max(0.0, std::min<double>(dst, hi)));
}

bool nearlyEqual(double a, double b) {
    return std::fabs(a - b) <= 1e-9 * (1.0 + std::fabs(b));
}

Plan linearPlan(cv::Size src, cv::Size dst, double fx, double fy) {
    int const wx = writtenCount(src.width, dst.width, fx);
    int const wy = writtenCount(src.height, dst.height, fy);
    bool const fits = wx == dst.width && wy == dst.height && wx > 0 && wy > 0 &&
                      nearlyEqual(double(src.width) / wx, 1.0 / fx) &&
                      nearlyEqual(double(src.height) / wy, 1.0 / fy);
    Plan p;
    if (fits) {
        p.x = cvAxis(src.width, wx, true);
        p.y = cvAxis(src.height, wy, false);
    } else {
        p.x = separableAxis(src.width, dst.width, fx, wx);
        p.y = separableAxis(src.height, dst.height, fy, wy);
    }
    return p;
}

cv::Size scaledSize(cv::Size s, double fx, double fy) {
    return {
        int(std::ceil(s.width * fx)),
        int(std::ceil(s.height * fy)),
    };
}

// h[c * count + t] for t < count: the horizontal taps of one row of ch interleaved channels.
void tapRow(float const *s, int ch, Axis const &a, int count, float *h) {
    for (int c = 0; c < ch; ++c) {
        float *o = h + std::size_t(c) * count;
        for (int t = 0; t < count; ++t)
            o[t] = s[a.i0[t] * ch + c] * a.w0[t] + s[a.i1[t] * ch + c] * a.w1[t];
    }
}

// Reduced rows tapped horizontally for an upsampling, cached per thread: consecutive target
// rows mostly read the same two source rows.
struct UpRows {
    float *h0, *h1;  // ch rows of count each
    int r0 = -1, r1 = -1;
    void fetch(cv::Mat const &small, Plan const &p, int y, int count) {
        int const ch = small.channels();
        int const a = p.y.i0[y], b = p.y.i1[y];
        if (a == r1 && a != r0) std::swap(h0, h1), std::swap(r0, r1);
        if (a != r0) tapRow(small.ptr<float>(a), ch, p.x, count, h0), r0 = a;
        if (b != r1) tapRow(small.ptr<float>(b), ch, p.x, count, h1), r1 = b;
    }
    // Channel c of target row y into o.
    void row(Plan const &p, int y, int c, int count, float *o) const {
        float const w0 = p.y.w0[y], w1 = p.y.w1[y];
        float const *a = h0 + std::size_t(c) * count, *b = h1 + std::size_t(c) * count;
        for (int t = 0; t < count; ++t)
            o[t] = a[t] * w0 + b[t] * w1;
    }
};

// ---- low-pass recursions -------------------------------------------------------------------

void recurseRows(float *const *rows, int g, int cols, int ch, float a) {
    int const n = cols * ch;
    for (int i = ch; i < n; ++i)
        for (int r = 0; r < g; ++r) {
            float *p = rows[r];
            p[i] += a * (p[i - ch] - p[i]);
        }
    for (int i = n - ch - 1; i >= 0; --i)
        for (int r = 0; r < g; ++r) {
            float *p = rows[r];
            p[i] += a * (p[i + ch] - p[i]);
        }
}

float lowPassFactor(float sigma) {
    return float(std::exp(-kSqrt2 / double(sigma)));
}

}  // namespace

// ---- object --------------------------------------------------------------------------------

AFilter::AFilter(AFilter const &o)
    : sigmaS(o.sigmaS),
      sigmaR(o.sigmaR),
      pcaIterations(o.pcaIterations),
      treeArg(o.treeArg),
      guide(o.guide),
      sum(o.sum),
      minDist(o.minDist),
      eta(o.eta),
      cluster(o.cluster) {}

AFilter &AFilter::operator=(AFilter const &o) {
    sigmaS = o.sigmaS;
    sigmaR = o.sigmaR;
    pcaIterations = o.pcaIterations;
    treeArg = o.treeArg;
    guide = o.guide;
    sum = o.sum;
    minDist = o.minDist;
    eta = o.eta;
    cluster = o.cluster;
    return *this;
}

AFilter::~AFilter() = default;

bool AFilter::setup(float sigmaR_, float sigmaS_, int treeArg_, int pcaIterations_,
                    std::vector<cv::Mat> const &guide_) {
    sigmaS = sigmaS_;
    sigmaR = sigmaR_;
    treeArg = treeArg_;
    pcaIterations = pcaIterations_;
    guide.assign(guide_.begin(), guide_.end());
    return true;
}

bool AFilter::setup(float, float, int, int, cv::Mat const &) {
    return true;
}

bool AFilter::setSigma(float sigmaS_, float sigmaR_) {
    sigmaS = sigmaS_;
    sigmaR = sigmaR_;
    return true;
}

float *AFilter::scratch(std::size_t perThread) {
    std::size_t const need = perThread * std::size_t(std::max(1, omp_get_max_threads()));
    if (m_scratch.size() < need) m_scratch.resize(need);
    return m_scratch.data();
}

int AFilter::compute2(float sigmaS_, float sigmaR_) {
    int e = 0;
    std::frexp(sigmaS_, &e);  // sigmaS = m 2^e with m in [0.5, 1): floor(log2) is e - 1
    float const h = std::ceil(float(e - 1 - 1) * (1.0f - sigmaR_));
    return std::max(2, int(h));
}

// ---- low-pass filter -----------------------------------------------------------------------

namespace {

// The horizontal recursions from src into dst (src may be dst): each row is copied as its
// group comes up, while it is in cache anyway.
void rowsLowPass(cv::Mat const &src, cv::Mat &dst, float a) {
    int const rows = src.rows, cols = src.cols, ch = src.channels();
    int const groups = (rows + kRowGroup - 1) / kRowGroup;
    std::size_t const rowBytes = sizeof(float) * std::size_t(cols) * ch;
    parallelRows(groups, std::int64_t(rows) * cols * ch, [&](int g) {
        float *p[kRowGroup];
        int const y0 = g * kRowGroup, n = std::min(kRowGroup, rows - y0);
        for (int r = 0; r < n; ++r) {
            p[r] = dst.ptr<float>(y0 + r);
            if (src.data != dst.data) std::memcpy(p[r], src.ptr<float>(y0 + r), rowBytes);
        }
        recurseRows(p, n, cols, ch, a);
    });
}

}  // namespace

void AFilter::hFilterHorizontal(cv::Mat &img, float sigma) {
    if (img.empty()) return;
    rowsLowPass(img, img, lowPassFactor(sigma));
}

void AFilter::hFilterVertical(cv::Mat &img, float sigma) {
    if (img.rows < 2) return;
    float const a = lowPassFactor(sigma);
    int const rows = img.rows, width = img.cols * img.channels();
    int const strips = (width + kStrip - 1) / kStrip;
    parallelRows(strips, std::int64_t(rows) * width, [&](int s) {
        int const x0 = s * kStrip, n = std::min(kStrip, width - x0);
        for (int y = 1; y < rows; ++y) {
            float *p = img.ptr<float>(y) + x0;
            float const *q = img.ptr<float>(y - 1) + x0;
            for (int i = 0; i < n; ++i)
                p[i] += a * (q[i] - p[i]);
        }
        for (int y = rows - 2; y >= 0; --y) {
            float *p = img.ptr<float>(y) + x0;
            float const *q = img.ptr<float>(y + 1) + x0;
            for (int i = 0; i < n; ++i)
                p[i] += a * (q[i] - p[i]);
        }
    });
}

void AFilter::hFilter(cv::Mat const &in, float sigma, cv::Mat &out) {
    if (in.empty()) {
        out.release();
        return;
    }
    // Held by value: in's pixels stay alive should out be re-created over them.
    cv::Mat const src = in;
    if (src.data != out.data || src.step != out.step) out.create(src.size(), src.type());
    rowsLowPass(src, out, lowPassFactor(sigma));
    hFilterVertical(out, sigma);
}

void AFilter::hFilter(std::vector<cv::Mat> const &in, float sigma, std::vector<cv::Mat> &out) {
    std::vector<cv::Mat> const src(in.begin(), in.end());
    out.resize(src.size());
    for (std::size_t i = 0; i < src.size(); ++i)
        hFilter(src[i], sigma, out[i]);
}

// ---- resampling ----------------------------------------------------------------------------

void AFilter::resampling(cv::Mat const &in, cv::Mat &out, double fx, double fy) {
    if (in.empty()) {
        out.release();
        return;
    }
    cv::Size const size = scaledSize(in.size(), fx, fy);
    if (out.size() != size || out.type() != CV_32FC1) out.create(size, CV_32FC1);
    IppiRect const srcRoi{0, 0, in.cols, in.rows}, dstRoi{0, 0, size.width, size.height};
    int bytes = 0;
    kxRequireStatus(pxResizeBufferSize(srcRoi, dstRoi, 1, pxInterLinear, &bytes), kResize);
    std::uint8_t *buffer = ippsMalloc_8u(bytes);
    PxStatus const status =
        pxResize(in.ptr<float>(), IppiSize{in.cols, in.rows}, int(in.step), srcRoi,
                 out.ptr<float>(), int(out.step), dstRoi, fx, fy, 0.0, 0.0, pxInterLinear, buffer);
    pxFree(buffer);
    kxRequireStatus(status, kResize);
    // The targets past the last source centre, left alone by the kernel.
    Plan const p = linearPlan(in.size(), size, fx, fy);
    if (p.x.written == size.width && p.y.written == size.height) return;
    std::vector<float> h0(size.width), h1(size.width);
    for (int y = 0; y < size.height; ++y) {
        int const x0 = y < p.y.written ? p.x.written : 0;
        if (x0 >= size.width) continue;
        tapRow(in.ptr<float>(p.y.i0[y]), 1, p.x, size.width, h0.data());
        tapRow(in.ptr<float>(p.y.i1[y]), 1, p.x, size.width, h1.data());
        float *o = out.ptr<float>(y);
        for (int x = x0; x < size.width; ++x)
            o[x] = h0[x] * p.y.w0[y] + h1[x] * p.y.w1[y];
    }
}

// ---- principal direction -------------------------------------------------------------------

namespace {

// One row's share of a power iteration: t = c (sum_i X[i] v[i]), and the row's sums of
// X[i] t (products in float) in double.
void pcaRow(float const *const *X, float const *c, float const *vf, int m, int cols, float *t,
            double *sums) {
    for (int x = 0; x < cols; ++x)
        t[x] = X[0][x] * vf[0];
    for (int i = 1; i < m; ++i)
        for (int x = 0; x < cols; ++x)
            t[x] += X[i][x] * vf[i];
    for (int x = 0; x < cols; ++x)
        t[x] *= c[x];
    // Four running sums, lanes of x mod 4, added pairwise at the end: independent chains.
    int const body = cols & ~3;
    for (int i = 0; i < m; ++i) {
        double s[4] = {0.0, 0.0, 0.0, 0.0};
        for (int x = 0; x < body; x += 4)
            for (int l = 0; l < 4; ++l)
                s[l] += double(X[i][x + l] * t[x + l]);
        for (int x = body; x < cols; ++x)
            s[x & 3] += double(X[i][x] * t[x]);
        sums[i] = (s[0] + s[1]) + (s[2] + s[3]);
    }
}

// v from the row sums, added in row order, scaled to length 1. False, with v left alone,
// when the sums give no direction.
bool pcaFinish(std::vector<double> const &rowSums, int rows, int m, cv::Mat &v) {
    std::vector<double> total(m, 0.0);
    for (int y = 0; y < rows; ++y)
        for (int i = 0; i < m; ++i)
            total[i] += rowSums[std::size_t(y) * m + i];
    double norm = 0.0;
    for (int i = 0; i < m; ++i)
        norm += double(float(total[i])) * double(float(total[i]));
    if (!(norm > 0.0) || !std::isfinite(norm)) return false;
    double const scale = 1.0 / std::sqrt(norm);
    for (int i = 0; i < m; ++i)
        v.ptr<float>()[i] = float(double(float(total[i])) * scale);
    return true;
}

// The power iteration over rows that rowX(y, first row of a band) makes: it returns the m rows
// of X for row y. Per-row sums in double, added in row order.
template <class RowX>
void powerIterations(int rows, int cols, int m, int iterations, cv::Mat &v, cv::Mat const &cluster,
                     std::vector<double> &rowSums, float *scratch, std::size_t perThread,
                     RowX &&rowX) {
    if (iterations < 1 || m < 1) return;
    rowSums.resize(std::size_t(rows) * m);
    for (int it = 0; it < iterations; ++it) {
        std::vector<float> vf(v.ptr<float>(), v.ptr<float>() + m);
        parallelChunks(rows, kChunk, std::int64_t(rows) * cols * (m + 1),
                       threadScratch(scratch, perThread), [&](float *t, int y0, int y1) {
                           for (int y = y0; y < y1; ++y)
                               pcaRow(rowX(y, y == y0), cluster.ptr<float>(y), vf.data(), m, cols,
                                      t, &rowSums[std::size_t(y) * m]);
                       });
        if (!pcaFinish(rowSums, rows, m, v)) return;
    }
}

}  // namespace

void AFilter::compute3(std::vector<cv::Mat> &X, int iterations, cv::Mat &v, cv::Mat &cluster_) {
    if (X.empty() || X[0].empty()) return;
    int const rows = X[0].rows, cols = X[0].cols, m = int(X.size());
    std::size_t const perThread = std::size_t(cols) + m;
    float *buffer = scratch(perThread);
    std::vector<float const *> ptrs(std::size_t(m) * std::max(1, omp_get_max_threads()));
    powerIterations(rows, cols, m, iterations, v, cluster_, m_rowSums, buffer, perThread,
                    [&](int y, bool) {
                        float const **p = ptrs.data() + std::size_t(m) * omp_get_thread_num();
                        for (int i = 0; i < m; ++i)
                            p[i] = X[i].ptr<float>(y);
                        return static_cast<float const *const *>(p);
                    });
}

// ---- one node of the tree ------------------------------------------------------------------

void AFilter::build(std::vector<cv::Mat> const &f, std::vector<cv::Mat> const &g,
                    std::vector<cv::Mat> &etaIn, cv::Mat &clusterIn, float sS, float sR, int level,
                    int height, int pca) {
    ++nodesVisited;
    int const n = int(f.size()), m = int(g.size());
    cv::Size const full = g[0].size();
    int const W = full.width, H = full.height;
    if (int(sum.size()) != n + 1 || sum[0].size() != full || minDist.size() != full)
        setupAccumulators(f);
    // The outermost call slices what is still pending when it returns, unless a whole run
    // does that together with the output.
    struct Depth {
        AFilter &af;
        ~Depth() {
            if (--af.m_depth == 0 && !af.m_final) af.flush(nullptr, nullptr);
        }
    } const depth{*this};
    ++m_depth;

    float const sigmaRn = float(sR / std::sqrt(2.0));
    float const dfReal = std::max(1.0f, std::min(0.25f * sS, 256.0f * sR));
    int const df = 1 << int(std::floor(std::log2(dfReal)));
    double const down = 1.0 / df;
    m_dt.setup(sS / float(df), sigmaRn, 1, DTFilter::L1);

    cv::Size const small = scaledSize(full, down, down);
    // A slot for this node's weights and blurred planes: the slicing into sum waits for a
    // full set of slots (or the end), so that sum is read and written once per set.
    int const slots = slotCount(full);
    if (m_pending > 0 && (m_pending == slots || m_df != df || m_small != small))
        flush(nullptr, nullptr);
    if (int(m_phiPool.size()) < slots) m_phiPool.resize(slots), m_blurPool.resize(slots);
    m_df = df;
    m_small = small;
    cv::Mat &phiPlane = m_phiPool[m_pending];
    cv::Mat &blurPlane = m_blurPool[m_pending];
    ++m_pending;
    Plan const dn = linearPlan(full, small, down, down);
    bool const etaFull = etaIn[0].size() == full;
    cv::Size const upSize = scaledSize(small, df, df);
    Plan const up = linearPlan(small, upSize, df, df);
    if (!etaFull) cv::merge(etaIn, m_etaSmall);

    // Per-thread scratch: m rows of X, two more rows and an upsampling cache of eta (two
    // tapped rows per channel); the splatting passes reuse it.
    std::size_t const full1 = std::size_t(m) + 2 + 2 * std::size_t(m);
    std::size_t const perThread =
        std::size_t(W) * std::max({full1, 2 * std::size_t(n + 1 + m), 4 * std::size_t(m + 1)}) + 64;
    float *buffer = scratch(perThread);
    float const kf = float(-0.5 / (double(sR) * double(sR)));

    // X rows of row y from the guide and eta (upsampled on the way when eta is reduced).
    auto xRows = [&](int y, float *xs, UpRows &cache) {
        if (!etaFull) cache.fetch(m_etaSmall, up, y, W);
        for (int i = 0; i < m; ++i) {
            float *x = xs + std::size_t(i) * W;
            float const *gi = g[i].ptr<float>(y);
            if (etaFull) {
                float const *e = etaIn[i].ptr<float>(y);
                for (int t = 0; t < W; ++t)
                    x[t] = gi[t] - e[t];
            } else {
                cache.row(up, y, i, W, x);
                for (int t = 0; t < W; ++t)
                    x[t] = gi[t] - x[t];
            }
        }
    };
    // The cache of upsampled eta rows in a thread's scratch.
    auto threadCache = [&](float *base) {
        UpRows c;
        c.h0 = base + std::size_t(W) * (m + 2);
        c.h1 = c.h0 + std::size_t(W) * m;
        return c;
    };

    // Below the height, the random direction of the split and the first power iteration
    // ride along with the distances.
    bool const leaf = level >= height;
    cv::Mat v(m, 1, CV_32FC1, cv::Scalar(0));
    bool const fusedPca = !leaf && pca >= 1;
    if (!leaf) {
        cv::randu(v, 0.0f, 1.0f);
        for (int i = 0; i < m; ++i)
            v.ptr<float>()[i] -= 0.5f;
    }
    std::vector<float> const vf(v.ptr<float>(), v.ptr<float>() + m);
    if (fusedPca) m_rowSums.resize(std::size_t(H) * m);

    // Distances, weights and the smallest distance, one pass over the full size.
    phiPlane.create(full, CV_32FC1);
    bool const minFresh = m_minFresh;
    m_minFresh = false;
    parallelChunks(
        H, kChunk, std::int64_t(H) * W * (2 * m + 8), threadScratch(buffer, perThread),
        [&](float *base, int y0, int y1) {
            UpRows cache = threadCache(base);
            float *dist = base + std::size_t(W) * m;
            std::vector<float const *> X(m);
            for (int i = 0; i < m; ++i)
                X[i] = base + std::size_t(i) * W;
            for (int y = y0; y < y1; ++y) {
                xRows(y, base, cache);
                if (fusedPca)
                    pcaRow(X.data(), clusterIn.ptr<float>(y), vf.data(), m, W, dist + W,
                           &m_rowSums[std::size_t(y) * m]);
                for (int t = 0; t < W; ++t)
                    dist[t] = base[t] * base[t];
                for (int i = 1; i < m; ++i) {
                    float const *x = base + std::size_t(i) * W;
                    for (int t = 0; t < W; ++t)
                        dist[t] += x[t] * x[t];
                }
                float *md = minDist.ptr<float>(y);
                if (minFresh) {  // minDist holds the largest float: min() with it, unread
                    for (int t = 0; t < W; ++t)
                        md[t] = std::min(kFloatMax, dist[t]);
                } else {
                    for (int t = 0; t < W; ++t)
                        md[t] = std::min(md[t], dist[t]);
                }
                for (int t = 0; t < W; ++t)
                    dist[t] *= kf;
                pxExpRun(dist, phiPlane.ptr<float>(y), W);
            }
        });

    // Splatting: psi = (phi f[0], ..., phi f[n-1], phi) reduced, interleaved; eta reduced
    // likewise when it comes at full size. Only the full rows the taps read are formed.
    m_psi.create(small, CV_32FC(n + 1));
    if (etaFull) m_etaSmall.create(small, CV_32FC(m));
    parallelChunks(small.height, kChunkSmall, std::int64_t(small.height) * W * (n + m + 2) * 2,
                   threadScratch(buffer, perThread), [&](float *base, int r0, int r1) {
                       float *h = base;  // (n + 1 + m) x 2 rows
                       int const sw = small.width;
                       int const *i0 = dn.x.i0.data(), *i1 = dn.x.i1.data();
                       float const *w0 = dn.x.w0.data(), *w1 = dn.x.w1.data();
                       for (int r = r0; r < r1; ++r) {
                           for (int k = 0; k < 2; ++k) {
                               int const y = k == 0 ? dn.y.i0[r] : dn.y.i1[r];
                               float const *phi = phiPlane.ptr<float>(y);
                               float *hk = h + std::size_t(k) * sw * (n + 1 + m);
                               // The products phi f at the tapped columns only.
                               for (int i = 0; i < n; ++i) {
                                   float const *fi = f[i].ptr<float>(y);
                                   float *o = hk + std::size_t(i) * sw;
                                   for (int t = 0; t < sw; ++t)
                                       o[t] = (phi[i0[t]] * fi[i0[t]]) * w0[t] +
                                              (phi[i1[t]] * fi[i1[t]]) * w1[t];
                               }
                               tapRow(phi, 1, dn.x, sw, hk + std::size_t(n) * sw);
                               if (etaFull)
                                   for (int i = 0; i < m; ++i)
                                       tapRow(etaIn[i].ptr<float>(y), 1, dn.x, sw,
                                              hk + std::size_t(n + 1 + i) * sw);
                           }
                           float const w0 = dn.y.w0[r], w1 = dn.y.w1[r];
                           float const *ha = h, *hb = h + std::size_t(sw) * (n + 1 + m);
                           float *ps = m_psi.ptr<float>(r);
                           for (int c = 0; c <= n; ++c)
                               for (int t = 0; t < sw; ++t)
                                   ps[t * (n + 1) + c] = ha[c * sw + t] * w0 + hb[c * sw + t] * w1;
                           if (etaFull) {
                               float *es = m_etaSmall.ptr<float>(r);
                               for (int c = 0; c < m; ++c)
                                   for (int t = 0; t < sw; ++t)
                                       es[t * m + c] = ha[(n + 1 + c) * sw + t] * w0 +
                                                       hb[(n + 1 + c) * sw + t] * w1;
                           }
                       }
                   });

    // Blurring at the reduced size along the reduced manifold.
    m_dt.proc(m_psi, m_etaSmall, blurPlane, 0);

    if (!leaf) {
        // The further power iterations with X formed row by row, as compute3 does on whole
        // planes.
        std::size_t const pcaThread = std::size_t(W) * (m + 1);
        int const threads = std::max(1, omp_get_max_threads());
        std::vector<float const *> ptrs(std::size_t(m) * threads);
        std::vector<UpRows> caches(threads);
        std::vector<float> pcaScratch;
        if (pca >= 2) pcaScratch.resize(pcaThread * threads);
        if (fusedPca && pcaFinish(m_rowSums, H, m, v))
            powerIterations(H, W, m, pca - 1, v, clusterIn, m_rowSums, pcaScratch.data(), pcaThread,
                            [&](int y, bool first) {
                                int const th = omp_get_thread_num();
                                float *base = buffer + perThread * std::size_t(th);
                                UpRows &cache = caches[th];
                                if (first) cache = threadCache(base);
                                xRows(y, base, cache);
                                float const **p = ptrs.data() + std::size_t(m) * th;
                                for (int i = 0; i < m; ++i)
                                    p[i] = base + std::size_t(i) * W;
                                return static_cast<float const *const *>(p);
                            });
        if (int(m_levels.size()) <= level) m_levels.resize(level + 1);
        Level &L = m_levels[level];
        L.clusterMinus.create(full, CV_32FC1);
        L.clusterPlus.create(full, CV_32FC1);
    }

    if (leaf) return;

    // The split of the cluster by the side of the direction, one pass over the full size.
    float const *vp = v.ptr<float>();
    cv::Mat clusterMinus = m_levels[level].clusterMinus;
    cv::Mat clusterPlus = m_levels[level].clusterPlus;
    parallelChunks(H, kChunk, std::int64_t(H) * W * (m + 4), threadScratch(buffer, perThread),
                   [&](float *base, int y0, int y1) {
                       UpRows etaCache = threadCache(base);
                       float *row = base + std::size_t(W) * m;  // beside the X rows
                       for (int y = y0; y < y1; ++y) {
                           xRows(y, base, etaCache);
                           float *dot = row;
                           for (int t = 0; t < W; ++t)
                               dot[t] = base[t] * vp[0];
                           for (int i = 1; i < m; ++i) {
                               float const *x = base + std::size_t(i) * W;
                               for (int t = 0; t < W; ++t)
                                   dot[t] += x[t] * vp[i];
                           }
                           float const *c = clusterIn.ptr<float>(y);
                           float *cm = clusterMinus.ptr<float>(y);
                           float *cp = clusterPlus.ptr<float>(y);
                           for (int t = 0; t < W; ++t) {
                               bool const plus = dot[t] >= 0.0f;
                               cm[t] = plus ? 0.0f : c[t];
                               cp[t] = plus ? c[t] : 0.0f;
                           }
                       }
                   });

    // The two sides' manifolds: a[i] = guide[i] c, c = side (1 - phi), reduced, low-passed,
    // eta = a / c (0 where c is 0). Only the tapped pixels of the rows the taps read are
    // formed, both sides in one pass.
    Level &L = m_levels[level];
    float const sigmaSmall = sS / float(df);
    for (int side = 0; side < 2; ++side) {
        std::vector<cv::Mat> &etaSide = side == 0 ? L.etaMinus : L.etaPlus;
        etaSide.resize(m);
        for (int i = 0; i < m; ++i)
            etaSide[i].create(small, CV_32FC1);
        (side == 0 ? L.cMinus : L.cPlus).create(small, CV_32FC1);
    }
    parallelChunks(
        small.height, kChunkSmall, std::int64_t(small.height) * W * (m + 2) * 2,
        threadScratch(buffer, perThread), [&](float *h, int r0, int r1) {
            int const sw = small.width;
            int const *i0 = dn.x.i0.data(), *i1 = dn.x.i1.data();
            float const *w0 = dn.x.w0.data(), *w1 = dn.x.w1.data();
            // h: per side, per tapped row k, m + 1 rows of sw: a[0..m-1] then c.
            auto hRow = [&](int side, int k, int i) {
                return h + ((std::size_t(side) * 2 + k) * (m + 1) + i) * sw;
            };
            for (int r = r0; r < r1; ++r) {
                for (int k = 0; k < 2; ++k) {
                    int const y = k == 0 ? dn.y.i0[r] : dn.y.i1[r];
                    float const *phi = phiPlane.ptr<float>(y);
                    for (int side = 0; side < 2; ++side) {
                        float const *cl =
                            (side == 0 ? L.clusterMinus : L.clusterPlus).ptr<float>(y);
                        float *hc = hRow(side, k, m);
                        for (int t = 0; t < sw; ++t)
                            hc[t] = (cl[i0[t]] * (1.0f - phi[i0[t]])) * w0[t] +
                                    (cl[i1[t]] * (1.0f - phi[i1[t]])) * w1[t];
                        for (int i = 0; i < m; ++i) {
                            float const *gi = g[i].ptr<float>(y);
                            float *o = hRow(side, k, i);
                            for (int t = 0; t < sw; ++t)
                                o[t] = (gi[i0[t]] * (cl[i0[t]] * (1.0f - phi[i0[t]]))) * w0[t] +
                                       (gi[i1[t]] * (cl[i1[t]] * (1.0f - phi[i1[t]]))) * w1[t];
                        }
                    }
                }
                float const v0 = dn.y.w0[r], v1 = dn.y.w1[r];
                for (int side = 0; side < 2; ++side)
                    for (int i = 0; i <= m; ++i) {
                        cv::Mat &plane = i == m ? (side == 0 ? L.cMinus : L.cPlus)
                                                : (side == 0 ? L.etaMinus : L.etaPlus)[i];
                        float *o = plane.ptr<float>(r);
                        float const *a = hRow(side, 0, i), *b = hRow(side, 1, i);
                        for (int t = 0; t < sw; ++t)
                            o[t] = a[t] * v0 + b[t] * v1;
                    }
            }
        });
    for (int side = 0; side < 2; ++side) {
        std::vector<cv::Mat> &etaSide = side == 0 ? L.etaMinus : L.etaPlus;
        cv::Mat &cSide = side == 0 ? L.cMinus : L.cPlus;
        for (int i = 0; i < m; ++i)
            hFilter(etaSide[i], sigmaSmall, etaSide[i]);
        hFilter(cSide, sigmaSmall, cSide);
        parallelRows(small.height, std::int64_t(small.height) * small.width * m, [&](int r) {
            float const *c = cSide.ptr<float>(r);
            for (int i = 0; i < m; ++i) {
                float *e = etaSide[i].ptr<float>(r);
                for (int t = 0; t < small.width; ++t)
                    e[t] = c[t] == 0.0f ? 0.0f : e[t] / c[t];
            }
        });
    }
    // Headers of this level's planes: deeper nodes may grow m_levels.
    std::vector<cv::Mat> etaMinus = L.etaMinus, etaPlus = L.etaPlus;
    cv::Mat clusterM = L.clusterMinus, clusterP = L.clusterPlus;
    build(f, g, etaMinus, clusterM, sS, sR, level + 1, height, pca);
    build(f, g, etaPlus, clusterP, sS, sR, level + 1, height, pca);
}

void AFilter::build(cv::Mat const &f, cv::Mat const &g, cv::Mat &e, cv::Mat &c, float sS, float sR,
                    int level, int height, int pca) {
    std::vector<cv::Mat> const fv{f}, gv{g};
    std::vector<cv::Mat> ev{e};
    build(fv, gv, ev, c, sS, sR, level, height, pca);
}

// ---- whole runs ----------------------------------------------------------------------------

void AFilter::setupAccumulators(std::vector<cv::Mat> const &in) {
    // Both are written whole by their first use: the sums by the first slicing, minDist by
    // the first node; until then they count as zero and as the largest float.
    cv::Size const size = in[0].size();
    sum.resize(in.size() + 1);
    for (cv::Mat &s : sum)
        s.create(size, CV_32FC1);
    minDist.create(size, CV_32FC1);
    m_sumFresh = m_minFresh = true;
    m_pending = 0;
    m_depth = 0;
    m_final = false;
}

int AFilter::slotCount(cv::Size full) const {
    double const plane = double(full.area()) * sizeof(float);
    return int(std::clamp(pendingBytes / std::max(plane, 1.0), 1.0, 8.0));
}

void AFilter::flush(std::vector<cv::Mat> const *in, std::vector<cv::Mat> *out) {
    if (sum.empty() || sum[0].empty()) return;
    int const n = int(sum.size()) - 1, rows = sum[0].rows, cols = sum[0].cols;
    int const k = m_pending;
    bool const fresh = m_sumFresh;
    if (k == 0 && !out) return;
    if (out) {
        out->resize(n);
        for (int i = 0; i < n; ++i) {
            cv::Mat &o = (*out)[i];
            if (o.size() != sum[0].size() || o.type() != CV_32FC1 || o.data == (*in)[i].data)
                o.create(sum[0].size(), CV_32FC1);
        }
    }
    cv::Size const upSize = scaledSize(m_small, m_df, m_df);
    Plan const up = linearPlan(m_small, upSize, m_df, m_df);
    double const factor = -0.5 / (double(sigmaR) * double(sigmaR));
    // Per thread: alpha, and per pending node two tapped rows of n + 1 channels.
    std::size_t const perThread = std::size_t(cols) * (1 + 2 * std::size_t(k) * (n + 1)) + 64;
    float *buffer = scratch(perThread);
    parallelChunks(rows, kChunk, std::int64_t(rows) * cols * (2 * n + 2) * (k + 1),
                   threadScratch(buffer, perThread), [&](float *alpha, int y0, int y1) {
                       std::vector<UpRows> caches(k);
                       for (int j = 0; j < k; ++j) {
                           caches[j].h0 = alpha + cols + std::size_t(cols) * (n + 1) * 2 * j;
                           caches[j].h1 = caches[j].h0 + std::size_t(cols) * (n + 1);
                       }
                       for (int y = y0; y < y1; ++y) {
                           for (int j = 0; j < k; ++j)
                               caches[j].fetch(m_blurPool[j], up, y, cols);
                           // Tiles of columns keep a tile's sums and weights in the
                           // first-level cache across nodes and channels.
                           float const w0 = up.y.w0[y], w1 = up.y.w1[y];
                           for (int x0 = 0; x0 < cols; x0 += kTile) {
                               int const x1 = std::min(cols, x0 + kTile);
                               for (int c = 0; c <= n; ++c) {
                                   float *a = sum[c == n ? 0 : c + 1].ptr<float>(y);
                                   if (fresh) std::fill(a + x0, a + x1, 0.0f);
                                   for (int j = 0; j < k; ++j) {
                                       float const *phi = m_phiPool[j].ptr<float>(y);
                                       float const *h0 = caches[j].h0 + std::size_t(c) * cols;
                                       float const *h1 = caches[j].h1 + std::size_t(c) * cols;
                                       for (int t = x0; t < x1; ++t)
                                           a[t] += phi[t] * (h0[t] * w0 + h1[t] * w1);
                                   }
                               }
                           }
                           if (!out) continue;
                           float const *md = minDist.ptr<float>(y);
                           for (int x = 0; x < cols; ++x)
                               alpha[x] = float(double(md[x]) * factor);
                           pxExpRun(alpha, alpha, cols);
                           float const *s0 = sum[0].ptr<float>(y);
                           for (int i = 0; i < n; ++i) {
                               float const *si = sum[i + 1].ptr<float>(y);
                               float const *p = (*in)[i].ptr<float>(y);
                               float *o = (*out)[i].ptr<float>(y);
                               for (int x = 0; x < cols; ++x) {
                                   float const g = s0[x] == 0.0f ? 0.0f : si[x] / s0[x];
                                   o[x] = alpha[x] * g + (1.0f - alpha[x]) * p[x];
                               }
                           }
                       }
                   });
    m_pending = 0;
    m_sumFresh = false;
}

bool AFilter::proc(std::vector<cv::Mat> const &in, std::vector<cv::Mat> &out) {
    if (in.empty() || in[0].empty()) return true;
    for (cv::Mat const &p : in)
        kxRequire(p.type() == CV_32FC1 && p.size() == in[0].size(), kInPlanes);
    kxRequire(!guide.empty(), kGuide);
    for (cv::Mat const &p : guide)
        kxRequire(p.type() == CV_32FC1 && p.size() == in[0].size(), kGuide);

    nodesVisited = 0;
    setupAccumulators(in);
    std::int64_t const start = cv::getTickCount();
    auto seconds = [start] { return double(cv::getTickCount() - start) / cv::getTickFrequency(); };
    hFilter(guide, sigmaS, eta);
    cluster.create(in[0].size(), CV_32FC1);
    cluster.setTo(1.0f);
    std::cout << "a time:" << seconds() << std::endl;
    m_final = true;
    build(in, guide, eta, cluster, sigmaS, sigmaR, 1, compute2(sigmaS, sigmaR), pcaIterations);
    m_final = false;
    std::cout << "b time:" << seconds() << std::endl;
    // The last slicing and the output in one pass: out holds its own copy of in's headers.
    std::vector<cv::Mat> const src(in.begin(), in.end());
    flush(&src, &out);
    std::cout << "c time:" << seconds() << std::endl;
    return true;
}

void AFilter::build(std::vector<cv::Mat> &img, float sS, float sR, int height,
                    std::vector<cv::Mat> &etaOut, int pca, std::vector<cv::Mat> &out) {
    if (img.empty() || img[0].empty()) return;
    float const keepS = sigmaS, keepR = sigmaR;
    sigmaS = sS;
    sigmaR = sR;
    nodesVisited = 0;
    setupAccumulators(img);
    hFilter(img, sS, etaOut);
    cluster.create(img[0].size(), CV_32FC1);
    cluster.setTo(1.0f);
    m_final = true;
    build(img, img, etaOut, cluster, sS, sR, 1, height < 1 ? compute2(sS, sR) : height, pca);
    m_final = false;
    std::vector<cv::Mat> const src(img.begin(), img.end());
    flush(&src, &out);
    sigmaS = keepS;
    sigmaR = keepR;
}

void AFilter::compute1(std::vector<cv::Mat> &X, int planes, std::vector<cv::Mat> &w,
                       int keepDistance) {
    if (X.empty() || X[0].empty()) return;
    int const m = planes < 1 ? int(X.size()) : std::min(planes, int(X.size()));
    cv::Mat d(X[0].size(), CV_32FC1, cv::Scalar(0));
    for (int i = 0; i < m; ++i)
        d += X[i].mul(X[i]);
    w.resize(keepDistance ? 2 : 1);
    cv::exp(d * (-0.5 / (double(sigmaR) * double(sigmaR))), w[0]);
    if (keepDistance) w[1] = d;
}
