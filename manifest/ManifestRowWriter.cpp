#include "manifest/ManifestRowWriter.hpp"

#include "manifest/DatabaseGuard.hpp"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Transaction.h>

namespace Kelvane {

namespace {

// 64 MiB instead of 2, for as long as the database is open: the indexes are filled in
// random order, and pages that do not fit are written to the log again and again.
constexpr const char *kCachePragma = "PRAGMA cache_size=-65536;";
constexpr const char *kInsertRow = "INSERT OR REPLACE INTO Files "
                                   "(fileID,domain,relativePath,flags,file)VALUES (?,?,?,?,?)";

// The text in UTF-8. Throws code 2 when it has no such form.
std::string EncodeText(CFStringRef text) {
    const CFIndex units = CFStringGetLength(text);
    constexpr CFIndex kMaximumBytesPerUnit = 3;
    std::string result(static_cast<std::size_t>(units * kMaximumBytesPerUnit), '\0');
    CFIndex written = 0;
    const CFIndex converted = CFStringGetBytes(text, CFRangeMake(0, units), kCFStringEncodingUTF8,
                                               0, false, reinterpret_cast<UInt8 *>(result.data()),
                                               static_cast<CFIndex>(result.size()), &written);
    if (converted != units) {
        throw Error(kKVErrorInvalidArgument, nullptr, "Text cannot be encoded as UTF-8");
    }
    result.resize(static_cast<std::size_t>(written));
    return result;
}

void BindText(SQLite::Statement &statement, int index, CFStringRef text) {
    if (text == nullptr) {
        statement.bind(index);
    } else {
        statement.bind(index, EncodeText(text));
    }
}

void BindData(SQLite::Statement &statement, int index, CFDataRef data) {
    if (data == nullptr) {
        statement.bind(index);
        return;
    }
    const auto length = static_cast<int>(CFDataGetLength(data));
    // A null pointer would be stored as NULL, which empty data is not.
    statement.bind(index, length == 0 ? static_cast<const void *>("") : CFDataGetBytePtr(data),
                   length);
}

} // namespace

ManifestRowWriter::ManifestRowWriter(ManifestDB &database)
    : database_(RequireOpen(database.database_.get())) {}

ManifestRowWriter::~ManifestRowWriter() = default;

void ManifestRowWriter::Begin() {
    WithDatabaseErrors([&] {
        database_.exec(kCachePragma);
        transaction_ = std::make_unique<SQLite::Transaction>(database_);
    });
}

void ManifestRowWriter::Commit() {
    WithDatabaseErrors([&] {
        insert_.reset();
        transaction_->commit();
        transaction_.reset();
        // Rows still stand in the write-ahead log. Closing would move them too, but
        // without telling whether it could.
        SQLite::Statement checkpoint(database_, "PRAGMA wal_checkpoint(TRUNCATE);");
        if (checkpoint.executeStep() && checkpoint.getColumn(0).getInt() != 0) {
            throw SQLite::Exception("write-ahead log could not be moved into the database");
        }
    });
}

void ManifestRowWriter::Add(CFStringRef fileID, CFStringRef domain, CFStringRef relativePath,
                            int flags, CFDataRef file) {
    if (fileID == nullptr) {
        throw Error(kKVErrorInvalidArgument, nullptr, "fileID must be non-null");
    }
    WithDatabaseErrors([&] {
        if (!insert_) {
            insert_ = std::make_unique<SQLite::Statement>(database_, kInsertRow);
        }
        insert_->reset();
        BindText(*insert_, 1, fileID);
        BindText(*insert_, 2, domain);
        BindText(*insert_, 3, relativePath);
        insert_->bind(4, flags);
        BindData(*insert_, 5, file);
        insert_->exec();
    });
}

} // namespace Kelvane
