// A plain guided filter for the tests: planes are extended by replicating their edges r pixels
// out, and every window mean is a direct sum in double over the (2r+1)^2 samples.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace kxtest {

struct GuidedCoefs {
    std::vector<cv::Mat> a;  // one CV_32F plane per guide plane
    cv::Mat b;
};

// Window means of a CV_32F plane.
cv::Mat boxMean(cv::Mat const &plane, int r);

// Coefficients of target p from one or three CV_32F guide planes. The guide's means and
// covariances come from `statsGuides` when given, as a filter that keeps the statistics of an
// earlier guide computes them; the products with p always come from `guides`.
GuidedCoefs guidedReference(std::vector<cv::Mat> const &guides, cv::Mat const &p, int r, float eps,
                            std::vector<cv::Mat> const &statsGuides = {});

}  // namespace kxtest
