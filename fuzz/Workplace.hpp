// Where a driver writes files: a private directory, in memory where the system has such a
// place, that is empty again after every input.
#pragma once

#include "KVTemporaryPath.h"
#include "fuzz/Require.hpp"
#include "support/cf/String.hpp"

#include <boost/filesystem/operations.hpp>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <span>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace Fuzz {

// Made once in a process and removed at its end; a process that is killed leaves it behind,
// so whoever runs drivers gives them a directory of their own with $TMPDIR.
class WorkDirectory {
  public:
    static const WorkDirectory &Get() {
        static const WorkDirectory directory;
        return directory;
    }
    WorkDirectory(const WorkDirectory &) = delete;
    WorkDirectory &operator=(const WorkDirectory &) = delete;

    const boost::filesystem::path &Path() const noexcept { return path_; }
    boost::filesystem::path Library() const { return path_ / "library"; }
    // The library deletes nothing, and remembers the directories that it has made.
    void Clean() const {
        for (const auto &entry : boost::filesystem::directory_iterator(path_)) {
            if (entry.path() != Library()) {
                boost::filesystem::remove_all(entry.path());
            }
        }
        for (const auto &folder : boost::filesystem::directory_iterator(Library())) {
            for (const auto &entry : boost::filesystem::directory_iterator(folder.path())) {
                boost::filesystem::remove_all(entry.path());
            }
        }
    }

  private:
    WorkDirectory() {
        const char *const chosen = std::getenv("TMPDIR");
        const std::string base = chosen != nullptr && *chosen != '\0' ? chosen
                                 : access("/dev/shm", W_OK) == 0      ? "/dev/shm"
                                                                      : "/tmp";
        std::string pattern = base + "/kelvane-fuzz-XXXXXX";
        Require(mkdtemp(pattern.data()) != nullptr);
        path_ = pattern;
        Require(KelvaneSetTemporaryPath(CF::String(Library().string()).get()) != 0);
    }
    ~WorkDirectory() {
        boost::system::error_code ignored;
        boost::filesystem::remove_all(path_, ignored);
    }
    boost::filesystem::path path_;
};

// The directory for one input.
class Workplace {
  public:
    Workplace() = default;
    Workplace(const Workplace &) = delete;
    Workplace &operator=(const Workplace &) = delete;
    ~Workplace() { directory_.Clean(); }

    boost::filesystem::path operator/(const std::string &name) const {
        return directory_.Path() / name;
    }
    boost::filesystem::path Library() const { return directory_.Library(); }
    // Writes a file, with missing parents, and returns its path.
    std::string Write(const std::string &name, std::span<const std::uint8_t> bytes) const {
        const auto path = *this / name;
        boost::filesystem::create_directories(path.parent_path());
        std::ofstream(path.string(), std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char *>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        return path.string();
    }

  private:
    const WorkDirectory &directory_ = WorkDirectory::Get();
};

} // namespace Fuzz
