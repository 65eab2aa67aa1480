// TMR: recipes that combine two photographs through a base and detail split.
//
// An edge-aware filter (adaptive manifolds, domain transform or the bilateral grid) splits
// each image into a smooth base and the detail around it; a recipe then takes the base of
// one image and the detail of the other, or adds a smoothed difference of the two onto a
// neutral mid-level. The block recipes run the same chain through BlockProcessor in
// 1024 x 1024 blocks, so their float work planes stay a few megabytes whatever the size.
// 16-bit planes enter float as v / 65536 and leave as rint(f 65536), saturated. The host picks
// a recipe by name; nothing else in the library calls them.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "kestrix1/blocks/block_processor.h"
#include "kestrix1/filters/a_filter.h"
#include "kestrix1/filters/dt_filter.h"
#include "kestrix1/frame/export.h"

class TProgress;

class KESTRIX1_EXPORT TMR {
public:
    float sigmaS = 0;  // spatial parameter, pixels
    float sigmaR = 0;  // range parameter, in units of a 0..1 image

    TMR() = default;
    // Copies share the work planes' pixels.
    TMR(TMR const &other) = default;
    TMR &operator=(TMR const &other) = default;
    ~TMR() = default;

    // Stores both. Returns true.
    bool setup(float sigmaS, float sigmaR);

    // ---- the plane recipes --------------------------------------------------------------
    // a, b (and c): at least three planes each, the first three CV_16UC1 of a[0]'s size;
    // further planes are ignored. An empty a (no planes, or a first plane without pixels)
    // returns true at once and leaves out alone. Otherwise a wrong input throws, on entry,
    // "ERROR - TMR::<name> - a and b must be three CV_16UC1 planes of one size" with <name>
    // the recipe's (proc, proc1, proc2, proc3, proc5, proc6), or for proc4 "ERROR -
    // TMR::proc4 - a, b and c must be three CV_16UC1 planes of one size". The filters'
    // own errors pass through. out is given three CV_16UC1 planes of a's size (a plane of
    // that size and type keeps its pixels, so a host may hand in views to be written);
    // further planes are left alone. out may share pixels with the inputs.
    //
    // Planes enter float as v / 65536 times a gain per plane and leave as sat16(rint(f 65536 /
    // gain)). The gains are six, all 1.0: a plane takes the gain of its place in the list of
    // planes a recipe works on (a's three, then b's; a seventh place takes the first again),
    // a result that of the plane it stands in for. A float recombination "F + (P - Q)" is
    // done per pixel in single precision in that order, then taken back. The block recipes
    // run through BlockProcessor: 1024 x 1024 blocks, no border, overlap 0 (proc3, proc4,
    // proc5) or 32 (proc1, proc6), blocks rejoined by the linear cross-fade.
    // Blocks are filtered without their surroundings, so the result differs from the same
    // chain over the whole plane near block seams (by the filter's reach); away from them it
    // is the same. The recipes with DTFilter run its setup, which sets the process's thread
    // count (see DTFilter::setup). All recipes return true.
    //
    // Only the recipes with AFilter (proc, proc1, proc2, proc6) are random: its split
    // directions come from OpenCV's unseeded generator, and AFilter prints its timing lines.
    // Where a recipe takes the bases of both images, the second run replays the generator's
    // state of the first, so both are split along the same directions and differ only where
    // the images do (proc(a, a) gives a back within a code); from call to call they vary. The
    // others give the same pixels at any thread count.

    // No tiling, sigmas not used: A and B are the bases of a and b by AFilter, each its own
    // guide, setup(0.5, 25.0, 0, 1); out[i] = A[i] + (b[i] - B[i]) in float: the base of a
    // with the detail of b, the detail kept with both signs.
    bool proc(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
              std::vector<cv::Mat> &out);
    // proc by blocks (overlap 32) with the stored sigmas: per block A and B by AFilter
    // (setup(sigmaR, sigmaS, 0, 1), each image its own guide), out = A + (b - B).
    bool proc1(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
               std::vector<cv::Mat> &out);
    // No tiling: the halved difference d = sat16(rint((b - a) / 2 + 32768)) is smoothed by
    // AFilter::setup(sigmaR, sigmaS, 0, 1, a's planes) (guided by a, so it keeps a's edges)
    // to y, back to 16 bits; out = sat16(rint(a + 2 y - 65536)) by cv::addWeighted: a takes
    // the smooth part of b and keeps its own detail.
    bool proc2(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
               std::vector<cv::Mat> &out);
    // Three block sweeps (overlap 0) with DTFilter (sigmaS, sigmaR, L2), each filtering one
    // three-plane image X by itself to F and writing F + (P - Q):
    //   1. X = b:  t1 = B + (a - b), a without b's detail;
    //   2. X = a:  t2 = A + (a - t1), the base of a with b's detail, A + (b - B) wherever t1
    //      did not saturate;
    //   3. X = t2: out = F(t2) + (a - t1), b's detail on the base of t2, which is a's base
    //      smoothed once more, so less of a's own texture survives than in t2.
    // t1 and t2 are six 16-bit planes of a's size held during the call. They saturate where
    // a - (b - B) leaves 0..65535, and at block seams, where the bases of two blocks disagree,
    // the rejoined t1 and t2 may saturate too and the result there is off by up to that
    // disagreement.
    bool proc3(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
               std::vector<cv::Mat> &out);
    // Blocks, overlap 0: r = a filtered by DTFilter (sigmaS, sigmaR, L2) along the edges of
    // b (the interleaved a joint-filtered with the interleaved b as guide), then out[i] =
    // sat16(r[i] + c[i] - 32768) by cv::addWeighted. Roles: a gives the base, b the edges
    // that the base follows, c a detail centred on 32768 (as the library's difference
    // planes are) that is laid on it.
    bool proc4(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
               std::vector<cv::Mat> const &c, std::vector<cv::Mat> &out);
    // Blocks, overlap 0, DTFilter (sigmaS, sigmaR, L1): per block P (a) filtered along the
    // edges of Q (b), Q filtered by itself to Q_f, out = P_f + (b - Q_f): proc's transfer with
    // the base of a taken under the edges of b.
    bool proc5(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
               std::vector<cv::Mat> &out);
    // Blocks, overlap 32: per block A and B as in proc1, the signed difference D = A - B
    // (cv::addWeighted 1.0, -1.0), D smoothed by DTFilter (sigmaS, sigmaR, L2) along the
    // edges of b, out = b + D: b with the base of a, the random noise of the two AFilter
    // runs smoothed out of the difference.
    bool proc6(std::vector<cv::Mat> const &a, std::vector<cv::Mat> const &b,
               std::vector<cv::Mat> &out);

    // ---- the single-plane recipes -------------------------------------------------------
    // a, b: CV_16UC1 of one size, else "ERROR - TMR::procC<n> - a and b must be CV_16UC1 of
    // one size" on entry; an empty a returns true at once. A local BilateralFilter, spatial
    // int(sigmaS) (below 2 it throws the filter's "no grid" text), range int(16384 sigmaR).

    // a takes the detail of b around its own base: copies of b, then of a, are filtered
    // (each its own guide) to B and A, then a = sat16(rint(b - B + A)) in single precision.
    // Progress: prog(40, 100) after B, prog(80, 100) after A, prog(100, 100) at the end; the
    // filters themselves report nothing. A false answer ends the recipe at once and returns
    // false: before the last step a is untouched, at the last it is written.
    bool procC1(cv::Mat &a, cv::Mat const &b, TProgress *progress);
    // a takes the smooth part of b and keeps its own detail: d = sat16(b - a + 32768)
    // (cv::addWeighted), t = d filtered with itself as guide, a = sat16(rint(t - 32768 + a))
    // in single precision.
    bool procC2(cv::Mat &a, cv::Mat const &b);

private:
    using Planes = std::vector<cv::Mat>;
    // Runs work(blocks) on every block of the planes of `groups` (three each, in order);
    // the first three slots are written back to results.
    template <class Work>
    void eachBlock(std::vector<Planes const *> const &groups, Planes const &results, int overlap,
                   Work &&work);
    void sweep3(std::vector<Planes const *> const &groups, Planes const &results, int p, int q);
    // Lets go of the full-size planes and the host's planes held by the block processor.
    void releaseWork();

    Planes blocksIn_, blocksOut_, floatA_, floatB_;  // block loop work planes
    Planes list_, baseA_, baseB_, t1_, t2_;
    cv::Mat scratch_;  // output of the block slots whose results are not kept
    cv::Mat floatX_, floatP_, floatQ_, filtered_;  // interleaved float blocks
    AFilter af_;
    BlockProcessor bp_;
    DTFilter dt_;
};
