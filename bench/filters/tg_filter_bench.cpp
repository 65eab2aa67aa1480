// TGFilter estimate and apply on the 24-megapixel planes, beside OpenCV contrib's guided
// filter with the same radius and eps on the same float inputs.
#include <opencv2/core.hpp>
#include <opencv2/ximgproc.hpp>
#include <vector>

#include "bench/support/bench.h"
#include "kestrix1/filters/tg_filter.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

constexpr float kEps = 1e-3f;

// The filter of `target` along `guides`: setup then proc, one object reused as a host
// reuses it between slider changes.
void guidedCase(std::string const &name, std::vector<cv::Mat> const &guides, cv::Mat const &target,
                int r) {
    std::int64_t const bytes = std::int64_t(target.total()) * 4 * (guides.size() + 2);
    add(
        name, "kestrix1",
        [guides, target, r] {
            auto filter = std::make_shared<TGFilter>();
            cv::Mat out(target.size(), CV_32F);
            return Op([filter, guides, target, out, r]() mutable {
                filter->setup(guides, target, r, kEps);
                filter->proc(guides, out);
            });
        },
        bytes);
    add(
        name, "opencv",
        [guides, target, r] {
            cv::Mat guide;
            cv::merge(guides, guide);
            cv::Mat out(target.size(), CV_32F);
            return Op([guide, target, out, r]() mutable {
                cv::ximgproc::guidedFilter(guide, target, out, r, kEps, -1);
            });
        },
        bytes);
}

int const registered = [] {
    cv::Mat const y = inputs().y32f;
    guidedCase("GuidedGray_r4", {y}, y, 4);
    guidedCase("GuidedGray_r16", {y}, y, 16);
    cv::Mat bgr;
    inputs().bgr8.convertTo(bgr, CV_32F, 1.0 / 255.0);
    std::vector<cv::Mat> planes;
    cv::split(bgr, planes);
    guidedCase("GuidedColour_r8", planes, y, 8);
    return 0;
}();

}  // namespace
