// Tests of BilateralFilter against a plain bilateral grid written below with direct loops, on
// 8- and 16-bit planes of awkward sizes, self and cross guided, at 1, 2 and 4 threads.
#include "kestrix1/filters/bilateral_filter.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <string>
#include <vector>

#include "kestrix1/frame/kestrix.h"
#include "kestrix1/frame/t_progress.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

struct Open : BilateralFilter {
    using BilateralFilter::iir, BilateralFilter::interp8Points;
};

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

// The plain grid: sizing, accumulation, blur along z, x, y, division, trilinear read-back.
// Guide cells past the top of the grid read its last cell.
cv::Mat reference(cv::Mat const &plane, cv::Mat const &guide, int sS, int sR) {
    double lo, hi;
    cv::minMaxIdx(guide, &lo, &hi);
    cv::Mat P, G;
    plane.convertTo(P, CV_32F);
    guide.convertTo(G, CV_32F);
    int const W = (plane.cols + sS - 1) / sS + 4, H = (plane.rows + sS - 1) / sS + 4;
    int D = int(std::ceil((hi - lo) / sR)) + 4;
    if (D > 252) D = 252, sR = int((hi - lo) / 248);
    std::vector<float> wt(std::size_t(W) * H * D, 1e-20f), val(wt.size(), 0.0f);
    auto cell = [&](int x, int y, int z) {
        return (std::size_t(x) + std::size_t(y) * W) * D + std::min(z, D - 1);
    };
    auto z = [&](int r, int c, double off) {
        return G.at<float>(r, c) * float(1.0 / sR) + float(off - int(lo) / double(sR));
    };
    for (int r = 0; r < plane.rows; ++r)
        for (int c = 0; c < plane.cols; ++c) {
            auto const k = cell(2 + c / sS, 2 + r / sS, cv::saturate_cast<uchar>(z(r, c, 2)));
            val[k] += P.at<float>(r, c);
            wt[k] += 1.0f;
        }
    for (std::vector<float> *g : {&wt, &val}) {  // along z, then x, then y
        for (int i = 0; i < W * H; ++i)
            blurLine(&(*g)[std::size_t(i) * D], D, 1);
        for (int i = 0; i < H * D; ++i)
            blurLine(&(*g)[cell(0, i / D, i % D)], W, D);
        for (int i = 0; i < W * D; ++i)
            blurLine(&(*g)[cell(i / D, 0, i % D)], H, std::ptrdiff_t(W) * D);
    }
    for (std::size_t i = 0; i < val.size(); ++i)
        val[i] /= wt[i];
    auto lerp = [](float a, float b, float f) { return a + f * (b - a); };
    cv::Mat out(plane.size(), CV_32F);
    for (int r = 0; r < plane.rows; ++r)
        for (int c = 0; c < plane.cols; ++c) {
            float const zf = z(r, c, 1.5), fx = float(c) / float(sS) + 1.0f + 0.5f;
            float const fy = float(r) / float(sS) + 1.0f + 0.5f;
            int const zi = cv::saturate_cast<uchar>(zf), ix = int(fx), iy = int(fy);
            auto v = [&](int x, int y) {
                return lerp(val[cell(x, y, zi)], val[cell(x, y, zi + 1)], zf - float(zi));
            };
            out.at<float>(r, c) =
                lerp(lerp(v(ix, iy), v(ix + 1, iy), fx - float(ix)),
                     lerp(v(ix, iy + 1), v(ix + 1, iy + 1), fx - float(ix)), fy - float(iy));
        }
    out.convertTo(out, plane.depth());  // rint, saturated
    return out;
}

// Noise spanning exactly lo..hi.
cv::Mat image(int rows, int cols, int depth, int lo, int hi, std::uint64_t seed) {
    cv::Mat m = kxtest::noise(rows, cols, depth, seed, lo, hi + 1);
    m(cv::Rect(0, 0, 1, 1)) = lo;
    m(cv::Rect(cols - 1, rows - 1, 1, 1)) = hi;
    return m;
}

TEST(BilateralFilter, MatchesPlainGridAndSizesIt) {
    // rows, cols, depth, guide depth (-1: self), sampleS, sampleR, guide lo..hi, gridD, sampleR
    int const cases[][10] = {
        {30, 29, CV_16U, CV_8U, 3, 16, 10, 250, 19, 16},
        {17, 50, CV_8U, CV_16U, 7, 4096, 0, 65535, 20, 4096},
        {40, 40, CV_16U, -1, 4, 100, 0, 65535, 252, 264},  // cut to 252 cells
        {33, 19, CV_16U, -1, 2, 100, 0, 30000, 252, 120},  // past the last cell
        {25, 26, CV_8U, CV_8U, 3, 1, 0, 255, 252, 1},      // past the last cell
        {9, 11, CV_16U, -1, 4, 50, 777, 777, 4, 50},       // flat: a spatial blur
        {1, 1, CV_8U, -1, 2, 10, 5, 5, 4, 10},
        {23, 1, CV_8U, -1, 4, 8, 0, 255, 36, 8},
        {12, 14, CV_8U, -1, 2, 0, 100, 120, 24, 1},               // sampleR below 1 taken as 1
        {45, 50, CV_16U, -1, 30, 30000, 40000, 65535, 5, 30000},  // sums past 2^24
        {201, 181, CV_16U, -1, 2, 1000, 0, 65535, 70, 1000},      // large enough for threads
        {201, 181, CV_16U, CV_8U, 3, 7, 0, 255, 41, 7},
    };
    for (auto [rows, cols, depth, guideDepth, sS, sR, lo, hi, D, sRUsed] : cases) {
        SCOPED_TRACE(testing::Message() << rows << "x" << cols << " sS " << sS);
        cv::Mat plane = image(rows, cols, depth, 40, depth == CV_8U ? 255 : 51000, 3), guide;
        if (guideDepth < 0) plane = image(rows, cols, depth, lo, hi, 3);
        if (guideDepth >= 0) guide = image(rows, cols, guideDepth, lo, hi, 4);
        cv::Mat const want = reference(plane, guide.empty() ? plane : guide, sS, std::max(sR, 1));
        BilateralFilter f;
        for (int n : {1, 2, 4}) {
            omp_set_num_threads(n);
            cv::Mat out = plane.clone();
            EXPECT_TRUE(f.proc(guide, out, sS, sR, nullptr));
            EXPECT_EQ(cv::norm(out, want, cv::NORM_INF), 0.0) << n << " threads";
        }
        EXPECT_EQ(cv::Scalar(f.gridW, f.gridH, f.gridD, f.sampleR),
                  cv::Scalar((cols + sS - 1) / sS + 4, (rows + sS - 1) / sS + 4, D, sRUsed));
        EXPECT_EQ(f.is16Bit, depth == CV_16U);
    }
}

char const kGuard[] = "BilateralFilter::dealloc() - != 0x6d6d6d6d";
char const kReuse[] = "sampleS < 2 but no grid for this image size";
std::string debugLine;

TEST(BilateralFilter, ThrowsItsTextsBeforeTouchingThePlane) {
    cv::Mat p8(10, 12, CV_8U, cv::Scalar(9)), p16(10, 12, CV_16U, cv::Scalar(9)), f32(4, 4, CV_32F),
        c3(4, 4, CV_8UC3), big(6000, 6000, CV_8U, cv::Scalar(0)), empty;
    big.at<std::uint8_t>(0, 0) = 255;  // 3004 x 3004 x 252 cells: more than an int counts
    std::string const proc = "ERROR - bool BilateralFilter::proc - ", reuse = proc + kReuse;
    std::string const gg = "ERROR - BilateralFilter::gradientGuide - ";
    std::string const type = proc + "inOut and edge must be CV_8UC1 or CV_16UC1";
    auto run = [](cv::Mat const &e, cv::Mat m, int sS) { BilateralFilter().proc(e, m, sS, 1, {}); };
    std::pair<std::string, std::function<void()>> const cases[] = {
        {proc + "inOut.size !=  edge.size", [&] { run(p8.colRange(0, 5), p8, 4); }},
        {type, [&] { run({}, f32, 4); }},
        {type, [&] { run(c3, f32, 4); }},
        {reuse, [&] { run({}, p8, 1); }},
        {"ERROR - BilateralFilter::alloc()", [&] { run(big, big, 2); }},
        {gg + "in image type", [&] { BilateralFilter::gradientGuide(p16, p8, 2); }},
        {gg + "in image type", [&] { BilateralFilter::gradientGuide(f32, f32, 2); }},
        {gg + "image type ", [&] { BilateralFilter::gradientGuide(c3, c3, 2); }},
        {gg + "in.size != inOut.size",
         [&] { BilateralFilter::gradientGuide(p8.rowRange(0, 4), p8, 2); }},
    };
    for (auto const &[text, call] : cases)
        EXPECT_EQ(kxtest::thrown(call), text);
    EXPECT_TRUE(BilateralFilter().proc(p8, empty, 4, 10, nullptr));
    TProgress cancel([](int, void *) { return false; }, &cancel);
    EXPECT_FALSE(BilateralFilter().proc(cv::Mat(), p8, 4, 10, &cancel));
    EXPECT_EQ(cv::countNonZero(p8 != 9) + cv::countNonZero(p16 != 9), 0);
}

// Copies share the grids, which are freed once; a damaged guard throws on a re-size and is
// reported, not thrown, by the destructor.
TEST(BilateralFilter, SharedGridsAreFreedOnceAndGuarded) {
    cv::Mat p = image(20, 30, CV_16U, 0, 9000, 2), q = p.clone(), r = p.clone();
    {
        BilateralFilter a;
        a.proc(cv::Mat(), p, 4, 500, nullptr);
        BilateralFilter b(a), c;
        c = a;
        EXPECT_TRUE(c.proc(cv::Mat(), q, 1, 0, nullptr));  // a's grid and sampling
        EXPECT_EQ(cv::norm(p, q, cv::NORM_INF), 0.0);
        cv::Mat narrow = q.colRange(0, 25);
        c.proc(cv::Mat(), narrow, 4, 500, nullptr);  // c re-sizes alone, b keeps a's grid
        EXPECT_TRUE(b.proc(cv::Mat(), r, 1, 0, nullptr));
        cv::Mat bright(20, 30, CV_16U, cv::Scalar(65535));  // a guide far past the reused grid
        EXPECT_TRUE(b.proc(bright, r, 1, 0, nullptr));
        EXPECT_NE(kxtest::thrown([&] { c.proc({}, r, 1, 0, nullptr); }).find(kReuse),
                  std::string::npos);
    }
    auto *f = new BilateralFilter;
    f->proc(cv::Mat(), p, 4, 500, nullptr);
    f->gridWeight[f->getGridSize()] = 0.0f;  // an overrun of one word
    cv::Mat part = p.colRange(0, 20);
    EXPECT_EQ(kxtest::thrown([&] { f->proc(cv::Mat(), part, 4, 500, nullptr); }), kGuard);
    Kestrix::setQDebugFunc([](char const *text) { debugLine = text; });
    delete f;
    Kestrix::setQDebugFunc(nullptr);
    EXPECT_NE(debugLine.find(kGuard), std::string::npos);
}

cv::Mat plainGradientGuide(cv::Mat const &in, cv::Mat const &io, int r) {
    cv::Mat g, u, out;
    in.convertTo(g, CV_32S);
    io.convertTo(u, CV_32S);
    out = u.clone();
    for (int y = r; y < io.rows - r; ++y)
        for (int x = r; x < io.cols - r; ++x) {
            int hi = 0, lo = 65535, v = u.at<int>(y, x), w = g.at<int>(y, x);
            for (int j = -r; j <= r; ++j)
                for (int i = -r; i <= r; ++i)
                    if (i * i + j * j <= (r + 0.5) * (r + 0.5))
                        hi = std::max(hi, u.at<int>(y + j, x + i)),
                        lo = std::min(lo, u.at<int>(y + j, x + i));
            if (hi - v > v - lo ? v < w && w < hi : lo < w && w < v) out.at<int>(y, x) = w;
        }
    out.convertTo(out, io.depth());
    return out;
}

TEST(BilateralFilter, GradientGuideMatchesPlainDiscExtrema) {
    int const cases[][5] = {
        {19, 23, CV_8U, 2, 2}, {31, 17, CV_16U, 3, 3}, {12, 9, CV_8U, 0, 1}, {5, 40, CV_16U, 3, 3}};
    for (auto [rows, cols, depth, radius, used] : cases) {
        SCOPED_TRACE(testing::Message() << rows << "x" << cols << " r " << radius);
        double const top = depth == CV_8U ? 256 : 65536;
        cv::Mat const in = kxtest::noise(rows, cols, depth, 8, 0, top);
        cv::Mat io = kxtest::noise(rows, cols, depth, 9, 0, top), was = io.clone();
        cv::Mat const want = plainGradientGuide(in, io, used);
        EXPECT_TRUE(BilateralFilter::gradientGuide(in, io, radius));
        EXPECT_EQ(cv::norm(io, want, cv::NORM_INF), 0.0);
        EXPECT_EQ(cv::countNonZero(io != was) > 0, rows > 2 * used);  // a small plane keeps all
    }
}

// iir: the impulse response of n passes keeps unit mass and has variance 2 q n = sigma^2;
// elements between the strided ones stay untouched. interp8Points: a trilinear function.
TEST(BilateralFilter, IirAndInterp8PointsOnKnownValues) {
    for (float sigma : {0.85f, 2.0f, 5.0f})
        for (int passes : {1, 2, 3}) {
            std::vector<float> line(3 * 201, -1.0f);
            for (int i = 0; i < 201; ++i)
                line[3 * i] = i == 100;
            Open::iir(line.data(), 201, 3, sigma, passes);
            double mass = 0, var = 0;
            for (int i = 0; i < 201; ++i)
                mass += line[3 * i], var += line[3 * i] * double(i - 100) * (i - 100);
            SCOPED_TRACE(testing::Message() << sigma << " " << passes);
            EXPECT_NEAR(mass, 1.0, 1e-5);
            EXPECT_NEAR(var, sigma * sigma, 1e-4 * sigma * sigma);
            EXPECT_EQ(line[1], -1.0f);
        }
    // Corners k = 4x + 2y + z of 1 + 2x + 3y + 5z + 7xyz; the intermediate values stay in p[1..3].
    float p[8] = {1, 6, 4, 9, 3, 8, 6, 18};
    Open::interp8Points(p, 0.25f, 0.5f, 0.75f);
    EXPECT_EQ(std::vector<float>(p, p + 4), (std::vector<float>{7.40625f, 8.875f, 4.5f, 11.25f}));
}

}  // namespace
