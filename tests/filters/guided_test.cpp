// Tests of filterGuidedByY and filterGuidedByRGB on cuts of a photograph in three depths.
#include "kestrix1/filters/guided.h"

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/guided_reference.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::thrown;

// Runs f with standard output captured; returns its lines.
std::vector<std::string> printedLines(std::function<void()> const &f) {
    std::ostringstream captured;
    std::streambuf *const old = std::cout.rdbuf(captured.rdbuf());
    f();
    std::cout.rdbuf(old);
    std::vector<std::string> lines;
    std::istringstream in(captured.str());
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// A timing line: the label, a number of seconds, " s.".
bool isTiming(std::string const &line, std::string const &label) {
    if (line.compare(0, label.size(), label) != 0 || line.size() < label.size() + 4) return false;
    std::string const number = line.substr(label.size(), line.size() - label.size() - 3);
    return line.compare(line.size() - 3, 3, " s.") == 0 &&
           number.find_first_not_of("0123456789.-e+") == std::string::npos;
}

// Cuts of the photograph in the three depths, planes B, G, R and luminance.
struct Cut {
    std::vector<cv::Mat> bgr;
    cv::Mat y;
};
Cut cut(int depth, cv::Size size) {
    cv::Mat const photo = kxtest::photo("coffee.png")(cv::Rect(cv::Point(100, 80), size));
    double const scale = depth == CV_8U ? 1 : depth == CV_16U ? 257 : 1.0 / 255;
    Cut c;
    cv::Mat gray;
    cv::cvtColor(photo, gray, cv::COLOR_BGR2GRAY);
    gray.convertTo(c.y, depth, scale);
    cv::split(photo, c.bgr);
    for (cv::Mat &plane : c.bgr)
        plane.convertTo(plane, depth, scale);
    return c;
}

// The float image of a plane as the entry points make it: 1/255 and 1/65535 in float.
cv::Mat unit(cv::Mat const &m) {
    double const s = m.depth() == CV_8U ? 0.003921569f : m.depth() == CV_16U ? 1.5259022e-5f : 1;
    cv::Mat f;
    m.convertTo(f, CV_32F, s);
    return f;
}

double maxDiff(cv::Mat const &a, cv::Mat const &b) {
    return cv::norm(a, b, cv::NORM_INF);
}

// The first `cols` bytes of each row: what a three-guide apply writes, whatever out's depth.
cv::Mat writtenBytes(cv::Mat const &out) {
    cv::Mat bytes(out.size(), CV_8U);
    for (int y = 0; y < out.rows; ++y)
        std::copy_n(out.ptr(y), out.cols, bytes.ptr(y));
    return bytes;
}

TEST(GuidedEntryPoints, ErrorTexts) {
    cv::Mat out, empty, p(4, 4, CV_8U, cv::Scalar(1)), g16(4, 4, CV_16U, cv::Scalar(1));
    std::string const emptyText =
        "ERROR - filterGuidedByY - Guide or Input data can not be empty...";
    EXPECT_EQ(thrown([&] { filterGuidedByY(out, p, empty, 1, 0.01f, nullptr, 1); }), emptyText);
    EXPECT_EQ(thrown([&] { filterGuidedByY(out, empty, p, 1, 0.01f, nullptr, 1); }), emptyText);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(thrown([&] { filterGuidedByRGB(out, p, p, g16, p, 1, 0.01f, nullptr, 1); }),
              "ERROR - filterGuidedByRGB - Guide data need to use same data type...");
    EXPECT_TRUE(out.empty());
}

// One pass on each depth agrees with the plain filter on the normalised images, applied
// on the guide in its own depth; the printed lines are the two timings.
TEST(GuidedEntryPoints, ByYOnPhotographCuts) {
    cv::Size const size(61, 43);
    // Guide and target depths; a 16-bit guide into an 8-bit target divides by 255 only.
    int const pairs[][2] = {{CV_8U, CV_8U}, {CV_32F, CV_32F}, {CV_16U, CV_8U}};
    for (auto const [guideDepth, depth] : pairs) {
        SCOPED_TRACE(::testing::Message() << guideDepth << " into " << depth);
        Cut c = cut(depth, size);
        cv::Mat guide = cut(guideDepth, size).y;
        cv::Mat p = c.bgr[2].clone(), out;
        TGFilter kept;
        auto lines = printedLines([&] { filterGuidedByY(out, p, guide, 3, 0.01f, &kept, 1); });
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_TRUE(isTiming(lines[0], "filterGuidedByY - guided filtering estimate - "));
        EXPECT_TRUE(isTiming(lines[1], "filterGuidedByY - guided filtering proc - "));
        ASSERT_EQ(out.type(), p.type());
        kxtest::GuidedCoefs const want = kxtest::guidedReference({unit(guide)}, unit(p), 3, 0.01f);
        cv::Mat v = kxtest::modelSum({guide}, want);
        if (guideDepth == CV_16U)
            v = v / 255.0f + want.b * 255.0f;
        else if (depth == CV_8U)
            v = v + want.b * 255.0f;
        else
            v = v + want.b;
        cv::Mat got;
        out.convertTo(got, CV_32F);
        EXPECT_LT(maxDiff(got, cv::min(v, depth == CV_8U ? 255 : 1e9)),
                  depth == CV_8U ? 0.51 : 1e-5);
        // The caller's filter keeps the coefficients.
        cv::Mat again(size, out.type());
        kept.proc({guide}, again);
        EXPECT_EQ(maxDiff(again, out), 0);
    }
    // A 16-bit p: out is made 16-bit and the one-guide apply leaves it as made.
    Cut c = cut(CV_16U, size);
    cv::Mat out(size, CV_16U, cv::Scalar(4321));
    printedLines([&] { filterGuidedByY(out, c.bgr[0], c.y, 2, 0.01f, nullptr, 1); });
    EXPECT_EQ(cv::countNonZero(out != 4321), 0);
}

TEST(GuidedEntryPoints, ByYPassesAndCommonRectangle) {
    Cut c = cut(CV_8U, cv::Size(40, 30));
    cv::Mat p = c.bgr[1].clone();
    // n = 0: nothing is written.
    cv::Mat out(p.size(), CV_8U, cv::Scalar(7));
    EXPECT_TRUE(printedLines([&] { filterGuidedByY(out, p, c.y, 2, 0.01f, nullptr, 0); }).empty());
    EXPECT_EQ(cv::countNonZero(out != 7), 0);
    // n = 2: the second pass filters the 8-bit result of the first; no timing lines.
    cv::Mat once, twice;
    printedLines([&] { filterGuidedByY(once, p, c.y, 2, 0.01f, nullptr, 1); });
    EXPECT_TRUE(
        printedLines([&] { filterGuidedByY(twice, p, c.y, 2, 0.01f, nullptr, 2); }).empty());
    cv::Mat want;
    printedLines([&] { filterGuidedByY(want, once, c.y, 2, 0.01f, nullptr, 1); });
    EXPECT_EQ(maxDiff(twice, want), 0);
    // A smaller guide: only the common top-left rectangle is written.
    cv::Mat small = c.y(cv::Rect(0, 0, 25, 30)).clone();
    cv::Mat partial(p.size(), CV_8U, cv::Scalar(7));
    printedLines([&] { filterGuidedByY(partial, p, small, 2, 0.01f, nullptr, 1); });
    EXPECT_EQ(cv::countNonZero(partial(cv::Rect(25, 0, 15, 30)) != 7), 0);
    cv::Mat alone;
    cv::Mat pLeft = p(cv::Rect(0, 0, 25, 30)).clone();
    printedLines([&] { filterGuidedByY(alone, pLeft, small, 2, 0.01f, nullptr, 1); });
    EXPECT_EQ(maxDiff(partial(cv::Rect(0, 0, 25, 30)), alone), 0);
}

TEST(GuidedEntryPoints, ByRGBDepthsPassesAndFloatScale) {
    cv::Size const size(37, 29);
    for (int depth : {CV_8U, CV_16U}) {
        SCOPED_TRACE(depth);
        Cut c = cut(depth, size);
        cv::Mat p = c.y.clone(), out;
        auto lines = printedLines(
            [&] { filterGuidedByRGB(out, p, c.bgr[0], c.bgr[1], c.bgr[2], 2, 0.02f, nullptr, 1); });
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_TRUE(isTiming(lines[0], "filterGuidedByRGB - guided filtering estimate - "));
        EXPECT_TRUE(isTiming(lines[1], "filterGuidedByRGB - guided filtering proc - "));
        std::vector<cv::Mat> const guides = {unit(c.bgr[0]), unit(c.bgr[1]), unit(c.bgr[2])};
        kxtest::GuidedCoefs const want = kxtest::guidedReference(guides, unit(p), 2, 0.02f);
        cv::Mat const v = (kxtest::modelSum(guides, want) + want.b) * 255.0f;
        // Eight-bit values, written as bytes through a 16-bit out as well.
        cv::Mat got;
        writtenBytes(out).convertTo(got, CV_32F);
        EXPECT_LT(maxDiff(got, cv::max(cv::min(v, 255), 0)), depth == CV_8U ? 0.51 : 1.01);
    }
    // A float p: one pass scales it by 0 and gives zeros; two passes filter p itself, both
    // timed, each from p again.
    Cut c = cut(CV_32F, size);
    cv::Mat p = c.y.clone(), one(size, CV_32F, cv::Scalar(5)), two;
    printedLines(
        [&] { filterGuidedByRGB(one, p, c.bgr[0], c.bgr[1], c.bgr[2], 2, 0.02f, nullptr, 1); });
    EXPECT_EQ(cv::countNonZero(writtenBytes(one)), 0);
    auto lines = printedLines(
        [&] { filterGuidedByRGB(two, p, c.bgr[0], c.bgr[1], c.bgr[2], 2, 0.02f, nullptr, 2); });
    EXPECT_EQ(lines.size(), 4u);
    TGFilter f;
    cv::Mat want(size, CV_32F);
    f.setup(c.bgr, p, 2, 0.02f);
    f.proc(c.bgr, want);
    EXPECT_EQ(maxDiff(writtenBytes(two), writtenBytes(want)), 0);
}

}  // namespace
