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

std::string errorOf(std::string const &script) {
    try {
        parseMaskScript(script, "s.json");
    } catch (UsageError const &e) {
        return e.what();
    }
    return "";
}

TEST(MaskScript, ReadsEveryStepWithItsDefaults) {
    std::vector<MaskStep> const steps = parseMaskScript(R"([
        {"stroke": {"points": [[1.4, -2.6], [3, 4]], "radius": 9, "inner": 9, "value": 0,
                    "flow": 0.5, "gate": true, "picker": true}},
        {"stroke": {"points": [[0, 0]], "radius": 3}},
        {"gradient": {"type": "corner", "from": [1, 2], "to": [3, 4]}},
        {"shape": {"at": [5, 6], "tolerance": 0.25}}, {"fill": {"value": 7}}, "invert",
        {"picker": {"at": [8, 9]}}, {"merge": {"mode": "max"}},
        {"refine": {"radius": 2.5, "contrast": 1}}, "keep", {"drop": {}}, "snapshot", "undo",
        "redo"])",
                                                        "s.json");
    ASSERT_EQ(steps.size(), 14u);
    MaskStep const &a = steps[0], &b = steps[1];
    EXPECT_EQ(a.points, (std::vector<cv::Point>{{1, -3}, {3, 4}}));
    EXPECT_TRUE(a.radius == 9 && a.inner == 9 && a.value == 0 && a.flow == 0.5f && a.gate &&
                a.picker);
    EXPECT_TRUE(b.inner == 0 && b.value == 255 && b.flow == 1.0f && !b.gate && !b.picker);
    EXPECT_TRUE(steps[2].type == 4 && steps[2].points[1] == cv::Point(3, 4));
    EXPECT_TRUE(steps[3].size == 0.5f && steps[3].tolerance == 0.25f && steps[3].value == 255);
    EXPECT_EQ(steps[4].value, 7);
    EXPECT_EQ(steps[7].type, 2);
    EXPECT_TRUE(steps[8].refineRadius == 2.5f && steps[8].strength == 0.5f &&
                steps[8].offset == 0 && steps[8].contrast == 1);
    Kind const kinds[] = {Kind::invert, Kind::picker,   Kind::merge, Kind::refine, Kind::keep,
                          Kind::drop,   Kind::snapshot, Kind::undo,  Kind::redo};
    for (std::size_t i = 0; i < 9; ++i)
        EXPECT_EQ(steps[5 + i].kind, kinds[i]) << i;
    EXPECT_TRUE(parseMaskScript("[]", "s.json").empty());
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
        {R"(["invert", {"invert": {}, "undo": {}}])",
         s + ": a step is a name like \"invert\" or an object with one name like {\"fill\": "
             "{...}}"},
        {R"(["invert", "paint"])",
         s + ": unknown step 'paint' (expected stroke, gradient, shape, fill, invert, picker, "
             "merge, refine, keep, drop, snapshot, undo, redo)"},
        {R"(["invert", "fill"])", s + " (fill): needs its fields: {\"fill\": {...}}"},
        {R"(["invert", {"undo": true}])",
         s + " (undo): expects an object of fields, {} when there are none"},
        {R"(["invert", {"fill": {"value": 1, "flow": 1}}])", s + " (fill): has no field 'flow'"},
        {R"(["invert", {"fill": {}}])", s + " (fill): field 'value' is missing"},
        {R"(["invert", {"fill": {"value": 256}}])",
         s + " (fill): field 'value' must be a whole number from 0 to 255"},
        {R"(["invert", {"fill": {"value": 2.5}}])",
         s + " (fill): field 'value' must be a whole number from 0 to 255"},
        {R"(["invert", {"stroke": {"points": [[0, 0]], "radius": 8000}}])",
         s + " (stroke): field 'radius' must be a whole number from 1 to 7999"},
        {R"(["invert", {"stroke": {"points": [[0, 0]], "radius": 5, "inner": 6}}])",
         s + " (stroke): field 'inner' must be a whole number from 0 to 5"},
        {R"(["invert", {"stroke": {"points": [[0, 0]], "radius": 5, "flow": "1"}}])",
         s + " (stroke): field 'flow' must be a number from 0 to 1"},
        {R"(["invert", {"stroke": {"points": [[0, 0]], "radius": 5, "gate": 1}}])",
         s + " (stroke): field 'gate' must be true or false"},
        {R"(["invert", {"stroke": {"points": [], "radius": 5}}])",
         s + " (stroke): field 'points' must be a list of one or more points [x, y] of numbers "
             "within 1e6"},
        {R"(["invert", {"stroke": {"points": [[0, 0], [1, 2e6]], "radius": 5}}])",
         s + " (stroke): field 'points' must be a list of one or more points [x, y] of numbers "
             "within 1e6"},
        {R"(["invert", {"picker": {"at": [1, 2, 3]}}])",
         s + " (picker): field 'at' must be a point [x, y] of numbers within 1e6"},
        {R"(["invert", {"gradient": {"type": "conic", "from": [0, 0], "to": [1, 1]}}])",
         s + " (gradient): field 'type' must be linear, radial, angular, mirrored or corner"},
        {R"(["invert", {"merge": {"mode": 1}}])",
         s + " (merge): field 'mode' must be replace, min or max"},
        {R"(["invert", {"refine": {"radius": 513}}])",
         s + " (refine): field 'radius' must be a number from 0 to 512"},
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
    {"refine": {"radius": 3, "strength": 0.2}}, "keep",
    {"refine": {"radius": 9}}, "drop"
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
    m.setMaskBlendValue(220);
    m.cmdDrawStart();
    for (cv::Point p : {cv::Point(40, 50), {60, 52}, {-20, 118}, {5000, -5000}})
        m.cmdDrawADot(p, 255, 30, 8, 0.7f, true, false);
    m.cmdDrawEnd();
    m.proc();
    m.cmdSetColorPicker({100, 60});
    m.proc();
    m.setMaskBlendValue(255);
    m.cmdDrawStart();
    m.cmdDrawADot({120, 30}, 255, 12, 0, 1.0f, true, true);
    m.cmdDrawADot({150, 20}, 255, 12, 0, 1.0f, true, true);
    m.cmdDrawEnd();
    m.proc();
    m.setMaskBlendValue(10);
    m.cmdDrawStart();
    m.cmdDrawADot({80, 100}, 255, 6, 6, 1.0f, false, false);
    m.cmdDrawEnd();
    m.proc();
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
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        cv::Mat const mask = cv::imread(dir / "m.png", cv::IMREAD_UNCHANGED);
        ASSERT_EQ(mask.type(), CV_8UC1);
        cv::Mat const want = paintedDirectly(in);
        EXPECT_EQ(maxAbsDiff(mask, want), 0.0);
        double lo, hi;
        cv::minMaxLoc(mask, &lo, &hi);
        EXPECT_LT(lo, hi);  // something was painted
        cv::Mat const overlay = cv::imread(dir / "o.tif", cv::IMREAD_UNCHANGED);
        EXPECT_EQ(overlay.size(), in.size());
        EXPECT_EQ(overlay.type(), in.type());
    }
}

TEST(MaskCommand, AWrongScriptWritesNothing) {
    TempDir dir;
    ASSERT_TRUE(cv::imwrite(dir / "in.png", crop(photo("astronaut.png"))));
    std::ofstream(dir / "s.json") << R"(["invert", {"stroke": {"points": [[1, 1]]}}])";
    Outcome const r = kestrix(dir.path, "mask in.png -o m.png --script s.json --overlay o.png");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "kestrix: script 's.json', step 2 (stroke): field 'radius' is missing\n");
    std::ofstream(dir / "good.json") << "[]";
    Outcome const tif = kestrix(dir.path, "mask in.png -o m.tif --script good.json");
    EXPECT_EQ(tif.err, "kestrix: output 'm.tif' must be a PNG file (extension .png)\n");
    Outcome const same = kestrix(dir.path, "mask in.png --script good.json --overlay ./in.png");
    EXPECT_EQ(same.err,
              "kestrix: --overlay './in.png' is the input, the script or the mask; "
              "choose another\n");
    EXPECT_EQ(dir.files(), (std::set<std::string>{"in.png", "s.json", "good.json"}));
}

}  // namespace
