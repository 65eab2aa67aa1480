// The one-dimensional tables: applying a 16-bit table to the 24-megapixel luminance plane
// beside a plain copy of that plane, and building each table shape. The smoothing of a
// 65536-entry table stands beside OpenCV's Gaussian blur of the same row and sigma.
#include <memory>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "bench/support/bench.h"
#include "kestrix1/tables/lut_smoothing.h"
#include "kestrix1/tables/t_lut1d.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

// Cost of filling one table: 65536 entries written.
constexpr std::int64_t kTableBytes = 65536 * 2;

void buildCase(std::string const &name, std::function<void(TLut16U &)> setup) {
    add(
        name, "kestrix1",
        [setup] {
            auto lut = std::make_shared<TLut16U>();
            return Op([lut, setup] { setup(*lut); });
        },
        kTableBytes);
}

int const registered = [] {
    cv::Mat const y = inputs().y16;
    std::int64_t const bytes = std::int64_t(y.total()) * 2 * 2;  // read + write
    add(
        "TLut16UApply", "kestrix1",
        [y] {
            auto lut = std::make_shared<TLut16U>();
            lut->setupLightAdjust(0.1f, 0.3f, 0.4f, -0.2f);
            cv::Mat out(y.size(), CV_16U);
            return Op([lut, y, out] { lut->apply(y, out); });
        },
        bytes);
    add(
        "TLut16UApply", "copy",
        [y] {
            cv::Mat out(y.size(), y.type());
            return Op([y, out]() mutable { kxbench::copyPlane(y, out); });
        },
        bytes);

    // The detail effect's band table: a gap of 1365 codes smoothed with sigma 478.
    buildCase("TLut16ULinearThreshold",
              [](TLut16U &l) { l.setupLinearThreshold(0.2f, 0.1f, 1.0f, 1.0f); });
    buildCase("TLut16ULightAdjust",
              [](TLut16U &l) { l.setupLightAdjust(0.1f, 0.3f, 0.4f, -0.2f); });
    buildCase("TLut16UBlackMedToneWhite",
              [](TLut16U &l) { l.setupBlackMedToneWhiteAdjust(0.3f, -0.2f, 0.4f); });

    add(
        "TableSmoothing", "kestrix1",
        [] {
            auto row = std::make_shared<std::vector<std::uint16_t>>(65536);
            for (int i = 0; i < 65536; ++i)
                (*row)[i] = std::uint16_t(i);
            return Op([row] { smoothTable(row->data(), 65536, 400.0f, 2); });
        },
        kTableBytes);
    add(
        "TableSmoothing", "opencv",
        [] {
            cv::Mat row(1, 65536, CV_32F), out(1, 65536, CV_32F);
            for (int i = 0; i < 65536; ++i)
                row.at<float>(0, i) = float(i);
            return Op([row, out]() mutable {
                cv::GaussianBlur(row, out, cv::Size(0, 1), 400.0, 0.0, cv::BORDER_REPLICATE);
            });
        },
        kTableBytes);
    return 0;
}();

}  // namespace
