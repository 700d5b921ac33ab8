#include "tests/filestore/StoreFixture.hpp"

#include "support/zk/Log.hpp"
#include "support/zk/Math.hpp"
#include "tests/support/FailingCalls.hpp"

#include <cstdio>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <utime.h>

namespace {

using namespace testing_support;

class Files : public Store {
  protected:
    static std::string address(const OwnedFile &file) {
        char text[32];
        std::snprintf(text, sizeof text, "%p", static_cast<const void *>(file.get()));
        return text;
    }
    static std::string dateText(const OwnedFile &file) {
        return CF::String::Adopt(CFCopyDescription(KVFileGetModifiedDate(file.get()))).GetUTF8();
    }
};

TEST_F(Files, HaveOneTypeIdentifier) {
    EXPECT_EQ(KVFileGetTypeID(), KVFileGetTypeID());
    const auto file = CF::Adopt(_KVFileAllocInit());
    EXPECT_EQ(CFGetTypeID(file.get()), KVFileGetTypeID());
    EXPECT_EQ(CF::String::Adopt(CFCopyTypeIDDescription(KVFileGetTypeID())).GetUTF8(), "KVFile");
}

TEST_F(Files, ANewInstanceIsEmpty) {
    const auto file = CF::Adopt(_KVFileAllocInit());
    EXPECT_EQ(KVFileGetSize(file.get()), 0U);
    EXPECT_TRUE(KVFileGetHash(file.get()).empty());
    EXPECT_TRUE(KVFileGetReferenceHash(file.get()).empty());
    EXPECT_EQ(KVFileGetLocalPath(file.get()), nullptr);
    EXPECT_EQ(KVFileGetModifiedDate(file.get()), nullptr);
    EXPECT_FALSE(KVFileIsAppendable(file.get()));
    EXPECT_EQ(file.get()->cryptMode, Kelvane::CryptMode::None);
    EXPECT_EQ(file.get()->key.get(), FileKey{});
}

TEST_F(Files, FromDataLieInTheStore) {
    const Bytes content = Pattern(1000, 3);
    const auto file = fileOf(content);
    EXPECT_EQ(KVFileGetSize(file.get()), 1000U);
    EXPECT_EQ(KVFileGetHash(file.get()), ZK::Encryption::Hash(content));
    EXPECT_EQ(KVFileGetReferenceHash(file.get()), KVFileGetHash(file.get()));
    EXPECT_EQ(ReadFile(pathOf(file)), content);
    EXPECT_TRUE(pathOf(file).starts_with((LibraryTemporaryPath() / "KVFileManager/").string()));
}

TEST_F(Files, FromEmptyDataAreEmpty) {
    const auto file = CF::Adopt(KVFileCreateFromData(CF::Data(Bytes{}).get(), nullptr));
    ASSERT_TRUE(file);
    EXPECT_EQ(KVFileGetSize(file.get()), 0U);
    EXPECT_EQ(ZK::Math::hex_encode(KVFileGetHash(file.get())),
              "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST_F(Files, FromNullDataFail) {
    Kelvane::LocalError error;
    EXPECT_EQ(KVFileCreateFromData(static_cast<CFDataRef>(nullptr), error.out()), nullptr);
    EXPECT_TRUE(IsError(error.get(), kKVErrorInvalidArgument, "NULL sourceData"));
    EXPECT_EQ(KVFileCreateFromData(static_cast<CFDataRef>(nullptr), nullptr), nullptr);
}

TEST_F(Files, FromTheSameBytesAreEqualAtDifferentPaths) {
    const auto one = fileOf(BytesOf("same"));
    const auto other = fileOf(BytesOf("same"));
    EXPECT_NE(pathOf(one), pathOf(other));
    EXPECT_TRUE(CFEqual(one.get(), other.get()));
    EXPECT_FALSE(CFEqual(one.get(), fileOf(BytesOf("else")).get()));
}

TEST_F(Files, WithoutHashesAreEqual) {
    const auto one = CF::Adopt(_KVFileAllocInit());
    const auto other = CF::Adopt(_KVFileAllocInit());
    EXPECT_TRUE(CFEqual(one.get(), other.get()));
    EXPECT_FALSE(CFEqual(one.get(), fileOf(Bytes{}).get()));
}

TEST_F(Files, EqualOnesHashByIdentity) {
    const auto one = fileOf(BytesOf("same"));
    const auto other = fileOf(BytesOf("same"));
    EXPECT_NE(CFHash(one.get()), CFHash(other.get()));
}

TEST_F(Files, AtAPathAreReferencedInPlace) {
    const auto path = directory.write("file", "content");
    for (const bool copyIntoStore : {false, true}) {
        Kelvane::LocalError error;
        const auto file = CF::Adopt(KVFileCreateFromFileAtPath(CF::String(path.string()).get(),
                                                               copyIntoStore, error.out()));
        ASSERT_TRUE(file) << ReasonOf(error.get());
        EXPECT_EQ(pathOf(file), path.string());
        EXPECT_EQ(KVFileGetReferenceHash(file.get()), ZK::Encryption::Hash(BytesOf("content")));
        EXPECT_EQ(countOf(file), 1U);
    }
}

TEST_F(Files, AtALinkAreWhatItPointsTo) {
    directory.write("file", "content");
    ASSERT_EQ(::symlink("file", (directory / "link").c_str()), 0);
    const auto file = fileAt(directory / "link");
    EXPECT_EQ(Contents(file), BytesOf("content"));
    EXPECT_EQ(pathOf(file), (directory / "link").string());
}

TEST_F(Files, TakeTheirDateFromTheFileSystem) {
    const auto path = directory.write("file", "content");
    const ::utimbuf times{1000000000, 1000000000};
    ASSERT_EQ(::utime(path.c_str(), &times), 0);
    const auto file = fileAt(path);
    EXPECT_EQ(CFDateGetAbsoluteTime(KVFileGetModifiedDate(file.get())), 1000000000.0 - 978307200.0);
}

TEST_F(Files, TheirDateCanBeReplaced) {
    const auto file = fileOf(BytesOf("x"));
    const CF::Date date = CF::Date::FromAbsoluteTime(-1.5);
    _KVFileSetModifiedDate(file.get(), date.get());
    EXPECT_EQ(KVFileGetModifiedDate(file.get()), date.get());
}

TEST_F(Files, AtAMissingPathFail) {
    const std::string path = (directory / "none").string();
    EXPECT_TRUE(IsError(errorForPath(path), kKVErrorFileNotFound,
                        "File does not exist at path '" + path + "'"));
    EXPECT_EQ(KVFileCreateFromFileAtPath(CF::String(path).get(), false, nullptr), nullptr);
}

// To the superuser every directory is open, but a path through a loop of links is not.
TEST_F(Files, WhoseDirectoryCannotBeSearchedFailForThatReason) {
    boost::filesystem::create_symlink("loop", directory / "loop");
    const std::string path = (directory / "loop" / "file").string();
    const CF::Error error = errorForPath(path);
    EXPECT_TRUE(IsError(error, kKVErrorFileNotFound, "File does not exist at path '" + path + "'"));
    EXPECT_TRUE(CFEqual(error.GetUnderlying().GetDomain(), kCFErrorDomainPOSIX));
    EXPECT_EQ(error.GetUnderlying().GetCode(), ELOOP);
}

TEST_F(Files, AtANullPathFail) {
    Kelvane::LocalError error;
    EXPECT_EQ(KVFileCreateFromFileAtPath(nullptr, false, error.out()), nullptr);
    EXPECT_TRUE(IsError(error.get(), kKVErrorFileNotFound, "File does not exist at path ''"));
}

TEST_F(Files, APathWithANulIsNotCutShort) {
    const std::string path = directory.write("file", "content").string();
    EXPECT_EQ(errorForPath(path + std::string("\0x", 2)).GetCode(),
              static_cast<CFIndex>(kKVErrorFileNotFound));
    Kelvane::LocalError error;
    const CF::String withNul(path + std::string("\0x", 2));
    EXPECT_EQ(_KVFileCreateFromAbsolutePath(withNul.get(), Bytes(20), 0, error.out()), nullptr);
    EXPECT_EQ(error.get().GetCode(), static_cast<CFIndex>(kKVErrorFilesystem));
}

TEST_F(Files, AtADanglingLinkFail) {
    ASSERT_EQ(::symlink("nowhere", (directory / "link").c_str()), 0);
    EXPECT_EQ(errorForPath((directory / "link").string()).GetCode(),
              static_cast<CFIndex>(kKVErrorFileNotFound));
}

TEST_F(Files, RefuseAFifoWithoutWaiting) {
    ASSERT_EQ(::mkfifo((directory / "fifo").c_str(), 0600), 0);
    for (const bool copyIntoStore : {false, true}) {
        EXPECT_TRUE(IsError(errorForPath((directory / "fifo").string(), copyIntoStore),
                            kKVErrorUnknown,
                            "Failed to hash file - Not a regular file: Operation not supported"));
    }
}

TEST_F(Files, RefuseADirectory) {
    EXPECT_TRUE(IsError(errorForPath(directory.path().string()), kKVErrorUnknown,
                        "Failed to hash file - Not a regular file: Is a directory"));
}

TEST_F(Files, RefuseADevice) {
    EXPECT_TRUE(IsError(errorForPath("/dev/zero"), kKVErrorUnknown,
                        "Failed to hash file - Not a regular file: Operation not supported"));
}

TEST_F(Files, RefuseASocket) {
    const auto path = directory / "socket";
    ::sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(fd, reinterpret_cast<::sockaddr *>(&address), sizeof address), 0);
    EXPECT_TRUE(IsError(errorForPath(path.string()), kKVErrorUnknown,
                        "Failed to hash file - Not a regular file: Operation not supported"));
    ::close(fd);
}

TEST_F(Files, RefuseAFileThatIsBeingWritten) {
    const auto writer = ZK::file::writable_file::create_new(directory / "file");
    EXPECT_TRUE(IsError(errorForPath((directory / "file").string()), kKVErrorUnknown,
                        "Failed to hash file - File is locked: Resource temporarily unavailable"));
}

TEST_F(Files, FromAnAbsolutePathTakeTheHashTheyAreGiven) {
    const auto path = directory.write("file", "content");
    const CF::String text(path.string());
    const auto plain =
        CF::Adopt(_KVFileCreateFromAbsolutePath(text.get(), Bytes{1, 2, 3}, 0, nullptr));
    EXPECT_EQ(KVFileGetHash(plain.get()), (Bytes{1, 2, 3}));
    EXPECT_TRUE(KVFileGetReferenceHash(plain.get()).empty());
    EXPECT_EQ(KVFileGetSize(plain.get()), 7U);
    EXPECT_EQ(Kelvane::FileManager::ReferenceCount(Bytes{1, 2, 3}), 0U);
}

TEST_F(Files, FromAnAbsolutePathMayCarryAReferenceHash) {
    const auto path = directory.write("file", "content");
    const auto file = CF::Adopt(
        _KVFileCreateFromAbsolutePath(CF::String(path.string()).get(), Bytes{1, 2, 3}, 1, nullptr));
    EXPECT_EQ(KVFileGetReferenceHash(file.get()), (Bytes{1, 2, 3}));
    EXPECT_EQ(Kelvane::FileManager::ReferenceCount(Bytes{1, 2, 3}), 0U) << "registers nothing";
    Kelvane::FileManager::RegisterReferenceForFile(file.get());
}

TEST_F(Files, FromAMissingAbsolutePathFail) {
    const std::string path = (directory / "none").string();
    Kelvane::LocalError error;
    EXPECT_EQ(_KVFileCreateFromAbsolutePath(CF::String(path).get(), Bytes(20), 0, error.out()),
              nullptr);
    EXPECT_EQ(error.get().GetCode(), static_cast<CFIndex>(kKVErrorFilesystem));
    EXPECT_TRUE(ReasonOf(error.get()).ends_with("(" + path + ")")) << ReasonOf(error.get());
    EXPECT_NE(ReasonOf(error.get()).find("No such file or directory"), std::string::npos);
}

TEST_F(Files, CopiesShareEverything) {
    const auto file = fileOf(Encrypted(Pattern(100), KeyOf(1)));
    KVFileEnableDecryption(file.get(), KeyOf(1));
    const auto copy = CF::Adopt(KVFileCreateCopy(file.get()));
    EXPECT_NE(copy.get(), file.get());
    EXPECT_TRUE(CFEqual(copy.get(), file.get()));
    EXPECT_EQ(KVFileGetSize(copy.get()), 100U);
    EXPECT_EQ(KVFileGetModifiedDate(copy.get()), KVFileGetModifiedDate(file.get()));
    EXPECT_EQ(pathOf(copy), pathOf(file));
    EXPECT_EQ(KVFileGetReferenceHash(copy.get()), KVFileGetReferenceHash(file.get()));
    EXPECT_EQ(Contents(copy), Pattern(100));
}

TEST_F(Files, CopiesOfUnregisteredOnesAreUnregistered) {
    const auto path = directory.write("file", "content");
    const auto file = CF::Adopt(
        _KVFileCreateFromAbsolutePath(CF::String(path.string()).get(), Bytes{9, 9}, 0, nullptr));
    const auto copy = CF::Adopt(KVFileCreateCopy(file.get()));
    EXPECT_TRUE(KVFileGetReferenceHash(copy.get()).empty());
    EXPECT_EQ(Kelvane::FileManager::ReferenceCount(Bytes{9, 9}), 0U);
}

TEST_F(Files, AMutablePathStringMayChangeAfterwards) {
    const CF::String given(directory.write("file", "content").string());
    CFMutableStringRef path = CFStringCreateMutableCopy(kCFAllocatorDefault, 0, given.get());
    const auto file = CF::Adopt(_KVFileCreateFromAbsolutePath(path, Bytes(20), 0, nullptr));
    CFStringAppend(path, CFSTR(".other"));
    CFRelease(path);
    EXPECT_EQ(pathOf(file), given.GetUTF8());
}

TEST_F(Files, DescribeThemselves) {
    const auto file = fileOf(BytesOf("abc"));
    EXPECT_EQ(describe(file),
              "<KVFile " + address(file) + "> path:" + pathOf(file) +
                  " size:3 hash:a9993e364706816aba3e25717850c26c9cd0d89d mdate:" + dateText(file));
}

TEST_F(Files, DescribeAMissingHashAsEmpty) {
    const auto path = directory.write("file", "content");
    const auto file = CF::Adopt(
        _KVFileCreateFromAbsolutePath(CF::String(path.string()).get(), Bytes{}, 0, nullptr));
    EXPECT_NE(describe(file).find(" size:7 hash:Empty mdate:"), std::string::npos)
        << describe(file);
}

TEST_F(Files, DescribeThemselvesInFormats) {
    const auto file = fileOf(BytesOf("abc"));
    EXPECT_EQ(CF::String::Format(CFSTR("%@"), file.get()).GetUTF8(), describe(file));
}

TEST_F(Files, LogARefusedDeregistrationAndCarryOn) {
    std::string logged;
    ZLLogSetSink(
        [](CFStringRef, int level, CFStringRef, CFErrorRef error, void *context) {
            *static_cast<std::string *>(context) =
                std::to_string(level) + " " + ReasonOf(CF::Error(error));
        },
        &logged, kZLLogLevelError);
    KVFileClass *const file = _KVFileAllocInit();
    file->referenceHash = FromHex("CAFE");
    CFRelease(file);
    ZLLogSetSink(nullptr, nullptr, 0);
    EXPECT_EQ(logged, "8 Attempted to deregister reference for nonexistent hash 'cafe'");
}

TEST_F(Files, AreReleasedWithTheirStrings) {
    const CF::String path(directory.write("file", "content").string());
    const CFIndex before = CFGetRetainCount(path.get());
    CFRelease(_KVFileCreateFromAbsolutePath(path.get(), Bytes(20), 0, nullptr));
    EXPECT_EQ(CFGetRetainCount(path.get()), before);
}

class Storing : public Files {};

TEST_F(Storing, CopiesIntoTheStore) {
    const auto path = directory.write("file", "content");
    const Bytes hash = ZK::Encryption::Hash(BytesOf("content"));
    const auto file = Kelvane::CopyIntoStore(path, hash);
    EXPECT_NE(pathOf(file), path.string());
    EXPECT_EQ(ReadFile(pathOf(file)), BytesOf("content"));
    EXPECT_EQ(countOf(file), 1U);
}

TEST_F(Storing, ReportsACopyThatFails) {
    const CF::Error error =
        ErrorThrownBy([&] { Kelvane::CopyIntoStore(directory / "none", Bytes(20)); });
    EXPECT_EQ(error.GetCode(), static_cast<CFIndex>(kKVErrorFilesystem));
    EXPECT_TRUE(ReasonOf(error).starts_with("open: No such file or directory ("))
        << ReasonOf(error);
}

TEST_F(Storing, KeepsTheCauseWhenAReferenceCannotBeMade) {
    const CF::Error error =
        ErrorThrownBy([&] { Kelvane::ReferenceStoredFile(directory / "none", Bytes(20)); });
    EXPECT_TRUE(IsError(error, kKVErrorUnknown, "File written but reference could not be created"));
    EXPECT_TRUE(IsError(error.GetUnderlying(), kKVErrorFileNotInCache, ""));
}

TEST_F(Storing, KeepsTheCauseWhenAnInPlaceReferenceCannotBeMade) {
    const CF::String path((directory / "none").string());
    const CF::Error error =
        ErrorThrownBy([&] { Kelvane::ReferenceInPlace(path.get(), Bytes(20)); });
    EXPECT_TRUE(IsError(error, kKVErrorUnknown, "Failed to create internal file reference"));
    EXPECT_EQ(error.GetUnderlying().GetCode(), static_cast<CFIndex>(kKVErrorFilesystem));
}

TEST_F(Storing, ReferencesInPlaceWithoutRegistering) {
    const CF::String path(directory.write("file", "content").string());
    const auto file = Kelvane::ReferenceInPlace(path.get(), Bytes{4, 5});
    EXPECT_TRUE(KVFileGetReferenceHash(file.get()).empty());
    EXPECT_EQ(KVFileGetHash(file.get()), (Bytes{4, 5}));
}

TEST_F(Storing, ReportsAFileThatCannotBeWritten) {
    const auto location = directory / "no/such/place";
    const Bytes bytes{1};
    EXPECT_TRUE(IsError(ErrorThrownBy([&] { Kelvane::WriteStoredFile(location, bytes.data(), 1); }),
                        kKVErrorFilesystem,
                        "open: No such file or directory (" + location.string() + ")"));
}

TEST_F(Storing, LeavesNothingThatCannotBeReferenced) {
    const auto path = directory / "link";
    boost::filesystem::create_symlink("nowhere", path);
    EXPECT_TRUE(ErrorThrownBy([&] { Kelvane::ReferenceStoredFile(path, Bytes(20)); }));
    EXPECT_FALSE(boost::filesystem::is_symlink(boost::filesystem::symlink_status(path)));
}

TEST_F(Storing, ReportsAFileThatCannotBeClosedAndLeavesNone) {
    const auto location = directory / "file";
    const Bytes bytes = Pattern(1000);
    const FailingCall closing(Call::Close, EDQUOT);
    EXPECT_TRUE(
        IsError(ErrorThrownBy([&] { Kelvane::WriteStoredFile(location, bytes.data(), 1000); }),
                kKVErrorFilesystem, "close: Disk quota exceeded (" + location.string() + ")"));
    EXPECT_FALSE(boost::filesystem::exists(location));
}

TEST_F(Storing, LosesNoDataInSilence) {
    const auto before = StoredFileCount();
    const FailingCall closing(Call::Close, EDQUOT);
    Kelvane::LocalError error;
    EXPECT_EQ(KVFileCreateFromData(Pattern(1000), error.out()), nullptr);
    EXPECT_EQ(error.get().GetCode(), static_cast<CFIndex>(kKVErrorFilesystem));
    EXPECT_EQ(StoredFileCount(), before);
}

TEST_F(Storing, ReportsACopyThatCannotBeClosedAndLeavesNone) {
    const auto before = StoredFileCount();
    const auto path = directory.write("file", "content");
    const FailingCall closing(Call::Close, EDQUOT);
    const CF::Error error = ErrorThrownBy([&] { Kelvane::CopyIntoStore(path, Bytes(20)); });
    EXPECT_TRUE(ReasonOf(error).starts_with("close: Disk quota exceeded (")) << ReasonOf(error);
    EXPECT_EQ(StoredFileCount(), before);
}

TEST_F(Storing, WritesAllBytes) {
    const Bytes bytes = Pattern(100000);
    Kelvane::WriteStoredFile(directory / "file", bytes.data(), 100000);
    EXPECT_EQ(ReadFile(directory / "file"), bytes);
}

using StoringDeathTest = Storing;

TEST_F(StoringDeathTest, ANegativeLengthEndsTheProcess) {
    const Bytes bytes{1};
    EXPECT_DEATH(Kelvane::WriteStoredFile(directory / "file", bytes.data(), -1),
                 "Kelvane/KVFile.cpp:[0-9]+:  KVFileCreateFromData Assertion data_len >= 0 "
                 "failed\\.");
}

} // namespace
