// ColorManagement on the 24-megapixel photograph, ProPhoto to sRGB at 16 bits, beside one
// cmsDoTransform over the whole interleaved buffer on the calling thread ("lcms"), with the
// same transform. The planar member works in place, so each run converts the last one's
// result: Little CMS's interpolation costs the same whatever the values.
#include <lcms2.h>

#include <memory>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "bench/support/bench.h"
#include "kestrix1/image/color_management.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

// The ProPhoto to sRGB transform, shared by every case and never freed.
cmsHTRANSFORM proPhotoToSrgb() {
    static cmsHTRANSFORM const t = [] {
        cmsCIExyY const d50 = {0.3457, 0.3585, 1.0};
        cmsCIExyYTRIPLE const primaries = {
            {0.7347, 0.2653, 1.0}, {0.1596, 0.8404, 1.0}, {0.0366, 0.0001, 1.0}};
        cmsToneCurve *gamma = cmsBuildGamma(nullptr, 1.8);
        cmsToneCurve *curves[3] = {gamma, gamma, gamma};
        cmsHPROFILE pro = cmsCreateRGBProfile(&d50, &primaries, curves);
        cmsHPROFILE srgb = cmsCreate_sRGBProfile();
        cmsHTRANSFORM made = cmsCreateTransform(pro, TYPE_RGB_16, srgb, TYPE_RGB_16,
                                                INTENT_PERCEPTUAL, cmsFLAGS_NOCACHE);
        cmsCloseProfile(pro);
        cmsCloseProfile(srgb);
        cmsFreeToneCurve(gamma);
        return made;
    }();
    return t;
}

// The photograph as interleaved 16-bit R, G, B (bytes x 257), and an output of its size.
struct Interleaved {
    cv::Mat in, out;
};

std::shared_ptr<Interleaved> interleaved() {
    auto b = std::make_shared<Interleaved>();
    cv::Mat rgb;
    cv::cvtColor(inputs().bgr8, rgb, cv::COLOR_BGR2RGB);
    rgb.convertTo(b->in, CV_16U, 257.0);
    b->out.create(b->in.size(), b->in.type());
    return b;
}

Op lcmsOnce() {
    auto b = interleaved();
    return [b] {
        cmsDoTransform(proPhotoToSrgb(), b->in.data, b->out.data, cmsUInt32Number(b->in.total()));
    };
}

int const registered = [] {
    std::int64_t const bytes = std::int64_t(inputs().bgr8.total()) * 12;

    add(
        "convert", "kestrix1",
        [] {
            auto b = interleaved();
            auto cm = std::make_shared<ColorManagement>();
            cm->setTransform(proPhotoToSrgb());
            return Op([b, cm] {
                cm->convert(b->in.data, b->out.data, int(b->in.step), b->in.cols, b->in.rows);
            });
        },
        bytes);
    add("convert", "lcms", lcmsOnce, bytes);

    add(
        "convertProPhotoToDeviceOrSRGB", "kestrix1",
        [] {
            auto planes = std::make_shared<std::vector<cv::Mat>>();
            cv::split(interleaved()->in, *planes);
            auto cm = std::make_shared<ColorManagement>();
            cm->setTransform(proPhotoToSrgb());
            return Op([planes, cm] {
                std::vector<cv::Mat> &p = *planes;
                unsigned short *rgb[3] = {p[0].ptr<unsigned short>(), p[1].ptr<unsigned short>(),
                                          p[2].ptr<unsigned short>()};
                cm->convertProPhotoToDeviceOrSRGB(rgb, 0, p[0].cols, p[0].rows);
            });
        },
        bytes);
    add("convertProPhotoToDeviceOrSRGB", "lcms", lcmsOnce, bytes);
    return 0;
}();

}  // namespace
