#include "kestrix1/frame/timing.h"

#include <iostream>

#include "kestrix1/frame/clock.h"

namespace {

float secondsSince(long startMs) {
    return (static_cast<float>(kxClockMs()) - static_cast<float>(startMs)) / 1000.0f;
}

}  // namespace

void kxPrintTiming(char const *label, long startMs) {
    std::cout << label << secondsSince(startMs) << " s." << std::endl;
}

void kxPrintTimingNumber(char const *label, long startMs) {
    std::cout << label << secondsSince(startMs) << std::endl;
}
