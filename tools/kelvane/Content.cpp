#include "Content.hpp"

#include "Diagnostics.hpp"

#include <vector>

namespace tool {

namespace {

// Large enough that the calls per piece cost nothing beside its decryption.
constexpr unsigned long kChunkSize = 256 * 1024;

} // namespace

FileReference OpenContent(const Container &container, CFStringRef domain, CFStringRef path) {
    CFErrorRef raised = nullptr;
    try {
        FileReference file(
            CF::adopt, KVBackupContainerCopyFileForPath(container.get(), domain, path, &raised));
        if (file) {
            return file;
        }
    } catch (const CF::Error &error) {
        throw Failure(error);
    }
    if (raised != nullptr) {
        throw Failure(CF::Error::Adopt(raised));
    }
    // No content and no error: the entry is no file, or holds no key.
    Entry *entry = KVBackupContainerGetEntryForPath(container.get(), domain, path);
    const bool isFile = entry != nullptr && KVManifestEntryIsFile(entry);
    throw Failure(isFile ? "The backup holds no key for this file" : "This is not a file");
}

void ReadContent(const FileReference &file,
                 const std::function<void(std::span<const std::uint8_t>)> &consumer) {
    try {
        KVFileGetData(file.get(), kChunkSize, [&](const std::vector<std::uint8_t> &chunk) {
            consumer(chunk);
            return true;
        });
    } catch (const CF::Error &error) {
        throw Failure(error);
    }
}

} // namespace tool
