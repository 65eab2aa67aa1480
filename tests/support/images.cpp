#include "tests/support/images.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

namespace kxtest {

cv::Mat ramp(int rows, int cols, int type) {
    cv::Mat m(rows, cols, CV_64F), out;
    double const span = std::max(1, cols - 1 + 2 * (rows - 1));
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < cols; ++x)
            m.at<double>(y, x) = (x + 2.0 * y) / span;
    cv::merge(std::vector<cv::Mat>(CV_MAT_CN(type), m), out);
    double const topByDepth[] = {255, 127, 65535, 32767, 2147483647, 1, 1};  // 8U .. 64F
    out.convertTo(out, type, topByDepth[CV_MAT_DEPTH(type)]);
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
            if ((x / cell + y / cell) % 2 == 1) m(cv::Rect(x, y, 1, 1)).setTo(cv::Scalar::all(hi));
    return m;
}

cv::Mat noise(int rows, int cols, int type, std::uint64_t seed, double lo, double hi) {
    cv::Mat m(rows, cols, type);
    cv::RNG(seed).fill(m, cv::RNG::UNIFORM, cv::Scalar::all(lo), cv::Scalar::all(hi));
    return m;
}

cv::Mat photo(std::string const &name) {
    cv::Mat m = cv::imread(std::string(KX_DATA_DIR) + "/" + name, cv::IMREAD_COLOR);
    EXPECT_FALSE(m.empty()) << "missing photograph data/" << name;
    return m;
}

PaddedMat::PaddedMat(int rows, int cols, int type, int extraBytes) {
    int const rowBytes = cols * static_cast<int>(CV_ELEM_SIZE(type)) + extraBytes;
    parent_ = cv::Mat(rows + 2, rowBytes, CV_8U, cv::Scalar(kSentinel));
    view = cv::Mat(rows, cols, type, parent_.ptr(1), static_cast<size_t>(rowBytes));
}

bool PaddedMat::paddingIntact() const {
    cv::Mat changed = parent_ != kSentinel;
    changed(cv::Rect(0, 1, view.cols * int(view.elemSize()), view.rows)).setTo(0);
    return cv::countNonZero(changed) == 0;
}

}  // namespace kxtest
