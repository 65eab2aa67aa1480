// Tests of TGFilter against the plain guided filter of tests/support, and of the apply loops'
// lookup and rounding with coefficients set by hand.
#include "kestrix1/filters/tg_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "tests/support/guided_reference.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::boxMean;
using kxtest::thrown;
using Planes = std::vector<cv::Mat>;

// Opens the protected members to the tests; coefficients may be set by hand.
struct Open : TGFilter {
    using TGFilter::checkBlkSz;
    using TGFilter::coefA;
    using TGFilter::coefB;
    using TGFilter::gFc1_apply;
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

cv::Mat filled(int rows, int cols, double v) {
    return cv::Mat(rows, cols, CV_32F, cv::Scalar(v));
}

double maxDiff(cv::Mat const &a, cv::Mat const &b) {
    return cv::norm(a, b, cv::NORM_INF);
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

void expectCoefs(Open const &f, kxtest::GuidedCoefs const &want) {
    for (std::size_t c = 0; c < want.a.size(); ++c)
        EXPECT_LT(maxDiff(f.coefA[c], want.a[c]), 1e-5) << "a" << c;
    EXPECT_LT(maxDiff(f.coefB, want.b), 1e-5);
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
    Planes const mixed = {p, p, out8};
    TGFilter f;
    for (int n : {0, 2, 4}) {
        Planes const guides(n, p);
        EXPECT_EQ(thrown([&] { f.setup(guides, p, 1, 0.01f); }), setupCount);
        EXPECT_EQ(thrown([&] { f.setupFixedR(guides, p, 0.01f); }), setupCount);
        EXPECT_EQ(thrown([&] { f.proc(guides, out); }), procCount);
        EXPECT_EQ(thrown([&] { f.proc16U(guides, out); }), procCount);
    }
    EXPECT_EQ(thrown([&] { f.proc16U({p}, out); }), procCount);
    EXPECT_EQ(maxDiff(out, out8), 0);
    // Guides the estimate cannot read through p's rows, and mixed guides in proc.
    EXPECT_EQ(thrown([&] { f.setup({p(cv::Rect(0, 0, 9, 7))}, p, 1, 0.01f); }), planes);
    EXPECT_EQ(thrown([&] { f.setup({out8}, p, 1, 0.01f); }), planes);
    EXPECT_EQ(thrown([&] { f.setupFixedR(mixed, p, 0.01f); }), planes);
    f.setup({p}, p, 1, 0.01f);
    EXPECT_EQ(thrown([&] { f.proc(mixed, out); }),
              "ERROR - TGuidedFilter::proc - guides need one depth and size.");
    EXPECT_EQ(thrown([&] { f.stripProc(p, out8, out, 1, 0.01f); }),
              "ERROR - TGuidedFilter::stripProc - inputs must be CV_32FC1 of one size.");
}

// Coefficients and every output depth against the reference, for one and three guide planes
// of each depth; outputs may differ from the model by 2e-5 of their range. The fixed-radius
// estimate is the r = 1 estimate and keeps the first guide's statistics for every later
// guide, target and eps, which setup never reads.
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
                    f.setup(unit, p, r, 0.01f);
                    kxtest::GuidedCoefs const want = kxtest::guidedReference(unit, p, r, 0.01f);
                    expectCoefs(f, want);
                    if (r == 1 && depth == CV_32F) {
                        Open fixed;
                        fixed.setupFixedR(unit, p, 0.01f);
                        expectCoefs(fixed, want);
                        fixed.setupFixedR(other, p2, 0.03f);
                        expectCoefs(fixed, kxtest::guidedReference(other, p2, 1, 0.03f, unit));
                        fixed.setup(other, p2, 1, 0.03f);
                        expectCoefs(fixed, kxtest::guidedReference(other, p2, 1, 0.03f));
                    }
                    cv::Mat s(size, CV_32F, cv::Scalar(0)), g;  // sum of I * a, as the loops add
                    for (int c = 0; c < n; ++c) {
                        native[c].convertTo(g, CV_32F);
                        s += g.mul(want.a[c]);
                    }
                    cv::Mat const v = s / float(range) + want.b;  // the model in 0..1
                    cv::Mat out8(size, CV_8U), out(size, n == 1 ? CV_32F : CV_16U);
                    f.proc(native, out8);
                    if (n == 1) {
                        f.proc(native, out);
                        EXPECT_LT(maxDiff(out, v), 1e-5);
                        // The 16-bit guide into 8 bits divides by 255 only.
                        expectCodes(out8,
                                    depth == CV_16U ? s / 255.0f + want.b * 255.0f : v * 255.0f, 1,
                                    255);
                        continue;
                    }
                    f.proc16U(native, out);
                    bool const narrow = depth == CV_8U, high = depth == CV_16U;
                    expectCodes(out8, v * (high ? 65535.0f : 255.0f), high ? 256 : 1, 255);
                    // 8-bit guides give the 8-bit value shifted up.
                    EXPECT_TRUE(!narrow || cv::countNonZero(out & cv::Scalar(255)) == 0);
                    expectCodes(narrow ? cv::Mat(out / 256) : out, v * (narrow ? 255.0f : 65535.0f),
                                1, narrow ? 255 : 65535);
                }
}

TEST(TGFilter, SettledIdentities) {
    cv::Mat const p = pattern(21, 30, 5), guide = filled(21, 30, 0.25) + p * 0.5;
    cv::Mat out(p.size(), CV_32F), untouched(3, 3, CV_8U, cv::Scalar(9));
    TGFilter f;
    f.setup({guide}, p, 0, 1e-3f);  // r = 0: the window is the pixel, a = 0 and b = p
    f.proc({guide}, out);
    EXPECT_EQ(maxDiff(out, p), 0);
    f.setup({p}, p, 3, 0.0f);  // the target as its own guide with eps = 0: a = 1 and b = 0
    f.proc({p}, out);
    EXPECT_EQ(maxDiff(out, p), 0);
    f.setup({cv::Mat()}, cv::Mat(), 2, 0.05f);  // an empty target: proc leaves out alone
    f.proc({cv::Mat(3, 3, CV_8U, cv::Scalar(1))}, untouched);
    EXPECT_EQ(cv::countNonZero(untouched != 9), 0);
    Open g, assigned;  // copies share the planes
    g.setup({p, p, p}, p, 1, 0.01f);
    Open const copied(g);
    assigned = g;
    EXPECT_TRUE(copied.coefA[2].data == g.coefA[2].data && assigned.coefB.data == g.coefB.data);
}

// The apply loops with coefficients set by hand.
TEST(TGFilter, ApplyLoopsLookUpByCeilingFactorsAndRoundByDepth) {
    cv::Mat const a = kxtest::noise(5, 4, CV_32F, 7, 0.0, 1.0);
    cv::Mat const b = kxtest::noise(5, 4, CV_32F, 8, -0.2, 0.2);
    // Twice the size: each coefficient serves a 2x2 square. 11x9 against 4x5: factors
    // ceil(2.75) = 3 and ceil(1.8) = 2, so columns 0..3 and rows 0..4 are used.
    for (cv::Size size : {cv::Size(8, 10), cv::Size(11, 9), cv::Size(3, 2)}) {
        cv::Mat const guide = pattern(size.height, size.width, 2);
        cv::Mat out(size, CV_32F);
        Open({a}, b).proc({guide}, out);
        EXPECT_EQ(maxDiff(out, guide.mul(expand(a, size)) + expand(b, size)), 0) << size;
        EXPECT_TRUE(size.width != 8 ||  // the square of coefficient (1, 2) holds (3, 5)
                    out.at<float>(3, 5) ==
                        guide.at<float>(3, 5) * a.at<float>(1, 2) + b.at<float>(1, 2));
    }
    Open f({filled(2, 3, 1.0)}, filled(2, 3, 0.0));
    cv::Mat const g16 = (cv::Mat_<std::uint16_t>(2, 3) << 0, 127, 128, 1000, 65535, 383);
    cv::Mat out8(2, 3, CV_8U), out32(2, 3, CV_32F), out16(2, 3, CV_16U, cv::Scalar(77));
    f.proc({g16}, out8);  // a 16-bit guide into 8 bits: I / 255, saturating well below the top
    EXPECT_EQ(cv::countNonZero(out8 != (cv::Mat_<std::uint8_t>(2, 3) << 0, 0, 1, 4, 255, 2)), 0);
    f.proc({g16}, out32);  // into float: I / 65535
    EXPECT_FLOAT_EQ(out32.at<float>(1, 0), 1000.0f / 65535.0f);
    f.proc({g16}, out16);  // a 16-bit out is left as it was
    EXPECT_EQ(cv::countNonZero(out16 != 77), 0);
    cv::Mat const g16s(2, 3, CV_16S, cv::Scalar(-5));
    f.proc({g16s}, out8);  // a guide of another depth is copied
    EXPECT_TRUE(out8.type() == CV_16S && maxDiff(out8, g16s) == 0);
    cv::Mat ties(1, 4, CV_8U, cv::Scalar(3));
    TGFilter().proc({g16}, ties);  // before any estimate proc does nothing
    EXPECT_EQ(cv::countNonZero(ties != 3), 0);
    // An 8-bit guide: rint, ties to even, of I * a + b * 255 (a = 0.5 here).
    Open({filled(1, 4, 0.5)}, filled(1, 4, 0.0))
        .proc({cv::Mat((cv::Mat_<std::uint8_t>(1, 4) << 5, 7, 1, 255))}, ties);
    EXPECT_EQ(cv::countNonZero(ties != (cv::Mat_<std::uint8_t>(1, 4) << 2, 4, 0, 128)), 0);

    // Three guides write bytes whatever out's depth: (0.2 * 0.5 * 3 + 0.1) * 255 = 102.
    cv::Mat const half = filled(2, 2, 0.5), g = filled(2, 2, 0.2);
    Open three({half, half, half}, filled(2, 2, 0.1));
    out16 = cv::Mat(2, 2, CV_16U, cv::Scalar(0xFFFF));
    three.proc({g, g, g}, out16);
    cv::Mat const bytes(2, 4, CV_8U, out16.data, out16.step),
        want = (cv::Mat_<std::uint8_t>(1, 4) << 102, 102, 255, 255);
    EXPECT_EQ(cv::countNonZero(bytes != cv::repeat(want, 2, 1)), 0);
    three.proc16U({g, g, g}, out16);
    EXPECT_EQ(out16.at<std::uint16_t>(1, 1), 26214);  // 0.4 * 65535 = 26214

    // A guide one pixel wider than twice 2^23 coefficients: the float ratio rounds down to 2,
    // leaving one right-strip column that reads the last coefficient. There the 16-bit loop
    // of a float guide clips to 8 bits.
    int const coefCols = 1 << 23, cols = 2 * coefCols + 1;
    cv::Mat const zero = filled(1, coefCols, 0.0), wide = filled(1, cols, 0.0);
    cv::Mat last = filled(1, coefCols, 0.5), strip16, strip8(1, cols, CV_8U);
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
    cv::Mat out1, out3, aUp, bUp;
    Open resampled({a, a, a}, b);
    resampled.gFc1_apply(guide, out1);
    resampled.gFc3_apply({guide, guide, guide}, out3);
    cv::resize(a, aUp, guide.size(), 0, 0, cv::INTER_CUBIC);
    cv::resize(b, bUp, guide.size(), 0, 0, cv::INTER_CUBIC);
    EXPECT_LT(maxDiff(out1, bUp + aUp.mul(guide)), 1e-4);
    EXPECT_LT(maxDiff(out3, bUp + 3 * aUp.mul(guide)), 1e-4);
}

// The one-pass filter of blocks without padding: only windows inside the image count, results
// land 2r further right and down, and a 4r frame keeps p.
cv::Mat stripReference(cv::Mat const &I, cv::Mat const &p, int r, float eps) {
    cv::Mat const mi = boxMean(I, r), mp = boxMean(p, r);
    cv::Mat const a =
        (boxMean(I.mul(p), r) - mi.mul(mp)) / (boxMean(I.mul(I), r) - mi.mul(mi) + eps);
    cv::Mat const filtered = boxMean(mp - a.mul(mi), r) + I.mul(boxMean(a, r));
    cv::Mat q = p.clone();
    cv::Rect const inner(4 * r, 4 * r, p.cols - 8 * r, p.rows - 8 * r);
    filtered(inner - cv::Point(2 * r, 2 * r)).copyTo(q(inner));
    return q;
}

TEST(TGFilter, StripProcMatchesBlockReferenceAndStripHeightRule) {
    // One strip; then 1208 rows with r = 2: three strips of 600, the last with no output
    // rows, since 1208 - 8 is a multiple of 600.
    for (cv::Size size : {cv::Size(40, 30), cv::Size(1900, 1208)}) {
        cv::Mat const I = pattern(size.height, size.width, 1),
                      p = pattern(size.height, size.width, 2);
        cv::Mat q(size, CV_32F, cv::Scalar(-1));
        TGFilter().stripProc(I, p, q, 2, 0.01f);
        EXPECT_LT(maxDiff(q, stripReference(I, p, 2, 0.01f)), 1e-5) << size;
    }
    // A frame that leaves no inner area, and r = 0 (a 1 x 1 window, a = 0, b = p, no frame
    // and an empty last strip): q is p either way.
    cv::Mat const p = pattern(7, 30, 3), p0 = pattern(10, 12, 4);
    cv::Mat q(p.size(), CV_32F), q0(p0.size(), CV_32F, cv::Scalar(-1));
    TGFilter().stripProc(p, p, q, 2, 0.01f);
    EXPECT_EQ(maxDiff(q, p), 0);
    TGFilter().stripProc(pattern(10, 12, 1), p0, q0, 0, 0.01f);
    EXPECT_EQ(maxDiff(q0, p0), 0);
    // Strips of 600 rows from 2250000 pixels on, unless there are fewer rows.
    Open f;
    EXPECT_EQ(f.checkBlkSz(1000, 2249), 2249);
    EXPECT_EQ(f.checkBlkSz(3750, 600), 600);
    EXPECT_EQ(f.checkBlkSz(1500, 1500), 600);
    EXPECT_EQ(f.checkBlkSz(100000, 599), 599);
}

}  // namespace
