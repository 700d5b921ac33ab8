#include "ContentCheck.hpp"

#include "Diagnostics.hpp"
#include "KVError.h"
#include "Unloadable.hpp"

#include <algorithm>

namespace tool {

namespace {

// A file, or the error that took its place; neither for an entry without a key.
struct Loaded {
    FileReference file;
    CF::Error error;
};

template <class Load>
Loaded load(Load call) {
    CFErrorRef raised = nullptr;
    FileReference file = call(&raised);
    return {std::move(file), CF::Error::Adopt(raised)};
}

Loaded loadStored(Entry *entry) {
    return load(
        [&](CFErrorRef *error) { return FileReference(KVManifestEntryGetFile(entry, error)); });
}

Loaded loadPlain(const Container &container, Entry *entry) {
    return load([&](CFErrorRef *error) {
        return FileReference(CF::adopt,
                             KVBackupContainerCopyFileForEntry(container.get(), entry, error));
    });
}

bool isHashOf(const FileReference &file, const CF::Data &digest) {
    return std::ranges::equal(KVFileGetHash(file.get()), digest.GetBytes());
}

std::string sizeMessage(std::uint64_t plain, std::uint64_t stored, std::int64_t recorded) {
    std::string text = "it has " + std::to_string(plain) + " bytes";
    if (stored != plain) {
        text += " (" + std::to_string(stored) + " as stored)";
    }
    return text + ", the manifest says " + std::to_string(recorded);
}

} // namespace

void ContentCheck::Run(Entry *entry) const {
    const Loaded stored = loadStored(entry);
    if (!stored.file) {
        reportUnloadable(entry, stored.error);
        return;
    }
    const UnpackedFile unpacked(area_, stored.file);
    const Loaded plain = loadPlain(container_, entry);
    if (!plain.file) {
        reportLocked(entry, plain.error);
        return;
    }
    checkRecorded(entry, stored.file, plain.file);
}

// Loading hashed every byte, so nothing needs to be read once more. Writers differ in whether
// they record the plaintext or the bytes that they stored.
void ContentCheck::checkRecorded(Entry *entry, const FileReference &stored,
                                 const FileReference &plain) const {
    const std::int64_t recorded = KVManifestEntryGetFileSize(entry);
    const std::uint64_t storedSize = KVFileGetSize(stored.get());
    const std::uint64_t plainSize = KVFileGetSize(plain.get());
    const auto size = static_cast<std::uint64_t>(recorded);
    if (recorded < 0 || (size != storedSize && size != plainSize)) {
        report(entry, "size", sizeMessage(plainSize, storedSize, recorded));
    }
    const CF::Data digest(KVManifestEntryGetDataHash(entry));
    if (!digest.IsEmpty() && !isHashOf(stored, digest) && !isHashOf(plain, digest)) {
        report(entry, "digest", "its SHA-1 is not the one in the manifest");
    }
}

void ContentCheck::reportUnloadable(Entry *entry, const CF::Error &error) const {
    const Unloadable why = WhyUnloadable(error);
    report(entry, why.kind, why.message, error);
}

void ContentCheck::reportLocked(Entry *entry, const CF::Error &error) const {
    if (!error) {
        report(entry, "key-missing", "it holds no key, in an encrypted backup");
    } else if (FindCode(error, kKVErrorUnlockFailed)) {
        report(entry, "key-locked", "its key cannot be unwrapped", error);
    } else {
        report(entry, "undecryptable", "its stored content does not decrypt", error);
    }
}

void ContentCheck::report(Entry *entry, const char *kind, const std::string &message,
                          const CF::Error &cause) const {
    sink_({Problem::Severity::Problem, kind, entry, "", message, cause});
}

} // namespace tool
