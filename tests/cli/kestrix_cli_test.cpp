// The kestrix program end to end (run as a child process on the photographs of data/), and
// the two pieces of it that carry arithmetic of their own: the split of Y into base and
// detail planes, and the option parser.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cli/decompose.h"
#include "cli/detail_options.h"
#include "kestrix1/frame/t_progress.h"
#include "kestrix1/image/tp_image.h"

namespace fs = std::filesystem;

namespace {

// ---- helpers ------------------------------------------------------------------------------

// A fresh folder per test, removed afterwards.
struct TempDir {
    fs::path path;
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "kestrix-cli-XXXXXX").string();
        path = ::mkdtemp(pattern.data());
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    std::string operator/(std::string const &name) const { return (path / name).string(); }
    std::set<std::string> files() const {
        std::set<std::string> names;
        for (auto const &e : fs::directory_iterator(path))
            names.insert(e.path().filename());
        return names;
    }
};

struct Outcome {
    int status = -1;
    std::string out, err;
};

std::string slurp(fs::path const &p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string shellQuote(std::string const &s) {
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Runs kestrix with `args` in folder `cwd`; stdout and stderr are captured apart.
Outcome kestrix(std::string const &cwd, std::vector<std::string> const &args) {
    TempDir logs;
    std::string cmd = "cd " + shellQuote(cwd) + " && " + shellQuote(KESTRIX_PROGRAM);
    for (auto const &a : args)
        cmd += " " + shellQuote(a);
    cmd += " >" + shellQuote(logs / "out") + " 2>" + shellQuote(logs / "err") + " </dev/null";
    int const raw = std::system(cmd.c_str());
    Outcome r;
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    r.out = slurp(logs.path / "out");
    r.err = slurp(logs.path / "err");
    return r;
}

cv::Mat photo(std::string const &name) {
    return cv::imread(std::string(KX_DATA_DIR) + "/" + name, cv::IMREAD_UNCHANGED);
}

// A crop keeps the runs fast, also under the sanitizers; odd sizes exercise the half-size
// chroma planes.
cv::Mat crop(cv::Mat const &m, int w = 161, int h = 123) {
    return m(cv::Rect(m.cols / 4, m.rows / 4, w, h)).clone();
}

cv::Mat to16(cv::Mat const &m8) {
    cv::Mat m16;
    m8.convertTo(m16, CV_16U, 257.0);
    return m16;
}

double maxAbsDiff(cv::Mat const &a, cv::Mat const &b) {
    cv::Mat da, db;
    a.convertTo(da, CV_64F);
    b.convertTo(db, CV_64F);
    cv::Mat const d = cv::abs(da - db);
    double mx = 0;
    cv::minMaxLoc(d.reshape(1), nullptr, &mx);
    return mx;
}

// 0.299 R + 0.587 G + 0.114 B of a BGR image, in double.
cv::Mat lumaOf(cv::Mat const &bgr) {
    cv::Mat f, y;
    bgr.convertTo(f, CV_64F);
    cv::transform(f, y, cv::Matx13d(0.114, 0.587, 0.299));
    return y;
}

double meanAbsDiff(cv::Mat const &a, cv::Mat const &b) {
    cv::Mat d;
    cv::absdiff(a, b, d);
    cv::Scalar const s = cv::mean(d);
    return (s[0] + s[1] + s[2]) / 3.0;
}

// The luminance of the 16-bit photograph, the plane the program splits.
cv::Mat luminance(std::string const &name) {
    cv::Mat const bgr = to16(photo(name));
    cv::Mat y(bgr.size(), CV_16UC1);
    for (int r = 0; r < bgr.rows; ++r)
        for (int c = 0; c < bgr.cols; ++c) {
            cv::Vec3w const p = bgr.at<cv::Vec3w>(r, c);
            y.at<ushort>(r, c) =
                cv::saturate_cast<ushort>(0.299 * p[2] + 0.587 * p[1] + 0.114 * p[0]);
        }
    return y;
}

// The conversions alone, as a host makes them: into the working image and straight back
// (packed 8-bit, or planar 16-bit).
cv::Mat roundTrip(cv::Mat const &bgr) {
    TPImage image;
    cv::Mat out;
    if (bgr.depth() == CV_8U) {
        cv::Mat bgra;
        cv::cvtColor(bgr, bgra, cv::COLOR_BGR2BGRA);
        image.convertFrom(bgra.data, bgra.cols, bgra.rows, int(bgra.step));
        image.convertTo(bgra.data, int(bgra.step));
        cv::cvtColor(bgra, out, cv::COLOR_BGRA2BGR);
    } else {
        std::vector<cv::Mat> p;
        cv::split(bgr, p);
        unsigned short *rgb[3] = {p[2].ptr<ushort>(), p[1].ptr<ushort>(), p[0].ptr<ushort>()};
        image.convertFrompRGB(rgb, bgr.cols, bgr.rows, int(p[0].step));
        image.convertTopRGB(rgb, int(p[0].step));
        cv::merge(p, out);
    }
    return out;
}

char const *const kPhotos[] = {"astronaut.png", "chelsea.png", "coffee.png", "rocket.jpg"};

// ---- the split of Y -----------------------------------------------------------------------

// Y3 + 2 (D0 + D1 + D2 - 3 * 32768) must give Y back bit for bit, on photographs, on planes
// that live at the ends of the range, and on awkward sizes.
TEST(KestrixDecompose, ReconstructsYExactly) {
    std::vector<cv::Mat> planes = {luminance("coffee.png"), luminance("rocket.jpg")};
    cv::Mat edges(37, 33, CV_16UC1);  // 0 / 65535 checkerboard: every step is a full edge
    for (int r = 0; r < edges.rows; ++r)
        for (int c = 0; c < edges.cols; ++c)
            edges.at<ushort>(r, c) = ((r / 3 + c / 5) & 1) ? 65535 : 0;
    planes.push_back(edges);
    planes.push_back(cv::Mat(1, 1, CV_16UC1, cv::Scalar(65535)));
    planes.push_back(luminance("chelsea.png")(cv::Rect(3, 5, 1, 77)).clone());
    planes.push_back(luminance("chelsea.png")(cv::Rect(3, 5, 129, 1)).clone());

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

// The levels really split by scale: on a photograph the fine plane carries less coarse
// energy than the coarse plane and each detail plane is centred on 32768.
TEST(KestrixDecompose, LevelsAreCentredAndOrderedByScale) {
    cv::Mat const y = luminance("astronaut.png");
    DetailPlanes out;
    ASSERT_TRUE(decompose(y, out, nullptr));
    for (cv::Mat const &d : out.detail)
        EXPECT_NEAR(cv::mean(d)[0], 32768.0, 300.0);
    // A wide blur of the fine plane is nearly flat; of the coarse plane it is not.
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
    cv::Mat const y = luminance("chelsea.png")(cv::Rect(0, 0, 40, 30)).clone();
    Seen all{{}, false};
    TProgress p1(cb, &all);
    DetailPlanes out;
    EXPECT_TRUE(decompose(y, out, &p1));
    EXPECT_EQ(all.values, (std::vector<int>{333, 666, 1000}));
    Seen cancel{{}, true};
    TProgress p2(cb, &cancel);
    EXPECT_FALSE(decompose(y, out, &p2));
    EXPECT_EQ(cancel.values.size(), 2u);
}

// ---- options ------------------------------------------------------------------------------

TEST(KestrixOptions, PresetFirstThenSingleSettingsWhateverTheOrder) {
    DetailOptions const o = parseDetailOptions(
        {"--fine", "0.5", "in.png", "--preset=neutral", "--coarse-threshold", "-0.2,0.1,0.3",
         "--light", "1,2,-1,0.5,0,0", "--shadows=0.25", "--color-mix", "0.1,0,-0.1", "-o", "x.png",
         "--roi", "1,2,30,40", "--scale", "3", "-q", "--time"});
    EXPECT_EQ(o.input, "in.png");
    EXPECT_EQ(o.output, "x.png");
    EXPECT_EQ(o.preset, "neutral");
    EXPECT_FLOAT_EQ(o.amount[0][0], 0.5f);
    EXPECT_FLOAT_EQ(o.amount[0][1], 0.0f);
    EXPECT_FLOAT_EQ(o.amount[1][0], 0.0f);
    EXPECT_FLOAT_EQ(o.threshold[2][0], -0.2f);
    EXPECT_FLOAT_EQ(o.threshold[2][2], 0.3f);
    float const light[6] = {1, 2, -1, 0.25f, 0, 0};  // --shadows after --light wins
    for (int k = 0; k < 6; ++k)
        EXPECT_FLOAT_EQ(o.light[k], light[k]) << k;
    EXPECT_FLOAT_EQ(o.colorMix[2], -0.1f);
    EXPECT_EQ(o.roiX + o.roiY + o.roiW + o.roiH, 73);
    EXPECT_EQ(o.scale, 3);
    EXPECT_TRUE(o.quiet && o.time && !o.help);

    DetailOptions const natural = parseDetailOptions({});
    EXPECT_EQ(natural.preset, "natural");
    float sum = 0;
    for (auto const &level : natural.amount)
        sum += level[0];
    EXPECT_GT(sum, 0.1f);
}

TEST(KestrixOptions, BadValuesAreOneLineUsageErrors) {
    struct Case {
        std::vector<std::string> args;
        char const *message;
    } const cases[] = {
        {{"--fine", "abc"},
         "bad value 'abc' for --fine (expected 1 to 3 comma-separated numbers in -1.5..1.5)"},
        {{"--fine", "0.1,0.2,0.3,0.4"},
         "bad value '0.1,0.2,0.3,0.4' for --fine (expected 1 to 3 comma-separated numbers in "
         "-1.5..1.5)"},
        {{"--medium=1.6"},
         "bad value '1.6' for --medium (expected 1 to 3 comma-separated numbers in -1.5..1.5)"},
        {{"--exposure", "nan"}, "bad value 'nan' for --exposure (expected a number in -2..2)"},
        {{"--light", "1,2"},
         "bad value '1,2' for --light (expected 6 comma-separated numbers in -2..2)"},
        {{"--color-mix", "0,,0"},
         "bad value '0,,0' for --color-mix (expected 3 comma-separated numbers in -2..2)"},
        {{"--preset", "vivid"},
         "bad value 'vivid' for --preset (expected natural, strong or neutral)"},
        {{"--roi", "0,0,0,5"},
         "bad value '0,0,0,5' for --roi (expected x,y,width,height with x, y >= 0 and width, "
         "height >= 1)"},
        {{"--scale", "0"}, "bad value '0' for --scale (expected a whole number from 1 to 64)"},
        {{"--scale"}, "option --scale needs a value"},
        {{"--quiet=yes"}, "option --quiet takes no value"},
        {{"--sharpen", "1"}, "unknown option '--sharpen' (see kestrix detail --help)"},
        {{"a.png", "b.png"}, "more than one input file: 'b.png'"},
    };
    for (Case const &c : cases) {
        try {
            parseDetailOptions(c.args);
            ADD_FAILURE() << "no error for " << c.args[0];
        } catch (UsageError const &e) {
            EXPECT_STREQ(e.what(), c.message);
        }
    }
}

// ---- the program ---------------------------------------------------------------------------

// Neutral settings give the input back up to the conversions. Against the conversions alone
// (into the working image and straight back), the program's luminance differs by at most one
// 8-bit level, or 12 in 16 bits: the split reconstructs Y exactly, and the neutral light table
// is the identity up to its float arithmetic, which lowers Y by 7 to 8 sixteen-bit units.
// Single channels can differ more where the colour enlargement, which picks neighbours by
// luminance, tips the other way at a colour edge; on average they differ by less than half
// an 8-bit level (0.05 of one in 16 bits). The conversions alone keep colour at half
// resolution and move a channel by under two levels on average. A JPEG photograph is
// checked through lossless copies, so that its own loss does not hide the effect's.
TEST(KestrixProgram, NeutralPresetGivesTheInputBack) {
    TempDir dir;
    int index = 0;
    for (char const *name : kPhotos) {
        cv::Mat const in8 = crop(photo(name));
        for (int bits : {8, 16}) {
            cv::Mat const in = bits == 8 ? in8 : to16(in8);
            std::string const ext = (index++ & 1) ? ".tif" : ".png";
            std::string const path = dir / ("in" + std::to_string(bits) + ext);
            std::string const out = dir / ("out" + std::to_string(bits) + ext);
            ASSERT_TRUE(cv::imwrite(path, in));
            Outcome const r = kestrix(dir.path, {"detail", path, "-o", out, "--preset", "neutral"});
            ASSERT_EQ(r.status, 0) << name << " " << r.err;
            EXPECT_EQ(r.err, "");
            cv::Mat const got = cv::imread(out, cv::IMREAD_UNCHANGED);
            ASSERT_EQ(got.type(), in.type()) << name << " " << path;
            ASSERT_EQ(got.size(), in.size());
            cv::Mat const reference = roundTrip(in);
            double const unit = bits == 8 ? 1.0 : 257.0;
            std::string const what = std::string(name) + " " + ext + " " + std::to_string(bits);
            EXPECT_LE(maxAbsDiff(lumaOf(got), lumaOf(reference)), bits == 8 ? 1.001 : 12.0) << what;
            EXPECT_LT(meanAbsDiff(got, reference), bits == 8 ? 0.5 : 0.05 * unit) << what;
            EXPECT_LT(meanAbsDiff(reference, in), 2.0 * unit) << what;
        }
    }
}

// The plain command visibly changes the photograph, keeps its size, depth and format, and
// the default input goes to detail.png in the current folder.
TEST(KestrixProgram, DefaultPresetChangesThePhotograph) {
    TempDir dir;
    Outcome const r = kestrix(dir.path, {"detail"});
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(dir.files(), std::set<std::string>{"detail.png"});
    cv::Mat const sample = photo("coffee.png");
    cv::Mat const got = cv::imread(dir / "detail.png", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(got.type(), sample.type());
    ASSERT_EQ(got.size(), sample.size());
    EXPECT_GT(meanAbsDiff(got, sample), 2.0);
    EXPECT_LT(meanAbsDiff(got, sample), 25.0);

    // 16-bit in, 16-bit out, and a JPEG stays a JPEG (detail.jpg without -o).
    ASSERT_TRUE(cv::imwrite(dir / "in16.png", to16(crop(sample))));
    std::ofstream(dir / "keep.txt") << "x";
    ASSERT_EQ(kestrix(dir.path, {"detail", "in16.png", "-o", "out16.png", "-q"}).status, 0);
    cv::Mat const out16 = cv::imread(dir / "out16.png", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(out16.type(), CV_16UC3);
    EXPECT_GT(meanAbsDiff(out16, to16(crop(sample))), 2.0 * 257);
    fs::copy_file(std::string(KX_DATA_DIR) + "/rocket.jpg", dir / "rocket.jpg");
    fs::remove(dir / "detail.png");
    ASSERT_EQ(kestrix(dir.path, {"detail", "rocket.jpg"}).status, 0);
    EXPECT_TRUE(fs::exists(dir / "detail.jpg"));
}

// A region at a zoom-out gives an output of the region's size, with alpha cropped alike and
// left untouched at scale 1; grey stays grey.
TEST(KestrixProgram, RegionScaleAlphaAndGrey) {
    TempDir dir;
    cv::Mat const bgr = crop(photo("astronaut.png"), 200, 150);
    cv::Mat alpha(bgr.size(), CV_8UC1);
    for (int r = 0; r < alpha.rows; ++r)
        for (int c = 0; c < alpha.cols; ++c)
            alpha.at<uchar>(r, c) = uchar((r * 7 + c) & 255);
    cv::Mat bgra;
    cv::Mat const planes[2] = {bgr, alpha};
    cv::merge(planes, 2, bgra);
    ASSERT_TRUE(cv::imwrite(dir / "a.png", bgra));

    ASSERT_EQ(kestrix(dir.path, {"detail", "a.png", "-o", "full.png"}).status, 0);
    cv::Mat const full = cv::imread(dir / "full.png", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(full.type(), CV_8UC4);
    cv::Mat fullAlpha;
    cv::extractChannel(full, fullAlpha, 3);
    EXPECT_EQ(maxAbsDiff(fullAlpha, alpha), 0.0);

    // 60 x 40 result pixels at scale 2 from (10, 20); the width is cut at the image's edge.
    Outcome const r = kestrix(
        dir.path, {"detail", "a.png", "-o", "roi.png", "--roi", "150,20,60,40", "--scale", "2"});
    ASSERT_EQ(r.status, 0) << r.err;
    cv::Mat const roi = cv::imread(dir / "roi.png", cv::IMREAD_UNCHANGED);
    EXPECT_EQ(roi.size(), cv::Size(25, 40));
    ASSERT_EQ(kestrix(dir.path, {"detail", "a.png", "-o", "roi1.png", "--roi", "10,20,30,40",
                                 "--preset", "neutral"})
                  .status,
              0);
    cv::Mat const roi1 = cv::imread(dir / "roi1.png", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(roi1.size(), cv::Size(30, 40));
    cv::Mat roiAlpha;
    cv::extractChannel(roi1, roiAlpha, 3);
    EXPECT_EQ(maxAbsDiff(roiAlpha, alpha(cv::Rect(10, 20, 30, 40))), 0.0);
    // At scale 1 the region is the full run cut out, up to the colour enlargement at its rim.
    cv::Mat neutralFull;
    ASSERT_EQ(kestrix(dir.path, {"detail", "a.png", "-o", "n.png", "--preset", "neutral"}).status,
              0);
    neutralFull = cv::imread(dir / "n.png", cv::IMREAD_UNCHANGED)(cv::Rect(10, 20, 30, 40));
    EXPECT_LE(meanAbsDiff(roi1, neutralFull), 1.0);

    cv::Mat grey;
    cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
    ASSERT_TRUE(cv::imwrite(dir / "g.png", grey));
    ASSERT_EQ(kestrix(dir.path, {"detail", "g.png", "-o", "g2.png", "--preset", "neutral"}).status,
              0);
    cv::Mat const g2 = cv::imread(dir / "g2.png", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(g2.type(), CV_8UC1);
    EXPECT_LE(maxAbsDiff(g2, grey), 2.0);
}

// Every bad input: its one-line message, its exit status, and no file left behind.
TEST(KestrixProgram, BadInputFailsCleanly) {
    TempDir dir;
    cv::Mat const small = crop(photo("chelsea.png"), 64, 48);
    ASSERT_TRUE(cv::imwrite(dir / "ok.png", small));
    ASSERT_TRUE(cv::imwrite(dir / "ok.jpg", small));
    std::string const png = slurp(dir / "ok.png");
    std::string const jpg = slurp(dir / "ok.jpg");
    std::ofstream(dir / "cut.png", std::ios::binary) << png.substr(0, png.size() / 2);
    std::ofstream(dir / "cut.jpg", std::ios::binary) << jpg.substr(0, jpg.size() / 2);
    std::ofstream(dir / "notes.png") << "not a picture\n";
    std::string header = png.substr(0, 40);  // a PNG signature and nothing sensible after
    std::ofstream(dir / "head.png", std::ios::binary) << header + std::string(100, '\x7f');
    fs::create_directory(dir / "folder.png");
    cv::Mat f32(8, 8, CV_32FC1, cv::Scalar(0.5));
    ASSERT_TRUE(cv::imwrite(dir / "float.tif", f32));

    struct Case {
        std::vector<std::string> args;
        int status;
        std::string message;
    } const cases[] = {
        {{"detail", "missing.png"},
         1,
         "kestrix: cannot open 'missing.png': No such file or directory\n"},
        {{"detail", "folder.png"}, 1, "kestrix: cannot read 'folder.png': it is a folder\n"},
        {{"detail", "notes.png"}, 1, "kestrix: 'notes.png' is not a PNG, TIFF or JPEG image\n"},
        {{"detail", "cut.png"}, 1, "kestrix: 'cut.png' is a corrupt or truncated PNG image\n"},
        {{"detail", "head.png"}, 1, "kestrix: 'head.png' is a corrupt or truncated PNG image\n"},
        {{"detail", "cut.jpg"}, 1, "kestrix: 'cut.jpg' is a corrupt or truncated JPEG image\n"},
        {{"detail", "float.tif"},
         1,
         "kestrix: 'float.tif': only 8- and 16-bit images are supported\n"},
        {{"detail", "ok.png", "--fine", "2"},
         2,
         "kestrix: bad value '2' for --fine (expected 1 to 3 comma-separated numbers in "
         "-1.5..1.5)\n"},
        {{"detail", "ok.png", "-o", "ok.png"},
         2,
         "kestrix: output 'ok.png' is the input file; choose another with -o\n"},
        {{"detail", "ok.png", "-o", "./sub/../ok.png"},
         2,
         "kestrix: output './sub/../ok.png' is the input file; choose another with -o\n"},
        {{"detail", "ok.png", "-o", "out.jpg"},
         2,
         "kestrix: output 'out.jpg' must be a PNG file like the input (extension .png)\n"},
        {{"detail", "ok.png", "-o", "nowhere/out.png"},
         1,
         "kestrix: cannot write 'nowhere/out.png': No such file or directory\n"},
        {{"detail", "ok.png", "--roi", "64,0,10,10"},
         2,
         "kestrix: the region 64,0,10,10 at scale 1 lies outside the 64 x 48 image\n"},
        {{"sharpen"}, 2, "kestrix: unknown command 'sharpen' (see kestrix --help)\n"},
        {{}, 2, "kestrix: no command given (see kestrix --help)\n"},
    };
    std::set<std::string> const before = dir.files();
    for (Case const &c : cases) {
        Outcome const r = kestrix(dir.path, c.args);
        std::string const what = c.args.empty() ? "(none)" : c.args.back();
        EXPECT_EQ(r.status, c.status) << what;
        EXPECT_EQ(r.err, c.message) << what;
        EXPECT_EQ(r.out, "") << what;
        EXPECT_EQ(dir.files(), before) << what;
    }
    EXPECT_EQ(slurp(dir / "ok.png"), png);
}

TEST(KestrixProgram, HelpAndVersion) {
    TempDir dir;
    Outcome const top = kestrix(dir.path, {"--help"});
    EXPECT_EQ(top.status, 0);
    EXPECT_NE(top.out.find("Usage: kestrix COMMAND"), std::string::npos);
    Outcome const detail = kestrix(dir.path, {"detail", "--help"});
    EXPECT_EQ(detail.status, 0);
    for (char const *word : {"--preset", "--fine", "--medium", "--coarse", "--coarse-threshold",
                             "--exposure", "--contrast", "--highlights", "--shadows", "--whites",
                             "--blacks", "--color-mix", "--roi", "--scale", "--quiet", "--time",
                             "alpha channel is carried through untouched", "D0 = (Y - Y1) / 2"})
        EXPECT_NE(detail.out.find(word), std::string::npos) << word;
    Outcome const version = kestrix(dir.path, {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, std::string("kestrix ") + KESTRIX_VERSION + "\n");
    EXPECT_TRUE(dir.files().empty());

    // --time prints its lines on stdout; nothing else is printed when stderr is no terminal.
    Outcome const timed = kestrix(dir.path, {"detail", "--time", "-o", "t.png"});
    EXPECT_EQ(timed.status, 0);
    EXPECT_EQ(timed.err, "");
    for (char const *label : {"time to decompose: ", "time to setup: ", "time to proc: "})
        EXPECT_NE(timed.out.find(label), std::string::npos) << label;
}

}  // namespace
