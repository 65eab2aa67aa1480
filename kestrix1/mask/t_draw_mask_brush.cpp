// The brush members of TDrawMask: the falloff table, dot clipping and the three dots (soft
// from the table, soft with the table built first, hard disc).
//
// A dot works on a square of side 2r + 1 around its centre. Its distance plane is built once
// per dot (one row of |x - r|, copied down, transposed, combined by cv::magnitude) and the
// square is clipped to the mask. The soft dots then run one row kernel per square row, rows
// in parallel once the square is large; each row only visits the pixels whose coverage is
// above 0, which are the pixels that can change.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include <opencv2/core.hpp>

#include "kestrix1/image/tp_image.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/px_point.h"
#include "kestrix1/mask/t_draw_mask.h"

namespace {

// x rounded to nearest, ties to even, for |x| < 2^51: the addition leaves no bits below
// the units, and unlike std::nearbyint it vectorises on every target.
inline double roundEven(double x) {
    return (x + 6755399441055744.0) - 6755399441055744.0;
}

inline double clamp255(double x) {
    x = x > 0.0 ? x : 0.0;
    return x < 255.0 ? x : 255.0;
}

// The row kernels take pixels in chunks and give each step a loop of its own: the table
// lookup, the gate, the blend. So split, every loop vectorises; one loop holding both the
// gate's limit and the blend's clamp does not.
constexpr int kChunk = 256;

// w = table[trunc(d + 0.5)] for n <= kChunk distances.
inline void coverage(float const *__restrict dist, float const *__restrict lut, float *__restrict w,
                     int n) {
    for (int i = 0; i < n; ++i)
        w[i] = lut[int(dist[i] + 0.5f)];
}

// One row of a soft dot without gate: m = rint(v w + m (1 - w)).
KX_VECTOR_CLONES void plainRow(float const *__restrict dist, float const *__restrict lut, double v,
                               std::uint8_t *__restrict m, int n) {
    float w[kChunk];
    for (int s = 0; s < n; s += kChunk) {
        int const len = std::min(kChunk, n - s);
        coverage(dist + s, lut, w, len);
        std::uint8_t *__restrict ms = m + s;
        for (int i = 0; i < len; ++i) {
            double const wi = w[i];
            ms[i] = std::uint8_t(int(clamp255(roundEven(v * wi + double(ms[i]) * (1.0 - wi)))));
        }
    }
}

// One row of a gated soft dot: g = w (1 - q^2 (3 - 2q)), q = min(1, (1.5 |Y - Y0| + chroma6)
// / (w + 0.1)), m = trunc(v g + m (1 - g)). chroma6 holds 6 (|Dr - Dr0| + |Db - Db0|) per
// pixel. The denominator is taken in double, or in float with floatDen (the two dot
// members differ there, in the last unit).
KX_VECTOR_CLONES void gatedRow(float const *__restrict dist, float const *__restrict lut,
                               float const *__restrict y, float y0,
                               double const *__restrict chroma6, double v,
                               std::uint8_t *__restrict m, int n, bool floatDen) {
    float w[kChunk];
    double q[kChunk];
    for (int s = 0; s < n; s += kChunk) {
        int const len = std::min(kChunk, n - s);
        coverage(dist + s, lut, w, len);
        float const *__restrict ys = y + s;
        double const *__restrict cs = chroma6 + s;
        for (int i = 0; i < len; ++i) {
            double const num = 1.5 * double(std::fabs(ys[i] - y0)) + cs[i];
            double const den = floatDen ? double(0.1f + w[i]) : double(w[i]) + 0.1;
            double const ratio = num / den;
            q[i] = ratio < 1.0 ? ratio : 1.0;
        }
        std::uint8_t *__restrict ms = m + s;
        for (int i = 0; i < len; ++i) {
            double const g = double(w[i]) * (1.0 - q[i] * q[i] * (3.0 - 2.0 * q[i]));
            ms[i] = std::uint8_t(int(clamp255(v * g + double(ms[i]) * (1.0 - g))));
        }
    }
}

// How many elements count as one unit of the work measure that decides on threads. Waking
// a thread team costs tens of microseconds, more on a busy machine, while a soft dot's pixel
// costs a few nanoseconds on one thread: a dot of radius 100 is done before a second thread
// would have paid for itself, so dots take threads from about a quarter of a megapixel on.
// A row copy or a masked set costs far less per element again.
constexpr std::int64_t kDotPixelsPerUnit = 8;
constexpr std::int64_t kCopiesPerUnit = 64;

// The Euclidean distance from the centre of a square of side 2r + 1, CV_32FC1.
cv::Mat distanceSquare(int r) {
    int const n = 2 * r + 1;
    cv::Mat dx(n, n, CV_32FC1), dy, dist;
    float *row0 = dx.ptr<float>(0);
    for (int x = 0; x < n; ++x)
        row0[x] = float(std::abs(x - r));
    parallelRows(n, std::int64_t(n) * n / kCopiesPerUnit, [&](int y) {
        if (y > 0) std::memcpy(dx.ptr<float>(y), row0, sizeof(float) * n);
    });
    cv::transpose(dx, dy);
    cv::magnitude(dx, dy, dist);
    return dist;
}

// The first table index from which every entry is 0: pixels at or beyond it keep their value.
int zeroFrom(float const *lut) {
    int k = TDrawMask::kLutSize;
    while (k > 0 && lut[k - 1] == 0.0f)
        --k;
    return k;
}

// The columns [a, b) of a square row whose table index lies below `limit`. A row's
// distances fall towards column r and rise after it, symmetrically.
void coveredSpan(float const *dist, int r, int limit, int &a, int &b) {
    auto inside = [&](int c) { return int(dist[c] + 0.5f) < limit; };
    if (!inside(r)) {
        a = b = r;
        return;
    }
    int lo = 0, hi = r;  // the first inside column lies in [lo, hi]
    while (lo < hi) {
        int const mid = lo + (hi - lo) / 2;
        if (inside(mid))
            hi = mid;
        else
            lo = mid + 1;
    }
    a = lo;
    b = 2 * r + 1 - lo;
}

// The colour of the gate's reference: Y from the input plane, Dr and Db over 65535 from the
// image's half-size planes.
struct GateColour {
    float y = 0, dr = 0, db = 0;
};

// What a soft dot needs of the painter, its clip rectangle already set.
struct SoftDot {
    cv::Mat paint, inputY;
    TPImage const *image;
    float const *lut;
    int const *clip;
    cv::Point_<int> ref;  // the gate's reference point, before it is held inside the mask
    int r;
    double v;  // the value laid down: trunc(value flow)
    bool gate, floatDen;
};

void softDot(SoftDot const &dot) {
    int const sx0 = dot.clip[0], sx1 = dot.clip[1], sy0 = dot.clip[2], sy1 = dot.clip[3];
    int const mx = dot.clip[4], my = dot.clip[5];
    if (sx1 <= sx0 || sy1 <= sy0) return;

    float const *lut = dot.lut;
    int const limit = zeroFrom(lut);
    if (limit == 0) return;
    int const r = dot.r;
    double const v = dot.v;
    cv::Mat paint = dot.paint;  // a header: the painter's pixels are written
    cv::Mat const &inputY = dot.inputY;
    cv::Mat const dist = distanceSquare(r);
    int const rows = sy1 - sy0, cols = sx1 - sx0;
    std::int64_t const work = std::int64_t(rows) * cols / kDotPixelsPerUnit;

    // The part [a, b) of square row sy that lies inside both the clip and the covered disc.
    auto span = [&](int sy, int &a, int &b) {
        coveredSpan(dist.ptr<float>(sy), r, limit, a, b);
        a = std::max(a, sx0);
        b = std::min(b, sx1);
    };

    if (!dot.gate) {
        parallelRows(rows, work, [&](int j) {
            int a, b;
            span(sy0 + j, a, b);
            if (a < b)
                plainRow(dist.ptr<float>(sy0 + j) + a, lut, v, paint.ptr(my + j) + mx + a - sx0,
                         b - a);
        });
        return;
    }

    // The reference colour, read at a point held inside the mask.
    cv::Point_<int> ref = dot.ref;
    ref.x = std::clamp(ref.x, 0, paint.cols - 1);
    ref.y = std::clamp(ref.y, 0, paint.rows - 1);
    bool const hasY = inputY.rows == paint.rows && inputY.cols == paint.cols;
    bool const hasChroma = dot.image && !dot.image->m_Dr.empty() && !dot.image->m_Db.empty();
    GateColour ref0;
    if (hasY) ref0.y = inputY.at<float>(ref.y, ref.x);
    cv::Mat dr, db;  // headers: the image keeps its planes
    if (hasChroma) {
        dr = dot.image->m_Dr;
        db = dot.image->m_Db;
        int const hx = std::min(ref.x / 2, dr.cols - 1), hy = std::min(ref.y / 2, dr.rows - 1);
        ref0.dr = float(dr.at<std::uint16_t>(hy, hx)) / 65535.0f;
        ref0.db = float(db.at<std::uint16_t>(hy, hx)) / 65535.0f;
    }

    // Each band of rows first lays out the chroma term of its half-size rows, expanded to
    // full-size columns so that the row kernel reads it contiguously. Neighbouring bands may
    // both work out a half row they share; they get the same values.
    int const hx0 = mx / 2, hcols = (mx + cols - 1) / 2 - hx0 + 1;
    std::vector<float> const flatY(hasY ? 0 : cols, 0.0f);
    parallelBands(rows, work, [&](int j0, int j1) {
        int const h0 = (my + j0) / 2, h1 = (my + j1 - 1) / 2;
        std::vector<double> chroma(std::size_t(h1 - h0 + 1) * cols, 0.0), half(hcols);
        for (int h = h0; hasChroma && h <= h1; ++h) {
            int const hy = std::min(h, dr.rows - 1);
            std::uint16_t const *pr = dr.ptr<std::uint16_t>(hy);
            std::uint16_t const *pb = db.ptr<std::uint16_t>(hy);
            for (int i = 0; i < hcols; ++i) {
                int const hx = std::min(hx0 + i, dr.cols - 1);
                float const dDr = std::fabs(float(pr[hx]) / 65535.0f - ref0.dr);
                float const dDb = std::fabs(float(pb[hx]) / 65535.0f - ref0.db);
                half[i] = 6.0 * (double(dDr) + double(dDb));
            }
            double *out = chroma.data() + std::size_t(h - h0) * cols;
            for (int i = 0; i < cols; ++i)
                out[i] = half[(mx + i) / 2 - hx0];
        }
        for (int j = j0; j < j1; ++j) {
            int a, b;
            span(sy0 + j, a, b);
            if (a >= b) continue;
            int const y = my + j, off = a - sx0;
            float const *py = hasY ? inputY.ptr<float>(y) + mx + off : flatY.data() + off;
            double const *pc = chroma.data() + std::size_t(y / 2 - h0) * cols + off;
            gatedRow(dist.ptr<float>(sy0 + j) + a, lut, py, ref0.y, pc, v, paint.ptr(y) + mx + off,
                     b - a, dot.floatDen);
        }
    });
}

}  // namespace

void TDrawMask::updateLUT(int r, int ri) {
    if (!m_lut) {
        m_lut.reset(new float[kLutSize]());
        m_lutOuter = m_lutInner = -1;
    }
    if (ri > r) throw "ERROR -- TDrawMask::updateLUT - Inner circle is larger than outter circle.";
    if (r == m_lutOuter && ri == m_lutInner) return;
    m_lutOuter = r;
    m_lutInner = ri;

    float *lut = m_lut.get();
    int const below = std::clamp(ri, 0, kLutSize);
    int const end = std::clamp(r, 0, kLutSize);
    std::fill(lut, lut + below, 1.0f);
    double const tail = std::exp(-2.0);
    for (int d = below; d < end; ++d) {
        double const t = double(d - ri) / double(r - ri);
        lut[d] = float((std::exp(-2.0 * t * t) - tail) / (1.0 - tail));
    }
    std::fill(lut + end, lut + kLutSize, 0.0f);
}

void TDrawMask::checkBoundary(cv::Point_<int> &centre, int r) {
    m_area[0] = 0;
    m_area[1] = 0;
    m_area[2] = m_paint.cols - 1;
    m_area[3] = m_paint.rows - 1;
    int const n = 2 * r + 1;
    int const left = m_area[0], top = m_area[1], right = m_area[2], bottom = m_area[3];
    // One axis: the square's offset and end, and the first mask pixel.
    auto axis = [n, r](int c, int lo, int hi, int &offset, int &end, int &first) {
        bool const inside = c - r >= lo;
        offset = inside ? 0 : lo - (c - r);
        first = inside ? c - r : lo;
        end = c + r > hi ? n - (c + r) + hi : n;
    };
    axis(centre.x, left, right, m_clip[0], m_clip[1], m_clip[4]);
    axis(centre.y, top, bottom, m_clip[2], m_clip[3], m_clip[5]);
}

void TDrawMask::setPointInsideMat(cv::Point_<int> &out, cv::Point_<int> &candidate, cv::Mat &plane,
                                  cv::Point_<int> &fallback) {
    bool const inside = candidate.x >= 0 && candidate.y >= 0 && candidate.x < plane.cols &&
                        candidate.y < plane.rows;
    out = inside ? candidate : fallback;
}

void TDrawMask::drawStrokeDot(bool gate, TMaskParam *p) {
    if (p->radius == p->innerRadius && !gate) {
        brushDumbDot(p->value, p->flow, p->pt1, p->radius);
        return;
    }
    updateLUT(p->radius, p->innerRadius);
    brushMaskDotLUT(p->value, p->flow, p->pt1, p->radius, p->useColorGate, p->useRefPoint);
}

void TDrawMask::brushMaskDot(unsigned char value, float flow, cv::Point_<int> centre, int r, int ri,
                             bool useColorGate, bool useRefPoint) {
    updateLUT(r, ri);
    if (m_paint.empty() || r < 0) return;
    checkBoundary(centre, r);
    softDot({m_paint, m_inputY, m_image, m_lut.get(), m_clip, useRefPoint ? m_refPoint : centre, r,
             double(int(float(value) * flow)), useColorGate, true});
}

void TDrawMask::brushMaskDotLUT(unsigned char value, float flow, cv::Point_<int> centre, int r,
                                bool useColorGate, bool useRefPoint) {
    // A table never built: the dot is a hard-edged disc of radius r.
    if (!m_lut) updateLUT(r, r);
    if (m_paint.empty() || r < 0) return;
    checkBoundary(centre, r);
    softDot({m_paint, m_inputY, m_image, m_lut.get(), m_clip, useRefPoint ? m_refPoint : centre, r,
             double(int(float(value) * flow)), useColorGate, false});
}

void TDrawMask::brushDumbDot(unsigned char value, float flow, cv::Point_<int> centre, int r) {
    (void)flow;  // a hard dot lays the value down whole
    if (m_paint.empty() || r < 0) return;
    checkBoundary(centre, r);
    int const sx0 = m_clip[0], sx1 = m_clip[1], sy0 = m_clip[2], sy1 = m_clip[3];
    int const mx = m_clip[4], my = m_clip[5];
    if (sx1 <= sx0 || sy1 <= sy0) return;

    cv::Mat marks;
    cv::compare(distanceSquare(r), double(r), marks, cv::CMP_LE);
    int const rows = sy1 - sy0, cols = sx1 - sx0;
    parallelRows(rows, std::int64_t(rows) * cols / kCopiesPerUnit, [&](int j) {
        pxSetMasked(m_paint.ptr(my + j) + mx, int(m_paint.step), IppiSize{cols, 1}, value,
                    marks.ptr(sy0 + j) + sx0, int(marks.step));
    });
}
