#include "kestrix1/image/scaling.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "kestrix1/filters/tg_filter.h"
#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/messages.h"
#include "kestrix1/image/nearest_in_guide.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_filter.h"
#include "kestrix1/kernels/px_geometry.h"
#include "kestrix1/kernels/px_memory.h"

namespace {

constexpr int kMethodPyramid = 257;
constexpr int kMethodBinomial = 258;

// Hosts look for this line number in the composed text of upSize2X.
constexpr int kUp2XTraceLine = 106;

constexpr char const kErrUp2XOut[] = "out2X is not allocated";
constexpr char const kErrUp2XType[] = "ERROR - up2X - type";
constexpr char const kErrDown2XOut[] = "ERROR - downSize2X - outHalf must be allocated!";
constexpr char const kErrDown2XBuffer[] = "ERROR - down2X - ippsMalloc_8u(pBufferSize)";
constexpr char const kErrDown2XType[] = "ERROR - down2X - type";
constexpr char const kErrUpNXOut[] = "ERROR - upSizeNX - outNX is not allocated";
constexpr char const kErrUpNXBuffer[] = "ERROR - upNX - ippsMalloc_8u(pBufferSize)";
constexpr char const kErrUpNXType[] = "ERROR - upNX - type";
constexpr char const kErrDownNXOut[] = "downSizeNX - out is not allocated";
constexpr char const kErrDownNXOutType[] = "downSizeNX - out type does not match input type";
constexpr char const kErrDownNXBuffer[] = "ERROR - downSizeNX - ippsMalloc_8u(pBufferSize)";
constexpr char const kErrDownNXType[] = "ERROR - downSizeNX - type";
constexpr char const kErrSharpenType[] = "ERROR - extremeSharpen - in.type()!=CV_16UC1";

// The reducing functions ask for this much more work buffer than the resampler needs.
constexpr int kDownExtraBytes = 1024;

// Scales that bring integer planes to 0..1 for the guided filter.
constexpr double kUnit8 = 0.00392156862745098;     // 1 / 255
constexpr double kUnit16 = 1.5259021896696422e-5;  // 1 / 65535

// The guided filter of the guided enlargements.
constexpr int kGuideRadius = 1;
constexpr float kGuideEps = 1e-4f;

bool allocatedLike(cv::Mat const &out, cv::Mat const &in) {
    return out.data != nullptr && out.total() > 0 && out.type() == in.type();
}

bool resamplable(int type) {
    return type == CV_8UC1 || type == CV_16UC1 || type == CV_32FC1;
}

// Clamps a strip width computed in 64 bits into the int of extendBorder; anything beyond
// the plane does nothing there anyway.
int stripOf(std::int64_t width) {
    return int(std::clamp<std::int64_t>(width, INT_MIN / 2, INT_MAX / 2));
}

template <class T>
void resampleTyped(cv::Mat const &in, cv::Mat &out, double xFactor, double yFactor, int method,
                   std::uint8_t *buffer) {
    IppiRect const src{0, 0, in.cols, in.rows}, dst{0, 0, out.cols, out.rows};
    // Arguments are validated by the callers, so the status can only be success.
    pxResize(in.ptr<T>(), IppiSize{in.cols, in.rows}, int(in.step), src, out.ptr<T>(),
             int(out.step), dst, xFactor, yFactor, 0.0, 0.0, method, buffer);
}

// The factor of one axis. A reduction of an axis shorter than the divisor would place no
// target centre inside the source and leave the output unwritten; such an axis is scaled to
// out's length instead.
double axisFactor(double factor, int inLength, int outLength) {
    if (factor < 1.0 && inLength * factor < 1.0) return double(outLength) / inLength;
    return factor;
}

// Resamples all of `in` onto out's grid at `factor` with the work buffer the resampler asks
// for, plus extraBytes. in's type is one of resamplable().
void resample(cv::Mat const &in, cv::Mat &out, double factor, int method, int extraBytes,
              char const *bufferText) {
    double const xFactor = axisFactor(factor, in.cols, out.cols);
    double const yFactor = axisFactor(factor, in.rows, out.rows);
    IppiRect const src{0, 0, in.cols, in.rows}, dst{0, 0, out.cols, out.rows};
    int bytes = 0;
    if (pxResizeBufferSize(src, dst, 1, method, &bytes) != pxStsNoErr) kxThrow(bufferText);
    std::int64_t const total = std::int64_t(bytes) + extraBytes;
    std::uint8_t *buffer = total <= INT_MAX ? ippsMalloc_8u(int(total)) : nullptr;
    kxRequire(buffer != nullptr, bufferText);
    switch (in.depth()) {
        case CV_8U:
            resampleTyped<std::uint8_t>(in, out, xFactor, yFactor, method, buffer);
            break;
        case CV_16U:
            resampleTyped<std::uint16_t>(in, out, xFactor, yFactor, method, buffer);
            break;
        default:
            resampleTyped<float>(in, out, xFactor, yFactor, method, buffer);
            break;
    }
    pxFree(buffer);
}

// ---- integer binomial filters on 16-bit planes ----------------------------------------------

// The horizontal 1-2-1 of source row s centred at column 2j+1, or at an even width's last
// column the mean of the two last columns; every term is shifted before the sum.
inline std::uint16_t across121(std::uint16_t const *s, int j, int cols) {
    int const c = 2 * j + 1;
    if (c + 1 < cols) return std::uint16_t((s[c - 1] >> 2) + (s[c] >> 1) + (s[c + 1] >> 2));
    return std::uint16_t((s[cols - 2] >> 1) + (s[cols - 1] >> 1));
}

void binomialDown(cv::Mat const &in, cv::Mat &out) {
    // Output pixels whose centre (2i+1, 2j+1) lies in the source; the rest is not written.
    int const rows = std::min(out.rows, in.rows / 2);
    int const cols = std::min(out.cols, in.cols / 2);
    int const inCols = in.cols;
    parallelRows(rows, std::int64_t(rows) * cols * 3, [&](int i) {
        int const r = 2 * i + 1;
        std::uint16_t *d = out.ptr<std::uint16_t>(i);
        if (r + 1 < in.rows) {
            std::uint16_t const *up = in.ptr<std::uint16_t>(r - 1);
            std::uint16_t const *mid = in.ptr<std::uint16_t>(r);
            std::uint16_t const *down = in.ptr<std::uint16_t>(r + 1);
            for (int j = 0; j < cols; ++j)
                d[j] = std::uint16_t((across121(up, j, inCols) >> 2) +
                                     (across121(mid, j, inCols) >> 1) +
                                     (across121(down, j, inCols) >> 2));
        } else {
            std::uint16_t const *up = in.ptr<std::uint16_t>(r - 1);
            std::uint16_t const *mid = in.ptr<std::uint16_t>(r);
            for (int j = 0; j < cols; ++j)
                d[j] = std::uint16_t((across121(up, j, inCols) >> 1) +
                                     (across121(mid, j, inCols) >> 1));
        }
    });
}

// Row 2i+1 of the enlargement, over 2 * w columns: p(i, j) at 2j+1, the mean of p(i, j-1)
// and p(i, j) at 2j from j = 1 on. Column 0 is a placeholder that the border pass replaces.
void binomialOddRow(std::uint16_t const *s, int w, std::uint16_t *o) {
    o[0] = 0;
    o[1] = s[0];
    for (int j = 1; j < w; ++j) {
        o[2 * j] = std::uint16_t((s[j] >> 1) + (s[j - 1] >> 1));
        o[2 * j + 1] = s[j];
    }
}

// An even row between two odd rows: their mean at odd columns, then the mean of the odd
// neighbours at even columns from 2 on.
void binomialEvenRow(std::uint16_t const *above, std::uint16_t const *below, int w,
                     std::uint16_t *e) {
    e[0] = 0;
    for (int c = 1; c < 2 * w; c += 2)
        e[c] = std::uint16_t((above[c] >> 1) + (below[c] >> 1));
    for (int c = 2; c < 2 * w; c += 2)
        e[c] = std::uint16_t((e[c - 1] >> 1) + (e[c + 1] >> 1));
}

void binomialUp(cv::Mat const &in, cv::Mat &out) {
    int const h = in.rows, w = in.cols;
    // Rows are built at their full width 2w and cut to out's size, so a target one column or
    // row short (the half plane of an odd image) loses only what lies outside it.
    int const written = std::min(out.cols, 2 * w) - 1;  // columns 1 .. written
    std::size_t const bytes = std::size_t(std::max(written, 0)) * sizeof(std::uint16_t);
    parallelBands(h, std::int64_t(h) * w * 8, [&](int i0, int i1) {
        std::vector<std::uint16_t> scratch(std::size_t(6) * w);
        std::uint16_t *prev = scratch.data();
        std::uint16_t *cur = prev + 2 * w;
        std::uint16_t *even = cur + 2 * w;
        if (i0 > 0) binomialOddRow(in.ptr<std::uint16_t>(i0 - 1), w, prev);
        for (int i = i0; i < i1; ++i) {
            binomialOddRow(in.ptr<std::uint16_t>(i), w, cur);
            if (2 * i + 1 < out.rows && bytes > 0)
                std::memcpy(out.ptr<std::uint16_t>(2 * i + 1) + 1, cur + 1, bytes);
            if (i > 0 && 2 * i < out.rows && bytes > 0) {
                binomialEvenRow(prev, cur, w, even);
                std::memcpy(out.ptr<std::uint16_t>(2 * i) + 1, even + 1, bytes);
            }
            std::swap(prev, cur);
        }
    });
    extendBorder(out, 1, 1, stripOf(std::int64_t(out.cols) - 2 * std::int64_t(w)),
                 stripOf(std::int64_t(out.rows) - 2 * std::int64_t(h)));
}

// ---- nearest-in-guide enlargement ---------------------------------------------------------

void replicateHalf(cv::Mat const &in, cv::Mat &out) {
    for (int r = 0; r < out.rows; ++r) {
        std::uint16_t const *s = in.ptr<std::uint16_t>(r / 2);
        std::uint16_t *d = out.ptr<std::uint16_t>(r);
        for (int c = 0; c < out.cols; ++c)
            d[c] = s[c / 2];
    }
}

// Each thread makes runs of rows straight into the output.
void nearestInGuide(cv::Mat const &y, cv::Mat const &in, cv::Mat &out) {
    cv::Mat const *const planes[1] = {&in};
    parallelChunks(
        y.rows, nearest::kChunkRows, std::int64_t(y.rows) * y.cols,
        [&] { return nearest::RowEnlarger<1>(y, planes); },
        [&](nearest::RowEnlarger<1> &rows, int y0, int y1) {
            for (int r = y0; r < y1; ++r) {
                std::uint16_t *const dst[1] = {out.ptr<std::uint16_t>(r)};
                rows.row(r, dst);
            }
        });
}

// The guided path of the guided enlargements: `guideSmall` is y reduced to in's size.
void guidedUp(cv::Mat const &y, cv::Mat const &guideSmall, cv::Mat const &in, cv::Mat &out) {
    auto unit = [](cv::Mat const &m) { return m.depth() == CV_8U ? kUnit8 : kUnit16; };
    cv::Mat guide, target;
    guideSmall.convertTo(guide, CV_32F, unit(guideSmall));
    in.convertTo(target, CV_32F, unit(in));
    TGFilter filter;
    filter.setup({guide}, target, kGuideRadius, kGuideEps);
    filter.proc({y}, out);
}

}  // namespace

void upSize2X(cv::Mat const &in, cv::Mat &out, int method) {
    if (!allocatedLike(out, in)) kxThrowTrace("upSize2X", kUp2XTraceLine, kErrUp2XOut);
    if (method == kMethodBinomial) kxRequire(in.type() == CV_16UC1, kErrUp2XType);
    if (method != kMethodPyramid && method != kMethodBinomial)
        kxRequire(resamplable(in.type()), kErrUp2XType);
    if (in.empty()) return;

    if (method == kMethodBinomial) {
        binomialUp(in, out);
        return;
    }
    if (method == kMethodPyramid)
        cv::pyrUp(in, out, out.size(), cv::BORDER_REFLECT_101);
    else
        resample(in, out, 2.0, method, 0, kxErrUp2XBuffer);
    extendBorder(out, 0, 0, stripOf(std::int64_t(out.cols) - 2 * std::int64_t(in.cols)),
                 stripOf(std::int64_t(out.rows) - 2 * std::int64_t(in.rows)));
}

void downSize2X(cv::Mat const &in, cv::Mat &outHalf, int method) {
    kxRequire(allocatedLike(outHalf, in), kErrDown2XOut);
    if (method == kMethodBinomial) kxRequire(in.type() == CV_16UC1, kErrDown2XType);
    if (method != kMethodPyramid && method != kMethodBinomial)
        kxRequire(resamplable(in.type()), kErrDown2XType);
    if (in.empty()) return;

    if (method == kMethodBinomial) {
        binomialDown(in, outHalf);
        return;
    }
    if (method == kMethodPyramid)
        cv::pyrDown(in, outHalf, outHalf.size(), cv::BORDER_REFLECT_101);
    else
        resample(in, outHalf, 0.5, method, kDownExtraBytes, kErrDown2XBuffer);
    extendBorder(outHalf, 0, 0, outHalf.cols - in.cols / 2, outHalf.rows - in.rows / 2);
}

void upSizeNX(cv::Mat const &in, cv::Mat &outNX, int n, int method) {
    kxRequire(allocatedLike(outNX, in), kErrUpNXOut);
    kxRequire(resamplable(in.type()), kErrUpNXType);
    if (in.empty() || n < 1) return;

    resample(in, outNX, double(n), method, 0, kErrUpNXBuffer);
    extendBorder(outNX, 0, 0, stripOf(std::int64_t(outNX.cols) - std::int64_t(n) * in.cols),
                 stripOf(std::int64_t(outNX.rows) - std::int64_t(n) * in.rows));
}

void downSizeNX(cv::Mat const &in, cv::Mat &out, int n, int method) {
    kxRequire(out.data != nullptr && out.total() > 0, kErrDownNXOut);
    kxRequire(out.type() == in.type(), kErrDownNXOutType);
    kxRequire(resamplable(in.type()), kErrDownNXType);
    if (in.empty() || n < 1) return;

    resample(in, out, 1.0 / n, method, kDownExtraBytes, kErrDownNXBuffer);
    extendBorder(out, 0, 0, out.cols - in.cols / n, out.rows - in.rows / n);
}

void extendBorder(cv::Mat &m, int left, int top, int right, int bottom) {
    if (m.empty()) return;
    std::size_t const elem = m.elemSize();
    int const rows = m.rows, cols = m.cols;
    // Each pass copies only when its source column or row lies inside m.
    if (left > 0 && left < cols)
        for (int r = 0; r < rows; ++r) {
            std::uint8_t *row = m.ptr(r);
            for (int i = 0; i < left; ++i)
                std::memcpy(row + i * elem, row + left * elem, elem);
        }
    if (right > 0 && right < cols)
        for (int r = 0; r < rows; ++r) {
            std::uint8_t *row = m.ptr(r);
            std::uint8_t const *src = row + (cols - right - 1) * elem;
            for (int i = 0; i < right; ++i)
                std::memcpy(row + (cols - right + i) * elem, src, elem);
        }
    std::size_t const rowBytes = cols * elem;
    if (top > 0 && top < rows)
        for (int i = 0; i < top; ++i)
            std::memcpy(m.ptr(i), m.ptr(top), rowBytes);
    if (bottom > 0 && bottom < rows)
        for (int i = 0; i < bottom; ++i)
            std::memcpy(m.ptr(rows - bottom + i), m.ptr(rows - bottom - 1), rowBytes);
}

void upSize2XGuidedByYSimple(cv::Mat y, cv::Mat const &in, cv::Mat &out) {
    if (y.empty() || in.empty()) return;
    out.create(y.size(), CV_16UC1);
    if (y.rows < 2 || y.cols < 2)
        replicateHalf(in, out);
    else
        nearestInGuide(y, in, out);
}

void upSize2XGuidedByY(cv::Mat y, cv::Mat const &in, cv::Mat &out, bool guided, int method) {
    if (y.empty() || in.empty()) return;
    if (!guided) {
        out.create(y.size(), in.type());
        upSize2X(in, out, method);
        return;
    }
    cv::Mat small(in.size(), y.type());
    downSize2X(y, small, pxInterCubic);
    guidedUp(y, small, in, out);
}

void upSizeNXGuidedByY(cv::Mat y, cv::Mat const &in, cv::Mat &out, int n, bool guided, int method) {
    if (y.empty() || in.empty() || n < 1) return;
    if (!guided) {
        out.create(y.size(), in.type());
        upSizeNX(in, out, n, method);
        return;
    }
    cv::Mat small(in.size(), y.type());
    downSizeNX(y, small, n, pxInterCubic);
    guidedUp(y, small, in, out);
}

void extremeSharpen(cv::Mat const &in, cv::Mat &out) {
    if (in.empty()) return;
    kxRequire(in.type() == CV_16UC1, kErrSharpenType);
    // Work from a copy when out is in, since out is overwritten before the last pass reads in.
    cv::Mat const src = out.data == in.data ? in.clone() : in;
    cv::Mat highs = src.clone();
    src.copyTo(out);
    if (src.rows >= 3 && src.cols >= 3) {
        IppiSize const inner{src.cols - 2, src.rows - 2};
        pxMin3x3(out.ptr<std::uint16_t>(1) + 1, int(out.step), inner);
        pxMax3x3(highs.ptr<std::uint16_t>(1) + 1, int(highs.step), inner);
    }
    int const cols = src.cols;
    parallelRows(src.rows, std::int64_t(src.rows) * cols, [&](int r) {
        std::uint16_t const *s = src.ptr<std::uint16_t>(r);
        std::uint16_t const *hi = highs.ptr<std::uint16_t>(r);
        std::uint16_t *d = out.ptr<std::uint16_t>(r);
        for (int c = 0; c < cols; ++c) {
            int const v = s[c], lo = d[c], up = hi[c];
            d[c] = std::uint16_t(up - v < v - lo ? up : lo);
        }
    });
}
