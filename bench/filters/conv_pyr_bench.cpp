// ConvPyr on the 24-megapixel luminance plane (CV_32F, 0..1) with 5-tap kernels, beside one
// cv::sepFilter2D of the whole plane with a 5-tap kernel: the pyramid's cost in units of
// the small filter it is built from (each of its filters is a sepFilter2D of this kind).
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "bench/support/bench.h"
#include "kestrix1/filters/conv_pyr.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

cv::Mat tap5(std::vector<float> v) {
    return cv::Mat(v, true);
}

int const registered = [] {
    cv::Mat const y = inputs().y32f;
    cv::Mat const kd = tap5({.0625f, .25f, .375f, .25f, .0625f});
    cv::Mat const ku = tap5({.125f, .5f, .75f, .5f, .125f});
    cv::Mat const kl = tap5({.02f, .08f, .12f, .08f, .02f});
    std::int64_t const bytes = std::int64_t(y.total() * y.elemSize()) * 2;
    add(
        "ConvPyr_5tap", "kestrix1",
        [y, kd, ku, kl] {
            auto pyr = std::make_shared<ConvPyr>(kd, ku, kl);
            cv::Mat out(y.size(), CV_32F);
            return Op([pyr, y, out]() mutable { pyr->proc(y, out); });
        },
        bytes);
    add(
        "ConvPyr_5tap", "opencv",
        [y, kd] {
            cv::Mat out(y.size(), CV_32F);
            return Op([y, kd, out]() mutable {
                cv::sepFilter2D(y, out, CV_32F, kd, kd, cv::Point(-1, -1), 0.0,
                                cv::BORDER_CONSTANT);
            });
        },
        bytes);
    return 0;
}();

}  // namespace
