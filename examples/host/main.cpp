// A minimal host: what a photo editor does with kestrix1, in one file.
//
// Build against an installed kestrix1, either with CMake (see CMakeLists.txt beside this file):
//   cmake -S examples/host -B build-host -DCMAKE_PREFIX_PATH=<prefix> && cmake --build build-host
// or in one line with pkg-config:
//   g++ -std=c++17 -O2 main.cpp $(pkg-config --cflags --libs kestrix1) -o host
// (PKG_CONFIG_PATH=<prefix>/lib/pkgconfig when the prefix is not a system one; at run time
// LD_LIBRARY_PATH=<prefix>/lib unless the library is on the loader's path.)
//
// The program makes an 8-bit BGRA picture of its own, brings it into the working image,
// softens the luminance by reducing it to half size and enlarging it again, writes the result
// back into its buffer and prints one line: the size, the mean of each channel and a
// checksum of the bytes.
#include <cstdint>
#include <cstdio>
#include <vector>

#include "kestrix1/kestrix1.h"

int main() {
    // An odd size on purpose: the colour planes are then half the size rounded up.
    int const width = 641, height = 481, stride = 4 * width;

    // The host's own pixels: blue, green, red, alpha per pixel, rows `stride` bytes apart.
    // A colour ramp with a sharp-edged square in the middle.
    std::vector<unsigned char> pixels(std::size_t(stride) * height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            unsigned char *p = &pixels[std::size_t(y) * stride + 4 * std::size_t(x)];
            bool inSquare =
                x > width / 3 && x < 2 * width / 3 && y > height / 3 && y < 2 * height / 3;
            p[0] = (unsigned char)(255 * x / (width - 1));                         // blue
            p[1] = (unsigned char)(255 * y / (height - 1));                        // green
            p[2] = inSquare ? 230 : (unsigned char)(255 - 255 * x / (width - 1));  // red
            p[3] = 255;                                                            // alpha
        }
    }

    try {
        // Into the working image: full-size Y, half-size Dr and Db, all 16-bit.
        TPImage image;
        image.convertFrom(pixels.data(), width, height, stride);

        // The effect: Y to half size and back, cubic both ways. The library never allocates
        // an output for the caller, so the half plane is made here.
        cv::Mat halfY(image.hHeight(), image.hWidth(), CV_16UC1);
        downSize2X(image.m_Y, halfY, 4);
        upSize2X(halfY, image.m_Y, 4);

        // Back into the host's buffer (blue, green, red, 255).
        image.convertTo(pixels.data(), stride);
    } catch (char const *error) {
        // Wrong arguments are reported by a fixed text, thrown before any output is touched.
        std::fprintf(stderr, "kestrix1 error: %s\n", error);
        return 1;
    }

    // Mean of each channel and an FNV-1a hash of every byte.
    double sum[3] = {0, 0, 0};
    std::uint32_t hash = 2166136261u;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            unsigned char const *p = &pixels[std::size_t(y) * stride + 4 * std::size_t(x)];
            for (int c = 0; c < 4; ++c) {
                if (c < 3) sum[c] += p[c];
                hash = (hash ^ p[c]) * 16777619u;
            }
        }
    }
    double const n = double(width) * height;
    std::printf("%dx%d  mean B %.3f G %.3f R %.3f  checksum %08x\n", width, height, sum[0] / n,
                sum[1] / n, sum[2] / n, unsigned(hash));
    return 0;
}
