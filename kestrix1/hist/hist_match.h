// HistMatch: matching of cumulative histograms of 16-bit planes, for tone transfer.
//
// A cumulative histogram is a CV_32F column of n rows rising from 0 to 1. match builds the
// curve that takes one such distribution to another, remap applies a 256-entry curve to a
// plane, and computeGradientCDF measures a plane's fine detail rather than its tones.
#pragma once

#include <opencv2/core.hpp>
#include <string>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT HistMatch {
public:
    // cdf (made CV_32F bins x 1 unless it is): cv::calcHist of the CV_16UC1 plane with `bins`
    // uniform bins over [0, 65535), the running sum, then cv::normalize to 0..1 (NORM_MINMAX).
    // An empty plane counts nothing and gives zeros, as does a plane wholly in the first bin
    // (NORM_MINMAX of a constant column). Returns true.
    static bool computeCDF(cv::Mat const &in, cv::Mat &cdf, int bins);

    // computeCDF of the plane's detail: in minus cv::pyrUp(cv::pyrDown(in)) (border 4), as a
    // difference plane centred on 32768 and saturated to 0..65535. Returns true.
    static bool computeGradientCDF(cv::Mat const &in, cv::Mat &cdf, int bins);

    // curve (made CV_32F from.rows x 1 unless it is): curve[i] = j / to.rows with j the first
    // position, searched forward only from where the last search stopped, with
    // |to[j] - from[i]| < 1e-10 or to[j] > from[i]; where none is left curve[i] keeps
    // curve[i - 1]. When even curve[0] finds none (from lies wholly above to) it is j / to.rows
    // = 1, the top. Entries are read from columns or rows alike. Returns true.
    static bool match(cv::Mat const &from, cv::Mat const &to, cv::Mat &curve);

    // out (made CV_16UC1 of in's size unless it is) = in through the piecewise-linear table
    // with the 256 pairs ((i 65535) >> 8, (int)(curve[i] 65535.0)); input above the last level
    // (65279) is left as it is. A curve of fewer entries uses the pairs it has, so more of the
    // top is left as it is; fewer than two leave out unwritten. Returns true.
    static bool remap(cv::Mat const &in, cv::Mat const &curve, cv::Mat &out);

    // Plots the cumulative histogram into `plot`, a 512 x 400 CV_8UC3 picture with the curve
    // in white on black from 0 at the bottom to 1 at the top, for the host to show under
    // `name` (the library opens no windows). Changes nothing else. Returns true.
    static bool show(std::string const &name, cv::Mat const &cdf);
    static cv::Mat plot;
};
