#pragma once

#include <stdexcept>

namespace Kelvane {

// Thrown where the temporary path is needed; a type of its own, so that the boundary of functions
// that let nothing pass can tell the host what it forgot.
struct TemporaryPathNotSet : std::runtime_error {
    TemporaryPathNotSet() : std::runtime_error("Temporary storage path not set") {}
};

} // namespace Kelvane
