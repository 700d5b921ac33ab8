// Dumps the input as a Manifest.db. There is either a text that begins with the header
// or an error with its cause, and no file stays behind.
// Failures are logged on standard error; run with -close_fd_mask=2.
#include "KVError.h"
#include "KVManifest.h"
#include "KVTemporaryPath.h"
#include "foundation/Boundary.hpp"
#include "support/cf/CF.hpp"

#include <boost/filesystem/operations.hpp>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace {

void Require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// One directory for all inputs, removed at the end.
class Directory {
  public:
    Directory() : path_(MakeUnique()) {
        Require(KelvaneSetTemporaryPath(CF::String((path_ / "library").string()).get()) != 0);
    }
    ~Directory() {
        boost::system::error_code ignored;
        boost::filesystem::remove_all(path_, ignored);
    }
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;

    std::string Database(const std::uint8_t *bytes, std::size_t size) const {
        const std::string path = (path_ / "Manifest.db").string();
        std::ofstream(path, std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char *>(bytes), static_cast<std::streamsize>(size));
        return path;
    }
    // Below the library's directory of databases.
    std::ptrdiff_t FilesLeft() const {
        const auto directory = path_ / "library" / "KVManifestDB";
        return boost::filesystem::exists(directory)
                   ? std::distance(boost::filesystem::directory_iterator(directory), {})
                   : 0;
    }

  private:
    static boost::filesystem::path MakeUnique() {
        const auto path = boost::filesystem::temp_directory_path() /
                          boost::filesystem::unique_path("kelvane-fuzz-%%%%-%%%%-%%%%");
        boost::filesystem::create_directory(path);
        return path;
    }
    boost::filesystem::path path_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    static const Directory directory;
    Kelvane::LocalError error;
    const auto text = CF::String::Adopt(KVManifestDBCopyCSVRepresentation(
        CF::String(directory.Database(bytes, size)).get(), error.out()));
    if (text) {
        Require(!error.get());
        Require(CFStringHasPrefix(text, CFSTR("\"fileID\",\"domain\",")) != 0);
        Require(CFStringHasSuffix(text, CFSTR("\"")) != 0);
    } else {
        Require(error.get().GetCode() == kKVErrorInvalidManifestDatabase);
        Require(static_cast<bool>(error.get().GetUnderlying()));
    }
    Require(directory.FilesLeft() == 0);
    return 0;
}
