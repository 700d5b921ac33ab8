// Dumps the input as a Manifest.db. There is either a text that begins with the header
// or an error with its cause, and no file stays behind.
// Failures are logged on standard error; run with -close_fd_mask=2.
#include "KVError.h"
#include "KVManifest.h"
#include "foundation/Boundary.hpp"
#include "fuzz/Workplace.hpp"
#include "support/cf/CF.hpp"

#include <cstdint>
#include <iterator>

namespace {

using Fuzz::Require;

// Below the library's directory of databases.
std::ptrdiff_t FilesLeft(const Fuzz::Workplace &work) {
    const auto directory = work.Library() / "KVManifestDB";
    return boost::filesystem::exists(directory)
               ? std::distance(boost::filesystem::directory_iterator(directory), {})
               : 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    const Fuzz::Workplace work;
    Kelvane::LocalError error;
    const auto text = CF::String::Adopt(KVManifestDBCopyCSVRepresentation(
        CF::String(work.Write("Manifest.db", {bytes, size})).get(), error.out()));
    if (text) {
        Require(!error.get());
        Require(CFStringHasPrefix(text, CFSTR("\"fileID\",\"domain\",")) != 0);
        Require(CFStringHasSuffix(text, CFSTR("\"")) != 0);
    } else {
        Require(error.get().GetCode() == kKVErrorInvalidManifestDatabase);
        Require(static_cast<bool>(error.get().GetUnderlying()));
    }
    Require(FilesLeft(work) == 0);
    return 0;
}
