// Tests of MHist: the rotation tables, the histograms and their smoothing, the transfer curve
// and the XML text, including damaged texts.
#include "kestrix1/hist/m_hist.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <opencv2/core.hpp>
#include <random>

#include "kestrix1/kernels/px_point.h"
#include "tests/hist/hist_test_support.h"

namespace {

// Every turn is a rotation: rows of unit length at right angles (a mistyped entry breaks
// that), a zero last column, and gRinv the transpose. Spot entries as published.
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
            EXPECT_EQ(MHist::gR[i][a][3], 0.0f);
            EXPECT_EQ(MHist::gRinv[i][a][3], 0.0f);
        }
    EXPECT_EQ(MHist::gR[0][1][1], 1.0f);
    EXPECT_EQ(MHist::gR[3][0][1], 0.92219f);
    EXPECT_EQ(MHist::gR[7][0][0], -0.000462f);
    EXPECT_EQ(MHist::gR[11][2][2], -0.281164f);
}

// Counts of a CV_16SC3 image by bins of 64 from -32768, smoothed by the stated rule.
std::vector<int> plainRow(cv::Mat const &m) {
    std::vector<int> h(3072, 0), out(3072);
    for (int y = 0; y < m.rows; ++y)
        for (int x = 0; x < m.cols; ++x)
            for (int c = 0; c < 3; ++c)
                ++h[c * 1024 + (m.at<cv::Vec3s>(y, x)[c] + 32768) / 64];
    for (int c = 0; c < 3; ++c) {
        int const *o = h.data() + c * 1024;
        int *n = out.data() + c * 1024;
        n[0] = int((float(o[0]) + float(o[1])) * 0.5f);
        for (int i = 1; i < 1023; ++i)
            n[i] = int((float(o[i - 1]) + float(o[i + 1])) * 0.25f + float(o[i]) * 0.5f);
        n[1023] = int((float(n[1022]) + float(o[1023])) * 0.5f);
    }
    return out;
}

std::vector<int> row(MHist const &h, int r) {
    return std::vector<int>(h.Hist.ptr<int>(r), h.Hist.ptr<int>(r) + 3072);
}

// One rotation on a small image against a plain count; then one value per channel, where
// the first, a middle and the last bin show the smoothing and the last-bin rule.
TEST(MHist, ComputeHistCountsAndSmooths) {
    MHist h;
    cv::Mat noise = kxtest::fullRangeNoise<std::int16_t>(7, 33, 3, 5);
    EXPECT_TRUE(h.computeHist(noise, 4));
    EXPECT_EQ(row(h, 4), plainRow(noise));
    EXPECT_EQ(h.TotalPixels, 231.0f);
    EXPECT_EQ(h.MaxVal.at<cv::Vec3i>(4), cv::Vec3i::all(32767));
    EXPECT_EQ(h.MinVal.at<cv::Vec3i>(4), cv::Vec3i::all(-32768));
    EXPECT_EQ(h.Step.at<cv::Vec3i>(4), cv::Vec3i::all(64));
    EXPECT_TRUE(h.empty());  // only compute and load fill the object

    cv::Mat flat(4, 5, CV_16SC3, cv::Scalar(-32768, 0, 32767));
    h.computeHist(flat, 0);
    std::vector<int> want(3072, 0);
    want[0] = 10, want[1] = 5;  // (20 + 0) / 2, 20 / 4
    want[1024 + 511] = 5, want[1024 + 512] = 10, want[1024 + 513] = 5;
    want[2048 + 1022] = 5, want[2048 + 1023] = 12;  // (5 + 20) / 2, truncated
    EXPECT_EQ(row(h, 0), want);
    EXPECT_EQ(h.HistMax, 12.0f);
    EXPECT_EQ(h.TotalPixels, 20.0f);
}

// compute against the plain steps (merge, convertTo, pxColorTwist, computeHist) on a
// photograph, at 1, 2 and 4 threads; a second compute keeps the greater HistMax.
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
        EXPECT_TRUE(h.compute(planes));
        EXPECT_FALSE(h.empty());
        EXPECT_EQ(cv::norm(h.Hist, want.Hist, cv::NORM_INF), 0.0) << threads << " threads";
        EXPECT_EQ(h.HistMax, want.HistMax);
        EXPECT_EQ(h.TotalPixels, 257.0f * 171.0f);
    }
    omp_set_num_threads(omp_get_num_procs());
    MHist h;
    h.HistMax = 1e9f;
    h.compute(planes);
    EXPECT_EQ(h.HistMax, 1e9f);
}

TEST(MHist, ClipLevel) {
    MHist h;
    EXPECT_EQ(h.clipLevel(0.0f, 10240.0f, 0.5f), 10240);   // nothing clipped
    EXPECT_EQ(h.clipLevel(0.05f, 10240.0f, 0.5f), 5120);   // share x level
    EXPECT_EQ(h.clipLevel(1.0f, 10240.0f, 0.5f), 15);      // 1.5 / 1024 of the level
    EXPECT_EQ(h.clipLevel(0.025f, 10240.0f, 0.5f), 7680);  // halfway on the first slope
}

// filterHist against a Gaussian written out with reflected indices, at no smoothing, a
// narrow and a wide kernel, and one wider than the histogram.
TEST(MHist, FilterHistMatchesPlainGaussian) {
    std::vector<int> bins(1024);
    for (int b = 0; b < 1024; ++b)
        bins[b] = (b * 7919) % 1000 + (b < 3 ? 50000 : 0) + (b > 1020 ? 90000 : 0);
    for (float sigma : {0.0f, 0.004f, 0.05f, 0.25f, 5.0f}) {
        float const s = sigma * 256.0f;
        int const R = std::min(int(3.0f * s), 1024);
        std::vector<int> want = bins, got = bins;
        if (R > 0) {
            std::vector<double> g(R + 1);
            double sum = 0;
            for (int i = 1; i <= R; ++i)
                sum += (g[i] = std::exp(-double(i) * i * (0.5 / (double(s) * s))));
            sum = 1 + 2 * sum;
            auto at = [&](int b) { return double(bins[b < 0 ? -1 - b : b > 1023 ? 2047 - b : b]); };
            for (int b = 0; b < 1024; ++b) {
                double v = at(b) / sum;
                for (int i = 1; i <= R; ++i)
                    v += g[i] / sum * (at(b - i) + at(b + i));
                want[b] = int(v);
            }
        }
        MHist().filterHist(got.data(), sigma);
        EXPECT_EQ(got, want) << "sigma " << sigma;
    }
}

// The transfer from an object to itself is the identity at every control point, with and
// without smoothing and when clipping leaves nothing (flat); to another photograph it rises.
TEST(MHist, TransferCurves) {
    MHist a, b;
    a.compute(kxtest::photoPlanes("chelsea.png", 200, 150));
    b.compute(kxtest::photoPlanes("coffee.png", 160, 120));
    int ys[1026], xs[1026];
    for (float clip : {0.0f, 300.0f, 1e9f})
        for (float sigma : {0.0f, 0.25f})
            for (int r : {0, 5, 11})
                for (int c = 0; c < 3; ++c) {
                    a.clipValue = b.clipValue = clip;
                    ASSERT_TRUE(a.transfer1D(a, ys, xs, sigma, r, c));
                    for (int i = 0; i < 1026; ++i)
                        ASSERT_EQ(ys[i], xs[i]) << clip << " " << sigma << " " << r << " " << i;
                    EXPECT_EQ(xs[1] - xs[0], 0);
                    EXPECT_EQ(xs[2] - xs[1], 64);
                    EXPECT_EQ(xs[1025], 32767);
                    a.transfer1D(b, ys, xs, sigma, r, c);
                    for (int i = 2; i < 1026; ++i)  // point 0 is the empty first span
                        ASSERT_LE(ys[i - 1], ys[i]) << clip << " " << sigma << " " << r;
                }
}

// Copies share the signed table, which stays alive with the last of them.
TEST(MHist, CopiesShareTheSignedTable) {
    MHist *a = new MHist;
    MHist b(*a);
    EXPECT_EQ(a->signedTable.get(), b.signedTable.get());
    delete a;
    EXPECT_EQ(b.signedTable.get()[0], 32768);
    EXPECT_EQ(b.signedTable.get()[32768], 0);
    EXPECT_EQ(b.signedTable.get()[65535], 32767);
}

bool sameMat(cv::Mat const &a, cv::Mat const &b) {
    return a.size() == b.size() && a.type() == b.type() &&
           (a.empty() || cv::norm(a, b, cv::NORM_INF) == 0.0);
}

TEST(MHist, SaveLoadRoundTrip) {
    MHist a;
    a.compute(kxtest::photoPlanes("astronaut.png", 90, 70));
    a.clipValue = 5;
    std::string text;
    EXPECT_TRUE(a.save(text));
    for (char const *key : {"<Hist", "<MaxVal", "<MinVal", "<Step", "<TotalPixels", "<HistMax"})
        EXPECT_NE(text.find(key), std::string::npos) << key;
    EXPECT_EQ(text.find("clipValue"), std::string::npos);
    MHist b;
    b.clipValue = 77;
    EXPECT_TRUE(b.load(text));
    EXPECT_FALSE(b.empty());
    EXPECT_TRUE(sameMat(a.Hist, b.Hist) && sameMat(a.MaxVal, b.MaxVal) &&
                sameMat(a.MinVal, b.MinVal) && sameMat(a.Step, b.Step));
    EXPECT_EQ(b.TotalPixels, a.TotalPixels);
    EXPECT_EQ(b.HistMax, a.HistMax);
    EXPECT_EQ(b.clipValue, 77.0f);
}

std::string storage(std::string const &body) {
    return "<?xml version=\"1.0\"?>\n<opencv_storage>\n" + body + "</opencv_storage>\n";
}

// Keys read by name in any order; missing or malformed matrices are empty; numbers follow
// the node rules (absent 0, any other kind of node 1e30).
TEST(MHist, LoadReadsEachKeyByName) {
    std::string const hist =
        "<Hist type_id=\"opencv-matrix\"><rows>1</rows><cols>2</cols><dt>i</dt>"
        "<data>3 4</data></Hist>\n";
    struct Case {
        std::string body;
        bool hist;
        float total, highest;
    } const cases[] = {
        {hist, true, 0, 0},
        {"<HistMax>2.5</HistMax>" + hist + "<TotalPixels>7</TotalPixels>", true, 7, 2.5f},
        {hist + "<TotalPixels>abc</TotalPixels><HistMax><a>1</a></HistMax>", true, 1e30f, 1e30f},
        {"<Hist>5</Hist><TotalPixels>\"12\"</TotalPixels>", false, 1e30f, 0},
        {"<Hist type_id=\"opencv-matrix\"><rows>1</rows><cols>3</cols><dt>i</dt>"
         "<data>3 4</data></Hist>",
         false, 0, 0},
        {"<Hist><rows>1</rows><cols>2</cols><dt>\"9q\"</dt><data>3 4</data></Hist>", false, 0, 0},
        {"<Hist><rows>1</rows><cols>2</cols><dt>i</dt><data>3 x</data></Hist>", false, 0, 0},
    };
    for (Case const &c : cases) {
        MHist h;
        h.compute(kxtest::photoPlanes("rocket.jpg", 8, 8));
        ASSERT_TRUE(h.load(storage(c.body))) << c.body;
        EXPECT_FALSE(h.empty());
        EXPECT_EQ(h.Hist.empty(), !c.hist) << c.body;
        if (c.hist) {
            EXPECT_EQ(h.Hist.at<int>(0, 1), 4);
        }
        EXPECT_TRUE(h.MaxVal.empty() && h.MinVal.empty() && h.Step.empty());
        EXPECT_EQ(h.TotalPixels, c.total) << c.body;
        EXPECT_EQ(h.HistMax, c.highest) << c.body;
    }
}

// Loads or throws cv::Exception, leaving the object as it was on a throw.
bool loadsOrThrows(MHist &h, std::string const &text) {
    MHist const before = h;
    try {
        h.load(text);
        return true;
    } catch (cv::Exception const &) {
        EXPECT_TRUE(h.Hist.data == before.Hist.data && h.HistMax == before.HistMax &&
                    h.isEmpty == before.isEmpty);
        return false;
    }
}

TEST(MHist, BadTextsThrowOpenCVsException) {
    for (std::string const &text :
         {std::string(), std::string("Hist 1 2 3"), std::string("%YAML:1.0\nHist: 1\n"),
          storage("<Hist>1</Hist").substr(0, 40), std::string("<?xml version=\"1.0\"?><a></a>"),
          storage("<Hist>1</Hist>") + "<more/>", storage("<Hist>1<b>2</b></Hist>")}) {
        MHist h;
        EXPECT_FALSE(loadsOrThrows(h, text)) << text;
        EXPECT_TRUE(h.empty());
    }
}

// A few hundred damaged copies of a saved text: cut at many places, bytes changed, keys
// renamed. Each loads or throws; none may crash (this test also runs under the sanitizers).
TEST(MHist, DamagedTextsLoadOrThrow) {
    MHist a;
    a.compute(kxtest::photoPlanes("coffee.png", 40, 30));
    std::string text;
    a.save(text);
    std::vector<std::string> damaged;
    std::mt19937 rng(7);
    for (std::size_t cut = 0; cut < text.size(); cut += 1 + text.size() / 150)
        damaged.push_back(text.substr(0, cut));
    for (std::size_t cut = text.size() - 40; cut < text.size(); ++cut)
        damaged.push_back(text.substr(0, cut));
    char const bytes[] = "<>/\"=!-?& \n0x\x01\xff";
    for (int k = 0; k < 200; ++k) {
        std::string t = text;
        std::size_t const at = k < 100 ? rng() % 400 : rng() % t.size();
        t[at] = bytes[rng() % (sizeof bytes - 1)];
        damaged.push_back(t);
    }
    for (char const *key : {"Hist", "MaxVal", "rows", "cols", "dt", "data", "opencv_storage"}) {
        std::string t = text;
        std::size_t const at = t.find(key);
        damaged.push_back(t.replace(at, std::strlen(key), "Other"));
        damaged.push_back(text.substr(0, at) + text.substr(t.find('>', at) + 1));
    }
    int loaded = 0;
    for (std::string const &t : damaged) {
        MHist h;
        loaded += loadsOrThrows(h, t);
    }
    EXPECT_GT(loaded, 10);
    EXPECT_LT(loaded, int(damaged.size()));
}

}  // namespace
