// From a Manifest.db to a manifest.
#include "manifest/ManifestDatabaseReader.hpp"
#include "KVManifest.h"
#include "Kelvane/Error.hpp"
#include "Kelvane/ManifestDB.hpp"
#include "Kelvane/SharedState.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/EntryFromMBFile.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/ManifestDatabaseFile.hpp"
#include "manifest/ManifestRows.hpp"
#include "manifest/ManifestVersion.hpp"
#include "manifest/TextCache.hpp"
#include "support/cf/Number.hpp"
#include "support/zk/Log.hpp"

#include <memory>
#include <optional>
#include <utility>

namespace Kelvane {

namespace {

// A row that stands for a file ID only.
constexpr int kPlaceholderFlags = 16;

// Gathers rows into the contents of a manifest. A bad row is logged and counted, and
// reading goes on, so that the log names all of them.
class RowCollector {
  public:
    RowCollector(CFAllocatorRef allocator, const KVGetFileFunction &getFileFunc)
        : allocator_(allocator), loader_(ShareFileLoader(getFileFunc)) {}

    void Add(const ManifestRow &row);
    ManifestContents TakeContents() {
        contents_.source = std::make_shared<const ManifestSource>(std::move(source_));
        return std::move(contents_);
    }
    long InvalidRows() const noexcept { return invalidRows_; }

  private:
    void AddEntry(const ManifestRow &row, CFStringRef fileID);
    void RefuseUnparsed(CFStringRef fileID);
    void RefuseUnknown(CFStringRef fileID, int flags);

    CFAllocatorRef allocator_;
    FileLoader loader_;
    TextCache domains_;
    ManifestContents contents_;
    ManifestSource source_;
    long invalidRows_ = 0;
};

void RowCollector::Add(const ManifestRow &row) {
    const StringPointer fileID = TextFromUTF8(row.fileID);
    if (!fileID) {
        RefuseUnparsed(nullptr);
    } else if (!row.domain.empty() && !row.file.empty()) {
        AddEntry(row, fileID.get());
    } else if (row.flags == kPlaceholderFlags && !row.fileID.empty()) {
        contents_.budget.TakePlaceholder(fileID.get());
        contents_.placeholders.Set(fileID.get(), CF::Number::FromInt32(row.flags).get());
    } else {
        RefuseUnknown(fileID.get(), row.flags);
    }
}

void RowCollector::AddEntry(const ManifestRow &row, CFStringRef fileID) {
    const StringPointer domain = domains_.Get(row.domain);
    const StringPointer path = TextFromUTF8(row.relativePath);
    EntryPointer entry;
    if (domain && path) {
        entry = CreateEntryFromMBFileData(allocator_, fileID, domain.get(), path.get(), row.flags,
                                          row.file, loader_);
    }
    if (entry) {
        entry.get()->origin = source_.AddEntry(row.rowID);
        contents_.Append(entry.get());
    } else {
        RefuseUnparsed(fileID);
    }
}

void RowCollector::RefuseUnparsed(CFStringRef fileID) {
    ZLLogDomain(GetLogDomain(), kZLLogLevelBadRecord, CFSTR("Parse error: fileID '%@'"), fileID);
    ++invalidRows_;
}

void RowCollector::RefuseUnknown(CFStringRef fileID, int flags) {
    ZLLogDomain(GetLogDomain(), kZLLogLevelBadRecord,
                CFSTR("Unknown entry format: fileID '%@' fileType '%x'"), fileID,
                static_cast<unsigned>(flags));
    ++invalidRows_;
}

void CollectRows(ManifestDB &database, const KVProgressFunction &progress,
                 RowCollector &collector) {
    ManifestRows rows(database);
    const std::int64_t count = rows.Count();
    ManifestRow row;
    while (rows.Next(row)) {
        collector.Add(row);
        if (progress) {
            progress(row.index, count, static_cast<double>(row.index) / static_cast<double>(count));
        }
    }
}

// A working copy stays where it is, but not that of a database which cannot be read: it may be
// the plaintext of one that lies encrypted elsewhere, and nobody learns of its path.
class WorkingCopy {
  public:
    explicit WorkingCopy(std::unique_ptr<ManifestDB> database)
        : database_(std::move(database)), localPath_(database_->GetLocalPath().GetUTF8()) {}
    WorkingCopy(const WorkingCopy &) = delete;
    WorkingCopy &operator=(const WorkingCopy &) = delete;
    ~WorkingCopy() {
        if (!kept_) {
            database_->Close();
            RemoveManifestDatabaseFile(localPath_);
        }
    }
    ManifestDB &Database() noexcept { return *database_; }
    void Keep() noexcept { kept_ = true; }

  private:
    std::unique_ptr<ManifestDB> database_;
    std::string localPath_; // there may be no memory to ask for it
    bool kept_ = false;
};

[[noreturn]] void ThrowLogged(const CF::Error &error) {
    ZLLogError(error.get(), GetLogDomain(), nullptr);
    throw error;
}

// open returns the working copy of the database.
template <class Open>
void CollectAllRows(Open open, const KVProgressFunction &progress, RowCollector &collector) {
    std::optional<WorkingCopy> copy;
    try {
        copy.emplace(open());
        CollectRows(copy->Database(), progress, collector);
    } catch (const CF::Error &cause) {
        ThrowLogged(Error(kKVErrorInvalidManifestDatabase, cause,
                          "Failed to parse records from manifest database"));
    }
    if (collector.InvalidRows() > 0) {
        ThrowLogged(Error(kKVErrorInvalidManifestDatabase, nullptr,
                          CFSTR("Database contains %ld invalid entries"), collector.InvalidRows()));
    }
    copy->Keep();
}

struct Request {
    CFAllocatorRef allocator;
    KVManifestDataVersion version;
    const KVGetFileFunction &getFileFunc;
    const KVProgressFunction &progress;
};

template <class Open>
KVManifestClass *ReadManifest(const Request &request, CFErrorRef *error, Open open) {
    return AtBoundary<KVManifestClass *>(error, nullptr, [&] {
        RequireDatabaseVersion(request.version);
        RowCollector collector(request.allocator, request.getFileFunc);
        CollectAllRows(open, request.progress, collector);
        return CreateManifest(request.allocator, collector.TakeContents(), request.version);
    });
}

} // namespace

KVManifestClass *CreateManifestFromDatabase(CFAllocatorRef allocator,
                                            ZK::file::readable_file &database,
                                            const CF::String &path, KVManifestDataVersion version,
                                            const KVGetFileFunction &getFileFunc,
                                            const KVProgressFunction &progress, CFErrorRef *error) {
    return ReadManifest({allocator, version, getFileFunc, progress}, error,
                        [&] { return CopyOpenDatabase(database, path); });
}

} // namespace Kelvane

KVManifestClass *KVManifestCreateFromManifestDatabase(
    CFAllocatorRef allocator, CFStringRef databasePath, KVManifestDataVersion version,
    const KVGetFileFunction &getFileFunc, const KVProgressFunction &progress, CFErrorRef *error) {
    return Kelvane::ReadManifest({allocator, version, getFileFunc, progress}, error, [&] {
        return std::make_unique<Kelvane::ManifestDB>(CF::String(databasePath));
    });
}
