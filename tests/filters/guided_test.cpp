// Tests of filterGuidedByY and filterGuidedByRGB on cuts of a photograph in three depths: each
// is TGFilter on the inputs scaled to 0..1, applied on the guides in their own depth.
#include "kestrix1/filters/guided.h"

#include <gtest/gtest.h>

#include <functional>
#include <opencv2/imgproc.hpp>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::thrown;
using Planes = std::vector<cv::Mat>;

// Whether f prints `passes` pairs of timing lines of `name` (none for 0).
bool timed(std::function<void()> const &f, std::string const &name, int passes) {
    testing::internal::CaptureStdout();
    f();
    std::string const line = " - [-+.e0-9]+ s\\.\n";
    std::string const pass =
        name + " - guided filtering estimate" + line + name + " - guided filtering proc" + line;
    return std::regex_match(testing::internal::GetCapturedStdout(),
                            std::regex("(" + pass + "){" + std::to_string(passes) + "}"));
}

// A cut of the photograph in `depth`: planes B, G, R, then luminance.
Planes cut(int depth, cv::Size size) {
    cv::Mat const photo = kxtest::photo("coffee.png")(cv::Rect(cv::Point(100, 80), size));
    Planes planes(4);
    cv::split(photo, planes.data());
    cv::cvtColor(photo, planes[3], cv::COLOR_BGR2GRAY);
    for (cv::Mat &plane : planes)
        plane.convertTo(plane, depth, depth == CV_8U ? 1 : depth == CV_16U ? 257 : 1.0 / 255);
    return planes;
}

// The float image of a plane as the entry points make it: 1/255 and 1/65535 in float.
cv::Mat unit(cv::Mat const &m) {
    cv::Mat f;
    double const range = m.depth() == CV_8U ? 255 : m.depth() == CV_16U ? 65535 : 1;
    m.convertTo(f, CV_32F, double(float(1 / range)));
    return f;
}

// Whether the first `cols` bytes of each row agree: what a three-guide apply writes.
bool sameBytes(cv::Mat const &a, cv::Mat const &b) {
    return cv::norm(cv::Mat(a.rows, a.cols, CV_8U, a.data, a.step),
                    cv::Mat(b.rows, b.cols, CV_8U, b.data, b.step), cv::NORM_INF) == 0;
}

TEST(GuidedEntryPoints, ThrowsItsTexts) {
    cv::Mat out, empty, p(4, 4, CV_8U, cv::Scalar(1)), g16(4, 4, CV_16U, cv::Scalar(1));
    std::string const emptyText =
        "ERROR - filterGuidedByY - Guide or Input data can not be empty...";
    EXPECT_EQ(thrown([&] { filterGuidedByY(out, p, empty, 1, 0.01f, nullptr, 1); }), emptyText);
    EXPECT_EQ(thrown([&] { filterGuidedByY(out, empty, p, 1, 0.01f, nullptr, 1); }), emptyText);
    EXPECT_EQ(thrown([&] { filterGuidedByRGB(out, p, p, g16, p, 1, 0.01f, nullptr, 1); }),
              "ERROR - filterGuidedByRGB - Guide data need to use same data type...");
    EXPECT_TRUE(out.empty());
}

TEST(GuidedEntryPoints, ByYScalesFiltersKeepsAndRepeats) {
    // A 16-bit guide into an 8-bit target, and 16-bit targets, which the apply leaves as made.
    int const pairs[][2] = {{CV_8U, CV_8U}, {CV_32F, CV_32F}, {CV_16U, CV_8U}, {CV_8U, CV_16U}};
    for (auto const [guideDepth, depth] : pairs) {
        SCOPED_TRACE(testing::Message() << guideDepth << " into " << depth);
        cv::Mat p = cut(depth, {61, 43})[2], guide = cut(guideDepth, {61, 43})[3];
        cv::Mat const blank(p.size(), p.type(), cv::Scalar::all(4321));
        cv::Mat want = blank.clone(), out = blank.clone(), again = blank.clone();
        TGFilter kept, f;
        EXPECT_TRUE(timed([&] { filterGuidedByY(out, p, guide, 3, 0.01f, &kept, 1); },
                          "filterGuidedByY", 1));
        f.setup({unit(guide)}, unit(p), 3, 0.01f);
        f.proc({guide}, want);
        kept.proc({guide}, again);  // the caller's filter keeps the coefficients
        EXPECT_TRUE(out.type() == p.type() && cv::norm(out, want, cv::NORM_INF) == 0);
        EXPECT_EQ(cv::norm(again, want, cv::NORM_INF), 0);
    }
    // n = 0 writes nothing and n = 2 filters the first pass's 8-bit result again, both untimed;
    // a smaller guide writes only the common top-left rectangle, as if p were cut.
    Planes c = cut(CV_8U, cv::Size(40, 30));
    cv::Rect const left(0, 0, 25, 30);
    cv::Mat out(c[1].size(), CV_8U, cv::Scalar(7)), once, twice, want, alone;
    cv::Mat small = c[3](left).clone(), pLeft = c[1](left).clone();
    EXPECT_TRUE(timed([&] { filterGuidedByY(out, c[1], c[3], 2, 0.01f, nullptr, 0); }, "", 0));
    EXPECT_TRUE(timed([&] { filterGuidedByY(twice, c[1], c[3], 2, 0.01f, nullptr, 2); }, "", 0));
    EXPECT_EQ(cv::countNonZero(out != 7), 0);
    filterGuidedByY(once, c[1], c[3], 2, 0.01f, nullptr, 1);  // timed, on standard output
    filterGuidedByY(want, once, c[3], 2, 0.01f, nullptr, 1);
    filterGuidedByY(out, c[1], small, 2, 0.01f, nullptr, 1);
    filterGuidedByY(alone, pLeft, small, 2, 0.01f, nullptr, 1);
    EXPECT_EQ(cv::norm(twice, want, cv::NORM_INF) + cv::norm(out(left), alone, cv::NORM_INF), 0);
    EXPECT_EQ(cv::countNonZero(out(cv::Rect(25, 0, 15, 30)) != 7), 0);
}

// Bytes through any out, every pass timed and from p again, and a float p scaled by 0 on a
// single pass: zeros.
TEST(GuidedEntryPoints, ByRGBScalesFiltersAndRepeats) {
    for (int depth : {CV_8U, CV_16U, CV_32F}) {
        SCOPED_TRACE(depth);
        Planes c = cut(depth, cv::Size(37, 29)), native = {c[0], c[1], c[2]};
        Planes const guides = {unit(c[0]), unit(c[1]), unit(c[2])};
        cv::Mat out(c[3].size(), c[3].type(), cv::Scalar::all(5)), two, want = out.clone();
        EXPECT_TRUE(
            timed([&] { filterGuidedByRGB(out, c[3], c[0], c[1], c[2], 2, 0.02f, nullptr, 1); },
                  "filterGuidedByRGB", 1));
        EXPECT_TRUE(
            timed([&] { filterGuidedByRGB(two, c[3], c[0], c[1], c[2], 2, 0.02f, nullptr, 2); },
                  "filterGuidedByRGB", 2));
        TGFilter f;
        f.setup(guides, unit(c[3]), 2, 0.02f);
        f.proc(native, want);
        EXPECT_TRUE(sameBytes(two, want));
        EXPECT_TRUE(sameBytes(out, depth == CV_32F ? cv::Mat::zeros(out.size(), CV_8U) : want));
    }
}

}  // namespace
