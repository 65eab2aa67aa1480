// SelectiveColorFilter's paths on Y, Dr, Db planes: proc in its four forms and proc2.
//
// A pixel needs six exponentials for its hue weights, one or two powers and a turn of its
// chroma. A row is worked in chunks of up to kChunk pixels, one pass per kind of work: plain
// arithmetic passes that the compiler vectorises (with an AVX2 clone), and runs of SLEEF's
// vector functions through px_math between them. What follows from the hue code alone (the
// weighted sums, the chroma gain, the turn's sine and cosine) is, on large planes, worked
// out once for all 65536 codes by the same passes and then looked up. Every value goes
// through the same code wherever it lies, so results never depend on the plane's size, its
// row step or the number of threads.
#include "kestrix1/tables/selective_color_filter.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <initializer_list>
#include <vector>

#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/messages.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/px_math.h"

namespace {

using u16 = std::uint16_t;
using Set = SelectiveColorFilter::SelectiveColorParameters;

constexpr char const kErrProcPlanes[] =
    "ERROR - SelectiveColorFilter::proc - need Y, Dr, Db planes";
constexpr char const kErrProcFurther[] =
    "ERROR - SelectiveColorFilter::proc - need a further plane";
constexpr char const kErrProc2Planes[] =
    "ERROR - SelectiveColorFilter::proc2 - need Y, Dr, Db and a further plane";

constexpr double kPi = 3.14159265358979323846;

// Pixels per chunk: a multiple of the widest vector (16 floats), small enough for the
// scratch (about 90 bytes a pixel) to stay in the first-level cache.
constexpr int kChunk = 256;
constexpr int kPad = 16;

// The slots read in the Y, Dr, Db paths, paired with weights 0 to 5.
constexpr int kSlotOf[6] = {0, 2, 3, 4, 5, 7};

// A weighted sum of the six hue weights: sum_k c[k] m_k in the order k = 0..5, then add.
// Products of a float amount and a float weight are exact in double, so a slot counted twice
// may be carried as twice its amount, and two weights sharing a slot as one amount on each.
struct Sum {
    double c[6] = {};
    double add = 0;
};

Sum sumOf(Set const &s) {
    Sum r;
    for (int k = 0; k < 6; ++k)
        r.c[k] = s[kSlotOf[k]];
    return r;
}

// Everything a call applies, fixed before the loop.
struct Plan {
    float centre[6] = {0, 60, 120, 180, 240, 300};
    float den[6] = {-1236, -1236, -1236, -1236, -1236, -1236};
    Sum tone, further, chroma, turn;
    bool hasFurther = false;
    bool family = false;  // chroma scaled on the radius instead of by 2^sum after truncation
};

// What a pixel needs of its hue code, kQ runs of doubles: the tone sum, the further plane's
// sum, the chroma gain (2^sum; in the family form 1 + s or 8^s), and the turn's sine and
// cosine. Each is a function of the code alone.
constexpr int kQ = 5;

// Scratch of one thread for one chunk; runs of np (a multiple of kPad) values.
struct Scratch {
    std::vector<u16> in = std::vector<u16>(6 * kChunk);      // hue, weight, Y, Dr, Db, further
    std::vector<float> m = std::vector<float>(6 * kChunk);   // weights, family by family
    std::vector<float> e = std::vector<float>(2 * kChunk);   // 2^ arguments
    std::vector<float> px = std::vector<float>(2 * kChunk);  // e log2 x, then x^e
    std::vector<double> q = std::vector<double>(kQ * kChunk);
};

// Round to nearest, ties to even, and saturate to 0..65535: adding and removing 1.5 x 2^23
// (2^52 for doubles) leaves no bits below the unit, so the addition itself rounds. Values
// are held within range first so that the trick holds.
inline int round16(float v) {
    v = std::min(std::max(v, -1.0f), 65536.0f);
    int const r = int((v + 12582912.0f) - 12582912.0f);
    return r < 0 ? 0 : r > 65535 ? 65535 : r;
}
inline int round16(double v) {
    v = std::min(std::max(v, -1.0), 65536.0);
    int const r = int((v + 6755399441055744.0) - 6755399441055744.0);
    return r < 0 ? 0 : r > 65535 ? 65535 : r;
}

// Arguments of the six exponentials: d^2 / den, d the distance of the wrapped hue to each
// centre. Hues of codes 0..65535 lie in [0, 360], where the wrap is h - 360 except at 0.
KX_VECTOR_CLONES
void weightArgs(float const *centre, float const *den, u16 const *code, float *hw, float *m,
                int np) {
    for (int i = 0; i < np; ++i) {
        float const h = float(double(code[i]) / 65535.0 * 360.0);
        hw[i] = h > 0.0f ? h - 360.0f : 0.0f;
    }
    for (int k = 0; k < 6; ++k) {
        float const c = centre[k], dn = den[k];
        float *const out = m + k * np;
        for (int i = 0; i < np; ++i) {
            float const hi = std::max(hw[i], c), lo = std::min(hw[i], c);
            float const d = std::min(360.0f - hi + lo, hi - lo);
            out[i] = d * d / dn;
        }
    }
}

// acc = sum_k s.c[k] m_k + s.add over a run of np pixels, the terms added in the order k.
KX_VECTOR_CLONES
void weightedSum(Sum const &s, float const *m, double *acc, int np) {
    double const c0 = s.c[0], add = s.add;
    for (int i = 0; i < np; ++i)
        acc[i] = c0 * double(m[i]);
    for (int k = 1; k < 6; ++k) {
        double const c = s.c[k];
        float const *const mk = m + k * np;
        for (int i = 0; i < np; ++i)
            acc[i] += c * double(mk[i]);
    }
    for (int i = 0; i < np; ++i)
        acc[i] += add;
}

// The chroma sum's argument of 2^ (in the family form 3 min(s, 0), for 8^s), and the turn
// pi S in place of its sum.
KX_VECTOR_CLONES
void gainArgs(double *chroma, double *turn, float *e, bool family, int np) {
    for (int i = 0; i < np; ++i) {
        double const s = chroma[i];
        e[i] = family ? float(3.0 * std::min(s, 0.0)) : float(s);
        turn[i] *= kPi;
    }
}

// The gain from 2^ of its argument: 2^S, or in the family form 1 + s above 0 and 8^s below.
KX_VECTOR_CLONES
void gains(double *chroma, float const *e, bool family, int np) {
    for (int i = 0; i < np; ++i) {
        double const s = chroma[i];
        chroma[i] = family && s > 0.0 ? 1.0 + s : double(e[i]);
    }
}

// The per-code quantities of np codes into s.q.
void codeQuantities(Plan const &p, u16 const *code, Scratch &s, int np) {
    float *const m = s.m.data(), *const e = s.e.data();
    double *const q = s.q.data();
    weightArgs(p.centre, p.den, code, s.px.data(), m, np);
    pxMathExp(m, m, 6 * np);
    weightedSum(p.tone, m, q, np);
    if (p.hasFurther) weightedSum(p.further, m, q + np, np);
    weightedSum(p.chroma, m, q + 2 * np, np);
    weightedSum(p.turn, m, q + 3 * np, np);
    gainArgs(q + 2 * np, q + 3 * np, e, p.family, np);
    pxMathExp2(e, e, np);
    gains(q + 2 * np, e, p.family, np);
    pxMathSinCos(q + 3 * np, q + 3 * np, q + 4 * np, np);
}

// Arguments of 2^ for the tone and further exponents 4^(-1.8 S w).
KX_VECTOR_CLONES
void exponents(double const *q, u16 const *wt, float *e, bool further, int np) {
    for (int i = 0; i < np; ++i)
        e[i] = float(2.0 * -(1.8 * q[i] * (double(wt[i]) / 65535.0)));
    if (further)
        for (int i = 0; i < np; ++i)
            e[np + i] = float(2.0 * -(1.8 * q[np + i] * (double(wt[i]) / 65535.0)));
}

// log2(k / 65535) for every 16-bit code k (-inf at 0), rounded once from double: powers
// of Y / 65535 and of |c| = |value - 32768| / 65535 are then one exponential each.
float const *log2Codes() {
    static std::vector<float> const table = [] {
        std::vector<float> t(65536);
        for (int k = 0; k < 65536; ++k)
            t[k] = float(std::log2(k / 65535.0));
        return t;
    }();
    return table.data();
}

// Arguments of 2^ for the powers: e log2(Y / 65535), and e log2 |c| of the further plane. The
// exponent is held within the positive normal floats, so that 0 stays 0 and 1 stays 1.
KX_VECTOR_CLONES
void powArgs(u16 const *Y, u16 const *F, float const *e, float const *lg, float *px, int np) {
    for (int i = 0; i < np; ++i)
        px[i] = std::min(std::max(e[i], FLT_MIN), FLT_MAX) * lg[Y[i]];
    if (F != nullptr)
        for (int i = 0; i < np; ++i) {
            int const c = F[i] < 32768 ? 32768 - F[i] : F[i] - 32768;
            px[np + i] = std::min(std::max(e[np + i], FLT_MIN), FLT_MAX) * lg[c];
        }
}

// Y = 65535 Y^e, the further plane 65535 sign(c) |c|^e + 32768.
KX_VECTOR_CLONES
void applyTone(float const *p, u16 const *F, u16 *oY, u16 *oF, int n, int np) {
    for (int i = 0; i < n; ++i)
        oY[i] = u16(round16(65535.0f * p[i]));
    if (oF != nullptr)
        for (int i = 0; i < n; ++i) {
            float const v = 65535.0f * p[np + i];
            oF[i] = u16(round16((F[i] < 32768 ? -v : v) + 32768.0f));
        }
}

// trunc(v + 32768) held within 16 bits, taken as floor(v) + 32768 so that no bit of v is
// lost to the addition first: a turned value a hair below a whole number must not round up
// to it. |v| stays below 2^17 (a radius of at most 32768 sqrt 2).
inline int floorTo16(double v) {
    int const t = int(v);
    int const f = t - (v < double(t) ? 1 : 0) + 32768;
    return f < 0 ? 0 : f > 65535 ? 65535 : f;
}

// The chroma turned by the angle t whose sine and cosine are given: with (a, b) = (Dr, Db) -
// 32768 = r (sin u, cos u), r sin(u + t) = a cos t + b sin t and r cos(u + t) = b cos t -
// a sin t. This is the arctangent's angle of (a, b) (a half-turn added below the Db axis,
// +-pi/2 on it) turned by t, without an arctangent; the radius in float, sqrt((a / 32768)^2
// + (b / 32768)^2) 32768, then rescales the result. Turned values are truncated into 16
// bits (floorTo16) and scaled from 32768 by the gain g.
KX_VECTOR_CLONES
void applyTurn(u16 const *Dr, u16 const *Db, double const *sn, double const *cs, double const *gain,
               u16 *oDr, u16 *oDb, int n) {
    for (int i = 0; i < n; ++i) {
        int const ia = Dr[i] - 32768, ib = Db[i] - 32768;
        float const fa = float(ia) / 32768.0f, fb = float(ib) / 32768.0f;
        float const rf = std::sqrt(fa * fa + fb * fb) * 32768.0f;
        double const a = ia, b = ib, r = std::sqrt(a * a + b * b);
        double const q = r > 0.0 ? double(rf) / r : 0.0;
        int const r1 = floorTo16(q * (a * cs[i] + b * sn[i]));
        int const b1 = floorTo16(q * (b * cs[i] - a * sn[i]));
        float const g = float(gain[i]);
        oDr[i] = u16(round16(float(r1 - 32768) * g + 32768.0f));
        oDb[i] = u16(round16(float(b1 - 32768) * g + 32768.0f));
    }
}

// The family form: the radius scaled by the gain k, then turned, and rounded.
KX_VECTOR_CLONES
void applyFamily(u16 const *Dr, u16 const *Db, double const *sn, double const *cs,
                 double const *gain, u16 *oDr, u16 *oDb, int n) {
    for (int i = 0; i < n; ++i) {
        int const ia = Dr[i] - 32768, ib = Db[i] - 32768;
        float const fa = float(ia) / 32768.0f, fb = float(ib) / 32768.0f;
        float const rf = std::sqrt(fa * fa + fb * fb) * 32768.0f;
        double const a = ia, b = ib, r = std::sqrt(a * a + b * b);
        double const q = r > 0.0 ? double(rf) * gain[i] / r : 0.0;
        oDr[i] = u16(round16(q * (a * cs[i] + b * sn[i]) + 32768.0));
        oDb[i] = u16(round16(q * (b * cs[i] - a * sn[i]) + 32768.0));
    }
}

// One chunk's rows: hue, weight, then Y, Dr, Db and the further plane in and out (the
// further plane null when there is none; out may be in).
struct Rows {
    u16 const *in[6];
    u16 *out[4];
};

// One chunk of n pixels; their per-code quantities are read from the table when there is
// one, else computed here.
void runChunk(Plan const &p, double const *table, float const *lg, Scratch &s, Rows const &r,
              int n) {
    int const np = (n + kPad - 1) / kPad * kPad;
    u16 *const in = s.in.data();
    for (int j = 0; j < 6; ++j) {
        u16 const *const src = r.in[j];
        u16 *const dst = in + j * np;
        if (src != nullptr) std::copy(src, src + n, dst);
        std::fill(dst + (src != nullptr ? n : 0), dst + np, u16(j == 3 || j == 4 ? 32768 : 0));
    }
    u16 const *const hue = in, *const wt = in + np, *const Y = in + 2 * np, *const Dr = in + 3 * np,
                     *const Db = in + 4 * np, *const F = p.hasFurther ? in + 5 * np : nullptr;
    float *const e = s.e.data(), *const px = s.px.data();
    double *const q = s.q.data();

    if (table != nullptr) {
        for (int i = 0; i < np; ++i)
            for (int j = 0; j < kQ; ++j)
                q[j * np + i] = table[hue[i] * kQ + j];
    } else {
        codeQuantities(p, hue, s, np);
    }
    exponents(q, wt, e, p.hasFurther, np);
    pxMathExp2(e, e, (p.hasFurther ? 2 : 1) * np);
    powArgs(Y, F, e, lg, px, np);
    pxMathExp2(px, px, (p.hasFurther ? 2 : 1) * np);

    applyTone(px, F, r.out[0], r.out[3], n, np);
    if (p.family)
        applyFamily(Dr, Db, q + 3 * np, q + 4 * np, q + 2 * np, r.out[1], r.out[2], n);
    else
        applyTurn(Dr, Db, q + 3 * np, q + 4 * np, q + 2 * np, r.out[1], r.out[2], n);
}

// Planes of at least this many pixels read their per-code quantities from a table of all
// 65536 codes, made first: it costs about as much as that many pixels.
constexpr std::int64_t kTableFrom = std::int64_t(1) << 17;

// The per-code quantities of every code, kQ doubles per code.
std::vector<double> codeTable(Plan const &p) {
    std::vector<double> table(std::size_t(65536) * kQ);
    int const chunks = 65536 / kChunk;
    parallelBands(chunks, std::int64_t(65536) * 64, [&](int c0, int c1) {
        Scratch s;
        u16 codes[kChunk];
        for (int c = c0; c < c1; ++c) {
            for (int i = 0; i < kChunk; ++i)
                codes[i] = u16(c * kChunk + i);
            codeQuantities(p, codes, s, kChunk);
            double *const out = table.data() + std::size_t(c) * kChunk * kQ;
            for (int i = 0; i < kChunk; ++i)
                for (int j = 0; j < kQ; ++j)
                    out[i * kQ + j] = s.q[j * kChunk + i];
        }
    });
    return table;
}

// The planes of in (Y, Dr, Db and, for the four-set form, the further plane) through the
// plan into out, which the caller has made at their size (or which is in).
void run(Plan const &p, std::vector<cv::Mat> const &in, std::vector<cv::Mat> &out,
         cv::Mat const &hue, cv::Mat const &weight) {
    int const rows = hue.rows, cols = hue.cols, planes = p.hasFurther ? 4 : 3;
    std::int64_t const pixels = std::int64_t(rows) * cols;
    std::vector<double> const table = pixels >= kTableFrom ? codeTable(p) : std::vector<double>();
    double const *const t = table.empty() ? nullptr : table.data();
    float const *const lg = log2Codes();
    parallelBands(rows, pixels * 64, [&](int y0, int y1) {
        Scratch s;
        for (int y = y0; y < y1; ++y)
            for (int x = 0; x < cols; x += kChunk) {
                Rows r{{hue.ptr<u16>(y) + x, weight.ptr<u16>(y) + x}, {}};
                for (int j = 0; j < planes; ++j) {
                    r.in[2 + j] = in[j].ptr<u16>(y) + x;
                    r.out[j] = out[j].ptr<u16>(y) + x;
                }
                runChunk(p, t, lg, s, r, std::min(kChunk, cols - x));
            }
    });
}

Plan fourSetPlan(Set const &lightness, Set const &furtherSet, Set const &saturation,
                 Set const &hueShift) {
    Plan p;
    p.tone = sumOf(lightness);
    p.hasFurther = true;
    p.further = sumOf(furtherSet);
    p.further.c[5] = furtherSet[5];  // slot 5 weighs both m4 and m5; slot 7 is not read
    p.chroma = sumOf(saturation);
    p.turn = sumOf(hueShift);
    return p;
}

// All CV_16UC1 of the first one's size. False when all are empty: the call returns at once.
bool requirePlanes(std::initializer_list<cv::Mat const *> planes) {
    bool empty = true;
    for (cv::Mat const *m : planes)
        empty = empty && m->empty();
    if (empty) return false;
    cv::Mat const &first = **planes.begin();
    for (cv::Mat const *m : planes)
        kxRequire(m->type() == CV_16UC1 && m->size() == first.size(), kxErrSelectivePlanes);
    return true;
}

}  // namespace

bool SelectiveColorFilter::proc(std::vector<cv::Mat> &planes, std::vector<cv::Mat> &,
                                cv::Mat const &hue, cv::Mat const &weight,
                                SelectiveColorParameters lightness,
                                SelectiveColorParameters saturation,
                                SelectiveColorParameters hueShift) {
    kxRequire(planes.size() >= 3, kErrProcPlanes);
    if (!requirePlanes({&planes[0], &planes[1], &planes[2], &hue, &weight})) return true;
    Plan p;
    p.tone = sumOf(lightness);
    p.chroma = sumOf(saturation);
    p.turn = sumOf(hueShift);
    run(p, planes, planes, hue, weight);
    return true;
}

bool SelectiveColorFilter::proc(std::vector<cv::Mat> &planes, std::vector<cv::Mat> &further,
                                cv::Mat const &hue, cv::Mat const &weight,
                                SelectiveColorParameters lightness,
                                SelectiveColorParameters furtherSet,
                                SelectiveColorParameters saturation,
                                SelectiveColorParameters hueShift) {
    kxRequire(planes.size() >= 3, kErrProcPlanes);
    kxRequire(!further.empty(), kErrProcFurther);
    if (!requirePlanes({&planes[0], &planes[1], &planes[2], &further[0], &hue, &weight}))
        return true;
    std::vector<cv::Mat> four{planes[0], planes[1], planes[2], further[0]};
    run(fourSetPlan(lightness, furtherSet, saturation, hueShift), four, four, hue, weight);
    return true;
}

bool SelectiveColorFilter::proc(std::vector<cv::Mat> &planes, cv::Mat const &hue,
                                cv::Mat const &weight, SelectiveColorParameters lightness,
                                SelectiveColorParameters saturation,
                                SelectiveColorParameters hueShift) {
    return proc(planes, hue, weight, lightness, saturation, hueShift, OverallParameters{});
}

bool SelectiveColorFilter::proc(std::vector<cv::Mat> &planes, cv::Mat const &hue,
                                cv::Mat const &weight, SelectiveColorParameters lightness,
                                SelectiveColorParameters saturation,
                                SelectiveColorParameters hueShift, OverallParameters overall) {
    kxRequire(planes.size() >= 3, kErrProcPlanes);
    if (!requirePlanes({&planes[0], &planes[1], &planes[2], &hue, &weight})) return true;
    Plan p;
    float const centre[6] = {0, 60, 100, 165, 220, 300};
    float const den[6] = {-1256, -628, -628, -1236, -1570, -942};
    std::copy(centre, centre + 6, p.centre);
    std::copy(den, den + 6, p.den);
    p.family = true;
    p.tone = sumOf(lightness);
    p.tone.c[0] = 2.0 * double(lightness[0]);  // the red term counts twice
    p.tone.add = overall.lightness;
    p.chroma = sumOf(saturation);
    p.chroma.add = overall.saturation;
    p.turn = sumOf(hueShift);
    p.turn.add = overall.hue;
    run(p, planes, planes, hue, weight);
    return true;
}

bool SelectiveColorFilter::proc2(std::vector<cv::Mat> &in, std::vector<cv::Mat> &out,
                                 SelectiveColorParameters lightness,
                                 SelectiveColorParameters furtherSet,
                                 SelectiveColorParameters saturation,
                                 SelectiveColorParameters hueShift) {
    std::vector<cv::Mat> hueRange(2);
    return proc2(in, out, hueRange, lightness, furtherSet, saturation, hueShift);
}

bool SelectiveColorFilter::proc2(std::vector<cv::Mat> &in, std::vector<cv::Mat> &out,
                                 std::vector<cv::Mat> &hueRange, SelectiveColorParameters lightness,
                                 SelectiveColorParameters furtherSet,
                                 SelectiveColorParameters saturation,
                                 SelectiveColorParameters hueShift) {
    kxRequire(in.size() >= 4, kErrProc2Planes);
    if (!requirePlanes({&in[0], &in[1], &in[2], &in[3]})) return true;
    if (hueRange.size() < 2) hueRange.resize(2);
    compHueRange(in, hueRange);
    // The four-set form from in straight into out: the same as on copies, without copying.
    std::vector<cv::Mat> const src(in.begin(), in.begin() + 4);
    if (out.size() < 4) out.resize(4);
    for (int i = 0; i < 4; ++i)
        out[i].create(src[i].size(), CV_16UC1);
    run(fourSetPlan(lightness, furtherSet, saturation, hueShift), src, out, hueRange[0],
        hueRange[1]);
    return true;
}
