#pragma once

#include <functional>
#include <string>

namespace kxtest {

// The char const * text that f throws, or "(nothing thrown)": error texts compare exactly.
inline std::string thrown(std::function<void()> const &f) {
    try {
        f();
    } catch (char const *text) {
        return text;
    }
    return "(nothing thrown)";
}

}  // namespace kxtest
