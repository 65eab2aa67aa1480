#include "kestrix1/kernels/px_point.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/core/hal/hal.hpp>

#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_view.h"

namespace {

// Runs body(srcRow, dstRow) over the rows of a source and a destination region in parallel.
template <class S, class D, class Body>
PxStatus rowsOf(S const *src, int srcStep, D *dst, int dstStep, IppiSize size, int channels,
                Body body) {
    if (PxStatus s = pxFirstError({pxCheckRegion(src, srcStep, size, channels),
                                   pxCheckRegion(dst, dstStep, size, channels)}))
        return s;
    parallelRows(size.height, pxArea(size) * channels,
                 [&](int y) { body(pxAt(src, srcStep, 0, y), pxAt(dst, dstStep, 0, y)); });
    return pxStsNoErr;
}

// The same over one region.
template <class T, class Body>
PxStatus rowsOf(T *srcDst, int step, IppiSize size, Body body) {
    if (PxStatus s = pxCheckRegion(srcDst, step, size)) return s;
    parallelRows(size.height, pxArea(size), [&](int y) { body(pxAt(srcDst, step, 0, y)); });
    return pxStsNoErr;
}

// Row loops take their parameters by value: a store through an 8-bit pointer may alias
// anything in memory, and only locals let the compiler keep values in registers and
// vectorise.
template <class S, class D>
void lutRow(S const *s, D *d, int width, D const *table, unsigned mask) {
    // A table over every code of the source needs no mask. Eight indices are loaded before
    // the first store, so that an in-place row (d == s) does not serialise load after store.
    if (mask == unsigned(S(~0u))) {
        int x = 0;
        for (; x + 8 <= width; x += 8) {
            S i[8];
            for (int k = 0; k < 8; ++k)
                i[k] = s[x + k];
            for (int k = 0; k < 8; ++k)
                d[x + k] = table[i[k]];
        }
        for (; x < width; ++x)
            d[x] = table[s[x]];
        return;
    }
    for (int x = 0; x < width; ++x)
        d[x] = table[s[x] & mask];
}

template <class T, class Op>
void mapRow(T const *s, T *d, int width, Op op) {
#pragma omp simd
    for (int x = 0; x < width; ++x)
        d[x] = op(s[x]);
}

template <class S, class D>
PxStatus lutPaletteImpl(S const *src, int srcStep, D *dst, int dstStep, IppiSize size,
                        D const *table, int nBitSize) {
    if (table == nullptr) return pxStsNullPtrErr;
    if (nBitSize < 1 || nBitSize > int(8 * sizeof(S))) return pxStsBadArgErr;
    unsigned const mask = (1u << nBitSize) - 1u;
    return rowsOf(src, srcStep, dst, dstStep, size, 1,
                  [&](S const *s, D *d) { lutRow(s, d, size.width, table, mask); });
}

// Colour matrix over three channels reached through channel pointers and a pixel stride
// (3 for interleaved pixels, 1 for planes).
template <class T, int Stride>
void twistRow(T const *c0, T const *c1, T const *c2, T *d0, T *d1, T *d2, int width,
              float const *matrix) {
    float t[12];
    for (int i = 0; i < 12; ++i)
        t[i] = matrix[i];
    for (int x = 0; x < width; ++x) {
        float const a = c0[x * Stride], b = c1[x * Stride], c = c2[x * Stride];
        float const r0 = t[0] * a + t[1] * b + t[2] * c + t[3];
        float const r1 = t[4] * a + t[5] * b + t[6] * c + t[7];
        float const r2 = t[8] * a + t[9] * b + t[10] * c + t[11];
        d0[x * Stride] = cv::saturate_cast<T>(r0);
        d1[x * Stride] = cv::saturate_cast<T>(r1);
        d2[x * Stride] = cv::saturate_cast<T>(r2);
    }
}

template <class T>
PxStatus twistPacked(T const *src, int srcStep, T *dst, int dstStep, IppiSize size,
                     float const *t) {
    if (t == nullptr) return pxStsNullPtrErr;
    return rowsOf(src, srcStep, dst, dstStep, size, 3, [&](T const *s, T *d) {
        twistRow<T, 3>(s, s + 1, s + 2, d, d + 1, d + 2, size.width, t);
    });
}

template <class T>
PxStatus twistPlanar(T const *const src[3], int srcStep, T *const dst[3], int dstStep,
                     IppiSize size, float const *t) {
    if (t == nullptr || src == nullptr || dst == nullptr) return pxStsNullPtrErr;
    for (int c = 0; c < 3; ++c) {
        if (PxStatus s = pxFirstError(
                {pxCheckRegion(src[c], srcStep, size), pxCheckRegion(dst[c], dstStep, size)}))
            return s;
    }
    parallelRows(size.height, pxArea(size) * 3, [&](int y) {
        twistRow<T, 1>(pxAt(src[0], srcStep, 0, y), pxAt(src[1], srcStep, 0, y),
                       pxAt(src[2], srcStep, 0, y), pxAt(dst[0], dstStep, 0, y),
                       pxAt(dst[1], dstStep, 0, y), pxAt(dst[2], dstStep, 0, y), size.width, t);
    });
    return pxStsNoErr;
}

template <class T>
PxStatus setImpl(T *dst, int step, IppiSize size, T value) {
    return rowsOf(dst, step, size, [&](T *d) { std::fill(d, d + size.width, value); });
}

template <class T>
PxStatus setVector(T *dst, int len, T value) {
    if (dst == nullptr) return pxStsNullPtrErr;
    if (len < 1) return pxStsSizeErr;
    std::fill(dst, dst + len, value);
    return pxStsNoErr;
}

template <class T>
void maskedRow(T *d, std::uint8_t const *m, int width, T value) {
#pragma omp simd
    for (int x = 0; x < width; ++x)
        d[x] = m[x] ? value : d[x];
}

template <class T>
PxStatus setMaskedImpl(T *dst, int step, IppiSize size, T value, std::uint8_t const *mask,
                       int maskStep) {
    if (PxStatus s =
            pxFirstError({pxCheckRegion(dst, step, size), pxCheckRegion(mask, maskStep, size)}))
        return s;
    parallelRows(size.height, pxArea(size), [&](int y) {
        maskedRow(pxAt(dst, step, 0, y), pxAt(mask, maskStep, 0, y), size.width, value);
    });
    return pxStsNoErr;
}

template <class T>
PxStatus rampImpl(T *dst, int len, float offset, float slope) {
    if (dst == nullptr) return pxStsNullPtrErr;
    if (len < 1) return pxStsSizeErr;
    if constexpr (std::is_floating_point_v<T>) {
        for (int i = 0; i < len; ++i)
            dst[i] = offset + slope * static_cast<float>(i);
    } else {
        float const top = static_cast<float>(std::numeric_limits<T>::max());
        for (int i = 0; i < len; ++i) {
            float const v = offset + slope * static_cast<float>(i);
            dst[i] = v >= top - 0.5f ? std::numeric_limits<T>::max()
                     : v < 0.0f      ? T(0)
                                     : static_cast<T>(static_cast<int>(v + 0.5f));
        }
    }
    return pxStsNoErr;
}

// The piecewise-linear map of every value of T, as a table indexed by value - min(T).
template <class T>
PxStatus linearTable(int const *values, int const *levels, int nLevels, std::vector<T> &table) {
    if (values == nullptr || levels == nullptr) return pxStsNullPtrErr;
    if (nLevels < 2) return pxStsBadArgErr;
    constexpr int lo = std::numeric_limits<T>::min();
    constexpr int hi = std::numeric_limits<T>::max();
    table.resize(hi - lo + 1);
    for (int v = lo; v <= hi; ++v)
        table[v - lo] = static_cast<T>(v);
    for (int k = 0; k + 1 < nLevels; ++k) {
        std::int64_t const l0 = levels[k], l1 = levels[k + 1];
        if (l1 <= l0) continue;  // an empty interval maps nothing
        std::int64_t const v0 = values[k], dv = std::int64_t(values[k + 1]) - values[k];
        std::int64_t const first = std::max<std::int64_t>(l0, lo);
        std::int64_t const last = std::min<std::int64_t>(l1 - 1, hi);
        for (std::int64_t v = first; v <= last; ++v) {
            std::int64_t const mapped = v0 + (v - l0) * dv / (l1 - l0);
            table[v - lo] = static_cast<T>(std::clamp<std::int64_t>(mapped, lo, hi));
        }
    }
    return pxStsNoErr;
}

template <class T>
PxStatus lutLinearImpl(T const *src, int srcStep, T *dst, int dstStep, IppiSize size, int channels,
                       int const *const values[], int const *const levels[], int const nLevels[]) {
    if (values == nullptr || levels == nullptr || nLevels == nullptr) return pxStsNullPtrErr;
    if (PxStatus s = pxFirstError({pxCheckRegion(src, srcStep, size, channels),
                                   pxCheckRegion(dst, dstStep, size, channels)}))
        return s;
    std::vector<T> tables[3];
    for (int c = 0; c < channels; ++c) {
        if (PxStatus s = linearTable(values[c], levels[c], nLevels[c], tables[c])) return s;
    }
    constexpr int lo = std::numeric_limits<T>::min();
    return rowsOf(src, srcStep, dst, dstStep, size, channels, [&](T const *s, T *d) {
        for (int c = 0; c < channels; ++c) {
            T const *table = tables[c].data() - lo;
            for (int x = 0; x < size.width; ++x) {
                d[x * channels + c] = table[s[x * channels + c]];
            }
        }
    });
}

}  // namespace

PxStatus pxLutPalette(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                      IppiSize size, std::uint8_t const *table, int nBitSize) {
    if (nBitSize == 8 && table != nullptr &&
        pxFirstError({pxCheckRegion(src, srcStep, size), pxCheckRegion(dst, dstStep, size)}) ==
            pxStsNoErr) {
        // A full 8-bit table is OpenCV's LUT.
        cv::Mat out = pxView(dst, dstStep, size);
        cv::LUT(pxView(src, srcStep, size),
                cv::Mat(1, 256, CV_8U, const_cast<std::uint8_t *>(table)), out);
        return pxStsNoErr;
    }
    return lutPaletteImpl(src, srcStep, dst, dstStep, size, table, nBitSize);
}

PxStatus pxLutPalette(std::uint16_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                      IppiSize size, std::uint8_t const *table, int nBitSize) {
    return lutPaletteImpl(src, srcStep, dst, dstStep, size, table, nBitSize);
}

PxStatus pxLutPalette(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                      IppiSize size, std::uint16_t const *table, int nBitSize) {
    return lutPaletteImpl(src, srcStep, dst, dstStep, size, table, nBitSize);
}

PxStatus pxColorTwist(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                      IppiSize size, float const twist[12]) {
    return twistPacked(src, srcStep, dst, dstStep, size, twist);
}
PxStatus pxColorTwist(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                      IppiSize size, float const twist[12]) {
    return twistPacked(src, srcStep, dst, dstStep, size, twist);
}
PxStatus pxColorTwist(std::int16_t const *src, int srcStep, std::int16_t *dst, int dstStep,
                      IppiSize size, float const twist[12]) {
    return twistPacked(src, srcStep, dst, dstStep, size, twist);
}
PxStatus pxColorTwist(std::uint8_t *srcDst, int step, IppiSize size, float const twist[12]) {
    return twistPacked<std::uint8_t>(srcDst, step, srcDst, step, size, twist);
}
PxStatus pxColorTwist(std::uint16_t *srcDst, int step, IppiSize size, float const twist[12]) {
    return twistPacked<std::uint16_t>(srcDst, step, srcDst, step, size, twist);
}
PxStatus pxColorTwist(std::int16_t *srcDst, int step, IppiSize size, float const twist[12]) {
    return twistPacked<std::int16_t>(srcDst, step, srcDst, step, size, twist);
}
PxStatus pxColorTwist(std::uint8_t const *const src[3], int srcStep, std::uint8_t *const dst[3],
                      int dstStep, IppiSize size, float const twist[12]) {
    return twistPlanar(src, srcStep, dst, dstStep, size, twist);
}
PxStatus pxColorTwist(std::uint16_t const *const src[3], int srcStep, std::uint16_t *const dst[3],
                      int dstStep, IppiSize size, float const twist[12]) {
    return twistPlanar(src, srcStep, dst, dstStep, size, twist);
}
PxStatus pxColorTwist(std::uint8_t *const srcDst[3], int step, IppiSize size,
                      float const twist[12]) {
    if (srcDst == nullptr) return pxStsNullPtrErr;
    std::uint8_t const *const src[3] = {srcDst[0], srcDst[1], srcDst[2]};
    return twistPlanar(src, step, srcDst, step, size, twist);
}
PxStatus pxColorTwist(std::uint16_t *const srcDst[3], int step, IppiSize size,
                      float const twist[12]) {
    if (srcDst == nullptr) return pxStsNullPtrErr;
    std::uint16_t const *const src[3] = {srcDst[0], srcDst[1], srcDst[2]};
    return twistPlanar(src, step, srcDst, step, size, twist);
}

PxStatus pxXorC(std::uint8_t *srcDst, int step, IppiSize size, std::uint8_t value) {
    return rowsOf(srcDst, step, size, [&](std::uint8_t *d) {
        mapRow(d, d, size.width, [v = value](std::uint8_t p) { return std::uint8_t(p ^ v); });
    });
}

PxStatus pxSet(std::uint8_t *dst, int step, IppiSize size, std::uint8_t value) {
    return setImpl(dst, step, size, value);
}
PxStatus pxSet(std::uint16_t *dst, int step, IppiSize size, std::uint16_t value) {
    return setImpl(dst, step, size, value);
}
PxStatus pxSet(float *dst, int step, IppiSize size, float value) {
    return setImpl(dst, step, size, value);
}
PxStatus pxSet(std::uint8_t *dst, int len, std::uint8_t value) {
    return setVector(dst, len, value);
}
PxStatus pxSet(std::uint16_t *dst, int len, std::uint16_t value) {
    return setVector(dst, len, value);
}
PxStatus pxSet(float *dst, int len, float value) {
    return setVector(dst, len, value);
}

PxStatus pxSetMasked(std::uint8_t *dst, int step, IppiSize size, std::uint8_t value,
                     std::uint8_t const *mask, int maskStep) {
    return setMaskedImpl(dst, step, size, value, mask, maskStep);
}
PxStatus pxSetMasked(std::uint16_t *dst, int step, IppiSize size, std::uint16_t value,
                     std::uint8_t const *mask, int maskStep) {
    return setMaskedImpl(dst, step, size, value, mask, maskStep);
}
PxStatus pxSetMasked(float *dst, int step, IppiSize size, float value, std::uint8_t const *mask,
                     int maskStep) {
    return setMaskedImpl(dst, step, size, value, mask, maskStep);
}

PxStatus pxThresholdLess(std::uint8_t *srcDst, int step, IppiSize size, std::uint8_t threshold) {
    return rowsOf(srcDst, step, size, [&](std::uint8_t *d) {
        mapRow(d, d, size.width, [t = threshold](std::uint8_t p) { return std::max(p, t); });
    });
}

PxStatus pxThresholdLessGreater(std::uint8_t const *src, int srcStep, std::uint8_t *dst,
                                int dstStep, IppiSize size, std::uint8_t low, std::uint8_t high) {
    if (low > high) return pxStsBadArgErr;
    return rowsOf(src, srcStep, dst, dstStep, size, 1, [&](std::uint8_t const *s, std::uint8_t *d) {
        mapRow(s, d, size.width,
               [lo = low, hi = high](std::uint8_t p) { return std::clamp(p, lo, hi); });
    });
}

PxStatus pxSubC(std::uint8_t *srcDst, int step, IppiSize size, std::uint8_t value) {
    return rowsOf(srcDst, step, size, [&](std::uint8_t *d) {
        mapRow(d, d, size.width,
               [v = value](std::uint8_t p) { return std::uint8_t(p > v ? p - v : 0); });
    });
}

PxStatus pxMulCScale(std::uint8_t *srcDst, int step, IppiSize size, std::uint8_t value,
                     int scaleFactor) {
    if (scaleFactor < 0 || scaleFactor > 16) return pxStsBadArgErr;
    // Rounded shift, ties to even: adding half - 1 plus the parity of the truncated
    // quotient carries exactly the remainders above a half, and a half when the quotient
    // is odd. Whole arithmetic in 32-bit lanes, which vectorises.
    unsigned const s = unsigned(scaleFactor), v = value;
    unsigned const bias = s > 0 ? (1u << (s - 1)) - 1u : 0u;
    return rowsOf(srcDst, step, size, [&](std::uint8_t *d) {
        mapRow(d, d, size.width, [=](std::uint8_t p) {
            unsigned const prod = p * v;
            unsigned const q = (prod + bias + (s > 0 ? (prod >> s) & 1u : 0u)) >> s;
            return std::uint8_t(q < 255u ? q : 255u);
        });
    });
}

PxStatus pxVectorRamp(std::uint8_t *dst, int len, float offset, float slope) {
    return rampImpl(dst, len, offset, slope);
}
PxStatus pxVectorRamp(std::uint16_t *dst, int len, float offset, float slope) {
    return rampImpl(dst, len, offset, slope);
}
PxStatus pxVectorRamp(float *dst, int len, float offset, float slope) {
    return rampImpl(dst, len, offset, slope);
}

PxStatus pxLutLinear(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                     IppiSize size, int const *values, int const *levels, int nLevels) {
    int const *const v[1] = {values};
    int const *const l[1] = {levels};
    return lutLinearImpl(src, srcStep, dst, dstStep, size, 1, v, l, &nLevels);
}
PxStatus pxLutLinear(std::int16_t const *src, int srcStep, std::int16_t *dst, int dstStep,
                     IppiSize size, int const *values, int const *levels, int nLevels) {
    int const *const v[1] = {values};
    int const *const l[1] = {levels};
    return lutLinearImpl(src, srcStep, dst, dstStep, size, 1, v, l, &nLevels);
}
PxStatus pxLutLinear(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                     IppiSize size, int const *const values[3], int const *const levels[3],
                     int const nLevels[3]) {
    return lutLinearImpl(src, srcStep, dst, dstStep, size, 3, values, levels, nLevels);
}
PxStatus pxLutLinear(std::int16_t const *src, int srcStep, std::int16_t *dst, int dstStep,
                     IppiSize size, int const *const values[3], int const *const levels[3],
                     int const nLevels[3]) {
    return lutLinearImpl(src, srcStep, dst, dstStep, size, 3, values, levels, nLevels);
}

PxStatus pxLutLinearTable(int const *values, int const *levels, int nLevels, std::int16_t *table) {
    if (table == nullptr) return pxStsNullPtrErr;
    std::vector<std::int16_t> full;
    if (PxStatus s = linearTable(values, levels, nLevels, full)) return s;
    std::copy(full.begin(), full.end(), table);
    return pxStsNoErr;
}

void pxExpRun(float const *src, float *dst, int n) {
    if (n >= 32) {
        cv::hal::exp32f(src, dst, n);
    } else if (n > 0) {
        float a[32] = {}, b[32];
        std::memcpy(a, src, sizeof(float) * std::size_t(n));
        cv::hal::exp32f(a, b, 32);
        std::memcpy(dst, b, sizeof(float) * std::size_t(n));
    }
}
