#include "kestrix1/hist/normalization.h"

#include <cstdint>

#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"

namespace {

using u16 = std::uint16_t;

// rint for 0 <= v <= 65535 without a library call: adding and taking away 1.5 x 2^52 leaves
// the value rounded to the nearest integer, ties to even, in any vector width.
inline double roundEven(double v) {
    double const magic = 6755399441055744.0;
    return (v + magic) - magic;
}

// One row, in double precision as the offsets are written. Limiting to 0..65535 before the
// rounding gives what rounding and then saturating gives.
__attribute__((always_inline)) inline void normalizeRowBody(u16 const *a, u16 const *b, u16 *db,
                                                            u16 *dr, int n, double strength) {
    for (int x = 0; x < n; ++x) {
        double q = (double(a[x]) + 1024.0) / (double(b[x]) + 1025.0);
        q = q < 0.5 ? 0.5 : q;
        q = q > 4.0 ? 4.0 : q;
        double const w = q * strength, centre = (1.0 - w) * 32769.0;
        double vb = double(db[x]) * w + centre, vr = double(dr[x]) * w + centre;
        vb = vb < 0.0 ? 0.0 : (vb > 65535.0 ? 65535.0 : vb);
        vr = vr < 0.0 ? 0.0 : (vr > 65535.0 ? 65535.0 : vr);
        db[x] = u16(int(roundEven(vb)));
        dr[x] = u16(int(roundEven(vr)));
    }
}

KX_VECTOR_CLONES void normalizeRow(u16 const *a, u16 const *b, u16 *db, u16 *dr, int n,
                                   double strength) {
    normalizeRowBody(a, b, db, dr, n, strength);
}

// The same loop with AVX-512's conversions, which the loop spends most of its time in. The
// same operations in the same order, and no fused multiply-add: the same results.
#if KX_HAVE_AVX2_PATHS
KX_AVX512_TARGET void normalizeRow512(u16 const *a, u16 const *b, u16 *db, u16 *dr, int n,
                                      double strength) {
    normalizeRowBody(a, b, db, dr, n, strength);
}
#endif

bool plane(cv::Mat const &m, cv::Size size) {
    return m.type() == CV_16UC1 && m.size() == size;
}

}  // namespace

void Normalization::normalizeDBDR(cv::Mat const &a, cv::Mat const &b, cv::Mat &db, cv::Mat &dr,
                                  float strength) {
    cv::Size const size = a.size();
    if (a.empty() || !plane(a, size) || !plane(b, size) || !plane(db, size) || !plane(dr, size))
        return;
    auto row = normalizeRow;
#if KX_HAVE_AVX2_PATHS
    if (kxHasAvx512()) row = normalizeRow512;
#endif
    parallelRows(size.height, std::int64_t(size.area()), [&](int y) {
        row(a.ptr<u16>(y), b.ptr<u16>(y), db.ptr<u16>(y), dr.ptr<u16>(y), size.width,
            double(strength));
    });
}
