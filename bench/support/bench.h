// Shared pieces of the kestrix1 benchmarks.
//
// Each benchmark case is registered twice or more under one case name: once for kestrix1
// ("<case>/kestrix1") and once for each peer ("<case>/copy", "<case>/opencv", ...). After
// the run, the main of the benchmarks prints the time of kestrix1 over the time of each
// peer, measured in the same process on the same input.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>

#include "kestrix1/kernels/px_types.h"

namespace kxbench {

// One timed operation, and the function that prepares it (allocating its outputs).
using Op = std::function<void()>;
using MakeOp = std::function<Op()>;

// Registers a case as "<caseName>/<who>", timed in real time and reported in ms, with
// `bytes` bytes read plus written per call for the MB/s column. `make` runs untimed, and
// so does one first call of the operation, so that allocation and first touch of the
// output pages are never counted.
void add(std::string const &caseName, std::string const &who, MakeOp make, std::int64_t bytes);

// The standard inputs, made once per process from data/coffee.png upscaled by 10 to
// 6000 x 4000 (24 megapixels).
struct Inputs {
    cv::Mat bgr8;  // CV_8UC3, 6000 x 4000
    cv::Mat y16;   // CV_16UC1 luminance, 0..65535
    cv::Mat dr16;  // CV_16UC1, half size, neutral 32768
    cv::Mat db16;  // CV_16UC1, half size, neutral 32768
    cv::Mat y32f;  // CV_32FC1 luminance, 0..1
};
Inputs const &inputs();

// The size and row step of a plane, as the kernels take them.
inline IppiSize sizeOf(cv::Mat const &m) { return {m.cols, m.rows}; }
inline int stepOf(cv::Mat const &m) { return static_cast<int>(m.step); }

// A copy of `bytes` bytes of plane, parallel over rows: the memory-bandwidth floor.
void copyPlane(cv::Mat const &src, cv::Mat &dst);

}  // namespace kxbench
