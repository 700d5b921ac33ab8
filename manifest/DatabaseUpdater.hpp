// The rows of a source's database, brought up to date one by one.
#pragma once

#include "manifest/DatabaseGuard.hpp"
#include "manifest/DeviceRowRecord.hpp"
#include "manifest/ManifestRowWriter.hpp"
#include "manifest/RowPlan.hpp"
#include "support/cf/Array.hpp"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Kelvane {

// The name of the row numbers of Files when its rows can be brought up to date one by one: when
// they have numbers, a file ID and nothing else belongs to one row at most, and nothing in the
// schema is computed for a row that is written, which may take any time. Otherwise null. Throws
// what SQLite says of a table that is missing, or has no such columns.
const char *RowIDOfUsualTable(SQLite::Database &database);

class DatabaseUpdater {
  public:
    // All are borrowed; path is that of the database's file. The database is restricted, and its
    // table has row numbers of that name.
    DatabaseUpdater(SQLite::Database &database, const std::string &path, const char *rowID,
                    KVManifestClass *manifest, const DeviceRowRules &rules);

    // Writes what the plan says in one transaction; false when that came to nothing. Throws as
    // UpdateManifestDatabaseFile; nothing is written then.
    bool Apply(const RowPlan &plan);

  private:
    // A text column as it is, and as an entry has it.
    struct TextColumn {
        std::string written;
        bool isSame = true;
    };

    SQLite::Statement Prepare(const std::string &statement);
    std::int64_t RowIDOf(std::uint32_t ordinal) const;
    void Remove(const RowPlan &plan);
    void Rewrite(const RowPlan &plan);
    void RewriteRow(const KVManifestEntryClass &entry, std::int64_t rowID);
    bool CompareColumns(const KVManifestEntryClass &entry);
    DeviceRowEncoder::Outcome UpdateRecord(const DeviceRow &row);
    void UpdateFile(std::int64_t rowID);
    void UpdateColumns(const KVManifestEntryClass &entry, std::int64_t rowID, bool withFile);
    void RemoveRow(std::int64_t rowID);
    void Add(const RowPlan &plan);
    bool HasItsFileID(const KVManifestEntryClass &entry) const;
    DeviceRow RowOf(const KVManifestEntryClass &entry) const;

    SQLite::Database &database_;
    KVManifestClass *manifest_;
    const DeviceRowRules &rules_;
    std::string path_;
    SQLite::Statement select_;
    SQLite::Statement remove_;
    SQLite::Statement updateFile_;
    SQLite::Statement updateAll_;
    ManifestRowWriter writer_;
    DeviceRowEncoder encoder_;
    std::vector<std::uint8_t> record_;
    TextColumn fileID_;
    TextColumn domain_;
    TextColumn relativePath_;
    bool hasSameFlags_ = true;
    CF::Array failed_ = CF::Array::Mutable();
    bool hasWritten_ = false;
};

// The error of entries that have no record, when there are any.
void RequireNoneFailed(const CF::Array &failed);

} // namespace Kelvane
