// Tests of TGFilter against the plain guided filter of tests/support, and of the apply
// loops' lookup and formulas with coefficients set by hand.
#include "kestrix1/filters/tg_filter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "tests/support/guided_reference.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using Planes = std::vector<cv::Mat>;

// Opens the protected members to the tests.
struct Open : TGFilter {
    using TGFilter::calcov2;
    using TGFilter::calvar2;
    using TGFilter::checkBlkSz;
    using TGFilter::coefA;
    using TGFilter::coefB;
    using TGFilter::gFc1_apply;
    using TGFilter::gFc3_apply;
    using TGFilter::guideCov;
    using TGFilter::guideMean;

    // Coefficients set by hand: a[k] and b planes.
    void set(Planes const &a, cv::Mat const &b) {
        for (std::size_t k = 0; k < a.size(); ++k)
            coefA[k] = a[k].clone();
        coefB = b.clone();
    }
    kxtest::GuidedCoefs coefs(int n) const { return {Planes(coefA, coefA + n), coefB}; }
};

using kxtest::thrown;

// A float plane in 0..1 with edges, gradients and texture.
cv::Mat pattern(int rows, int cols, std::uint64_t seed) {
    cv::Mat const ramp = kxtest::ramp(rows, cols, CV_32F);
    cv::Mat const edge = kxtest::stepEdge(rows, cols, CV_32F, 0.1, 0.8, cols / 3);
    cv::Mat const grain = kxtest::noise(rows, cols, CV_32F, seed, 0.0, 1.0);
    return 0.4 * ramp + 0.3 * edge + 0.3 * grain;
}

// The plane in `depth` (0..255, 0..65535 or 0..1) and its float image in 0..1 as the host
// entry points make it.
struct Guide {
    cv::Mat native, unit;
};
Guide guideIn(cv::Mat const &f, int depth) {
    Guide g;
    double const range = depth == CV_8U ? 255 : depth == CV_16U ? 65535 : 1;
    f.convertTo(g.native, depth, range);
    g.native.convertTo(g.unit, CV_32F, double(float(1.0 / range)));
    return g;
}

// Outputs may differ from the reference by this much in 0..1 units: a coefficient error of
// 1e-5 in a and in b.
constexpr double kTol = 2e-5;

double maxDiff(cv::Mat const &a, cv::Mat const &b) {
    return cv::norm(a, b, cv::NORM_INF);
}

// Each integer code c of `out`, times `unit`, must be a rounding of v within tol: v lies in
// [c * unit - 0.5, (c + 1) * unit - 0.5] widened by tol, open-ended at 0 and at `top`.
void expectCodes(cv::Mat const &out, cv::Mat const &v, double unit, double top, double tol) {
    cv::Mat codes;
    out.convertTo(codes, CV_64F);
    int wrong = 0;
    for (int y = 0; y < v.rows; ++y)
        for (int x = 0; x < v.cols; ++x) {
            double const c = codes.at<double>(y, x), value = v.at<float>(y, x);
            double const lo = c == 0 ? -1e30 : c * unit - 0.5 - tol;
            double const hi = c == top ? 1e30 : (c + 1) * unit - 0.5 + tol;
            wrong += value < lo || value > hi;
        }
    EXPECT_EQ(wrong, 0);
}

TEST(TGFilterErrors, GuideCountsAndPlanesAreChecked) {
    std::string const setupText =
        "ERROR - TGuidedFilter::setup - input vector size is not correct.";
    std::string const procText = "ERROR - TGuidedFilter::proc - input vector size is not correct.";
    cv::Mat const p = pattern(8, 9, 1), out8(8, 9, CV_8U, cv::Scalar(7));
    TGFilter f;
    for (int n : {0, 2, 4}) {
        Planes const guides(n, p);
        cv::Mat out = out8.clone();
        EXPECT_EQ(thrown([&] { f.setup(guides, p, 1, 0.01f); }), setupText);
        EXPECT_EQ(thrown([&] { f.setupFixedR(guides, p, 0.01f); }), setupText);
        EXPECT_EQ(thrown([&] { f.proc(guides, out); }), procText);
        EXPECT_EQ(thrown([&] { f.proc16U(guides, out); }), procText);
        EXPECT_EQ(maxDiff(out, out8), 0);
    }
    cv::Mat out = out8.clone();
    EXPECT_EQ(thrown([&] { f.proc16U({p}, out); }), procText);
    // Guides the estimate cannot read through p's rows, and mixed guides in proc.
    std::string const planes =
        "ERROR - TGuidedFilter::setup - guides and input must be CV_32FC1, guides at least the "
        "input's size.";
    EXPECT_EQ(thrown([&] { f.setup({p(cv::Rect(0, 0, 9, 7))}, p, 1, 0.01f); }), planes);
    EXPECT_EQ(thrown([&] { f.setup({out8}, p, 1, 0.01f); }), planes);
    EXPECT_EQ(thrown([&] { f.setupFixedR({p, p, out8}, p, 0.01f); }), planes);
    f.setup({p}, p, 1, 0.01f);
    EXPECT_EQ(thrown([&] {
                  f.proc({p, p, out8}, out);
              }),
              "ERROR - TGuidedFilter::proc - guides need one depth and size.");
    EXPECT_EQ(thrown([&] { f.stripProc(p, out8, out, 1, 0.01f); }),
              "ERROR - TGuidedFilter::stripProc - inputs must be CV_32FC1 of one size.");
}

// Coefficients and every output depth against the reference, for one and three guide
// planes of each depth.
TEST(TGFilterEstimate, MatchesPlainReference) {
    for (cv::Size size : {cv::Size(64, 48), cv::Size(33, 7)})
        for (int r : {0, 1, 2, 5})
            for (int n : {1, 3})
                for (int depth : {CV_8U, CV_16U, CV_32F}) {
                    SCOPED_TRACE(::testing::Message()
                                 << size << " r " << r << " guides " << n << " depth " << depth);
                    cv::Mat const p = pattern(size.height, size.width, 99);
                    Planes native, unit;
                    for (int c = 0; c < n; ++c) {
                        Guide const g = guideIn(pattern(size.height, size.width, 10 + c), depth);
                        native.push_back(g.native);
                        unit.push_back(g.unit);
                    }
                    float const eps = 0.01f;
                    Open f;
                    f.setup(unit, p, r, eps);
                    kxtest::GuidedCoefs const want = kxtest::guidedReference(unit, p, r, eps);
                    for (int c = 0; c < n; ++c)
                        EXPECT_LT(maxDiff(f.coefA[c], want.a[c]), 1e-5);
                    EXPECT_LT(maxDiff(f.coefB, want.b), 1e-5);

                    cv::Mat const s = kxtest::modelSum(native, want), b = want.b;
                    double const range = depth == CV_8U ? 255 : depth == CV_16U ? 65535 : 1;
                    // v in 0..1: the model on the normalised guide.
                    cv::Mat const v = s / float(range) + b;
                    if (n == 1) {
                        cv::Mat out32(size, CV_32F), out8(size, CV_8U);
                        f.proc(native, out32);
                        f.proc(native, out8);
                        EXPECT_LT(maxDiff(out32, v), 1e-5);
                        // The 16-bit guide into 8 bits divides by 255 only.
                        cv::Mat const v8 = depth == CV_16U ? cv::Mat(s / 255.0f + b * 255.0f)
                                                           : cv::Mat(v * 255.0f);
                        expectCodes(out8, v8, 1, 255, kTol * 255);
                    } else {
                        cv::Mat out8(size, CV_8U), out16(size, CV_16U);
                        f.proc(native, out8);
                        f.proc16U(native, out16);
                        double const tol = kTol;
                        if (depth == CV_16U)
                            expectCodes(out8, v * 65535.0f, 256, 255, tol * 65535);
                        else
                            expectCodes(out8, v * 255.0f, 1, 255, tol * 255);
                        if (depth == CV_8U) {
                            cv::Mat high = out16 / 256, low = out16 - high * 256;
                            EXPECT_EQ(cv::countNonZero(low), 0);
                            expectCodes(high, v * 255.0f, 1, 65535, tol * 255);
                        } else {
                            expectCodes(out16, v * 65535.0f, 1, 65535, tol * 65535);
                        }
                    }
                }
}

TEST(TGFilterEstimate, SettledIdentities) {
    cv::Mat const p = pattern(21, 30, 5);
    cv::Mat const flat(21, 30, CV_32F, cv::Scalar(0.25));
    TGFilter f;
    cv::Mat out(p.size(), CV_32F);
    // r = 0: the window is the pixel, a = 0 and b = p.
    f.setup({flat + p * 0.5}, p, 0, 1e-3f);
    f.proc({flat + p * 0.5}, out);
    EXPECT_EQ(maxDiff(out, p), 0);
    // The target as its own guide with eps = 0: a = 1 and b = 0 on a textured plane.
    f.setup({p}, p, 3, 0.0f);
    f.proc({p}, out);
    EXPECT_EQ(maxDiff(out, p), 0);
    // Three equal guide planes with eps > 0: the three a come out equal.
    Open g;
    g.setup({p, p, p}, p * 0.5, 2, 0.05f);
    EXPECT_LT(maxDiff(g.coefA[0], g.coefA[1]), 1e-6);
    EXPECT_LT(maxDiff(g.coefA[0], g.coefA[2]), 1e-6);
    // Empty target: empty coefficients, and proc leaves out alone.
    g.setup({cv::Mat()}, cv::Mat(), 2, 0.05f);
    cv::Mat untouched(3, 3, CV_8U, cv::Scalar(9));
    g.proc({cv::Mat(3, 3, CV_8U, cv::Scalar(1))}, untouched);
    EXPECT_EQ(cv::countNonZero(untouched != 9), 0);
}

// The fixed-radius estimate is the r = 1 estimate, and keeps the first guide's statistics.
TEST(TGFilterEstimate, FixedRadiusKeepsTheFirstGuidesStatistics) {
    cv::Mat const p = pattern(19, 26, 3), p2 = pattern(19, 26, 4);
    for (int n : {1, 3}) {
        SCOPED_TRACE(n);
        Planes first, second;
        for (int c = 0; c < n; ++c) {
            first.push_back(pattern(19, 26, 20 + c));
            second.push_back(pattern(19, 26, 30 + c) * 0.5);
        }
        Open fixed, plain;
        fixed.setupFixedR(first, p, 0.02f);
        plain.setup(first, p, 1, 0.02f);
        for (int c = 0; c < n; ++c)
            EXPECT_LT(maxDiff(fixed.coefA[c], plain.coefA[c]), 1e-6);
        EXPECT_LT(maxDiff(fixed.coefB, plain.coefB), 1e-6);
        EXPECT_FALSE(fixed.guideMean[0].empty());
        EXPECT_FALSE(fixed.guideCov[n == 1 ? 0 : 5].empty());

        // Another guide, target and eps: means and covariances still of the first guide.
        fixed.setupFixedR(second, p2, 0.03f);
        kxtest::GuidedCoefs const want = kxtest::guidedReference(second, p2, 1, 0.03f, first);
        for (int c = 0; c < n; ++c)
            EXPECT_LT(maxDiff(fixed.coefA[c], want.a[c]), 1e-5);
        EXPECT_LT(maxDiff(fixed.coefB, want.b), 1e-5);
        // setup reads no cache.
        plain.setup(second, p2, 1, 0.03f);
        EXPECT_GT(maxDiff(fixed.coefB, plain.coefB), 1e-3);
    }
}

// Apply loops with coefficients set by hand.
TEST(TGFilterApply, LooksUpCoefficientsByCeilingFactors) {
    cv::Mat const a = kxtest::noise(5, 4, CV_32F, 7, 0.0, 1.0);
    cv::Mat const b = kxtest::noise(5, 4, CV_32F, 8, -0.2, 0.2);
    Open f;
    f.set({a}, b);
    // Twice the size: each coefficient serves a 2x2 square. 11x9 against 4x5: factors
    // ceil(2.75) = 3 and ceil(1.8) = 2, so columns 0..3 and rows 0..4 are used.
    for (cv::Size size : {cv::Size(8, 10), cv::Size(11, 9), cv::Size(3, 2)}) {
        SCOPED_TRACE(size);
        cv::Mat const guide = pattern(size.height, size.width, 2);
        cv::Mat out;
        out.create(size, CV_32F);
        f.proc({guide}, out);
        cv::Mat const want = guide.mul(kxtest::expand(a, size)) + kxtest::expand(b, size);
        EXPECT_EQ(maxDiff(out, want), 0);
    }
    cv::Mat out(10, 8, CV_32F);
    f.proc({pattern(10, 8, 2)}, out);
    EXPECT_EQ(out.at<float>(3, 5),
              pattern(10, 8, 2).at<float>(3, 5) * a.at<float>(1, 2) + b.at<float>(1, 2));
}

TEST(TGFilterApply, DepthRulesOfOneGuide) {
    Open f;
    f.set({cv::Mat(2, 3, CV_32F, cv::Scalar(1.0))}, cv::Mat(2, 3, CV_32F, cv::Scalar(0.0)));
    cv::Mat const g16 = (cv::Mat_<std::uint16_t>(2, 3) << 0, 127, 128, 1000, 65535, 383);
    // 16-bit guide into 8 bits: I / 255, which saturates well below the 16-bit top.
    cv::Mat out8(2, 3, CV_8U);
    f.proc({g16}, out8);
    EXPECT_EQ(cv::countNonZero(out8 != (cv::Mat_<std::uint8_t>(2, 3) << 0, 0, 1, 4, 255, 2)), 0);
    // An 8-bit guide: rint, ties to even, of I * a + b * 255 (a = 0.5 here).
    Open half;
    half.set({cv::Mat(1, 4, CV_32F, cv::Scalar(0.5))}, cv::Mat(1, 4, CV_32F, cv::Scalar(0.0)));
    cv::Mat ties(1, 4, CV_8U);
    half.proc({cv::Mat((cv::Mat_<std::uint8_t>(1, 4) << 5, 7, 1, 255))}, ties);
    EXPECT_EQ(cv::countNonZero(ties != (cv::Mat_<std::uint8_t>(1, 4) << 2, 4, 0, 128)), 0);
    // Into float: I / 65535.
    cv::Mat out32(2, 3, CV_32F);
    f.proc({g16}, out32);
    EXPECT_FLOAT_EQ(out32.at<float>(1, 0), 1000.0f / 65535.0f);
    // A 16-bit out is left as it was; a guide of another depth is copied.
    cv::Mat out16(2, 3, CV_16U, cv::Scalar(77));
    f.proc({g16}, out16);
    EXPECT_EQ(cv::countNonZero(out16 != 77), 0);
    cv::Mat const g16s(2, 3, CV_16S, cv::Scalar(-5));
    f.proc({g16s}, out8);
    EXPECT_EQ(out8.type(), CV_16S);
    EXPECT_EQ(maxDiff(out8, g16s), 0);
    // Before any estimate proc does nothing.
    TGFilter empty;
    cv::Mat keep(2, 3, CV_8U, cv::Scalar(3));
    empty.proc({g16}, keep);
    EXPECT_EQ(cv::countNonZero(keep != 3), 0);
}

TEST(TGFilterApply, ThreeGuidesWriteBytesThroughAnyOut) {
    Open f;
    cv::Mat const half(2, 2, CV_32F, cv::Scalar(0.5));
    f.set({half, half, half}, cv::Mat(2, 2, CV_32F, cv::Scalar(0.1)));
    cv::Mat const g(2, 2, CV_32F, cv::Scalar(0.2));
    // (0.2 * 0.5 * 3 + 0.1) * 255 = 102.
    cv::Mat out16(2, 2, CV_16U, cv::Scalar(0xFFFF));
    f.proc({g, g, g}, out16);
    ASSERT_EQ(out16.type(), CV_16U);
    for (int y = 0; y < 2; ++y) {
        std::uint8_t const *bytes = out16.ptr(y);
        EXPECT_EQ(bytes[0], 102);
        EXPECT_EQ(bytes[1], 102);
        EXPECT_EQ(bytes[2], 0xFF);
    }
    f.proc16U({g, g, g}, out16);
    EXPECT_EQ(out16.at<std::uint16_t>(1, 1), 26214);  // 0.4 * 65535 = 26214
}

// A guide one pixel wider than twice 2^23 coefficients: the float ratio rounds down to 2,
// leaving one right-strip column that reads the last coefficient. There the 16-bit loop of a
// float guide clips to 8 bits.
TEST(TGFilterApply, RightStripOfHugeGuides) {
    int const coefCols = 1 << 23, cols = 2 * coefCols + 1;
    Open f;
    cv::Mat const zero(1, coefCols, CV_32F, cv::Scalar(0.0));
    cv::Mat b(1, coefCols, CV_32F, cv::Scalar(0.5));
    b.at<float>(0, coefCols - 1) = 0.25f;
    f.set({zero, zero, zero}, b);
    cv::Mat const g(1, cols, CV_32F, cv::Scalar(0.0));
    cv::Mat out;
    f.proc16U({g, g, g}, out);
    ASSERT_EQ(out.cols, cols);
    EXPECT_EQ(out.at<std::uint16_t>(0, 0), 32768);         // rint(0.5 * 65535)
    EXPECT_EQ(out.at<std::uint16_t>(0, cols - 2), 16384);  // the last coefficient
    EXPECT_EQ(out.at<std::uint16_t>(0, cols - 1), 255);    // clipped to 8 bits
    Open one;
    one.set({zero}, b);
    cv::Mat out8(1, cols, CV_8U);
    one.proc({g}, out8);
    EXPECT_EQ(out8.at<std::uint8_t>(0, cols - 1), 64);  // rint(0.25 * 255)
}

TEST(TGFilterApply, ResampledAlternativeIsTheBicubicModel) {
    Open f;
    cv::Mat const a = kxtest::noise(6, 5, CV_32F, 1, 0.0, 1.0), b = 0.5 * a;
    f.set({a, a, a}, b);
    cv::Mat const g = pattern(12, 10, 6);
    cv::Mat out1, out3, aUp, bUp;
    f.gFc1_apply(g, out1);
    f.gFc3_apply({g, g, g}, out3);
    cv::resize(a, aUp, g.size(), 0, 0, cv::INTER_CUBIC);
    cv::resize(b, bUp, g.size(), 0, 0, cv::INTER_CUBIC);
    EXPECT_LT(maxDiff(out1, bUp + aUp.mul(g)), 1e-4);
    EXPECT_LT(maxDiff(out3, bUp + 3 * aUp.mul(g)), 1e-4);
}

// The one-pass filter of blocks without padding: windows stay inside the image, results
// land 2r further right and down, and a 4r frame keeps p.
// Means of the windows centred at [r, rows - r) x [r, cols - r), by separable sums in
// double; other entries 0.
cv::Mat windowMeans(cv::Mat const &x, int r) {
    cv::Mat rowSums(x.size(), CV_64F, cv::Scalar(0)), means(x.size(), CV_32F, cv::Scalar(0));
    for (int y = 0; y < x.rows; ++y)
        for (int c = r; c < x.cols - r; ++c)
            for (int i = -r; i <= r; ++i)
                rowSums.at<double>(y, c) += x.at<float>(y, c + i);
    for (int y = r; y < x.rows - r; ++y)
        for (int c = r; c < x.cols - r; ++c) {
            double s = 0;
            for (int j = -r; j <= r; ++j)
                s += rowSums.at<double>(y + j, c);
            means.at<float>(y, c) = float(s / ((2 * r + 1) * (2 * r + 1)));
        }
    return means;
}

// The one-pass filter of blocks without padding: windows stay inside the image, results
// land 2r further right and down, and a 4r frame keeps p.
cv::Mat stripReference(cv::Mat const &I, cv::Mat const &p, int r, float eps) {
    cv::Mat const mi = windowMeans(I, r), mp = windowMeans(p, r);
    cv::Mat const var = windowMeans(I.mul(I), r) - mi.mul(mi) + eps;
    cv::Mat const a = (windowMeans(I.mul(p), r) - mi.mul(mp)) / var;
    cv::Mat const b = mp - a.mul(mi);
    cv::Mat const window(p.size(), CV_32F, cv::Scalar(0));
    cv::Rect const inner(r, r, p.cols - 2 * r, p.rows - 2 * r);
    cv::Mat innerA = window.clone(), innerB = window.clone();
    a(inner).copyTo(innerA(inner));
    b(inner).copyTo(innerB(inner));
    cv::Mat const filtered = windowMeans(innerB, r) + I.mul(windowMeans(innerA, r));
    int const m = 4 * r;
    cv::Mat q = p.clone();
    cv::Rect const to(m, m, p.cols - 2 * m, p.rows - 2 * m);
    filtered(to - cv::Point(2 * r, 2 * r)).copyTo(q(to));
    return q;
}

TEST(TGFilterStripProc, MatchesBlockReferenceAcrossStrips) {
    // One strip; then 1208 rows with r = 2: three strips of 600, the last with no output
    // rows, since 1208 - 8 is a multiple of 600.
    for (cv::Size size : {cv::Size(40, 30), cv::Size(1900, 1208)}) {
        SCOPED_TRACE(size);
        int const r = 2;
        cv::Mat const I = pattern(size.height, size.width, 1),
                      p = pattern(size.height, size.width, 2);
        cv::Mat q(size, CV_32F, cv::Scalar(-1));
        TGFilter().stripProc(I, p, q, r, 0.01f);
        EXPECT_LT(maxDiff(q, stripReference(I, p, r, 0.01f)), 1e-5);
    }
    // A frame that leaves no inner area, and r = 0 (a 1 x 1 window, a = 0, b = p, no frame
    // and an empty last strip): q is p either way.
    cv::Mat const p = pattern(7, 30, 3), p0 = pattern(10, 12, 4);
    cv::Mat q(p.size(), CV_32F), q0(p0.size(), CV_32F, cv::Scalar(-1));
    TGFilter().stripProc(p, p, q, 2, 0.01f);
    EXPECT_EQ(maxDiff(q, p), 0);
    TGFilter().stripProc(pattern(10, 12, 1), p0, q0, 0, 0.01f);
    EXPECT_EQ(maxDiff(q0, p0), 0);
}

// The statistics helpers on replicate-padded planes, into a plain plane and into the inside
// of a padded one; and the strip height rule.
TEST(TGFilterObject, StatisticsHelpersAndStripHeight) {
    int const r = 2;
    cv::Mat const I = pattern(11, 14, 1), p = pattern(11, 14, 2);
    cv::Mat Ip, pp;
    cv::copyMakeBorder(I, Ip, r, r, r, r, cv::BORDER_REPLICATE);
    cv::copyMakeBorder(p, pp, r, r, r, r, cv::BORDER_REPLICATE);
    cv::Mat const meanI = kxtest::boxMean(I, r), meanP = kxtest::boxMean(p, r);
    IppiSize const padSize{Ip.cols, Ip.rows}, size{I.cols, I.rows}, mask{2 * r + 1, 2 * r + 1};
    IppiPoint const anchor{r, r};
    Open f;
    cv::Mat cov(Ip.size(), CV_32F, cv::Scalar(-9)), var, tmpA, tmpB;
    f.calcov2(cov, Ip, pp, meanI, meanP, tmpA, tmpB, padSize, size, mask, anchor, true);
    f.calvar2(var, Ip, meanI, tmpA, tmpB, padSize, size, mask, anchor, false);
    cv::Rect const inner(r, r, I.cols, I.rows);
    EXPECT_LT(maxDiff(cov(inner), kxtest::boxMean(I.mul(p), r) - meanI.mul(meanP)), 1e-6);
    EXPECT_EQ(cov.at<float>(0, 0), -9);
    EXPECT_LT(maxDiff(var, kxtest::boxMean(I.mul(I), r) - meanI.mul(meanI)), 1e-6);

    EXPECT_EQ(f.checkBlkSz(1000, 2249), 2249);  // under 2250000 pixels
    EXPECT_EQ(f.checkBlkSz(3750, 600), 600);
    EXPECT_EQ(f.checkBlkSz(1500, 1500), 600);
    EXPECT_EQ(f.checkBlkSz(100000, 599), 599);  // fewer rows than a strip
}

TEST(TGFilterObject, CopiesSharePlanes) {
    Open f;
    cv::Mat const p = pattern(9, 8, 1);
    f.setupFixedR({p}, p, 0.01f);
    Open g;
    static_cast<TGFilter &>(g) = f;
    Open const h(f);
    EXPECT_EQ(g.coefA[0].data, f.coefA[0].data);
    EXPECT_EQ(h.coefB.data, f.coefB.data);
    EXPECT_EQ(h.guideMean[0].data, f.guideMean[0].data);
    EXPECT_TRUE(Open().coefB.empty());
}

}  // namespace
