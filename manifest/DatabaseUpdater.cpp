#include "manifest/DatabaseUpdater.hpp"

#include "Kelvane/Error.hpp"
#include "manifest/EntryFromMBFile.hpp"

#include <algorithm>
#include <climits>
#include <exception>
#include <string_view>

namespace Kelvane {

namespace {

constexpr const char *kSelectRow = "SELECT fileID, domain, relativePath, flags, file FROM Files";
// Partial indexes, indexes on expressions, and defaults that call something.
constexpr const char *kComputedParts[] = {
    "SELECT 1 FROM pragma_index_list('Files') WHERE partial;",
    ("SELECT 1 FROM pragma_index_list('Files') AS list, pragma_index_xinfo(list.name) AS part "
     "WHERE part.cid=-2;"),
    "SELECT 1 FROM pragma_table_xinfo('Files') WHERE instr(dflt_value, '(') > 0;",
};
constexpr const char *kUniqueIndexes =
    "SELECT name FROM pragma_index_list('Files') WHERE \"unique\";";
// Columns of an index without the row number at its end.
constexpr const char *kIndexColumns =
    "SELECT COUNT(*), TOTAL(name='fileID' COLLATE NOCASE AND coll='BINARY' COLLATE NOCASE) "
    "FROM pragma_index_xinfo(?1) WHERE key;";

bool IsOnFileIDAlone(SQLite::Database &database, const std::string &index) {
    SQLite::Statement columns(database, kIndexColumns);
    columns.bind(1, index);
    return columns.executeStep() && columns.getColumn(0).getInt() == 1 &&
           columns.getColumn(1).getInt() == 1;
}

bool HasComputedParts(SQLite::Database &database) {
    return std::ranges::any_of(kComputedParts, [&](const char *query) {
        return SQLite::Statement(database, query).executeStep();
    });
}

[[noreturn]] void ThrowOtherDatabase() {
    throw Error(kKVErrorInvalidManifestDatabase, nullptr,
                "The manifest database is not the one that was read");
}

std::string_view BytesOf(const SQLite::Column &column) {
    // In this order: asking for the text settles the encoding that the length is of.
    const char *const text = column.getText();
    return {text, static_cast<std::size_t>(column.getBytes())};
}

} // namespace

const char *RowIDOfUsualTable(SQLite::Database &database) {
    SQLite::Statement(database, kSelectRow);
    const char *const rowID = RowIDColumn(database);
    if (rowID == nullptr || HasComputedParts(database)) {
        return nullptr;
    }
    // Of a further unique column a new row would take away the row that has its value.
    SQLite::Statement indexes(database, kUniqueIndexes);
    int others = 0;
    int found = 0;
    while (indexes.executeStep()) {
        ++(IsOnFileIDAlone(database, indexes.getColumn(0).getString()) ? found : others);
    }
    return found > 0 && others == 0 ? rowID : nullptr;
}

void RequireNoneFailed(const CF::Array &failed) {
    if (failed.GetCount() > 0) {
        throw Error(kKVErrorUnknown, nullptr, CFSTR("Failed to serialize entries %@"),
                    failed.get());
    }
}

DatabaseUpdater::DatabaseUpdater(SQLite::Database &database, const std::string &path,
                                 const char *rowID, KVManifestClass *manifest,
                                 const DeviceRowRules &rules)
    : database_(database), manifest_(manifest), rules_(rules), path_(path),
      select_(Prepare(kSelectRow + std::string(" WHERE ") + rowID + "=?1;")),
      remove_(Prepare("DELETE FROM Files WHERE " + std::string(rowID) + "=?1;")),
      updateFile_(Prepare("UPDATE Files SET file=?2 WHERE " + std::string(rowID) + "=?1;")),
      // What is NULL stays as it is.
      updateAll_(Prepare("UPDATE OR REPLACE Files SET file=COALESCE(?2,file), "
                         "fileID=COALESCE(?3,fileID), domain=COALESCE(?4,domain), "
                         "relativePath=COALESCE(?5,relativePath), flags=COALESCE(?6,flags) "
                         "WHERE " +
                         std::string(rowID) + "=?1;")),
      writer_(database) {}

SQLite::Statement DatabaseUpdater::Prepare(const std::string &statement) {
    return WithDatabaseErrors([&] { return SQLite::Statement(database_, statement); });
}

bool DatabaseUpdater::Apply(const RowPlan &plan) {
    const WorkLimit limit(database_, path_, plan.Count());
    writer_.Begin();
    Remove(plan);
    Rewrite(plan);
    Add(plan);
    RequireNoneFailed(failed_);
    if (hasWritten_) {
        writer_.Commit();
    }
    return hasWritten_;
}

std::int64_t DatabaseUpdater::RowIDOf(std::uint32_t ordinal) const {
    const auto rowID = manifest_->source->RowIDOf(ordinal);
    if (!rowID) {
        ThrowOtherDatabase();
    }
    return *rowID;
}

DeviceRow DatabaseUpdater::RowOf(const KVManifestEntryClass &entry) const {
    DeviceRow row(entry);
    if (rules_.adjust) {
        rules_.adjust(row);
    }
    return row;
}

// ---- Rows that go

void DatabaseUpdater::Remove(const RowPlan &plan) {
    if (plan.RemovedCount() == 0) {
        return;
    }
    for (std::uint32_t ordinal = 0; ordinal < manifest_->source->EntryCount(); ++ordinal) {
        if (plan.IsRemoved(ordinal)) {
            RemoveRow(RowIDOf(ordinal));
        }
    }
}

void DatabaseUpdater::RemoveRow(std::int64_t rowID) {
    hasWritten_ = true;
    const int removed = WithDatabaseErrors([&] {
        remove_.reset();
        remove_.bind(1, rowID);
        return remove_.exec();
    });
    if (removed != 1) {
        ThrowOtherDatabase();
    }
}

// ---- Rows that change

void DatabaseUpdater::Rewrite(const RowPlan &plan) {
    for (const RowPlan::Rewriting &rewriting : plan.Rewritten()) {
        RewriteRow(*rewriting.entry, RowIDOf(rewriting.ordinal));
    }
}

void DatabaseUpdater::RewriteRow(const KVManifestEntryClass &entry, std::int64_t rowID) {
    const DeviceRow row = RowOf(entry);
    const bool found = WithDatabaseErrors([&] {
        select_.reset();
        select_.bind(1, rowID);
        return select_.executeStep();
    });
    if (!found) {
        ThrowOtherDatabase();
    }
    const bool hasSameColumns = CompareColumns(entry);
    const auto outcome = UpdateRecord(row);
    select_.reset();
    if (outcome == DeviceRowEncoder::Outcome::Failed) {
        failed_.Append(&entry);
    } else if (!fileID_.isSame && !HasItsFileID(entry)) {
        RemoveRow(rowID);
    } else if (!hasSameColumns) {
        UpdateColumns(entry, rowID, outcome == DeviceRowEncoder::Outcome::Different);
    } else if (outcome == DeviceRowEncoder::Outcome::Different) {
        UpdateFile(rowID);
    }
}

// With the row that was selected.
bool DatabaseUpdater::CompareColumns(const KVManifestEntryClass &entry) {
    return WithDatabaseErrors([&] {
        const auto compare = [this](int index, CFStringRef text, TextColumn &column) {
            EncodeText(text, column.written);
            column.isSame = BytesOf(select_.getColumn(index)) == column.written;
        };
        compare(0, entry.fileID.get(), fileID_);
        compare(1, entry.domain.get(), domain_);
        compare(2, entry.relativePath.get(), relativePath_);
        const std::int64_t flags =
            std::clamp<std::int64_t>(select_.getColumn(3).getInt64(), INT_MIN, INT_MAX);
        hasSameFlags_ = FileTypeOf(static_cast<int>(flags)) == entry.fileType;
        return fileID_.isSame && domain_.isSame && relativePath_.isSame && hasSameFlags_;
    });
}

DeviceRowEncoder::Outcome DatabaseUpdater::UpdateRecord(const DeviceRow &row) {
    const SQLite::Column file = select_.getColumn(4);
    const auto *const bytes = static_cast<const std::uint8_t *>(file.getBlob());
    try {
        return encoder_.Update({bytes, static_cast<std::size_t>(file.getBytes())}, row,
                               !relativePath_.isSame, record_);
    } catch (const std::invalid_argument &) {
        ThrowOtherDatabase(); // for what is read into an entry is a record
    }
}

void DatabaseUpdater::UpdateFile(std::int64_t rowID) {
    hasWritten_ = true;
    WithDatabaseErrors([&] {
        updateFile_.reset();
        updateFile_.bind(1, rowID);
        updateFile_.bindNoCopy(2, record_.data(), static_cast<int>(record_.size()));
        updateFile_.exec();
    });
}

void DatabaseUpdater::UpdateColumns(const KVManifestEntryClass &entry, std::int64_t rowID,
                                    bool withFile) {
    hasWritten_ = true;
    WithDatabaseErrors([&] {
        updateAll_.reset();
        updateAll_.clearBindings();
        updateAll_.bind(1, rowID);
        if (withFile) {
            updateAll_.bindNoCopy(2, record_.data(), static_cast<int>(record_.size()));
        }
        const auto bind = [this](int index, const TextColumn &column) {
            if (!column.isSame) {
                updateAll_.bindNoCopy(index, column.written);
            }
        };
        bind(3, fileID_);
        bind(4, domain_);
        bind(5, relativePath_);
        if (!hasSameFlags_) {
            updateAll_.bind(6, RowFlags(entry));
        }
        updateAll_.exec();
    });
}

// ---- Rows that come

// Of several entries with one file ID the row is that of the one which a lookup finds.
bool DatabaseUpdater::HasItsFileID(const KVManifestEntryClass &entry) const {
    const KVManifestEntryClass *const found =
        KVManifestGetEntryForFileID(manifest_, entry.fileID.get());
    return found == nullptr || found == &entry || (rules_.leavesOut && rules_.leavesOut(*found));
}

void DatabaseUpdater::Add(const RowPlan &plan) {
    std::vector<const KVManifestEntryClass *> added = plan.Added();
    std::stable_sort(added.begin(), added.end(), IsWrittenBefore);
    for (const KVManifestEntryClass *const entry : added) {
        if (!HasItsFileID(*entry)) {
            continue;
        }
        if (!encoder_.Encode(RowOf(*entry), record_)) {
            failed_.Append(entry);
            continue;
        }
        hasWritten_ = true;
        writer_.Add(entry->fileID.get(), entry->domain.get(), entry->relativePath.get(),
                    RowFlags(*entry), record_);
    }
}

} // namespace Kelvane
