// Inputs shared by the histogram and colour transfer tests.
#pragma once
#include <opencv2/imgproc.hpp>
#include "tests/support/images.h"

namespace kxtest {
// A photograph of data/ at cols x rows as three 16-bit planes (B, G, R, scaled by 257).
inline std::vector<cv::Mat> photoPlanes(std::string const &name, int cols, int rows) {
    cv::Mat small, wide;
    cv::resize(photo(name), small, {cols, rows}, 0, 0, cv::INTER_AREA);
    small.convertTo(wide, CV_16UC3, 257.0);
    std::vector<cv::Mat> planes;
    cv::split(wide, planes);
    return planes;
}
}  // namespace kxtest
