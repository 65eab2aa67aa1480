// The brush of the mask painter against a plain per-pixel reference of its formulas.
#include <omp.h>

#include <cmath>

#include <gtest/gtest.h>

#include "kestrix1/image/tp_image.h"
#include "kestrix1/mask/t_draw_mask.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using cv::Mat;
using cv::Point;

struct Open : TDrawMask {
    using TDrawMask::m_lut, TDrawMask::m_paint, TDrawMask::m_refPoint;
};

double table(int r, int ri, int d) {
    if (d >= r || d < ri || r == ri) return d < r;  // 0 from r on, else 1 below ri or all
    double const t = double(d - ri) / (r - ri);
    return (std::exp(-2 * t * t) - std::exp(-2.0)) / (1 - std::exp(-2.0));
}

// The dot as written out: every pixel of the square, clipped by an inside test.
Mat reference(Mat m, TPImage const &im, Mat const &Yf, Point c, Point ref, int r, int ri,
              float flow, int gate) {
    ref = {std::clamp(ref.x, 0, m.cols - 1), std::clamp(ref.y, 0, m.rows - 1)};  // held inside
    auto dc = [&](Mat const &p, int x, int y) {  // |Dr - Dr0| or |Db - Db0|
        auto at = [&](int u, int v) { return p.at<std::uint16_t>(v / 2, u / 2) / 65535.0f; };
        return double(std::fabs(at(x, y) - at(ref.x, ref.y)));
    };
    double const v = int(255 * flow);
    for (int y = std::max(0, c.y - r); y <= std::min(m.rows - 1, c.y + r); ++y)
        for (int x = std::max(0, c.x - r); x <= std::min(m.cols - 1, c.x + r); ++x) {
            float const d = std::sqrt(float((x - c.x) * (x - c.x) + (y - c.y) * (y - c.y)));
            float const w = float(table(r, ri, int(d + 0.5f)));
            double const num = 1.5 * std::fabs(Yf.at<float>(y, x) - Yf.at<float>(ref)) +
                               6.0 * (dc(im.m_Dr, x, y) + dc(im.m_Db, x, y));
            double const q = std::min(1.0, num / (gate == 2 ? double(0.1f + w) : w + 0.1));
            double const g = gate ? w * (1 - q * q * (3 - 2 * q)) : w;
            std::uint8_t &p = m.at<std::uint8_t>(y, x);
            p = std::uint8_t(gate ? int(v * g + p * (1.0 - g)) : std::rint(v * g + p * (1.0 - g)));
        }
    return m;
}

struct Brush : ::testing::Test {
    void SetUp() override {
        im.m_Y = kxtest::noise(500, 600, CV_16UC1, 1, 20000, 30000);
        im.m_Dr = kxtest::noise(250, 300, CV_16UC1, 2, 32000, 34000);
        im.m_Db = kxtest::noise(250, 300, CV_16UC1, 3, 31000, 33000);
        o.setInImage(&im, false);
        o.m_paint = kxtest::noise(500, 600, CV_8UC1, 4, 0, 256);
    }
    TPImage im;
    Open o;
};

TEST_F(Brush, TableAndItsError) {
    for (auto [r, ri] : {std::pair{10, 4}, {7, 0}, {5, 5}, {300, 120}}) {
        o.updateLUT(r, ri);
        for (int d : {0, std::max(ri - 1, 0), ri, (r + ri) / 2, r - 1, r, r + 1, 7999})
            EXPECT_FLOAT_EQ(o.m_lut[d], float(table(r, ri, d))) << r << " " << ri << " " << d;
    }
    EXPECT_EQ(kxtest::thrown([&] { o.updateLUT(4, 5); }),
              "ERROR -- TDrawMask::updateLUT - Inner circle is larger than outter circle.");
}

// Dots gated (1: table member, 2: float denominator) and plain, inside and partly off the
// mask, at 1, 2 and 4 threads (the first and third are large enough to take threads).
TEST_F(Brush, DotsMatchTheReference) {
    using Case = std::tuple<Point, int, int, float, int, bool>;  // centre, radii, flow, gate, ref
    for (auto [c, r, ri, flow, gate, useRef] : {Case{{300, 250}, 300, 90, 0.8f, 1, false},
                                                {{150, 120}, 100, 30, 0.6f, 2, true},
                                                {{300, 250}, 300, 0, 1.0f, 0, false},
                                                {{-20, 510}, 60, 10, 0.7f, 1, false},
                                                {{610, -5}, 40, 40, 0.5f, 2, false},
                                                {{590, 3}, 45, 20, 0.9f, 0, false}}) {
        o.m_refPoint = {37, 211};
        Mat const start = o.m_paint.clone();
        Mat const want = reference(start.clone(), im, o.inputY(), c, useRef ? o.m_refPoint : c, r,
                                   ri, flow, gate);
        for (int threads : {1, 2, 4}) {
            omp_set_num_threads(threads);
            start.copyTo(o.m_paint);
            if (gate == 2)
                o.brushMaskDot(255, flow, c, r, ri, true, useRef);
            else
                o.updateLUT(r, ri), o.brushMaskDotLUT(255, flow, c, r, gate, useRef);
            EXPECT_EQ(cv::norm(o.m_paint, want, cv::NORM_INF), 0) << c << gate << " " << threads;
        }
    }
    omp_set_num_threads(omp_get_num_procs());
}

TEST_F(Brush, FlowCoverageGateAndHardDisc) {
    o.m_paint.setTo(0);
    o.brushMaskDot(255, 1.0f, {100, 100}, 20, 5, false, false);
    EXPECT_EQ(o.m_paint.at<std::uint8_t>(100, 100), 255);
    for (int k = 0; k < 3; ++k)  // coverage 1 replaces the pixel: 127 stays
        o.brushMaskDot(255, 0.5f, {100, 100}, 20, 5, false, false);
    EXPECT_EQ(o.m_paint.at<std::uint8_t>(100, 100), 127);
    im.m_Dr.at<std::uint16_t>(3, 4) = 65535;  // a far colour under the picker
    o.m_refPoint = {9, 7};
    o.m_paint.setTo(0);
    o.brushMaskDotLUT(255, 1.0f, {150, 120}, 50, true, true);
    EXPECT_EQ(cv::countNonZero(o.m_paint), 0);
    // Equal radii without the gate: a hard disc of the value itself, flow aside.
    TMaskParam dot({150, 120}, 200, 30, 30, 0.5f, false, false);
    o.drawStrokeDot(false, &dot);
    for (int y = 0; y < 500; ++y)
        for (int x = 0; x < 600; ++x)
            ASSERT_EQ(o.m_paint.at<std::uint8_t>(y, x),
                      (x - 150) * (x - 150) + (y - 120) * (y - 120) <= 900 ? 200 : 0);
}

}  // namespace
