#include "kestrix1/tables/selective_color_filter.h"

#include <algorithm>
#include <cmath>

#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/messages.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"

namespace {

constexpr char const kErrTableCount[] =
    "ERROR - SelectiveColorFilter - table count must be 0 to 16";
constexpr char const kErrTriangleCount[] =
    "ERROR - SelectiveColorFilter::setupLUT16UTriangle - table count must be 1 to 16";
constexpr char const kErrHueRangeVectors[] =
    "ERROR - SelectiveColorFilter::compHueRange - need Y, Dr, Db in and two planes out";

constexpr float kFamilyCentre[6] = {0.0f, 60.0f, 100.0f, 165.0f, 220.0f, 300.0f};
constexpr float kFamilyDen[6] = {-1256.0f, -628.0f, -628.0f, -1236.0f, -1570.0f, -942.0f};
constexpr int kSlotEntries = SelectiveColorFilter::kTableCodes + SelectiveColorFilter::kTableTail;

// The hue of table code i, in degrees.
inline float codeHue(int i) {
    return float(i) / 65535.0f * 360.0f;
}

// Truncation of a non-negative weight in 1/65535 units, held within 16 bits.
inline std::uint16_t trunc16(float v) {
    return std::uint16_t(std::min(v, 65535.0f));
}

// Runs body(i) over all table codes, in parallel.
template <class Body>
void forEachCode(int tables, Body &&body) {
    parallelRows(SelectiveColorFilter::kTableCodes, std::int64_t(tables) * 65536 * 16, body);
}

// One row of compHueRange. Every candidate hue is computed and the last test that holds
// picks one, without branches, so that the loop vectorises; a grey pixel's divisions by 0
// are computed and thrown away.
KX_VECTOR_CLONES
void hueRangeRow(std::uint16_t const *py, std::uint16_t const *pr, std::uint16_t const *pb,
                 std::uint16_t *ph, std::uint16_t *pn, int cols) {
    for (int x = 0; x < cols; ++x) {
        float const yv = py[x];
        float const R = yv + 2.0f * float(pr[x]) - 65536.0f;
        float const B = yv + 2.0f * float(pb[x]) - 65536.0f;
        float const G = (yv - 0.299f * R - 0.114f * B) / 0.587f;
        float const mx = std::max(R, std::max(G, B)), mn = std::min(R, std::min(G, B));
        float const rg = mx - mn;
        float const hR = (G - B) * 60.0f / rg, hG = (B - R) * 60.0f / rg + 120.0f,
                    hB = 240.0f + (R - G) * 60.0f / rg;
        float h = R == mx ? hR : 0.0f;
        h = G == mx ? hG : h;
        h = B == mx ? hB : h;
        float const wrapped = h + 360.0f;
        h = h < 0.0f ? wrapped : h;
        bool const grey = std::fabs(double(rg)) < 1e-6;
        ph[x] = grey ? 0 : trunc16(h / 360.0f * 65535.0f);
        pn[x] = grey ? 0 : trunc16(rg);
    }
}

}  // namespace

SelectiveColorFilter::SelectiveColorFilter() = default;

float SelectiveColorFilter::wrapHue(float h) {
    return h - std::ceil(h / 360.0f) * 360.0f;
}

float SelectiveColorFilter::hueDistance(float a, float b) {
    float const hi = std::max(a, b), lo = std::min(a, b);
    return std::min(360.0f - hi + lo, hi - lo);
}

float SelectiveColorFilter::hueMask(float hue, float centre) {
    float const d = hueDistance(wrapHue(hue), centre);
    return std::exp(d * d / kDefaultDen);
}

float SelectiveColorFilter::hueMask(float hue, ColorCategory family) {
    float const d = hueDistance(wrapHue(hue), kFamilyCentre[family]);
    return std::exp(d * d / kFamilyDen[family]);
}

float SelectiveColorFilter::hueMask(float hue, float, ColorCategory family) {
    return hueMask(hue, family) * rangeMask(0.0f, family);
}

float SelectiveColorFilter::hueAdj(float hue, float centre, float amount) {
    float const d = hueDistance(hue, centre);
    return amount * std::exp(d * d / kDefaultDen);
}

float SelectiveColorFilter::rangeMask(float, ColorCategory) {
    return 1.0f;
}

void SelectiveColorFilter::computeHueMask(float hue, float *const out, float const *const centre,
                                          float const *const den) {
    float const h = wrapHue(hue);
    float w[6];  // outputs may alias the inputs: read everything first
    for (int k = 0; k < 6; ++k) {
        float const d = hueDistance(h, centre[k]);
        w[k] = std::exp(d * d / den[k]);
    }
    std::copy(w, w + 6, out);
}

std::uint16_t *SelectiveColorFilter::slot(int k) {
    if (!m_lut[k]) m_lut[k].reset(new std::uint16_t[kSlotEntries]());
    return m_lut[k].get();
}

void SelectiveColorFilter::setupLUT16U(int n, float const *const mult, float const *const centre) {
    kxRequire(n >= 0 && n <= kMaxTables, kErrTableCount);
    m_lutCount = n;
    std::uint16_t *t[kMaxTables];
    for (int k = 0; k < n; ++k)
        t[k] = slot(k);
    forEachCode(n, [&](int i) {
        float const h = codeHue(i);
        for (int k = 0; k < n; ++k) {
            float const d = hueDistance(h, centre[k]);
            t[k][i] = trunc16(65535.0f * std::exp(d * d * mult[k]));
        }
    });
}

void SelectiveColorFilter::setupLUT16UTriangle(int n, float const *const,
                                               float const *const centre) {
    kxRequire(n >= 1 && n <= kMaxTables, kErrTriangleCount);
    m_lutCount = n;
    std::uint16_t *t[kMaxTables];
    for (int k = 0; k < n; ++k)
        t[k] = slot(k);
    float const first = centre[0], last = centre[n - 1];
    forEachCode(n, [&](int i) {
        float const h = codeHue(i);
        for (int k = 0; k < n; ++k) {
            float const c = centre[k];
            float e = c - h;
            if (k == 0 && h > last) e = h - 360.0f - c;
            float const up = k > 0 ? c - centre[k - 1] : 360.0f - last + c;
            float down = 0.0f;
            if (k < n - 1) {
                down = c - centre[k + 1];
            } else {
                if (first > h) e = 360.0f + h - c;
                down = c - 360.0f - first;
            }
            float w = 0.0f;
            if (std::fabs(double(e)) < 1e-6)
                w = 1.0f;
            else if (e < 0.0f && e > down)
                w = 1.0f - e / down;
            else if (e > 0.0f && up > e)
                w = 1.0f - e / up;
            t[k][i] = trunc16(65535.0f * w);
        }
    });
    // The tail is a copy of the head as it stands before normalisation: the pixel paths
    // look tables up by hue codes only, so it is never read against normalised entries.
    for (int k = 0; k < n; ++k)
        std::copy(t[k], t[k] + kTableTail, t[k] + kTableCodes);
    forEachCode(n, [&](int i) {
        float sum = 0.0f;
        for (int k = 0; k < n; ++k)
            sum += float(t[k][i]) * 1.5259022e-5f;
        if (sum == 0.0f) return;  // no family covers this hue: its entries stay 0
        for (int k = 0; k < n; ++k)
            t[k][i] = trunc16(float(t[k][i]) / sum);
    });
}

void SelectiveColorFilter::setupLUT16UTrapezoid(int n, float const *const outer,
                                                float const *const centre,
                                                float const *const inner) {
    kxRequire(n >= 0 && n <= kMaxTables, kErrTableCount);
    m_lutCount = n;
    std::uint16_t *t[kMaxTables];
    for (int k = 0; k < n; ++k)
        t[k] = slot(k);
    // 1 on the flat top (inclusive: the slope gives exactly 1 at a == in), linear to 0 at
    // out; a top as wide as the whole trapezoid has no slope to divide by.
    auto slope = [](float a, float in, float out) {
        if (in > a || a == in) return 1.0f;
        return 1.0f - (a - in) / (out - in);
    };
    forEachCode(n, [&](int i) {
        float const h = codeHue(i);
        for (int k = 0; k < n; ++k) {
            float const a = std::fabs(centre[k] - h);
            float w = 0.0f;
            if (a <= outer[k]) {
                w = slope(a, inner[k], outer[k]);
            } else if (k == 0) {
                float const a2 = std::fabs(centre[0] + 360.0f - h);
                w = a2 > outer[0] ? 0.0f : slope(a2, inner[0], outer[0]);
            }
            t[k][i] = std::uint16_t(std::clamp(std::nearbyint(65535.0f * w), 0.0f, 65535.0f));
        }
    });
}

void SelectiveColorFilter::releaseLUT16U() {
    for (auto &t : m_lut)
        t.reset();
    m_lutCount = 0;
}

void SelectiveColorFilter::compHueRange(std::vector<cv::Mat> &in, std::vector<cv::Mat> &out) {
    kxRequire(in.size() >= 3 && out.size() >= 2, kErrHueRangeVectors);
    cv::Mat const &Y = in[0], &Dr = in[1], &Db = in[2];
    for (cv::Mat const *m : {&Dr, &Db})
        kxRequire(Y.type() == CV_16UC1 && m->type() == CV_16UC1 && m->size() == Y.size(),
                  kxErrSelectivePlanes);
    cv::Mat hue(Y.size(), CV_16UC1), range(Y.size(), CV_16UC1);
    parallelRows(Y.rows, std::int64_t(Y.total()) * 8, [&](int y) {
        hueRangeRow(Y.ptr<std::uint16_t>(y), Dr.ptr<std::uint16_t>(y), Db.ptr<std::uint16_t>(y),
                    hue.ptr<std::uint16_t>(y), range.ptr<std::uint16_t>(y), Y.cols);
    });
    out[0] = hue;
    out[1] = range;
}
