// Deterministic test images for the kestrix1 tests.
//
// Generators give the same pixels on every run: ramps, step edges, flat planes,
// checkerboards, seeded noise and the photographs of data/. PaddedMat puts a plane inside a
// wider buffer, so that kernels see a row step larger than the width and the tests can check
// that the bytes between rows stay untouched.
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

// The widths every row loop must handle: a single pixel, less than one vector, one past a
// multiple of the vector widths, and a long odd row.
inline constexpr int kAwkwardWidths[] = {1, 7, 33, 4099};

// The matrix type of `channels` elements of T.
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
    bool const fp = std::is_floating_point_v<T>;
    cv::Mat m = noise(rows, cols, typeOf<T>(channels), seed, lo, fp ? hi : hi + 1);
    m.ptr<T>()[0] = T(hi);
    m.ptr<T>(rows - 1)[cols * channels - 1] = T(lo);
    return m;
}

// A photograph of data/ as 8-bit BGR, as OpenCV reads it. Fails the test when missing.
cv::Mat photo(std::string const &name);

// A plane inside a parent buffer with extra bytes on every row and a row above and below,
// all set to a sentinel byte.
class PaddedMat {
public:
    PaddedMat(int rows, int cols, int type, int extraBytes = 24);

    // The region a kernel sees: cols x rows of `type`, with step = cols x elemSize + extra.
    cv::Mat view;

    // Pointer and step of the view, as the kernels take them.
    template <class T>
    T *ptr() {
        return view.ptr<T>();
    }
    int step() const { return static_cast<int>(view.step); }

    // Whether every byte outside the view still holds the sentinel.
    bool paddingIntact() const;

private:
    cv::Mat parent_;
    int extra_;
    static constexpr std::uint8_t kSentinel = 0xA5;
};

}  // namespace kxtest
