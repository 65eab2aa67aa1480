#include "cli/icc_command.h"

#include <lcms2.h>

#include <memory>
#include <string>
#include <vector>

#include "kestrix1/image/color_management.h"

namespace {

using Profile = std::unique_ptr<void, cmsBool (*)(cmsHPROFILE)>;
using Transform = std::unique_ptr<void, void (*)(cmsHTRANSFORM)>;

char const *const kIntents[] = {"perceptual", "relative", "saturation", "absolute"};

char const kAbout[] =
    "Converts a photograph from one ICC colour space (--from) to another (--to) with Little "
    "CMS. Each PROFILE is the path of an .icc or .icm file of an RGB space, or one of the "
    "profiles built into kestrix: srgb (sRGB, IEC 61966-2-1) or prophoto (ProPhoto RGB: "
    "its primaries, D50 white and a plain gamma of 1.8).\n"
    "\n"
    "Reads an 8- or 16-bit PNG, TIFF or JPEG and converts at 16 bits: an 8-bit picture is "
    "widened first (x 257). Every pixel goes through the profiles' own curves and matrices or "
    "tables, not through a coarser table made for speed, so that a conversion and its reverse "
    "give back the picture within a few codes of 65535; it takes about 150 ns a pixel on one "
    "core, spread over all of them.\n"
    "\n"
    "A PNG or TIFF is written at 16 bits whatever the input's depth; a JPEG holds 8 bits only "
    "and is written at 8. A grey picture comes out as RGB; an alpha channel is carried "
    "through. The output has no profile embedded: tag it as --to with another tool if the "
    "programs that open it need to know.\n"
    "\n"
    "With no INPUT the sample photograph built into kestrix is used; with no -o the result goes "
    "to icc.png, icc.tif or icc.jpg after the input's format.";

char const kFooter[] =
    "--intent chooses how colours outside the target's gamut are brought in: perceptual "
    "(default) compresses the whole gamut, relative clips at the edge and keeps the rest exact, "
    "saturation keeps colours vivid, absolute also keeps the source's white. Profiles of the "
    "plain matrix kind, like srgb and prophoto, have no perceptual table: Little CMS gives them "
    "relative.\n"
    "\n"
    "Exit status: 0 done, 1 the image or a profile could not be read, or the output not "
    "written, 2 the command line is wrong.";

// Little CMS reports why it failed through a handler; the last report explains a failure.
std::string lcmsReport;

void keepReport(cmsContext, cmsUInt32Number, char const *text) {
    lcmsReport = text;
}

Profile proPhoto() {
    cmsCIExyY const d50 = {0.3457, 0.3585, 1.0};
    cmsCIExyYTRIPLE const primaries = {
        {0.7347, 0.2653, 1.0}, {0.1596, 0.8404, 1.0}, {0.0366, 0.0001, 1.0}};
    std::unique_ptr<cmsToneCurve, void (*)(cmsToneCurve *)> gamma(cmsBuildGamma(nullptr, 1.8),
                                                                  cmsFreeToneCurve);
    cmsToneCurve *curves[3] = {gamma.get(), gamma.get(), gamma.get()};
    return Profile(cmsCreateRGBProfile(&d50, &primaries, curves), cmsCloseProfile);
}

// A colour space signature as its four letters, without trailing spaces ("CMYK", "Lab").
std::string signatureText(cmsUInt32Number signature) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        char const c = char((signature >> shift) & 0xff);
        text += c >= 0x20 && c < 0x7f ? c : '?';
    }
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

// The profile that `option` names: a built-in name or a file, which must hold an RGB profile.
Profile openProfile(char const *option, std::string const &name) {
    if (name == "srgb") return Profile(cmsCreate_sRGBProfile(), cmsCloseProfile);
    if (name == "prophoto") return proPhoto();
    std::vector<unsigned char> bytes;
    try {
        bytes = readFile(name);
    } catch (FileError const &e) {
        throw FileError(std::string(option) + ": " + e.what());
    }
    std::string const quoted = std::string(option) + ": '" + name + "'";
    Profile p(cmsOpenProfileFromMem(bytes.data(), cmsUInt32Number(bytes.size())), cmsCloseProfile);
    if (!p) throw FileError(quoted + " is not an ICC profile");
    cmsColorSpaceSignature const space = cmsGetColorSpace(p.get());
    if (space != cmsSigRgbData)
        throw FileError(quoted + " is not an RGB profile (its colour space is " +
                        signatureText(space) + ")");
    return p;
}

void runIcc(IccSettings const &s, Job &job) {
    cmsSetLogErrorHandler(keepReport);
    Profile const from = openProfile("--from", s.from), to = openProfile("--to", s.to);
    Stopwatch watch;
    // Rows run on several threads at once: the transform must keep no one-pixel cache. Little
    // CMS's precalculated table for 16 bits is six times faster than evaluating the profiles,
    // but misses by thousands of codes in saturated shadows (sRGB to ProPhoto and back).
    lcmsReport.clear();
    Transform const transform(
        cmsCreateTransform(from.get(), TYPE_BGR_16, to.get(), TYPE_BGR_16,
                           cmsUInt32Number(s.intent), cmsFLAGS_NOCACHE | cmsFLAGS_NOOPTIMIZE),
        cmsDeleteTransform);
    if (!transform)
        throw FileError("Little CMS cannot convert from '" + s.from + "' to '" + s.to + "'" +
                        (lcmsReport.empty() ? "" : ": " + lcmsReport));

    Photo &photo = job.photo();
    cv::Mat wide = photo.bgr;
    if (wide.depth() == CV_8U) {
        photo.bgr.convertTo(wide, CV_16U, 257.0);
        if (!photo.alpha.empty()) photo.alpha.convertTo(photo.alpha, CV_16U, 257.0);
    }
    ColorManagement colour;
    colour.setTransform(transform.get());
    colour.convert(wide.data, wide.data, int(wide.step), wide.cols, wide.rows);
    job.time("time to convert the colours: ", watch);

    if (photo.format == ImageFormat::jpeg) {
        wide.convertTo(photo.bgr, CV_8U, 1.0 / 257.0);
        if (!photo.alpha.empty()) photo.alpha.convertTo(photo.alpha, CV_8U, 1.0 / 257.0);
    } else {
        photo.bgr = wide;
    }
    photo.grey = false;
    job.finish();
}

void readIntent(IccSettings &s, std::string const &value) {
    for (int i = 0; i < 4; ++i)
        if (value == kIntents[i]) {
            s.intent = i;
            return;
        }
    badValue("--intent", value, "perceptual, relative, saturation or absolute");
}

}  // namespace

void resolveIcc(IccSettings const &s) {
    if (s.from.empty() || s.to.empty())
        throw UsageError(
            "kestrix icc needs --from PROFILE and --to PROFILE (see kestrix icc --help)");
}

void addIccOptions(CLI::App &app, IccSettings &s) {
    addValue(app, "--from", "PROFILE",
             "the photograph's colour space: srgb, prophoto or an .icc / .icm file (required)",
             [&s](std::string const &v) { s.from = v; })
        ->group("Colour spaces");
    addValue(app, "--to", "PROFILE",
             "the colour space to convert to: srgb, prophoto or an .icc / .icm file (required)",
             [&s](std::string const &v) { s.to = v; })
        ->group("Colour spaces");
    addValue(app, "--intent", "NAME",
             "perceptual (default), relative, saturation or absolute; see below",
             [&s](std::string const &v) { readIntent(s, v); })
        ->group("Colour spaces");
    app.final_callback([&s] { resolveIcc(s); });
}

Command const iccCommand =
    commandOf<IccSettings>("icc", "convert a photograph between ICC colour spaces", kAbout, kFooter,
                           addIccOptions, runIcc);
