// LumTransfer: gives a luminance plane the tonal character of a reference plane.
//
// Two things are matched at once and iterated: the distribution of fine detail, by driving the
// library's local Laplacian filter (LocalFilter) with a curve that takes the plane's detail
// histogram to the reference's, and the distribution of tones, by remapping the filtered
// result onto the reference's cumulative histogram.
#pragma once

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"

class LocalFilter;

class KESTRIX1_EXPORT LumTransfer {
public:
    // Owned; made by the constructor as LocalFilter(8, 16): 16 reference grey levels, and 8
    // pyramid levels that only fill the member, since each proc sets the depth from the
    // plane's size. Its range stays 1.
    LocalFilter *filter;
    int iterations = 0;         // rounds of proc
    cv::Mat work;               // CV_32F 256 x 1: cumulative histogram of the input's detail
    cv::Mat targetCDF;          // of the reference's tones
    cv::Mat targetGradientCDF;  // of the reference's detail
    cv::Mat resultCDF;          // of the last result's tones
    cv::Mat curve;              // the last curve of HistMatch::match

    LumTransfer();
    // Deep copies: each object owns its filter; the Mats are shared.
    LumTransfer(LumTransfer const &other);
    LumTransfer &operator=(LumTransfer const &other);
    ~LumTransfer();

    // Stores the round count and measures the reference (CV_16UC1): targetGradientCDF and
    // targetCDF with 256 bins. Returns true.
    bool setup(cv::Mat const &reference, int iterations);

    // in CV_16UC1; out is made in's size and type unless it has them. Each round: the detail
    // histogram of the present plane x (in at first) is matched to the reference's and handed
    // to the filter as its remap curve, the filter's proc3 runs over x, the result's tone
    // histogram is matched to the reference's, and HistMatch::remap of the result makes the
    // next x; the last x is copied into out. With zero rounds out is made and left unwritten.
    // An empty in makes out empty. LocalFilter's texts pass through, and its proc3 prints its
    // three timing lines each round. Returns true.
    bool proc(cv::Mat const &in, cv::Mat &out);
};
