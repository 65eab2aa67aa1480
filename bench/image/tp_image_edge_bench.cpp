// Edge planes and full-size rebuilding on the 24-megapixel luminance, each beside upSize2X of
// the same half-size plane to full size with the member's own enlargement (the pyramid method
// 257 for the edge members, cubic for reconstructFull): the share of the work every rebuild
// has to do, so the ratio says what the rest costs on top.
#include <opencv2/core.hpp>

#include "bench/support/bench.h"
#include "kestrix1/image/scaling.h"
#include "kestrix1/image/tp_image.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

struct Edge : TPImage {
    using TPImage::edgeToFull;
    using TPImage::fullToEdge;
    using TPImage::reconstructFull;
};

int const registered = [] {
    cv::Mat const y = inputs().y16;
    cv::Mat low(TPImage::half(y.rows), TPImage::half(y.cols), CV_16UC1);
    downSize2X(y, low, 4);
    // A changed half plane: the low plane with its contrast lowered, as a smoothing would.
    cv::Mat changed;
    low.convertTo(changed, CV_16UC1, 0.8, 6553.0);
    cv::Mat edge;
    Edge::fullToEdge(y, low, edge);
    std::int64_t const full16 = std::int64_t(y.total()) * 2, half16 = std::int64_t(low.total()) * 2;
    std::int64_t const full8 = std::int64_t(y.total());

    struct Case {
        char const *name;
        int peerMethod;
        std::int64_t bytes;
        std::function<void(cv::Mat &)> run;
    } const cases[] = {
        {"FullToEdge16u", 257, full16 + half16 + full8,
         [y, low](cv::Mat &out) { Edge::fullToEdge(y, low, out); }},
        {"EdgeToFull16u", 257, full8 + half16 + full16,
         [edge, low](cv::Mat &out) { Edge::edgeToFull(edge, low, out, 2.0f); }},
        {"EdgeToFullLocalGain16u", 257, full8 + 2 * half16 + full16,
         [edge, low, changed](cv::Mat &out) {
             Edge::edgeToFull(edge, low, changed, out, 0.01f, 2.0f);
         }},
        {"ReconstructFull16u", 4, 2 * full16 + half16,
         [y, changed](cv::Mat &out) { Edge::reconstructFull(y, changed, out, 0.01f, 1.0f); }},
    };
    for (Case const &c : cases) {
        auto run = c.run;
        int const type = c.name[0] == 'F' ? CV_8UC1 : CV_16UC1;
        add(
            c.name, "kestrix1",
            [run, y, type] {
                cv::Mat out(y.size(), type);
                return Op([run, out]() mutable { run(out); });
            },
            c.bytes);
        int const method = c.peerMethod;
        add(
            c.name, "upsize",
            [y, low, method] {
                cv::Mat out(y.size(), CV_16UC1);
                return Op([low, out, method]() mutable { upSize2X(low, out, method); });
            },
            half16 + full16);
    }
    return 0;
}();

}  // namespace
