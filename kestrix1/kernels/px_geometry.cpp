#include "kestrix1/kernels/px_geometry.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_halve.h"
#include "kestrix1/kernels/px_view.h"

namespace {

// Tolerance for "exactly on a pixel edge" in the mapped geometry, far below any factor's
// effect but above the rounding of a product of doubles.
constexpr double kEdgeTol = 1e-9;

template <class T>
T *rowPtr(T *base, int step, std::int64_t y) {
    return pxAt(base, step, 0, y);
}

// The target pixels [begin, end) of one axis whose centres fall in the mapped source span.
struct Span {
    int begin;
    int end;
};

Span writtenSpan(int srcBegin, int srcEnd, int dstBegin, int dstEnd, double factor, double shift) {
    double const lo = std::ceil(srcBegin * factor + shift - 0.5 - kEdgeTol);
    double const hi = std::ceil(srcEnd * factor + shift - 0.5 - kEdgeTol);
    Span s;
    s.begin = static_cast<int>(std::max<double>(dstBegin, lo));
    s.end = static_cast<int>(std::min<double>(dstEnd, hi));
    return s;
}

// Source coordinate, relative to the ROI origin, that target pixel `x` shows.
double sourceCoord(int x, double factor, double shift, int roiOrigin) {
    return (x + 0.5 - shift) / factor - 0.5 - roiOrigin;
}

bool nearlyEqual(double a, double b) {
    return std::fabs(a - b) <= kEdgeTol * (1.0 + std::fabs(b));
}

template <class T>
void resizeNearest(cv::Mat const &src, T *dst, int dstStep, Span xs, Span ys, double xFactor,
                   double yFactor, double xShift, double yShift, IppiRect roi,
                   std::uint8_t *buffer) {
    // The buffer holds the column and row index tables.
    auto *xofs = reinterpret_cast<int *>(
        (reinterpret_cast<std::uintptr_t>(buffer) + alignof(int) - 1) & ~(alignof(int) - 1));
    int *yofs = xofs + (xs.end - xs.begin);
    for (int x = xs.begin; x < xs.end; ++x) {
        double const u = sourceCoord(x, xFactor, xShift, roi.x);
        xofs[x - xs.begin] = std::clamp(static_cast<int>(std::floor(u + 0.5)), 0, roi.width - 1);
    }
    for (int y = ys.begin; y < ys.end; ++y) {
        double const v = sourceCoord(y, yFactor, yShift, roi.y);
        yofs[y - ys.begin] = std::clamp(static_cast<int>(std::floor(v + 0.5)), 0, roi.height - 1);
    }
    int const width = xs.end - xs.begin;
    parallelRows(ys.end - ys.begin, std::int64_t(width) * (ys.end - ys.begin), [&](int j) {
        T const *s = src.ptr<T>(yofs[j]);
        T *d = rowPtr(dst, dstStep, ys.begin + j) + xs.begin;
        for (int i = 0; i < width; ++i)
            d[i] = s[xofs[i]];
    });
}

// Taps and weights of one output position: `taps` source indices (clamped to the ROI, which
// replicates its edges) and their weights. Linear uses 2 taps, cubic 4 with the Keys kernel
// of a = -0.75, the cubic of cv::resize, so both paths of pxResize agree.
void sampleTaps(double u, int size, int taps, int *index, float *weight) {
    double const i0 = std::floor(u);
    double const f = u - i0;
    int const first = static_cast<int>(i0) - (taps == 4 ? 1 : 0);
    if (taps == 2) {
        weight[0] = static_cast<float>(1.0 - f);
        weight[1] = static_cast<float>(f);
    } else {
        double const a = -0.75;
        auto near = [a](double t) { return ((a + 2) * t - (a + 3)) * t * t + 1; };
        auto far = [a](double t) { return ((a * t - 5 * a) * t + 8 * a) * t - 4 * a; };
        weight[0] = static_cast<float>(far(1 + f));
        weight[1] = static_cast<float>(near(f));
        weight[2] = static_cast<float>(near(1 - f));
        weight[3] = static_cast<float>(far(2 - f));
    }
    for (int k = 0; k < taps; ++k) index[k] = std::clamp(first + k, 0, size - 1);
}

// Separable linear or cubic resampling at exact positions: per output row, the taps' source
// rows are interpolated across into a row of float sums, which is rounded into the output.
template <class T>
void resizeSeparable(cv::Mat const &src, cv::Mat &out, Span xs, Span ys, double xFactor,
                     double yFactor, double xShift, double yShift, IppiRect roi, int taps) {
    int const width = out.cols;
    std::vector<int> xIndex(std::size_t(width) * taps);
    std::vector<float> xWeight(std::size_t(width) * taps);
    for (int i = 0; i < width; ++i) {
        sampleTaps(sourceCoord(xs.begin + i, xFactor, xShift, roi.x), roi.width, taps,
                   &xIndex[std::size_t(i) * taps], &xWeight[std::size_t(i) * taps]);
    }
    // One row of sums per thread, allocated once.
    std::vector<float> sums(std::size_t(width) * std::max(1, omp_get_max_threads()));
    parallelRows(out.rows, std::int64_t(width) * out.rows * taps, [&](int j) {
        float *acc = sums.data() + std::size_t(width) * omp_get_thread_num();
        int yIndex[4];
        float yWeight[4];
        sampleTaps(sourceCoord(ys.begin + j, yFactor, yShift, roi.y), roi.height, taps, yIndex,
                   yWeight);
        std::fill(acc, acc + width, 0.0f);
        for (int k = 0; k < taps; ++k) {
            T const *s = src.ptr<T>(yIndex[k]);
            float const wy = yWeight[k];
            int const *xi = xIndex.data();
            float const *xw = xWeight.data();
            for (int i = 0; i < width; ++i) {
                float h = 0.0f;
                for (int t = 0; t < taps; ++t) h += xw[i * taps + t] * s[xi[i * taps + t]];
                acc[i] += wy * h;
            }
        }
        T *d = out.ptr<T>(j);
        for (int i = 0; i < width; ++i) d[i] = cv::saturate_cast<T>(acc[i]);
    });
}

template <class T>
PxStatus resizeImpl(T const *src, IppiSize srcSize, int srcStep, IppiRect srcRoi, T *dst,
                    int dstStep, IppiRect dstRoi, double xFactor, double yFactor, double xShift,
                    double yShift, int interpolation, std::uint8_t *buffer) {
    if (PxStatus s = pxCheckRegion(src, srcStep, srcSize)) return s;
    if (dst == nullptr || buffer == nullptr) return pxStsNullPtrErr;
    if (!(xFactor > 0.0) || !(yFactor > 0.0)) return pxStsBadArgErr;
    if (interpolation != pxInterNearest && interpolation != pxInterLinear &&
        interpolation != pxInterCubic)
        return pxStsBadArgErr;
    // Clip the source ROI to the image.
    int const x0 = std::max(srcRoi.x, 0);
    int const y0 = std::max(srcRoi.y, 0);
    int const x1 = std::min(srcRoi.x + srcRoi.width, srcSize.width);
    int const y1 = std::min(srcRoi.y + srcRoi.height, srcSize.height);
    if (x1 <= x0 || y1 <= y0 || dstRoi.width < 1 || dstRoi.height < 1) return pxStsSizeErr;
    if (dstRoi.x < 0 || dstRoi.y < 0) return pxStsSizeErr;
    if (dstStep < static_cast<std::int64_t>(dstRoi.x + dstRoi.width) * std::int64_t(sizeof(T))) {
        return pxStsStepErr;
    }
    IppiRect const roi{x0, y0, x1 - x0, y1 - y0};

    Span const xs = writtenSpan(x0, x1, dstRoi.x, dstRoi.x + dstRoi.width, xFactor, xShift);
    Span const ys = writtenSpan(y0, y1, dstRoi.y, dstRoi.y + dstRoi.height, yFactor, yShift);
    if (xs.end <= xs.begin || ys.end <= ys.begin) return pxStsNoErr;  // nothing reached

    cv::Mat const source = pxView(src, srcStep, srcSize)(cv::Rect(x0, y0, roi.width, roi.height));
    if (interpolation == pxInterNearest) {
        resizeNearest(source, dst, dstStep, xs, ys, xFactor, yFactor, xShift, yShift, roi, buffer);
        return pxStsNoErr;
    }

    IppiSize const outSize{xs.end - xs.begin, ys.end - ys.begin};
    cv::Mat out = pxView(rowPtr(dst, dstStep, ys.begin) + xs.begin, dstStep, outSize);
    int const cvInter = interpolation == pxInterLinear ? cv::INTER_LINEAR : cv::INTER_CUBIC;
    double const u0 = sourceCoord(xs.begin, xFactor, xShift, roi.x);  // first sample
    double const v0 = sourceCoord(ys.begin, yFactor, yShift, roi.y);
    // cv::resize maps target x to (x + 0.5) * in / out - 0.5; when that is our geometry, its
    // dedicated code paths serve. Any other geometry goes through our separable resampler,
    // with exact positions (OpenCV's affine warp rounds them to 1/32 pixel).
    bool const resizeFits = nearlyEqual(double(roi.width) / outSize.width, 1.0 / xFactor) &&
                            nearlyEqual(double(roi.height) / outSize.height, 1.0 / yFactor) &&
                            nearlyEqual(u0, 0.5 / xFactor - 0.5) &&
                            nearlyEqual(v0, 0.5 / yFactor - 0.5);
    bool const halving = std::is_same_v<T, std::uint16_t> && interpolation == pxInterCubic &&
                         roi.width == 2 * outSize.width && roi.height == 2 * outSize.height;
    if (resizeFits && halving) {
        // The commonest case, with the same results as cv::resize at several times its speed.
        pxHalveCubic(reinterpret_cast<std::uint16_t const *>(source.data), int(source.step),
                     IppiSize{roi.width, roi.height}, reinterpret_cast<std::uint16_t *>(out.data),
                     int(out.step));
    } else if (resizeFits) {
        cv::resize(source, out, out.size(), 0.0, 0.0, cvInter);
    } else {
        resizeSeparable<T>(source, out, xs, ys, xFactor, yFactor, xShift, yShift, roi,
                           interpolation == pxInterCubic ? 4 : 2);
    }
    return pxStsNoErr;
}

template <class T>
PxStatus copyReplicateBorderImpl(T const *src, int srcStep, IppiSize srcSize, T *dst, int dstStep,
                                 IppiSize dstSize, int top, int left) {
    if (PxStatus s = pxFirstError(
            {pxCheckRegion(src, srcStep, srcSize), pxCheckRegion(dst, dstStep, dstSize)}))
        return s;
    if (top < 0 || left < 0 || dstSize.height < srcSize.height + top ||
        dstSize.width < srcSize.width + left)
        return pxStsSizeErr;
    int const right = dstSize.width - srcSize.width - left;
    parallelRows(dstSize.height, std::int64_t(dstSize.width) * dstSize.height, [&](int y) {
        int const sy = std::clamp(y - top, 0, srcSize.height - 1);
        T const *s = rowPtr(src, srcStep, sy);
        T *d = rowPtr(dst, dstStep, y);
        std::fill(d, d + left, s[0]);
        std::memcpy(d + left, s, sizeof(T) * srcSize.width);
        std::fill(d + left + srcSize.width, d + left + srcSize.width + right, s[srcSize.width - 1]);
    });
    return pxStsNoErr;
}

template <class T>
PxStatus replicateBorderInPlaceImpl(T *inner, int step, IppiSize srcSize, IppiSize dstSize, int top,
                                    int left) {
    if (PxStatus s = pxCheckRegion(inner, step, srcSize)) return s;
    if (top < 0 || left < 0 || dstSize.height < srcSize.height + top ||
        dstSize.width < srcSize.width + left)
        return pxStsSizeErr;
    if (step < std::int64_t(dstSize.width) * std::int64_t(sizeof(T))) return pxStsStepErr;
    T *outer = rowPtr(inner, step, -top) - left;
    int const right = dstSize.width - srcSize.width - left;
    int const bottom = dstSize.height - srcSize.height - top;
    // Left and right strips of the inner rows first, then whole outer rows up and down.
    parallelRows(srcSize.height, std::int64_t(left + right) * srcSize.height, [&](int y) {
        T *d = rowPtr(outer, step, top + y);
        std::fill(d, d + left, d[left]);
        std::fill(d + left + srcSize.width, d + dstSize.width, d[left + srcSize.width - 1]);
    });
    T const *first = rowPtr(outer, step, top);
    T const *last = rowPtr(outer, step, top + srcSize.height - 1);
    parallelRows(top + bottom, std::int64_t(dstSize.width) * (top + bottom), [&](int i) {
        bool const above = i < top;
        T *d = rowPtr(outer, step, above ? i : top + srcSize.height + (i - top));
        std::memcpy(d, above ? first : last, sizeof(T) * dstSize.width);
    });
    return pxStsNoErr;
}

template <class T>
PxStatus copyImpl(T const *src, int srcStep, T *dst, int dstStep, IppiSize size, int channels) {
    if (channels < 1) return pxStsBadArgErr;
    if (PxStatus s = pxFirstError({pxCheckRegion(src, srcStep, size, channels),
                                   pxCheckRegion(dst, dstStep, size, channels)}))
        return s;
    size_t const rowBytes = sizeof(T) * size.width * channels;
    parallelRows(size.height, std::int64_t(size.width) * channels * size.height, [&](int y) {
        std::memcpy(rowPtr(dst, dstStep, y), rowPtr(src, srcStep, y), rowBytes);
    });
    return pxStsNoErr;
}

}  // namespace

PxStatus pxResizeBufferSize(IppiRect srcRoi, IppiRect dstRoi, int channels, int interpolation,
                            int *bufferBytes) {
    if (bufferBytes == nullptr) return pxStsNullPtrErr;
    if (channels != 1) return pxStsBadArgErr;
    if (interpolation != pxInterNearest && interpolation != pxInterLinear &&
        interpolation != pxInterCubic)
        return pxStsBadArgErr;
    if (srcRoi.width < 1 || srcRoi.height < 1 || dstRoi.width < 1 || dstRoi.height < 1)
        return pxStsSizeErr;
    // Index tables for the nearest path, plus room to align them.
    std::int64_t const bytes =
        (std::int64_t(dstRoi.width) + dstRoi.height) * std::int64_t(sizeof(int)) + 64;
    if (bytes > 0x7fffffff) return pxStsSizeErr;
    *bufferBytes = static_cast<int>(bytes);
    return pxStsNoErr;
}

PxStatus pxResize(std::uint8_t const *src, IppiSize srcSize, int srcStep, IppiRect srcRoi,
                  std::uint8_t *dst, int dstStep, IppiRect dstRoi, double xFactor, double yFactor,
                  double xShift, double yShift, int interpolation, std::uint8_t *buffer) {
    return resizeImpl(src, srcSize, srcStep, srcRoi, dst, dstStep, dstRoi, xFactor, yFactor, xShift,
                      yShift, interpolation, buffer);
}

PxStatus pxResize(std::uint16_t const *src, IppiSize srcSize, int srcStep, IppiRect srcRoi,
                  std::uint16_t *dst, int dstStep, IppiRect dstRoi, double xFactor, double yFactor,
                  double xShift, double yShift, int interpolation, std::uint8_t *buffer) {
    return resizeImpl(src, srcSize, srcStep, srcRoi, dst, dstStep, dstRoi, xFactor, yFactor, xShift,
                      yShift, interpolation, buffer);
}

PxStatus pxResize(float const *src, IppiSize srcSize, int srcStep, IppiRect srcRoi, float *dst,
                  int dstStep, IppiRect dstRoi, double xFactor, double yFactor, double xShift,
                  double yShift, int interpolation, std::uint8_t *buffer) {
    return resizeImpl(src, srcSize, srcStep, srcRoi, dst, dstStep, dstRoi, xFactor, yFactor, xShift,
                      yShift, interpolation, buffer);
}

PxStatus pxCopyReplicateBorder(std::uint8_t const *src, int srcStep, IppiSize srcSize,
                               std::uint8_t *dst, int dstStep, IppiSize dstSize,
                               int topBorderHeight, int leftBorderWidth) {
    return copyReplicateBorderImpl(src, srcStep, srcSize, dst, dstStep, dstSize, topBorderHeight,
                                   leftBorderWidth);
}

PxStatus pxCopyReplicateBorder(std::uint16_t const *src, int srcStep, IppiSize srcSize,
                               std::uint16_t *dst, int dstStep, IppiSize dstSize,
                               int topBorderHeight, int leftBorderWidth) {
    return copyReplicateBorderImpl(src, srcStep, srcSize, dst, dstStep, dstSize, topBorderHeight,
                                   leftBorderWidth);
}

PxStatus pxCopyReplicateBorder(float const *src, int srcStep, IppiSize srcSize, float *dst,
                               int dstStep, IppiSize dstSize, int topBorderHeight,
                               int leftBorderWidth) {
    return copyReplicateBorderImpl(src, srcStep, srcSize, dst, dstStep, dstSize, topBorderHeight,
                                   leftBorderWidth);
}

PxStatus pxReplicateBorderInPlace(std::uint8_t *srcDst, int step, IppiSize srcSize,
                                  IppiSize dstSize, int topBorderHeight, int leftBorderWidth) {
    return replicateBorderInPlaceImpl(srcDst, step, srcSize, dstSize, topBorderHeight,
                                      leftBorderWidth);
}

PxStatus pxReplicateBorderInPlace(std::uint16_t *srcDst, int step, IppiSize srcSize,
                                  IppiSize dstSize, int topBorderHeight, int leftBorderWidth) {
    return replicateBorderInPlaceImpl(srcDst, step, srcSize, dstSize, topBorderHeight,
                                      leftBorderWidth);
}

PxStatus pxReplicateBorderInPlace(float *srcDst, int step, IppiSize srcSize, IppiSize dstSize,
                                  int topBorderHeight, int leftBorderWidth) {
    return replicateBorderInPlaceImpl(srcDst, step, srcSize, dstSize, topBorderHeight,
                                      leftBorderWidth);
}

PxStatus pxCopy(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep, IppiSize size,
                int channels) {
    return copyImpl(src, srcStep, dst, dstStep, size, channels);
}

PxStatus pxCopy(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                IppiSize size, int channels) {
    return copyImpl(src, srcStep, dst, dstStep, size, channels);
}

PxStatus pxCopy(float const *src, int srcStep, float *dst, int dstStep, IppiSize size,
                int channels) {
    return copyImpl(src, srcStep, dst, dstStep, size, channels);
}
