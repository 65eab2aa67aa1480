// TPImage: the working image of a photograph, and its way in and out of the host's buffers.
//
// Luminance Y is kept at full resolution and colour at half resolution in each direction,
// all in 16-bit fixed point: Y = 0.299 R + 0.587 G + 0.114 B, and the colour differences
// Dr = (R - Y) / 2 + 32768 and Db = (B - Y) / 2 + 32768. One image costs 2 bytes a pixel for
// Y and 1 byte a pixel for both difference planes together, and most effects touch Y alone.
// Copies share planes; clone() is the only deep copy. The image carries a stamp that moves
// whenever a host buffer is converted into it.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "kestrix1/frame/export.h"
#include "kestrix1/frame/t_uid.h"

class KESTRIX1_EXPORT TPImage {
public:
    // ---- life cycle ----------------------------------------------------------------------

    // A fresh stamp of its own and create(width, height, false).
    TPImage(int width = 0, int height = 0);

    // Shares all five planes and copies m_scale, m_x, m_y, m_level. The copy owns a new TUid
    // that holds the source's id (same content, not same object); its dependencies are empty.
    TPImage(TPImage const &other);

    // Shares all five planes, copies the same four fields and writes the source's id into
    // this image's own stamp object (a foreign stamp set by setUid is written to).
    // m_depends stays.
    TPImage &operator=(TPImage const &other);

    // Deletes the stamp unless it is foreign.
    ~TPImage();

    // A new image with deep copies of the five planes, the same four fields and the source's
    // id in a TUid of its own.
    TPImage clone() const;

    // Sizes the planes: m_Y width x height, m_Dr, m_Db (CV_16UC1) and m_halfMask (CV_8UC1)
    // half(width) x half(height), each reallocated only when its size or type differs, and
    // m_fY emptied. When width and height are those of m_Y no plane changes, m_fY included.
    // Always resets m_scale to 1, m_level to 1, m_x and m_y to 0. New pixels are undefined;
    // the stamp is not touched. The third argument is ignored.
    void create(int width, int height, bool ignored);

    // Drops all five planes (they become empty) and sets m_level to 1.
    void release();

    // ---- geometry and identity -----------------------------------------------------------

    int width() const { return m_Y.cols; }
    int height() const { return m_Y.rows; }
    int hWidth() const { return half(width()); }
    int hHeight() const { return half(height()); }

    // n / 2 rounded up: half(1) = 1, half(2) = 1, half(3) = 2, half(0) = 0. Half-size pixel
    // (i, j) stands for full-size rows 2i, 2i+1 and columns 2j, 2j+1.
    static int half(int n) { return n / 2 + (n > 2 * (n / 2) ? 1 : 0); }

    // True when width x height is below 1.
    bool bEmpty() const { return width() * height() < 1; }

    TUid *uid() const { return m_uid_p; }

    // Uses `uid` as this image's stamp from now on without owning it: the previous own stamp
    // is deleted, and the destructor leaves `uid` alone.
    void setUid(TUid const *uid);

    TUidDepends &depends() { return m_depends; }

    // Full-size luminance for output: when m_fY holds pixels, a new full-size matrix with
    // m_fY enlarged by 2 (cubic); otherwise a header sharing m_Y.
    cv::Mat getfY() const;

    // Number of TPImage objects alive in the process.
    static int liveCount();

    // ---- from host buffers ---------------------------------------------------------------
    // Each fills m_Y, m_Dr, m_Db, sets m_halfMask to 255 and takes a new stamp; nothing
    // changes when width x height is below 1. Planar forms take three plane pointers R, G, B
    // and one row stride in bytes for all three (0: rows are contiguous).

    // Packed 8-bit blue, green, red, unused; stride in bytes. Channels enter as value x 256,
    // so 255 becomes 65280 and comes back as 255 through the high byte.
    void convertFrom(unsigned char const *buffer, int width, int height, int stride);

    // Packed 16-bit blue, green, red, unused; stride in elements.
    void convertFrom(unsigned short const *buffer, int width, int height, int stride);

    // Planar 16-bit, 0..65535: Y = rint(0.299 R + 0.587 G + 0.114 B) in float; R, B and Y are
    // reduced by 2 (cubic) and Dr = (Rh - Yh) / 2 + 32768, Db = (Bh - Yh) / 2 + 32768 in
    // integers, the division truncating towards zero, saturated to 0..65535.
    void convertFrompRGB(unsigned short **const planes, int width, int height, int stride);

    // Planar 15-bit, 0..32768: Y = rint(2 (0.299 R + 0.587 G + 0.114 B)); Dr = Rh - (Yh >> 1)
    // + 32768 capped at 65535, Db likewise.
    void convertFrompRGB15U(unsigned short **const planes, int width, int height, int stride);

    // ---- to host buffers -----------------------------------------------------------------
    // None changes the image or its stamp. The difference planes are enlarged to full size
    // with the output's Y as guide unless a member says otherwise.

    // Packed 8-bit blue, green, red, 255 from m_Y, through YDRDBToQImage; stride in bytes.
    void convertTo(unsigned char *buffer, int stride) const;

    // Planar 16-bit from getfY() (F16): R = sat(Y + 2 Dr - 65536), B = sat(Y + 2 Db - 65536),
    // G = sat(rint((Y - 0.299 R - 0.114 B) x 1.7036)).
    void convertTopRGB(unsigned short **const planes, int stride) const;

    // Planar 8-bit from getfY(), chroma enlarged plainly (cubic), formula F8:
    // r = 2 (Dr - 32768) + Y, b = 2 (Db - 32768) + Y, g = (Y - 0.299 r - 0.114 b) x 1.7036 in
    // float from the unclamped r and b; each channel is sat16(rint(v)) >> 8.
    void convertTopRGB8U(unsigned char **const planes, int stride) const;

    // Planar 15-bit from getfY(), chroma enlarged plainly (cubic), formula F15:
    // R = sat(Dr + (Y >> 1) - 32768), B likewise, G = sat(rint(((Y >> 1) - 0.299 R - 0.114 B)
    // x 1.7036)); results are saturated to 0..65535, not to the host's 0..32768.
    void convertTopRGB15U(unsigned short **const planes, int stride) const;

    // Planar 8-bit at hWidth() x hHeight() with formula F8 from m_Dr, m_Db and a half-size Y:
    // m_fY when it holds pixels, else m_Y reduced by 2 (cubic).
    void convertToHalfpRGB(unsigned char **const planes, int stride) const;

    // ---- conversions between matrices ----------------------------------------------------
    // Outputs of the six-plane forms must be allocated by the caller at the input's size;
    // the vector forms need at least three planes on each side and size their outputs from
    // the first input. All Dr, Db planes here are full size.

    // F16 on 16-bit planes.
    static void YDRDB2RGB(cv::Mat const &Y, cv::Mat const &Dr, cv::Mat const &Db, cv::Mat &R,
                          cv::Mat &G, cv::Mat &B);
    // F15 on 16-bit planes.
    void YDRDB2RGB15U(cv::Mat const &Y, cv::Mat const &Dr, cv::Mat const &Db, cv::Mat &R,
                      cv::Mat &G, cv::Mat &B) const;
    // F8: 16-bit in, 8-bit out.
    void YDRDB2RGB8U(cv::Mat const &Y, cv::Mat const &Dr, cv::Mat const &Db, cv::Mat &R, cv::Mat &G,
                     cv::Mat &B) const;
    // F32: 16-bit in, float out, unclamped: r = 2 float(Dr + (Y >> 1) - 32768), b likewise,
    // g = (Y - 0.299 r - 0.114 b) x 1.7036; each divided by 65535.
    void YDRDB2RGB32F(cv::Mat const &Y, cv::Mat const &Dr, cv::Mat const &Db, cv::Mat &R,
                      cv::Mat &G, cv::Mat &B) const;

    // F16 on {Y, Dr, Db} into {R, G, B}.
    static void YDRDB2RGB(std::vector<cv::Mat> &ydrdb, std::vector<cv::Mat> &rgb);
    // F32V: R = (Y + 2 Dr - 65536) / 65535, B likewise, G = (Y / 65535 - 0.299 R - 0.114 B)
    // x 1.7036, float and unclamped.
    static void YDRDB2RGB32F(std::vector<cv::Mat> &ydrdb, std::vector<cv::Mat> &rgb);

    // 16-bit {R, G, B} into same-size {Y, Dr, Db}: Y as in convertFrompRGB, Dr = (R - Y) / 2
    // + 32768 truncating and saturated, Db likewise.
    static void RGB2YDRDB(std::vector<cv::Mat> &rgb, std::vector<cv::Mat> &ydrdb);
    // Float {r, g, b} (0..1) into same-size 16-bit {Y, Dr, Db}:
    // Y = sat(rint((0.299 r + 0.587 g + 0.114 b) x 65535)),
    // Dr = sat(rint((r x 65535 - Y) x 0.5 + 32768)), Db likewise.
    static void RGB32F2YDRDB(std::vector<cv::Mat> &rgb, std::vector<cv::Mat> &ydrdb);

    // Y = sat(rint(0.299 R + 0.587 G + 0.114 B)) of 16-bit planes.
    static void PRGB2Y(cv::Mat const &R, cv::Mat const &G, cv::Mat const &B, cv::Mat &Y);
    // Y = sat(rint(2 (0.299 R + 0.587 G + 0.114 B))) of 16-bit planes holding 0..32768.
    static void PRGB15U2Y(cv::Mat const &R, cv::Mat const &G, cv::Mat const &B, cv::Mat &Y);

    // Packed 8-bit blue, green, red, 255 from full-size Y and half-size Dr, Db (all
    // CV_16UC1, else throws "ERROR TPImage::YDrDbToQImage - input type"). In integers:
    // r = Y + 2 Dr - 65536, b = Y + 2 Db - 65536, g = trunc((Y - 0.299 r - 0.114 b) x 1.7036)
    // in float; each byte is sat8(v >> 8). G truncates where the planar paths round.
    static void YDRDBToQImage(cv::Mat const &Y, cv::Mat const &Dr, cv::Mat const &Db,
                              unsigned char *out, int width, int height, int stride);

    // Packed 8-bit from a CV_8UC3 (bytes as they are) or CV_16UC3 (value >> 8) matrix, the
    // three channels in their order, then 255. Other types throw
    // "TPImage::RGBC3ToQImage - Wrong input data type".
    static void RGBC3ToQImage(cv::Mat const &rgb, unsigned char *out, int width, int height,
                              int stride);

    // A preview of a region, width x height, given in full-image terms and reduced by
    // `zoom`: the area from (x, y) spanning zoom x (width, height), capped at `in`'s size.
    // `half` says `in` is a half-size plane (position halved, sizes half()). Zoom 1 gives a
    // deep copy of the area; larger zooms reduce it by zoom (cubic). `smooth` runs box passes
    // over a replicated border first, against aliasing: zoom >= 5 takes radius
    // max((zoom + 1) / 3, min(area w, h) / 2000 + 1) and zoom - 3 ((zoom + 1) / 3) + 2
    // passes, smaller zooms radius 1 and zoom / 4 + 1 passes (one at zoom 1). CV_8UC1,
    // CV_16UC1 and CV_32FC1; other types throw "ERROR TPImage::MatRoi - input type".
    static cv::Mat MatRoi(cv::Mat const &in, int x, int y, int width, int height, int zoom,
                          bool half, bool smooth);

    // ---- single pixels, for colour pickers and table builders ----------------------------
    // RGB2YUV takes r, g, b in 0..1. Apart from the float form it first brings an
    // out-of-gamut colour inside by scaling it about its own extreme (keeps hue better than
    // clipping). U = (r - y) x 128 / 0.701 + 128, V = (b - y) x 128 / 0.886 + 128 for 8-bit
    // chroma; 16-bit chroma is on the Dr, Db scale (r - y) x 0.5 x 32768 + 32768; float
    // chroma is (r - y) x 0.5 / 0.701 + 0.5. YUV2RGB inverts each with the exact 0.587.

    static void RGB2YUV(float r, float g, float b, unsigned short &y, unsigned char &u,
                        unsigned char &v);
    static void RGB2YUV(float r, float g, float b, unsigned char &y, unsigned char &u,
                        unsigned char &v);
    static void RGB2YUV(float r, float g, float b, unsigned short &y, unsigned short &u,
                        unsigned short &v);
    static void RGB2YUV(float r, float g, float b, float &y, float &u, float &v);

    static void YUV2RGB(unsigned short y, unsigned char u, unsigned char v, float &r, float &g,
                        float &b);
    static void YUV2RGB(unsigned char y, unsigned char u, unsigned char v, float &r, float &g,
                        float &b);
    static void YUV2RGB(unsigned short y, unsigned short u, unsigned short v, float &r, float &g,
                        float &b);
    static void YUV2RGB(float y, float u, float v, float &r, float &g, float &b);

    // r, g, b in 0..1 to 16-bit Y, Dr, Db, with no gamut step: y = 65535 (0.587 g + 0.299 r +
    // 0.114 b), Y = sat(rint(y)), Dr = sat(rint((65535 r - y) x 0.5 + 32768)), Db likewise.
    static void RGB2YdRdB(float r, float g, float b, unsigned short &Y, unsigned short &Dr,
                          unsigned short &Db);

    // 16-bit Y, Dr, Db to r, g, b in 0..1: r = 2 (Dr - 32768) + Y, b likewise,
    // g = rint((Y - 0.299 r - 0.114 b) x 1.7036), each rounded, saturated to 0..65535 and
    // divided by 65535.
    static void YdRdB2RGB(unsigned short Y, unsigned short Dr, unsigned short Db, float &r,
                          float &g, float &b);

    // 0 below edge0, 1 from edge1 on, else t^2 (3 - 2t) with t = (x - edge0) / (edge1 - edge0).
    static float smoothstep(float edge0, float edge1, float x);

protected:
    // ---- edge and full reconstruction ----------------------------------------------------
    // Slow effects can run on a half-size Y and have the fine detail put back afterwards.
    // An "edge" plane is a full-size CV_8UC1 plane holding what a full-size 16-bit plane has
    // beyond its half-size version (its difference from the half-size plane enlarged again),
    // companded so that it costs a quarter of the two planes it replaces; "full" is the
    // full-size CV_16UC1 plane. All other planes here are CV_16UC1; "half size" is in the
    // sense of half(). Sizes are trusted: nothing is checked beyond what upSize2X and
    // downSize2X check. Loops are parallel over rows, handed out in runs as threads become
    // free, and give the same pixels at any number of threads.
    //
    // The companding tables are shared by the whole process. The library owns static storage
    // for them and fills it while it is loaded, so they exist before a host can call any
    // member. A derived host class may point the two pointers at tables of its own (65536
    // bytes and 256 shorts) and call computeLUT, or set them to null, which the two checks
    // below report. Nothing writes the tables after set-up; computeLUT must not run while any
    // other member here does.

    // Forward table: difference value (0..65535, neutral 32768) to edge value (0..255,
    // neutral 128), following the square root of the distance from neutral so that small
    // differences, the common ones, keep their precision.
    static unsigned char *m_lutFullToEdge_p;
    // Inverse table: edge value back to a difference value.
    static unsigned short *m_lutEdgeToFull_p;

    // Fills both tables, with k = 0.7071f: forward v < 32768 -> rint(128 - sqrt(32768 - v) k),
    // v >= 32768 -> rint(sqrt(v - 32768) k + 128), saturated to 0..255; inverse i < 128 ->
    // trunc(32768 - t^2) with t = (128 - i) / k, i >= 128 -> trunc(t^2 + 32768) with
    // t = (i - 128) / k. Calling it again gives the same tables. Throws
    // "ERROR - TPImage::computeLUT: LUT is not allocated." when a table pointer is null.
    static void computeLUT();

    // out = forward table of the 16-bit `in`, pixel by pixel; out is (re)created as CV_8UC1
    // at in's size unless it already is so. Throws
    // "ERROR - TPImage::applyFullToEdgeLUT: LUT is NULL." when the forward table is null.
    static void applyFullToEdgeLUT(cv::Mat const &in, cv::Mat &out);

    // Makes the edge plane of `full`: U = upSize2X(low, 257) when `low` holds pixels, else
    // `full` reduced and enlarged again with method 257; then, in integers,
    // edge = forward[sat16((full - U) / 2 + 32768)], the division truncating towards zero.
    // edge is (re)created as CV_8UC1 at full's size unless it already is so.
    static void fullToEdge(cv::Mat const &full, cv::Mat const &low, cv::Mat &edge);

    // Rebuilds a full plane from the edge plane and a half-size plane with one gain:
    // full = upSize2X(low, 257) + (inverse[edge] - 32768) x gain, saturated. The halving in
    // fullToEdge is not undone, so a gain of 1 puts back half the difference and 2 all of it.
    // Within 0.01 of 1 the gain is taken as exactly 1 and the sum is done in integers (the
    // fast path); otherwise in single precision, rounded to nearest. full is (re)created as
    // CV_16UC1 at edge's size unless it already is so.
    static void edgeToFull(cv::Mat const &edge, cv::Mat const &low, cv::Mat &full, float gain);

    // Rebuilds a full plane from the edge plane, the half-size `source` the edge plane was
    // made from and the half-size `changed` result of an effect, with a gain that follows the
    // local structure (see localGain): 1 where the effect left gradients alone, towards 0
    // where it flattened them, above 1 where it strengthened them. The local gain is stored
    // in 8 bits at 128/3 a unit (1 is about 43, the most about 5.98), smoothed by the 5x5
    // Gaussian over a replicated border of 2 pixels, enlarged linearly to W; then
    // full = sat(rint(upSize2X(changed, 257) + (inverse[edge] - 32768) x (gain x 0.0234375)
    // x W)) in single precision. full is (re)created at edge's size and changed's type unless
    // it already is so.
    static void edgeToFull(cv::Mat const &edge, cv::Mat const &source, cv::Mat const &changed,
                           cv::Mat &full, float epsilon, float gain);

    // The same task with the true detail of the full-size `source` in place of a stored edge
    // plane: T = downSize2X(source, 4) (cubic), the local gain of T and `changed` stored in
    // 8 bits at 64 a unit (1 is 64, the most about 3.98) and raised to at least 32 (never
    // below one half), enlarged linearly to W; V = upSize2X(T, 4);
    // result = sat(rint(upSize2X(changed, 4) + (source - V) x (gain x 0.015625) x W)) in
    // single precision. With no edge plane there is no halving: where the local gain is 1,
    // a gain of 1 puts back all of the source's detail, and an unchanged `changed` (equal to
    // T) gives back `source` itself. result is taken by value and shares the caller's pixels
    // (it may be `source` itself); it is (re)created at source's size and type unless it
    // already is so (a reallocated result is then not seen by the caller).
    static void reconstructFull(cv::Mat const &source, cv::Mat const &changed, cv::Mat result,
                                float epsilon, float gain);

    // The local gain of two same-size half planes T (source) and B (changed), CV_32FC1:
    // (S(Dx T Dx B) + S(Dy T Dy B) + c) / (S(Dx T Dx T) + S(Dy T Dy T) + c) with
    // c = epsilon x 65535, Dx, Dy forward differences (0 in the last column, row) and S the
    // 5x5 Gaussian over a replicated border of 2 pixels. Flat planes give exactly 1.
    static cv::Mat localGain(cv::Mat const &T, cv::Mat const &B, float epsilon);

public:
    // ---- data ----------------------------------------------------------------------------

    cv::Mat m_Y;          // CV_16UC1, width x height, 0..65535
    cv::Mat m_fY;         // CV_16UC1 half size or empty: replaces m_Y in the output paths
    float m_scale;        // 1 after create; carried along by copies
    cv::Mat m_Dr;         // CV_16UC1, half size, neutral 32768
    cv::Mat m_Db;         // CV_16UC1, half size, neutral 32768
    cv::Mat m_halfMask;   // CV_8UC1, half size; 255 after a conversion from a host buffer
    int m_x, m_y;         // 0 after create; carried along by copies
    int m_level;          // 1 after create and release; carried along by copies
    TUid *m_uid_p;        // the image's stamp
    bool m_uidIsForeign;  // m_uid_p came from setUid and is not owned
    TUidDepends m_depends;
};
