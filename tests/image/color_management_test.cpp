// ColorManagement against Little CMS itself: the planar members equal one cmsDoTransform over
// the interleaved rows with the 15-bit shift and mask, `convert` equals one call over the
// whole buffer, at awkward sizes, padded strides and 1, 2 and 4 threads.
#include "kestrix1/image/color_management.h"

#include <gtest/gtest.h>
#include <lcms2.h>
#include <omp.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "tests/support/images.h"

namespace {

using Transform = std::unique_ptr<void, void (*)(cmsHTRANSFORM)>;
using Profile = std::unique_ptr<void, cmsBool (*)(cmsHPROFILE)>;

Profile proPhoto() {
    cmsCIExyY const white = {0.3457, 0.3585, 1.0};  // D50
    cmsCIExyYTRIPLE const primaries = {
        {0.7347, 0.2653, 1.0}, {0.1596, 0.8404, 1.0}, {0.0366, 0.0001, 1.0}};
    cmsToneCurve *gamma = cmsBuildGamma(nullptr, 1.8);
    cmsToneCurve *curves[3] = {gamma, gamma, gamma};
    Profile p(cmsCreateRGBProfile(&white, &primaries, curves), cmsCloseProfile);
    cmsFreeToneCurve(gamma);
    return p;
}

Transform transform(cmsUInt32Number in, cmsUInt32Number out, cmsUInt32Number flags = 0) {
    Profile srgb(cmsCreate_sRGBProfile(), cmsCloseProfile), pro = proPhoto();
    return Transform(cmsCreateTransform(srgb.get(), in, pro.get(), out, INTENT_PERCEPTUAL,
                                        flags | cmsFLAGS_NOCACHE),
                     cmsDeleteTransform);
}

// Three padded planes R, G, B of one row step, filled with noise over the whole range.
struct Planes {
    std::vector<kxtest::PaddedMat> mats;
    unsigned short *ptr[3];
    Planes(int rows, int cols, int extra, std::uint64_t seed) {
        for (int c = 0; c < 3; ++c) {
            mats.emplace_back(rows, cols, CV_16UC1, extra);
            kxtest::fullRangeNoise<unsigned short>(rows, cols, 1, seed + c).copyTo(mats[c].view);
        }
        for (int c = 0; c < 3; ++c)
            ptr[c] = mats[c].ptr<unsigned short>();
    }
    int step(int extra) const { return extra == 0 ? 0 : mats[0].step(); }
    cv::Mat interleaved() const {
        cv::Mat rgb;
        cv::merge(std::vector<cv::Mat>{mats[0].view, mats[1].view, mats[2].view}, rgb);
        return rgb;
    }
};

// The planar members' results built plainly: the whole image interleaved, masked and doubled
// on the way in (to ProPhoto), one cmsDoTransform, halved on the way out (from ProPhoto).
cv::Mat reference(cmsHTRANSFORM t, cv::Mat rgb, bool toProPhoto) {
    if (toProPhoto) {
        cv::bitwise_and(rgb, cv::Scalar::all(32767), rgb);
        rgb.convertTo(rgb, CV_16U, 2.0);
    }
    cmsDoTransform(t, rgb.data, rgb.data, cmsUInt32Number(rgb.total()));
    if (!toProPhoto)
        for (auto it = rgb.begin<cv::Vec3w>(); it != rgb.end<cv::Vec3w>(); ++it)
            for (int c = 0; c < 3; ++c)
                (*it)[c] >>= 1;
    return rgb;
}

void run(ColorManagement &cm, Planes &p, int stride, bool toProPhoto) {
    int const w = p.mats[0].view.cols, h = p.mats[0].view.rows;
    if (toProPhoto)
        cm.convertDeviceOrSRGBToProPhoto(p.ptr, stride, w, h);
    else
        cm.convertProPhotoToDeviceOrSRGB(p.ptr, stride, w, h);
}

// A null transform copies, so the members do the shift and the mask alone: every 16-bit value
// v gives v >> 1, and (v & 32767) * 2 the other way (32767 to 65534, 32768 to 0).
TEST(ColorManagement, IdentityTransformShiftsAndMasks) {
    Transform const t = transform(TYPE_RGB_16, TYPE_RGB_16, cmsFLAGS_NULLTRANSFORM);
    ColorManagement cm;
    cm.setTransform(t.get());
    unsigned short const edges[] = {65535, 32767, 32768, 0, 1};
    unsigned short const want[2][5] = {{32767, 16383, 16384, 0, 0}, {65534, 65534, 0, 0, 2}};
    for (bool toProPhoto : {false, true}) {
        // Every 16-bit value in each plane, the edges first in G.
        Planes p(256, 257, 6, 0);
        for (int c = 0; c < 3; ++c)
            for (int i = 0; i < 256 * 257; ++i)
                p.mats[c].view.at<unsigned short>(i / 257, i % 257) = (i + 1000 * c) & 65535;
        std::copy(std::begin(edges), std::end(edges), p.ptr[1]);
        cv::Mat const before = p.interleaved();
        run(cm, p, p.step(6), toProPhoto);
        cv::Mat got = p.interleaved();
        for (std::size_t i = 0; i < before.total() * 3; ++i) {
            unsigned const v = before.ptr<unsigned short>()[i];
            unsigned const expected = toProPhoto ? (v & 32767) * 2 : v >> 1;
            ASSERT_EQ(got.ptr<unsigned short>()[i], expected) << v << " " << toProPhoto;
        }
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(p.ptr[1][i], want[toProPhoto][i]) << edges[i];
        for (auto const &m : p.mats)
            EXPECT_TRUE(m.paddingIntact());
    }
}

// sRGB to ProPhoto: the planar members equal the plain reference at any thread count, size
// and stride; empty sizes leave the planes alone.
TEST(ColorManagement, PlanarMembersEqualOneTransformOverInterleavedRows) {
    Transform const t = transform(TYPE_RGB_16, TYPE_RGB_16);
    ColorManagement cm;
    cm.setTransform(t.get());
    struct Size {
        int rows, cols, extra;
    } const sizes[] = {{1, 1, 0}, {5, 7, 2}, {33, 33, 0}, {3, 4099, 10}, {123, 161, 6}};
    for (int threads : {1, 2, 4}) {
        omp_set_num_threads(threads);
        for (Size s : sizes)
            for (bool toProPhoto : {false, true}) {
                Planes p(s.rows, s.cols, s.extra, std::uint64_t(s.cols));
                cv::Mat const want = reference(t.get(), p.interleaved(), toProPhoto);
                run(cm, p, p.step(s.extra), toProPhoto);
                EXPECT_EQ(cv::norm(p.interleaved(), want, cv::NORM_INF), 0.0)
                    << threads << " threads, " << s.cols << " x " << s.rows;
                for (auto const &m : p.mats)
                    EXPECT_TRUE(m.paddingIntact());
            }
    }
    omp_set_num_threads(omp_get_num_procs());

    Planes p(4, 9, 0, 3);
    cv::Mat const before = p.interleaved();
    cm.convertProPhotoToDeviceOrSRGB(p.ptr, 0, 9, 0);
    cm.convertDeviceOrSRGBToProPhoto(p.ptr, 0, 0, 4);
    EXPECT_EQ(cv::norm(p.interleaved(), before, cv::NORM_INF), 0.0);
}

// convert: contiguous rows of each format's own pixel size (8-bit in, 16-bit out), and one
// padded stride for both buffers, equal one call over the whole buffer.
TEST(ColorManagement, ConvertEqualsOneTransformOverTheBuffer) {
    cv::Mat const rgb8 = kxtest::noise(37, 41, CV_8UC3, 11, 0, 256);
    Transform const t8 = transform(TYPE_RGB_8, TYPE_RGB_16);
    cv::Mat want(rgb8.size(), CV_16UC3), got(rgb8.size(), CV_16UC3, cv::Scalar::all(1));
    cmsDoTransform(t8.get(), rgb8.data, want.data, cmsUInt32Number(rgb8.total()));
    ColorManagement cm;
    cm.setTransform(t8.get());
    cm.convert(rgb8.data, got.data, 0, rgb8.cols, rgb8.rows);
    EXPECT_EQ(cv::norm(got, want, cv::NORM_INF), 0.0);

    Transform const t16 = transform(TYPE_RGB_16, TYPE_RGB_16);
    cm.setTransform(t16.get());
    for (int threads : {1, 2, 4}) {
        omp_set_num_threads(threads);
        kxtest::PaddedMat in(29, 1001, CV_16UC3, 14), out(29, 1001, CV_16UC3, 14);
        kxtest::fullRangeNoise<unsigned short>(29, 1001, 3, 5).copyTo(in.view);
        cv::Mat whole = in.view.clone();
        cmsDoTransform(t16.get(), whole.data, whole.data, cmsUInt32Number(whole.total()));
        cm.convert(in.ptr<unsigned char>(), out.ptr<unsigned char>(), in.step(), 1001, 29);
        EXPECT_EQ(cv::norm(out.view, whole, cv::NORM_INF), 0.0) << threads;
        EXPECT_TRUE(out.paddingIntact());
        cm.convert(in.ptr<unsigned char>(), out.ptr<unsigned char>(), in.step(), 1001, 0);
    }
    omp_set_num_threads(omp_get_num_procs());
}

}  // namespace
