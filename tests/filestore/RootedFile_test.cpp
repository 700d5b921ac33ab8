#include "filestore/RootedFile.hpp"

#include "tests/filestore/StoreFixture.hpp"

#include <boost/filesystem/operations.hpp>

#include <cerrno>

#include <unistd.h>

namespace {

using namespace testing_support;
using Kelvane::ReferenceAgain;
using Kelvane::ReferenceBelow;

class RootedFiles : public Store {
  protected:
    RootedFiles() { directory.write("root/ab/file", Pattern(1000, 3)); }

    Kelvane::RootDirectory root() const {
        return std::make_shared<ZK::file::root_directory>(directory / "root");
    }
    OwnedFile file() const { return ReferenceBelow(root(), "ab/file"); }
    CF::Error errorFor(const char *name) const {
        try {
            ReferenceBelow(root(), name);
        } catch (const CF::Error &error) {
            return error;
        }
        return {};
    }
    std::string path(const char *name) const { return (directory / name).string(); }
};

TEST_F(RootedFiles, AreLikeThoseThatAreReferencedByPath) {
    const OwnedFile rooted = file();
    const OwnedFile plain = fileAt(directory / "root/ab/file");
    EXPECT_TRUE(CFEqual(rooted.get(), plain.get()));
    EXPECT_EQ(KVFileGetSize(rooted.get()), KVFileGetSize(plain.get()));
    EXPECT_EQ(KVFileGetReferenceHash(rooted.get()), KVFileGetReferenceHash(plain.get()));
    EXPECT_TRUE(CFEqual(KVFileGetModifiedDate(rooted.get()), KVFileGetModifiedDate(plain.get())));
    EXPECT_EQ(pathOf(rooted), pathOf(plain));
    EXPECT_EQ(countOf(rooted), 2U);
    EXPECT_EQ(Contents(rooted), Pattern(1000, 3));
    EXPECT_EQ(KVFileGetDataQuickly(rooted.get()), Pattern(1000, 3));
}

TEST_F(RootedFiles, StayBelowTheirRootInCopies) {
    const auto copy = CF::Adopt(KVFileCreateCopy(file().get()));
    boost::filesystem::rename(directory / "root/ab", directory / "elsewhere");
    boost::filesystem::create_symlink("../elsewhere", directory / "root/ab");
    EXPECT_THROW(Contents(copy), CF::Error);
}

TEST_F(RootedFiles, AreRefusedWhenALinkLeadsToThem) {
    boost::filesystem::create_symlink("ab/file", directory / "root/link");
    boost::filesystem::create_symlink("ab", directory / "root/folder");
    for (const char *name : {"link", "folder/file"}) {
        const CF::Error error = errorFor(name);
        EXPECT_TRUE(IsError(error, kKVErrorInvalidBackup,
                            std::string("Unsafe stored file name (") + name + ")"));
        EXPECT_EQ(error.GetUnderlying().GetCode(), ELOOP);
    }
}

TEST_F(RootedFiles, ThatAreMissingAreToldByTheirPath) {
    EXPECT_TRUE(IsError(errorFor("ab/other"), kKVErrorFileNotFound,
                        "File does not exist at path '" + path("root/ab/other") + "'"));
    EXPECT_TRUE(IsError(errorFor("ab/file/below"), kKVErrorFileNotFound,
                        "File does not exist at path '" + path("root/ab/file/below") + "'"));
}

TEST_F(RootedFiles, ThatCannotBeReadAreNotMissing) {
    EXPECT_EQ(errorFor("ab").GetCode(), static_cast<CFIndex>(kKVErrorUnknown));
    if (::geteuid() != 0) {
        boost::filesystem::permissions(directory / "root/ab/file", boost::filesystem::no_perms);
        EXPECT_EQ(errorFor("ab/file").GetCode(), static_cast<CFIndex>(kKVErrorUnknown));
    }
}

TEST_F(RootedFiles, AreReferencedAgainWithTheSizeThatTheyHaveNow) {
    const OwnedFile first = file();
    directory.write("root/ab/file", Pattern(10, 3));
    const OwnedFile again = ReferenceAgain(*first.get());
    EXPECT_EQ(KVFileGetSize(again.get()), 10U);
    EXPECT_EQ(countOf(again), 2U);
    boost::filesystem::remove(directory / "root/ab/file");
    EXPECT_THROW(ReferenceAgain(*first.get()), CF::Error);
}

} // namespace
