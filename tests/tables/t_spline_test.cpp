// Tests of the two curve classes: TSpline against polynomials that a not-a-knot spline
// reproduces exactly and against its own end conditions, its helpers against hand values;
// MCSpline against a plain Fritsch-Carlson reference and for the bracket behaviour that the
// tone curves rely on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "kestrix1/tables/mc_spline.h"
#include "kestrix1/tables/t_spline.h"

namespace {

// Opens the protected helpers to the tests.
struct OpenSpline : TSpline {
    using TSpline::cubic_clamped;
    using TSpline::cubic_nak;
    using TSpline::divdiff;
    using TSpline::neville;
    using TSpline::nf_eval;
    using TSpline::spline_eval;
    using TSpline::tridiagonal;
    using TSpline::TSpline;
};

struct OpenMC : MCSpline {
    using MCSpline::H00;
    using MCSpline::H01;
    using MCSpline::H10;
    using MCSpline::H11;
    using MCSpline::isMonotoneCoeff;
    using MCSpline::MCSpline;
};

double cube(double x) {
    return x * x * x;
}
double cubicP(double x) {
    return 2.0 * cube(x) - 1.5 * x * x + 0.25 * x - 0.1;
}

TEST(TSpline, NewSplineIsTheIdentity) {
    TSpline s(5);
    EXPECT_FLOAT_EQ(s.ctrPx(1), 0.25f);
    EXPECT_FLOAT_EQ(s.ctrPy(3), 0.75f);
    s.update();
    for (int i = 0; i <= 100; ++i) {
        float const t = i / 100.0f;
        EXPECT_NEAR(s.value(t), t, 1e-6f) << t;
    }
}

// Not-a-knot ends reproduce any cubic, on uneven spacing and beyond the end points, where
// the end segments continue unclamped.
TEST(TSpline, ReproducesCubicsExactly) {
    std::vector<float> const xs = {-0.3f, 0.1f, 0.25f, 0.7f, 0.8f, 1.3f};
    for (int n : {4, 5, 6}) {
        TSpline s(n);
        for (int i = 0; i < n; ++i)
            s.setCtrPoint(i, xs[i], float(cubicP(xs[i])));
        s.update();
        for (float t = xs[0] - 0.2f; t <= xs[n - 1] + 0.2f; t += 0.01f)
            EXPECT_NEAR(s.value(t), cubicP(t), 2e-5) << "n " << n << " t " << t;
    }
    // Three points give the parabola through them, two the line.
    TSpline three(3);
    three.setCtrPoint(0, -1.0f, 1.0f);
    three.setCtrPoint(1, 0.5f, 0.25f);
    three.setCtrPoint(2, 2.0f, 4.0f);
    three.update();
    for (float t : {-1.5f, -0.5f, 0.0f, 1.0f, 1.5f, 3.0f})
        EXPECT_NEAR(three.value(t), t * t, 1e-5f) << t;
    TSpline two(2);
    two.setCtrPoint(1, 2.0f, 5.0f);
    two.update();
    EXPECT_NEAR(two.value(1.0f), 2.5f, 1e-6f);

    TSpline s(5);
    for (int i = 0; i < 5; ++i)
        s.setCtrPoint(i, float(i), float(cube(i)));
    s.update();
    EXPECT_NEAR(s.value(2.5f), 15.625f, 1e-4f);
    EXPECT_NEAR(s.value(-1.0f), -1.0f, 1e-4f);
    EXPECT_NEAR(s.value(5.0f), 125.0f, 1e-3f);
}

// On data no cubic fits, the third derivative is continuous across the second and the
// second-last knot, and the segments join with matching value, slope and curvature.
TEST(TSpline, NotAKnotConditionsHold) {
    float x[6] = {0.0f, 0.2f, 0.35f, 0.6f, 0.9f, 1.0f};
    float y[6] = {0.0f, 0.4f, 0.1f, 0.8f, 0.3f, 1.0f};
    float b[6], c[6], d[6];
    OpenSpline::cubic_nak(6, x, y, b, c, d);
    EXPECT_NEAR(d[0], d[1], 1e-3f * std::abs(d[0]));
    EXPECT_NEAR(d[3], d[4], 1e-3f * std::abs(d[3]));
    for (int i = 0; i < 5; ++i) {
        float const h = x[i + 1] - x[i];
        EXPECT_NEAR(y[i] + h * (b[i] + h * (c[i] + h * d[i])), y[i + 1], 1e-5f) << i;
        if (i < 4) {
            EXPECT_NEAR(b[i] + h * (2 * c[i] + 3 * h * d[i]), b[i + 1], 1e-4f) << i;
            EXPECT_NEAR(c[i] + 3 * h * d[i], c[i + 1], 1e-3f) << i;
        }
    }
    // An interior knot starts its own segment, so its value is y exactly.
    TSpline s(6);
    for (int i = 0; i < 6; ++i)
        s.setCtrPoint(i, x[i], y[i]);
    s.update();
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(s.value(x[i]), y[i]) << i;
    EXPECT_NEAR(s.value(1.0f), 1.0f, 1e-5f);
}

// Assignment shares the arrays: a point set through one object is the other's.
TEST(TSpline, AssignmentSharesPoints) {
    TSpline a(5), b(4);
    b = a;
    b.setCtrPoint(2, 0.5f, 0.9f);
    EXPECT_EQ(a.ctrPy(2), 0.9f);
    a.update();
    EXPECT_EQ(b.value(0.5f), 0.9f);
}

TEST(TSplineHelpers, HandValues) {
    // [2 1 0; 1 2 1; 0 1 2] x = (4, 8, 8) has the solution (1, 2, 3).
    float lower[2] = {1, 1}, diag[3] = {2, 2, 2}, upper[2] = {1, 1}, rhs[3] = {4, 8, 8};
    OpenSpline::tridiagonal(3, lower, diag, upper, rhs);
    EXPECT_NEAR(rhs[0], 1.0f, 1e-6f);
    EXPECT_NEAR(rhs[1], 2.0f, 1e-6f);
    EXPECT_NEAR(rhs[2], 3.0f, 1e-6f);
    // Divided differences of x^3 on 0..3: f[0] = 0, f[0,1] = 1, f[0,1,2] = 3, f[0..3] = 1.
    float x[4] = {0, 1, 2, 3}, y[4] = {0, 1, 8, 27};
    float *a = OpenSpline::divdiff(4, x, y);
    EXPECT_FLOAT_EQ(a[0], 0.0f);
    EXPECT_FLOAT_EQ(a[1], 1.0f);
    EXPECT_FLOAT_EQ(a[2], 3.0f);
    EXPECT_FLOAT_EQ(a[3], 1.0f);
    EXPECT_FLOAT_EQ(OpenSpline::nf_eval(4, x, a, 1.5f), 3.375f);
    delete[] a;
    EXPECT_FLOAT_EQ(y[2], 8.0f);  // divdiff works on a copy
    EXPECT_FLOAT_EQ(OpenSpline::neville(4, x, y, 1.5f), 3.375f);
    EXPECT_FLOAT_EQ(OpenSpline::neville(4, x, y, 2.0f), 8.0f);
    EXPECT_FLOAT_EQ(y[3], 27.0f);  // and so does neville
    // spline_eval picks segment i - 1 for x[i-1] <= t < x[i] and continues the end segments.
    float sx[3] = {0, 1, 2}, sy[3] = {10, 20, 30}, sb[3] = {1, 2, 0}, sc[3] = {0, 0, 0},
          sd[3] = {0, 0, 0};
    EXPECT_FLOAT_EQ(OpenSpline::spline_eval(3, sx, sy, sb, sc, sd, 0.5f), 10.5f);
    EXPECT_FLOAT_EQ(OpenSpline::spline_eval(3, sx, sy, sb, sc, sd, 1.0f), 20.0f);
    EXPECT_FLOAT_EQ(OpenSpline::spline_eval(3, sx, sy, sb, sc, sd, 1.5f), 21.0f);
    EXPECT_FLOAT_EQ(OpenSpline::spline_eval(3, sx, sy, sb, sc, sd, 3.0f), 24.0f);
    EXPECT_FLOAT_EQ(OpenSpline::spline_eval(3, sx, sy, sb, sc, sd, -1.0f), 9.0f);
}

// With the true end slopes, clamped ends reproduce a cubic too.
TEST(TSplineHelpers, ClampedEndsReproduceCubics) {
    float x[5] = {0.0f, 0.3f, 0.4f, 0.75f, 1.0f}, y[5], b[5], c[5], d[5];
    for (int i = 0; i < 5; ++i)
        y[i] = float(cubicP(x[i]));
    auto slope = [](double t) { return float(6.0 * t * t - 3.0 * t + 0.25); };
    OpenSpline::cubic_clamped(5, x, y, b, c, d, slope(0.0), slope(1.0));
    for (float t = 0.0f; t <= 1.0f; t += 0.01f)
        EXPECT_NEAR(OpenSpline::spline_eval(5, x, y, b, c, d, t), cubicP(t), 2e-5) << t;
}

// ---- MCSpline ----------------------------------------------------------------------------

// Fritsch-Carlson in double, on points sorted by x, for t within them.
struct ReferenceMC {
    std::vector<double> x, y, m;
    ReferenceMC(std::vector<double> xs, std::vector<double> ys) : x(xs), y(ys), m(xs.size()) {
        std::size_t const n = x.size();
        std::vector<double> s(n - 1);
        for (std::size_t k = 0; k + 1 < n; ++k)
            s[k] = (y[k + 1] - y[k]) / (x[k + 1] - x[k]);
        m[0] = s[0];
        m[n - 1] = s[n - 2];
        for (std::size_t k = 1; k + 1 < n; ++k)
            m[k] = (s[k - 1] + s[k]) / 2;
        for (std::size_t i = 0; i + 2 < n; ++i) {
            if (s[i] == 0) {
                m[i] = m[i + 1] = 0;
                continue;
            }
            double const a = m[i] / s[i], b = m[i + 1] / s[i], r = a * a + b * b;
            if (r > 9) {
                m[i] = 3 * a / std::sqrt(r) * s[i];
                m[i + 1] = 3 * b / std::sqrt(r) * s[i];
            }
        }
    }
    double operator()(double t) const {
        std::size_t k = 0;
        while (k + 2 < x.size() && t > x[k + 1])
            ++k;
        double const h = x[k + 1] - x[k], u = (t - x[k]) / h;
        return y[k] * (2 * u * u * u - 3 * u * u + 1) + y[k + 1] * (-2 * u * u * u + 3 * u * u) +
               h * (m[k] * (u * u * u - 2 * u * u + u) + m[k + 1] * (u * u * u - u * u));
    }
};

MCSpline makeMC(std::vector<float> const &x, std::vector<float> const &y) {
    MCSpline s(int(x.size()));
    for (std::size_t i = 0; i < x.size(); ++i)
        s.setCtrPoint(int(i), x[i], y[i]);
    s.update();
    return s;
}

TEST(MCSpline, BasisAndMonotonicityTest) {
    EXPECT_EQ(OpenMC::H00(0.5f), 0.5f);
    EXPECT_EQ(OpenMC::H10(0.5f), 0.125f);
    EXPECT_EQ(OpenMC::H01(0.5f), 0.5f);
    EXPECT_EQ(OpenMC::H11(0.5f), -0.125f);
    EXPECT_TRUE(OpenMC::isMonotoneCoeff(3.0f, 0.0f));
    EXPECT_TRUE(OpenMC::isMonotoneCoeff(-1.8f, 2.4f));  // exactly 9 is allowed
    EXPECT_FALSE(OpenMC::isMonotoneCoeff(2.2f, 2.2f));
}

// A steep step in rising data: the averaged tangents would overshoot, the limited ones
// keep every interval but the last monotone, and the curve matches the reference.
TEST(MCSpline, MonotoneOnMonotoneDataAndMatchesReference) {
    std::vector<float> const x = {0.1f, 0.2f, 0.3f, 0.35f, 0.8f, 1.0f};
    std::vector<float> const y = {0.0f, 0.02f, 0.9f, 0.92f, 0.95f, 1.0f};
    MCSpline const s = makeMC(x, y);
    ReferenceMC const ref({x.begin(), x.end()}, {y.begin(), y.end()});
    float prev = -1.0f;
    for (float t = 0.1f; t <= 0.8f; t += 0.0025f) {
        float const v = s.value(t);
        EXPECT_GE(v, prev) << t;
        prev = v;
        EXPECT_NEAR(v, ref(t), 2e-6) << t;
    }
    // Control points above 0 come back exactly: u is then 1.
    for (std::size_t i = 0; i < x.size(); ++i)
        EXPECT_EQ(s.value(x[i]), y[i]) << i;
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
    for (float t : {0.05f, 0.1f, 0.15f}) {
        float const u = t / 0.2f;
        EXPECT_NEAR(s.value(t), 0.2f * OpenMC::H01(u) + 0.2f * mHi * OpenMC::H11(u), 1e-6f);
    }
    float const last = (0.6f - 0.5f) / 0.3f;
    EXPECT_NEAR(s.value(1.3f), 0.6f + last * 0.5f, 1e-5f);
    EXPECT_NEAR(s.value(3.0f), 0.6f + last * 2.2f, 1e-5f);
}

TEST(MCSpline, FlatIntervalsAndUnlimitedLastInterval) {
    MCSpline const flat = makeMC({0.1f, 0.4f, 0.6f, 0.9f}, {0.1f, 0.5f, 0.5f, 0.9f});
    for (float t = 0.4f; t <= 0.6f; t += 0.01f)
        EXPECT_NEAR(flat.value(t), 0.5f, 1e-6f) << t;

    // The last interval keeps its averaged tangent at its start (7.5 times its secant) and
    // overshoots its end value; a limited interval would not.
    std::vector<float> const x = {0.25f, 0.5f, 0.75f, 1.0f}, y = {0.1f, 0.2f, 0.9f, 0.95f};
    MCSpline const s = makeMC(x, y);
    float top = 0.0f;
    for (float t = 0.75f; t <= 1.0f; t += 0.005f)
        top = std::max(top, s.value(t));
    EXPECT_GT(top, 0.96f);
}

TEST(MCSpline, CopiesAreDeep) {
    MCSpline a = makeMC({0.2f, 0.5f, 0.9f}, {0.1f, 0.6f, 0.8f});
    MCSpline b(a);
    MCSpline c(2);
    c = a;
    a.setCtrPoint(1, 0.5f, 0.2f);
    a.update();
    EXPECT_EQ(b.ctrPy(1), 0.6f);
    EXPECT_EQ(c.value(0.5f), 0.6f);
    EXPECT_EQ(a.value(0.5f), 0.2f);
}

TEST(MCSplineDeathTest, IndexOutsideTheVectorsIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    MCSpline s(3);
    EXPECT_DEATH(s.setCtrPoint(3, 0.0f, 0.0f), "");
    EXPECT_DEATH(s.setCtrPoint(-1, 0.0f, 0.0f), "");
    EXPECT_DEATH((void)s.ctrPx(3), "");
    EXPECT_DEATH((void)s.ctrPy(7), "");
}

}  // namespace
