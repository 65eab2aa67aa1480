// Sweeps over an image seen through MHist's colour rotations, shared by MHist::compute and
// ColorTransfer::proc. Internal.
//
// Each sweep does in one pass over rows held in cache what would otherwise be several
// whole-image steps (convert, turn, look up, turn back, count), and gives exactly the pixels
// and counts of those steps done one after another: the same float sums in the same order
// and the same rounding (to nearest, ties to even) and saturation as pxColorTwist, the bins
// of pxHistogramEven over [-32768, 32768) in 1024 steps, and conversions read from tables
// that cv::Mat::convertTo itself filled. Counts are summed per band of rows and added up in
// whole numbers, so they do not depend on the number of threads.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

class MHist;

constexpr int kxHistBins = 1024;
constexpr int kxRotations = 12;
constexpr double kxToSignedScale = 0.4640727096341327;
constexpr double kxComputeOffset = -15206.734549291261;
constexpr double kxTransferOffset = -15206.270476581627;
constexpr double kxToUnsignedScale = 2.154834747314453;
constexpr double kxToUnsignedOffset = 32767.0;

// Every 16-bit code u as convertTo(CV_16S, kxToSignedScale, offset) makes it, at entry u,
// for offset kxComputeOffset (forTransfer false) or kxTransferOffset (true).
std::int16_t const *kxSignedCodes(bool forTransfer);

// Every signed code v as convertTo(CV_16U, kxToUnsignedScale, kxToUnsignedOffset) makes it,
// at entry v + 32768.
std::uint16_t const *kxUnsignedCodes();

// Counts are laid out as counts[(rotation 3 + channel) 1024 + bin].

// The three CV_16UC1 planes through kxSignedCodes(false), turned by each of the twelve
// rotations and counted: 12 x 3 x 1024 counts.
void kxCountRotations(std::vector<cv::Mat> const &planes, int *counts);

// The first round of a transfer: the planes through kxSignedCodes(true), turned by `twist`
// into work (CV_16SC3, allocated by the caller), counted: 3 x 1024 counts.
void kxTurnFirst(std::vector<cv::Mat> const &planes, float const twist[12], cv::Mat &work,
                 int *counts);

// A middle round: each channel of work through its table (entry v + 32768), turned back by
// `back` and then by `next`, rounded after each, written over work and counted.
void kxTurnNext(cv::Mat &work, std::int16_t const *const tables[3], float const back[12],
                float const next[12], int *counts);

// The last round: through the tables, turned back by `back`, and through kxUnsignedCodes into
// three CV_16UC1 planes (made with create).
void kxTurnLast(cv::Mat const &work, std::int16_t const *const tables[3], float const back[12],
                std::vector<cv::Mat> &out);

// Row `row` of h from one rotation's 3 x 1024 counts of `pixels` pixels: smoothed, with the
// fixed bounds, raising HistMax and setting TotalPixels (MHist::computeHist's rules).
void kxStoreCounts(MHist &h, int row, int const *counts, double pixels);

// Whether h holds the matrices that row `row` of a transfer reads, of the right types and
// shapes (a loaded text may lack them).
bool kxHistUsable(MHist const &h, int row);
