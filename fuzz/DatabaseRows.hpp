// A Manifest.db, written by SQLite itself from choices.
#pragma once

#include "MB/File.hpp"
#include "ZK/keyed_archiver.hpp"
#include "fuzz/Record.hpp"
#include "fuzz/Require.hpp"

#include <sqlite3.h>

#include <iterator>

namespace Fuzz {

// The table as devices write it, and what stands in its place in forged databases.
inline constexpr const char *kSchemas[] = {
    "CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags INTEGER,"
    " file BLOB);CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB);",
    "CREATE TABLE Files (fileID TEXT, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB);",
    "CREATE TABLE Files (fileID BLOB PRIMARY KEY, domain, relativePath, flags, file, more)"
    " WITHOUT ROWID;",
    "CREATE TABLE Rows (fileID TEXT, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB);"
    "CREATE VIEW Files AS SELECT * FROM Rows;",
    "CREATE TABLE Files (fileID TEXT, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB,"
    " length INTEGER AS (length(file)) VIRTUAL);",
    "CREATE TABLE Files (fileID TEXT, domain TEXT, relativePath TEXT, flags INTEGER);",
};

// The record of a row: bytes as they come, or an archive as devices write them.
inline CF::Data RecordBytes(Input &input) {
    if (input.Byte() % 4 == 0) {
        return Bytes(input);
    }
    return CF::PropertyListType<CF::Dictionary>::ToPropertyListData(
        ZK::make_keyed_archive(RecordOf(input)), kCFPropertyListBinaryFormat_v1_0);
}

inline void BindBytes(sqlite3_stmt *statement, int column, const CF::Data &data) {
    const auto bytes = data.GetBytes();
    if (data) {
        sqlite3_bind_blob(statement, column, bytes.data(), static_cast<int>(bytes.size()),
                          SQLITE_TRANSIENT);
    }
}

// NULL, a number, bytes, or a text that need not be UTF-8.
inline void BindText(sqlite3_stmt *statement, int column, Input &input) {
    const std::uint8_t kind = input.Byte();
    const std::string piece = input.PieceAsText();
    switch (kind % 8) {
    case 0:
        return;
    case 1:
        sqlite3_bind_int64(statement, column, static_cast<sqlite3_int64>(piece.size()));
        return;
    case 2:
        sqlite3_bind_blob(statement, column, piece.data(), static_cast<int>(piece.size()),
                          SQLITE_TRANSIENT);
        return;
    default:
        sqlite3_bind_text(statement, column, piece.data(), static_cast<int>(piece.size()),
                          SQLITE_TRANSIENT);
    }
}

inline void InsertRow(sqlite3_stmt *statement, Input &input) {
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    for (int column = 1; column <= 3; ++column) {
        BindText(statement, column, input);
    }
    sqlite3_bind_int64(statement, 4, input.Number<std::int64_t>());
    BindBytes(statement, 5, RecordBytes(input));
    sqlite3_step(statement); // a second row of one file ID is refused
}

// Writes the database to the path, where nothing is yet.
inline void WriteDatabase(const std::string &path, Input &input) {
    sqlite3 *database = nullptr;
    Require(sqlite3_open(path.c_str(), &database) == SQLITE_OK);
    const char *const schema =
        kSchemas[input.Byte() % 8 < 6 ? 0 : input.Byte() % std::size(kSchemas)];
    const std::string settings = input.Byte() % 8 == 0 ? "PRAGMA encoding='UTF-16le';" : "";
    const std::string begin =
        "PRAGMA page_size=512; PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;" + settings +
        schema + "BEGIN;";
    Require(sqlite3_exec(database, begin.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK);
    sqlite3_stmt *statement = nullptr;
    sqlite3_prepare_v2(database,
                       "INSERT INTO Files (fileID, domain, relativePath, flags, file)"
                       " VALUES (?, ?, ?, ?, ?);",
                       -1, &statement, nullptr);
    for (int left = input.Byte() % 16; statement != nullptr && left > 0; --left) {
        InsertRow(statement, input);
    }
    sqlite3_finalize(statement);
    sqlite3_exec(database, "COMMIT;", nullptr, nullptr, nullptr);
    sqlite3_close(database);
}

} // namespace Fuzz
