// Tests of TPImage's colour transforms and host-buffer conversions, against plain per-pixel
// references written here from the formulas, on flat colours, noise, awkward sizes and the
// photographs of data/.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kestrix1/image/scaling.h"
#include "kestrix1/image/tp_image.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "tests/support/images.h"
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

// ---- references, one pixel at a time ------------------------------------------------------

struct Rgb {
    int r, g, b;
};
int refY(int r, int g, int b, bool doubled) {
    float const s = 0.299f * r + 0.587f * g + 0.114f * b;
    return rint16(doubled ? s + s : s);
}
Rgb refF16(int y, int dr, int db) {
    int const R = sat(y + 2 * dr - 65536, 65535), B = sat(y + 2 * db - 65536, 65535);
    return {R, rint16(double(float(y - R * 0.299f - B * 0.114f)) * 1.7036), B};
}
Rgb refF15(int y, int dr, int db) {
    int const R = sat(dr + y / 2 - 32768, 65535), B = sat(db + y / 2 - 32768, 65535);
    return {R, rint16(double(float(y / 2 - 0.299f * R - 0.114f * B)) * 1.7036), B};
}
Rgb refF8(int y, int dr, int db) {
    float const r = (dr - 32768) * 2.0f + y, b = (db - 32768) * 2.0f + y;
    float const g = (y - 0.299f * r - 0.114f * b) * 1.7036f;
    return {rint16(r) >> 8, rint16(g) >> 8, rint16(b) >> 8};
}
Rgb refPacked(int y, int dr, int db) {  // truncates g
    int const r = y + 2 * dr - 65536, b = y + 2 * db - 65536;
    int const g = int((float(y) - float(r) * 0.299f - float(b) * 0.114f) * 1.7036f);
    return {sat(r >> 8, 255), sat(g >> 8, 255), sat(b >> 8, 255)};
}

// Y, Dr, Db of planar input as the forward path defines them, with the library's reduction.
void refForward(cv::Mat const rgb[3], bool doubled, cv::Mat &Y, cv::Mat &Dr, cv::Mat &Db) {
    Y.create(rgb[0].size(), CV_16UC1);
    for (int i = 0; i < Y.rows; ++i)
        for (int j = 0; j < Y.cols; ++j)
            Y.at<u16>(i, j) = u16(
                refY(rgb[0].at<u16>(i, j), rgb[1].at<u16>(i, j), rgb[2].at<u16>(i, j), doubled));
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

// Three host planes of type T inside padding that has to stay untouched.
template <class T>
struct Planes {
    Planes(int rows, int cols) : m{{rows, cols, type}, {rows, cols, type}, {rows, cols, type}} {
        for (int c = 0; c < 3; ++c)
            p[c] = m[c].ptr<T>();
    }
    static constexpr int type = sizeof(T) == 1 ? CV_8UC1 : CV_16UC1;
    kxtest::PaddedMat m[3];
    T *p[3];
    int stride() const { return m[0].step(); }
    cv::Mat const &operator[](int c) const { return m[c].view; }
    bool intact() const {
        return m[0].paddingIntact() && m[1].paddingIntact() && m[2].paddingIntact();
    }
};

// ---- flat colours ---------------------------------------------------------------------------

// Worked by hand from the formulas. Grey: G = rint(0.587 x 40000 x 1.7036) = 40001, one up, as
// 0.587 x 1.7036 = 1.0000132. Red: Y = rint(0.299 x 65535) = 19595, Dr = 45940 / 2 + 32768 =
// 55738, and Db = -19595 / 2 + 32768 = 22971 truncates towards zero, so B comes back as 1.
// Blue: Y = rint(7470.99) = 7471, so R comes back as 1.
struct Flat {
    char const *name;
    int r, g, b, y, dr, db, R, G, B;
} const kFlats[] = {
    {"grey", 40000, 40000, 40000, 40000, 32768, 32768, 40000, 40001, 40000},
    {"white", 65535, 65535, 65535, 65535, 32768, 32768, 65535, 65535, 65535},
    {"red", 65535, 0, 0, 19595, 55738, 22971, 65535, 0, 1},
    {"blue", 0, 0, 65535, 7471, 29033, 61800, 1, 0, 65535},
    {"black", 0, 0, 0, 0, 32768, 32768, 0, 0, 0},
};

TEST(TPImageConvert, FlatColoursGiveExactValuesThroughEveryPath) {
    for (Flat const &f : kFlats)
        for (cv::Size size : {cv::Size(7, 5), cv::Size(5, 3), cv::Size(1, 1), cv::Size(1, 9),
                              cv::Size(9, 1), cv::Size(8, 6), cv::Size(2, 2)}) {
            SCOPED_TRACE(testing::Message() << f.name << " " << size);
            int const w = size.width, h = size.height;
            Planes<u16> in(h, w);
            int const rgb[3] = {f.r, f.g, f.b}, want16[3] = {f.R, f.G, f.B};
            for (int c = 0; c < 3; ++c)
                in.m[c].view.setTo(rgb[c]);
            TPImage im;
            im.convertFrompRGB(in.p, w, h, in.stride());
            EXPECT_TRUE(flat(im.m_Y, f.y) && flat(im.m_Dr, f.dr) && flat(im.m_Db, f.db));
            EXPECT_TRUE(flat(im.m_halfMask, 255));

            Planes<u16> o16(h, w);
            Planes<u8> o8(h, w), half(im.hHeight(), im.hWidth());
            cv::Mat packed(h, w, CV_8UC4), q[4];
            im.convertTopRGB(o16.p, o16.stride());
            im.convertTopRGB8U(o8.p, o8.stride());
            im.convertToHalfpRGB(half.p, half.stride());
            im.convertTo(packed.data, int(packed.step));
            cv::split(packed, q);
            Rgb const a = refF8(f.y, f.dr, f.db), b = refPacked(f.y, f.dr, f.db);
            int const want8[3] = {a.r, a.g, a.b}, wantQ[3] = {b.r, b.g, b.b};
            for (int c = 0; c < 3; ++c) {
                EXPECT_TRUE(flat(o16[c], want16[c])) << "channel " << c;
                EXPECT_EQ(want8[c], want16[c] >> 8);
                EXPECT_TRUE(flat(o8[c], want8[c]) && flat(half[c], want8[c])) << "channel " << c;
                EXPECT_TRUE(flat(q[2 - c], wantQ[c])) << "channel " << c;
            }
            EXPECT_TRUE(flat(q[3], 255));
            EXPECT_TRUE(o16.intact() && o8.intact() && half.intact());

            // Packed 8-bit in (x 256), high byte out. Grey and white come back unchanged; a
            // saturated colour may lose one level (red's 65280 returns as 65279).
            cv::Mat bgra(h, w, CV_8UC4, cv::Scalar(f.b >> 8, f.g >> 8, f.r >> 8, 0));
            im.convertFrom(bgra.data, w, h, int(bgra.step));
            im.convertTopRGB8U(o8.p, o8.stride());
            for (int c = 0; c < 3; ++c)
                EXPECT_LE(cv::norm(o8[c], cv::Mat(size, CV_8UC1, rgb[c] >> 8), cv::NORM_INF),
                          f.r == f.g && f.g == f.b ? 0.0 : 1.0);
        }
}

TEST(TPImageConvert, HalvedDifferenceTruncatesAndFifteenBitScale) {
    // R = 1000, G = 1005, B = 1000: Y = rint(1002.935) = 1003, and -3 / 2 gives -1, not -2.
    Planes<u16> in(4, 4);
    in.m[0].view.setTo(1000);
    in.m[1].view.setTo(1005);
    in.m[2].view.setTo(1000);
    TPImage im;
    im.convertFrompRGB(in.p, 4, 4, in.stride());
    EXPECT_EQ(im.m_Y.at<u16>(0, 0), 1003);
    EXPECT_EQ(im.m_Dr.at<u16>(0, 0), 32767);

    // 15-bit white: Y = 65536 saturates to 65535, Dr = 32768 - 32767 + 32768 = 32769, and
    // 32768 comes back in R and B.
    for (int c = 0; c < 3; ++c)
        in.m[c].view.setTo(32768);
    im.convertFrompRGB15U(in.p, 4, 4, in.stride());
    EXPECT_TRUE(flat(im.m_Y, 65535) && flat(im.m_Dr, 32769));
    Planes<u16> out(4, 4);
    im.convertTopRGB15U(out.p, out.stride());
    EXPECT_TRUE(flat(out[0], 32768) && flat(out[2], 32768));
}

// ---- against the references on noise --------------------------------------------------------

void noisePlanes(cv::Size size, int hi, cv::Mat rgb[3]) {
    for (int c = 0; c < 3; ++c) {
        rgb[c] = kxtest::noise(size.height, size.width, CV_16UC1, 11 + c, 0, hi + 1);
        rgb[c].at<u16>(0, 0) = u16(c == 1 ? hi : 0);  // an extreme colour in every case
    }
}

TEST(TPImageConvert, ForwardPathsMatchThePlainReference) {
    // Odd sizes take the plain path; even ones the single walk down the rows, here with
    // heights of one and of several runs of rows, and the smallest even plane.
    for (cv::Size size : {cv::Size(33, 17), cv::Size(5, 3), cv::Size(1, 7), cv::Size(8, 1),
                          cv::Size(34, 18), cv::Size(2, 2), cv::Size(6, 44), cv::Size(2, 10),
                          cv::Size(70, 134)}) {
        SCOPED_TRACE(testing::Message() << size);
        cv::Mat rgb[3], Y, Dr, Db, y2;
        kxtest::forEachVectorPath([&] {
          for (bool doubled : {false, true}) {
            noisePlanes(size, doubled ? 32768 : 65535, rgb);
            unsigned short *in[3] = {rgb[0].ptr<u16>(), rgb[1].ptr<u16>(), rgb[2].ptr<u16>()};
            TPImage im;
            if (doubled)
                im.convertFrompRGB15U(in, size.width, size.height, 0);
            else
                im.convertFrompRGB(in, size.width, size.height, 0);
            refForward(rgb, doubled, Y, Dr, Db);
            EXPECT_EQ(cv::norm(im.m_Y, Y, cv::NORM_INF), 0.0);
            EXPECT_EQ(cv::norm(im.m_Dr, Dr, cv::NORM_INF), 0.0);
            EXPECT_EQ(cv::norm(im.m_Db, Db, cv::NORM_INF), 0.0);
            (doubled ? TPImage::PRGB15U2Y : TPImage::PRGB2Y)(rgb[0], rgb[1], rgb[2], y2);
            EXPECT_EQ(cv::norm(y2, Y, cv::NORM_INF), 0.0);
          }
        });
        // Same-size vector forms: the difference of each pixel, no reduction.
        std::vector<cv::Mat> in(rgb, rgb + 3), out(3), in32(3), out32(3);
        for (int c = 0; c < 3; ++c)
            in[c].convertTo(in32[c], CV_32F, 1.0 / 32768.0);  // up to 1.0, out of range
        TPImage::RGB2YDRDB(in, out);
        TPImage::RGB32F2YDRDB(in32, out32);
        for (int i = 0; i < size.height; ++i)
            for (int j = 0; j < size.width; ++j) {
                int const r = in[0].at<u16>(i, j), b = in[2].at<u16>(i, j);
                int const y = refY(r, in[1].at<u16>(i, j), b, false);
                ASSERT_EQ(out[0].at<u16>(i, j), y);
                ASSERT_EQ(out[1].at<u16>(i, j), sat((r - y) / 2 + 32768, 65535));
                ASSERT_EQ(out[2].at<u16>(i, j), sat((b - y) / 2 + 32768, 65535));
                float const rf = in32[0].at<float>(i, j);
                float const s = 0.299f * rf + 0.587f * in32[1].at<float>(i, j) +
                                0.114f * in32[2].at<float>(i, j);
                int const yf = rint16(s * 65535.0);
                ASSERT_EQ(out32[0].at<u16>(i, j), yf);
                ASSERT_EQ(out32[1].at<u16>(i, j), rint16((rf * 65535.0 - yf) * 0.5 + 32768.0));
            }
    }
}

TEST(TPImageConvert, PackedInputsGiveWhatThePlanarPathGives) {
    // B, G, R, A pixels with rows longer than the image: 16-bit values as they are, bytes
    // into the high byte. Even sizes split the rows on the way, odd ones through planes.
    for (cv::Size size : {cv::Size(34, 18), cv::Size(2, 2), cv::Size(33, 17), cv::Size(6, 44)}) {
        SCOPED_TRACE(testing::Message() << size);
        int const w = size.width, h = size.height;
        cv::Mat const wide16 = kxtest::noise(h, w + 5, CV_16UC4, 7, 0, 65536);
        cv::Mat const wide8 = kxtest::noise(h, w + 5, CV_8UC4, 8, 0, 256);
        for (bool bytes : {false, true}) {
            cv::Mat bgra[4], rgb[3];
            cv::split((bytes ? wide8 : wide16)(cv::Rect(0, 0, w, h)), bgra);
            for (int c = 0; c < 3; ++c)
                bgra[2 - c].convertTo(rgb[c], CV_16U, bytes ? 256 : 1);
            unsigned short *in[3] = {rgb[0].ptr<u16>(), rgb[1].ptr<u16>(), rgb[2].ptr<u16>()};
            TPImage planar, packed;
            planar.convertFrompRGB(in, w, h, 0);
            if (bytes)
                packed.convertFrom(wide8.data, w, h, int(wide8.step));
            else
                packed.convertFrom(wide16.ptr<u16>(), w, h, int(wide16.step / 2));
            EXPECT_EQ(cv::norm(packed.m_Y, planar.m_Y, cv::NORM_INF), 0.0) << bytes;
            EXPECT_EQ(cv::norm(packed.m_Dr, planar.m_Dr, cv::NORM_INF), 0.0) << bytes;
            EXPECT_EQ(cv::norm(packed.m_Db, planar.m_Db, cv::NORM_INF), 0.0) << bytes;
        }
    }
}

TEST(TPImageConvert, OutputPathsMatchThePlainReference) {
    // 9 x 150 crosses the bands in which chroma is enlarged and consumed; 70 x 12 has whole
    // vectors of every width. Each runs with the loops for wide vectors, where the CPU has
    // them, and with the portable ones.
    kxtest::forEachVectorPath([] {
        for (cv::Size size : {cv::Size(33, 17), cv::Size(9, 150), cv::Size(5, 3), cv::Size(1, 1),
                              cv::Size(1, 6), cv::Size(7, 1), cv::Size(70, 12)}) {
            SCOPED_TRACE(testing::Message() << size);
            int const w = size.width, h = size.height;
            TPImage im(w, h);
            im.m_Y = kxtest::noise(h, w, CV_16UC1, 3, 0, 65536);
            im.m_Dr = kxtest::noise(im.hHeight(), im.hWidth(), CV_16UC1, 4, 0, 65536);
            im.m_Db = kxtest::noise(im.hHeight(), im.hWidth(), CV_16UC1, 5, 0, 65536);
            cv::Mat nearR, nearB, cubicR, cubicB;  // enlarged by nearest-in-Y and plainly
            upSize2XGuidedByYSimple(im.m_Y, im.m_Dr, nearR);
            upSize2XGuidedByYSimple(im.m_Y, im.m_Db, nearB);
            upSize2XGuidedByY(im.m_Y, im.m_Dr, cubicR, false, 4);
            upSize2XGuidedByY(im.m_Y, im.m_Db, cubicB, false, 4);

            Planes<u16> o16(h, w), o15(h, w);
            Planes<u8> o8(h, w);
            cv::Mat packed(h, w, CV_8UC4);
            im.convertTopRGB(o16.p, o16.stride());
            im.convertTopRGB15U(o15.p, o15.stride());
            im.convertTopRGB8U(o8.p, o8.stride());
            im.convertTo(packed.data, int(packed.step));
            for (int i = 0; i < h; ++i)
                for (int j = 0; j < w; ++j) {
                    int const y = im.m_Y.at<u16>(i, j);
                    Rgb const want[4] = {refF16(y, nearR.at<u16>(i, j), nearB.at<u16>(i, j)),
                                         refF15(y, cubicR.at<u16>(i, j), cubicB.at<u16>(i, j)),
                                         refF8(y, cubicR.at<u16>(i, j), cubicB.at<u16>(i, j)),
                                         refPacked(y, nearR.at<u16>(i, j), nearB.at<u16>(i, j))};
                    cv::Vec4b const q = packed.at<cv::Vec4b>(i, j);
                    for (int c = 0; c < 3; ++c) {
                        int const w16 = (&want[0].r)[c], w15 = (&want[1].r)[c],
                                  w8 = (&want[2].r)[c];
                        ASSERT_EQ(o16[c].at<u16>(i, j), w16);
                        ASSERT_EQ(o15[c].at<u16>(i, j), w15);
                        ASSERT_EQ(o8[c].at<u8>(i, j), w8);
                        ASSERT_EQ(q[2 - c], (&want[3].r)[c]) << "channel " << c;
                    }
                    ASSERT_EQ(q[3], 255);
                }
            EXPECT_TRUE(o16.intact() && o15.intact() && o8.intact());

            // The matrix forms, on full-size planes. The float ones are not clamped; the six-plane
            // float form drops the low bit of Y in r and b, the vector form keeps it.
            cv::Mat m16[3], m15[3], m8[3], f6[3];
            for (int c = 0; c < 3; ++c) {
                m16[c].create(size, CV_16UC1);
                m15[c].create(size, CV_16UC1);
                m8[c].create(size, CV_8UC1);
                f6[c].create(size, CV_32FC1);
            }
            TPImage::YDRDB2RGB(im.m_Y, nearR, nearB, m16[0], m16[1], m16[2]);
            im.YDRDB2RGB15U(im.m_Y, cubicR, cubicB, m15[0], m15[1], m15[2]);
            im.YDRDB2RGB8U(im.m_Y, cubicR, cubicB, m8[0], m8[1], m8[2]);
            im.YDRDB2RGB32F(im.m_Y, nearR, nearB, f6[0], f6[1], f6[2]);
            std::vector<cv::Mat> ydrdb{im.m_Y, nearR, nearB}, fv(3);
            TPImage::YDRDB2RGB32F(ydrdb, fv);
            for (int c = 0; c < 3; ++c)
                EXPECT_EQ(cv::norm(m16[c], o16[c], cv::NORM_INF) +
                              cv::norm(m15[c], o15[c], cv::NORM_INF) +
                              cv::norm(m8[c], o8[c], cv::NORM_INF),
                          0.0);
            double const y = im.m_Y.at<u16>(h - 1, w - 1), dr = nearR.at<u16>(h - 1, w - 1),
                         db = nearB.at<u16>(h - 1, w - 1);
            double const r = (dr + std::floor(y / 2) - 32768) * 2,
                         b = (std::floor(y / 2) + db - 32768) * 2;
            EXPECT_NEAR(f6[0].at<float>(h - 1, w - 1), r / 65535, 1e-6);
            EXPECT_NEAR(f6[1].at<float>(h - 1, w - 1), (y - 0.299 * r - 0.114 * b) * 1.7036 / 65535,
                        1e-5);
            double const rv = (y + 2 * dr - 65536) / 65535, bv = (y + 2 * db - 65536) / 65535;
            EXPECT_NEAR(fv[0].at<float>(h - 1, w - 1), rv, 1e-6);
            EXPECT_NEAR(fv[1].at<float>(h - 1, w - 1),
                        (y / 65535 - 0.299 * rv - 0.114 * bv) * 1.7036, 1e-5);

            // The half-size output takes m_fY when there is one.
            im.m_fY = kxtest::noise(im.hHeight(), im.hWidth(), CV_16UC1, 6, 0, 65536);
            Planes<u8> half(im.hHeight(), im.hWidth());
            im.convertToHalfpRGB(half.p, half.stride());
            Rgb const c =
                refF8(im.m_fY.at<u16>(0, 0), im.m_Dr.at<u16>(0, 0), im.m_Db.at<u16>(0, 0));
            EXPECT_EQ(half[1].at<u8>(0, 0), c.g);
            EXPECT_TRUE(half.intact());
        }
    });
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
    cv::Mat nearR, nearB, want[3], got[3];
    upSize2XGuidedByYSimple(im.m_Y, im.m_Dr, nearR);
    upSize2XGuidedByYSimple(im.m_Y, im.m_Db, nearB);
    unsigned short *planes[3];
    for (int c = 0; c < 3; ++c) {
        want[c].create(h, w, CV_16UC1);
        got[c].create(h, w, CV_16UC1);
        planes[c] = got[c].ptr<u16>();
    }
    TPImage::YDRDB2RGB(im.m_Y, nearR, nearB, want[0], want[1], want[2]);
    im.convertTopRGB(planes, 0);
    for (int c = 0; c < 3; ++c)
        EXPECT_EQ(cv::norm(got[c], want[c], cv::NORM_INF), 0.0) << "plane " << c;
}

// Every grey level, where the precision of 1.7036 (double in the 16-bit paths, float in the
// 8-bit ones) and truncation against rounding of the packed path show in some levels only:
// Y = 65279, for one, gives G = 65279.86, truncated to 254 in bytes but rounded to 255.
TEST(TPImageConvert, EveryGreyLevelFollowsTheFormulas) {
    cv::Mat Y(256, 256, CV_16UC1), D(256, 256, CV_16UC1, cv::Scalar(32768));
    for (int k = 0; k < 65536; ++k)
        Y.at<u16>(k / 256, k % 256) = u16(k);
    cv::Mat m16[3], m15[3], m8[3], packed(256, 256, CV_8UC4);
    for (int c = 0; c < 3; ++c) {
        m16[c].create(Y.size(), CV_16UC1);
        m15[c].create(Y.size(), CV_16UC1);
        m8[c].create(Y.size(), CV_8UC1);
    }
    TPImage im;
    TPImage::YDRDB2RGB(Y, D, D, m16[0], m16[1], m16[2]);
    im.YDRDB2RGB15U(Y, D, D, m15[0], m15[1], m15[2]);
    im.YDRDB2RGB8U(Y, D, D, m8[0], m8[1], m8[2]);
    TPImage::YDRDBToQImage(Y, D(cv::Rect(0, 0, 128, 128)), D(cv::Rect(0, 0, 128, 128)), packed.data,
                           256, 256, int(packed.step));
    EXPECT_EQ(packed.at<cv::Vec4b>(254, 255)[1], 254);  // Y = 65279
    for (int k = 0; k < 65536; ++k) {
        int const i = k / 256, j = k % 256;
        ASSERT_EQ(m16[1].at<u16>(i, j), refF16(k, 32768, 32768).g) << k;
        ASSERT_EQ(m15[1].at<u16>(i, j), refF15(k, 32768, 32768).g) << k;
        ASSERT_EQ(m8[1].at<u8>(i, j), refF8(k, 32768, 32768).g) << k;
        ASSERT_EQ(packed.at<cv::Vec4b>(i, j)[1], refPacked(k, 32768, 32768).g) << k;
    }
    // Every level again under colour through the 16-bit formula: noisy Dr, Db with their
    // extremes sprinkled in, where R and B saturate both ways.
    cv::Mat Dr = kxtest::noise(256, 256, CV_16UC1, 41, 0, 65536);
    cv::Mat Db = kxtest::noise(256, 256, CV_16UC1, 42, 0, 65536);
    u16 const extremes[] = {0, 1, 32767, 32768, 32769, 65534, 65535};
    for (int k = 0; k < 65536; k += 3) {
        Dr.at<u16>(k / 256, k % 256) = extremes[k % 7];
        Db.at<u16>(k / 256, k % 256) = extremes[(k / 7) % 7];
    }
    TPImage::YDRDB2RGB(Y, Dr, Db, m16[0], m16[1], m16[2]);
    for (int k = 0; k < 65536; ++k) {
        int const i = k / 256, j = k % 256;
        Rgb const want = refF16(k, Dr.at<u16>(i, j), Db.at<u16>(i, j));
        ASSERT_EQ(m16[0].at<u16>(i, j), want.r) << k;
        ASSERT_EQ(m16[1].at<u16>(i, j), want.g) << k;
        ASSERT_EQ(m16[2].at<u16>(i, j), want.b) << k;
    }
}

// ---- photographs ----------------------------------------------------------------------------

// Largest and mean difference of out from in x scale, over all channels.
std::pair<double, double> errors(cv::Mat const &bgrIn, std::vector<cv::Mat> const &bgrOut,
                                 double scale) {
    cv::Mat in, out, diff;
    bgrIn.convertTo(in, CV_64F, scale);
    cv::merge(bgrOut, out);
    out.convertTo(out, CV_64F);
    cv::absdiff(in, out, diff);
    cv::Scalar const mean = cv::mean(diff);
    return {cv::norm(diff, cv::NORM_INF), (mean[0] + mean[1] + mean[2]) / 3};
}

// Every photograph in and out of each host path: packed 8-bit, packed 16-bit (bytes x 257),
// planar 16-bit and 15-bit (bytes x 128). Colour is kept at half resolution, so a round trip
// is lossy where colour changes within two pixels, most of all where two colours of equal
// luminance meet. Measured on the four photographs, in 8-bit levels: cubic 8-bit and 15-bit
// output at most 104 off and 1.83 on average; packed and 16-bit output (nearest in Y) at most
// 146 off and 2.12 on average. The bounds leave a margin; a wrong coefficient or a swapped
// channel puts the mean far above them. Without the reduction of colour (the same-size forms)
// only the rounding of Y and the halving of the difference remain: R and B come back within
// 1 unit, and G, which carries both and the rounded 1.7036, within 3.
TEST(TPImageConvert, PhotographsRoundTripWithinBounds) {
    for (char const *name : {"astronaut.png", "chelsea.png", "coffee.png", "rocket.jpg"}) {
        SCOPED_TRACE(name);
        cv::Mat const bgr = kxtest::photo(name);
        int const w = bgr.cols, h = bgr.rows;
        cv::Mat bgra8, bgra16, wide(h, w + 3, CV_16UC4), grey;
        cv::cvtColor(bgr, bgra8, cv::COLOR_BGR2BGRA);
        bgra8.convertTo(wide(cv::Rect(0, 0, w, h)), CV_16U, 257.0);  // rows longer than w
        bgra16 = wide(cv::Rect(0, 0, w, h));
        Planes<u16> p16(h, w);
        Planes<u8> p8(h, w);
        cv::Mat packed(h, w, CV_8UC4);
        std::vector<cv::Mat> q;
        auto check = [&](std::vector<cv::Mat> const &out, double scale, double maxLevels) {
            std::pair<double, double> const e = errors(bgr, out, scale);
            EXPECT_LE(e.first, maxLevels * scale);
            EXPECT_LE(e.second, 2.5 * scale);
        };
        TPImage im;
        im.convertFrom(bgra8.data, w, h, int(bgra8.step));
        im.convertTopRGB8U(p8.p, p8.stride());
        check({p8[2], p8[1], p8[0]}, 1.0, 128);
        im.convertTo(packed.data, int(packed.step));
        cv::split(packed, q);
        check({q[0], q[1], q[2]}, 1.0, 160);
        EXPECT_TRUE(flat(q[3], 255));

        im.convertFrom(bgra16.ptr<u16>(), w, h, int(bgra16.step / 2));
        im.convertTopRGB(p16.p, p16.stride());
        check({p16[2], p16[1], p16[0]}, 257.0, 160);

        std::vector<cv::Mat> rgb(3), ydrdb(3), back(3);
        for (int c = 0; c < 3; ++c)
            cv::extractChannel(bgra16, rgb[c], 2 - c);
        TPImage::RGB2YDRDB(rgb, ydrdb);
        TPImage::YDRDB2RGB(ydrdb, back);
        EXPECT_LE(cv::norm(back[0], rgb[0], cv::NORM_INF), 1.0);
        EXPECT_LE(cv::norm(back[2], rgb[2], cv::NORM_INF), 1.0);
        EXPECT_LE(cv::norm(back[1], rgb[1], cv::NORM_INF), 3.0);

        unsigned short *in15[3];
        for (int c = 0; c < 3; ++c) {
            rgb[c].convertTo(rgb[c], CV_16U, 128.0 / 257.0);
            in15[c] = rgb[c].ptr<u16>();
        }
        im.convertFrompRGB15U(in15, w, h, 0);
        im.convertTopRGB15U(p16.p, p16.stride());
        check({p16[2], p16[1], p16[0]}, 128.0, 128);

        // Grey stays grey: R = B exactly and G within one 16-bit unit (0.587 x 1.7036 is
        // 1.0000132); 8-bit grey comes back unchanged.
        cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
        cv::cvtColor(grey, grey, cv::COLOR_GRAY2BGRA);
        im.convertFrom(grey.data, w, h, int(grey.step));
        EXPECT_TRUE(flat(im.m_Dr, 32768) && flat(im.m_Db, 32768));
        im.convertTopRGB(p16.p, p16.stride());
        EXPECT_EQ(cv::norm(p16[0], p16[2], cv::NORM_INF), 0.0);
        EXPECT_LE(cv::norm(p16[0], p16[1], cv::NORM_INF), 1.0);
        im.convertTopRGB8U(p8.p, p8.stride());
        cv::extractChannel(grey, grey, 0);
        for (int c = 0; c < 3; ++c)
            EXPECT_EQ(cv::norm(p8[c], grey, cv::NORM_INF), 0.0);
        EXPECT_TRUE(p8.intact() && p16.intact());
    }
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
}

TEST(TPImageConvert, RGBC3ToQImageCopiesChannelsAndTakesTheHighByte) {
    cv::Mat const c8 = kxtest::noise(3, 5, CV_8UC3, 21, 0, 256);
    cv::Mat c16, want;
    c8.convertTo(c16, CV_16UC3, 257.0);
    cv::cvtColor(c8, want, cv::COLOR_RGB2RGBA);  // the same order, alpha 255
    for (cv::Mat const &in : {c8, c16}) {
        kxtest::PaddedMat out(3, 5, CV_8UC4);
        TPImage::RGBC3ToQImage(in, out.ptr<u8>(), 5, 3, out.step());
        EXPECT_EQ(cv::norm(out.view, want, cv::NORM_INF), 0.0);
        EXPECT_TRUE(out.paddingIntact());
    }
}

// Box passes with a fresh replicated border each, then the reduction: the plain way.
cv::Mat refSmoothRoi(cv::Mat const &area, int r, int passes, cv::Size out, int zoom) {
    cv::Mat work, res(out, area.type());
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
    EXPECT_EQ(cv::norm(copy, in16(cv::Rect(3, 4, 10, 7)), cv::NORM_INF), 0.0);
    copy.at<u16>(0, 0) ^= 1;
    EXPECT_NE(copy.at<u16>(0, 0), in16.at<u16>(4, 3));  // a copy, not a view

    // A half plane: the position halves and the size rounds up. The area is capped at in.
    cv::Mat const h = TPImage::MatRoi(in16, 7, 9, 11, 5, 1, true, false);
    EXPECT_EQ(cv::norm(h, in16(cv::Rect(3, 4, 6, 3)), cv::NORM_INF), 0.0);
    EXPECT_EQ(TPImage::MatRoi(in16, 50, 0, 10, 7, 1, false, false).size(), cv::Size(3, 7));
    cv::Mat reduced(6, 8, CV_16UC1);
    downSizeNX(in16(cv::Rect(2, 1, 24, 18)), reduced, 3, 4);
    EXPECT_EQ(cv::norm(TPImage::MatRoi(in16, 2, 1, 8, 6, 3, false, false), reduced, cv::NORM_INF),
              0.0);

    // Zoom 1: one 3 x 3 pass; 4: two; 5: radius 2, one pass; 7: radius 2, three passes.
    struct Case {
        int zoom, r, passes;
    };
    for (Case c : {Case{1, 1, 1}, Case{4, 1, 2}, Case{5, 2, 1}, Case{7, 2, 3}}) {
        SCOPED_TRACE(c.zoom);
        cv::Rect const area(1, 2, std::min(c.zoom * 5, 52), std::min(c.zoom * 4, 39));
        cv::Mat const want32 = refSmoothRoi(in32(area), c.r, c.passes, {5, 4}, c.zoom);
        cv::Mat const want16 = refSmoothRoi(in16(area), c.r, c.passes, {5, 4}, c.zoom);
        EXPECT_LE(
            cv::norm(TPImage::MatRoi(in32, 1, 2, 5, 4, c.zoom, false, true), want32, cv::NORM_INF),
            1e-5);
        EXPECT_LE(
            cv::norm(TPImage::MatRoi(in16, 1, 2, 5, 4, c.zoom, false, true), want16, cv::NORM_INF),
            2.0 * c.passes);  // each integer pass rounds
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
