// From a manifest to the bytes of a Manifest.db.
#include "KVManifest.h"
#include "KVManifestEntry.h"
#include "Kelvane/Error.hpp"
#include "Kelvane/ManifestDB.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/ManifestRowWriter.hpp"
#include "manifest/ManifestVersion.hpp"
#include "support/cf/Data.hpp"
#include "support/cf/Number.hpp"
#include "support/zk/File.hpp"

#include <boost/system/system_error.hpp>

#include <cerrno>
#include <string>

namespace Kelvane {

namespace {

// What devices write, whichever manifest version the backup says.
constexpr int kWrittenUserVersion = 2;
// The result is one object in memory, so it is bounded: 100 MiB, some 100,000 rows.
constexpr std::size_t kMaximumDatabaseSize = 104857600;

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
    for (CFIndex i = 0; i < entries.GetCount(); ++i) {
        const auto *const entry = static_cast<const KVManifestEntryClass *>(entries.GetAt(i));
        const auto record = CF::Data::Adopt(KVManifestEntryCreateMBFileDataRepresentation(entry));
        if (record) {
            writer.Add(KVManifestEntryGetFileID(entry), KVManifestEntryGetDomain(entry),
                       KVManifestEntryGetPath(entry), KVManifestEntryGetFileType(entry),
                       record.get());
        } else {
            failed.Append(entry);
        }
    }
    return failed;
}

void AddPlaceholders(KVManifestClass *manifest, ManifestRowWriter &writer) {
    manifest->placeholderFileIDs.ForEach([&](CFTypeRef fileID, CFTypeRef flags) {
        int value = 0;
        CFNumberGetValue(static_cast<CFNumberRef>(flags), kCFNumberIntType, &value);
        writer.Add(static_cast<CFStringRef>(fileID), nullptr, nullptr, value, nullptr);
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

// The whole file; only part of it when an error is left.
CF::Data ReadWhole(ZK::file::readable_file &file, boost::system::error_code &error) {
    const auto bytes = CF::Data::Adopt(CFDataCreateMutable(kCFAllocatorDefault, 0));
    auto *const destination = const_cast<CFMutableDataRef>(bytes.get());
    std::vector<std::uint8_t> buffer(1024 * 1024);
    while (const std::size_t count = file.read_some(buffer, error)) {
        if (static_cast<std::size_t>(bytes.GetLength()) + count > kMaximumDatabaseSize) {
            error = boost::system::errc::make_error_code(boost::system::errc::file_too_large);
            break;
        }
        CFDataAppendBytes(destination, buffer.data(), static_cast<CFIndex>(count));
    }
    return bytes;
}

CF::Data ReadDatabase(const std::string &path) {
    boost::system::error_code error;
    ZK::file::readable_file file(path, error);
    if (error) {
        throw MakeFSError(error.value(), CFSTR("Failed to open temporary DB location: %s"),
                          path.c_str());
    }
    const CF::Data bytes = ReadWhole(file, error);
    if (error) {
        throw MakeFSError(error.value(), CFSTR("Failed to read from temporary DB location: %s"),
                          path.c_str());
    }
    return bytes;
}

} // namespace

} // namespace Kelvane

CFDataRef KVManifestCreateManifestDBRepresentation(KVManifestClass *manifest,
                                                   KVManifestDataVersion version) {
    Kelvane::RequireDatabaseVersion(version);
    Kelvane::ManifestDB database = Kelvane::NewDatabase();
    Kelvane::FillDatabase(manifest, database);
    database.Close();
    return Kelvane::ReadDatabase(database.GetLocalPath().GetUTF8()).detach();
}
