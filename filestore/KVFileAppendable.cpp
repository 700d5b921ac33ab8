#include "KVFile.h"

#include "Kelvane/Error.hpp"
#include "Kelvane/FileManager.hpp"
#include "filestore/KVFileClass.hpp"
#include "filestore/Storage.hpp"
#include "foundation/Boundary.hpp"
#include "support/cf/Data.hpp"
#include "support/cf/UUID.hpp"
#include "support/zk/OpenSSL.hpp"

#include <boost/system/system_error.hpp>

namespace {

using Kelvane::AtBoundary;
using Kelvane::Error;
namespace FileManager = Kelvane::FileManager;

constexpr std::size_t kSHA1Size = 20;

Kelvane::DigestContext beginDigest() {
    ZK::Encryption::detail::RequireLibrary();
    Kelvane::DigestContext digest(EVP_MD_CTX_new());
    if (digest == nullptr) {
        throw Error(kKVErrorUnknown, nullptr, CFSTR("Failed to create digest context"));
    }
    if (EVP_DigestInit_ex(digest.get(), EVP_sha1(), nullptr) != 1) {
        throw Error(kKVErrorUnknown, nullptr, CFSTR("Failed to init digest context"));
    }
    return digest;
}

std::vector<std::uint8_t> finishDigest(const Kelvane::DigestContext &digest) {
    std::vector<std::uint8_t> hash(kSHA1Size);
    if (EVP_DigestFinal_ex(digest.get(), hash.data(), nullptr) != 1) {
        throw Error(kKVErrorUnknown, nullptr, CFSTR("Failed to finalize digest"));
    }
    return hash;
}

ZK::filesystem::path localPath(const KVFileClass &file) { return file.localPath.GetUTF8(); }

KVFileClass *createAppendable() {
    const ZK::filesystem::path scratch =
        FileManager::GetStorageLocationForTempIdentifier(CF::UUID::Create().GetString().get());
    try {
        // The digest first: its failure then leaves no file behind.
        Kelvane::DigestContext digest = beginDigest();
        auto writer = ZK::file::writable_file::create_new(scratch);
        Kelvane::ScratchFile unused(scratch);
        auto file = CF::Adopt(_KVFileAllocInit());
        file.get()->localPath = CF::String(scratch.string());
        file.get()->writer = std::move(writer);
        file.get()->digest = std::move(digest);
        unused.Keep();
        return file.detach();
    } catch (const boost::system::system_error &exception) {
        throw Kelvane::MakeFSError(exception, scratch);
    }
}

void requireAppendable(const KVFileClass *file) {
    if (!KVFileIsAppendable(file)) {
        throw Error(kKVErrorInvalidArgument, nullptr, CFSTR("File reference not appendable"));
    }
}

void append(KVFileClass &file, std::span<const std::uint8_t> bytes) {
    try {
        file.writer.write(bytes);
    } catch (const boost::system::system_error &exception) {
        throw Kelvane::MakeFSError(exception, localPath(file));
    }
    if (EVP_DigestUpdate(file.digest.get(), bytes.data(), bytes.size()) != 1) {
        throw Error(kKVErrorUnknown, nullptr, CFSTR("Failed to update digest"));
    }
    file.size += bytes.size();
}

// Places the scratch file in the store under its new path, and counts the reference. False when
// a file that lay there already was taken instead.
bool store(KVFileClass &file, const ZK::filesystem::path &scratch,
           const ZK::filesystem::path &location) {
    const std::lock_guard lock(_TempFilesystemMutex);
    bool moved = false;
    try {
        moved = Kelvane::MoveIntoStore(scratch, location);
    } catch (const boost::system::system_error &exception) {
        throw Kelvane::MakeFSError(exception, scratch);
    }
    file.referenceHash = file.hash;
    FileManager::RegisterReferenceForFile(&file);
    return moved;
}

// Compares what lies on disk with what was appended, and takes its date over.
void verifyStored(KVFileClass &file, const ZK::filesystem::path &location) {
    try {
        const Kelvane::FileFacts facts = Kelvane::ReadFileFacts(location);
        if (facts.size != file.size) {
            throw Error(kKVErrorFilesystem, nullptr,
                        CFSTR("Calculated appended size does not match size on disk! "
                              "(%llu != %llu) (%s)"),
                        static_cast<unsigned long long>(file.size),
                        static_cast<unsigned long long>(facts.size), location.c_str());
        }
        file.modifiedDate = facts.modified;
    } catch (const boost::system::system_error &exception) {
        throw Kelvane::MakeFSError(exception, location);
    }
}

void finalize(KVFileClass &file) {
    // Whatever happens now, the file is no longer appendable, and the scratch file of no use.
    const Kelvane::DigestContext digest = std::move(file.digest);
    const ZK::filesystem::path scratch = localPath(file);
    Kelvane::ScratchFile unfinished(scratch);
    boost::system::error_code notWritten;
    file.writer.close(notWritten);
    std::vector<std::uint8_t> hash = finishDigest(digest);
    if (notWritten) {
        throw Kelvane::MakeFSError(boost::system::system_error(notWritten, "close"), scratch);
    }
    const ZK::filesystem::path location = FileManager::GetStorageLocationForFile();
    file.localPath = CF::String(location.string());
    file.hash = std::move(hash);
    const bool moved = store(file, scratch, location);
    unfinished.Keep();
    Kelvane::ScratchFile unverified(moved ? location : ZK::filesystem::path());
    verifyStored(file, location);
    unverified.Keep();
}

} // namespace

KVFileClass *KVFileCreateAppendable(CFErrorRef *error) {
    return AtBoundary<KVFileClass *>(error, nullptr, createAppendable);
}

Boolean KVFileIsAppendable(const KVFileClass *file) { return file->writer.is_open(); }

Boolean KVFileAppendBytes(KVFileClass *file, const uint8_t *bytes, long length, CFErrorRef *error) {
    return AtBoundary<Boolean>(error, false, [&] {
        if (bytes == nullptr || length < 1) {
            throw Error(kKVErrorInvalidArgument, nullptr, CFSTR("Bad buffer argument"));
        }
        requireAppendable(file);
        append(*file, std::span(bytes, static_cast<std::size_t>(length)));
        return true;
    });
}

Boolean KVFileAppendData(KVFileClass *file, CFDataRef data, CFErrorRef *error) {
    const auto bytes = CF::Data(data).GetBytes();
    return KVFileAppendBytes(file, bytes.data(), static_cast<long>(bytes.size()), error);
}

Boolean KVFileFinalizeAppendable(KVFileClass *file, CFErrorRef *error) {
    return AtBoundary<Boolean>(error, false, [&] {
        requireAppendable(file);
        finalize(*file);
        return true;
    });
}
