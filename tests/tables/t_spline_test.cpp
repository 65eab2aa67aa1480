// TSpline against the polynomials it reproduces, helpers and MCSpline's tangents by hand.
#include <gtest/gtest.h>

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
};

// What a spline through n points reproduces: a cubic from four on, else a parabola or a line.
double poly(int n, double x) {
    return n >= 4 ? 2 * x * x * x - 1.5 * x * x + 0.25 * x - 0.1 : n == 3 ? x * x : 2.5 * x;
}

// On uneven spacing and beyond the ends. A new spline lies on the identity; an assigned copy
// shares points and coefficients with the original. Then the helpers by hand.
TEST(TSpline, ReproducesPolynomialsAndHelpersByHand) {
    EXPECT_TRUE(TSpline(5).ctrPx(1) == 0.25f && TSpline(5).ctrPy(3) == 0.75f);
    Floats const xs = {-0.3f, 0.1f, 0.25f, 0.7f, 0.8f, 1.3f};
    for (int n = 2; n <= 6; ++n) {
        TSpline s(n), copy(1);
        copy = s;
        for (int i = 0; i < n; ++i)
            copy.setCtrPoint(i, xs[i], float(poly(n, xs[i])));
        s.update();
        for (float t = xs[0] - 0.2f; t <= xs[n - 1] + 0.2f; t += 0.01f)
            EXPECT_NEAR(copy.value(t), poly(n, t), 2e-5) << "n " << n << " t " << t;
    }
    // Not a knot: on data no cubic fits, d is the same either side of knots 1 and n - 2.
    float x[6] = {0.0f, 0.2f, 0.35f, 0.6f, 0.9f, 1.0f}, y[6] = {0, 0.4f, 0.1f, 0.8f, 0.3f, 1};
    float b[6], c[6], d[6];
    OpenSpline::cubic_nak(6, x, y, b, c, d);
    EXPECT_NEAR(d[0], d[1], 1e-3f * std::abs(d[0]));
    EXPECT_NEAR(d[3], d[4], 1e-3f * std::abs(d[3]));
    // Divided differences of x^3 on 0..3; both polynomial forms leave y as it was.
    float px[4] = {0, 1, 2, 3}, py[4] = {0, 1, 8, 27};
    std::unique_ptr<float[]> const a(OpenSpline::divdiff(4, px, py));
    EXPECT_EQ(Floats(a.get(), a.get() + 4), (Floats{0, 1, 3, 1}));
    EXPECT_FLOAT_EQ(OpenSpline::nf_eval(4, px, a.get(), 1.5f), 3.375f);
    EXPECT_FLOAT_EQ(OpenSpline::neville(4, px, py, 1.5f), 3.375f);
    EXPECT_EQ(Floats(py, py + 4), (Floats{0, 1, 8, 27}));
    // With the true end slopes, clamped ends reproduce a cubic too.
    for (int i = 0; i < 6; ++i)
        y[i] = float(poly(4, x[i]));
    OpenSpline::cubic_clamped(6, x, y, b, c, d, 0.25f, 3.25f);
    for (float t = 0.0f; t <= 1.0f; t += 0.01f)
        EXPECT_NEAR(OpenSpline::spline_eval(6, x, y, b, c, d, t), poly(4, t), 2e-5) << t;
}

struct OpenMC : MCSpline {
    using MCSpline::H00;
    using MCSpline::H01;
    using MCSpline::H10;
    using MCSpline::H11;
    using MCSpline::isMonotoneCoeff;
};

MCSpline makeMC(Floats const &x, Floats const &y) {
    MCSpline s(int(x.size()));
    for (std::size_t i = 0; i < x.size(); ++i)
        s.setCtrPoint(int(i), x[i], y[i]);
    s.update();
    return s;
}

// Secants 0.4, 2.8, 0.2 give mean tangents 0.4, 1.6, 1.5, 0.2. The first interval (ratios 1
// and 4: 17 > 9) scales its two by 3 / sqrt(17), the second keeps them, the last is never
// limited and overshoots its end. A flat interval zeroes its two tangents.
TEST(MCSpline, LimitedTangentsAndBracketsByHand) {
    EXPECT_TRUE(OpenMC::isMonotoneCoeff(-1.8f, 2.4f));  // exactly 9 is allowed
    float const y[4] = {0.1f, 0.2f, 0.9f, 0.95f}, k = 3 / std::sqrt(17.0f);
    float const m[4] = {0.4f * k, 1.6f * k, 1.5f, 0.2f};
    MCSpline const s = makeMC({0.25f, 0.5f, 0.75f, 1.0f}, {y[0], y[1], y[2], y[3]});
    for (int i = 0; i < 3; ++i)
        for (float u : {0.25f, 0.5f, 0.75f}) {
            float const want = y[i] * OpenMC::H00(u) + y[i + 1] * OpenMC::H01(u) +
                               0.25f * (m[i] * OpenMC::H10(u) + m[i + 1] * OpenMC::H11(u));
            EXPECT_NEAR(s.value(0.25f * (i + 1 + u)), want, 1e-6f) << i << " " << u;
        }
    EXPECT_EQ(s.value(0.5f), 0.2f);  // a point above 0 comes back exactly
    // Tangents 4/3 and 0 over the first interval: 0.1 / 2 + 0.5 / 2 + 0.3 x 4/3 x 0.125.
    MCSpline const flat = makeMC({0.1f, 0.4f, 0.6f, 0.9f}, {0.1f, 0.5f, 0.5f, 0.9f});
    EXPECT_NEAR(flat.value(0.25f), 0.35f, 1e-6f);
    EXPECT_EQ(flat.value(0.5f), 0.5f);

    // Below the first point above 0 the curve leaves (0, 0) flat, whatever points at or below
    // 0 say; past the last point it goes on straight with the last secant.
    MCSpline const o = makeMC({-0.5f, 0.2f, 0.5f, 0.8f}, {-0.2f, 0.2f, 0.5f, 0.6f});
    EXPECT_EQ(o.value(0.0f), 0.0f);
    // Between 0 and 0.2: y_hi H01(u) + h m_hi H11(u), m_hi = (4/7 + 1) / 2.
    float const mHi = (0.2f + 0.2f) / 0.7f * 0.5f + 0.5f;
    for (float u : {0.25f, 0.5f, 0.75f})
        EXPECT_NEAR(o.value(0.2f * u), 0.2f * OpenMC::H01(u) + 0.2f * mHi * OpenMC::H11(u), 1e-6f);
    float const last = (o.ctrPy(3) - 0.5f) / (o.ctrPx(3) - 0.5f);
    EXPECT_NEAR(o.value(3.0f), 0.6f + last * 2.2f, 1e-5f);
}

TEST(MCSplineDeathTest, IndexOutsideTheVectorsIsFatal) {
    MCSpline a(3);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(a.setCtrPoint(3, 0.0f, 0.0f), "");
    EXPECT_DEATH((void)a.ctrPx(-1), "");
}

}  // namespace
