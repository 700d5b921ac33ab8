// Reading the rows of a Manifest.db one after another, without copies.
#pragma once

#include "Kelvane/ManifestDB.hpp"
#include "manifest/DatabaseGuard.hpp"
#include "manifest/TextCache.hpp"

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Statement.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace Kelvane {

// One row in SQLite's own memory: good until the next one is asked for. NULL is empty;
// texts may be anything, UTF-8 or not.
struct ManifestRow {
    std::string_view fileID;
    std::string_view domain;
    std::string_view relativePath;
    int flags = 0;
    std::span<const std::uint8_t> file;
    // By which the row can be found again; none in a table that has no such numbers.
    std::optional<std::int64_t> rowID;
    std::int64_t index = 0;
};

class ManifestRows {
  public:
    // Counts the rows. Throws code 2, "Database closed", and code 13. The database must
    // not be changed or closed while this lives.
    explicit ManifestRows(ManifestDB &database);

    std::int64_t Count() const noexcept { return count_; }
    // The next row, or false behind the last one. Throws code 13, also when there turn
    // out to be more or fewer rows than were counted: an index that disagrees with its
    // table must not make entries vanish; and when the rows hold more than the file can:
    // in a crafted one, thousands may share one long value.
    bool Next(ManifestRow &row);

  private:
    bool Step();
    void TakeBytes(const ManifestRow &row);

    std::optional<WorkLimit> limit_;
    std::int64_t count_ = 0;
    std::int64_t index_ = 0;
    std::uint64_t bytesLeft_ = 0; // for the values of further rows
    std::optional<SQLite::Statement> statement_;
    std::vector<SQLite::Column> columns_; // made once, good for every row
    bool hasRowIDs_ = false;
};

} // namespace Kelvane
