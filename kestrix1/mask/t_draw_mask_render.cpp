// Compositing and refinement of TDrawMask: paint over a base, the level stretch that gives a
// refined mask its contrast and offset, and the smoothing that precedes it.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "kestrix1/filters/bilateral_filter.h"
#include "kestrix1/filters/guided.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/px_filter.h"
#include "kestrix1/kernels/px_geometry.h"
#include "kestrix1/kernels/px_point.h"
#include "kestrix1/mask/t_draw_mask.h"

using cv::Mat;

namespace {

using u8 = std::uint8_t;

char const kInvertError[] = "Error - TFDrawMask::invertMask - ippStsError";
char const kResetError[] = "Error - TFDrawMask::resetMask - ippStsError";

IppiSize sizeOf(Mat const &m) {
    return {m.cols, m.rows};
}
int stepOf(Mat const &m) {
    return int(m.step);
}

// out = round(value a + (1 - a) base), a = coverage / 255, then the mode's choice against base.
KX_VECTOR_CLONES void renderRow(u8 const *__restrict base, u8 const *__restrict cover,
                                u8 *__restrict out, int width, float value, int mode) {
    for (int x = 0; x < width; ++x) {
        float const a = float(cover[x]) / 255.0f;
        float r = value * a + (1.0f - a) * float(base[x]);
        r = r < 255.0f ? r : 255.0f;
        int const v = int(r + 0.5f);
        int const b = base[x];
        out[x] = u8(mode == 1 ? std::min(v, b) : mode == 2 ? std::max(v, b) : v);
    }
}

// The stretch's factor: 8160 / span in integers, at most 255 (a product scaled by 2^-5).
constexpr int kStretchScale = 5;
inline int stretchFactor(int span) {
    return std::min(8160 / span, 255);
}

}  // namespace

bool TDrawMask::renderMask(Mat &base, Mat &coverage, Mat &out, unsigned char value, int mode) {
    if (base.empty() || base.type() != CV_8UC1 || coverage.size() != base.size() ||
        coverage.type() != CV_8UC1)
        return true;
    out.create(base.size(), CV_8UC1);
    int const cols = base.cols;
    parallelRows(base.rows, std::int64_t(base.rows) * cols, [&](int y) {
        renderRow(base.ptr<u8>(y), coverage.ptr<u8>(y), out.ptr<u8>(y), cols, float(value), mode);
    });
    return true;
}

void TDrawMask::postFilter(Mat &src, Mat &dst, int radius, float strength) {
    if (src.empty() || src.type() != CV_8UC1) return;
    if (radius < 1 || m_inputY.empty()) {
        src.copyTo(dst);
    } else if (strength < 0.01f) {
        boxFilterSmooth(src, dst, radius, 3);
    } else {
        float const t = 3.0f * strength;
        int const j = int(t);
        float const eps = (float(j + 1) - t) / float(std::pow(10.0, j));
        filterGuidedByY(dst, src, m_inputY, radius, eps, &m_gf, 1);
    }
    scaleAlpha(dst, dst);
}

bool TDrawMask::scaleAlpha(Mat &src, Mat &dst) {
    int const low = m_contrastLow, high = m_contrastHigh, span = high - low;
    if (span == 255 || span < 1 || src.empty() || src.type() != CV_8UC1) return true;
    // The clamp, the subtraction and the scaled product run once over the 256 codes, and
    // the plane then takes one pass through the table they make.
    u8 table[256];
    for (int i = 0; i < 256; ++i)
        table[i] = u8(i);
    IppiSize const codes{256, 1};
    if (pxThresholdLessGreater(table, 256, table, 256, codes, u8(low), u8(high)) != pxStsNoErr ||
        pxSubC(table, 256, codes, u8(low)) != pxStsNoErr ||
        pxMulCScale(table, 256, codes, u8(stretchFactor(span)), kStretchScale) != pxStsNoErr)
        return false;
    dst.create(src.size(), CV_8UC1);
    return pxLutPalette(src.ptr<u8>(), stepOf(src), dst.ptr<u8>(), stepOf(dst), sizeOf(src), table,
                        8) == pxStsNoErr;
}

void TDrawMask::contrastMask(float c, Mat &src, Mat &dst) {
    setMaskContrast(c);
    scaleAlpha(src, dst);
}

void TDrawMask::offsetMask(float o, Mat &src, Mat &dst) {
    setMaskOffset(o);
    scaleAlpha(src, dst);
}

void TDrawMask::invertMask(Mat &plane) {
    if (pxXorC(plane.data, stepOf(plane), sizeOf(plane), 255) != pxStsNoErr) throw kInvertError;
}

void TDrawMask::resetMask(Mat &plane, unsigned char value) {
    if (pxSet(plane.data, stepOf(plane), sizeOf(plane), value) != pxStsNoErr) throw kResetError;
}

void TDrawMask::bilateralSmooth(Mat &src, Mat &dst, int sampleS, int sampleR) {
    if (dst.size() != src.size() || dst.type() != src.type()) src.copyTo(dst);
    BilateralFilter filter;
    filter.proc(src, dst, sampleS, sampleR, nullptr);
}

void TDrawMask::boxFilterSmooth(Mat &src, Mat &dst, int radius, int passes) {
    if (src.empty() || src.type() != CV_8UC1) return;
    if (radius < 1 || passes < 1) {
        src.copyTo(dst);
        return;
    }
    IppiSize const size = sizeOf(src);
    Mat padded(src.rows + 2 * radius, src.cols + 2 * radius, CV_8UC1);
    IppiSize const paddedSize = sizeOf(padded);
    int const side = 2 * radius + 1;
    u8 *inner = padded.ptr<u8>(radius) + radius;
    pxCopyReplicateBorder(src.ptr<u8>(), stepOf(src), size, padded.ptr<u8>(), stepOf(padded),
                          paddedSize, radius, radius);
    for (int pass = 0; pass < passes; ++pass) {
        if (pass > 0)
            pxReplicateBorderInPlace(inner, stepOf(padded), size, paddedSize, radius, radius);
        pxFilterBoxInPlace(inner, stepOf(padded), size, {side, side}, {radius, radius});
    }
    dst.create(src.size(), CV_8UC1);
    padded(cv::Rect(radius, radius, src.cols, src.rows)).copyTo(dst);
}

void TDrawMask::setMaskContrast(float c) {
    c = std::min(std::max(c, 0.0f), 1.0f);
    int const k = int(100.0f * c);
    m_contrastLow = k / 2;
    m_contrastHigh = 255 - k;
}

void TDrawMask::setMaskOffset(float o) {
    o = std::min(std::max(o, -1.0f), 1.0f);
    float const g = std::trunc(100.0f * o);
    m_contrastLow = std::min(std::max(int(float(m_contrastLow) - g), 0), 254);
    m_contrastHigh = std::min(std::max(int(float(m_contrastHigh) - g), 1), 255);
}
