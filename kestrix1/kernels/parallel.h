// The library's one idiom for "parallel over rows". Internal.
//
// parallelRows(rows, body) runs body(y) for every y in [0, rows) as an OpenMP parallel loop
// that hands out runs of kxRowRun rows to the threads as each becomes free: a photo editor
// shares the machine, and a loop split evenly beforehand would wait at its end for a thread
// whose core something else has taken. The body must write only to its own rows, and what it
// writes must not depend on which thread runs it. Work that is too small to pay for a thread
// team, or a call that is already inside a parallel region, runs on the calling thread
// instead: the library's thread settings are the process's, and nested teams only
// oversubscribe cores.
#pragma once

#include <omp.h>

#include <algorithm>
#include <cstdint>

// Below this many elements of work a loop runs on the calling thread.
constexpr std::int64_t kxMinParallelWork = 1 << 15;

// Rows per run of parallelRows: enough that taking a run costs next to nothing beside its
// work, few enough that the threads finish together.
constexpr int kxRowRun = 8;

inline bool kxWorthThreads(std::int64_t work) {
    return work >= kxMinParallelWork && !omp_in_parallel();
}

template <class Body>
void parallelRows(int rows, std::int64_t work, Body &&body) {
#pragma omp parallel for schedule(dynamic, kxRowRun) if (kxWorthThreads(work))
    for (int y = 0; y < rows; ++y)
        body(y);
}

// The same for loops that the library runs in parallel whatever their size.
template <class Body>
void parallelRows(int rows, Body &&body) {
#pragma omp parallel for schedule(dynamic, kxRowRun) if (!omp_in_parallel())
    for (int y = 0; y < rows; ++y)
        body(y);
}

// Rows handed out as bands: body(y0, y1) runs once for each of up to
// omp_get_max_threads() contiguous bands covering [0, rows), for loops that set up scratch
// space once per band rather than once per row.
template <class Body>
void parallelBands(int rows, std::int64_t work, Body &&body) {
    int const bands = kxWorthThreads(work) ? std::max(1, std::min(rows, omp_get_max_threads())) : 1;
#pragma omp parallel for schedule(static) if (bands > 1)
    for (int band = 0; band < bands; ++band) {
        int const y0 = int(std::int64_t(rows) * band / bands);
        int const y1 = int(std::int64_t(rows) * (band + 1) / bands);
        if (y0 < y1) body(y0, y1);
    }
}

// Rows cut into chunks of `chunk` rows, handed to the threads as each becomes free: for
// loops whose threads keep scratch between chunks, and that should finish together even
// when something else on the machine holds a core. Each thread makes its own scratch with
// make() and then calls body(scratch, y0, y1) for each chunk it takes.
template <class Make, class Body>
void parallelChunks(int rows, int chunk, std::int64_t work, Make &&make, Body &&body) {
    int const chunks = (rows + chunk - 1) / chunk;
#pragma omp parallel if (chunks > 1 && kxWorthThreads(work))
    {
        auto scratch = make();
#pragma omp for schedule(dynamic)
        for (int c = 0; c < chunks; ++c)
            body(scratch, c * chunk, std::min(rows, (c + 1) * chunk));
    }
}

// Items [0, n) cut into runs of `run` items, handed out as threads become free: body(i0, i1)
// runs once per run. For loops of independent items whose threads keep their scratch by
// omp_get_thread_num(): when something else on the machine holds a core for a while, the
// other threads take over the remaining runs instead of waiting for the slow one at the end.
template <class Body>
void parallelRuns(int n, int run, std::int64_t work, Body &&body) {
    parallelChunks(
        n, run, work, [] { return 0; }, [&](int, int i0, int i1) { body(i0, i1); });
}
