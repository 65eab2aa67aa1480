// AFilter: the library's adaptive-manifold filter (Gastal and Oliveira), a high-dimensional
// edge-aware smoothing of float planes under a guide of one or more planes.
//
// The pixels are projected onto a small binary tree of smooth manifolds that follow the
// guide; each manifold is blurred by DTFilter at a size reduced by df, a power of two, and
// the blurred values are gathered back per pixel. The cost does not grow with the range
// sigma. Planes are CV_32F on a scale of 0 to 1; `in` has 1 or 3 planes, the guide 1 or more.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "kestrix1/filters/dt_filter.h"
#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT AFilter {
public:
    float sigmaS = 0;       // spatial standard deviation, pixels
    float sigmaR = 0;       // range standard deviation, in units of the guide's values
    int pcaIterations = 1;  // power iterations of the split direction (compute3)
    int treeArg = 0;        // stored for the host; proc derives the tree height from the sigmas
    std::vector<cv::Mat> guide;  // the guide planes: headers sharing the host's pixels

    // Accumulators of the last run, full size, CV_32F. sum[0] is the sum of the weights,
    // sum[i] (i >= 1) the weighted sum of in[i - 1]; minDist is the smallest squared guide
    // distance of a pixel to any manifold met; eta the first manifold (the low-passed guide);
    // cluster all ones: the pixels the root manifold is responsible for.
    std::vector<cv::Mat> sum;
    cv::Mat minDist;
    std::vector<cv::Mat> eta;
    cv::Mat cluster;

    AFilter() = default;
    // Copy the scalars and share every plane; work buffers are never shared.
    AFilter(AFilter const &other);
    AFilter &operator=(AFilter const &other);
    ~AFilter();

    // Stores the sigmas (note: the range sigma first here, the reverse of the fields), the
    // two counts, and the guide's headers. The guide's pixels must outlive the use. Returns
    // true.
    bool setup(float sigmaR, float sigmaS, int treeArg, int pcaIterations,
               std::vector<cv::Mat> const &guide);
    // Does nothing and returns true: a one-plane guide has to be passed in a vector.
    bool setup(float sigmaR, float sigmaS, int treeArg, int pcaIterations, cv::Mat const &guide);
    // Replaces the two sigmas, spatial first (field order). Returns true.
    bool setSigma(float sigmaS, float sigmaR);

    // The whole filter: out[i] = alpha g[i] + (1 - alpha) in[i], with g[i] = sum[i + 1] /
    // sum[0] (0 where sum[0] is 0) and alpha = exp(-0.5 minDist / sigmaR^2), so a pixel
    // that no manifold came near keeps its value. Prints "a time:", "b time:" and "c time:"
    // with the seconds since the start (cv::getTickCount) on standard output, one line each.
    // Empty input returns true at once. Throws "ERROR - AFilter::proc - in is not CV_32F
    // planes of one size" and "ERROR - AFilter::proc - guide is not CV_32F of in's size"
    // (an empty guide vector included) on entry. A constant image with itself as guide
    // comes back unchanged. Returns true.
    bool proc(std::vector<cv::Mat> const &in, std::vector<cv::Mat> &out);

    // The tree height: with e = floor(log2(sigmaS)) (the float's binary exponent),
    // max(2, ceil((e - 1) (1 - sigmaR))) in single precision.
    int compute2(float sigmaS, float sigmaR);

    // The low-pass filter: y[i] += a (y[i - 1] - y[i]) along each row left to right, then
    // right to left, then down and up each column, per channel, with a = exp(-sqrt(2) /
    // sigma) computed in double and used as a float. Border samples start the recursions
    // as they are. out may be in.
    void hFilter(cv::Mat const &in, float sigma, cv::Mat &out);
    void hFilter(std::vector<cv::Mat> const &in, float sigma, std::vector<cv::Mat> &out);
    // The two directions of it, in place.
    void hFilterHorizontal(cv::Mat &img, float sigma);
    void hFilterVertical(cv::Mat &img, float sigma);

    // Linear resize of a CV_32F plane by fx, fy to ceil(cols fx) x ceil(rows fy) (out is
    // re-created only when it has another size or type), pixel centres mapped as square
    // pixels. Target pixels whose centres fall beyond the last source centre, which the
    // resize kernel leaves unwritten, take the clamped linear value too (we fill them: a
    // plane of a size that df does not divide would otherwise carry uninitialised memory
    // into the blur). Empty input gives empty output; throws "ERROR - AFilter::resampling -
    // pxResize failed" should the kernel refuse the planes.
    void resampling(cv::Mat const &in, cv::Mat &out, double fx, double fy);

    // One node of the manifold tree, recursive: the weights phi = exp(-0.5 |guide - eta|^2 /
    // sigmaR^2) splat phi f and phi at the reduced size, are blurred there by DTFilter along
    // eta (spatial sigma sigmaS / df, range sigma sigmaR / sqrt(2)) and sliced back into sum;
    // minDist takes the distances. Below the height the node splits its cluster by the sign
    // of (guide - eta) . v, v a random direction (cv::randu, OpenCV's unseeded thread-level
    // generator) refined by compute3, and recurses into the minus side, then the plus side,
    // each with eta = low-passed (guide c) / low-passed c, c = side (1 - phi), at the reduced
    // size. df = min(sigmaS / 4, 256 sigmaR), clamped to at least 1 (small sigmas would
    // otherwise make no valid size), then lowered to a power of two. A side without weight
    // gives eta 0 there, and proc's g is 0 where sum[0] is 0: plain divisions would give
    // 0 / 0 = NaN, which would spread through every later node and into the output (a
    // constant image, whose children have no weight at all, would come back as NaN). eta is
    // full size or reduced. sum and minDist must be set up (proc does it; they are made
    // here when they do not fit f); sum is complete when the outermost call returns, as the
    // slicing of several nodes is gathered into one pass.
    void build(std::vector<cv::Mat> const &f, std::vector<cv::Mat> const &guide,
               std::vector<cv::Mat> &eta, cv::Mat &cluster, float sigmaS, float sigmaR, int level,
               int height, int pcaIterations);
    // The same node for one plane and a one-plane guide.
    void build(cv::Mat const &f, cv::Mat const &guide, cv::Mat &eta, cv::Mat &cluster, float sigmaS,
               float sigmaR, int level, int height, int pcaIterations);
    // A whole run with img as its own guide: sets up the accumulators as proc does, eta =
    // hFilter(img, sigmaS), cluster ones, runs the tree (height below 1: compute2's) and
    // forms out as proc does, without the timing lines.
    void build(std::vector<cv::Mat> &img, float sigmaS, float sigmaR, int height,
               std::vector<cv::Mat> &eta, int pcaIterations, std::vector<cv::Mat> &out);

    // The principal direction of the pixels in cluster: per iteration t = cluster (sum_i
    // X[i] v[i]), v[i] = sum over pixels of X[i] t (products in float, summed per row in
    // double in four interleaved partial sums, rows added in order, so any thread count
    // gives the same v), then v /= |v| with the scale in double. Fewer than 1 iteration,
    // or sums of length 0, leave v alone. v is CV_32F with X.size() values.
    void compute3(std::vector<cv::Mat> &X, int iterations, cv::Mat &v, cv::Mat &cluster);

    // Gaussian weights of squared offsets: w[0] = exp(-0.5 d / sigmaR^2) with d = sum of
    // X[i]^2 over the first `planes` planes (all when planes < 1); when keepDistance is
    // not 0, w[1] = d as well. Nothing in the library calls it.
    void compute1(std::vector<cv::Mat> &X, int planes, std::vector<cv::Mat> &w, int keepDistance);

protected:
    // Nodes visited since the last proc (or whole-run build) began: open to tests.
    int nodesVisited = 0;
    // Bytes of full-size weight planes that may wait for their slicing (at most 8 planes,
    // at least 1): the slicing of up to that many nodes is done in one pass over sum.
    double pendingBytes = double(1 << 30);

private:
    // Buffers of one tree level, kept across nodes and runs.
    struct Level {
        cv::Mat clusterMinus, clusterPlus;       // full size
        std::vector<cv::Mat> etaMinus, etaPlus;  // reduced size, one per guide plane
        cv::Mat cMinus, cPlus;                   // reduced size
    };
    void setupAccumulators(std::vector<cv::Mat> const &in);
    // Adds the pending nodes' phi times their upsampled blurred planes into sum, node after
    // node per pixel; with out, also forms the output as proc does (in given too).
    void flush(std::vector<cv::Mat> const *in, std::vector<cv::Mat> *out);
    int slotCount(cv::Size full) const;
    float *scratch(std::size_t perThread);

    DTFilter m_dt;
    cv::Mat m_psi, m_etaSmall;        // reduced interleaved planes of the blur
    std::vector<cv::Mat> m_phiPool;   // full-size weights of the pending nodes
    std::vector<cv::Mat> m_blurPool;  // their blurred planes, reduced, interleaved
    int m_pending = 0;                // nodes whose slicing waits
    int m_df = 1;                     // their reduction factor and reduced size
    cv::Size m_small;
    int m_depth = 0;                              // nesting of build calls
    bool m_final = false;                         // a whole run slices the last nodes itself
    bool m_sumFresh = false, m_minFresh = false;  // accumulators not yet written
    std::vector<Level> m_levels;
    std::vector<float> m_scratch;
    std::vector<double> m_rowSums;
};
