// The library's fixed texts that more than one place needs: error texts shared by a family
// of functions and the labels of timing lines. Internal.
//
// Hosts compare these texts character for character, so they live in one place and are
// never composed at run time.
#pragma once

// Errors of the blending, box and scaling families.
inline constexpr char const kxErrBlendAlphaType[] = "ERROR - blendAlpha - in0.type()!=in1.type()";
inline constexpr char const kxErrFilterBoxType[] = "tFilterBox - type not supported";
inline constexpr char const kxErrUp2XBuffer[] = "ERROR - up2X - ippsMalloc_8u(pBufferSize)";

// Errors of the mask painter when a fill or invert kernel fails.
inline constexpr char const kxErrMaskInvert[] = "Error - TFDrawMask::invertMask - ippStsError";
inline constexpr char const kxErrMaskReset[] = "Error - TFDrawMask::resetMask - ippStsError";

// Labels of timing lines.
inline constexpr char const kxTimeRemap[] = "time to remap: ";
inline constexpr char const kxTimeBuildPyramidCv[] = "time to build pyramid using cv method: ";
inline constexpr char const kxTimeBuildPyramidSimple[] =
    "time to build pyramid using simple method: ";
inline constexpr char const kxTimeReconstruct[] = "time to reconstruct: ";
inline constexpr char const kxTimeColorAdjLut[] = "time to compute LUT for color adj: ";

// Errors shared by the pixel paths of the selective colour filter.
inline constexpr char const kxErrSelectivePlanes[] =
    "ERROR - SelectiveColorFilter - planes must be CV_16UC1 of one size";
