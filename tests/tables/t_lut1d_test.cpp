// The one-dimensional tables: apply against a plain look-up, the error texts, the contrast
// line against a plain fill with slopes and zones worked out by hand, the two curves, and
// the table smoothing against plain double-precision sweeps and their moments.
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
    std::vector<int> entries() const {
        std::vector<int> e(this->size());
        for (int i = 0; i < this->size(); ++i)
            e[i] = at(i);
        return e;
    }
};

int px(cv::Mat const &m, int y, int x) {
    return m.depth() == CV_8U ? m.at<std::uint8_t>(y, x) : m.at<std::uint16_t>(y, x);
}

// The ramp fill: offset + slope i in float, 0 below 0, top from top - 0.5 up, else
// truncation of value + 0.5.
int rampAt(int i, float offset, float slope, int top) {
    float const v = offset + slope * float(i);
    return v >= float(top) - 0.5f ? top : v < 0.0f ? 0 : int(v + 0.5f);
}

// The contrast line on n entries: the ramp through (mid, mid) with slope s; codes within t
// of mid take the ramp's value at mid -+ t (a gap, t > 0) or become mid (a dead zone,
// t < 0), with |t| below mid; then two smoothing passes when sigma = |t| smooth exceeds 1.
template <class T>
std::vector<int> lineRef(int n, float s, int t, float smooth) {
    int const mid = n / 2;
    t = std::clamp(t, 1 - mid, mid - 1);
    std::vector<T> e(n);
    for (int i = 0; i < n; ++i) {
        int at = i;
        if (t > 0 && i >= mid - t && i < mid) at = mid - t;
        if (t > 0 && i >= mid && i < mid + t) at = mid + t;
        e[i] = T(t < 0 && std::abs(i - mid) <= -t ? mid : rampAt(at, (1 - s) * mid, s, n - 1));
    }
    float const sigma = float(std::abs(t)) * smooth;
    if (sigma > 1.0f) smoothTable(e.data(), n, sigma, 2);
    return {e.begin(), e.end()};
}

TEST(TLut1D, TypeErrors) {
    for (auto const &pair : {std::array{1, 0}, {0, 1}, {2, 5}, {CV_32F, CV_32F}})
        EXPECT_EQ(thrown([&] { TLut1D(pair[0], pair[1]); }), "ERROR - TLut1D::TLut1D - type");
    TLut1D lut(2, 2);
    cv::Mat out;
    EXPECT_EQ(thrown([&] { lut.apply(cv::Mat(3, 3, CV_8U), out); }),
              "ERROR - TLut1D::apply - src.depth() is not the table's input type");
    EXPECT_EQ(thrown([&] { lut.apply(cv::Mat(), out); }), "(nothing thrown)");
    EXPECT_TRUE(out.empty());
}

// Each depth pair against a plain loop, on awkward widths and on a destination with a row
// step wider than its rows, which must be written in place. The (2, 0) pair indexes with
// the low byte only. In place and between copies, the table is one.
TEST(TLut1D, ApplyMatchesPlainLookUp) {
    for (auto const &[in, out] : {std::pair(0, 0), {0, 2}, {2, 2}, {2, 0}}) {
        Open<TLut1D> lut(in, out);
        for (int b = 0; b < lut.size() * (out == CV_16U ? 2 : 1); ++b)
            lut.lut8U()[b] = std::uint8_t((b * 40503u + 17u) >> 3);
        int const mask = lut.size() == 65536 && out == CV_8U ? 255 : 65535;
        for (cv::Size const size : {cv::Size(1, 5), {7, 3}, {33, 9}, {4099, 2}}) {
            cv::Mat const src = kxtest::noise(size.height, size.width, in, 7, 0, lut.size());
            kxtest::PaddedMat dst(size.height, size.width, out);
            cv::Mat const view = dst.view;
            lut.apply(src, dst.view);
            EXPECT_TRUE(view.data == dst.view.data && dst.paddingIntact());
            for (int y = 0; y < size.height; ++y)
                for (int x = 0; x < size.width; ++x)
                    ASSERT_EQ(px(view, y, x), lut.at(px(src, y, x) & mask)) << in << out << x;
        }
        // A destination of another type gets fresh pixels inside apply; the caller's
        // header, passed by value, keeps its own pixels untouched.
        cv::Mat other(2, 2, CV_32F, cv::Scalar(-1.0f));
        lut.apply(kxtest::ramp(4, 6, in), other);
        EXPECT_EQ(cv::countNonZero(other != -1.0f), 0);
    }

    Open<TLut1D> a(2, 2), b(0, 0);
    for (int i = 0; i < 65536; ++i)
        a.lut16U()[i] = std::uint16_t(65535 - i);
    cv::Mat m = kxtest::ramp(3, 40, CV_16U);
    cv::Mat const before = m.clone();
    a.apply(m);
    EXPECT_EQ(cv::norm(m, 65535 - before, cv::NORM_INF), 0.0);
    {
        Open<TLut1D> c(2, 2);
        b = c;
        c.lut16U()[5] = 4242;
    }
    EXPECT_EQ(b.inType(), 2);
    EXPECT_EQ(b.at(5), 4242);
}

// Slope s and zone t by hand: c' = c + (1.5 - c) a / 1.5 (8 bits: c + (1 - c) a), s = 1 +
// (kHigh - 1) c' or 1 + c', t = trunc(d' range / max(s, 1)). A negative threshold or offset
// acts with 0.4 of its value in 16 bits. A sigma of exactly 1 does not smooth.
TEST(TLut16U, ContrastLineByHand) {
    struct Line {
        int n;
        float kHigh;
        int range;
        float smooth, a, b, c, d, s;
        int t;
    } const lines[] = {
        {65536, 6, 8191, 0, 0, 0, 0, 0, 1, 0},
        {65536, 6, 8191, 0, 0.75f, 0, 0, 0, 4.75f, 0},
        {65536, 6, 8191, 0, -0.75f, 0, 0, 0, 0.25f, 0},
        {65536, 6, 8191, 0, 0, 0, -1, 0, 0, 0},
        {65536, 6, 8191, 0, 0.5f, 0, 0.3f, 0, 1 + 5 * (0.3f + 1.2f * 0.5f / 1.5f), 0},
        {65536, 6, 8191, 0, 0, 0, 1, 1, 6, 1365},            // 8191 / 6
        {65536, 5, 9830, 0, 0, 0, 1, 1, 5, 1966},            // 9830 / 5
        {65536, 6, 8191, 0, 0, 0, 0, -1, 1, -3276},          // -0.4 x 8191
        {65536, 6, 8191, 0, 0, -1, 0, 0.5f, 1, -273},        // d' = 0.5 - 2 x 0.4 / 1.5
        {65536, 6, 8191, 0, 0, 0, -0.5f, 0.5f, 0.5f, 4095},  // no widening below s = 1
        {65536, 6, 1000000, 0, 0, 0, 0, 1, 1, 1000000},      // kept inside the table
        {65536, 6, 1000000, 0, 0, 0, 0, -1, 1, -400000},
        {65536, 6, 8191, 0.35f, 0, 0, 0.5f, 0.5f, 3.5f, 1170},
        {256, 6, 10, 0.5f, 0, 0, 0, 0.2f, 1, 2},
        {256, 6, 10, 0.51f, 0, 0, 0, 0.2f, 1, 2},
        {256, 6, 10, 0, 0, -0.5f, 0, -0.2f, 1, -6},  // d' = -0.2 - 0.4
        {256, 6, 10, 0, 0.5f, 0, 0, 0, 3.5f, 0},
        {256, 6, 10, 0, -0.5f, 0, 0, 0, 0.5f, 0},
    };
    // The gap's ends for s = 6, t = 1365.
    EXPECT_EQ(lineRef<std::uint16_t>(65536, 6, 1365, 0)[32767], 24578);
    EXPECT_EQ(lineRef<std::uint16_t>(65536, 6, 1365, 0)[32768], 40958);
    Open<TLut16U> lut16;
    Open<TLut8U> lut8;
    for (Line const &k : lines) {
        bool const bytes = k.n == 256;
        if (bytes) {
            lut8.setKRange(0, k.kHigh, k.range, k.smooth);
            lut8.setupLinearThreshold(k.a, k.b, k.c, k.d);
        } else {
            lut16.setKRange(0, k.kHigh, k.range, k.smooth);
            lut16.setupLinearThreshold(k.a, k.b, k.c, k.d);
        }
        std::vector<int> const got = bytes ? lut8.entries() : lut16.entries();
        std::vector<int> const want = bytes ? lineRef<std::uint8_t>(256, k.s, k.t, k.smooth)
                                            : lineRef<std::uint16_t>(65536, k.s, k.t, k.smooth);
        auto const bad = std::mismatch(got.begin(), got.end(), want.begin()).first;
        EXPECT_TRUE(bad == got.end()) << "s " << k.s << " t " << k.t << " at " << bad - got.begin();
    }
    // The ranges take effect at the next setup only; copies share the table.
    std::vector<int> const before = lut16.entries();
    lut16.setKRange(0.0f, 5.0f, 9830, 0.0f);
    EXPECT_TRUE(lut16.entries() == before);
    Open<TLut8U> copy(lut8);
    lut8.setupLinearThreshold(0, 0, 0, 0.2f);
    EXPECT_EQ(copy.at(129), 130);
}

TEST(TLut16U, LightAdjust) {
    Open<TLut16U> lut;
    for (auto const &[a, b, c, d] : {std::array<float, 4>{}, {0.3f, 0.4f, 0.8f, -0.6f}}) {
        lut.setupLightAdjust(a, b, c, d);
        std::vector<int> const e = lut.entries();
        TSpline s(5);
        s.setCtrPoint(1, 0.25f, (0.5f + 0.35f * c) * 0.5f);
        s.setCtrPoint(3, 0.75f, 1 - (0.5f - 0.35f * d) * 0.5f);
        s.update();
        double curve[64];
        for (int i = 0; i < 64; ++i) {
            curve[i] = std::clamp(double(s.value(i / 63.0f)), 0.0, 1.0);
            ASSERT_FLOAT_EQ(lut.curve()[i], float(curve[i])) << i;
        }
        float const slope = 1 + 5 * b, offset = (1 - slope) * 32768 + 13106.8f * a;
        for (int i : {0, 1, 1000, 12345, 20000, 32768, 40000, 50000, 60000, 65535}) {
            double const v = rampAt(i, offset, slope, 65535) / 65535.0 * 63;
            int const lo = int(v), hi = std::min(lo + 1, 63);
            double const want = ((lo + 1 - v) * curve[lo] + (v - lo) * curve[hi]) * 65535;
            EXPECT_NEAR(e[i], std::clamp(want, 0.0, 65535.0), 1.0) << i;
        }
    }
    EXPECT_EQ(lut.at(65535), 65535);
}

// The curve through P0..P4 for (0, 0, 0): the diagonal, except that it leaves the origin
// flat up to P1 = (0.025, 0.025). The table passes through every (level, target) knot and
// follows the cubic through the four knots around each interval.
TEST(TLut16U, BlackMedToneWhite) {
    Open<TLut16U> lut;
    lut.setupBlackMedToneWhiteAdjust(0, 0, 0);
    float const *curve = lut.curve(), u = (1 / 63.0f) / 0.025f;
    EXPECT_EQ(curve[0], 0.0f);
    EXPECT_NEAR(curve[1], 0.025f * (2 * u * u - u * u * u), 1e-6f);
    for (int i = 2; i < 64; ++i)
        EXPECT_NEAR(curve[i], i / 63.0f, 1e-6f) << i;

    std::array<float, 3> const settings[] = {{},        {0.5f, 0.3f, 0.4f}, {-1, -0.5f, -1},
                                             {1, 1, 1}, {1, -1, 1},         {-0.3f, 0.8f, 0.6f}};
    for (auto const &[black, med, white] : settings) {
        lut.setupBlackMedToneWhiteAdjust(black, med, white);
        std::vector<int> const e = lut.entries();
        int levels[64], targets[64];
        for (int i = 0; i < 64; ++i) {
            ASSERT_TRUE(curve[i] >= 0.0f && curve[i] <= 1.0f);
            levels[i] = int(65535.5 * (i / 63.0f));
            targets[i] = int(65535.5 * curve[i]);
            ASSERT_EQ(e[levels[i]], i < 63 ? targets[i] : 65535) << black << " knot " << i;
        }
        // Between knots: Lagrange's cubic through knots j..j+3, j = k - 1 limited to 0..60.
        for (int code = 0, k = 0; code < 65535; code += 97) {
            while (levels[k + 1] <= code)
                ++k;
            int const j = std::clamp(k - 1, 0, 60);
            double v = 0;
            for (int q = 0; q < 4; ++q) {
                double w = targets[j + q];
                for (int r = 0; r < 4; ++r)
                    if (r != q) w *= double(code - levels[j + r]) / (levels[j + q] - levels[j + r]);
                v += w;
            }
            ASSERT_NEAR(e[code], std::clamp(v + 0.5, 0.0, 65535.0), 1.0) << code;
        }
    }
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

// An impulse spreads with variance sigma^2 and keeps its mass, every entry within a code
// of the double sweeps; 8-bit rows round to the nearest code; a constant row stays.
TEST(TableSmoothing, MatchesReferenceAndMoments) {
    int const n = 4001, centre = 2000;
    for (int passes : {1, 2, 3}) {
        std::vector<std::uint16_t> row(n, 0);
        row[centre] = 60000;
        std::vector<double> const ref =
            smoothedReference(std::vector<double>(row.begin(), row.end()), 20.0, passes);
        smoothTable(row.data(), n, 20.0f, passes);
        double mass = 0, mean = 0, var = 0;
        for (int i = 0; i < n; ++i) {
            ASSERT_NEAR(row[i], ref[i], 1.0) << i;
            mass += row[i];
            mean += double(i) * row[i];
            var += double(i - centre) * (i - centre) * row[i];
        }
        EXPECT_NEAR(mass, 60000, 60);
        EXPECT_NEAR(mean / mass, centre, 0.01);
        EXPECT_NEAR(var / mass, 400, 8) << passes;
    }

    std::vector<std::uint8_t> bytes(256);
    for (int i = 0; i < 256; ++i)
        bytes[i] = std::uint8_t(i);
    std::vector<double> const ref =
        smoothedReference(std::vector<double>(bytes.begin(), bytes.end()), 6.0, 2);
    smoothTable(bytes.data(), 256, 6.0f, 2);
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(bytes[i], std::clamp(std::nearbyint(ref[i]), 0.0, 255.0)) << i;

    // Nothing happens without a row, width, sigma or passes.
    std::vector<std::uint16_t> flat(1001, 40000), same = {1, 900, 3};
    smoothTable(flat.data(), 1001, 50.0f, 2);
    EXPECT_EQ(std::count(flat.begin(), flat.end(), 40000), 1001);
    smoothTable(same.data(), 3, 0.0f, 2);
    smoothTable(same.data(), 3, 5.0f, 0);
    smoothTable(same.data(), 0, 5.0f, 2);
    smoothTable(static_cast<std::uint16_t *>(nullptr), 3, 5.0f, 2);
    EXPECT_EQ(same, (std::vector<std::uint16_t>{1, 900, 3}));
}

}  // namespace
