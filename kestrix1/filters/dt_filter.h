// DTFilter: the library's domain-transform edge-preserving filter (Gastal and Oliveira).
//
// Along a row, the distance between neighbours is stretched to 1 + (sigmaS / sigmaR) times
// the gradient across them, and a filter of fixed width runs in that stretched domain; an
// image is filtered by alternating horizontal and vertical passes of shrinking width. Two
// kernels are offered: the recursive filter (mode 0) and normalised convolution (mode 1).
// The recursive widths compound from one iteration to the next, the weight of the step from
// x-1 to x comes from the gradient between x and x+1, and the last row and column of the
// gradient sums stay at zero: the tuned sigmas of every caller rest on these three habits.
// Images are CV_32F with any number of interleaved channels; in and out may be one Mat.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT DTFilter {
public:
    // How the channels of a gradient combine: the sum of absolute differences (L1) or of
    // squared differences (L2, no square root taken).
    enum METRIC { L1 = 0, L2 = 1 };

    float sigmaS = 0;    // spatial standard deviation, pixels of the stretched domain
    float sigmaR = 0;    // range standard deviation, in units of the image values
    float numIter = 0;   // iterations of the vector form of proc (truncated to int)
    METRIC metric = L1;  // channel combination of the gradients

    DTFilter() = default;
    // Copies the four settings; work buffers are never shared between objects.
    DTFilter(DTFilter const &other);
    DTFilter &operator=(DTFilter const &other);
    ~DTFilter();

    // Stores the settings, then sets the process-wide OpenMP state that every later parallel
    // region of the process runs under: min(omp_get_num_procs(), 4) threads, nested
    // parallelism on, dynamic adjustment off. Returns true.
    bool setup(float sigmaS, float sigmaR, int iterations, enum METRIC metric);

    // mode 0: recursive filter of in with its own edges, always three iterations whatever
    // setup was told; mode 1: normalised convolution, three iterations. Other modes do
    // nothing. out takes in's size and type. Returns true.
    // The recursive widths are sigma_i = sigma_(i-1) * sqrt(3) * 2^(N-1-i) / sqrt(4^N - 1)
    // with sigma_(-1) = sigmaS, each rounded to float (0.87287, 0.38095 and 0.083131 sigmaS
    // for N = 3). The normalised box radius of iteration i is sqrt(3) times
    // 2^(2-i) * sqrt(3) * sigmaS / sqrt(63).
    // Throws "ERROR - DTFilter::proc - in.depth()!=CV_32F" for other depths (modes 0, 1).
    bool proc(cv::Mat const &in, cv::Mat &out, int mode);

    // mode 0: recursive filter of in along the edges of guide (any channel count, in's
    // size), three iterations. Other modes return at once and leave out alone.
    // Throws the text above, or "ERROR - DTFilter::proc - guide is not CV_32F of in's size".
    bool proc(cv::Mat const &in, cv::Mat const &guide, cv::Mat &out, int mode);

    // mode 0: every plane of in filtered by the recursive filter with numIter iterations,
    // along one pair of gradient planes summed over all guides. out receives as many planes
    // as in. Unlike the single-image forms, the horizontal gradient sums include the last
    // row. Planes of one channel count are filtered together, each pass's weights computed
    // once for all of them: one call with three gray planes takes about 0.7 of the time of
    // three calls with one plane each.
    // Other modes return at once. Throws "ERROR - DTFilter::proc - guides.empty()"
    // when in has planes and guides has none, and the texts above for planes that are not
    // CV_32F of the first guide's size.
    bool proc(std::vector<cv::Mat> const &in, std::vector<cv::Mat> &out, int mode,
              std::vector<cv::Mat> &guides);

protected:
    // The building blocks, open to tests through a subclass.

    // d = in[y][x+1] - in[y][x] per channel, stored at x; the last column stays 0.
    void diffx(cv::Mat const &in, cv::Mat &d);
    void diffx(std::vector<cv::Mat> const &in, std::vector<cv::Mat> &d);
    // d = in[y+1][x] - in[y][x] per channel for x < cols-1; the last row and column stay 0.
    void diffy(cv::Mat const &in, cv::Mat &d);
    void diffy(std::vector<cv::Mat> const &in, std::vector<cv::Mat> &d);
    // S (CV_32FC1) = sum over channels of |d| (L1) or d^2 (L2), the last row and column 0.
    void csum(cv::Mat const &d, cv::Mat &S, METRIC metric);
    // The whole-plane sum over all planes and channels: no row or column is skipped.
    void csum(std::vector<cv::Mat> const &d, cv::Mat &S, METRIC metric);

    // The recursive filter with N iterations and the compounding widths above.
    void RF(cv::Mat const &in, cv::Mat &out, float sigmaS, float sigmaR, int N);
    // The vector form: numIter iterations, gradients from all guides (at least one, or it
    // throws proc's "guides.empty()" text).
    void RF(std::vector<cv::Mat> const &in, std::vector<cv::Mat> &out, float sigmaS, float sigmaR,
            std::vector<cv::Mat> const &guides);
    // One horizontal, one vertical recursive pass with W = exp(D * (-sqrt(2) / sigma)):
    // img[x] += (img[x-1] - img[x]) * W[x] rightwards, then
    // img[x] += (img[x+1] - img[x]) * W[x+1] leftwards (rows alike, downwards then up).
    void RFCH(cv::Mat &img, cv::Mat const &D, float sigma);
    void RFCV(cv::Mat &img, cv::Mat const &D, float sigma);

    // Normalised convolution, three iterations, and its row pass: each pixel becomes the
    // mean of the row's samples whose cumulative domain position ct lies within radius of
    // its own (strictly above ct - radius, at most ct + radius).
    void NCF(cv::Mat const &in, cv::Mat &out, float sigmaS, float sigmaR);
    void NC(cv::Mat &img, cv::Mat const &ct, float radius);

private:
    // The domain planes 1 + (sigmaS / sigmaR) * S of in or a guide, into m_dx and m_dy.
    void domain(cv::Mat const &guide, float ratio);
    // The recursive iterations on out, the first horizontal pass reading from in.
    void recurse(cv::Mat const &in, cv::Mat &out, float sigmaS, int N);
    // Per-thread scratch of `perThread` floats for every thread of a team.
    float *scratch(std::size_t perThread);

    cv::Mat m_dx, m_dy;            // domain planes (cumulative in the normalised path)
    std::vector<float> m_scratch;  // grows only: reused across calls
    cv::Mat m_ct;                  // the normalised path's column positions, transposed
};
