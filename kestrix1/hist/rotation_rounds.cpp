#include "kestrix1/hist/rotation_rounds.h"

#include <algorithm>
#include <memory>

#include "kestrix1/hist/m_hist.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"

using cv::Mat;

namespace {

constexpr int kCounts = 3 * kxHistBins;

// 1.5 2^23: adding and taking it away rounds a float below 2^22 in size to a whole number,
// to nearest with ties to even as the processor's conversions do, in vectorisable code.
constexpr float kRounder = 12582912.0f;

inline float roundSaturate(float r) {
    float const v = (r + kRounder) - kRounder;
    return v < -32768.0f ? -32768.0f : (v > 32767.0f ? 32767.0f : v);
}

inline int binOf(int v) {
    return (v + 32768) >> 6;
}

// Turns three channels of whole numbers in place by a 3 x 4 matrix, sums in pxColorTwist's
// order, rounded and saturated to 16 signed bits.
KX_VECTOR_CLONES void turnRow(float const *matrix, float *__restrict a, float *__restrict b,
                              float *__restrict c, int n) {
    float const t0 = matrix[0], t1 = matrix[1], t2 = matrix[2], t3 = matrix[3];
    float const t4 = matrix[4], t5 = matrix[5], t6 = matrix[6], t7 = matrix[7];
    float const t8 = matrix[8], t9 = matrix[9], t10 = matrix[10], t11 = matrix[11];
    for (int x = 0; x < n; ++x) {
        float const p = a[x], q = b[x], s = c[x];
        a[x] = roundSaturate(t0 * p + t1 * q + t2 * s + t3);
        b[x] = roundSaturate(t4 * p + t5 * q + t6 * s + t7);
        c[x] = roundSaturate(t8 * p + t9 * q + t10 * s + t11);
    }
}

// The same from three channels of 16-bit codes into floats.
KX_VECTOR_CLONES void turnCodes(float const *matrix, std::int16_t const *__restrict a16,
                                std::int16_t const *__restrict b16,
                                std::int16_t const *__restrict c16, float *__restrict a,
                                float *__restrict b, float *__restrict c, int n) {
    float const t0 = matrix[0], t1 = matrix[1], t2 = matrix[2], t3 = matrix[3];
    float const t4 = matrix[4], t5 = matrix[5], t6 = matrix[6], t7 = matrix[7];
    float const t8 = matrix[8], t9 = matrix[9], t10 = matrix[10], t11 = matrix[11];
    for (int x = 0; x < n; ++x) {
        float const p = a16[x], q = b16[x], s = c16[x];
        a[x] = roundSaturate(t0 * p + t1 * q + t2 * s + t3);
        b[x] = roundSaturate(t4 * p + t5 * q + t6 * s + t7);
        c[x] = roundSaturate(t8 * p + t9 * q + t10 * s + t11);
    }
}

// The same, giving the bins of the turned values instead of the values.
KX_VECTOR_CLONES void turnBins(float const *matrix, float const *__restrict a,
                               float const *__restrict b, float const *__restrict c,
                               int *__restrict i0, int *__restrict i1, int *__restrict i2, int n) {
    float const t0 = matrix[0], t1 = matrix[1], t2 = matrix[2], t3 = matrix[3];
    float const t4 = matrix[4], t5 = matrix[5], t6 = matrix[6], t7 = matrix[7];
    float const t8 = matrix[8], t9 = matrix[9], t10 = matrix[10], t11 = matrix[11];
    for (int x = 0; x < n; ++x) {
        float const p = a[x], q = b[x], s = c[x];
        i0[x] = binOf(int(roundSaturate(t0 * p + t1 * q + t2 * s + t3)));
        i1[x] = kxHistBins + binOf(int(roundSaturate(t4 * p + t5 * q + t6 * s + t7)));
        i2[x] = 2 * kxHistBins + binOf(int(roundSaturate(t8 * p + t9 * q + t10 * s + t11)));
    }
}

// Scratch of one band: three channels of a row as floats, and room for bin numbers.
struct RowScratch {
    explicit RowScratch(int cols)
        : f(std::size_t(cols) * 3), i(std::size_t(cols) * 3), w(std::size_t(cols) * 3) {}
    std::vector<float> f;
    std::vector<int> i;
    std::vector<std::int16_t> w;
    std::int16_t *codes(int c, int cols) { return w.data() + std::size_t(c) * cols; }
    float *ch(int c, int cols) { return f.data() + std::size_t(c) * cols; }
    int *bins(int c, int cols) { return i.data() + std::size_t(c) * cols; }
};

// Rows are handed out in runs as threads become free: twelve passes in a row would each wait
// for a thread that another process holds up, were the rows split evenly beforehand.
constexpr int kRowRun = 16;

// One thread's scratch for counting passes: a row of work, and `lanes` sets of nCounts
// counts that are added into the shared counts when the thread is done. The counts are
// whole numbers, so neither the split of rows nor the order of adding changes the sums.
class Counter {
public:
    Counter(int cols, int nCounts, int lanes, int *shared)
        : row(cols),
          local(std::size_t(nCounts) * lanes, 0),
          n_(nCounts),
          lanes_(lanes),
          shared_(shared) {}
    Counter(Counter const &) = delete;
    Counter &operator=(Counter const &) = delete;
    ~Counter() {
        for (int k = 0; k < n_; ++k) {
            int sum = 0;
            for (int l = 0; l < lanes_; ++l)
                sum += local[std::size_t(l) * n_ + k];
            if (sum != 0) {
#pragma omp atomic
                shared_[k] += sum;
            }
        }
    }
    RowScratch row;
    std::vector<int> local;

private:
    int n_, lanes_;
    int *shared_;
};

// body(scratch, y0, y1, localCounts) over runs of rows in parallel, counting into `counts`
// (set to zero first) through per-thread counts of `lanes` lanes.
template <class Body>
void countedRuns(int rows, int cols, int nCounts, int lanes, int *counts, Body &&body) {
    std::fill(counts, counts + nCounts, 0);
    parallelChunks(
        rows, kRowRun, std::int64_t(rows) * cols,
        [&] { return std::make_unique<Counter>(cols, nCounts, lanes, counts); },
        [&](std::unique_ptr<Counter> &c, int y0, int y1) {
            body(c->row, y0, y1, c->local.data());
        });
}

template <class T>
void loadPlanes(std::vector<Mat> const &planes, int y, std::int16_t const *codes, T *a, T *b, T *c,
                int cols) {
    std::uint16_t const *p0 = planes[0].ptr<std::uint16_t>(y);
    std::uint16_t const *p1 = planes[1].ptr<std::uint16_t>(y);
    std::uint16_t const *p2 = planes[2].ptr<std::uint16_t>(y);
    for (int x = 0; x < cols; ++x) {
        a[x] = codes[p0[x]];
        b[x] = codes[p1[x]];
        c[x] = codes[p2[x]];
    }
}

void loadTables(std::int16_t const *w, std::int16_t const *const tables[3], std::int16_t *a,
                std::int16_t *b, std::int16_t *c, int cols) {
    std::int16_t const *l0 = tables[0] + 32768, *l1 = tables[1] + 32768, *l2 = tables[2] + 32768;
    for (int x = 0; x < cols; ++x) {
        a[x] = l0[w[3 * x]];
        b[x] = l1[w[3 * x + 1]];
        c[x] = l2[w[3 * x + 2]];
    }
}

// Writes three channels of whole numbers as interleaved pixels, and their bins, one per
// channel with the channel's offset into the counts.
KX_VECTOR_CLONES void packRow(float const *__restrict a, float const *__restrict b,
                              float const *__restrict c, std::int16_t *__restrict w,
                              int *__restrict i0, int *__restrict i1, int *__restrict i2, int n) {
    for (int x = 0; x < n; ++x) {
        int const v0 = int(a[x]), v1 = int(b[x]), v2 = int(c[x]);
        w[3 * x] = std::int16_t(v0);
        w[3 * x + 1] = std::int16_t(v1);
        w[3 * x + 2] = std::int16_t(v2);
        i0[x] = binOf(v0);
        i1[x] = kxHistBins + binOf(v1);
        i2[x] = 2 * kxHistBins + binOf(v2);
    }
}

constexpr int kLanes = 4;

// Counts the bins of a row, pixel x into lane x % kLanes of kCounts counts each.
void countRow(int const *i0, int const *i1, int const *i2, int *counts, int n) {
    int *l0 = counts, *l1 = counts + kCounts, *l2 = counts + 2 * kCounts,
        *l3 = counts + 3 * kCounts;
    int x = 0;
    for (; x + kLanes <= n; x += kLanes) {
        ++l0[i0[x]], ++l0[i1[x]], ++l0[i2[x]];
        ++l1[i0[x + 1]], ++l1[i1[x + 1]], ++l1[i2[x + 1]];
        ++l2[i0[x + 2]], ++l2[i1[x + 2]], ++l2[i2[x + 2]];
        ++l3[i0[x + 3]], ++l3[i1[x + 3]], ++l3[i2[x + 3]];
    }
    for (; x < n; ++x)
        ++l0[i0[x]], ++l0[i1[x]], ++l0[i2[x]];
}

void storeCounted(RowScratch &s, std::int16_t *w, int *counts, int cols) {
    int *i0 = s.bins(0, cols), *i1 = s.bins(1, cols), *i2 = s.bins(2, cols);
    packRow(s.ch(0, cols), s.ch(1, cols), s.ch(2, cols), w, i0, i1, i2, cols);
    countRow(i0, i1, i2, counts, cols);
}

std::vector<std::int16_t> signedCodes(double offset) {
    Mat ramp(1, 65536, CV_16UC1), codes;
    for (int u = 0; u < 65536; ++u)
        ramp.at<std::uint16_t>(u) = std::uint16_t(u);
    ramp.convertTo(codes, CV_16S, kxToSignedScale, offset);
    return std::vector<std::int16_t>(codes.ptr<std::int16_t>(), codes.ptr<std::int16_t>() + 65536);
}

}  // namespace

std::int16_t const *kxSignedCodes(bool forTransfer) {
    static std::vector<std::int16_t> const forCompute = signedCodes(kxComputeOffset);
    static std::vector<std::int16_t> const forProc = signedCodes(kxTransferOffset);
    return forTransfer ? forProc.data() : forCompute.data();
}

std::uint16_t const *kxUnsignedCodes() {
    static std::vector<std::uint16_t> const codes = [] {
        Mat ramp(1, 65536, CV_16SC1), out;
        for (int v = 0; v < 65536; ++v)
            ramp.at<std::int16_t>(v) = std::int16_t(v - 32768);
        ramp.convertTo(out, CV_16U, kxToUnsignedScale, kxToUnsignedOffset);
        return std::vector<std::uint16_t>(out.ptr<std::uint16_t>(),
                                          out.ptr<std::uint16_t>() + 65536);
    }();
    return codes.data();
}

void kxCountRotations(std::vector<Mat> const &planes, int *counts) {
    int const rows = planes[0].rows, cols = planes[0].cols;
    std::int16_t const *codes = kxSignedCodes(false);
    countedRuns(rows, cols, kxRotations * kCounts, 1, counts,
                [&](RowScratch &s, int y0, int y1, int *local) {
                    float *a = s.ch(0, cols), *b = s.ch(1, cols), *c = s.ch(2, cols);
                    int *i0 = s.bins(0, cols), *i1 = s.bins(1, cols), *i2 = s.bins(2, cols);
                    for (int y = y0; y < y1; ++y) {
                        loadPlanes(planes, y, codes, a, b, c, cols);
                        for (int r = 0; r < kxRotations; ++r) {
                            int *h = local + r * kCounts;
                            turnBins(&MHist::gR[r][0][0], a, b, c, i0, i1, i2, cols);
                            for (int x = 0; x < cols; ++x) {
                                ++h[i0[x]];
                                ++h[i1[x]];
                                ++h[i2[x]];
                            }
                        }
                    }
                });
}

void kxTurnFirst(std::vector<Mat> const &planes, float const twist[12], Mat &work, int *counts) {
    int const rows = planes[0].rows, cols = planes[0].cols;
    std::int16_t const *codes = kxSignedCodes(true);
    countedRuns(
        rows, cols, kCounts, kLanes, counts, [&](RowScratch &s, int y0, int y1, int *local) {
            float *a = s.ch(0, cols), *b = s.ch(1, cols), *c = s.ch(2, cols);
            std::int16_t *a16 = s.codes(0, cols), *b16 = s.codes(1, cols), *c16 = s.codes(2, cols);
            for (int y = y0; y < y1; ++y) {
                loadPlanes(planes, y, codes, a16, b16, c16, cols);
                turnCodes(twist, a16, b16, c16, a, b, c, cols);
                storeCounted(s, work.ptr<std::int16_t>(y), local, cols);
            }
        });
}

void kxTurnNext(Mat &work, std::int16_t const *const tables[3], float const back[12],
                float const next[12], int *counts) {
    int const rows = work.rows, cols = work.cols;
    countedRuns(
        rows, cols, kCounts, kLanes, counts, [&](RowScratch &s, int y0, int y1, int *local) {
            float *a = s.ch(0, cols), *b = s.ch(1, cols), *c = s.ch(2, cols);
            std::int16_t *a16 = s.codes(0, cols), *b16 = s.codes(1, cols), *c16 = s.codes(2, cols);
            for (int y = y0; y < y1; ++y) {
                std::int16_t *w = work.ptr<std::int16_t>(y);
                loadTables(w, tables, a16, b16, c16, cols);
                turnCodes(back, a16, b16, c16, a, b, c, cols);
                turnRow(next, a, b, c, cols);
                storeCounted(s, w, local, cols);
            }
        });
}

void kxTurnLast(Mat const &work, std::int16_t const *const tables[3], float const back[12],
                std::vector<Mat> &out) {
    int const rows = work.rows, cols = work.cols;
    out.resize(3);
    for (Mat &plane : out)
        plane.create(rows, cols, CV_16UC1);
    std::uint16_t const *codes = kxUnsignedCodes() + 32768;
    parallelChunks(
        rows, kRowRun, std::int64_t(rows) * cols, [&] { return RowScratch(cols); },
        [&](RowScratch &s, int y0, int y1) {
            float *a = s.ch(0, cols), *b = s.ch(1, cols), *c = s.ch(2, cols);
            std::int16_t *a16 = s.codes(0, cols), *b16 = s.codes(1, cols), *c16 = s.codes(2, cols);
            for (int y = y0; y < y1; ++y) {
                loadTables(work.ptr<std::int16_t>(y), tables, a16, b16, c16, cols);
                turnCodes(back, a16, b16, c16, a, b, c, cols);
                std::uint16_t *o0 = out[0].ptr<std::uint16_t>(y),
                              *o1 = out[1].ptr<std::uint16_t>(y),
                              *o2 = out[2].ptr<std::uint16_t>(y);
                for (int x = 0; x < cols; ++x) {
                    o0[x] = codes[int(a[x])];
                    o1[x] = codes[int(b[x])];
                    o2[x] = codes[int(c[x])];
                }
            }
        });
}
