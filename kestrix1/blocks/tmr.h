// TMR: recipes that combine two photographs through a base and detail split.
//
// An edge-aware filter (adaptive manifolds, domain transform or the bilateral grid) splits
// each image into a smooth base and the detail around it; a recipe then takes the base of
// one image and the detail of the other, or adds a smoothed difference of the two onto a
// neutral mid-level. The block recipes run the same chain through BlockProcessor in
// 1024 x 1024 blocks, so their float work planes stay a few megabytes whatever the size.
// 16-bit planes enter float as v / 65536 and leave as rint(f 65536), saturated.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "kestrix1/blocks/block_processor.h"
#include "kestrix1/filters/a_filter.h"
#include "kestrix1/filters/dt_filter.h"
#include "kestrix1/frame/export.h"

class TProgress;

class KESTRIX1_EXPORT TMR {
public:
    float sigmaS = 0;  // spatial parameter, pixels
    float sigmaR = 0;  // range parameter, in units of a 0..1 image

    TMR() = default;
    // Copies share the work planes' pixels.
    TMR(TMR const &other) = default;
    TMR &operator=(TMR const &other) = default;
    ~TMR() = default;

    // Stores both. Returns true.
    bool setup(float sigmaS, float sigmaR);

    // a, b: three CV_16UC1 planes each, all of one size; out receives three planes.
    // out[i] = A[i] + (b[i] - B[i]) with A, B the bases of a and b by AFilter (parameters
    // 0.5, 25.0, 0, 1, whatever setup stored): the base of a with the detail of b, the detail
    // kept with both signs.
    bool proc(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
              std::vector<cv::Mat> &out);
    bool proc1(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
               std::vector<cv::Mat> &out);
    bool proc2(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
               std::vector<cv::Mat> &out);
    bool proc3(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
               std::vector<cv::Mat> &out);
    bool proc4(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
               std::vector<cv::Mat> const &c, std::vector<cv::Mat> &out);
    bool proc5(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
               std::vector<cv::Mat> &out);
    bool proc6(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
               std::vector<cv::Mat> &out);

    // a, b: CV_16UC1 of one size. a takes the detail of b around its own base:
    // a = sat16(rint(b - base + a)) with base from BilateralFilter (spatial int(sigmaS), range
    // int(16384 sigmaR)). Progress 40, 80 and 100 of 100; false when cancelled.
    bool procC1(cv::Mat &a, cv::Mat const &b, TProgress *progress);
    // a takes the smooth part of b and keeps its own detail: d = b - a + 32768 (saturated),
    // t = d smoothed by BilateralFilter, a = sat16(rint(t - 32768 + a)). Returns true.
    bool procC2(cv::Mat &a, cv::Mat const &b);

private:
    std::vector<cv::Mat> blocksIn_, blocksOut_, floatA_, floatB_;  // block loop work planes
    AFilter af_;
    BlockProcessor bp_;
    DTFilter dt_;
};
