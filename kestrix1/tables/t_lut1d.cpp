#include "kestrix1/tables/t_lut1d.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "kestrix1/frame/errors.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_memory.h"
#include "kestrix1/kernels/px_point.h"
#include "kestrix1/tables/lut_smoothing.h"
#include "kestrix1/tables/mc_spline.h"
#include "kestrix1/tables/t_spline.h"

namespace {

char const kErrType[] = "ERROR - TLut1D::TLut1D - type";
char const kErrAlloc[] = "ERROR - TLut1D::TLut1D - ippsMalloc_8u";
char const kErrSrcDepth[] = "ERROR - TLut1D::apply - src.depth() is not the table's input type";

bool validPair(int in, int out) {
    return (in == CV_8U || in == CV_16U) && (out == CV_8U || out == CV_16U);
}

int entriesOf(int in) {
    return in == CV_16U ? 65536 : 256;
}

// Slope of a contrast line from a gain control g in -1..1: 1 at g = 0, kHigh at g = 1 and
// kLow at g = -1.
float slopeOf(float g, float kLow, float kHigh) {
    return g >= 0.0f ? 1.0f + (kHigh - 1.0f) * g : 1.0f + (1.0f - kLow) * g;
}

// ---- table smoothing -------------------------------------------------------------------

template <class T>
void smoothTableImpl(T *row, int n, float sigma, int passes) {
    if (row == nullptr || n < 1 || !(sigma > 0.0f) || passes <= 0) return;

    double const lambda = double(sigma) * double(sigma) / (2.0 * passes);
    double const nuD = (1.0 + 2.0 * lambda - std::sqrt(1.0 + 4.0 * lambda)) / (2.0 * lambda);
    // (nu / lambda)^passes by repeated squaring: the gain of the sweeps, divided out below.
    double postD = 1.0;
    double base = nuD / lambda;
    for (int k = passes; k > 0; k >>= 1, base *= base)
        if (k & 1) postD *= base;
    float const nu = float(nuD);
    float const boundary = float(1.0 / (1.0 - nuD));
    float const post = float(postD);

    // A float copy per thread, kept between calls: tables are rebuilt per slider change
    // and a fresh 256 KiB buffer each time would cost more in page faults than the sweeps.
    thread_local std::vector<float> work;
    if (work.size() < std::size_t(n)) work.resize(std::size_t(n));
    float *e = work.data();
    for (int i = 0; i < n; ++i)
        e[i] = float(row[i]);

    for (int pass = 0; pass < passes; ++pass) {
        e[0] *= boundary;
        for (int i = 1; i < n; ++i)
            e[i] += nu * e[i - 1];
        e[n - 1] *= boundary;
        for (int i = n - 1; i > 0; --i)
            e[i - 1] += nu * e[i];
    }
    for (int i = 0; i < n; ++i)
        row[i] = cv::saturate_cast<T>(e[i] * post);
}

// ---- the contrast line -----------------------------------------------------------------

// The table part of setupLinearThreshold, shared by both depths: the ramp through
// (mid, mid) with slope s, a gap or dead zone of t codes around mid, then the smoothing.
template <class T>
void fillLinearThreshold(T *table, int n, float s, int t, float smoothFactor) {
    int const mid = n / 2;
    pxVectorRamp(table, n, (1.0f - s) * float(mid), s);
    // Beyond mid - 1 codes the gap or zone would reach past the table's ends.
    t = std::max(-(mid - 1), std::min(mid - 1, t));
    if (t > 0) {
        std::fill(table + mid, table + mid + t, table[mid + t]);
        std::fill(table + mid - t, table + mid, table[mid - t]);
    } else if (t < 0) {
        int const w = -t;
        std::fill(table + mid - w, table + mid + w + 1, T(mid));
    }
    if (t != 0) {
        float const sigma = float(std::abs(t)) * smoothFactor;
        if (sigma > 1.0f) smoothTableImpl(table, n, sigma, 2);
    }
}

// ---- cubic look-up over knots ----------------------------------------------------------

// Fills the 65536-entry map through n >= 4 knots (levels rising strictly from code 0):
// codes outside [levels[0], levels[n-1]) map to themselves; each interval follows the cubic
// through the four knots around it (the first and last intervals use the first and last
// four knots), evaluated in double and rounded half up with saturation. An interval one code
// wide takes its knot's target as it is.
void cubicMap(std::uint16_t *map, int const *levels, int const *targets, int n) {
    for (int code = 0; code < levels[0]; ++code)
        map[code] = std::uint16_t(code);
    for (int k = 0; k + 1 < n; ++k) {
        int const lo = levels[k], hi = levels[k + 1];
        if (hi - lo == 1) {
            map[lo] = cv::saturate_cast<std::uint16_t>(targets[k]);
            continue;
        }
        int const j = std::max(0, std::min(k - 1, n - 4));
        // Newton form around knot j + 1.
        double const origin = levels[j + 1];
        double xs[4], a[4];
        for (int q = 0; q < 4; ++q) {
            xs[q] = levels[j + q] - origin;
            a[q] = targets[j + q];
        }
        for (int order = 1; order < 4; ++order)
            for (int q = 3; q >= order; --q)
                a[q] = (a[q] - a[q - 1]) / (xs[q] - xs[q - order]);
        for (int code = lo; code < hi; ++code) {
            double const u = code - origin;
            double const v =
                ((a[3] * (u - xs[2]) + a[2]) * (u - xs[1]) + a[1]) * (u - xs[0]) + a[0];
            map[code] = std::uint16_t(std::min(65535.0, std::max(0.0, v + 0.5)));
        }
    }
    for (int code = levels[n - 1]; code < 65536; ++code)
        map[code] = std::uint16_t(code);
}

// ---- apply -----------------------------------------------------------------------------

// A plane as the kernels see it: channels side by side as one wider row.
IppiSize elementsOf(cv::Mat const &m) {
    return {m.cols * m.channels(), m.rows};
}
int stepOf(cv::Mat const &m) {
    return static_cast<int>(m.step);
}

}  // namespace

void smoothTable(std::uint8_t *row, int n, float sigma, int passes) {
    smoothTableImpl(row, n, sigma, passes);
}
void smoothTable(std::uint16_t *row, int n, float sigma, int passes) {
    smoothTableImpl(row, n, sigma, passes);
}

// ---- TLut1D ----------------------------------------------------------------------------

TLut1D::TLut1D(int inType, int outType) : m_inType(inType), m_outType(outType) {
    kxRequire(validPair(inType, outType), kErrType);
    int const bytes = entriesOf(inType) * (outType == CV_16U ? 2 : 1);
    std::uint8_t *p = ippsMalloc_8u(bytes);
    kxRequire(p != nullptr, kErrAlloc);
    m_lut.reset(p, [](std::uint8_t *q) { pxFree(q); });
}

TLut1D::~TLut1D() = default;

int TLut1D::size() const {
    return entriesOf(m_inType);
}

void TLut1D::apply(cv::Mat const &src, cv::Mat dst) {
    kxRequire(validPair(m_inType, m_outType), kErrType);
    if (src.empty()) return;
    kxRequire(src.depth() == m_inType && src.dims <= 2, kErrSrcDepth);
    dst.create(src.rows, src.cols, CV_MAKETYPE(m_outType, src.channels()));

    IppiSize const size = elementsOf(src);
    if (m_inType == CV_8U && m_outType == CV_8U) {
        pxLutPalette(src.ptr<std::uint8_t>(), stepOf(src), dst.ptr<std::uint8_t>(), stepOf(dst),
                     size, lut8U(), 8);
    } else if (m_inType == CV_16U && m_outType == CV_16U) {
        pxLutPalette(src.ptr<std::uint16_t>(), stepOf(src), dst.ptr<std::uint16_t>(), stepOf(dst),
                     size, lut16U(), 16);
    } else if (m_inType == CV_16U) {
        // Only the low byte of a 16-bit pixel indexes this table; hosts rely on it.
        pxLutPalette(src.ptr<std::uint16_t>(), stepOf(src), dst.ptr<std::uint8_t>(), stepOf(dst),
                     size, lut8U(), 8);
    } else {
        std::uint16_t const *table = lut16U();
        parallelRows(size.height, [&](int y) {
            std::uint8_t const *s = src.ptr<std::uint8_t>(y);
            std::uint16_t *d = dst.ptr<std::uint16_t>(y);
            for (int x = 0; x < size.width; ++x)
                d[x] = table[s[x]];
        });
    }
}

void TLut1D::apply(cv::Mat m) {
    apply(m, m);
}

// ---- TLut16U ---------------------------------------------------------------------------

TLut16U::TLut16U(float kLow, float kHigh, int thresholdRange, float smoothFactor)
    : TLut1D(CV_16U, CV_16U),
      m_kLow(kLow),
      m_kHigh(kHigh),
      m_thresholdRange(thresholdRange),
      m_smoothFactor(smoothFactor) {}

void TLut16U::setKRange(float kLow, float kHigh, int thresholdRange, float smoothFactor) {
    m_kLow = kLow;
    m_kHigh = kHigh;
    m_thresholdRange = thresholdRange;
    m_smoothFactor = smoothFactor;
}

void TLut16U::setupLinearThreshold(float a, float b, float c, float d) {
    float const gain = a >= 0.0f ? c + (1.5f - c) * a / 1.5f : c + (1.5f + c) * a / 1.5f;
    // Negative thresholds, and offsets towards them, act with 0.4 of their strength: a dead
    // zone costs detail faster than a gap adds it.
    if (d < 0.0f) d = float(0.4 * d);
    float threshold;
    if (b >= 0.0f) {
        threshold = d + (1.5f - d) * b / 1.5f;
    } else {
        float const bw = float(0.4 * b);
        threshold = d + (1.5f + d) * bw / 1.5f;
    }
    float const s = slopeOf(gain, m_kLow, m_kHigh);
    // Dividing by a steep slope keeps the zone's width the same in output codes.
    float zone = threshold * float(m_thresholdRange);
    if (s > 1.0f) zone /= s;
    fillLinearThreshold(lut16U(), 65536, s, int(zone), m_smoothFactor);
}

void TLut16U::setupLightAdjust(float a, float b, float c, float d) {
    TSpline spline(5);
    spline.setCtrPoint(0, 0.0f, 0.0f);
    spline.setCtrPoint(1, 0.25f, (0.5f + 0.35f * c) * 0.5f);
    spline.setCtrPoint(2, 0.5f, 0.5f);
    spline.setCtrPoint(3, 0.75f, 1.0f - (0.5f - 0.35f * d) * 0.5f);
    spline.setCtrPoint(4, 1.0f, 1.0f);
    spline.update();
    for (int i = 0; i < 64; ++i) {
        float const t = float(i) / 63.0f;
        m_curve[i] = std::min(1.0f, std::max(0.0f, spline.value(t)));
    }

    float const s = slopeOf(b, m_kLow, m_kHigh);
    std::uint16_t *table = lut16U();
    pxVectorRamp(table, 65536, (1.0f - s) * 32768.0f + 13106.8f * a, s);

    float const *curve = m_curve;
    for (int i = 0; i < 65536; ++i) {
        float const v = float(table[i]) / 65535.0f * 63.0f;
        int const lo = int(v);
        int const hi = std::min(lo + 1, 63);
        float const mixed = (float(lo + 1) - v) * curve[lo] + (v - float(lo)) * curve[hi];
        table[i] = cv::saturate_cast<std::uint16_t>(std::rint(double(mixed) * 65535.0));
    }
}

void TLut16U::setupBlackMedToneWhiteAdjust(float black, float med, float white) {
    float const x1 = black >= 0.0f ? 0.025f : 0.025f - 0.2f * black;
    float const y1 = black >= 0.0f ? 0.025f + 0.2f * black : 0.025f;
    float const x3 = white >= 0.0f ? 0.975f - 0.3f * white : 0.975f;
    float const y3 = white >= 0.0f ? 0.975f : 0.975f + 0.3f * white;
    float const x2 = (x1 + x3) * 0.5f;
    float const y2 = (y1 + y3) * 0.5f + 0.4f * (y3 - y1) * med;

    // The outer points continue the lines from the middle point through the inner ones to
    // x = -0.5 and x = 1.5; a line too steep for that ends at y = -0.5 or 1.5 instead.
    float x0 = -0.5f, x4 = 1.5f;
    float y0 = y1 + (-0.5f - x1) * (y1 - y2) / (x1 - x2);
    if (y0 < -0.5f) {
        x0 = 0.25f / y0;
        y0 = -0.5f;
    }
    float y4 = y3 + (1.5f - x3) * (y3 - y2) / (x3 - x2);
    if (y4 > 1.5f) {
        x4 = 2.25f / y4;
        y4 = 1.5f;
    }

    MCSpline spline(5);
    spline.setCtrPoint(0, x0, y0);
    spline.setCtrPoint(1, x1, y1);
    spline.setCtrPoint(2, x2, y2);
    spline.setCtrPoint(3, x3, y3);
    spline.setCtrPoint(4, x4, y4);
    spline.update();

    int levels[64], targets[64];
    for (int i = 0; i < 64; ++i) {
        float const t = float(i) / 63.0f;
        float v = t < x0 ? 0.0f : t > x4 ? 1.0f : spline.value(t);
        v = std::min(1.0f, std::max(0.0f, v));
        m_curve[i] = v;
        levels[i] = int(65535.5 * t);
        targets[i] = int(65535.5 * v);
    }
    // The identity table passed through the map is the map itself.
    cubicMap(lut16U(), levels, targets, 64);
}

// ---- TLut8U ----------------------------------------------------------------------------

TLut8U::TLut8U(float kLow, float kHigh, int thresholdRange, float smoothFactor)
    : TLut1D(CV_8U, CV_8U),
      m_kLow(kLow),
      m_kHigh(kHigh),
      m_thresholdRange(thresholdRange),
      m_smoothFactor(smoothFactor) {}

void TLut8U::setKRange(float kLow, float kHigh, int thresholdRange, float smoothFactor) {
    m_kLow = kLow;
    m_kHigh = kHigh;
    m_thresholdRange = thresholdRange;
    m_smoothFactor = smoothFactor;
}

void TLut8U::setupLinearThreshold(float a, float b, float c, float d) {
    float const gain = a >= 0.0f ? c + (1.0f - c) * a : c + (1.0f + c) * a;
    float const threshold = b >= 0.0f ? d + (1.0f - d) * b : d + (1.0f + d) * b;
    float const s = slopeOf(gain, m_kLow, m_kHigh);
    float zone = threshold * float(m_thresholdRange);
    if (s > 1.0f) zone /= s;
    fillLinearThreshold(lut8U(), 256, s, int(zone), m_smoothFactor);
}
