// The Y and chroma tables on the 24-megapixel inputs: applying the Y table beside a plain
// copy of the plane, building the tables from a mapping of realistic cost, and the YCM
// conversion of a packed image beside a copy of the same bytes.
#include <cmath>
#include <memory>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "bench/support/bench.h"
#include "kestrix1/image/t_image.h"
#include "kestrix1/tables/t_lut_y.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

// A tone curve with a colour-dependent gain: a few transcendental calls per sample.
float curve(float y, float dr, float db) {
    float const n = y / 65535.0f;
    return 65535.0f * std::pow(n, 0.8f) * (1.0f + 0.05f * std::tanh(dr - db));
}

struct ToneY16 : TLutY16U {
    void mapYDrDb(unsigned short &Y, unsigned short &Dr, unsigned short &Db) override {
        float const v = curve(Y, (Dr - 32768) / 32768.0f, (Db - 32768) / 32768.0f);
        Y = cv::saturate_cast<unsigned short>(v);
    }
    using TLutY16U::applyYLUT;
    using TLutY16U::computeLUT16U;
};

struct ToneYDrDb : TLutYDrDb {
    ToneYDrDb() : TLutYDrDb(4) {}
    void mapYDrDb(unsigned short &Y, unsigned char &Dr, unsigned char &Db) override {
        float const v = curve(Y, (Dr - 128) / 128.0f, (Db - 128) / 128.0f);
        Y = cv::saturate_cast<unsigned short>(v);
        Dr = cv::saturate_cast<unsigned char>(128 + (Dr - 128) * 1.2f);
        Db = cv::saturate_cast<unsigned char>(128 + (Db - 128) * 0.9f);
    }
    using TLutYDrDb::computeLUT;
};

int const registered = [] {
    cv::Mat const y = inputs().y16;
    std::int64_t const planeBytes = std::int64_t(y.total()) * 2 * 2;
    add(
        "ApplyYTable", "kestrix1",
        [y] {
            auto lut = std::make_shared<ToneY16>();
            lut->computeLUT16U(true);
            cv::Mat out(y.size(), CV_16UC1);
            return Op([lut, y, out]() mutable { lut->applyYLUT(y, out); });
        },
        planeBytes);
    add(
        "ApplyYTable", "copy",
        [y] {
            cv::Mat out(y.size(), CV_16UC1);
            return Op([y, out]() mutable { kxbench::copyPlane(y, out); });
        },
        planeBytes);

    add(
        "BuildYTable", "kestrix1",
        [] {
            auto lut = std::make_shared<ToneY16>();
            return Op([lut] { lut->computeLUT16U(true); });
        },
        65536 * 2);
    add(
        "BuildYAndChromaTables16", "kestrix1",
        [] {
            auto lut = std::make_shared<ToneYDrDb>();
            return Op([lut] { lut->computeLUT(); });
        },
        17 * 65536 * 2);

    // The packed host image: the standard photograph with an opaque alpha.
    cv::Mat rgba;
    cv::cvtColor(inputs().bgr8, rgba, cv::COLOR_BGR2RGBA);
    std::int64_t const rgbaBytes = std::int64_t(rgba.total()) * 4;
    add(
        "RgbaToYCM", "kestrix1",
        [rgba] {
            auto in = std::make_shared<TImage>(TSize(rgba.cols, rgba.rows),
                                               const_cast<unsigned char *>(rgba.data),
                                               int(rgba.step), false);
            auto planes = std::make_shared<std::vector<TImage>>(3);
            return Op([in, planes] {
                std::vector<TImage> &p = *planes;
                TImage::rgba8uToYCM(*in, p[0], p[1], p[2]);
            });
        },
        rgbaBytes + rgbaBytes / 2 + rgbaBytes / 8 + rgbaBytes / 16);
    add(
        "RgbaToYCM", "copy",
        [rgba] {
            cv::Mat out(rgba.size(), rgba.type());
            return Op([rgba, out]() mutable { kxbench::copyPlane(rgba, out); });
        },
        rgbaBytes * 2);
    // And back into a host buffer of the same size.
    add(
        "YCMToBgra", "kestrix1",
        [rgba] {
            auto planes = std::make_shared<std::vector<TImage>>(3);
            std::vector<TImage> &p = *planes;
            TImage const in(TSize(rgba.cols, rgba.rows), const_cast<unsigned char *>(rgba.data),
                            int(rgba.step), false);
            TImage::rgba8uToYCM(in, p[0], p[1], p[2]);
            cv::Mat out(rgba.size(), CV_8UC4);
            return Op([planes, out]() mutable {
                std::vector<TImage> &q = *planes;
                TImage::timageToBgra8u(q[0], q[1], q[2], out.data, int(out.step));
            });
        },
        rgbaBytes + rgbaBytes / 2 + rgbaBytes / 8 + rgbaBytes / 16);
    add(
        "YCMToBgra", "copy",
        [rgba] {
            cv::Mat out(rgba.size(), rgba.type());
            return Op([rgba, out]() mutable { kxbench::copyPlane(rgba, out); });
        },
        rgbaBytes * 2);
    return 0;
}();

}  // namespace
