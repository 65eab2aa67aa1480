// Blending and the big box blur on the 24-megapixel luminance: blendAlpha under a mask beside
// cv::blendLinear with the same weights (which takes no 16-bit planes: it gets float copies of
// them, made beforehand and untimed like the weights), and tFilterBox with a radius of 200
// beside cv::boxFilter of the same box.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench/support/bench.h"
#include "kestrix1/image/blend.h"
#include "kestrix1/image/t_filter_box.h"
#include "kestrix1/image/t_image.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

constexpr float kOpacity = 0.8f;
constexpr int kRadius = 200;

int const registered = [] {
    cv::Mat const base = inputs().y16;
    cv::Mat top, mask;
    cv::subtract(cv::Scalar(65535), base, top);
    cv::resize(inputs().db16, mask, base.size(), 0, 0, cv::INTER_NEAREST);
    mask.convertTo(mask, CV_8U, 1.0 / 256);
    std::int64_t const bytes = std::int64_t(base.total()) * 7;

    add(
        "BlendAlphaMask16u", "kestrix1",
        [=] {
            cv::Mat out(base.size(), CV_16U);
            return Op([=]() mutable { blendAlpha(base, top, mask, out, kOpacity, 0); });
        },
        bytes);
    add(
        "BlendAlphaMask16u", "opencv",
        [=] {
            cv::Mat w1, w0, top32, base32, out(base.size(), CV_32F);
            mask.convertTo(w1, CV_32F, kOpacity / 255.0);
            cv::subtract(cv::Scalar(1.0), w1, w0);
            top.convertTo(top32, CV_32F);
            base.convertTo(base32, CV_32F);
            return Op([=]() mutable { cv::blendLinear(top32, base32, w1, w0, out); });
        },
        bytes);

    add(
        "TFilterBox16u_r200", "kestrix1",
        [=] {
            auto in = std::make_shared<TImage>(TImage::Y16U, TSize(base.cols, base.rows));
            in->fromMat(base);
            auto out = std::make_shared<TImage>(TImage::Y16U, TSize(base.cols, base.rows));
            return Op([in, out] { tFilterBox(in.get(), out.get(), kRadius, 1, nullptr); });
        },
        std::int64_t(base.total()) * 4);
    add(
        "TFilterBox16u_r200", "opencv",
        [=] {
            cv::Mat out(base.size(), CV_16U);
            return Op([=]() mutable {
                cv::boxFilter(base, out, -1, {2 * kRadius + 1, 2 * kRadius + 1}, {-1, -1}, true,
                              cv::BORDER_REFLECT_101);
            });
        },
        std::int64_t(base.total()) * 4);
    return 0;
}();

}  // namespace
