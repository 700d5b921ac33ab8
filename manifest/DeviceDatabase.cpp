#include "manifest/DeviceDatabase.hpp"

#include "Kelvane/Error.hpp"
#include "manifest/DatabaseCompletion.hpp"
#include "manifest/DatabaseUpdater.hpp"
#include "manifest/ManifestDatabaseFile.hpp"
#include "support/zk/File.hpp"

#include <boost/filesystem/operations.hpp>

#include <sqlite3.h>

#include <memory>

namespace Kelvane {

namespace {

// Letter for letter those of devices, in their order.
constexpr const char *kFilesTable = "CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, "
                                    "relativePath TEXT, flags INTEGER, file BLOB)";
constexpr const char *kFurtherObjects[] = {
    "CREATE INDEX FilesDomainIdx ON Files(domain)",
    "CREATE INDEX FilesRelativePathIdx ON Files(relativePath)",
    "CREATE INDEX FilesFlagsIdx ON Files(flags)",
    "CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB)",
};
// Before the first table, for they are fixed with it.
constexpr const char *kFirstPragmas[] = {"PRAGMA page_size=4096", "PRAGMA auto_vacuum=2"};
constexpr const char *kUserVersion = "PRAGMA user_version=2";
constexpr const char *kJournalPragma = "PRAGMA journal_mode=WAL";
// What is removed may be secret: keys, and names of files that were taken out.
constexpr const char *kSecureDelete = "PRAGMA secure_delete=ON";
// Devices write none, and one from elsewhere may take any time to be checked.
constexpr const char *kIgnoreChecks = "PRAGMA ignore_check_constraints=ON";

std::unique_ptr<SQLite::Database> OpenDatabase(const std::string &path) {
    try {
        auto database = std::make_unique<SQLite::Database>(path, SQLite::OPEN_READWRITE);
        RestrictDatabase(*database);
        database->exec(kSecureDelete);
        database->exec(kIgnoreChecks);
        return database;
    } catch (const SQLite::Exception &exception) {
        throw Error(kKVErrorDatabase, nullptr, CFSTR("Failed to instantiate database at '%s' (%s)"),
                    path.c_str(), exception.what());
    }
}

// Opens the database and runs the body, which closes nothing; afterwards the file is complete and
// alone.
template <class Body>
auto WithDatabase(const std::string &path, Body body) {
    try {
        DatabaseWitness witness(path);
        auto database = OpenDatabase(path);
        auto result = body(*database);
        database.reset();
        witness.RequireWritten();
        RemoveDatabaseCompanions(path);
        return result;
    } catch (...) {
        RemoveDatabaseCompanions(path);
        throw;
    }
}

// ---- Bringing a database up to date

enum class Attempt { NothingWritten, Written, OtherShape };

Attempt TryUpdate(SQLite::Database &database, const std::string &path, KVManifestClass *manifest,
                  const DeviceRowRules &rules) {
    const char *const rowID = WithDatabaseErrors([&] {
        const WorkLimit limit(database, path);
        RequirePlainFilesTable(database);
        return RowIDOfUsualTable(database);
    });
    if (rowID == nullptr) {
        return Attempt::OtherShape;
    }
    DatabaseUpdater updater(database, path, rowID, manifest, rules);
    return updater.Apply(RowPlan(*manifest, rules)) ? Attempt::Written : Attempt::NothingWritten;
}

// ---- Writing a database anew

void AddEntries(KVManifestClass *manifest, const DeviceRowRules &rules, ManifestRowWriter &writer) {
    DeviceRowEncoder encoder;
    std::vector<std::uint8_t> record;
    const auto failed = CF::Array::Mutable();
    manifest->entries.ForEach([&](const KVManifestEntryClass *entry) {
        if (rules.leavesOut && rules.leavesOut(*entry)) {
            return;
        }
        DeviceRow row(*entry);
        if (rules.adjust) {
            rules.adjust(row);
        }
        if (encoder.Encode(row, record)) {
            writer.Add(entry->fileID.get(), entry->domain.get(), entry->relativePath.get(),
                       RowFlags(*entry), record);
        } else {
            failed.Append(entry);
        }
    });
    RequireNoneFailed(failed);
}

void SetJournalMode(SQLite::Database &database) {
    // The mode is in the file only when the step behind the answer has succeeded.
    SQLite::Statement journal(database, kJournalPragma);
    if (!journal.executeStep() || journal.getColumn(0).getString() != "wal") {
        throw SQLite::Exception("The journal mode cannot be set");
    }
    journal.executeStep();
}

void Fill(SQLite::Database &database, KVManifestClass *manifest, const DeviceRowRules &rules) {
    WithDatabaseErrors([&] {
        for (const char *const pragma : kFirstPragmas) {
            database.exec(pragma);
        }
    });
    ManifestRowWriter writer(database);
    writer.Begin();
    WithDatabaseErrors([&] {
        database.exec(kFilesTable);
        for (const char *const statement : kFurtherObjects) {
            database.exec(statement);
        }
        database.exec(kUserVersion);
    });
    AddEntries(manifest, rules, writer);
    AddPlaceholders(manifest, writer);
    writer.Commit();
    WithDatabaseErrors([&] { SetJournalMode(database); });
}

// Where nothing is; nothing is left of it after a failure.
void WriteNew(const std::string &path, KVManifestClass *manifest, const DeviceRowRules &rules) {
    try {
        // Made here for its mode: SQLite would leave it to the umask.
        ZK::file::writable_file::create_new(path).complete();
    } catch (const boost::system::system_error &exception) {
        throw MakeFSError(exception, path);
    }
    try {
        WithDatabase(path, [&](SQLite::Database &database) {
            Fill(database, manifest, rules);
            return true;
        });
    } catch (...) {
        RemoveManifestDatabaseFile(path);
        throw;
    }
}

} // namespace

ManifestUpdate UpdateManifestDatabaseFile(const std::string &path, KVManifestClass *manifest,
                                          const DeviceRowRules &rules) {
    if (IsAsRead(*manifest, rules)) {
        return ManifestUpdate::Untouched;
    }
    const Attempt attempt =
        HasSource(*manifest) ? WithDatabase(path,
                                            [&](SQLite::Database &database) {
                                                return TryUpdate(database, path, manifest, rules);
                                            })
                             : Attempt::OtherShape;
    if (attempt != Attempt::OtherShape) {
        return attempt == Attempt::Written ? ManifestUpdate::Updated : ManifestUpdate::Untouched;
    }
    RemoveManifestDatabaseFile(path);
    WriteNew(path, manifest, rules);
    return ManifestUpdate::WrittenAnew;
}

std::string WriteDeviceDatabaseFile(KVManifestClass *manifest, const DeviceRowRules &rules) {
    std::string path = NewManifestDatabasePath();
    WriteNew(path, manifest, rules);
    return path;
}

} // namespace Kelvane
