#include "tests/support/images.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

namespace kxtest {

namespace {

double topOf(int depth) {
    switch (depth) {
        case CV_8U:
            return 255.0;
        case CV_16U:
            return 65535.0;
        case CV_16S:
            return 32767.0;
        default:
            return 1.0;
    }
}

}  // namespace

cv::Mat ramp(int rows, int cols, int type) {
    cv::Mat m(rows, cols, CV_64FC(CV_MAT_CN(type)));
    double const span = std::max(1, cols - 1 + 2 * (rows - 1));
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < cols; ++x)
            for (int c = 0; c < m.channels(); ++c)
                m.ptr<double>(y)[x * m.channels() + c] = (x + 2.0 * y) / span;
    cv::Mat out;
    m.convertTo(out, type, topOf(CV_MAT_DEPTH(type)));
    return out;
}

cv::Mat stepEdge(int rows, int cols, int type, double lo, double hi, int edge) {
    cv::Mat m(rows, cols, type, cv::Scalar::all(lo));
    if (edge < cols) m.colRange(std::max(edge, 0), cols).setTo(cv::Scalar::all(hi));
    return m;
}

cv::Mat checkerboard(int rows, int cols, int type, int cell, double lo, double hi) {
    cv::Mat m(rows, cols, type, cv::Scalar::all(lo));
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < cols; ++x)
            if (((x / cell) + (y / cell)) % 2 == 1)
                m(cv::Rect(x, y, 1, 1)).setTo(cv::Scalar::all(hi));
    return m;
}

cv::Mat noise(int rows, int cols, int type, std::uint64_t seed, double lo, double hi) {
    cv::Mat m(rows, cols, type);
    cv::RNG rng(seed);
    rng.fill(m, cv::RNG::UNIFORM, cv::Scalar::all(lo), cv::Scalar::all(hi));
    return m;
}

cv::Mat photo(std::string const &name) {
    cv::Mat m = cv::imread(std::string(KX_DATA_DIR) + "/" + name, cv::IMREAD_COLOR);
    EXPECT_FALSE(m.empty()) << "missing photograph data/" << name;
    return m;
}

PaddedMat::PaddedMat(int rows, int cols, int type, int extraBytes) : extra_(extraBytes) {
    int const rowBytes = cols * static_cast<int>(CV_ELEM_SIZE(type)) + extraBytes;
    parent_ = cv::Mat(rows + 2, rowBytes, CV_8U, cv::Scalar(kSentinel));
    view = cv::Mat(rows, cols, type, parent_.ptr(1), static_cast<size_t>(rowBytes));
}

bool PaddedMat::paddingIntact() const {
    int const inner = view.cols * static_cast<int>(view.elemSize());
    for (int y = 0; y < parent_.rows; ++y) {
        std::uint8_t const *row = parent_.ptr(y);
        bool const outside = y == 0 || y == parent_.rows - 1;
        for (int x = outside ? 0 : inner; x < parent_.cols; ++x)
            if (row[x] != kSentinel) return false;
    }
    return true;
}

}  // namespace kxtest
