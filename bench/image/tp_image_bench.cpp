// TPImage's planar host conversions on the 24-megapixel photograph, each beside a plane copy
// that reads and writes as many bytes: in, three 16-bit planes to Y and the half-size Dr, Db;
// out, the reverse. Both move 9 bytes a pixel.
#include <memory>

#include "bench/support/bench.h"
#include "kestrix1/image/tp_image.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

// The host's three 16-bit planes R, G, B of the standard input (bytes x 257).
struct HostPlanes {
    cv::Mat rgb[3];
    unsigned short *ptr[3];
};

std::shared_ptr<HostPlanes> hostPlanes() {
    auto host = std::make_shared<HostPlanes>();
    cv::Mat bgr[3];
    cv::split(inputs().bgr8, bgr);
    for (int c = 0; c < 3; ++c) {
        bgr[2 - c].convertTo(host->rgb[c], CV_16U, 257.0);
        host->ptr[c] = host->rgb[c].ptr<unsigned short>();
    }
    return host;
}

// The copy floor: a plane of half the bytes, read once and written once.
void copyPeer(std::string const &name, std::int64_t bytes) {
    add(
        name, "copy",
        [bytes] {
            // Varied bytes: a constant plane can be served from shared pages and flatter the floor.
            cv::Mat src(4000, int(bytes / 2 / 4000), CV_8UC1), dst;
            cv::randu(src, 0, 256);
            return Op([src, dst]() mutable { kxbench::copyPlane(src, dst); });
        },
        bytes);
}

int const registered = [] {
    std::int64_t const pixels = std::int64_t(inputs().bgr8.total());
    std::int64_t const bytes = pixels * 9;

    add(
        "convertFrompRGB", "kestrix1",
        [] {
            auto host = hostPlanes();
            auto im = std::make_shared<TPImage>();
            return Op([host, im] {
                im->convertFrompRGB(host->ptr, host->rgb[0].cols, host->rgb[0].rows, 0);
            });
        },
        bytes);
    copyPeer("convertFrompRGB", bytes);

    add(
        "convertTopRGB", "kestrix1",
        [] {
            auto host = hostPlanes();
            auto im = std::make_shared<TPImage>();
            im->convertFrompRGB(host->ptr, host->rgb[0].cols, host->rgb[0].rows, 0);
            return Op([host, im] { im->convertTopRGB(host->ptr, 0); });
        },
        bytes);
    copyPeer("convertTopRGB", bytes);
    return 0;
}();

}  // namespace
