// Tests of MHist: rotations, histograms, smoothing, transfer curves and the XML text.
#include "kestrix1/hist/m_hist.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <random>

#include "kestrix1/kernels/px_point.h"
#include "tests/hist/hist_test_support.h"

namespace {

// Every turn is a rotation (a mistyped entry breaks that), with a zero last column, and gRinv
// is its transpose. Spot entries as published.
TEST(MHist, RotationTables) {
    for (int i = 0; i < 12; ++i)
        for (int a = 0; a < 3; ++a) {
            for (int b = 0; b < 3; ++b) {
                double dot = 0;
                for (int k = 0; k < 3; ++k)
                    dot += double(MHist::gR[i][a][k]) * MHist::gR[i][b][k];
                EXPECT_NEAR(dot, a == b, 3e-5) << i << " " << a << " " << b;
                EXPECT_EQ(MHist::gRinv[i][a][b], MHist::gR[i][b][a]);
            }
            EXPECT_TRUE(MHist::gR[i][a][3] == 0.0f && MHist::gRinv[i][a][3] == 0.0f);
        }
    EXPECT_TRUE(MHist::gR[3][0][1] == 0.92219f && MHist::gR[7][0][0] == -0.000462f);
}

// One rotation of a small image against a plain count and smoothing; then one value per
// channel in the first, a middle and the last bin: the smoothing and the last-bin rule.
TEST(MHist, ComputeHistCountsAndSmooths) {
    MHist h;
    cv::Mat noise = kxtest::fullRangeNoise<std::int16_t>(7, 33, 3, 5);
    EXPECT_TRUE(h.computeHist(noise, 4));
    std::vector<int> o(3072, 0), want(3072);
    for (int i = 0; i < 7 * 33 * 3; ++i)
        ++o[i % 3 * 1024 + (noise.ptr<std::int16_t>()[i] + 32768) / 64];
    for (int c = 0; c < 3072; c += 1024) {
        want[c] = int((float(o[c]) + float(o[c + 1])) * 0.5f);
        for (int i = c + 1; i < c + 1023; ++i)
            want[i] = int((float(o[i - 1]) + float(o[i + 1])) * 0.25f + float(o[i]) * 0.5f);
        want[c + 1023] = int((float(want[c + 1022]) + float(o[c + 1023])) * 0.5f);
    }
    EXPECT_EQ(std::vector<int>(h.Hist.ptr<int>(4), h.Hist.ptr<int>(5)), want);
    EXPECT_TRUE(h.TotalPixels == 231 && h.Step.at<cv::Vec3i>(4) == cv::Vec3i::all(64) &&
                h.MaxVal.at<cv::Vec3i>(4) + h.MinVal.at<cv::Vec3i>(4) == cv::Vec3i::all(-1));

    cv::Mat flat(4, 5, CV_16SC3, cv::Scalar(-32768, 0, 32767));
    h.computeHist(flat, 0);
    std::fill(want.begin(), want.end(), 0);
    want[0] = 10, want[1] = 5;  // (20 + 0) / 2, 20 / 4
    want[1024 + 511] = 5, want[1024 + 512] = 10, want[1024 + 513] = 5;
    want[2048 + 1022] = 5, want[2048 + 1023] = 12;  // (5 + 20) / 2, truncated
    EXPECT_EQ(std::vector<int>(h.Hist.ptr<int>(0), h.Hist.ptr<int>(1)), want);
    EXPECT_EQ(h.HistMax, 12.0f);
}

// compute against the plain steps (merge, convertTo, pxColorTwist, computeHist) on a
// photograph, at 1, 2 and 4 threads; HistMax only grows.
TEST(MHist, ComputeMatchesPlainSteps) {
    std::vector<cv::Mat> planes = kxtest::photoPlanes("chelsea.png", 257, 171);
    MHist want;
    cv::Mat merged, img, work(171, 257, CV_16SC3);
    cv::merge(planes, merged);
    merged.convertTo(img, CV_16SC3, 0.4640727096341327, -15206.734549291261);
    for (int r = 0; r < 12; ++r) {
        pxColorTwist(img.ptr<std::int16_t>(), int(img.step), work.ptr<std::int16_t>(),
                     int(work.step), {257, 171}, &MHist::gR[r][0][0]);
        want.computeHist(work, r);
    }
    for (int threads : {1, 2, 4}) {
        omp_set_num_threads(threads);
        MHist h;
        h.HistMax = threads == 4 ? 1e9f : 0.0f;
        EXPECT_TRUE(h.compute(planes) && !h.empty() && h.TotalPixels == 257 * 171);
        EXPECT_EQ(cv::norm(h.Hist, want.Hist, cv::NORM_INF), 0.0) << threads << " threads";
        EXPECT_EQ(h.HistMax, threads == 4 ? 1e9f : want.HistMax);
    }
    omp_set_num_threads(omp_get_num_procs());
}

// clipLevel at its three anchors; filterHist against a Gaussian
// written out with reflected indices: none, narrow and wide kernels, and one wider than the
// histogram.
TEST(MHist, ClipLevelAndFilterHist) {
    MHist h;
    EXPECT_EQ(h.clipLevel(0.0f, 10240.0f, 0.5f), 10240);  // nothing clipped
    EXPECT_EQ(h.clipLevel(0.05f, 10240.0f, 0.5f), 5120);  // share x level
    EXPECT_EQ(h.clipLevel(1.0f, 10240.0f, 0.5f), 15);     // 1.5 / 1024 of the level
    std::vector<int> bins(1024);
    for (int b = 0; b < 1024; ++b)
        bins[b] = (b * 7919) % 1000 + (b < 3 ? 50000 : 0) + (b > 1020 ? 90000 : 0);
    auto at = [&](int b) { return double(bins[b < 0 ? -1 - b : b > 1023 ? 2047 - b : b]); };
    for (float sigma : {0.0f, 0.004f, 0.05f, 0.25f, 5.0f}) {
        float const s = sigma * 256.0f;
        int const R = std::min(int(3.0f * s), 1024);
        std::vector<int> want = bins, got = bins;
        std::vector<double> g(R + 1);
        double sum = 0;
        for (int i = 1; i <= R; ++i)
            sum += (g[i] = std::exp(-double(i) * i * (0.5 / (double(s) * s))));
        sum = 1 + 2 * sum;
        for (int b = 0; b < 1024 && R > 0; ++b) {
            double v = at(b) / sum;
            for (int i = 1; i <= R; ++i)
                v += g[i] / sum * (at(b - i) + at(b + i));
            want[b] = int(v);
        }
        h.filterHist(got.data(), sigma);
        EXPECT_EQ(got, want) << "sigma " << sigma;
    }
}

// The transfer from an object to itself is the identity at every control point, with and
// without smoothing and when clipping leaves nothing (flat); to another photograph it rises.
TEST(MHist, TransferCurves) {
    MHist a, b;
    ASSERT_TRUE(a.compute(kxtest::photoPlanes("chelsea.png", 200, 150)) &&
                b.compute(kxtest::photoPlanes("coffee.png", 160, 120)));
    int ys[1026], xs[1026];
    for (float clip : {0.0f, 300.0f, 1e9f})
        for (float sigma : {0.0f, 0.25f})
            for (int rc : {0, 16, 34, 35}) {
                int const r = rc / 3, c = rc % 3;
                a.clipValue = b.clipValue = clip;
                ASSERT_TRUE(a.transfer1D(a, ys, xs, sigma, r, c));
                for (int i = 0; i < 1026; ++i)
                    ASSERT_EQ(ys[i], xs[i]) << clip << " " << sigma << " " << r << " " << i;
                EXPECT_TRUE(xs[2] - xs[1] == 64 && xs[1025] == 32767);
                a.transfer1D(b, ys, xs, sigma, r, c);
                for (int i = 2; i < 1026; ++i)  // point 0 starts an empty span
                    ASSERT_LE(ys[i - 1], ys[i]) << clip << " " << sigma << " " << r;
            }
}

std::string storage(std::string const &body) {
    return "<?xml version=\"1.0\"?>\n<opencv_storage>\n" + body + "</opencv_storage>\n";
}

// Keys read by name in any order; malformed matrices are empty; numbers by the node rules
// (absent 0, other kinds of node 1e30). save then load gives the six items back. Texts not
// in save's XML and a few hundred damaged copies (cut, bytes changed, keys renamed) load or
// throw OpenCV's exception, leaving the object as it was, and never crash (also run under
// the sanitizers; OpenCV's own parser crashes on some cut texts).
TEST(MHist, LoadTexts) {
    std::string const hist = "<Hist><rows>1</rows><cols>2</cols><dt>i</dt><data>3 4</data></Hist>";
    MHist h;
    h.compute(kxtest::photoPlanes("rocket.jpg", 8, 8));
    ASSERT_TRUE(h.load(storage(hist)) && !h.empty());
    EXPECT_TRUE(h.Hist.at<int>(0, 1) == 4 && h.MaxVal.empty() && h.MinVal.empty() &&
                h.Step.empty() && h.TotalPixels == 0 && h.HistMax == 0);
    h.load(storage("<HistMax>2.5</HistMax><TotalPixels>abc</TotalPixels>" + hist));
    EXPECT_TRUE(h.HistMax == 2.5f && h.TotalPixels == 1e30f && !h.Hist.empty());
    h.load(storage("<Hist>5</Hist><TotalPixels><a>1</a></TotalPixels><HistMax>7</HistMax>"));
    EXPECT_TRUE(h.Hist.empty() && h.TotalPixels == 1e30f && h.HistMax == 7);
    h.load(storage("<Hist><rows>1</rows><cols>2</cols><dt>i</dt><data>3 x</data></Hist>"));
    EXPECT_TRUE(h.Hist.empty() && h.TotalPixels == 0);
    MHist a, b;
    a.compute(kxtest::photoPlanes("coffee.png", 40, 30));
    a.clipValue = 5, b.clipValue = 77;
    std::string text;
    EXPECT_TRUE(a.save(text) && b.load(text) && !b.empty());  // the round trip first
    for (auto m : {&MHist::Hist, &MHist::MaxVal, &MHist::MinVal, &MHist::Step})
        EXPECT_TRUE((b.*m).size() == (a.*m).size() && cv::norm(a.*m, b.*m, cv::NORM_INF) == 0);
    EXPECT_TRUE(b.TotalPixels == a.TotalPixels && b.HistMax == a.HistMax && b.clipValue == 77);
    std::vector<std::string> damaged;
    std::mt19937 rng(7);
    for (std::size_t cut = 0; cut < text.size(); cut += cut + 40 < text.size() ? 500 : 1)
        damaged.push_back(text.substr(0, cut));
    char const bytes[] = "<>/\"=!-?& \n0x\x01\xff";
    for (int k = 0; k < 200; ++k) {
        std::string t = text;
        t[k < 100 ? rng() % 400 : rng() % t.size()] = bytes[rng() % (sizeof bytes - 1)];
        damaged.push_back(t);
    }
    for (std::string key : {"Hist", "MaxVal", "rows", "cols", "dt", "data", "opencv_storage"})
        damaged.push_back(std::string(text).replace(text.find(key), key.size(), "Other"));
    std::string const bad[] = {"",
                               "Hist 1",
                               "%YAML:1.0\nHist: 1\n",
                               storage("<a>1<b/></a>"),
                               "<?xml version=\"1.0\"?><a/>",
                               storage("") + "<more/>"};
    int loaded = 0;
    for (std::string const &t : damaged) {
        MHist h = a;
        try {
            loaded += h.load(t);
        } catch (cv::Exception const &) {
            EXPECT_TRUE(h.Hist.data == a.Hist.data && !h.isEmpty && h.HistMax == a.HistMax);
        }
    }
    EXPECT_GT(loaded, 10);
    EXPECT_LT(loaded, int(damaged.size()));
    for (std::string const &t : bad)
        EXPECT_THROW(MHist().load(t), cv::Exception) << t;
}

}  // namespace
