// Tests of TImage: ownership and sizes, plane crossings, and the YCM conversions against a
// plain per-pixel reference over awkward sizes.
#include "kestrix1/image/t_image.h"

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/images.h"
#include "tests/support/luma_reference.h"
#include "tests/support/throws.h"

namespace {

using kxtest::thrown;
using u8 = std::uint8_t;
using u16 = std::uint16_t;

bool same(cv::Mat const &a, cv::Mat const &b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

// An owned image of `type` holding a copy of m, and of m1 in a second plane.
TImage image(TImage::IMTYPE type, cv::Mat const &m, cv::Mat const &m1 = cv::Mat()) {
    TImage im(type, TSize(m.cols, m.rows));
    im.fromMat(m);
    if (!m1.empty()) im.fromMat(m1, 1);
    return im;
}

// Y, C0, C1 and M of 16-bit R, G, B, A pixels by the formulas, one 2 x 2 block (or the pixels
// present) at a time.
std::vector<cv::Mat> ycmReference(cv::Mat const &rgba16) {
    int const h = rgba16.rows, w = rgba16.cols;
    cv::Mat Y(h, w, CV_16UC1), C0((h + 1) / 2, (w + 1) / 2, CV_8UC1), C1 = C0.clone(),
                                                                      M = C0.clone();
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            cv::Vec4w const p = rgba16.at<cv::Vec4w>(y, x);
            Y.at<u16>(y, x) = u16(kxtest::luma16(p[0], p[1], p[2]));
        }
    for (int by = 0; by < C0.rows; ++by)
        for (int bx = 0; bx < C0.cols; ++bx) {
            long sr = 0, sb = 0, sy = 0, sa = 0, n = 0;
            for (int y = 2 * by; y < std::min(h, 2 * by + 2); ++y)
                for (int x = 2 * bx; x < std::min(w, 2 * bx + 2); ++x, ++n) {
                    cv::Vec4w const p = rgba16.at<cv::Vec4w>(y, x);
                    sr += p[0];
                    sb += p[2];
                    sa += p[3];
                    sy += Y.at<u16>(y, x);
                }
            C0.at<u8>(by, bx) = cv::saturate_cast<u8>((sr - sy) / (512 * n) + 128);
            C1.at<u8>(by, bx) = cv::saturate_cast<u8>((sb - sy) / (512 * n) + 128);
            M.at<u8>(by, bx) = u8(sa / (256 * n));
        }
    return {Y, C0, C1, M};
}

std::vector<cv::Mat> ycm(TImage const &Y, TImage const &C, TImage const &M) {
    return {Y.toMat(), C.toMat(0), C.toMat(1), M.toMat()};
}

bool same(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b) {
    for (std::size_t k = 0; k < a.size(); ++k)
        if (!same(a[k], b[k])) return false;
    return true;
}

// A uniform YCM picture.
struct Uniform {
    Uniform(TSize s, u16 y, u8 c0, u8 c1, u8 m)
        : Y(TImage::Y16U, s), C(TImage::C8U2, half(s)), M(TImage::M8U, half(s)) {
        Y.toMat().setTo(y);
        C.toMat(0).setTo(c0);
        C.toMat(1).setTo(c1);
        M.toMat().setTo(m);
    }
    static TSize half(TSize s) { return TImage::dec2Size(s); }
    TImage Y, C, M;
};

TEST(TImage, TypesSizesStepsAndResize) {
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
        EXPECT_TRUE(m.type() == r.cvType && m.size() == cv::Size(7, 5) && m.data == im.m_data[0]);
        EXPECT_EQ(im.dataPtr(3, 2), im.m_data[0] + 3 * im.step() + 2 * r.pstep);
        TImage copy(TImage::M8U);
        copy = im;  // takes the type and a deep copy of the pixels
        EXPECT_TRUE(copy.m_type == r.type && copy.m_data[0] != m.data && same(copy.toMat(), m));
    }
    TImage c(TImage::C8U2, TSize(3, 3));
    EXPECT_TRUE(c.m_data[1] != nullptr && c.toMat(1).data == c.m_data[1]);
    EXPECT_EQ(TImage::dec2Size(TSize(5, 3)), TSize(3, 2));
    EXPECT_EQ(TImage::dec2Size(TSize(1, 1)), TSize(1, 1));
    EXPECT_EQ(TImage::dec2Size(TSize(4, 6)), TSize(2, 3));
    EXPECT_EQ(TImage::dec2Size(TSize(0, 0)), TSize(0, 0));

    // The same size keeps the planes and the stamp; no area leaves the image empty.
    TImage im(TImage::Y16U, TSize(9, 4));
    unsigned char *const p = im.m_data[0];
    int const stamp = im.updateRect().m_changeId;
    im.resize(TSize(9, 4));
    EXPECT_TRUE(im.m_data[0] == p && im.updateRect().m_changeId == stamp);
    im.resize(TSize(0, 4));
    EXPECT_TRUE(im.isEmpty() && im.toMat().empty());
    im.resize(TSize(3, 2));
    EXPECT_TRUE(im.size() == TSize(3, 2) && im.m_data[0] != nullptr);
}

TEST(TImage, CopiesAreDeepPlanesCheckedAndRedAndBlueSwapped) {
    TImage c =
        image(TImage::C8U2, kxtest::ramp(3, 5, CV_8UC1), cv::Mat(3, 5, CV_8UC1, cv::Scalar(200)));
    TImage copy(c), y(TImage::Y16U, TSize(2, 2));
    y.copyFrom(c);  // takes the other's type
    for (TImage const *d : {&copy, &y}) {
        EXPECT_TRUE(d->m_type == TImage::C8U2 && d->m_data[0] != c.m_data[0]);
        EXPECT_TRUE(same(d->toMat(0), c.toMat(0)) && same(d->toMat(1), c.toMat(1)));
    }
    // A wrapped image keeps its buffer.
    std::vector<u8> host(4 * 4 * 2, 9);
    TImage view(TSize(4, 2), host.data(), 16, false);
    view.copyFrom(TImage(TImage::RGBA8U, TSize(1, 1)));
    view.free();
    EXPECT_TRUE(view.size() == TSize(4, 2) && view.m_data[0] == host.data());

    // fromMat checks the size before the type, and copies from a row step of its own.
    TImage im(TImage::Y16U, TSize(6, 3));
    EXPECT_EQ(thrown([&] { im.fromMat(cv::Mat(3, 5, CV_8UC1)); }),
              "ERROR - TImage::copyFrom - size is not equal");
    EXPECT_EQ(thrown([&] { im.fromMat(cv::Mat(3, 6, CV_8UC1)); }),
              "ERROR - TImage::copyFrom - type not match");
    kxtest::PaddedMat src(3, 6, CV_16UC1);
    kxtest::ramp(3, 6, CV_16UC1).copyTo(src.view);
    im.fromMat(src.view);
    EXPECT_TRUE(same(im.toMat(), src.view));

    for (int type : {CV_8UC4, CV_16UC4}) {
        cv::Mat const src = kxtest::noise(3, 5, type, 7, 0, type == CV_8UC4 ? 256 : 65536);
        cv::Mat swapped;
        cv::cvtColor(src, swapped, cv::COLOR_RGBA2BGRA);
        TImage im = image(type == CV_8UC4 ? TImage::RGBA8U : TImage::RGBA16U, src);
        im.swapC4RBCannel();
        EXPECT_TRUE(same(im.toMat(), swapped));
        im.swapC4RBCannel();
        EXPECT_TRUE(same(im.toMat(), src));
    }
    EXPECT_EQ(thrown([&] { im.swapC4RBCannel(); }),
              "ERROR -  TImage::swapC4RBCannel() - wrong type");

    // Wrapping with swapRB swaps the host's pixels in place, not the bytes between rows.
    kxtest::PaddedMat wrapped(2, 3, CV_16UC4);
    wrapped.view.setTo(cv::Scalar(1, 2, 3, 4));
    TImage swapping(TSize(3, 2), wrapped.ptr<unsigned short>(), wrapped.step(), true);
    EXPECT_EQ(wrapped.view.at<cv::Vec4w>(1, 2), cv::Vec4w(3, 2, 1, 4));
    EXPECT_TRUE(wrapped.paddingIntact());
}

// Every way in: 16-bit pixels, 8-bit ones (widened by 256), and the host's blue, green, red,
// alpha bytes with bytes between rows that stay as they were. halfY8U of a plane is the M of
// pixels whose alpha that plane is.
TEST(TImage, YCMOfEveryInputMatchesTheFormulas) {
    for (cv::Size s : {cv::Size(1, 1), cv::Size(5, 3), cv::Size(2, 7), cv::Size(8, 1),
                       cv::Size(33, 10), cv::Size(301, 129)}) {
        SCOPED_TRACE(testing::Message() << s);
        cv::Mat const src16 = kxtest::noise(s.height, s.width, CV_16UC4, 11, 0, 65536);
        cv::Mat const src8 = kxtest::noise(s.height, s.width, CV_8UC4, 21, 0, 256);
        cv::Mat wide, alpha;
        src8.convertTo(wide, CV_16U, 256.0);
        cv::extractChannel(src16, alpha, 3);
        TImage Y, C, M, widened;  // default types; the conversions give them theirs
        TImage::rgba16uToYCM(image(TImage::RGBA16U, src16), Y, C, M);
        std::vector<cv::Mat> const ref16 = ycmReference(src16);
        EXPECT_TRUE(same(ycm(Y, C, M), ref16));
        EXPECT_TRUE(same(image(TImage::Y16U, alpha).halfY8U(), ref16[3]));

        TImage::rgba8uTo16u(image(TImage::RGBA8U, src8), widened);
        EXPECT_TRUE(same(widened.toMat(), wide));
        TImage::rgba8uToYCM(image(TImage::RGBA8U, src8), Y, C, M);
        std::vector<cv::Mat> const ref8 = ycmReference(wide);
        EXPECT_TRUE(same(ycm(Y, C, M), ref8));
        kxtest::PaddedMat host(s.height, s.width, CV_8UC4);
        cv::Mat bgra;
        cv::cvtColor(src8, bgra, cv::COLOR_RGBA2BGRA);
        bgra.copyTo(host.view);
        TImage::bgra8uToTImage(host.ptr<u8>(), s.width, s.height, host.step(), Y, C, M);
        EXPECT_TRUE(same(ycm(Y, C, M), ref8));
        EXPECT_TRUE(host.paddingIntact() && same(host.view, bgra));
    }
    // A uniform colour, by hand: Y = 0.299 40000 + 0.587 30000 + 0.114 20000 = 31850,
    // C0 = 4 (40000 - 31850) / 2048 + 128 = 143, C1 = -47400 / 2048 + 128 = 105.
    TImage Y, C, M, narrow;
    TImage::rgba16uToYCM(
        image(TImage::RGBA16U, cv::Mat(3, 3, CV_16UC4, cv::Scalar(40000, 30000, 20000, 51200))), Y,
        C, M);
    EXPECT_EQ(Y.toMat().at<u16>(2, 2), 31850);
    EXPECT_TRUE(C.toMat(0).at<u8>(1, 1) == 143 && C.toMat(1).at<u8>(1, 1) == 105);
    EXPECT_EQ(M.toMat().at<u8>(1, 1), 200);
    // 16 to 8 bits rounds: 383 -> 1, 384 -> 2 (ties up), 65535 -> 255.
    TImage::rgba16uTo8u(
        image(TImage::RGBA16U, cv::Mat(1, 1, CV_16UC4, cv::Scalar(383, 384, 65535, 0))), narrow);
    EXPECT_EQ(narrow.toMat().at<cv::Vec4b>(0, 0), cv::Vec4b(1, 2, 255, 0));
    EXPECT_EQ(thrown([&] { C.halfY8U(); }), "ERROR - TImage::halfY8U - wrong type");
}

TEST(TImage, YCMBackToRgbaByTheFormulas) {
    // The uniform colour above comes back as R = 15 512 + 31850, B = -23 512 + 31850 and
    // G = (Y - 0.299 R - 0.114 B) / 0.587: the colour planes keep 512-unit steps.
    for (TSize size : {TSize(1, 1), TSize(5, 3), TSize(8, 8)}) {
        Uniform u(size, 31850, 143, 105, 200);
        TImage out(TImage::RGBA16U, size);
        TImage::YCMToRgba16u(u.Y, u.C, u.M, out);
        double const r = 39530, b = 20074,
                     g = std::nearbyint((31850 - 0.299 * r - 0.114 * b) / 0.587);
        cv::Scalar const want(r, g, b, std::nearbyint(200 * 255.997));
        EXPECT_TRUE(same(out.toMat(), cv::Mat(size.height, size.width, CV_16UC4, want)));
    }

    // Tall enough for several bands of rows, each of which must read its neighbours' rows as
    // the whole-plane cubic enlargement does. 8 bits are (v + 128) >> 8 of 16, and the host
    // gets them blue first, leaving the bytes between rows alone.
    int const w = 200, h = 302;
    cv::Mat big[3];
    TImage Y = image(TImage::Y16U, kxtest::noise(h, w, CV_16UC1, 31, 0, 65536));
    TImage C = image(TImage::C8U2, kxtest::noise(h / 2, w / 2, CV_8UC1, 32, 0, 256),
                     kxtest::noise(h / 2, w / 2, CV_8UC1, 33, 0, 256));
    TImage M = image(TImage::M8U, kxtest::noise(h / 2, w / 2, CV_8UC1, 34, 0, 256));
    TImage back16(TImage::RGBA16U, Y.size()), back8;  // the 16-bit way needs Y's size
    TImage::YCMToRgba16u(Y, C, M, back16);
    TImage::YCMToRgba8u(Y, C, M, back8);
    kxtest::PaddedMat host(h, w, CV_8UC4);
    TImage::timageToBgra8u(Y, C, M, host.ptr<u8>(), host.step());
    for (int k = 0; k < 3; ++k)
        cv::resize(k < 2 ? C.toMat(k) : M.toMat(), big[k], cv::Size(w, h), 0, 0, cv::INTER_CUBIC);
    auto sat = [](float v) { return int(std::min(65535.0f, std::max(0.0f, std::nearbyint(v)))); };
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            float const yv = Y.toMat().at<u16>(y, x);
            float const r = float(big[0].at<u8>(y, x) - 128) * 512.0f + yv;
            float const b = float(big[1].at<u8>(y, x) - 128) * 512.0f + yv;
            float const g = (yv - 0.299f * r - 0.114f * b) / 0.587f;
            cv::Vec4w const want(sat(r), sat(g), sat(b), sat(big[2].at<u8>(y, x) * 255.997f));
            ASSERT_EQ(back16.toMat().at<cv::Vec4w>(y, x), want) << x << "," << y;
            cv::Vec4b want8;
            for (int k = 0; k < 4; ++k)
                want8[k] = u8(std::min(255, (want[k] + 128) >> 8));
            ASSERT_EQ(back8.toMat().at<cv::Vec4b>(y, x), want8) << x << "," << y;
            ASSERT_EQ(host.view.at<cv::Vec4b>(y, x),
                      cv::Vec4b(want8[2], want8[1], want8[0], want8[3]));
        }
    EXPECT_TRUE(host.paddingIntact());
}

TEST(TImage, YCMToRgbaChecksSizesAndTypes) {
    // clang-format off
    std::string const text = "TImage::YCMToRgba16u - imY.size()!=out.size() || TImage::dec2Size(imY.size()) != imC.size()";
    // clang-format on
    Uniform u(TSize(5, 3), 1000, 128, 128, 0);
    TImage out(TImage::RGBA16U, TSize(5, 3)), wrongOut(TImage::RGBA16U, TSize(4, 3));
    TImage wrongC(TImage::C8U2, TSize(2, 2)), wrongM(TImage::M8U, TSize(3, 1));
    EXPECT_EQ(thrown([&] { TImage::YCMToRgba16u(u.Y, u.C, u.M, wrongOut); }), text);
    EXPECT_EQ(thrown([&] { TImage::YCMToRgba16u(u.Y, wrongC, u.M, out); }), text);
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
    EXPECT_TRUE(c1 == 128 && c2 == 128 && Y == 26214);  // rint(0.4 x 65535.4)
    TImage::RGB2YUV(1.0f, 1.0f, 1.0f, Y, c1, c2);
    EXPECT_EQ(Y, 65535);
    // Pure red: C1 = rint(0.701 x 128.4 + 128) = 218, C2 = rint(-0.299 x 128.4 + 128) = 90,
    // Y = rint(0.299 x 65535.4) = 19595.
    TImage::RGB2YUV(1.0f, 0.0f, 0.0f, Y, c1, c2);
    EXPECT_TRUE(c1 == 218 && c2 == 90 && Y == 19595);
    // Back with 1/128 rather than 1/128.4, red overshoots: 90 / 128 + 0.299 = 1.0021. The
    // exact inverse would give 0.99993.
    float r = 0, g = 0, b = 0;
    TImage::YUV2RGB(Y, c1, c2, r, g, b);
    EXPECT_NEAR(r, 90.0 / 128 + 19595.0 / 65535, 1e-6);
    EXPECT_GT(r, 1.001f);
    EXPECT_NEAR(b, -38.0 / 128 + 19595.0 / 65535, 1e-6);
    EXPECT_NEAR(g, (19595.0 / 65535 - 0.299 * r - 0.114 * b) / 0.587, 1e-6);
    TImage::RGB2YUV(2.0f, 0.0f, -1.0f, c1, c2);  // saturated both ways
    EXPECT_TRUE(c1 == 255 && c2 == 0);
}

TEST(TImage, UpdateCfromYChangeScalesColourWithBrightness) {
    // Half-size y0 = 64 and y1 = 128 with eps 0: ratio 2, so C1 - 128 = 2 x 10 x 128.4 / 128.
    Uniform before(TSize(5, 3), 64 * 256, 138, 118, 0);
    TImage Y1(TImage::Y16U, TSize(5, 3)), C1;
    Y1.toMat().setTo(128 * 256);
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
