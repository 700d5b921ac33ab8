#include "tests/filestore/StoreFixture.hpp"

#include "support/zk/Math.hpp"
#include "tests/support/FreshProcess.hpp"

#include <limits>

#include <sys/stat.h>

namespace {

using namespace testing_support;
namespace FileManager = Kelvane::FileManager;

class FileManagerTest : public Store {
  protected:
    ~FileManagerTest() override {
        FileManager::SetMaxMemorySize(FileManager::kDefaultMaxMemorySize);
    }
};

::mode_t modeOf(const ZK::filesystem::path &path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 0777;
}

TEST_F(FileManagerTest, LocationsAreFreshUUIDsInTheStore) {
    const auto first = FileManager::GetStorageLocationForFile();
    const auto second = FileManager::GetStorageLocationForFile();
    EXPECT_NE(first, second);
    EXPECT_EQ(first.parent_path(), LibraryTemporaryPath() / "KVFileManager");
    EXPECT_EQ(first.filename().string().size(), 36U);
    EXPECT_FALSE(boost::filesystem::exists(first));
    EXPECT_TRUE(boost::filesystem::is_directory(first.parent_path()));
}

TEST_F(FileManagerTest, ScratchLocationsBearTheIdentifier) {
    const auto path = FileManager::GetStorageLocationForTempIdentifier(CFSTR("abc"));
    EXPECT_EQ(path.filename().string(), "__abc");
    EXPECT_EQ(path.parent_path(), LibraryTemporaryPath() / "KVFileManager");
}

TEST_F(FileManagerTest, RefusesANullIdentifier) {
    EXPECT_TRUE(
        IsError(ErrorThrownBy([] { FileManager::GetStorageLocationForTempIdentifier(nullptr); }),
                kKVErrorInvalidArgument, ""));
}

TEST_F(FileManagerTest, RefusesIdentifiersThatLeadOutOfTheStore) {
    EXPECT_TRUE(IsError(
        ErrorThrownBy([] { FileManager::GetStorageLocationForTempIdentifier(CFSTR("a/../../b")); }),
        kKVErrorInvalidArgument, "Unsafe storage identifier (a/../../b)"));
    const CF::String withNul(std::string("a\0b", 3));
    EXPECT_EQ(ErrorThrownBy([&] {
                  FileManager::GetStorageLocationForTempIdentifier(withNul.get());
              }).GetCode(),
              static_cast<CFIndex>(kKVErrorInvalidArgument));
}

void useBeforeThePathIsSet() {
    const std::string reason =
        "KVFileManager: Failed to initialize temp path (Temporary storage path not set)";
    EXPECT_TRUE(IsError(ErrorThrownBy([] { FileManager::GetStorageLocationForFile(); }),
                        kKVErrorInvalidArgument, reason));
    EXPECT_TRUE(
        IsError(ErrorThrownBy([] { FileManager::GetStorageLocationForTempIdentifier(CFSTR("x")); }),
                kKVErrorInvalidArgument, reason));
    Kelvane::LocalError error;
    EXPECT_EQ(KVFileCreateFromData(Bytes{1}, error.out()), nullptr);
    EXPECT_TRUE(IsError(error.get(), kKVErrorInvalidArgument, reason));
    Kelvane::LocalError appendableError;
    EXPECT_EQ(KVFileCreateAppendable(appendableError.out()), nullptr);
    EXPECT_TRUE(IsError(appendableError.get(), kKVErrorInvalidArgument, reason));

    const TemporaryDirectory directory;
    EXPECT_TRUE(KelvaneSetTemporaryPath(CF::String(directory.path().string()).get()));
    EXPECT_EQ(FileManager::GetStorageLocationForFile().parent_path(), directory / "KVFileManager");
}

TEST(FileManagerSetup, FailsBeforeTheTemporaryPathIsSetAndSucceedsAfterwards) {
    EXPECT_PASSES_IN_FRESH_PROCESS(useBeforeThePathIsSet());
}

void blockTheStore() {
    const TemporaryDirectory directory;
    directory.write("KVFileManager", "in the way");
    EXPECT_TRUE(KelvaneSetTemporaryPath(CF::String(directory.path().string()).get()));
    const CF::Error error = ErrorThrownBy([] { FileManager::GetStorageLocationForFile(); });
    EXPECT_EQ(error.GetCode(), static_cast<CFIndex>(kKVErrorInvalidArgument));
    EXPECT_TRUE(ReasonOf(error).starts_with("KVFileManager: Failed to initialize temp path ("))
        << ReasonOf(error);
    boost::filesystem::remove(directory / "KVFileManager");
    EXPECT_FALSE(ErrorThrownBy([] { FileManager::GetStorageLocationForFile(); }));
}

TEST(FileManagerSetup, TriesAgainAfterTheDirectoryCouldNotBeMade) {
    EXPECT_PASSES_IN_FRESH_PROCESS(blockTheStore());
}

void lookAtModes() {
    ::umask(0);
    const TemporaryDirectory directory;
    EXPECT_TRUE(KelvaneSetTemporaryPath(CF::String(directory.path().string()).get()));
    const auto stored = CF::Adopt(KVFileCreateFromData(Bytes{1, 2}, nullptr));
    const auto scratch = CF::Adopt(KVFileCreateAppendable(nullptr));
    EXPECT_EQ(modeOf(directory / "KVFileManager"), 0700U);
    EXPECT_EQ(modeOf(CF::String::GetUTF8(KVFileGetLocalPath(stored.get()))), 0600U);
    EXPECT_EQ(modeOf(CF::String::GetUTF8(KVFileGetLocalPath(scratch.get()))), 0600U);
}

TEST(FileManagerSetup, StoreAndFilesArePrivateWhateverTheUmask) {
    EXPECT_PASSES_IN_FRESH_PROCESS(lookAtModes());
}

TEST_F(FileManagerTest, ReferencesARegularFile) {
    const Bytes content = BytesOf("content");
    const auto path = directory.write("file", content);
    const Bytes hash = ZK::Encryption::Hash(content);
    Kelvane::LocalError error;
    const auto file = CF::Adopt(FileManager::CopyCachedFileReference(path, hash, error.out()));
    ASSERT_TRUE(file) << ReasonOf(error.get());
    EXPECT_EQ(KVFileGetReferenceHash(file.get()), hash);
    EXPECT_EQ(KVFileGetHash(file.get()), hash);
    EXPECT_EQ(KVFileGetSize(file.get()), content.size());
    EXPECT_EQ(pathOf(file), path.string());
    EXPECT_EQ(FileManager::ReferenceCount(hash), 1U);
}

TEST_F(FileManagerTest, WhatIsNoRegularFileIsNotInTheCache) {
    ASSERT_EQ(::mkfifo((directory / "fifo").c_str(), 0600), 0);
    for (const auto &path : {directory.path(), directory / "missing", directory / "fifo"}) {
        Kelvane::LocalError error;
        EXPECT_EQ(FileManager::CopyCachedFileReference(path, Bytes(20), error.out()), nullptr);
        EXPECT_TRUE(IsError(error.get(), kKVErrorFileNotInCache, ""));
        EXPECT_EQ(FileManager::CopyCachedFileReference(path, Bytes(20), nullptr), nullptr);
    }
    EXPECT_EQ(FileManager::ReferenceCount(Bytes(20)), 0U);
}

TEST_F(FileManagerTest, TwoReferencesToOneContentCountTwice) {
    const Bytes content = Pattern(10, 77);
    const Bytes hash = ZK::Encryption::Hash(content);
    const auto path = directory.write("file", content);
    {
        const auto first = fileAt(path);
        const auto second = fileAt(path);
        EXPECT_EQ(FileManager::ReferenceCount(hash), 2U);
    }
    EXPECT_EQ(FileManager::ReferenceCount(hash), 0U);
    EXPECT_TRUE(boost::filesystem::exists(path)) << "files outlive their references";
}

TEST_F(FileManagerTest, ACopyCountsToo) {
    const auto file = fileOf(Pattern(10, 78));
    {
        const auto copy = CF::Adopt(KVFileCreateCopy(file.get()));
        EXPECT_EQ(countOf(file), 2U);
    }
    EXPECT_EQ(countOf(file), 1U);
}

TEST_F(FileManagerTest, RegisteringNullIsRefused) {
    EXPECT_TRUE(IsError(ErrorThrownBy([] { FileManager::RegisterReferenceForFile(nullptr); }),
                        kKVErrorInvalidArgument, ""));
    EXPECT_TRUE(IsError(ErrorThrownBy([] { FileManager::DeregisterReferenceForFile(nullptr); }),
                        kKVErrorInvalidArgument, ""));
}

TEST_F(FileManagerTest, DeregisteringAnUnknownHashNamesIt) {
    const auto file = CF::Adopt(_KVFileAllocInit());
    file.get()->referenceHash = FromHex("00ABCDEF");
    EXPECT_TRUE(IsError(ErrorThrownBy([&] { FileManager::DeregisterReferenceForFile(file.get()); }),
                        kKVErrorInvalidArgument,
                        "Attempted to deregister reference for nonexistent hash '00abcdef'"));
    file.get()->referenceHash.clear();
}

TEST_F(FileManagerTest, HashesOfAnyLengthAreCountedApart) {
    const auto file = CF::Adopt(_KVFileAllocInit());
    file.get()->referenceHash = FromHex("0011");
    FileManager::RegisterReferenceForFile(file.get());
    EXPECT_EQ(FileManager::ReferenceCount(FromHex("0011")), 1U);
    EXPECT_EQ(FileManager::ReferenceCount(FromHex("00")), 0U);
    EXPECT_EQ(FileManager::ReferenceCount(FromHex("001100")), 0U);
}

TEST_F(FileManagerTest, TheMemoryLimitStartsAt4MiB) {
    EXPECT_EQ(FileManager::kDefaultMaxMemorySize, 4194304U);
    EXPECT_EQ(FileManager::GetMaxMemorySize(), FileManager::kDefaultMaxMemorySize);
}

TEST_F(FileManagerTest, TheMemoryLimitTakesAnyValue) {
    for (const unsigned long limit : {0UL, 1UL, std::numeric_limits<unsigned long>::max()}) {
        FileManager::SetMaxMemorySize(limit);
        EXPECT_EQ(FileManager::GetMaxMemorySize(), limit);
    }
}

} // namespace
