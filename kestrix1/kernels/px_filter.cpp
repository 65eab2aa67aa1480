#include "kestrix1/kernels/px_filter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_view.h"

namespace {

// Margins that a window of maskSize anchored at `anchor` reads around the output region.
struct Margins {
    int left, top, right, bottom;
};

Margins windowMargins(IppiSize mask, IppiPoint anchor) {
    return {anchor.x, anchor.y, mask.width - 1 - anchor.x, mask.height - 1 - anchor.y};
}

bool validWindow(IppiSize mask, IppiPoint anchor) {
    return mask.width >= 1 && mask.height >= 1 && anchor.x >= 0 && anchor.y >= 0 &&
           anchor.x < mask.width && anchor.y < mask.height;
}

template <class T>
PxStatus checkWithMargins(T const *p, int step, IppiSize size, Margins m) {
    IppiSize const whole{size.width + m.left + m.right, size.height + m.top + m.bottom};
    return pxCheckRegion(p, step, whole);
}

// Runs op(srcBand, dstBand) over horizontal bands of the region in parallel. Each source
// band is a view whose parent reaches the margins, so OpenCV's filters read the caller's
// border pixels, including the rows of the neighbouring bands.
template <class T, class Op>
void inBands(T const *src, int srcStep, T *dst, int dstStep, IppiSize size, Margins m, Op op) {
    int const threads = kxWorthThreads(std::int64_t(size.width) * size.height)
                            ? std::max(1, omp_get_max_threads())
                            : 1;
    int const bands = std::min(threads, size.height);
    parallelRows(bands, [&](int b) {
        int const y0 = static_cast<int>(std::int64_t(size.height) * b / bands);
        int const y1 = static_cast<int>(std::int64_t(size.height) * (b + 1) / bands);
        IppiSize const band{size.width, y1 - y0};
        cv::Mat const in = pxViewWithMargins(pxAt(src, srcStep, 0, y0), srcStep, band, m.left,
                                             m.top + y0, m.right, m.bottom + (size.height - y1));
        cv::Mat out = pxView(pxAt(dst, dstStep, 0, y0), dstStep, band);
        op(in, out);
    });
}

// Means of exact sums over `area` pixels, rounded half up. A quotient exactly halfway is
// representable in double, so floor(q + 0.5) rounds ties up without error.
void roundMeans(double const *sums, std::uint8_t *out, int width, double area) {
    for (int x = 0; x < width; ++x) {
        out[x] = static_cast<std::uint8_t>(std::floor(sums[x] / area + 0.5));
    }
}

template <class T>
PxStatus filterBoxImpl(T const *src, int srcStep, T *dst, int dstStep, IppiSize size, IppiSize mask,
                       IppiPoint anchor) {
    if (!validWindow(mask, anchor)) return pxStsBadArgErr;
    Margins const m = windowMargins(mask, anchor);
    if (PxStatus s =
            pxFirstError({pxCheckRegion(src, srcStep, size), pxCheckRegion(dst, dstStep, size)}))
        return s;
    // The source pointer names the first output's position; check the window's extent too.
    if (PxStatus s = checkWithMargins(pxAt(src, srcStep, -m.left, -m.top), srcStep, size, m))
        return s;
    cv::Size const ksize(mask.width, mask.height);
    cv::Point const kanchor(anchor.x, anchor.y);
    if constexpr (std::is_same_v<T, std::uint8_t>) {
        // OpenCV's normalised 8-bit box filter mis-rounds (and wraps 255 to 0) for masks of
        // 2, 4, 8 or 16 pixels, so 8-bit means come from exact sums in doubles, a strip of
        // rows at a time, rounded half up.
        double const area = double(mask.width) * mask.height;
        inBands(src, srcStep, dst, dstStep, size, m, [&](cv::Mat const &in, cv::Mat &out) {
            constexpr int kStrip = 32;
            cv::Mat sums(std::min(kStrip, in.rows), in.cols, CV_64F);
            for (int y0 = 0; y0 < in.rows; y0 += kStrip) {
                int const rows = std::min(kStrip, in.rows - y0);
                cv::Mat part = in.rowRange(y0, y0 + rows);  // still reads its parent's margins
                cv::Mat strip = sums.rowRange(0, rows);
                cv::boxFilter(part, strip, CV_64F, ksize, kanchor, false, cv::BORDER_REPLICATE);
                for (int r = 0; r < rows; ++r) {
                    roundMeans(strip.ptr<double>(r), out.ptr<std::uint8_t>(y0 + r), in.cols, area);
                }
            }
        });
    } else {
        inBands(src, srcStep, dst, dstStep, size, m, [&](cv::Mat const &in, cv::Mat &out) {
            cv::boxFilter(in, out, -1, ksize, kanchor, true, cv::BORDER_REPLICATE);
        });
    }
    return pxStsNoErr;
}

// In place the filter would read what it has written, so it runs strip by strip from a
// scratch copy of the originals. The scratch keeps the original rows that the next strip
// still needs above it, and stays a few megabytes whatever the image (a plane-sized
// temporary costs more in page faults than the filter itself).
template <class T>
PxStatus filterBoxInPlaceImpl(T *srcDst, int step, IppiSize size, IppiSize mask, IppiPoint anchor) {
    if (!validWindow(mask, anchor)) return pxStsBadArgErr;
    if (PxStatus s = pxCheckRegion(srcDst, step, size)) return s;
    Margins const m = windowMargins(mask, anchor);
    int const wholeWidth = size.width + m.left + m.right;
    T *origin = pxAt(srcDst, step, -m.left, -m.top);
    IppiSize const whole{wholeWidth, size.height + m.top + m.bottom};
    if (PxStatus s = pxCheckRegion(origin, step, whole)) return s;

    constexpr std::int64_t kScratchBytes = 4 << 20;
    std::int64_t const rowBytes = std::int64_t(wholeWidth) * sizeof(T);
    int const strip = static_cast<int>(
        std::clamp<std::int64_t>(kScratchBytes / rowBytes - (mask.height - 1), 16, size.height));
    int const halo = mask.height - 1;
    cv::Mat scratch(strip + halo, wholeWidth, PxDepth<T>::value);
    // Rows of `scratch` hold image rows [y0 - m.top, y1 + m.bottom) of the current strip.
    for (int y0 = 0; y0 < size.height; y0 += strip) {
        int const y1 = std::min(y0 + strip, size.height);
        int const rows = y1 - y0 + halo;
        int carried = 0;
        if (y0 > 0) {
            // The last `halo` rows of the previous strip's input are this strip's first.
            carried = halo;
            std::memmove(scratch.ptr(0), scratch.ptr(strip), std::size_t(rowBytes) * halo);
        }
        for (int r = carried; r < rows; ++r) {
            std::memcpy(scratch.ptr(r), pxAt(origin, step, 0, y0 + r), std::size_t(rowBytes));
        }
        T const *in = scratch.ptr<T>(m.top) + m.left;
        PxStatus const s =
            filterBoxImpl(in, static_cast<int>(scratch.step), pxAt(srcDst, step, 0, y0), step,
                          IppiSize{size.width, y1 - y0}, mask, anchor);
        if (s != pxStsNoErr) return s;
    }
    return pxStsNoErr;
}

template <class T>
PxStatus gauss5x5Impl(T const *src, int srcStep, T *dst, int dstStep, IppiSize size) {
    Margins const m{2, 2, 2, 2};
    if (PxStatus s =
            pxFirstError({pxCheckRegion(src, srcStep, size), pxCheckRegion(dst, dstStep, size)}))
        return s;
    if (PxStatus s = checkWithMargins(pxAt(src, srcStep, -2, -2), srcStep, size, m)) return s;
    inBands(src, srcStep, dst, dstStep, size, m, [](cv::Mat const &in, cv::Mat &out) {
        cv::GaussianBlur(in, out, cv::Size(5, 5), 0.0, 0.0, cv::BORDER_REPLICATE);
    });
    return pxStsNoErr;
}

template <class T>
PxStatus morphImpl(int op, T const *src, int srcStep, T *dst, int dstStep, IppiSize size,
                   std::uint8_t const *mask, IppiSize maskSize, IppiPoint anchor) {
    if (mask == nullptr) return pxStsNullPtrErr;
    if (!validWindow(maskSize, anchor)) return pxStsBadArgErr;
    cv::Mat const kernel(maskSize.height, maskSize.width, CV_8U, const_cast<std::uint8_t *>(mask));
    if (cv::countNonZero(kernel) == 0) return pxStsBadArgErr;
    Margins const m = windowMargins(maskSize, anchor);
    if (PxStatus s =
            pxFirstError({pxCheckRegion(src, srcStep, size), pxCheckRegion(dst, dstStep, size)}))
        return s;
    if (PxStatus s = checkWithMargins(pxAt(src, srcStep, -m.left, -m.top), srcStep, size, m))
        return s;
    // OpenCV runs morphology in parallel itself: one call over the whole region.
    cv::Mat const in = pxViewWithMargins(src, srcStep, size, m.left, m.top, m.right, m.bottom);
    cv::Mat out = pxView(dst, dstStep, size);
    cv::morphologyEx(in, out, op, kernel, cv::Point(anchor.x, anchor.y), 1, cv::BORDER_REPLICATE);
    return pxStsNoErr;
}

// In-place 3x3 minimum or maximum, in bands of rows. Each band keeps the horizontal extremes
// of three rows in a small ring; the rows just outside a band, which the neighbouring bands
// overwrite, are taken first, before any band writes.
template <class Pick>
void extremeAcross(std::uint16_t const *s, std::uint16_t *a, int w, Pick pick) {
    for (int x = 0; x < w; ++x)
        a[x] = pick(pick(s[x - 1], s[x]), s[x + 1]);
}

template <class Pick>
void extremeDown(std::uint16_t const *up, std::uint16_t const *mid, std::uint16_t const *down,
                 std::uint16_t *d, int w, Pick pick) {
    for (int x = 0; x < w; ++x)
        d[x] = pick(pick(up[x], mid[x]), down[x]);
}

template <class Pick>
PxStatus extreme3x3(std::uint16_t *srcDst, int step, IppiSize size, Pick pick) {
    if (PxStatus s = pxCheckRegion(srcDst, step, size)) return s;
    if (PxStatus s = pxCheckRegion(pxAt(srcDst, step, -1, -1), step,
                                   IppiSize{size.width + 2, size.height + 2}))
        return s;
    int const w = size.width;
    int const bands = kxWorthThreads(std::int64_t(w) * size.height)
                          ? std::min(size.height, std::max(1, omp_get_max_threads()))
                          : 1;
    // Per band: the row above and the row below the band, then a ring of three rows.
    std::vector<std::uint16_t> scratch(std::size_t(w) * 5 * bands);
    auto rowOf = [&](int band, int i) { return scratch.data() + std::size_t(w) * (5 * band + i); };
    auto first = [&](int band) { return int(std::int64_t(size.height) * band / bands); };
    parallelRows(bands, [&](int b) {
        extremeAcross(pxAt(srcDst, step, 0, first(b) - 1), rowOf(b, 0), w, pick);
        extremeAcross(pxAt(srcDst, step, 0, first(b + 1)), rowOf(b, 1), w, pick);
    });
    parallelRows(bands, [&](int b) {
        int const y0 = first(b), y1 = first(b + 1);
        std::uint16_t *ring[3] = {rowOf(b, 2), rowOf(b, 3), rowOf(b, 4)};
        std::uint16_t const *up = rowOf(b, 0);
        extremeAcross(pxAt(srcDst, step, 0, y0), ring[0], w, pick);
        std::uint16_t *mid = ring[0];
        for (int y = y0; y < y1; ++y) {
            std::uint16_t *down = rowOf(b, 1);
            if (y + 1 < y1) {
                down = ring[(y + 1 - y0) % 3];
                extremeAcross(pxAt(srcDst, step, 0, y + 1), down, w, pick);
            }
            extremeDown(up, mid, down, pxAt(srcDst, step, 0, y), w, pick);
            up = mid;
            mid = down;
        }
    });
    return pxStsNoErr;
}

auto const minOf = [](std::uint16_t a, std::uint16_t b) { return std::min(a, b); };
auto const maxOf = [](std::uint16_t a, std::uint16_t b) { return std::max(a, b); };

}  // namespace

PxStatus pxFilterBox(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                     IppiSize dstSize, IppiSize maskSize, IppiPoint anchor) {
    return filterBoxImpl(src, srcStep, dst, dstStep, dstSize, maskSize, anchor);
}
PxStatus pxFilterBox(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                     IppiSize dstSize, IppiSize maskSize, IppiPoint anchor) {
    return filterBoxImpl(src, srcStep, dst, dstStep, dstSize, maskSize, anchor);
}
PxStatus pxFilterBox(float const *src, int srcStep, float *dst, int dstStep, IppiSize dstSize,
                     IppiSize maskSize, IppiPoint anchor) {
    return filterBoxImpl(src, srcStep, dst, dstStep, dstSize, maskSize, anchor);
}

PxStatus pxFilterBoxInPlace(std::uint8_t *srcDst, int step, IppiSize size, IppiSize maskSize,
                            IppiPoint anchor) {
    return filterBoxInPlaceImpl(srcDst, step, size, maskSize, anchor);
}
PxStatus pxFilterBoxInPlace(std::uint16_t *srcDst, int step, IppiSize size, IppiSize maskSize,
                            IppiPoint anchor) {
    return filterBoxInPlaceImpl(srcDst, step, size, maskSize, anchor);
}
PxStatus pxFilterBoxInPlace(float *srcDst, int step, IppiSize size, IppiSize maskSize,
                            IppiPoint anchor) {
    return filterBoxInPlaceImpl(srcDst, step, size, maskSize, anchor);
}

PxStatus pxFilterGauss5x5(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                          IppiSize size) {
    return gauss5x5Impl(src, srcStep, dst, dstStep, size);
}
PxStatus pxFilterGauss5x5(float const *src, int srcStep, float *dst, int dstStep, IppiSize size) {
    return gauss5x5Impl(src, srcStep, dst, dstStep, size);
}

PxStatus pxMin3x3(std::uint16_t *srcDst, int step, IppiSize size) {
    return extreme3x3(srcDst, step, size, minOf);
}
PxStatus pxMax3x3(std::uint16_t *srcDst, int step, IppiSize size) {
    return extreme3x3(srcDst, step, size, maxOf);
}

PxStatus pxErode(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                 IppiSize size, std::uint8_t const *mask, IppiSize maskSize, IppiPoint anchor) {
    return morphImpl(cv::MORPH_ERODE, src, srcStep, dst, dstStep, size, mask, maskSize, anchor);
}
PxStatus pxErode(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                 IppiSize size, std::uint8_t const *mask, IppiSize maskSize, IppiPoint anchor) {
    return morphImpl(cv::MORPH_ERODE, src, srcStep, dst, dstStep, size, mask, maskSize, anchor);
}
PxStatus pxDilate(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                  IppiSize size, std::uint8_t const *mask, IppiSize maskSize, IppiPoint anchor) {
    return morphImpl(cv::MORPH_DILATE, src, srcStep, dst, dstStep, size, mask, maskSize, anchor);
}
PxStatus pxDilate(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                  IppiSize size, std::uint8_t const *mask, IppiSize maskSize, IppiPoint anchor) {
    return morphImpl(cv::MORPH_DILATE, src, srcStep, dst, dstStep, size, mask, maskSize, anchor);
}
