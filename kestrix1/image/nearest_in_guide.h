// The nearest-in-guide enlargement of half-size chroma planes, one output row at a time.
// Internal.
//
// Every output pixel depends only on the guide and the half-size planes around it, so a row
// can be made whenever a caller wants it: the conversion to the host's RGB consumes each
// chroma row at once and never needs a full-size chroma plane at all. Which neighbour a
// pixel copies depends on the guide alone, so planes enlarged under one guide (Dr and Db)
// share the choices.
//
// The work runs on a split grid. Of a full-size row, the even and the odd columns are two
// half-width rows, and each kind of new pixel (odd row and odd column, then the rest of
// each row) is a run of choices over contiguous half-width rows: of the guide split the
// same way, of the half-size planes themselves and of the odd-odd pixels already chosen.
// A vector then decides sixteen (or eight) pixels that all need deciding, and the results
// are interleaved into the output row at the end.
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

namespace nearest {

// Rows a caller hands a thread at a time. Each run of rows redoes one row of odd-odd
// choices above itself, so a run should be long against that, and short enough that the
// threads finish together when the machine holds one of them up.
constexpr int kChunkRows = 32;

// Makes the rows of N planes enlarged under one guide. y is the full-size guide, at least
// 2 x 2, and in[k] the half-size planes of (y.rows + 1) / 2 by (y.cols + 1) / 2, all
// CV_16UC1; all must outlive the object. Rows may be asked for in any order; asked for in
// order, each row of the guide is split once and each row of odd-odd choices made once.
// One object serves one thread.
template <int N>
class RowEnlarger {
  public:
    RowEnlarger(cv::Mat const &y, cv::Mat const *const in[N]);
    RowEnlarger(RowEnlarger const &) = delete;
    RowEnlarger &operator=(RowEnlarger const &) = delete;

    // Writes row r of every enlarged plane, W values each, into out[k].
    void row(int r, std::uint16_t *const out[N]);

  private:
    using u16 = std::uint16_t;

    // The guide's row r split into its even and odd columns, made if not held.
    void split(int r);
    u16 const *even(int r) const { return guideEven_[r & 3]; }
    u16 const *odd(int r) const { return guideOdd_[r & 3]; }
    u16 const *plane(int k, int i) const { return in_[k]->template ptr<u16>(i); }

    // The odd-odd choices of row 2i + 1, made if not held.
    void diagonal(int i);
    void evenRow(int r, u16 *const out[N]);
    void oddRow(int r, u16 *const out[N]);

    cv::Mat const &y_;
    cv::Mat const *in_[N];
    int H_, W_;
    std::vector<u16> store_;
    u16 *guideEven_[4], *guideOdd_[4];  // rows r of the guide at slot r & 3
    int guideRow_[4];
    u16 *diag_[2][N];  // the odd-odd choices of row 2i + 1 at slot i & 1
    int diagRow_[2];
    u16 *cross_[N];  // the other new pixels of the row being made
};

}  // namespace nearest
