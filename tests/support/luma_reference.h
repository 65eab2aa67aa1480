// The library's luminance of 16-bit R, G, B, written plainly for the tests.
#pragma once

#include <algorithm>
#include <cmath>

namespace kxtest {

// Y = 0.299 R + 0.587 G + 0.114 B, summed in float in this order, doubled for hosts whose
// data run 0..32768, rounded to nearest even and capped at 65535.
inline int luma16(int r, int g, int b, bool doubled = false) {
    float const s = 0.299f * float(r) + 0.587f * float(g) + 0.114f * float(b);
    return int(std::min(65535.0f, std::nearbyint(doubled ? s + s : s)));
}

}  // namespace kxtest
