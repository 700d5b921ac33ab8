#include "corefoundation/Fault.hpp"

#include <cstdio>
#include <cstdlib>

namespace CFInternal {

void Fault(const char *message) noexcept {
    std::fprintf(stderr, "CoreFoundation: %s\n", message);
    std::abort();
}

} // namespace CFInternal
