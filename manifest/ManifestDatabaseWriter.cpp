// From a manifest to the bytes of a Manifest.db.
#include "KVManifest.h"
#include "Kelvane/Error.hpp"
#include "manifest/ManifestDatabaseFile.hpp"
#include "support/cf/Data.hpp"
#include "support/zk/File.hpp"

#include <boost/system/system_error.hpp>

#include <cerrno>
#include <string>
#include <vector>

namespace Kelvane {

namespace {

// The result is one object in memory, so it is bounded: 100 MiB, some 100,000 rows.
constexpr std::size_t kMaximumDatabaseSize = 104857600;

// The whole file; only part of it when an error is left.
CF::Data ReadWhole(ZK::file::readable_file &file, boost::system::error_code &error) {
    const auto bytes = CF::Data::Adopt(CF::Made(CFDataCreateMutable(kCFAllocatorDefault, 0)));
    auto *const destination = const_cast<CFMutableDataRef>(bytes.get());
    std::vector<std::uint8_t> buffer(1024 * 1024);
    while (const std::size_t count = file.read_some(buffer, error)) {
        if (static_cast<std::size_t>(bytes.GetLength()) + count > kMaximumDatabaseSize) {
            error = boost::system::errc::make_error_code(boost::system::errc::file_too_large);
            break;
        }
        CFDataAppendBytes(destination, buffer.data(), static_cast<CFIndex>(count));
    }
    return bytes;
}

CF::Data ReadDatabase(const std::string &path) {
    boost::system::error_code error;
    ZK::file::readable_file file(path, error);
    if (error) {
        throw MakeFSError(error.value(), CFSTR("Failed to open temporary DB location: %s"),
                          path.c_str());
    }
    const CF::Data bytes = ReadWhole(file, error);
    if (error) {
        throw MakeFSError(error.value(), CFSTR("Failed to read from temporary DB location: %s"),
                          path.c_str());
    }
    return bytes;
}

} // namespace

} // namespace Kelvane

CFDataRef KVManifestCreateManifestDBRepresentation(KVManifestClass *manifest,
                                                   KVManifestDataVersion version) {
    const std::string path = Kelvane::WriteManifestDatabaseFile(manifest, version);
    try {
        return Kelvane::ReadDatabase(path).detach();
    } catch (...) {
        Kelvane::RemoveManifestDatabaseFile(path);
        throw;
    }
}
