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

namespace {

// What a failed step made. The failure before this one is the one to report.
void removeFile(const ZK::filesystem::path &path) noexcept {
    boost::system::error_code ignored;
    boost::filesystem::remove(path, ignored);
}

} // namespace

ScratchFile::~ScratchFile() {
    if (!path_.empty()) {
        removeFile(path_);
    }
}

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
        removeFile(location);
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
            file.complete();
        } catch (...) {
            removeFile(location);
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

bool MoveIntoStore(const ZK::filesystem::path &scratch, const ZK::filesystem::path &destination) {
    boost::system::error_code error;
    switch (boost::filesystem::status(destination, error).type()) {
    case boost::filesystem::file_not_found:
        boost::filesystem::rename(scratch, destination);
        return true;
    case boost::filesystem::regular_file:
        boost::filesystem::remove(scratch);
        return false;
    case boost::filesystem::status_error: // nobody knows what lies there
        throw boost::filesystem::filesystem_error("status", destination, error);
    default:
        throw MakeFSError(EISDIR, CFSTR("Internal inconsistency (%s)"), destination.c_str());
    }
}

} // namespace Kelvane
