// Blending of two planes under an opacity and a painted mask, and scaling of a byte plane:
// how a host applies an edited picture over the original only where, and as strongly as,
// the user asks.
#pragma once

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"

// Mixes in1 over in0 into out. With b a pixel of in0, t the pixel of in1 at the same place
// and c the mode's candidate (mode 0: t, normal; 1: the smaller of b and t, darken; 2: the
// larger, lighten):
//
//   no mask:   out = c opacity + b (1 - opacity)
//   with mask: a = m (opacity / 255), for m the mask's pixel; out = c a + b (1 - a)
//
// computed in float. For the integer types the result is truncated, not rounded, so a pixel
// where b = c can come out one level lower than both when float rounding falls just short.
// opacity is meant to lie in 0..1; it is not checked, and values outside give values outside
// the range of b and c, which wrap for the integer types.
//
// in0 and in1 are CV_8UC1, CV_16UC1 or CV_32FC1 of one type and size; `mask` is empty or a
// CV_8UC1 plane of their size. out is (re)created at their size and type. If in0 or in1 is
// empty nothing happens; any other mode than 0, 1 or 2 leaves out created but unwritten.
// out may be in0 or in1 (the blend then happens in place). Parallel over rows.
//
// Throws, in this order, "ERROR - blendAlpha - in0.type()!=in1.type()", "ERROR - blendAlpha -
// in0.size() !=in1.size()", "ERROR - blendAlpha - in0 type" (a type not served) and "ERROR -
// blendAlpha - mask must be empty or CV_8UC1 of in0's size".
KESTRIX1_EXPORT void blendAlpha(cv::Mat const &in0, cv::Mat const &in1, cv::Mat const &mask,
                                cv::Mat &out, float opacity, int mode);

// out = in x factor, rounded to nearest (halves to even) and saturated to 0..255, in float,
// over width x height bytes; the steps are in bytes. out may be in. Nothing happens for a
// width or height below 1. Parallel over rows.
KESTRIX1_EXPORT void blendC(unsigned char const *in, int inStep, unsigned char *out, int outStep,
                            int width, int height, float factor);
