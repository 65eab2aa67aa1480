// Tests of AFilter: the deterministic pieces against plain loops, and a whole run against
// the same steps written plainly (whole planes, one step after another) from one seed.
#include "kestrix1/filters/a_filter.h"

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include <cmath>
#include <string>
#include <vector>

#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::thrown;
using Planes = std::vector<cv::Mat>;

struct Counted : AFilter {
    int nodes() const { return nodesVisited; }
    void slots(int planes) { pendingBytes = 64.0 * 48 * 4 * planes; }
};

bool same(cv::Mat const &a, cv::Mat const &b) {
    return a.size() == b.size() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

// The steps of the filter with whole-plane operations, one node after another.
struct Plain {
    AFilter &af;
    float sS, sR;
    int pca;
    Planes sum;
    cv::Mat minDist;
    DTFilter dt;

    void node(Planes const &f, Planes const &g, Planes const &eta, cv::Mat const &cl, int level,
              int height) {
        int const n = int(f.size()), m = int(g.size());
        cv::Rect const full(0, 0, g[0].cols, g[0].rows);
        int const df =
            1 << int(std::floor(std::log2(std::max(1.0f, std::min(0.25f * sS, 256.0f * sR)))));
        dt.setup(sS / float(df), float(sR / std::sqrt(2.0)), 1, DTFilter::L1);
        Planes X(m), psi(n + 1), small(n + 1), etaSmall(m), blurred;
        cv::Mat dist(full.size(), CV_32F, cv::Scalar(0)), phi, psiM, etaM, blurM;
        for (int i = 0; i < m; ++i) {
            cv::Mat e = eta[i];
            if (e.size() != full.size()) af.resampling(eta[i], e, df, df);
            X[i] = g[i] - e(full);
            dist += X[i].mul(X[i]);
            if (eta[i].size() == full.size())
                af.resampling(e, etaSmall[i], 1.0 / df, 1.0 / df);
            else
                etaSmall[i] = eta[i];
        }
        cv::exp(dist * double(float(-0.5 / (double(sR) * sR))), phi);
        for (int i = 0; i <= n; ++i) {
            psi[i] = i < n ? phi.mul(f[i]) : phi;
            af.resampling(psi[i], small[i], 1.0 / df, 1.0 / df);
        }
        minDist = cv::min(minDist, dist);
        cv::merge(small, psiM);
        cv::merge(etaSmall, etaM);
        dt.proc(psiM, etaM, blurM, 0);
        cv::split(blurM, blurred);
        for (int i = 0; i <= n; ++i) {
            cv::Mat up;
            af.resampling(blurred[i], up, df, df);
            sum[i == n ? 0 : i + 1] += phi.mul(up(full));
        }
        if (level >= height) return;
        cv::Mat v(m, 1, CV_32F);
        cv::randu(v, 0.0f, 1.0f);
        v -= 0.5f;
        cv::Mat clusterCopy = cl.clone();
        af.compute3(X, pca, v, clusterCopy);
        cv::Mat dot(full.size(), CV_32F, cv::Scalar(0));
        for (int i = 0; i < m; ++i)
            dot += X[i] * double(v.at<float>(i));
        for (int side = 0; side < 2; ++side) {
            cv::Mat c = cl.clone();
            c.setTo(0, side == 0 ? dot >= 0 : dot < 0);
            cv::Mat w = c.mul(1.0f - phi), ws;
            Planes e(m);
            af.resampling(w, ws, 1.0 / df, 1.0 / df);
            af.hFilter(ws, sS / float(df), ws);
            for (int i = 0; i < m; ++i) {
                af.resampling(g[i].mul(w), e[i], 1.0 / df, 1.0 / df);
                af.hFilter(e[i], sS / float(df), e[i]);
                cv::divide(e[i], ws, e[i]);
                e[i].setTo(0, ws == 0);
            }
            node(f, g, e, c, level + 1, height);
        }
    }

    Planes run(Planes const &in, Planes const &g) {
        sum.assign(in.size() + 1, cv::Mat());
        for (cv::Mat &s : sum)
            s = cv::Mat::zeros(in[0].size(), CV_32F);
        minDist = cv::Mat(in[0].size(), CV_32F, cv::Scalar(3.4028234663852886e+38));
        Planes eta;
        af.hFilter(g, sS, eta);
        node(in, g, eta, cv::Mat::ones(in[0].size(), CV_32F), 1, af.compute2(sS, sR));
        cv::Mat alpha;
        cv::Mat md;
        minDist.convertTo(md, CV_64F, -0.5 / (double(sR) * sR));
        md.convertTo(md, CV_32F);
        cv::exp(md, alpha);
        Planes out(in.size());
        for (std::size_t i = 0; i < in.size(); ++i) {
            cv::Mat g = sum[i + 1] / sum[0];
            g.setTo(0, sum[0] == 0);
            out[i] = alpha.mul(g) + (1.0f - alpha).mul(in[i]);
        }
        return out;
    }
};

TEST(AFilter, TreeHeight) {
    AFilter af;
    EXPECT_EQ(af.compute2(25.0f, 0.5f), 2);
    EXPECT_EQ(af.compute2(1024.0f, 0.01f), 9);
    EXPECT_EQ(af.compute2(3.0f, 0.9f), 2);
    EXPECT_EQ(af.compute2(16.0f, 0.2f), 3);
}

TEST(AFilter, SigmaOrderOfSetupAndSetSigma) {
    AFilter af, other;
    Planes const guide{cv::Mat(4, 4, CV_32F, cv::Scalar(0.5))};
    EXPECT_TRUE(af.setup(0.5f, 25.0f, 0, 1, guide) && other.setSigma(25.0f, 0.5f));
    EXPECT_TRUE(other.setup(1.0f, 2.0f, 0, 1, guide[0]));  // the one-plane form does nothing
    for (AFilter const *f : {&af, &other})
        EXPECT_TRUE(f->sigmaS == 25.0f && f->sigmaR == 0.5f);
    EXPECT_EQ(af.guide[0].data, guide[0].data);
}

// Rows left to right then right to left, then columns down and up, per channel.
TEST(AFilter, LowPassMatchesPlainRecursion) {
    AFilter af;
    for (cv::Size size : {cv::Size(1, 1), cv::Size(7, 3), cv::Size(33, 9), cv::Size(5, 70)})
        for (int ch : {1, 3}) {
            cv::Mat in = kxtest::noise(size.height, size.width, CV_32FC(ch), 7, 0.0, 1.0), out;
            af.hFilter(in, 2.5f, out);
            float const a = float(std::exp(-std::sqrt(2.0) / 2.5));
            cv::Mat r = in.clone();
            int const w = size.width * ch;
            for (int y = 0; y < r.rows; ++y) {
                float *p = r.ptr<float>(y);
                for (int i = ch; i < w; ++i)
                    p[i] += a * (p[i - ch] - p[i]);
                for (int i = w - ch - 1; i >= 0; --i)
                    p[i] += a * (p[i + ch] - p[i]);
            }
            for (int i = 0; i < w; ++i) {
                for (int y = 1; y < r.rows; ++y)
                    r.ptr<float>(y)[i] += a * (r.ptr<float>(y - 1)[i] - r.ptr<float>(y)[i]);
                for (int y = r.rows - 2; y >= 0; --y)
                    r.ptr<float>(y)[i] += a * (r.ptr<float>(y + 1)[i] - r.ptr<float>(y)[i]);
            }
            EXPECT_TRUE(same(out, r)) << size << " ch " << ch;
        }
}

TEST(AFilter, PrincipalDirectionMatchesPowerIteration) {
    AFilter af;
    Planes X{kxtest::noise(9, 13, CV_32F, 1, -1.0, 1.0),
             kxtest::noise(9, 13, CV_32F, 2, -1.0, 1.0)};
    X[1] += 0.8 * X[0];
    cv::Mat cl = kxtest::checkerboard(9, 13, CV_32F, 3, 0.0, 1.0);
    for (int iterations : {0, 1, 2}) {
        cv::Mat v = (cv::Mat_<float>(2, 1) << 0.3f, -0.2f);
        af.compute3(X, iterations, v, cl);
        double r[2] = {0.3, -0.2};
        for (int it = 0; it < iterations; ++it) {
            cv::Mat t = (X[0] * r[0] + X[1] * r[1]).mul(cl);
            double s[2] = {X[0].dot(t), X[1].dot(t)};
            double const norm = std::hypot(s[0], s[1]);
            r[0] = s[0] / norm, r[1] = s[1] / norm;
        }
        EXPECT_NEAR(v.at<float>(0), r[0], 1e-5) << iterations;
        EXPECT_NEAR(v.at<float>(1), r[1], 1e-5) << iterations;
    }
}

// ceil(cols fx) x ceil(rows fy); the targets past the last source centre are filled too.
TEST(AFilter, ResamplingSizes) {
    AFilter af;
    cv::Mat in = kxtest::ramp(45, 61, CV_32F);
    struct Case {
        double f;
        cv::Size size;
    } const cases[] = {{0.25, {16, 12}}, {0.5, {31, 23}}, {4.0, {244, 180}}, {1.0 / 8, {8, 6}}};
    for (auto const &c : cases) {
        cv::Mat out(1, 1, CV_32F, cv::Scalar(std::nan("")));
        af.resampling(in, out, c.f, c.f);
        EXPECT_EQ(out.size(), c.size) << c.f;
        EXPECT_TRUE(cv::checkRange(out, true, nullptr, 0.0, 1.0 + 1e-6)) << c.f;
    }
}

// Every fused pass against the plain steps, from one seed: sizes that df divides and not,
// df 4 and 2, 1 and 3 planes under a guide of as many, of 1 or of 3 planes, one and two
// power iterations, the slicing of several nodes deferred to one pass or a few at a time.
TEST(AFilter, WholeRunMatchesPlainSteps) {
    cv::Mat const photo = kxtest::photo("coffee.png");
    struct Case {
        cv::Size size;
        float sS, sR;
        int planes, guidePlanes, pca, slots;
    } const cases[] = {{{64, 48}, 16.0f, 0.2f, 3, 3, 1, 8},
                       {{61, 45}, 16.0f, 0.3f, 3, 1, 2, 3},
                       {{64, 48}, 8.0f, 0.1f, 1, 1, 1, 2},
                       {{37, 29}, 9.0f, 0.15f, 1, 3, 1, 8}};
    auto planesOf = [&](cv::Size size, int planes) {
        cv::Mat img;
        cv::resize(photo, img, size, 0, 0, cv::INTER_AREA);
        if (planes == 1) cv::cvtColor(img, img, cv::COLOR_BGR2GRAY);
        img.convertTo(img, CV_32F, 1.0 / 255);
        Planes p;
        cv::split(img, p);
        return p;
    };
    for (auto const &c : cases) {
        Planes in = planesOf(c.size, c.planes), guide = planesOf(c.size, c.guidePlanes);
        Counted af;
        af.slots(c.slots);  // the slicing of 8, 3 or 2 nodes at a time
        af.setup(c.sR, c.sS, 0, c.pca, guide);
        Planes out;
        cv::theRNG().state = 12345;
        testing::internal::CaptureStdout();
        af.proc(in, out);
        std::string const printed = testing::internal::GetCapturedStdout();
        EXPECT_EQ(printed.rfind("a time:", 0), 0u);
        EXPECT_NE(printed.find("\nb time:"), std::string::npos);
        EXPECT_NE(printed.find("\nc time:"), std::string::npos);
        AFilter tools;
        Plain plain{tools, c.sS, c.sR, c.pca, {}, {}, {}};
        cv::theRNG().state = 12345;
        Planes const ref = plain.run(in, guide);
        for (int i = 0; i < c.planes; ++i)
            EXPECT_TRUE(same(out[i], ref[i]))
                << c.size << " plane " << i << " " << cv::norm(out[i], ref[i], cv::NORM_INF)
                << " sum0 " << cv::norm(af.sum[0], plain.sum[0], cv::NORM_INF);
        EXPECT_TRUE(same(af.minDist, plain.minDist)) << c.size;
        if (c.planes != c.guidePlanes) continue;
        // The host's whole-run form, image as its own guide, without the timing lines.
        Planes eta, again;
        cv::theRNG().state = 12345;
        testing::internal::CaptureStdout();
        af.build(in, c.sS, c.sR, 0, eta, c.pca, again);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        for (int i = 0; i < c.planes; ++i)
            EXPECT_TRUE(same(again[i], ref[i])) << c.size << " plane " << i;
    }
}

TEST(AFilter, ConstantStaysStepEdgeStaysFiniteAndInRange) {
    for (int planes : {1, 3}) {
        Planes in;
        for (int i = 0; i < planes; ++i)
            in.push_back(cv::Mat(48, 64, CV_32F, cv::Scalar(0.25 * (i + 1))));
        Counted af;
        af.setup(0.2f, 16.0f, 0, 1, in);
        Planes out;
        testing::internal::CaptureStdout();
        af.proc(in, out);
        for (int i = 0; i < planes; ++i)
            EXPECT_TRUE(same(out[i], in[i])) << planes;
        EXPECT_EQ(af.nodes(), 7);  // height 3
        in.assign(planes, kxtest::stepEdge(48, 64, CV_32F, 0.1, 0.9, 30));
        // Height 2; then a range sigma so small that some weights vanish altogether.
        for (float sigmaR : {0.5f, 0.001f}) {
            af.setup(sigmaR, 25.0f, 0, 1, in);
            af.proc(in, out);
            EXPECT_TRUE(sigmaR != 0.5f || af.nodes() == 3);
            for (int i = 0; i < planes; ++i)  // finite, within the input's range
                EXPECT_TRUE(cv::checkRange(out[i], true, nullptr, 0.1 - 1e-5, 0.9 + 1e-5))
                    << planes << " " << sigmaR;
        }
        testing::internal::GetCapturedStdout();
    }
}

TEST(AFilter, GuardRails) {
    AFilter af;
    Planes out, empty;
    EXPECT_TRUE(af.proc(empty, out));
    Planes in{cv::Mat(12, 16, CV_32F, cv::Scalar(0.5))};
    EXPECT_EQ(thrown([&] { af.proc(in, out); }),
              "ERROR - AFilter::proc - guide is not CV_32F of in's size");
    af.setup(0.2f, 2.0f, 0, 1, Planes{cv::Mat(12, 15, CV_32F, cv::Scalar(0.5))});
    EXPECT_EQ(thrown([&] { af.proc(in, out); }),
              "ERROR - AFilter::proc - guide is not CV_32F of in's size");
    Planes bad{in[0], cv::Mat(12, 16, CV_8U, cv::Scalar(1))};
    EXPECT_EQ(thrown([&] { af.proc(bad, out); }),
              "ERROR - AFilter::proc - in is not CV_32F planes of one size");
    // sigmaS 2 asks for df 0.5: clamped to 1, the blur runs at full size.
    af.setup(0.2f, 2.0f, 0, 1, in);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(af.proc(in, out));
    EXPECT_TRUE(same(out[0], in[0]));
    // Planes smaller than df: a reduced size of one pixel.
    for (cv::Size size : {cv::Size(1, 1), cv::Size(5, 3), cv::Size(1, 9)}) {
        Planes tiny{kxtest::noise(size.height, size.width, CV_32F, 3, 0.0, 1.0)};
        af.setup(0.2f, 16.0f, 0, 1, tiny);
        af.proc(tiny, out);
        EXPECT_EQ(out[0].size(), size);
        EXPECT_TRUE(cv::checkRange(out[0])) << size;
    }
    testing::internal::GetCapturedStdout();
}

}  // namespace
