// TSpline: a cubic interpolating spline with not-a-knot ends, on single-precision floats.
//
// It turns a handful of control points into the smooth light curves of the tone tables
// (TLut16U::setupLightAdjust and the light-adjust table use five points). The ends follow
// the not-a-knot condition: the third derivative is continuous across the second and the
// second-last knot, so any cubic through four or more points is reproduced exactly.
// Construct with the point count, set the points, call update(), then value() as often as
// needed; the class samples and stores no table.
#pragma once

#include <memory>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT TSpline {
public:
    // n points, evenly spaced on the identity: x[i] = y[i] = i / (n - 1). The coefficients
    // are unset until update(). The not-a-knot system needs n >= 4; with three points update()
    // gives the parabola through them, with two the straight line.
    explicit TSpline(int n);
    ~TSpline();

    // Assignment takes over the other spline's count and arrays: both objects then work on
    // the same points and coefficients until the last of them goes. Copy construction
    // shares them in the same way.
    TSpline &operator=(TSpline const &other) = default;
    TSpline(TSpline const &other) = default;

    // Point i. x must rise strictly from point to point; nothing checks i or the order.
    void setCtrPoint(int i, float x, float y);
    float ctrPx(int i) const;
    float ctrPy(int i) const;

    // Computes the not-a-knot coefficients of the current points.
    void update();

    // The spline at t. Outside [x[0], x[n-1]] the end segments continue as cubics: callers
    // clamp t or the result themselves. A t equal to an interior knot is taken from the
    // segment that starts there.
    float value(float t) const;

protected:
    // The general forms of the spline mathematics, on caller-supplied arrays of n floats.
    // update() and value() use cubic_nak and spline_eval; the rest serve callers that want
    // another end condition or a plain polynomial through the points.

    // Not-a-knot coefficients b, c, d of the segments through (x, y); c has an entry for
    // every knot.
    static void cubic_nak(int n, float *x, float *y, float *b, float *c, float *d);
    // Coefficients of the spline through (x, y) with the slopes fpa at x[0] and fpb at
    // x[n-1] prescribed (clamped ends). Needs n >= 2.
    static void cubic_clamped(int n, float *x, float *y, float *b, float *c, float *d, float fpa,
                              float fpb);
    // In-place Thomas solve of an n-row tridiagonal system without pivoting: lower[i] is
    // the sub-diagonal entry of row i + 1, upper[i] the super-diagonal entry of row i. The
    // solution replaces rhs; upper and diag are overwritten.
    static void tridiagonal(int n, float *lower, float *diag, float *upper, float *rhs);
    // Segment i - 1 at t, with i the first knot index above t (1..n-1).
    static float spline_eval(int n, float *x, float *y, float *b, float *c, float *d, float t);
    // Newton divided differences of (x, y): a new array of n floats, released with delete[].
    static float *divdiff(int n, float *x, float *y);
    // The Newton form with coefficients a at t, by Horner's rule.
    static float nf_eval(int n, float *x, float *a, float t);
    // The interpolating polynomial through (x, y) at t, by Neville's scheme.
    static float neville(int n, float *x, float *y, float t);

private:
    // The points and coefficients: segment i is y[i] + b[i] u + c[i] u^2 + d[i] u^3 with
    // u = t - x[i]. Shared between assigned copies, released with the last of them.
    int m_n;
    std::shared_ptr<float[]> m_x, m_y, m_b, m_c, m_d;
};
