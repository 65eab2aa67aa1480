// TLightAdjLUTd3: the light adjustment of the detail effect, as a table over Y.
//
// Each pixel's R, G and B are scaled by one gain: the value of a user curve over the value
// of a fixed reference curve, both read at a brightness that exposure and contrast have
// moved. One gain for all three channels keeps the local contrast and the hue; colours
// pushed out of range are then pulled towards their least component until the greatest is
// 1. Through TLutY16U::proc only the new Y is kept, so the adjustment changes Y alone.
//
// Use: construct, setupParams(six slider values), then proc(Y plane) of TLutY16U.
#pragma once

#include "kestrix1/frame/export.h"
#include "kestrix1/tables/t_lut_y.h"

class KESTRIX1_EXPORT TLightAdjLUTd3 : public TLutY16U {
public:
    TLightAdjLUTd3() = default;
    ~TLightAdjLUTd3() override = default;

    // Copies share the Y table and copy the curve and every parameter.
    TLightAdjLUTd3(TLightAdjLUTd3 const &) = default;
    TLightAdjLUTd3 &operator=(TLightAdjLUTd3 const &) = default;

    // Must be called before proc. a sets the exposure (0.343 a^3); b the contrast (2 b^3 + 1
    // for a positive b, 1 / (1 - 5 b^3) otherwise); c and d lift the upper and lower
    // shoulder of the user curve, e and f move its top and bottom ends. All 0 is neutral
    // apart from the curve's shape: a not-a-knot spline through (0.5, 0.5) with its ends at
    // x = 0.5 -+ 0.5 / 1.4.
    void setupParams(float a, float b, float c, float d, float e, float f);

    // The mapping of one pixel in the 16-bit plane coding (Dr, Db neutral at 32768). Reads
    // only the object, so it may run on many threads at once.
    void mapYDrDb(unsigned short &Y, unsigned short &Dr, unsigned short &Db) override;

protected:
    float m_curve[64] = {};   // the user curve sampled at i / 63, in 0..1
    float m_exposure = 0.0f;  // 0.343 a^3
    float m_contrast = 1.0f;  // from b
    float m_shape[4] = {};    // c, d, e, f as given
};
