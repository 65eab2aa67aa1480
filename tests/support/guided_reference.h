// A plain guided filter for the tests, written for clarity, not speed.
//
// Planes are extended by replicating their edges r pixels out, every window mean is a direct
// sum in double over the (2r+1)^2 samples of the extended plane, rounded to float, and the
// per-pixel arithmetic is single precision in the order the filter documents.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace kxtest {

struct GuidedCoefs {
    std::vector<cv::Mat> a;  // one plane per guide plane, CV_32F
    cv::Mat b;               // CV_32F
};

// Window means over a replicate-extended plane (CV_32F in and out).
cv::Mat boxMean(cv::Mat const &plane, int r);

// Coefficients of target p from guide planes (one or three, CV_32F). The guide statistics
// (means and covariances) come from `statsGuides`, the products with p from `guides`, as
// a filter that reuses the statistics of an earlier guide computes them; pass the same
// planes twice for the ordinary filter.
GuidedCoefs guidedReference(std::vector<cv::Mat> const &guides, cv::Mat const &p, int r, float eps,
                            std::vector<cv::Mat> const &statsGuides);

inline GuidedCoefs guidedReference(std::vector<cv::Mat> const &guides, cv::Mat const &p, int r,
                                   float eps) {
    return guidedReference(guides, p, r, eps, guides);
}

// A coefficient plane looked up at guide size as the apply loops do: (x / sx, y / sy) with
// the ceilings of the size ratios, the last row or column beyond. CV_32F.
cv::Mat expand(cv::Mat const &coef, cv::Size size);

// S = sum over planes of guide[k] * a[k] at each pixel, in float, the guides taken as given
// (not normalised) and the coefficients expanded to guide size. CV_32F.
cv::Mat modelSum(std::vector<cv::Mat> const &guides, GuidedCoefs const &c);

}  // namespace kxtest
