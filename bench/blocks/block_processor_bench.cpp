// BlockProcessor's own cost on the 24-megapixel 16-bit plane: 1024 x 1024 blocks with 32
// pixels of overlap around a cheap per-block operation, beside the same operation on the
// whole plane. Also prints the heap that one processor holds for its buffers.
#include <malloc.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "bench/support/bench.h"
#include "kestrix1/blocks/block_processor.h"
#include "kestrix1/filters/dt_filter.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

using BlockOp = std::function<void(cv::Mat &block)>;

// The plane through blocks: initialize, then the block loop with `work` on each block in
// place. One processor and one output are reused from call to call, as a host reuses them.
Op throughBlocks(cv::Mat const &plane, BlockOp work) {
    auto bp = std::make_shared<BlockProcessor>();
    cv::Mat out(plane.size(), plane.type());
    auto blocks = std::make_shared<std::vector<cv::Mat>>();
    return [bp, plane, out, blocks, work] {
        bp->initialize({plane}, {out}, 1024, 1024, true, 32, 0, BlockProcessor::EDGE_TAPER_LINEAR);
        int rect[4];
        while (bp->getBlockImage(rect, *blocks)) {
            work((*blocks)[0]);
            bp->writeBackBlock();
        }
    };
}

// The recursive domain-transform filter on a 16-bit plane, through float, as the detail
// effect smooths its chroma: sigma 32 (its value for a 24-megapixel photograph), range
// 4259.71, three iterations. Each call of setup sets the same process-wide thread state.
void recursiveFilter(cv::Mat &m) {
    static thread_local DTFilter filter;
    static thread_local cv::Mat work;
    filter.setup(32.0f, 4259.71f, 3, DTFilter::L1);
    m.convertTo(work, CV_32F);
    filter.proc(work, work, 0);
    work.convertTo(m, CV_16U);
}

void box3(cv::Mat &m) {
    cv::blur(m, m, cv::Size(3, 3), cv::Point(-1, -1), cv::BORDER_REPLICATE);
}

// Heap held by one initialised processor over `plane`, with the thread team already up.
void printHeldBytes(cv::Mat const &plane) {
    throughBlocks(plane, [](cv::Mat &) {})();
    auto heap = [] {
        struct mallinfo2 m = mallinfo2();
        return double(m.uordblks + m.hblkhd);
    };
    {
        BlockProcessor bp;
        cv::Mat out(plane.size(), plane.type());
        double const withOut = heap();
        bp.initialize({plane}, {out}, 1024, 1024, true, 32, 0, BlockProcessor::EDGE_TAPER_LINEAR);
        std::printf(
            "BlockProcessor buffers for %dx%d CV_16UC1, 1024 blocks, overlap 32: "
            "%.2f MB (block %dx%d + strip %dx%d; image %.2f MB)\n",
            plane.cols, plane.rows, (heap() - withOut) / 1e6, bp.getBlkWidth(), bp.getBlkHeight(),
            plane.cols, bp.getBlkHeight(), double(plane.total() * plane.elemSize()) / 1e6);
    }
}

int const registered = [] {
    cv::Mat const y = inputs().y16;
    printHeldBytes(y);
    std::int64_t const bytes = std::int64_t(y.total()) * 2 * 2;
    add(
        "BlocksCopy", "kestrix1", [y] { return throughBlocks(y, [](cv::Mat &) {}); }, bytes);
    add(
        "BlocksCopy", "copy",
        [y] {
            cv::Mat out(y.size(), y.type());
            return Op([y, out]() mutable { kxbench::copyPlane(y, out); });
        },
        bytes);
    add(
        "BlocksBox3x3", "kestrix1", [y] { return throughBlocks(y, box3); }, bytes);
    add(
        "BlocksBox3x3", "opencv",
        [y] {
            cv::Mat out(y.size(), y.type());
            return Op([y, out]() mutable {
                cv::blur(y, out, cv::Size(3, 3), cv::Point(-1, -1), cv::BORDER_REPLICATE);
            });
        },
        bytes);
    add(
        "BlocksDTFilterRF", "kestrix1", [y] { return throughBlocks(y, recursiveFilter); }, bytes);
    add(
        "BlocksDTFilterRF", "whole",
        [y] {
            auto plane = std::make_shared<cv::Mat>();
            return Op([y, plane] {
                y.copyTo(*plane);
                recursiveFilter(*plane);
            });
        },
        bytes);
    return 0;
}();

}  // namespace
