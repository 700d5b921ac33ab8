// What a driver asserts. A failure ends the process, which the fuzzer takes for a crash.
#pragma once

#include <cstdlib>

namespace Fuzz {

inline void Require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

} // namespace Fuzz
