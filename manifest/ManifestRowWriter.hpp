// Writing rows of a Manifest.db, one or many.
#pragma once

#include "Kelvane/ManifestDB.hpp"

#include <SQLiteCpp/Statement.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace Kelvane {

// Sets utf8 to the text in UTF-8. Throws code 2, "Text cannot be encoded as UTF-8".
void EncodeText(CFStringRef text, std::string &utf8);

// Keeps the statement prepared between rows.
class ManifestRowWriter {
  public:
    // Throws code 2, "Database closed", and code 13.
    explicit ManifestRowWriter(ManifestDB &database);
    explicit ManifestRowWriter(SQLite::Database &database) noexcept : database_(database) {}
    ~ManifestRowWriter();
    ManifestRowWriter(const ManifestRowWriter &) = delete;
    ManifestRowWriter &operator=(const ManifestRowWriter &) = delete;

    // Gathers all further rows into one transaction, which is undone unless Commit is
    // reached: a transaction for each of half a million rows would take minutes.
    void Begin();
    void Commit();

    // Adds or replaces a row. fileID must not be null: code 2, "fileID must be non-null".
    // Null domain and relativePath are stored as NULL, and so is a file without an address.
    // A text without a UTF-8 form is refused with code 2 instead of being stored as another
    // one.
    void Add(CFStringRef fileID, CFStringRef domain, CFStringRef relativePath, int flags,
             std::span<const std::uint8_t> file);

  private:
    void BindText(int index, CFStringRef text, std::string &utf8);

    SQLite::Database &database_;
    bool inTransaction_ = false;
    std::unique_ptr<SQLite::Statement> insert_;
    // What the statement has bound; used again for the next row.
    std::string fileID_;
    std::string domain_;
    std::string relativePath_;
};

} // namespace Kelvane
