// Databases for tests: written by the oracle, read by the library, and the reverse.
#pragma once

#include "KVLog.h"
#include "Kelvane/ManifestDB.hpp"
#include "tests/manifest/ManifestFixtures.hpp"

#include <string>

namespace manifest_test {

// A database file of the oracle's, in a directory of its own.
class OracleDatabase {
  public:
    // document as tests/tools/manifest_oracle.py describes it.
    explicit OracleDatabase(const std::string &document) : path_(directory_ / "Manifest.db") {
        Oracle("write-database", path_, document);
    }
    // A database with the given rows and the ordinary schema.
    static OracleDatabase WithRows(const std::string &rows) {
        return OracleDatabase("{\"rows\": [" + rows + "]}");
    }
    // A database that these statements make, with no rows added.
    static OracleDatabase WithSetup(const std::vector<std::string> &statements) {
        std::string list;
        for (const auto &statement : statements) {
            list += (list.empty() ? "\"" : ", \"") + statement + "\"";
        }
        return OracleDatabase("{\"rows\": [], \"setup\": [" + list + "]}");
    }

    const ZK::filesystem::path &path() const { return path_; }
    CF::String name() const { return CF::String(path_.string()); }
    // Runs further statements with the sqlite3 tool.
    void Run(const std::string &sql) const {
        const auto result = testing_support::RunCommand({"sqlite3", "-bail", path_.string(), sql});
        EXPECT_EQ(result.status, 0) << result.errors;
    }
    Octets Bytes() const { return testing_support::ReadFile(path_); }
    void Replace(const Octets &bytes) const { directory_.write("Manifest.db", bytes); }

  private:
    testing_support::TemporaryDirectory directory_;
    ZK::filesystem::path path_;
};

struct ReadResult {
    ManifestPointer manifest;
    std::string error;
};

inline ReadResult ReadDatabase(const CF::String &path, KVManifestDataVersion version = 33,
                               const KVProgressFunction &progress = {}) {
    testing_support::LibraryTemporaryPath();
    CFErrorRef error = nullptr;
    ReadResult result;
    result.manifest = CF::Adopt(
        KVManifestCreateFromManifestDatabase(nullptr, path, version, {}, progress, &error));
    result.error = Describe(CF::Error::Adopt(error));
    return result;
}

// What SQLite is made to say by reading the file's rows.
inline std::string ReadCause(const OracleDatabase &database) {
    const std::string kPrefix = "Kelvane.ErrorDomain 11: Failed to parse records from manifest "
                                "database < ";
    const auto result = ReadDatabase(database.name());
    EXPECT_FALSE(result.manifest);
    EXPECT_THAT(result.error, testing::StartsWith(kPrefix));
    return result.error.substr(std::min(kPrefix.size(), result.error.size()));
}

// What the library logs at any level while this lives.
class LogCapture {
  public:
    LogCapture() {
        KelvaneLogSetSink(
            [](CFStringRef, int level, CFStringRef text, CFErrorRef error, void *self) {
                auto &lines = static_cast<LogCapture *>(self)->lines_;
                lines.push_back(std::to_string(level) + " " + Plain(text) +
                                (error == nullptr ? "" : " [" + Describe(CF::Error(error)) + "]"));
            },
            this, 0);
    }
    ~LogCapture() { KelvaneLogSetSink(nullptr, nullptr, 0); }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    const Lines &lines() const { return lines_; }

  private:
    Lines lines_;
};

constexpr const char *kFileRow = R"({"fileID": "aa", "domain": "D", "path": "a", "flags": 1,
    "file": {"RelativePath": "a", "Mode": 33188, "Size": 5, "ProtectionClass": 3}})";
constexpr const char *kDirectoryRow = R"({"fileID": "bb", "domain": "D", "path": "b", "flags": 2,
    "file": {"RelativePath": "b", "Mode": 16877, "Size": 70}})";

} // namespace manifest_test
