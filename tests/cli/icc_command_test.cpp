// `kestrix icc`: the written picture is Little CMS's own transform of the widened input, a
// round trip through ProPhoto comes back within a few codes, and wrong profiles and lines are
// refused in one line with nothing written.
#include <gtest/gtest.h>
#include <lcms2.h>

#include <opencv2/imgcodecs.hpp>
#include <string>

#include "cli/icc_command.h"
#include "tests/cli/cli_support.h"

namespace {

using namespace kxcli;

// ProPhoto made as kestrix makes it, saved to `path`, so that the file route is taken.
void saveProPhoto(std::string const &path) {
    cmsCIExyY const d50 = {0.3457, 0.3585, 1.0};
    cmsCIExyYTRIPLE const primaries = {
        {0.7347, 0.2653, 1.0}, {0.1596, 0.8404, 1.0}, {0.0366, 0.0001, 1.0}};
    cmsToneCurve *gamma = cmsBuildGamma(nullptr, 1.8);
    cmsToneCurve *curves[3] = {gamma, gamma, gamma};
    cmsHPROFILE p = cmsCreateRGBProfile(&d50, &primaries, curves);
    ASSERT_TRUE(cmsSaveProfileToFile(p, path.c_str()));
    cmsCloseProfile(p);
    cmsFreeToneCurve(gamma);
}

cv::Mat read(std::string const &path) {
    return cv::imread(path, cv::IMREAD_UNCHANGED);
}

TEST(IccCommand, WritesLittleCmsTransformOfTheWidenedInput) {
    TempDir dir;
    saveProPhoto(dir / "pro.icc");
    cv::Mat const in8 = crop(photo("coffee.png"));
    ASSERT_TRUE(cv::imwrite(dir / "in.png", in8));
    Outcome r =
        kestrix(dir.path, "icc in.png -o pro.png --from srgb --to pro.icc --intent relative");
    ASSERT_TRUE(r.status == 0 && r.out + r.err == "") << r.err;
    cv::Mat const out = read(dir / "pro.png");
    ASSERT_EQ(out.type(), CV_16UC3);

    cmsHPROFILE srgb = cmsCreate_sRGBProfile();
    cmsHPROFILE pro = cmsOpenProfileFromFile((dir / "pro.icc").c_str(), "r");
    cmsHTRANSFORM t = cmsCreateTransform(srgb, TYPE_BGR_16, pro, TYPE_BGR_16,
                                         INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_NOOPTIMIZE);
    cv::Mat const want = to16(in8);
    cmsDoTransform(t, want.data, want.data, cmsUInt32Number(want.total()));
    cmsDeleteTransform(t);
    cmsCloseProfile(pro);
    cmsCloseProfile(srgb);
    EXPECT_EQ(maxAbsDiff(out, want), 0.0);
    EXPECT_GT(meanAbsDiff(out, to16(in8)), 1000.0);  // ProPhoto is far from sRGB

    // Back to sRGB by the built-in ProPhoto, 16 bits in and out; an alpha rides along.
    r = kestrix(dir.path, "icc pro.png -o back.png --from prophoto --to srgb");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_LE(maxAbsDiff(read(dir / "back.png"), to16(in8)), 4.0);  // 3 measured

    cv::Mat bgra;
    cv::cvtColor(to16(in8), bgra, cv::COLOR_BGR2BGRA);
    bgra.col(3).setTo(cv::Scalar::all(1234));
    ASSERT_TRUE(cv::imwrite(dir / "in.tif", bgra));
    r = kestrix(dir.path, "icc in.tif --from srgb --to srgb");
    ASSERT_EQ(r.status, 0) << r.err;
    cv::Mat const same = read(dir / "icc.tif");
    ASSERT_EQ(same.type(), CV_16UC4);
    EXPECT_LE(maxAbsDiff(same, bgra), 1.0);
    EXPECT_EQ(same.at<cv::Vec4w>(0, 3)[3], 1234);

    // A JPEG can hold 8 bits only.
    ASSERT_TRUE(cv::imwrite(dir / "in.jpg", in8));
    r = kestrix(dir.path, "icc in.jpg --from srgb --to prophoto");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(read(dir / "icc.jpg").type(), CV_8UC3);
}

TEST(IccCommand, RefusesWrongProfilesAndLines) {
    TempDir dir;
    ASSERT_TRUE(cv::imwrite(dir / "in.png", crop(photo("chelsea.png"), 31, 17)));
    std::ofstream(dir / "text.icc") << "not a profile\n";
    cmsHPROFILE lab = cmsCreateLab4Profile(nullptr);
    ASSERT_TRUE(cmsSaveProfileToFile(lab, (dir / "lab.icc").c_str()));
    cmsCloseProfile(lab);
    std::set<std::string> const files = dir.files();

    struct Case {
        char const *options;
        int status;
        char const *message;
    } const cases[] = {
        {"--from missing.icc --to srgb", 1,
         "--from: cannot open 'missing.icc': No such file or directory"},
        {"--from srgb --to text.icc", 1, "--to: 'text.icc' is not an ICC profile"},
        {"--from srgb --to in.png", 1, "--to: 'in.png' is not an ICC profile"},
        {"--from lab.icc --to srgb", 1,
         "--from: 'lab.icc' is not an RGB profile (its colour space is Lab)"},
        {"--from srgb", 2,
         "kestrix icc needs --from PROFILE and --to PROFILE (see kestrix icc --help)"},
        {"--to srgb", 2,
         "kestrix icc needs --from PROFILE and --to PROFILE (see kestrix icc --help)"},
        {"--from srgb --to srgb --intent vivid", 2,
         "bad value 'vivid' for --intent (expected perceptual, relative, saturation or absolute)"},
    };
    for (Case const &c : cases) {
        Outcome const r = kestrix(dir.path, std::string("icc in.png -o out.png ") + c.options);
        EXPECT_EQ(r.status, c.status) << c.options;
        EXPECT_EQ(r.err, std::string("kestrix: ") + c.message + "\n");
        EXPECT_EQ(dir.files(), files) << c.options;
    }
}

}  // namespace
