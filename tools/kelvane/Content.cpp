#include "Content.hpp"

#include "Diagnostics.hpp"
#include "Unloadable.hpp"

#include <algorithm>
#include <unistd.h>
#include <vector>

namespace tool {

namespace {

// Large enough that the calls per piece cost nothing beside its decryption.
constexpr unsigned long kChunkSize = 256 * 1024;
constexpr std::size_t kSHA1Size = 20;

// Calls the function of the library with a place for an error. It returns null without an
// error for an entry that has no content to give; the message says why. describe makes the
// failure of an error.
template <class Get, class Describe>
KVFileClass *require(Get get, const char *messageWithoutError, Describe describe) {
    CFErrorRef raised = nullptr;
    KVFileClass *file = nullptr;
    try {
        file = get(&raised);
    } catch (const CF::Error &error) {
        throw describe(error);
    }
    if (file == nullptr) {
        throw raised != nullptr ? describe(CF::Error::Adopt(raised)) : Failure(messageWithoutError);
    }
    return file;
}

// Borrowed from the entry.
KVFileClass *storedFile(Entry *entry) {
    return require([&](CFErrorRef *error) { return KVManifestEntryGetFile(entry, error); },
                   "This is not a file", UnloadableContent);
}

FileReference plainFile(const Container &container, Entry *entry) {
    return FileReference(CF::adopt, require(
                                        [&](CFErrorRef *error) {
                                            return KVBackupContainerCopyFileForEntry(
                                                container.get(), entry, error);
                                        },
                                        "The backup holds no key for this file",
                                        [](const CF::Error &error) { return Failure(error); }));
}

bool isHashOf(const FileReference &file, std::span<const std::uint8_t> digest) {
    return std::ranges::equal(KVFileGetHash(file.get()), digest);
}

} // namespace

UnpackedFile::UnpackedFile(const TemporaryArea &area, const FileReference &stored)
    : path_(CF::String::GetUTF8(KVFileGetLocalPath(stored.get()))), ours_(area.Contains(path_)) {}

UnpackedFile::~UnpackedFile() {
    if (ours_) {
        unlink(path_.c_str());
    }
}

Content::Content(const Container &container, Entry *entry, const TemporaryArea &area)
    : entry_(entry), stored_(storedFile(entry)), unpacked_(area, stored_),
      plain_(plainFile(container, entry)) {}

void Content::Read(const std::function<void(std::span<const std::uint8_t>)> &consumer) const {
    std::uint64_t done = 0;
    try {
        KVFileGetData(plain_.get(), kChunkSize, [&](const std::vector<std::uint8_t> &chunk) {
            consumer(chunk);
            done += chunk.size();
            return true;
        });
    } catch (const CF::Error &error) {
        throw Failure(error);
    }
    if (done != KVFileGetSize(plain_.get())) {
        throw Failure("The stored file changed while it was read");
    }
}

// Writers differ in whether they mean the plaintext or the bytes that they stored.
bool Content::hasDigest(const CF::Data &digest) const {
    return isHashOf(stored_, digest.GetBytes()) || isHashOf(plain_, digest.GetBytes());
}

bool Content::hasSize(std::int64_t size) const {
    const auto recorded = static_cast<std::uint64_t>(size);
    return size >= 0 &&
           (recorded == KVFileGetSize(stored_.get()) || recorded == KVFileGetSize(plain_.get()));
}

std::string Content::Deviation() const {
    const CF::Data digest(KVManifestEntryGetDataHash(entry_));
    if (digest.GetBytes().size() == kSHA1Size) {
        // The right digest settles it: sizes of files that were in use are often out of date.
        return hasDigest(digest) ? "" : "its SHA-1 is not the one in the manifest";
    }
    const std::int64_t size = KVManifestEntryGetFileSize(entry_);
    if (hasSize(size)) {
        return "";
    }
    return "it has " + std::to_string(KVFileGetSize(plain_.get())) + " bytes, the manifest says " +
           std::to_string(size);
}

} // namespace tool
