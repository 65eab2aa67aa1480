// MCSpline: a monotone cubic Hermite spline (Fritsch and Carlson), on single-precision floats.
//
// It shapes tone curves that must never fold back, such as the black, mid-tone and white
// curve of TLut16U. Tangents start as the mean of the neighbouring secants and are then
// limited interval by interval so that each interval stays monotone; the last interval is
// left unlimited. Construct with the point count, set the points, call update(), then
// value() as often as needed.
//
// Evaluation brackets t by searching all points, starting from a lower bracket fixed at the
// origin: points at x <= 0 never become the lower bracket, so between 0 and the first point
// above 0 the curve rises from (0, 0) with zero slope. Curves rely on this to start flat at
// black by placing their first point at a negative x. Above the last point the curve
// continues as the straight line through the last point with its tangent.
#pragma once

#include <vector>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT MCSpline {
public:
    // n points, all at (0, 0). Copies and assignments copy the points and tangents.
    explicit MCSpline(int n);

    // Point i. An index outside 0..n-1 is a fatal invalid-parameter fault: the process
    // aborts rather than write or read out of bounds.
    void setCtrPoint(int i, float x, float y);
    float ctrPx(int i) const;
    float ctrPy(int i) const;

    // Secants and limited tangents of the current points, which need rising x.
    void update();

    // The curve at t.
    float value(float t) const;

protected:
    // The cubic Hermite basis on u in [0, 1].
    static float H00(float t);
    static float H10(float t);
    static float H01(float t);
    static float H11(float t);
    // Whether tangent-to-secant ratios (a, b) keep an interval monotone: a a + b b <= 9.
    static bool isMonotoneCoeff(float a, float b);

private:
    std::vector<float> m_x;
    std::vector<float> m_y;
    std::vector<float> m_secants;   // n - 1 entries, slope of each interval
    std::vector<float> m_tangents;  // n entries, slope at each point
    int m_n;
};
