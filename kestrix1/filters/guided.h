// Guided filtering of whole images of any depth, the way a host calls it.
//
// filterGuidedByY and filterGuidedByRGB wrap TGFilter for plain CV_8U, CV_16U or CV_32F
// images: they cut target and guide to their common top-left rectangle, bring the estimate's
// inputs to 0..1 in float (8-bit by 1/255, 16-bit by 1/65535), estimate with radius r and
// regulariser eps, and apply the model on the guide in its own depth. Both print the time of
// each phase on standard output.
#pragma once

#include <opencv2/core.hpp>

#include "kestrix1/filters/tg_filter.h"
#include "kestrix1/frame/export.h"

// Filters p along the edges of one guide plane into out, created at p's size and type;
// only the common rectangle of p and guide is written.
// - gf receives the coefficients and keeps them; when null, a filter lives for the call.
// - n = 1: one pass, timed ("filterGuidedByY - guided filtering estimate - " and
//   "filterGuidedByY - guided filtering proc - ", then the seconds and " s.").
// - n > 1: each pass filters the result of the one before (at out's depth); no timing.
// - n < 1: out keeps what it had.
// The one-guide apply writes only 8-bit and float results: a CV_16U p leaves out as
// created. An empty guide or p throws
// "ERROR - filterGuidedByY - Guide or Input data can not be empty...".
KESTRIX1_EXPORT void filterGuidedByY(cv::Mat &out, cv::Mat &p, cv::Mat &guide, int r, float eps,
                                     TGFilter *gf, int n);

// Filters p along the edges of three guide planes into out, created at p's size and type,
// over the common rectangle of p and guideR. Every pass starts again from p, and every pass
// is timed ("filterGuidedByRGB - guided filtering estimate - ", "... proc - "). Results are
// written as 8-bit values. A float p is scaled by 1.0 when n is not 1 and by 0.0 on a
// single pass, which therefore yields zeros: kept as hosts have always seen it. Guides of
// different depths throw "ERROR - filterGuidedByRGB - Guide data need to use same data
// type...".
KESTRIX1_EXPORT void filterGuidedByRGB(cv::Mat &out, cv::Mat &p, cv::Mat &guideR, cv::Mat &guideG,
                                       cv::Mat &guideB, int r, float eps, TGFilter *gf, int n);
