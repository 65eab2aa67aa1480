// `kestrix mask`: its scripts read and refused step by step, and a replayed script giving the
// mask that the same members of the painter give when a host issues them itself.
#include <gtest/gtest.h>

#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <string>

#include "cli/mask_command.h"
#include "kestrix1/mask/t_draw_mask.h"
#include "tests/cli/cli_support.h"

namespace {

using namespace kxcli;
using Kind = MaskStep::Kind;

std::string errorOf(std::string const &script) try {
    parseMaskScript(script, "s.json");
    return "";
} catch (UsageError const &e) {
    return e.what();
}

// Defaults and rounding; what each step's fields mean is checked by the replay below.
TEST(MaskScript, FillsDefaultsAndRoundsPoints) {
    std::vector<MaskStep> const steps = parseMaskScript(R"([
        {"stroke": {"points": [[1.4, -2.6]], "radius": 3}}, {"shape": {"at": [5, 6]}},
        {"refine": {"radius": 2.5}}, {"redo": {}}])",
                                                        "s.json");
    ASSERT_EQ(steps.size(), 4u);
    MaskStep const &a = steps[0], &b = steps[1], &c = steps[2];
    EXPECT_EQ(a.points, std::vector<cv::Point>{cv::Point(1, -3)});
    EXPECT_TRUE(a.inner == 0 && a.value == 255 && a.flow == 1.0f && !a.gate && !a.picker);
    EXPECT_TRUE(b.size == 0.5f && b.tolerance == 0.5f && b.value == 255);
    EXPECT_TRUE(c.refineRadius == 2.5f && c.strength == 0.5f && c.offset == 0 && c.contrast == 0);
    EXPECT_EQ(steps[3].kind, Kind::redo);
}

TEST(MaskScript, RefusesAWrongStepNamingItAndTheField) {
    std::string const s = "script 's.json', step 2";
    std::pair<char const *, std::string> const cases[] = {
        {R"([1, 2)",
         "script 's.json' is not JSON: parse error at line 1, column 6: syntax error "
         "while parsing array - unexpected end of input; expected ']'"},
        {R"({"fill": {"value": 0}})", "script 's.json' must be a list of steps: [...]"},
        {R"(["invert", 3])", s + ": a step is a name like \"invert\" or an object with one name "
                                 "like {\"fill\": {...}}"},
        {R"(["invert", "paint"])",
         s + ": unknown step 'paint' (expected stroke, gradient, shape, fill, invert, picker, "
             "merge, refine, keep, drop, snapshot, undo, redo)"},
        {R"(["invert", {"undo": true}])",
         s + " (undo): expects an object of fields, {} when there are none"},
        {R"(["invert", {"fill": {"value": 1, "flow": 1}}])", s + " (fill): has no field 'flow'"},
        {R"(["invert", {"fill": {}}])", s + " (fill): field 'value' is missing"},
        {R"(["invert", {"fill": {"value": 2.5}}])",
         s + " (fill): field 'value' must be a whole number from 0 to 255"},
        {R"(["invert", {"stroke": {"points": [[0, 0]], "radius": 5, "inner": 6}}])",
         s + " (stroke): field 'inner' must be a whole number from 0 to 5"},
        {R"(["invert", {"stroke": {"points": [[0, 0], [1, 2e6]], "radius": 5}}])",
         s + " (stroke): field 'points' must be a list of one or more points [x, y] of numbers "
             "within 1e6"},
        {R"(["invert", {"gradient": {"type": "conic", "from": [0, 0], "to": [1, 1]}}])",
         s + " (gradient): field 'type' must be linear, radial, angular, mirrored or corner"},
        {R"(["invert", {"refine": {"radius": 5, "offset": -1.5}}])",
         s + " (refine): field 'offset' must be a number from -1 to 1"},
    };
    for (auto const &[script, want] : cases)
        EXPECT_EQ(errorOf(script), want) << script;
}

// A script touching every kind of step, with dots half and wholly outside the photograph.
char const kScript[] = R"([
    {"fill": {"value": 30}}, "snapshot",
    {"stroke": {"points": [[40, 50], [60, 52], [-20, 118], [5000, -5000]], "radius": 30,
                "inner": 8, "value": 220, "flow": 0.7, "gate": true}},
    {"picker": {"at": [100, 60]}},
    {"stroke": {"points": [[120, 30], [150, 20]], "radius": 12, "gate": true, "picker": true}},
    {"stroke": {"points": [[80, 100]], "radius": 6, "inner": 6, "value": 10}},
    {"merge": {"mode": "max"}},
    {"gradient": {"type": "radial", "from": [90, 60], "to": [130, 90], "value": 180}},
    {"gradient": {"type": "linear", "from": [0, 0], "to": [400, 20], "value": 90}},
    {"shape": {"at": [30, 30], "size": 0.3, "tolerance": 0.6, "value": 250}},
    "snapshot", "invert", "undo", "redo",
    {"refine": {"radius": 6, "strength": 0.7, "offset": 0.1, "contrast": 0.3}},
    {"refine": {"radius": 3, "strength": 0.2}}, "keep", {"refine": {"radius": 9}}, "drop"
])";

// The same members issued by a host, one action at a time.
cv::Mat paintedDirectly(cv::Mat const &bgr) {
    TPImage image;
    fillWorkingImage(bgr, image);
    TDrawMask m;
    m.setInImage(&image, false);
    m.setMaskBlendValue(225);
    m.cmdSetValue(30);
    m.proc();
    m.snapshot();
    auto stroke = [&m](int value, std::vector<cv::Point> const &points, int r, int ri, float flow,
                       bool gate, bool picker) {
        m.setMaskBlendValue(static_cast<unsigned char>(value));
        m.cmdDrawStart();
        for (cv::Point const &p : points)
            m.cmdDrawADot(p, 255, r, ri, flow, gate, picker);
        m.cmdDrawEnd();
        m.proc();
    };
    stroke(220, {{40, 50}, {60, 52}, {-20, 118}, {5000, -5000}}, 30, 8, 0.7f, true, false);
    m.cmdSetColorPicker({100, 60});
    m.proc();
    stroke(255, {{120, 30}, {150, 20}}, 12, 0, 1.0f, true, true);
    stroke(10, {{80, 100}}, 6, 6, 1.0f, false, false);
    m.setMergeMode(2);
    m.setMaskBlendValue(180);
    m.cmdDrawGradientMask({90, 60}, {130, 90}, 1);
    m.proc();
    m.cmdDrawStart();  // two gradients in a row are two gradients, not one moved
    m.cmdDrawEnd();
    m.setMaskBlendValue(90);
    m.cmdDrawGradientMask({0, 0}, {400, 20}, 0);
    m.proc();
    m.setMaskBlendValue(250);
    m.cmdDrawSuperMask({30, 30}, 0.3f, 0, 0, 1.0f - 0.6f, false);
    m.proc();
    m.snapshot();
    m.cmdInvert();
    m.proc();
    m.undo();
    m.redo();
    m.cmdPostFilter(6, 0.7f, 0.1f, 0.3f);
    m.proc();
    m.cmdPostFilter(3, 0.2f, 0, 0);
    m.applyButtonClicked(false);
    m.cmdPostFilter(9, 0.5f, 0, 0);
    m.applyButtonClicked(true);
    m.proc();
    return m.renderedMask().clone();
}

TEST(MaskCommand, ReplayGivesTheMaskOfTheSameMembersAtBothDepths) {
    TempDir dir;
    std::ofstream(dir / "s.json") << kScript;
    cv::Mat const in8 = crop(photo("chelsea.png"));
    for (cv::Mat const &in : {in8, to16(in8)}) {
        ASSERT_TRUE(cv::imwrite(dir / "in.png", in));
        Outcome const r =
            kestrix(dir.path, "mask in.png -o m.png --script s.json --overlay o.tif -q");
        ASSERT_TRUE(r.status == 0 && r.err.empty()) << r.err;
        cv::Mat const mask = cv::imread(dir / "m.png", cv::IMREAD_UNCHANGED);
        ASSERT_EQ(mask.type(), CV_8UC1);
        cv::Mat const want = paintedDirectly(in);
        EXPECT_EQ(maxAbsDiff(mask, want), 0.0);
        EXPECT_NE(cv::countNonZero(mask != mask.at<uchar>(0, 0)), 0);  // something was painted
        cv::Mat const overlay = cv::imread(dir / "o.tif", cv::IMREAD_UNCHANGED);
        EXPECT_EQ(overlay.size(), in.size());
    }
}

TEST(MaskCommand, AWrongScriptWritesNothing) {
    TempDir dir;
    ASSERT_TRUE(cv::imwrite(dir / "in.png", crop(photo("astronaut.png"))));
    std::ofstream(dir / "s.json") << R"(["invert", {"stroke": {"points": [[1, 1]]}}])";
    std::ofstream(dir / "good.json") << "[]";
    std::pair<char const *, char const *> const cases[] = {
        {"-o m.png --script s.json --overlay o.png",
         "script 's.json', step 2 (stroke): field 'radius' is missing"},
        {"-o m.tif --script good.json", "output 'm.tif' must be a PNG file (extension .png)"},
        {"--script good.json --overlay ./in.png",
         "--overlay './in.png' is the input, the script or the mask; choose another"}};
    for (auto const &[line, want] : cases) {
        Outcome const r = kestrix(dir.path, std::string("mask in.png ") + line);
        EXPECT_TRUE(r.status == 2 && r.err == "kestrix: " + std::string(want) + "\n") << r.err;
    }
    EXPECT_EQ(dir.files(), (std::set<std::string>{"in.png", "s.json", "good.json"}));
}

}  // namespace
