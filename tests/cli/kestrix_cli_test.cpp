// The kestrix program end to end (run as a child process on the photographs of data/), the
// options of `kestrix detail` as the frame parses them, and the split of Y into base and
// detail planes, which carries arithmetic of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "cli/decompose.h"
#include "cli/detail_command.h"
#include "cli/frame.h"
#include "kestrix1/frame/t_progress.h"
#include "kestrix1/image/tp_image.h"
#include "tests/cli/cli_support.h"

namespace {

using namespace kxcli;

// A 16-bit luminance plane of a photograph, the kind of plane the program splits.
cv::Mat luminance(std::string const &name) {
    cv::Mat grey;
    cv::cvtColor(to16(photo(name)), grey, cv::COLOR_BGR2GRAY);
    return grey;
}

// ---- the split of Y -----------------------------------------------------------------------

// Y3 + 2 (D0 + D1 + D2 - 3 * 32768) must give Y back bit for bit, on photographs, on planes
// at the ends of the range, and on awkward sizes.
TEST(KestrixDecompose, ReconstructsYExactly) {
    cv::Mat const chelsea = luminance("chelsea.png");
    cv::Mat edges(37, 33, CV_16UC1);  // 0 / 65535 checkerboard: every step is a full edge
    for (int r = 0; r < edges.rows; ++r)
        for (int c = 0; c < edges.cols; ++c)
            edges.at<ushort>(r, c) = ((r / 3 + c / 5) & 1) ? 65535 : 0;
    cv::Mat const planes[] = {luminance("coffee.png"),
                              luminance("rocket.jpg"),
                              edges,
                              cv::Mat(1, 1, CV_16UC1, cv::Scalar(65535)),
                              chelsea(cv::Rect(3, 5, 1, 77)),
                              chelsea(cv::Rect(3, 5, 129, 1))};
    for (cv::Mat const &y : planes) {
        DetailPlanes out;
        ASSERT_TRUE(decompose(y, out, nullptr));
        ASSERT_EQ(out.base.size(), y.size());
        cv::Mat sum;
        out.base.convertTo(sum, CV_32S);
        for (cv::Mat const &d : out.detail) {
            ASSERT_EQ(d.type(), CV_16UC1);
            cv::Mat d32;
            d.convertTo(d32, CV_32S, 2.0, -65536.0);
            sum += d32;
        }
        cv::Mat y32;
        y.convertTo(y32, CV_32S);
        EXPECT_EQ(cv::countNonZero(sum != y32), 0) << y.cols << " x " << y.rows;
    }
}

// The levels really split by scale: each detail plane is centred on 32768 and a wide blur of
// the fine plane is nearly flat, of the coarse plane it is not. Then the sigma rules.
TEST(KestrixDecompose, LevelsAreCentredAndOrderedByScale) {
    DetailPlanes out;
    ASSERT_TRUE(decompose(luminance("astronaut.png"), out, nullptr));
    for (cv::Mat const &d : out.detail)
        EXPECT_NEAR(cv::mean(d)[0], 32768.0, 300.0);
    auto lowEnergy = [](cv::Mat const &d) {
        cv::Mat f, b;
        d.convertTo(f, CV_32F, 1.0, -32768.0);
        cv::blur(f, b, cv::Size(31, 31));
        return cv::norm(b);
    };
    EXPECT_LT(lowEnergy(out.detail[0]), lowEnergy(out.detail[2]));

    EXPECT_FLOAT_EQ(decompositionSigmaS(0, 300, 451), 2.0f);
    EXPECT_FLOAT_EQ(decompositionSigmaS(2, 512, 512), 32.0f);
    EXPECT_FLOAT_EQ(decompositionSigmaS(1, 4000, 6000), float(8.0 * std::sqrt(10000.0 / 1024.0)));
    EXPECT_FLOAT_EQ(decompositionSigmaR(2), 6553.5f);
}

TEST(KestrixDecompose, ReportsThreeStepsAndStopsWhenCancelled) {
    struct Seen {
        std::vector<int> values;
        bool cancelAt2;
    };
    auto cb = [](int t, void *u) {
        auto *s = static_cast<Seen *>(u);
        s->values.push_back(t);
        return !(s->cancelAt2 && s->values.size() == 2);
    };
    cv::Mat const y = luminance("chelsea.png")(cv::Rect(0, 0, 40, 30));
    DetailPlanes out;
    Seen all{{}, false}, cancel{{}, true};
    TProgress p1(cb, &all), p2(cb, &cancel);
    EXPECT_TRUE(decompose(y, out, &p1));
    EXPECT_EQ(all.values, (std::vector<int>{333, 666, 1000}));
    EXPECT_FALSE(decompose(y, out, &p2));
    EXPECT_EQ(cancel.values.size(), 2u);
}

// ---- options ------------------------------------------------------------------------------

DetailSettings parseDetail(std::string const &line) {
    return parseWith(addDetailOptions, "detail", line);
}

TEST(KestrixOptions, PresetFirstThenSingleSettingsWhateverTheOrder) {
    DetailSettings const o = parseDetail(
        "--fine 0.5 --preset=neutral --coarse-threshold -0.2,0.1,0.3 --shadows=0.25 --light "
        "1,2,-1,0.5,0,0 --color-mix 0.1,0,-0.1 --roi 1,2,30,40 --scale 3 --scale 4");
    float const amount[9] = {0.5f, 0, 0, 0, 0, 0, 0, 0, 0};
    float const threshold[9] = {0, 0, 0, 0, 0, 0, -0.2f, 0.1f, 0.3f};
    float const light[6] = {1, 2, -1, 0.25f, 0, 0};  // a single setting wins over --light
    EXPECT_TRUE(o.preset == "neutral" && std::equal(amount, amount + 9, &o.amount[0][0]));
    EXPECT_TRUE(std::equal(threshold, threshold + 9, &o.threshold[0][0]));
    EXPECT_TRUE(std::equal(light, light + 6, o.light));
    EXPECT_FLOAT_EQ(o.colorMix[2], -0.1f);
    EXPECT_EQ(o.roiX + o.roiY + o.roiW + o.roiH, 73);
    EXPECT_EQ(o.scale, 4);  // the last occurrence counts

    // The default preset, and a level given its base amount only: its bands become 0.
    DetailSettings const natural = parseDetail("--medium 0.3");
    float const natural1[3] = {0.3f, 0, 0};
    EXPECT_TRUE(std::equal(natural1, natural1 + 3, natural.amount[1]));
    EXPECT_TRUE(natural.amount[0][0] == 0.10f && natural.amount[2][1] == 0.05f);
}

TEST(KestrixOptions, BadValuesAreOneLineUsageErrors) {
    std::string const levels = " (expected 1 to 3 comma-separated numbers in -1.5..1.5)";
    std::string const roi =
        " for --roi (expected x,y,width,height with x, y >= 0 and width, height >= 1)";
    std::pair<char const *, std::string> const cases[] = {
        {"--fine abc", "bad value 'abc' for --fine" + levels},
        {"--fine 0.1,0.2,0.3,0.4", "bad value '0.1,0.2,0.3,0.4' for --fine" + levels},
        {"--medium=1.6", "bad value '1.6' for --medium" + levels},
        {"--coarse-threshold 0,1e9", "bad value '0,1e9' for --coarse-threshold" + levels},
        {"--exposure nan", "bad value 'nan' for --exposure (expected a number in -2..2)"},
        {"--light 1,2",
         "bad value '1,2' for --light (expected 6 comma-separated numbers in -2..2)"},
        {"--color-mix 0,,0",
         "bad value '0,,0' for --color-mix (expected 3 comma-separated numbers in -2..2)"},
        {"--preset vivid", "bad value 'vivid' for --preset (expected natural, strong or neutral)"},
        {"--roi 0,0,0,5", "bad value '0,0,0,5'" + roi},
        {"--roi 1.5,0,3,5", "bad value '1.5,0,3,5'" + roi},
        {"--scale 0", "bad value '0' for --scale (expected a whole number from 1 to 64)"},
        {"--scale 2x", "bad value '2x' for --scale (expected a whole number from 1 to 64)"},
        {"--scale", "option --scale needs a value"},
        {"--light=", "option --light needs a value"},
        {"--sharpen 1", "unknown option '--sharpen' (see kestrix detail --help)"},
        {"a.png", "more than one input file: 'a.png'"},  // this line has no INPUT
    };
    for (auto const &[line, message] : cases)
        EXPECT_EQ(usageErrorOf(addDetailOptions, "detail", line), message) << line;
}

// ---- the program ---------------------------------------------------------------------------

// Neutral settings give back what the conversions alone give: luminance within one 8-bit level
// (12 in 16 bits, from the neutral light table's float arithmetic), single channels within half
// a level on average (the colour enlargement may tip the other way at a colour edge).
TEST(KestrixProgram, NeutralPresetGivesTheInputBack) {
    TempDir dir;
    int index = 0;
    for (char const *name : {"astronaut.png", "chelsea.png", "coffee.png", "rocket.jpg"}) {
        for (int bits : {8, 16}) {
            cv::Mat const in = bits == 8 ? crop(photo(name)) : to16(crop(photo(name)));
            std::string const ext = (index++ & 1) ? ".tif" : ".png";
            std::string const what = name + std::to_string(bits) + ext;
            ASSERT_TRUE(cv::imwrite(dir / ("in" + ext), in));
            Outcome const r =
                kestrix(dir.path, "detail in" + ext + " -o out" + ext + " --preset neutral");
            ASSERT_EQ(r.status, 0) << what << " " << r.err;
            EXPECT_EQ(r.err, "");
            cv::Mat const got = cv::imread(dir / ("out" + ext), cv::IMREAD_UNCHANGED);
            ASSERT_EQ(got.type(), in.type()) << what;
            ASSERT_EQ(got.size(), in.size());
            cv::Mat const reference = roundTrip(in);
            double const unit = bits == 8 ? 1.0 : 257.0;
            EXPECT_LE(maxAbsDiff(lumaOf(got), lumaOf(reference)), bits == 8 ? 1.001 : 12.0) << what;
            EXPECT_LT(meanAbsDiff(got, reference), bits == 8 ? 0.5 : 0.05 * unit) << what;
            EXPECT_LT(meanAbsDiff(reference, in), 2.0 * unit) << what;
        }
    }
}

// A region at a zoom-out gives an output of the region's size, cut at the image's edge, with
// alpha cropped alike and left untouched; at scale 1 the region is the full run cut out, up to
// the colour enlargement at its rim; grey stays grey.
TEST(KestrixProgram, RegionScaleAlphaAndGrey) {
    TempDir dir;
    cv::Mat const bgr = crop(photo("astronaut.png"), 200, 150);
    cv::Mat alpha(bgr.size(), CV_8UC1), bgra, grey;
    for (int r = 0; r < alpha.rows; ++r)
        for (int c = 0; c < alpha.cols; ++c)
            alpha.at<uchar>(r, c) = uchar((r * 7 + c) & 255);
    cv::merge(std::vector<cv::Mat>{bgr, alpha}, bgra);
    cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
    ASSERT_TRUE(cv::imwrite(dir / "a.png", bgra));
    ASSERT_TRUE(cv::imwrite(dir / "g.png", grey));

    // Runs `detail INPUT -o OUTPUT options` and reads OUTPUT.
    auto run = [&](std::string const &files, std::string const &options) {
        Outcome const r = kestrix(dir.path, "detail " + files + " " + options);
        EXPECT_EQ(r.status, 0) << r.err;
        return cv::imread(dir / files.substr(files.rfind(' ') + 1), cv::IMREAD_UNCHANGED);
    };
    auto alphaOf = [](cv::Mat const &m) {
        cv::Mat a;
        cv::extractChannel(m, a, 3);
        return a;
    };
    cv::Mat const full = run("a.png -o n.png", "--preset neutral");
    ASSERT_EQ(full.type(), CV_8UC4);
    EXPECT_EQ(maxAbsDiff(alphaOf(full), alpha), 0.0);
    EXPECT_EQ(run("a.png -o r.png", "--roi 150,20,60,40 --scale 2").size(), cv::Size(25, 40));
    cv::Mat const roi = run("a.png -o r1.png", "--roi 10,20,30,40 --preset neutral");
    ASSERT_EQ(roi.size(), cv::Size(30, 40));
    EXPECT_EQ(maxAbsDiff(alphaOf(roi), alpha(cv::Rect(10, 20, 30, 40))), 0.0);
    EXPECT_LE(meanAbsDiff(roi, full(cv::Rect(10, 20, 30, 40))), 1.0);

    cv::Mat const g2 = run("g.png -o g2.png", "--preset neutral");
    ASSERT_EQ(g2.type(), CV_8UC1);
    EXPECT_LE(maxAbsDiff(g2, grey), 2.0);
}

// Every bad line and bad input: its one-line message, its exit status, and no file left behind.
TEST(KestrixProgram, BadInputFailsCleanly) {
    TempDir dir;
    cv::Mat const small = crop(photo("chelsea.png"), 64, 48);
    ASSERT_TRUE(cv::imwrite(dir / "ok.png", small));
    ASSERT_TRUE(cv::imwrite(dir / "ok.jpg", small));
    ASSERT_TRUE(cv::imwrite(dir / "wide.png", crop(photo("chelsea.png"), 65, 48)));
    std::string const png = slurp(dir / "ok.png");
    std::string const jpg = slurp(dir / "ok.jpg");
    std::ofstream(dir / "cut.png", std::ios::binary) << png.substr(0, png.size() / 2);
    std::ofstream(dir / "cut.jpg", std::ios::binary) << jpg.substr(0, jpg.size() / 2);
    std::ofstream(dir / "notes.png") << "not a picture\n";
    // A PNG signature and nothing sensible after it.
    std::ofstream(dir / "head.png", std::ios::binary)
        << png.substr(0, 40) + std::string(100, '\x7f');
    fs::create_directory(dir / "folder.png");
    ASSERT_TRUE(cv::imwrite(dir / "float.tif", cv::Mat(8, 8, CV_32FC1, cv::Scalar(0.5))));

    // The line, then the exit status and the message.
    std::pair<char const *, std::string> const cases[] = {
        {"detail missing.png", "1 cannot open 'missing.png': No such file or directory"},
        {"detail folder.png", "1 cannot read 'folder.png': it is a folder"},
        {"detail notes.png", "1 'notes.png' is not a PNG, TIFF or JPEG image"},
        {"detail cut.png", "1 'cut.png' is a corrupt or truncated PNG image"},
        {"detail head.png", "1 'head.png' is a corrupt or truncated PNG image"},
        {"detail cut.jpg", "1 'cut.jpg' is a corrupt or truncated JPEG image"},
        {"detail float.tif", "1 'float.tif': only 8- and 16-bit images are supported"},
        {"detail ok.png -o nowhere/out.png",
         "1 cannot write 'nowhere/out.png': No such file or directory"},
        {"smooth ok.png --filter dt --guide wide.png",
         "1 guide 'wide.png' is 65 x 48 pixels; the input is 64 x 48"},
        {"detail ok.png --fine 2",
         "2 bad value '2' for --fine (expected 1 to 3 comma-separated numbers in -1.5..1.5)"},
        {"detail ok.png ok.jpg", "2 more than one input file: 'ok.jpg'"},
        {"detail ok.png -o ok.png", "2 output 'ok.png' is the input file; choose another with -o"},
        {"detail ok.png -o ./sub/../ok.png",
         "2 output './sub/../ok.png' is the input file; choose another with -o"},
        {"detail ok.png -o out.jpg",
         "2 output 'out.jpg' must be a PNG file like the input (extension .png)"},
        {"detail ok.png --roi 64,0,10,10",
         "2 the region 64,0,10,10 at scale 1 lies outside the 64 x 48 image"},
        {"detail ok.png --scale 49", "2 --scale 49 leaves nothing of the 64 x 48 image"},
        {"detail --version", "2 unknown option '--version' (see kestrix detail --help)"},
        {"sharpen", "2 unknown command 'sharpen' (see kestrix --help)"},
        {"--sharpen", "2 unknown option '--sharpen' (see kestrix --help)"},
        {"", "2 no command given (see kestrix --help)"},
    };
    std::set<std::string> const before = dir.files();
    for (auto const &[line, want] : cases) {
        Outcome const r = kestrix(dir.path, line);
        EXPECT_EQ(r.status, want[0] - '0') << line;
        EXPECT_EQ(r.err, "kestrix: " + want.substr(2) + "\n") << line;
        EXPECT_EQ(r.out, "") << line;
        EXPECT_EQ(dir.files(), before) << line;
    }
    EXPECT_EQ(slurp(dir / "ok.png"), png);
}

// Help lists the commands, and a command's options with the how-to of the split. The plain
// command visibly changes the built-in photograph into detail.png of the same size and depth,
// --time prints its lines on stdout and nothing else is printed when stderr is no terminal;
// 16 bits stay 16 bits and a JPEG stays a JPEG.
TEST(KestrixProgram, HelpVersionAndDefaults) {
    TempDir dir;
    Outcome const top = kestrix(dir.path, "--help");
    EXPECT_EQ(top.status, 0);
    for (char const *line : {"Usage: kestrix COMMAND", "\n  detail ", "kestrix COMMAND --help"})
        EXPECT_NE(top.out.find(line), std::string::npos) << line;
    for (char const *args : {"detail --help", "detail -q -h"}) {
        Outcome const detail = kestrix(dir.path, args);
        EXPECT_EQ(detail.status, 0);
        for (char const *word :
             {"Usage: kestrix detail", "--preset", "--fine", "--medium", "--coarse",
              "--coarse-threshold", "--exposure", "--contrast", "--highlights", "--shadows",
              "--whites", "--blacks", "--color-mix", "--roi", "--scale", "--quiet", "--time",
              "alpha channel is carried through untouched", "D0 = (Y - Y1) / 2"})
            EXPECT_NE(detail.out.find(word), std::string::npos) << word;
    }
    Outcome const version = kestrix(dir.path, "--version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, std::string("kestrix ") + KESTRIX_VERSION + "\n");
    EXPECT_TRUE(dir.files().empty());

    Outcome const timed = kestrix(dir.path, "detail --time");
    ASSERT_EQ(timed.status, 0);
    EXPECT_EQ(timed.err, "");
    for (char const *label : {"time to decompose: ", "time to setup: ", "time to proc: ",
                              "time to proc with nothing changed: "})
        EXPECT_NE(timed.out.find(label), std::string::npos) << label;
    ASSERT_EQ(dir.files(), std::set<std::string>{"detail.png"});
    cv::Mat const sample = photo("coffee.png");
    cv::Mat const got = cv::imread(dir / "detail.png", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(got.type(), sample.type());
    ASSERT_EQ(got.size(), sample.size());
    EXPECT_GT(meanAbsDiff(got, sample), 2.0);
    EXPECT_LT(meanAbsDiff(got, sample), 25.0);

    ASSERT_TRUE(cv::imwrite(dir / "in16.png", to16(crop(sample))));
    ASSERT_EQ(kestrix(dir.path, "detail in16.png -o out16.png -q").status, 0);
    cv::Mat const out16 = cv::imread(dir / "out16.png", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(out16.type(), CV_16UC3);
    EXPECT_GT(meanAbsDiff(out16, to16(crop(sample))), 2.0 * 257);
    fs::copy_file(std::string(KX_DATA_DIR) + "/rocket.jpg", dir / "rocket.jpg");
    ASSERT_EQ(kestrix(dir.path, "detail rocket.jpg").status, 0);
    EXPECT_TRUE(fs::exists(dir / "detail.jpg"));
}

}  // namespace
