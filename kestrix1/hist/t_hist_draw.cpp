#include "kestrix1/hist/t_hist_draw.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "kestrix1/image/tp_image.h"

using cv::Mat;

namespace {

constexpr int kBins = 256;
constexpr double kBackground = 40;  // dark grey where no channel reaches
constexpr double kColumn = 220;     // a channel's columns; overlaps mix to light colours

// 256 bins of an 8-bit plane, the last lowered to at most 4 times the mean of the others: a
// burnt-out peak still reaches the top of the scale but no longer lifts the mean.
Mat histogramOf(Mat const &plane) {
    Mat h;
    if (plane.empty()) return Mat::zeros(kBins, 1, CV_32FC1);
    int const channel = 0, size = kBins;
    float const range[] = {0.0f, 256.0f};
    float const *ranges[] = {range};
    cv::calcHist(&plane, 1, &channel, Mat(), h, 1, &size, ranges, true, false);
    double const othersMean = cv::mean(h.rowRange(0, kBins - 1))[0];
    float &last = h.at<float>(kBins - 1);
    last = std::min(last, float(4.0 * othersMean));
    return h;
}

}  // namespace

void THistDraw::setHistSize(int w, int h) {
    width = w;
    height = h;
}

void THistDraw::getHistMat(Mat &out, TPImage &image) {
    Mat r(image.height(), image.width(), CV_8UC1), g(r.size(), CV_8UC1), b(r.size(), CV_8UC1);
    unsigned char *planes[3] = {r.data, g.data, b.data};
    image.convertTopRGB8U(planes, int(r.step));
    if (out.type() != CV_8UC3 || out.rows != height || out.cols != width)
        out.create(std::max(height, 0), std::max(width, 0), CV_8UC3);
    calcHist(out, r, g, b);
}

void THistDraw::calcHist(Mat &out, Mat &r, Mat &g, Mat &b) {
    if (out.empty()) return;
    Mat const hists[3] = {histogramOf(r), histogramOf(g), histogramOf(b)};
    // One scale for the three channels, so that their heights compare: the largest of the
    // channels' tops, each the smaller of its highest bin and 4 times its mean bin.
    double top = 0;
    for (Mat const &h : hists) {
        double highest = 0;
        cv::minMaxLoc(h, nullptr, &highest);
        top = std::max(top, std::min(highest, 4.0 * cv::mean(h)[0]));
    }
    int const w = out.cols, hgt = out.rows;
    double const scale = top > 0 ? hgt / top : 0.0;
    auto x = [&](int i) { return int(std::lround(i * (w - 1) / double(kBins - 1))); };
    auto y = [&](float v) { return hgt - int(std::min(double(hgt), std::rint(v) * scale)); };
    Mat pictures[3];
    for (int c = 0; c < 3; ++c) {
        pictures[c].create(hgt, w, CV_8UC1);
        pictures[c].setTo(kBackground);
        float const *h = hists[c].ptr<float>();
        // Bin i stands at x(i); the column between two bins follows both their heights.
        // The shape is closed on its first point; a column with no height lies below the
        // picture and paints nothing.
        for (int i = 0; i + 1 < kBins; ++i) {
            cv::Point const shape[5] = {{x(i), hgt},
                                        {x(i), y(h[i])},
                                        {x(i + 1), y(h[i + 1])},
                                        {x(i + 1), hgt},
                                        {x(i), hgt}};
            cv::fillConvexPoly(pictures[c], shape, 5, cv::Scalar(kColumn), cv::LINE_8, 0);
        }
    }
    // Blue, green, red, as OpenCV writes and shows pictures.
    Mat const bgr[3] = {pictures[2], pictures[1], pictures[0]};
    cv::merge(bgr, 3, out);
}
