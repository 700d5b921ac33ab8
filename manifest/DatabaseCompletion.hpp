// What is left to do when a database file is written.
#pragma once

#include "support/zk/UniqueDescriptor.hpp"

#include <string>

namespace Kelvane {

// SQLite does not tell when closing its file fails, as it does on file systems that find out
// only then that there is no room for what was written. A second descriptor, opened before and
// closed after SQLite's, learns of it. It knows no locks, which would keep SQLite out.
class DatabaseWitness {
  public:
    // The database must not be open yet. Both throw code 3, "Failed to write temporary database:
    // %s".
    explicit DatabaseWitness(const std::string &path);
    // Once, after the database was closed.
    void RequireWritten();

  private:
    [[noreturn]] void fail(int number) const;

    std::string path_;
    ZK::file::unique_descriptor descriptor_;
};

// Removes what SQLite keeps beside a database while it is in use. Fails silently.
void RemoveDatabaseCompanions(const std::string &path) noexcept;

} // namespace Kelvane
