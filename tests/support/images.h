// Deterministic test images for the kestrix1 tests.
//
// Generators give the same pixels on every run: ramps, step edges, flat planes,
// checkerboards, seeded noise and the photographs of data/. PaddedMat puts a plane inside a
// wider buffer, so that kernels see a row step larger than the width and the tests can check
// that the bytes between rows stay untouched.
#pragma once

#include <cstdint>
#include <string>

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
