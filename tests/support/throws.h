// The text a library call throws, for comparing error texts exactly.
#pragma once

#include <functional>
#include <string>

namespace kxtest {

// Runs f and returns the char const * text it throws, or "(nothing thrown)".
inline std::string thrown(std::function<void()> const &f) {
    try {
        f();
    } catch (char const *text) {
        return text;
    }
    return "(nothing thrown)";
}

}  // namespace kxtest
