// tFilterBox: a box blur of any radius on a TImage plane, in about the same time whatever
// the radius: beyond 53 pixels the plane is shrunk first, so that the box never spans more
// than 109 pixels of the shrunk plane, and enlarged again afterwards.
#pragma once

#include "kestrix1/frame/export.h"

class TImage;
class TProgress;

// Blurs in_p into out_p with a box of 2 radius + 1 pixels a side, `passes` times (three
// passes come close to a Gaussian of sigma radius).
//
// Served are Y16U images and C8U2 images; of a C8U2 image only the first plane is blurred
// (and out_p's second plane is left as it was). in_p and out_p have the same type; out_p
// must have in_p's size unless radius or passes is below 1, in which case out_p becomes a
// copy of in_p (TImage::copyFrom) and nothing is blurred. An empty in_p is handled the same
// way.
//
// With f = radius / 54 + 1 (integer division), the plane is shrunk by cv::resize (linear)
// to its width / f by height / f (at least 1 x 1), blurred with the radius radius / f and
// enlarged back linearly; with f = 1 (radius up to 53) it is blurred at full size. Each pass
// reflects the plane's edge (the pixel at the border is not repeated) and rounds to
// nearest.
//
// Progress, with its sense reversed from the rest of the library, kept because hosts rely on
// it: after each pass progress->prog() is called, and a true answer ends the blur at once,
// returning true with out_p not written. After the last pass out_p is written, and the
// result is a last progress->prog(), or false without progress.
//
// Throws "tFilterBox - in_p->type() != out_p->type()" when the types differ (checked first)
// and "tFilterBox - type not supported" for other types; when it would blur, an out_p of
// another size throws TImage::fromMat's "ERROR - TImage::copyFrom - size is not equal" on
// entry. The steps run in parallel inside; progress is called on the calling thread.
KESTRIX1_EXPORT bool tFilterBox(TImage const *in_p, TImage *out_p, int radius, int passes,
                                TProgress *progress);
