// Statistics kernels on the 24-megapixel luminance plane, beside OpenCV's histogram and
// extremes.
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench/support/bench.h"
#include "kestrix1/kernels/px_stats.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;
using kxbench::sizeOf;
using kxbench::stepOf;

int const registered = [] {
    cv::Mat const y = inputs().y16;
    std::int64_t const bytes = std::int64_t(y.total()) * 2;
    add(
        "HistogramEven16u_256", "kestrix1",
        [y] {
            return Op([y] {
                int hist[256];
                pxHistogramEven(y.ptr<std::uint16_t>(), static_cast<int>(y.step),
                                IppiSize{y.cols, y.rows}, hist, 257, 0, 65536);
                benchmark::DoNotOptimize(hist);
            });
        },
        bytes);
    add(
        "HistogramEven16u_256", "opencv",
        [y] {
            return Op([y] {
                int const channels[] = {0};
                int const bins[] = {256};
                float const range[] = {0.f, 65536.f};
                float const *ranges[] = {range};
                cv::Mat hist;
                cv::calcHist(&y, 1, channels, cv::Mat(), hist, 1, bins, ranges);
            });
        },
        bytes);
    add(
        "MinMax16u", "kestrix1",
        [y] {
            return Op([y] {
                std::uint16_t lo = 0, hi = 0;
                pxMinMax(y.ptr<std::uint16_t>(), static_cast<int>(y.step), IppiSize{y.cols, y.rows},
                         &lo, &hi);
                benchmark::DoNotOptimize(lo);
            });
        },
        bytes);
    add(
        "MinMax16u", "opencv",
        [y] {
            return Op([y] {
                double lo = 0, hi = 0;
                cv::minMaxLoc(y, &lo, &hi);
                benchmark::DoNotOptimize(lo);
            });
        },
        bytes);
    return 0;
}();

}  // namespace
