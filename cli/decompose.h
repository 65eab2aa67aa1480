// The split of a luminance plane into the base and three detail planes that the detail effect
// mixes back together.
//
// Y is smoothed three times in a row with the domain-transform filter (recursive form), each
// time at a larger spatial scale and a smaller range sigma: Y1 = DT(Y), Y2 = DT(Y1),
// Y3 = DT(Y2). Fine texture ends up in D0, structure in D1, local contrast in D2, while
// strong edges stay in the smoother planes so that boosting a level does not halo. Details
// are differences of neighbouring planes centred on 32768 in units of half a luminance step:
//     D0 = (Y - Y1) / 2 + 32768, D1 = (Y1 - Y2) / 2 + 32768, D2 = (Y2 - Y3) / 2 + 32768,
// base = Y3. Each smoothed plane is rounded to an integer of the same parity as the plane
// above it (moving by one towards that plane when needed), so the halving is exact and
//     base + 2 (D0 - 32768) + 2 (D1 - 32768) + 2 (D2 - 32768) = Y
// holds bit for bit: the effect at neutral settings gives Y back.
#pragma once

#include <opencv2/core.hpp>

class TProgress;

struct DetailPlanes {
    cv::Mat base;       // CV_16UC1, the smoothest plane
    cv::Mat detail[3];  // CV_16UC1, fine, medium, coarse; 32768 = no detail
};

// Spatial sigma (pixels) of smoothing step k (0, 1, 2) for an image of rows x cols:
// 2, 8, 32 times sqrt(max(1, (rows + cols) / 1024)), so a larger photograph keeps the same
// look when it is seen at the same size.
float decompositionSigmaS(int k, int rows, int cols);

// Range sigma of step k in 16-bit units: 25%, 15% and 10% of 65535.
float decompositionSigmaR(int k);

// Splits the CV_16UC1 plane y. Reports each of the three smoothing steps as 1, 2, 3 of 3 on
// `progress` (may be null) and returns false when the host cancels there.
bool decompose(cv::Mat const &y, DetailPlanes &out, TProgress *progress);
