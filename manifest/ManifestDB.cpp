#include "Kelvane/ManifestDB.hpp"

#include "Kelvane/Error.hpp"
#include "Kelvane/SharedState.hpp"
#include "manifest/DatabaseGuard.hpp"
#include "manifest/ManifestDatabaseFile.hpp"
#include "manifest/ManifestDatabaseReader.hpp"
#include "manifest/ManifestRowWriter.hpp"
#include "manifest/ManifestRows.hpp"
#include "support/cf/UUID.hpp"
#include "support/zk/File.hpp"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <boost/filesystem/exception.hpp>
#include <boost/system/system_error.hpp>

#include <cstdint>
#include <span>
#include <sqlite3.h>

#include <system_error>
#include <utility>

namespace Kelvane {

namespace {

constexpr const char *kFilesTable =
    "CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags INTEGER, "
    "file BLOB);";
// The pragmas follow the tables: SQLite takes the auto-vacuum mode of a file only before
// the first table, so the file keeps the mode that it was made with, as devices' files do.
constexpr const char *kTables[] = {
    kFilesTable,
    "CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB);",
    "CREATE INDEX FilesDomainIdx ON Files (domain);",
    "CREATE INDEX FilesFlagsIdx ON Files (flags);",
    "CREATE INDEX FilesRelativePathIdx ON Files (relativePath);",
};
constexpr const char *kPragmas[] = {
    "PRAGMA auto_vacuum='INCREMENTAL';",
    "PRAGMA automatic_index=1;",
};
constexpr const char *kJournalPragma = "PRAGMA journal_mode=WAL;";

ZK::filesystem::path MakeBaseDirectory() {
    const ZK::filesystem::path base = GetTemporaryPath() / "KVManifestDB";
    try {
        ZK::file::create_private_directories(base);
    } catch (const boost::system::system_error &exception) {
        throw MakeFSError(exception, base);
    }
    return base;
}

// Copies the database, an open file or a path, to a place of its own, which it returns. The name
// is for messages.
template <class Source>
std::string CopyDatabase(Source &source, const CF::String &name) {
    std::string destination = NewManifestDatabasePath();
    try {
        ZK::file::copy_new(source, destination);
        return destination;
    } catch (const boost::system::system_error &exception) {
        throw Error(kKVErrorFilesystem, nullptr,
                    CFSTR("Failed to copy temporary database '%@' to '%s' (%s)"), name.get(),
                    destination.c_str(), exception.what());
    }
}

std::string CopyDatabaseAt(const CF::String &path) {
    const ZK::filesystem::path source = path.GetUTF8();
    return CopyDatabase(source, path);
}

std::unique_ptr<SQLite::Database> OpenDatabase(const std::string &path, bool create) {
    try {
        if (create) {
            // Made here for its mode: SQLite would leave it to the umask.
            ZK::file::writable_file::create_new(path).complete();
        }
        return std::make_unique<SQLite::Database>(path,
                                                  SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    } catch (const std::exception &exception) {
        throw Error(kKVErrorDatabase, nullptr, CFSTR("Failed to instantiate database at '%s' (%s)"),
                    path.c_str(), exception.what());
    }
}

int QueryUserVersion(SQLite::Database &database) {
    try {
        RestrictDatabase(database);
        SQLite::Statement query(database, "PRAGMA user_version;");
        query.executeStep();
        return query.getColumn(0).getInt();
    } catch (const SQLite::Exception &exception) {
        throw Error(kKVErrorDatabase, nullptr, CFSTR("Failed to query user_version (%s)"),
                    exception.what());
    }
}

void CreateSchema(SQLite::Database &database, int version) {
    for (const char *const statement : kTables) {
        database.exec(statement);
    }
    database.exec("PRAGMA user_version=" + std::to_string(version) + ";");
    for (const char *const statement : kPragmas) {
        database.exec(statement);
    }
    // Answers with a row, which exec would take for a failure. The mode is in the file only
    // when the step behind the row has succeeded.
    SQLite::Statement journal(database, kJournalPragma);
    if (!journal.executeStep() || journal.getColumn(0).getString() != "wal") {
        const std::error_code cause(sqlite3_system_errno(database.getHandle()),
                                    std::generic_category());
        throw SQLite::Exception("The journal mode cannot be set: " + cause.message());
    }
    journal.executeStep();
}

} // namespace

std::string NewManifestDatabasePath() {
    static const ZK::filesystem::path base = MakeBaseDirectory();
    const auto uuid = CF::Adopt(CF::Made(CFUUIDCreate(kCFAllocatorDefault)));
    const auto name =
        CF::String::Adopt(CF::Made(CFUUIDCreateString(kCFAllocatorDefault, uuid.get())));
    return (base / name.GetUTF8()).string();
}

ManifestDB::ManifestDB(CF::String path)
    : ManifestDB(path ? CopyDatabaseAt(path) : NewManifestDatabasePath(), !path) {}

std::unique_ptr<ManifestDB> CopyOpenDatabase(ZK::file::readable_file &source,
                                             const CF::String &path) {
    return std::unique_ptr<ManifestDB>(new ManifestDB(CopyDatabase(source, path), false));
}

ManifestDB::ManifestDB(std::string localPath, bool create) : localPath_(std::move(localPath)) {
    try {
        database_ = OpenDatabase(localPath_, create);
        userVersion_ = QueryUserVersion(*database_);
    } catch (...) {
        Close();
        RemoveManifestDatabaseFile(localPath_);
        throw;
    }
}

ManifestDB::ManifestDB(int version) : ManifestDB(CF::String()) {
    try {
        CreateSchema(*database_, version);
    } catch (const SQLite::Exception &exception) {
        Close();
        RemoveManifestDatabaseFile(localPath_);
        throw Error(kKVErrorDatabase, nullptr, CFSTR("Failed to prepare new database (%s) -- %s"),
                    localPath_.c_str(), exception.what());
    }
}

ManifestDB::~ManifestDB() = default;

void ManifestDB::Close() noexcept { database_.reset(); }

CF::String ManifestDB::GetLocalPath() const { return CF::String::FromUTF8(localPath_); }

void ManifestDB::ProcessEntries(const EntryCallback &callback) {
    ManifestRows rows(*this);
    ManifestRow row;
    while (rows.Next(row)) {
        callback(TextFromUTF8(row.fileID).get(), TextFromUTF8(row.domain).get(),
                 TextFromUTF8(row.relativePath).get(), row.flags, CF::Data(row.file), row.index,
                 rows.Count());
    }
}

void ManifestDB::AddEntry(const CF::String &fileID, const CF::String &domain,
                          const CF::String &relativePath, int flags, const CF::Data &file) {
    // An address even for empty data, which is not NULL.
    static constexpr std::uint8_t kNothing = 0;
    const auto bytes = file.IsEmpty() ? std::span(&kNothing, 0) : file.GetBytes();
    ManifestRowWriter(*this).Add(fileID, domain.get(), relativePath.get(), flags,
                                 file ? bytes : std::span<const std::uint8_t>());
}

} // namespace Kelvane
