#include "kestrix1/filters/bilateral_filter.h"
#include <gtest/gtest.h>
TEST(BilateralFilter, Stub) {}
