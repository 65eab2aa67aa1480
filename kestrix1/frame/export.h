// The one export macro of kestrix1.
//
// The library is built with hidden visibility: only classes and free functions marked
// KESTRIX1_EXPORT are visible to a host that loads libkestrix1.so. Everything else, the
// pixel kernels above all, stays internal and may change without notice.
#pragma once

#define KESTRIX1_EXPORT __attribute__((visibility("default")))
