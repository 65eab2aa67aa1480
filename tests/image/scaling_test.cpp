// Tests of the scaling functions: error texts, binomial filters, borders and the nearest-in-guide
// enlargement against plain references at awkward sizes.
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

// Method 258's enlargement at (r, c >= 1) of the 2h x 2w grid: p(i, j) at (2i + 1, 2j + 1),
// else the mean of the two neighbours across, else above and below.
int binomialUpAt(cv::Mat const &p, int r, int c) {
    if (c % 2 == 0) return (binomialUpAt(p, r, c - 1) >> 1) + (binomialUpAt(p, r, c + 1) >> 1);
    if (r % 2 == 0) return (binomialUpAt(p, r - 1, c) >> 1) + (binomialUpAt(p, r + 1, c) >> 1);
    return p.at<u16>(r / 2, c / 2);
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
    o.col(1).copyTo(o.col(0));
    o.col(W - 2).copyTo(o.col(W - 1));
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
    EXPECT_EQ(cv::countNonZero(out != 7) + cv::countNonZero(out8 != 7), 0);
}

// Reductions leave an odd last column or row unwritten; enlargements also go into targets one
// short (the half plane of an odd image), and one pixel wide (a border column only).
TEST(ScalingBinomial, MatchesTheDefinitionsIncludingUnwrittenOddEdges) {
    for (cv::Size s : {cv::Size(8, 6), cv::Size(9, 7), cv::Size(9, 6), cv::Size(8, 7),
                       cv::Size(2, 2), cv::Size(3, 3), cv::Size(33, 4), cv::Size(1, 5)}) {
        cv::Mat const p = kxtest::noise(s.height, s.width, CV_16U, 11 + s.area(), 0, 65536);
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
        cv::Mat const p = kxtest::noise(s.height, s.width, CV_16U, 5 + s.area(), 0, 65536);
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
}

// An axis shorter than the divisor is scaled to the output's length, and strips fill what the
// resampler (or OpenCV's pyramid, method 257) leaves: constants stay at any size.
TEST(ScalingResample, ConstantsStayAtAnySizeAndStripsCopyTheNearestInnerPixel) {
    for (int method : {1, 2, 4, 257})
        for (cv::Size s : {cv::Size(1, 1), cv::Size(7, 1), cv::Size(1, 7), cv::Size(5, 3)}) {
            int const t = method == 1 ? CV_8U : CV_16U, v = method == 1 ? 200 : 40000;
            cv::Mat const c(s, t, cv::Scalar(v));
            cv::Mat up(2 * s.height + 1, 2 * s.width + 1, t, cv::Scalar(7));
            cv::Mat down((s.height + 1) / 2, (s.width + 1) / 2, t, cv::Scalar(7));
            cv::Mat down3((s.height + 2) / 3, (s.width + 2) / 3, t, cv::Scalar(7));
            upSize2X(c, up, method);
            downSize2X(c, down, method);
            downSizeNX(c, down3, 3, method == 257 ? 4 : method);  // no pyramid by n
            for (cv::Mat const *m : {&up, &down, &down3})
                EXPECT_EQ(cv::countNonZero(*m != v), 0) << s << method;
        }
    // extendBorder is OpenCV's replicated border; strips leaving no inner pixel do nothing.
    cv::Mat const m = kxtest::noise(6, 7, CV_16U, 9, 0, 65536);
    for (cv::Vec4i s : {cv::Vec4i(2, 0, 0, 0), cv::Vec4i(1, 2, 3, 1), cv::Vec4i(0, 0, -1, -3),
                        cv::Vec4i(7, 6, 7, 6)}) {
        cv::Mat e = m.clone(), want;
        extendBorder(e, s[0], s[1], s[2], s[3]);
        cv::Vec4i const d =
            s[0] == 7 ? cv::Vec4i() : cv::Vec4i(s[0], s[1], std::max(s[2], 0), std::max(s[3], 0));
        cv::copyMakeBorder(m(cv::Rect(d[0], d[1], 7 - d[0] - d[2], 6 - d[1] - d[3])), want, d[1],
                           d[3], d[0], d[2], cv::BORDER_REPLICATE | cv::BORDER_ISOLATED);
        EXPECT_TRUE(same(e, want)) << s;
    }
}

// A guide of a few levels, so that most choices are ties.
cv::Mat levelGuide(int rows, int cols, std::uint64_t seed, std::initializer_list<u16> levels) {
    cv::Mat y = kxtest::noise(rows, cols, CV_16U, seed, 0, double(levels.size()));
    for (u16 &v : cv::Mat_<u16>(y))
        v = levels.begin()[v];
    return y;
}

// Vectors of 8, 16 or 32 half-width values and bands of rows: these widths and heights put the
// vector ends and the band ends everywhere they can fall.
TEST(ScalingGuidedSimple, EveryVectorAndBandEndMatchesThePlainReferenceSingleLinesReplicate) {
    int const widths[] = {2,  3,  5,  9,  15, 16,  17,  18,  33, 62,
                          63, 64, 65, 66, 67, 130, 131, 257, 258};
    int const B = nearest::kChunkRows;
    int const heights[] = {2, 3, 5, B - 1, B + 1, B + 2, 2 * B + 1, 2 * B + 6, 3 * B, 4 * B + 3};
    kxtest::forEachVectorPath([&] {
        for (int W : widths)
            for (int H : heights) {
                SCOPED_TRACE(testing::Message() << W << " x " << H);
                std::uint64_t const seed = std::uint64_t(W) * 1000 + H;
                // Distances of 0, 1, 65534 and 65535 catch unsigned lanes compared as signed.
                cv::Mat const small = levelGuide(H, W, seed, {100, 101, 102, 104});
                cv::Mat const extreme = levelGuide(H, W, seed + 1, {0, 1, 32768, 65535});
                cv::Mat const dr =
                    kxtest::noise((H + 1) / 2, (W + 1) / 2, CV_16U, seed + 2, 0, 65536);
                for (cv::Mat const &y : {small, extreme}) {
                    cv::Mat const want = nearestReference(y, dr);
                    // A guide with rows off the vectors' alignment, wider apart than their width.
                    cv::Mat out, wide(H, W + 5, CV_16U, cv::Scalar(7)), outWide;
                    y.copyTo(wide(cv::Rect(1, 0, W, H)));
                    upSize2XGuidedByYSimple(y, dr, out);
                    upSize2XGuidedByYSimple(wide(cv::Rect(1, 0, W, H)), dr, outWide);
                    EXPECT_TRUE(same(out, want) && same(outWide, want));
                }
            }
    });
    // A single row or column is replicated.
    cv::Mat const in = (cv::Mat_<u16>(2, 2) << 1, 2, 3, 4);
    cv::Mat out;
    upSize2XGuidedByYSimple(cv::Mat(1, 3, CV_16U, cv::Scalar(0)), in.row(0), out);
    EXPECT_TRUE(same(out, cv::Mat((cv::Mat_<u16>(1, 3) << 1, 1, 2))));
    upSize2XGuidedByYSimple(cv::Mat(3, 1, CV_16U, cv::Scalar(0)), in.col(1), out);
    EXPECT_TRUE(same(out, cv::Mat((cv::Mat_<u16>(3, 1) << 2, 2, 4))));
}

TEST(ScalingGuided, PlainPathIsUpSizeGuidedPathFollowsTheGuide) {
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
