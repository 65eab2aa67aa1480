// DTFilter on the 24-megapixel planes beside OpenCV contrib's domain-transform filter with the
// same sigmas and three iterations: the recursive filter (mode 0 against DTF_RF) and
// normalised convolution (mode 1 against DTF_NC) on the gray plane, and both again on the two
// half-size chroma planes interleaved as CV_32FC2, as the detail effect runs them. The vector
// form filters three half-size colour planes along the edges of all three, against one
// contrib filter made from the three as a colour guide and run on each plane.
//
// DTFilter::setup sets the process's OpenMP team to min(cores, 4) threads; OpenCV's own
// thread pool is given the same count so that both sides run on the same threads.
#include <omp.h>

#include <algorithm>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/ximgproc.hpp>
#include <vector>

#include "bench/support/bench.h"
#include "kestrix1/filters/dt_filter.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

void sameThreads() {
    DTFilter probe;
    probe.setup(1.0f, 1.0f, 3, DTFilter::L1);
    cv::setNumThreads(omp_get_max_threads());
}

// One case: DTFilter::proc in `mode` against cv::ximgproc::dtFilter in `peerMode`, both with
// the image as its own guide.
void dtCase(std::string const &name, cv::Mat const &image, float sigmaS, float sigmaR, int mode,
            int peerMode) {
    std::int64_t const bytes = std::int64_t(image.total() * image.elemSize()) * 2;
    add(
        name, "kestrix1",
        [image, sigmaS, sigmaR, mode] {
            auto filter = std::make_shared<DTFilter>();
            filter->setup(sigmaS, sigmaR, 3, DTFilter::L1);
            cv::Mat out(image.size(), image.type());
            return Op([filter, image, out, mode]() mutable { filter->proc(image, out, mode); });
        },
        bytes);
    add(
        name, "opencv",
        [image, sigmaS, sigmaR, peerMode] {
            cv::Mat out(image.size(), image.type());
            return Op([image, out, sigmaS, sigmaR, peerMode]() mutable {
                cv::ximgproc::dtFilter(image, image, out, sigmaS, sigmaR, peerMode, 3);
            });
        },
        bytes);
}

// The vector form: planes along the gradients summed over all of them, beside the contrib
// filter that takes its domain from them as one colour guide and filters each plane.
void planesCase(std::string const &name, std::vector<cv::Mat> const &planes, float sigmaS,
                float sigmaR) {
    std::int64_t const bytes = std::int64_t(planes[0].total() * sizeof(float)) * 2 *
                               std::int64_t(planes.size());
    add(
        name, "kestrix1",
        [planes, sigmaS, sigmaR] {
            auto filter = std::make_shared<DTFilter>();
            filter->setup(sigmaS, sigmaR, 3, DTFilter::L1);
            std::vector<cv::Mat> out, guides = planes;
            return Op([filter, planes, out, guides]() mutable {
                filter->proc(planes, out, 0, guides);
            });
        },
        bytes);
    add(
        name, "opencv",
        [planes, sigmaS, sigmaR] {
            cv::Mat guide;
            cv::merge(planes, guide);
            std::vector<cv::Mat> out(planes.size());
            return Op([planes, guide, out, sigmaS, sigmaR]() mutable {
                auto peer = cv::ximgproc::createDTFilter(guide, sigmaS, sigmaR,
                                                         cv::ximgproc::DTF_RF, 3);
                for (std::size_t p = 0; p < planes.size(); ++p)
                    peer->filter(planes[p], out[p]);
            });
        },
        bytes);
}

int const registered = [] {
    sameThreads();
    cv::Mat const y = inputs().y32f;
    dtCase("DTF_RF_Gray", y, 20.0f, 0.1f, 0, cv::ximgproc::DTF_RF);
    dtCase("DTF_NC_Gray", y, 20.0f, 0.1f, 1, cv::ximgproc::DTF_NC);
    // The detail effect's chroma: 16-bit values carried as float, range sigma 4259.71.
    cv::Mat chroma, chroma32;
    cv::merge(std::vector<cv::Mat>{inputs().dr16, inputs().db16}, chroma);
    chroma.convertTo(chroma32, CV_32F);
    dtCase("DTF_RF_ChromaC2", chroma32, 20.0f, 4259.71f, 0, cv::ximgproc::DTF_RF);
    dtCase("DTF_NC_ChromaC2", chroma32, 20.0f, 4259.71f, 1, cv::ximgproc::DTF_NC);
    cv::Mat half;
    cv::resize(inputs().bgr8, half, cv::Size(3000, 2000), 0, 0, cv::INTER_AREA);
    half.convertTo(half, CV_32F, 257.0);
    std::vector<cv::Mat> bgr;
    cv::split(half, bgr);
    planesCase("DTF_RF_Planes3", bgr, 20.0f, 4259.71f);
    return 0;
}();

}  // namespace
