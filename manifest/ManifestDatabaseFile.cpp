#include "manifest/ManifestDatabaseFile.hpp"

#include "KVManifestEntry.h"
#include "Kelvane/Error.hpp"
#include "Kelvane/ManifestDB.hpp"
#include "manifest/EntryToMBFile.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/ManifestRowWriter.hpp"
#include "manifest/ManifestVersion.hpp"
#include "support/cf/Number.hpp"
#include "support/zk/UniqueDescriptor.hpp"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <vector>

#include <fcntl.h>

namespace Kelvane {

namespace {

// What devices write, whichever manifest version the backup says.
constexpr int kWrittenUserVersion = 2;

ManifestDB NewDatabase() {
    try {
        return ManifestDB(kWrittenUserVersion);
    } catch (const CF::Error &cause) {
        throw Error(kKVErrorUnknown, cause, "Database initialization failed");
    }
}

// Entries without a record are left out and returned.
CF::Array AddEntries(KVManifestClass *manifest, ManifestRowWriter &writer) {
    const CF::Array entries = CopySortedEntries(manifest);
    const auto failed = CF::Array::Mutable();
    std::vector<std::uint8_t> record;
    for (CFIndex i = 0; i < entries.GetCount(); ++i) {
        const auto *const entry = static_cast<const KVManifestEntryClass *>(entries.GetAt(i));
        if (EncodeEntryRecord(*entry, record)) {
            writer.Add(KVManifestEntryGetFileID(entry), KVManifestEntryGetDomain(entry),
                       KVManifestEntryGetPath(entry), KVManifestEntryGetFileType(entry), record);
        } else {
            failed.Append(entry);
        }
    }
    return failed;
}

// One whose file ID an entry has been given since would take the place of the entry's row.
void AddPlaceholders(KVManifestClass *manifest, ManifestRowWriter &writer) {
    manifest->placeholderFileIDs.ForEach([&](CFTypeRef fileID, CFTypeRef flags) {
        if (KVManifestGetEntryForFileID(manifest, static_cast<CFStringRef>(fileID)) != nullptr) {
            return;
        }
        int value = 0;
        CFNumberGetValue(static_cast<CFNumberRef>(flags), kCFNumberIntType, &value);
        writer.Add(static_cast<CFStringRef>(fileID), nullptr, nullptr, value, {});
    });
}

void FillDatabase(KVManifestClass *manifest, ManifestDB &database) {
    ManifestRowWriter writer(database);
    writer.Begin();
    const CF::Array failed = AddEntries(manifest, writer);
    AddPlaceholders(manifest, writer);
    if (failed.GetCount() > 0) {
        throw Error(kKVErrorUnknown, nullptr, CFSTR("Failed to serialize entries %@"),
                    failed.get());
    }
    writer.Commit();
}

// What SQLite keeps beside a database while it is in use.
constexpr const char *kCompanionSuffixes[] = {"-wal", "-shm", "-journal"};

// Without memory, for which there may be none. A longer name than fits cannot be a file's.
void RemoveCompanions(const std::string &path) noexcept {
    for (const char *const suffix : kCompanionSuffixes) {
        std::array<char, PATH_MAX> name{};
        const int length = std::snprintf(name.data(), name.size(), "%s%s", path.c_str(), suffix);
        if (length > 0 && static_cast<std::size_t>(length) < name.size()) {
            std::remove(name.data());
        }
    }
}

// SQLite does not tell when closing its file fails, as it does on file systems that find out
// only then that there is no room for what was written. A second descriptor, opened before and
// closed after SQLite's, learns of it. It knows no locks, which would keep SQLite out.
class Witness {
  public:
    explicit Witness(const std::string &path)
        : path_(path), descriptor_(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW)) {
        if (descriptor_.get() < 0) {
            fail(errno);
        }
    }
    void RequireWritten() {
        if (const int number = descriptor_.close()) {
            fail(number);
        }
    }

  private:
    [[noreturn]] void fail(int number) const {
        throw MakeFSError(number, CFSTR("Failed to write temporary database: %s"), path_.c_str());
    }

    std::string path_;
    ZK::file::unique_descriptor descriptor_;
};

// Closes the database first: SQLite would write to what is removed under it.
void Discard(ManifestDB &database, const std::string &path) noexcept {
    database.Close();
    RemoveManifestDatabaseFile(path);
}

} // namespace

std::string WriteManifestDatabaseFile(KVManifestClass *manifest, KVManifestDataVersion version) {
    RequireDatabaseVersion(version);
    ManifestDB database = NewDatabase();
    const std::string path = database.GetLocalPath().GetUTF8();
    try {
        Witness witness(path);
        FillDatabase(manifest, database);
        database.Close();
        witness.RequireWritten();
    } catch (...) {
        Discard(database, path);
        throw;
    }
    // All rows are in the database itself by now, so an empty log is all that can be left.
    RemoveCompanions(path);
    return path;
}

void RemoveManifestDatabaseFile(const std::string &path) noexcept {
    std::remove(path.c_str());
    RemoveCompanions(path);
}

} // namespace Kelvane
