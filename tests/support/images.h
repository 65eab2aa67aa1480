// Deterministic test images, the photographs of data/ and planes amid sentinel bytes.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>

#include <opencv2/core.hpp>

namespace kxtest {

// value(x, y) = (x + 2 y) scaled over the type's range (0..1 for float).
cv::Mat ramp(int rows, int cols, int type);

// lo left of column `edge`, hi from it on.
cv::Mat stepEdge(int rows, int cols, int type, double lo, double hi, int edge);

// Squares of `cell` pixels alternating between lo and hi.
cv::Mat checkerboard(int rows, int cols, int type, int cell, double lo, double hi);

// Uniform noise in [lo, hi) from a fixed seed (integers: lo..hi-1).
cv::Mat noise(int rows, int cols, int type, std::uint64_t seed, double lo, double hi);

// A photograph of data/ as 8-bit BGR, as OpenCV reads it. Fails the test when missing.
cv::Mat photo(std::string const &name);

// Row widths to test: one pixel, less than a vector, one past vector multiples, a long row.
inline constexpr int kAwkwardWidths[] = {1, 7, 33, 4099};

template <class T>
int typeOf(int channels = 1) {
    return CV_MAKETYPE(cv::DataType<T>::depth, channels);
}

// The ends of the range of pixel values of T: those of the type, 0 and 1 for float.
template <class T>
double bottomOf() {
    return std::is_floating_point_v<T> ? 0.0 : double(std::numeric_limits<T>::min());
}
template <class T>
double topOf() {
    return std::is_floating_point_v<T> ? 1.0 : double(std::numeric_limits<T>::max());
}

// noise() over the whole range of T, with the top of the range in the first element and the
// bottom in the last, where a loop that stops short would miss them.
template <class T>
cv::Mat fullRangeNoise(int rows, int cols, int channels, std::uint64_t seed) {
    double const lo = bottomOf<T>(), hi = topOf<T>();
    cv::Mat m = noise(rows, cols, typeOf<T>(channels), seed, lo, hi + !std::is_floating_point_v<T>);
    m.ptr<T>()[0] = T(hi);
    m.ptr<T>(rows - 1)[cols * channels - 1] = T(lo);
    return m;
}

// `view` amid sentinel bytes: extraBytes after every row and a row above and below. Kernels
// see a row step above the width; paddingIntact tells whether the sentinels stayed.
class PaddedMat {
public:
    PaddedMat(int rows, int cols, int type, int extraBytes = 24);
    template <class T>
    T *ptr() {
        return view.ptr<T>();
    }
    int step() const { return static_cast<int>(view.step); }
    bool paddingIntact() const;

    cv::Mat view;

private:
    cv::Mat parent_;
    static constexpr std::uint8_t kSentinel = 0xA5;
};

}  // namespace kxtest
