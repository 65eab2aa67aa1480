// `kestrix detail`: one photograph through the detail effect, as a photo editor drives it.
#pragma once

#include <string>

#include "cli/detail_options.h"

// The bundled sample photograph: the copy in the source tree this program was built from,
// else the installed copy under <prefix>/share/kestrix1 beside bin/. Empty when neither is
// there.
std::string defaultPhotoPath();

// Reads the input, splits its luminance, runs the effect with `options` and writes the
// result. Throws UsageError, FileError, or the library's `char const *` texts.
void runDetail(DetailOptions const &options);
