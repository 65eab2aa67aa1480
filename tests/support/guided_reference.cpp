#include "tests/support/guided_reference.h"

namespace kxtest {

cv::Mat boxMean(cv::Mat const &plane, int r) {
    cv::Mat padded, mean(plane.size(), CV_32F);
    cv::copyMakeBorder(plane, padded, r, r, r, r, cv::BORDER_REPLICATE);
    for (int y = 0; y < plane.rows; ++y)
        for (int x = 0; x < plane.cols; ++x) {
            double sum = 0;
            for (int j = 0; j <= 2 * r; ++j)
                for (int i = 0; i <= 2 * r; ++i)
                    sum += padded.at<float>(y + j, x + i);
            mean.at<float>(y, x) = float(sum / ((2 * r + 1) * (2 * r + 1)));
        }
    return mean;
}

GuidedCoefs guidedReference(std::vector<cv::Mat> const &guides, cv::Mat const &p, int r, float eps,
                            std::vector<cv::Mat> const &statsGuides) {
    std::vector<cv::Mat> const &stats = statsGuides.empty() ? guides : statsGuides;
    int const n = int(guides.size());
    cv::Mat const meanP = boxMean(p, r);
    std::vector<cv::Mat> meanI, covP, cov;
    for (int c = 0; c < n; ++c) {
        meanI.push_back(boxMean(stats[c], r));
        covP.push_back(boxMean(guides[c].mul(p), r) - meanI[c].mul(meanP));
    }
    for (int c = 0; c < n * n; ++c)
        cov.push_back(boxMean(stats[c / n].mul(stats[c % n]), r) - meanI[c / n].mul(meanI[c % n]));
    // Per pixel (cov + eps) a = covP and b = meanP - meanI . a; then the window means of both.
    GuidedCoefs out{std::vector<cv::Mat>(n), cv::Mat(p.size(), CV_32F)};
    for (cv::Mat &plane : out.a)
        plane.create(p.size(), CV_32F);
    cv::Mat s(n, n, CV_64F), rhs(n, 1, CV_64F), a;
    for (int y = 0; y < p.rows; ++y)
        for (int x = 0; x < p.cols; ++x) {
            for (int c = 0; c < n * n; ++c)
                s.ptr<double>()[c] = cov[c].at<float>(y, x) + (c % (n + 1) == 0 ? eps : 0.0f);
            for (int c = 0; c < n; ++c)
                rhs.at<double>(c) = covP[c].at<float>(y, x);
            cv::solve(s, rhs, a, cv::DECOMP_LU);
            double b = meanP.at<float>(y, x);
            for (int c = 0; c < n; ++c) {
                out.a[c].at<float>(y, x) = float(a.at<double>(c));
                b -= meanI[c].at<float>(y, x) * a.at<double>(c);
            }
            out.b.at<float>(y, x) = float(b);
        }
    for (cv::Mat &plane : out.a)
        plane = boxMean(plane, r);
    out.b = boxMean(out.b, r);
    return out;
}

}  // namespace kxtest
