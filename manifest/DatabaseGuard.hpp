// What keeps a database from outside in its place.
#pragma once

#include <SQLiteCpp/Database.h>

#include <cstdint>
#include <string>

namespace Kelvane {

// The longest value that is read or written. Rows of devices have 2 kB; what is far longer only
// serves to fill memory.
inline constexpr int kMaximumValueLength = 64 * 1024 * 1024;

// The database, or code 2, "Database closed", for null.
SQLite::Database &RequireOpen(SQLite::Database *database);

// Switches off what lets a schema run code (views, triggers, extensions, functions with
// side effects), bounds the size of values and has pages checked before use.
void RestrictDatabase(SQLite::Database &database);

// Throws code 13 when Files is something else than an ordinary table: a view or virtual
// table runs code of the database's choosing for each row, and so does a computed
// column. A table that is missing is left to the query that needs it.
void RequirePlainFilesTable(SQLite::Database &database);

// The name by which the number of a row of Files can be asked for: one of three, of which a table
// may use some for columns of its own. Null when its rows have no numbers, or it is missing.
const char *RowIDColumn(SQLite::Database &database);

// Ends a statement that runs for longer than the file can account for. The pages of a
// damaged or crafted file may form trees that share their branches; they are walked
// again and again, and a small file can keep SQLite busy for years.
class WorkLimit {
  public:
    // path is that of the database's file, rows how many are to be written in it beside reading;
    // the limit holds until destruction.
    WorkLimit(SQLite::Database &database, const std::string &path, std::uint64_t rows = 0);
    ~WorkLimit();
    WorkLimit(const WorkLimit &) = delete;
    WorkLimit &operator=(const WorkLimit &) = delete;

  private:
    static int Progress(void *self) noexcept;

    SQLite::Database &database_;
    std::uint64_t intervalsLeft_;
};

// Runs the body; what SQLite reports in it is thrown as code 13 with the message as the
// reason.
template <class Body>
decltype(auto) WithDatabaseErrors(Body &&body);

// Throws code 13 with SQLite's words for a damaged file.
[[noreturn]] void ThrowMalformed();

} // namespace Kelvane

#include "Kelvane/Error.hpp"

#include <SQLiteCpp/Exception.h>

#include <utility>

template <class Body>
decltype(auto) Kelvane::WithDatabaseErrors(Body &&body) {
    try {
        return std::forward<Body>(body)();
    } catch (const SQLite::Exception &exception) {
        throw Error(kKVErrorDatabase, nullptr, CFSTR("%s"), exception.what());
    }
}
