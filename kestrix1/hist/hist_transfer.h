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
    // 1/4 as MHist::computeHist smooths (the last bin from the new value before it), in
    // float, truncated. Images of other types or channel counts leave hist alone.
    static void computeHist(cv::Mat &image, int lower, int upper, int **const hist);

    // Gaussian smoothing of n bins in place with mirrored ends: s = (float)(sigma 0.25 n),
    // R = (int)(3 s) limited to n, nothing done for R <= 0; otherwise as MHist::filterHist:
    // weights exp(-i^2 / (2 s^2)) with the centre 1, normalised by their sum, and each end
    // reflected about its outer edge (bin -1 is bin 0, bin n is bin n - 1), so no count is
    // lost. Results truncated. The weights are summed in double on one thread.
    static void filterHist(int *bins, int n, float sigma);

    // As MHist::clipLevel with 1.5 / 256 in place of 1.5 / 1024.
    static int clipLevel(float x, float level, float share);

    // A table that takes the distribution of `from` (256 bins over fromLower .. fromUpper) to
    // that of `to` (over toLower .. toUpper): 65536 entries in the signed 16-bit scale, entry
    // v + 32768 for the value v. The bins are clipped, smoothed when sigma exceeds 0.01,
    // cumulated and matched as MHist::transfer1D does, and the curve is written out
    // piecewise-linearly over every value.
    //
    // - Ranges and table are in the signed scale (-32768 .. 32767); a host with unsigned data
    //   shifts it by 32768. Bin i covers lower + i (upper + 1 - lower) / 256 upwards.
    // - Clipping: each histogram is capped at clipLevel(0.2, its total, share), share the
    //   smaller of the two histograms' highest bin over their total: the point at which
    //   ColorTransfer freezes MHist's clip. Both caps come from one share, so equal
    //   histograms stay equal.
    // - Cumulation C[0] = 0, C[i + 1] = C[i] + bin[i] over the total, plus i 0.001 / 256.
    //   A bin's pixels count at its lower level, so level i of from carries C[i + 1] and the
    //   target's C[k] stands at position k - 1: equal histograms over equal ranges give the
    //   identity table. A histogram with nothing left after clipping and smoothing counts as
    //   flat (no division by zero).
    // - Positions are kept within bins 0 .. 255 and values are
    //   floor(toLower + p (toUpper + 1 - toLower) / 256); the pairs are (fromLower, toLower),
    //   the 256 bin levels, and (fromUpper + 1, toUpper + 1) so that fromUpper goes to
    //   toUpper. Values outside fromLower .. fromUpper map to themselves.
    static void transfer1D(int *from, int *to, int fromLower, int fromUpper, short *table,
                           int toLower, int toUpper, float sigma);
};
