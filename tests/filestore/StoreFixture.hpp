// What the tests of the file store have in common.
#pragma once

#include "KVFile.h"
#include "Kelvane/FileManager.hpp"
#include "filestore/KVFileClass.hpp"
#include "filestore/ReferenceCounts.hpp"
#include "filestore/Storage.hpp"
#include "support/cf/CF.hpp"
#include "tests/support/Bytes.hpp"
#include "tests/support/ErrorMatchers.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace testing_support {

using Kelvane::OwnedFile;
using FileKey = std::array<std::uint8_t, 32>;

inline FileKey KeyOf(std::uint8_t first) {
    FileKey key;
    for (std::size_t i = 0; i < key.size(); ++i) {
        key[i] = static_cast<std::uint8_t>(first + i * 7);
    }
    return key;
}

inline Bytes Encrypted(const Bytes &plain, const FileKey &key) {
    return ZK::Encryption::Cryptor::Crypt(ZK::Encryption::Operation::Encrypt,
                                          ZK::Encryption::Algorithm::AES256, key, {}, plain);
}

// Everything that KVFileGetData delivers, in one piece.
inline Bytes Contents(const OwnedFile &file, unsigned long chunkSize = 0) {
    Bytes all;
    KVFileGetData(file.get(), chunkSize, [&](const Bytes &bytes) {
        all.insert(all.end(), bytes.begin(), bytes.end());
        return true;
    });
    return all;
}

inline std::size_t StoredFileCount() {
    const auto store = LibraryTemporaryPath() / "KVFileManager";
    boost::system::error_code missing;
    const boost::filesystem::directory_iterator first(store, missing);
    return missing ? 0 : static_cast<std::size_t>(std::distance(first, {}));
}

// Files in the library's store, and others beside it.
class Store : public ::testing::Test {
  protected:
    Store() { LibraryTemporaryPath(); }

    static OwnedFile fileOf(const Bytes &bytes) {
        Kelvane::LocalError error;
        auto file = CF::Adopt(KVFileCreateFromData(bytes, error.out()));
        EXPECT_TRUE(file) << ReasonOf(error.get());
        return file;
    }
    static OwnedFile fileAt(const ZK::filesystem::path &path) {
        Kelvane::LocalError error;
        auto file = CF::Adopt(
            KVFileCreateFromFileAtPath(CF::String(path.string()).get(), false, error.out()));
        EXPECT_TRUE(file) << ReasonOf(error.get());
        return file;
    }
    static CF::Error errorForPath(const std::string &path, bool copyIntoStore = false) {
        Kelvane::LocalError error;
        EXPECT_EQ(KVFileCreateFromFileAtPath(CF::String(path).get(), copyIntoStore, error.out()),
                  nullptr);
        return error.get();
    }
    static OwnedFile appendable() {
        Kelvane::LocalError error;
        auto file = CF::Adopt(KVFileCreateAppendable(error.out()));
        EXPECT_TRUE(file) << ReasonOf(error.get());
        return file;
    }
    static void append(const OwnedFile &file, const Bytes &bytes) {
        EXPECT_TRUE(
            KVFileAppendBytes(file.get(), bytes.data(), static_cast<long>(bytes.size()), nullptr));
    }
    static std::string pathOf(const OwnedFile &file) {
        return CF::String::GetUTF8(KVFileGetLocalPath(file.get()));
    }
    static std::string describe(const OwnedFile &file) {
        return CF::String::Adopt(CFCopyDescription(file.get())).GetUTF8();
    }
    static std::uint32_t countOf(const OwnedFile &file) {
        return Kelvane::FileManager::ReferenceCount(KVFileGetReferenceHash(file.get()));
    }

    const TemporaryDirectory directory;
};

} // namespace testing_support
