// Tests of TImage: ownership and sizes, plane crossings, and the YCM conversions against a
// plain per-pixel reference over awkward sizes.
#include "kestrix1/image/t_image.h"

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::thrown;
using u8 = std::uint8_t;
using u16 = std::uint16_t;

// An owned packed image holding a copy of a CV_8UC4 or CV_16UC4 plane.
TImage packed(cv::Mat const &m) {
    TImage im(m.depth() == CV_8U ? TImage::RGBA8U : TImage::RGBA16U, TSize(m.cols, m.rows));
    im.fromMat(m);
    return im;
}

// Four-channel noise over the type's range.
cv::Mat noise4(int rows, int cols, int depth, std::uint64_t seed) {
    double const hi = depth == CV_8U ? 256 : 65536;
    std::vector<cv::Mat> ch;
    for (int k = 0; k < 4; ++k)
        ch.push_back(kxtest::noise(rows, cols, CV_MAKETYPE(depth, 1), seed + k, 0, hi));
    cv::Mat out;
    cv::merge(ch, out);
    return out;
}

// YCM of 16-bit RGBA pixels by the formulas, one 2 x 2 block (or the pixels present) at a
// time.
struct YCMRef {
    cv::Mat Y, C0, C1, M;
};
int lumaRef(int r, int g, int b) {
    float const v = 0.299f * float(r) + 0.587f * float(g) + 0.114f * float(b);
    return int(std::min(65535.0f, std::nearbyint(v)));
}
YCMRef ycmRef(cv::Mat const &rgba16) {
    int const h = rgba16.rows, w = rgba16.cols, hh = (h + 1) / 2, hw = (w + 1) / 2;
    YCMRef ref{cv::Mat(h, w, CV_16UC1), cv::Mat(hh, hw, CV_8UC1), cv::Mat(hh, hw, CV_8UC1),
               cv::Mat(hh, hw, CV_8UC1)};
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            auto const p = rgba16.at<cv::Vec4w>(y, x);
            ref.Y.at<u16>(y, x) = u16(lumaRef(p[0], p[1], p[2]));
        }
    for (int by = 0; by < hh; ++by)
        for (int bx = 0; bx < hw; ++bx) {
            long sr = 0, sb = 0, sy = 0, sa = 0, n = 0;
            for (int y = 2 * by; y < std::min(h, 2 * by + 2); ++y)
                for (int x = 2 * bx; x < std::min(w, 2 * bx + 2); ++x) {
                    auto const p = rgba16.at<cv::Vec4w>(y, x);
                    sr += p[0];
                    sb += p[2];
                    sa += p[3];
                    sy += ref.Y.at<u16>(y, x);
                    ++n;
                }
            auto clamp8 = [](long v) { return u8(std::max(0L, std::min(255L, v))); };
            ref.C0.at<u8>(by, bx) = clamp8((sr - sy) / (512 * n) + 128);
            ref.C1.at<u8>(by, bx) = clamp8((sb - sy) / (512 * n) + 128);
            ref.M.at<u8>(by, bx) = u8(sa / (256 * n));
        }
    return ref;
}

void expectSame(cv::Mat const &a, cv::Mat const &b, std::string const &what) {
    ASSERT_EQ(a.size(), b.size()) << what;
    ASSERT_EQ(a.type(), b.type()) << what;
    EXPECT_EQ(cv::norm(a, b, cv::NORM_INF), 0.0) << what;
}

// A uniform YCM picture.
struct Uniform {
    TImage Y{TImage::Y16U}, C{TImage::C8U2}, M{TImage::M8U};
    Uniform(TSize size, u16 y, u8 c0, u8 c1, u8 m) {
        TSize const half = TImage::dec2Size(size);
        Y.resize(size);
        C.resize(half);
        M.resize(half);
        Y.toMat().setTo(y);
        C.toMat(0).setTo(c0);
        C.toMat(1).setTo(c1);
        M.toMat().setTo(m);
    }
};

TEST(TImage, TypesSizesAndSteps) {
    struct Row {
        TImage::IMTYPE type;
        int pstep, cvType;
    } const rows[] = {{TImage::Y16U, 2, CV_16UC1},
                      {TImage::C8U2, 1, CV_8UC1},
                      {TImage::M8U, 1, CV_8UC1},
                      {TImage::RGBA8U, 4, CV_8UC4},
                      {TImage::RGBA16U, 8, CV_16UC4}};
    for (Row const &r : rows) {
        TImage im(r.type, TSize(7, 5));
        EXPECT_EQ(im.pstep(), r.pstep);
        EXPECT_GE(im.step(), 7 * r.pstep);
        cv::Mat const m = im.toMat();
        EXPECT_EQ(m.type(), r.cvType);
        EXPECT_EQ(m.size(), cv::Size(7, 5));
        EXPECT_EQ(m.data, im.m_data[0]);
        EXPECT_EQ(im.dataPtr(3, 2), im.m_data[0] + 3 * im.step() + 2 * r.pstep);
    }
    TImage c(TImage::C8U2, TSize(3, 3));
    EXPECT_NE(c.m_data[1], nullptr);
    EXPECT_EQ(c.toMat(1).data, c.m_data[1]);

    EXPECT_EQ(TImage::dec2Size(TSize(5, 3)), TSize(3, 2));
    EXPECT_EQ(TImage::dec2Size(TSize(1, 1)), TSize(1, 1));
    EXPECT_EQ(TImage::dec2Size(TSize(4, 6)), TSize(2, 3));
    EXPECT_EQ(TImage::dec2Size(TSize(0, 0)), TSize(0, 0));
}

TEST(TImage, ResizeKeepsPlanesOnlyForTheSameSize) {
    TImage im(TImage::Y16U, TSize(9, 4));
    unsigned char *const p = im.m_data[0];
    int const stamp = im.updateRect().m_changeId;
    im.resize(TSize(9, 4));
    EXPECT_EQ(im.m_data[0], p);
    EXPECT_EQ(im.updateRect().m_changeId, stamp);

    im.resize(TSize(0, 4));
    EXPECT_TRUE(im.isEmpty());
    EXPECT_TRUE(im.toMat().empty());
    im.resize(TSize(3, 2));
    EXPECT_EQ(im.size(), TSize(3, 2));
    EXPECT_NE(im.m_data[0], nullptr);
}

TEST(TImage, CopiesAreDeepAndWrappedImagesAreLeftAlone) {
    TImage c(TImage::C8U2, TSize(5, 3));
    c.toMat(0).setTo(17);
    c.toMat(1).setTo(200);
    TImage copy(c);
    EXPECT_EQ(copy.m_type, TImage::C8U2);
    EXPECT_NE(copy.m_data[0], c.m_data[0]);
    expectSame(copy.toMat(0), c.toMat(0), "plane 0");
    expectSame(copy.toMat(1), c.toMat(1), "plane 1");

    // copyFrom takes the other's type.
    TImage y(TImage::Y16U, TSize(2, 2));
    y.copyFrom(c);
    EXPECT_EQ(y.m_type, TImage::C8U2);
    expectSame(y.toMat(1), c.toMat(1), "retyped");

    // A wrapped image keeps its buffer.
    std::vector<u8> host(4 * 4 * 2, 9);
    TImage view(TSize(4, 2), host.data(), 16, false);
    view.copyFrom(TImage(TImage::RGBA8U, TSize(1, 1)));
    view.free();
    EXPECT_EQ(view.size(), TSize(4, 2));
    EXPECT_EQ(view.m_data[0], host.data());
}

TEST(TImage, FromMatChecksSizeBeforeType) {
    TImage im(TImage::Y16U, TSize(6, 3));
    EXPECT_EQ(thrown([&] { im.fromMat(cv::Mat(3, 5, CV_8UC1)); }),
              "ERROR - TImage::copyFrom - size is not equal");
    EXPECT_EQ(thrown([&] { im.fromMat(cv::Mat(3, 6, CV_8UC1)); }),
              "ERROR - TImage::copyFrom - type not match");
    kxtest::PaddedMat src(3, 6, CV_16UC1);
    kxtest::ramp(3, 6, CV_16UC1).copyTo(src.view);
    im.fromMat(src.view);
    expectSame(im.toMat(), src.view, "16-bit");

    TImage c(TImage::C8U2, TSize(6, 3));
    cv::Mat const plane = kxtest::ramp(3, 6, CV_8UC1);
    c.fromMat(plane, 1);
    expectSame(c.toMat(1), plane, "second plane");
}

TEST(TImage, SwapRedAndBlue) {
    for (int depth : {CV_8U, CV_16U}) {
        cv::Mat const src = noise4(3, 5, depth, 7);
        TImage im = packed(src);
        im.swapC4RBCannel();
        std::vector<cv::Mat> a, b;
        cv::split(src, a);
        cv::split(im.toMat(), b);
        expectSame(b[0], a[2], "blue in front");
        expectSame(b[2], a[0], "red behind");
        expectSame(b[1], a[1], "green stays");
        expectSame(b[3], a[3], "alpha stays");
        im.swapC4RBCannel();
        expectSame(im.toMat(), src, "twice restores");
    }
    TImage y(TImage::Y16U, TSize(2, 2));
    EXPECT_EQ(thrown([&] { y.swapC4RBCannel(); }),
              "ERROR -  TImage::swapC4RBCannel() - wrong type");

    // Wrapping with swapRB swaps the host's pixels in place, not the bytes between rows.
    kxtest::PaddedMat host(2, 3, CV_16UC4);
    host.view.setTo(cv::Scalar(1, 2, 3, 4));
    TImage view(TSize(3, 2), host.ptr<unsigned short>(), host.step(), true);
    EXPECT_EQ(host.view.at<cv::Vec4w>(1, 2), cv::Vec4w(3, 2, 1, 4));
    EXPECT_TRUE(host.paddingIntact());
}

TEST(TImage, HalfY8UAveragesThePixelsPresent) {
    for (cv::Size s : {cv::Size(1, 1), cv::Size(5, 3), cv::Size(8, 1), cv::Size(33, 7)}) {
        TImage im(TImage::Y16U, TSize(s.width, s.height));
        im.fromMat(kxtest::noise(s.height, s.width, CV_16UC1, 3, 0, 65536));
        cv::Mat const half = im.halfY8U();
        ASSERT_EQ(half.size(), cv::Size((s.width + 1) / 2, (s.height + 1) / 2));
        for (int by = 0; by < half.rows; ++by)
            for (int bx = 0; bx < half.cols; ++bx) {
                long sum = 0, n = 0;
                for (int y = 2 * by; y < std::min(s.height, 2 * by + 2); ++y)
                    for (int x = 2 * bx; x < std::min(s.width, 2 * bx + 2); ++x, ++n)
                        sum += im.toMat().at<u16>(y, x);
                ASSERT_EQ(half.at<u8>(by, bx), sum / (256 * n)) << s << " at " << bx << "," << by;
            }
    }
    TImage c(TImage::C8U2, TSize(2, 2));
    EXPECT_EQ(thrown([&] { c.halfY8U(); }), "ERROR - TImage::halfY8U - wrong type");
}

TEST(TImage, Rgba16uToYCMMatchesTheFormulas) {
    for (cv::Size s :
         {cv::Size(1, 1), cv::Size(5, 3), cv::Size(2, 7), cv::Size(33, 10), cv::Size(301, 129)}) {
        cv::Mat const src = noise4(s.height, s.width, CV_16U, 11);
        TImage Y, C, M;  // default types; the conversion gives them theirs
        TImage::rgba16uToYCM(packed(src), Y, C, M);
        YCMRef const ref = ycmRef(src);
        expectSame(Y.toMat(), ref.Y, "Y");
        expectSame(C.toMat(0), ref.C0, "C0");
        expectSame(C.toMat(1), ref.C1, "C1");
        expectSame(M.toMat(), ref.M, "M");
    }
    // A uniform colour, by hand: Y = 0.299 40000 + 0.587 30000 + 0.114 20000 = 31850,
    // C0 = 4 (40000 - 31850) / 2048 + 128 = 143, C1 = -47400 / 2048 + 128 = 105.
    cv::Mat const flat(3, 3, CV_16UC4, cv::Scalar(40000, 30000, 20000, 51200));
    TImage Y, C, M;
    TImage::rgba16uToYCM(packed(flat), Y, C, M);
    EXPECT_EQ(Y.toMat().at<u16>(2, 2), 31850);
    EXPECT_EQ(C.toMat(0).at<u8>(1, 1), 143);
    EXPECT_EQ(C.toMat(1).at<u8>(1, 1), 105);
    EXPECT_EQ(M.toMat().at<u8>(1, 1), 200);
}

TEST(TImage, EightBitAndHostPathsWidenBy256) {
    cv::Mat const src8 = noise4(5, 7, CV_8U, 21);
    TImage wide;
    TImage::rgba8uTo16u(packed(src8), wide);
    cv::Mat expect16;
    src8.convertTo(expect16, CV_16U, 256.0);
    expectSame(wide.toMat(), expect16, "rgba8uTo16u");

    TImage Y8, C8, M8, Y16, C16, M16;
    TImage::rgba8uToYCM(packed(src8), Y8, C8, M8);
    TImage::rgba16uToYCM(wide, Y16, C16, M16);
    expectSame(Y8.toMat(), Y16.toMat(), "Y");
    expectSame(C8.toMat(0), C16.toMat(0), "C0");
    expectSame(C8.toMat(1), C16.toMat(1), "C1");
    expectSame(M8.toMat(), M16.toMat(), "M");

    // The host's blue, green, red, alpha buffer, with bytes between rows, stays as it was.
    kxtest::PaddedMat host(5, 7, CV_8UC4);
    cv::Mat bgra;
    cv::cvtColor(src8, bgra, cv::COLOR_RGBA2BGRA);
    bgra.copyTo(host.view);
    TImage Yh, Ch, Mh;
    TImage::bgra8uToTImage(host.ptr<unsigned char>(), 7, 5, host.step(), Yh, Ch, Mh);
    expectSame(Yh.toMat(), Y8.toMat(), "host Y");
    expectSame(Ch.toMat(0), C8.toMat(0), "host C0");
    expectSame(Mh.toMat(), M8.toMat(), "host M");
    expectSame(host.view, bgra, "host buffer");
    EXPECT_TRUE(host.paddingIntact());

    // 16 to 8 bits rounds: 383 -> 1, 384 -> 2 (ties up), 65535 -> 255.
    cv::Mat const v16(1, 1, CV_16UC4, cv::Scalar(383, 384, 65535, 0));
    TImage narrow;
    TImage::rgba16uTo8u(packed(v16), narrow);
    EXPECT_EQ(narrow.toMat().at<cv::Vec4b>(0, 0), cv::Vec4b(1, 2, 255, 0));
}

TEST(TImage, YCMBackToRgbaByTheFormulas) {
    // The uniform colour above comes back as R = 15 512 + 31850, B = -23 512 + 31850 and
    // G = (Y - 0.299 R - 0.114 B) / 0.587: the colour planes keep 512-unit steps.
    for (TSize size : {TSize(1, 1), TSize(5, 3), TSize(8, 8)}) {
        Uniform u(size, 31850, 143, 105, 200);
        TImage out(TImage::RGBA16U, size);
        TImage::YCMToRgba16u(u.Y, u.C, u.M, out);
        double const r = 39530, b = 20074;
        double const g = std::nearbyint((31850 - 0.299 * r - 0.114 * b) / 0.587);
        cv::Mat const expect(size.height, size.width, CV_16UC4,
                             cv::Scalar(r, g, b, std::nearbyint(200 * 255.997)));
        expectSame(out.toMat(), expect, "uniform");
    }
    // Grey goes round both ways without change, in 16 and 8 bits.
    cv::Mat const grey16(3, 5, CV_16UC4, cv::Scalar(23456, 23456, 23456, 65535));
    TImage Y, C, M, back16;
    TImage::rgba16uToYCM(packed(grey16), Y, C, M);
    EXPECT_EQ(C.toMat(0).at<u8>(0, 0), 128);
    back16.resize(Y.size());
    TImage::YCMToRgba16u(Y, C, M, back16);
    for (int k = 0; k < 3; ++k)
        EXPECT_EQ(back16.toMat().at<cv::Vec4w>(2, 4)[k], 23456);

    cv::Mat const grey8(3, 5, CV_8UC4, cv::Scalar(77, 77, 77, 255));
    TImage::rgba8uToYCM(packed(grey8), Y, C, M);
    TImage back8;
    TImage::YCMToRgba8u(Y, C, M, back8);
    expectSame(back8.toMat(), grey8, "8-bit grey and opaque alpha");

    // The host path writes blue first and leaves the bytes between rows alone.
    Uniform colour(TSize(3, 2), 31850, 143, 105, 255);
    kxtest::PaddedMat host(2, 3, CV_8UC4);
    TImage::timageToBgra8u(colour.Y, colour.C, colour.M, host.ptr<unsigned char>(), host.step());
    TImage rgba8;
    TImage::YCMToRgba8u(colour.Y, colour.C, colour.M, rgba8);
    cv::Vec4b const p = rgba8.toMat().at<cv::Vec4b>(1, 2);
    EXPECT_EQ(host.view.at<cv::Vec4b>(1, 2), cv::Vec4b(p[2], p[1], p[0], p[3]));
    EXPECT_EQ(p[0], (39530 + 128) >> 8);
    EXPECT_TRUE(host.paddingIntact());
}

TEST(TImage, YCMBackMatchesWholePlaneEnlargement) {
    // Tall enough for several bands of rows: each band must read its neighbours' rows as the
    // whole-plane cubic enlargement does.
    int const w = 200, h = 302;
    TImage Y(TImage::Y16U, TSize(w, h)), C(TImage::C8U2, TSize(w / 2, h / 2)),
        M(TImage::M8U, TSize(w / 2, h / 2));
    Y.fromMat(kxtest::noise(h, w, CV_16UC1, 31, 0, 65536));
    C.fromMat(kxtest::noise(h / 2, w / 2, CV_8UC1, 32, 0, 256), 0);
    C.fromMat(kxtest::noise(h / 2, w / 2, CV_8UC1, 33, 0, 256), 1);
    M.fromMat(kxtest::noise(h / 2, w / 2, CV_8UC1, 34, 0, 256));
    TImage out(TImage::RGBA16U, TSize(w, h));
    TImage::YCMToRgba16u(Y, C, M, out);
    cv::Mat big[3];
    cv::resize(C.toMat(0), big[0], cv::Size(w, h), 0, 0, cv::INTER_CUBIC);
    cv::resize(C.toMat(1), big[1], cv::Size(w, h), 0, 0, cv::INTER_CUBIC);
    cv::resize(M.toMat(), big[2], cv::Size(w, h), 0, 0, cv::INTER_CUBIC);
    auto sat = [](float v) { return int(std::min(65535.0f, std::max(0.0f, std::nearbyint(v)))); };
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            float const yv = Y.toMat().at<u16>(y, x);
            float const r = float(big[0].at<u8>(y, x) - 128) * 512.0f + yv;
            float const b = float(big[1].at<u8>(y, x) - 128) * 512.0f + yv;
            float const g = (yv - 0.299f * r - 0.114f * b) / 0.587f;
            cv::Vec4w const expect(sat(r), sat(g), sat(b), sat(big[2].at<u8>(y, x) * 255.997f));
            ASSERT_EQ(out.toMat().at<cv::Vec4w>(y, x), expect) << x << "," << y;
        }
}

TEST(TImage, YCMToRgbaChecksSizes) {
    // clang-format off
    std::string const text = "TImage::YCMToRgba16u - imY.size()!=out.size() || TImage::dec2Size(imY.size()) != imC.size()";
    // clang-format on
    Uniform u(TSize(5, 3), 1000, 128, 128, 0);
    TImage wrongOut(TImage::RGBA16U, TSize(4, 3));
    EXPECT_EQ(thrown([&] { TImage::YCMToRgba16u(u.Y, u.C, u.M, wrongOut); }), text);
    TImage out(TImage::RGBA16U, TSize(5, 3));
    TImage wrongC(TImage::C8U2, TSize(2, 2));
    EXPECT_EQ(thrown([&] { TImage::YCMToRgba16u(u.Y, wrongC, u.M, out); }), text);
    TImage wrongM(TImage::M8U, TSize(3, 1));
    EXPECT_EQ(thrown([&] { TImage::YCMToRgba8u(u.Y, u.C, wrongM, out); }), text);
    EXPECT_EQ(thrown([&] { TImage::YCMToRgba16u(u.C, u.C, u.M, out); }),
              "ERROR - TImage - input of the wrong type");

    // A wrapped output of the wrong size can't be resized.
    std::vector<u8> host(4 * 4);
    TImage view(TSize(2, 2), host.data(), 8, false);
    EXPECT_EQ(thrown([&] { TImage::YCMToRgba8u(u.Y, u.C, u.M, view); }),
              "ERROR - TImage - output of the wrong type or size");
}

TEST(TImage, SinglePixelFormsKeepTheirConstants) {
    unsigned short Y = 0;
    unsigned char c1 = 0, c2 = 0;
    TImage::RGB2YUV(0.4f, 0.4f, 0.4f, Y, c1, c2);
    EXPECT_EQ(c1, 128);
    EXPECT_EQ(c2, 128);
    EXPECT_EQ(Y, 26214);  // rint(0.4 x 65535.4)
    TImage::RGB2YUV(1.0f, 1.0f, 1.0f, Y, c1, c2);
    EXPECT_EQ(Y, 65535);

    // Pure red: C1 = rint(0.701 x 128.4 + 128) = 218, C2 = rint(-0.299 x 128.4 + 128) = 90,
    // Y = rint(0.299 x 65535.4) = 19595.
    TImage::RGB2YUV(1.0f, 0.0f, 0.0f, Y, c1, c2);
    EXPECT_EQ(c1, 218);
    EXPECT_EQ(c2, 90);
    EXPECT_EQ(Y, 19595);
    // Back with 1/128 rather than 1/128.4, red overshoots: 90 / 128 + 0.299 = 1.0021. The
    // exact inverse would give 0.99993.
    float r = 0, g = 0, b = 0;
    TImage::YUV2RGB(Y, c1, c2, r, g, b);
    EXPECT_NEAR(r, 90.0 / 128 + 19595.0 / 65535, 1e-6);
    EXPECT_GT(r, 1.001f);
    EXPECT_NEAR(b, -38.0 / 128 + 19595.0 / 65535, 1e-6);
    EXPECT_NEAR(g, (19595.0 / 65535 - 0.299 * r - 0.114 * b) / 0.587, 1e-6);

    unsigned char d1 = 0, d2 = 0;
    TImage::RGB2YUV(2.0f, 0.0f, -1.0f, d1, d2);  // saturated both ways
    EXPECT_EQ(d1, 255);
    EXPECT_EQ(d2, 0);
}

TEST(TImage, UpdateCfromYChangeScalesColourWithBrightness) {
    // Half-size y0 = 64 and y1 = 128 with eps 0: ratio 2, so C1 - 128 = 2 x 10 x 128.4 / 128.
    Uniform before(TSize(5, 3), 64 * 256, 138, 118, 0);
    TImage Y1(TImage::Y16U, TSize(5, 3));
    Y1.toMat().setTo(128 * 256);
    TImage C1;
    TImage::updateCfromYChange(before.Y, before.C, Y1, C1, 0.0f);
    ASSERT_EQ(C1.size(), TSize(3, 2));
    EXPECT_EQ(C1.toMat(0).at<u8>(1, 2), 148);  // rint(128 + 20.0625)
    EXPECT_EQ(C1.toMat(1).at<u8>(1, 2), 108);

    // Unchanged Y keeps the colour up to the 128.4 / 128 stretch.
    Uniform same(TSize(4, 4), 100 * 256, 228, 0, 0);
    TImage::updateCfromYChange(same.Y, same.C, same.Y, C1, 0.01f);
    EXPECT_EQ(C1.toMat(0).at<u8>(0, 0), 228);  // 128 + 100 x 1.003125 = 228.3
    EXPECT_EQ(C1.toMat(1).at<u8>(0, 0), 0);    // 128 - 128.4 saturates

    TImage smallY(TImage::Y16U, TSize(4, 3));
    EXPECT_EQ(thrown([&] { TImage::updateCfromYChange(same.Y, same.C, smallY, C1, 0.0f); }),
              "ERROR - TImage::updateCfromYChange - sizes do not match");
}

}  // namespace
