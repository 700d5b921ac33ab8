// Backups for the container's tests: the samples, and copies of them with one thing changed.
#pragma once

#include "KVBackupContainer.h"
#include "support/cf/CF.hpp"
#include "tests/support/RunCommand.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <openssl/evp.h>

#include <boost/filesystem/operations.hpp>

#include <array>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace container_tests {

using Container = CF::Pointer<KVBackupContainerClass *>;
using File = CF::Pointer<KVFileClass *>;
namespace fs = boost::filesystem;

inline std::string SamplePath(const std::string &name) {
    return std::string(KELVANE_SOURCE_DIR) + "/samples/" + name;
}

inline constexpr const char *kEncrypted = "encrypted-3.3";
inline constexpr const char *kPlain = "plain-3.2";
inline constexpr const char *kBinary = "plain-2.4";
inline constexpr const char *kZip = "plain-3.1.zip";

inline std::string SamplePassword() {
    std::ifstream file(SamplePath("password.txt"));
    std::string line;
    std::getline(file, line);
    return line;
}

// The entries that the sample's generator wrote down.
inline nlohmann::json Expectations(const std::string &sample) {
    const std::string stem = sample.size() > 4 && sample.substr(sample.size() - 4) == ".zip"
                                 ? sample.substr(0, sample.size() - 4)
                                 : sample;
    std::ifstream file(SamplePath(stem + ".expectations.json"));
    return nlohmann::json::parse(file);
}

inline std::string SHA256(const std::vector<std::uint8_t> &bytes) {
    std::array<unsigned char, 32> digest;
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
    std::string text;
    for (const unsigned char byte : digest) {
        constexpr char kDigits[] = "0123456789abcdef";
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

// What an opening function left behind.
struct Opened {
    Container container;
    CF::Error error;

    KVBackupContainerClass *get() const { return container.get(); }
};

struct OpenArguments {
    std::string password;
    KVBackupOpenOptions options = kKVBackupOpenDefault;
    KVProgressFunction progress;
};

inline Opened OpenPath(const std::string &path, const OpenArguments &arguments = {}) {
    testing_support::LibraryTemporaryPath();
    CFErrorRef error = nullptr;
    const CF::String pathText(path);
    const CF::String password(arguments.password);
    const bool zip = fs::is_regular_file(path);
    KVBackupContainerClass *container =
        zip ? KVBackupContainerCreateFromZipFile(nullptr, pathText, password, arguments.options,
                                                 arguments.progress, &error)
            : KVBackupContainerCreateFromDirectory(nullptr, pathText, password, arguments.options,
                                                   arguments.progress, &error);
    return {Container(CF::adopt, container), CF::Error::Adopt(error)};
}

inline Opened OpenSample(const std::string &sample) {
    OpenArguments arguments;
    if (sample == kEncrypted) {
        arguments.password = SamplePassword();
        arguments.options = kKVBackupOpenKeepDeviceBoundKeysLocked;
    }
    return OpenPath(SamplePath(sample), arguments);
}

// A copy of a sample directory that a test may spoil.
class BackupCopy {
  public:
    explicit BackupCopy(const std::string &sample) {
        const auto result = testing_support::RunCommand({"cp", "-r", SamplePath(sample), root()});
        EXPECT_EQ(result.status, 0) << result.errors;
    }
    std::string root() const { return (directory_ / "backup").string(); }
    std::string file(const std::string &name) const { return root() + "/" + name; }

    void Remove(const std::string &name) const { fs::remove(file(name)); }
    void Write(const std::string &name, const std::string &text) const {
        directory_.write("backup/" + name, text);
    }
    // Changes a property list in place.
    void EditPlist(const std::string &name,
                   const std::function<void(const CF::Dictionary &)> &edit) const {
        const CF::Data data(testing_support::ReadFile(file(name)));
        const auto dictionary = CF::Dictionary::MutableCopy(
            CF::PropertyListType<CF::Dictionary>::FromPropertyListData(data).get());
        edit(dictionary);
        const auto written = CF::PropertyListType<CF::Dictionary>::ToPropertyListData(
            dictionary, kCFPropertyListBinaryFormat_v1_0);
        directory_.write("backup/" + name, written.GetBytes());
    }
    void SetVersion(const std::string &version) const {
        EditPlist("Status.plist", [&](const CF::Dictionary &status) {
            status.Set(CFSTR("Version"), CF::String(version).get());
        });
    }
    // Runs SQL on the manifest database with the sqlite3 tool.
    void EditDatabase(const std::string &sql) const {
        const auto result = testing_support::RunCommand({"sqlite3", file("Manifest.db"), sql});
        ASSERT_EQ(result.status, 0) << result.errors;
    }
    // A zip of the directory, records stored under their names from the root.
    std::string Zip() const {
        const std::string path = (directory_ / "backup.zip").string();
        const auto result = testing_support::RunCommand(
            {"sh", "-c", "cd \"$1\" && zip -q -r -X \"$2\" .", "zip", root(), path});
        EXPECT_EQ(result.status, 0) << result.errors;
        return path;
    }
    const testing_support::TemporaryDirectory &directory() const { return directory_; }

  private:
    testing_support::TemporaryDirectory directory_;
};

// Succeeds when the error is the library's, with that code and reason; "" is no reason.
inline testing::AssertionResult IsError(const CF::Error &error, CFIndex code,
                                        const std::string &reason) {
    if (!error) {
        return testing::AssertionFailure() << "there is no error";
    }
    if (!CFEqual(error.GetDomain(), kKVErrorDomain) || error.GetCode() != code ||
        error.GetFailureReason().GetUTF8() != reason) {
        return testing::AssertionFailure()
               << CF::String::GetUTF8(error.GetDomain()) << " " << error.GetCode() << ": "
               << error.GetFailureReason().GetUTF8();
    }
    return testing::AssertionSuccess();
}

inline std::vector<std::uint8_t> ReadContent(const KVFileClass *file) {
    std::vector<std::uint8_t> content;
    KVFileGetData(file, 0, [&](const std::vector<std::uint8_t> &chunk) {
        content.insert(content.end(), chunk.begin(), chunk.end());
        return true;
    });
    return content;
}

struct CopiedFile {
    File file;
    CF::Error error;
};

inline CopiedFile CopyFileForPath(const Opened &backup, const std::string &domain,
                                  const std::string &path) {
    CFErrorRef error = nullptr;
    KVFileClass *file = KVBackupContainerCopyFileForPath(backup.get(), CF::String(domain),
                                                         CF::String(path), &error);
    return {File(CF::adopt, file), CF::Error::Adopt(error)};
}

inline CopiedFile CopyFileForName(const Opened &backup, const std::string &name) {
    CFErrorRef error = nullptr;
    KVFileClass *file =
        KVBackupContainerCopyFileForLocalFilename(backup.get(), CF::String(name), &error);
    return {File(CF::adopt, file), CF::Error::Adopt(error)};
}

// The first expected entry that the predicate accepts.
inline nlohmann::json FindExpected(const std::string &sample,
                                   const std::function<bool(const nlohmann::json &)> &accept) {
    const nlohmann::json expectations = Expectations(sample);
    for (const auto &entry : expectations.at("entries")) {
        if (accept(entry)) {
            return entry;
        }
    }
    ADD_FAILURE() << "the sample " << sample << " has no such entry";
    return {};
}

inline nlohmann::json FindFileOfSize(const std::string &sample, std::int64_t size) {
    return FindExpected(sample, [size](const nlohmann::json &entry) {
        return entry.at("type") == "file" && entry.at("size") == size;
    });
}

} // namespace container_tests
