// Tests of TPImage's colour transforms and host-buffer conversions, against plain per-pixel
// references written here from the formulas, on flat colours, noise, every grey level and
// awkward sizes.
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

// ---- references, one pixel at a time: r, g, b ---------------------------------------------

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

// Three host planes of type T inside padding that has to stay untouched.
template <class T>
struct Planes {
    static constexpr int kType = sizeof(T) == 1 ? CV_8UC1 : CV_16UC1;
    Planes(int rows, int cols) : m{{rows, cols, kType}, {rows, cols, kType}, {rows, cols, kType}} {}
    kxtest::PaddedMat m[3];
    T *p[3] = {m[0].ptr<T>(), m[1].ptr<T>(), m[2].ptr<T>()};
    int stride() const { return m[0].step(); }
    cv::Mat rgb() const { return triples({m[0].view, m[1].view, m[2].view}); }
    bool intact() const {
        return m[0].paddingIntact() && m[1].paddingIntact() && m[2].paddingIntact();
    }
};

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
// and packed output) or plainly (8- and 15-bit output), and the matrix forms over the same
// enlarged planes. The half-size output takes m_fY when there is one, else Y reduced.
// Returns the 16-bit output as r, g, b triples.
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

    Planes<u16> o16(h, w), o15(h, w);
    Planes<u8> o8(h, w);
    im.convertTopRGB(o16.p, o16.stride());
    im.convertTopRGB15U(o15.p, o15.stride());
    im.convertTopRGB8U(o8.p, o8.stride());
    im.convertTo(packed.data, int(packed.step));
    cv::cvtColor(packed, rgb, cv::COLOR_BGRA2RGB);
    cv::extractChannel(packed, alpha, 3);
    EXPECT_TRUE(same(o16.rgb(), want16) && same(o15.rgb(), want15) && same(o8.rgb(), want8));
    EXPECT_TRUE(same(triples({rgb}), perPixel(Y, nearR, nearB, refPacked)) && flat(alpha, 255));
    EXPECT_TRUE(o16.intact() && o15.intact() && o8.intact());

    std::vector<cv::Mat> m16 = three(Y.size(), CV_16UC1), m15 = three(Y.size(), CV_16UC1),
                         m8 = three(Y.size(), CV_8UC1), f6 = three(Y.size(), CV_32FC1), fv(3),
                         ydrdb{Y, nearR, nearB};
    TPImage::YDRDB2RGB(Y, nearR, nearB, m16[0], m16[1], m16[2]);
    im.YDRDB2RGB15U(Y, cubicR, cubicB, m15[0], m15[1], m15[2]);
    im.YDRDB2RGB8U(Y, cubicR, cubicB, m8[0], m8[1], m8[2]);
    im.YDRDB2RGB32F(Y, nearR, nearB, f6[0], f6[1], f6[2]);
    TPImage::YDRDB2RGB32F(ydrdb, fv);
    EXPECT_TRUE(same(triples(m16), want16) && same(triples(m15), want15) &&
                same(triples(m8), want8));
    EXPECT_TRUE(same(triples(f6), perPixel(Y, nearR, nearB, refF32), 2e-5));
    EXPECT_TRUE(same(triples(fv), perPixel(Y, nearR, nearB, refF32V), 2e-5));

    cv::Mat Yh(im.hHeight(), im.hWidth(), CV_16UC1);
    downSize2X(Y, Yh, 4);
    for (cv::Mat const &fY : {cv::Mat(), kxtest::noise(Yh.rows, Yh.cols, CV_16UC1, 6, 0, 65536)}) {
        im.m_fY = fY;
        Planes<u8> half(Yh.rows, Yh.cols);
        im.convertToHalfpRGB(half.p, half.stride());
        EXPECT_TRUE(same(half.rgb(), perPixel(fY.empty() ? Yh : fY, im.m_Dr, im.m_Db, refF8)));
        EXPECT_TRUE(half.intact());
    }
    im.m_fY = cv::Mat();
    return o16.rgb();
}

// Worked by hand from the formulas. Grey: G = rint(0.587 x 40000 x 1.7036) = 40001, one up, as
// 0.587 x 1.7036 = 1.0000132. Red: Y = rint(0.299 x 65535) = 19595, Dr = 45940 / 2 + 32768 =
// 55738, and Db = -19595 / 2 + 32768 = 22971 truncates towards zero, so B comes back as 1.
// Blue: Y = rint(7470.99) = 7471, so R comes back as 1. Near grey: Y = rint(1002.935) = 1003,
// and -3 / 2 gives -1, not -2.
struct Flat {
    int r, g, b, y, dr, db, R, G, B;
} const kFlats[] = {
    {40000, 40000, 40000, 40000, 32768, 32768, 40000, 40001, 40000},
    {65535, 65535, 65535, 65535, 32768, 32768, 65535, 65535, 65535},
    {65535, 0, 0, 19595, 55738, 22971, 65535, 0, 1},
    {0, 0, 65535, 7471, 29033, 61800, 1, 0, 65535},
    {0, 0, 0, 0, 32768, 32768, 0, 0, 0},
    {1000, 1005, 1000, 1003, 32767, 32767, 1001, 1004, 1001},
};

TEST(TPImageConvert, FlatColoursGiveExactValuesThroughEveryPath) {
    for (Flat const &f : kFlats)
        for (cv::Size size : {cv::Size(7, 5), cv::Size(7, 6), cv::Size(1, 1), cv::Size(1, 9),
                              cv::Size(9, 1), cv::Size(8, 6), cv::Size(2, 2)}) {
            SCOPED_TRACE(testing::Message() << f.r << " " << f.g << " " << f.b << " " << size);
            Planes<u16> in(size.height, size.width);
            for (int c = 0; c < 3; ++c)
                in.m[c].view.setTo(cv::Vec3i(f.r, f.g, f.b)[c]);
            TPImage im;
            im.convertFrompRGB(in.p, size.width, size.height, in.stride());
            EXPECT_TRUE(flat(im.m_Y, f.y) && flat(im.m_Dr, f.dr) && flat(im.m_Db, f.db));
            EXPECT_TRUE(flat(im.m_halfMask, 255));
            cv::Mat const want(size, CV_32SC3, cv::Scalar(f.R, f.G, f.B));
            EXPECT_TRUE(same(expectOutputsFollowTheFormulas(im), want));
        }
    // 15-bit white: Y = 65536 saturates to 65535, Dr = 32768 - 32767 + 32768 = 32769, and
    // 32768 comes back in R and B.
    Planes<u16> in(4, 4), out(4, 4);
    for (int c = 0; c < 3; ++c)
        in.m[c].view.setTo(32768);
    TPImage im;
    im.convertFrompRGB15U(in.p, 4, 4, in.stride());
    EXPECT_TRUE(flat(im.m_Y, 65535) && flat(im.m_Dr, 32769));
    im.convertTopRGB15U(out.p, out.stride());
    EXPECT_TRUE(flat(out.m[0].view, 32768) && flat(out.m[2].view, 32768));
}

// 9 x 150 crosses the bands in which chroma is enlarged and consumed; 70 x 12 has whole
// vectors of every width. At 256 x 256, Y runs through every level: under grey, where the
// precision of 1.7036 (double in the 16-bit paths, float in the 8-bit ones) and truncation
// against rounding show in some levels only, and under colour with the extremes of Dr and Db,
// where R and B saturate both ways.
TEST(TPImageConvert, OutputPathsMatchThePlainReference) {
    enum Kind { kNoise, kGreyLevels, kColourLevels };
    struct Case {
        cv::Size size;
        Kind kind;
    } const cases[] = {{{33, 17}, kNoise}, {{9, 150}, kNoise},        {{5, 3}, kNoise},
                       {{1, 1}, kNoise},   {{1, 6}, kNoise},          {{7, 1}, kNoise},
                       {{70, 12}, kNoise}, {{256, 256}, kGreyLevels}, {{256, 256}, kColourLevels}};
    u16 const extremes[] = {0, 1, 32767, 32768, 32769, 65534, 65535};
    kxtest::forEachVectorPath([&] {
        for (Case const &k : cases) {
            SCOPED_TRACE(testing::Message() << k.size << " kind " << k.kind);
            TPImage im(k.size.width, k.size.height);
            im.m_Y = kxtest::noise(k.size.height, k.size.width, CV_16UC1, 3, 0, 65536);
            im.m_Dr = kxtest::noise(im.hHeight(), im.hWidth(), CV_16UC1, 4, 0, 65536);
            im.m_Db = kxtest::noise(im.hHeight(), im.hWidth(), CV_16UC1, 5, 0, 65536);
            if (k.kind != kNoise)
                for (int n = 0; n < 65536; ++n)
                    im.m_Y.at<u16>(n / 256, n % 256) = u16(n);
            if (k.kind == kGreyLevels) im.m_Dr = im.m_Db = 32768;
            for (int n = 0; k.kind == kColourLevels && n < 128 * 128; n += 3) {
                im.m_Dr.at<u16>(n / 128, n % 128) = extremes[n % 7];
                im.m_Db.at<u16>(n / 128, n % 128) = extremes[n / 7 % 7];
            }
            expectOutputsFollowTheFormulas(im);
        }
    });
    // Y = 65279 under grey: G = 65279.86, truncated to 254 in bytes but rounded to 255.
    EXPECT_EQ(refPacked(65279, 32768, 32768)[1], 254);
    EXPECT_EQ(refF8(65279, 32768, 32768)[1], 255);
}

// Odd sizes take the plain path; even ones the single walk down the rows, here with heights
// of one and of several runs of rows, and the smallest even plane.
TEST(TPImageConvert, ForwardPathsMatchThePlainReference) {
    for (cv::Size size :
         {cv::Size(33, 17), cv::Size(5, 3), cv::Size(1, 7), cv::Size(8, 1), cv::Size(34, 18),
          cv::Size(2, 2), cv::Size(6, 44), cv::Size(2, 10), cv::Size(70, 134)}) {
        SCOPED_TRACE(testing::Message() << size);
        int const w = size.width, h = size.height;
        cv::Mat rgb[3], Y, Dr, Db, y2;
        kxtest::forEachVectorPath([&] {
            for (bool doubled : {false, true}) {
                for (int c = 0; c < 3; ++c) {  // an extreme colour in the corner
                    rgb[c] = kxtest::noise(h, w, CV_16UC1, 11 + c, 0, doubled ? 32769 : 65536);
                    rgb[c].at<u16>(0, 0) = u16(c != 1 ? 0 : doubled ? 32768 : 65535);
                }
                unsigned short *in[3] = {rgb[0].ptr<u16>(), rgb[1].ptr<u16>(), rgb[2].ptr<u16>()};
                TPImage im;
                if (doubled)
                    im.convertFrompRGB15U(in, w, h, 0);
                else
                    im.convertFrompRGB(in, w, h, 0);
                refForward(rgb, doubled, Y, Dr, Db);
                EXPECT_TRUE(same(im.m_Y, Y) && same(im.m_Dr, Dr) && same(im.m_Db, Db)) << doubled;
                (doubled ? TPImage::PRGB15U2Y : TPImage::PRGB2Y)(rgb[0], rgb[1], rgb[2], y2);
                EXPECT_TRUE(same(y2, Y));
            }
            // Packed blue, green, red, alpha with rows longer than the image: 16-bit values as
            // they are, bytes into the high byte.
            for (int depth : {CV_16U, CV_8U}) {
                cv::Mat const wide = kxtest::noise(h, w + 5, CV_MAKETYPE(depth, 4), 7 + depth, 0,
                                                   depth == CV_8U ? 256 : 65536);
                cv::Mat bgra[4], planes[3];
                cv::split(wide(cv::Rect(0, 0, w, h)), bgra);
                for (int c = 0; c < 3; ++c)
                    bgra[2 - c].convertTo(planes[c], CV_16U, depth == CV_8U ? 256 : 1);
                refForward(planes, false, Y, Dr, Db);
                TPImage im;
                if (depth == CV_8U)
                    im.convertFrom(wide.data, w, h, int(wide.step));
                else
                    im.convertFrom(wide.ptr<u16>(), w, h, int(wide.step / 2));
                EXPECT_TRUE(same(im.m_Y, Y) && same(im.m_Dr, Dr) && same(im.m_Db, Db)) << depth;
            }
        });
        // Same-size vector forms: the difference of each pixel, no reduction. Back, only the
        // rounding of Y and the halving of the difference remain: R and B come back within 1
        // unit, and G, which carries both and the rounded 1.7036, within 3.
        std::vector<cv::Mat> in(rgb, rgb + 3), out(3), in32(3), out32(3), back(3);
        for (int c = 0; c < 3; ++c)
            in[c].convertTo(in32[c], CV_32F, 1.0 / 32768.0);  // up to 1.0, out of range
        auto const diff = [](int r, int g, int b) {
            int const y = kxtest::luma16(r, g, b);
            return cv::Vec3i(y, sat((r - y) / 2 + 32768, 65535), sat((b - y) / 2 + 32768, 65535));
        };
        auto const diff32 = [](float r, float g, float b) {
            int const y = rint16((0.299f * r + 0.587f * g + 0.114f * b) * 65535.0);
            return cv::Vec3i(y, rint16((r * 65535.0 - y) * 0.5 + 32768.0),
                             rint16((b * 65535.0 - y) * 0.5 + 32768.0));
        };
        TPImage::RGB2YDRDB(in, out);
        TPImage::RGB32F2YDRDB(in32, out32);
        TPImage::YDRDB2RGB(out, back);
        EXPECT_TRUE(same(triples(out), perPixel(in[0], in[1], in[2], diff)));
        EXPECT_TRUE(same(triples(out32), perPixel<float>(in32[0], in32[1], in32[2], diff32)));
        EXPECT_TRUE(same(back[0], in[0], 1) && same(back[1], in[1], 3) && same(back[2], in[2], 1));
    }
}

TEST(TPImageConvert, LargeOutputsBypassTheCacheWithTheSameValues) {
    // Beyond 64 MB of output, convertTopRGB writes past the cache from the first pixel at
    // which all three planes reach a 64-byte line; an odd width moves that pixel from row to
    // row. The values must be those of the formula over the enlarged planes.
    int const w = 4001, h = 2800;
    TPImage im(w, h);
    im.m_Y = kxtest::noise(h, w, CV_16UC1, 6, 0, 65536);
    im.m_Dr = kxtest::noise(im.hHeight(), im.hWidth(), CV_16UC1, 7, 0, 65536);
    im.m_Db = kxtest::noise(im.hHeight(), im.hWidth(), CV_16UC1, 8, 0, 65536);
    cv::Mat nearR, nearB;
    upSize2XGuidedByYSimple(im.m_Y, im.m_Dr, nearR);
    upSize2XGuidedByYSimple(im.m_Y, im.m_Db, nearB);
    std::vector<cv::Mat> want = three(im.m_Y.size(), CV_16UC1),
                         got = three(im.m_Y.size(), CV_16UC1);
    unsigned short *planes[3] = {got[0].ptr<u16>(), got[1].ptr<u16>(), got[2].ptr<u16>()};
    TPImage::YDRDB2RGB(im.m_Y, nearR, nearB, want[0], want[1], want[2]);
    im.convertTopRGB(planes, 0);
    for (int c = 0; c < 3; ++c)
        EXPECT_TRUE(same(got[c], want[c])) << "plane " << c;
}

// ---- packed output from matrices, regions, errors ------------------------------------------

TEST(TPImageConvert, WrongTypesThrowTheirTextsAndEmptyInputDoesNothing) {
    cv::Mat const y16(4, 4, CV_16UC1, cv::Scalar(0)), h16(2, 2, CV_16UC1, cv::Scalar(0));
    cv::Mat const y8(4, 4, CV_8UC1, cv::Scalar(0));
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
    EXPECT_EQ(im.uid()->id(), id);
    EXPECT_EQ(im.width(), 3);

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
    cv::Mat work, res(4, 5, area.type());
    area.convertTo(work, CV_32F);
    for (int p = 0; p < passes; ++p)
        cv::blur(work, work, cv::Size(2 * r + 1, 2 * r + 1), cv::Point(-1, -1),
                 cv::BORDER_REPLICATE);
    work.convertTo(work, area.type());
    if (zoom == 1) return work;
    downSizeNX(work, res, zoom, 4);
    return res;
}

TEST(TPImageConvert, MatRoiCopiesReducesAndSmooths) {
    cv::Mat const in16 = kxtest::noise(41, 53, CV_16UC1, 31, 0, 65536);
    cv::Mat const in32 = kxtest::noise(41, 53, CV_32FC1, 32, 0, 1);
    cv::Mat copy = TPImage::MatRoi(in16, 3, 4, 10, 7, 1, false, false);
    copy.at<u16>(0, 0) ^= 1;  // a copy, not a view
    EXPECT_EQ(cv::norm(copy, in16(cv::Rect(3, 4, 10, 7)), cv::NORM_L1), 1.0);

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
        SCOPED_TRACE(c[0]);
        cv::Rect const area(1, 2, std::min(c[0] * 5, 52), std::min(c[0] * 4, 39));
        cv::Mat const got32 = TPImage::MatRoi(in32, 1, 2, 5, 4, c[0], false, true);
        cv::Mat const got16 = TPImage::MatRoi(in16, 1, 2, 5, 4, c[0], false, true);
        EXPECT_TRUE(same(got32, refSmoothRoi(in32(area), c[1], c[2], c[0]), 1e-5));
        // Each integer pass rounds.
        EXPECT_TRUE(same(got16, refSmoothRoi(in16(area), c[1], c[2], c[0]), 2.0 * c[2]));
    }
}

// ---- single pixels --------------------------------------------------------------------------

TEST(TPImagePixel, SingleConversionsAndSmoothstep) {
    EXPECT_EQ(TPImage::smoothstep(0, 1, 0.5f), 0.5f);
    EXPECT_EQ(TPImage::smoothstep(0, 1, 1.0f), 1.0f);
    EXPECT_EQ(TPImage::smoothstep(0, 1, -0.1f), 0.0f);
    EXPECT_FLOAT_EQ(TPImage::smoothstep(2, 4, 2.5f), 0.15625f);

    unsigned short Y, Dr, Db, y16, u16v, v16;
    float r, g, b;
    TPImage::RGB2YdRdB(1, 0, 0, Y, Dr, Db);
    EXPECT_TRUE(Y == 19595 && Dr == 55738 && Db == 22971);  // from y = 19594.965, unrounded
    TPImage::YdRdB2RGB(Y, Dr, Db, r, g, b);
    EXPECT_TRUE(r == 1.0f && g == 0.0f && b == 1.0f / 65535);
    TPImage::RGB2YUV(0.25f, 0.5f, 0.75f, y16, u16v, v16);  // chroma on the Dr scale
    EXPECT_EQ(u16v,
              std::lrint((0.25 - (0.299 * 0.25 + 0.587 * 0.5 + 0.114 * 0.75)) * 16384 + 32768));
    TPImage::YUV2RGB(y16, u16v, v16, r, g, b);
    EXPECT_TRUE(std::abs(r - 0.25f) + std::abs(g - 0.5f) + std::abs(b - 0.75f) < 1e-4);

    // Out of gamut, (1.5, 0.5, 0.25) is scaled about its minimum into (1, 0.4, 0.25), not
    // clipped to (1, 0.5, 0.25); all below 0 gives black, all above 1 white.
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
