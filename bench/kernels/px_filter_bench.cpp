// Neighbourhood kernels on the standard planes, beside the OpenCV filter doing the same job.
// Both sides read an input that already has its border, as the library's callers provide.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench/support/bench.h"
#include "kestrix1/kernels/px_filter.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;
using kxbench::sizeOf;
using kxbench::stepOf;

// The plane with a replicated border of r pixels.
cv::Mat padded(cv::Mat const &m, int r) {
    cv::Mat p;
    cv::copyMakeBorder(m, p, r, r, r, r, cv::BORDER_REPLICATE);
    return p;
}

template <class T>
void boxCase(std::string const &name, cv::Mat const &plane, int r) {
    cv::Mat const p = padded(plane, r);
    cv::Size const size = plane.size();
    std::int64_t const bytes = std::int64_t(plane.total()) * plane.elemSize() * 2;
    add(
        name, "kestrix1",
        [p, size, r] {
            cv::Mat out(size, p.type());
            return Op([p, out, size, r]() mutable {
                pxFilterBox(p.ptr<T>(r) + r, stepOf(p), out.ptr<T>(), stepOf(out),
                            IppiSize{size.width, size.height}, IppiSize{2 * r + 1, 2 * r + 1},
                            IppiPoint{r, r});
            });
        },
        bytes);
    add(
        name, "opencv",
        [p, size, r] {
            cv::Mat const inner = p(cv::Rect(r, r, size.width, size.height));
            cv::Mat out(size, p.type());
            return Op([inner, out, r]() mutable {
                cv::boxFilter(inner, out, -1, cv::Size(2 * r + 1, 2 * r + 1), cv::Point(-1, -1),
                              true, cv::BORDER_REPLICATE);
            });
        },
        bytes);
}

int const registered = [] {
    cv::Mat const yf = inputs().y32f;
    cv::Mat const y = inputs().y16;
    boxCase<float>("FilterBox32f_r4", yf, 4);
    boxCase<float>("FilterBox32f_r16", yf, 16);
    boxCase<std::uint16_t>("FilterBox16u_r4", y, 4);

    cv::Mat y8;
    y.convertTo(y8, CV_8U, 1.0 / 257.0);
    cv::Mat const p8 = padded(y8, 2);
    std::int64_t const bytes8 = std::int64_t(y8.total()) * 2;
    add(
        "FilterGauss5x5_8u", "kestrix1",
        [p8, y8] {
            cv::Mat out(y8.size(), CV_8U);
            return Op([p8, out]() mutable {
                pxFilterGauss5x5(p8.ptr<std::uint8_t>(2) + 2, stepOf(p8), out.ptr<std::uint8_t>(),
                                 stepOf(out), IppiSize{out.cols, out.rows});
            });
        },
        bytes8);
    add(
        "FilterGauss5x5_8u", "opencv",
        [p8, y8] {
            cv::Mat const inner = p8(cv::Rect(2, 2, y8.cols, y8.rows));
            cv::Mat out(y8.size(), CV_8U);
            return Op([inner, out]() mutable {
                cv::GaussianBlur(inner, out, cv::Size(5, 5), 0, 0, cv::BORDER_REPLICATE);
            });
        },
        bytes8);

    cv::Mat const p16 = padded(y, 1);
    std::int64_t const bytes16 = std::int64_t(y.total()) * 2 * 2;
    add(
        "Min3x3_16u", "kestrix1",
        [p16] {
            cv::Mat work = p16.clone();
            return Op([work]() mutable {
                pxMin3x3(work.ptr<std::uint16_t>(1) + 1, stepOf(work),
                         IppiSize{work.cols - 2, work.rows - 2});
            });
        },
        bytes16);
    add(
        "Min3x3_16u", "opencv",
        [p16] {
            cv::Mat const inner = p16(cv::Rect(1, 1, p16.cols - 2, p16.rows - 2));
            cv::Mat out(inner.size(), CV_16U);
            return Op([inner, out]() mutable { cv::erode(inner, out, cv::Mat()); });
        },
        bytes16);

    cv::Mat const disc = cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(5, 5));
    add(
        "Dilate8u_disc5", "kestrix1",
        [p8, disc] {
            cv::Mat out(p8.rows - 4, p8.cols - 4, CV_8U);
            return Op([p8, disc, out]() mutable {
                pxDilate(p8.ptr<std::uint8_t>(2) + 2, stepOf(p8), out.ptr<std::uint8_t>(),
                         stepOf(out), IppiSize{out.cols, out.rows}, disc.ptr<std::uint8_t>(),
                         IppiSize{5, 5}, IppiPoint{2, 2});
            });
        },
        bytes8);
    add(
        "Dilate8u_disc5", "opencv",
        [p8, disc] {
            cv::Mat const inner = p8(cv::Rect(2, 2, p8.cols - 4, p8.rows - 4));
            cv::Mat out(inner.size(), CV_8U);
            return Op([inner, disc, out]() mutable { cv::dilate(inner, out, disc); });
        },
        bytes8);
    return 0;
}();

}  // namespace
