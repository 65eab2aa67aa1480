// Tests of the one-dimensional tables: the four depth pairs of apply against a plain loop,
// the error texts, the table shapes at codes computed here from their formulas, and the
// recursive table smoothing against a plain double-precision sweep and its moments.
#include "kestrix1/tables/t_lut1d.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "kestrix1/tables/lut_smoothing.h"
#include "kestrix1/tables/t_spline.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::thrown;

// Open the table to the tests.
struct Lut : TLut1D {
    using TLut1D::lut16U;
    using TLut1D::lut8U;
    using TLut1D::TLut1D;
};
struct Lut16 : TLut16U {
    using TLut16U::TLut16U;
    std::uint16_t operator[](int i) const { return lut16U()[i]; }
    std::vector<int> entries() const { return {lut16U(), lut16U() + 65536}; }
};
struct Lut8 : TLut8U {
    using TLut8U::TLut8U;
    int operator[](int i) const { return lut8U()[i]; }
};

// The ramp fill: offset + slope i in float, 0 below 0, top from top - 0.5 up, else
// truncation of value + 0.5.
int rampAt(int i, float offset, float slope, int top) {
    float const v = offset + slope * float(i);
    if (v >= float(top) - 0.5f) return top;
    if (v < 0.0f) return 0;
    return int(v + 0.5f);
}

char const kType[] = "ERROR - TLut1D::TLut1D - type";

TEST(TLut1D, TypeErrors) {
    EXPECT_EQ(thrown([] { TLut1D(1, 0); }), kType);
    EXPECT_EQ(thrown([] { TLut1D(0, 1); }), kType);
    EXPECT_EQ(thrown([] { TLut1D(2, 5); }), kType);
    EXPECT_EQ(thrown([] { TLut1D(CV_32F, CV_32F); }), kType);
    EXPECT_EQ(thrown([] { TLut1D(0, 2); }), "(nothing thrown)");

    TLut1D lut(2, 2);
    cv::Mat wrong(3, 3, CV_8U, cv::Scalar(1)), out;
    EXPECT_EQ(thrown([&] { lut.apply(wrong, out); }),
              "ERROR - TLut1D::apply - src.depth() is not the table's input type");
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(thrown([&] { lut.apply(cv::Mat(), out); }), "(nothing thrown)");
    EXPECT_TRUE(out.empty());
}

// Each depth pair against a plain loop, on awkward widths and on a destination with a row
// step wider than its rows, which must be written in place. The (2, 0) pair indexes with
// the low byte only.
TEST(TLut1D, ApplyMatchesPlainLookUp) {
    struct Pair {
        int in, out;
    };
    for (Pair const p : {Pair{0, 0}, Pair{0, 2}, Pair{2, 2}, Pair{2, 0}}) {
        Lut lut(p.in, p.out);
        int const n = lut.size();
        for (int i = 0; i < n; ++i) {
            unsigned const v = (i * 40503u + 17u) >> 3;
            if (p.out == CV_16U)
                lut.lut16U()[i] = std::uint16_t(v);
            else
                lut.lut8U()[i] = std::uint8_t(v);
        }
        for (cv::Size const size :
             {cv::Size(1, 5), cv::Size(7, 3), cv::Size(33, 9), cv::Size(4099, 2)}) {
            cv::Mat const src =
                kxtest::noise(size.height, size.width, p.in, 7, 0, p.in == CV_8U ? 256 : 65536);
            kxtest::PaddedMat dst(size.height, size.width, p.out);
            cv::Mat const view = dst.view;
            lut.apply(src, dst.view);
            EXPECT_EQ(view.data, dst.view.data);
            EXPECT_TRUE(dst.paddingIntact());
            for (int y = 0; y < size.height; ++y)
                for (int x = 0; x < size.width; ++x) {
                    int const s =
                        p.in == CV_8U ? src.at<std::uint8_t>(y, x) : src.at<std::uint16_t>(y, x);
                    int const index = p.in == CV_16U && p.out == CV_8U ? (s & 255) : s;
                    int const want = p.out == CV_16U ? lut.lut16U()[index] : lut.lut8U()[index];
                    int const got = p.out == CV_16U ? dst.view.at<std::uint16_t>(y, x)
                                                    : dst.view.at<std::uint8_t>(y, x);
                    ASSERT_EQ(got, want) << p.in << "," << p.out << " at " << x << "," << y;
                }
        }
        // A destination of another type or size gets fresh pixels inside apply; the
        // caller's header, passed by value, keeps its own pixels untouched.
        cv::Mat const src = kxtest::ramp(4, 6, p.in);
        cv::Mat out(2, 2, CV_32F, cv::Scalar(-1.0f));
        lut.apply(src, out);
        EXPECT_EQ(out.type(), CV_32F);
        EXPECT_EQ(cv::countNonZero(out != -1.0f), 0);
    }
}

TEST(TLut1D, InPlaceAndSharedTables) {
    Lut a(2, 2);
    for (int i = 0; i < 65536; ++i)
        a.lut16U()[i] = std::uint16_t(65535 - i);
    cv::Mat m = kxtest::ramp(3, 40, CV_16U);
    cv::Mat const before = m.clone();
    a.apply(m);
    for (int x = 0; x < 40; ++x)
        EXPECT_EQ(m.at<std::uint16_t>(2, x), 65535 - before.at<std::uint16_t>(2, x));

    // Copies share one table, which outlives the object it came from.
    Lut b(0, 0);
    {
        Lut c(2, 2);
        b = c;
        c.lut16U()[5] = 4242;
    }
    EXPECT_EQ(b.inType(), 2);
    EXPECT_EQ(b.lut16U()[5], 4242);
}

// ---- the contrast line -------------------------------------------------------------------

TEST(TLut16U, LinearThresholdWithoutZone) {
    Lut16 lut;
    lut.setupLinearThreshold(0, 0, 0, 0);
    for (int i = 0; i < 65536; ++i)
        ASSERT_EQ(lut[i], i);
    // The gain offset bends the gain towards +-1.5: c' = 0.75 gives 1 + 5 x 0.75, c' = -0.75
    // gives 1 - 0.75.
    struct Case {
        float a, c, s;
    };
    for (Case const k :
         {Case{0.75f, 0.0f, 4.75f}, Case{-0.75f, 0.0f, 0.25f}, Case{0.0f, -1.0f, 0.0f},
          Case{0.5f, 0.3f, 1.0f + 5.0f * (0.3f + 1.2f * 0.5f / 1.5f)}}) {
        lut.setupLinearThreshold(k.a, 0, k.c, 0);
        for (int i : {0, 1, 20000, 32767, 32768, 32769, 40000, 65535})
            EXPECT_EQ(lut[i], rampAt(i, (1 - k.s) * 32768, k.s, 65535)) << k.a << " " << i;
    }
}

// With smoothing off, the gap and the dead zone show exactly: s = 6 and d' = 1 on a range
// of 8191 give t = 1365; a negative threshold acts with 0.4 of its value.
TEST(TLut16U, LinearThresholdGapAndDeadZone) {
    Lut16 lut(0.0f, 6.0f, 8191, 0.0f);
    lut.setupLinearThreshold(0, 0, 1, 1);
    int const t = 1365, lo = rampAt(32768 - t, -5 * 32768.0f, 6, 65535),
              hi = rampAt(32768 + t, -5 * 32768.0f, 6, 65535);
    EXPECT_EQ(lo, 24578);
    EXPECT_EQ(hi, 40958);
    for (int i = 0; i < 65536; ++i) {
        int const want = i >= 32768 - t && i < 32768   ? lo
                         : i >= 32768 && i < 32768 + t ? hi
                                                       : rampAt(i, -5 * 32768.0f, 6, 65535);
        ASSERT_EQ(lut[i], want) << i;
        ASSERT_FALSE(lut[i] > lo && lut[i] < hi) << i;
    }

    // Dead zone: d = -1 becomes -0.4, t = trunc(-0.4 x 8191) = -3276.
    lut.setupLinearThreshold(0, 0, 0, -1);
    for (int i = 0; i < 65536; ++i)
        ASSERT_EQ(lut[i], std::abs(i - 32768) <= 3276 ? 32768 : i) << i;

    // A negative offset also acts with 0.4: d' = 0.5 + 2 x (-0.4) / 1.5.
    lut.setupLinearThreshold(0, -1, 0, 0.5f);
    float const dp = 0.5f + (1.5f + 0.5f) * float(0.4 * -1.0) / 1.5f;
    int const w = -int(dp * 8191.0f);
    EXPECT_EQ(w, 273);
    std::vector<int> const e = lut.entries();
    EXPECT_EQ(std::count(e.begin(), e.end(), 32768), 2 * w + 1);
    EXPECT_EQ(lut[32768 - w - 1], 32768 - w - 1);

    // A gain below 1 does not widen the zone: s = 0.5, t = trunc(0.5 x 8191) = 4095.
    lut.setupLinearThreshold(0, 0, -0.5f, 0.5f);
    EXPECT_EQ(lut[32768], rampAt(32768 + 4095, 0.5f * 32768, 0.5f, 65535));
    EXPECT_EQ(lut[32768 + 4095], lut[32768]);
    EXPECT_EQ(lut[32768 + 4096], rampAt(32768 + 4096, 0.5f * 32768, 0.5f, 65535));

    // A threshold range beyond half the table stays inside it.
    lut.setKRange(0.0f, 6.0f, 1000000, 0.0f);
    lut.setupLinearThreshold(0, 0, 0, 1);
    EXPECT_EQ(lut[1], 1);
    EXPECT_EQ(lut[32767], 1);
    EXPECT_EQ(lut[32768], 65535);
}

// setKRange takes effect at the next setup only; with smoothing on, the step is softened
// symmetrically and the table still rises.
TEST(TLut16U, RangesAndSmoothedStep) {
    Lut16 lut;
    lut.setupLinearThreshold(0, 0, 1, 1);
    std::vector<int> const before = lut.entries();
    lut.setKRange(0.0f, 5.0f, 9830, 0.0f);
    EXPECT_EQ(lut.entries(), before);
    lut.setupLinearThreshold(0, 0, 1, 1);
    int const t = 9830 / 5;
    EXPECT_EQ(lut[32768], rampAt(32768 + t, -4 * 32768.0f, 5, 65535));
    EXPECT_EQ(lut[32767], rampAt(32768 - t, -4 * 32768.0f, 5, 65535));

    lut.setKRange(0.0f, 6.0f, 8191, 0.35f);
    lut.setupLinearThreshold(0, 0, 0.5f, 0.5f);
    EXPECT_NE(lut.entries(), before);
    for (int i = 1; i < 65536; ++i)
        ASSERT_GE(lut[i], lut[i - 1]) << i;
    for (int k = 0; k < 30000; k += 7)
        ASSERT_NEAR(lut[32768 + k] + lut[32767 - k], 65535, 2) << k;
    // The step of 2 x 1170 x 3.5 codes is spread over a Gaussian of sigma 409.
    int jump = 0;
    for (int i = 1; i < 65536; ++i)
        jump = std::max(jump, lut[i] - lut[i - 1]);
    EXPECT_LE(jump, 4 + 8190 / 1000);
}

// The 8-bit line bends towards +-1 without damping; a sigma of exactly 1 does not smooth.
TEST(TLut8U, LinearThreshold) {
    Lut8 lut(0.0f, 6.0f, 10, 0.5f);
    lut.setupLinearThreshold(0, 0, 0, 0.2f);  // t = 2, sigma = 1
    for (int i = 0; i < 256; ++i) {
        int const want = i == 128 || i == 129 ? 130 : i == 126 || i == 127 ? 126 : i;
        ASSERT_EQ(lut[i], want) << i;
    }
    lut.setKRange(0.0f, 6.0f, 10, 0.0f);
    lut.setupLinearThreshold(0, -0.5f, 0, -0.2f);  // d' = -0.2 - 0.4 = -0.6, t = -6
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(lut[i], std::abs(i - 128) <= 6 ? 128 : i) << i;
    lut.setupLinearThreshold(0.5f, 0, 0, 0);  // c' = 0.5, s = 3.5
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(lut[i], rampAt(i, -2.5f * 128, 3.5f, 255)) << i;

    Lut8 soft(0.0f, 6.0f, 10, 0.51f);
    soft.setupLinearThreshold(0, 0, 0, 0.2f);
    EXPECT_NE(soft[128], 130);
    // A copy shares the table and the ranges.
    Lut8 copy(soft);
    soft.setupLinearThreshold(0, 0, 0, 0);
    EXPECT_EQ(copy[128], 128);
}

// ---- light and black / mid-tone / white curves ----------------------------------------------

TEST(TLut16U, LightAdjust) {
    Lut16 lut;
    lut.setupLightAdjust(0, 0, 0, 0);
    EXPECT_EQ(lut[0], 0);
    EXPECT_EQ(lut[65535], 65535);
    for (int i = 0; i < 65536; ++i)
        ASSERT_NEAR(lut[i], i, 1) << i;

    float const a = 0.3f, b = 0.4f, c = 0.8f, d = -0.6f;
    lut.setupLightAdjust(a, b, c, d);
    TSpline s(5);
    s.setCtrPoint(1, 0.25f, (0.5f + 0.35f * c) * 0.5f);
    s.setCtrPoint(3, 0.75f, 1 - (0.5f - 0.35f * d) * 0.5f);
    s.update();
    double curve[64];
    for (int i = 0; i < 64; ++i) {
        curve[i] = std::clamp(double(s.value(i / 63.0f)), 0.0, 1.0);
        ASSERT_FLOAT_EQ(lut.curve()[i], float(curve[i])) << i;
    }
    float const slope = 1 + 5 * b;
    for (int i : {0, 1, 1000, 12345, 20000, 32768, 40000, 50000, 60000, 65535}) {
        double const v = rampAt(i, (1 - slope) * 32768 + 13106.8f * a, slope, 65535) / 65535.0 * 63;
        int const lo = int(v), hi = std::min(lo + 1, 63);
        double const want = ((lo + 1 - v) * curve[lo] + (v - lo) * curve[hi]) * 65535;
        EXPECT_NEAR(lut[i], std::clamp(want, 0.0, 65535.0), 1.0) << i;
    }
}

// The curve through P0..P4 for (0, 0, 0): the diagonal, except that it leaves the origin
// flat up to P1 = (0.025, 0.025). The table passes through every (level, target) knot and
// follows the cubic through the four knots around each interval.
TEST(TLut16U, BlackMedToneWhite) {
    Lut16 lut;
    lut.setupBlackMedToneWhiteAdjust(0, 0, 0);
    float const *curve = lut.curve();
    EXPECT_EQ(curve[0], 0.0f);
    float const u = (1 / 63.0f) / 0.025f;
    EXPECT_NEAR(curve[1], 0.025f * (2 * u * u - u * u * u), 1e-6f);
    for (int i = 2; i < 64; ++i)
        EXPECT_NEAR(curve[i], i / 63.0f, 1e-6f) << i;

    struct Setting {
        float black, med, white;
    };
    for (Setting const k : {Setting{0, 0, 0}, Setting{0.5f, 0.3f, 0.4f}, Setting{-1, -0.5f, -1},
                            Setting{1, 1, 1}, Setting{-0.3f, 0.8f, 0.6f}}) {
        lut.setupBlackMedToneWhiteAdjust(k.black, k.med, k.white);
        int levels[64], targets[64];
        for (int i = 0; i < 64; ++i) {
            float const t = i / 63.0f;
            ASSERT_GE(lut.curve()[i], 0.0f);
            ASSERT_LE(lut.curve()[i], 1.0f);
            levels[i] = int(65535.5 * t);
            targets[i] = int(65535.5 * lut.curve()[i]);
        }
        EXPECT_EQ(lut[65535], 65535);
        for (int i = 0; i < 63; ++i)
            ASSERT_EQ(lut[levels[i]], targets[i]) << k.black << " knot " << i;
        // Between knots: Lagrange's cubic through knots j..j+3, j = k - 1 limited to 0..60.
        for (int code = 0; code < 65535; code += 97) {
            int iv = 0;
            while (levels[iv + 1] <= code)
                ++iv;
            int const j = std::clamp(iv - 1, 0, 60);
            double v = 0;
            for (int q = 0; q < 4; ++q) {
                double w = targets[j + q];
                for (int r = 0; r < 4; ++r)
                    if (r != q) w *= double(code - levels[j + r]) / (levels[j + q] - levels[j + r]);
                v += w;
            }
            ASSERT_NEAR(lut[code], std::clamp(v + 0.5, 0.0, 65535.0), 1.0) << code;
        }
    }
}

// ---- table smoothing -----------------------------------------------------------------------

// The sweeps of the smoothing in double, as a reference.
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

// A constant row stays constant, an impulse spreads with variance sigma^2 and keeps its
// mass, and every entry is within a code of the double-precision sweeps.
TEST(TableSmoothing, MatchesReferenceAndMoments) {
    std::vector<std::uint16_t> flat(1001, 40000);
    smoothTable(flat.data(), 1001, 50.0f, 2);
    for (int v : flat)
        ASSERT_EQ(v, 40000);

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
        }
        mean /= mass;
        for (int i = 0; i < n; ++i)
            var += (i - mean) * (i - mean) * row[i];
        var /= mass;
        EXPECT_NEAR(mass, 60000, 60);
        EXPECT_NEAR(mean, centre, 0.01);
        EXPECT_NEAR(var, 400, 8) << passes;
    }

    // 8-bit rows round to the nearest code of the double sweeps, within 0..255.
    std::vector<std::uint8_t> bytes(256);
    for (int i = 0; i < 256; ++i)
        bytes[i] = std::uint8_t(i);
    std::vector<double> const ref =
        smoothedReference(std::vector<double>(bytes.begin(), bytes.end()), 6.0, 2);
    smoothTable(bytes.data(), 256, 6.0f, 2);
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(bytes[i], std::clamp(std::nearbyint(ref[i]), 0.0, 255.0)) << i;

    // Nothing happens without a row, width, sigma or passes.
    std::vector<std::uint16_t> same = {1, 900, 3};
    smoothTable(same.data(), 3, 0.0f, 2);
    smoothTable(same.data(), 3, 5.0f, 0);
    smoothTable(same.data(), 0, 5.0f, 2);
    smoothTable(static_cast<std::uint16_t *>(nullptr), 3, 5.0f, 2);
    EXPECT_EQ(same, (std::vector<std::uint16_t>{1, 900, 3}));
}

}  // namespace
