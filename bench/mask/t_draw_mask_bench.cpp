// The mask painter on the 24-megapixel working image.
#include <cmath>
#include <memory>
#include <vector>

#include "bench/support/bench.h"
#include "kestrix1/image/tp_image.h"
#include "kestrix1/mask/t_draw_mask.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

// The working image of the standard inputs, shared by every case.
std::shared_ptr<TPImage> workingImage() {
    static std::shared_ptr<TPImage> const image = [] {
        auto im = std::make_shared<TPImage>();
        im->m_Y = inputs().y16;
        im->m_Dr = inputs().dr16;
        im->m_Db = inputs().db16;
        return im;
    }();
    return image;
}

// ---- brush

// A colour-gated soft dot of radius 100 (inner 30) in the middle of the image, beside the
// same formula written as one plain loop over the square.
constexpr int kDotRadius = 100, kDotInner = 30;

int const brushRegistered = [] {
    cv::Point const centre(3000, 2000);
    std::int64_t const side = 2 * kDotRadius + 1;
    std::int64_t const bytes = side * side * (4 + 1 + 1) + side * side / 4 * 4;
    add(
        "BrushGatedDot", "kestrix1",
        [centre] {
            auto mask = std::make_shared<TDrawMask>();
            mask->setInImage(workingImage().get(), false);
            mask->updateLUT(kDotRadius, kDotInner);
            return Op([mask, centre] {
                mask->brushMaskDotLUT(255, 0.8f, centre, kDotRadius, true, false);
            });
        },
        bytes);
    add(
        "BrushGatedDot", "scalar",
        [centre] {
            auto lut = std::make_shared<std::vector<float>>(TDrawMask::kLutSize, 0.0f);
            for (int d = 0; d < kDotRadius; ++d) {
                double const t =
                    d < kDotInner ? 0.0 : double(d - kDotInner) / (kDotRadius - kDotInner);
                (*lut)[d] = float((std::exp(-2 * t * t) - std::exp(-2.0)) / (1 - std::exp(-2.0)));
            }
            TPImage const &im = *workingImage();
            cv::Mat yf;
            im.m_Y.convertTo(yf, CV_32F, 1.5259021896696422e-5);
            cv::Mat mask(yf.size(), CV_8UC1, cv::Scalar(0));
            cv::Mat dr = im.m_Dr, db = im.m_Db;
            return Op([=]() mutable {
                float const y0 = yf.at<float>(centre);
                float const dr0 = dr.at<std::uint16_t>(centre / 2) / 65535.0f;
                float const db0 = db.at<std::uint16_t>(centre / 2) / 65535.0f;
                double const v = int(255 * 0.8f);
                for (int y = centre.y - kDotRadius; y <= centre.y + kDotRadius; ++y)
                    for (int x = centre.x - kDotRadius; x <= centre.x + kDotRadius; ++x) {
                        int const dx = x - centre.x, dy = y - centre.y;
                        float const w = (*lut)[int(std::sqrt(float(dx * dx + dy * dy)) + 0.5f)];
                        double const num =
                            1.5 * std::fabs(yf.at<float>(y, x) - y0) +
                            6.0 * (double(std::fabs(dr.at<std::uint16_t>(y / 2, x / 2) / 65535.0f -
                                                    dr0)) +
                                   double(std::fabs(db.at<std::uint16_t>(y / 2, x / 2) / 65535.0f -
                                                    db0)));
                        double const q = std::min(1.0, num / (w + 0.1));
                        double const g = w * (1 - q * q * (3 - 2 * q));
                        std::uint8_t &m = mask.at<std::uint8_t>(y, x);
                        m = std::uint8_t(int(v * g + m * (1.0 - g)));
                    }
            });
        },
        bytes);
    return 0;
}();

}  // namespace
