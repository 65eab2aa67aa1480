// Point kernels on the 24-megapixel planes, beside the copy floor of the same bytes and the
// OpenCV call where one does the same job.
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "bench/support/bench.h"
#include "kestrix1/kernels/px_point.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;
using kxbench::sizeOf;
using kxbench::stepOf;

// The copy floor for a plane: the same bytes read and written.
Op copyOf(cv::Mat const &in) {
    cv::Mat out(in.size(), in.type());
    return [in, out]() mutable { kxbench::copyPlane(in, out); };
}

int const registered = [] {
    cv::Mat const y = inputs().y16;
    std::int64_t const bytes16 = std::int64_t(y.total()) * 2 * 2;  // read + write

    // 16-bit table, as the tone tables apply it.
    add(
        "LutPalette16u16u", "kestrix1",
        [y] {
            auto table = std::make_shared<std::vector<std::uint16_t>>(65536);
            for (int i = 0; i < 65536; ++i)
                (*table)[i] = std::uint16_t(65535 - i);
            cv::Mat out(y.size(), CV_16U);
            return Op([y, out, table]() mutable {
                pxLutPalette(y.ptr<std::uint16_t>(), stepOf(y), out.ptr<std::uint16_t>(),
                             stepOf(out), sizeOf(y), table->data(), 16);
            });
        },
        bytes16);
    add(
        "LutPalette16u16u", "copy", [y] { return copyOf(y); }, bytes16);

    // 8-bit table, as the mask contrast applies it.
    cv::Mat y8;
    y.convertTo(y8, CV_8U, 1.0 / 257.0);
    std::int64_t const bytes8 = std::int64_t(y8.total()) * 2;
    add(
        "LutPalette8u8u", "kestrix1",
        [y8] {
            auto table = std::make_shared<std::vector<std::uint8_t>>(256);
            for (int i = 0; i < 256; ++i)
                (*table)[i] = std::uint8_t(255 - i);
            cv::Mat out(y8.size(), CV_8U);
            return Op([y8, out, table]() mutable {
                pxLutPalette(y8.ptr<std::uint8_t>(), stepOf(y8), out.ptr<std::uint8_t>(),
                             stepOf(out), sizeOf(y8), table->data(), 8);
            });
        },
        bytes8);
    add(
        "LutPalette8u8u", "copy", [y8] { return copyOf(y8); }, bytes8);

    // Piecewise-linear table with 1026 points.
    add(
        "LutLinear16u", "kestrix1",
        [y] {
            auto levels = std::make_shared<std::vector<int>>(1026);
            auto values = std::make_shared<std::vector<int>>(1026);
            for (int k = 0; k < 1026; ++k) {
                (*levels)[k] = k * 64;
                (*values)[k] = 65535 - k * 60;
            }
            cv::Mat out(y.size(), CV_16U);
            return Op([y, out, levels, values]() mutable {
                pxLutLinear(y.ptr<std::uint16_t>(), stepOf(y), out.ptr<std::uint16_t>(),
                            stepOf(out), sizeOf(y), values->data(), levels->data(), 1026);
            });
        },
        bytes16);
    add(
        "LutLinear16u", "copy", [y] { return copyOf(y); }, bytes16);

    // Colour matrix on interleaved signed 16-bit pixels, as the histogram rotations use it.
    cv::Mat rgb16s;
    inputs().bgr8.convertTo(rgb16s, CV_16SC3, 128.0, -16384.0);
    static float const twist[12] = {0.6f, 0.3f, 0.1f, 5.f,   -0.2f, 0.9f,
                                    0.3f, -4.f, 0.1f, -0.4f, 1.1f,  0.f};
    std::int64_t const bytesC3 = std::int64_t(rgb16s.total()) * 6 * 2;
    add(
        "ColorTwist16sC3", "kestrix1",
        [rgb16s] {
            cv::Mat out(rgb16s.size(), rgb16s.type());
            return Op([rgb16s, out]() mutable {
                pxColorTwist(rgb16s.ptr<std::int16_t>(), stepOf(rgb16s), out.ptr<std::int16_t>(),
                             stepOf(out), sizeOf(rgb16s), twist);
            });
        },
        bytesC3);
    add(
        "ColorTwist16sC3", "opencv",
        [rgb16s] {
            cv::Mat const m(3, 4, CV_32F, const_cast<float *>(twist));
            cv::Mat out(rgb16s.size(), rgb16s.type());
            return Op([rgb16s, m, out]() mutable { cv::transform(rgb16s, out, m); });
        },
        bytesC3);
    add(
        "ColorTwist16sC3", "copy", [rgb16s] { return copyOf(rgb16s); }, bytesC3);

    // In-place operations on an 8-bit mask plane.
    add(
        "XorC8u", "kestrix1",
        [y8] {
            cv::Mat m = y8.clone();
            return Op([m]() mutable { pxXorC(m.ptr<std::uint8_t>(), stepOf(m), sizeOf(m), 255); });
        },
        bytes8);
    add(
        "XorC8u", "copy", [y8] { return copyOf(y8); }, bytes8);
    add(
        "ThresholdLessGreater8u", "kestrix1",
        [y8] {
            cv::Mat out(y8.size(), CV_8U);
            return Op([y8, out]() mutable {
                pxThresholdLessGreater(y8.ptr<std::uint8_t>(), stepOf(y8), out.ptr<std::uint8_t>(),
                                       stepOf(out), sizeOf(y8), 40, 200);
            });
        },
        bytes8);
    add(
        "ThresholdLessGreater8u", "copy", [y8] { return copyOf(y8); }, bytes8);
    add(
        "MulCScale8u", "kestrix1",
        [y8] {
            cv::Mat m = y8.clone();
            return Op(
                [m]() mutable { pxMulCScale(m.ptr<std::uint8_t>(), stepOf(m), sizeOf(m), 33, 5); });
        },
        bytes8);
    add(
        "MulCScale8u", "copy", [y8] { return copyOf(y8); }, bytes8);

    // Fill: writes only.
    std::int64_t const fill = std::int64_t(y.total()) * 2;
    add(
        "Set16u", "kestrix1",
        [y] {
            cv::Mat m(y.size(), CV_16U);
            return Op(
                [m]() mutable { pxSet(m.ptr<std::uint16_t>(), stepOf(m), sizeOf(m), 32768); });
        },
        fill);
    add(
        "Set16u", "opencv",
        [y] {
            cv::Mat m(y.size(), CV_16U);
            return Op([m]() mutable { m.setTo(cv::Scalar(32768)); });
        },
        fill);
    return 0;
}();

}  // namespace
