// BilateralFilter: a cross bilateral filter computed on a coarse grid (Paris and Durand's
// bilateral grid, as refined by Chen, Paris and Durand).
//
// Every pixel adds its value and a weight of one to a cell of a three-dimensional grid whose
// axes are x, y (sampleS pixels a cell) and the guide's value (sampleR guide units a cell).
// Both grids are blurred along z, x and y by a recursive Gaussian (Alvarez and Mazorra), their
// quotient is taken, and each pixel reads the result back by trilinear interpolation at its
// position and guide value. The plane (CV_8UC1 or CV_16UC1) is filtered in place; the guide
// may be either depth and defaults to the plane itself. The mask refinement and the
// multi-resolution processor are its callers. gradientGuide pulls a guide towards local
// extrema before use.
#pragma once

#include <memory>

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"

class TProgress;

class KESTRIX1_EXPORT BilateralFilter {
public:
    // ---- state, public for the host; written by proc ----------------------------------------
    bool is16Bit = false;  // the last plane filtered was CV_16UC1
    int gridW = 0;         // cells along x: ceil(imageW / sampleS) + 2 + 2 padXY
    int gridH = 0;         // cells along y: ceil(imageH / sampleS) + 2 + 2 padXY
    int gridD = 0;         // cells along the guide: ceil(range / sampleR) + 2 + 2 padZ, <= 252
    // gridW * gridH * gridD floats each, cell (x, y, z) at (x + y * gridW) * gridD + z, then
    // one guard word holding the bits 0x6d6d6d6d. gridWeight holds weights, gridValue the
    // sums of pixel values and, after a proc, the filtered values. Owned by this object and
    // its copies together: never free them.
    float *gridWeight = nullptr;
    float *gridValue = nullptr;
    // Grid margins per side, in cells: along x and y, and along the guide axis. Constant, as
    // every size and offset above rests on them.
    int const padXY = 1;
    int const padZ = 1;
    int guideMin = 0;  // minimum of the last sized guide, truncated to int
    int imageW = 0;    // image size the grid was made for, pixels
    int imageH = 0;
    int sampleS = 0;  // pixels per cell along x and y
    int sampleR = 0;  // guide units per cell along z (reset by the 252-cell limit)
    int ready = 1;    // 1 from construction and after every sizing

    BilateralFilter() = default;
    // Copies every member and shares the grids: the grids are owned jointly and freed with
    // the last object that holds them, so destroying both objects frees them once. Before
    // operator= lets go of the grids it held, their guard words are checked as on a re-size.
    BilateralFilter(BilateralFilter const &other);
    BilateralFilter &operator=(BilateralFilter const &other);
    // Checks the guard words before letting go of the grids. A damaged guard cannot be thrown
    // from here: it is reported as "BilateralFilter::dealloc() - != 0x6d6d6d6d" through
    // Kestrix::toQDebug, and the grids are freed all the same (the guard lies inside the
    // grid's own allocation, so writing over it damages nothing else).
    ~BilateralFilter();

    // Filters inOut (CV_8UC1 or CV_16UC1) in place, guided by edge (CV_8UC1 or CV_16UC1 of
    // inOut's size; an empty edge makes inOut its own guide). Returns false when progress
    // cancels, true otherwise. An empty inOut returns true at once.
    //
    // Sizing, when sampleS >= 2 (sampleR below 1 is taken as 1): range = max - min of the
    // guide, guideMin = (int)min, gridD = ceil(range / sampleR) + 4. A gridD above 252 is cut
    // to 252 with sampleR = (int)(range / 248). The grids are re-allocated only when a grid
    // size or the image size changes, and are re-initialised on every call (weights 1e-20,
    // values 0).
    // With sampleS below 2 the grid and sampling of the last sized call serve as they are;
    // when there is no such grid, or it was made for another image size, proc throws
    // "ERROR - bool BilateralFilter::proc - sampleS < 2 but no grid for this image size".
    //
    // Accumulation: pixel (c, r) goes to cell (padXY + 1 + c / sampleS,
    // padXY + 1 + r / sampleS, zb), zb = rint(sat8(g * a + (padZ + 1 - guideMin / sampleR)))
    // with a = 1 / sampleR (float), the offset computed in double then rounded to float, the
    // product and sum in float; rint is to nearest with ties to even, sat8 saturates to
    // 0..255. Each grid is then blurred along z, x and y with iir(sigma 0.85, 2 passes), and
    // the value grid divided by the weight grid.
    // Read-back: z = g * a + (padZ + 0.5 - guideMin / sampleR), zi = rint(sat8(z)),
    // zf = z - zi; fx = c / sampleS + padXY + 0.5 and fy = r / sampleS + padXY + 0.5 in
    // float, with their integer parts ix, iy. The cells (ix, iy), (ix + 1, iy), (ix, iy + 1),
    // (ix + 1, iy + 1) are interpolated along z (zi to zi + 1, by zf), then x, then y, each
    // step as a + f (b - a); the result is rounded to nearest (ties to even), clamped to the
    // plane's range and written over the pixel. The offsets 1 in the accumulation and 0.5 in
    // the read-back differ on purpose: tuned callers rely on the half-cell shift.
    //
    // Safety: the 252-cell limit rounds sampleR down, so a guide value can map past the last
    // cell (range 30000 with sampleR 100; an 8-bit guide with sampleR 1). Every z index is
    // clamped into 0..gridD-1 (the fraction is kept), which is as if the grid's last cell
    // were repeated; within the grid nothing changes.
    //
    // Throws "ERROR - bool BilateralFilter::proc - inOut.size !=  edge.size",
    // "ERROR - bool BilateralFilter::proc - inOut and edge must be CV_8UC1 or CV_16UC1",
    // the reuse text above, "ERROR - BilateralFilter::alloc()" when the grids cannot be
    // allocated (or would exceed 2^31 - 2 cells), and "BilateralFilter::dealloc() - !=
    // 0x6d6d6d6d" when the guard of a grid about to be released is damaged (the object then
    // keeps its grids and settings). All are checked before the plane is touched. Progress:
    // prog(0, 4), then four prog() steps; a cancel before the last leaves the plane alone.
    // The result does not depend on the number of threads.
    bool proc(cv::Mat const &edge, cv::Mat &inOut, int sampleS, int sampleR, TProgress *progress);

    // Moves each pixel u of inOut to the guide value g of in at the same place when g lies
    // strictly between u and the local extreme on the side where that extreme is farther:
    // with U the maximum and L the minimum of inOut over a disc of the given radius (offsets
    // with sqrt(i^2 + j^2) <= radius + 0.5; radius below 1 is taken as 1), u becomes g if
    // U - u > u - L and u < g < U, or if U - u <= u - L and L < g < u. A border of radius
    // pixels keeps inOut's values. Returns true; an empty inOut returns true at once.
    // Throws "ERROR - BilateralFilter::gradientGuide - in image type" when the types differ
    // or the depth is neither 8 nor 16 bit unsigned, "ERROR - BilateralFilter::gradientGuide
    // - image type " for more than one channel, and
    // "ERROR - BilateralFilter::gradientGuide - in.size != inOut.size".
    static bool gradientGuide(cv::Mat const &in, cv::Mat &inOut, int radius);

    // gridW * gridH * gridD, in cells.
    int getGridSize() const;

protected:
    // The building blocks, open to tests through a subclass.

    // Sizes (and if needed allocates) the grids for a guide and image, as proc describes;
    // with sampleS below 2 only is16Bit is set.
    bool setup(cv::Mat const &edge, int width, int height, int sampleS, int sampleR, bool is16);
    // Releases the grids after checking their guards (throws on a damaged guard), then
    // allocates gridW x gridH x gridD cells and a guard word for each grid.
    void alloc();
    // Sets every cell of gridWeight to weight and of gridValue to value.
    void gridInit(float weight, float value);
    // Accumulation, blur and division, as proc describes.
    void buildGrid(cv::Mat &plane, cv::Mat const &guide);
    // The blur: iir(0.85, 2 passes) along z, x and y, weights then values.
    void filterGrids();
    // The trilinear read-back into plane.
    void interpGrid(cv::Mat &plane, cv::Mat const &guide);

    // Recursive Gaussian approximation on n floats `stride` floats apart:
    // q = sigma^2 / (2 passes) in float, nu = (2q + 1 - sqrt(4q + 1)) / (2q) in double,
    // boundary = 1 / (1 - nu), post = (nu / q)^passes (repeated squaring, inverted for
    // negative passes). Each pass: d[0] *= boundary, d[i] += nu d[i-1] upwards,
    // d[n-1] *= boundary, d[i] += nu d[i+1] downwards; finally every d[i] *= post. Products
    // are formed in double, each result stored as float. passes should be at least 1.
    static void iir(float *data, int n, int stride, float sigma, int passes);
    // Trilinear step on eight corner values: p[i] += dx (p[i+4] - p[i]) for i < 4, then
    // p[i] += dy (p[i+2] - p[i]) for i < 2, then p[0] += dz (p[1] - p[0]); the result is in
    // p[0], and p[1..3] hold the intermediate values.
    static void interp8Points(float *p, float dx, float dy, float dz);
    // Address of cell (x, y, z) in gridWeight and gridValue.
    float *gridPtr(int x, int y, int z);
    float *gridDPtr(int x, int y, int z);

private:
    struct Grids;
    // Releases the grids after checking their guards; throws on a damaged guard.
    void dealloc();

    std::shared_ptr<Grids> m_grids;  // owns gridWeight and gridValue, shared by copies
};
