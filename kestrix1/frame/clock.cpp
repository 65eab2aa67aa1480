#include "kestrix1/frame/clock.h"

#include <cstdio>
#include <ctime>

long kxClockMs() {
    return static_cast<long>(static_cast<double>(std::clock()) * 1000.0 / CLOCKS_PER_SEC);
}

std::string composeTrace(double seconds, char const *where, int line, char const *text) {
    char head[64];
    std::snprintf(head, sizeof head, "%09.3f", seconds);
    char number[32];
    std::snprintf(number, sizeof number, " - %d - ", line);
    std::string s(head);
    s += number;
    s += where;
    s += " : ";
    s += text;
    s += " - ";
    return s;
}
