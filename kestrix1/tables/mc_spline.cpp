#include "kestrix1/tables/mc_spline.h"

#include <cmath>
#include <cstdlib>

namespace {

// An index outside a vector is a programming fault of the caller: end the process, as the
// invalid-parameter handler of a checked runtime does, rather than touch foreign memory.
template <class V>
auto &checkedAt(V &v, int i) {
    if (i < 0 || static_cast<std::size_t>(i) >= v.size()) std::abort();
    return v[static_cast<std::size_t>(i)];
}

}  // namespace

MCSpline::MCSpline(int n)
    : m_x(std::size_t(n), 0.0f),
      m_y(std::size_t(n), 0.0f),
      m_secants(std::size_t(n > 0 ? n - 1 : 0), 0.0f),
      m_tangents(std::size_t(n), 0.0f),
      m_n(n) {}

void MCSpline::setCtrPoint(int i, float x, float y) {
    checkedAt(m_x, i) = x;
    checkedAt(m_y, i) = y;
}

float MCSpline::ctrPx(int i) const {
    return checkedAt(m_x, i);
}
float MCSpline::ctrPy(int i) const {
    return checkedAt(m_y, i);
}

void MCSpline::update() {
    int const n = m_n;
    if (n < 2) return;
    for (int k = 0; k + 1 < n; ++k)
        m_secants[k] = (m_y[k + 1] - m_y[k]) / (m_x[k + 1] - m_x[k]);

    m_tangents[0] = m_secants[0];
    for (int k = 1; k + 1 < n; ++k)
        m_tangents[k] = (m_secants[k - 1] + m_secants[k]) * 0.5f;
    m_tangents[n - 1] = m_secants[n - 2];

    // Limited in ascending order, so a tangent shortened for interval i is the one that
    // interval i + 1 starts from. The last interval keeps its tangents as they stand:
    // curves may overshoot there, and their callers clamp.
    for (int i = 0; i + 2 < n; ++i) {
        float const secant = m_secants[i];
        if (secant == 0.0f) {
            m_tangents[i] = 0.0f;
            m_tangents[i + 1] = 0.0f;
            continue;
        }
        float const a = m_tangents[i] / secant;
        float const b = m_tangents[i + 1] / secant;
        if (isMonotoneCoeff(a, b)) continue;
        float const tau = 3.0f / std::sqrt(a * a + b * b);
        m_tangents[i] = a * tau * secant;
        m_tangents[i + 1] = b * tau * secant;
    }
}

float MCSpline::value(float t) const {
    // The search does not assume the points are sorted. The lower bracket starts at the
    // origin and the upper one far above any point; both keep zero value and slope until a
    // point replaces them.
    float xLo = 0.0f, yLo = 0.0f, mLo = 0.0f;
    float xHi = 1e37f, yHi = 0.0f, mHi = 0.0f;
    for (int i = 0; i < m_n; ++i) {
        float const xi = m_x[i];
        if (t > xi && xi > xLo) {
            xLo = xi;
            yLo = m_y[i];
            mLo = m_tangents[i];
        }
        if (xi >= t && xi < xHi) {
            xHi = xi;
            yHi = m_y[i];
            mHi = m_tangents[i];
        }
    }
    float const h = xHi - xLo;
    if (double(h) < 1e-6) return yHi;
    float const u = (t - xLo) / h;
    return yLo * H00(u) + yHi * H01(u) + h * (mLo * H10(u) + mHi * H11(u));
}

float MCSpline::H00(float t) {
    return (2.0f * t - 3.0f) * t * t + 1.0f;
}
float MCSpline::H10(float t) {
    return (t * t - 2.0f * t) * t + t;
}
float MCSpline::H01(float t) {
    return (-2.0f * t + 3.0f) * t * t;
}
float MCSpline::H11(float t) {
    return (t * t - t) * t;
}

bool MCSpline::isMonotoneCoeff(float a, float b) {
    return a * a + b * b <= 9.0f;
}
