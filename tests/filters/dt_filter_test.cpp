// Tests of DTFilter against a plain domain-transform filter written below with direct loops,
// on 1- to 6-channel images of awkward sizes.
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

// Rightwards v[x] += (v[x-1] - v[x]) W[x], then leftwards with W[x+1]: the weight into x is
// read from the gradient out of x, a settled habit.
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

// The recursive forms take their weights from OpenCV's exponential, which may round an element
// differently by how a plane is cut: they agree with the plain filter to float noise.
TEST(DTFilter, AllFormsMatchPlainFilter) {
    int const shapes[][3] = {{1, 1, 1},   {1, 37, 1},  {29, 1, 2},    {7, 33, 3},   {40, 23, 1},
                             {9, 130, 2}, {13, 17, 6}, {203, 171, 1}, {161, 97, 2}, {11, 601, 2}};
    for (auto const [rows, cols, ch] : shapes)
        for (auto metric : {DTFilter::L1, DTFilter::L2}) {
            SCOPED_TRACE(testing::Message() << rows << "x" << cols << "x" << ch << " L" << metric);
            bool const l2 = metric == DTFilter::L2;
            cv::Mat const in = pattern(rows, cols, ch, 7 + rows);
            cv::Mat const guide = pattern(rows, cols, 3, 4);
            DTFilter f;
            f.setup(12.0f, 0.2f, 2, metric);
            cv::Mat out, g = guide.clone();
            EXPECT_TRUE(f.proc(in, out, 0));
            ASSERT_EQ(out.type(), in.type());
            EXPECT_LE(maxDiff(out, filtered({in}, {in}, 12.0f, 0.2f, 3, l2)[0]), 2e-6);
            EXPECT_TRUE(f.proc(in, g, g, 0));  // written over its guide
            EXPECT_LE(maxDiff(g, filtered({in}, {guide}, 12.0f, 0.2f, 3, l2)[0]), 2e-6);
            // No exponential here: the same float steps give the same bits.
            EXPECT_TRUE(f.proc(in, out, 1));
            EXPECT_EQ(maxDiff(out, filtered({in}, {in}, 12.0f, 0.2f, 3, l2, true)[0]), 0.0);
            // Three planes along two guides, numIter (2) iterations; the sums keep the last
            // row. The third plane has one channel, unlike the others but for ch 1.
            Planes ins = {in.clone(), pattern(rows, cols, ch, 5), pattern(rows, cols, 1, 9)};
            Planes outs = {ins[0]};
            Planes guides = {pattern(rows, cols, 1, 6), pattern(rows, cols, 2, 8)};
            Planes const want = filtered(ins, guides, 12.0f, 0.2f, 2, l2, false, true);
            EXPECT_TRUE(DTFilter(f).proc(ins, outs, 0, guides));  // a copy, plane 0 in place
            ASSERT_EQ(outs.size(), 3u);
            for (int p = 0; p < 3; ++p)
                EXPECT_LE(maxDiff(outs[p], want[p]), 2e-6) << "plane " << p;
        }
}

// The vector form weighs all planes of one channel count together: each plane comes out with
// the bits it has when filtered alone, whatever its neighbours, and with no iteration at all
// the planes are copied.
TEST(DTFilter, PlanesFilteredTogetherMatchEachAlone) {
    int const shapes[][3] = {{1, 70, 1}, {70, 1, 2}, {37, 150, 1}, {131, 66, 2}, {20, 30, 3}};
    for (auto const [rows, cols, ch] : shapes)
        for (int iterations : {3, 0}) {
            SCOPED_TRACE(testing::Message() << rows << "x" << cols << "x" << ch << " N"
                                            << iterations);
            Planes const ins = {pattern(rows, cols, ch, 31), pattern(rows, cols, ch, 32),
                                pattern(rows, cols, ch, 33)};
            Planes guides = {pattern(rows, cols, 3, 34)};
            DTFilter f;
            f.setup(9.0f, 0.4f, iterations, DTFilter::L1);
            Planes together;
            EXPECT_TRUE(f.proc(ins, together, 0, guides));
            for (int p = 0; p < 3; ++p) {
                Planes alone;
                EXPECT_TRUE(f.proc({ins[p]}, alone, 0, guides));
                EXPECT_EQ(maxDiff(together[p], alone[0]), 0.0) << "plane " << p;
            }
            if (iterations == 0) {
                EXPECT_EQ(maxDiff(together[1], ins[1]), 0.0);
            }
        }
}

// The building blocks no public member calls: channel sums of the differences to the next
// pixel, the last row and column zero but for the vector sums.
TEST(DTFilter, GradientSumsLeaveLastRowAndColumnAtZero) {
    Open f;
    Planes const in = {pattern(6, 9, 2, 11)}, t = {in[0].t()};
    Planes dx, dy;
    cv::Mat S;
    f.diffx(in, dx);
    f.diffy(in, dy);
    f.csum(dx[0], S, DTFilter::L2);
    EXPECT_EQ(maxDiff(S, gradientSums(in, true, true)), 0.0);
    f.csum(dy, S, DTFilter::L1);
    EXPECT_EQ(maxDiff(S, gradientSums(t, false, true).t()), 0.0);
    f.csum(dx, S, DTFilter::L1);
    EXPECT_EQ(maxDiff(S, gradientSums(in, false, false)), 0.0);
}

// Setup sets the process-wide thread state that every later parallel region runs under; in
// place over rows wider than the image and at one thread, the result has the same bits.
TEST(DTFilter, SetupSetsThreadStateAndOneThreadGivesTheSameBits) {
    cv::Mat const in = pattern(211, 187, 2, 21);
    DTFilter f;
    for (int mode : {0, 1}) {
        omp_set_dynamic(1);
        omp_set_max_active_levels(1);
        EXPECT_TRUE(f.setup(15.0f, 0.3f, 3, DTFilter::L1));  // the second time after one thread
        EXPECT_EQ(omp_get_max_threads(), std::min(omp_get_num_procs(), 4));
        EXPECT_TRUE(omp_get_max_active_levels() > 1 && omp_get_dynamic() == 0);
        cv::Mat want;
        f.proc(in, want, mode);
        kxtest::PaddedMat padded(in.rows, in.cols, in.type());
        in.copyTo(padded.view);
        omp_set_num_threads(1);
        f.proc(padded.view, padded.view, mode);
        EXPECT_EQ(maxDiff(padded.view, want), 0.0) << "mode " << mode;
        EXPECT_TRUE(padded.paddingIntact());
    }
}

TEST(DTFilter, ThrowsItsTextsAndOtherModesLeaveOutputAlone) {
    DTFilter f;
    cv::Mat const in = pattern(8, 10, 1, 1), in16(8, 10, CV_16U, cv::Scalar(3));
    cv::Mat out, kept(3, 3, CV_32F, cv::Scalar(7));
    std::string const depth = "ERROR - DTFilter::proc - in.depth()!=CV_32F";
    std::string const guide = "ERROR - DTFilter::proc - guide is not CV_32F of in's size";
    EXPECT_EQ(thrown([&] { f.proc(in16, out, 1); }), depth);
    EXPECT_EQ(thrown([&] { f.proc(in16, in, out, 0); }), depth);
    EXPECT_EQ(thrown([&] { f.proc(in, in16, out, 0); }), guide);
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

}  // namespace
