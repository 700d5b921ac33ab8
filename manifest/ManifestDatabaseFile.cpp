#include "manifest/ManifestDatabaseFile.hpp"

#include "KVManifestEntry.h"
#include "Kelvane/Error.hpp"
#include "Kelvane/ManifestDB.hpp"
#include "manifest/DatabaseCompletion.hpp"
#include "manifest/EntryToMBFile.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/ManifestVersion.hpp"
#include "support/cf/Number.hpp"

#include <cstdint>
#include <cstdio>
#include <vector>

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

// Closes the database first: SQLite would write to what is removed under it.
void Discard(ManifestDB &database, const std::string &path) noexcept {
    database.Close();
    RemoveManifestDatabaseFile(path);
}

} // namespace

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

std::string WriteManifestDatabaseFile(KVManifestClass *manifest, KVManifestDataVersion version) {
    RequireDatabaseVersion(version);
    ManifestDB database = NewDatabase();
    const std::string path = database.GetLocalPath().GetUTF8();
    try {
        DatabaseWitness witness(path);
        FillDatabase(manifest, database);
        database.Close();
        witness.RequireWritten();
    } catch (...) {
        Discard(database, path);
        throw;
    }
    // All rows are in the database itself by now, so an empty log is all that can be left.
    RemoveDatabaseCompanions(path);
    return path;
}

void RemoveManifestDatabaseFile(const std::string &path) noexcept {
    std::remove(path.c_str());
    RemoveDatabaseCompanions(path);
}

} // namespace Kelvane
