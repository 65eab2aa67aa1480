// Runs a check once for each vector loop the machine offers: AVX-512, AVX2 and portable.
#pragma once

#include <gtest/gtest.h>

#include "kestrix1/kernels/px_dispatch.h"

namespace kxtest {

template <class Check>
void forEachVectorPath(Check check) {
#if KX_HAVE_AVX2_PATHS
    // A level the CPU lacks would only run the next one down again.
    bool const has[] = {true, kxHasAvx2(), kxHasAvx512()};
    char const *const names[] = {"portable loops", "AVX2 loops", "AVX-512 loops"};
    for (int level = 2; level >= 0; --level) {
        if (!has[level]) continue;
        kxVectorLimit() = KxVectors(level);
        SCOPED_TRACE(names[level]);
        check();
    }
    kxVectorLimit() = KxVectors::avx512;
#else
    check();
#endif
}

}  // namespace kxtest
