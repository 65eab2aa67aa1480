#include "kestrix1/hist/lum_transfer.h"

#include "kestrix1/filters/local_filter.h"
#include "kestrix1/hist/hist_match.h"

namespace {

// Pyramid depth handed to the filter's constructor; every proc of the filter sets its own
// depth from the plane's size, so this only fills the member until then.
constexpr int kPyramidLevels = 8;
// Reference grey levels of the filter: 16 keeps a round within a few pyramid builds.
constexpr int kRemapLevels = 16;

}  // namespace

LumTransfer::LumTransfer() : filter(new LocalFilter(kPyramidLevels, kRemapLevels)) {}

LumTransfer::LumTransfer(LumTransfer const &other)
    : filter(new LocalFilter(*other.filter)),
      iterations(other.iterations),
      work(other.work),
      targetCDF(other.targetCDF),
      targetGradientCDF(other.targetGradientCDF),
      resultCDF(other.resultCDF),
      curve(other.curve) {}

LumTransfer &LumTransfer::operator=(LumTransfer const &other) {
    if (this != &other) {
        *filter = *other.filter;
        iterations = other.iterations;
        work = other.work;
        targetCDF = other.targetCDF;
        targetGradientCDF = other.targetGradientCDF;
        resultCDF = other.resultCDF;
        curve = other.curve;
    }
    return *this;
}

LumTransfer::~LumTransfer() {
    delete filter;
}

bool LumTransfer::setup(cv::Mat const &reference, int rounds) {
    iterations = rounds;
    HistMatch::computeGradientCDF(reference, targetGradientCDF, 256);
    HistMatch::computeCDF(reference, targetCDF, 256);
    return true;
}

bool LumTransfer::proc(cv::Mat const &in, cv::Mat &out) {
    if (out.size() != in.size() || out.type() != in.type()) out.create(in.size(), in.type());
    if (iterations <= 0 || in.empty()) return true;
    cv::Mat x = in.clone();
    for (int round = 0; round < iterations; ++round) {
        HistMatch::computeGradientCDF(x, work, 256);
        HistMatch::match(work, targetGradientCDF, curve);
        filter->adjustRemap(curve);
        filter->proc3(x, out, nullptr);
        HistMatch::computeCDF(out, resultCDF, 256);
        HistMatch::match(resultCDF, targetCDF, curve);
        HistMatch::remap(out, curve, x);
    }
    x.copyTo(out);
    return true;
}
