#include "manifest/ManifestRows.hpp"

#include <algorithm>
#include <climits>

namespace Kelvane {

namespace {

constexpr int kColumns = 6;

// The condition says nothing, but keeps SQLite from its shortcut for counting, which
// would not stop at the work limit.
constexpr const char *kCountRows = "SELECT COUNT(*) FROM Files WHERE 1;";
constexpr const char *kSelectRows = "SELECT fileID, domain, relativePath, flags, file, ";

// A text of UTF-16 databases grows by half at most when it is made UTF-8.
constexpr std::uint64_t kGrowth = 2;

// What the values of all rows can take. SQLite counts the pages of a write-ahead log too, and
// refuses a file that has fewer than it says.
std::uint64_t ValueBytes(SQLite::Database &database) {
    const auto number = [&](const char *pragma) {
        SQLite::Statement query(database, pragma);
        return static_cast<std::uint64_t>(query.executeStep() ? query.getColumn(0).getInt64() : 0);
    };
    return kGrowth * number("PRAGMA page_count;") * number("PRAGMA page_size;");
}

std::string_view TextOf(const SQLite::Column &column) {
    // In this order: asking for the text settles the encoding that the length is of.
    const char *const text = column.getText();
    return {text, static_cast<std::size_t>(column.getBytes())};
}

std::span<const std::uint8_t> BytesOf(const SQLite::Column &column) {
    const auto *const bytes = static_cast<const std::uint8_t *>(column.getBlob());
    return {bytes, static_cast<std::size_t>(column.getBytes())};
}

} // namespace

ManifestRows::ManifestRows(ManifestDB &database) {
    SQLite::Database &open = RequireOpen(database.database_.get());
    limit_.emplace(open, database.localPath_);
    WithDatabaseErrors([&] {
        RequirePlainFilesTable(open);
        bytesLeft_ = ValueBytes(open);
        SQLite::Statement counting(open, kCountRows);
        count_ = counting.executeStep() ? counting.getColumn(0).getInt64() : 0;
        const char *const rowID = RowIDColumn(open);
        hasRowIDs_ = rowID != nullptr;
        statement_.emplace(open,
                           kSelectRows + std::string(hasRowIDs_ ? rowID : "NULL") + " FROM Files;");
    });
}

bool ManifestRows::Step() {
    return WithDatabaseErrors([&] {
        const bool more = statement_->executeStep();
        for (int i = 0; more && columns_.size() < kColumns; ++i) {
            columns_.push_back(statement_->getColumn(i));
        }
        return more;
    });
}

bool ManifestRows::Next(ManifestRow &row) {
    const bool more = Step();
    if (more != (index_ < count_)) {
        ThrowMalformed();
    }
    if (more) {
        row.fileID = TextOf(columns_[0]);
        row.domain = TextOf(columns_[1]);
        row.relativePath = TextOf(columns_[2]);
        row.flags =
            static_cast<int>(std::clamp<std::int64_t>(columns_[3].getInt64(), INT_MIN, INT_MAX));
        row.file = BytesOf(columns_[4]);
        if (hasRowIDs_) {
            row.rowID = columns_[5].getInt64();
        }
        row.index = index_++;
        TakeBytes(row);
    }
    return more;
}

void ManifestRows::TakeBytes(const ManifestRow &row) {
    const std::uint64_t size =
        row.fileID.size() + row.domain.size() + row.relativePath.size() + row.file.size();
    if (size > bytesLeft_) {
        ThrowMalformed();
    }
    bytesLeft_ -= size;
}

} // namespace Kelvane
