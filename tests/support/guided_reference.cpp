#include "tests/support/guided_reference.h"

#include <cmath>
#include <opencv2/core.hpp>

namespace kxtest {

cv::Mat boxMean(cv::Mat const &plane, int r) {
    cv::Mat padded, mean(plane.size(), CV_32F);
    cv::copyMakeBorder(plane, padded, r, r, r, r, cv::BORDER_REPLICATE);
    double const area = double(2 * r + 1) * (2 * r + 1);
    for (int y = 0; y < plane.rows; ++y)
        for (int x = 0; x < plane.cols; ++x) {
            double sum = 0;
            for (int j = 0; j <= 2 * r; ++j)
                for (int i = 0; i <= 2 * r; ++i)
                    sum += padded.at<float>(y + j, x + i);
            mean.at<float>(y, x) = float(sum / area);
        }
    return mean;
}

namespace {

cv::Mat product(cv::Mat const &a, cv::Mat const &b) {
    return a.mul(b);
}

}  // namespace

GuidedCoefs guidedReference(std::vector<cv::Mat> const &guides, cv::Mat const &p, int r, float eps,
                            std::vector<cv::Mat> const &statsGuides) {
    int const n = int(guides.size());
    std::vector<cv::Mat> meanI(n), covP(n);
    cv::Mat const meanP = boxMean(p, r);
    for (int c = 0; c < n; ++c) {
        meanI[c] = boxMean(statsGuides[c], r);
        covP[c] = boxMean(product(guides[c], p), r) - meanI[c].mul(meanP);
    }
    // cov[c][d] of the statistics guide.
    cv::Mat cov[3][3];
    for (int c = 0; c < n; ++c)
        for (int d = c; d < n; ++d)
            cov[c][d] = cov[d][c] =
                boxMean(product(statsGuides[c], statsGuides[d]), r) - meanI[c].mul(meanI[d]);

    std::vector<cv::Mat> a(n);
    for (cv::Mat &plane : a)
        plane.create(p.size(), CV_32F);
    cv::Mat b(p.size(), CV_32F);
    for (int y = 0; y < p.rows; ++y)
        for (int x = 0; x < p.cols; ++x) {
            float const mp = meanP.at<float>(y, x);
            if (n == 1) {
                float const var = cov[0][0].at<float>(y, x) + eps;
                float const ax = covP[0].at<float>(y, x) / var;
                a[0].at<float>(y, x) = ax;
                b.at<float>(y, x) = mp - meanI[0].at<float>(y, x) * ax;
                continue;
            }
            cv::Matx33d s;
            for (int c = 0; c < 3; ++c)
                for (int d = 0; d < 3; ++d)
                    s(c, d) = cov[c][d].at<float>(y, x) + (c == d ? eps : 0.0f);
            cv::Matx33d const inv = s.inv(cv::DECOMP_LU);
            float bx = mp;
            for (int c = 0; c < 3; ++c) {
                double ac = 0;
                for (int d = 0; d < 3; ++d)
                    ac += inv(d, c) * covP[d].at<float>(y, x);
                a[c].at<float>(y, x) = float(ac);
                bx -= meanI[c].at<float>(y, x) * float(ac);
            }
            b.at<float>(y, x) = bx;
        }
    GuidedCoefs out;
    for (cv::Mat const &plane : a)
        out.a.push_back(boxMean(plane, r));
    out.b = boxMean(b, r);
    return out;
}

cv::Mat expand(cv::Mat const &coef, cv::Size size) {
    int const sx = int(std::ceil(float(size.width) / float(coef.cols)));
    int const sy = int(std::ceil(float(size.height) / float(coef.rows)));
    cv::Mat out(size, CV_32F);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x)
            out.at<float>(y, x) =
                coef.at<float>(std::min(y / sy, coef.rows - 1), std::min(x / sx, coef.cols - 1));
    return out;
}

cv::Mat modelSum(std::vector<cv::Mat> const &guides, GuidedCoefs const &c) {
    cv::Mat sum(guides[0].size(), CV_32F, cv::Scalar(0));
    for (std::size_t k = 0; k < guides.size(); ++k) {
        cv::Mat g, a = expand(c.a[k], sum.size());
        guides[k].convertTo(g, CV_32F);
        // Summed in float, left to right, as the apply loops do.
        sum = k == 0 ? cv::Mat(g.mul(a)) : cv::Mat(sum + g.mul(a));
    }
    return sum;
}

}  // namespace kxtest
