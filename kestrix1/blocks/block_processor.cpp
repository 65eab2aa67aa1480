#include "kestrix1/blocks/block_processor.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kestrix1/frame/errors.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_geometry.h"

namespace {

char const kEmpty[] = "BlockProcessor::initialize - input or output is empty.";
char const kBadType[] = "BlockProcessor::initialize - input type is not correct.";
char const kSizeMismatch[] = "input size doesn't match with output size!";
char const kNotSupported[] = "not supported input is given in BlockProcessor::init";
char const kRoiTooSmall[] = "BlockProcessor::convertBlockDuplicatedBorder roiSize<1";
char const kOverlapXNegative[] = "in BlockProcessor::copyOneBlock, overlapX<0";
char const kOverlapYNegative[] = "in BlockProcessor::copyOneBlock, overlapY<0";

// Truncation toward zero, kept defined for the infinite or huge quotients that a wished
// overlap at or beyond the wished block size produces.
int truncToInt(double v) {
    constexpr double kLimit = 1 << 30;
    if (std::isnan(v)) return 0;
    if (v >= kLimit) return 1 << 30;
    if (v <= -kLimit) return -(1 << 30);
    return static_cast<int>(v);
}

// Weights for an overlap of up to max(blockW, blockH) pixels, plus the closing 1.0.
int alphaLength(int blockW, int blockH) {
    return std::max(1, std::max(blockW, blockH) + 1);
}

// truncate(a * w + b * (1 - w)), single precision, no rounding term: the cross-fade of
// every rejoin. The rest of the library relies on the truncation being exactly this.
inline std::uint16_t blendValue(std::uint16_t a, std::uint16_t b, float w, float rest) {
    return static_cast<std::uint16_t>(static_cast<int>(float(a) * w + float(b) * rest));
}

template <int CN>
cv::Vec<unsigned short, CN> blendVec(cv::Vec<unsigned short, CN> const &a,
                                     cv::Vec<unsigned short, CN> const &b, float w) {
    cv::Vec<unsigned short, CN> out;
    for (int c = 0; c < CN; ++c)
        out[c] = blendValue(a[c], b[c], w, 1.0f - w);
    return out;
}

}  // namespace

BlockProcessor::BlockProcessor()
    : numImages(0),
      interleaved(0),
      format(0),
      alpha(nullptr),
      imageW(0),
      imageH(0),
      edgeSize(0),
      taperType(EDGE_TAPER_LINEAR),
      blockW(0),
      blockH(0),
      stepX(0),
      stepY(0),
      numBlocksY(0),
      numBlocksX(0),
      curX(0),
      curY(0),
      doneX(0),
      doneY(0) {}

BlockProcessor::BlockProcessor(BlockProcessor const &other)
    : numImages(other.numImages),
      input(other.input),
      output(other.output),
      interleaved(other.interleaved),
      format(other.format),
      blockBuf(other.blockBuf),
      stripBuf(other.stripBuf),
      alpha(nullptr),
      imageW(other.imageW),
      imageH(other.imageH),
      edgeSize(other.edgeSize),
      taperType(other.taperType),
      blockW(other.blockW),
      blockH(other.blockH),
      stepX(other.stepX),
      stepY(other.stepY),
      numBlocksY(other.numBlocksY),
      numBlocksX(other.numBlocksX),
      curX(other.curX),
      curY(other.curY),
      doneX(other.doneX),
      doneY(other.doneY) {
    if (other.alpha != nullptr) {
        int const n = alphaLength(blockW, blockH);
        alpha = new float[n];
        std::copy(other.alpha, other.alpha + n, alpha);
    }
}

BlockProcessor::~BlockProcessor() {
    delete[] alpha;
}

BlockProcessor &BlockProcessor::operator=(BlockProcessor const &other) {
    if (this == &other) return *this;
    float *weights = nullptr;
    if (other.alpha != nullptr) {
        int const n = alphaLength(other.blockW, other.blockH);
        weights = new float[n];
        std::copy(other.alpha, other.alpha + n, weights);
    }
    delete[] alpha;
    alpha = weights;
    numImages = other.numImages;
    input = other.input;
    output = other.output;
    interleaved = other.interleaved;
    format = other.format;
    blockBuf = other.blockBuf;
    stripBuf = other.stripBuf;
    imageW = other.imageW;
    imageH = other.imageH;
    edgeSize = other.edgeSize;
    taperType = other.taperType;
    blockW = other.blockW;
    blockH = other.blockH;
    stepX = other.stepX;
    stepY = other.stepY;
    numBlocksY = other.numBlocksY;
    numBlocksX = other.numBlocksX;
    curX = other.curX;
    curY = other.curY;
    doneX = other.doneX;
    doneY = other.doneY;
    return *this;
}

void BlockProcessor::initialize(std::vector<cv::Mat> in, std::vector<cv::Mat> out, int blkW,
                                int blkH, bool /*aligned*/, int overlap, int edge,
                                enum BlockProcessor::EDGE_TAPER_TYPE taper) {
    // Everything is checked before anything is stored, so that a failed call leaves the
    // object as it was.
    kxRequire(!in.empty() && !out.empty() && !in[0].empty() && !out[0].empty(), kEmpty);
    int const type = in[0].type();
    kxRequire(type == CV_16UC1 || type == CV_16UC3 || type == CV_16UC4, kBadType);
    std::size_t const pairs = std::min(in.size(), out.size());
    for (std::size_t i = 0; i < pairs; ++i)
        if (!in[i].empty() && !out[i].empty())
            kxRequire(in[i].rows == out[i].rows && in[i].cols == out[i].cols, kSizeMismatch);
    // Every input plane is read and written back, so each needs an output.
    kxRequire(out.size() >= in.size(), kSizeMismatch);
    if (type == CV_16UC1) {
        // Planes are cut together: all of them must be CV_16UC1 of the first one's size.
        for (std::size_t i = 0; i < in.size(); ++i)
            kxRequire(in[i].type() == CV_16UC1 && out[i].type() == CV_16UC1 &&
                          in[i].rows == in[0].rows && in[i].cols == in[0].cols,
                      kNotSupported);
    } else {
        kxRequire(in.size() == 1 && out[0].type() == type, kNotSupported);
    }
    // A negative border would put the block's core outside its buffer.
    kxRequire(edge >= 0, kNotSupported);

    int const w = in[0].cols;
    int const h = in[0].rows;
    int bW = 0, bH = 0, sX = 0, sY = 0;
    int const nX = calculateBlockSizeInOneDimension(w, blkW - 2 * edge, overlap, bW, sX, true);
    int const nY = calculateBlockSizeInOneDimension(h, blkH - 2 * edge, overlap, bH, sY, true);

    // Buffers keep their memory when a later call asks for the same sizes. The strip holds
    // only the rows a block contributes: its border rows are never rejoined.
    int const planes = type == CV_16UC1 ? int(in.size()) : 1;
    blockBuf.resize(planes);
    stripBuf.resize(planes);
    for (int p = 0; p < planes; ++p) {
        blockBuf[p].create(bH + 2 * edge, bW + 2 * edge, type);
        stripBuf[p].create(bH, w, type);
    }
    float *weights = new float[alphaLength(bW, bH)]();
    delete[] alpha;
    alpha = weights;

    input = std::move(in);
    output = std::move(out);
    numImages = int(input.size());
    format = type == CV_16UC1 ? 0 : type == CV_16UC4 ? 1 : 2;
    interleaved = type == CV_16UC1 ? 0 : 1;
    imageW = w;
    imageH = h;
    edgeSize = edge;
    taperType = taper;
    blockW = bW;
    blockH = bH;
    // A step of at least one pixel keeps the block loop finite whatever the overlap.
    stepX = std::max(1, sX);
    stepY = std::max(1, sY);
    numBlocksX = nX;
    numBlocksY = nY;
    curX = curY = doneX = doneY = 0;
}

int BlockProcessor::calculateBlockSizeInOneDimension(int n, int wish, int overlap, int &block,
                                                     int &step, bool aligned) {
    float const r = 1.0f - float(overlap) / float(wish);  // the share of a block that is new
    if (n <= wish) {
        block = step = getSizeWordAlgined(n);
        return 1;
    }
    int count = 0;
    int d = 0;
    if (aligned) {
        if (float(2 * wish) * r > float(n)) {
            block = getSizeWordAlgined(truncToInt(n * 0.5 / r));
            step = getSizeWordAlgined(n / 2);
            return 2;
        }
        int const a16 = getSizeWordAlgined(wish);
        count = std::max(truncToInt(float(n - a16) / (float(a16) * r) + 0.85) + 1, 2);
        block = truncToInt(float(n / count) / r);
        d = n - block;
    } else {
        block = wish;
        count = std::max(truncToInt(float(n - wish) / (float(wish) * r) + 0.85) + 1, 2);
        d = n - wish;
    }
    // Spread the d pixels beyond the first block over count - 1 steps, rounding up.
    int const q = d / (count - 1);
    step = q + 1;
    int const e = d - (count - 1) * (q + 1);
    if (e > 0) step = e / count + q + 2;
    if (step > block) step = truncToInt(float(block) * r);
    return count;
}

int BlockProcessor::estimateNumOfBlocks(int n, int block, float overlapShare) {
    return truncToInt(float(n - block) / (float(block) * (1.0f - overlapShare)) + 0.85) + 1;
}

int BlockProcessor::getSizeWordAlgined(int v) {
    return v / 16 * 16 + 16;
}

int BlockProcessor::getSizeDWordAlgined(int v) {
    return v / 32 * 32 + 32;
}

bool BlockProcessor::advance() {
    if (curX + blockW < imageW) {
        curX += stepX;
        if (curX + blockW > imageW) curX = imageW - blockW;  // the last block ends at the edge
        curX = std::max(curX, 0);
        return true;
    }
    if (curY + blockH >= imageH) return false;
    curX = 0;
    doneX = 0;
    doneY = std::min(imageH, curY + blockH);
    curY += stepY;
    if (curY + blockH > imageH) curY = imageH - blockH;
    curY = std::max(curY, 0);
    return true;
}

bool BlockProcessor::hasNextBlock(void) {
    return advance();
}

bool BlockProcessor::getBlockImage(int *rect, std::vector<cv::Mat> &blocks) {
    if (blockBuf.empty()) return false;  // never initialised
    // Nothing rejoined yet means the first block, which is where initialize left us.
    if (!(doneX == 0 && doneY == 0) && !advance()) return false;
    convertBlockDuplicateBorder(rect);
    if (&blocks != &blockBuf) blocks = blockBuf;
    return true;
}

void BlockProcessor::convertBlockDuplicateBorder(int *rect) {
    int const bufW = blockW + 2 * edgeSize;
    int const bufH = blockH + 2 * edgeSize;
    int const sx = curX - edgeSize;
    int const sy = curY - edgeSize;
    int const x = std::max(sx, 0);
    int const y = std::max(sy, 0);
    int const dx = sx < 0 ? -sx : 0;
    int const dy = sy < 0 ? -sy : 0;
    int const w = std::min(sx + bufW, imageW) - x;
    int const h = std::min(sy + bufH, imageH) - y;
    kxRequire(w >= 1 && h >= 1, kRoiTooSmall);
    for (std::size_t p = 0; p < blockBuf.size(); ++p) {
        cv::Mat const &src = input[p];
        cv::Mat &dst = blockBuf[p];
        int const cn = src.channels();
        pxCopy(src.ptr<std::uint16_t>(y) + std::size_t(x) * cn, int(src.step),
               dst.ptr<std::uint16_t>(dy) + std::size_t(dx) * cn, int(dst.step), IppiSize{w, h},
               cn);
        imageExtendBorder(dst, dx, dy, bufW - dx - w, bufH - dy - h);
    }
    if (rect != nullptr) {
        rect[0] = x;
        rect[1] = y;
        rect[2] = w;
        rect[3] = h;
    }
}

void BlockProcessor::imageExtendBorder(cv::Mat &m, int left, int top, int right, int bottom) {
    int const rows = m.rows;
    int const cols = m.cols;
    int const cn = m.channels();
    if (rows - top - bottom < 1 || cols - left - right < 1) return;  // nothing to replicate
    // Side columns of the inner rows first, then whole rows up and down: the same pixels
    // as rows first and columns after, with the short work first.
    int const inner = rows - top - bottom;
    if (left > 0 || right > 0)
        parallelRows(inner, std::int64_t(left + right) * cn * inner, [&](int i) {
            std::uint16_t *row = m.ptr<std::uint16_t>(top + i);
            std::uint16_t const *first = row + std::size_t(left) * cn;
            std::uint16_t const *last = row + std::size_t(cols - right - 1) * cn;
            for (int x = 0; x < left; ++x)
                for (int c = 0; c < cn; ++c)
                    row[x * cn + c] = first[c];
            for (int x = cols - right; x < cols; ++x)
                for (int c = 0; c < cn; ++c)
                    row[x * cn + c] = last[c];
        });
    std::size_t const rowBytes = m.elemSize() * std::size_t(cols);
    parallelRows(top + bottom, std::int64_t(cols) * cn * (top + bottom), [&](int i) {
        bool const above = i < top;
        int const y = above ? i : rows - bottom + (i - top);
        std::memcpy(m.ptr(y), m.ptr(above ? top : rows - bottom - 1), rowBytes);
    });
}

void BlockProcessor::writeBackBlock(void) {
    int const overlapX = doneX - curX;
    kxRequire(overlapX >= 0, kOverlapXNegative);
    int const bw = std::min(blockW, imageW - curX);
    int const bh = std::min(blockH, imageH - curY);
    bool const stripDone = curX + blockW >= imageW;
    int const overlapY = doneY - curY;
    if (!output.empty()) {
        if (stripDone) kxRequire(overlapY >= 0, kOverlapYNegative);
        if (overlapX > 0) {
            computeOverlapAlphaArray(overlapX);
            doEdgeTaperInX(overlapX, bh);
        }
        writeBlockToStrip(bw, bh);
        if (stripDone) {
            computeOverlapAlphaArray(overlapY);
            writeStripToOutput(overlapY, bh);
        }
    }
    doneX = std::min(imageW, curX + bw);
}

void BlockProcessor::computeOverlapAlphaArray(int n) {
    n = std::min(n, alphaLength(blockW, blockH) - 1);
    for (int k = 0; k < n; ++k)
        alpha[k] = float(k + 1) / float(n + 1);
    alpha[n] = 1.0f;
}

void BlockProcessor::doEdgeTaperInX(int overlapX, int bh) {
    int const cn = blockBuf[0].channels();
    int const planes = int(blockBuf.size());
    int const len = overlapX * cn;
    bool const hard = taperType == EDGE_TAPER_HARD;
    float const *weights = alpha;
    parallelRows(bh, std::int64_t(len) * planes * bh, [&](int row) {
        if (hard) std::rand();  // drawn and dropped; callers count on the draws
        for (int p = 0; p < planes; ++p) {
            std::uint16_t *b =
                blockBuf[p].ptr<std::uint16_t>(row + edgeSize) + std::size_t(edgeSize) * cn;
            std::uint16_t const *s = stripBuf[p].ptr<std::uint16_t>(row) + std::size_t(curX) * cn;
            if (hard) {
                // Weight 0: the strip's pixel comes through exactly.
                std::memcpy(b, s, sizeof(std::uint16_t) * len);
                continue;
            }
            for (int k = 0; k < overlapX; ++k) {
                float const w = weights[k];
                float const rest = 1.0f - w;
                for (int c = 0; c < cn; ++c)
                    b[k * cn + c] = blendValue(b[k * cn + c], s[k * cn + c], w, rest);
            }
        }
    });
}

void BlockProcessor::writeBlockToStrip(int bw, int bh) {
    if (bw < 1 || bh < 1) return;
    for (std::size_t p = 0; p < blockBuf.size(); ++p) {
        cv::Mat const &b = blockBuf[p];
        cv::Mat &s = stripBuf[p];
        int const cn = b.channels();
        pxCopy(b.ptr<std::uint16_t>(edgeSize) + std::size_t(edgeSize) * cn, int(b.step),
               s.ptr<std::uint16_t>(0) + std::size_t(curX) * cn, int(s.step), IppiSize{bw, bh}, cn);
    }
}

void BlockProcessor::writeStripToOutput(int overlapY, int bh) {
    int const cn = stripBuf[0].channels();
    int const planes = int(stripBuf.size());
    int const len = imageW * cn;
    bool const hard = taperType == EDGE_TAPER_HARD;
    float const *weights = alpha;
    parallelRows(bh, std::int64_t(len) * planes * bh, [&](int r) {
        if (curY + r >= imageH) return;
        bool const blended = r < overlapY;
        if (blended && hard) {
            // Weight 0 keeps the earlier strip's row as it is; only the draw remains.
            std::rand();
            return;
        }
        float const w = blended ? weights[r] : 1.0f;
        float const rest = 1.0f - w;
        for (int p = 0; p < planes; ++p) {
            std::uint16_t const *s = stripBuf[p].ptr<std::uint16_t>(r);
            std::uint16_t *o = output[p].ptr<std::uint16_t>(curY + r);
            if (!blended) {
                std::memcpy(o, s, sizeof(std::uint16_t) * len);
                continue;
            }
            for (int i = 0; i < len; ++i)
                o[i] = blendValue(s[i], o[i], w, rest);
        }
    });
}

unsigned short BlockProcessor::blend(unsigned short a, unsigned short b, float w) {
    return blendValue(a, b, w, 1.0f - w);
}

cv::Vec<unsigned short, 2> BlockProcessor::blend(cv::Vec<unsigned short, 2> const &a,
                                                 cv::Vec<unsigned short, 2> const &b, float w) {
    return blendVec<2>(a, b, w);
}

cv::Vec<unsigned short, 3> BlockProcessor::blend(cv::Vec<unsigned short, 3> const &a,
                                                 cv::Vec<unsigned short, 3> const &b, float w) {
    return blendVec<3>(a, b, w);
}

cv::Vec<unsigned short, 4> BlockProcessor::blend(cv::Vec<unsigned short, 4> const &a,
                                                 cv::Vec<unsigned short, 4> const &b, float w) {
    return blendVec<4>(a, b, w);
}

int BlockProcessor::getEdgeSize(void) {
    return edgeSize;
}

int BlockProcessor::getBlkWidth(void) {
    return blockW + 2 * edgeSize;
}

int BlockProcessor::getBlkHeight(void) {
    return blockH + 2 * edgeSize;
}

int BlockProcessor::getNumOfBlks(void) {
    return numBlocksY * numBlocksX;
}
