#include "manifest/ManifestRowWriter.hpp"

#include "manifest/DatabaseGuard.hpp"

#include <SQLiteCpp/Database.h>
#include <sqlite3.h>

#include <climits>

namespace Kelvane {

namespace {

// 64 MiB instead of 2, for as long as the database is open: the indexes are filled in
// random order, and pages that do not fit are written to the log again and again.
constexpr const char *kCachePragma = "PRAGMA cache_size=-65536;";
constexpr const char *kInsertRow = "INSERT OR REPLACE INTO Files "
                                   "(fileID,domain,relativePath,flags,file)VALUES (?,?,?,?,?)";

// Sizes are passed to SQLite as int; its own limit is lower.
void RequireBindable(std::size_t size) {
    if (size > INT_MAX) {
        throw SQLite::Exception(sqlite3_errstr(SQLITE_TOOBIG), SQLITE_TOOBIG);
    }
}

void BindData(SQLite::Statement &statement, int index, std::span<const std::uint8_t> data) {
    if (data.data() == nullptr) {
        statement.bind(index);
    } else {
        RequireBindable(data.size());
        statement.bindNoCopy(index, data.data(), static_cast<int>(data.size()));
    }
}

} // namespace

void EncodeText(CFStringRef text, std::string &utf8) {
    const CFIndex units = CFStringGetLength(text);
    constexpr CFIndex kMaximumBytesPerUnit = 3;
    utf8.resize(static_cast<std::size_t>(units * kMaximumBytesPerUnit));
    CFIndex written = 0;
    const CFIndex converted = CFStringGetBytes(text, CFRangeMake(0, units), kCFStringEncodingUTF8,
                                               0, false, reinterpret_cast<UInt8 *>(utf8.data()),
                                               static_cast<CFIndex>(utf8.size()), &written);
    if (converted != units) {
        throw Error(kKVErrorInvalidArgument, nullptr, "Text cannot be encoded as UTF-8");
    }
    utf8.resize(static_cast<std::size_t>(written));
}

ManifestRowWriter::ManifestRowWriter(ManifestDB &database)
    : database_(RequireOpen(database.database_.get())) {}

// Through SQLite itself: the wrapper makes an exception of a failure, for which there may be no
// memory.
ManifestRowWriter::~ManifestRowWriter() {
    insert_.reset();
    if (inTransaction_) {
        sqlite3_exec(database_.getHandle(), "ROLLBACK;", nullptr, nullptr, nullptr);
    }
}

void ManifestRowWriter::Begin() {
    WithDatabaseErrors([&] {
        database_.exec(kCachePragma);
        database_.exec("BEGIN TRANSACTION;");
        inTransaction_ = true;
    });
}

void ManifestRowWriter::Commit() {
    WithDatabaseErrors([&] {
        insert_.reset();
        database_.exec("COMMIT TRANSACTION;");
        inTransaction_ = false;
        // Rows still stand in the write-ahead log. Closing would move them too, but
        // without telling whether it could.
        SQLite::Statement checkpoint(database_, "PRAGMA wal_checkpoint(TRUNCATE);");
        if (checkpoint.executeStep() && checkpoint.getColumn(0).getInt() != 0) {
            throw SQLite::Exception("write-ahead log could not be moved into the database");
        }
    });
}

void ManifestRowWriter::BindText(int index, CFStringRef text, std::string &utf8) {
    if (text == nullptr) {
        insert_->bind(index);
    } else {
        EncodeText(text, utf8);
        RequireBindable(utf8.size());
        insert_->bindNoCopy(index, utf8);
    }
}

void ManifestRowWriter::Add(CFStringRef fileID, CFStringRef domain, CFStringRef relativePath,
                            int flags, std::span<const std::uint8_t> file) {
    if (fileID == nullptr) {
        throw Error(kKVErrorInvalidArgument, nullptr, "fileID must be non-null");
    }
    WithDatabaseErrors([&] {
        if (!insert_) {
            insert_ = std::make_unique<SQLite::Statement>(database_, kInsertRow);
        }
        insert_->reset();
        BindText(1, fileID, fileID_);
        BindText(2, domain, domain_);
        BindText(3, relativePath, relativePath_);
        insert_->bind(4, flags);
        BindData(*insert_, 5, file);
        insert_->exec();
    });
}

} // namespace Kelvane
