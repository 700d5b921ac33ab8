// Containers with large manifests, made in memory: the entries have the names and sizes of
// those on a device in use, but no content.
#pragma once

#include "KVBackupContainer.h"
#include "KVManifest.h"
#include "KVTemporaryPath.h"
#include "Measure.hpp"
#include "manifest/KVManifestClass.hpp"
#include "support/cf/CF.hpp"

#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>

namespace large_manifest {

using Container = CF::Pointer<KVBackupContainerClass *>;
using Entries = std::vector<Kelvane::EntryPointer>;

inline void require(bool condition, const char *what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

inline void usePrivateDirectory() {
    const std::string directory = measure::DataDirectory() + "/temporary";
    ::mkdir(directory.c_str(), 0700);
    KelvaneSetTemporaryPath(CF::String(directory).get());
}

inline Container makeEmptyContainer() {
    auto container = CF::Adopt(KVBackupContainerCreateEmpty(nullptr, nullptr));
    require(static_cast<bool>(container), "no empty container");
    return container;
}

// The encrypted sample, whose entries are to be replaced: an empty container has no keys.
inline Container openEncryptedSample() {
    const std::string samples = KELVANE_SOURCE_DIR "/samples/";
    std::string password;
    std::ifstream file(samples + "password.txt");
    std::getline(file, password);
    auto container = CF::Adopt(KVBackupContainerCreateFromDirectory(
        nullptr, CF::String(samples + "encrypted-3.3").get(), CF::String(password).get(),
        kKVBackupOpenKeepDeviceBoundKeysLocked, {}, nullptr));
    require(static_cast<bool>(container), "the encrypted sample cannot be opened");
    return container;
}

inline void appendEntry(Entries &entries, const CF::String &domain, const std::string &path,
                        bool isDirectory) {
    const CF::String text(path);
    auto entry = Kelvane::AllocateEntry(kCFAllocatorDefault);
    Kelvane::SetEntryPath(*entry.get(), domain.get(), text.get());
    Kelvane::SetFileID(*entry.get(),
                       CF::Adopt(KVManifestEntryCopyFileIDForPath(domain.get(), text.get())));
    entry.get()->mode = isDirectory ? 040755 : 0100644;
    entry.get()->size = isDirectory ? 0 : 10'000;
    entries.push_back(std::move(entry));
}

inline CF::String domainName(long number) {
    return CF::String("AppDomain-com.example.app" + std::to_string(number));
}

// So many entries in so many domains, each with its root, directories of some hundred files
// and the directories above them.
inline Entries makeEntries(long count, long domains) {
    constexpr long kFilesPerDirectory = 300;
    Entries entries;
    for (long number = 0; number < domains; ++number) {
        const CF::String domain = domainName(number);
        const long end = (number + 1) * count / domains - number * count / domains;
        const char *const above[] = {"", "Library", "Library/Application Support"};
        for (const char *const path : above) {
            appendEntry(entries, domain, path, true);
        }
        std::string directory;
        for (long i = 3; i < end; ++i) {
            const bool isDirectory = (i - 3) % kFilesPerDirectory == 0;
            if (isDirectory) {
                directory = "Library/Application Support/" + std::to_string(i);
            }
            appendEntry(entries, domain,
                        isDirectory ? directory
                                    : directory + "/" + std::to_string(i * 7919) + ".dat",
                        isDirectory);
        }
    }
    return entries;
}

// As after reading them: no lookup table and no array of them is there yet.
inline void setEntries(const Container &container, const Entries &entries) {
    KVManifestClass *const manifest = KVBackupContainerGetManifest(container.get());
    KVManifestUpdateEntries(manifest, nullptr);
    for (const Kelvane::EntryPointer &entry : entries) {
        manifest->entries.Append(entry.get());
    }
}

} // namespace large_manifest
