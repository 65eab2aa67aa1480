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

// rint of a non-negative float below 2^22, ties to even, in a form that vectorises.
inline float roundEven(float v) {
    return (v + 12582912.0f) - 12582912.0f;
}

// ---- the shift-based pyramid ---------------------------------------------------------------

// One output row of spd from input rows a, b, c (a = c = b on the last row's terms).
KX_VECTOR_CLONES
void halveInteriorRow(u16 const *a, u16 const *b, u16 const *c, u16 *out, int inner) {
    for (int j = 0; j < inner; ++j) {
        unsigned const ha = (a[2 * j] + a[2 * j + 2] + 2u * a[2 * j + 1]) >> 2;
        unsigned const hb = (b[2 * j] + b[2 * j + 2] + 2u * b[2 * j + 1]) >> 2;
        unsigned const hc = (c[2 * j] + c[2 * j + 2] + 2u * c[2 * j + 1]) >> 2;
        out[j] = u16((ha + hc + 2u * hb) >> 2);
    }
}

KX_VECTOR_CLONES
void halveLastRow(u16 const *p, u16 const *q, u16 *out, int inner) {
    for (int j = 0; j < inner; ++j) {
        unsigned const tp = ((p[2 * j] >> 2) + (p[2 * j + 1] >> 1) + (p[2 * j + 2] >> 2)) >> 1;
        unsigned const tq = ((q[2 * j] >> 2) + (q[2 * j + 1] >> 1) + (q[2 * j + 2] >> 2)) >> 1;
        out[j] = u16(tp + tq);
    }
}

inline unsigned pairShift(u16 const *row, int c0, int c1, int shift) {
    return ((row[c0] >> 1) + (row[c1] >> 1)) >> shift;
}

void halve(Mat const &src, Mat &dst) {
    int const rows = src.rows, cols = src.cols;
    int const innerRows = (rows - 1) / 2, innerCols = (cols - 1) / 2;
    dst.create((rows + 1) / 2, (cols + 1) / 2, CV_16UC1);
    // The last two columns and rows, one and the same when there is only one.
    int const c0 = std::max(cols - 2, 0), c1 = cols - 1;
    int const r0 = std::max(rows - 2, 0), r1 = rows - 1;
    parallelRows(dst.rows, std::int64_t(rows) * cols, [&](int i) {
        u16 *out = dst.ptr<u16>(i);
        if (i < innerRows) {
            u16 const *a = src.ptr<u16>(2 * i), *b = src.ptr<u16>(2 * i + 1);
            u16 const *c = src.ptr<u16>(2 * i + 2);
            halveInteriorRow(a, b, c, out, innerCols);
            out[innerCols] =
                u16(pairShift(a, c0, c1, 2) + pairShift(b, c0, c1, 1) + pairShift(c, c0, c1, 2));
        } else {
            u16 const *p = src.ptr<u16>(r0), *q = src.ptr<u16>(r1);
            halveLastRow(p, q, out, innerCols);
            double const mean = (double(p[c0]) + p[c1] + q[c0] + q[c1]) / 4.0;
            out[innerCols] = u16(mean);
        }
    });
}

// Step 1 of the doubling: source row p into output row q of `cols` >= 3 values. Sample k
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
void smoothRow(u16 *row, u16 const *above, u16 const *below, int cols) {
    for (int x = 0; x < cols; ++x)
        row[x] = u16((row[x] >> 1) + (below[x] >> 2) + (above[x] >> 2));
}

// The doubling on sizes it is made for: rows >= 4, cols >= 3 and src of at least
// ((rows + 1) / 2) x ((cols + 1) / 2) samples.
void doubleCore(Mat const &src, Mat &dst) {
    int const rows = dst.rows, cols = dst.cols;
    std::int64_t const work = std::int64_t(rows) * cols / 2;
    auto row = [&](int r) { return dst.ptr<u16>(r); };
    // 1. odd rows from the source rows.
    parallelRows(rows / 2, work, [&](int i) { doubleRow(src.ptr<u16>(i), row(2 * i + 1), cols); });
    // 2. row 2 between rows 1 and 3.
    meanRows(row(3), row(1), row(2), cols);
    // 3. even rows 4, 6, ... from the odd rows as they came, then odd rows 3, 5, ... smoothed
    //    with the finished even rows beside them: the order of a serial sweep.
    int const inner = std::max(0, (rows - 2 - 3 + 1) / 2);  // r = 3 + 2t < rows - 2
    parallelRows(inner, work, [&](int t) {
        int const r = 3 + 2 * t;
        meanRows(row(r), row(r + 2), row(r + 1), cols);
    });
    parallelRows(inner, work, [&](int t) {
        int const r = 3 + 2 * t;
        smoothRow(row(r), row(r - 1), row(r + 1), cols);
    });
    // 4. the last rows.
    if (rows % 2 == 1) {
        std::memcpy(row(rows - 1), row(rows - 3), cols * sizeof(u16));
        meanRows(row(rows - 2), row(rows - 3), row(rows - 2), cols);
    } else {
        meanRows(row(rows - 1), row(rows - 2), row(rows - 1), cols);
    }
    // 5. the first rows.
    std::memcpy(row(0), row(2), cols * sizeof(u16));
    meanRows(row(1), row(2), row(1), cols);
}

void doubleSize(Mat const &src, Mat &dst, cv::Size size) {
    if (size.width <= 0 || size.height <= 0) {
        dst.create(std::max(size.height, 0), std::max(size.width, 0), CV_16UC1);
        return;
    }
    int const rows = std::max(size.height, 4), cols = std::max(size.width, 3);
    int const needRows = (rows + 1) / 2, needCols = (cols + 1) / 2;
    if (rows == size.height && cols == size.width && src.rows >= needRows &&
        src.cols >= needCols) {
        if (dst.data == src.data) {
            Mat out(size, CV_16UC1);
            doubleCore(src, out);
            dst = out;
        } else {
            dst.create(size, CV_16UC1);
            doubleCore(src, dst);
        }
        return;
    }
    // Small or short sources: work on a source extended by its last row and column and an
    // output of the least size, and keep the corner asked for.
    int const haveRows = std::min(src.rows, needRows), haveCols = std::min(src.cols, needCols);
    Mat extended;
    cv::copyMakeBorder(src(cv::Rect(0, 0, haveCols, haveRows)), extended, 0,
                       needRows - haveRows, 0, needCols - haveCols, cv::BORDER_REPLICATE);
    Mat whole(rows, cols, CV_16UC1);
    doubleCore(extended, whole);
    whole(cv::Rect(0, 0, size.width, size.height)).copyTo(dst);
}

// a - b + 32768 (sign -1) or a + b - 32768 (sign +1), saturated.
KX_VECTOR_CLONES
void offsetSumRow(u16 const *a, u16 const *b, u16 *out, int cols, int sign) {
    if (sign < 0) {
        for (int x = 0; x < cols; ++x)
            out[x] = u16(std::clamp(int(a[x]) - int(b[x]) + 32768, 0, 65535));
    } else {
        for (int x = 0; x < cols; ++x)
            out[x] = u16(std::clamp(int(a[x]) + int(b[x]) - 32768, 0, 65535));
    }
}

void offsetSum(Mat const &a, Mat const &b, Mat &out, int sign) {
    if (out.data != a.data && out.data != b.data) out.create(a.size(), CV_16UC1);
    parallelRows(a.rows, a.total(), [&](int y) {
        offsetSumRow(a.ptr<u16>(y), b.ptr<u16>(y), out.ptr<u16>(y), a.cols, sign);
    });
}

// ---- remap and blend -----------------------------------------------------------------------

// r_g(x) for a row, the table index rounded at run time.
KX_VECTOR_CLONES
void remapRow(u16 const *in, u16 *out, int cols, u16 const *table, float g) {
    for (int x = 0; x < cols; ++x) {
        float const d = roundEven((float(in[x]) - g) * 0.5f + 32768.0f);
        int const i = std::clamp(int(d), 0, 65535);
        int const v = int(in[x]) + 2 * int(table[i]) - 65536;
        out[x] = u16(std::clamp(v, 0, 65535));
    }
}

void lookupRow(u16 const *in, u16 *out, int cols, u16 const *table) {
    for (int x = 0; x < cols; ++x)
        out[x] = table[in[x]];
}

// Coefficients of interval j: k = min((int)(G / step), top), frac = G / step - k; where
// k == j, out = trunc(hi frac + lo (1 - frac)) saturated. `top` = n - 2 (extrapolating).
KX_VECTOR_CLONES
void blendRowDivide(u16 const *g, u16 const *lo, u16 const *hi, u16 *out, int cols, float step,
                    int j, int top) {
    for (int x = 0; x < cols; ++x) {
        float const f = float(g[x]) / step;
        int const k = std::min(int(f), top);
        float const fr = f - float(k);
        float const v = float(hi[x]) * fr + float(lo[x]) * (1.0f - fr);
        int const o = std::clamp(int(v), 0, 65535);
        out[x] = k == j ? u16(o) : out[x];
    }
}

// The same with f = G * inv and only k = (int)f == j written, no extrapolation.
KX_VECTOR_CLONES
void blendRowInverse(u16 const *g, u16 const *lo, u16 const *hi, u16 *out, int cols, float inv,
                     int j) {
    for (int x = 0; x < cols; ++x) {
        float const f = float(g[x]) * inv;
        int const k = int(f);
        float const fr = f - float(k);
        float const v = float(hi[x]) * fr + float(lo[x]) * (1.0f - fr);
        int const o = std::clamp(int(v), 0, 65535);
        out[x] = k == j ? u16(o) : out[x];
    }
}

// Which of the two pyramid methods a variant uses.
struct Pyramid {
    bool opencv;
    void down(Mat const &in, Mat &out) const {
        if (opencv)
            cv::pyrDown(in, out, cv::Size(0, 0), cv::BORDER_REFLECT101);
        else
            halve(in, out);
    }
    void up(Mat const &in, Mat &out, cv::Size size) const {
        if (opencv)
            cv::pyrUp(in, out, size, cv::BORDER_REFLECT101);
        else
            doubleSize(in, out, size);
    }
    // levels[0] holds the plane; levels 1..depth-1 become its Gaussian levels, then levels
    // 0..depth-2 its Laplacian ones (each level - up(next) + 32768), the top staying Gaussian.
    // `up` is scratch of level 0's size.
    void laplacian(std::vector<Mat> &levels, Mat &scratch) const {
        int const depth = int(levels.size());
        for (int i = 1; i < depth; ++i)
            down(levels[i - 1], levels[i]);
        for (int i = 0; i + 1 < depth; ++i) {
            Mat u = scratch(cv::Rect(0, 0, levels[i].cols, levels[i].rows));
            up(levels[i + 1], u, levels[i].size());
            offsetSum(levels[i], u, levels[i], -1);
        }
    }
};

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
        for (std::int64_t i = std::max<std::int64_t>(l0, 0); i < std::min<std::int64_t>(l1, kTableUsed);
             ++i)
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
    float const step = range * 65535.0f / float(remapLevels);
    std::fill(levelLuts + (std::size_t(levels - 1) << 16), levelLuts + (std::size_t(levels) << 16),
              u16(0));
    static u16 const *const ramp = [] {
        static u16 values[kTableUsed];
        for (int i = 0; i < kTableUsed; ++i)
            values[i] = u16(i);
        return values;
    }();
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

    // 1. the working image, scaled around mid-grey.
    if (range == 1.0f)
        src.copyTo(dst);
    else
        src.convertTo(dst, CV_16UC1, range, (1.0 - range) * 32768.0);
    int const rows = dst.rows, cols = dst.cols;

    // 2. the depth: floor(log2(min side)).
    int exponent = 0;
    std::frexp(double(std::min(rows, cols)), &exponent);
    int const depth = exponent - 1;
    pyrLevels = depth;

    int const total = n + 2;
    auto report = [&](int count) { return progress == nullptr || progress->prog(count, total); };
    if (depth < 1) {
        // A side of one pixel has no pyramid: the image comes back as it went in.
        if (!report(1)) return false;
        if (range != 1.0f) dst.convertTo(dst, CV_16UC1, 1.0 / range, (1.0 - 1.0 / range) * 32768.0);
        return report(total);
    }

    Pyramid const pyramid{variant == Variant::cvPyramid};
    Mat up = workPlane(rows, cols);

    // 3, 4. the input's Gaussian levels G and, in O, its Laplacian ones to start the output.
    std::vector<Mat> G(depth), O(depth);
    G[0] = dst;
    O[0] = workPlane(rows, cols);
    dst.copyTo(O[0]);
    for (int i = 1; i < depth; ++i) {
        pyramid.down(G[i - 1], G[i]);
        G[i].copyTo(O[i]);
    }
    for (int i = 0; i + 1 < depth; ++i) {
        Mat u = up(cv::Rect(0, 0, O[i].cols, O[i].rows));
        pyramid.up(G[i + 1], u, O[i].size());
        offsetSum(O[i], u, O[i], -1);
    }

    // 5. two reference pyramids, reused interval after interval.
    std::vector<Mat> B[2];
    for (auto &slot : B) {
        slot.resize(depth);
        slot[0] = workPlane(rows, cols);
    }

    if (!report(1)) return false;

    float const step = range * 65535.0f / float(n);
    float const inv = 1.0f / step;
    long remapMs = 0, buildMs = 0, blendMs = 0;
    std::int64_t const work = std::int64_t(rows) * cols;
    auto remap = [&](int level, Mat &out) {
        parallelRows(rows, work, [&](int y) {
            if (tables)
                lookupRow(dst.ptr<u16>(y), out.ptr<u16>(y), cols,
                          levelLuts + (std::size_t(level - 1) << 16));
            else
                remapRow(dst.ptr<u16>(y), out.ptr<u16>(y), cols, remapLut, float(level) * step);
        });
    };

    for (int j = 0; j + 1 < n; ++j) {
        Mat &next = B[(j + 1) % 2][0];
        // 7a, 7b: the reference g_{j+1} (and at j = 0 also the lower end of the interval).
        long t = kxClockMs();
        remap(j + 1, next);
        if (j == 0 && !tables) remap(0, B[0][0]);
        remapMs += kxClockMs() - t;
        t = kxClockMs();
        pyramid.laplacian(B[(j + 1) % 2], up);
        if (j == 0) {
            if (tables) {
                // No reference at 0 here: the first interval's both ends are g_1.
                for (int i = 0; i < depth; ++i)
                    B[1][i].copyTo(B[0][i]);
            } else {
                pyramid.laplacian(B[0], up);
            }
        }
        buildMs += kxClockMs() - t;

        // 7c: the coefficients of interval j, level by level.
        t = kxClockMs();
        for (int l = depth - 1; l >= 0; --l) {
            Mat const &lo = B[j % 2][l], &hi = B[(j + 1) % 2][l];
            Mat &g = G[l], &o = O[l];
            parallelRows(g.rows, std::int64_t(g.rows) * g.cols, [&](int y) {
                if (tables)
                    blendRowInverse(g.ptr<u16>(y), lo.ptr<u16>(y), hi.ptr<u16>(y), o.ptr<u16>(y),
                                    g.cols, inv, j);
                else
                    blendRowDivide(g.ptr<u16>(y), lo.ptr<u16>(y), hi.ptr<u16>(y), o.ptr<u16>(y),
                                   g.cols, step, j, n - 2);
            });
        }
        blendMs += kxClockMs() - t;
        if (!report(j + 1)) return false;
    }
    for (auto &slot : B)
        slot.clear();

    // 8. the times, sums of processor-clock differences.
    if (!tables) {
        long const now = kxClockMs();
        kxPrintTimingNumber(kxTimeRemap, now - remapMs);
        kxPrintTimingNumber(variant == Variant::cvPyramid ? kxTimeBuildPyramidCv
                                                          : kxTimeBuildPyramidSimple,
                            now - buildMs);
        kxPrintTimingNumber(kxTimeReconstruct, now - blendMs);
    }

    // 9, 10. collapse, then back to the host's contrast.
    for (int l = depth - 2; l >= 0; --l) {
        Mat u = up(cv::Rect(0, 0, O[l].cols, O[l].rows));
        pyramid.up(O[l + 1], u, O[l].size());
        Mat &out = (l == 0 && range == 1.0f) ? dst : O[l];
        offsetSum(O[l], u, out, +1);
    }
    if (depth == 1 && range == 1.0f) O[0].copyTo(dst);
    if (range != 1.0f) O[0].convertTo(dst, CV_16UC1, 1.0 / range, (1.0 - 1.0 / range) * 32768.0);
    return report(total);
}
