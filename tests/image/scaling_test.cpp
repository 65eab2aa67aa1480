// Tests of the scaling functions: error texts, the integer binomial filters and the
// nearest-in-guide enlargement against plain references, geometry, borders and odd sizes.
#include "kestrix1/image/scaling.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <opencv2/imgproc.hpp>
#include <string>

#include "kestrix1/image/nearest_in_guide.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"
#include "tests/support/vector_paths.h"

namespace {

using u16 = std::uint16_t;
using kxtest::thrown;

bool same(cv::Mat const &a, cv::Mat const &b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

cv::Mat noise16(int rows, int cols, std::uint64_t seed) {
    return kxtest::noise(rows, cols, CV_16U, seed, 0, 65536);
}

// Method 258's reduction at (i, j) by its definition: 1-2-1 across, then down, every term
// shifted before the sum; at an even width or height the last two columns or rows halved.
int binomialDownAt(cv::Mat const &p, int i, int j) {
    int const C = p.cols, c = 2 * j + 1, r = 2 * i + 1;
    auto T = [&](int r) {
        if (c == C - 1) return (p.at<u16>(r, C - 2) >> 1) + (p.at<u16>(r, C - 1) >> 1);
        return (p.at<u16>(r, c - 1) >> 2) + (p.at<u16>(r, c) >> 1) + (p.at<u16>(r, c + 1) >> 2);
    };
    if (r == p.rows - 1) return (T(r - 1) >> 1) + (T(r) >> 1);
    return (T(r - 1) >> 2) + (T(r) >> 1) + (T(r + 1) >> 2);
}

// Method 258's enlargement at (r, c) of the whole 2h x 2w grid (r, c >= 1): p(i, j) at
// (2i + 1, 2j + 1), and the mean of the two neighbours across, else above and below.
int binomialUpAt(cv::Mat const &p, int r, int c) {
    if (c % 2 == 0) return (binomialUpAt(p, r, c - 1) >> 1) + (binomialUpAt(p, r, c + 1) >> 1);
    if (r % 2 == 0) return (binomialUpAt(p, r - 1, c) >> 1) + (binomialUpAt(p, r + 1, c) >> 1);
    return p.at<u16>(r / 2, c / 2);
}

// extendBorder as OpenCV's replicated border around the inner part (strips of 0 or more).
cv::Mat replicateReference(cv::Mat const &m, int left, int top, int right, int bottom) {
    cv::Mat out;
    cv::copyMakeBorder(m(cv::Rect(left, top, m.cols - left - right, m.rows - top - bottom)), out,
                       top, bottom, left, right, cv::BORDER_REPLICATE | cv::BORDER_ISOLATED);
    return out;
}

// The nearest-in-guide enlargement written plainly over the whole plane, step by step.
cv::Mat nearestReference(cv::Mat const &y, cv::Mat const &in) {
    int const H = y.rows, W = y.cols;
    cv::Mat_<u16> o(H, W, u16(0));
    for (int r = 0; r < H; ++r)
        for (int c = 0; c < W; ++c)
            if ((r % 2 == 0 && (c % 2 == 0 || c == W - 1)) || (H % 2 == 0 && r == H - 1))
                o(r, c) = in.at<u16>(r / 2, c / 2);
    // A later candidate wins only when strictly nearer to the pixel's own y.
    auto pick = [&](cv::Mat_<u16> const &from, int r, int c, std::initializer_list<cv::Point> at) {
        int best = INT_MAX;
        for (cv::Point p : at) {
            int const dist = std::abs(int(y.at<u16>(p)) - int(y.at<u16>(r, c)));
            if (dist >= best) continue;
            best = dist;
            o(r, c) = from(p);
        }
    };
    for (int r = 1; r < H - 1; r += 2) {
        for (int c = 1; c < W - 1; c += 2)
            pick(o, r, c, {{c - 1, r - 1}, {c + 1, r - 1}, {c - 1, r + 1}, {c + 1, r + 1}});
        if (W % 2 == 0) pick(o, r, W - 1, {{W - 2, r - 1}, {W - 2, r + 1}});
    }
    cv::Mat_<u16> const placed = o.clone();
    for (int r = 1; r < H - 1; ++r)
        for (int c = 1 + (r & 1); c < W - 1; c += 2)
            pick(placed, r, c, {{c, r - 1}, {c - 1, r}, {c + 1, r}, {c, r + 1}});
    for (int r = 0; r < H; ++r) {
        o(r, 0) = o(r, 1);
        o(r, W - 1) = o(r, W - 2);
    }
    o.row(1).copyTo(o.row(0));
    o.row(H - 2).copyTo(o.row(H - 1));
    return o;
}

TEST(ScalingErrors, TextsAreExactAndOutputUntouched) {
    cv::Mat const in16(6, 8, CV_16U, cv::Scalar(100)), in16s(6, 8, CV_16S, cv::Scalar(1));
    cv::Mat const in8(6, 8, CV_8U, cv::Scalar(1));
    cv::Mat none, wrong(4, 4, CV_8U), out16s(3, 4, CV_16S);
    cv::Mat out(3, 4, CV_16U, cv::Scalar(7)), out8(3, 4, CV_8U, cv::Scalar(7));
    std::string const trace = " - 106 - upSize2X : out2X is not allocated - ";  // after "%09.3f"
    for (cv::Mat *o : {&none, &wrong}) {
        EXPECT_EQ(thrown([&] { upSize2X(in16, *o, 4); }).substr(9), trace);
        EXPECT_EQ(thrown([&] { downSize2X(in16, *o, 4); }),
                  "ERROR - downSize2X - outHalf must be allocated!");
        EXPECT_EQ(thrown([&] { upSizeNX(in16, *o, 3, 4); }),
                  "ERROR - upSizeNX - outNX is not allocated");
    }
    EXPECT_EQ(thrown([&] { upSize2X(in16s, out16s, 4); }), "ERROR - up2X - type");
    EXPECT_EQ(thrown([&] { upSize2X(in8, out8, 258); }), "ERROR - up2X - type");
    EXPECT_EQ(thrown([&] { upSize2X(in16, out, 3); }), "ERROR - up2X - ippsMalloc_8u(pBufferSize)");
    EXPECT_EQ(thrown([&] { downSize2X(in16s, out16s, 2); }), "ERROR - down2X - type");
    EXPECT_EQ(thrown([&] { downSize2X(in8, out8, 258); }), "ERROR - down2X - type");
    EXPECT_EQ(thrown([&] { downSize2X(in16, out, 0); }),
              "ERROR - down2X - ippsMalloc_8u(pBufferSize)");
    EXPECT_EQ(thrown([&] { upSizeNX(in16s, out16s, 3, 4); }), "ERROR - upNX - type");
    EXPECT_EQ(thrown([&] { upSizeNX(in16, out, 3, 257); }),
              "ERROR - upNX - ippsMalloc_8u(pBufferSize)");
    EXPECT_EQ(thrown([&] { downSizeNX(in16, none, 3, 4); }), "downSizeNX - out is not allocated");
    EXPECT_EQ(thrown([&] { downSizeNX(in16, wrong, 3, 4); }),
              "downSizeNX - out type does not match input type");
    EXPECT_EQ(thrown([&] { downSizeNX(in16s, out16s, 3, 4); }), "ERROR - downSizeNX - type");
    EXPECT_EQ(thrown([&] { downSizeNX(in16, out, 3, 258); }),
              "ERROR - downSizeNX - ippsMalloc_8u(pBufferSize)");
    EXPECT_EQ(thrown([&] { extremeSharpen(in8, out); }),
              "ERROR - extremeSharpen - in.type()!=CV_16UC1");
    EXPECT_TRUE(same(out, cv::Mat(3, 4, CV_16U, cv::Scalar(7))));
    EXPECT_TRUE(same(out8, cv::Mat(3, 4, CV_8U, cv::Scalar(7))));
}

// Reductions leave an odd last column or row (and anything beyond) unwritten; enlargements
// also go into targets one short (the half plane of an odd image), and a target one pixel
// wide has only a border column, with nothing to copy from.
TEST(ScalingBinomial, MatchesTheDefinitionsIncludingUnwrittenOddEdges) {
    for (cv::Size s : {cv::Size(8, 6), cv::Size(9, 7), cv::Size(9, 6), cv::Size(8, 7),
                       cv::Size(2, 2), cv::Size(3, 3), cv::Size(33, 4), cv::Size(1, 5)}) {
        cv::Mat const p = noise16(s.height, s.width, 11 + s.area());
        cv::Mat out((s.height + 1) / 2, (s.width + 1) / 2, CV_16U, cv::Scalar(7)),
            want = out.clone();
        for (int i = 0; i < s.height / 2; ++i)
            for (int j = 0; j < s.width / 2; ++j)
                want.at<u16>(i, j) = u16(binomialDownAt(p, i, j));
        downSize2X(p, out, 258);
        EXPECT_TRUE(same(out, want)) << s;
    }
    for (cv::Size s :
         {cv::Size(4, 3), cv::Size(5, 5), cv::Size(1, 1), cv::Size(1, 6), cv::Size(17, 2)}) {
        cv::Mat const p = noise16(s.height, s.width, 5 + s.area());
        for (int less : {0, 1}) {
            cv::Mat out(2 * s.height - less, 2 * s.width - less, CV_16U, cv::Scalar(7)),
                want = out.clone();
            int const lastR = out.rows - 1, lastC = out.cols - 1;
            for (int r = 0; r < out.rows && lastC > 0; ++r)
                for (int c = 0; c < out.cols; ++c)
                    want.at<u16>(r, c) =
                        u16(binomialUpAt(p, std::clamp(r, 1, lastR), std::clamp(c, 1, lastC)));
            upSize2X(p, out, 258);
            EXPECT_TRUE(same(out, want)) << s << " less " << less;
        }
    }
    // Shift before the sum: 3 in a 1-2-1 gives 0 + 1 + 0.
    cv::Mat const threes(4, 4, CV_16U, cv::Scalar(3));
    cv::Mat out(2, 2, CV_16U);
    downSize2X(threes, out, 258);
    EXPECT_EQ(out.at<u16>(0, 0), 0);  // across 1, then (1 >> 2) + (1 >> 1) + (1 >> 2) = 0
    EXPECT_EQ(out.at<u16>(1, 1), 2);  // the even corner: (3 >> 1) + (3 >> 1) each way
}

TEST(ScalingResample, ConstantsStayAndRampsKeepTheirGeometry) {
    for (int method : {1, 2, 4})
        for (cv::Size s : {cv::Size(1, 1), cv::Size(7, 1), cv::Size(1, 7), cv::Size(5, 3)}) {
            int const t = method == 1 ? CV_8U : CV_16U, v = method == 1 ? 200 : 40000;
            cv::Mat const c(s, t, cv::Scalar(v));
            cv::Mat up(2 * s.height + 1, 2 * s.width + 1, t, cv::Scalar(7));
            cv::Mat down((s.height + 1) / 2, (s.width + 1) / 2, t, cv::Scalar(7));
            cv::Mat up3(3 * s.height, 3 * s.width, t, cv::Scalar(7));
            cv::Mat down3((s.height + 2) / 3, (s.width + 2) / 3, t, cv::Scalar(7));
            upSize2X(c, up, method);
            downSize2X(c, down, method);
            upSizeNX(c, up3, 3, method);
            downSizeNX(c, down3, 3, method);
            for (cv::Mat const *m : {&up, &down, &up3, &down3})
                EXPECT_EQ(cv::countNonZero(*m != v), 0) << s << method;
        }
    // A linear ramp across: target x shows the source at (x + 0.5) / f - 0.5. The cubic's
    // overshoot is antisymmetric about the source pixels, so the pairs of an enlargement
    // average to them, and reductions by even factors sample half-way between two pixels.
    cv::Mat ramp(4, 40, CV_32F), up(8, 80, CV_32F), down(2, 20, CV_32F), down4(1, 10, CV_32F);
    for (int c = 0; c < ramp.cols; ++c)
        ramp.col(c).setTo(float(c));
    upSize2X(ramp, up, 4);
    downSize2X(ramp, down, 4);
    downSizeNX(ramp, down4, 4, 4);
    for (int k = 2; k < 38; ++k)
        EXPECT_NEAR(up.at<float>(3, 2 * k) + up.at<float>(3, 2 * k + 1), 2.0 * k, 1e-4);
    for (int x = 2; x < 18; ++x)
        EXPECT_NEAR(down.at<float>(1, x), 2 * x + 0.5, 1e-4);
    for (int x = 1; x < 9; ++x)
        EXPECT_NEAR(down4.at<float>(0, x), 4 * x + 1.5, 1e-4);
    // 5 reduced to 3: strips of 1, the last row and column copy their neighbours.
    cv::Mat out3(3, 3, CV_16U);
    downSize2X(noise16(5, 5, 3), out3, 4);
    EXPECT_TRUE(same(out3.col(2), out3.col(1)) && same(out3.row(2), out3.row(1)));
}

TEST(ScalingBorder, StripsCopyTheNearestInnerPixelRowsLastAndPyramidsAreOpenCVs) {
    cv::Mat const m = noise16(6, 7, 9);
    // The last strips leave no inner column or row and do nothing.
    for (cv::Vec4i s : {cv::Vec4i(2, 0, 0, 0), cv::Vec4i(1, 2, 3, 1), cv::Vec4i(0, 0, -1, -3),
                        cv::Vec4i(7, 6, 7, 6)}) {
        cv::Mat e = m.clone();
        extendBorder(e, s[0], s[1], s[2], s[3]);
        cv::Vec4i const d =
            s[0] == 7 ? cv::Vec4i() : cv::Vec4i(s[0], s[1], std::max(s[2], 0), std::max(s[3], 0));
        EXPECT_TRUE(same(e, replicateReference(m, d[0], d[1], d[2], d[3]))) << s;
    }
    cv::Mat const p = noise16(7, 9, 21);
    cv::Mat up(14, 18, CV_16U), expectUp, down(4, 5, CV_16U), expectDown;
    upSize2X(p, up, 257);
    cv::pyrUp(p, expectUp, up.size(), cv::BORDER_REFLECT_101);
    EXPECT_TRUE(same(up, expectUp));
    // 9 x 7 to 5 x 4: strips of one replace pyrDown's last column and row.
    downSize2X(p, down, 257);
    cv::pyrDown(p, expectDown, down.size(), cv::BORDER_REFLECT_101);
    expectDown.col(3).copyTo(expectDown.col(4));
    expectDown.row(2).copyTo(expectDown.row(3));
    EXPECT_TRUE(same(down, expectDown));
}

TEST(ScalingGuidedSimple, NearestInGuideWithStrictTiesAndTheEvenLastColumn) {
    cv::Mat const in = (cv::Mat_<u16>(2, 2) << 1, 2, 3, 4);
    cv::Mat y(4, 4, CV_16U, cv::Scalar(500)), out;
    auto expect = [&](std::initializer_list<u16> values) {
        upSize2XGuidedByYSimple(y, in, out);
        EXPECT_TRUE(same(out, cv::Mat(cv::Mat_<u16>(values).reshape(1, 4)))) << out;
    };
    // A flat guide: every choice is a tie, won by the first candidate (up-left, then up).
    expect({1, 1, 2, 2, 1, 1, 2, 2, 1, 1, 4, 4, 1, 1, 4, 4});
    // (1, 1): the third corner, strictly nearer, wins; (2, 1) then takes right, strictly
    // nearer than up and left.
    y.at<u16>(1, 1) = y.at<u16>(2, 0) = 100;
    expect({3, 3, 2, 2, 3, 3, 2, 2, 4, 4, 4, 4, 4, 4, 4, 4});
    // Tying with the fourth corner, the third keeps (1, 1); (2, 1) now takes down.
    y.at<u16>(2, 2) = 100;
    expect({3, 3, 2, 2, 3, 3, 2, 2, 3, 3, 4, 4, 3, 3, 4, 4});
    // Even width: (1, 3) sees only (0, 2) and (2, 2), takes 4 and hands it to (1, 2) on the
    // right, before the last column copies its neighbour.
    y = cv::Scalar(500);
    y.at<u16>(1, 3) = y.at<u16>(2, 2) = y.at<u16>(1, 2) = 100;
    expect({1, 1, 4, 4, 1, 1, 4, 4, 1, 1, 4, 4, 1, 1, 4, 4});
    // One row or one column: plain replication.
    upSize2XGuidedByYSimple(cv::Mat(1, 3, CV_16U, cv::Scalar(0)), in.row(0), out);
    EXPECT_TRUE(same(out, cv::Mat((cv::Mat_<u16>(1, 3) << 1, 1, 2))));
    upSize2XGuidedByYSimple(cv::Mat(3, 1, CV_16U, cv::Scalar(0)), in.col(1), out);
    EXPECT_TRUE(same(out, cv::Mat((cv::Mat_<u16>(3, 1) << 2, 2, 4))));
}

// A guide of a few levels, so that most choices are ties; `levels` maps noise 0..n-1 to
// the values used.
cv::Mat levelGuide(int rows, int cols, std::uint64_t seed, std::initializer_list<u16> levels) {
    cv::Mat y = kxtest::noise(rows, cols, CV_16U, seed, 0, double(levels.size()));
    for (u16 &v : cv::Mat_<u16>(y))
        v = levels.begin()[v];
    return y;
}

// The loops work on half-width rows, 8, 16 or 32 values a vector, split and merge full rows
// 16, 32 or 64 values at a time, and cut the work into bands of rows: these widths and
// heights put the vector ends and the band ends everywhere they can fall.
TEST(ScalingGuidedSimple, EveryVectorAndBandEndMatchesThePlainReference) {
    int const widths[] = {2,  3,  5,  9,  15, 16,  17,  18,  33, 62,
                          63, 64, 65, 66, 67, 130, 131, 257, 258};
    int const B = nearest::kChunkRows;
    int const heights[] = {2, 3, 5, B - 1, B + 1, B + 2, 2 * B + 1, 2 * B + 6, 3 * B, 4 * B + 3};
    kxtest::forEachVectorPath([&] {
        for (int W : widths)
            for (int H : heights) {
                SCOPED_TRACE(testing::Message() << W << " x " << H);
                std::uint64_t const seed = std::uint64_t(W) * 1000 + H;
                // Small levels tie often; the extremes make distances of 0, 1, 65534 and 65535,
                // where a compare of unsigned lanes done as signed would go wrong.
                cv::Mat const small = levelGuide(H, W, seed, {100, 101, 102, 104});
                cv::Mat const extreme = levelGuide(H, W, seed + 1, {0, 1, 32768, 65535});
                cv::Mat const dr = noise16((H + 1) / 2, (W + 1) / 2, seed + 2);
                cv::Mat const db = noise16((H + 1) / 2, (W + 1) / 2, seed + 3);
                for (cv::Mat const &y : {small, extreme}) {
                    cv::Mat const want = nearestReference(y, dr), wantB = nearestReference(y, db);
                    // A guide whose rows begin off the vectors' alignment and lie further apart
                    // than their width gives the same.
                    cv::Mat out, wide(H, W + 5, CV_16U, cv::Scalar(7)), outWide;
                    y.copyTo(wide(cv::Rect(1, 0, W, H)));
                    upSize2XGuidedByYSimple(y, dr, out);
                    upSize2XGuidedByYSimple(wide(cv::Rect(1, 0, W, H)), dr, outWide);
                    EXPECT_TRUE(same(out, want) && same(outWide, want));
                    // Two planes under one guide, the choice shared between them, made row by
                    // row in order as the library's callers ask, or from the last row up, which
                    // finds none of the rows the row maker keeps.
                    for (bool upwards : {false, true}) {
                        cv::Mat out0(y.size(), CV_16U), out1(y.size(), CV_16U);
                        cv::Mat const *const planes[2] = {&dr, &db};
                        nearest::RowEnlarger<2> rows(y, planes);
                        for (int n = 0; n < H; ++n) {
                            int const r = upwards ? H - 1 - n : n;
                            u16 *const dst[2] = {out0.ptr<u16>(r), out1.ptr<u16>(r)};
                            rows.row(r, dst);
                        }
                        EXPECT_TRUE(same(out0, want) && same(out1, wantB)) << "pair " << upwards;
                    }
                }
            }
    });
}

TEST(ScalingGuided, PlainPathIsUpSizeGuidedPathFollowsTheGuideAnySize) {
    cv::Mat const y = kxtest::stepEdge(40, 60, CV_16U, 2000, 60000, 31);
    cv::Mat const dr = kxtest::stepEdge(20, 30, CV_16U, 20000, 40000, 15);
    cv::Mat plain, direct(40, 60, CV_16U), guided(40, 60, CV_32F), guided3(60, 90, CV_32F), y3;
    cv::Mat plain3, direct3(60, 90, CV_16U);
    cv::resize(y, y3, guided3.size(), 0, 0, cv::INTER_NEAREST);
    upSize2XGuidedByY(y, dr, plain, false, 4);
    upSize2X(dr, direct, 4);
    upSizeNXGuidedByY(y3, dr, plain3, 3, false, 4);
    upSizeNX(dr, direct3, 3, 4);
    EXPECT_TRUE(same(plain, direct) && same(plain3, direct3));
    upSize2XGuidedByY(y, dr, guided, true, 4);
    EXPECT_NEAR(guided.at<float>(10, 5), 20000 / 65535.0, 2e-3);
    EXPECT_NEAR(guided.at<float>(10, 55), 40000 / 65535.0, 2e-3);
    upSizeNXGuidedByY(y3, dr, guided3, 3, true, 4);
    EXPECT_NEAR(guided3.at<float>(30, 2), 20000 / 65535.0, 2e-3);
    EXPECT_NEAR(guided3.at<float>(30, 88), 40000 / 65535.0, 2e-3);
    // Awkward sizes: a flat chroma plane stays flat on every path.
    for (cv::Size s : {cv::Size(1, 1), cv::Size(7, 1), cv::Size(1, 7), cv::Size(5, 3)}) {
        cv::Mat const ys = noise16(s.height, s.width, 2);
        cv::Mat const flat((s.height + 1) / 2, (s.width + 1) / 2, CV_16U, cv::Scalar(32768));
        cv::Mat simple, plain, unit(s, CV_32F);
        upSize2XGuidedByYSimple(ys, flat, simple);
        upSize2XGuidedByY(ys, flat, plain, false, 4);
        upSize2XGuidedByY(ys, flat, unit, true, 4);
        EXPECT_EQ(cv::countNonZero(simple != 32768) + cv::countNonZero(plain != 32768), 0) << s;
        EXPECT_LT(cv::norm(unit - 32768 / 65535.0, cv::NORM_INF), 1e-3) << s;
    }
}

TEST(ScalingSharpen, PixelsJumpToTheNearerExtremeTiesToTheMinimum) {
    cv::Mat out;
    for (cv::Size s : {cv::Size(9, 7), cv::Size(2, 5), cv::Size(1, 1)}) {
        cv::Mat const in = kxtest::noise(s.height, s.width, CV_16U, s.area(), 0, 9);
        cv::Mat expected = in.clone(), inPlace = in.clone();
        for (int r = 1; r + 1 < in.rows; ++r)
            for (int c = 1; c + 1 < in.cols; ++c) {
                double lo, hi;
                cv::minMaxLoc(in(cv::Rect(c - 1, r - 1, 3, 3)), &lo, &hi);
                int const v = in.at<u16>(r, c);
                expected.at<u16>(r, c) = u16(hi - v < v - lo ? hi : lo);
            }
        extremeSharpen(in, out);
        extremeSharpen(inPlace, inPlace);
        EXPECT_TRUE(same(out, expected) && same(inPlace, expected)) << s;
    }
}

}  // namespace
