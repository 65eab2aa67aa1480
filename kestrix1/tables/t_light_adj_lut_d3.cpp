#include "kestrix1/tables/t_light_adj_lut_d3.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "kestrix1/tables/t_spline.h"

namespace {

// Brightness to a position on a 64-knot curve: 64 x (0.703125 t + 0.1484375), kept within
// half a knot of both ends. Formed in double.
float knotPosition(double t) {
    double const p = std::clamp(0.703125 * t + 0.1484375, 0.0078125, 0.9921875);
    return float(64.0 * p);
}

// The fixed reference curve: entry i = (i - 9) / 45 limited to 0..1, flat up to entry 9 and
// reaching 1 at entry 54.
constexpr std::array<float, 64> makeReference() {
    std::array<float, 64> r{};
    for (int i = 0; i < 64; ++i)
        r[i] = std::clamp((float(i) - 9.0f) / 45.0f, 0.0f, 1.0f);
    return r;
}
constexpr std::array<float, 64> kReference = makeReference();

inline double rintD(double v) {
    return std::nearbyint(v);
}

inline unsigned short sat16r(double v) {
    return static_cast<unsigned short>(std::clamp(rintD(v), 0.0, 65535.0));
}

}  // namespace

void TLightAdjLUTd3::setupParams(float a, float b, float c, float d, float e, float f) {
    m_exposure = float(0.343 * a * a * a);
    float const b3 = b * b * b;
    m_contrast = b3 > 0.0f ? 2.0f * b3 + 1.0f : 1.0f / (1.0f - 5.0f * b3);
    m_shape[0] = c;
    m_shape[1] = d;
    m_shape[2] = e;
    m_shape[3] = f;

    // Five points: the two ends, the two shoulders and the fixed middle.
    float const L = float(-0.2 * f), p = L - 0.5f;
    float const H = float(1.0 - 0.2 * e), q = H - 0.5f;
    TSpline spline(5);
    spline.setCtrPoint(0, p / 1.4f + 0.5f, 0.0f);
    spline.setCtrPoint(1, (L - 0.5f * p - 0.5f) / 1.4f + 0.5f, (0.25f * d + 0.5f) * 0.5f);
    spline.setCtrPoint(2, 0.5f, 0.5f);
    spline.setCtrPoint(3, (H - 0.5f * q - 0.5f) / 1.4f + 0.5f, 1.0f - (0.5f - 0.25f * c) * 0.5f);
    spline.setCtrPoint(4, q / 1.4f + 0.5f, 1.0f);
    spline.update();
    float const x0 = spline.ctrPx(0), x4 = spline.ctrPx(4);
    for (int i = 0; i < 64; ++i) {
        float const t = float(i) / 63.0f;
        float const v = t < x0 ? 0.0f : t > x4 ? 1.0f : spline.value(t);
        m_curve[i] = std::clamp(v, 0.0f, 1.0f);
    }
}

void TLightAdjLUTd3::mapYDrDb(unsigned short &Y, unsigned short &Dr, unsigned short &Db) {
    float const y = float(Y);
    float const n = y / 65535.0f;
    float const R = 2.0f * (float(Dr) - 32768.0f) + y;
    float const B = 2.0f * (float(Db) - 32768.0f) + y;
    float const G16 = float(sat16r((y - 0.299f * R - 0.114f * B) * 1.7036f));
    float const R16 = float(sat16r(R));
    float const B16 = float(sat16r(B));

    // The reference at the pixel's own brightness. The weight of the lower knot uses i + 1
    // even where the upper knot is held at 63.
    float const u = knotPosition(n);
    int const iu = int(u), ju = std::min(iu + 1, 63);
    float const ref = (float(iu + 1) - u) * kReference[iu] + (u - float(iu)) * kReference[ju];

    // The user curve at the brightness that exposure and contrast have moved.
    float const w = float(m_exposure + 0.707 + m_contrast * (std::sqrt(double(n)) - 0.707));
    float const w2 = w > 0.0f ? w * w : 2.0f * w;
    float const v = knotPosition(w2);
    int const iv = int(v), jv = std::min(iv + 1, 63);
    float const user = (float(iv + 1) - v) * m_curve[iv] + 0.001f + (v - float(iv)) * m_curve[jv];

    float const gain = std::clamp(user / (ref + 0.001f), 0.0f, 8.0f);
    float r = std::clamp(R16 / 65535.0f * gain, 0.0f, 4.0f);
    float g = std::clamp(G16 / 65535.0f * gain, 0.0f, 4.0f);
    float b = std::clamp(B16 / 65535.0f * gain, 0.0f, 4.0f);

    // Out of range: towards the least component until the greatest is 1, keeping the hue.
    float const mn = std::min(r, std::min(g, b)), mx = std::max(r, std::max(g, b));
    if (mx > 1.0f) {
        if (mn >= 1.0f) {
            r = g = b = 1.0f;
        } else {
            float const k = float((1.0 - mn) / (double(mx) - double(mn) + 1e-7));
            r = mn + (r - mn) * k;
            g = mn + (g - mn) * k;
            b = mn + (b - mn) * k;
        }
    }
    r *= 65535.0f;
    b *= 65535.0f;
    float const y2 = 0.299f * r + 0.114f * b + 38469.047f * g;
    Y = sat16r(y2);
    Dr = sat16r(0.5f * (r - y2) + 32768.0f);
    Db = sat16r(0.5f * (b - y2) + 32768.0f);
}
