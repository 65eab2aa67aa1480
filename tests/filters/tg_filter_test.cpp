// Tests of TGFilter against a plain guided filter written below, and of the apply loops with
// coefficients set by hand.
#include "kestrix1/filters/tg_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::thrown;
using Planes = std::vector<cv::Mat>;

// Opens the protected members to the tests; coefficients may be set by hand.
struct Open : TGFilter {
    using TGFilter::checkBlkSz;
    using TGFilter::coefA;
    using TGFilter::coefB;
    using TGFilter::gFc3_apply;

    explicit Open(Planes const &a = {}, cv::Mat const &b = cv::Mat()) {
        std::copy(a.begin(), a.end(), coefA);
        coefB = b;
    }
};

// A float plane in 0..1 with edges, gradients and texture.
cv::Mat pattern(int rows, int cols, std::uint64_t seed) {
    return 0.4 * kxtest::ramp(rows, cols, CV_32F) +
           0.3 * kxtest::stepEdge(rows, cols, CV_32F, 0.1, 0.8, cols / 3) +
           0.3 * kxtest::noise(rows, cols, CV_32F, seed, 0.0, 1.0);
}

double maxDiff(cv::Mat const &a, cv::Mat const &b) {
    return cv::norm(a, b, cv::NORM_INF);
}

// Window means of a plane extended by replicating its edges r pixels out: direct sums.
cv::Mat boxMean(cv::Mat const &plane, int r) {
    int const side = 2 * r + 1;
    cv::Mat padded, mean(plane.size(), CV_32F);
    cv::copyMakeBorder(plane, padded, r, r, r, r, cv::BORDER_REPLICATE);
    for (int y = 0; y < plane.rows; ++y)
        for (int x = 0; x < plane.cols; ++x)
            mean.at<float>(y, x) =
                float(cv::sum(padded(cv::Rect(x, y, side, side)))[0] / (side * side));
    return mean;
}

// The plain guided filter's coefficients of p from one or three guides, the a planes then b:
// (cov + eps) a = covP and b = meanP - meanI . a solved per pixel, then window means of both.
// The guides' means and covariances come from `stats` when given, as a filter that keeps an
// earlier guide's statistics makes them.
Planes reference(Planes const &guides, cv::Mat const &p, int r, float eps, Planes stats = {}) {
    int const n = int(guides.size());
    if (stats.empty()) stats = guides;
    cv::Mat const meanP = boxMean(p, r);
    Planes meanI, covP, cov, out;
    for (int c = 0; c <= n; ++c)
        out.emplace_back(p.size(), CV_32F);
    for (int c = 0; c < n; ++c) {
        meanI.push_back(boxMean(stats[c], r));
        covP.push_back(boxMean(guides[c].mul(p), r) - meanI[c].mul(meanP));
    }
    for (int c = 0; c < n * n; ++c)
        cov.push_back(boxMean(stats[c / n].mul(stats[c % n]), r) - meanI[c / n].mul(meanI[c % n]));
    cv::Mat s(n, n, CV_64F), rhs(n, 1, CV_64F), a;
    for (int y = 0; y < p.rows; ++y)
        for (int x = 0; x < p.cols; ++x) {
            for (int c = 0; c < n * n; ++c)
                s.ptr<double>()[c] = cov[c].at<float>(y, x) + (c % (n + 1) == 0 ? eps : 0.0f);
            for (int c = 0; c < n; ++c)
                rhs.at<double>(c) = covP[c].at<float>(y, x);
            cv::solve(s, rhs, a, cv::DECOMP_LU);
            double b = meanP.at<float>(y, x);
            for (int c = 0; c < n; ++c) {
                out[c].at<float>(y, x) = float(a.at<double>(c));
                b -= meanI[c].at<float>(y, x) * a.at<double>(c);
            }
            out[n].at<float>(y, x) = float(b);
        }
    for (cv::Mat &plane : out)
        plane = boxMean(plane, r);
    return out;
}

// A coefficient plane at guide size as the apply loops look it up: (x / sx, y / sy) with the
// ceilings of the size ratios as factors, the last row or column beyond.
cv::Mat expand(cv::Mat const &coef, cv::Size size) {
    int const sx = int(std::ceil(float(size.width) / float(coef.cols)));
    int const sy = int(std::ceil(float(size.height) / float(coef.rows)));
    cv::Mat out(size, CV_32F);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x)
            out.at<float>(y, x) =
                coef.at<float>(std::min(y / sy, coef.rows - 1), std::min(x / sx, coef.cols - 1));
    return out;
}

// Codes c of `out` stand for c * unit .. c * unit + unit - 1: their centres must lie within a
// rounding (unit / 2) of v clipped to the codes' range, give or take 2e-5 of that range.
void expectCodes(cv::Mat const &out, cv::Mat const &v, double unit, double top) {
    cv::Mat centres;
    out.convertTo(centres, CV_32F, unit, (unit - 1) / 2);
    double const range = (top + 1) * unit - 1;
    EXPECT_LE(maxDiff(centres, cv::min(cv::max(v, 0), range)), unit / 2 + 2e-5 * range);
}

void expectCoefs(Open const &f, Planes const &want) {
    for (std::size_t c = 0; c + 1 < want.size(); ++c)
        EXPECT_LT(maxDiff(f.coefA[c], want[c]), 1e-5) << "a" << c;
    EXPECT_LT(maxDiff(f.coefB, want.back()), 1e-5);
}

TEST(TGFilter, ThrowsItsTexts) {
    std::string const setupCount =
        "ERROR - TGuidedFilter::setup - input vector size is not correct.";
    std::string const procCount = "ERROR - TGuidedFilter::proc - input vector size is not correct.";
    std::string const planes =
        "ERROR - TGuidedFilter::setup - guides and input must be CV_32FC1, guides at least the "
        "input's size.";
    cv::Mat const p = pattern(8, 9, 1), out8(8, 9, CV_8U, cv::Scalar(7));
    cv::Mat out = out8.clone();
    Planes const two(2, p), mixed = {p, p, out8};
    TGFilter f;
    EXPECT_EQ(thrown([&] { f.setup(two, p, 1, 0.01f); }), setupCount);
    EXPECT_EQ(thrown([&] { f.setupFixedR({}, p, 0.01f); }), setupCount);
    EXPECT_EQ(thrown([&] { f.proc(two, out); }), procCount);
    EXPECT_EQ(thrown([&] { f.proc16U({p}, out); }), procCount);
    EXPECT_EQ(maxDiff(out, out8), 0);
    EXPECT_EQ(thrown([&] { f.setup({p(cv::Rect(0, 0, 9, 7))}, p, 1, 0.01f); }), planes);
    EXPECT_EQ(thrown([&] { f.setupFixedR(mixed, p, 0.01f); }), planes);
    f.setup({p}, p, 1, 0.01f);
    EXPECT_EQ(thrown([&] { f.proc(mixed, out); }),
              "ERROR - TGuidedFilter::proc - guides need one depth and size.");
    EXPECT_EQ(thrown([&] { f.stripProc(p, out8, out, 1, 0.01f); }),
              "ERROR - TGuidedFilter::stripProc - inputs must be CV_32FC1 of one size.");
}

// Coefficients against the reference for one and three guides, and every apply loop against
// the model, its codes within a rounding of it give or take 2e-5 of their range. The
// fixed-radius estimate keeps the first call's guide statistics; setup never reads them.
TEST(TGFilter, MatchesPlainReference) {
    for (cv::Size size : {cv::Size(64, 48), cv::Size(33, 7)})
        for (int r : {0, 1, 2, 5})
            for (int n : {1, 3})
                for (int depth : {CV_8U, CV_16U, CV_32F}) {
                    SCOPED_TRACE(testing::Message()
                                 << size << " r " << r << " n " << n << " depth " << depth);
                    double const range = depth == CV_8U ? 255 : depth == CV_16U ? 65535 : 1;
                    cv::Mat const p = pattern(size.height, size.width, 99), p2 = p * 0.7;
                    Planes native(n), unit(n), other;  // guides in their depth, in 0..1, another
                    for (int c = 0; c < n; ++c) {
                        pattern(size.height, size.width, 10 + c).convertTo(native[c], depth, range);
                        native[c].convertTo(unit[c], CV_32F, double(float(1 / range)));
                        other.push_back(unit[c] * 0.5);
                    }
                    Open f;
                    if (r == 1 && depth == CV_32F) {
                        f.setupFixedR(other, p2, 0.03f);
                        expectCoefs(f, reference(other, p2, 1, 0.03f));
                        f.setupFixedR(unit, p, 0.01f);
                        expectCoefs(f, reference(unit, p, 1, 0.01f, other));
                    }
                    f.setup(unit, p, r, 0.01f);
                    Planes const want = reference(unit, p, r, 0.01f);
                    expectCoefs(f, want);
                    cv::Mat s(size, CV_32F, cv::Scalar(0));  // sum of I * a, as the loops add
                    for (int c = 0; c < n; ++c)
                        s += cv::Mat_<float>(native[c]).mul(want[c]);
                    cv::Mat const v = s / float(range) + want[n];  // the model in 0..1
                    cv::Mat out8(size, CV_8U), out(size, n == 1 ? CV_32F : CV_16U);
                    f.proc(native, out8);
                    if (n == 1) {
                        f.proc(native, out);
                        EXPECT_LT(maxDiff(out, v), 1e-5);
                        expectCodes(out8,
                                    depth == CV_16U ? s / 255.0f + want[n] * 255.0f : v * 255.0f, 1,
                                    255);
                        continue;
                    }
                    f.proc16U(native, out);
                    bool const narrow = depth == CV_8U, high = depth == CV_16U;
                    expectCodes(out8, v * (high ? 65535.0f : 255.0f), high ? 256 : 1, 255);
                    EXPECT_TRUE(!narrow || cv::countNonZero(out & cv::Scalar(255)) == 0);
                    expectCodes(narrow ? cv::Mat(out / 256) : out, v * (narrow ? 255.0f : 65535.0f),
                                1, narrow ? 255 : 65535);
                }
}

// The target as its own guide with eps = 0 gives a = 1 and b = 0 exactly: eps is not scaled
// and nothing is clamped. A copy takes the coefficients; an empty target leaves none.
TEST(TGFilter, SettledIdentities) {
    cv::Mat const p = pattern(21, 30, 5);
    cv::Mat out(p.size(), CV_32F), untouched(3, 3, CV_8U, cv::Scalar(9));
    TGFilter f;
    f.setup({p}, p, 3, 0.0f);
    TGFilter copied(f);
    copied.proc({p}, out);
    EXPECT_EQ(maxDiff(out, p), 0);
    f.setup({cv::Mat()}, cv::Mat(), 2, 0.05f);
    copied = f;
    copied.proc({cv::Mat(3, 3, CV_8U, cv::Scalar(1))}, untouched);
    EXPECT_EQ(cv::countNonZero(untouched != 9), 0);
}

TEST(TGFilter, ApplyLoopsLookUpByCeilingFactorsAndRoundByDepth) {
    cv::Mat const a = kxtest::noise(5, 4, CV_32F, 7, 0.0, 1.0);
    cv::Mat const b = kxtest::noise(5, 4, CV_32F, 8, -0.2, 0.2);
    // 11x9 against 4x5: factors ceil(2.75) = 3 and ceil(1.8) = 2; columns 0..3, rows 0..4.
    for (cv::Size size : {cv::Size(8, 10), cv::Size(11, 9), cv::Size(3, 2)}) {
        cv::Mat const guide = pattern(size.height, size.width, 2);
        cv::Mat out(size, CV_32F);
        Open({a}, b).proc({guide}, out);
        EXPECT_EQ(maxDiff(out, guide.mul(expand(a, size)) + expand(b, size)), 0) << size;
    }
    // A 16-bit guide into 8 bits: rint, ties to even, of I * a / 255 + b * 255, saturated.
    Open f({cv::Mat_<float>(2, 3, 0.5f)}, (cv::Mat_<float>(2, 3) << 0, 0, 0, 0, 0, 1));
    cv::Mat const g16 = (cv::Mat_<std::uint16_t>(2, 3) << 0, 255, 765, 1000, 65535, 383);
    cv::Mat out8(2, 3, CV_8U), out16(2, 3, CV_16U, cv::Scalar(77));
    f.proc({g16}, out8);
    EXPECT_EQ(cv::countNonZero(out8 != (cv::Mat_<std::uint8_t>(2, 3) << 0, 0, 2, 2, 128, 255)), 0);
    f.proc({g16}, out16);  // a 16-bit out is left as it was
    EXPECT_EQ(cv::countNonZero(out16 != 77), 0);
    cv::Mat const g16s(2, 3, CV_16S, cv::Scalar(-5));
    f.proc({g16s}, out8);  // a guide of another depth is copied
    EXPECT_TRUE(out8.type() == CV_16S && maxDiff(out8, g16s) == 0);

    cv::Mat const half = cv::Mat_<float>(2, 2, 0.5f), g = cv::Mat_<float>(2, 2, 0.2f);
    Open three({half, half, half}, cv::Mat_<float>(2, 2, 0.1f));
    cv::Mat_<std::uint16_t> two(2, 2, 0xFFFF);
    three.proc({g, g, g}, two);  // two bytes of (0.2 * 0.5 * 3 + 0.1) * 255 = 102, whatever out
    EXPECT_TRUE(two(1, 0) == 102 * 257 && two(1, 1) == 0xFFFF);
    three.proc16U({g, g, g}, two);
    EXPECT_EQ(two(1, 1), 26214);  // 0.4 * 65535 = 26214

    // A guide one pixel wider than twice 2^23 coefficients: the float ratio rounds down to 2,
    // leaving a right-strip column, where the 16-bit loop of a float guide clips to 8 bits.
    int const coefCols = 1 << 23, cols = 2 * coefCols + 1;
    cv::Mat const zero = cv::Mat_<float>(1, coefCols, 0.0f), wide = cv::Mat_<float>(1, cols, 0.0f);
    cv::Mat last = cv::Mat_<float>(1, coefCols, 0.5f), strip16, strip8(1, cols, CV_8U);
    last.at<float>(0, coefCols - 1) = 0.25f;
    Open({zero, zero, zero}, last).proc16U({wide, wide, wide}, strip16);
    ASSERT_EQ(strip16.cols, cols);
    EXPECT_EQ(strip16.at<std::uint16_t>(0, 0), 32768);         // rint(0.5 * 65535)
    EXPECT_EQ(strip16.at<std::uint16_t>(0, cols - 2), 16384);  // the last coefficient
    EXPECT_EQ(strip16.at<std::uint16_t>(0, cols - 1), 255);    // clipped to 8 bits
    Open({zero}, last).proc({wide}, strip8);
    EXPECT_EQ(strip8.at<std::uint8_t>(0, cols - 1), 64);  // rint(0.25 * 255)

    // The alternative apply: coefficients resampled bicubically, the guides taken unscaled.
    cv::Mat const guide = pattern(12, 10, 6);
    cv::Mat out, aUp, bUp;
    Open({a, a, a}, b).gFc3_apply({guide, guide, guide}, out);
    cv::resize(a, aUp, guide.size(), 0, 0, cv::INTER_CUBIC);
    cv::resize(b, bUp, guide.size(), 0, 0, cv::INTER_CUBIC);
    EXPECT_LT(maxDiff(out, bUp + 3 * aUp.mul(guide)), 1e-4);
}

// The one-pass filter of blocks without padding: only windows inside the image count, results
// land 2r further right and down, and a 4r frame keeps p (all of it when no inner area is left).
cv::Mat stripReference(cv::Mat const &I, cv::Mat const &p, int r, float eps) {
    cv::Mat const mi = boxMean(I, r), mp = boxMean(p, r);
    cv::Mat const a =
        (boxMean(I.mul(p), r) - mi.mul(mp)) / (boxMean(I.mul(I), r) - mi.mul(mi) + eps);
    cv::Mat const filtered = boxMean(mp - a.mul(mi), r) + I.mul(boxMean(a, r));
    cv::Mat q = p.clone();
    if (4 * r >= std::min(p.rows, p.cols)) return q;
    cv::Rect const inner(4 * r, 4 * r, p.cols - 8 * r, p.rows - 8 * r);
    filtered(inner - cv::Point(2 * r, 2 * r)).copyTo(q(inner));
    return q;
}

TEST(TGFilter, StripProcMatchesBlockReferenceAndStripHeightRule) {
    // One strip; 1208 rows with r = 2: three strips of 600, the last with no output rows; a
    // frame with no inner area; r = 0 (a = 0, b = p, no frame), where q is p exactly.
    int const cases[][3] = {{30, 40, 2}, {1208, 1900, 2}, {7, 30, 2}, {10, 12, 0}};
    for (auto const [rows, cols, r] : cases) {
        cv::Mat const I = pattern(rows, cols, 1), p = pattern(rows, cols, 2);
        cv::Mat q(rows, cols, CV_32F, cv::Scalar(-1));
        TGFilter().stripProc(I, p, q, r, 0.01f);
        EXPECT_LE(maxDiff(q, stripReference(I, p, r, 0.01f)), r ? 1e-5 : 0) << rows << "x" << cols;
    }
    // Strips of 600 rows from 2250000 pixels on, unless there are fewer rows.
    EXPECT_EQ(Open().checkBlkSz(1000, 2249), 2249);
    EXPECT_EQ(Open().checkBlkSz(3750, 600), 600);
    EXPECT_EQ(Open().checkBlkSz(1500, 1500), 600);
    EXPECT_EQ(Open().checkBlkSz(100000, 599), 599);
}

}  // namespace
