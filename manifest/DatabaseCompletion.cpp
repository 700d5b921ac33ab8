#include "manifest/DatabaseCompletion.hpp"

#include "Kelvane/Error.hpp"

#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>

#include <fcntl.h>

namespace Kelvane {

namespace {

constexpr const char *kCompanionSuffixes[] = {"-wal", "-shm", "-journal"};

} // namespace

DatabaseWitness::DatabaseWitness(const std::string &path)
    : path_(path), descriptor_(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW)) {
    if (descriptor_.get() < 0) {
        fail(errno);
    }
}

void DatabaseWitness::RequireWritten() {
    if (const int number = descriptor_.close()) {
        fail(number);
    }
}

void DatabaseWitness::fail(int number) const {
    throw MakeFSError(number, CFSTR("Failed to write temporary database: %s"), path_.c_str());
}

// Without memory, for which there may be none. A longer name than fits cannot be a file's.
void RemoveDatabaseCompanions(const std::string &path) noexcept {
    for (const char *const suffix : kCompanionSuffixes) {
        std::array<char, PATH_MAX> name{};
        const int length = std::snprintf(name.data(), name.size(), "%s%s", path.c_str(), suffix);
        if (length > 0 && static_cast<std::size_t>(length) < name.size()) {
            std::remove(name.data());
        }
    }
}

} // namespace Kelvane
