#include "kestrix1/hist/hist_match.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <opencv2/imgproc.hpp>

#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_point.h"

using cv::Mat;

cv::Mat HistMatch::plot;

namespace {

void makeColumn(Mat &m, int rows) {
    if (m.type() != CV_32FC1 || m.rows != rows || m.cols != 1) m.create(rows, 1, CV_32FC1);
}

// The entries of a column (or row) of floats, whatever its layout.
float entry(Mat const &m, int i) {
    return m.rows == 1 ? m.ptr<float>(0)[i] : m.ptr<float>(i)[0];
}

}  // namespace

bool HistMatch::computeCDF(Mat const &in, Mat &cdf, int bins) {
    makeColumn(cdf, bins);
    Mat counts;
    if (!in.empty()) {
        int const channel = 0, size = bins;
        float const range[] = {0.0f, 65535.0f};
        float const *ranges[] = {range};
        cv::calcHist(&in, 1, &channel, Mat(), counts, 1, &size, ranges, true, false);
    } else {
        counts = Mat::zeros(bins, 1, CV_32FC1);
    }
    float sum = 0.0f;
    for (int i = 0; i < bins; ++i) {
        sum += counts.at<float>(i);
        cdf.at<float>(i) = sum;
    }
    cv::normalize(cdf, cdf, 0.0, 1.0, cv::NORM_MINMAX);
    return true;
}

bool HistMatch::computeGradientCDF(Mat const &in, Mat &cdf, int bins) {
    if (in.empty()) return computeCDF(in, cdf, bins);
    Mat half, up;
    cv::pyrDown(in, half, cv::Size(), cv::BORDER_REFLECT_101);
    cv::pyrUp(half, up, in.size(), cv::BORDER_REFLECT_101);
    // The detail as the library keeps every difference plane: centred on 32768, saturated.
    Mat detail(in.size(), CV_16UC1);
    parallelRows(in.rows, std::int64_t(in.rows) * in.cols, [&](int y) {
        std::uint16_t const *a = in.ptr<std::uint16_t>(y), *b = up.ptr<std::uint16_t>(y);
        std::uint16_t *d = detail.ptr<std::uint16_t>(y);
        for (int x = 0; x < in.cols; ++x)
            d[x] = std::uint16_t(std::clamp(int(a[x]) - int(b[x]) + 32768, 0, 65535));
    });
    return computeCDF(detail, cdf, bins);
}

bool HistMatch::match(Mat const &from, Mat const &to, Mat &curve) {
    int const n = int(from.total()), m = int(to.total());
    makeColumn(curve, n);
    int j = 0;
    for (int i = 0; i < n; ++i) {
        if (i > 0) curve.at<float>(i) = curve.at<float>(i - 1);
        double const c = entry(from, i);
        while (j < m && !(std::fabs(double(entry(to, j)) - c) < 1e-10 || entry(to, j) > c))
            ++j;
        // With nothing left in `to`, the first entry has no value before it to keep: j / m
        // is then 1, the top, where a value above all of `to` belongs.
        if (j < m || i == 0) curve.at<float>(i) = float(j) / float(m);
    }
    return true;
}

bool HistMatch::remap(Mat const &in, Mat const &curve, Mat &out) {
    if (out.type() != CV_16UC1 || out.size() != in.size()) out.create(in.size(), CV_16UC1);
    int const pairs = std::min(256, int(curve.total()));
    if (in.empty() || pairs < 2) return true;
    int levels[256], values[256];
    for (int i = 0; i < pairs; ++i) {
        levels[i] = (i * 65535) >> 8;
        values[i] = int(double(entry(curve, i)) * 65535.0);
    }
    pxLutLinear(in.ptr<std::uint16_t>(), int(in.step), out.ptr<std::uint16_t>(), int(out.step),
                {in.cols, in.rows}, values, levels, pairs);
    return true;
}

bool HistMatch::show(std::string const & /*name*/, Mat const &cdf) {
    int const w = 512, h = 400, n = int(cdf.total());
    plot.create(h, w, CV_8UC3);
    plot.setTo(cv::Scalar::all(0));
    auto at = [&](int i) {
        double const v = std::clamp(double(entry(cdf, i)), 0.0, 1.0);
        return cv::Point(int(std::lround(i * (w - 1.0) / std::max(1, n - 1))),
                         int(std::lround((h - 1) * (1.0 - v))));
    };
    for (int i = 1; i < n; ++i)
        cv::line(plot, at(i - 1), at(i), cv::Scalar(255, 255, 255));
    return true;
}
