// Argument checks and cv::Mat views shared by the kernels' sources. Internal to kernels/.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <type_traits>

#include <opencv2/core.hpp>

#include "kestrix1/kernels/px_types.h"

template <class T>
struct PxDepth;
template <>
struct PxDepth<std::uint8_t> {
    static constexpr int value = CV_8U;
};
template <>
struct PxDepth<std::uint16_t> {
    static constexpr int value = CV_16U;
};
template <>
struct PxDepth<std::int16_t> {
    static constexpr int value = CV_16S;
};
template <>
struct PxDepth<float> {
    static constexpr int value = CV_32F;
};

// Number of pixels of a region, as the measure of work for the parallel idiom.
inline std::int64_t pxArea(IppiSize s) { return std::int64_t(s.width) * s.height; }

// Status of a region argument: pointer, positive size, and a step that holds a row and is a
// whole number of elements.
template <class T>
PxStatus pxCheckRegion(T const *p, int step, IppiSize size, int channels = 1) {
    if (p == nullptr) return pxStsNullPtrErr;
    if (size.width < 1 || size.height < 1) return pxStsSizeErr;
    if (step < static_cast<std::int64_t>(size.width) * channels * static_cast<int>(sizeof(T)) ||
        step % static_cast<int>(sizeof(T)) != 0)
        return pxStsStepErr;
    return pxStsNoErr;
}

// The first non-zero status of several checks.
inline PxStatus pxFirstError(std::initializer_list<PxStatus> statuses) {
    for (PxStatus s : statuses)
        if (s != pxStsNoErr) return s;
    return pxStsNoErr;
}

// The element at column x of row y of a region with the given row step in bytes.
template <class T>
T *pxAt(T *p, int step, std::int64_t x, std::int64_t y) {
    using Byte = std::conditional_t<std::is_const_v<T>, std::uint8_t const, std::uint8_t>;
    return reinterpret_cast<T *>(reinterpret_cast<Byte *>(p) + y * step) + x;
}

// A cv::Mat header over a region; it shares the pixels and owns nothing.
template <class T>
cv::Mat pxView(T const *p, int step, IppiSize size, int channels = 1) {
    return cv::Mat(size.height, size.width, CV_MAKETYPE(PxDepth<T>::value, channels),
                   const_cast<T *>(p), static_cast<size_t>(step));
}

// A header over the region at p that knows the margins around it as its parent matrix, so
// that OpenCV's filters read the caller's border pixels instead of inventing their own.
template <class T>
cv::Mat pxViewWithMargins(T const *p, int step, IppiSize size, int left, int top, int right,
                          int bottom) {
    IppiSize const whole{size.width + left + right, size.height + top + bottom};
    cv::Mat parent = pxView(pxAt(p, step, -left, -top), step, whole);
    return parent(cv::Rect(left, top, size.width, size.height));
}
