// A working copy of a Manifest.db.
//
// The database has two tables and three indexes, and nothing else is expected in it:
//
//   CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT,
//                       flags INTEGER, file BLOB);
//   CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB);
//   CREATE INDEX FilesDomainIdx ON Files (domain);
//   CREATE INDEX FilesFlagsIdx ON Files (flags);
//   CREATE INDEX FilesRelativePathIdx ON Files (relativePath);
//
// A row of Files is one entry: file holds a keyed archive of an MBFile as a binary
// property list; flags is 1 for a file, 2 for a directory, 4 for a symbolic link and 16
// for a row that carries nothing but a file ID. Properties is written empty and not read.
#pragma once

#include "KVBase.h"
#include "support/cf/Data.hpp"
#include "support/cf/Error.hpp"
#include "support/cf/String.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace SQLite {
class Database;
}
namespace ZK::file {
class readable_file;
}

namespace Kelvane {

// Owns one database file, mode 0600, in a private directory under the temporary path.
// The file outlives the object, but not a constructor that fails. A database that came from
// outside is never opened in place, and is read with everything switched off that lets a
// schema run code: views, triggers, virtual tables, extensions.
//
// Failures are thrown as CF::Error: code 2 for misuse, 3 when the working copy cannot be
// made, 13 with SQLite's own message when SQLite fails. The constructors also throw
// std::runtime_error when no temporary path was set. One object is used by one thread at
// a time.
class KV_VISIBLE ManifestDB {
  public:
    // Copies the database at the path and opens the copy; a null path makes an empty
    // file instead, without tables.
    explicit ManifestDB(CF::String path);
    // A new database with the tables and indexes above and that user version.
    explicit ManifestDB(int version);
    // Closes the database.
    ~ManifestDB();
    ManifestDB(const ManifestDB &) = delete;
    ManifestDB &operator=(const ManifestDB &) = delete;

    // Closes the database; twice is harmless. ProcessEntries and AddEntry then fail
    // with code 2, "Database closed".
    void Close() noexcept;

    // The user version that the file had when it was opened; for a database made by the
    // version constructor that of the empty file, 0.
    int GetUserVersion() const noexcept { return userVersion_; }
    // Where the working copy lies; valid after Close too.
    CF::String GetLocalPath() const;

    // Receives one row: file ID, domain, relative path, flags, the file column, the
    // row's index counting from 0 and the number of rows. SQL NULL arrives as an empty
    // string and empty data; a text that is not UTF-8 arrives as a null string, so that
    // it cannot be mistaken for another name. The callback must not change the database.
    using EntryCallback = std::function<void(
        const CF::String &fileID, const CF::String &domain, const CF::String &relativePath,
        int flags, const CF::Data &file, std::int64_t index, std::int64_t count)>;
    // Calls back for each row of Files, in SQLite's order; not at all for an empty table.
    // What the callback throws ends the enumeration and passes on.
    void ProcessEntries(const EntryCallback &callback);

    // Adds a row, or replaces the one with that file ID. fileID must not be null (code 2,
    // "fileID must be non-null"); null domain, relativePath and file are stored as NULL.
    void AddEntry(const CF::String &fileID, const CF::String &domain,
                  const CF::String &relativePath, int flags, const CF::Data &file);

  private:
    friend class ManifestRows;
    friend class ManifestRowWriter;
    friend std::unique_ptr<ManifestDB> CopyOpenDatabase(ZK::file::readable_file &source,
                                                        const CF::String &path);

    // Opens what was copied to the path, or what is to be created there.
    __attribute__((visibility("hidden"))) ManifestDB(std::string localPath, bool create);

    std::unique_ptr<SQLite::Database> database_; // null once closed
    std::string localPath_;                      // UTF-8
    int userVersion_ = 0;
};

} // namespace Kelvane
