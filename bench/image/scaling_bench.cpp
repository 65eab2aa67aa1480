// Scaling functions on the 24-megapixel planes: cubic enlargement of a half-size chroma
// plane and cubic reduction of luminance beside cv::resize on the same sizes, and the
// nearest-in-guide enlargement beside a plain copy of its output, the bandwidth floor.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench/support/bench.h"
#include "kestrix1/image/scaling.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

constexpr int kCubic = 4;

// One resize case: `ours` writes out from in, opencv's cv::resize the same sizes.
void resizeCase(std::string const &name, cv::Mat const &in, cv::Size outSize,
                void (*ours)(cv::Mat const &, cv::Mat &, int)) {
    std::int64_t const bytes = std::int64_t(in.total() + outSize.area()) * 2;
    add(
        name, "kestrix1",
        [in, outSize, ours] {
            cv::Mat out(outSize, in.type());
            return Op([in, out, ours]() mutable { ours(in, out, kCubic); });
        },
        bytes);
    add(
        name, "opencv",
        [in, outSize] {
            cv::Mat out(outSize, in.type());
            return Op([in, out, outSize]() mutable {
                cv::resize(in, out, outSize, 0, 0, cv::INTER_CUBIC);
            });
        },
        bytes);
}

int const registered = [] {
    cv::Mat const y = inputs().y16;
    cv::Mat const dr = inputs().dr16;
    resizeCase("UpSize2XCubic16u", dr, y.size(), upSize2X);
    resizeCase("DownSize2XCubic16u", y, dr.size(), downSize2X);

    std::int64_t const bytes = std::int64_t(y.total()) * 4 + std::int64_t(dr.total()) * 2;
    add(
        "UpSize2XGuidedByYSimple16u", "kestrix1",
        [y, dr] {
            cv::Mat out(y.size(), CV_16U);
            return Op([y, dr, out]() mutable { upSize2XGuidedByYSimple(y, dr, out); });
        },
        bytes);
    add(
        "UpSize2XGuidedByYSimple16u", "copy",
        [y] {
            cv::Mat out(y.size(), CV_16U);
            return Op([y, out]() mutable { kxbench::copyPlane(y, out); });
        },
        bytes);
    return 0;
}();

}  // namespace
