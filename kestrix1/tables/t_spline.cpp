#include "kestrix1/tables/t_spline.h"

#include <vector>

namespace {

std::shared_ptr<float[]> floats(int n) {
    return std::shared_ptr<float[]>(new float[n > 0 ? n : 1]);
}

}  // namespace

TSpline::TSpline(int n)
    : m_n(n), m_x(floats(n)), m_y(floats(n)), m_b(floats(n)), m_c(floats(n)), m_d(floats(n)) {
    for (int i = 0; i < n; ++i) {
        float const v = static_cast<float>(i) / static_cast<float>(n - 1);
        m_x[i] = v;
        m_y[i] = v;
    }
}

TSpline::~TSpline() = default;

void TSpline::setCtrPoint(int i, float x, float y) {
    m_x[i] = x;
    m_y[i] = y;
}

float TSpline::ctrPx(int i) const {
    return m_x[i];
}
float TSpline::ctrPy(int i) const {
    return m_y[i];
}

void TSpline::update() {
    cubic_nak(m_n, m_x.get(), m_y.get(), m_b.get(), m_c.get(), m_d.get());
}

float TSpline::value(float t) const {
    return spline_eval(m_n, m_x.get(), m_y.get(), m_b.get(), m_c.get(), m_d.get(), t);
}

// The second-derivative form: c[i] is half the second derivative at knot i. The interior
// equations for c[1..n-2] form an (n-2)-row system; the not-a-knot conditions express c[0]
// and c[n-1] through their neighbours and are folded into its first and last rows. The
// precision of each step (float, or double where the differences of right-hand sides and
// coefficients would cancel) is fixed so that curves come out the same on every build.
void TSpline::cubic_nak(int n, float *x, float *y, float *b, float *c, float *d) {
    // With fewer than four points the end conditions leave no system to solve: three
    // points give the parabola through them, two the straight line, fewer nothing.
    if (n < 4) {
        if (n < 2) return;
        float curvature = 0.0f;
        if (n == 3)
            curvature =
                ((y[2] - y[1]) / (x[2] - x[1]) - (y[1] - y[0]) / (x[1] - x[0])) / (x[2] - x[0]);
        for (int i = 0; i < n; ++i)
            c[i] = curvature;
        for (int i = 0; i + 1 < n; ++i) {
            float const h = x[i + 1] - x[i];
            d[i] = 0.0f;
            b[i] = (y[i + 1] - y[i]) / h - h * (c[i + 1] + 2.0f * c[i]) / 3.0f;
        }
        return;
    }
    std::vector<float> h(n), lower(n), diag(n), upper(n);
    for (int i = 0; i + 1 < n; ++i)
        h[i] = x[i + 1] - x[i];
    for (int i = 0; i <= n - 4; ++i)
        lower[i] = upper[i] = h[i + 1];
    for (int i = 0; i <= n - 3; ++i)
        diag[i] = 2.0f * (h[i] + h[i + 1]);
    for (int i = 0; i <= n - 3; ++i) {
        float const dyHi = y[i + 2] - y[i + 1];
        float const dyLo = y[i + 1] - y[i];
        c[i] = static_cast<float>((3.0 / h[i + 1]) * dyHi - (3.0 / h[i]) * dyLo);
    }

    float const r0 = h[0] * h[0] / h[1];
    float const r1 = h[n - 2] * h[n - 2] / h[n - 3];
    diag[0] += h[0] + r0;
    diag[n - 3] += h[n - 2] + r1;
    upper[0] -= r0;
    lower[n - 4] -= r1;

    tridiagonal(n - 2, lower.data(), diag.data(), upper.data(), c);

    for (int i = n - 3; i >= 0; --i)
        c[i + 1] = c[i];
    float const q0 = h[0] / h[1];
    float const q1 = h[n - 2] / h[n - 3];
    c[0] = static_cast<float>(double(c[1]) * (q0 + 1.0f) - double(c[2]) * q0);
    c[n - 1] = static_cast<float>(double(q1 + 1.0f) * c[n - 2] - double(q1) * c[n - 3]);

    for (int i = 0; i + 1 < n; ++i) {
        d[i] = (c[i + 1] - c[i]) / (3.0f * h[i]);
        float const slope = (y[i + 1] - y[i]) / h[i];
        b[i] = static_cast<float>(slope - double(h[i]) * (double(c[i + 1]) + 2.0 * c[i]) / 3.0);
    }
}

void TSpline::cubic_clamped(int n, float *x, float *y, float *b, float *c, float *d, float fpa,
                            float fpb) {
    std::vector<float> h(n), lower(n), diag(n), upper(n);
    for (int i = 0; i + 1 < n; ++i) {
        h[i] = x[i + 1] - x[i];
        lower[i] = upper[i] = h[i];
    }
    diag[0] = 2.0f * h[0];
    diag[n - 1] = 2.0f * h[n - 2];
    for (int i = 1; i + 1 < n; ++i)
        diag[i] = 2.0f * (h[i - 1] + h[i]);

    c[0] = (3.0f / h[0]) * (y[1] - y[0]) - 3.0f * fpa;
    c[n - 1] = 3.0f * fpb - (3.0f / h[n - 2]) * (y[n - 1] - y[n - 2]);
    for (int i = 1; i + 1 < n; ++i) {
        float const dyHi = y[i + 1] - y[i];
        float const dyLo = y[i] - y[i - 1];
        c[i] = static_cast<float>((3.0 / h[i]) * dyHi - (3.0 / h[i - 1]) * dyLo);
    }

    tridiagonal(n, lower.data(), diag.data(), upper.data(), c);

    for (int i = 0; i + 1 < n; ++i) {
        d[i] = (c[i + 1] - c[i]) / (3.0f * h[i]);
        float const slope = (y[i + 1] - y[i]) / h[i];
        b[i] = static_cast<float>(slope - double(h[i]) * (double(c[i + 1]) + 2.0 * c[i]) / 3.0);
    }
}

void TSpline::tridiagonal(int n, float *lower, float *diag, float *upper, float *rhs) {
    for (int i = 0; i + 1 < n; ++i) {
        upper[i] = upper[i] / diag[i];
        diag[i + 1] = diag[i + 1] - lower[i] * upper[i];
    }
    rhs[0] = rhs[0] / diag[0];
    for (int i = 1; i < n; ++i)
        rhs[i] = (rhs[i] - lower[i - 1] * rhs[i - 1]) / diag[i];
    for (int i = n - 2; i >= 0; --i)
        rhs[i] = rhs[i] - upper[i] * rhs[i + 1];
}

float TSpline::spline_eval(int n, float *x, float *y, float *b, float *c, float *d, float t) {
    int i = 1;
    while (i < n - 1 && x[i] <= t)
        ++i;
    --i;
    float const u = t - x[i];
    return ((d[i] * u + c[i]) * u + b[i]) * u + y[i];
}

float *TSpline::divdiff(int n, float *x, float *y) {
    float *a = new float[n > 0 ? n : 1];
    for (int i = 0; i < n; ++i)
        a[i] = y[i];
    for (int k = 1; k < n; ++k)
        for (int i = n - 1; i >= k; --i)
            a[i] = (a[i] - a[i - 1]) / (x[i] - x[i - k]);
    return a;
}

float TSpline::nf_eval(int n, float *x, float *a, float t) {
    float v = a[n - 1];
    for (int i = n - 2; i >= 0; --i)
        v = v * (t - x[i]) + a[i];
    return v;
}

float TSpline::neville(int n, float *x, float *y, float t) {
    std::vector<float> q(y, y + n);
    for (int k = 1; k < n; ++k)
        for (int i = n - 1; i >= k; --i)
            q[i] = ((t - x[i - k]) * q[i] - (t - x[i]) * q[i - 1]) / (x[i] - x[i - k]);
    return q[n - 1];
}
