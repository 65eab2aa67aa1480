// The smoothing members of SelectiveColorFilter: guided or domain-transform filtering of
// Y, Dr, Db planes too large to filter at once, through 1024 x 1024 blocks so that the
// float work planes stay at one block's size.
#include <opencv2/core.hpp>

#include "kestrix1/blocks/block_processor.h"
#include "kestrix1/filters/dt_filter.h"
#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/messages.h"
#include "kestrix1/tables/selective_color_filter.h"

namespace {

constexpr char const kErrThree[] = "ERROR - SelectiveColorFilter::compute - need three planes";
constexpr int kTile = 1024;

using cv::Mat;
using Planes = std::vector<Mat>;

// Three CV_16UC1 planes of one size, checked; `size` is the first plane's.
void requirePlanes(Planes const &p, cv::Size size) {
    kxRequire(p.size() >= 3, kErrThree);
    for (int i = 0; i < 3; ++i)
        kxRequire(p[i].type() == CV_16UC1 && p[i].size() == size, kxErrSelectivePlanes);
}

// Checks in and the guide, when there is one, and gives out three planes of in's size and
// type, keeping those that already fit (in place included). False when in is empty: there is
// nothing to do.
bool prepare(Planes const &in, Planes const *guide, Planes &out) {
    kxRequire(in.size() >= 3 && (!guide || guide->size() >= 3), kErrThree);
    if (in[0].empty()) return false;
    requirePlanes(in, in[0].size());
    if (guide) requirePlanes(*guide, in[0].size());
    if (out.size() < 3) out.resize(3);
    for (int i = 0; i < 3; ++i)
        if (out[i].size() != in[0].size() || out[i].type() != CV_16UC1)
            out[i].create(in[0].size(), CV_16UC1);
    return true;
}

// The guide's part under a block into out: rect (x, y, w, h) copied to the block's top left
// and its last row and column repeated to the block's size, as the blocks themselves are
// filled (the blocks here have no border).
void guideBlock(Mat const &guide, int const *rect, cv::Size block, Mat &out) {
    cv::copyMakeBorder(guide(cv::Rect(rect[0], rect[1], rect[2], rect[3])), out, 0,
                       block.height - rect[3], 0, block.width - rect[2], cv::BORDER_REPLICATE);
}

// Runs work(blocks, rect) over the tiles of in into out; the work changes the block
// buffers in place.
template <class Work>
void eachTile(Planes &in, Planes &out, int overlap, Work &&work) {
    BlockProcessor blocks;
    blocks.initialize(Planes(in.begin(), in.begin() + 3), Planes(out.begin(), out.begin() + 3),
                      kTile, kTile, true, overlap, 0, BlockProcessor::EDGE_TAPER_LINEAR);
    int rect[4] = {0, 0, 0, 0};
    Planes tile;
    while (blocks.getBlockImage(rect, tile)) {
        work(tile, rect);
        blocks.writeBackBlock();
    }
}

// The domain-transform tile loop of compute3, compute4 and compute5: each plane enters as
// value alpha[i] + beta and leaves as (result - beta) / alpha[i]; the guide, when given,
// enters as value gAlpha + gBeta. The float planes live across tiles, which are nearly all
// of one size, so they are allocated once.
void dtTiles(Planes &in, Planes *guide, Planes &out, float const alpha[3], float beta, float gAlpha,
             float gBeta, float sigmaS, float sigmaR) {
    DTFilter filter;
    filter.setup(sigmaS, sigmaR, 3, DTFilter::L1);
    Planes f(3), g(3);
    Mat merged, guideMerged, result, part;
    eachTile(in, out, 32, [&](Planes &tile, int const *rect) {
        for (int i = 0; i < 3; ++i)
            tile[i].convertTo(f[i], CV_32F, alpha[i], beta);
        cv::merge(f, merged);
        if (guide) {
            for (int i = 0; i < 3; ++i) {
                guideBlock((*guide)[i], rect, tile[i].size(), part);
                part.convertTo(g[i], CV_32F, gAlpha, gBeta);
            }
            cv::merge(g, guideMerged);
            filter.proc(merged, guideMerged, result, 0);
        } else {
            filter.proc(merged, result, 0);
        }
        cv::split(result, f);
        // The block buffers must keep their pixels' address: convert into them.
        for (int i = 0; i < 3; ++i)
            f[i].convertTo(tile[i], CV_16U, 1.0 / alpha[i], -double(beta) / alpha[i]);
    });
}

}  // namespace

bool SelectiveColorFilter::compute2(Planes &in, float *const scale, Planes &out, float radius,
                                    float eps) {
    if (!prepare(in, nullptr, out)) return true;
    int const r = int(radius);
    float const e = eps / 65535.0f;
    float const unit = 1.0f / 65536.0f;
    Planes guides(3);
    Mat filtered;
    eachTile(in, out, 0, [&](Planes &tile, int const *) {
        tile[0].convertTo(guides[0], CV_32F, unit);
        for (int i = 1; i < 3; ++i)
            tile[i].convertTo(guides[i], CV_32F, scale[i] * unit,
                              (32768.0f - 32768.0f * scale[i]) * unit);
        for (int i = 1; i < 3; ++i) {
            m_gf.setup(guides, guides[i], r, e);
            m_gf.proc16U(guides, filtered);
            filtered.convertTo(tile[i], CV_16U, 1.0 / scale[i], 32768.0 - 32768.0 / scale[i]);
        }
    });
    return true;
}

bool SelectiveColorFilter::compute3(Planes &in, Planes &guide, Planes &out, float sigmaS,
                                    float sigmaR) {
    if (!prepare(in, &guide, out)) return true;
    float const unit = 1.0f / 65536.0f, alpha[3] = {unit, unit, unit};
    dtTiles(in, &guide, out, alpha, -0.5f, unit, -0.5f, sigmaS, sigmaR);
    return true;
}

bool SelectiveColorFilter::compute4(Planes &in, float *const scale, Planes &guide, Planes &out,
                                    float sigmaS, float sigmaR) {
    if (!prepare(in, &guide, out)) return true;
    float const unit = 1.0f / 65536.0f;
    float const alpha[3] = {scale[0] * unit, scale[1] * unit, scale[2] * unit};
    dtTiles(in, &guide, out, alpha, 0.0f, unit, 0.0f, sigmaS, sigmaR * unit);
    return true;
}

bool SelectiveColorFilter::compute5(Planes &in, float *const scale, Planes &out, float sigmaS,
                                    float sigmaR) {
    if (!prepare(in, nullptr, out)) return true;
    float const unit = 1.0f / 65536.0f;
    float const alpha[3] = {scale[0] * unit, scale[1] * unit, scale[2] * unit};
    dtTiles(in, nullptr, out, alpha, 0.0f, 0.0f, 0.0f, sigmaS, sigmaR);
    return true;
}
