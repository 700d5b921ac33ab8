// Containers to be edited, with the edits as verbs.
#pragma once

#include "tests/container/BackupFixture.hpp"

#include <set>

namespace container_tests {

class Editable {
  public:
    explicit Editable(Opened opened) : opened_(std::move(opened)) {}
    static Editable Empty() {
        testing_support::LibraryTemporaryPath();
        return Editable(
            Opened{Container(CF::adopt, KVBackupContainerCreateEmpty(nullptr, nullptr)), {}});
    }
    static Editable Sample(const std::string &name) { return Editable(OpenSample(name)); }

    KVBackupContainerClass *get() const { return opened_.get(); }
    const Opened &opened() const { return opened_; }
    KVManifestClass *manifest() const { return KVBackupContainerGetManifest(get()); }

    // No error: the file was stored.
    CF::Error Store(const std::string &domain, const std::string &path,
                    const std::string &content) const {
        return storeThrough(KVBackupContainerStoreFileForPath, domain, path, FileOf(content).get());
    }
    CF::Error StoreFile(const std::string &domain, const std::string &path,
                        KVFileClass *file) const {
        return storeThrough(KVBackupContainerStoreFileForPath, domain, path, file);
    }
    CF::Error Replace(const std::string &domain, const std::string &path,
                      const std::string &content) const {
        return storeThrough(KVBackupContainerReplaceFileForPath, domain, path,
                            FileOf(content).get());
    }
    KVManifestEntryClass *MakeDirectory(const std::string &domain, const std::string &path) const {
        return KVBackupContainerCreateDirectoryAtPath(get(), CF::String(domain), CF::String(path));
    }
    KVManifestEntryClass *Link(const std::string &domain, const std::string &path,
                               const std::string &target) const {
        return KVBackupContainerCreateSymlinkAtPath(get(), CF::String(domain), CF::String(path),
                                                    CF::String(target));
    }
    bool Remove(const std::string &domain, const std::string &path) const {
        return KVBackupContainerRemovePath(get(), CF::String(domain), CF::String(path));
    }
    KVManifestEntryClass *Entry(const std::string &domain, const std::string &path) const {
        return KVBackupContainerGetEntryForPath(get(), CF::String(domain), CF::String(path));
    }

    // The paths of all entries of a domain.
    std::multiset<std::string> Paths(const std::string &domain) const {
        std::multiset<std::string> paths;
        const auto entries = CF::Array::Adopt(
            KVManifestCopyEntriesAtPath(manifest(), CF::String(domain), CFSTR("")));
        for (CFIndex i = 0; i < entries.GetCount(); ++i) {
            paths.insert(CF::String::GetUTF8(KVManifestEntryGetPath(
                static_cast<const KVManifestEntryClass *>(entries.GetAt(i)))));
        }
        return paths;
    }
    std::vector<const void *> Entries() const {
        const CF::Array entries(KVManifestGetEntries(manifest()));
        std::vector<const void *> result;
        for (CFIndex i = 0; i < entries.GetCount(); ++i) {
            result.push_back(entries.GetAt(i));
        }
        return result;
    }
    std::string Content(const std::string &domain, const std::string &path) const {
        const CopiedFile copied = CopyFileForPath(opened_, domain, path);
        return copied.file ? Text(copied.file) : "(" + ReasonOf(copied.error) + ")";
    }

    static std::string Text(const File &file) {
        const auto bytes = ReadContent(file.get());
        return {bytes.begin(), bytes.end()};
    }
    static File FileOf(const std::string &content) {
        const std::vector<std::uint8_t> bytes(content.begin(), content.end());
        return File(CF::adopt, KVFileCreateFromData(bytes, nullptr));
    }
    static std::string ReasonOf(const CF::Error &error) {
        return error ? error.GetFailureReason().GetUTF8() : "no error";
    }

  private:
    CF::Error storeThrough(decltype(KVBackupContainerStoreFileForPath) *function,
                           const std::string &domain, const std::string &path,
                           KVFileClass *file) const {
        CFErrorRef error = nullptr;
        const bool stored = function(get(), CF::String(domain), CF::String(path), file, &error);
        EXPECT_EQ(stored, error == nullptr);
        return CF::Error::Adopt(error);
    }

    Opened opened_;
};

// An entry of the sample that is a file of that class.
inline nlohmann::json FindFileOfClass(const std::string &sample, int protectionClass) {
    return FindExpected(sample, [protectionClass](const nlohmann::json &entry) {
        return entry.at("type") == "file" && entry.at("protectionClass") == protectionClass;
    });
}

inline nlohmann::json FindOfType(const std::string &sample, const std::string &type) {
    return FindExpected(sample, [&](const nlohmann::json &entry) {
        return entry.at("type") == type && entry.at("path") != "";
    });
}

} // namespace container_tests
