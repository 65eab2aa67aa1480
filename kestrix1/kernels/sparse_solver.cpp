#include "kestrix1/kernels/sparse_solver.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <new>
#include <vector>

#include <omp.h>
#include <suitesparse/cholmod.h>

#include "kestrix1/frame/errors.h"

namespace {

// CHOLMOD's int interface (indices and permutations as int): its indices take half the
// memory of the long one, and a factor with more than 2^31 stored values (some 17 GB, beyond
// 30 megapixels) is refused as too large, which is reported like a lack of memory.
using Index = int;

// Fill-reducing order of the unknowns of a w x h grid with the 5-point stencil (pixel
// y * w + x) and links from each row's end to the next row's start (the pattern of the
// smoothing matrix with its explicit zeros): nested dissection along the grid's rows and
// columns. A rectangle is cut by one line across its longer side; the two halves come first
// and the line last, so eliminating either half never touches the other. Small or thin
// rectangles are ordered straight, the short side running fastest, which keeps their band as
// narrow as the short side.
class GridDissection {
public:
    GridDissection(int w, int h, Index *perm) : w_(w), perm_(perm) { cut(0, 0, w, h); }

private:
    void cut(int x0, int y0, int cw, int ch) {
        if (cw <= 0 || ch <= 0) return;
        if (std::min(cw, ch) <= kThin || cw * ch <= kLeaf) {
            straight(x0, y0, cw, ch);
            return;
        }
        if (cw >= ch) {
            // Across the whole width the last column joins the separator, else the halves
            // would stay connected through the links between image rows.
            bool const wraps = cw == w_;
            int const s = cw / 2;
            cut(x0, y0, s, ch);
            cut(x0 + s + 1, y0, cw - s - 1 - wraps, ch);
            straight(x0 + s, y0, 1, ch);
            if (wraps) straight(x0 + cw - 1, y0, 1, ch);
        } else {
            int const s = ch / 2;
            cut(x0, y0, cw, s);
            cut(x0, y0 + s + 1, cw, ch - s - 1);
            straight(x0, y0 + s, cw, 1);
        }
    }

    void straight(int x0, int y0, int cw, int ch) {
        auto put = [&](int x, int y) { perm_[next_++] = Index(y) * w_ + x; };
        if (cw <= ch) {
            for (int y = y0; y < y0 + ch; ++y)
                for (int x = x0; x < x0 + cw; ++x)
                    put(x, y);
        } else {
            for (int x = x0; x < x0 + cw; ++x)
                for (int y = y0; y < y0 + ch; ++y)
                    put(x, y);
        }
    }

    static constexpr int kThin = 2;
    static constexpr Index kLeaf = 48;
    Index w_;
    Index *perm_;
    Index next_ = 0;
};

// Fill-reducing order of the unknowns of a w x h grid with the 5-point stencil and nothing
// else: nested dissection along the diagonals. Every edge of that grid changes u = x + y by
// one and v = x - y by one, so the pixels on one diagonal u = s (or v = s) separate those on
// either side; such cuts leave fewer pixels next to the separators of the levels above than
// cuts along rows and columns. A region is cut across its longer extent in u or v at its
// median, the two parts come first and the diagonal last; small regions keep their order.
class DiagonalDissection {
public:
    DiagonalDissection(int w, int h, Index *perm) {
        std::vector<Pixel> px;
        px.reserve(std::size_t(w) * h);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                px.push_back({x + y, x - y});
        cut(px.data(), px.data() + px.size());
        for (Pixel const &p : px)
            *perm++ = p.y() * w + p.x();
    }

private:
    // A pixel by its diagonals, which the cuts compare.
    struct Pixel {
        int u, v;
        int x() const { return (u + v) / 2; }
        Index y() const { return (u - v) / 2; }
        bool operator<(Pixel const &o) const {
            return u - v < o.u - o.v || (u - v == o.u - o.v && u < o.u);
        }
    };

    // Orders [begin, end) in place.
    static void cut(Pixel *begin, Pixel *end) {
        Index const count = end - begin;
        if (count <= kLeaf) {
            std::sort(begin, end);  // in raster order
            return;
        }
        int ulo = begin->u, uhi = ulo, vlo = begin->v, vhi = vlo;
        for (Pixel const *p = begin; p != end; ++p) {
            ulo = std::min(ulo, p->u), uhi = std::max(uhi, p->u);
            vlo = std::min(vlo, p->v), vhi = std::max(vhi, p->v);
        }
        int Pixel::*const axis = uhi - ulo >= vhi - vlo ? &Pixel::u : &Pixel::v;
        Pixel *const mid = begin + count / 2;
        std::nth_element(begin, mid, end,
                         [&](Pixel const &a, Pixel const &b) { return a.*axis < b.*axis; });
        int const s = (*mid).*axis;
        Pixel *const below =
            std::partition(begin, end, [&](Pixel const &p) { return p.*axis < s; });
        Pixel *const above =
            std::partition(below, end, [&](Pixel const &p) { return p.*axis == s; });
        // [begin, below) and [above, end) first, then the diagonal [below, above) last.
        std::rotate(below, above, end);
        Pixel *const sep = end - (above - below);
        cut(begin, below);
        cut(below, sep);
        std::sort(sep, end);
    }

    static constexpr Index kLeaf = 48;
};

// The width of the image grid whose 5-point matrix has exactly this upper-triangle pattern
// (1-based compressed rows): row i holds columns i, i + 1 (but for the last row) and i + w
// (while below n), i + 1 and i + w being one entry when w is 1. 0 for any other pattern.
int gridWidth(int n, int const *ia, int const *ja) {
    if (n < 2 || ia[1] < 3) return 0;
    int const w = ja[ia[1] - 2] - 1;
    if (w < 1 || n % w != 0) return 0;
    for (int i = 0; i < n; ++i) {
        int want[3], k = 0;
        want[k++] = i + 1;
        if (i + 1 < n) want[k++] = i + 2;
        if (w > 1 && i + w < n) want[k++] = i + w + 1;
        if (ia[i + 1] - ia[i] != k || !std::equal(want, want + k, ja + ia[i] - 1)) return 0;
    }
    return w;
}

// Whether every entry that links the end of an image row to the start of the next is zero,
// as in the smoothing matrix: then they are left out, and the grid has no such links.
bool rowLinksZero(int n, int w, float const *a, int const *ia) {
    for (int i = w - 1; i + 1 < n; i += w)
        if (a[ia[i]] != 0.0f) return false;  // the entry after the diagonal
    return true;
}

// CHOLMOD's workspace and the symbolic analysis of the last pattern, kept for the process.
// One solve at a time goes through it.
struct Solver {
    std::mutex lock;
    cholmod_common c;
    cholmod_factor *symbolic = nullptr;  // supernodal, without values between solves
    std::vector<int> ia, ja;             // the pattern symbolic belongs to, as given
    int width = 0;                       // of the grid of that pattern, or 0
    bool linksLeftOut = false;           // whether symbolic is for the grid without row links
    long analyses = 0;
    double values = 0, flops = 0;  // of the last analysis
    double residual = 0;           // of the last solution, before its rounding to float

    Solver() {
        cholmod_start(&c);
        c.print = 0;  // failures are reported by our own texts, nothing on the console
        c.supernodal = CHOLMOD_SUPERNODAL;
        c.quick_return_if_not_posdef = 1;  // a failed factorisation is thrown away anyway
    }
    ~Solver() { forget(), cholmod_finish(&c); }

    void forget() {
        if (symbolic) cholmod_free_factor(&symbolic, &c);
        ia.clear(), ja.clear();
    }

    bool samePattern(int n, int const *ia1, int const *ja1) const {
        return ia.size() == size_t(n) + 1 && std::equal(ia.begin(), ia.end(), ia1) &&
               std::equal(ja.begin(), ja.end(), ja1);
    }
};

Solver &solver() {
    static Solver s;
    return s;
}

// Everything one call allocates from CHOLMOD, freed on every way out.
struct CallState {
    cholmod_common &c;
    cholmod_sparse *a = nullptr;
    cholmod_dense *b = nullptr, *x = nullptr;
    explicit CallState(cholmod_common &common) : c(common) {}
    ~CallState() {
        cholmod_free_dense(&x, &c);
        cholmod_free_dense(&b, &c);
        cholmod_free_sparse(&a, &c);
    }
};

// The upper triangle in 1-based compressed rows, each row's columns ascending from the
// diagonal on: the only form taken.
bool validPattern(int n, int const *ia, int const *ja) {
    if (n < 1 || !ia || !ja || ia[0] != 1) return false;
    for (int i = 0; i < n; ++i) {
        if (ia[i + 1] < ia[i]) return false;
        int last = i;  // the lowest column the next entry may have, 0-based
        for (int k = ia[i] - 1; k < ia[i + 1] - 1; ++k) {
            int const col = ja[k] - 1;
            if (col < last || col >= n) return false;
            last = col + 1;
        }
    }
    return true;
}

// The upper triangle in compressed rows, read as compressed columns, is the lower triangle of
// the same symmetric matrix: the indices move to base 0 and the values to double. With
// `width`, the entries linking image rows are left out.
cholmod_sparse *lowerTriangle(int n, float const *a, int const *ia, int const *ja, int width,
                              cholmod_common &c) {
    Index const nnz = ia[n] - 1 - (width ? n / width - 1 : 0);
    cholmod_sparse *m = cholmod_allocate_sparse(n, n, nnz, 1, 1, -1, CHOLMOD_REAL, &c);
    if (!m) return nullptr;
    Index *const mp = static_cast<Index *>(m->p);
    Index *const mi = static_cast<Index *>(m->i);
    double *const mx = static_cast<double *>(m->x);
    Index at = 0;
    for (int i = 0; i < n; ++i) {
        mp[i] = at;
        bool const skipLink = width && (i + 1) % width == 0 && i + 1 < n;
        for (int k = ia[i] - 1; k < ia[i + 1] - 1; ++k) {
            if (skipLink && k == ia[i]) continue;
            mi[at] = ja[k] - 1, mx[at] = a[k], ++at;
        }
    }
    mp[n] = at;
    return m;
}

// |A x - b| / |b| in the 2-norm over all right-hand sides, with A's float values in double:
// how well the factorisation solved the system given to it, apart from the rounding of the
// result to float.
double relativeResidual(int n, int nrhs, float const *a, int const *ia, int const *ja,
                        double const *b, double const *x) {
    double rr = 0, bb = 0;
    std::vector<double> r(n);
    for (int c = 0; c < nrhs; ++c, b += n, x += n) {
        for (int i = 0; i < n; ++i)
            r[i] = -b[i];
        for (int i = 0; i < n; ++i)
            for (int k = ia[i] - 1; k < ia[i + 1] - 1; ++k) {
                int const j = ja[k] - 1;
                r[i] += double(a[k]) * x[j];
                if (j != i) r[j] += double(a[k]) * x[i];
            }
        for (int i = 0; i < n; ++i)
            rr += r[i] * r[i], bb += b[i] * b[i];
    }
    return bb > 0 ? std::sqrt(rr / bb) : std::sqrt(rr);
}

// Analysis, factorisation and solve, with the solver's lock held.
int solveLocked(Solver &s, int n, float const *a, int const *ia, int const *ja, float *b,
                int nrhs) {
    cholmod_common &c = s.c;

    bool const samePattern = s.samePattern(n, ia, ja);
    int const w = samePattern ? s.width : gridWidth(n, ia, ja);
    bool const leaveOut = w > 1 && n > w && rowLinksZero(n, w, a, ia);
    CallState call(c);
    call.a = lowerTriangle(n, a, ia, ja, leaveOut ? w : 0, c);
    if (!call.a) return 1;

    if (!s.symbolic || !samePattern || s.linksLeftOut != leaveOut) {
        s.forget();
        if (w > 0) {
            std::vector<Index> perm(n);
            if (leaveOut)
                DiagonalDissection(w, n / w, perm.data());
            else
                GridDissection(w, n / w, perm.data());
            c.nmethods = 1;
            c.method[0].ordering = CHOLMOD_GIVEN;
            c.postorder = 1;
            s.symbolic = cholmod_analyze_p(call.a, perm.data(), nullptr, 0, &c);
        } else {
            c.nmethods = 0;  // CHOLMOD's own choice of ordering
            s.symbolic = cholmod_analyze(call.a, &c);
        }
        if (!s.symbolic) {
            if (c.status == CHOLMOD_OUT_OF_MEMORY || c.status == CHOLMOD_TOO_LARGE) return 1;
            throw "pardisoSolverIC - 11";
        }
        ++s.analyses;
        s.values = double(s.symbolic->xsize), s.flops = c.fl;
        s.ia.assign(ia, ia + n + 1);
        s.ja.assign(ja, ja + ia[n] - 1);
        s.width = w;
        s.linksLeftOut = leaveOut;
    }

    // The factor gets its values here and gives them back after the solve, so that only the
    // symbolic analysis stays between calls. After a failure it may have changed form, so
    // it is dropped.
    cholmod_factor *const L = s.symbolic;
    int const factored = cholmod_factorize(call.a, L, &c);
    bool const outOfMemory = c.status == CHOLMOD_OUT_OF_MEMORY || c.status == CHOLMOD_TOO_LARGE;
    if (!factored || c.status != CHOLMOD_OK || L->minor < size_t(n) || !L->is_super) {
        s.forget();
        if (outOfMemory) return 1;
        throw "pardisoSolverIC - 22";
    }
    cholmod_free_sparse(&call.a, &c);

    call.b = cholmod_allocate_dense(n, nrhs, n, CHOLMOD_REAL, &c);
    if (call.b) {
        double *const bx = static_cast<double *>(call.b->x);
        for (std::size_t k = 0; k < std::size_t(n) * nrhs; ++k)
            bx[k] = b[k];
        call.x = cholmod_solve(CHOLMOD_A, L, call.b, &c);
    }
    bool const solveOutOfMemory = !call.b || c.status == CHOLMOD_OUT_OF_MEMORY;
    bool const solved = call.x && c.status == CHOLMOD_OK;
    if (!cholmod_change_factor(CHOLMOD_PATTERN, 1, 1, 1, 1, L, &c) || L->xtype != CHOLMOD_PATTERN)
        s.forget();
    if (!solved) {
        if (solveOutOfMemory) return 1;
        throw "pardisoSolverIC - 22";
    }
    double const *const xx = static_cast<double const *>(call.x->x);
    s.residual = relativeResidual(n, nrhs, a, ia, ja, static_cast<double const *>(call.b->x), xx);
    for (std::size_t k = 0; k < std::size_t(n) * nrhs; ++k)
        b[k] = float(xx[k]);
    return 0;
}

// Runs f() on one thread with every OpenMP region inside it serialised.
//
// The factorisation of a grid matrix is a long chain of small dense steps. CHOLMOD runs some
// of its loops on a fixed team of four threads whatever the process's setting, and OpenBLAS
// forks a team for each call above a small size; on two cores the forks and waits cost more
// than they give (measured at 1 and 4 megapixels: one thread finishes first, and a busy
// core makes the teams far slower still). So f runs as the work of one thread of an active
// two-thread region, where nested regions get one thread each and OpenBLAS, seeing it is
// called inside a parallel region, takes its single-thread path. The other thread has no
// work and waits at the region's end. Nothing about the process's thread settings changes.
// Exceptions cannot leave a parallel region, so a thrown text is carried out and thrown
// again here.
template <class F>
int serialised(F &&f) {
    if (omp_in_parallel() || omp_get_max_active_levels() > 1) return f();
    int result = 0;
    char const *thrown = nullptr;
#pragma omp parallel num_threads(2)
    if (omp_get_thread_num() == 0) {
        try {
            result = f();
        } catch (char const *text) {
            thrown = text;
        }
    }
    if (thrown) throw thrown;
    return result;
}

}  // namespace

int pardisoSolverIC(int n, float *a, int *ia, int *ja, float *b, float * /*x*/, int nrhs,
                    int /*mtype*/) {
    Solver &s = solver();
    std::lock_guard<std::mutex> const guard(s.lock);
    kxRequire(validPattern(n, ia, ja) && nrhs >= 1 && a && b, "pardisoSolverIC - 11");
    return serialised([&] {
        try {
            return solveLocked(s, n, a, ia, ja, b, nrhs);
        } catch (std::bad_alloc const &) {
            s.forget();  // the kept pattern may be half copied
            return 1;
        }
    });
}

long kxSparseAnalyses() {
    Solver &s = solver();
    std::lock_guard<std::mutex> const guard(s.lock);
    return s.analyses;
}

void kxSparseLastAnalysis(double &factorValues, double &flops) {
    Solver &s = solver();
    std::lock_guard<std::mutex> const guard(s.lock);
    factorValues = s.values, flops = s.flops;
}

double kxSparseLastResidual() {
    Solver &s = solver();
    std::lock_guard<std::mutex> const guard(s.lock);
    return s.residual;
}

void kxSparseForget() {
    Solver &s = solver();
    std::lock_guard<std::mutex> const guard(s.lock);
    s.forget();
}
