// TGFilter: the library's guided filter (He, Sun and Tang), in two phases.
//
// setup() estimates, for every pixel of a target p, the local linear model q = a * I + b
// (or q = a0 * I0 + a1 * I1 + a2 * I2 + b for a guide of three planes) over a square window
// of side 2r+1. proc() then evaluates the model on a guide, which may be larger than the
// target and of any of the depths CV_8U, CV_16U and CV_32F, so that coefficients estimated on
// a small normalised image are applied to the full-size photograph without converting it.
//
// The variant: the regulariser eps is added to the plain variance of the guide (no scaling
// by the pixel range), and every window mean is taken over the full (2r+1)^2 samples,
// because the guide and target, and again the a and b planes before they are averaged, are
// extended by replicating their edge pixels r pixels out on every side. Nothing clamps a
// coefficient or tests a variance for zero: eps = 0 on a flat area gives what float division
// gives. Guides and targets of the estimate are CV_32FC1 in 0..1.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "kestrix1/frame/export.h"
#include "kestrix1/kernels/px_types.h"

class KESTRIX1_EXPORT TGFilter {
public:
    TGFilter();
    TGFilter(TGFilter const &other);  // shares all thirteen planes
    ~TGFilter();
    TGFilter &operator=(TGFilter const &other);  // shares all thirteen planes

    // Estimates the coefficients of target p (CV_32FC1) from one or three guide planes
    // (CV_32FC1, at least the size of p; their top-left p-sized area is used) with window
    // radius r >= 0 and regulariser eps. Any other guide count throws
    // "ERROR - TGuidedFilter::setup - input vector size is not correct.".
    void setup(std::vector<cv::Mat> const &guides, cv::Mat const &p, int r, float eps);

    // setup() with r = 1 for one guide and many targets: the guide's means and covariances
    // are computed on the first call and reused by every later call while they are kept,
    // whatever guide that call is given (they are refilled only when the target's size
    // changes). eps may differ from call to call.
    void setupFixedR(std::vector<cv::Mat> const &guides, cv::Mat const &p, float eps);

    // Evaluates the model on guides of one depth into out, which takes the guides' size.
    // The coefficient of pixel (x, y) is the one at (x / sx, y / sy), where sx and sy are the
    // ceilings of the guide-to-coefficient size ratios: a guide twice the size uses each
    // coefficient for a 2x2 square, with no interpolation.
    // - one guide: out of depth CV_8U receives sat8(rint(v * 255)) and CV_32F receives v,
    //   where v = I * a + b with I in 0..1 (I / 255 or I / 65535 for integer guides; an 8-bit
    //   out with a 16-bit guide is the exception: I * a / 255 + b * 255, kept for callers
    //   that rely on it). Other depths of out are left untouched.
    // - three guides: out is written as 8-bit values (bytes) whatever its depth; use proc16U
    //   for 16 bits.
    // A guide of another depth is copied to out unfiltered. Any other guide count throws
    // "ERROR - TGuidedFilter::proc - input vector size is not correct.". Before any
    // estimate, proc does nothing.
    void proc(std::vector<cv::Mat> const &guides, cv::Mat &out);

    // Three guides into a CV_16U out: sat16(rint(v * 65535)), with the 8-bit-guide result
    // shifted up by 8 bits. Other guide counts throw the proc() text.
    void proc16U(std::vector<cv::Mat> const &guides, cv::Mat &out);

    // The one-guide filter of p (CV_32FC1) into q in a single call, in strips of 600 rows
    // for images of 2250000 pixels or more, keeping no coefficient planes. q is allocated by
    // the caller and gives the size. Each strip's windows stay inside the image, so results
    // stand 4r pixels in from every edge: the filtered picture appears shifted by 2r to the
    // right and down, and the 4r frame holds p unfiltered. Needs 4r < q.rows.
    void stripProc(cv::Mat const &I, cv::Mat const &p, cv::Mat &q, int r, float eps);

protected:
    // cov = box(I * p) - meanI * meanP: tmpA = I * p over padSize, cov = the box mean of
    // tmpA from (anchor.x, anchor.y) over size, tmpB = meanI * meanP. With inset the
    // destination is addressed at anchor, for a padded destination plane.
    void calcov2(cv::Mat &cov, cv::Mat const &I, cv::Mat const &p, cv::Mat const &meanI,
                 cv::Mat const &meanP, cv::Mat &tmpA, cv::Mat &tmpB, IppiSize padSize,
                 IppiSize size, IppiSize mask, IppiPoint anchor, bool inset);
    // var = box(I * I) - meanI * meanI, as calcov2.
    void calvar2(cv::Mat &var, cv::Mat const &I, cv::Mat const &meanI, cv::Mat &tmpA, cv::Mat &tmpB,
                 IppiSize padSize, IppiSize size, IppiSize mask, IppiPoint anchor, bool inset);
    // Strip height: b when a * b < 2250000 or b < 600, else 600.
    int checkBlkSz(int a, int b);

    void gFc1_estimate(cv::Mat const &I, cv::Mat const &p, int r, float eps);
    void gFc1_estimateFixedR(cv::Mat const &I, cv::Mat const &p, float eps);
    void gFc1_applyLoop8U(cv::Mat const &I, cv::Mat &out);
    void gFc1_applyLoop32F(cv::Mat const &I, cv::Mat &out);
    // Alternative apply: the coefficients are enlarged to the guide's size by bicubic
    // resampling, then out = a * I + b in float (I as given, not normalised).
    void gFc1_apply(cv::Mat const &I, cv::Mat &out);
    // One block with no padding: q ((H - 4r) x (W - 4r)) receives the filter of the H x W
    // block at block positions from 2r on.
    void gFc1_blkGuide(cv::Mat const &I, cv::Mat const &p, cv::Mat &q, int r, float eps);
    void gFc1_stripproc(cv::Mat const &I, cv::Mat const &p, cv::Mat &q, int r, float eps,
                        int height);

    void gFc3_estimate(std::vector<cv::Mat> const &guides, cv::Mat const &p, int r, float eps);
    void gFc3_estimateFixedR(std::vector<cv::Mat> const &guides, cv::Mat const &p, float eps);
    void gFc3_applyLoop(std::vector<cv::Mat> const &guides, cv::Mat &out);
    void gFc3_applyLoop16U(std::vector<cv::Mat> const &guides, cv::Mat &out);
    // As gFc1_apply, with the three products summed.
    void gFc3_apply(std::vector<cv::Mat> const &guides, cv::Mat &out);

    cv::Mat coefA[3];      // averaged a planes; one guide uses coefA[0]
    cv::Mat coefB;         // averaged b plane
    cv::Mat guideMean[3];  // fixed-radius cache: box means of the guide planes
    cv::Mat guideCov[6];   // fixed-radius cache: RR, RG, RB, GG, GB, BB (one guide: var)
};
