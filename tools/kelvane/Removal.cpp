#include "Removal.hpp"

#include <filesystem>
#include <system_error>

namespace tool {

namespace {

// While files are still being made in it, a directory is not empty at the first try.
constexpr int kRemovalTries = 20;

} // namespace

bool RemoveTree(const std::string &path) {
    for (int i = 0; i < kRemovalTries; ++i) {
        std::error_code error;
        std::filesystem::remove_all(path, error);
        if (!error) {
            return true;
        }
    }
    return false;
}

} // namespace tool
