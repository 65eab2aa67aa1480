// Runs a check once for each width of hand-written vector loop the machine offers: AVX-512,
// AVX2 and the portable loops, so that every path is compared with the same expectations.
#pragma once

#include <gtest/gtest.h>

#include "kestrix1/kernels/px_dispatch.h"

namespace kxtest {

template <class Check>
void forEachVectorPath(Check check) {
#if KX_HAVE_AVX2_PATHS
    struct Path {
        KxVectors limit;
        char const *name;
    };
    for (Path p : {Path{KxVectors::avx512, "AVX-512 loops"}, Path{KxVectors::avx2, "AVX2 loops"},
                   Path{KxVectors::portable, "portable loops"}}) {
        kxVectorLimit() = p.limit;
        // A level the CPU lacks would only run the next one down again.
        if (p.limit == KxVectors::avx512 && !kxHasAvx512()) continue;
        if (p.limit == KxVectors::avx2 && !kxHasAvx2()) continue;
        SCOPED_TRACE(p.name);
        check();
    }
    kxVectorLimit() = KxVectors::avx512;
#else
    check();
#endif
}

}  // namespace kxtest
