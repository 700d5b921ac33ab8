// Directories for tests: fresh, private, gone at the end.
#pragma once

#include "KVTemporaryPath.h"
#include "support/cf/String.hpp"
#include "support/zk/Path.hpp"

#include <boost/filesystem/operations.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <unistd.h>

namespace testing_support {

// A new directory below $TMPDIR (or /tmp), removed with all that is in it when the
// object goes. A forked child that exits leaves it alone.
class TemporaryDirectory {
  public:
    TemporaryDirectory() : owner_(::getpid()) {
        const char *base = std::getenv("TMPDIR");
        std::string pattern =
            std::string(base == nullptr || *base == '\0' ? "/tmp" : base) + "/kelvane-test-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
        }
        path_ = pattern;
    }
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
    ~TemporaryDirectory() {
        if (::getpid() == owner_) {
            boost::system::error_code ignored;
            boost::filesystem::remove_all(path_, ignored);
        }
    }

    const ZK::filesystem::path &path() const noexcept { return path_; }
    ZK::filesystem::path operator/(const std::string &name) const { return path_ / name; }

    // Writes a file, with missing parents, and returns its path.
    ZK::filesystem::path write(const std::string &name, std::span<const std::uint8_t> bytes) const {
        const ZK::filesystem::path file = path_ / name;
        boost::filesystem::create_directories(file.parent_path());
        std::ofstream stream(file.string(), std::ios::binary | std::ios::trunc);
        stream.write(reinterpret_cast<const char *>(bytes.data()),
                     static_cast<std::streamsize>(bytes.size()));
        stream.close();
        if (!stream) {
            throw std::runtime_error("cannot write " + file.string());
        }
        return file;
    }
    ZK::filesystem::path write(const std::string &name, std::string_view text) const {
        return write(name, std::span<const std::uint8_t>(
                               reinterpret_cast<const std::uint8_t *>(text.data()), text.size()));
    }

  private:
    ::pid_t owner_;
    ZK::filesystem::path path_;
};

// All bytes of a file; throws when it cannot be opened.
inline std::vector<std::uint8_t> ReadFile(const ZK::filesystem::path &path) {
    std::ifstream stream(path.string(), std::ios::binary);
    if (!stream) {
        throw std::runtime_error("cannot read " + path.string());
    }
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// The library's temporary path, set on the first call; the same for the whole process,
// because the library takes only one. Removed when the process ends.
inline const ZK::filesystem::path &LibraryTemporaryPath() {
    static const TemporaryDirectory directory;
    static const bool set =
        KelvaneSetTemporaryPath(CF::String(directory.path().string()).get()) != 0;
    if (!set) {
        throw std::runtime_error("the temporary path was set elsewhere");
    }
    return directory.path();
}

} // namespace testing_support
