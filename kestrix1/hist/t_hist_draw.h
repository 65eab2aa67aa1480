// THistDraw: the histogram display of a working image, the red, green and blue histograms
// drawn as filled columns in a small picture for the host to show beside the photograph.
#pragma once

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"

class TPImage;

class KESTRIX1_EXPORT THistDraw {
public:
    int width = 0;  // of the picture, set by setHistSize
    int height = 0;

    // Stores the picture's size; to be called before getHistMat.
    void setHistSize(int width, int height);

    // out (made CV_8UC3 of the stored size unless it is) receives the three histograms of the
    // image's 8-bit RGB (through TPImage::convertTopRGB8U), 256 bins each spread evenly over
    // the width, scaled so that the smaller of the highest bin and 4 times the mean bin of a
    // channel reaches the top, the last bin lowered so that a burnt-out peak does not flatten
    // the rest.
    //
    // - Last bin: lowered to at most 4 times the mean of the other 255 bins.
    // - Scale: one for the three channels (their heights compare), the largest of the
    //   channels' min(highest bin, 4 x mean bin); a bin of that height fills the picture.
    // - Columns: bin i stands at x = rint(i (width - 1) / 255); between two bins a filled
    //   shape follows both heights, so a lone bin is one peak.
    // - Colours: the picture is blue, green, red in OpenCV's order. Each channel paints 220
    //   over 40, so the background is dark grey, one channel alone is its own colour, two
    //   overlapping channels give yellow, cyan or magenta and all three a light grey.
    // - An empty image or a picture size of 0 leaves only the background (or nothing).
    void getHistMat(cv::Mat &out, TPImage &image);

private:
    void calcHist(cv::Mat &out, cv::Mat &r, cv::Mat &g, cv::Mat &b);
};
