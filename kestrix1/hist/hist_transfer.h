// HistTransfer: the 256-bin, three-channel relative of MHist, for hosts that match small
// histograms themselves. Nothing in the library calls it.
#pragma once

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT HistTransfer {
public:
    // 256.
    static int numBins();

    // Even histograms of the three channels of a CV_16UC3 or CV_16SC3 image, 257 levels over
    // lower .. upper + 1, into hist[0..2] (256 ints each), each smoothed once with 1/4, 1/2,
    // 1/4 as MHist::computeHist smooths (the last bin from the new value before it).
    static void computeHist(cv::Mat &image, int lower, int upper, int **const hist);

    // Gaussian smoothing of n bins in place with mirrored ends: s = (float)(sigma 0.25 n),
    // R = (int)(3 s) limited to n, nothing done for R <= 0; otherwise as MHist::filterHist.
    static void filterHist(int *bins, int n, float sigma);

    // As MHist::clipLevel with 1.5 / 256 in place of 1.5 / 1024.
    static int clipLevel(float x, float level, float share);

    // A table that takes the distribution of `from` (256 bins over fromLower .. fromUpper) to
    // that of `to` (over toLower .. toUpper): 65536 entries in the signed 16-bit scale, entry
    // v + 32768 for the value v. The bins are clipped, smoothed when sigma exceeds 0.01,
    // cumulated and matched as MHist::transfer1D does, and the curve is written out
    // piecewise-linearly over every value.
    static void transfer1D(int *from, int *to, int fromLower, int fromUpper, short *table,
                           int toLower, int toUpper, float sigma);
};
