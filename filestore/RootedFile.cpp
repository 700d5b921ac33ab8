#include "filestore/RootedFile.hpp"

#include "Kelvane/Error.hpp"
#include "Kelvane/FileManager.hpp"
#include "filestore/KVFileClass.hpp"
#include "foundation/Boundary.hpp"
#include "support/cf/Dictionary.hpp"
#include "support/cf/Extensions.hpp"
#include "support/zk/Encryption.hpp"

#include <boost/system/system_error.hpp>

#include <cerrno>
#include <utility>

namespace Kelvane {

namespace {

CF::String pathOf(const RootDirectory &root, const CF::String &name) {
    return CF::String::Format(CFSTR("%@/%@"), CF::String(root->path().native()).get(), name.get());
}

// Any other error of looking says nothing of what lies there, and a file that is there must not
// pass for one that is missing.
bool tellsThatNothingIsThere(int number) {
    return number == ENOENT || number == ENOTDIR || number == ENAMETOOLONG;
}

// Which of the files it is cannot be told otherwise where nobody names it in an error above.
CF::Error unhashed(const CF::String &name, const std::exception &exception) {
    return Error(kKVErrorUnknown, nullptr, CFSTR("Failed to hash file - %@: %s"), name.get(),
                 exception.what());
}

// Why the file could not be opened.
CF::Error errorOfOpening(const RootDirectory &root, const CF::String &name,
                         const boost::system::system_error &failure) {
    struct stat status {};
    const int looked = root->look(name.GetUTF8(), status);
    if (failure.code().value() == ELOOP || looked == ELOOP) {
        return LinkedStoredName(name);
    }
    if (tellsThatNothingIsThere(looked)) {
        return Error(kKVErrorFileNotFound, nullptr, CFSTR("File does not exist at path '%s'"),
                     pathOf(root, name).GetUTF8().c_str());
    }
    return unhashed(name, failure);
}

CF::Date dateOf(std::time_t time) {
    return CF::Date::FromAbsoluteTime(static_cast<double>(time) - kCFAbsoluteTimeIntervalSince1970);
}

// Size and date are those of the very file that was hashed.
void readFacts(KVFileClass &file, const CF::String &name, ZK::file::readable_file &content) {
    try {
        file.hash = ZK::Encryption::HashOfFile(content);
        file.size = content.size();
        file.modifiedDate = dateOf(content.last_write_time());
    } catch (const std::exception &exception) {
        throw unhashed(name, exception);
    }
}

void registerFile(KVFileClass &file) {
    file.referenceHash = file.hash;
    FileManager::RegisterReferenceForFile(&file);
}

OwnedFile referenceAgainBelow(const KVFileClass &file) {
    struct stat status {};
    if (file.root->look(file.nameBelowRoot(), status) != 0 || !S_ISREG(status.st_mode)) {
        throw Error(kKVErrorFileNotInCache);
    }
    auto reference = CF::Adopt(KVFileCreateCopy(&file));
    reference.get()->size = static_cast<std::uint64_t>(status.st_size);
    reference.get()->modifiedDate = dateOf(status.st_mtime);
    return reference;
}

} // namespace

ZK::file::readable_file OpenBelow(const RootDirectory &root, const CF::String &name) {
    try {
        return {*root, name.GetUTF8()};
    } catch (const boost::system::system_error &failure) {
        throw errorOfOpening(root, name, failure);
    }
}

OwnedFile ReferenceBelow(const RootDirectory &root, const CF::String &name) {
    ZK::file::readable_file content = OpenBelow(root, name);
    auto reference = CF::Adopt(_KVFileAllocInit());
    KVFileClass &file = *reference.get();
    readFacts(file, name, content);
    file.localPath = pathOf(root, name);
    file.root = root;
    registerFile(file);
    return reference;
}

OwnedFile ReferenceAgain(const KVFileClass &file) {
    if (file.root != nullptr) {
        return referenceAgainBelow(file);
    }
    LocalError cause;
    auto reference = CF::Adopt(FileManager::CopyCachedFileReference(
        ZK::filesystem::path(file.localPath.GetUTF8()), file.hash, cause.out()));
    if (!reference) {
        throw cause.get();
    }
    return reference;
}

CF::Error UnsafeStoredName(const CF::String &name, const CF::Error &cause) {
    return Error(kKVErrorInvalidBackup, cause, CFSTR("Unsafe stored file name (%@)"), name.get());
}

CF::Error LinkedStoredName(const CF::String &name) {
    const auto info = CF::Dictionary::Mutable();
    info.Set(kCFErrorLocalizedFailureReasonKey,
             CFSTR("It is reached over a symbolic link, which is not followed"));
    return UnsafeStoredName(
        name, CF::Error::Adopt(CFErrorCreatePOSIXError(kCFAllocatorDefault, ELOOP, info.get())));
}

} // namespace Kelvane
