// BilateralFilter on the 16-bit luminance plane reduced to 3000 x 2000, self guided, with 8
// pixels and a tenth of the 16-bit range to a grid cell, beside OpenCV's direct bilateral
// filter on the same plane as float in 0..1 (sigmaColor 0.1, sigmaSpace 8, window from
// sigmaSpace). The kestrix1 side restores its plane before every call, as the filter works
// in place; the copy is a small part of the time.
//
// OpenCV's thread pool is given the OpenMP team's size so that both sides use the same
// threads.
#include <omp.h>

#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench/support/bench.h"
#include "kestrix1/filters/bilateral_filter.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

int const registered = [] {
    cv::setNumThreads(omp_get_max_threads());
    cv::Mat y16;
    cv::resize(inputs().y16, y16, cv::Size(3000, 2000), 0, 0, cv::INTER_AREA);
    std::int64_t const bytes = std::int64_t(y16.total() * y16.elemSize()) * 2;
    add(
        "Bilateral_Y16_3000x2000", "kestrix1",
        [y16] {
            auto filter = std::make_shared<BilateralFilter>();
            cv::Mat plane = y16.clone();
            return Op([filter, y16, plane]() mutable {
                y16.copyTo(plane);
                filter->proc(cv::Mat(), plane, 8, 6553, nullptr);
            });
        },
        bytes);
    add(
        "Bilateral_Y16_3000x2000", "opencv",
        [y16] {
            cv::Mat in, out;
            y16.convertTo(in, CV_32F, 1.0 / 65535);
            return Op([in, out]() mutable { cv::bilateralFilter(in, out, -1, 0.1, 8.0); });
        },
        bytes);
    return 0;
}();

}  // namespace
