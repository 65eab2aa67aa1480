// Tests of LocalFilter against plain step-by-step references written below: the shift-based
// halving and doubling, whole filter runs on small images, and the remapping tables.
#include "kestrix1/filters/local_filter.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <opencv2/imgproc.hpp>
#include <string>
#include <tuple>
#include <vector>

#include "kestrix1/frame/kestrix.h"
#include "kestrix1/frame/t_progress.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using cv::Mat;
using u16 = std::uint16_t;

int sat(double v) {
    return int(std::clamp(v, 0.0, 65535.0));
}

// Output (i, j) at input (2i+1, 2j+1); (1 2 1)/4 rows then across; the last row, column
// and corner from the last two input rows and columns.
Mat halveRef(Mat const &in) {
    int const rows = in.rows, cols = in.cols, ri = (rows - 1) / 2, ci = (cols - 1) / 2;
    auto px = [&](int r, int c) { return int(in.at<u16>(std::max(r, 0), std::max(c, 0))); };
    auto h = [&](int r, int j) {
        return int((px(r, 2 * j) + px(r, 2 * j + 2)) * 0.25 + px(r, 2 * j + 1) * 0.5);
    };
    auto pair = [&](int r) { return (px(r, cols - 2) >> 1) + (px(r, cols - 1) >> 1); };
    auto term = [&](int r, int j) {
        return ((px(r, 2 * j) >> 2) + (px(r, 2 * j + 1) >> 1) + (px(r, 2 * j + 2) >> 2)) >> 1;
    };
    Mat out((rows + 1) / 2, (cols + 1) / 2, CV_16UC1);
    for (int i = 0; i < out.rows; ++i)
        for (int j = 0; j < out.cols; ++j) {
            int v;
            if (i < ri && j < ci)
                v = int((h(2 * i, j) + h(2 * i + 2, j)) * 0.25 + h(2 * i + 1, j) * 0.5);
            else if (i < ri)
                v = (pair(2 * i) >> 2) + (pair(2 * i + 1) >> 1) + (pair(2 * i + 2) >> 2);
            else if (j < ci)
                v = term(rows - 2, j) + term(rows - 1, j);
            else
                v = int((0.0 + px(rows - 2, cols - 2) + px(rows - 2, cols - 1) +
                         px(rows - 1, cols - 2) + px(rows - 1, cols - 1)) /
                        4.0);
            out.at<u16>(i, j) = u16(v);
        }
    return out;
}

// The five steps of the doubling, serially, as written out for rows >= 4 and cols >= 3.
Mat doubleRef(Mat const &src, cv::Size size) {
    int const rows = size.height, cols = size.width, last = (cols + 1) / 2 - 1;
    Mat d(size, CV_16UC1, cv::Scalar(0));
    auto q = [&](int r, int c) -> u16 & { return d.at<u16>(r, c); };
    for (int r = 1; r < rows; r += 2) {
        auto p = [&](int c) { return src.at<u16>(r / 2, c); };
        q(r, 2) = u16((p(0) >> 1) + (p(1) >> 1));
        for (int c = 3; c < cols - 1; c += 2) {
            q(r, c + 1) = u16((p(c / 2 + 1) >> 1) + (p(c / 2) >> 1));
            q(r, c) = u16((p(c / 2) >> 1) + (q(r, c - 1) >> 2) + (q(r, c + 1) >> 2));
        }
        q(r, 0) = q(r, 2);
        q(r, 1) = u16((p(0) >> 1) + 2 * (q(r, 2) >> 2));
        if (cols % 2 == 0) {
            q(r, cols - 1) = u16((q(r, cols - 2) >> 1) + (p(last) >> 1));
        } else {
            q(r, cols - 1) = q(r, cols - 3);
            q(r, cols - 2) = u16((q(r, cols - 3) >> 1) + (p(last) >> 1));
        }
    }
    auto mean = [&](int out, int a, int b) {
        for (int c = 0; c < cols; ++c)
            q(out, c) = u16((q(a, c) >> 1) + (q(b, c) >> 1));
    };
    mean(2, 3, 1);
    for (int r = 3; r < rows - 2; r += 2) {
        mean(r + 1, r, r + 2);
        for (int c = 0; c < cols; ++c)
            q(r, c) = u16((q(r, c) >> 1) + (q(r + 1, c) >> 2) + (q(r - 1, c) >> 2));
    }
    if (rows % 2 == 1) {
        d.row(rows - 3).copyTo(d.row(rows - 1));
        mean(rows - 2, rows - 2, rows - 3);
    } else {
        mean(rows - 1, rows - 1, rows - 2);
    }
    d.row(2).copyTo(d.row(0));
    mean(1, 1, 2);
    return d;
}

Mat offsetSumRef(Mat const &a, Mat const &b, int sign) {
    Mat out(a.size(), CV_16UC1);
    for (int i = 0; i < int(a.total()); ++i)
        out.at<u16>(i) = u16(sat(a.at<u16>(i) + sign * (b.at<u16>(i) - 32768.0)));
    return out;
}

// Halving and doubling: OpenCV's 5-tap pair, or the plain shift-based steps above.
Mat downRef(Mat const &m, bool opencv) {
    Mat o = opencv ? Mat() : halveRef(m);
    if (opencv) cv::pyrDown(m, o, cv::Size(), cv::BORDER_REFLECT101);
    return o;
}
Mat upRef(Mat const &m, cv::Size s, bool opencv) {
    Mat o = opencv ? Mat() : doubleRef(m, s);
    if (opencv) cv::pyrUp(m, o, s, cv::BORDER_REFLECT101);
    return o;
}

// Gaussian levels of `top`'s depth, then each level minus the next one doubled.
std::vector<Mat> laplacianRef(Mat const &image, int depth, bool opencv) {
    std::vector<Mat> g{image};
    for (int i = 1; i < depth; ++i)
        g.push_back(downRef(g.back(), opencv));
    for (int i = 0; i + 1 < depth; ++i)
        g[i] = offsetSumRef(g[i], upRef(g[i + 1], g[i].size(), opencv), -1);
    return g;
}

u16 remapRef(u16 const *T, int x, float g) {
    int const i = std::clamp(int(std::nearbyint((float(x) - g) * 0.5f + 32768.0f)), 0, 65535);
    return u16(sat(x + 2.0 * T[i] - 65536));
}

// The whole filter, one interval at a time, both reference pyramids built afresh each time.
// tables: the variant without a reference at 0 and without extrapolation.
Mat filterRef(Mat const &src, LocalFilter const &f, bool opencv, bool tables) {
    int const n = f.remapLevels;
    float const step = f.range * 65535.0f / float(n), inv = 1.0f / step;
    Mat x;
    src.convertTo(x, CV_16UC1, f.range, (1.0 - f.range) * 32768.0);
    int depth = 0;
    while ((2 << depth) <= std::min(x.rows, x.cols))
        ++depth;
    std::vector<Mat> G{x}, O = laplacianRef(x, depth, opencv);
    for (int i = 1; i < depth; ++i)
        G.push_back(downRef(G.back(), opencv));
    auto reference = [&](int j) {
        Mat r(x.size(), CV_16UC1);
        for (int i = 0; i < int(x.total()); ++i)
            r.at<u16>(i) = remapRef(f.remapLut, x.at<u16>(i), float(j) * step);
        return laplacianRef(r, depth, opencv);
    };
    for (int j = 0; j + 1 < n; ++j) {
        std::vector<Mat> lo = reference(tables ? std::max(j, 1) : j), hi = reference(j + 1);
        for (int l = 0; l < depth; ++l)
            for (int i = 0; i < int(G[l].total()); ++i) {
                float const fv = tables ? G[l].at<u16>(i) * inv : G[l].at<u16>(i) / step;
                int const k = tables ? int(fv) : std::min(int(fv), n - 2);
                float const fr = fv - float(k);
                float const v =
                    float(hi[l].at<u16>(i)) * fr + float(lo[l].at<u16>(i)) * (1.0f - fr);
                if (k == j) O[l].at<u16>(i) = u16(sat(int(v)));
            }
    }
    Mat r = O[depth - 1];
    for (int l = depth - 2; l >= 0; --l)
        r = offsetSumRef(O[l], upRef(r, O[l].size(), opencv), +1);
    r.convertTo(r, CV_16UC1, 1.0 / f.range, (1.0 - 1.0 / f.range) * 32768.0);
    return r;
}

bool equal(Mat const &a, Mat const &b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

TEST(LocalFilter, HalvingDoublingAndSumsMatchPlainSteps) {
    LocalFilter f;
    int const sizes[][2] = {{4, 4}, {5, 5},   {4, 7},   {7, 4}, {6, 5}, {5, 33}, {33, 5},
                            {9, 8}, {37, 29}, {64, 48}, {2, 9}, {1, 7}, {3, 1}};
    for (auto const &s : sizes) {
        SCOPED_TRACE(std::to_string(s[0]) + "x" + std::to_string(s[1]));
        Mat const in = kxtest::fullRangeNoise<u16>(s[0], s[1], 1, 7 + s[0] * s[1]);
        Mat half = in.clone(), down, up;
        EXPECT_TRUE(f.spd(half, down) && equal(down, halveRef(in)));
        if (s[0] < 4 || s[1] < 3) continue;  // odd sizes come back whole:
        EXPECT_TRUE(f.spu(down, up, in.size()) && equal(up, doubleRef(down, in.size())));
        Mat sum, diff, a = in.clone();
        EXPECT_TRUE(f.sadd(a, up, sum) && equal(sum, offsetSumRef(in, up, +1)));
        EXPECT_TRUE(f.ssubstract(a, up, diff) && equal(diff, offsetSumRef(in, up, -1)));
    }
    // Tiny outputs are corners of the least doubling, never out of bounds.
    Mat one(1, 1, CV_16UC1, cv::Scalar(1000)), out;
    for (cv::Size s : {cv::Size(1, 1), cv::Size(2, 2), cv::Size(3, 3), cv::Size(9, 1)})
        EXPECT_TRUE(f.spu(one, out, s) && equal(out, Mat(s, CV_16UC1, cv::Scalar(1000))));
}

struct ProcCase {
    char const *name;
    bool (LocalFilter::*proc)(Mat const &, Mat &, TProgress *);
    bool cv, tables;
};
ProcCase const kRuns[] = {{"proc3", &LocalFilter::proc3, true, false},
                          {"proc4", &LocalFilter::proc4, false, false},
                          {"proc5", &LocalFilter::proc5, false, true}};

TEST(LocalFilter, ProcsMatchPlainReferenceAtAnyThreadCount) {
    LocalFilter f(4, 8);
    for (auto [rows, cols, strength, range] :
         {std::tuple{37, 29, 0.3f, 1.0f}, {64, 48, -0.2f, 1.0f}, {29, 150, 0.5f, 0.8f}})
        for (ProcCase const &run : kRuns) {
            f.setup(strength, 4, 8);
            f.range = range;
            f.setupLUT(8);
            Mat const src = kxtest::fullRangeNoise<u16>(rows, cols, 1, 11) / 2 +
                            kxtest::ramp(rows, cols, CV_16UC1) / 2;
            Mat out;
            testing::internal::CaptureStdout();
            EXPECT_TRUE((f.*run.proc)(src, out, nullptr));
            testing::internal::GetCapturedStdout();
            EXPECT_EQ(f.pyrLevels, rows < 32 || cols < 32 ? 4 : 5);
            EXPECT_TRUE(equal(out, filterRef(src, f, run.cv, run.tables))) << run.name << rows;
        }
    // Threads: large enough planes to be split, results identical at 1, 2 and 4 threads.
    Mat const src =
        kxtest::fullRangeNoise<u16>(520, 509, 1, 3) / 3 + kxtest::ramp(520, 509, CV_16UC1);
    f.setup(0.4f, 4, 4);
    f.setupLUT(4);
    int const threads = omp_get_max_threads();
    for (ProcCase const &run : kRuns) {
        Mat first;
        for (int t : {1, 2, 4}) {
            omp_set_num_threads(t);
            Mat out;
            testing::internal::CaptureStdout();
            (f.*run.proc)(src, out, nullptr);
            testing::internal::GetCapturedStdout();
            if (first.empty()) first = out;
            EXPECT_TRUE(equal(out, first)) << run.name << " at " << t << " threads";
        }
    }
    omp_set_num_threads(threads);
}

TEST(LocalFilter, CancelPrintsAndSmallInputs) {
    LocalFilter f(4, 8);
    f.range = 0.5f;
    Mat const src = kxtest::ramp(40, 33, CV_16UC1), scaled = src * 0.5 + 16384;
    int calls = 0;
    TProgress cancel([](int, void *user) { return ++*static_cast<int *>(user) > 1 ? false : true; },
                     &calls);
    for (ProcCase const &run : kRuns) {
        calls = 0;
        Mat out;
        testing::internal::CaptureStdout();
        EXPECT_FALSE((f.*run.proc)(src, out, &cancel)) << run.name;  // cancelled in interval 0
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_TRUE(equal(out, scaled)) << run.name;

        testing::internal::CaptureStdout();
        EXPECT_TRUE((f.*run.proc)(src, out, nullptr));
        std::string const lines = testing::internal::GetCapturedStdout();
        std::string const pattern =
            std::string("^time to remap: [0-9.e-]+\ntime to build pyramid using ") +
            (run.cv ? "cv" : "simple") + " method: [0-9.e-]+\ntime to reconstruct: [0-9.e-]+\n$";
        EXPECT_TRUE(testing::internal::RE::FullMatch(lines, run.tables ? "^$" : pattern.c_str()));

        // Empty input leaves dst alone; a side of one pixel has no pyramid; 2x2 and 3x3 run.
        Mat keep(2, 2, CV_16UC1, cv::Scalar(9)), empty;
        EXPECT_TRUE((f.*run.proc)(empty, keep, nullptr) && cv::norm(keep, cv::NORM_INF) == 9);
        for (cv::Size s : {cv::Size(1, 1), cv::Size(9, 1), cv::Size(1, 5), cv::Size(2, 2),
                           cv::Size(3, 3), cv::Size(4, 5)}) {
            Mat const in = kxtest::ramp(s.height, s.width, CV_16UC1);
            testing::internal::CaptureStdout();
            EXPECT_TRUE((f.*run.proc)(in, out, nullptr));
            testing::internal::GetCapturedStdout();
            EXPECT_EQ(out.size(), s);
            EXPECT_TRUE(std::min(s.height, s.width) > 1 || cv::norm(out, in, cv::NORM_INF) <= 1);
        }
    }
    Mat out;
    EXPECT_EQ(kxtest::thrown([&] { f.proc4(Mat(4, 4, CV_8UC1), out, nullptr); }),
              "ERROR - LocalFilter::proc - src.type()!=CV_16UC1");
}

// T from pairs (level, value) on the identity, each interval half open.
std::vector<int> pairsRef(std::vector<std::pair<int, int>> const &p) {
    std::vector<int> t(65536);
    std::iota(t.begin(), t.end(), 0);
    for (std::size_t k = 0; k + 1 < p.size(); ++k)
        for (int i = std::max(p[k].first, 0); i < std::min(p[k + 1].first, 65536); ++i)
            t[i] =
                sat(p[k].second + std::int64_t(i - p[k].first) * (p[k + 1].second - p[k].second) /
                                      (p[k + 1].first - p[k].first));
    return t;
}

std::vector<int> tableOf(LocalFilter const &f) {
    return std::vector<int>(f.remapLut, f.remapLut + 65536);
}

std::vector<int> triangle(int r, int s) {
    int const h = r / 2;
    return pairsRef({{0, 32768},
                     {32768 - r, 32768},
                     {32768 - h, 32768 - s / 2},
                     {32768, 32768},
                     {32768 + h, 32768 + s / 2},
                     {32768 + r, 32768},
                     {65535, 32768}});
}

std::vector<std::string> traced;

TEST(LocalFilter, RemapTables) {
    LocalFilter f(3, 5);
    EXPECT_EQ(tableOf(f), triangle(8, 8));
    EXPECT_EQ(f.remapLut[65535], 65535);  // the last interval is open at its end
    f.setup(0.1f);
    EXPECT_EQ(f.remapLevels, 64);
    EXPECT_EQ(tableOf(f), triangle(3284, 3284));  // (int)(0.1 * 32768 + 8)
    f.setup(-0.25f, 2, 9);
    EXPECT_EQ(tableOf(f), triangle(8200, -8200));

    LocalFilter copy(f), assigned;  // copies own their tables
    assigned = f;
    EXPECT_TRUE(copy.remapLut != f.remapLut && tableOf(copy) == tableOf(f) &&
                tableOf(assigned) == tableOf(f));

    // Curve over 0..1: the identity curve changes nothing within its levels' span.
    Mat curve(1, 256, CV_32F);
    for (int i = 0; i < 256; ++i)
        curve.at<float>(i) = float(i) / 255.0f;
    EXPECT_TRUE(f.adjustRemap(curve));
    for (int i : {0, 1000, 32768, 65278})
        EXPECT_EQ(f.remapLut[i], 32768);
    EXPECT_EQ(f.remapLut[65300], 65300);
    EXPECT_FALSE(f.adjustRemap(Mat(1, 255, CV_32F)));

    // Control points, unsmoothed: pairs, then odd about the centre; n of 0 is 32.
    Mat const cp = (cv::Mat_<float>(2, 2) << 0.1f, 2.0f, 0.5f, 1.5f);
    f.setup(cp, 0, 0.0f);
    EXPECT_EQ(f.remapLevels, 32);
    std::vector<int> want = pairsRef({{0, 16384},
                                      {16384, 24576},
                                      {29491, 29491},
                                      {32768, 32768},
                                      {36044, 36044},
                                      {49152, 40960},
                                      {65536, 49152}});
    for (int i = 1; i <= 32766; ++i)
        want[32768 - i] = (65536 - want[32768 + i]) & 0xFFFF;
    EXPECT_EQ(tableOf(f), want);
    f.setup(cp, 3, 0.0f);
    EXPECT_EQ(f.remapLevels, 8);

    // Four parameters: n from the first one, and the knots on the trace.
    Kestrix::setQDebugFunc([](char const *text) { traced.emplace_back(text); });
    float zero[4] = {0, 0, 0, 0}, p[4] = {1.0f, 0.5f, -0.5f, 0.2f};
    f.setup(zero);
    EXPECT_EQ(f.remapLevels, 33);
    f.setup(p);
    EXPECT_EQ(f.remapLevels, 63);
    Kestrix::setQDebugFunc(nullptr);
    ASSERT_EQ(traced.size(), 2u);
    EXPECT_EQ(traced[1].substr(9),
              " - 231 - LocalFilter::setup : cp: 32768,32768; 34406,36044; 36044,36454; "
              "39321,30801; 45875,35389; 65536,55642;  - ");
}

}  // namespace
