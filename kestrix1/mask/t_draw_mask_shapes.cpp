// The parametric masks of TDrawMask: five gradients between two points, the colour-gated soft
// disc, and the superellipse outline. Every pixel loop runs over rows in parallel and each
// pixel depends only on its own position, so results do not depend on the thread count.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "kestrix1/filters/guided.h"
#include "kestrix1/image/tp_image.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/mask/t_draw_mask.h"

using cv::Mat;

namespace {

using u8 = std::uint8_t;
using u16 = std::uint16_t;

constexpr float kPi = 3.14159265358979f;
// 0.0001 as the bit pattern the shapes' guided filter has always used.
constexpr std::uint32_t kSuperEpsBits = 953267991u;

// The clamps are written as selects so that a NaN falls to the low end and the loops map
// onto vector min and max.
inline float clamp01(float v) {
    v = v > 0.0f ? v : 0.0f;
    return v < 1.0f ? v : 1.0f;
}

// The smoothstep of the ramps: 0 below 0, 1 above 1, v (3 - 2 v) v between.
inline float smoothstep(float v) {
    v = clamp01(v);
    return v * (3.0f - 2.0f * v) * v;
}

// round(x) saturated to 0..255; for x >= 0 truncating x + 0.5 rounds half away from zero.
inline int sat8(float x) {
    x = x > 0.0f ? x : 0.0f;
    x = x < 255.0f ? x : 255.0f;
    return int(x + 0.5f);
}

// The mask value of a ramp position v: round((1 - S(v)) 255).
inline int rampValue(float v) {
    return sat8((1.0f - smoothstep(v)) * 255.0f);
}

// How new values enter a row: 1 the minimum of new and old, 2 the maximum, else new. The
// mode is tested once outside the loops so that each loop is straight-line and vectorises.
template <class Value>
inline void mergeRow(u8 *__restrict row, int width, int mode, Value value) {
    if (mode == 1) {
        for (int x = 0; x < width; ++x)
            row[x] = u8(std::min(value(x), int(row[x])));
    } else if (mode == 2) {
        for (int x = 0; x < width; ++x)
            row[x] = u8(std::max(value(x), int(row[x])));
    } else {
        for (int x = 0; x < width; ++x)
            row[x] = u8(value(x));
    }
}

// ---- gradient rows ----------------------------------------------------------------------------

// Type 0: v = (x k + c - y) / D.
KX_VECTOR_CLONES void linearRow(u8 *__restrict row, int width, float fy, float k, float c, float D,
                                int mode) {
    mergeRow(row, width, mode, [=](int x) { return rampValue((float(x) * k + c - fy) / D); });
}

// Type 3: v = |x k + c - y| / D, a band round the line through the start.
KX_VECTOR_CLONES void bandRow(u8 *__restrict row, int width, float fy, float k, float c, float D,
                              int mode) {
    mergeRow(row, width, mode,
             [=](int x) { return rampValue(std::fabs(float(x) * k + c - fy) / D); });
}

// Type 1: v = ((x - px)^2 + (y - py)^2) / L2.
KX_VECTOR_CLONES void radialRow(u8 *__restrict row, int width, float px, float fy2, float L2,
                                int mode) {
    mergeRow(row, width, mode, [=](int x) {
        float const fx = float(x) - px;
        return rampValue((fx * fx + fy2) / L2);
    });
}

// atan2(y, x) in degrees, as selects and one division so that a row of them vectorises: the
// ratio of the smaller to the larger magnitude, reduced below tan(pi / 8) and through the
// polynomial of Cephes' atanf (within 2e-7 of the true angle), then put in its octant.
// x is never 0 here (the callers add 0.0001 to an integer).
inline float atan2Degrees(float y, float x) {
    float const ax = std::fabs(x), ay = std::fabs(y);
    bool const steep = ay > ax;
    float const t = (steep ? ax : ay) / (steep ? ay : ax);
    bool const upper = t > 0.41421356f;
    float const u = upper ? (t - 1.0f) / (t + 1.0f) : t;
    float const z = u * u;
    float r = (((8.05374449538e-2f * z - 1.38776856032e-1f) * z + 1.99777106478e-1f) * z -
               3.33329491539e-1f) *
                  z * u +
              u;
    r = upper ? r + 0.78539816f : r;
    r = steep ? 1.57079633f - r : r;
    r = x < 0.0f ? 3.14159265f - r : r;
    r = y < 0.0f ? -r : r;
    return r * 180.0f / kPi;
}

// Type 2: the angle round p, in degrees from the start direction a0, as 1 - a' / 360.
KX_VECTOR_CLONES void angularRow(u8 *__restrict row, int width, float dyUp, float px, float a0,
                                 int mode) {
    float const turn = dyUp < 0.0f ? 360.0f : 0.0f;
    mergeRow(row, width, mode, [=](int x) {
        float const a = atan2Degrees(dyUp, float(x) - px + 0.0001f) + turn;
        float d = a - a0;
        d = d < 0.0f ? d + 360.0f : d;
        return rampValue(1.0f - d / 360.0f);
    });
}

// Type 4: the larger distance to the two lines through p, over W.
KX_VECTOR_CLONES void cornerRow(u8 *__restrict row, int width, float fy, float k1, float c1,
                                float k2, float c2, float g1, float g2, float W, int mode) {
    mergeRow(row, width, mode, [=](int x) {
        float const fx = float(x);
        float const a = std::fabs(k2 * fx + c2 - fy) / g1;
        float const b = std::fabs(k1 * fx + c1 - fy) / g2;
        return rampValue((a > b ? a : b) / W);
    });
}

// ---- the soft disc --------------------------------------------------------------------------

// Everything a row of the colour-gated disc needs besides its own planes.
struct DiscSetup {
    int cx, cy;
    float inner2, outer2, edge;  // inner radius squared, outer radius squared, sharpness
    float y0, dr0, db0, gain;    // the centre's colour and the gate's gain c'
    float lo, scale;             // the level stretch
    int mode;
};

void discRow(u8 *row, float const *yRow, u16 const *drRow, u16 const *dbRow, int width, int y,
             DiscSetup const &s) {
    int const dyy = (y - s.cy) * (y - s.cy);
    float const falloff = -0.01f - (s.outer2 - s.inner2);
    for (int x = 0; x < width; ++x) {
        float const d2 = float((x - s.cx) * (x - s.cx) + dyy);
        float const cover = s.inner2 > d2 ? 1.0f : std::exp((d2 - s.inner2) / falloff * s.edge);
        float const dist = 1.2f * std::fabs(yRow[x] - s.y0) +
                           6.0f * (std::fabs(float(drRow[x / 2]) / 65535.0f - s.dr0) +
                                   std::fabs(float(dbRow[x / 2]) / 65535.0f - s.db0));
        float const q = dist * s.gain / (0.01f + cover);
        float const value = cover * (1.0f - smoothstep(q)) * 255.0f;
        if (s.mode == 1)
            row[x] = u8(std::min(sat8(value), int(row[x])));
        else if (s.mode == 2)
            row[x] = u8(std::max(sat8(value), int(row[x])));
        else
            row[x] = u8(sat8((value - s.lo) * s.scale));
    }
}

}  // namespace

void TDrawMask::drawGradientMask(Mat &plane, int type, cv::Point_<int> &p, cv::Point_<int> &q) {
    if (p == q || type < 0 || type > 4 || plane.empty() || plane.type() != CV_8UC1) return;
    int const rows = plane.rows, cols = plane.cols, mode = m_mergeMode;
    std::int64_t const work = std::int64_t(rows) * cols * (type == 2 ? 16 : 1);
    int const dx = q.x - p.x, dy = q.y - p.y;
    auto eachRow = [&](auto body) {
        parallelRows(rows, work, [&](int y) { body(plane.ptr<u8>(y), y); });
    };

    if (type == 0 || type == 3) {
        float const k = float(p.x - q.x) / (float(dy) + 1e-7f);
        float const c = float(p.y) - float(p.x) * k;
        float const D = float(q.x) * k + c - float(q.y) + 0.0001f;
        if (type == 0)
            eachRow([&](u8 *row, int y) { linearRow(row, cols, float(y), k, c, D, mode); });
        else
            eachRow(
                [&](u8 *row, int y) { bandRow(row, cols, float(y), k, c, std::fabs(D), mode); });
    } else if (type == 1) {
        float const L2 = float(dx * dx + dy * dy);
        if (L2 <= 0.5f) {
            resetMask(plane, 0);
            return;
        }
        eachRow([&](u8 *row, int y) {
            float const fy = float(y - p.y);
            radialRow(row, cols, float(p.x), fy * fy, L2, mode);
        });
    } else if (type == 2) {
        float const y0 = float(p.y - q.y);
        float a0 = atan2Degrees(y0, float(dx) + 0.0001f);
        if (y0 < 0.0f) a0 += 360.0f;
        eachRow(
            [&](u8 *row, int y) { angularRow(row, cols, float(p.y - y), float(p.x), a0, mode); });
    } else {
        int const hx = p.x - (p.x + q.x + p.y - q.y) / 2;
        int const hy = (dx + p.y + q.y) / 2 - p.y;
        float const k1 = float(hx) / (float(hy) + 0.0001f);
        float const k2 = float(hy) / (0.0001f - float(hx));
        float const c1 = float(p.y) - float(p.x) * k1;
        float const c2 = float(p.y) - float(p.x) * k2;
        float const g1 = std::sqrt(k2 * k2 + 1.0f), g2 = std::sqrt(k1 * k1 + 1.0f);
        float const W = (std::fabs(float(q.x) * k2 - float(q.y) + c2) + 0.0001f) / g1;
        eachRow([&](u8 *row, int y) {
            cornerRow(row, cols, float(y), k1, c1, k2, c2, g1, g2, W, mode);
        });
    }
}

void TDrawMask::drawSuperMask(Mat &plane, cv::Point_<int> &centre, float size, float a, float b,
                              float c) {
    (void)a;
    (void)b;
    if (plane.empty() || plane.type() != CV_8UC1 || m_image == nullptr) return;
    Mat const &Y16 = m_image->m_Y, &Dr = m_image->m_Dr, &Db = m_image->m_Db;
    int const rows = plane.rows, cols = plane.cols;
    if (m_inputY.size() != plane.size() || Y16.size() != plane.size() || Dr.rows < (rows + 1) / 2 ||
        Dr.cols < (cols + 1) / 2 || Db.size() != Dr.size())
        return;

    DiscSetup s;
    s.cx = std::min(std::max(centre.x, 0), cols - 1);
    s.cy = std::min(std::max(centre.y, 0), rows - 1);
    s.y0 = m_inputY.at<float>(s.cy, s.cx);
    s.dr0 = float(Dr.at<u16>(s.cy / 2, s.cx / 2)) / 65535.0f;
    s.db0 = float(Db.at<u16>(s.cy / 2, s.cx / 2)) / 65535.0f;

    // Geometry in double: the corner distance reaches 10^8 on large planes.
    double const sz = size;
    int const w = std::max(s.cx, cols - 1 - s.cx), h = std::max(s.cy, rows - 1 - s.cy);
    double const R2 = double(w) * w + double(h) * h;
    s.edge = float(sz > 0.92 ? 2.0 - (sz - 0.92) * 18.75 : 2.0);
    double const grow = sz > 0.8 ? (sz - 0.8) * 8.0 + 2.004 : 2.48 * sz + 0.02;
    s.outer2 = float(std::max<std::int64_t>(1, std::int64_t(R2 * grow)));
    int const reach = std::max(std::max(w, h), s.cy);
    std::int64_t const inner = std::int64_t((0.98 * sz + 0.02) * (reach / 6.0));
    s.inner2 = float(inner * inner);
    s.gain = 1.44f * c + 0.56f;
    int lo = 0, hi = 255;
    if (size > 0.95f) {
        int const g = int((size - 0.95f) * 200.0f);
        lo = std::min(std::max(0, -g), 254);
        hi = std::min(std::max(1, 255 - g), 255);
    }
    s.lo = float(lo);
    s.scale = 255.0f / float(hi - lo);
    s.mode = m_mergeMode;

    parallelRows(rows, std::int64_t(rows) * cols * 16, [&](int y) {
        discRow(plane.ptr<u8>(y), m_inputY.ptr<float>(y), Dr.ptr<u16>(y / 2), Db.ptr<u16>(y / 2),
                cols, y, s);
    });

    float eps;
    std::memcpy(&eps, &kSuperEpsBits, sizeof eps);
    Mat guide = Y16;
    filterGuidedByY(plane, plane, guide, 1, eps, &m_gf, 1);
}

void TDrawMask::drawSuperShapeLUT(Mat &plane, int value, int cx, int cy, int a, int b, float m,
                                  float e1, float e2) {
    if (plane.empty() || a < 1 || b < 1 || m == 0.0f) return;
    comSinCosLUT();
    float const *s = m_sin.get();
    float const *co = m_cos.get();
    float const fa = float(a), fb = float(b), power = -1.0f / m;
    auto point = [&](int i) {
        float const r = std::pow(
            std::pow(std::fabs(co[i] / fa), e1) + std::pow(std::fabs(s[i] / fb), e2), power);
        return cv::Point(int(float(cx) - s[i] * r), int(float(cy) + co[i] * r));
    };
    cv::Scalar const colour(value);
    cv::Point prev = point(kSinCosSize - 1);
    for (int i = 0; i < kSinCosSize; ++i) {
        cv::Point const next = point(i);
        cv::line(plane, prev, next, colour, 1, cv::LINE_8, 0);
        prev = next;
    }
}

void TDrawMask::comSinCosLUT() {
    if (m_sin && m_cos) return;
    m_sin.reset(new float[kSinCosSize]);
    m_cos.reset(new float[kSinCosSize]);
    float *s = m_sin.get();
    float *co = m_cos.get();
    parallelRows(kSinCosSize, [&](int i) {
        double const t = i * 0.0017453292519943296;
        s[i] = float(std::sin(t));
        co[i] = float(std::cos(t));
    });
}
