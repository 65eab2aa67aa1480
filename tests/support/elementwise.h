// A check of kernels whose every output element follows a rule, over every awkward width.
#pragma once

#include <gtest/gtest.h>

#include <cmath>

#include "kestrix1/kernels/px_types.h"
#include "tests/support/images.h"

namespace kxtest {

// Pointers, steps and size of one kernel call.
template <class S, class D>
struct KernelCall {
    S *s;
    int ss;
    D *d;
    int ds;
    IppiSize z;
};

// run(call) from padded full-range noise into a padded target (inPlace: a copy of the source).
// Element i of row y must be want(v, y, i, at) within tol, for v the source element there and
// at(y, i) any; the same again from inside a parallel region, where it runs on one thread.
template <class S, class D = S, class Want, class Run>
void forEachWidth(int channels, int rows, bool inPlace, double tol, Want want, Run run) {
    for (int w : kAwkwardWidths) {
        PaddedMat src(rows, w, typeOf<S>(channels)), dst(rows, w, typeOf<D>(channels), 8);
        fullRangeNoise<S>(rows, w, channels, w + channels).copyTo(src.view);
        KernelCall<S, D> const call{src.ptr<S>(), src.step(), dst.ptr<D>(), dst.step(), {w, rows}};
        if (inPlace) src.view.copyTo(dst.view);
        ASSERT_EQ(run(call), 0);
        auto at = [&](int y, int i) { return double(src.view.ptr<S>(y)[i]); };
        int wrong = 0;
        for (int y = 0; y < rows; ++y)
            for (int i = 0; i < w * channels; ++i)
                wrong += std::fabs(dst.view.ptr<D>(y)[i] - double(want(at(y, i), y, i, at))) > tol;
        cv::Mat const once = dst.view.clone();
        if (inPlace) src.view.copyTo(dst.view);
        PxStatus nested = -1;
#pragma omp parallel num_threads(2)
#pragma omp single
        nested = run(call);
        EXPECT_TRUE(wrong == 0 && dst.paddingIntact() && nested == 0 &&
                    cv::norm(dst.view, once, cv::NORM_INF) == 0)
            << wrong << " wrong at width " << w;
    }
}

}  // namespace kxtest
