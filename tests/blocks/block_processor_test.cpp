// Tests of BlockProcessor: the cut against block positions worked out by hand, the block
// borders, and the rejoined output against a plain per-pixel rejoin over the same positions.
#include "kestrix1/blocks/block_processor.h"

#include <gtest/gtest.h>
#include <malloc.h>

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

// What the block loops do to block k: 0 keeps it, 1 adds 1000, 2 fills it with 1000 + 3001 k.
int worked(int work, int k, int v) {
    return work == 0 ? v : work == 1 ? v + 1000 : 1000 + 3001 * k;
}

// The rejoin one pixel at a time: block k (= j * columns + i) gives its worked values.
// Later blocks fade in over earlier ones left to right inside a strip, later strips over
// earlier ones top to bottom, by truncate(new * w + old * (1 - w)) with w = (d + 1) / (n + 1)
// at d pixels into an overlap of n. The hard taper keeps the earlier.
cv::Mat referenceRejoin(cv::Mat const &in, Cut const &cx, Cut const &cy, bool hard, int work) {
    int const W = in.cols, H = in.rows, cn = in.channels(), columns = int(cx.pos.size());
    auto fade = [hard](std::uint16_t &old, int v, int d, int n) {
        float const w = float(d + 1) / float(n + 1);
        if (d >= n || !hard) old = d >= n ? v : int(float(v) * w + float(old) * (1.0f - w));
    };
    cv::Mat out(H, W, in.type(), cv::Scalar::all(0)), strip = out.clone();
    for (int j = 0, doneY = 0; j < int(cy.pos.size()); ++j) {
        int const y0 = cy.pos[j], bh = std::min(cy.block, H - y0);
        for (int i = 0, doneX = 0; i < columns; ++i) {
            int const x0 = cx.pos[i], bw = std::min(cx.block, W - x0);
            for (int y = 0; y < bh; ++y)
                for (int e = 0; e < bw * cn; ++e)
                    fade(strip.ptr<std::uint16_t>(y)[x0 * cn + e],
                         worked(work, j * columns + i, in.ptr<std::uint16_t>(y0 + y)[x0 * cn + e]),
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
    auto init = [](Planes in, Planes out, int blk = 1024, int overlap = 0, int edge = 0) {
        BP().initialize(in, out, blk, blk, true, overlap, edge, BP::EDGE_TAPER_LINEAR);
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
    EXPECT_EQ(thrown([&] { init({a}, {a}, 64, 0, -1); }), unsupported);
    // A wished overlap twice the core (r = -1) cuts a block of -150 columns: the buffer of
    // -150 + 2 * 80 columns reaches no image column.
    BP bp;
    cv::Mat const wide(50, 300, CV_16UC1);
    bp.initialize({wide}, {wide.clone()}, 260, 260, true, 200, 80, BP::EDGE_TAPER_LINEAR);
    EXPECT_EQ(thrown([&] { runLoop(bp); }),
              "BlockProcessor::convertBlockDuplicatedBorder roiSize<1");
    // A negative overlap (r = 2) cuts blocks of 48 with steps of 80, leaving gaps.
    auto gap = [&](int rows, int cols) {
        cv::Mat const in(rows, cols, CV_16UC1, cv::Scalar(5));
        bp.initialize({in}, {in.clone()}, 100, 100, true, -100, 0, BP::EDGE_TAPER_LINEAR);
        return thrown([&] { runLoop(bp); });
    };
    EXPECT_EQ(gap(16, 150), "in BlockProcessor::copyOneBlock, overlapX<0");
    EXPECT_EQ(gap(150, 16), "in BlockProcessor::copyOneBlock, overlapY<0");
    // A processor never initialised gives no block, writes nothing back and copies as empty.
    BP never;
    never.writeBackBlock();
    EXPECT_EQ(runLoop(never) + BP(never).getNumOfBlks(), 0);
}

// Every block buffer holds the image around its core, with the image's edge pixels repeated
// past its end, and the output of any block loop is the plain rejoin: for a loop that keeps
// the blocks, that adds a constant, or that fills each block with its own value, which makes
// every seam visible. The hard taper draws one rand() per overlap row of a block and per
// overlap row of a strip. Planar images have two planes.
TEST(BlockProcessor, CutsBlocksAndRejoinsThemAsThePlainReference) {
    struct Case {
        cv::Size size;
        int blk, overlap, edge;
        BP::EDGE_TAPER_TYPE taper;
        int work, draws;
        Cut cx, cy;
    };
    BP::EDGE_TAPER_TYPE const linear = BP::EDGE_TAPER_LINEAR, alt = BP::EDGE_TAPER_LINEAR_ALT;
    std::vector<Case> cases = {
        {{300, 130}, 64, 8, 8, linear, 0, 0, kSmallX, kSmallY},
        {{300, 130}, 64, 8, 8, alt, 1, 0, kSmallX, kSmallY},
        {{300, 130}, 64, 8, 8, linear, 2, 0, kSmallX, kSmallY},
        // Five left overlaps of 51 rows in each of three strips, then of 11 and 12 rows.
        {{300, 130}, 64, 8, 8, BP::EDGE_TAPER_HARD, 2, 5 * 51 * 3 + 11 + 12, kSmallX, kSmallY},
        {{37, 1025}, 1024, 32, 0, alt, 1, 0, {{0}, 48}, {{0, 481}, 544}},
        {{1025, 37}, 1024, 32, 0, alt, 1, 0, {{0, 481}, 544}, {{0}, 48}},
        {{1, 1}, 1024, 0, 0, linear, 0, 0, {{0}, 16}, {{0}, 16}},
        // 1100 rows fold back from 560 to 540: a fade even at overlap 0.
        {{2100, 1100}, 1024, 0, 0, linear, 0, 0, {{0, 1050}, 1050}, {{0, 540}, 560}},
    };
    // Wishes of 1024 with overlaps 0 and 32 over lengths that take each branch of the cut,
    // across and down a strip of 16 pixels (one block of 32).
    struct Length {
        int n, overlap;
        Cut cut;
    };
    for (Length const &l : std::vector<Length>{
             {100, 0, {{0}, 112}},          // shorter than the wish: rounded up by 16
             {1024, 0, {{0}, 1040}},        // a multiple of 16 grows by a whole 16
             {1025, 0, {{0, 497}, 528}},    // two halves of 512 + 16, the second folded back
             {2048, 0, {{0, 1024}, 1024}},  // two blocks of 2048 / 2, step 1025 cut to 1024
             {3000, 0, {{0, 1000, 2000}, 1000}},
             {6000, 0, {{0, 1000, 2000, 3000, 4000, 5000}, 1000}},
             {100, 32, {{0}, 112}},
             {1024, 32, {{0}, 1040}},
             {1025, 32, {{0, 481}, 544}},   // 512.5 / r = 529 -> 544, step 528, folded to 481
             {2048, 32, {{0, 991}, 1057}},  // 1024 / r = 1057, step 992, folded to 991
             {3000, 32, {{0, 985, 1968}, 1032}},
             {6000, 32, {{0, 994, 1988, 2982, 3976, 4968}, 1032}}}) {
        cases.push_back({{l.n, 16}, 1024, l.overlap, 0, linear, 0, 0, l.cut, {{0}, 32}});
        cases.push_back({{16, l.n}, 1024, l.overlap, 0, linear, 0, 0, {{0}, 32}, l.cut});
    }
    for (Case const &k : cases)
        for (int type : {CV_16UC1, CV_16UC3, CV_16UC4}) {
            if (type != CV_16UC1 && k.size.area() > 1000000) continue;  // for time only
            SCOPED_TRACE(testing::Message() << k.size << " overlap " << k.overlap << " work "
                                            << k.work << " taper " << k.taper << " type " << type);
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
                    if (k.work == 1) blocks[p] += cv::Scalar::all(1000);  // in place
                    if (k.work == 2) blocks[p].setTo(cv::Scalar::all(worked(2, index, 0)));
                }
            });
            int const next = std::rand();
            EXPECT_EQ(count, int(k.cx.pos.size() * k.cy.pos.size()));
            EXPECT_EQ(std::vector<int>({bp.getNumOfBlks(), bp.getEdgeSize()}),
                      std::vector<int>({count, k.edge}));
            EXPECT_FALSE(run.getBlockImage(nullptr, first) || run.hasNextBlock());
            for (std::size_t p = 0; p < ins.size(); ++p)
                EXPECT_TRUE(same(outs[p], referenceRejoin(ins[p], k.cx, k.cy,
                                                          k.taper == BP::EDGE_TAPER_HARD, k.work)));
            std::srand(7);
            for (int i = 0; i < k.draws; ++i)
                std::rand();
            EXPECT_EQ(next, std::rand());
            // hasNextBlock moves on from the first block, never onto it.
            BP copy(bp);
            copy = *&copy;
            int moves = 0;
            while (copy.hasNextBlock())
                ++moves;
            EXPECT_EQ(moves, count - 1);
            if (k.overlap != 0 || k.work != 0) continue;
            // Without overlap a loop that keeps the blocks may run in place.
            Planes inPlace{ins[0].clone()};
            run.initialize(inPlace, inPlace, k.blk, k.blk, true, 0, k.edge, k.taper);
            runLoop(run);
            EXPECT_TRUE(same(inPlace[0], outs[0]));
        }
}

// The buffers are one block and one strip per plane, allocated by initialize; the loop
// allocates nothing more.
TEST(BlockProcessor, HoldsOneBlockAndOneStripPerPlane) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "heap statistics are the sanitizer's under ASan";
#else
    auto heap = [] { return std::int64_t(mallinfo2().uordblks + mallinfo2().hblkhd); };
    cv::Mat const in = kxtest::noise(2000, 3000, CV_16UC1, 1, 0, 65536);
    Planes ins{in, in}, outs{in.clone(), in.clone()}, blocks(2);
    BP bp, warm;  // the warm-up starts the thread team outside the measurement
    warm.initialize(ins, outs, 1024, 1024, true, 32, 0, BP::EDGE_TAPER_LINEAR);
    runLoop(warm);
    warm = BP();
    std::int64_t const before = heap();
    bp.initialize(ins, outs, 1024, 1024, true, 32, 0, BP::EDGE_TAPER_LINEAR);
    std::int64_t const held = heap() - before;
    // Both dimensions cut to 1032 (3000: three blocks, 2000: two).
    std::int64_t const claim = 2 * (1032 * 1032 * 2 + 1032 * 3000 * 2) + 1033 * 4;
    EXPECT_GE(held, claim);
    EXPECT_LE(held, claim + 64 * 1024);
    int rect[4];
    std::int64_t peak = 0;
    for (; bp.getBlockImage(rect, blocks); bp.writeBackBlock())
        peak = std::max(peak, heap() - before);
    EXPECT_LE(peak - held, 16 * 1024);
#endif
}

}  // namespace
