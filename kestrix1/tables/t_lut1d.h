// One-dimensional look-up tables from pixel value to pixel value.
//
// TLut1D holds a table for one of four depth pairs (8 or 16 bits in, 8 or 16 bits out) and
// maps planes through it. TLut16U and TLut8U fill the table with the library's tone shapes:
// a contrast line through mid-grey with a gap or dead zone around it (the detail effect's
// band amounts and thresholds), a light curve through a not-a-knot spline, and a black,
// mid-tone and white curve through a monotone spline. The gain and threshold ranges of these
// shapes are set at construction or by setKRange() and take effect at the next setup.
//
// Copies and assignments share one table between the objects: a setup through one is seen
// by the others. The table lives until the last of them is destroyed.
#pragma once

#include <cstdint>
#include <memory>

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT TLut1D {
public:
    // Depths of the source plane and of the table's entries, in OpenCV codes: (0, 0) 256
    // 8-bit entries, (0, 2) 256 16-bit entries, (2, 2) 65536 16-bit entries, (2, 0) 65536
    // 8-bit entries. Any other pair throws "ERROR - TLut1D::TLut1D - type". The entries are
    // allocated, not filled.
    explicit TLut1D(int inType = CV_8U, int outType = CV_8U);
    ~TLut1D();

    // dst = table[src] pixel by pixel, for any number of channels. dst is recreated unless
    // it already is a plane of src's size with the table's output depth and src's channel
    // count; src may be dst. An empty src returns at once. The pair (2, 0) indexes its table
    // with the low 8 bits of each source pixel, so only its first 256 entries are ever read.
    // A src whose depth is not the input depth throws
    // "ERROR - TLut1D::apply - src.depth() is not the table's input type".
    void apply(cv::Mat const &src, cv::Mat dst);
    // In place: apply(m, m).
    void apply(cv::Mat m);

    int inType() const { return m_inType; }
    int outType() const { return m_outType; }
    // Number of entries: 256 for 8-bit sources, 65536 for 16-bit ones.
    int size() const;

protected:
    // The entries as bytes; 16-bit tables read them through lut16U().
    std::uint8_t *lut8U() const { return m_lut.get(); }
    std::uint16_t *lut16U() const { return reinterpret_cast<std::uint16_t *>(m_lut.get()); }

    int m_inType;
    int m_outType;
    std::shared_ptr<std::uint8_t> m_lut;
};

// A 16-bit to 16-bit table with the tone shapes of the detail and light effects. Entries are
// 16-bit codes; mid-grey is 32768.
class KESTRIX1_EXPORT TLut16U : public TLut1D {
public:
    // Gain range kLow..kHigh of setupLinearThreshold and setupLightAdjust, thresholdRange in
    // table codes for a threshold of 1, and smoothFactor: the smoothing sigma per code of
    // threshold. The table is allocated, not filled.
    explicit TLut16U(float kLow = 0.0f, float kHigh = 6.0f, int thresholdRange = 8191,
                     float smoothFactor = 0.35f);

    // Sets the four range values of the constructor. The table keeps its entries until the
    // next setup.
    void setKRange(float kLow, float kHigh, int thresholdRange, float smoothFactor);

    // The line through (32768, 32768) with a slope from `gain` (in -1..1, bent towards +-1.5
    // by gainOffset) and, around mid-grey, a gap (threshold > 0: codes within t of 32768 jump
    // away from it) or a dead zone (threshold < 0: codes within |t| become 32768), softened
    // by the table smoothing with sigma |t| x smoothFactor. With a >= 0 the gain is
    // c' = c + (1.5 - c) a / 1.5, else c + (1.5 + c) a / 1.5; the threshold moves towards
    // +-1.5 by b in the same way, where a negative threshold and a negative b act with 0.4 of
    // their strength. Slope s = 1 + (kHigh - 1) c' for c' >= 0, else 1 + (1 - kLow) c';
    // t = trunc(d' thresholdRange / max(s, 1)), limited to +-32767.
    void setupLinearThreshold(float gainOffset, float thresholdOffset, float gain, float threshold);

    // A light curve: the not-a-knot spline through (0, 0), (0.25, (0.5 + 0.35 shadows) / 2),
    // (0.5, 0.5), (0.75, 1 - (0.5 - 0.35 highlights) / 2), (1, 1), sampled at 64 points into
    // curve() and clamped to 0..1, applied after the line of slope s (from gain, as above)
    // and offset (1 - s) 32768 + 13106.8 brightness; the curve is read with linear
    // interpolation between its samples.
    void setupLightAdjust(float brightness, float gain, float shadows, float highlights);

    // A black, mid-tone and white curve: a monotone spline through five points built from the
    // three controls (each in -1..1), sampled at 64 points into curve() and clamped to 0..1,
    // and carried to every code by cubic interpolation between the samples. Positive black
    // lifts the output at the dark end, negative black cuts it; positive white lowers the
    // input of full white, negative white lowers its output; med bends the middle.
    void setupBlackMedToneWhiteAdjust(float black, float med, float white);

    // The 64 samples in 0..1 of the last light or black/mid-tone/white curve.
    float const *curve() const { return m_curve; }

protected:
    float m_kLow;
    float m_kHigh;
    int m_thresholdRange;
    float m_smoothFactor;
    float m_curve[64] = {};
};

// An 8-bit to 8-bit table with the contrast line of TLut16U. Mid-grey is 128.
class KESTRIX1_EXPORT TLut8U : public TLut1D {
public:
    explicit TLut8U(float kLow = 0.0f, float kHigh = 6.0f, int thresholdRange = 32,
                    float smoothFactor = 0.35f);

    void setKRange(float kLow, float kHigh, int thresholdRange, float smoothFactor);

    // As TLut16U::setupLinearThreshold on 256 entries around 128, with the offsets bending
    // towards +-1 instead of +-1.5 (c' = c + (1 - c) a or c + (1 + c) a, and the same for the
    // threshold) and no weakening of negative values; |t| is limited to 127.
    void setupLinearThreshold(float gainOffset, float thresholdOffset, float gain, float threshold);

protected:
    float m_kLow;
    float m_kHigh;
    int m_thresholdRange;
    float m_smoothFactor;
};
