// AFilter on the 24-megapixel colour photograph as float planes (0..1, the image as its own
// guide) beside OpenCV contrib's adaptive-manifold filter with the same sigmas. Both sides
// draw their split directions at random, so the outputs differ slightly between runs.
//
// DTFilter::setup, which AFilter runs per node, sets the process's OpenMP team to
// min(cores, 4) threads; OpenCV's own thread pool is given the same count.
#include <omp.h>

#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/ximgproc.hpp>
#include <vector>

#include "bench/support/bench.h"
#include "kestrix1/filters/a_filter.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

constexpr float kSigmaS = 16.0f;
constexpr float kSigmaR = 0.2f;

int const registered = [] {
    DTFilter probe;
    probe.setup(1.0f, 1.0f, 3, DTFilter::L1);
    cv::setNumThreads(omp_get_max_threads());
    cv::Mat image;
    inputs().bgr8.convertTo(image, CV_32F, 1.0 / 255);
    std::int64_t const bytes = std::int64_t(image.total() * image.elemSize()) * 2;
    add(
        "AdaptiveManifold_BGR", "kestrix1",
        [image] {
            std::vector<cv::Mat> planes;
            cv::split(image, planes);
            auto filter = std::make_shared<AFilter>();
            filter->setup(kSigmaR, kSigmaS, -1, 1, planes);
            auto out = std::make_shared<std::vector<cv::Mat>>();
            return Op([filter, planes, out] { filter->proc(planes, *out); });
        },
        bytes);
    add(
        "AdaptiveManifold_BGR", "opencv",
        [image] {
            cv::Mat out(image.size(), image.type());
            return Op([image, out]() mutable {
                cv::ximgproc::amFilter(image, image, out, kSigmaS, kSigmaR, false);
            });
        },
        bytes);
    return 0;
}();

}  // namespace
