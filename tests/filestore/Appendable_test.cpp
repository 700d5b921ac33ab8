#include "tests/filestore/StoreFixture.hpp"

#include "support/zk/Math.hpp"
#include "tests/support/FailingCalls.hpp"

#include <cerrno>
#include <csignal>
#include <fstream>

#include <sys/resource.h>

namespace {

using namespace testing_support;

class Appendable : public Store {
  protected:
    static CF::Error appendError(KVFileClass *file, const std::uint8_t *bytes, long length) {
        Kelvane::LocalError error;
        EXPECT_FALSE(KVFileAppendBytes(file, bytes, length, error.out()));
        return error.get();
    }
    static void finalize(const OwnedFile &file) {
        Kelvane::LocalError error;
        EXPECT_TRUE(KVFileFinalizeAppendable(file.get(), error.out())) << ReasonOf(error.get());
    }
    static CF::Error finalizeError(const OwnedFile &file) {
        Kelvane::LocalError error;
        EXPECT_FALSE(KVFileFinalizeAppendable(file.get(), error.out()));
        EXPECT_FALSE(KVFileIsAppendable(file.get()));
        return error.get();
    }
};

TEST_F(Appendable, StartsEmptyInAScratchFile) {
    const auto file = appendable();
    EXPECT_TRUE(KVFileIsAppendable(file.get()));
    EXPECT_EQ(KVFileGetSize(file.get()), 0U);
    EXPECT_TRUE(KVFileGetHash(file.get()).empty());
    EXPECT_TRUE(KVFileGetReferenceHash(file.get()).empty());
    const ZK::filesystem::path path = pathOf(file);
    EXPECT_EQ(path.filename().string().size(), 38U);
    EXPECT_TRUE(path.filename().string().starts_with("__"));
    EXPECT_TRUE(boost::filesystem::is_regular_file(path));
}

TEST_F(Appendable, GathersWhatIsAppended) {
    const auto file = appendable();
    append(file, BytesOf("one "));
    append(file, BytesOf("two"));
    EXPECT_EQ(KVFileGetSize(file.get()), 7U);
    finalize(file);
    EXPECT_FALSE(KVFileIsAppendable(file.get()));
    EXPECT_EQ(KVFileGetSize(file.get()), 7U);
    EXPECT_EQ(KVFileGetHash(file.get()), ZK::Encryption::Hash(BytesOf("one two")));
    EXPECT_EQ(KVFileGetReferenceHash(file.get()), KVFileGetHash(file.get()));
    EXPECT_EQ(Contents(file), BytesOf("one two"));
    EXPECT_NE(KVFileGetModifiedDate(file.get()), nullptr);
}

TEST_F(Appendable, MovesIntoTheStoreWhenFinalised) {
    const auto file = appendable();
    const std::string scratch = pathOf(file);
    append(file, BytesOf("content"));
    finalize(file);
    EXPECT_FALSE(boost::filesystem::exists(scratch));
    const ZK::filesystem::path stored = pathOf(file);
    EXPECT_EQ(stored.filename().string().size(), 36U);
    EXPECT_TRUE(boost::filesystem::is_regular_file(stored));
}

TEST_F(Appendable, IsRegisteredWhenFinalised) {
    const Bytes content = Pattern(33, 501);
    const Bytes hash = ZK::Encryption::Hash(content);
    {
        const auto file = appendable();
        append(file, content);
        EXPECT_EQ(Kelvane::FileManager::ReferenceCount(hash), 0U);
        finalize(file);
        EXPECT_EQ(Kelvane::FileManager::ReferenceCount(hash), 1U);
    }
    EXPECT_EQ(Kelvane::FileManager::ReferenceCount(hash), 0U);
}

TEST_F(Appendable, MayStayEmpty) {
    const auto file = appendable();
    finalize(file);
    EXPECT_EQ(KVFileGetSize(file.get()), 0U);
    EXPECT_EQ(ZK::Math::hex_encode(KVFileGetHash(file.get())),
              "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(Contents(file), Bytes{});
}

TEST_F(Appendable, TakesDataObjects) {
    const auto file = appendable();
    EXPECT_TRUE(KVFileAppendData(file.get(), CF::Data(BytesOf("data")).get(), nullptr));
    finalize(file);
    EXPECT_EQ(Contents(file), BytesOf("data"));
}

TEST_F(Appendable, RefusesEmptyAndNullData) {
    const auto file = appendable();
    const CF::Data empty{Bytes{}};
    for (CFDataRef data : {empty.get(), static_cast<CFDataRef>(nullptr)}) {
        Kelvane::LocalError error;
        EXPECT_FALSE(KVFileAppendData(file.get(), data, error.out()));
        EXPECT_TRUE(IsError(error.get(), kKVErrorInvalidArgument, "Bad buffer argument"));
    }
}

TEST_F(Appendable, RefusesBadBuffers) {
    const auto file = appendable();
    const std::uint8_t byte = 1;
    EXPECT_TRUE(IsError(appendError(file.get(), nullptr, 1), kKVErrorInvalidArgument,
                        "Bad buffer argument"));
    EXPECT_TRUE(
        IsError(appendError(file.get(), &byte, 0), kKVErrorInvalidArgument, "Bad buffer argument"));
    EXPECT_TRUE(IsError(appendError(file.get(), &byte, -1), kKVErrorInvalidArgument,
                        "Bad buffer argument"));
    EXPECT_FALSE(KVFileAppendBytes(file.get(), nullptr, 1, nullptr));
    EXPECT_EQ(KVFileGetSize(file.get()), 0U);
}

TEST_F(Appendable, TakesNothingMoreOnceFinalised) {
    const auto file = appendable();
    finalize(file);
    const std::uint8_t byte = 1;
    EXPECT_TRUE(IsError(appendError(file.get(), &byte, 1), kKVErrorInvalidArgument,
                        "File reference not appendable"));
    EXPECT_TRUE(
        IsError(finalizeError(file), kKVErrorInvalidArgument, "File reference not appendable"));
}

TEST_F(Appendable, OrdinaryFilesAreNot) {
    const auto file = fileOf(BytesOf("x"));
    const std::uint8_t byte = 1;
    EXPECT_FALSE(KVFileIsAppendable(file.get()));
    EXPECT_TRUE(IsError(appendError(file.get(), &byte, 1), kKVErrorInvalidArgument,
                        "File reference not appendable"));
}

TEST_F(Appendable, EqualsOnlyItself) {
    const auto one = appendable();
    const auto other = appendable();
    EXPECT_TRUE(CFEqual(one.get(), one.get()));
    EXPECT_FALSE(CFEqual(one.get(), other.get()));
    EXPECT_FALSE(CFEqual(one.get(), CF::Adopt(_KVFileAllocInit()).get()));
}

TEST_F(Appendable, CannotBeCopied) { EXPECT_EQ(KVFileCreateCopy(appendable().get()), nullptr); }

TEST_F(Appendable, DescribesItself) {
    const auto file = appendable();
    append(file, BytesOf("four"));
    const std::string text = describe(file);
    EXPECT_TRUE(text.starts_with("<KVFile 0x")) << text;
    EXPECT_TRUE(text.ends_with("> (Appendable) path:" + pathOf(file) + " size:4")) << text;
}

TEST_F(Appendable, TakesNoCryptSetting) {
    const auto file = appendable();
    EXPECT_TRUE(IsError(ErrorThrownBy([&] { KVFileEnableDecryption(file.get(), KeyOf(1)); }),
                        kKVErrorInvalidArgument, ""));
    EXPECT_EQ(file.get()->cryptMode, Kelvane::CryptMode::None);
}

TEST_F(Appendable, NoticesThatTheFileHasAnotherSize) {
    const auto file = appendable();
    append(file, BytesOf("four"));
    std::ofstream(pathOf(file), std::ios::app) << "more";
    const CF::Error error = finalizeError(file);
    EXPECT_TRUE(IsError(error, kKVErrorFilesystem,
                        "Calculated appended size does not match size on disk! (4 != 8) (" +
                            pathOf(file) + ")"));
}

TEST_F(Appendable, ReportsAScratchFileThatIsGone) {
    const auto file = appendable();
    const std::string scratch = pathOf(file);
    boost::filesystem::remove(scratch);
    const CF::Error error = finalizeError(file);
    EXPECT_EQ(error.GetCode(), static_cast<CFIndex>(kKVErrorFilesystem));
    EXPECT_TRUE(ReasonOf(error).ends_with("(" + scratch + ")")) << ReasonOf(error);
    EXPECT_TRUE(KVFileGetReferenceHash(file.get()).empty());
}

TEST_F(Appendable, ReportsAFullDiskAndCannotBeFinalisedAfterwards) {
    const auto file = appendable();
    std::signal(SIGXFSZ, SIG_IGN);
    ::rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    ::rlimit limit = before;
    limit.rlim_cur = 1000;
    ::setrlimit(RLIMIT_FSIZE, &limit);
    const Bytes bytes = Pattern(1500);
    const CF::Error error = appendError(file.get(), bytes.data(), 1500);
    ::setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_TRUE(IsError(error, kKVErrorFilesystem, "write: File too large (" + pathOf(file) + ")"));
    EXPECT_TRUE(ReasonOf(finalizeError(file))
                    .starts_with("Calculated appended size does not match size on disk! (0 != "));
}

TEST_F(Appendable, ReportsAFileThatCannotBeClosedAndLeavesNone) {
    const auto file = appendable();
    append(file, BytesOf("lost"));
    const std::string scratch = pathOf(file);
    const FailingCall closing(Call::Close, EDQUOT);
    EXPECT_TRUE(IsError(finalizeError(file), kKVErrorFilesystem,
                        "close: Disk quota exceeded (" + scratch + ")"));
    EXPECT_FALSE(boost::filesystem::exists(scratch));
    EXPECT_TRUE(KVFileGetReferenceHash(file.get()).empty());
}

TEST_F(Appendable, LeavesNoStoredFileThatCannotBeFinalised) {
    const auto file = appendable();
    append(file, BytesOf("four"));
    const std::string scratch = pathOf(file);
    std::ofstream(scratch, std::ios::app) << "more";
    finalizeError(file);
    EXPECT_FALSE(boost::filesystem::exists(scratch));
    EXPECT_FALSE(boost::filesystem::exists(pathOf(file)));
}

TEST_F(Appendable, LeavesNoScratchFileThatCannotBeOpened) {
    const auto before = StoredFileCount();
    const FailingCall polling(Call::AddToPoll, ENOSPC);
    Kelvane::LocalError error;
    EXPECT_EQ(KVFileCreateAppendable(error.out()), nullptr);
    EXPECT_EQ(error.get().GetCode(), static_cast<CFIndex>(kKVErrorFilesystem));
    EXPECT_EQ(StoredFileCount(), before);
}

TEST_F(Appendable, KeepsReadersOutUntilFinalised) {
    const auto file = appendable();
    append(file, BytesOf("half"));
    EXPECT_TRUE(IsError(ErrorThrownBy([&] { Contents(file); }), kKVErrorFilesystem,
                        "File is locked: Resource temporarily unavailable (" + pathOf(file) + ")"));
}

class MoveIntoStore : public Store {};

TEST_F(MoveIntoStore, TakesAFreePlace) {
    const auto scratch = directory.write("scratch", "new");
    Kelvane::MoveIntoStore(scratch, directory / "place");
    EXPECT_EQ(ReadFile(directory / "place"), BytesOf("new"));
    EXPECT_FALSE(boost::filesystem::exists(scratch));
}

TEST_F(MoveIntoStore, LeavesAFileThatIsThereAlready) {
    const auto scratch = directory.write("scratch", "new");
    const auto place = directory.write("place", "old");
    Kelvane::MoveIntoStore(scratch, place);
    EXPECT_EQ(ReadFile(place), BytesOf("old"));
    EXPECT_FALSE(boost::filesystem::exists(scratch));
}

// To the superuser every directory is open, but a path through a loop of links is not.
TEST_F(MoveIntoStore, TellsWhyItCannotSeeWhatLiesInItsPlace) {
    const auto scratch = directory.write("scratch", "new");
    boost::filesystem::create_symlink("loop", directory / "loop");
    try {
        Kelvane::MoveIntoStore(scratch, directory / "loop" / "place");
        FAIL() << "moved";
    } catch (const boost::system::system_error &error) {
        EXPECT_EQ(error.code().value(), ELOOP);
    }
    EXPECT_TRUE(boost::filesystem::exists(scratch));
}

TEST_F(MoveIntoStore, TellsThatTheStoreIsClosedToIt) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "to the superuser no directory is closed";
    }
    const auto scratch = directory.write("scratch", "new");
    boost::filesystem::create_directory(directory / "closed");
    boost::filesystem::permissions(directory / "closed", boost::filesystem::no_perms);
    try {
        Kelvane::MoveIntoStore(scratch, directory / "closed" / "place");
        FAIL() << "moved";
    } catch (const boost::system::system_error &error) {
        EXPECT_EQ(error.code().value(), EACCES);
    }
    boost::filesystem::permissions(directory / "closed", boost::filesystem::owner_all);
}

TEST_F(MoveIntoStore, RefusesAnythingElseInItsPlace) {
    const auto scratch = directory.write("scratch", "new");
    const CF::Error error =
        ErrorThrownBy([&] { Kelvane::MoveIntoStore(scratch, directory.path()); });
    EXPECT_TRUE(IsError(error, kKVErrorFilesystem,
                        "Internal inconsistency (" + directory.path().string() + ")"));
    EXPECT_TRUE(CFEqual(error.GetUnderlying().GetDomain(), kCFErrorDomainPOSIX));
    EXPECT_EQ(error.GetUnderlying().GetCode(), 21);
}

} // namespace
