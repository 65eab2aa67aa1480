// SelectiveColorFilter: hue, saturation and lightness changes per colour family.
//
// A pixel belongs to every family a little: its weight for a family is a Gaussian (or, in
// the tables, a triangle or trapezoid) of the circular distance between its hue and the
// family's centre. An adjustment set gives one amount per family slot, and a pixel moves by
// the weighted sum of the amounts. Three kinds of path apply the sets:
// - the working-space paths on Y, Dr, Db planes (proc, proc2), which evaluate the weights,
//   powers and rotations with vector math (the weights and what follows from them alone
//   once per hue code, on planes large enough to repay it);
// - the packed paths on hue / lightness / saturation images (procInHLSSpace and friends),
//   which read the weights from 16 tables of 65536 entries built once by a setupLUT16U*;
// - the smoothing members compute2 to compute5, which run guided or domain-transform
//   filters over big planes through 1024 x 1024 blocks.
//
// Hues are degrees on a circle of 360; a hue plane codes [0, 360) as 0..65535.
// Parameter sets come in the order lightness (or value), saturation, hue, and for the
// four-set paths a further plane's set second (see proc below).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "kestrix1/filters/tg_filter.h"
#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT SelectiveColorFilter {
public:
    // The six families and their centres (degrees) and Gaussian denominators:
    // red 0 / -1256, yellow 60 / -628, green 100 / -628, cyan 165 / -1236,
    // blue 220 / -1570, magenta 300 / -942.
    enum ColorCategory { Red = 0, Yellow = 1, Green = 2, Cyan = 3, Blue = 4, Magenta = 5 };

    static constexpr int kSlots = 8;           // amounts per set
    static constexpr int kMaxTables = 16;      // table slots
    static constexpr int kTableCodes = 65536;  // entries addressed by a hue code
    static constexpr int kTableTail = 16384;   // entries past the end, a copy of the head
    static constexpr float kDefaultDen = -1236.0f;

    // One amount per family slot. In the Y, Dr, Db paths slots 0, 2, 3, 4, 5 and 7 pair with
    // the centres 0, 60, 120, 180, 240 and 300 degrees (1 and 6 are not read); in the table
    // paths slot k is weighted by table k.
    struct SelectiveColorParameters {
        float amount[kSlots] = {};
        float &operator[](int k) { return amount[k]; }
        float operator[](int k) const { return amount[k]; }
    };

    // Amounts added to every pixel whatever its family, in units of one full range.
    struct OverallParameters {
        float lightness = 0;  // lightness or value
        float saturation = 0;
        float hue = 0;
    };

    SelectiveColorFilter();
    // Copies share the tables: a table set up through one object is seen by its copies, and
    // the last owner frees it. The guided filter member is copied as it copies itself.
    SelectiveColorFilter(SelectiveColorFilter const &) = default;
    SelectiveColorFilter &operator=(SelectiveColorFilter const &) = default;
    ~SelectiveColorFilter() = default;

    // --- Hue geometry -------------------------------------------------------------------

    // h - ceil(h / 360) 360, in (-360, 0]: the form in which hues enter a distance.
    static float wrapHue(float h);
    // min(360 - hi + lo, hi - lo) with hi = max(a, b), lo = min(a, b). With a wrapped hue
    // this can be negative (10 wrapped against 60 gives -50); only its square is used.
    static float hueDistance(float a, float b);

    // exp(d^2 / -1236), d the distance of the wrapped hue to centre.
    static float hueMask(float hue, float centre);
    // exp(d^2 / den) with the family's centre and den (table above).
    static float hueMask(float hue, ColorCategory family);
    // The same times 1; `second` is not read.
    static float hueMask(float hue, float second, ColorCategory family);
    // amount exp(d^2 / -1236), d the distance of the unwrapped hue to centre.
    static float hueAdj(float hue, float centre, float amount);
    // Always 1: a place for a weight by lightness or saturation.
    static float rangeMask(float value, ColorCategory family);
    // All six weights of one hue: out[k] = exp(d_k^2 / den[k]), d_k the distance of the
    // wrapped hue to centre[k].
    static void computeHueMask(float hue, float *const out, float const *const centre,
                               float const *const den);

    // --- Tables ----------------------------------------------------------------------------
    // Each slot holds kTableCodes + kTableTail entries (every setup allocates that size, so
    // any setup may follow any other); entry i is the weight at hue i / 65535 x 360 degrees,
    // in units of 1/65535. Slots beyond n keep what they held.

    // Gaussian tables: entry = trunc(65535 exp(d d mult[k])), d the distance of the hue to
    // centre[k] without the wrap; mult carries -1 / width. The tail is not written.
    void setupLUT16U(int n, float const *const mult, float const *const centre);
    // Triangles between ascending centres (n >= 1), weight 1 at a centre falling linearly to
    // 0 at its neighbours (the first and last wrap round through 360), then normalised so
    // that the n tables sum to about 65535 at every code; the first 16384 entries are
    // copied to the tail. `unused` is not read.
    void setupLUT16UTriangle(int n, float const *const unused, float const *const centre);
    // Trapezoids: 1 within inner[k] of centre[k], falling linearly to 0 at outer[k]; family
    // 0 wraps round through 360. Entry = rint(65535 w), saturated. The tail is not written.
    void setupLUT16UTrapezoid(int n, float const *const outer, float const *const centre,
                              float const *const inner);
    // Drops this object's hold on all 16 slots and sets the count to 0.
    void releaseLUT16U();
    // The number of tables set up, and table k (null when absent).
    int lutCount() const { return m_lutCount; }
    std::uint16_t const *lut(int k) const { return m_lut[k].get(); }

    // From Y, Dr, Db (in[0..2], CV_16UC1 of one size) to hue and range planes (out[0] and
    // out[1], (re)created CV_16UC1 at that size): R = Y + 2 Dr - 65536, B = Y + 2 Db -
    // 65536, G = (Y - 0.299 R - 0.114 B) / 0.587 in float; range = max - min of R, G, B;
    // hue in degrees by the sextant formulas (a grey pixel, |range| < 1e-6, has hue 0 and
    // range 0), coded trunc(h / 360 x 65535); range stored as trunc(range), saturated to
    // 65535. Throws "ERROR - SelectiveColorFilter::compHueRange - need Y, Dr, Db in and two
    // planes out" when in has fewer than three planes or out fewer than two, and "ERROR -
    // SelectiveColorFilter - planes must be CV_16UC1 of one size" for mismatched planes.
    void compHueRange(std::vector<cv::Mat> &in, std::vector<cv::Mat> &out);

    // --- Y, Dr, Db paths -------------------------------------------------------------------
    // planes[0..2] are Y, Dr, Db, all CV_16UC1 of the hue plane's size (typically Y reduced
    // to the chroma size, or Dr and Db enlarged to Y's), changed in place. hue is a coded hue
    // plane (from compHueRange), weight a CV_16UC1 plane of per-pixel strength w = value /
    // 65535 (the range plane, or a mask). Per pixel, with the six weights m0..m5 of the
    // centres 0, 60, ..., 300 (den -1236, the hue wrapped first):
    //   Y' = rint(65535 (Y / 65535)^e), e = 4^(-1.8 S1 w), S1 = the lightness set's slots
    //        times their weights;
    //   the chroma (a, b) = (Dr, Db) - 32768 turns by pi times the hue set's weighted sum:
    //        Dr1 = trunc(r sin(t) + 32768), Db1 = trunc(r cos(t) + 32768), t = atan(a / b)
    //        (+pi when b < 0) plus the turn, r the chroma radius
    //        sqrt((a / 32768)^2 + (b / 32768)^2) 32768 in float; Dr1 and Db1 are held in
    //        16 bits (saturated);
    //   Dr' = rint((Dr1 - 32768) g + 32768), Db' likewise, g = 2^(saturation set's sum).
    // Weights are floats, sums and angles doubles. Results saturate. All sets zero
    // leaves Y as it was and moves Dr and Db by at most the one code of the truncation.
    // Every result is within one code of these formulas, and the same for any number of
    // threads, width or row step. Returns true.
    //
    // Errors, checked before anything is written: "ERROR - SelectiveColorFilter::proc - need
    // Y, Dr, Db planes", "ERROR - SelectiveColorFilter::proc - need a further plane" (four-set
    // form), and "ERROR - SelectiveColorFilter - planes must be CV_16UC1 of one size".
    // Planes that are all empty return true at once.

    // Three sets (lightness, saturation, hue). A pixel with Db exactly 32768 turns from +-pi/2.
    // `further` is not read or written: it is there so that the three- and four-set forms
    // take the same arguments.
    bool proc(std::vector<cv::Mat> &planes, std::vector<cv::Mat> &further, cv::Mat const &hue,
              cv::Mat const &weight, SelectiveColorParameters lightness,
              SelectiveColorParameters saturation, SelectiveColorParameters hueShift);
    // Four sets, applied in the order lightness, further plane, saturation, hue. The further
    // plane (further[0], CV_16UC1, a signed plane centred on 32768) becomes
    // rint(65535 sign(c) |c|^e + 32768), c = (value - 32768) / 65535, e = 4^(-1.8 S2 w), S2
    // its set's weighted sum in which slot 5 carries both m4 and m5 (slot 7 is not read).
    // The chroma angle is atan(a / b) without the Db == 32768 case (a zero b gives +-pi/2),
    // +pi when Db < 32768; a grey pixel (a = b = 0) stays grey.
    bool proc(std::vector<cv::Mat> &planes, std::vector<cv::Mat> &further, cv::Mat const &hue,
              cv::Mat const &weight, SelectiveColorParameters lightness,
              SelectiveColorParameters furtherSet, SelectiveColorParameters saturation,
              SelectiveColorParameters hueShift);
    // The family form: the six weights are those of the ColorCategory families (centres and
    // dens above) paired with slots 0, 2, 3, 4, 5, 7; the tone sum counts the red term twice;
    // chroma is scaled on its radius: with s the saturation set's sum (plus overall
    // saturation), r' = r (1 + s) for s > 0, else r 8^s, and Dr' = rint(r' sin(t) + 32768),
    // Db' = rint(r' cos(t) + 32768). The overall amounts add to the lightness sum, to s and
    // to the hue turn. Without overall, all three are 0.
    bool proc(std::vector<cv::Mat> &planes, cv::Mat const &hue, cv::Mat const &weight,
              SelectiveColorParameters lightness, SelectiveColorParameters saturation,
              SelectiveColorParameters hueShift);
    bool proc(std::vector<cv::Mat> &planes, cv::Mat const &hue, cv::Mat const &weight,
              SelectiveColorParameters lightness, SelectiveColorParameters saturation,
              SelectiveColorParameters hueShift, OverallParameters overall);

    // in: Y, Dr, Db and a further plane (CV_16UC1, one size). Computes hue and range planes
    // with compHueRange, then writes out (four planes, (re)created) as the four-set proc
    // would on copies of in, with the range plane as weight; in is left as it was. The second form hands the hue and range
    // planes back in hueRange[0] and hueRange[1]. Throws "ERROR -
    // SelectiveColorFilter::proc2 - need Y, Dr, Db and a further plane" for fewer than four
    // in planes, then the proc texts.
    bool proc2(std::vector<cv::Mat> &in, std::vector<cv::Mat> &out,
               SelectiveColorParameters lightness, SelectiveColorParameters furtherSet,
               SelectiveColorParameters saturation, SelectiveColorParameters hueShift);
    bool proc2(std::vector<cv::Mat> &in, std::vector<cv::Mat> &out, std::vector<cv::Mat> &hueRange,
               SelectiveColorParameters lightness, SelectiveColorParameters furtherSet,
               SelectiveColorParameters saturation, SelectiveColorParameters hueShift);

    // --- Packed table paths ----------------------------------------------------------------
    // image: CV_16UC3, hue code first, then the two other channels; changed in place. The
    // table forms take the hue code for the weights from `hue` (CV_16UC1 of image's size);
    // `other` is not read. The simple forms read it from the pixel. Set sums are
    // sum_k set[k] t_k(hue) over the eight slots (t_k table k, 0..65535), plus the overall
    // amount times 65535. The first eight tables must be set up: otherwise these throw
    // "ERROR - SelectiveColorFilter - tables 0 to 7 are not set up". An image of another
    // type throws "ERROR - SelectiveColorFilter - image must be CV_16UC3" (CV_32FC3 for the
    // float form), a hue plane of another size or type "ERROR - SelectiveColorFilter - hue
    // plane must be CV_16UC1 of the image's size" (CV_32FC1 for the float form). An empty
    // image returns at once. All return true.

    // H, L, S. Hue: x = sum3 / 65535 + H / 65535, wrapped into [0, 1], H' = trunc(65535 x).
    // Masks ms = min(4 S / 65535, 1), ml = min(4 L / 65535, 1). Lightness: k = sum1 ms ml /
    // 65535 within [-1, 1]; L' = L (1 - k) + 65535 k for k > 0, else L (k + 1), truncated.
    // Saturation: k = sum2 / 65535 within [-1, 1]; S' = S (1 - ms ml k) + 65535 ms ml k for
    // k > 0, else S (k + 1), truncated.
    bool procInHLSSpace(cv::Mat &image, cv::Mat const &hue, cv::Mat const &other,
                        SelectiveColorParameters lightness, SelectiveColorParameters saturation,
                        SelectiveColorParameters hueShift, OverallParameters overall);
    // H, S, V: as procInHLSSpace with V in the place of L (masks from S and V). The
    // saturation amount kS = sum2 / 65535 within [-1, 1] (times ms mv when positive) is sent
    // to the debug sink for every pixel as "kS: %f" while a sink is set; the loop then runs
    // on the calling thread, in pixel order, so the sink is never entered from two threads.
    bool procInHSVSpace(cv::Mat &image, cv::Mat const &hue, cv::Mat const &other,
                        SelectiveColorParameters value, SelectiveColorParameters saturation,
                        SelectiveColorParameters hueShift, OverallParameters overall);
    // H, L, S, working on chroma C = S (1 - |2L - 1|) in [0, 1]: ramps r1 = min(C / 0.15, 1)
    // and r2 = min(C / 0.2, 1); lightness amount 0.8 clamp(r1 sum1 / 65535 + overall
    // lightness, -1, 1) applied to L as above; S found again as C / (1.001 - |2L' - 1|) (0
    // unless 0.0001 < L' < 0.9999), then S' = S (1 - r2 k) + r2 k for k > 0, else S (k + 1),
    // k = clamp(sum2 / 65535 + overall saturation, -1, 1). L' and S' are rounded and
    // saturated; the hue turns as in procInHLSSpace. Here sum1 and sum2 leave the overall
    // amounts out: they are added once, after the chroma ramps, so they reach grey too.
    bool procInHLSSpaceSimple(cv::Mat &image, SelectiveColorParameters lightness,
                              SelectiveColorParameters saturation,
                              SelectiveColorParameters hueShift, OverallParameters overall);
    // H, S, V as procInHSVSpace, and S is first multiplied by max(1, (65535 - V') / ((65535
    // - V) + 6553.5)) (rounded, saturated, in double) so that darkened colours keep their
    // look. No trace line.
    bool procInHSVSpaceSimple(cv::Mat &image, SelectiveColorParameters value,
                              SelectiveColorParameters saturation,
                              SelectiveColorParameters hueShift, OverallParameters overall);
    // procInHLSSpace on CV_32FC3 with every channel in [0, 1] (hue 1 = 360 degrees); the
    // table is read at trunc(65535 hue) of the `hue` plane (CV_32FC1), results are not
    // truncated.
    bool procInHSLSpace_32f(cv::Mat &image, cv::Mat const &hue, cv::Mat const &other,
                            SelectiveColorParameters lightness, SelectiveColorParameters saturation,
                            SelectiveColorParameters hueShift, OverallParameters overall);

    // --- Smoothing through blocks ----------------------------------------------------------
    // in and out: three CV_16UC1 planes of one size (out (re)created unless it already
    // holds three such planes, which may be in's own for work in place), cut into 1024 x
    // 1024 tiles; past the image's right and bottom ends a tile holds its last column and
    // row repeated. The per-plane scales must not be 0. Each returns true. Errors: "ERROR -
    // SelectiveColorFilter::compute - need three planes" and the plane text above.

    // Guided smoothing of the chroma: per tile, Y / 65536 and ((Dr or Db) - 32768) scale[i] +
    // 32768 over 65536 form a colour guide; Dr and Db are each filtered along it (radius
    // trunc(radius), eps / 65535) and come back as (result - 32768) / scale[i] + 32768; Y
    // passes through unchanged. No overlap.
    bool compute2(std::vector<cv::Mat> &in, float *const scale, std::vector<cv::Mat> &out,
                  float radius, float eps);
    // Domain-transform smoothing of all three planes together (recursive, three iterations),
    // each plane entering as value / 65536 - 0.5 and leaving as (result + 0.5) 65536, along
    // the edges of guide (three CV_16UC1 planes of in's size, entering the same way).
    // sigmaR is in units of the full range. Overlap 32.
    bool compute3(std::vector<cv::Mat> &in, std::vector<cv::Mat> &guide, std::vector<cv::Mat> &out,
                  float sigmaS, float sigmaR);
    // Domain-transform smoothing of the three planes together, each entering as value
    // scale[i] / 65536 and leaving as result 65536 / scale[i], along the edges of guide
    // (three planes entering with factor 1 / 65536); sigmaR is in 16-bit codes (it is
    // divided by 65536). Overlap 32.
    bool compute4(std::vector<cv::Mat> &in, float *const scale, std::vector<cv::Mat> &guide,
                  std::vector<cv::Mat> &out, float sigmaS, float sigmaR);
    // As compute4 with the planes as their own guide, sigmaR in units of the scaled planes.
    bool compute5(std::vector<cv::Mat> &in, float *const scale, std::vector<cv::Mat> &out,
                  float sigmaS, float sigmaR);

protected:
    TGFilter m_gf;  // compute2's guided filter
    int m_lutCount = 0;
    std::shared_ptr<std::uint16_t[]> m_lut[kMaxTables];

    // Slot k with room for kTableCodes + kTableTail entries, allocated when absent.
    std::uint16_t *slot(int k);
};
