// TImage: the plane image of the packed four-channel host path.
//
// One object is one image of a fixed pixel type: a 16-bit plane, a pair of 8-bit planes, an
// 8-bit plane, or packed four-channel pixels of 8 or 16 bits. It either owns rows allocated
// with an aligned step, or wraps a host buffer it never frees. A picture travels through it
// in YCM form: a full-size 16-bit luminance Y (0.299 R + 0.587 G + 0.114 B), a half-size pair
// of 8-bit colour planes C (mean R - Y and B - Y over 2 x 2 pixels, in units of 512, neutral
// 128) and a half-size 8-bit plane M for the host's alpha. toMat and fromMat cross over to
// cv::Mat.
#pragma once

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"
#include "kestrix1/frame/geometry.h"

class KESTRIX1_EXPORT TImage {
public:
    // Pixel types. pstep() is the bytes a pixel: 2, 1, 1, 4 and 8.
    enum IMTYPE {
        Y16U = 0,     // one 16-bit plane (CV_16UC1)
        C8U2 = 1,     // two 8-bit planes with one row step (CV_8UC1 each)
        M8U = 2,      // one 8-bit plane (CV_8UC1)
        RGBA8U = 3,   // one plane of four 8-bit channels (CV_8UC4)
        RGBA16U = 4,  // one plane of four 16-bit channels (CV_16UC4)
    };

    // An owned image of `type` and `size`: init(type), then resize(size).
    explicit TImage(IMTYPE type = Y16U, TSize const &size = TSize());

    // Wraps a host buffer of four-byte pixels (type RGBA8U, not owned); `step` is in bytes.
    // With swapRB, the first and third channel of every pixel are exchanged in place.
    TImage(TSize const &size, unsigned char *data, int step, bool swapRB);

    // The same for four 16-bit channels a pixel (type RGBA16U); `step` is in bytes.
    TImage(TSize const &size, unsigned short *data, int step, bool swapRB);

    // An owned deep copy: init(other's type), then copyFrom(other).
    TImage(TImage const &other);

    // copyFrom(other): a deep copy into an owned image; nothing on a wrapped one.
    TImage &operator=(TImage const &other);

    ~TImage();

    // Releases owned planes and draws a new change stamp; a wrapped image is left alone.
    void free();

    // Sets the type, marks the image owned (without freeing anything it held), clears the
    // pointers, the size, the region and the update rectangle, and draws a new stamp.
    void init(IMTYPE type);

    // On an owned image of another size: frees the planes, draws a new stamp and, for a size
    // of at least 1 x 1, allocates new planes of the type with an aligned row step (both
    // planes of C8U2 with one step). A smaller size leaves the image empty. The same size, or
    // a wrapped image, leaves everything as it is.
    void resize(TSize const &size);

    // Gives an owned image the other's type and size and copies its pixels (both planes of
    // C8U2). Nothing happens on a wrapped image.
    void copyFrom(TImage const &other);

    IMTYPE type() const { return m_type; }
    TSize const &size() const { return m_size; }
    int step() const { return m_step[0]; }   // row step in bytes, common to all planes
    int pstep() const { return m_step[1]; }  // bytes a pixel
    TUpdateRect const &updateRect() const { return m_update; }
    bool isEmpty() const { return m_size.isEmpty() || m_data[0] == nullptr; }

    // m_data[plane] + row x step() + col x pstep().
    unsigned char *dataPtr(int row, int col, int plane = 0) const;

    void setChanged() { m_update.setChanged(); }
    void setChanged(TRect const &rect) { m_update.setChanged(rect); }

    // A cv::Mat header over a plane (CV_16UC1, CV_8UC1, CV_8UC1, CV_8UC4 or CV_16UC4 by type;
    // plane 0 or 1 of C8U2), sharing the pixels without owning them. Empty for an empty image.
    cv::Mat toMat(int plane = 0) const;

    // Copies m into a plane. m must have the image's size, else throws
    // "ERROR - TImage::copyFrom - size is not equal", and the plane's cv type, else throws
    // "ERROR - TImage::copyFrom - type not match" (the size is checked first).
    void fromMat(cv::Mat const &m, int plane = 0);

    // Exchanges the first and third channel of every pixel of RGBA8U and RGBA16U images.
    // Any other type throws "ERROR -  TImage::swapC4RBCannel() - wrong type".
    void swapC4RBCannel();

    // Each side halved and rounded up: 5 x 3 gives 3 x 2.
    static TSize dec2Size(TSize const &size);

    // The 8-bit half-size plane of a Y16U image: the sum of each 2 x 2 block shifted right
    // by 10 (the mean reduced to 8 bits); the odd last row and column take the mean of the
    // pixels present. Other types throw "ERROR - TImage::halfY8U - wrong type".
    cv::Mat halfY8U() const;

    // ---- conversions -------------------------------------------------------------------
    //
    // Outputs that are owned take the type and size they need; a wrapped output of another
    // type or size throws "ERROR - TImage - output of the wrong type or size". Channels of
    // the packed types are red, green, blue, alpha in that order unless the name says bgra.

    // 8 to 16 bits: v << 8. out becomes RGBA16U of in's size.
    static void rgba8uTo16u(TImage const &in, TImage &out);

    // 16 to 8 bits: (v + 128) >> 8, saturated. out becomes RGBA8U of in's size.
    static void rgba16uTo8u(TImage const &in, TImage &out);

    // YCM of an RGBA16U image. Per pixel Y = rint(0.299 c0 + 0.587 c1 + 0.114 c2); per 2 x 2
    // block C0 = (sum c0 - sum Y) / 2048 truncated, + 128, C1 the same with c2, both
    // saturated; M = (sum of alphas) >> 10. An odd last row or column uses the pixels present
    // (divisors 512 n and shift 8 + log2 n for n pixels). Y: Y16U, C: C8U2, M: M8U.
    static void rgba16uToYCM(TImage const &in, TImage &Y, TImage &C, TImage &M);

    // The same for RGBA8U, each channel widened by rgba8uTo16u first.
    static void rgba8uToYCM(TImage const &in, TImage &Y, TImage &C, TImage &M);

    // Back from YCM into an RGBA16U out of Y's size. C and M are enlarged to full size by
    // cubic interpolation; then, in float, R = (C0 - 128) 512 + Y, B = (C1 - 128) 512 + Y,
    // G = (Y - 0.299 R - 0.114 B) / 0.587, alpha = M x 255.997, each rounded and saturated.
    // Throws "TImage::YCMToRgba16u - imY.size()!=out.size() || TImage::dec2Size(imY.size())
    // != imC.size()" (one line) unless out has Y's size and C and M have dec2Size of it.
    static void YCMToRgba16u(TImage const &Y, TImage const &C, TImage const &M, TImage &out);

    // The same into RGBA8U, through rgba16uTo8u.
    static void YCMToRgba8u(TImage const &Y, TImage const &C, TImage const &M, TImage &out);

    // YCM of a host buffer of blue, green, red, alpha bytes, `stride` bytes a row.
    static void bgra8uToTImage(unsigned char const *in, int width, int height, int stride,
                               TImage &Y, TImage &C, TImage &M);

    // YCMToRgba8u written into a host buffer of blue, green, red, alpha bytes of Y's size.
    static void timageToBgra8u(TImage const &Y, TImage const &C, TImage const &M,
                               unsigned char *out, int stride);

    // Colour planes C1 for a picture whose Y changed from Y0 to Y1, keeping the colour of C0
    // relative to the new brightness. On the half-size 8-bit Y of both (halfY8U), with
    // ratio = (y1 + 255 eps) / (y0 + 255 eps), the colour is decoded as YUV2RGB decodes it,
    // R and B are scaled by the ratio, and C1 is encoded with the factor 128.4 of RGB2YUV.
    // Throws "ERROR - TImage::updateCfromYChange - sizes do not match" unless Y1 has Y0's
    // size and C0 dec2Size of it.
    static void updateCfromYChange(TImage const &Y0, TImage const &C0, TImage const &Y1, TImage &C1,
                                   float eps);

    // One pixel, r, g, b in 0..1: with y = 0.299 r + 0.587 g + 0.114 b,
    // C1 = rint((r - y) 128.4 + 128), C2 = rint((b - y) 128.4 + 128), saturated to 0..255,
    // and Y = rint(y 65535.4), saturated to 0..65535. The factor 128.4 is not the inverse of
    // YUV2RGB's 1/128; colour pickers rely on the pair as it is.
    static void RGB2YUV(float r, float g, float b, unsigned char &C1, unsigned char &C2);
    static void RGB2YUV(float r, float g, float b, unsigned short &Y, unsigned char &C1,
                        unsigned char &C2);

    // One pixel back: y = Y / 65535, r = (C1 - 128) / 128 + y, b = (C2 - 128) / 128 + y,
    // g = (y - 0.299 r - 0.114 b) / 0.587. Not clamped.
    static void YUV2RGB(unsigned short Y, unsigned char C1, unsigned char C2, float &r, float &g,
                        float &b);

    IMTYPE m_type;
    int m_owned;  // non-zero when the planes were allocated here
    TSize m_size;
    unsigned char *m_data[4];  // plane starts; only the first two are used
    int m_step[4];             // [0] row step in bytes, [1] bytes a pixel
    TImRegion m_region;
    TUpdateRect m_update;
};
