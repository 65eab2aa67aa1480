// Tests of BilateralFilter against a plain bilateral grid written below with direct loops, on
// 8- and 16-bit planes of awkward sizes, self and cross guided.
#include "kestrix1/filters/bilateral_filter.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "kestrix1/frame/kestrix.h"
#include "kestrix1/frame/t_progress.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::thrown;

struct Open : BilateralFilter {
    using BilateralFilter::iir;
    using BilateralFilter::interp8Points;
};

float px(cv::Mat const &m, int r, int c) {
    return m.depth() == CV_8U ? m.at<std::uint8_t>(r, c) : m.at<std::uint16_t>(r, c);
}

// Recursive Gaussian on one line: sigma 0.85, two passes, coefficients in double.
void blurLine(float *d, int n, std::ptrdiff_t s) {
    float const q = 0.85f * 0.85f / 4.0f;
    double const nu = (2.0 * q + 1 - std::sqrt(4.0 * q + 1)) / (2.0 * q), b = 1 / (1 - nu);
    for (int p = 0; p < 2; ++p) {
        d[0] = float(d[0] * b);
        for (int i = 1; i < n; ++i)
            d[i * s] = float(d[i * s] + nu * d[(i - 1) * s]);
        d[(n - 1) * s] = float(d[(n - 1) * s] * b);
        for (int i = n - 2; i >= 0; --i)
            d[i * s] = float(d[i * s] + nu * d[(i + 1) * s]);
    }
    for (int i = 0; i < n; ++i)
        d[i * s] = float(d[i * s] * ((nu / q) * (nu / q)));
}

struct Sizes {
    int W, H, D, sR;
};

// The plain grid: sizing, accumulation, blur along z, x, y, division, trilinear read-back.
// Guide cells past the top of the grid read its last cell.
cv::Mat reference(cv::Mat const &plane, cv::Mat const &guide, int sS, int sR, Sizes &sz) {
    double lo, hi;
    cv::minMaxIdx(guide, &lo, &hi);
    int const W = (plane.cols + sS - 1) / sS + 4, H = (plane.rows + sS - 1) / sS + 4;
    int D = int(std::ceil((hi - lo) / sR)) + 4;
    if (D > 252) D = 252, sR = int((hi - lo) / 248);
    sz = {W, H, D, sR};
    std::vector<float> wt(std::size_t(W) * H * D, 1e-20f), val(wt.size(), 0.0f);
    auto cell = [&](int x, int y, int z) {
        return (std::size_t(x) + std::size_t(y) * W) * D + std::min(z, D - 1);
    };
    auto z = [&](int r, int c, double off) {
        return px(guide, r, c) * float(1.0 / sR) + float(off - int(lo) / double(sR));
    };
    for (int r = 0; r < plane.rows; ++r)
        for (int c = 0; c < plane.cols; ++c) {
            std::size_t const k = cell(2 + c / sS, 2 + r / sS, cv::saturate_cast<uchar>(z(r, c, 2)));
            val[k] += px(plane, r, c);
            wt[k] += 1.0f;
        }
    for (std::vector<float> *g : {&wt, &val}) {
        for (std::size_t i = 0; i < g->size(); i += D)
            blurLine(&(*g)[i], D, 1);
        for (int y = 0; y < H; ++y)
            for (int k = 0; k < D; ++k)
                blurLine(&(*g)[cell(0, y, k)], W, D);
        for (int x = 0; x < W; ++x)
            for (int k = 0; k < D; ++k)
                blurLine(&(*g)[cell(x, 0, k)], H, std::ptrdiff_t(W) * D);
    }
    for (std::size_t i = 0; i < val.size(); ++i)
        val[i] /= wt[i];
    auto lerp = [](float a, float b, float f) { return a + f * (b - a); };
    cv::Mat out = plane.clone();
    for (int r = 0; r < plane.rows; ++r)
        for (int c = 0; c < plane.cols; ++c) {
            float const zf = z(r, c, 1.5), fx = float(c) / float(sS) + 1.0f + 0.5f;
            float const fy = float(r) / float(sS) + 1.0f + 0.5f;
            int const zi = cv::saturate_cast<uchar>(zf), ix = int(fx), iy = int(fy);
            auto v = [&](int x, int y) {
                return lerp(val[cell(x, y, zi)], val[cell(x, y, zi + 1)], zf - float(zi));
            };
            float const res = lerp(lerp(v(ix, iy), v(ix + 1, iy), fx - float(ix)),
                                   lerp(v(ix, iy + 1), v(ix + 1, iy + 1), fx - float(ix)),
                                   fy - float(iy));
            if (out.depth() == CV_8U)
                out.at<std::uint8_t>(r, c) = cv::saturate_cast<std::uint8_t>(res);
            else
                out.at<std::uint16_t>(r, c) = cv::saturate_cast<std::uint16_t>(res);
        }
    return out;
}

// A step edge over noise, spanning exactly lo..hi.
cv::Mat image(int rows, int cols, int depth, double lo, double hi, std::uint64_t seed) {
    if (lo == hi) return cv::Mat(rows, cols, depth, cv::Scalar(lo));
    cv::Mat f = kxtest::stepEdge(rows, cols, CV_32F, 0, (hi - lo) / 2, cols / 3) +
                kxtest::noise(rows, cols, CV_32F, seed, lo, lo + (hi - lo) / 2), m;
    f.at<float>(0, 0) = float(lo);
    f.at<float>(rows - 1, cols - 1) = float(hi);
    f.convertTo(m, depth);
    return m;
}

double maxDiff(cv::Mat const &a, cv::Mat const &b) {
    return cv::norm(a, b, cv::NORM_INF);
}

TEST(BilateralFilter, MatchesPlainGridAndSizesIt) {
    struct Case {
        int rows, cols, depth, guideDepth, sS, sR;  // guideDepth -1: self guided
        double lo, hi;
        int D, sRUsed;
    };
    Case const cases[] = {
        {23, 37, CV_8U, -1, 4, 8, 0, 255, 36, 8},
        {45, 61, CV_16U, -1, 5, 3000, 1000, 60000, 24, 3000},
        {30, 29, CV_16U, CV_8U, 3, 16, 10, 250, 19, 16},
        {17, 50, CV_8U, CV_16U, 7, 4096, 0, 65535, 20, 4096},
        {40, 40, CV_16U, -1, 4, 100, 0, 65535, 252, 264},  // cut to 252 cells
        {33, 19, CV_16U, -1, 2, 100, 0, 30000, 252, 120},  // past the last cell
        {25, 26, CV_8U, CV_8U, 3, 1, 0, 255, 252, 1},      // past the last cell
        {9, 11, CV_16U, -1, 4, 50, 777, 777, 4, 50},       // flat: a spatial blur
        {1, 1, CV_8U, -1, 2, 10, 5, 5, 4, 10},
        {7, 1, CV_16U, -1, 3, 700, 0, 7000, 14, 700},
        {12, 14, CV_8U, -1, 2, 0, 100, 120, 24, 1},  // sampleR below 1 taken as 1
        {45, 50, CV_16U, -1, 20, 30000, 40000, 65535, 5, 30000},  // sums past 2^24
    };
    for (Case const &k : cases) {
        SCOPED_TRACE(testing::Message() << k.rows << "x" << k.cols << " sS " << k.sS);
        cv::Mat plane = image(k.rows, k.cols, k.depth, 40, k.depth == CV_8U ? 255 : 51000, 3);
        if (k.guideDepth < 0) plane = image(k.rows, k.cols, k.depth, k.lo, k.hi, 3);
        cv::Mat const guide =
            k.guideDepth < 0 ? cv::Mat() : image(k.rows, k.cols, k.guideDepth, k.lo, k.hi, 4);
        Sizes sz;
        cv::Mat const want = reference(plane, guide.empty() ? plane : guide, k.sS,
                                       std::max(k.sR, 1), sz);
        BilateralFilter f;
        EXPECT_TRUE(f.proc(guide, plane, k.sS, k.sR, nullptr));
        EXPECT_EQ(maxDiff(plane, want), 0.0);
        EXPECT_EQ(f.gridW, sz.W);
        EXPECT_EQ(f.gridH, sz.H);
        EXPECT_EQ(f.gridD, k.D);
        EXPECT_EQ(f.sampleR, k.sRUsed);
        EXPECT_EQ(f.is16Bit, k.depth == CV_16U);
    }
}

TEST(BilateralFilter, SmallSampleSReusesTheLastGrid) {
    cv::Mat const a = image(31, 27, CV_16U, 500, 40000, 1);
    cv::Mat b, c;
    cv::flip(a, b, -1);  // same extremes, so the same sizing
    c = b.clone();
    BilateralFilter f, g;
    ASSERT_TRUE(f.proc(cv::Mat(), c, 4, 900, nullptr));
    cv::Mat in = a.clone();
    ASSERT_TRUE(g.proc(cv::Mat(), in, 4, 900, nullptr));
    float *const grid = g.gridWeight;
    EXPECT_TRUE(g.proc(cv::Mat(), b, 1, 5, nullptr));
    EXPECT_EQ(g.gridWeight, grid);
    EXPECT_EQ(maxDiff(b, c), 0.0);
}

TEST(BilateralFilter, ThrowsItsTexts) {
    cv::Mat p8(10, 12, CV_8U, cv::Scalar(9)), p16(10, 12, CV_16U, cv::Scalar(9));
    cv::Mat big(6000, 6000, CV_8U, cv::Scalar(0));
    big.at<std::uint8_t>(0, 0) = 255;  // 3004 x 3004 x 252 cells: more than an int counts
    std::string const proc = "ERROR - bool BilateralFilter::proc - ";
    std::string const guide = "ERROR - BilateralFilter::gradientGuide - ";
    std::pair<std::string, std::function<void()>> const cases[] = {
        {proc + "inOut.size !=  edge.size",
         [&] { BilateralFilter().proc(p8.colRange(0, 5), p8, 4, 10, nullptr); }},
        {proc + "inOut and edge must be CV_8UC1 or CV_16UC1",
         [&] { cv::Mat f(3, 3, CV_32F); BilateralFilter().proc(cv::Mat(), f, 4, 1, nullptr); }},
        {proc + "inOut and edge must be CV_8UC1 or CV_16UC1",
         [&] { BilateralFilter().proc(cv::Mat(10, 12, CV_8UC3), p8, 4, 1, nullptr); }},
        {proc + "sampleS < 2 but no grid for this image size",
         [&] { BilateralFilter().proc(cv::Mat(), p8, 1, 10, nullptr); }},
        {proc + "sampleS < 2 but no grid for this image size",
         [&] {
             BilateralFilter f;
             f.proc(cv::Mat(), p16, 4, 10, nullptr);
             cv::Mat other(11, 12, CV_16U, cv::Scalar(0));
             f.proc(cv::Mat(), other, 0, 10, nullptr);
         }},
        {"ERROR - BilateralFilter::alloc()", [&] { BilateralFilter().proc(big, big, 2, 1, nullptr); }},
        {guide + "in image type", [&] { BilateralFilter::gradientGuide(p16, p8, 2); }},
        {guide + "in image type",
         [&] { cv::Mat f(4, 4, CV_32F); BilateralFilter::gradientGuide(f, f, 2); }},
        {guide + "image type ",
         [&] { cv::Mat f(4, 4, CV_8UC3); BilateralFilter::gradientGuide(f, f, 2); }},
        {guide + "in.size != inOut.size",
         [&] { BilateralFilter::gradientGuide(p8.rowRange(0, 4), p8, 2); }},
    };
    for (auto const &[text, call] : cases)
        EXPECT_EQ(thrown(call), text);
    EXPECT_EQ(cv::countNonZero(p8 != 9) + cv::countNonZero(p16 != 9), 0);
    cv::Mat empty;
    EXPECT_TRUE(BilateralFilter().proc(p8, empty, 4, 10, nullptr));
    TProgress cancel([](int, void *) { return false; }, &cancel);
    EXPECT_FALSE(BilateralFilter().proc(cv::Mat(), p8, 4, 10, &cancel));
    EXPECT_EQ(cv::countNonZero(p8 != 9), 0);
}

std::string debugLine;

TEST(BilateralFilter, SharedGridsAreFreedOnceAndGuarded) {
    cv::Mat p = image(20, 30, CV_16U, 0, 9000, 2), q = p.clone(), r = p.clone();
    {
        BilateralFilter a;
        a.proc(cv::Mat(), p, 4, 500, nullptr);
        BilateralFilter b(a), c;
        c = a;
        EXPECT_EQ(c.gridValue, a.gridValue);
        EXPECT_TRUE(c.proc(cv::Mat(), q, 1, 0, nullptr));
        EXPECT_EQ(maxDiff(p, q), 0.0);
        cv::Mat narrow = q.colRange(0, 25);
        c.proc(cv::Mat(), narrow, 4, 500, nullptr);  // c re-sizes alone
        EXPECT_NE(c.gridValue, a.gridValue);
        EXPECT_TRUE(b.proc(cv::Mat(), r, 1, 0, nullptr));  // a's grid is still alive
    }
    BilateralFilter *f = new BilateralFilter;
    f->proc(cv::Mat(), p, 4, 500, nullptr);
    f->gridWeight[f->getGridSize()] = 0.0f;  // an overrun of one word
    cv::Mat const before = p.colRange(0, 20).clone();
    cv::Mat part = p.colRange(0, 20);
    EXPECT_EQ(thrown([&] { f->proc(cv::Mat(), part, 4, 500, nullptr); }),
              "BilateralFilter::dealloc() - != 0x6d6d6d6d");
    EXPECT_EQ(maxDiff(part, before), 0.0);
    Kestrix::setQDebugFunc([](char const *text) { debugLine = text; });
    delete f;  // reports, does not throw
    Kestrix::setQDebugFunc(nullptr);
    EXPECT_NE(debugLine.find("BilateralFilter::dealloc() - != 0x6d6d6d6d"), std::string::npos);
}

TEST(BilateralFilter, SameBitsAtOneTwoAndFourThreads) {
    int const threads = omp_get_max_threads();
    cv::Mat const y = image(301, 257, CV_16U, 0, 65535, 5), g = image(301, 257, CV_8U, 0, 255, 6);
    cv::Mat first[2];
    for (int n : {1, 2, 4}) {
        omp_set_num_threads(n);
        cv::Mat self = y.clone(), cross = y.clone();
        BilateralFilter f;
        f.proc(cv::Mat(), self, 2, 1000, nullptr);
        f.proc(g, cross, 3, 7, nullptr);
        if (n == 1) first[0] = self, first[1] = cross;
        EXPECT_EQ(maxDiff(self, first[0]) + maxDiff(cross, first[1]), 0.0) << n << " threads";
    }
    omp_set_num_threads(threads);
}

template <class T>
cv::Mat plainGradientGuide(cv::Mat const &in, cv::Mat const &io, int r) {
    cv::Mat out = io.clone();
    for (int y = r; y < io.rows - r; ++y)
        for (int x = r; x < io.cols - r; ++x) {
            int hi = 0, lo = 65535, u = io.at<T>(y, x), g = in.at<T>(y, x);
            for (int j = -r; j <= r; ++j)
                for (int i = -r; i <= r; ++i)
                    if (i * i + j * j <= (r + 0.5) * (r + 0.5))
                        hi = std::max(hi, int(io.at<T>(y + j, x + i))),
                        lo = std::min(lo, int(io.at<T>(y + j, x + i)));
            if (hi - u > u - lo ? u < g && g < hi : lo < g && g < u) out.at<T>(y, x) = T(g);
        }
    return out;
}

TEST(BilateralFilter, GradientGuideMatchesPlainDiscExtrema) {
    struct Case {
        int rows, cols, depth, radius, plainRadius;
    };
    for (Case k : {Case{19, 23, CV_8U, 2, 2}, Case{31, 17, CV_16U, 3, 3}, Case{12, 9, CV_8U, 0, 1},
                   Case{5, 40, CV_16U, 3, 3}}) {
        SCOPED_TRACE(testing::Message() << k.rows << "x" << k.cols << " r " << k.radius);
        double const top = k.depth == CV_8U ? 256 : 65536;
        cv::Mat const in = kxtest::noise(k.rows, k.cols, k.depth, 8, 0, top);
        cv::Mat io = kxtest::noise(k.rows, k.cols, k.depth, 9, 0, top), was = io.clone();
        cv::Mat const want = k.depth == CV_8U ? plainGradientGuide<std::uint8_t>(in, io, k.plainRadius)
                                              : plainGradientGuide<std::uint16_t>(in, io, k.plainRadius);
        EXPECT_TRUE(BilateralFilter::gradientGuide(in, io, k.radius));
        EXPECT_EQ(maxDiff(io, want), 0.0);
        EXPECT_EQ(cv::countNonZero(io != was) > 0, k.rows > 2 * k.plainRadius);
    }
}

// The impulse response of n passes keeps unit mass and has variance 2 q n = sigma^2; a
// constant line stays constant; elements between the strided ones stay untouched.
TEST(BilateralFilter, IirIsAUnitGaussianOfSigma) {
    for (float sigma : {0.85f, 2.0f, 5.0f})
        for (int passes : {1, 2, 3}) {
            std::vector<float> line(3 * 201, -1.0f), flat(7, 100.0f);
            for (int i = 0; i < 201; ++i)
                line[3 * i] = i == 100;
            Open::iir(line.data(), 201, 3, sigma, passes);
            Open::iir(flat.data(), 7, 1, sigma, passes);
            double mass = 0, var = 0;
            for (int i = 0; i < 201; ++i)
                mass += line[3 * i], var += line[3 * i] * double(i - 100) * (i - 100);
            EXPECT_NEAR(mass, 1.0, 1e-5) << sigma << " " << passes;
            EXPECT_NEAR(var, sigma * sigma, 1e-4 * sigma * sigma) << sigma << " " << passes;
            EXPECT_NEAR(flat[0], 100.0f, 1e-3) << sigma << " " << passes;
            EXPECT_NEAR(flat[6], 100.0f, 1e-3) << sigma << " " << passes;
            EXPECT_EQ(line[1], -1.0f);
        }
}

TEST(BilateralFilter, Interp8PointsIsTrilinear) {
    auto f = [](float x, float y, float z) { return 1 + 2 * x + 3 * y + 5 * z + 7 * x * y * z; };
    float p[8];
    for (int k = 0; k < 8; ++k)
        p[k] = f(k >> 2 & 1, k >> 1 & 1, k & 1);
    Open::interp8Points(p, 0.25f, 0.5f, 0.75f);
    EXPECT_FLOAT_EQ(p[0], f(0.25f, 0.5f, 0.75f));
    EXPECT_FLOAT_EQ(p[1], f(0.25f, 0.5f, 1));
    EXPECT_FLOAT_EQ(p[3], f(0.25f, 1, 1));
}

}  // namespace
