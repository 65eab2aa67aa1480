// ColorTransfer: gives a photograph the colour distribution of a reference.
//
// Iterated one-dimensional histogram matching (Pitié, Kokaram and Dahyot): the colour cube is
// turned by each of MHist's twelve rotations in turn, each of the three turned axes is matched
// to the reference's histogram on its own by a 1026-point piecewise-linear curve, and the
// cube is turned back. Only the reference's MHist is needed, so a host may keep it as text.
// The curves are the whole state kept per rotation and channel: 2 x 1026 ints each, no
// 65536-entry table.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "kestrix1/frame/export.h"
#include "kestrix1/hist/m_hist.h"

class KESTRIX1_EXPORT ColorTransfer {
public:
    static constexpr int kPoints = 1026;  // control points of one transfer curve

    // The last transfer curves, per rotation and channel: values in the reference's scale
    // and levels in the image's, kPoints each. Owned by the object.
    int *values[12][3];
    int *levels[12][3];
    MHist current;  // the image's histograms, rotation by rotation, as proc left them
    MHist target;   // the reference's histograms

    ColorTransfer();
    // Copies the two MHist objects by their rules and the contents of the curves.
    ColorTransfer(ColorTransfer const &other);
    ColorTransfer &operator=(ColorTransfer const &other);
    ~ColorTransfer();

    // target = reference, current = image, all fields. Only target carries over into proc,
    // which measures current again rotation by rotation. Returns true.
    bool updateF(MHist const &reference, MHist const &image);

    // in: three CV_16UC1 planes of one size (R, G, B or any three colour planes); out receives
    // three new CV_16UC1 planes. The image is converted to CV_16SC3 with
    // v 0.4640727096341327 - 15206.270476581627 (an offset slightly apart from MHist::compute's,
    // kept so), then for r = 0..11: turned by gR[r], measured into current row r, matched per
    // channel to target (smoothing 0.25) and turned back by gRinv[r]. The clip values of both
    // objects are set once from rotation 0: with t, h the TotalPixels and HistMax of each,
    // m = min(h2 / t2, h1 / t1) 0.59717166 and clipValue = (int)(0.0014648438 t 0.40282834 + t m).
    // Back to 16 bits with v 2.154834747314453 + 32767. Returns true; empty input returns true
    // at once and leaves out alone. The curves of the three channels are built in parallel;
    // each round's table pass, turn back and next turn run as one pass over rows, with
    // exactly the pixels of the steps done one by one, whatever the number of threads. out
    // planes are made with create, as cv::split makes them. in of another type or of
    // different sizes, or a target without its twelve rows, throws cv::Exception.
    bool proc(std::vector<cv::Mat> const &in, std::vector<cv::Mat> &out);

private:
    std::vector<int> curves_;  // storage of values and levels
    cv::Mat work_;             // the turned image, kept between calls of one size; not copied
    void pointCurves();
};
