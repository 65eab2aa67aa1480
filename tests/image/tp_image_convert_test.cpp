// Tests of TPImage's colour transforms and host-buffer conversions against plain per-pixel
// references written from the formulas, on flat colours, noise, every level and awkward sizes.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstdint>
#include <vector>

#include "kestrix1/image/scaling.h"
#include "kestrix1/image/tp_image.h"
#include "tests/support/images.h"
#include "tests/support/luma_reference.h"
#include "tests/support/throws.h"
#include "tests/support/vector_paths.h"

namespace {

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using kxtest::thrown;

int sat(double v, int hi) {
    return v < 0 ? 0 : v > hi ? hi : int(v);
}
int rint16(double v) {
    return sat(std::nearbyint(v), 65535);
}
bool flat(cv::Mat const &m, double v) {
    return cv::countNonZero(m != v) == 0;
}
bool same(cv::Mat const &a, cv::Mat const &b, double tolerance = 0) {
    return a.size() == b.size() && cv::norm(a, b, cv::NORM_INF) <= tolerance;
}

// References, one pixel at a time: r, g, b.

cv::Vec3i refF16(int y, int dr, int db) {
    int const R = sat(y + 2 * dr - 65536, 65535), B = sat(y + 2 * db - 65536, 65535);
    return {R, rint16(double(float(y - R * 0.299f - B * 0.114f)) * 1.7036), B};
}
cv::Vec3i refF15(int y, int dr, int db) {
    int const R = sat(dr + y / 2 - 32768, 65535), B = sat(db + y / 2 - 32768, 65535);
    return {R, rint16(double(float(y / 2 - 0.299f * R - 0.114f * B)) * 1.7036), B};
}
cv::Vec3i refF8(int y, int dr, int db) {
    float const r = (dr - 32768) * 2.0f + y, b = (db - 32768) * 2.0f + y;
    float const g = (y - 0.299f * r - 0.114f * b) * 1.7036f;
    return {rint16(r) >> 8, rint16(g) >> 8, rint16(b) >> 8};
}
cv::Vec3i refPacked(int y, int dr, int db) {  // truncates g
    int const r = y + 2 * dr - 65536, b = y + 2 * db - 65536;
    int const g = int((float(y) - float(r) * 0.299f - float(b) * 0.114f) * 1.7036f);
    return {sat(r >> 8, 255), sat(g >> 8, 255), sat(b >> 8, 255)};
}
cv::Vec3f refF32(int y, int dr, int db) {  // the low bit of Y drops out of r and b
    double const r = 2.0 * (dr + y / 2 - 32768), b = 2.0 * (db + y / 2 - 32768);
    return {float(r / 65535), float((y - 0.299 * r - 0.114 * b) * 1.7036 / 65535),
            float(b / 65535)};
}
cv::Vec3f refF32V(int y, int dr, int db) {
    double const r = (y + 2.0 * dr - 65536) / 65535, b = (y + 2.0 * db - 65536) / 65535;
    return {float(r), float((y / 65535.0 - 0.299 * r - 0.114 * b) * 1.7036), float(b)};
}

// f of the pixels of three planes of T, one at a time, as a matrix of what f returns.
template <class T = u16, class F>
cv::Mat perPixel(cv::Mat const &a, cv::Mat const &b, cv::Mat const &c, F f) {
    cv::Mat_<decltype(f(T(), T(), T()))> out(a.size());
    for (int i = 0; i < a.rows; ++i)
        for (int j = 0; j < a.cols; ++j)
            out(i, j) = f(a.at<T>(i, j), b.at<T>(i, j), c.at<T>(i, j));
    return out;
}

// Three planes as one matrix of int (or float) triples, to compare with a formula.
cv::Mat triples(std::vector<cv::Mat> const &planes) {
    cv::Mat m;
    cv::merge(planes, m);
    m.convertTo(m, m.depth() == CV_32F ? CV_32F : CV_32S);
    return m;
}

std::vector<cv::Mat> three(cv::Size size, int type) {
    return {cv::Mat(size, type), cv::Mat(size, type), cv::Mat(size, type)};
}

// What a planar host output writes into three padded planes of T, as r, g, b triples; empty
// when it wrote between the rows.
template <class T, class Out>
cv::Mat host(int rows, int cols, Out out) {
    int const type = sizeof(T) == 1 ? CV_8UC1 : CV_16UC1;
    kxtest::PaddedMat m[3] = {{rows, cols, type}, {rows, cols, type}, {rows, cols, type}};
    T *p[3] = {m[0].ptr<T>(), m[1].ptr<T>(), m[2].ptr<T>()};
    out(p, m[0].step());
    bool const intact = m[0].paddingIntact() && m[1].paddingIntact() && m[2].paddingIntact();
    return intact ? triples({m[0].view, m[1].view, m[2].view}) : cv::Mat();
}

// Y, Dr, Db of planar input as the forward path defines them, with the library's reduction.
void refForward(cv::Mat const rgb[3], bool doubled, cv::Mat &Y, cv::Mat &Dr, cv::Mat &Db) {
    auto const luma = [&](int r, int g, int b) { return kxtest::luma16(r, g, b, doubled); };
    perPixel(rgb[0], rgb[1], rgb[2], luma).convertTo(Y, CV_16U);
    cv::Size const h(TPImage::half(Y.cols), TPImage::half(Y.rows));
    cv::Mat Yh(h, CV_16UC1);
    Dr.create(h, CV_16UC1);
    Db.create(h, CV_16UC1);
    downSize2X(Y, Yh, 4);
    downSize2X(rgb[0], Dr, 4);
    downSize2X(rgb[2], Db, 4);
    for (cv::Mat *d : {&Dr, &Db})
        for (int i = 0; i < h.height; ++i)
            for (int j = 0; j < h.width; ++j) {
                int const c = d->at<u16>(i, j), yh = Yh.at<u16>(i, j);
                d->at<u16>(i, j) = u16(doubled ? std::min(c - yh / 2 + 32768, 65535)
                                               : sat((c - yh) / 2 + 32768, 65535));
            }
}

// Every output path of `im` against its formula over Dr, Db enlarged by nearest-in-Y (16-bit
// and packed output) or plainly (8- and 15-bit output), the matrix forms over the same planes,
// and the half-size output over m_fY or else Y reduced. Returns the 16-bit output.
cv::Mat expectOutputsFollowTheFormulas(TPImage &im) {
    int const w = im.width(), h = im.height();
    cv::Mat const &Y = im.m_Y;
    cv::Mat nearR, nearB, cubicR, cubicB, packed(h, w, CV_8UC4), rgb, alpha;
    upSize2XGuidedByYSimple(Y, im.m_Dr, nearR);
    upSize2XGuidedByYSimple(Y, im.m_Db, nearB);
    upSize2XGuidedByY(Y, im.m_Dr, cubicR, false, 4);
    upSize2XGuidedByY(Y, im.m_Db, cubicB, false, 4);
    cv::Mat const want16 = perPixel(Y, nearR, nearB, refF16);
    cv::Mat const want15 = perPixel(Y, cubicR, cubicB, refF15);
    cv::Mat const want8 = perPixel(Y, cubicR, cubicB, refF8);

    cv::Mat const o16 = host<u16>(h, w, [&](u16 **p, int s) { im.convertTopRGB(p, s); });
    cv::Mat const o15 = host<u16>(h, w, [&](u16 **p, int s) { im.convertTopRGB15U(p, s); });
    cv::Mat const o8 = host<u8>(h, w, [&](u8 **p, int s) { im.convertTopRGB8U(p, s); });
    im.convertTo(packed.data, int(packed.step));
    cv::cvtColor(packed, rgb, cv::COLOR_BGRA2RGB);
    cv::extractChannel(packed, alpha, 3);
    EXPECT_TRUE(same(o16, want16) && same(o15, want15) && same(o8, want8));
    EXPECT_TRUE(same(triples({rgb}), perPixel(Y, nearR, nearB, refPacked)) && flat(alpha, 255));

    std::vector<cv::Mat> m16 = three(Y.size(), CV_16UC1), m15 = three(Y.size(), CV_16UC1),
                         m8 = three(Y.size(), CV_8UC1), f6 = three(Y.size(), CV_32FC1), fv(3),
                         v16(3), ydrdb{Y, nearR, nearB};
    TPImage::YDRDB2RGB(Y, nearR, nearB, m16[0], m16[1], m16[2]);
    im.YDRDB2RGB15U(Y, cubicR, cubicB, m15[0], m15[1], m15[2]);
    im.YDRDB2RGB8U(Y, cubicR, cubicB, m8[0], m8[1], m8[2]);
    im.YDRDB2RGB32F(Y, nearR, nearB, f6[0], f6[1], f6[2]);
    TPImage::YDRDB2RGB(ydrdb, v16);
    TPImage::YDRDB2RGB32F(ydrdb, fv);
    EXPECT_TRUE(same(triples(m16), want16) && same(triples(v16), want16));
    EXPECT_TRUE(same(triples(m15), want15) && same(triples(m8), want8));
    EXPECT_TRUE(same(triples(f6), perPixel(Y, nearR, nearB, refF32), 2e-5));
    EXPECT_TRUE(same(triples(fv), perPixel(Y, nearR, nearB, refF32V), 2e-5));

    cv::Mat Yh(im.hHeight(), im.hWidth(), CV_16UC1);
    downSize2X(Y, Yh, 4);
    for (cv::Mat const &fY : {cv::Mat(), kxtest::noise(Yh.rows, Yh.cols, CV_16UC1, 6, 0, 65536)}) {
        im.m_fY = fY;
        auto const out = [&](u8 **p, int s) { im.convertToHalfpRGB(p, s); };
        cv::Mat const want = perPixel(fY.empty() ? Yh : fY, im.m_Dr, im.m_Db, refF8);
        EXPECT_TRUE(same(host<u8>(Yh.rows, Yh.cols, out), want));
    }
    im.m_fY = cv::Mat();
    return o16;
}

// By hand. Grey: G = rint(40000 x 0.587 x 1.7036) = 40001. Red: Db = -19595 / 2 + 32768 = 22971
// truncates towards zero, so B comes back as 1; blue gives R = 1 the same way. Near grey:
// Y = rint(1002.935) = 1003, and -3 / 2 gives -1, not -2.
struct Flat {
    double r, g, b;  // as cv::Scalar takes them
    int y, dr, db, R, G, B;
} const kFlats[] = {
    {40000, 40000, 40000, 40000, 32768, 32768, 40000, 40001, 40000},
    {65535, 65535, 65535, 65535, 32768, 32768, 65535, 65535, 65535},
    {65535, 0, 0, 19595, 55738, 22971, 65535, 0, 1},
    {0, 0, 65535, 7471, 29033, 61800, 1, 0, 65535},
    {1000, 1005, 1000, 1003, 32767, 32767, 1001, 1004, 1001},
};

TEST(TPImageConvert, FlatColoursAndEveryOutputPathMatchTheirValues) {
    for (Flat const &f : kFlats)
        for (cv::Size size : {cv::Size(7, 5), cv::Size(1, 9), cv::Size(9, 1), cv::Size(8, 6)}) {
            SCOPED_TRACE(testing::Message() << f.r << " " << f.g << " " << f.b << " " << size);
            cv::Mat in[3] = {{size, CV_16UC1, f.r}, {size, CV_16UC1, f.g}, {size, CV_16UC1, f.b}};
            unsigned short *p[3] = {in[0].ptr<u16>(), in[1].ptr<u16>(), in[2].ptr<u16>()};
            TPImage im;
            im.convertFrompRGB(p, size.width, size.height, 0);
            EXPECT_TRUE(flat(im.m_Y, f.y) && flat(im.m_Dr, f.dr) && flat(im.m_Db, f.db));
            EXPECT_TRUE(flat(im.m_halfMask, 255));
            cv::Mat const want(size, CV_32SC3, cv::Scalar(f.R, f.G, f.B));
            EXPECT_TRUE(same(expectOutputsFollowTheFormulas(im), want));
        }

    // 9 x 150 crosses the bands in which chroma is enlarged; 70 x 12 has whole vectors of every
    // width. At 256 x 256 Y takes every level, under grey (where the precision of 1.7036 shows
    // in some levels only) and under the extremes of Dr and Db, where R and B saturate.
    enum Kind { kNoise, kGreyLevels, kColourLevels };
    cv::Vec3i const cases[] = {
        {33, 17, kNoise}, {9, 150, kNoise},        {5, 3, kNoise},
        {1, 1, kNoise},   {1, 6, kNoise},          {7, 1, kNoise},
        {70, 12, kNoise}, {256, 256, kGreyLevels}, {256, 256, kColourLevels}};
    u16 const extremes[] = {0, 1, 32767, 32768, 32769, 65534, 65535};
    kxtest::forEachVectorPath([&] {
        for (cv::Vec3i const &k : cases) {
            SCOPED_TRACE(testing::Message() << k);
            TPImage im(k[0], k[1]);
            im.m_Y = kxtest::noise(k[1], k[0], CV_16UC1, 3, 0, 65536);
            im.m_Dr = kxtest::noise(im.hHeight(), im.hWidth(), CV_16UC1, 4, 0, 65536);
            im.m_Db = kxtest::noise(im.hHeight(), im.hWidth(), CV_16UC1, 5, 0, 65536);
            if (k[2] != kNoise)
                for (int n = 0; n < 65536; ++n)
                    im.m_Y.at<u16>(n / 256, n % 256) = u16(n);
            if (k[2] == kGreyLevels) im.m_Dr = im.m_Db = 32768;
            for (int n = 0; k[2] == kColourLevels && n < 128 * 128; n += 3) {
                im.m_Dr.at<u16>(n / 128, n % 128) = extremes[n % 7];
                im.m_Db.at<u16>(n / 128, n % 128) = extremes[n / 7 % 7];
            }
            expectOutputsFollowTheFormulas(im);
        }
    });

    // Beyond 64 MB of output the stores bypass the cache from the first pixel at which all
    // three planes reach a 64-byte line; an odd width moves that pixel from row to row.
    TPImage im(4001, 2800);
    im.m_Y = kxtest::noise(2800, 4001, CV_16UC1, 6, 0, 65536);
    im.m_Dr = kxtest::noise(1400, 2001, CV_16UC1, 7, 0, 65536);
    im.m_Db = kxtest::noise(1400, 2001, CV_16UC1, 8, 0, 65536);
    std::vector<cv::Mat> want(3), got = three({4001, 2800}, CV_16UC1), ydrdb{im.m_Y, {}, {}};
    upSize2XGuidedByYSimple(im.m_Y, im.m_Dr, ydrdb[1]);
    upSize2XGuidedByYSimple(im.m_Y, im.m_Db, ydrdb[2]);
    TPImage::YDRDB2RGB(ydrdb, want);
    unsigned short *planes[3] = {got[0].ptr<u16>(), got[1].ptr<u16>(), got[2].ptr<u16>()};
    im.convertTopRGB(planes, 0);
    EXPECT_TRUE(same(got[0], want[0]) && same(got[1], want[1]) && same(got[2], want[2]));
}

// Odd sizes take the plain path, even ones the single walk down the rows (one or several runs).
// The ways in: planar 16-bit, planar to 32768, and packed blue, green, red, alpha of 16 bits or
// bytes (into the high byte), with rows longer than the image.
TEST(TPImageConvert, ForwardPathsMatchThePlainReference) {
    for (cv::Size size :
         {cv::Size(33, 17), cv::Size(5, 3), cv::Size(1, 7), cv::Size(8, 1), cv::Size(34, 18),
          cv::Size(2, 2), cv::Size(6, 44), cv::Size(2, 10), cv::Size(70, 134)}) {
        SCOPED_TRACE(testing::Message() << size);
        int const w = size.width, h = size.height;
        cv::Mat rgb[3], Y, Dr, Db, y2;
        kxtest::forEachVectorPath([&] {
            for (int way : {0, 1, 2, 3}) {
                int const depth = way == 3 ? CV_8U : CV_16U;
                int const top = way == 1 ? 32768 : depth == CV_8U ? 255 : 65535;
                cv::Mat wide = kxtest::noise(h, w + 5, CV_MAKETYPE(depth, 4), way, 0, top + 1);
                cv::Mat bgra[4];
                cv::split(wide(cv::Rect(0, 0, w, h)), bgra);
                for (int c = 0; c < 3; ++c)
                    bgra[2 - c].convertTo(rgb[c], CV_16U, depth == CV_8U ? 256 : 1);
                for (int c = 0; c < 3 && way < 2; ++c) {  // extreme green first, white last
                    rgb[c].at<u16>(0, 0) = u16(c != 1 ? 0 : top);
                    rgb[c].at<u16>(h - 1, w - 1) = u16(top);  // the doubled Y saturates
                }
                unsigned short *in[3] = {rgb[0].ptr<u16>(), rgb[1].ptr<u16>(), rgb[2].ptr<u16>()};
                TPImage im;
                if (way == 0) im.convertFrompRGB(in, w, h, 0);
                if (way == 1) im.convertFrompRGB15U(in, w, h, 0);
                if (way == 2) im.convertFrom(wide.ptr<u16>(), w, h, int(wide.step / 2));
                if (way == 3) im.convertFrom(wide.data, w, h, int(wide.step));
                refForward(rgb, way == 1, Y, Dr, Db);
                (way == 1 ? TPImage::PRGB15U2Y : TPImage::PRGB2Y)(rgb[0], rgb[1], rgb[2], y2);
                EXPECT_TRUE(same(im.m_Y, Y) && same(im.m_Dr, Dr) && same(im.m_Db, Db)) << way;
                EXPECT_TRUE(same(y2, Y)) << way;
            }
        });
        // The same-size vector form: the difference of each pixel, no reduction.
        std::vector<cv::Mat> in(rgb, rgb + 3), out(3);
        auto const diff = [](int r, int g, int b) {
            int const y = kxtest::luma16(r, g, b);
            return cv::Vec3i(y, sat((r - y) / 2 + 32768, 65535), sat((b - y) / 2 + 32768, 65535));
        };
        TPImage::RGB2YDRDB(in, out);
        EXPECT_TRUE(same(triples(out), perPixel(in[0], in[1], in[2], diff)));
    }
}

TEST(TPImageConvert, WrongTypesThrowTheirTextsAndEmptyInputDoesNothing) {
    cv::Mat const y16(4, 4, CV_16UC1), h16(2, 2, CV_16UC1), y8(4, 4, CV_8UC1);
    cv::Mat out(4, 4, CV_8UC4, cv::Scalar::all(17));
    EXPECT_EQ(thrown([&] { TPImage::YDRDBToQImage(y8, h16, h16, out.data, 4, 4, 16); }),
              "ERROR TPImage::YDrDbToQImage - input type");
    EXPECT_EQ(thrown([&] { TPImage::YDRDBToQImage(y16, h16, y8, out.data, 4, 4, 16); }),
              "ERROR TPImage::YDrDbToQImage - input type");
    EXPECT_EQ(thrown([&] { TPImage::RGBC3ToQImage(y16, out.data, 4, 4, 16); }),
              "TPImage::RGBC3ToQImage - Wrong input data type");
    EXPECT_EQ(thrown([&] { TPImage::MatRoi(cv::Mat(4, 4, CV_8UC3), 0, 0, 2, 2, 1, false, false); }),
              "ERROR TPImage::MatRoi - input type");
    EXPECT_EQ(thrown([&] { TPImage::MatRoi(cv::Mat(4, 4, CV_16SC1), 0, 0, 2, 2, 2, false, true); }),
              "ERROR TPImage::MatRoi - input type");
    EXPECT_TRUE(flat(out.reshape(1), 17));

    TPImage im(3, 3);
    int const id = im.uid()->id();
    im.convertFrom(out.data, 0, 5, 0);
    im.convertFrompRGB(nullptr, 4, 0, 0);
    EXPECT_TRUE(im.uid()->id() == id && im.width() == 3);

    // RGBC3ToQImage copies the channels in their order and takes the high byte of 16 bits.
    cv::Mat const c8 = kxtest::noise(3, 5, CV_8UC3, 21, 0, 256);
    cv::Mat c16, want;
    c8.convertTo(c16, CV_16UC3, 257.0);
    cv::cvtColor(c8, want, cv::COLOR_RGB2RGBA);  // the same order, alpha 255
    for (cv::Mat const &in : {c8, c16}) {
        kxtest::PaddedMat q(3, 5, CV_8UC4);
        TPImage::RGBC3ToQImage(in, q.ptr<u8>(), 5, 3, q.step());
        EXPECT_TRUE(same(q.view, want) && q.paddingIntact());
    }
}

// Box passes with a fresh replicated border each, then the reduction to 5 x 4: the plain way.
cv::Mat refSmoothRoi(cv::Mat const &area, int r, int passes, int zoom) {
    cv::Mat work = area.clone(), res(4, 5, CV_32F);
    for (int p = 0; p < passes; ++p)
        cv::blur(work, work, cv::Size(2 * r + 1, 2 * r + 1), cv::Point(-1, -1),
                 cv::BORDER_REPLICATE);
    if (zoom == 1) return work;
    downSizeNX(work, res, zoom, 4);
    return res;
}

TEST(TPImageConvert, MatRoiCopiesReducesAndSmooths) {
    cv::Mat const in16 = kxtest::noise(41, 53, CV_16UC1, 31, 0, 65536);
    cv::Mat const in32 = kxtest::noise(41, 53, CV_32FC1, 32, 0, 1);
    // A half plane: the position halves and the size rounds up. The area is capped at in.
    cv::Mat const half = TPImage::MatRoi(in16, 7, 9, 11, 5, 1, true, false);
    EXPECT_TRUE(same(half, in16(cv::Rect(3, 4, 6, 3))));
    EXPECT_EQ(TPImage::MatRoi(in16, 50, 0, 10, 7, 1, false, false).size(), cv::Size(3, 7));
    cv::Mat reduced(6, 8, CV_16UC1);
    downSizeNX(in16(cv::Rect(2, 1, 24, 18)), reduced, 3, 4);
    EXPECT_TRUE(same(TPImage::MatRoi(in16, 2, 1, 8, 6, 3, false, false), reduced));
    // Zoom 1: one 3 x 3 pass; 4: two; 5: radius 2, one pass; 7: radius 2, three passes.
    for (cv::Vec3i c :
         {cv::Vec3i(1, 1, 1), cv::Vec3i(4, 1, 2), cv::Vec3i(5, 2, 1), cv::Vec3i(7, 2, 3)}) {
        cv::Rect const area(1, 2, std::min(c[0] * 5, 52), std::min(c[0] * 4, 39));
        cv::Mat const got = TPImage::MatRoi(in32, 1, 2, 5, 4, c[0], false, true);
        EXPECT_TRUE(same(got, refSmoothRoi(in32(area), c[1], c[2], c[0]), 1e-5)) << c[0];
    }
}

TEST(TPImagePixel, SingleConversionsAndSmoothstep) {
    EXPECT_TRUE(TPImage::smoothstep(0, 1, 1.0f) == 1.0f && TPImage::smoothstep(0, 1, -0.1f) == 0);
    EXPECT_FLOAT_EQ(TPImage::smoothstep(2, 4, 2.5f), 0.15625f);

    unsigned short Y, Dr, Db, y16, u16v, v16;
    float r, g, b;
    TPImage::RGB2YdRdB(1, 0, 0, Y, Dr, Db);
    EXPECT_TRUE(Y == 19595 && Dr == 55738 && Db == 22971);  // from y = 19594.965, unrounded
    // Float planes take the differences from the rounded Y, and 22970.5 rounds to even.
    cv::Mat const one = (cv::Mat_<float>(1, 2) << 1, 2), zero = (cv::Mat_<float>(1, 2) << 0, 2);
    std::vector<cv::Mat> f{one, zero, zero}, d(3);  // and (2, 2, 2) saturates everywhere
    TPImage::RGB32F2YDRDB(f, d);
    EXPECT_TRUE(d[0].at<u16>(0) == 19595 && d[1].at<u16>(0) == 55738 && d[2].at<u16>(0) == 22970);
    EXPECT_TRUE(d[0].at<u16>(1) == 65535 && d[1].at<u16>(1) == 65535 && d[2].at<u16>(1) == 65535);
    TPImage::YdRdB2RGB(Y, Dr, Db, r, g, b);
    EXPECT_TRUE(r == 1.0f && g == 0.0f && b == 1.0f / 65535);
    TPImage::RGB2YUV(0.25f, 0.5f, 0.75f, y16, u16v, v16);  // chroma on the Dr scale
    EXPECT_EQ(u16v,
              std::lrint((0.25 - (0.299 * 0.25 + 0.587 * 0.5 + 0.114 * 0.75)) * 16384 + 32768));
    TPImage::YUV2RGB(y16, u16v, v16, r, g, b);
    EXPECT_TRUE(std::abs(r - 0.25f) + std::abs(g - 0.5f) + std::abs(b - 0.75f) < 1e-4);

    // Out of gamut, (1.5, 0.5, 0.25) is scaled about its minimum into (1, 0.4, 0.25), not
    // clipped; all below 0 gives black, all above 1 white.
    unsigned char y8, u8v, v8;
    TPImage::RGB2YUV(1.5f, 0.5f, 0.25f, y8, u8v, v8);
    double const yg = 0.299 * 1.0 + 0.587 * 0.4 + 0.114 * 0.25;
    EXPECT_TRUE(y8 == std::lrint(yg * 255) && u8v == std::lrint((1 - yg) * 128 / 0.701 + 128));
    TPImage::RGB2YUV(-0.5f, -0.1f, -0.2f, y16, u8v, v8);
    EXPECT_TRUE(y16 == 0 && u8v == 128 && v8 == 128);
    TPImage::RGB2YUV(1.5f, 1.2f, 1.1f, y8, u8v, v8);
    EXPECT_TRUE(y8 == 255 && u8v == 128 && v8 == 128);
    float yf, uf, vf;
    TPImage::RGB2YUV(1.5f, 0.5f, 0.25f, yf, uf, vf);  // the float form has no gamut step
    TPImage::YUV2RGB(yf, uf, vf, r, g, b);
    EXPECT_TRUE(std::abs(r - 1.5f) + std::abs(g - 0.5f) < 1e-5);
}

}  // namespace
