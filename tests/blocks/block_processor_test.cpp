// Tests of BlockProcessor: the cut against block positions worked out by hand, the block
// borders, and the rejoined output against a plain per-pixel rejoin over the same positions.
#include "kestrix1/blocks/block_processor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::thrown;
using Planes = std::vector<cv::Mat>;
using BP = BlockProcessor;

// Block origins and size along one dimension, as worked out by hand from the cut rules.
struct Cut {
    std::vector<int> pos;
    int block;
};

// 300 x 130 with a wish of 64, an edge of 8 and an overlap of 8: cores of 48 give r = 5/6;
// across, 6 blocks of 60 with step 49, the last folded back from 245 to 240; down, 3 blocks of
// 51 with step 40, the last folded back from 80 to 79.
Cut const kSmallX{{0, 49, 98, 147, 196, 240}, 60}, kSmallY{{0, 40, 79}, 51};

// Runs the block loop; `work` sees the block planes, the rectangle and the block's index.
int runLoop(BP &bp, std::function<void(Planes &, int const *, int)> const &work = nullptr) {
    Planes blocks;
    int rect[4], index = 0;
    for (; bp.getBlockImage(rect, blocks); ++index) {
        if (work) work(blocks, rect, index);
        bp.writeBackBlock();
    }
    return index;
}

// The rejoin one pixel at a time of blocks filled with 1000 + 3001 k for block k, so that every
// seam shows: later blocks fade in over earlier ones, later strips over earlier ones, by
// truncate(new * w + old * (1 - w)), w = (d + 1) / (n + 1) at d pixels into an overlap of n.
// The hard taper keeps the earlier.
cv::Mat referenceRejoin(cv::Size size, int type, Cut const &cx, Cut const &cy, bool hard) {
    int const W = size.width, H = size.height, cn = CV_MAT_CN(type), columns = int(cx.pos.size());
    auto fade = [hard](std::uint16_t &old, int v, int d, int n) {
        float const w = float(d + 1) / float(n + 1);
        if (d >= n || !hard) old = d >= n ? v : int(float(v) * w + float(old) * (1.0f - w));
    };
    cv::Mat out(size, type, cv::Scalar::all(0)), strip = out.clone();
    for (int j = 0, doneY = 0; j < int(cy.pos.size()); ++j) {
        int const y0 = cy.pos[j], bh = std::min(cy.block, H - y0);
        for (int i = 0, doneX = 0; i < columns; ++i) {
            int const x0 = cx.pos[i], bw = std::min(cx.block, W - x0);
            for (int y = 0; y < bh; ++y)
                for (int e = 0; e < bw * cn; ++e)
                    fade(strip.ptr<std::uint16_t>(y)[x0 * cn + e], 1000 + 3001 * (j * columns + i),
                         e / cn, doneX - x0);
            doneX = x0 + bw;
        }
        for (int y = 0; y < bh; ++y)
            for (int e = 0; e < W * cn; ++e)
                fade(out.ptr<std::uint16_t>(y0 + y)[e], strip.ptr<std::uint16_t>(y)[e], y,
                     doneY - y0);
        doneY = y0 + bh;
    }
    return out;
}

bool same(cv::Mat const &a, cv::Mat const &b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

TEST(BlockProcessor, ThrowsItsTexts) {
    cv::Mat const a(20, 30, CV_16UC1), c3(20, 30, CV_16UC3);
    auto init = [](Planes in, Planes out, int edge = 0) {
        BP().initialize(in, out, 1024, 1024, true, 0, edge, BP::EDGE_TAPER_LINEAR);
    };
    std::string const empty = "BlockProcessor::initialize - input or output is empty.";
    std::string const mismatch = "input size doesn't match with output size!";
    std::string const unsupported = "not supported input is given in BlockProcessor::init";
    EXPECT_EQ(thrown([&] { init({}, {a}); }), empty);
    EXPECT_EQ(thrown([&] { init({a}, {}); }), empty);
    EXPECT_EQ(thrown([&] { init({cv::Mat()}, {a}); }), empty);
    EXPECT_EQ(thrown([&] { init({cv::Mat(20, 30, CV_8UC1)}, {a}); }),
              "BlockProcessor::initialize - input type is not correct.");
    EXPECT_EQ(thrown([&] { init({a}, {cv::Mat(21, 30, CV_16UC1)}); }), mismatch);
    EXPECT_EQ(thrown([&] { init({a, a}, {a, cv::Mat(20, 29, CV_16UC1)}); }), mismatch);
    EXPECT_EQ(thrown([&] { init({a, a}, {a}); }), mismatch);
    EXPECT_EQ(thrown([&] { init({c3, c3}, {c3, c3}); }), unsupported);
    EXPECT_EQ(thrown([&] { init({c3}, {a}); }), unsupported);
    EXPECT_EQ(thrown([&] { init({a, c3}, {a, c3}); }), unsupported);
    EXPECT_EQ(thrown([&] { init({a}, {a}, -1); }), unsupported);
    // An overlap twice the core (r = -1) cuts blocks of -150 columns, buffers reaching no pixel.
    BP bp;
    cv::Mat const wide(50, 300, CV_16UC1);
    bp.initialize({wide}, {wide.clone()}, 260, 260, true, 200, 80, BP::EDGE_TAPER_LINEAR);
    EXPECT_EQ(thrown([&] { runLoop(bp); }),
              "BlockProcessor::convertBlockDuplicatedBorder roiSize<1");
    // A negative overlap (r = 2) cuts blocks of 48 with steps of 80, leaving gaps.
    for (cv::Size size : {cv::Size(150, 16), cv::Size(16, 150)}) {
        cv::Mat const in(size, CV_16UC1, cv::Scalar(5));
        bp.initialize({in}, {in.clone()}, 100, 100, true, -100, 0, BP::EDGE_TAPER_LINEAR);
        EXPECT_EQ(thrown([&] { runLoop(bp); }),
                  size.width == 150 ? "in BlockProcessor::copyOneBlock, overlapX<0"
                                    : "in BlockProcessor::copyOneBlock, overlapY<0");
    }
    // A processor never initialised gives no block, writes nothing back and copies as empty.
    BP never;
    never.writeBackBlock();
    EXPECT_EQ(runLoop(never) + BP(never).getNumOfBlks(), 0);
}

// Every block buffer holds the image around its core, with the image's edge pixels repeated
// past its end, and the output is the plain rejoin. The hard taper draws one rand() per
// overlap row of a block and of a strip. Planar images have two planes.
TEST(BlockProcessor, CutsBlocksAndRejoinsThemAsThePlainReference) {
    struct Case {
        cv::Size size;
        int blk, overlap, edge;
        BP::EDGE_TAPER_TYPE taper;
        int draws;
        Cut cx, cy;
    };
    BP::EDGE_TAPER_TYPE const linear = BP::EDGE_TAPER_LINEAR;
    Cut const one{{0}, 32};  // a strip of 16 pixels
    std::vector<Case> const cases = {
        {{300, 130}, 64, 8, 8, BP::EDGE_TAPER_LINEAR_ALT, 0, kSmallX, kSmallY},
        {{300, 130}, 64, 8, 8, linear, 0, kSmallX, kSmallY},
        // Five left overlaps of 51 rows in each of three strips, then of 11 and 12 rows.
        {{300, 130}, 64, 8, 8, BP::EDGE_TAPER_HARD, 5 * 51 * 3 + 11 + 12, kSmallX, kSmallY},
        {{1, 1}, 1024, 0, 0, linear, 0, {{0}, 16}, {{0}, 16}},
        // 1100 rows fold back from 560 to 540: a fade even at overlap 0.
        {{2100, 1100}, 1024, 0, 0, linear, 0, {{0, 1050}, 1050}, {{0, 540}, 560}},
        // Wishes of 1024 over lengths that take each branch of the cut. Shorter than the wish:
        // rounded up by 16, a multiple of 16 by a whole 16.
        {{100, 16}, 1024, 0, 0, linear, 0, {{0}, 112}, one},
        {{16, 1024}, 1024, 0, 0, linear, 0, one, {{0}, 1040}},
        // Two halves: 512.5 / r = 529 -> 544, the second folded back.
        {{1025, 16}, 1024, 32, 0, linear, 0, {{0, 481}, 544}, one},
        // Two blocks of 2048 / 2, the step of 1025 cut to 1024.
        {{16, 2048}, 1024, 0, 0, linear, 0, one, {{0, 1024}, 1024}},
        {{6000, 16}, 1024, 32, 0, linear, 0, {{0, 994, 1988, 2982, 3976, 4968}, 1032}, one},
    };
    for (Case const &k : cases)
        for (int type : {CV_16UC1, CV_16UC3, CV_16UC4}) {
            if (type != CV_16UC1 && k.size.area() > 1000000) continue;  // for time only
            SCOPED_TRACE(testing::Message() << k.size << " overlap " << k.overlap << " taper "
                                            << k.taper << " type " << type);
            int const e = k.edge + 16;  // a block reaches at most 16 pixels past the image
            Planes ins, outs, padded(2), first;
            for (int p = 0; p < (type == CV_16UC1 ? 2 : 1); ++p) {
                ins.push_back(kxtest::noise(k.size.height, k.size.width, type, 5 + p, 0, 32768));
                outs.emplace_back(k.size, type, cv::Scalar::all(0));
                cv::copyMakeBorder(ins[p], padded[p], e, e, e, e, cv::BORDER_REPLICATE);
            }
            // Asked again before a write-back, a processor gives the first block again; an
            // assigned copy takes over its position and shares its buffers.
            BP bp, run;
            bp.initialize(ins, outs, k.blk, k.blk, true, k.overlap, k.edge, k.taper);
            ASSERT_TRUE(bp.getBlockImage(nullptr, first));
            run = bp;
            std::srand(7);
            int const count = runLoop(run, [&](Planes &blocks, int const *rect, int index) {
                int const columns = int(k.cx.pos.size());
                cv::Rect const buffer(k.cx.pos[index % columns] - k.edge,
                                      k.cy.pos[index / columns] - k.edge, k.cx.block + 2 * k.edge,
                                      k.cy.block + 2 * k.edge);
                EXPECT_EQ(cv::Rect(rect[0], rect[1], rect[2], rect[3]),
                          buffer & cv::Rect(cv::Point(), k.size));
                for (std::size_t p = 0; p < ins.size(); ++p) {
                    EXPECT_TRUE(same(blocks[p], padded[p](buffer + cv::Point(e, e))));
                    blocks[p].setTo(cv::Scalar::all(1000 + 3001 * index));
                }
            });
            int const next = std::rand();
            EXPECT_FALSE(run.getBlockImage(nullptr, first) || run.hasNextBlock());
            for (std::size_t p = 0; p < ins.size(); ++p)
                EXPECT_TRUE(same(outs[p], referenceRejoin(k.size, type, k.cx, k.cy,
                                                          k.taper == BP::EDGE_TAPER_HARD)));
            std::srand(7);
            for (int i = 0; i < k.draws; ++i)
                std::rand();
            EXPECT_EQ(next, std::rand());
            BP copy(bp);
            copy = *&copy;  // a copy, even assigned to itself, reports the cut
            EXPECT_EQ(std::vector<int>({count, copy.getNumOfBlks(), copy.getEdgeSize(),
                                        copy.getBlkWidth(), copy.getBlkHeight()}),
                      std::vector<int>({int(k.cx.pos.size() * k.cy.pos.size()), count, k.edge,
                                        k.cx.block + 2 * k.edge, k.cy.block + 2 * k.edge}));
        }
}

}  // namespace
