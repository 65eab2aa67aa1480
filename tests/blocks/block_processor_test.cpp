// Tests of BlockProcessor: the cut against block positions worked out by hand, the block
// borders, and the rejoined output against a plain per-pixel rejoin over the same positions.
#include "kestrix1/blocks/block_processor.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
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

// The 300 x 130 image with a wish of 64, an edge of 8 and an overlap of 8: cores of 48 give
// r = 5/6; across, 6 blocks of 60 with step 49, the last folded back from 245 to 240; down,
// 3 blocks of 51 with step 40, the last folded back from 80 to 79.
Cut const kSmallX{{0, 49, 98, 147, 196, 240}, 60};
Cut const kSmallY{{0, 40, 79}, 51};

// Runs the block loop; `work` sees the block planes, the rectangle and the block's index.
int runLoop(BP &bp, std::function<void(Planes &, int const *, int)> const &work) {
    Planes blocks;
    int rect[4];
    int index = 0;
    while (bp.getBlockImage(rect, blocks)) {
        work(blocks, rect, index++);
        bp.writeBackBlock();
    }
    return index;
}

std::uint16_t blendRef(std::uint16_t a, std::uint16_t b, float w) {
    return static_cast<std::uint16_t>(static_cast<int>(float(a) * w + float(b) * (1.0f - w)));
}
float rampRef(int n, int k) {
    return float(k + 1) / float(n + 1);
}

// The rejoin one pixel at a time: block (i, j) (index j * columns + i) contributes
// g(index, in) over its core; later blocks fade in over earlier ones left to right inside a
// strip, later strips over earlier ones top to bottom. The hard taper keeps the earlier.
cv::Mat referenceRejoin(cv::Mat const &in, Cut const &cx, Cut const &cy, bool hard,
                        std::function<std::uint16_t(int, std::uint16_t)> const &g) {
    int const W = in.cols, H = in.rows, cn = in.channels();
    cv::Mat out(H, W, in.type(), cv::Scalar::all(0));
    int doneY = 0;
    for (std::size_t j = 0; j < cy.pos.size(); ++j) {
        int const y0 = cy.pos[j], bh = std::min(cy.block, H - y0);
        cv::Mat strip(bh, W, in.type(), cv::Scalar::all(0));
        int doneX = 0;
        for (std::size_t i = 0; i < cx.pos.size(); ++i) {
            int const x0 = cx.pos[i], bw = std::min(cx.block, W - x0), n = doneX - x0;
            int const index = int(j * cx.pos.size() + i);
            for (int y = 0; y < bh; ++y)
                for (int x = 0; x < bw; ++x)
                    for (int c = 0; c < cn; ++c) {
                        std::uint16_t &s = strip.ptr<std::uint16_t>(y)[(x0 + x) * cn + c];
                        std::uint16_t v =
                            g(index, in.ptr<std::uint16_t>(y0 + y)[(x0 + x) * cn + c]);
                        if (x < n) v = hard ? s : blendRef(v, s, rampRef(n, x));
                        s = v;
                    }
            doneX = x0 + bw;
        }
        int const m = doneY - y0;
        for (int y = 0; y < bh; ++y)
            for (int e = 0; e < W * cn; ++e) {
                std::uint16_t &o = out.ptr<std::uint16_t>(y0 + y)[e];
                std::uint16_t const s = strip.ptr<std::uint16_t>(y)[e];
                o = y >= m ? s : hard ? o : blendRef(s, o, rampRef(m, y));
            }
        doneY = y0 + bh;
    }
    return out;
}

bool same(cv::Mat const &a, cv::Mat const &b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

// A 16-bit image of `type` whose channels differ.
cv::Mat noiseImage(int rows, int cols, int type, std::uint64_t seed) {
    return kxtest::noise(rows, cols, type, seed, 0, 65536);
}

TEST(BlockProcessor, ThrowsItsTexts) {
    cv::Mat const a(20, 30, CV_16UC1), b(20, 30, CV_16UC1), c3(20, 30, CV_16UC3);
    auto init = [](Planes in, Planes out, int blk = 1024, int overlap = 0, int edge = 0) {
        BP bp;
        bp.initialize(in, out, blk, blk, true, overlap, edge, BP::EDGE_TAPER_LINEAR);
    };
    std::string const empty = "BlockProcessor::initialize - input or output is empty.";
    EXPECT_EQ(thrown([&] { init({}, {b}); }), empty);
    EXPECT_EQ(thrown([&] { init({a}, {}); }), empty);
    EXPECT_EQ(thrown([&] { init({cv::Mat()}, {b}); }), empty);
    std::string const badType = "BlockProcessor::initialize - input type is not correct.";
    EXPECT_EQ(thrown([&] { init({cv::Mat(20, 30, CV_8UC1)}, {b}); }), badType);
    std::string const mismatch = "input size doesn't match with output size!";
    EXPECT_EQ(thrown([&] { init({a}, {cv::Mat(21, 30, CV_16UC1)}); }), mismatch);
    EXPECT_EQ(thrown([&] { init({a, a}, {b, cv::Mat(20, 29, CV_16UC1)}); }), mismatch);
    EXPECT_EQ(thrown([&] { init({a, a}, {b}); }), mismatch);
    std::string const unsupported = "not supported input is given in BlockProcessor::init";
    EXPECT_EQ(thrown([&] { init({c3, c3}, {c3, c3}); }), unsupported);
    EXPECT_EQ(thrown([&] { init({c3}, {b}); }), unsupported);
    EXPECT_EQ(thrown([&] { init({a, c3}, {b, c3}); }), unsupported);
    EXPECT_EQ(thrown([&] { init({a}, {b}, 64, 0, -1); }), unsupported);

    // A wished overlap twice the core (r = -1) cuts a block of -150 columns: the buffer of
    // -150 + 2 * 80 columns reaches no image column.
    BP odd;
    cv::Mat const wide(50, 300, CV_16UC1);
    odd.initialize({wide}, {wide.clone()}, 260, 260, true, 200, 80, BP::EDGE_TAPER_LINEAR);
    Planes blocks;
    int rect[4];
    EXPECT_EQ(thrown([&] { odd.getBlockImage(rect, blocks); }),
              "BlockProcessor::convertBlockDuplicatedBorder roiSize<1");

    // A negative overlap (r = 2) cuts blocks of 48 with steps of 80, leaving gaps.
    auto gap = [](int rows, int cols) {
        BP bp;
        cv::Mat const in(rows, cols, CV_16UC1, cv::Scalar(5));
        bp.initialize({in}, {in.clone()}, 100, 100, true, -100, 0, BP::EDGE_TAPER_LINEAR);
        return thrown([&] { runLoop(bp, [](Planes &, int const *, int) {}); });
    };
    EXPECT_EQ(gap(16, 150), "in BlockProcessor::copyOneBlock, overlapX<0");
    EXPECT_EQ(gap(150, 16), "in BlockProcessor::copyOneBlock, overlapY<0");
}

// Wishes of 1024 with overlaps 0 and 32 over lengths that take each branch of the cut.
TEST(BlockProcessor, CutsLengthsIntoHandComputedBlocks) {
    struct Case {
        int n, overlap, count;
        Cut cut;
    };
    std::vector<Case> const cases = {
        {100, 0, 1, {{0}, 112}},          // shorter than the wish: rounded up by 16
        {1024, 0, 1, {{0}, 1040}},        // a multiple of 16 grows by a whole 16
        {1025, 0, 2, {{0, 497}, 528}},    // two halves of 512 + 16, the second folded back
        {2048, 0, 2, {{0, 1024}, 1024}},  // two blocks of 2048 / 2, step 1025 cut to 1024
        {3000, 0, 3, {{0, 1000, 2000}, 1000}},
        {6000, 0, 6, {{0, 1000, 2000, 3000, 4000, 5000}, 1000}},
        {100, 32, 1, {{0}, 112}},
        {1024, 32, 1, {{0}, 1040}},
        {1025, 32, 2, {{0, 481}, 544}},   // 512.5 / r = 529 -> 544, step 528, folded to 481
        {2048, 32, 2, {{0, 991}, 1057}},  // 1024 / r = 1057, step 992, folded to 991
        {3000, 32, 3, {{0, 985, 1968}, 1032}},
        {6000, 32, 6, {{0, 994, 1988, 2982, 3976, 4968}, 1032}},
    };
    for (Case const &k : cases) {
        for (bool across : {true, false}) {
            SCOPED_TRACE("n " + std::to_string(k.n) + " overlap " + std::to_string(k.overlap) +
                         (across ? " across" : " down"));
            cv::Mat const in = across ? cv::Mat(16, k.n, CV_16UC1) : cv::Mat(k.n, 16, CV_16UC1);
            BP bp;
            bp.initialize({in}, {in.clone()}, 1024, 1024, true, k.overlap, 0,
                          BP::EDGE_TAPER_LINEAR);
            EXPECT_EQ(bp.getNumOfBlks(), k.count);
            EXPECT_EQ(across ? bp.getBlkWidth() : bp.getBlkHeight(), k.cut.block);
            EXPECT_EQ(across ? bp.getBlkHeight() : bp.getBlkWidth(), 32);  // 16 rounded up
            std::vector<int> seen;
            runLoop(bp, [&](Planes &blocks, int const *rect, int) {
                int const at = across ? rect[0] : rect[1];
                seen.push_back(at);
                EXPECT_EQ(across ? rect[2] : rect[3], std::min(k.cut.block, k.n - at));
                EXPECT_EQ(blocks[0].cols, bp.getBlkWidth());
            });
            EXPECT_EQ(seen, k.cut.pos);
        }
    }
}

// Every block buffer holds the image around its core, with the image's edge pixels
// repeated where the border reaches past the image; an identity loop then gives the input
// back bit for bit when blocks do not overlap, or the plain rejoin when they do.
TEST(BlockProcessor, BlocksCarryTheirBorderAndIdentityRejoins) {
    for (int type : {CV_16UC1, CV_16UC3, CV_16UC4}) {
        SCOPED_TRACE("type " + std::to_string(type));
        cv::Mat const in = noiseImage(130, 300, type, 11);
        cv::Mat out(in.size(), type, cv::Scalar::all(0));
        BP bp;
        bp.initialize({in}, {out}, 64, 64, true, 8, 8, BP::EDGE_TAPER_LINEAR);
        int const cn = in.channels();
        int const visited = runLoop(bp, [&](Planes &blocks, int const *rect, int index) {
            int const x0 = kSmallX.pos[index % 6] - 8, y0 = kSmallY.pos[index / 6] - 8;
            ASSERT_EQ(blocks.size(), 1u);
            ASSERT_EQ(blocks[0].size(), cv::Size(76, 67));
            EXPECT_EQ(rect[0], std::max(x0, 0));
            EXPECT_EQ(rect[1], std::max(y0, 0));
            EXPECT_EQ(rect[0] + rect[2], std::min(x0 + 76, 300));
            EXPECT_EQ(rect[1] + rect[3], std::min(y0 + 67, 130));
            int wrong = 0;
            for (int y = 0; y < 67; ++y)
                for (int x = 0; x < 76; ++x)
                    for (int c = 0; c < cn; ++c) {
                        int const sy = std::clamp(y0 + y, 0, 129), sx = std::clamp(x0 + x, 0, 299);
                        wrong += blocks[0].ptr<std::uint16_t>(y)[x * cn + c] !=
                                 in.ptr<std::uint16_t>(sy)[sx * cn + c];
                    }
            EXPECT_EQ(wrong, 0) << "block " << index;
        });
        EXPECT_EQ(visited, 18);
        EXPECT_TRUE(same(out, referenceRejoin(in, kSmallX, kSmallY, false,
                                              [](int, std::uint16_t v) { return v; })));
        // The truncating cross-fade of equal values loses at most one unit, two where a
        // left seam meets a strip seam.
        EXPECT_LE(cv::norm(in, out, cv::NORM_INF), 2.0);
    }

    // Overlap 0, planar with two planes and interleaved, and in place with a border as the
    // detail effect runs it. These sizes are exact: blocks abut, or (1025) the second of
    // two blocks folds back over 31 pixels, where the weights k / 32 are exact in float.
    for (cv::Size size : {cv::Size(1, 1), cv::Size(37, 1025), cv::Size(1025, 37),
                          cv::Size(2048, 960), cv::Size(3000, 100)})
        for (int type : {CV_16UC1, CV_16UC3, CV_16UC4}) {
            SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height));
            cv::Mat const in = noiseImage(size.height, size.width, type, 3);
            Planes ins{in}, outs{cv::Mat(size, type, cv::Scalar::all(1))};
            if (type == CV_16UC1) {
                ins.push_back(noiseImage(size.height, size.width, type, 4));
                outs.push_back(cv::Mat(size, type, cv::Scalar::all(1)));
            }
            BP bp;
            bp.initialize(ins, outs, 1024, 1024, true, 0, 0, BP::EDGE_TAPER_LINEAR);
            runLoop(bp, [](Planes &, int const *, int) {});
            for (std::size_t p = 0; p < ins.size(); ++p)
                EXPECT_TRUE(same(ins[p], outs[p]));

            Planes inPlace{in.clone()};
            bp.initialize(inPlace, inPlace, 1024, 1024, true, 0, 32, BP::EDGE_TAPER_LINEAR);
            runLoop(bp, [](Planes &, int const *, int) {});
            EXPECT_TRUE(same(inPlace[0], in));
        }

    // Overlap 0 still fades where the last block folds back: 1100 rows cut into two blocks
    // of 560, the second moved up from 560 to 540.
    cv::Mat const in = noiseImage(1100, 2100, CV_16UC1, 6);
    cv::Mat out(in.size(), CV_16UC1, cv::Scalar(0));
    BP bp;
    bp.initialize({in}, {out}, 1024, 1024, true, 0, 0, BP::EDGE_TAPER_LINEAR);
    runLoop(bp, [](Planes &, int const *, int) {});
    EXPECT_TRUE(same(out, referenceRejoin(in, {{0, 1050}, 1050}, {{0, 540}, 560}, false,
                                          [](int, std::uint16_t v) { return v; })));
}

// A block loop that adds a constant: the seams fade between equal values, so the output is
// input + constant everywhere, short by at most the truncation, and equals the plain rejoin.
TEST(BlockProcessor, ConstantAddIsSeamless) {
    struct Config {
        cv::Size size;
        int blk, overlap, edge;
        Cut cx, cy;
    };
    std::vector<Config> const configs = {
        {{300, 130}, 64, 8, 8, kSmallX, kSmallY},
        {{37, 1025}, 1024, 32, 0, {{0}, 48}, {{0, 481}, 544}},
        {{1025, 37}, 1024, 32, 0, {{0, 481}, 544}, {{0}, 48}},
    };
    for (Config const &k : configs)
        for (int type : {CV_16UC1, CV_16UC3}) {
            SCOPED_TRACE(std::to_string(k.size.width) + "x" + std::to_string(k.size.height));
            cv::Mat const in = noiseImage(k.size.height, k.size.width, type, 5) / 2;
            cv::Mat out(k.size, type, cv::Scalar::all(0));
            BP bp;
            bp.initialize({in}, {out}, k.blk, k.blk, true, k.overlap, k.edge,
                          BP::EDGE_TAPER_LINEAR_ALT);
            runLoop(bp, [](Planes &blocks, int const *, int) {
                blocks[0] += cv::Scalar::all(1000);  // in place: the buffer stays the same
            });
            cv::Mat const want = in + cv::Scalar::all(1000);
            cv::Mat diff;
            cv::subtract(want, out, diff, cv::noArray(), CV_32S);
            double lo = 0, hi = 0;
            cv::minMaxLoc(diff.reshape(1), &lo, &hi);
            EXPECT_GE(lo, 0);
            EXPECT_LE(hi, 2);  // one unit per truncating fade, two where seams cross
            EXPECT_TRUE(same(out, referenceRejoin(in, k.cx, k.cy, false,
                                                  [](int, std::uint16_t v) { return v + 1000; })));
        }
}

// Blocks of distinct flat values make every seam visible: the linear ramps must match the
// plain rejoin exactly, and the hard taper must keep the earliest block that covers each
// pixel, drawing one rand() per overlap row of a block and per overlap row of a strip.
TEST(BlockProcessor, SeamsFollowTheTaper) {
    auto value = [](int index, std::uint16_t) { return std::uint16_t(1000 + 3001 * index); };
    for (int type : {CV_16UC1, CV_16UC4}) {
        cv::Mat const in(130, 300, type, cv::Scalar::all(0));
        for (BP::EDGE_TAPER_TYPE taper : {BP::EDGE_TAPER_LINEAR, BP::EDGE_TAPER_HARD}) {
            SCOPED_TRACE("type " + std::to_string(type) + " taper " + std::to_string(taper));
            cv::Mat out(in.size(), type, cv::Scalar::all(0));
            BP bp;
            bp.initialize({in}, {out}, 64, 64, true, 8, 8, taper);
            std::srand(7);
            runLoop(bp, [&](Planes &blocks, int const *, int index) {
                blocks[0].setTo(cv::Scalar::all(value(index, 0)));
            });
            int const next = std::rand();
            bool const hard = taper == BP::EDGE_TAPER_HARD;
            EXPECT_TRUE(same(out, referenceRejoin(in, kSmallX, kSmallY, hard, value)));
            // Five left overlaps of 51 rows in each of three strips, then overlaps of 11 and
            // 12 rows between the strips.
            std::srand(7);
            for (int k = 0; k < (hard ? 5 * 51 * 3 + 11 + 12 : 0); ++k)
                std::rand();
            EXPECT_EQ(next, std::rand());
            if (!hard) continue;
            int wrong = 0;
            for (int y = 0; y < 130; ++y)
                for (int x = 0; x < 300; ++x) {
                    int j = 0, i = 0;
                    while (y >= kSmallY.pos[j] + 51)
                        ++j;
                    while (x >= kSmallX.pos[i] + 60)
                        ++i;
                    wrong += out.ptr<std::uint16_t>(y)[x * in.channels()] != value(j * 6 + i, 0);
                }
            EXPECT_EQ(wrong, 0);
        }
    }
}

TEST(BlockProcessor, RestartsCopiesAndEnds) {
    cv::Mat const in = noiseImage(130, 300, CV_16UC1, 9);
    cv::Mat out(in.size(), CV_16UC1, cv::Scalar(0));
    BP bp;
    bp.initialize({in}, {out}, 64, 64, true, 8, 8, BP::EDGE_TAPER_LINEAR);
    EXPECT_EQ(bp.getEdgeSize(), 8);
    EXPECT_EQ(bp.getNumOfBlks(), 18);
    // Until something is written back, asking again gives the first block again.
    Planes blocks;
    int first[4], again[4];
    ASSERT_TRUE(bp.getBlockImage(first, blocks));
    ASSERT_TRUE(bp.getBlockImage(again, blocks));
    EXPECT_EQ(std::vector<int>(first, first + 4), (std::vector<int>{0, 0, 68, 59}));
    EXPECT_EQ(std::vector<int>(again, again + 4), (std::vector<int>{0, 0, 68, 59}));

    // A copy takes over the position and shares the buffers; it finishes the image alone.
    BP copy(bp);
    copy.writeBackBlock();
    EXPECT_EQ(runLoop(copy, [](Planes &, int const *, int) {}), 17);
    EXPECT_FALSE(copy.getBlockImage(first, blocks));
    EXPECT_FALSE(copy.hasNextBlock());
    cv::Mat const want =
        referenceRejoin(in, kSmallX, kSmallY, false, [](int, std::uint16_t v) { return v; });
    EXPECT_TRUE(same(out, want));

    // Assignment, self-assignment and a second initialize on the assigned object.
    BP other;
    other = copy;
    other = *&other;
    cv::Mat out2(in.size(), CV_16UC1, cv::Scalar(0));
    other.initialize({in}, {out2}, 64, 64, true, 8, 8, BP::EDGE_TAPER_LINEAR);
    int count = 0;
    while (other.hasNextBlock())
        ++count;
    EXPECT_EQ(count, 17);  // hasNextBlock moves on from the first block, never onto it
    other.initialize({in}, {out2}, 64, 64, true, 8, 8, BP::EDGE_TAPER_LINEAR);
    runLoop(other, [](Planes &, int const *, int) {});
    EXPECT_TRUE(same(out2, want));

    BP empty;
    EXPECT_FALSE(empty.getBlockImage(first, blocks));
    empty.writeBackBlock();
    BP emptyCopy(empty);
    EXPECT_EQ(emptyCopy.getNumOfBlks(), 0);
}

// The buffers are one block and one strip per plane, allocated by initialize; the loop
// allocates nothing more.
TEST(BlockProcessor, HoldsOneBlockAndOneStripPerPlane) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "heap statistics are the sanitizer's under ASan";
#else
    auto heap = [] {
        struct mallinfo2 m = mallinfo2();
        return std::int64_t(m.uordblks + m.hblkhd);
    };
    cv::Mat const in = noiseImage(2000, 3000, CV_16UC1, 1);
    Planes ins{in, in}, outs{in.clone(), in.clone()};
    Planes blocks;
    {
        BP warm;  // starts the thread team and sizes `blocks` outside the measurement
        warm.initialize(ins, outs, 1024, 1024, true, 32, 0, BP::EDGE_TAPER_LINEAR);
        runLoop(warm, [](Planes &, int const *, int) {});
        blocks.reserve(4);
    }
    std::int64_t const before = heap();
    BP bp;
    bp.initialize(ins, outs, 1024, 1024, true, 32, 0, BP::EDGE_TAPER_LINEAR);
    std::int64_t const held = heap() - before;
    // Both dimensions cut to 1032 (3000: three blocks, 2000: two).
    std::int64_t const claim = 2 * (1032 * 1032 * 2 + 1032 * 3000 * 2) + 1033 * 4;
    EXPECT_GE(held, claim);
    EXPECT_LE(held, claim + 64 * 1024);
    int rect[4];
    std::int64_t peak = 0;
    while (bp.getBlockImage(rect, blocks)) {
        peak = std::max(peak, heap() - before);
        bp.writeBackBlock();
    }
    EXPECT_LE(peak - held, 16 * 1024);
#endif
}

}  // namespace
