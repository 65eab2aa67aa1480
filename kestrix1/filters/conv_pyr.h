// ConvPyr: a large-support linear filter in linear time (Farbman, Fattal and Lischinski's
// convolution pyramids).
//
// A wide convolution (an interpolation membrane, a Gaussian of large sigma, a Poisson-type
// kernel) costs its support per pixel when applied directly. The pyramid gets a good
// approximation of it for a constant cost per pixel: go down with one small separable kernel
// (filter, keep every other row and column), filter the coarsest level with a second kernel,
// and come back up level by level, each time spreading the coarser result with a third
// kernel and adding the current level filtered by the second. The three kernels are the
// caller's and decide which wide filter the pyramid stands for; each level has a quarter of
// the pixels of the one before, so the whole costs a few small filters of the full plane.
//
// Every filter is cv::sepFilter2D(src, dst, CV_32F, k, k, Point(-1, -1), 0.0, 0) with the same
// one-dimensional kernel k for rows and columns: centred (tap size / 2), no offset, and a
// constant border of zeros. When in is a view into a larger matrix, OpenCV reads the
// parent's pixels next to the view in place of that border, as it does for any view.
//
// Choices of this implementation:
// - Arguments are checked on entry (proc only): the input must be CV_32FC1 and each kernel a
//   non-empty CV_32FC1 row or column; the texts are listed at proc.
// - The results are bit for bit those of the filters above applied to whole planes, one after
//   another. The filters run in bands of rows on the library's threads, each band seeing the
//   rows around it, and pyrDown keeps only the even rows of each band, so no full-size plane
//   is made for the zero-filled or filtered intermediates.
// - The pyramids are local to proc: one object may serve several threads at once. A level is
//   freed as soon as the next finer one is made, so that besides in and out proc holds at
//   most about 0.6 of a plane, one band of scratch per thread, and a whole plane more when
//   out shares pixels with in.
#pragma once

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT ConvPyr {
public:
    // The three one-dimensional CV_32F kernels, shared with the caller (not copied): a change
    // to the caller's matrix is seen by the next proc.
    // h_d: the analysis kernel, applied before each halving.
    cv::Mat kernelDown;
    // h_u: the synthesis kernel, applied to a coarse level spread onto the even grid of the
    // next finer level.
    cv::Mat kernelUp;
    // g: applied to the coarsest level, and to each finer level before it is added.
    cv::Mat kernelLevel;

    // Shares the three kernels with the caller.
    ConvPyr(cv::Mat const &kernelDown, cv::Mat const &kernelUp, cv::Mat const &kernelLevel);
    // Copies share the kernels too.
    ConvPyr(ConvPyr const &other);
    ConvPyr &operator=(ConvPyr const &other);
    ~ConvPyr();

    // out = the pyramid's filter of in (CV_32FC1). With F_k(a) the filter of a by kernel k
    // (see the banner) and m = max(rows, cols), there are L = 1 levels for m <= 1, otherwise
    // L = floor(log2(m)) + 1; d_0 = in, d_i = pyrDown(d_{i-1}) for i = 1..L-1 (each side
    // halved, rounded up), u_{L-1} = F_g(d_{L-1}), u_i = pyrUp(u_{i+1}, d_i) for i = L-2..0,
    // and out receives u_0 by copyTo (made in's size, CV_32FC1, unless it is that already;
    // out may be in). For m = 1024, L = 11; a 3 x 5 plane has the levels 3 x 5, 2 x 3, 1 x 2.
    // Returns true. An empty in returns true at once and leaves out alone. Throws
    // "ERROR - ConvPyr::proc - in.type()!=CV_32FC1",
    // "ERROR - ConvPyr::proc - kernelDown is not a CV_32FC1 vector" (and the same for
    // kernelUp and kernelLevel, in that order), before out is touched.
    bool proc(cv::Mat const &in, cv::Mat &out);

protected:
    // out(y, x) = t(2y, 2x) with t = F_{h_d}(in), out (re)made at ceil(rows / 2) x
    // ceil(cols / 2), CV_32F: the even rows and columns, the last ones of an odd size
    // included, without scaling. True. Takes a CV_32FC1 in and checks nothing; out may be in.
    bool pyrDown(cv::Mat const &in, cv::Mat &out);
    // out = F_{h_u}(z) + F_g(fine), made at fine's size, CV_32F, where z is fine's size, zero
    // except z(2y, 2x) = coarse(y, x), so an odd size's last row and column come back at their
    // own place. coarse is expected at ceil(rows / 2) x ceil(cols / 2) of fine; samples of a
    // larger one that fall outside z are dropped. True. Takes CV_32FC1 planes and checks
    // nothing; out may be fine or coarse.
    bool pyrUp(cv::Mat const &coarse, cv::Mat const &fine, cv::Mat &out);
};
