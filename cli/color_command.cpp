#include "cli/color_command.h"

#include <algorithm>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "kestrix1/image/scaling.h"
#include "kestrix1/image/tp_image.h"
#include "kestrix1/tables/selective_color_filter.h"
#include "kestrix1/tables/t_color_adj_d3.h"

namespace {

using Space = ColorSettings::Space;
using Params = SelectiveColorFilter::SelectiveColorParameters;
constexpr int kFamilies = ColorSettings::kFamilies;
constexpr int kAll = ColorSettings::kAll;

// The names on the command line, in the order of the library's families, then the whole.
char const *const kFamilyNames[kFamilies + 1] = {"red",  "yellow",  "green", "cyan",
                                                 "blue", "magenta", "all"};
static_assert(SelectiveColorFilter::Red == 0 && SelectiveColorFilter::Yellow == 1 &&
                  SelectiveColorFilter::Green == 2 && SelectiveColorFilter::Cyan == 3 &&
                  SelectiveColorFilter::Blue == 4 && SelectiveColorFilter::Magenta == 5,
              "the names follow the library's families");

// The slots of a parameter set that the families' weights read, family by family. The
// working-space path pairs them so; the tables of the packed paths are set up in the same
// slots, so that one set serves every space. Slots 1 and 6 stay 0.
constexpr int kSlot[kFamilies] = {0, 2, 3, 4, 5, 7};
// The families' centres (degrees) and Gaussian denominators, as the working-space path
// weighs them: the packed paths' tables take the same bells, so that a family covers the
// same hues whatever the space.
constexpr float kCentre[kFamilies] = {0, 60, 100, 165, 220, 300};
constexpr float kDen[kFamilies] = {-1256, -628, -628, -1236, -1570, -942};

// The colour table's ranges. At --warmth or --tint 1 the table mixes 30% of its strongest
// warm / cool or magenta / green shift into each colour; --chroma-floor 1 lifts chroma below
// a floor of 16 (dark tones) to 48 (bright tones) of 256 steps of full chroma, and -1 cuts
// it off there; --chroma-floor-narrow 1 halves that floor.
constexpr float kWarmth = 0.3f, kTint = 0.3f, kNarrowest = 2.0f, kFloor = 0.25f;

constexpr int kCubic = 4;       // the library's method number of cubic resampling
constexpr int kBandRows = 256;  // rows converted to and from hue, lightness and saturation at once

char const kFamilyExpected[] =
    "FAMILY=AMOUNT[,FAMILY=AMOUNT...] with FAMILY red, yellow, green, cyan, blue, magenta or "
    "all and AMOUNT in -1..1";

char const kAbout[] =
    "Changes the colours of a photograph family by family: the hue, saturation and lightness "
    "of its reds, yellows, greens, cyans, blues and magentas, or of all colours at once, with "
    "the library's selective colour filter; then, when asked, warms, tints or evens out all "
    "its colours through a colour table. Reads an 8- or 16-bit PNG, TIFF or JPEG and writes "
    "the same format at the same bit depth; an alpha channel is carried through untouched.\n"
    "\n"
    "Only --lightness changes brightness: with hue, saturation and the colour table alone "
    "every pixel keeps its luminance, unless its new colour lies beyond what the file can "
    "hold. With no change asked for, the photograph is written "
    "back as it was read, up to the rounding of the library's working image.\n"
    "\n"
    "Examples: --saturation all=0.3 (richer colours), --hue green=-0.1 --saturation "
    "green=-0.2 (yellower, calmer foliage), --lightness blue=-0.3 (a darker sky), --warmth "
    "0.4 --chroma-floor -0.3 (a warm picture with clean greys).\n"
    "\n"
    "With no INPUT the sample photograph built into kestrix is used; with no -o the result "
    "goes to color.png, color.tif or color.jpg after the input's format.";

char const kFooter[] =
    "Families: red (centred on hue 0 degrees), yellow (60), green (100), cyan (165), blue "
    "(220) and magenta (300). A pixel belongs to every family a little, by how far its hue "
    "lies from the family's centre (a bell falling to a third at 25 to 40 degrees), and moves "
    "by the sum of the families' amounts so weighted; all=AMOUNT moves every pixel alike. "
    "Options can be repeated and take several families at once: --hue red=0.1,yellow=-0.05.\n"
    "\n"
    "--space ydrdb (default): in the working image's own planes, luminance and two colour "
    "differences. A hue turns as an angle of the colour difference; saturation scales it "
    "(1 doubles it, -1 leaves an eighth); lightness bends the luminance of colourful pixels "
    "through a tone curve (greys do not move). Exact, and the slowest.\n"
    "\n"
    "--space hls and --space hsv: in hue, lightness and saturation, or hue, saturation and "
    "value, with the families' weights read from tables. Saturation 1 takes a family to full "
    "saturation and -1 to grey; lightness (value in hsv) 1 goes to white (full value) and -1 "
    "to black, less so for pale and dark colours. Faster. Where no lightness is asked for, "
    "the luminance of the input is put back.\n"
    "\n"
    "The colour table runs after the families, on the whole picture: --warmth and --tint shift "
    "colours the way a white balance does; --chroma-floor lifts weak colours up to four times "
    "(positive) or cuts them to grey (negative), more so in bright tones, leaving strong "
    "colours alone; --chroma-floor-narrow keeps that floor to the weakest colours. Where "
    "--lightness brightened a colour, the table also strengthens it in step.\n"
    "\n"
    "Exit status: 0 done, 1 the image could not be read, processed or written, 2 the command "
    "line is wrong.";

int familyOf(std::string const &name) {
    for (int f = 0; f <= kFamilies; ++f)
        if (name == kFamilyNames[f]) return f;
    return -1;
}

// A repeatable option of family amounts: every occurrence is read, in the order given.
CLI::Option *addFamilies(CLI::App &app, std::string const &name, std::string const &help,
                         float *amounts) {
    auto read = [name, amounts](std::vector<std::string> const &values) {
        for (std::string const &v : values) {
            if (v.empty()) throw CLI::ValidationError("option " + name + " needs a value");
            readFamilies(name, v, amounts);
        }
    };
    return app.add_option_function<std::vector<std::string>>(name, read, help)
        ->type_name("FAMILY=A")
        ->expected(0, 1)
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->group("Colour families");
}

// ---- the run ------------------------------------------------------------------------------

// The family amounts as a parameter set, each times `scale`.
Params setOf(float const *amounts, float scale) {
    Params set;
    for (int f = 0; f < kFamilies; ++f)
        set[kSlot[f]] = amounts[f] * scale;
    return set;
}

SelectiveColorFilter::OverallParameters overallOf(ColorSettings const &s, float hueScale) {
    SelectiveColorFilter::OverallParameters overall;
    overall.lightness = s.lightness[kAll];
    overall.saturation = s.saturation[kAll];
    overall.hue = s.hue[kAll] * hueScale;
    return overall;
}

// The half-size plane `half` plus the change from `before` to `after` (full size) reduced by
// 2. Where nothing changed, the plane stays as it was to the bit instead of passing through
// an enlargement and a reduction, which would soften all colour edges.
cv::Mat withChange(cv::Mat const &half, cv::Mat const &before, cv::Mat const &after) {
    cv::Mat change, reduced(half.size(), CV_32F), sum, out;
    cv::subtract(after, before, change, cv::noArray(), CV_32F);
    downSize2X(change, reduced, kCubic);
    half.convertTo(sum, CV_32F);
    sum += reduced;
    sum.convertTo(out, CV_16U);  // rounded and saturated
    return out;
}

// The families in the working image's planes: Dr and Db enlarged to Y's size, the hue and
// colourfulness (range) of each pixel from them, the family form of the filter with the range
// as the weight of lightness, and the change of Dr and Db brought back to half size.
void adjustInYDrDb(ColorSettings const &s, TPImage &image) {
    std::vector<cv::Mat> planes = {image.m_Y.clone(), cv::Mat(), cv::Mat()};
    for (int i = 1; i < 3; ++i) {
        planes[i].create(image.m_Y.size(), CV_16UC1);
        upSize2X(i == 1 ? image.m_Dr : image.m_Db, planes[i], kCubic);
    }
    SelectiveColorFilter filter;
    std::vector<cv::Mat> hueRange(2);
    filter.compHueRange(planes, hueRange);
    cv::Mat const dr = planes[1].clone(), db = planes[2].clone();
    filter.proc(planes, hueRange[0], hueRange[1], setOf(s.lightness, 1.0f),
                setOf(s.saturation, 1.0f), setOf(s.hue, 1.0f), overallOf(s, 1.0f));
    if (s.lightens) image.m_Y = planes[0];
    image.m_Dr = withChange(image.m_Dr, dr, planes[1]);
    image.m_Db = withChange(image.m_Db, db, planes[2]);
}

// Tables of Gaussian weights at the families' centres in their slots; slots 1 and 6, which
// no amount reaches, get narrow bells at 0 degrees only because the paths want eight tables.
void setupFamilyTables(SelectiveColorFilter &filter) {
    float centre[SelectiveColorFilter::kSlots] = {};
    float mult[SelectiveColorFilter::kSlots];
    std::fill(std::begin(mult), std::end(mult), -1.0f);
    for (int f = 0; f < kFamilies; ++f) {
        centre[kSlot[f]] = kCentre[f];
        mult[kSlot[f]] = 1.0f / kDen[f];
    }
    filter.setupLUT16U(SelectiveColorFilter::kSlots, mult, centre);
}

// Pixels of `bgr` as packed 16-bit hue, lightness, saturation (hue, saturation, value with
// `hsv`) in `packed`, hue coded 0..65535 for 0..360 degrees; `work` is float scratch. OpenCV
// converts 8-bit and float pixels only, so 16-bit files go through float, which keeps them
// whole.
void toPacked(cv::Mat const &bgr, bool hsv, cv::Mat &work, cv::Mat &packed) {
    bgr.convertTo(work, CV_32F, bgr.depth() == CV_8U ? 1.0 / 255.0 : 1.0 / 65535.0);
    cv::cvtColor(work, work, hsv ? cv::COLOR_BGR2HSV : cv::COLOR_BGR2HLS);
    cv::multiply(work, cv::Scalar(65535.0 / 360.0, 65535.0, 65535.0), work);
    work.convertTo(packed, CV_16U);
}

// Back from toPacked's coding into `bgr`, allocated at its depth.
void fromPacked(cv::Mat const &packed, bool hsv, cv::Mat &work, cv::Mat &bgr) {
    packed.convertTo(work, CV_32F);
    cv::multiply(work, cv::Scalar(360.0 / 65535.0, 1.0 / 65535.0, 1.0 / 65535.0), work);
    cv::cvtColor(work, work, hsv ? cv::COLOR_HSV2BGR : cv::COLOR_HLS2BGR);
    work.convertTo(bgr, bgr.depth(), bgr.depth() == CV_8U ? 255.0 : 65535.0);
}

// The families in hue, lightness and saturation (or value): the photograph converted, changed
// by the table path and converted back band by band (which keeps the float scratch small and
// lets the bar move), then into a working image whose Dr and Db (and Y only when a lightness
// is asked for) replace the photograph's. A hue amount of 1 is a half-turn, as in the
// working-space path, where the table path counts a whole turn: hence the halves.
void adjustPacked(ColorSettings const &s, cv::Mat const &bgr, TPImage &image, TProgress &progress) {
    bool const hsv = s.space == Space::hsv;
    SelectiveColorFilter filter;
    setupFamilyTables(filter);
    Params const lightness = setOf(s.lightness, 1.0f), saturation = setOf(s.saturation, 1.0f),
                 turn = setOf(s.hue, 0.5f);
    cv::Mat out(bgr.size(), bgr.type()), work, packed, hue;
    for (int top = 0; top < bgr.rows; top += kBandRows) {
        cv::Range const rows(top, std::min(bgr.rows, top + kBandRows));
        toPacked(bgr.rowRange(rows), hsv, work, packed);
        cv::extractChannel(packed, hue, 0);
        if (hsv)
            filter.procInHSVSpace(packed, hue, cv::Mat(), lightness, saturation, turn,
                                  overallOf(s, 0.5f));
        else
            filter.procInHLSSpace(packed, hue, cv::Mat(), lightness, saturation, turn,
                                  overallOf(s, 0.5f));
        cv::Mat band = out.rowRange(rows);
        fromPacked(packed, hsv, work, band);
        if (!progress.prog(rows.end, bgr.rows)) throw FileError("cancelled");
    }
    TPImage result;
    fillWorkingImage(out, result);
    image.m_Dr = result.m_Dr;
    image.m_Db = result.m_Db;
    if (s.lightens) image.m_Y = result.m_Y;
}

// The colour table on the half-size Dr and Db, beside the half-size Y before (y0) and after
// the families' lightness change.
void applyTable(ColorSettings const &s, cv::Mat const &y0, TPImage &image) {
    cv::Mat before(image.hHeight(), image.hWidth(), CV_16UC1), after = before;
    downSize2X(y0, before, kCubic);
    if (image.m_Y.data != y0.data) {
        after = cv::Mat(before.size(), CV_16UC1);
        downSize2X(image.m_Y, after, kCubic);
    }
    TColorAdjD3 table(kWarmth, kWarmth, kTint, kTint, kNarrowest, kFloor);
    table.setAmounts(s.warmth, s.tint, s.floorNarrow, s.chromaFloor);
    table.proc(before, after, image.m_Dr, image.m_Db, image.m_Dr, image.m_Db);
}

void runColor(ColorSettings const &s, Job &job) {
    TPImage image;
    job.fill(image);
    cv::Mat const y0 = image.m_Y;
    TProgress &progress = *job.progress();
    float const familyShare = !s.families ? 0.0f : s.table ? 0.8f : 1.0f;
    if (s.families) {
        Stopwatch watch;
        progress.start(familyShare);
        if (s.space == Space::ydrdb)
            adjustInYDrDb(s, image);
        else
            adjustPacked(s, job.photo().bgr, image, progress);
        if (!progress.end()) throw FileError("cancelled");
        job.time("time to change the colour families: ", watch);
    }
    if (s.table) {
        // Warmth and tint colour a grey photograph too, so it is written in colour.
        job.photo().grey = false;
        Stopwatch watch;
        progress.start(1.0f - familyShare);
        applyTable(s, y0, image);
        if (!progress.end()) throw FileError("cancelled");
        job.time("time to apply the colour table: ", watch);
    }
    job.finish(image);
}

}  // namespace

void readFamilies(std::string const &option, std::string const &value, float *amounts) {
    float read[kFamilies + 1];
    std::copy(amounts, amounts + kFamilies + 1, read);
    std::size_t start = 0;
    for (;;) {
        std::size_t const comma = value.find(',', start);
        std::string const entry = value.substr(start, comma - start);
        std::size_t const equals = entry.find('=');
        int const family = equals == std::string::npos ? -1 : familyOf(entry.substr(0, equals));
        std::vector<double> number;
        if (family < 0 || !commaSeparated(entry.substr(equals + 1), number) || number[0] < -1.0 ||
            number[0] > 1.0)
            badValue(option, value, kFamilyExpected);
        read[family] = float(number[0]);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    std::copy(read, read + kFamilies + 1, amounts);
}

void resolveColor(ColorSettings &s) {
    if (s.floorNarrow != 0 && s.chromaFloor == 0)
        throw UsageError(
            "--chroma-floor-narrow needs --chroma-floor, the floor it narrows (see kestrix color "
            "--help)");
    auto any = [](float const *amounts) {
        return std::any_of(amounts, amounts + kFamilies + 1, [](float a) { return a != 0; });
    };
    s.lightens = any(s.lightness);
    s.families = s.lightens || any(s.hue) || any(s.saturation);
    s.table = s.warmth != 0 || s.tint != 0 || s.chromaFloor != 0;
}

void addColorOptions(CLI::App &app, ColorSettings &s) {
    addFamilies(app, "--hue",
                "-1 .. 1: turns the hues of FAMILY (red, yellow, green, cyan, blue, magenta or "
                "all) by A half-turns of the colour circle, positive towards the next family in "
                "the order red, yellow, green, cyan, blue, magenta: 0.33 takes reds to yellow, 1 "
                "to the opposite hue",
                s.hue);
    addFamilies(app, "--saturation",
                "-1 .. 1: positive makes a family's colours richer, negative more muted",
                s.saturation);
    addFamilies(app, "--lightness",
                "-1 .. 1: positive brightens a family's colours, negative darkens them (value "
                "in hsv)",
                s.lightness);
    addValue(app, "--space", "ydrdb|hls|hsv",
             "where the families are changed: ydrdb (default), the working image's luminance "
             "and colour differences; hls, hue, lightness and saturation; hsv, hue, saturation "
             "and value (see below)",
             [&s](std::string const &v) {
                 if (v == "ydrdb")
                     s.space = Space::ydrdb;
                 else if (v == "hls")
                     s.space = Space::hls;
                 else if (v == "hsv")
                     s.space = Space::hsv;
                 else
                     badValue("--space", v, "ydrdb, hls or hsv");
             })
        ->group("Colour families");
    addNumbers(app, "--warmth", "W",
               "-1 .. 1: positive warms every colour (towards red and yellow), negative cools "
               "it (towards blue and cyan)",
               &s.warmth, 1, 1, -1.0f, 1.0f)
        ->group("Colour table");
    addNumbers(app, "--tint", "T",
               "-1 .. 1: positive tints towards magenta, negative towards green", &s.tint, 1, 1,
               -1.0f, 1.0f)
        ->group("Colour table");
    addNumbers(app, "--chroma-floor", "F",
               "-1 .. 1: positive lifts weak colours towards a floor (muted colours gain up to "
               "four times their strength), negative turns weak colours grey (clears slight "
               "casts); strong colours stay",
               &s.chromaFloor, 1, 1, -1.0f, 1.0f)
        ->group("Colour table");
    addNumbers(app, "--chroma-floor-narrow", "N",
               "0 .. 1: keeps --chroma-floor to weaker colours only; at 1 the floor is half as "
               "high",
               &s.floorNarrow, 1, 1, 0.0f, 1.0f)
        ->group("Colour table");
    app.final_callback([&s] { resolveColor(s); });
}

Command const colorCommand =
    commandOf<ColorSettings>("color", "change hue, saturation and lightness per colour family",
                             kAbout, kFooter, addColorOptions, runColor);
