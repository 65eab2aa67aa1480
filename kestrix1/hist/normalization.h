// Normalization: rescales a pair of colour-difference planes by the ratio of two
// luminance-like planes, so that colour strength follows a change of brightness.
#pragma once

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT Normalization {
public:
    // All four planes CV_16UC1 of one size. Per pixel, q = (a + 1024.0) / (b + 1025.0)
    // limited to 0.5 .. 4.0, w = q strength, and db = rint(db w + (1 - w) 32769.0) saturated
    // to 0..65535, the same for dr. The two offsets and the centre 32769 (not the neutral
    // 32768, so a neutral chroma moves by one code when w is not 1) are kept on purpose.
    // Parallel over rows, bit-identical at any thread count. Planes that are empty or not of
    // that type and size are left alone.
    static void normalizeDBDR(cv::Mat const &a, cv::Mat const &b, cv::Mat &db, cv::Mat &dr,
                              float strength);
};
