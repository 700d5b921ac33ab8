#include "manifest/DatabaseGuard.hpp"

#include <SQLiteCpp/Statement.h>
#include <boost/filesystem/operations.hpp>
#include <sqlite3.h>

#include <initializer_list>

namespace Kelvane {

namespace {

struct Setting {
    int option;
    int value;
};
constexpr Setting kSettings[] = {
    {SQLITE_DBCONFIG_DEFENSIVE, 1},
    {SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0},
    {SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0},
    {SQLITE_DBCONFIG_ENABLE_FTS3_TOKENIZER, 0},
    {SQLITE_DBCONFIG_ENABLE_VIEW, 0},
    {SQLITE_DBCONFIG_ENABLE_TRIGGER, 0},
};

// How many virtual-machine instructions run between two looks at the limit.
constexpr int kInstructionsPerInterval = 10000;
// A row takes at least 6 bytes (cell and cell pointer), so a pass over a table has at most
// a sixth as many rows as the file has bytes; reading one takes less than 12 instructions.
constexpr std::uint64_t kInstructionsPerByte = 2;
constexpr std::uint64_t kPasses = 3;
// For reading the schema and preparing statements.
constexpr std::uint64_t kBaseIntervals = 100;

// Writing a row takes some hundred instructions, and more when there are many indexes.
constexpr std::uint64_t kInstructionsPerWrittenRow = 2000;

std::uint64_t IntervalsFor(const std::string &path, std::uint64_t rows) {
    boost::system::error_code error;
    const std::uint64_t size = boost::filesystem::file_size(path, error);
    return kBaseIntervals + rows * kInstructionsPerWrittenRow / kInstructionsPerInterval +
           (error ? 0 : size * kInstructionsPerByte * kPasses / kInstructionsPerInterval);
}

bool HasColumn(SQLite::Database &database, const char *name) {
    SQLite::Statement columns(
        database, "SELECT 1 FROM pragma_table_xinfo('Files') WHERE name=?1 COLLATE NOCASE;");
    columns.bind(1, name);
    return columns.executeStep();
}

CF::Error NotPlain(const char *what) { return Error(kKVErrorDatabase, nullptr, what); }

} // namespace

SQLite::Database &RequireOpen(SQLite::Database *database) {
    if (database == nullptr) {
        throw Error(kKVErrorInvalidArgument, nullptr, "Database closed");
    }
    return *database;
}

void RestrictDatabase(SQLite::Database &database) {
    sqlite3 *const handle = database.getHandle();
    for (const Setting &setting : kSettings) {
        sqlite3_db_config(handle, setting.option, setting.value, nullptr);
    }
    sqlite3_limit(handle, SQLITE_LIMIT_LENGTH, kMaximumValueLength);
    sqlite3_limit(handle, SQLITE_LIMIT_ATTACHED, 0);
    database.exec("PRAGMA cell_size_check=ON;");
}

void RequirePlainFilesTable(SQLite::Database &database) {
    SQLite::Statement others(database, "SELECT COUNT(*) FROM sqlite_master WHERE "
                                       "name='Files' COLLATE NOCASE AND "
                                       "(type<>'table' OR rootpage IS NULL OR rootpage<2);");
    if (others.executeStep() && others.getColumn(0).getInt64() > 0) {
        throw NotPlain("Files is not an ordinary table");
    }
    SQLite::Statement columns(database, "PRAGMA table_xinfo('Files');");
    // 0 is an ordinary column, 2 and 3 are computed ones.
    constexpr int kHiddenColumn = 6;
    while (columns.executeStep()) {
        if (columns.getColumn(kHiddenColumn).getInt() != 0) {
            throw NotPlain("Files has computed columns");
        }
    }
}

const char *RowIDColumn(SQLite::Database &database) {
    for (const char *const name : {"rowid", "_rowid_", "oid"}) {
        if (!HasColumn(database, name)) {
            // A name that no column has is an error where rows have no number.
            const std::string query = std::string("SELECT ") + name + " FROM Files;";
            sqlite3_stmt *statement = nullptr;
            const int result =
                sqlite3_prepare_v2(database.getHandle(), query.c_str(), -1, &statement, nullptr);
            sqlite3_finalize(statement);
            return result == SQLITE_OK ? name : nullptr;
        }
    }
    return nullptr;
}

WorkLimit::WorkLimit(SQLite::Database &database, const std::string &path, std::uint64_t rows)
    : database_(database), intervalsLeft_(IntervalsFor(path, rows)) {
    sqlite3_progress_handler(database_.getHandle(), kInstructionsPerInterval, &Progress, this);
}

WorkLimit::~WorkLimit() { sqlite3_progress_handler(database_.getHandle(), 0, nullptr, nullptr); }

int WorkLimit::Progress(void *self) noexcept {
    auto &left = static_cast<WorkLimit *>(self)->intervalsLeft_;
    if (left == 0) {
        return 1;
    }
    --left;
    return 0;
}

void ThrowMalformed() {
    throw Error(kKVErrorDatabase, nullptr, CFSTR("%s"), sqlite3_errstr(SQLITE_CORRUPT));
}

} // namespace Kelvane
