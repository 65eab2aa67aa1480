// TDetails3: multi-band detail and light adjustment of a luminance plane.
//
// The host splits Y into a base plane B and three detail planes D0..D2 (centred on 32768, one
// unit = half a luminance step). For a region of interest at an integer zoom-out the effect
// rebuilds
//     out = clamp16( L(B') + 2 (D0' - 32768) + 2 (D1' - 32768) + 2 (D2' - 32768) )
// where B' is B shifted by a chroma-dependent luminance mix, L a light-adjust table, and each
// Dn' the detail plane pushed through three contrast tables (shadow, middle, highlight band)
// blended by L(B'). Parameters are public members the host writes; the dirty members say what
// changed, and proc() recomputes only those stages, so one slider costs one level.
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"

class TProgress;

class KESTRIX1_EXPORT TDetails3 {
public:
    TDetails3();
    TDetails3(TDetails3 const &other);             // copies scalars, shares every plane
    TDetails3 &operator=(TDetails3 const &other);  // copies scalars, shares every plane
    ~TDetails3();

    // Light form: gives srcY and srcDetail[0..2] the size and type of src (re-created only
    // when they do not fit already), sets roiChanged and returns true. Reads no pixel, leaves
    // the chroma planes and dirty members alone; the host fills the planes itself.
    bool setup(cv::Mat const &src, TProgress *progress);

    // Full form: shares y and the three detail planes (full size, CV_16UC1), enlarges the
    // half-size chroma planes dr, db to full size and smooths them with the domain-transform
    // filter in 1024 x 1024 blocks (32 pixels of overlap), spatial sigma
    // clamp((rows + cols) / 256, 4, 32). Reports 20, 40 and 100 (of 100); false when the
    // host cancels, with what was done so far left in place. Marks everything dirty.
    bool setup(cv::Mat const &y, cv::Mat const &detail0, cv::Mat const &detail1,
               cv::Mat const &detail2, cv::Mat const &dr, cv::Mat db, TProgress *progress);

    // Recomputes what is dirty for the region roi (x, y in full-size pixels, width and height
    // in result pixels) at zoom-out scale, and clears the dirty members. extra, when it has
    // the size of the region's result, is one more detail plane (centred on 32768) added to
    // level 0 for this call only; any other size is ignored. Always returns true.
    bool proc(cv::Rect_<int> roi, int scale, cv::Mat extra);

    // The result of the last proc(), CV_16UC1 of the region's result size.
    cv::Mat &getRoiY();

    // Kept for the host's view of the member layout; no member reads them.
    int m_reserved[2];

    // Per level n: [n][0] base amount, [n][1] shadow-band change, [n][2] middle-band change.
    // Zero is neutral; the scale is that of TLut16U::setupLinearThreshold.
    float detailAmount[3][3];
    // The matching thresholds, same layout; zero means none.
    float detailThreshold[3][3];
    // Handed in this order to TLightAdjLUTd3::setupParams.
    float lightParam[6];
    // Luminance mix weights: tied to Dr, tied to neither, tied to Db. Zero means none.
    float colorMix[3];
    // Set entry n after changing level n's amounts or thresholds.
    bool levelDirty[3];
    // Set after changing lightParam or colorMix.
    bool baseDirty;

    cv::Mat srcY;          // base plane, full size
    cv::Mat srcDetail[3];  // detail planes, full size, 32768 = no detail
    cv::Mat srcDr;         // full-size smoothed chroma, made by the full setup()
    cv::Mat srcDb;

    cv::Rect_<int> roi;  // region of the last proc()
    int roiScale;        // zoom-out of the last proc(), 1 by default
    bool roiChanged;     // region, scale or planes changed: everything is recomputed

    cv::Mat roiBase;       // L(B') over the region
    cv::Mat roiDetail[3];  // D0', D1', D2' over the region
    cv::Mat roiY;          // the result

    // Band weights over the high byte of L(B'), summing to 256 (255 at 8..77 and 178..247).
    static int const s_shadowWeight[256];     // falling: weights slot 1 (shadow change)
    static int const s_middleWeight[256];     // plateau: weights slot 2 (middle change)
    static int const s_highlightWeight[256];  // rising: weights slot 0 (base amount)

protected:
    // Stores roi and scale and sets roiChanged when any of the five values differs.
    void setRoi(cv::Rect_<int> roi, int scale);

    // True when any of level's three amounts or three thresholds is outside +-0.01.
    bool bNeedSHMix(int level);

    // Blends three table passes of one detail plane by the bands of y (all CV_16UC1, same
    // size), into h:
    //   sum = (s - 32768) shadow[y >> 8] + (m - 32768) middle[y >> 8]
    //         + (h - 32768) highlight[y >> 8]
    //   h = clamp(trunc(sum / 256) + 32768, 0, 65535)  (truncation towards zero)
    void mixSMH(cv::Mat const &y, cv::Mat const &s, cv::Mat const &m, cv::Mat &h);

    // Shifts the CV_16UC1 plane y by the chroma's difference from neutral, with weights
    // a (Dr), b (neither), c (Db), each times 2.5:
    //   y = sat16(rint(y + k0 + dr kdr + db kdb)), in float,
    // kdr = a' - b', kdb = c' - b' and k0 = (2 b' - a' - c') 32768 for CV_16UC1 chroma;
    // the same scaled by 256 (k0 = ((-a' - c') 128 + 256 b') 256) for CV_8UC1 chroma.
    // Any other pair throws the trace text "bad dr type".
    void modYWithC(cv::Mat const &dr, cv::Mat const &db, float a, float b, float c, cv::Mat &y);

    // dst = clamp(dst + 2 (a + b + c) - 196608, 0, 65535), all CV_16UC1 of one size.
    void addEdges(cv::Mat const &a, cv::Mat const &b, cv::Mat const &c, cv::Mat &dst);

    // Identity curve control points: count 3, x 0, 32768, 65535, y 0, 32768, 65536.
    void computeYCurve(int *xs, int *ys, int *count);

    // v >= 0.01f or v <= -0.01f.
    bool bNZ(float v);
    // |a - b| >= 0.01f.
    bool neq(float a, float b);

private:
    // The three contrast tables of the level being rebuilt (shadow, middle, base pass; 65536
    // entries each), kept between calls so that a slider change reuses warm memory. Not
    // shared by copies: each object fills its own.
    std::vector<std::uint16_t> m_tables;
    // The chroma of the last zoomed region, reused by the next one of the same size. Also
    // not shared by copies.
    cv::Mat m_roiChroma[2];
};
