// `kestrix transfer`: each mode and recipe gives a photograph back nearly unchanged from itself
// and moves it towards another picture; saved histograms serve as the picture did, damaged
// ones are refused in one line with nothing written; wrong lines get their messages.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <opencv2/imgcodecs.hpp>
#include <random>
#include <sstream>
#include <string>

#include "cli/transfer_command.h"
#include "tests/cli/cli_support.h"

namespace {

using namespace kxcli;

struct Case {
    char const *line;
    double selfMax, selfMean;  // codes of 255, to itself
    double otherMean;          // least mean change towards another picture
};

class TransferRuns : public testing::TestWithParam<Case> {};

TEST_P(TransferRuns, ToItselfNearlyUnchangedAndTowardsAnother) {
    Case const c = GetParam();
    TempDir dir;
    cv::Mat const in8 = crop(photo("chelsea.png"));
    for (cv::Mat const &in : {in8, to16(in8)}) {
        double const code = in.depth() == CV_8U ? 1.0 : 257.0;
        ASSERT_TRUE(cv::imwrite(dir / "in.png", in));
        ASSERT_TRUE(cv::imwrite(dir / "ref.png", crop(photo("astronaut.png"), 200, 150)));
        for (char const *ref : {"in.png", "ref.png"}) {
            std::string const line =
                std::string("transfer in.png -o out.png --reference ") + ref + " " + c.line;
            Outcome const r = kestrix(dir.path, line);
            ASSERT_TRUE(r.status == 0 && r.out + r.err == "") << line << ": " << r.err;
            cv::Mat const out = cv::imread(dir / "out.png", cv::IMREAD_UNCHANGED);
            ASSERT_EQ(out.type(), in.type());
            if (ref[0] == 'i') {
                EXPECT_LE(maxAbsDiff(out, in), c.selfMax * code) << line;
                EXPECT_LE(meanAbsDiff(out, in), c.selfMean * code) << line;
            } else {
                EXPECT_GE(meanAbsDiff(out, in), c.otherMean * code) << line;
            }
        }
    }
}

// The bounds to itself, as measured on this crop, in codes of 255: colour 0 at 8 bits and 0.3
// at most at 16; detail and base 0, but proc4, whose detail list centred on mid-grey saturates
// at one catch-light (15.5 codes); tone 63 at that catch-light and 3.1 on average, what the
// local Laplacian filter leaves of an identity curve. Towards the other picture, 35 to 50 on
// average.
INSTANTIATE_TEST_SUITE_P(
    EachModeAndRecipe, TransferRuns,
    testing::Values(Case{"--mode colour", 1, 0.1, 20}, Case{"--mode tone", 64, 3.5, 20},
                    Case{"--mode detail", 0, 0, 10}, Case{"--mode base --recipe c1", 0, 0, 10},
                    Case{"--mode detail --recipe proc", 0, 0, 10},
                    Case{"--mode base --recipe proc1", 0, 0, 10},
                    Case{"--mode detail --recipe proc2", 0, 0, 10},
                    Case{"--mode base --recipe proc3", 0.01, 0.01, 10},
                    Case{"--mode detail --recipe proc4", 16, 0.01, 10},
                    Case{"--mode base --recipe proc5", 0, 0, 10},
                    Case{"--mode detail --recipe proc6 --sigma-s 8", 0, 0, 10}),
    [](auto const &info) {
        std::string name = info.param.line + 7;
        std::replace_if(
            name.begin(), name.end(), [](char c) { return !std::isalnum(c); }, '_');
        return name;
    });

// Runs kestrix in this process (a crash or a leak shows in the test) and returns its status;
// its one line on stderr goes to `err`.
int runHere(std::string const &line, std::string &err) {
    std::istringstream words(line);
    std::vector<std::string> const args{std::istream_iterator<std::string>(words), {}};
    testing::internal::CaptureStderr();
    int const status = runKestrix({&transferCommand}, args, "test");
    err = testing::internal::GetCapturedStderr();
    return status;
}

// The histograms saved from a picture give the same result as the picture; hundreds of
// damaged copies (cut short, bytes changed, keys renamed) give one line and no output, or a
// run as good as any.
TEST(TransferCommand, SavedReferenceServesAndDamagedOnesAreRefused) {
    TempDir dir;
    ASSERT_TRUE(cv::imwrite(dir / "in.png", crop(photo("chelsea.png"), 61, 47)));
    ASSERT_TRUE(cv::imwrite(dir / "ref.png", crop(photo("coffee.png"), 90, 70)));
    std::string err;
    auto run = [&](char const *out, std::string const &ref) {
        return runHere("transfer " + dir / "in.png" + " --mode colour -q -o " + dir / out +
                           " --reference " + dir / ref,
                       err);
    };
    ASSERT_EQ(run("a.png", "ref.png --save-reference " + dir / "ref.xml"), 0) << err;
    ASSERT_EQ(run("b.png", "ref.xml"), 0) << err;
    EXPECT_EQ(slurp(dir / "a.png"), slurp(dir / "b.png"));

    std::string const saved = slurp(dir / "ref.xml");
    std::vector<std::string> damaged = {"",
                                        "<?xml version=\"1.0\"?><opencv_storage><Hist>1</Hist>"
                                        "</opencv_storage>"};
    for (std::size_t at = 0; at < saved.size(); at += saved.size() / 150 + 1)
        damaged.push_back(saved.substr(0, at));
    std::mt19937 random(7);
    for (int i = 0; i < 150; ++i) {
        damaged.push_back(saved);
        damaged.back()[random() % saved.size()] ^= char(1 + random() % 255);
    }
    for (char const *key : {"Hist", "MaxVal", "MinVal", "Step", "TotalPixels", "HistMax",
                            "opencv_storage", "rows", "cols", "dt", "data"})
        for (std::size_t at = saved.find(key); at != std::string::npos;
             at = saved.find(key, at + 1)) {
            damaged.push_back(saved);
            damaged.back()[at] = 'X';
        }
    int refused = 0;
    for (std::string const &text : damaged) {
        std::ofstream(dir / "bad.xml", std::ios::binary) << text;
        int const status = run("c.png", "bad.xml");
        ASSERT_TRUE(status == 0 || status == 1) << status << ": " << text;
        EXPECT_EQ(std::filesystem::remove(dir / "c.png"), status == 0) << err;
        refused += status;
        bool const oneLine = err.rfind("kestrix: reference '" + dir / "bad.xml" + "' ", 0) == 0 &&
                             std::count(err.begin(), err.end(), '\n') == 1;
        EXPECT_TRUE(status == 0 || oneLine) << err;
    }
    EXPECT_GT(refused, int(damaged.size()) / 2);
    std::ofstream(dir / "foreign.xml") << damaged[1];
    EXPECT_EQ(run("c.png", "foreign.xml"), 1);
    EXPECT_EQ(err, "kestrix: reference '" + dir / "foreign.xml" +
                       "' has no valid 'Hist' (expected histograms saved with --save-reference)\n");
}

TEST(TransferCommand, RefusesWrongLines) {
    std::string const see = " (see kestrix transfer --help)";
    std::pair<char const *, std::string> const cases[] = {
        {"--reference r.png", "kestrix transfer needs --mode colour, tone, detail or base" + see},
        {"--mode tone",
         "kestrix transfer needs --reference FILE, a picture or histograms saved with "
         "--save-reference" +
             see},
        {"--reference r.png --mode hue",
         "bad value 'hue' for --mode (expected colour, tone, detail or base)"},
        {"--reference r.png --mode tone --save-reference s.xml",
         "--save-reference does not apply to --mode tone" + see},
        {"--reference r.png --mode colour --save-reference s.txt",
         "bad value 's.txt' for --save-reference (expected a file name ending in .xml)"},
        {"--reference r.XML --mode base",
         "--mode base needs a picture as --reference; 'r.XML' holds saved colour histograms"},
        {"--reference r.png --mode base --recipe proc --sigma-r 0.1",
         "--sigma-r does not apply to --recipe proc, whose settings are fixed" + see},
        {"--reference r.png --mode base --recipe proc6 --sigma-s 3",
         "bad value '3' for --sigma-s (--recipe proc6 needs at least 4)"},
        {"--reference r.png --mode detail --recipe proc7",
         "bad value 'proc7' for --recipe (expected c1, c2, proc, proc1, proc2, proc3, proc4, "
         "proc5 or proc6)"},
    };
    for (auto const &[line, want] : cases)
        EXPECT_EQ(usageErrorOf(addTransferOptions, "transfer", line), want) << line;
}

}  // namespace
