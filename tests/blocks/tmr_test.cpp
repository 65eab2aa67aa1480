// Tests of TMR: the bilateral recipes against the same steps written with BilateralFilter and
// whole-plane arithmetic, at 1, 2 and 4 threads, with their progress and cancel; every plane
// recipe giving a back when b is a; the block recipes against their chain on the whole plane.
#include "kestrix1/blocks/tmr.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <vector>

#include "kestrix1/filters/bilateral_filter.h"
#include "kestrix1/frame/t_progress.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using Planes = std::vector<cv::Mat>;
float const kIn = 1.52587890625e-05f;

// Smooth shapes with fine noise on top, so that both base and detail carry something; the
// values stay clear of 0 and 65535, where intermediate planes would saturate.
Planes photoLike(int rows, int cols, int seed) {
    Planes p;
    for (int i = 0; i < 3; ++i) {
        cv::Mat m = kxtest::checkerboard(rows, cols, CV_16U, 40 + 9 * i, 9000, 40000);
        cv::add(m, kxtest::noise(rows, cols, CV_16U, seed + i, 0, 6000), m);
        cv::add(m, kxtest::ramp(rows, cols, CV_16U) / 16, m);
        p.push_back(m);
    }
    return p;
}

double maxDiff(Planes const &x, Planes const &y, cv::Rect r = {}) {
    double d = 0;
    for (int i = 0; i < 3; ++i)
        d = std::max(d, r.empty() ? cv::norm(x[i], y[i], cv::NORM_INF)
                                  : cv::norm(x[i](r), y[i](r), cv::NORM_INF));
    return d;
}

TEST(TMR, BilateralRecipesMatchTheirStepsAtAnyThreadCount) {
    cv::Mat const a = photoLike(97, 131, 1)[0], b = photoLike(97, 131, 7)[1];
    TMR t;
    t.setup(6.0f, 0.25f);
    BilateralFilter bf;
    cv::Mat A = a.clone(), B = b.clone(), d, want1, want2;
    bf.proc(cv::Mat(), A, 6, 4096, nullptr);
    bf.proc(cv::Mat(), B, 6, 4096, nullptr);
    cv::Mat(cv::Mat_<float>(b) - cv::Mat_<float>(B) + cv::Mat_<float>(A)).convertTo(want1, CV_16U);
    cv::addWeighted(b, 1.0, a, -1.0, 32768.0, d);
    bf.proc(cv::Mat(), d, 6, 4096, nullptr);
    cv::Mat(cv::Mat_<float>(d) - 32768.0f + cv::Mat_<float>(a)).convertTo(want2, CV_16U);
    for (int threads : {1, 2, 4}) {
        omp_set_num_threads(threads);
        cv::Mat c1 = a.clone(), c2 = a.clone();
        EXPECT_TRUE(t.procC1(c1, b, nullptr));
        EXPECT_TRUE(t.procC2(c2, b));
        EXPECT_EQ(cv::norm(c1, want1, cv::NORM_INF), 0) << threads;
        EXPECT_EQ(cv::norm(c2, want2, cv::NORM_INF), 0) << threads;
    }
    omp_set_num_threads(omp_get_num_procs());
}

struct Calls {
    std::vector<int> seen;
    int cancelAt;
};
bool record(int thousandths, void *user) {
    auto *c = static_cast<Calls *>(user);
    c->seen.push_back(thousandths);
    return thousandths != c->cancelAt;
}

TEST(TMR, ProcC1ReportsAndCancels) {
    cv::Mat const a = photoLike(40, 50, 3)[0], b = photoLike(40, 50, 4)[2];
    TMR t;
    t.setup(4.0f, 0.1f);
    for (int cancelAt : {-1, 400, 800, 1000}) {
        Calls calls{{}, cancelAt};
        TProgress progress(record, &calls);
        cv::Mat c = a.clone();
        EXPECT_EQ(t.procC1(c, b, &progress), cancelAt < 0);
        std::vector<int> want;
        for (int k : {400, 800, 1000})
            if (cancelAt < 0 || k <= cancelAt) want.push_back(k);
        EXPECT_EQ(calls.seen, want);
        EXPECT_EQ(cv::norm(c, a, cv::NORM_INF) == 0, cancelAt > 0 && cancelAt < 1000);
    }
}

// b = a: every recipe's detail of b restores what its base of a took away.
TEST(TMR, EveryRecipeGivesABackWhenBIsA) {
    Planes const a = photoLike(300, 1100, 11);  // two blocks across, rejoined
    TMR t;
    t.setup(20.0f, 0.2f);
    Planes out;
    for (int recipe = 0; recipe < 6; ++recipe) {
        out.clear();
        bool ok = recipe == 0   ? t.proc(a, a, out)
                  : recipe == 1 ? t.proc1(a, a, out)
                  : recipe == 2 ? t.proc2(a, a, out)
                  : recipe == 3 ? t.proc3(a, a, out)
                  : recipe == 4 ? t.proc5(a, a, out)
                                : t.proc6(a, a, out);
        ASSERT_TRUE(ok);
        ASSERT_EQ(out.size(), 3u);
        // proc3's intermediate planes meet at the seam of the two blocks (columns 540 to
        // 559), where what the blocks' filters disagree on may saturate them.
        double const d = recipe != 3 ? maxDiff(out, a)
                                     : std::max(maxDiff(out, a, {0, 0, 500, 300}),
                                                maxDiff(out, a, {600, 0, 500, 300}));
        EXPECT_LE(d, 1) << "recipe " << recipe;
    }
    // proc4 lays c on the base: on a flat a the base is a itself.
    Planes flat(3, cv::Mat(300, 1100, CV_16U, cv::Scalar(20000))), want(3);
    for (int i = 0; i < 3; ++i)
        cv::add(a[i], -12768, want[i]);  // 20000 + a - 32768
    ASSERT_TRUE(t.proc4(flat, a, a, out));
    EXPECT_EQ(maxDiff(out, want), 0);
}

// The chains of proc5 and proc3 on the whole plane, with whole-plane operations.
Planes wholeChain(int recipe, Planes const &a, Planes const &b, float sS, float sR) {
    DTFilter dt;
    dt.setup(sS, sR, 3, recipe == 5 ? DTFilter::L1 : DTFilter::L2);
    auto f32 = [](cv::Mat const &m16) {
        cv::Mat f;
        m16.convertTo(f, CV_32F, kIn);
        return f;
    };
    auto back = [](cv::Mat const &f) {
        cv::Mat o;
        f.convertTo(o, CV_16UC3, 65536.0);
        return o;
    };
    cv::Mat A, B, F, G;
    cv::merge(a, A);
    cv::merge(b, B);
    cv::Mat out;
    if (recipe == 5) {
        F = f32(A);
        dt.proc(F, f32(B), F, 0);
        dt.proc(f32(B), G, 0);
        out = back(F + (f32(B) - G));
    } else {
        auto sweep = [&](cv::Mat const &X, cv::Mat const &P, cv::Mat const &Q) {
            dt.proc(f32(X), F, 0);
            return back(F + (f32(P) - f32(Q)));
        };
        cv::Mat const t1 = sweep(B, A, B), t2 = sweep(A, A, t1);
        out = sweep(t2, A, t1);
    }
    Planes o;
    cv::split(out, o);
    return o;
}

TEST(TMR, BlockRecipesMatchTheWholePlaneAwayFromSeams) {
    Planes const a = photoLike(1100, 1500, 21), b = photoLike(1100, 1500, 31);
    TMR t;
    t.setup(6.0f, 0.15f);
    // Blocks: columns 0..751 and 748..1499, rows 0..559 and 540..1099; 48 pixels away from
    // those seams the filters' reach has died out.
    cv::Rect const cores[] = {
        {0, 0, 700, 492}, {800, 0, 700, 492}, {0, 608, 700, 492}, {800, 608, 700, 492}};
    for (int recipe : {3, 5}) {
        Planes out;
        ASSERT_TRUE(recipe == 3 ? t.proc3(a, b, out) : t.proc5(a, b, out));
        Planes const want = wholeChain(recipe, a, b, 6.0f, 0.15f);
        for (cv::Rect const &r : cores)
            EXPECT_LE(maxDiff(out, want, r), 0) << "recipe " << recipe << " at " << r;
        std::printf("recipe %d: at most %g codes from the whole plane, seams included\n", recipe,
                    maxDiff(out, want));
    }
}

TEST(TMR, WrongPlanesAreRefused) {
    Planes const good = photoLike(8, 9, 1), two(good.begin(), good.begin() + 2);
    Planes small = photoLike(8, 9, 1), bytes = small, out;
    small[2] = cv::Mat(8, 8, CV_16U);
    bytes[1] = cv::Mat(8, 9, CV_8U);
    TMR t;
    EXPECT_EQ(kxtest::thrown([&] { t.proc(good, two, out); }),
              "ERROR - TMR::proc - a and b must be three CV_16UC1 planes of one size");
    EXPECT_EQ(kxtest::thrown([&] { t.proc3(small, good, out); }),
              "ERROR - TMR::proc3 - a and b must be three CV_16UC1 planes of one size");
    EXPECT_EQ(kxtest::thrown([&] { t.proc4(good, good, bytes, out); }),
              "ERROR - TMR::proc4 - a, b and c must be three CV_16UC1 planes of one size");
    cv::Mat a = good[0];
    EXPECT_EQ(kxtest::thrown([&] { t.procC1(a, small[2], nullptr); }),
              "ERROR - TMR::procC1 - a and b must be CV_16UC1 of one size");
    EXPECT_EQ(kxtest::thrown([&] { t.procC2(a, bytes[1]); }),
              "ERROR - TMR::procC2 - a and b must be CV_16UC1 of one size");
    EXPECT_TRUE(t.proc5(Planes{}, two, out));  // empty input: nothing to do
    EXPECT_TRUE(out.empty());
}

}  // namespace
