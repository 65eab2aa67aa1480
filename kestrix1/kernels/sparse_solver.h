// Direct solve of sparse symmetric positive definite systems, for the weighted least squares
// smoother. Internal.
//
// The matrix comes as its upper triangle in compressed rows with 1-based indices and float
// values, explicit zeros allowed; it is factored by a supernodal Cholesky in double precision
// (CHOLMOD) and the solution is written over the right-hand side in float. The symbolic
// analysis depends only on the pattern, so it is kept and reused while the pattern stays the
// same (one analysis for the process, freed at its end; the factor's values are not kept).
// A pattern with the bands of a w x h image grid (columns i, i + 1, i + w) is ordered by
// nested dissection of the grid itself, handed to CHOLMOD as a given permutation: along the
// pixel diagonals when the entries that link one image row's end to the next row's start are
// all zero (they are then left out of the factor), along rows and columns otherwise. Other
// patterns get CHOLMOD's own ordering.
//
// The dense steps of the factorisation run on the system BLAS (OpenBLAS on OpenMP, see
// scripts/install-deps.sh), on the calling thread: the fronts of an image grid are too small
// for a team of threads to pay for its forks and waits (see serialised() in the source).
#pragma once

// Solves A x = b for one right-hand side (nrhs 1) of a real symmetric positive definite matrix
// (mtype 2) of n rows: a, ia (n + 1 row starts), ja as above. b receives the solution; x is
// scratch of n floats. Returns 0, or 1 when memory ran out (b then holds no solution).
// Throws "pardisoSolverIC - 11" when the analysis fails and "pardisoSolverIC - 22" when the
// factorisation or the solve fails (a matrix that is not positive definite). The analysis
// fails for a pattern that is not an upper triangle in that form (a column below the
// diagonal or beyond n, columns not ascending within a row) and for n < 1. nrhs > 1 solves
// for nrhs right-hand sides stored one after another in b; mtype is not looked at.
// Calls from several threads are taken one at a time, as they share the kept analysis.
int pardisoSolverIC(int n, float *a, int *ia, int *ja, float *b, float *x, int nrhs, int mtype);

// How many symbolic analyses this process has run, for tests of the reuse.
long kxSparseAnalyses();

// The values the factor of the last analysis holds (its supernodes, with the zeros they
// take in to stay dense) and the floating-point operations of its factorisation, as counted
// by that analysis, for benchmarks.
void kxSparseLastAnalysis(double &factorValues, double &flops);

// |A x - b| / |b| (2-norm) of the last solution in double, before it was rounded to float,
// for tests of the solve's accuracy.
double kxSparseLastResidual();

// Drops the kept analysis, so that the next solve analyses its pattern anew (benchmarks of a
// first call).
void kxSparseForget();
