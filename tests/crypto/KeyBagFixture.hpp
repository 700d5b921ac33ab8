// Keybags made by the Python oracle, taken apart and put together again for tests.
#pragma once

#include "KVError.h"
#include "MB/KeyBag.hpp"
#include "MB/ManifestEncryption.hpp"
#include "support/cf/CF.hpp"

#include "Oracle.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace keybag_fixture {

using oracle::Bytes;
using Key = MB::KeyBag::Key;

inline const std::string kPassword = "correct horse";

// A keybag and what is locked in it, by the names that keybag_oracle.py prints.
class OracleKeyBag {
  public:
    explicit OracleKeyBag(const std::vector<std::string> &options = {}) {
        std::istringstream lines(oracle::outputOfTool("keybag_oracle.py", options));
        for (std::string name, value; lines >> name >> value;) {
            values_[name] = oracle::fromHex(value);
        }
    }
    const Bytes &operator[](const std::string &name) const { return values_.at(name); }
    const Bytes &blob() const { return values_.at("blob"); }
    Key key(const std::string &name) const {
        Key key{};
        std::copy(values_.at(name).begin(), values_.at(name).end(), key.begin());
        return key;
    }
    Key classKey(unsigned int number) const { return key("class." + std::to_string(number)); }
    // The file key as a key blob of the class.
    CF::Data lockedFileKey(unsigned int number) const {
        return CF::Data(values_.at("locked." + std::to_string(number)));
    }
    // The two values of a backup's Manifest.plist.
    CF::Dictionary manifestPlist() const {
        const auto plist = CF::Dictionary::Mutable();
        plist.Set(CFSTR("BackupKeyBag"), CF::Data(blob()).get());
        plist.Set(CFSTR("ManifestKey"), CF::Data(values_.at("manifestblob")).get());
        return plist;
    }

  private:
    std::map<std::string, Bytes> values_;
};

// Records in order, and their bytes again.
using Records = std::vector<MB::KeyBag::Record>;

inline Bytes bigEndian(std::uint32_t value) {
    return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
            static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

inline Records recordsOf(const Bytes &blob) {
    Records records;
    for (std::size_t at = 0; at < blob.size();) {
        const std::size_t length = blob.at(at + 6) * std::size_t{256} + blob.at(at + 7);
        const auto value = blob.begin() + static_cast<std::ptrdiff_t>(at + 8);
        records.emplace_back(std::string(value - 8, value - 4),
                             Bytes(value, value + static_cast<std::ptrdiff_t>(length)));
        at += 8 + length;
    }
    return records;
}

inline Bytes blobOf(const Records &records) {
    Bytes blob;
    for (const auto &[tag, value] : records) {
        const Bytes length = bigEndian(static_cast<std::uint32_t>(value.size()));
        blob.insert(blob.end(), tag.begin(), tag.end());
        blob.insert(blob.end(), length.begin(), length.end());
        blob.insert(blob.end(), value.begin(), value.end());
    }
    return blob;
}

// The first record with the tag at or after the position.
inline Records::iterator find(Records &records, const std::string &tag, std::size_t from = 0) {
    const auto found =
        std::find_if(records.begin() + static_cast<std::ptrdiff_t>(from), records.end(),
                     [&](const auto &record) { return record.first == tag; });
    EXPECT_NE(found, records.end()) << "no " << tag;
    return found;
}

// Records before the first class block: VERS, TYPE and the header block of 8.
constexpr std::size_t kHeaderRecords = 10;

inline MB::KeyBag opened(const Bytes &blob, const std::string &password = kPassword,
                         MB::DeviceBoundKeys bound = MB::DeviceBoundKeys::Fail) {
    return MB::KeyBag(CF::Data(blob), password, bound);
}

// The CF::Error that the action throws; null, and a test failure, when it throws none.
template <class Action>
CF::Error errorOf(Action &&action) {
    try {
        action();
    } catch (const CF::Error &error) {
        return error;
    }
    ADD_FAILURE() << "no error was thrown";
    return {};
}

inline CF::Error openingError(const Bytes &blob, const std::string &password = kPassword,
                              MB::DeviceBoundKeys bound = MB::DeviceBoundKeys::Fail) {
    return errorOf([&] { opened(blob, password, bound); });
}

// Of the library's domain, with the code and the reason, and with or without a cause.
inline void expectError(const CF::Error &error, KVError code, const std::string &reason) {
    ASSERT_TRUE(error);
    EXPECT_TRUE(CFEqual(error.GetDomain(), kKVErrorDomain));
    EXPECT_EQ(error.GetCode(), static_cast<CFIndex>(code));
    EXPECT_EQ(error.GetFailureReason().GetUTF8(), reason);
}

inline void expectLoneError(const CF::Error &error, KVError code, const std::string &reason) {
    expectError(error, code, reason);
    EXPECT_FALSE(error.GetUnderlying());
}

// What a wrong password comes to: the class that could not be opened, and why.
inline void expectWrongPassword(const CF::Error &error, unsigned int protectionClass) {
    expectError(error, kKVErrorUnlockFailed,
                "Failed to unlock a key (class " + std::to_string(protectionClass) + ")");
    expectError(error.GetUnderlying(), kKVErrorIncorrectPassword, "Key unwrap failed");
}

} // namespace keybag_fixture
