// MHist: histograms of a three-plane 16-bit image seen through twelve fixed rotations of the
// colour cube, the building block of colour transfer.
//
// Each rotation turns the colour cube so that a different set of three axes is measured; a
// colour distribution matched axis by axis through all twelve moves close to the reference's
// in three dimensions (Pitié, Kokaram and Dahyot's iterated one-dimensional transfer). The
// object computes the 12 x 3 histograms of 1024 bins, builds the one-dimensional transfer
// curve between two such objects, and keeps itself as XML text in a string, so that a host
// can store a reference's histograms instead of the reference photograph.
#pragma once

#include <cstdint>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT MHist {
public:
    // The twelve rotations, 3 x 4 matrices by rows with a zero last column, as pxColorTwist-
    // style colour twists; gR[0] is the identity. gRinv[i] is gR[i] transposed in its left
    // three columns, the rotation back.
    static float const gR[12][3][4];
    static float const gRinv[12][3][4];

    bool isEmpty = true;  // what empty() returns: true until compute or load
    cv::Mat Hist;         // 12 x 3072 CV_32SC1: rotation r, channel c, bin b at (r, c 1024 + b)
    cv::Mat MaxVal;       // 12 x 1 CV_32SC3: upper value per rotation and channel (32767)
    cv::Mat MinVal;       // 12 x 1 CV_32SC3: lower value (-32768)
    cv::Mat Step;         // 12 x 1 CV_32SC3: width of one bin (64)
    float HistMax = 0;    // highest bin count seen by this object; only grows
    // Bins above this are cut by transfer1D. Set by the owner before a transfer (ColorTransfer
    // sets it); copied with the object but neither saved nor loaded. Zero until set.
    float clipValue = 0;
    float spare = 0;        // not read
    float TotalPixels = 0;  // pixels counted by the last compute or computeHist
    // Entry i = i - 32768 as 16 bits. Built by the constructor and shared by copies.
    std::shared_ptr<std::uint16_t const> signedTable;

    MHist();
    // Copies all members; the Mats and the table are shared. A member that writes into a Mat
    // shared with another object first gives this object a copy of its own, so that copies
    // never see each other's later changes (ColorTransfer::updateF(h, h) stays sound).
    MHist(MHist const &other) = default;
    MHist &operator=(MHist const &other) = default;

    // planes: three CV_16UC1 planes of one size. They are merged and converted to CV_16SC3
    // with v 0.4640727096341327 - 15206.734549291261 (saturated, rint), so that any
    // rotation stays inside the signed range, then each of the twelve rotations is applied
    // (saturated) and measured by computeHist. Clears isEmpty. Returns true, at once and
    // with nothing changed when there are no planes or the first is empty. Planes of
    // another type or of different sizes throw cv::Exception. The steps run fused, one pass
    // over rows held in cache, and give exactly the counts of the steps done one by one.
    bool compute(std::vector<cv::Mat> const &planes);

    // Row `row` of the histograms from a CV_16SC3 image: bounds fixed at -32768..32767 with
    // bins of 64 whatever the data; each channel's 1024 bins smoothed once with 1/4, 1/2, 1/4
    // in float, truncated: new[0] = (h0 + h1) 0.5, new[i] = (h[i-1] + h[i+1]) 0.25 + h[i] 0.5,
    // and the last bin new[1023] = (new[1022] + h[1023]) 0.5 from the new value before it.
    // Raises HistMax to the highest bin; TotalPixels = rows x cols. Returns true. Another
    // type than CV_16SC3, or a row outside 0..11, throws cv::Exception.
    bool computeHist(cv::Mat &rotated, int row);

    // Builds a coarse three-dimensional histogram (5 bits a channel) of a CV_16UC3 image and
    // finds its five highest peaks. A diagnostic: nothing is kept, no member changes.
    // Cell index: (c0 >> 1 & 0xfc00) + (c1 >> 6 & 0xffe0) + (c2 >> 11).
    bool computeComp(cv::Mat &image);

    // Clip level for a ratio x: below 0.05 it moves from `level` (x = 0) to share x level
    // (x = 0.05): (int)((1 - f) share level + level f) with f = 1 - x / 0.05; from there it
    // falls towards 1.5 / 1024 of the level: f = (1 - (x - 0.05) / 0.95)^3,
    // (int)((1 - f) level 1.5 / 1024 + f share level).
    int clipLevel(float ratio, float level, float share);

    // Gaussian smoothing of 1024 bins in place, ends mirrored: s = 256 sigma, R = (int)(3 s)
    // limited to 1024 (nothing is done for R <= 0), weights exp(-i^2 / (2 s^2)) normalised
    // with the centre weight 1; results truncated. Weights and sums are in double and the
    // kernel sum is taken in order, so results do not depend on the number of threads.
    // Returns true.
    bool filterHist(int *bins, float sigma);

    // The transfer curve from this object's distribution (row, channel) to target's: 1026
    // control points for a piecewise-linear table, levels xs in this object's scale and
    // values ys in the target's. Bins are capped at each object's clipValue, smoothed as
    // filterHist does when sigma exceeds 0.01, cumulated and normalised, and made strictly
    // rising by a ramp of 0.001 / 1024 a bin; each cumulative value C[i] stands at bin
    // position i - 1, so that two equal histograms give the identity (C[1025] repeats C[1024]
    // before the ramp and stands at 1024). A histogram with no count left after clipping or
    // smoothing is taken as flat. Positions are found by a forward walk and held to
    // -1..1024, so a damaged histogram gives a poor curve, never a read out of bounds. Both
    // objects need Hist (12 x 3072 CV_32SC1) and MaxVal, MinVal, Step (CV_32SC3) down to
    // `row`: a loaded text may lack them, and cv::Exception is thrown then.
    bool transfer1D(MHist const &target, int *ys, int *xs, float sigma, int row, int channel);

    // The six items as XML text (cv::FileStorage in memory): "Hist", "MaxVal", "MinVal",
    // "Step" (matrices, dt i, 3i, 3i, 3i), "TotalPixels" and "HistMax" (reals). isEmpty,
    // clipValue and the table are not written. Returns true.
    bool save(std::string &text);

    // Reads text written by save. Each key is looked up by name: a missing matrix, or a node
    // that is not one, gives an empty Mat; a missing number gives 0, a node that is an
    // integer or real its value, and any other node 1e30. Clears isEmpty and returns true.
    // Text that is not such XML throws cv::Exception, with the object left as it was.
    // OpenCV's parser reads past the end of some cut texts, so the text is checked first and
    // must be: printable ASCII, the XML declaration, the root element opencv_storage and
    // nothing after it, elements that hold either elements or text (no mixture), closing
    // tags in order, closed comments and strings, nesting to 8 levels, no attribute but
    // type_id="opencv-matrix". A matrix is read only when it is whole: a map of integer rows
    // and cols, a type code such as i or 3i, and exactly rows x cols x channels numbers.
    bool load(std::string const &text);

    // Plots the channel's bins of all twelve rows, scaled by HistMax, into `plot`, a 512 x 400
    // CV_8UC3 picture for the host to display under `name` (the library opens no windows):
    // one strip of 33 rows per rotation, each column the larger of two bins. A debugging
    // aid: the histograms are not touched. Returns true.
    bool show(std::string const &name, int channel);
    cv::Mat plot;  // the last picture of show

    bool empty();
};
