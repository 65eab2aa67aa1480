// Tests of DTFilter against a plain domain-transform filter written below with whole planes
// and direct loops, on 1- to 5-channel images of awkward sizes, and of the width schedule,
// step index and zero gradient border that callers' tuned sigmas rely on.
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

cv::Mat transposed(cv::Mat const &m) {
    int const ch = m.channels();
    cv::Mat t(m.cols, m.rows, m.type());
    for (int y = 0; y < m.rows; ++y)
        for (int x = 0; x < m.cols * ch; ++x)
            t.ptr<float>(x / ch)[y * ch + x % ch] = m.ptr<float>(y)[x];
    return t;
}

// ---- the plain filter ----------------------------------------------------------------------
namespace ref {

// d[y][x] = in[y][x+1] - in[y][x] (or in[y+1][x] - in[y][x]) for x < cols-1; zero elsewhere.
cv::Mat diff(cv::Mat const &in, bool vertical) {
    cv::Mat d(in.size(), in.type(), cv::Scalar::all(0));
    int const ch = in.channels();
    for (int y = 0; y + vertical < in.rows; ++y)
        for (int i = 0; i < (in.cols - 1) * ch; ++i)
            d.ptr<float>(y)[i] = vertical ? in.ptr<float>(y + 1)[i] - in.ptr<float>(y)[i]
                                          : in.ptr<float>(y)[i + ch] - in.ptr<float>(y)[i];
    return d;
}

// Channel sum of |d| or d^2; the last row and column stay zero unless wholePlane.
cv::Mat csum(Planes const &d, bool l2, bool wholePlane) {
    cv::Mat S(d[0].size(), CV_32F, cv::Scalar(0));
    int const skip = wholePlane ? 0 : 1;
    for (cv::Mat const &p : d)
        for (int y = 0; y < S.rows - skip; ++y)
            for (int x = 0; x < S.cols - skip; ++x)
                for (int c = 0; c < p.channels(); ++c) {
                    float const v = p.ptr<float>(y)[x * p.channels() + c];
                    S.at<float>(y, x) += l2 ? v * v : std::fabs(v);
                }
    return S;
}

cv::Mat domain(Planes const &guides, bool vertical, float sigmaS, float sigmaR, bool l2,
               bool whole) {
    Planes d;
    for (cv::Mat const &g : guides)
        d.push_back(diff(g, vertical));
    cv::Mat D = csum(d, l2, whole);
    for (float &v : cv::Mat_<float>(D))
        v = 1.0f + (sigmaS / sigmaR) * v;
    return D;
}

// Rightwards img[x] += (img[x-1] - img[x]) W[x], leftwards with W[x+1].
void rfch(cv::Mat &img, cv::Mat const &D, float sigma) {
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

// One image per plane; the single-image forms are the one-plane case without wholePlane.
Planes rf(Planes const &in, Planes const &guides, float sigmaS, float sigmaR, int n, bool l2,
          bool wholePlane) {
    cv::Mat const Dx = domain(guides, false, sigmaS, sigmaR, l2, wholePlane);
    cv::Mat const Dy = transposed(domain(guides, true, sigmaS, sigmaR, l2, wholePlane));
    Planes out;
    for (cv::Mat const &p : in)
        out.push_back(p.clone());
    float sigma = sigmaS;
    for (int i = 0; i < n; ++i) {
        sigma = float(sigma * std::sqrt(3.0) * std::pow(2.0, n - 1 - i) /
                      std::sqrt(std::pow(4.0, n) - 1));
        for (cv::Mat &p : out) {
            rfch(p, Dx, sigma);
            cv::Mat t = transposed(p);
            rfch(t, Dy, sigma);
            p = transposed(t);
        }
    }
    return out;
}

cv::Mat rf(cv::Mat const &in, cv::Mat const &guide, float sigmaS, float sigmaR, bool l2) {
    return rf({in}, {guide}, sigmaS, sigmaR, 3, l2, false)[0];
}

// Mean over the samples whose cumulative position lies in (ct - radius, ct + radius].
void nc(cv::Mat &img, cv::Mat const &ct, float radius) {
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
                p[x * ch + c] = (sat[u * ch + c] - sat[l * ch + c]) / (float(u + 1) - float(l + 1));
        }
    }
}

cv::Mat ncf(cv::Mat const &in, float sigmaS, float sigmaR, bool l2) {
    cv::Mat ct[2] = {domain({in}, false, sigmaS, sigmaR, l2, false),
                     transposed(domain({in}, true, sigmaS, sigmaR, l2, false))};
    for (cv::Mat &c : ct)
        for (int y = 0; y < c.rows; ++y)
            for (int x = 1; x < c.cols; ++x)
                c.at<float>(y, x) += c.at<float>(y, x - 1);
    cv::Mat out = in.clone();
    for (int i = 0; i < 3; ++i) {
        float const sigmaH =
            float(std::pow(2.0, 2 - i) * (sigmaS * std::sqrt(3.0)) / std::sqrt(63.0));
        float const radius = float(double(sigmaH) * std::sqrt(3.0));
        nc(out, ct[0], radius);
        cv::Mat t = transposed(out);
        nc(t, ct[1], radius);
        out = transposed(t);
    }
    return out;
}

}  // namespace ref

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

// Both filters take their weights from OpenCV's exponential, which may round an element
// differently depending on how a plane is cut: recursive results agree to float noise.
constexpr double kTol = 2e-6;

DTFilter made(float sigmaS, float sigmaR, int iterations, DTFilter::METRIC metric) {
    DTFilter f;
    f.setup(sigmaS, sigmaR, iterations, metric);
    return f;
}

struct Shape {
    int rows, cols, ch;
};
std::vector<Shape> const kShapes = {{1, 1, 1},   {1, 37, 1},    {29, 1, 2},
                                    {7, 33, 3},  {40, 23, 1},   {9, 130, 2},
                                    {13, 17, 5}, {203, 171, 1}, {161, 97, 2}};

TEST(DTFilter, AllFormsMatchPlainFilter) {
    for (Shape const s : kShapes)
        for (auto metric : {DTFilter::L1, DTFilter::L2}) {
            SCOPED_TRACE(testing::Message()
                         << s.rows << "x" << s.cols << "x" << s.ch << " L" << metric + 1);
            bool const l2 = metric == DTFilter::L2;
            cv::Mat const in = pattern(s.rows, s.cols, s.ch, 7 + s.rows);
            cv::Mat const guide = pattern(s.rows, s.cols, 3, 4);
            DTFilter f = made(12.0f, 0.2f, 2, metric);
            cv::Mat out;
            EXPECT_TRUE(f.proc(in, out, 0));
            ASSERT_EQ(out.type(), in.type());
            EXPECT_LE(maxDiff(out, ref::rf(in, in, 12.0f, 0.2f, l2)), kTol);
            EXPECT_TRUE(f.proc(in, guide, out, 0));
            EXPECT_LE(maxDiff(out, ref::rf(in, guide, 12.0f, 0.2f, l2)), kTol);
            // No exponential here: the same float steps give the same bits.
            EXPECT_TRUE(f.proc(in, out, 1));
            EXPECT_EQ(maxDiff(out, ref::ncf(in, 12.0f, 0.2f, l2)), 0.0);

            // Two planes along two guides, numIter (2) iterations.
            Planes ins = {in, pattern(s.rows, s.cols, s.ch, 5)}, outs;
            Planes guides = {pattern(s.rows, s.cols, 1, 6), pattern(s.rows, s.cols, 2, 8)};
            EXPECT_TRUE(f.proc(ins, outs, 0, guides));
            Planes const want = ref::rf(ins, guides, 12.0f, 0.2f, 2, l2, true);
            ASSERT_EQ(outs.size(), 2u);
            for (int p = 0; p < 2; ++p)
                EXPECT_LE(maxDiff(outs[p], want[p]), kTol) << "plane " << p;
        }
}

TEST(DTFilter, GradientSumsLeaveLastRowAndColumnAtZero) {
    Open f;
    cv::Mat const in = pattern(6, 9, 2, 11);
    cv::Mat d, S;
    f.diffx(in, d);
    EXPECT_EQ(maxDiff(d, ref::diff(in, false)), 0.0);
    f.csum(d, S, DTFilter::L2);
    EXPECT_EQ(maxDiff(S, ref::csum({d}, true, false)), 0.0);
    EXPECT_EQ(cv::countNonZero(S.row(5)) + cv::countNonZero(S.col(8)), 0);
    f.diffy(in, d);
    EXPECT_EQ(maxDiff(d, ref::diff(in, true)), 0.0);
    // The vector sum covers the whole plane, so the last row of the horizontal sums is kept.
    Planes const planes = {pattern(6, 9, 1, 1), pattern(6, 9, 1, 2)};
    Planes ds;
    f.diffx(planes, ds);
    f.csum(ds, S, DTFilter::L1);
    EXPECT_EQ(maxDiff(S, ref::csum(ds, false, true)), 0.0);
    EXPECT_EQ(cv::countNonZero(S.row(5)), 8);
}

// Two pixels 0 and 1 with D = 1: each iteration moves v1 towards v0, then v0 towards v1, by
// w = exp(-sqrt(2) / sigma_i), the widths compounding to 0.87287, 0.38095 and 0.083131 sigmaS.
TEST(DTFilter, WidthsCompoundFromOneIterationToTheNext) {
    auto run = [](std::vector<double> const &sigmas) {
        double v0 = 0, v1 = 1;
        for (double s : sigmas) {
            double const w = std::exp(-std::sqrt(2.0) / s);
            v1 += (v0 - v1) * w;
            v0 += (v1 - v0) * w;
        }
        return v0;
    };
    double const a = std::sqrt(3.0) / std::sqrt(63.0);
    cv::Mat const in = (cv::Mat_<float>(1, 2) << 0.0f, 1.0f);
    DTFilter f = made(2.0f, 1.0f, 1, DTFilter::L1);  // setup's count doesn't reach proc
    cv::Mat out;
    f.proc(in, out, 0);
    EXPECT_NEAR(out.at<float>(0, 0), run({8 * a, 16 * a * a, 16 * a * a * a}), 2e-6);
    EXPECT_GT(std::fabs(out.at<float>(0, 0) - run({8 * a, 4 * a, 2 * a})), 1e-2);  // textbook
    // The vector form takes it: one iteration has the width sigmaS itself.
    Planes ins = {in}, outs, guides = {in};
    f.proc(ins, outs, 0, guides);
    EXPECT_NEAR(outs[0].at<float>(0, 0), run({2.0}), 1e-6);
}

// Row 0 steps between x = 2 and 3 under a tiny sigmaR. The gradient is stored at x = 2, so the
// weight cut is that of the step 1 -> 2 and pixel 2 joins the bright side, where a textbook
// filter keeps 0 0 0 | 1 1 1. Vertically alike: the guide's jump between rows 1 and 2 is what
// cuts row 0 from row 1.
TEST(DTFilter, StepWeightIsReadOnePixelAhead) {
    cv::Mat const in =
        (cv::Mat_<float>(3, 6) << 0, 0, 0, 1, 1, 1, 0, 0, 0, 1, 1, 1, 5, 5, 5, 5, 5, 5);
    cv::Mat guide = in.clone();
    guide.row(2).setTo(1000);
    DTFilter f = made(20.0f, 1e-3f, 3, DTFilter::L1);
    cv::Mat out;
    f.proc(in, guide, out, 0);
    EXPECT_EQ(out.at<float>(0, 0), 0.0f);
    EXPECT_EQ(out.at<float>(0, 1), 0.0f);
    EXPECT_GT(out.at<float>(0, 2), 0.1f);
    EXPECT_LT(out.at<float>(0, 3), 0.9f);
    EXPECT_NEAR(out.at<float>(0, 2), out.at<float>(0, 3), 0.1f);
}

// A single row is its own last row: its gradients are zero and a sharp edge is smoothed
// as if sigmaR were huge. A single column runs the same recursion downwards. The vector
// form, whose horizontal sums cover the last row, keeps the edge.
TEST(DTFilter, SingleRowOrColumnSeesNoEdges) {
    cv::Mat const row = kxtest::stepEdge(1, 40, CV_32F, 0.0, 1.0, 20);
    DTFilter sharp = made(6.0f, 1e-3f, 3, DTFilter::L1), soft = made(6.0f, 1e6f, 3, DTFilter::L1);
    for (int mode : {0, 1}) {
        cv::Mat a, b, c;
        sharp.proc(row, a, mode);
        soft.proc(row, b, mode);
        sharp.proc(row.t(), c, mode);
        EXPECT_EQ(maxDiff(a, b), 0.0);
        EXPECT_EQ(maxDiff(c, a.t()), 0.0);
        EXPECT_GT(a.at<float>(0, 19), 0.1f);
    }
    Planes ins = {row}, outs, guides = {row};
    sharp.proc(ins, outs, 0, guides);
    EXPECT_EQ(outs[0].at<float>(0, 18), 0.0f);
    EXPECT_GT(outs[0].at<float>(0, 19), 0.3f);
}

TEST(DTFilter, FlatPlaneStaysFlat) {
    for (int ch : {1, 2, 5}) {
        cv::Mat const in = cv::Mat(31, 45 * ch, CV_32F, cv::Scalar(0.375)).reshape(ch);
        DTFilter f = made(30.0f, 0.01f, 3, DTFilter::L2);
        for (int mode : {0, 1}) {
            cv::Mat out;
            f.proc(in, out, mode);
            EXPECT_EQ(maxDiff(out, in), 0.0);
        }
    }
}

TEST(DTFilter, InPlaceAndThreadCountGiveTheSameResult) {
    cv::Mat const in = pattern(211, 187, 2, 21), guide = pattern(211, 187, 1, 22);
    DTFilter f = made(15.0f, 0.3f, 3, DTFilter::L1);
    for (int mode : {0, 1}) {
        cv::Mat want, serial;
        f.proc(in, want, mode);
        kxtest::PaddedMat padded(in.rows, in.cols, in.type());  // rows wider than the image
        in.copyTo(padded.view);
        f.proc(padded.view, padded.view, mode);
        EXPECT_EQ(maxDiff(padded.view, want), 0.0) << "mode " << mode;
        EXPECT_TRUE(padded.paddingIntact());
        omp_set_num_threads(1);
        f.proc(in, serial, mode);
        f.setup(15.0f, 0.3f, 3, DTFilter::L1);
        EXPECT_EQ(maxDiff(serial, want), 0.0) << "mode " << mode;
    }
    // The joint form written over its input, over its guide, and over both.
    cv::Mat want, x = in.clone(), g = in.clone(), both = in.clone();
    f.proc(in, guide, want, 0);
    f.proc(x, guide, x, 0);
    EXPECT_EQ(maxDiff(x, want), 0.0);
    f.proc(in, g, g, 0);
    f.proc(both, both, both, 0);
    f.proc(in, want, 0);
    EXPECT_EQ(maxDiff(g, want), 0.0);
    EXPECT_EQ(maxDiff(both, want), 0.0);
    // The vector form written over its own planes.
    Planes planes = {in.clone()}, guides = {guide}, outs;
    f.proc(planes, outs, 0, guides);
    f.proc(planes, planes, 0, guides);
    EXPECT_EQ(maxDiff(planes[0], outs[0]), 0.0);
}

TEST(DTFilter, OtherModesAndEmptyInputsLeaveOutputAlone) {
    DTFilter f = made(5.0f, 0.1f, 3, DTFilter::L1);
    cv::Mat const in = pattern(8, 8, 1, 1);
    cv::Mat fresh, kept(3, 3, CV_32F, cv::Scalar(7));
    EXPECT_TRUE(f.proc(in, fresh, 2));
    EXPECT_TRUE(fresh.empty());
    EXPECT_TRUE(f.proc(in, in, kept, 1));
    EXPECT_TRUE(f.proc(cv::Mat(), kept, 0));
    EXPECT_TRUE(f.proc(cv::Mat(), cv::Mat(), kept, 0));
    EXPECT_EQ(cv::countNonZero(kept != 7), 0);
    Planes ins = {in}, outs, none, blank = {cv::Mat()};
    EXPECT_TRUE(f.proc(ins, outs, 1, none));
    EXPECT_TRUE(f.proc(blank, outs, 0, none));
    EXPECT_TRUE(outs.empty());
}

TEST(DTFilter, WrongArgumentsThrow) {
    DTFilter f = made(5.0f, 0.1f, 3, DTFilter::L1);
    cv::Mat const in = pattern(8, 10, 1, 1), in16(8, 10, CV_16U, cv::Scalar(3));
    cv::Mat out;
    std::string const depth = "ERROR - DTFilter::proc - in.depth()!=CV_32F";
    std::string const guide = "ERROR - DTFilter::proc - guide is not CV_32F of in's size";
    EXPECT_EQ(thrown([&] { f.proc(in16, out, 0); }), depth);
    EXPECT_EQ(thrown([&] { f.proc(in16, out, 1); }), depth);
    EXPECT_EQ(thrown([&] { f.proc(in16, in, out, 0); }), depth);
    EXPECT_EQ(thrown([&] { f.proc(in, in16, out, 0); }), guide);
    EXPECT_EQ(thrown([&] { f.proc(in, in.t(), out, 0); }), guide);
    Planes ins = {in}, outs, none, narrow = {in.colRange(0, 9)}, mixed = {in, in16}, good = {in};
    EXPECT_EQ(thrown([&] { f.proc(ins, outs, 0, none); }),
              "ERROR - DTFilter::proc - guides.empty()");
    EXPECT_EQ(thrown([&] { f.proc(ins, outs, 0, narrow); }), guide);
    EXPECT_EQ(thrown([&] { f.proc(mixed, outs, 0, good); }), depth);
    EXPECT_TRUE(out.empty() && outs.empty());
}

TEST(DTFilter, SetupSetsProcessThreadState) {
    omp_set_dynamic(1);
    omp_set_max_active_levels(1);
    omp_set_num_threads(16);
    DTFilter f;
    EXPECT_TRUE(f.setup(3.0f, 0.25f, 7, DTFilter::L2));
    DTFilter const copy(f);
    EXPECT_EQ(copy.sigmaS, 3.0f);
    EXPECT_EQ(copy.sigmaR, 0.25f);
    EXPECT_EQ(copy.numIter, 7.0f);
    EXPECT_EQ(copy.metric, DTFilter::L2);
    EXPECT_EQ(omp_get_max_threads(), std::min(omp_get_num_procs(), 4));
    EXPECT_GT(omp_get_max_active_levels(), 1);
    EXPECT_EQ(omp_get_dynamic(), 0);
    int inner = 0;  // a nested region gets a team of its own
#pragma omp parallel num_threads(2)
    {
#pragma omp single
        {
#pragma omp parallel num_threads(2)
            {
#pragma omp single
                inner = omp_get_active_level();
            }
        }
    }
    EXPECT_EQ(inner, omp_get_num_procs() > 1 ? 2 : inner);
}

}  // namespace
