// Float arithmetic kernels on the 24-megapixel plane, beside OpenCV's element-wise
// operations and the copy floor.
#include <opencv2/core.hpp>

#include "bench/support/bench.h"
#include "kestrix1/kernels/px_arith.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;
using kxbench::sizeOf;
using kxbench::stepOf;

int const registered = [] {
    cv::Mat const a = inputs().y32f;
    cv::Mat const b = a * 0.5f + 0.25f;
    std::int64_t const bytes3 = std::int64_t(a.total()) * 4 * 3;  // two reads, one write
    std::int64_t const bytes2 = std::int64_t(a.total()) * 4 * 2;

    add(
        "Mul32f", "kestrix1",
        [a, b] {
            cv::Mat d(a.size(), CV_32F);
            return Op([a, b, d]() mutable {
                pxMul(a.ptr<float>(), stepOf(a), b.ptr<float>(), stepOf(b), d.ptr<float>(),
                      stepOf(d), sizeOf(a));
            });
        },
        bytes3);
    add(
        "Mul32f", "opencv",
        [a, b] {
            cv::Mat d(a.size(), CV_32F);
            return Op([a, b, d]() mutable { cv::multiply(a, b, d); });
        },
        bytes3);
    add(
        "Div32f", "kestrix1",
        [a, b] {
            cv::Mat d(a.size(), CV_32F);
            return Op([a, b, d]() mutable {
                pxDiv(b.ptr<float>(), stepOf(b), a.ptr<float>(), stepOf(a), d.ptr<float>(),
                      stepOf(d), sizeOf(a));
            });
        },
        bytes3);
    add(
        "Div32f", "opencv",
        [a, b] {
            cv::Mat d(a.size(), CV_32F);
            return Op([a, b, d]() mutable { cv::divide(a, b, d); });
        },
        bytes3);
    add(
        "Sub32fInPlace", "kestrix1",
        [a, b] {
            cv::Mat d = b.clone();
            return Op([a, d]() mutable {
                pxSub(a.ptr<float>(), stepOf(a), d.ptr<float>(), stepOf(d), sizeOf(a));
            });
        },
        bytes3);
    add(
        "Sub32fInPlace", "opencv",
        [a, b] {
            cv::Mat d = b.clone();
            return Op([a, d]() mutable { cv::subtract(d, a, d); });
        },
        bytes3);
    add(
        "Sqr32f", "kestrix1",
        [a] {
            cv::Mat d(a.size(), CV_32F);
            return Op([a, d]() mutable {
                pxSqr(a.ptr<float>(), stepOf(a), d.ptr<float>(), stepOf(d), sizeOf(a));
            });
        },
        bytes2);
    add(
        "Sqr32f", "copy",
        [a] {
            cv::Mat d(a.size(), CV_32F);
            return Op([a, d]() mutable { kxbench::copyPlane(a, d); });
        },
        bytes2);
    add(
        "AddC32fInPlace", "kestrix1",
        [a] {
            cv::Mat d = a.clone();
            return Op([d]() mutable { pxAddC(d.ptr<float>(), stepOf(d), sizeOf(d), 1e-4f); });
        },
        bytes2);
    add(
        "AddC32fInPlace", "copy",
        [a] {
            cv::Mat d(a.size(), CV_32F);
            return Op([a, d]() mutable { kxbench::copyPlane(a, d); });
        },
        bytes2);

    // A million 3x3 inverses, as the colour-guided filter takes one per pixel.
    add(
        "Invert3x3x1M", "kestrix1",
        [] {
            return Op([]() mutable {
                float m[9] = {2.f, 0.1f, 0.2f, 0.1f, 3.f, 0.3f, 0.2f, 0.3f, 4.f}, inv[9], buf[9];
                for (int i = 0; i < 1000000; ++i) {
                    m[0] = 2.f + i * 1e-7f;
                    pxInvert3x3(m, 12, 4, buf, inv, 12, 4);
                    benchmark::DoNotOptimize(inv);
                }
            });
        },
        1000000 * 72);
    add(
        "Invert3x3x1M", "opencv",
        [] {
            return Op([]() mutable {
                cv::Matx33f m(2.f, 0.1f, 0.2f, 0.1f, 3.f, 0.3f, 0.2f, 0.3f, 4.f);
                for (int i = 0; i < 1000000; ++i) {
                    m(0, 0) = 2.f + i * 1e-7f;
                    cv::Matx33f inv = m.inv(cv::DECOMP_LU);
                    benchmark::DoNotOptimize(inv);
                }
            });
        },
        1000000 * 72);
    return 0;
}();

}  // namespace
