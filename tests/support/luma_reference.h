// The library's luminance of 16-bit R, G, B for the tests: 0.299 R + 0.587 G + 0.114 B summed
// in float in this order, doubled for data to 32768, rounded to even and capped at 65535.
#pragma once

#include <algorithm>
#include <cmath>

namespace kxtest {

inline int luma16(int r, int g, int b, bool doubled = false) {
    float const s = 0.299f * float(r) + 0.587f * float(g) + 0.114f * float(b);
    return int(std::min(65535.0f, std::nearbyint(doubled ? s + s : s)));
}

}  // namespace kxtest
