// BlockProcessor: runs a per-block filter over a 16-bit image too large to filter at once.
//
// The image is cut into overlapping blocks of nearly equal size near a requested size,
// rounded to multiples of 16 pixels where the cut allows. Each block is handed out as a
// compact buffer whose border (edgeSize pixels on every side) holds the neighbouring image
// or, past the image's end, its replicated edge. Processed blocks are rejoined first along
// a full-width strip, then the strip into the output; across each overlap the later block
// or strip fades in over the earlier one with a linear ramp, or the earlier one is kept
// (the hard taper). Only one block and one strip per plane are held, never a copy of the
// image.
//
// Use:
//     bp.initialize(in, out, 1024, 1024, true, 32, 0, BlockProcessor::EDGE_TAPER_LINEAR);
//     while (bp.getBlockImage(rect, blocks)) { process blocks in place; bp.writeBackBlock(); }
// The processing must keep each block's size, type and pixel buffer: writeBackBlock reads
// the buffers whose headers getBlockImage gave out.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT BlockProcessor {
public:
    // How the overlap of a block with what came before it is rejoined. The two linear kinds
    // are the same cross-fade. The hard taper keeps the earlier block or strip in the whole
    // overlap and draws one rand() per overlap row or column, discarding it.
    enum EDGE_TAPER_TYPE { EDGE_TAPER_LINEAR = 0, EDGE_TAPER_LINEAR_ALT = 1, EDGE_TAPER_HARD = 2 };

    BlockProcessor();
    // Copies share the images and the block and strip buffers; the weights are copied.
    BlockProcessor(BlockProcessor const &other);
    ~BlockProcessor();
    BlockProcessor &operator=(BlockProcessor const &other);

    // Cuts the image and allocates one block and one strip buffer per plane.
    // - input, output: either any number of CV_16UC1 planes of one size (planar), or a
    //   single CV_16UC3 or CV_16UC4 image (interleaved); output[i] matches input[i] in size
    //   and type. Output may share its pixels with input for in-place processing.
    // - blkW, blkH: the wished block size including the border of `edge` pixels on each
    //   side; the core of a block is cut near blkW - 2 edge by blkH - 2 edge.
    // - aligned: not read; the cut is always the 16-aligned one.
    // - overlap: the wished overlap of neighbouring cores, in pixels.
    // Throws "BlockProcessor::initialize - input or output is empty." when a vector or its
    // first image is empty, "BlockProcessor::initialize - input type is not correct." for a
    // first image of another type, "input size doesn't match with output size!" for a pair
    // of different sizes (or fewer outputs than inputs), and "not supported input is given
    // in BlockProcessor::init" for several interleaved images, planes of mixed types or
    // sizes, or a negative edge. Calling it again starts over.
    void initialize(std::vector<cv::Mat> input, std::vector<cv::Mat> output, int blkW, int blkH,
                    bool aligned, int overlap, int edge,
                    enum BlockProcessor::EDGE_TAPER_TYPE taper);

    // Moves to the next block (not on the first call after initialize), fills the block
    // buffers and gives their headers to `blocks` (getBlkHeight() x getBlkWidth() each).
    // `rect`, when not null, receives x, y, width, height of the image area copied in; the
    // block's core starts edgeSize pixels inside the buffer. Returns false after the last
    // block. Called twice without writeBackBlock() in between at the start, it gives the
    // first block again.
    bool getBlockImage(int *rect, std::vector<cv::Mat> &blocks);

    // Rejoins the content of the block buffers as the processed block at the current place.
    // Throws "in BlockProcessor::copyOneBlock, overlapX<0" or "... overlapY<0" when the cut
    // leaves a gap between blocks (possible only with a negative overlap).
    void writeBackBlock(void);

    // Moves to the next block as getBlockImage() does, without copying; false at the end.
    bool hasNextBlock(void);

    int getEdgeSize(void);
    int getBlkWidth(void);   // blockW + 2 edgeSize
    int getBlkHeight(void);  // blockH + 2 edgeSize
    int getNumOfBlks(void);  // numBlocksY * numBlocksX, as the cut estimates them

private:
    // Cuts n pixels into blocks near `wish` overlapping by about `overlap`; returns the
    // count and sets the block size and the step between block origins.
    int calculateBlockSizeInOneDimension(int n, int wish, int overlap, int &block, int &step,
                                         bool aligned);
    int estimateNumOfBlocks(int n, int block, float overlapShare);
    int getSizeWordAlgined(int v);   // v / 16 * 16 + 16
    int getSizeDWordAlgined(int v);  // v / 32 * 32 + 32

    bool advance();
    void computeOverlapAlphaArray(int n);
    void convertBlockDuplicateBorder(int *rect);
    void imageExtendBorder(cv::Mat &m, int left, int top, int right, int bottom);
    void writeBlockToStrip(int bw, int bh);
    void writeStripToOutput(int overlapY, int bh);
    void doEdgeTaperInX(int overlapX, int bh);

    // truncate(a * w + b * (1 - w)) per channel, in single precision.
    static unsigned short blend(unsigned short a, unsigned short b, float w);
    static cv::Vec<unsigned short, 2> blend(cv::Vec<unsigned short, 2> const &a,
                                            cv::Vec<unsigned short, 2> const &b, float w);
    static cv::Vec<unsigned short, 3> blend(cv::Vec<unsigned short, 3> const &a,
                                            cv::Vec<unsigned short, 3> const &b, float w);
    static cv::Vec<unsigned short, 4> blend(cv::Vec<unsigned short, 4> const &a,
                                            cv::Vec<unsigned short, 4> const &b, float w);

    int numImages;
    std::vector<cv::Mat> input;
    std::vector<cv::Mat> output;
    int interleaved;                // 0 planar, 1 one interleaved image
    int format;                     // 0 CV_16UC1 planes, 1 CV_16UC4, 2 CV_16UC3
    std::vector<cv::Mat> blockBuf;  // per plane, (blockH + 2 edgeSize) x (blockW + 2 edgeSize)
    std::vector<cv::Mat> stripBuf;  // per plane, blockH x imageW
    float *alpha;                   // max(blockW, blockH) cross-fade weights
    int imageW, imageH;
    int edgeSize;
    EDGE_TAPER_TYPE taperType;
    int blockW, blockH;
    int stepX, stepY;
    int numBlocksY, numBlocksX;
    int curX, curY;  // origin of the current block's core
    int doneX;       // right end of what the strip holds for this row of blocks
    int doneY;       // bottom end of what the output holds
};
