// TSpline against polynomials that a not-a-knot spline reproduces and its own end conditions;
// MCSpline against a plain Fritsch-Carlson reference and its bracket from the origin.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "kestrix1/tables/mc_spline.h"
#include "kestrix1/tables/t_spline.h"

namespace {

using Floats = std::vector<float>;

struct OpenSpline : TSpline {
    using TSpline::cubic_clamped;
    using TSpline::cubic_nak;
    using TSpline::divdiff;
    using TSpline::neville;
    using TSpline::nf_eval;
    using TSpline::spline_eval;
    using TSpline::tridiagonal;
};

// The polynomial a spline through n points reproduces: the cubic from four points on, the
// parabola through three, the line through two.
double poly(int n, double x) {
    return n >= 4 ? 2 * x * x * x - 1.5 * x * x + 0.25 * x - 0.1 : n == 3 ? x * x : 2.5 * x;
}

// On uneven spacing and beyond the end points, where the end segments continue unclamped.
// A new spline has its points on the identity.
TEST(TSpline, ReproducesPolynomials) {
    TSpline const id(5);
    EXPECT_TRUE(id.ctrPx(1) == 0.25f && id.ctrPy(3) == 0.75f);
    Floats const xs = {-0.3f, 0.1f, 0.25f, 0.7f, 0.8f, 1.3f};
    for (int n = 2; n <= 6; ++n) {
        TSpline s(n);
        for (int i = 0; i < n; ++i)
            s.setCtrPoint(i, xs[i], float(poly(n, xs[i])));
        s.update();
        for (float t = xs[0] - 0.2f; t <= xs[n - 1] + 0.2f; t += 0.01f)
            EXPECT_NEAR(s.value(t), poly(n, t), 2e-5) << "n " << n << " t " << t;
    }
}

// On data no cubic fits, the third derivative is continuous across the second and the
// second-last knot, and the segments join with matching value, slope and curvature.
TEST(TSpline, NotAKnotConditionsHold) {
    float x[6] = {0.0f, 0.2f, 0.35f, 0.6f, 0.9f, 1.0f}, y[6] = {0, 0.4f, 0.1f, 0.8f, 0.3f, 1};
    float b[6], c[6], d[6];
    OpenSpline::cubic_nak(6, x, y, b, c, d);
    EXPECT_NEAR(d[0], d[1], 1e-3f * std::abs(d[0]));
    EXPECT_NEAR(d[3], d[4], 1e-3f * std::abs(d[3]));
    for (int i = 0; i < 5; ++i) {
        float const h = x[i + 1] - x[i];
        EXPECT_NEAR(y[i] + h * (b[i] + h * (c[i] + h * d[i])), y[i + 1], 1e-5f) << i;
        if (i == 4) break;
        EXPECT_NEAR(b[i] + h * (2 * c[i] + 3 * h * d[i]), b[i + 1], 1e-4f) << i;
        EXPECT_NEAR(c[i] + 3 * h * d[i], c[i + 1], 1e-3f) << i;
    }
    // Every knot but the last starts a segment, so its value is y exactly. Assignment shares
    // count and points with the original.
    TSpline s(6), copy(4);
    copy = s;
    for (int i = 0; i < 6; ++i)
        copy.setCtrPoint(i, x[i], y[i]);
    s.update();
    for (int i = 0; i < 6; ++i)
        EXPECT_NEAR(copy.value(x[i]), y[i], i < 5 ? 0.0f : 1e-5f) << i;
}

TEST(TSpline, HelpersByHand) {
    // [2 1 0; 1 2 1; 0 1 2] x = (4, 8, 8) has the solution (1, 2, 3).
    float lower[2] = {1, 1}, diag[3] = {2, 2, 2}, upper[2] = {1, 1}, rhs[3] = {4, 8, 8};
    OpenSpline::tridiagonal(3, lower, diag, upper, rhs);
    for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(rhs[i], i + 1.0f, 1e-6f);
    // Divided differences of x^3 on 0..3; both polynomial forms leave y as it was.
    float x[4] = {0, 1, 2, 3}, y[4] = {0, 1, 8, 27};
    std::unique_ptr<float[]> const a(OpenSpline::divdiff(4, x, y));
    EXPECT_EQ(Floats(a.get(), a.get() + 4), (Floats{0, 1, 3, 1}));
    EXPECT_FLOAT_EQ(OpenSpline::nf_eval(4, x, a.get(), 1.5f), 3.375f);
    EXPECT_FLOAT_EQ(OpenSpline::neville(4, x, y, 1.5f), 3.375f);
    EXPECT_FLOAT_EQ(OpenSpline::neville(4, x, y, 2.0f), 8.0f);
    EXPECT_EQ(Floats(y, y + 4), (Floats{0, 1, 8, 27}));
    // spline_eval picks segment i - 1 for x[i-1] <= t < x[i] and continues the end segments.
    float sx[3] = {0, 1, 2}, sy[3] = {10, 20, 30}, sb[3] = {1, 2, 0}, zero[3] = {};
    for (auto const &p : {Floats{0.5f, 10.5f}, {1, 20}, {1.5f, 21}, {3, 24}, {-1, 9}})
        EXPECT_FLOAT_EQ(OpenSpline::spline_eval(3, sx, sy, sb, zero, zero, p[0]), p[1]) << p[0];

    // With the true end slopes, clamped ends reproduce a cubic too.
    float cx[5] = {0.0f, 0.3f, 0.4f, 0.75f, 1.0f}, cy[5], b[5], c[5], d[5];
    for (int i = 0; i < 5; ++i)
        cy[i] = float(poly(4, cx[i]));
    OpenSpline::cubic_clamped(5, cx, cy, b, c, d, 0.25f, 3.25f);
    for (float t = 0.0f; t <= 1.0f; t += 0.01f)
        EXPECT_NEAR(OpenSpline::spline_eval(5, cx, cy, b, c, d, t), poly(4, t), 2e-5) << t;
}

// ---- MCSpline ----------------------------------------------------------------------------

struct OpenMC : MCSpline {
    using MCSpline::H01;
    using MCSpline::H11;
    using MCSpline::isMonotoneCoeff;
};

// Fritsch-Carlson in double, on points sorted by x, for t within them.
double referenceMC(Floats const &x, Floats const &y, double t) {
    std::size_t const n = x.size();
    std::vector<double> s(n - 1), m(n);
    for (std::size_t k = 0; k + 1 < n; ++k)
        s[k] = (double(y[k + 1]) - y[k]) / (double(x[k + 1]) - x[k]);
    m[0] = s[0];
    m[n - 1] = s[n - 2];
    for (std::size_t k = 1; k + 1 < n; ++k)
        m[k] = (s[k - 1] + s[k]) / 2;
    for (std::size_t i = 0; i + 2 < n; ++i) {
        double const a = m[i] / s[i], b = m[i + 1] / s[i], r = std::hypot(a, b);
        if (s[i] == 0) {
            m[i] = m[i + 1] = 0;
        } else if (r > 3) {
            m[i] *= 3 / r;
            m[i + 1] *= 3 / r;
        }
    }
    std::size_t k = 0;
    while (k + 2 < n && t > x[k + 1])
        ++k;
    double const h = double(x[k + 1]) - x[k], u = (t - x[k]) / h, u2 = u * u, u3 = u2 * u;
    return y[k] * (2 * u3 - 3 * u2 + 1) + y[k + 1] * (3 * u2 - 2 * u3) +
           h * (m[k] * (u3 - 2 * u2 + u) + m[k + 1] * (u3 - u2));
}

MCSpline makeMC(Floats const &x, Floats const &y) {
    MCSpline s(int(x.size()));
    for (std::size_t i = 0; i < x.size(); ++i)
        s.setCtrPoint(int(i), x[i], y[i]);
    s.update();
    return s;
}

// A steep step and a flat stretch in rising data: the averaged tangents would overshoot,
// the limited ones keep every interval but the last monotone, as the reference does.
TEST(MCSpline, MonotoneOnMonotoneDataAndMatchesReference) {
    EXPECT_TRUE(OpenMC::isMonotoneCoeff(-1.8f, 2.4f));  // exactly 9 is allowed
    EXPECT_FALSE(OpenMC::isMonotoneCoeff(2.2f, 2.2f));
    std::pair<Floats, Floats> const data[] = {
        {{0.1f, 0.2f, 0.3f, 0.35f, 0.8f, 1.0f}, {0.0f, 0.02f, 0.9f, 0.92f, 0.95f, 1.0f}},
        {{0.1f, 0.4f, 0.6f, 0.9f}, {0.1f, 0.5f, 0.5f, 0.9f}}};
    for (auto const &[x, y] : data) {
        MCSpline const s = makeMC(x, y);
        float prev = -1.0f;
        for (float t = x[0]; t <= x[x.size() - 2]; t += 0.0025f) {
            EXPECT_GE(s.value(t), prev) << t;
            prev = s.value(t);
            EXPECT_NEAR(prev, referenceMC(x, y, t), 2e-6) << t;
        }
        // Control points above 0 come back exactly: u is then 1.
        for (std::size_t i = 0; i < x.size(); ++i)
            EXPECT_EQ(s.value(x[i]), y[i]) << i;
    }
}

// The lower bracket starts at the origin: below the first point above 0 the curve leaves
// (0, 0) flat, whatever the points at or below 0 say, and above the last point it continues
// as a straight line with the last tangent (the last secant).
TEST(MCSpline, BracketsFromTheOriginAndBeyondTheEnd) {
    MCSpline const s = makeMC({-0.5f, 0.2f, 0.5f, 0.8f}, {-0.2f, 0.2f, 0.5f, 0.6f});
    EXPECT_EQ(s.value(0.0f), 0.0f);
    EXPECT_EQ(s.value(0.2f), 0.2f);
    // Between 0 and 0.2: y_hi H01(u) + h m_hi H11(u) with m_hi = (4/7 + 1) / 2.
    float const mHi = (0.2f + 0.2f) / 0.7f * 0.5f + 0.5f;
    for (float u : {0.25f, 0.5f, 0.75f})
        EXPECT_NEAR(s.value(0.2f * u), 0.2f * OpenMC::H01(u) + 0.2f * mHi * OpenMC::H11(u), 1e-6f);
    float const last = (s.ctrPy(3) - 0.5f) / (s.ctrPx(3) - 0.5f);
    EXPECT_NEAR(s.value(1.3f), 0.6f + last * 0.5f, 1e-5f);
    EXPECT_NEAR(s.value(3.0f), 0.6f + last * 2.2f, 1e-5f);

    // The last interval keeps its averaged tangent (7.5 times its secant) and overshoots
    // its end value; a limited interval would not.
    MCSpline const over = makeMC({0.25f, 0.5f, 0.75f, 1.0f}, {0.1f, 0.2f, 0.9f, 0.95f});
    EXPECT_GT(over.value(0.875f), 0.96f);
}

TEST(MCSplineDeathTest, IndexOutsideTheVectorsIsFatal) {
    MCSpline a(3);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(a.setCtrPoint(3, 0.0f, 0.0f), "");
    EXPECT_DEATH(a.setCtrPoint(-1, 0.0f, 0.0f), "");
    EXPECT_DEATH((void)a.ctrPx(3), "");
    EXPECT_DEATH((void)a.ctrPy(7), "");
}

}  // namespace
