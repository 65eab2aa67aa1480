#include "kestrix1/filters/tg_filter.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "kestrix1/filters/guided_boxes.h"
#include "kestrix1/frame/errors.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_arith.h"
#include "kestrix1/kernels/px_filter.h"
#include "kestrix1/kernels/px_geometry.h"
#include "kestrix1/kernels/px_memory.h"

namespace {

char const kSetupCount[] = "ERROR - TGuidedFilter::setup - input vector size is not correct.";
char const kProcCount[] = "ERROR - TGuidedFilter::proc - input vector size is not correct.";
char const kSetupPlanes[] =
    "ERROR - TGuidedFilter::setup - guides and input must be CV_32FC1, guides at least the "
    "input's size.";
char const kProcPlanes[] = "ERROR - TGuidedFilter::proc - guides need one depth and size.";
char const kStripPlanes[] =
    "ERROR - TGuidedFilter::stripProc - inputs must be CV_32FC1 of one size.";

bool isPlane32F(cv::Mat const &m) {
    return m.type() == CV_32FC1 && m.dims <= 2;
}

// The estimators read guides through the target's rows and columns.
void checkEstimateInputs(std::vector<cv::Mat> const &guides, cv::Mat const &p) {
    bool ok = p.empty() || isPlane32F(p);
    for (cv::Mat const &g : guides)
        ok = ok && (p.empty() || (isPlane32F(g) && g.rows >= p.rows && g.cols >= p.cols));
    kxRequire(ok, kSetupPlanes);
}

void checkGuides(std::vector<cv::Mat> const &guides) {
    bool ok = true;
    for (cv::Mat const &g : guides)
        ok = ok && g.dims <= 2 && g.channels() == 1 && g.depth() == guides[0].depth() &&
             g.size() == guides[0].size();
    kxRequire(ok, kProcPlanes);
}

IppiSize sizeOf(cv::Mat const &m) {
    return {m.cols, m.rows};
}

template <class T>
T *at(cv::Mat &m, IppiPoint p) {
    return m.ptr<T>(p.y) + p.x;
}
template <class T>
T const *at(cv::Mat const &m, IppiPoint p) {
    return m.ptr<T>(p.y) + p.x;
}

// ---- estimate ------------------------------------------------------------------------------

// Model of one guide plane at one pixel, from the window means of I, p, I*p and I*I:
// a = cov / (var + eps), b = meanP - a * meanI.
struct Gray {
    float eps;
    // var is the guide's variance without eps.
    void operator()(float meanI, float meanP, float corrIP, float var, float &a, float &b) const {
        float const cov = corrIP - meanI * meanP;
        float const ax = cov / (var + eps);
        a = ax;
        b = meanP - meanI * ax;
    }
};

// Model of three guide planes at one pixel: the covariance matrix of the guide, eps added to
// its diagonal, inverted by the 3x3 kernel and applied to the covariances of the planes with
// the target.
struct Colour {
    float eps;
    // mean[0..2] guide means, meanP, covP[0..2] covariances with p, cov[0..5] the guide's
    // covariances RR, RG, RB, GG, GB, BB; coef[0..3] receives a0, a1, a2 and b.
    void operator()(float const mean[3], float meanP, float const covP[3], float const cov[6],
                    float coef[4]) const {
        float const s[9] = {cov[0] + eps, cov[1],       cov[2],  //
                            cov[1],       cov[3] + eps, cov[4],  //
                            cov[2],       cov[4],       cov[5] + eps};
        float inv[9], work[9];
        pxInvert3x3(s, 12, 4, work, inv, 12, 4);
        for (int c = 0; c < 3; ++c)
            coef[c] = inv[c] * covP[0] + inv[3 + c] * covP[1] + inv[6 + c] * covP[2];
        coef[3] = meanP - mean[0] * coef[0] - mean[1] * coef[1] - mean[2] * coef[2];
    }

    // The model at pixel x from the 13 window means of ColourQuantities; also gives the
    // guide's means and covariances (without eps).
    void fromMeans(float const *const *m, int x, float mean[3], float cov[6], float coef[4]) const {
        for (int c = 0; c < 3; ++c)
            mean[c] = m[c][x];
        float const meanP = m[3][x];
        float const covP[3] = {m[4][x] - mean[0] * meanP, m[5][x] - mean[1] * meanP,
                               m[6][x] - mean[2] * meanP};
        cov[0] = m[7][x] - mean[0] * mean[0];
        cov[1] = m[8][x] - mean[0] * mean[1];
        cov[2] = m[9][x] - mean[0] * mean[2];
        cov[3] = m[10][x] - mean[1] * mean[1];
        cov[4] = m[11][x] - mean[1] * mean[2];
        cov[5] = m[12][x] - mean[2] * mean[2];
        (*this)(mean, meanP, covP, cov, coef);
    }
};

// Window quantities of one guide: I, p, I*p, I*I.
struct GrayQuantities {
    cv::Mat const &I, &p;
    void operator()(int y, int x0, int n, float *const *q) const {
        float const *__restrict i = I.ptr<float>(y) + x0;
        float const *__restrict t = p.ptr<float>(y) + x0;
        float *__restrict q0 = q[0], *__restrict q1 = q[1], *__restrict q2 = q[2],
                          *__restrict q3 = q[3];
        for (int x = 0; x < n; ++x) {
            q0[x] = i[x];
            q1[x] = t[x];
            q2[x] = i[x] * t[x];
            q3[x] = i[x] * i[x];
        }
    }
};

// Window quantities of the target against cached guide statistics: p, I*p.
struct TargetQuantities {
    cv::Mat const &I, &p;
    void operator()(int y, int x0, int n, float *const *q) const {
        float const *__restrict i = I.ptr<float>(y) + x0;
        float const *__restrict t = p.ptr<float>(y) + x0;
        float *__restrict q0 = q[0], *__restrict q1 = q[1];
        for (int x = 0; x < n; ++x) {
            q0[x] = t[x];
            q1[x] = i[x] * t[x];
        }
    }
};

// Window quantities of three guides: I0, I1, I2, p, Ic*p for each c, then the products
// I0I0, I0I1, I0I2, I1I1, I1I2, I2I2.
struct ColourQuantities {
    std::vector<cv::Mat> const &g;
    cv::Mat const &p;
    void operator()(int y, int x0, int n, float *const *q) const {
        float const *__restrict i0 = g[0].ptr<float>(y) + x0;
        float const *__restrict i1 = g[1].ptr<float>(y) + x0;
        float const *__restrict i2 = g[2].ptr<float>(y) + x0;
        float const *__restrict t = p.ptr<float>(y) + x0;
        for (int x = 0; x < n; ++x) {
            q[0][x] = i0[x];
            q[1][x] = i1[x];
            q[2][x] = i2[x];
            q[3][x] = t[x];
        }
        for (int x = 0; x < n; ++x) {
            q[4][x] = i0[x] * t[x];
            q[5][x] = i1[x] * t[x];
            q[6][x] = i2[x] * t[x];
        }
        for (int x = 0; x < n; ++x) {
            q[7][x] = i0[x] * i0[x];
            q[8][x] = i0[x] * i1[x];
            q[9][x] = i0[x] * i2[x];
            q[10][x] = i1[x] * i1[x];
            q[11][x] = i1[x] * i2[x];
            q[12][x] = i2[x] * i2[x];
        }
    }
};

// Window quantities of the target against three cached guide planes: p, Ic*p.
struct ColourTargetQuantities {
    std::vector<cv::Mat> const &g;
    cv::Mat const &p;
    void operator()(int y, int x0, int n, float *const *q) const {
        float const *__restrict i0 = g[0].ptr<float>(y) + x0;
        float const *__restrict i1 = g[1].ptr<float>(y) + x0;
        float const *__restrict i2 = g[2].ptr<float>(y) + x0;
        float const *__restrict t = p.ptr<float>(y) + x0;
        for (int x = 0; x < n; ++x) {
            q[0][x] = t[x];
            q[1][x] = i0[x] * t[x];
            q[2][x] = i1[x] * t[x];
            q[3][x] = i2[x] * t[x];
        }
    }
};

// Guide statistics of the fixed-radius estimators are kept while they fit the target.
bool cacheFits(cv::Mat const *planes, int count, cv::Size size) {
    for (int i = 0; i < count; ++i)
        if (planes[i].empty() || planes[i].size() != size || planes[i].type() != CV_32FC1)
            return false;
    return true;
}

// ---- apply ---------------------------------------------------------------------------------

// rint (ties to even) of v clipped to [0, hi], NaN giving 0; hi is an integer below 2^23.
// Adding and removing 2^23 rounds in the current (nearest-even) mode and vectorises.
inline float clipRint(float v, float hi) {
    v = v > 0.0f ? v : 0.0f;
    v = v < hi ? v : hi;
    return (v + 8388608.0f) - 8388608.0f;
}
inline std::uint8_t sat8(float v) {
    return std::uint8_t(clipRint(v, 255.0f));
}
inline std::uint16_t sat16(float v) {
    return std::uint16_t(clipRint(v, 65535.0f));
}

// Where a guide pixel finds its coefficient: (x / sx, y / sy) below (xLim, yLim), the last
// coefficient column or row beyond.
struct Lookup {
    int sx, sy, xLim, yLim, cols, rows;
    Lookup(cv::Size guide, cv::Size coef) : cols(coef.width), rows(coef.height) {
        sx = int(std::ceil(float(guide.width) / float(coef.width)));
        sy = int(std::ceil(float(guide.height) / float(coef.height)));
        xLim = guide.width > sx * coef.width ? sx * coef.width : guide.width;
        yLim = guide.height > sy * coef.height ? sy * coef.height : guide.height;
    }
    int row(int y) const { return y < yLim ? y / sy : rows - 1; }
};

// Evaluates the model over the guides row by row. N coefficient planes (the a planes, then
// b) are looked up for each guide row into per-band scratch rows, unless they can be read in
// place; then main(x) runs for the columns below xLim and strip(x) for the rest, both
// given the guide rows, coefficient rows and output row. Out is the element type written
// through out's rows.
template <class T, class Out, int G, class Main, class Strip>
void applyRows(cv::Mat const *guides, cv::Mat const *coefs, cv::Mat &out, Main main, Strip strip) {
    constexpr int N = G + 1;
    int const rows = guides[0].rows, cols = guides[0].cols;
    Lookup const look(guides[0].size(), coefs[0].size());
    bool const direct = look.sx == 1 && look.xLim == cols;
    parallelBands(rows, std::int64_t(rows) * cols * N, [&](int y0, int y1) {
        std::vector<float> scratch(direct ? 0 : std::size_t(N) * cols);
        for (int y = y0; y < y1; ++y) {
            int const cy = look.row(y);
            float const *c[N];
            for (int k = 0; k < N; ++k) {
                float const *src = coefs[k].ptr<float>(cy);
                if (direct) {
                    c[k] = src;
                    continue;
                }
                float *dst = scratch.data() + std::size_t(k) * cols;
                for (int x = 0; x < look.xLim; ++x)
                    dst[x] = src[x / look.sx];
                for (int x = look.xLim; x < cols; ++x)
                    dst[x] = src[look.cols - 1];
                c[k] = dst;
            }
            T const *g[G];
            for (int k = 0; k < G; ++k)
                g[k] = guides[k].ptr<T>(y);
            Out *o = reinterpret_cast<Out *>(out.ptr(y));
            for (int x = 0; x < look.xLim; ++x)
                main(g, c, o, x);
            for (int x = look.xLim; x < cols; ++x)
                strip(g, c, o, x);
        }
    });
}

// One guide: o[x] = f(I, a, b).
template <class T, class Out, class F>
void applyGray(cv::Mat const &I, cv::Mat const *coefs, cv::Mat &out, F f) {
    auto each = [f](T const *const *g, float const *const *c, Out *__restrict o, int x) {
        o[x] = f(float(g[0][x]), c[0][x], c[1][x]);
    };
    applyRows<T, Out, 1>(&I, coefs, out, each, each);
}

// Three guides: o[x] = f(S, b) with S = I0 * a0 + I1 * a1 + I2 * a2, and fStrip beyond
// xLim.
template <class T, class Out, class F, class FStrip>
void applyColour(cv::Mat const *guides, cv::Mat const *coefs, cv::Mat &out, F f, FStrip fStrip) {
    auto sum = [](T const *const *g, float const *const *c, int x) {
        return float(g[0][x]) * c[0][x] + float(g[1][x]) * c[1][x] + float(g[2][x]) * c[2][x];
    };
    applyRows<T, Out, 3>(
        guides, coefs, out,
        [f, sum](T const *const *g, float const *const *c, Out *__restrict o, int x) {
            o[x] = f(sum(g, c, x), c[3][x]);
        },
        [fStrip, sum](T const *const *g, float const *const *c, Out *__restrict o, int x) {
            o[x] = fStrip(sum(g, c, x), c[3][x]);
        });
}

// Makes out a plane of the guide's size that holds at least `bytes` a pixel, keeping it
// (and any view it is) when it already does.
void prepareOut(cv::Mat &out, cv::Size size, int bytes, int type) {
    if (out.dims > 2 || out.size() != size || int(out.elemSize()) < bytes || out.empty())
        out.create(size, type);
}

// Enlarges (or shrinks) a coefficient plane to dst's size, bicubic.
void resample(cv::Mat const &coef, cv::Mat &dst, std::uint8_t *buffer) {
    pxResize(coef.ptr<float>(), sizeOf(coef), int(coef.step), {0, 0, coef.cols, coef.rows},
             dst.ptr<float>(), int(dst.step), {0, 0, dst.cols, dst.rows},
             double(dst.cols) / coef.cols, double(dst.rows) / coef.rows, 0.0, 0.0, pxInterCubic,
             buffer);
}

// out = b + sum of a_k * I_k, the coefficients resampled to the guides' size (a guide that
// is not float is taken unscaled).
void applyResampled(cv::Mat const *coefA, cv::Mat const &coefB, cv::Mat const *guides, int n,
                    cv::Mat &out) {
    if (coefB.empty() || guides[0].empty()) return;
    cv::Size const size = guides[0].size();
    out.create(size, CV_32F);
    cv::Mat scratch(size, CV_32F);
    int bytes = 0;
    pxResizeBufferSize({0, 0, coefB.cols, coefB.rows}, {0, 0, size.width, size.height}, 1,
                       pxInterCubic, &bytes);
    std::uint8_t *buffer = ippsMalloc_8u(bytes);
    if (buffer == nullptr) {
        out.setTo(0);
        scratch.setTo(0);
    } else {
        resample(coefB, out, buffer);
    }
    IppiSize const roi = sizeOf(out);
    for (int k = 0; k < n; ++k) {
        if (buffer != nullptr) resample(coefA[k], scratch, buffer);
        cv::Mat guide = guides[k];
        if (guide.depth() != CV_32F) guide.convertTo(guide, CV_32F);
        pxMul(guide.ptr<float>(), int(guide.step), scratch.ptr<float>(), int(scratch.step), roi);
        pxAdd(scratch.ptr<float>(), int(scratch.step), out.ptr<float>(), int(out.step), roi);
    }
    pxFree(buffer);
}

}  // namespace

// ---- object --------------------------------------------------------------------------------

TGFilter::TGFilter() = default;
TGFilter::TGFilter(TGFilter const &other) = default;
TGFilter::~TGFilter() = default;
TGFilter &TGFilter::operator=(TGFilter const &other) = default;

void TGFilter::setup(std::vector<cv::Mat> const &guides, cv::Mat const &p, int r, float eps) {
    kxRequire(guides.size() == 1 || guides.size() == 3, kSetupCount);
    checkEstimateInputs(guides, p);
    if (guides.size() == 3)
        gFc3_estimate(guides, p, r, eps);
    else
        gFc1_estimate(guides[0], p, r, eps);
}

void TGFilter::setupFixedR(std::vector<cv::Mat> const &guides, cv::Mat const &p, float eps) {
    kxRequire(guides.size() == 1 || guides.size() == 3, kSetupCount);
    checkEstimateInputs(guides, p);
    if (guides.size() == 3)
        gFc3_estimateFixedR(guides, p, eps);
    else
        gFc1_estimateFixedR(guides[0], p, eps);
}

void TGFilter::proc(std::vector<cv::Mat> const &guides, cv::Mat &out) {
    kxRequire(guides.size() == 1 || guides.size() == 3, kProcCount);
    checkGuides(guides);
    if (guides.size() == 3) {
        gFc3_applyLoop(guides, out);
    } else if (out.depth() == CV_8U) {
        gFc1_applyLoop8U(guides[0], out);
    } else if (out.depth() == CV_32F) {
        gFc1_applyLoop32F(guides[0], out);
    }
}

void TGFilter::proc16U(std::vector<cv::Mat> const &guides, cv::Mat &out) {
    kxRequire(guides.size() == 3, kProcCount);
    checkGuides(guides);
    gFc3_applyLoop16U(guides, out);
}

// ---- statistics ----------------------------------------------------------------------------

void TGFilter::calcov2(cv::Mat &cov, cv::Mat const &I, cv::Mat const &p, cv::Mat const &meanI,
                       cv::Mat const &meanP, cv::Mat &tmpA, cv::Mat &tmpB, IppiSize padSize,
                       IppiSize size, IppiSize mask, IppiPoint anchor, bool inset) {
    tmpA.create(padSize.height, padSize.width, CV_32F);
    tmpB.create(size.height, size.width, CV_32F);
    if (!inset) cov.create(size.height, size.width, CV_32F);
    float *dst = inset ? at<float>(cov, anchor) : cov.ptr<float>();
    pxMul(I.ptr<float>(), int(I.step), p.ptr<float>(), int(p.step), tmpA.ptr<float>(),
          int(tmpA.step), padSize);
    pxFilterBox(at<float>(tmpA, anchor), int(tmpA.step), dst, int(cov.step), size, mask, anchor);
    pxMul(meanI.ptr<float>(), int(meanI.step), meanP.ptr<float>(), int(meanP.step),
          tmpB.ptr<float>(), int(tmpB.step), size);
    pxSub(tmpB.ptr<float>(), int(tmpB.step), dst, int(cov.step), size);
}

void TGFilter::calvar2(cv::Mat &var, cv::Mat const &I, cv::Mat const &meanI, cv::Mat &tmpA,
                       cv::Mat &tmpB, IppiSize padSize, IppiSize size, IppiSize mask,
                       IppiPoint anchor, bool inset) {
    tmpA.create(padSize.height, padSize.width, CV_32F);
    tmpB.create(size.height, size.width, CV_32F);
    if (!inset) var.create(size.height, size.width, CV_32F);
    float *dst = inset ? at<float>(var, anchor) : var.ptr<float>();
    pxSqr(I.ptr<float>(), int(I.step), tmpA.ptr<float>(), int(tmpA.step), padSize);
    pxFilterBox(at<float>(tmpA, anchor), int(tmpA.step), dst, int(var.step), size, mask, anchor);
    pxSqr(meanI.ptr<float>(), int(meanI.step), tmpB.ptr<float>(), int(tmpB.step), size);
    pxSub(tmpB.ptr<float>(), int(tmpB.step), dst, int(var.step), size);
}

int TGFilter::checkBlkSz(int a, int b) {
    return std::int64_t(a) * b < 2250000 || b < 600 ? b : 600;
}

// ---- one guide -----------------------------------------------------------------------------

void TGFilter::gFc1_estimate(cv::Mat const &I, cv::Mat const &p, int r, float eps) {
    coefA[0].create(p.size(), CV_32F);
    coefB.create(p.size(), CV_32F);
    if (p.empty()) return;
    Gray const gray{eps};
    auto model = [&](int, float const *const *m, float *const *c, bool) {
        float const *__restrict mi = m[0], *__restrict mp = m[1], *__restrict mip = m[2],
                                *__restrict mii = m[3];
        float *__restrict a = c[0], *__restrict b = c[1];
        for (int x = 0; x < p.cols; ++x)
            gray(mi[x], mp[x], mip[x], mii[x] - mi[x] * mi[x], a[x], b[x]);
    };
    cv::Mat *out[2] = {&coefA[0], &coefB};
    guided::twoRounds<4, 2>(p.rows, p.cols, std::max(r, 0), GrayQuantities{I, p}, model, out);
}

void TGFilter::gFc1_estimateFixedR(cv::Mat const &I, cv::Mat const &p, float eps) {
    coefA[0].create(p.size(), CV_32F);
    coefB.create(p.size(), CV_32F);
    if (p.empty()) return;
    Gray const gray{eps};
    cv::Mat *out[2] = {&coefA[0], &coefB};
    if (cacheFits(guideMean, 1, p.size()) && cacheFits(guideCov, 1, p.size())) {
        auto model = [&](int y, float const *const *m, float *const *c, bool) {
            float const *__restrict mi = guideMean[0].ptr<float>(y);
            float const *__restrict var = guideCov[0].ptr<float>(y);
            float const *__restrict mp = m[0], *__restrict mip = m[1];
            float *__restrict a = c[0], *__restrict b = c[1];
            for (int x = 0; x < p.cols; ++x)
                gray(mi[x], mp[x], mip[x], var[x], a[x], b[x]);
        };
        guided::twoRounds<2, 2>(p.rows, p.cols, 1, TargetQuantities{I, p}, model, out);
        return;
    }
    guideMean[0].create(p.size(), CV_32F);
    guideCov[0].create(p.size(), CV_32F);
    auto model = [&](int y, float const *const *m, float *const *c, bool own) {
        float const *__restrict mi = m[0], *__restrict mp = m[1], *__restrict mip = m[2],
                                *__restrict mii = m[3];
        float *__restrict a = c[0], *__restrict b = c[1];
        float *__restrict keepMean = guideMean[0].ptr<float>(y);
        float *__restrict keepVar = guideCov[0].ptr<float>(y);
        for (int x = 0; x < p.cols; ++x) {
            float const var = mii[x] - mi[x] * mi[x];
            gray(mi[x], mp[x], mip[x], var, a[x], b[x]);
            if (own) keepMean[x] = mi[x], keepVar[x] = var;
        }
    };
    guided::twoRounds<4, 2>(p.rows, p.cols, 1, GrayQuantities{I, p}, model, out);
}

void TGFilter::gFc1_applyLoop8U(cv::Mat const &I, cv::Mat &out) {
    if (coefA[0].empty() || I.empty()) return;
    cv::Mat const coefs[2] = {coefA[0], coefB};
    auto const depth = I.depth();
    if (depth != CV_8U && depth != CV_16U && depth != CV_32F) {
        I.copyTo(out);
        return;
    }
    prepareOut(out, I.size(), 1, CV_8U);
    if (depth == CV_8U)
        applyGray<std::uint8_t, std::uint8_t>(
            I, coefs, out, [](float i, float a, float b) { return sat8(i * a + b * 255.0f); });
    else if (depth == CV_16U)
        // The guide stays at its 16-bit scale and is only divided by 255: kept as it is.
        applyGray<std::uint16_t, std::uint8_t>(I, coefs, out, [](float i, float a, float b) {
            return sat8(i * a / 255.0f + b * 255.0f);
        });
    else
        applyGray<float, std::uint8_t>(
            I, coefs, out, [](float i, float a, float b) { return sat8((i * a + b) * 255.0f); });
}

void TGFilter::gFc1_applyLoop32F(cv::Mat const &I, cv::Mat &out) {
    if (coefA[0].empty() || I.empty()) return;
    cv::Mat const coefs[2] = {coefA[0], coefB};
    auto const depth = I.depth();
    if (depth != CV_8U && depth != CV_16U && depth != CV_32F) {
        I.copyTo(out);
        return;
    }
    prepareOut(out, I.size(), 4, CV_32F);
    if (depth == CV_8U)
        applyGray<std::uint8_t, float>(
            I, coefs, out, [](float i, float a, float b) { return i * a / 255.0f + b; });
    else if (depth == CV_16U)
        applyGray<std::uint16_t, float>(
            I, coefs, out, [](float i, float a, float b) { return i * a / 65535.0f + b; });
    else
        applyGray<float, float>(I, coefs, out, [](float i, float a, float b) { return i * a + b; });
}

void TGFilter::gFc1_apply(cv::Mat const &I, cv::Mat &out) {
    applyResampled(coefA, coefB, &I, 1, out);
}

void TGFilter::gFc1_blkGuide(cv::Mat const &I, cv::Mat const &p, cv::Mat &q, int r, float eps) {
    int const H = p.rows, W = p.cols, h = H - 2 * r, w = W - 2 * r;
    if (q.rows <= 0 || q.cols <= 0 || h <= 0 || w <= 0) return;
    IppiSize const block{W, H}, inner{w, h}, mask{2 * r + 1, 2 * r + 1};
    IppiPoint const anchor{r, r};
    cv::Mat meanI(h, w, CV_32F), meanP(h, w, CV_32F), cov, var, T(H, W, CV_32F), U(H, W, CV_32F),
        tmpB;
    pxFilterBox(at<float>(I, anchor), int(I.step), meanI.ptr<float>(), int(meanI.step), inner, mask,
                anchor);
    pxFilterBox(at<float>(p, anchor), int(p.step), meanP.ptr<float>(), int(meanP.step), inner, mask,
                anchor);
    calcov2(cov, I, p, meanI, meanP, T, tmpB, block, inner, mask, anchor, false);
    calvar2(var, I, meanI, T, tmpB, block, inner, mask, anchor, false);
    pxAddC(var.ptr<float>(), int(var.step), inner, eps);

    // a = cov / var into T at (r, r); b = meanP - a * meanI into U at (r, r).
    float *a = at<float>(T, anchor);
    float *b = at<float>(U, anchor);
    pxDiv(var.ptr<float>(), int(var.step), cov.ptr<float>(), int(cov.step), a, int(T.step), inner);
    pxMul(a, int(T.step), meanI.ptr<float>(), int(meanI.step), inner);
    pxSub(meanI.ptr<float>(), int(meanI.step), meanP.ptr<float>(), int(meanP.step), b, int(U.step),
          inner);

    // q = box(b) + I * box(a), over windows wholly inside the inner area.
    IppiPoint const twice{2 * r, 2 * r};
    IppiSize const outSize = sizeOf(q);
    cv::Mat boxA(q.size(), CV_32F);
    pxFilterBox(at<float>(T, twice), int(T.step), boxA.ptr<float>(), int(boxA.step), outSize, mask,
                anchor);
    pxFilterBox(at<float>(U, twice), int(U.step), q.ptr<float>(), int(q.step), outSize, mask,
                anchor);
    pxMul(at<float>(I, twice), int(I.step), boxA.ptr<float>(), int(boxA.step), outSize);
    pxAdd(boxA.ptr<float>(), int(boxA.step), q.ptr<float>(), int(q.step), outSize);
}

void TGFilter::stripProc(cv::Mat const &I, cv::Mat const &p, cv::Mat &q, int r, float eps) {
    kxRequire(isPlane32F(I) && isPlane32F(p) && I.size() == p.size(), kStripPlanes);
    if (q.empty()) q.create(p.size(), CV_32F);
    kxRequire(isPlane32F(q) && q.size() == p.size(), kStripPlanes);
    gFc1_stripproc(I, p, q, std::max(r, 0), eps, checkBlkSz(q.cols, q.rows));
}

void TGFilter::gFc1_stripproc(cv::Mat const &I, cv::Mat const &p, cv::Mat &q, int r, float eps,
                              int height) {
    int const rows = q.rows, cols = q.cols, m = 4 * r;
    if (rows <= 0 || cols <= 0) return;
    // Without an inner area everything is frame, and the frame holds p.
    if (m >= rows || m >= cols) {
        p.copyTo(q);
        return;
    }
    int const strips = (rows - m) / height + 1;
    parallelRows(strips, [&](int i) {
        int const y = i * height;
        int inHeight = height + m, outHeight = height;
        if (y + height + m > rows) {
            inHeight = rows - y;
            outHeight = rows - m - y;
        }
        if (outHeight <= 0) return;
        cv::Rect const in(0, y, cols, inHeight), out(m, m + y, cols - m, outHeight);
        cv::Mat qStrip = q(out);
        gFc1_blkGuide(I(in), p(in), qStrip, r, eps);
    });
    // The frame of width 4r holds p unfiltered; with r = 0 there is none, and copying its empty
    // pieces would ask OpenCV to release a fixed-size view of q.
    if (m == 0) return;
    p.rowRange(0, m).copyTo(q.rowRange(0, m));
    p.rowRange(rows - m, rows).copyTo(q.rowRange(rows - m, rows));
    p(cv::Rect(0, m, m, rows - 2 * m)).copyTo(q(cv::Rect(0, m, m, rows - 2 * m)));
    p(cv::Rect(cols - m, m, m, rows - 2 * m)).copyTo(q(cv::Rect(cols - m, m, m, rows - 2 * m)));
}

// ---- three guides --------------------------------------------------------------------------

void TGFilter::gFc3_estimate(std::vector<cv::Mat> const &guides, cv::Mat const &p, int r,
                             float eps) {
    for (cv::Mat &a : coefA)
        a.create(p.size(), CV_32F);
    coefB.create(p.size(), CV_32F);
    if (p.empty()) return;
    Colour const colour{eps};
    auto model = [&](int, float const *const *m, float *const *c, bool) {
        for (int x = 0; x < p.cols; ++x) {
            float mean[3], cov[6], coef[4];
            colour.fromMeans(m, x, mean, cov, coef);
            for (int k = 0; k < 4; ++k)
                c[k][x] = coef[k];
        }
    };
    cv::Mat *out[4] = {&coefA[0], &coefA[1], &coefA[2], &coefB};
    guided::twoRounds<13, 4>(p.rows, p.cols, std::max(r, 0), ColourQuantities{guides, p}, model,
                             out);
}

void TGFilter::gFc3_estimateFixedR(std::vector<cv::Mat> const &guides, cv::Mat const &p,
                                   float eps) {
    for (cv::Mat &a : coefA)
        a.create(p.size(), CV_32F);
    coefB.create(p.size(), CV_32F);
    if (p.empty()) return;
    Colour const colour{eps};
    cv::Mat *out[4] = {&coefA[0], &coefA[1], &coefA[2], &coefB};
    if (cacheFits(guideMean, 3, p.size()) && cacheFits(guideCov, 6, p.size())) {
        auto model = [&](int y, float const *const *m, float *const *c, bool) {
            float const *keptMean[3], *keptCov[6];
            for (int k = 0; k < 3; ++k)
                keptMean[k] = guideMean[k].ptr<float>(y);
            for (int k = 0; k < 6; ++k)
                keptCov[k] = guideCov[k].ptr<float>(y);
            for (int x = 0; x < p.cols; ++x) {
                float const mean[3] = {keptMean[0][x], keptMean[1][x], keptMean[2][x]};
                float const meanP = m[0][x];
                float const covP[3] = {m[1][x] - mean[0] * meanP, m[2][x] - mean[1] * meanP,
                                       m[3][x] - mean[2] * meanP};
                float cov[6];
                for (int k = 0; k < 6; ++k)
                    cov[k] = keptCov[k][x];
                float coef[4];
                colour(mean, meanP, covP, cov, coef);
                for (int k = 0; k < 4; ++k)
                    c[k][x] = coef[k];
            }
        };
        guided::twoRounds<4, 4>(p.rows, p.cols, 1, ColourTargetQuantities{guides, p}, model, out);
        return;
    }
    for (cv::Mat &m : guideMean)
        m.create(p.size(), CV_32F);
    for (cv::Mat &m : guideCov)
        m.create(p.size(), CV_32F);
    auto model = [&](int y, float const *const *m, float *const *c, bool own) {
        for (int x = 0; x < p.cols; ++x) {
            float mean[3], cov[6], coef[4];
            colour.fromMeans(m, x, mean, cov, coef);
            for (int k = 0; k < 4; ++k)
                c[k][x] = coef[k];
            if (!own) continue;
            for (int k = 0; k < 3; ++k)
                guideMean[k].ptr<float>(y)[x] = mean[k];
            for (int k = 0; k < 6; ++k)
                guideCov[k].ptr<float>(y)[x] = cov[k];
        }
    };
    guided::twoRounds<13, 4>(p.rows, p.cols, 1, ColourQuantities{guides, p}, model, out);
}

void TGFilter::gFc3_applyLoop(std::vector<cv::Mat> const &guides, cv::Mat &out) {
    if (coefB.empty() || guides[0].empty()) return;
    cv::Mat const coefs[4] = {coefA[0], coefA[1], coefA[2], coefB};
    auto const depth = guides[0].depth();
    if (depth != CV_8U && depth != CV_16U && depth != CV_32F) {
        guides[0].copyTo(out);
        return;
    }
    // Bytes are written whatever out's depth.
    prepareOut(out, guides[0].size(), 1, CV_8U);
    using B = std::uint8_t;
    if (depth == CV_8U) {
        auto f = [](float s, float b) { return sat8(s + b * 255.0f); };
        applyColour<std::uint8_t, B>(guides.data(), coefs, out, f, f);
    } else if (depth == CV_16U) {
        auto f = [](float s, float b) { return B(sat16(s + b * 65535.0f) >> 8); };
        applyColour<std::uint16_t, B>(guides.data(), coefs, out, f, f);
    } else {
        auto f = [](float s, float b) { return sat8((s + b) * 255.0f); };
        applyColour<float, B>(guides.data(), coefs, out, f, f);
    }
}

void TGFilter::gFc3_applyLoop16U(std::vector<cv::Mat> const &guides, cv::Mat &out) {
    if (coefB.empty() || guides[0].empty()) return;
    cv::Mat const coefs[4] = {coefA[0], coefA[1], coefA[2], coefB};
    auto const depth = guides[0].depth();
    if (depth != CV_8U && depth != CV_16U && depth != CV_32F) {
        guides[0].copyTo(out);
        return;
    }
    prepareOut(out, guides[0].size(), 2, CV_16U);
    using W = std::uint16_t;
    if (depth == CV_8U) {
        auto f = [](float s, float b) { return W(sat16(s + b * 255.0f) << 8); };
        applyColour<std::uint8_t, W>(guides.data(), coefs, out, f, f);
    } else if (depth == CV_16U) {
        auto f = [](float s, float b) { return sat16(s + b * 65535.0f); };
        applyColour<std::uint16_t, W>(guides.data(), coefs, out, f, f);
    } else {
        // The right strip, reached only when the size ratio rounds down, clips to 8 bits:
        // kept as hosts have always seen it.
        applyColour<float, W>(
            guides.data(), coefs, out, [](float s, float b) { return sat16((s + b) * 65535.0f); },
            [](float s, float b) { return W(sat8((s + b) * 65535.0f)); });
    }
}

void TGFilter::gFc3_apply(std::vector<cv::Mat> const &guides, cv::Mat &out) {
    if (guides.size() != 3) return;
    applyResampled(coefA, coefB, guides.data(), 3, out);
}
