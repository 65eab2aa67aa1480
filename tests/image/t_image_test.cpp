// Tests of TImage: ownership, plane crossings, and the YCM conversions against a plain
// reference over awkward sizes.
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
// present, n of them) at a time.
std::vector<cv::Mat> ycmReference(cv::Mat const &rgba16) {
    int const h = rgba16.rows, w = rgba16.cols;
    cv::Mat Y(h, w, CV_16UC1), C0((h + 1) / 2, (w + 1) / 2, CV_8UC1), C1(C0.size(), CV_8UC1),
        M(C0.size(), CV_8UC1);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            cv::Vec4w const p = rgba16.at<cv::Vec4w>(y, x);
            Y.at<u16>(y, x) = u16(kxtest::luma16(p[0], p[1], p[2]));
        }
    for (int by = 0; by < C0.rows; ++by)
        for (int bx = 0; bx < C0.cols; ++bx) {
            cv::Rect const block = cv::Rect(2 * bx, 2 * by, 2, 2) & cv::Rect(0, 0, w, h);
            cv::Scalar const s = cv::sum(rgba16(block));
            long const sy = long(cv::sum(Y(block))[0]), n = block.area();
            C0.at<u8>(by, bx) = cv::saturate_cast<u8>((long(s[0]) - sy) / (512 * n) + 128);
            C1.at<u8>(by, bx) = cv::saturate_cast<u8>((long(s[2]) - sy) / (512 * n) + 128);
            M.at<u8>(by, bx) = u8(long(s[3]) / (256 * n));
        }
    return {Y, C0, C1, M};
}

// Whether Y, both planes of C and M are those of `want`.
bool sameYCM(TImage const &Y, TImage const &C, TImage const &M, std::vector<cv::Mat> const &want) {
    return same(Y.toMat(), want[0]) && same(C.toMat(0), want[1]) && same(C.toMat(1), want[2]) &&
           same(M.toMat(), want[3]);
}

TEST(TImage, SizesCopiesPlanesAndSwaps) {
    int const cvTypes[] = {CV_16UC1, CV_8UC1, CV_8UC1, CV_8UC4, CV_16UC4};  // in IMTYPE order
    for (int t = 0; t < 5; ++t) {
        TImage im(TImage::IMTYPE(t), TSize(7, 5)), assigned(TImage::M8U);
        EXPECT_TRUE(im.toMat().type() == cvTypes[t] && im.pstep() == CV_ELEM_SIZE(cvTypes[t]));
        EXPECT_EQ(im.dataPtr(3, 2), im.m_data[0] + 3 * im.step() + 2 * im.pstep());
        cv::randu(im.toMat(0), 0, 256);
        cv::randu(im.toMat(1), 0, 256);  // the second plane of C8U2
        TImage copy(im);
        assigned = im;  // takes the type and a deep copy of the pixels
        for (TImage const *d : {&copy, &assigned}) {
            EXPECT_TRUE(d->m_type == t && d->m_data[0] != im.m_data[0]);
            EXPECT_TRUE(same(d->toMat(0), im.toMat(0)) && same(d->toMat(1), im.toMat(1)));
        }
    }

    // The same size keeps the planes and the stamp; no area leaves the image empty.
    TImage im(TImage::Y16U, TSize(9, 4)), empty(TImage::M8U, TSize(3, 2));
    unsigned char *const p = im.m_data[0];
    int const stamp = im.updateRect().m_changeId;
    im.resize(TSize(9, 4));
    EXPECT_TRUE(im.m_data[0] == p && im.updateRect().m_changeId == stamp);
    empty.resize(TSize(0, 4));
    EXPECT_TRUE(empty.isEmpty() && empty.toMat().empty());

    // A wrapped image keeps its buffer.
    std::vector<u8> buffer(4 * 4 * 2, 9);
    TImage view(TSize(4, 2), buffer.data(), 16, false);
    view.copyFrom(TImage(TImage::RGBA8U, TSize(1, 1)));
    EXPECT_TRUE(view.size() == TSize(4, 2) && view.m_data[0] == buffer.data());

    // fromMat checks the size before the type; swapping needs packed pixels.
    EXPECT_EQ(thrown([&] { im.fromMat(cv::Mat(4, 8, CV_8UC1)); }),
              "ERROR - TImage::copyFrom - size is not equal");
    EXPECT_EQ(thrown([&] { im.fromMat(cv::Mat(4, 9, CV_8UC1)); }),
              "ERROR - TImage::copyFrom - type not match");
    EXPECT_EQ(thrown([&] { im.swapC4RBCannel(); }),
              "ERROR -  TImage::swapC4RBCannel() - wrong type");
    // Wrapping with swapRB swaps the host's pixels in place, not the bytes between rows.
    for (int type : {CV_8UC4, CV_16UC4}) {
        kxtest::PaddedMat host(3, 5, type);
        kxtest::noise(3, 5, type, 7, 0, type == CV_8UC4 ? 256 : 65536).copyTo(host.view);
        cv::Mat swapped;
        cv::cvtColor(host.view, swapped, cv::COLOR_RGBA2BGRA);
        if (type == CV_8UC4)
            TImage(TSize(5, 3), host.ptr<u8>(), host.step(), true);
        else
            TImage(TSize(5, 3), host.ptr<u16>(), host.step(), true);
        EXPECT_TRUE(same(host.view, swapped) && host.paddingIntact());
    }
}

// Every way in: 16-bit pixels, 8-bit ones (widened by 256) and the host's blue, green, red,
// alpha bytes. halfY8U of a plane is the M of pixels whose alpha that plane is.
TEST(TImage, YCMOfEveryInputMatchesTheFormulas) {
    for (cv::Size s : {cv::Size(1, 1), cv::Size(5, 3), cv::Size(2, 7), cv::Size(8, 1),
                       cv::Size(33, 10), cv::Size(301, 129)}) {
        SCOPED_TRACE(testing::Message() << s);
        cv::Mat const src16 = kxtest::noise(s.height, s.width, CV_16UC4, 11, 0, 65536);
        cv::Mat const src8 = kxtest::noise(s.height, s.width, CV_8UC4, 21, 0, 256);
        cv::Mat wide, alpha, bgra;
        src8.convertTo(wide, CV_16U, 256.0);
        cv::extractChannel(src16, alpha, 3);
        cv::cvtColor(src8, bgra, cv::COLOR_RGBA2BGRA);
        TImage Y, C, M, widened;  // default types; the conversions give them theirs
        TImage::rgba16uToYCM(image(TImage::RGBA16U, src16), Y, C, M);
        std::vector<cv::Mat> const ref16 = ycmReference(src16), ref8 = ycmReference(wide);
        EXPECT_TRUE(sameYCM(Y, C, M, ref16));
        EXPECT_TRUE(same(image(TImage::Y16U, alpha).halfY8U(), ref16[3]));
        TImage::rgba8uTo16u(image(TImage::RGBA8U, src8), widened);
        EXPECT_TRUE(same(widened.toMat(), wide));
        TImage::rgba8uToYCM(image(TImage::RGBA8U, src8), Y, C, M);
        EXPECT_TRUE(sameYCM(Y, C, M, ref8));
        kxtest::PaddedMat host(s.height, s.width, CV_8UC4);
        bgra.copyTo(host.view);
        TImage::bgra8uToTImage(host.ptr<u8>(), s.width, s.height, host.step(), Y, C, M);
        EXPECT_TRUE(sameYCM(Y, C, M, ref8));
        EXPECT_TRUE(host.paddingIntact() && same(host.view, bgra));
    }
    // By hand: Y = 0.299 40000 + 0.587 30000 + 0.114 20000 = 31850,
    // C0 = 4 (40000 - 31850) / 2048 + 128 = 143, C1 = -47400 / 2048 + 128 = 105, M = 200.
    TImage Y, C, M, narrow;
    cv::Mat const colour(3, 3, CV_16UC4, cv::Scalar(40000, 30000, 20000, 51200));
    TImage::rgba16uToYCM(image(TImage::RGBA16U, colour), Y, C, M);
    EXPECT_TRUE(Y.toMat().at<u16>(2, 2) == 31850 && M.toMat().at<u8>(1, 1) == 200);
    EXPECT_TRUE(C.toMat(0).at<u8>(1, 1) == 143 && C.toMat(1).at<u8>(1, 1) == 105);
    // 16 to 8 bits rounds: 383 -> 1, 384 -> 2 (ties up), 65535 -> 255.
    TImage::rgba16uTo8u(
        image(TImage::RGBA16U, cv::Mat(1, 1, CV_16UC4, cv::Scalar(383, 384, 65535, 0))), narrow);
    EXPECT_EQ(narrow.toMat().at<cv::Vec4b>(0, 0), cv::Vec4b(1, 2, 255, 0));
    EXPECT_EQ(thrown([&] { C.halfY8U(); }), "ERROR - TImage::halfY8U - wrong type");
}

TEST(TImage, YCMBackToRgbaByTheFormulas) {
    // Odd and tall enough for several bands of rows, each reading its neighbours' rows as the
    // whole-plane cubic enlargement does, rounded half up; 8 bits are those of rgba16uTo8u.
    int const w = 201, h = 303;
    cv::Mat big[3], bgra;
    TImage Y = image(TImage::Y16U, kxtest::noise(h, w, CV_16UC1, 31, 0, 65536));
    TImage C = image(TImage::C8U2, kxtest::noise(152, 101, CV_8UC1, 32, 0, 256),
                     kxtest::noise(152, 101, CV_8UC1, 33, 0, 256));
    TImage M = image(TImage::M8U, kxtest::noise(152, 101, CV_8UC1, 34, 0, 256));
    TImage back16(TImage::RGBA16U, Y.size()), back8, narrow;  // the 16-bit way needs Y's size
    TImage::YCMToRgba16u(Y, C, M, back16);
    TImage::YCMToRgba8u(Y, C, M, back8);
    kxtest::PaddedMat host(h, w, CV_8UC4);
    TImage::timageToBgra8u(Y, C, M, host.ptr<u8>(), host.step());
    for (int k = 0; k < 3; ++k) {
        (k < 2 ? C.toMat(k) : M.toMat()).convertTo(big[k], CV_64F);
        cv::resize(big[k], big[k], cv::Size(202, 304), 0, 0, cv::INTER_CUBIC);
        big[k] = cv::max(cv::min(big[k] + 0.5, 255.0), 0.0);
    }
    auto at = [&](int k, int y, int x) { return int(std::floor(big[k].at<double>(y, x))); };
    auto sat = [](float v) { return int(std::min(65535.0f, std::max(0.0f, std::nearbyint(v)))); };
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            float const yv = Y.toMat().at<u16>(y, x);
            float const r = float(at(0, y, x) - 128) * 512.0f + yv;
            float const b = float(at(1, y, x) - 128) * 512.0f + yv;
            float const g = (yv - 0.299f * r - 0.114f * b) / 0.587f;
            cv::Vec4w const want(sat(r), sat(g), sat(b), sat(at(2, y, x) * 255.997f));
            ASSERT_EQ(back16.toMat().at<cv::Vec4w>(y, x), want) << x << "," << y;
        }
    TImage::rgba16uTo8u(back16, narrow);
    cv::cvtColor(narrow.toMat(), bgra, cv::COLOR_RGBA2BGRA);
    EXPECT_TRUE(same(back8.toMat(), narrow.toMat()) && same(host.view, bgra));
    EXPECT_TRUE(host.paddingIntact());

    TImage y(TImage::Y16U, TSize(5, 3)), c(TImage::C8U2, TSize(3, 2)), m(TImage::M8U, TSize(3, 2));
    TImage out(TImage::RGBA16U, TSize(5, 3));
    std::string const text =
        "TImage::YCMToRgba16u - imY.size()!=out.size() || "
        "TImage::dec2Size(imY.size()) != imC.size()";
    TImage wrongOut(TImage::RGBA16U, TSize(4, 3));
    TImage wrongC(TImage::C8U2, TSize(2, 2)), wrongM(TImage::M8U, TSize(3, 1));
    EXPECT_EQ(thrown([&] { TImage::YCMToRgba16u(y, c, m, wrongOut); }), text);
    EXPECT_EQ(thrown([&] { TImage::YCMToRgba16u(y, wrongC, m, out); }), text);
    EXPECT_EQ(thrown([&] { TImage::YCMToRgba8u(y, c, wrongM, out); }), text);
    EXPECT_EQ(thrown([&] { TImage::YCMToRgba16u(c, c, m, out); }),
              "ERROR - TImage - input of the wrong type");
    // A wrapped output of the wrong size can't be resized.
    std::vector<u8> wrapped(4 * 4);
    TImage view(TSize(2, 2), wrapped.data(), 8, false);
    EXPECT_EQ(thrown([&] { TImage::YCMToRgba8u(y, c, m, view); }),
              "ERROR - TImage - output of the wrong type or size");
}

TEST(TImage, SinglePixelFormsAndColourUpdatesKeepTheirConstants) {
    // Pure red: C1 = rint(0.701 x 128.4 + 128) = 218, C2 = rint(-0.299 x 128.4 + 128) = 90,
    // Y = rint(0.299 x 65535.4) = 19595.
    unsigned short Y = 0;
    unsigned char c1 = 0, c2 = 0;
    TImage::RGB2YUV(1.0f, 0.0f, 0.0f, Y, c1, c2);
    EXPECT_TRUE(c1 == 218 && c2 == 90 && Y == 19595);
    TImage::RGB2YUV(0.75f, 0.75f, 0.75f, Y, c1, c2);  // 49151.55 by 65535.4, not 49151.25
    EXPECT_TRUE(Y == 49152 && c1 == 128 && c2 == 128);
    TImage::RGB2YUV(2.0f, 0.0f, -1.0f, c1, c2);  // saturated both ways
    EXPECT_TRUE(c1 == 255 && c2 == 0);
    // Back with 1/128 rather than 1/128.4, red overshoots to 90 / 128 + 0.299 = 1.0021.
    float r = 0, g = 0, b = 0;
    TImage::YUV2RGB(19595, 218, 90, r, g, b);
    EXPECT_NEAR(r, 90.0 / 128 + 19595.0 / 65535, 1e-6);
    EXPECT_NEAR(b, -38.0 / 128 + 19595.0 / 65535, 1e-6);
    EXPECT_NEAR(g, (19595.0 / 65535 - 0.299 * r - 0.114 * b) / 0.587, 1e-6);

    // Half-size y0 = 64 and y1 = 128 with eps 0: ratio 2, so C1 - 128 = 2 x 10 x 128.4 / 128.
    TImage Y0 = image(TImage::Y16U, cv::Mat(3, 5, CV_16UC1, cv::Scalar(64 * 256))), C1;
    TImage Y1 = image(TImage::Y16U, cv::Mat(3, 5, CV_16UC1, cv::Scalar(128 * 256)));
    TImage C0 = image(TImage::C8U2, cv::Mat(2, 3, CV_8UC1, cv::Scalar(138)),
                      cv::Mat(2, 3, CV_8UC1, cv::Scalar(118)));
    TImage::updateCfromYChange(Y0, C0, Y1, C1, 0.0f);
    EXPECT_EQ(C1.toMat(0).at<u8>(1, 2), 148);  // rint(128 + 20.0625)
    EXPECT_EQ(C1.toMat(1).at<u8>(1, 2), 108);
    TImage smallY(TImage::Y16U, TSize(4, 3));
    EXPECT_EQ(thrown([&] { TImage::updateCfromYChange(Y0, C0, smallY, C1, 0.0f); }),
              "ERROR - TImage::updateCfromYChange - sizes do not match");
}

}  // namespace
