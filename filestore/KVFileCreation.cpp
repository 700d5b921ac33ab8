#include "KVFile.h"

#include "Kelvane/Error.hpp"
#include "Kelvane/FileManager.hpp"
#include "filestore/KVFileClass.hpp"
#include "filestore/Storage.hpp"
#include "foundation/Boundary.hpp"
#include "support/cf/Data.hpp"
#include "support/cf/Extensions.hpp"
#include "support/zk/Encryption.hpp"

#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include <cerrno>
#include <exception>

namespace {

using Kelvane::AtBoundary;
using Kelvane::Error;
using Kelvane::OwnedFile;
namespace FileManager = Kelvane::FileManager;

// A NUL would cut the path short in a file-system call, which then names another file.
bool holdsNul(const ZK::filesystem::path &path) {
    return path.native().find('\0') != std::string::npos;
}

void refuseNul(const ZK::filesystem::path &path) {
    if (holdsNul(path)) {
        throw boost::system::system_error(ENOENT, boost::system::system_category(),
                                          "Path holds a NUL character");
    }
}

// Throws code 16 when nothing is there, and also when nobody can tell; the reason for that is
// then the cause beneath.
void requireThere(const ZK::filesystem::path &path) {
    boost::system::error_code error;
    const auto type = holdsNul(path) ? boost::filesystem::file_not_found
                                     : boost::filesystem::status(path, error).type();
    if (type != boost::filesystem::status_error && type != boost::filesystem::file_not_found) {
        return;
    }
    CF::Error cause;
    if (type == boost::filesystem::status_error) {
        cause =
            CF::Error::Adopt(CFErrorCreatePOSIXError(kCFAllocatorDefault, error.value(), nullptr));
    }
    throw Error(kKVErrorFileNotFound, cause, CFSTR("File does not exist at path '%s'"),
                path.c_str());
}

std::vector<std::uint8_t> hashFile(const ZK::filesystem::path &path) {
    try {
        return ZK::Encryption::HashOfFile(path);
    } catch (const std::exception &exception) {
        throw Error(kKVErrorUnknown, nullptr, CFSTR("Failed to hash file - %s"), exception.what());
    }
}

OwnedFile createFromFile(CFStringRef path, bool copyIntoStore) {
    const ZK::filesystem::path source = CF::String::GetUTF8(path);
    requireThere(source);
    const std::vector<std::uint8_t> hash = hashFile(source);
    // A regular file can always be referenced where it lies; only one that turned into
    // something else meanwhile comes past this.
    auto file = CF::Adopt(FileManager::CopyCachedFileReference(source, hash, nullptr));
    if (file) {
        return file;
    }
    return copyIntoStore ? Kelvane::CopyIntoStore(source, hash)
                         : Kelvane::ReferenceInPlace(path, hash);
}

OwnedFile createFromData(CFDataRef data) {
    const ZK::filesystem::path location = FileManager::GetStorageLocationForFile();
    const std::vector<std::uint8_t> hash = ZK::Encryption::Hash(CF::Data(data).GetBytes());
    auto file = CF::Adopt(FileManager::CopyCachedFileReference(location, hash, nullptr));
    if (!file) {
        Kelvane::WriteStoredFile(location, CFDataGetBytePtr(data), CFDataGetLength(data));
        file = Kelvane::ReferenceStoredFile(location, hash);
    }
    return file;
}

} // namespace

KVFileClass *_KVFileCreateFromAbsolutePath(CFStringRef path, const std::vector<std::uint8_t> &hash,
                                           unsigned char alsoReference, CFErrorRef *error) {
    return AtBoundary<KVFileClass *>(error, nullptr, [&] {
        const ZK::filesystem::path location = CF::String::GetUTF8(path);
        try {
            refuseNul(location);
            const Kelvane::FileFacts facts = Kelvane::ReadFileFacts(location);
            auto file = CF::Adopt(_KVFileAllocInit());
            file.get()->size = facts.size;
            file.get()->modifiedDate = facts.modified;
            // A copy: the caller's string may be a mutable one.
            file.get()->localPath =
                CF::String::Adopt(CF::Made(CFStringCreateCopy(kCFAllocatorDefault, path)));
            file.get()->hash = hash;
            if (alsoReference != 0) {
                file.get()->referenceHash = hash;
            }
            return file.detach();
        } catch (const boost::system::system_error &exception) {
            throw Kelvane::MakeFSError(exception, location);
        }
    });
}

KVFileClass *KVFileCreateFromData(CFDataRef data, CFErrorRef *error) {
    return AtBoundary<KVFileClass *>(error, nullptr, [&] {
        if (data == nullptr) {
            throw Error(kKVErrorInvalidArgument, nullptr, CFSTR("NULL sourceData"));
        }
        return createFromData(data).detach();
    });
}

KVFileClass *KVFileCreateFromData(const std::vector<std::uint8_t> &bytes, CFErrorRef *error) {
    const auto data = CF::Data::Adopt(CF::Made(CFDataCreateWithBytesNoCopy(
        kCFAllocatorDefault, bytes.data(), static_cast<CFIndex>(bytes.size()), kCFAllocatorNull)));
    return KVFileCreateFromData(data.get(), error);
}

KVFileClass *KVFileCreateFromFileAtPath(CFStringRef path, bool copyIntoStore, CFErrorRef *error) {
    return AtBoundary<KVFileClass *>(error, nullptr, [&] {
        try {
            return createFromFile(path, copyIntoStore).detach();
        } catch (const std::exception &exception) {
            throw Error(kKVErrorFilesystem, nullptr, CFSTR("File hash failed: %s"),
                        exception.what());
        }
    });
}

KVFileClass *KVFileCreateCopy(const KVFileClass *file) {
    if (KVFileIsAppendable(file)) {
        return nullptr;
    }
    auto copy = CF::Adopt(_KVFileAllocInit());
    KVFileClass &fields = *copy.get();
    fields.size = file->size;
    fields.hash = file->hash;
    fields.modifiedDate = file->modifiedDate;
    fields.localPath = file->localPath;
    fields.root = file->root;
    fields.cryptMode = file->cryptMode;
    fields.key = file->key;
    fields.cryptOperation = file->cryptOperation;
    if (!file->referenceHash.empty()) {
        fields.referenceHash = file->referenceHash;
        FileManager::RegisterReferenceForFile(&fields);
    }
    return copy.detach();
}
