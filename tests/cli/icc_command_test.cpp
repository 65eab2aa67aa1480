// `kestrix icc`: pure colours land where Little CMS puts them, a round trip comes back within
// a few codes, and wrong profiles and lines are refused in one line with nothing written.
#include <gtest/gtest.h>
#include <lcms2.h>

#include "tests/cli/cli_support.h"

using namespace kxcli;

TEST(IccCommand, ConvertsAtSixteenBitsAsLittleCmsDoes) {
    TempDir dir;
    for (auto [p, name] : {std::pair{cmsCreate_sRGBProfile(), "srgb.icc"},
                           {cmsCreateLab4Profile(nullptr), "lab.icc"}}) {
        EXPECT_TRUE(cmsSaveProfileToFile(p, (dir / name).c_str()));
        cmsCloseProfile(p);
    }
    cv::Mat in, out;
    cv::cvtColor(crop(photo("coffee.png")), in, cv::COLOR_BGR2BGRA);
    in.col(3).setTo(cv::Scalar::all(200));
    cv::Mat const pure = cv::Mat_<uchar>({0, 0, 255, 0, 255, 0, 255, 0, 0, 128, 128, 128});
    ASSERT_TRUE(cv::imwrite(dir / "in.png", in) &&
                cv::imwrite(dir / "pure.png", pure.reshape(3, 1)));
    // sRGB red, green, blue and grey 128 in ProPhoto at 16 bits, as Little CMS 2.14 gives them.
    Outcome r = kestrix(dir.path, "icc pure.png -o pro.png --from srgb --to prophoto");
    cv::Mat const want = cv::Mat_<ushort>(
        {6786, 18069, 46022, 19960, 60790, 35407, 60480, 9021, 22033, 27962, 27962, 27962});
    out = cv::imread(dir / "pro.png", cv::IMREAD_UNCHANGED);
    EXPECT_TRUE(r.err == "" && out.type() == CV_16UC3 && maxAbsDiff(out, want.reshape(3, 1)) == 0);
    // To ProPhoto by a file and back, and sRGB to itself, the alpha widened alike: within a
    // few codes of 65535 (5 and 0 measured; a saved profile's numbers are rounded).
    r = kestrix(dir.path, "icc in.png -o pro.png --from srgb.icc --to prophoto");
    for (auto [line, most] : {std::pair{"pro.png --from prophoto --to srgb", 6.0},
                              {"in.png --from srgb --to srgb --intent relative", 1.0}}) {
        r = kestrix(dir.path, std::string("icc -o back.png ") + line);
        EXPECT_LE(maxAbsDiff(cv::imread(dir / "back.png", cv::IMREAD_UNCHANGED), to16(in)), most)
            << line << r.err;
    }

    std::ofstream(dir / "text.icc") << "not a profile\n";
    std::set<std::string> const files = dir.files();
    std::pair<char const *, std::string> const wrong[] = {
        {"--from no.icc --to srgb", "--from: cannot open 'no.icc': No such file or directory"},
        {"--from srgb --to text.icc", "--to: 'text.icc' is not an ICC profile"},
        {"--from lab.icc --to srgb",
         "--from: 'lab.icc' is not an RGB profile (its colour space is Lab)"},
        {"--to srgb", "kestrix icc needs --from PROFILE and --to PROFILE (see kestrix icc --help)"},
    };
    for (auto const &[options, message] : wrong) {
        r = kestrix(dir.path, std::string("icc in.png -o bad.png ") + options);
        EXPECT_EQ(r.status, message[0] == '-' ? 1 : 2) << options;
        EXPECT_EQ(r.err, "kestrix: " + message + "\n");
    }
    EXPECT_EQ(dir.files(), files);
}
