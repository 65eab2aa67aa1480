// Tests of DTFilter against a plain domain-transform filter written below with direct loops,
// on 1- to 6-channel images of awkward sizes, and of the width schedule, step index and zero
// gradient border that callers' tuned sigmas rely on.
#include "kestrix1/filters/dt_filter.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::thrown;
using Planes = std::vector<cv::Mat>;

struct Open : DTFilter {
    using DTFilter::csum;
    using DTFilter::diffx;
    using DTFilter::diffy;
};

// ---- the plain filter ----------------------------------------------------------------------
// Passes run along rows; vertical passes run on the transposed image.

// Channel sums over all guides of |d| (or d^2), d the step to the next pixel in the row. The
// last column stays zero, and so does the last row when skipLastRow.
cv::Mat gradientSums(Planes const &guides, bool l2, bool skipLastRow) {
    cv::Mat S(guides[0].size(), CV_32F, cv::Scalar(0));
    for (cv::Mat const &g : guides)
        for (int y = 0, ch = g.channels(); y < S.rows - skipLastRow; ++y)
            for (int i = 0; i < (S.cols - 1) * ch; ++i) {
                float const d = g.ptr<float>(y)[i + ch] - g.ptr<float>(y)[i];
                S.at<float>(y, i / ch) += l2 ? d * d : std::fabs(d);
            }
    return S;
}

// Rightwards v[x] += (v[x-1] - v[x]) W[x], then leftwards with W[x+1].
void recursivePass(cv::Mat &img, cv::Mat const &D, float sigma) {
    cv::Mat W;
    cv::exp(D * double(float(-std::sqrt(2.0) / sigma)), W);
    int const ch = img.channels();
    for (int y = 0; y < img.rows; ++y) {
        float *p = img.ptr<float>(y);
        for (int i = ch; i < img.cols * ch; ++i)
            p[i] += (p[i - ch] - p[i]) * W.at<float>(y, i / ch);
        for (int i = (img.cols - 1) * ch - 1; i >= 0; --i)
            p[i] += (p[i + ch] - p[i]) * W.at<float>(y, i / ch + 1);
    }
}

// Each sample becomes the mean of the row's samples whose cumulative position lies in
// (ct - radius, ct + radius].
void normalisedPass(cv::Mat &img, cv::Mat const &ct, float radius) {
    int const cols = img.cols, ch = img.channels();
    for (int y = 0; y < img.rows; ++y) {
        std::vector<float> pos(ct.ptr<float>(y), ct.ptr<float>(y) + cols), sat(ch, 0.0f);
        pos.push_back(std::numeric_limits<float>::infinity());
        float *p = img.ptr<float>(y);
        for (int i = 0; i < cols * ch; ++i)
            sat.push_back(sat[i] + p[i]);
        for (int x = 0, l = 0, u = 0; x < cols; ++x) {
            while (!(pos[l] > pos[x] - radius))
                ++l;
            while (!(pos[u] > pos[x] + radius))
                ++u;
            for (int c = 0; c < ch; ++c)
                p[x * ch + c] = (sat[u * ch + c] - sat[l * ch + c]) / float(u - l);
        }
    }
}

// N iterations over every plane of a pass along the rows and one down the columns, in the
// domain 1 + sigmaS / sigmaR * S (cumulated along the rows for the normalised filter). The
// recursive widths compound; the normalised radii do not.
Planes filtered(Planes const &in, Planes const &guides, float sigmaS, float sigmaR, int N, bool l2,
                bool normalised = false, bool wholePlane = false) {
    Planes gt, out;  // sums down the columns are sums along the rows of the transposed guides
    for (cv::Mat const &g : guides)
        gt.push_back(g.t());
    cv::Mat D[2] = {gradientSums(guides, l2, !wholePlane), gradientSums(gt, l2, true)};
    for (cv::Mat &d : D)
        for (int i = 0; i < int(d.total()); ++i)
            d.ptr<float>()[i] = 1.0f + (sigmaS / sigmaR) * d.ptr<float>()[i] +
                                (normalised && i % d.cols ? d.ptr<float>()[i - 1] : 0.0f);
    for (cv::Mat const &p : in)
        out.push_back(p.clone());
    float sigma = sigmaS;
    for (int i = 0; i < N; ++i) {
        sigma = float(sigma * std::sqrt(3.0) * std::pow(2.0, N - 1 - i) /
                      std::sqrt(std::pow(4.0, N) - 1));
        float const sigmaH =
            float(std::pow(2.0, 2 - i) * (sigmaS * std::sqrt(3.0)) / std::sqrt(63.0));
        for (cv::Mat &p : out)
            for (cv::Mat const &d : D) {
                if (normalised)
                    normalisedPass(p, d, float(double(sigmaH) * std::sqrt(3.0)));
                else
                    recursivePass(p, d, sigma);
                p = p.t();
            }
    }
    return out;
}

// ---- tests ---------------------------------------------------------------------------------

// Edges, a gradient and grain in 0..1, the grain differing by channel.
cv::Mat pattern(int rows, int cols, int ch, std::uint64_t seed) {
    Planes planes;
    for (int c = 0; c < ch; ++c)
        planes.push_back(0.5 * kxtest::stepEdge(rows, cols, CV_32F, 0.0, 1.0, cols / 3) +
                         0.2 * kxtest::ramp(rows, cols, CV_32F) +
                         0.3 * kxtest::noise(rows, cols, CV_32F, seed + c, 0.0, 1.0));
    cv::Mat m;
    cv::merge(planes, m);
    return m;
}

double maxDiff(cv::Mat const &a, cv::Mat const &b) {
    return cv::norm(a, b, cv::NORM_INF);
}

DTFilter made(float sigmaS, float sigmaR, int iterations, DTFilter::METRIC metric) {
    DTFilter f;
    f.setup(sigmaS, sigmaR, iterations, metric);
    return f;
}

// The plain filter keeps the library's settled habits: compounding widths, the weight into x
// read from the gradient out of x, and zero sums on the last row and column, which leave
// single rows and columns without edges. The recursive filters take their weights from
// OpenCV's exponential, which may round an element differently depending on how a plane is
// cut: they agree to float noise.
TEST(DTFilter, AllFormsMatchPlainFilter) {
    int const shapes[][3] = {{1, 1, 1},   {1, 37, 1},  {29, 1, 2},    {7, 33, 3},  {40, 23, 1},
                             {9, 130, 2}, {13, 17, 6}, {203, 171, 1}, {161, 97, 2}};
    for (auto const [rows, cols, ch] : shapes)
        for (auto metric : {DTFilter::L1, DTFilter::L2}) {
            SCOPED_TRACE(testing::Message() << rows << "x" << cols << "x" << ch << " L" << metric);
            bool const l2 = metric == DTFilter::L2;
            cv::Mat const in = pattern(rows, cols, ch, 7 + rows);
            cv::Mat const guide = pattern(rows, cols, 3, 4);
            DTFilter f = made(12.0f, 0.2f, 2, metric);
            cv::Mat out;
            EXPECT_TRUE(f.proc(in, out, 0));
            ASSERT_EQ(out.type(), in.type());
            EXPECT_LE(maxDiff(out, filtered({in}, {in}, 12.0f, 0.2f, 3, l2)[0]), 2e-6);
            EXPECT_TRUE(f.proc(in, guide, out, 0));
            EXPECT_LE(maxDiff(out, filtered({in}, {guide}, 12.0f, 0.2f, 3, l2)[0]), 2e-6);
            // No exponential here: the same float steps give the same bits.
            EXPECT_TRUE(f.proc(in, out, 1));
            EXPECT_EQ(maxDiff(out, filtered({in}, {in}, 12.0f, 0.2f, 3, l2, true)[0]), 0.0);
            // Two planes along two guides, numIter (2) iterations; the sums keep the last row.
            Planes ins = {in, pattern(rows, cols, ch, 5)}, outs;
            Planes guides = {pattern(rows, cols, 1, 6), pattern(rows, cols, 2, 8)};
            EXPECT_TRUE(f.proc(ins, outs, 0, guides));
            Planes const want = filtered(ins, guides, 12.0f, 0.2f, 2, l2, false, true);
            ASSERT_EQ(outs.size(), 2u);
            EXPECT_LE(std::max(maxDiff(outs[0], want[0]), maxDiff(outs[1], want[1])), 2e-6);
        }
}

// Two habits callers' tuned sigmas rest on, against what a textbook filter would give.
TEST(DTFilter, WidthsCompoundAndStepWeightsAreReadOnePixelAhead) {
    // Two pixels 0 and 1 with D = 1: each iteration moves v1 towards v0, then v0 towards v1,
    // by exp(-sqrt(2) / sigma_i). The widths compound to 0.87287, 0.38095 and 0.083131 sigmaS,
    // not 0.87287, 0.43644 and 0.21822; the vector form's one iteration has sigmaS itself.
    auto run = [](std::vector<double> const &sigmas) {
        double v0 = 0, v1 = 1;
        for (double s : sigmas) {
            v1 += (v0 - v1) * std::exp(-std::sqrt(2.0) / s);
            v0 += (v1 - v0) * std::exp(-std::sqrt(2.0) / s);
        }
        return v0;
    };
    double const a = std::sqrt(3.0) / std::sqrt(63.0);
    Planes pair = {(cv::Mat_<float>(1, 2) << 0.0f, 1.0f)}, outs;
    cv::Mat out;
    DTFilter f = made(2.0f, 1.0f, 1, DTFilter::L1);  // setup's count doesn't reach proc
    f.proc(pair[0], out, 0);
    f.proc(pair, outs, 0, pair);
    EXPECT_NEAR(out.at<float>(0, 0), run({8 * a, 16 * a * a, 16 * a * a * a}), 2e-6);
    EXPECT_GT(std::fabs(out.at<float>(0, 0) - run({8 * a, 4 * a, 2 * a})), 1e-2);
    EXPECT_NEAR(outs[0].at<float>(0, 0), run({2.0}), 1e-6);
    // Row 0 steps between x = 2 and 3 under a tiny sigmaR. The gradient is stored at x = 2,
    // so the weight cut is that of the step 1 -> 2 and pixel 2 joins the bright side, where a
    // textbook filter keeps 0 0 0 | 1 1 1. Down alike: the guide's jump between rows 1 and 2
    // is what cuts row 0 from row 1.
    cv::Mat const in =
        (cv::Mat_<float>(3, 6) << 0, 0, 0, 1, 1, 1, 0, 0, 0, 1, 1, 1, 5, 5, 5, 5, 5, 5);
    cv::Mat guide = in.clone();
    guide.row(2).setTo(1000);
    made(20.0f, 1e-3f, 3, DTFilter::L1).proc(in, guide, out, 0);
    EXPECT_EQ(out.at<float>(0, 0), 0.0f);
    EXPECT_EQ(out.at<float>(0, 1), 0.0f);
    EXPECT_GT(out.at<float>(0, 2), 0.1f);
    EXPECT_LT(out.at<float>(0, 3), 0.9f);
    EXPECT_NEAR(out.at<float>(0, 2), out.at<float>(0, 3), 0.1f);
}

// The building blocks: differences stored at the left or upper pixel, and their channel sums,
// with the last row and column zero but for the vector sums, which keep the last row.
TEST(DTFilter, GradientSumsLeaveLastRowAndColumnAtZero) {
    Open f;
    cv::Mat const in = pattern(6, 9, 2, 11);
    cv::Mat d, S, want(in.size(), in.type(), cv::Scalar::all(0));
    f.diffx(in, d);
    cv::subtract(in.colRange(1, 9), in.colRange(0, 8), want.colRange(0, 8));
    EXPECT_EQ(maxDiff(d, want), 0.0);
    f.csum(d, S, DTFilter::L2);
    EXPECT_EQ(maxDiff(S, gradientSums({in}, true, true)), 0.0);
    f.diffy(in, d);
    want.setTo(0);
    cv::subtract(in(cv::Rect(0, 1, 8, 5)), in(cv::Rect(0, 0, 8, 5)), want(cv::Rect(0, 0, 8, 5)));
    EXPECT_EQ(maxDiff(d, want), 0.0);
    Planes const planes = {pattern(6, 9, 1, 1), pattern(6, 9, 1, 2)};
    Planes ds;
    f.diffy(planes, ds);
    f.csum(ds, S, DTFilter::L1);
    EXPECT_EQ(maxDiff(S, gradientSums({planes[0].t(), planes[1].t()}, false, true).t()), 0.0);
    f.diffx(planes, ds);
    f.csum(ds, S, DTFilter::L1);
    EXPECT_EQ(maxDiff(S, gradientSums(planes, false, false)), 0.0);
}

// In place, over rows wider than the image, at one thread or more, the result is the same;
// flat planes stay flat exactly.
TEST(DTFilter, InPlaceThreadCountAndFlatPlanesGiveTheSameResult) {
    cv::Mat const in = pattern(211, 187, 2, 21), guide = pattern(211, 187, 1, 22);
    cv::Mat const flat = cv::Mat(31, 45 * 5, CV_32F, cv::Scalar(0.375)).reshape(5);
    DTFilter f = made(15.0f, 0.3f, 3, DTFilter::L1);
    for (int mode : {0, 1}) {
        cv::Mat want, serial, flatOut;
        f.proc(in, want, mode);
        kxtest::PaddedMat padded(in.rows, in.cols, in.type());
        in.copyTo(padded.view);
        f.proc(padded.view, padded.view, mode);
        EXPECT_EQ(maxDiff(padded.view, want), 0.0) << "mode " << mode;
        EXPECT_TRUE(padded.paddingIntact());
        omp_set_num_threads(1);
        f.proc(in, serial, mode);
        f.setup(15.0f, 0.3f, 3, DTFilter::L1);
        EXPECT_EQ(maxDiff(serial, want), 0.0) << "mode " << mode;
        f.proc(flat, flatOut, mode);
        EXPECT_EQ(maxDiff(flatOut, flat), 0.0) << "mode " << mode;
    }
    // The joint form written over its input and guide at once.
    cv::Mat want, both = in.clone();
    f.proc(both, both, both, 0);
    f.proc(in, want, 0);
    EXPECT_EQ(maxDiff(both, want), 0.0);
    // The vector form written over its own planes.
    Planes planes = {in.clone()}, guides = {guide}, outs;
    f.proc(planes, outs, 0, guides);
    f.proc(planes, planes, 0, guides);
    EXPECT_EQ(maxDiff(planes[0], outs[0]), 0.0);
}

TEST(DTFilter, ThrowsItsTextsAndOtherModesLeaveOutputAlone) {
    DTFilter f = made(5.0f, 0.1f, 3, DTFilter::L1);
    cv::Mat const in = pattern(8, 10, 1, 1), in16(8, 10, CV_16U, cv::Scalar(3));
    cv::Mat out, kept(3, 3, CV_32F, cv::Scalar(7));
    std::string const depth = "ERROR - DTFilter::proc - in.depth()!=CV_32F";
    std::string const guide = "ERROR - DTFilter::proc - guide is not CV_32F of in's size";
    EXPECT_EQ(thrown([&] { f.proc(in16, out, 0); }), depth);
    EXPECT_EQ(thrown([&] { f.proc(in16, out, 1); }), depth);
    EXPECT_EQ(thrown([&] { f.proc(in16, in, out, 0); }), depth);
    EXPECT_EQ(thrown([&] { f.proc(in, in16, out, 0); }), guide);
    EXPECT_EQ(thrown([&] { f.proc(in, in.t(), out, 0); }), guide);
    Planes ins = {in}, outs, none, narrow = {in.colRange(0, 9)}, mixed = {in, in16}, blank = {out};
    EXPECT_EQ(thrown([&] { f.proc(ins, outs, 0, none); }),
              "ERROR - DTFilter::proc - guides.empty()");
    EXPECT_EQ(thrown([&] { f.proc(ins, outs, 0, narrow); }), guide);
    EXPECT_EQ(thrown([&] { f.proc(mixed, outs, 0, ins); }), depth);
    EXPECT_TRUE(f.proc(in, out, 2) && f.proc(in, in, kept, 1) && f.proc(cv::Mat(), kept, 0));
    EXPECT_TRUE(f.proc(cv::Mat(), cv::Mat(), kept, 0) && f.proc(ins, outs, 1, none));
    EXPECT_TRUE(f.proc(blank, outs, 0, none));
    EXPECT_TRUE(out.empty() && outs.empty());
    EXPECT_EQ(cv::countNonZero(kept != 7), 0);
}

// Setup stores the settings, which copies take, and sets the process-wide thread state.
TEST(DTFilter, SetupSetsProcessThreadState) {
    omp_set_dynamic(1);
    omp_set_max_active_levels(1);
    omp_set_num_threads(16);
    DTFilter f;
    EXPECT_TRUE(f.setup(3.0f, 0.25f, 7, DTFilter::L2));
    DTFilter const copy(f);
    EXPECT_TRUE(copy.sigmaS == 3.0f && copy.sigmaR == 0.25f && copy.numIter == 7.0f);
    EXPECT_EQ(copy.metric, DTFilter::L2);
    EXPECT_EQ(omp_get_max_threads(), std::min(omp_get_num_procs(), 4));
    EXPECT_GT(omp_get_max_active_levels(), 1);
    EXPECT_EQ(omp_get_dynamic(), 0);
}

}  // namespace
