// The 1-D tables against a plain look-up, a plain contrast line and the curves' own splines.
#include "kestrix1/tables/t_lut1d.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "kestrix1/tables/lut_smoothing.h"
#include "kestrix1/tables/t_spline.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::thrown;

template <class Base>
struct Open : Base {
    using Base::Base;
    using Base::lut16U;
    using Base::lut8U;
    int at(int i) const { return this->m_outType == CV_16U ? lut16U()[i] : lut8U()[i]; }
};

int px(cv::Mat const &m, int y, int x) {
    return m.depth() == CV_8U ? m.at<std::uint8_t>(y, x) : m.at<std::uint16_t>(y, x);
}

// The ramp fill: offset + slope i in float, 0 below 0, top from top - 0.5 up, else v + 0.5.
int rampAt(int i, float offset, float slope, int top) {
    float const v = offset + slope * float(i);
    return v >= float(top) - 0.5f ? top : v < 0.0f ? 0 : int(v + 0.5f);
}

// The sweeps of the smoothing in double.
std::vector<double> smoothedReference(std::vector<double> e, double sigma, int passes) {
    double const lambda = sigma * sigma / (2.0 * passes);
    double const nu = (1 + 2 * lambda - std::sqrt(1 + 4 * lambda)) / (2 * lambda);
    int const n = int(e.size());
    for (int k = 0; k < passes; ++k) {
        e[0] /= 1 - nu;
        for (int i = 1; i < n; ++i)
            e[i] += nu * e[i - 1];
        e[n - 1] /= 1 - nu;
        for (int i = n - 1; i > 0; --i)
            e[i - 1] += nu * e[i];
    }
    for (double &v : e)
        v *= std::pow(nu / lambda, passes);
    return e;
}

// The contrast line on n entries: the ramp through (mid, mid) with slope s; codes within t
// of mid take the ramp's value at mid -+ t (a gap, t > 0) or become mid (a dead zone,
// t < 0), with |t| below mid; then two smoothing passes when sigma = |t| smooth exceeds 1.
std::vector<double> lineRef(int n, float s, int t, float smooth) {
    int const mid = n / 2;
    t = std::clamp(t, 1 - mid, mid - 1);
    std::vector<double> e(n);
    for (int i = 0; i < n; ++i) {
        int at = i;
        if (t > 0 && i >= mid - t && i < mid + t) at = i < mid ? mid - t : mid + t;
        e[i] = t < 0 && std::abs(i - mid) <= -t ? mid : rampAt(at, (1 - s) * mid, s, n - 1);
    }
    float const sigma = float(std::abs(t)) * smooth;
    return sigma > 1.0f ? smoothedReference(e, sigma, 2) : e;
}

// Each depth pair against a plain loop on awkward widths, into a destination with a row step
// wider than its rows that must be written in place. (2, 0) indexes with the low byte only.
TEST(TLut1D, ApplyMatchesPlainLookUpAndThrows) {
    for (auto const &pair : {std::array{1, 0}, {0, 1}, {2, 5}, {CV_32F, CV_32F}})
        EXPECT_EQ(thrown([&] { TLut1D(pair[0], pair[1]); }), "ERROR - TLut1D::TLut1D - type");
    for (auto const &[in, out] : {std::pair(0, 0), {0, 2}, {2, 2}, {2, 0}}) {
        Open<TLut1D> lut(in, out);
        for (int b = 0; b < lut.size() * (out == CV_16U ? 2 : 1); ++b)
            lut.lut8U()[b] = std::uint8_t((b * 40503u + 17u) >> 3);
        int const mask = lut.size() == 65536 && out == CV_8U ? 255 : 65535;
        for (cv::Size const size : {cv::Size(1, 5), {7, 3}, {33, 9}, {4099, 2}}) {
            cv::Mat const src = kxtest::noise(size.height, size.width, in, 7, 0, lut.size());
            kxtest::PaddedMat dst(size.height, size.width, out);
            lut.apply(src, dst.view);
            EXPECT_TRUE(dst.paddingIntact());
            for (int y = 0; y < size.height; ++y)
                for (int x = 0; x < size.width; ++x)
                    ASSERT_EQ(px(dst.view, y, x), lut.at(px(src, y, x) & mask)) << in << out << x;
        }
    }
    EXPECT_EQ(thrown([] { TLut1D(2, 2).apply(cv::Mat(3, 3, CV_8U), cv::Mat()); }),
              "ERROR - TLut1D::apply - src.depth() is not the table's input type");
    EXPECT_EQ(thrown([] { TLut1D(2, 2).apply(cv::Mat(), cv::Mat()); }), "(nothing thrown)");
}

// Slope s and zone t by hand: c' = c + (1.5 - c) a / 1.5 (8 bits: c + (1 - c) a), s = 1 +
// 5 c' or 1 + c', t = trunc(d' range / max(s, 1)). A negative threshold or offset acts with
// 0.4 of its value in 16 bits. A sigma of exactly 1 does not smooth.
TEST(TLut16U, ContrastLineByHand) {
    struct Line {
        bool bytes;
        int range;
        float smooth, a, b, c, d, s;
        int t;
    } const lines[] = {
        {false, 8191, 0, -0.75f, 0, 0.3f, -1, 1 + (0.3f + (1.5f + 0.3f) * -0.75f / 1.5f), -3276},
        {false, 8191, 0, 0.5f, 0, 0.3f, 0, 1 + 5 * (0.3f + 1.2f * 0.5f / 1.5f), 0},
        {false, 8191, 0, 0, 0, 1, 1, 6, 1365},            // 8191 / 6
        {false, 8191, 0, 0, -1, 0, 0.5f, 1, -273},        // d' = 0.5 - 2 x 0.4 / 1.5
        {false, 8191, 0, 0, 0, -0.5f, 0.5f, 0.5f, 4095},  // no widening below s = 1
        {false, 1000000, 0, 0, 0, 0, 1, 1, 1000000},      // kept inside the table
        {false, 8191, 0.35f, 0, 0, 0.5f, 0.5f, 3.5f, 1170},
        {true, 10, 0.5f, 0, 0, 0, 0.2f, 1, 2},
        {true, 10, 0.51f, 0, 0, 0, 0.2f, 1, 2},
        {true, 10, 0, -0.5f, -0.5f, 0.2f, -0.2f, 1 + (0.2f + 1.2f * -0.5f), -6},  // d' = -0.6
        {true, 10, 0, 0.5f, 0, 0, 0, 3.5f, 0},
    };
    std::vector<double> const gap = lineRef(65536, 6, 1365, 0);  // the gap's ends
    EXPECT_TRUE(gap[32767] == 24578 && gap[32768] == 40958);
    Open<TLut16U> lut16;
    Open<TLut8U> lut8, copy(lut8);  // copies share the table
    auto check = [](auto &lut, Line const &k) {
        lut.setKRange(0, 6, k.range, k.smooth);
        lut.setupLinearThreshold(k.a, k.b, k.c, k.d);
        std::vector<double> const want = lineRef(lut.size(), k.s, k.t, k.smooth);
        double const tol = std::abs(k.t) * k.smooth > 1 ? 1.5 : 0;  // float sweeps, rounded
        for (int i = 0; i < lut.size(); ++i)
            ASSERT_LE(std::abs(lut.at(i) - want[i]), tol) << k.s << " t " << k.t << " at " << i;
    };
    for (Line const &k : lines)
        k.bytes ? check(lut8, k) : check(lut16, k);
    EXPECT_EQ(copy.at(129), 132);  // 128 + 3.5 rounded up, from the last line
    // The smoothing does nothing without a row, width, sigma or passes.
    std::vector<std::uint16_t> same = {1, 900, 3};
    smoothTable(same.data(), 3, 0.0f, 2);
    smoothTable(same.data(), 3, 5.0f, 0);
    smoothTable(same.data(), 0, 5.0f, 2);
    smoothTable(static_cast<std::uint8_t *>(nullptr), 3, 5.0f, 2);
    EXPECT_EQ(same, (std::vector<std::uint16_t>{1, 900, 3}));
}

// The light curve against the spline through its five points, read linearly after the line.
// For (0, 0, 0) the black-to-white curve leaves the origin flat up to P1 = (0.025, 0.025); from
// knot k on, the table follows Lagrange's cubic through knots k - 1..k + 2, exact at k.
TEST(TLut16U, LightAndBlackMedToneWhiteCurves) {
    Open<TLut16U> lut;
    float const a = 0.3f, b = 0.4f, c = 0.8f, d = -0.6f, *curve = lut.curve();
    lut.setupLightAdjust(a, b, c, d);
    TSpline s(5);
    s.setCtrPoint(1, 0.25f, (0.5f + 0.35f * c) * 0.5f);
    s.setCtrPoint(3, 0.75f, 1 - (0.5f - 0.35f * d) * 0.5f);
    s.update();
    for (int i = 0; i < 64; ++i)
        ASSERT_FLOAT_EQ(curve[i], std::clamp(s.value(i / 63.0f), 0.0f, 1.0f)) << i;
    float const slope = 1 + 5 * b, offset = (1 - slope) * 32768 + 13106.8f * a;
    for (int i : {0, 1, 12345, 32768, 50000, 65535}) {
        double const v = rampAt(i, offset, slope, 65535) / 65535.0 * 63;
        int const lo = int(v), hi = std::min(lo + 1, 63);
        double const want = ((lo + 1 - v) * curve[lo] + (v - lo) * curve[hi]) * 65535;
        EXPECT_NEAR(lut.at(i), std::clamp(want, 0.0, 65535.0), 1.0) << i;
    }

    lut.setupBlackMedToneWhiteAdjust(0, 0, 0);
    float const u = (1 / 63.0f) / 0.025f;
    EXPECT_EQ(curve[0], 0.0f);
    EXPECT_NEAR(curve[1], 0.025f * (2 * u * u - u * u * u), 1e-6f);
    auto knot = [](int i) { return int(65535.5 * (i / 63.0f)); };  // knot i's code
    for (auto const &[black, med, white] :
         {std::array{0.5f, 0.3f, 0.4f}, {-1, -0.5f, -1}, {1, -1, 1}, {-0.3f, 0.8f, 0.6f}}) {
        lut.setupBlackMedToneWhiteAdjust(black, med, white);
        for (int k = 0; k < 63; ++k) {
            int const j = std::clamp(k - 1, 0, 60);
            for (int code = knot(k); code < knot(k + 1); code += 97) {
                double v = 0.5;
                for (int q = 0; q < 4; ++q) {
                    double w = int(65535.5 * curve[j + q]);
                    for (int r = 0; r < 4; ++r)
                        if (r != q) w *= double(code - knot(j + r)) / (knot(j + q) - knot(j + r));
                    v += w;
                }
                double const want = std::clamp(std::floor(v), 0.0, 65535.0);
                ASSERT_NEAR(lut.at(code), want, code == knot(k) ? 0 : 1) << code;
            }
        }
        EXPECT_EQ(lut.at(65535), 65535);
    }
}

}  // namespace
