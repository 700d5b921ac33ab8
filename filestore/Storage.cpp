#include "filestore/Storage.hpp"

#include "KVFile.h"
#include "Kelvane/Error.hpp"
#include "Kelvane/FileManager.hpp"
#include "foundation/Boundary.hpp"
#include "support/zk/Abort.hpp"
#include "support/zk/File.hpp"

#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include <cerrno>
#include <span>

std::mutex _TempFilesystemMutex;

namespace Kelvane {

FileFacts ReadFileFacts(const ZK::filesystem::path &path) {
    const std::time_t time = boost::filesystem::last_write_time(path);
    FileFacts facts;
    facts.size = boost::filesystem::file_size(path);
    facts.modified =
        CF::Date::FromAbsoluteTime(static_cast<double>(time) - kCFAbsoluteTimeIntervalSince1970);
    return facts;
}

OwnedFile ReferenceStoredFile(const ZK::filesystem::path &location,
                              const std::vector<std::uint8_t> &hash) {
    LocalError underlying;
    auto file = CF::Adopt(FileManager::CopyCachedFileReference(location, hash, underlying.out()));
    if (!file) {
        throw Error(kKVErrorUnknown, underlying.get(),
                    CFSTR("File written but reference could not be created"));
    }
    return file;
}

void WriteStoredFile(const ZK::filesystem::path &location, const std::uint8_t *bytes,
                     long data_len) {
    if (data_len < 0) {
        ZK::AssertionFailed("Kelvane/KVFile.cpp", __LINE__, "KVFileCreateFromData",
                            "data_len >= 0");
    }
    try {
        auto file = ZK::file::writable_file::open_clobber(location);
        try {
            file.write(std::span(bytes, static_cast<std::size_t>(data_len)));
        } catch (...) {
            boost::system::error_code ignored; // the first failure is the one to report
            boost::filesystem::remove(location, ignored);
            throw;
        }
    } catch (const boost::system::system_error &exception) {
        throw MakeFSError(exception, location);
    }
}

OwnedFile ReferenceInPlace(CFStringRef path, const std::vector<std::uint8_t> &hash) {
    LocalError underlying;
    auto file = CF::Adopt(_KVFileCreateFromAbsolutePath(path, hash, 0, underlying.out()));
    if (!file) {
        throw Error(kKVErrorUnknown, underlying.get(),
                    CFSTR("Failed to create internal file reference"));
    }
    return file;
}

OwnedFile CopyIntoStore(const ZK::filesystem::path &source, const std::vector<std::uint8_t> &hash) {
    const ZK::filesystem::path location = FileManager::GetStorageLocationForFile();
    const std::lock_guard lock(_TempFilesystemMutex);
    try {
        ZK::file::copy_new(source, location);
    } catch (const boost::system::system_error &exception) {
        throw MakeFSError(exception, location);
    }
    return ReferenceStoredFile(location, hash);
}

void MoveIntoStore(const ZK::filesystem::path &scratch, const ZK::filesystem::path &destination) {
    boost::system::error_code ignored; // the type says it all
    switch (boost::filesystem::status(destination, ignored).type()) {
    case boost::filesystem::file_not_found:
        boost::filesystem::rename(scratch, destination);
        return;
    case boost::filesystem::regular_file:
        boost::filesystem::remove(scratch);
        return;
    default:
        throw MakeFSError(EISDIR, CFSTR("Internal inconsistency (%s)"), destination.c_str());
    }
}

} // namespace Kelvane
