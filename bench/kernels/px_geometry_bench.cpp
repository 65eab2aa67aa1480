// Geometry kernels on the standard planes: resize beside cv::resize, border replication
// beside cv::copyMakeBorder, region copy beside cv::Mat::copyTo.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench/support/bench.h"
#include "kestrix1/kernels/px_geometry.h"
#include "kestrix1/kernels/px_memory.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;
using kxbench::sizeOf;
using kxbench::stepOf;

// A resize of a whole 16-bit plane into a whole plane, with its work buffer, as the
// scaling functions call it.
Op resizeOp(cv::Mat const &in, cv::Size outSize, double factor, int interpolation) {
    cv::Mat out(outSize, CV_16U);
    return [in, out, factor, interpolation]() mutable {
        IppiRect const src{0, 0, in.cols, in.rows}, dst{0, 0, out.cols, out.rows};
        int bytes = 0;
        pxResizeBufferSize(src, dst, 1, interpolation, &bytes);
        std::uint8_t *buffer = ippsMalloc_8u(bytes);
        pxResize(in.ptr<std::uint16_t>(), sizeOf(in), stepOf(in), src, out.ptr<std::uint16_t>(),
                 stepOf(out), dst, factor, factor, 0.0, 0.0, interpolation, buffer);
        pxFree(buffer);
    };
}

Op cvResizeOp(cv::Mat const &in, cv::Size outSize, int interpolation) {
    cv::Mat out(outSize, CV_16U);
    return [in, out, outSize, interpolation]() mutable {
        cv::resize(in, out, outSize, 0, 0, interpolation);
    };
}

int const registered = [] {
    cv::Mat const y = inputs().y16;
    cv::Mat const dr = inputs().dr16;

    // Half-size chroma to full size and back, cubic, as the scaling functions use it.
    std::int64_t const bytes = std::int64_t(dr.total()) * 2 + std::int64_t(y.total()) * 2;
    add(
        "Resize16uUp2Cubic", "kestrix1", [=] { return resizeOp(dr, y.size(), 2.0, pxInterCubic); },
        bytes);
    add(
        "Resize16uUp2Cubic", "opencv", [=] { return cvResizeOp(dr, y.size(), cv::INTER_CUBIC); },
        bytes);
    add(
        "Resize16uDown2Cubic", "kestrix1",
        [=] { return resizeOp(y, dr.size(), 0.5, pxInterCubic); }, bytes);
    add(
        "Resize16uDown2Cubic", "opencv", [=] { return cvResizeOp(y, dr.size(), cv::INTER_CUBIC); },
        bytes);
    // A factor that cv::resize cannot express exactly for this size: the general path.
    cv::Size const odd(int(dr.cols * 1.7), int(dr.rows * 1.7));
    std::int64_t const oddBytes = std::int64_t(dr.total()) * 2 + std::int64_t(odd.area()) * 2;
    add(
        "Resize16uBy1.7Linear", "kestrix1", [=] { return resizeOp(dr, odd, 1.7, pxInterLinear); },
        oddBytes);
    add(
        "Resize16uBy1.7Linear", "opencv", [=] { return cvResizeOp(dr, odd, cv::INTER_LINEAR); },
        oddBytes);

    // Padding a float plane by 16 pixels, as the guided filter pads its inputs.
    cv::Mat const yf = inputs().y32f;
    std::int64_t const pad = std::int64_t(yf.total()) * 4 * 2;
    add(
        "CopyReplicateBorder32f", "kestrix1",
        [yf] {
            cv::Mat out(yf.rows + 32, yf.cols + 32, CV_32F);
            return Op([yf, out]() mutable {
                pxCopyReplicateBorder(yf.ptr<float>(), stepOf(yf), sizeOf(yf), out.ptr<float>(),
                                      stepOf(out), sizeOf(out), 16, 16);
            });
        },
        pad);
    add(
        "CopyReplicateBorder32f", "opencv",
        [yf] {
            cv::Mat out(yf.rows + 32, yf.cols + 32, CV_32F);
            return Op([yf, out]() mutable {
                cv::copyMakeBorder(yf, out, 16, 16, 16, 16, cv::BORDER_REPLICATE);
            });
        },
        pad);

    std::int64_t const copy = std::int64_t(y.total()) * 2 * 2;
    add(
        "Copy16u", "kestrix1",
        [y] {
            cv::Mat out(y.size(), CV_16U);
            return Op([y, out]() mutable {
                pxCopy(y.ptr<std::uint16_t>(), stepOf(y), out.ptr<std::uint16_t>(), stepOf(out),
                       sizeOf(y));
            });
        },
        copy);
    add(
        "Copy16u", "opencv",
        [y] {
            cv::Mat out(y.size(), CV_16U);
            return Op([y, out]() mutable { y.copyTo(out); });
        },
        copy);
    return 0;
}();

}  // namespace
