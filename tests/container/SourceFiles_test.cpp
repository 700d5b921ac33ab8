// What the opened directory or zip holds, and its manifest as it lies there.
#include "tests/container/BackupFixture.hpp"

#include "KVManifest.h"

#include <map>
#include <set>
#include <sys/stat.h>
#include <sys/un.h>
#include <utility>

namespace container_tests {
namespace {

struct Listed {
    std::int64_t size;
    bool regular;
    bool operator==(const Listed &) const = default;
};
using Listing = std::multimap<std::string, Listed>;

struct ListingResult {
    bool success;
    Listing files;
    CF::Error error;
};

Boolean addTo(const KVBackupSourceFile *file, void *context) {
    static_cast<Listing *>(context)->emplace(CF::String::GetUTF8(file->name),
                                             Listed{file->size, file->isRegularFile != 0});
    return true;
}

ListingResult list(const Opened &backup) {
    ListingResult result;
    CFErrorRef error = nullptr;
    result.success =
        KVBackupContainerListSourceFiles(backup.get(), &addTo, &result.files, &error) != 0;
    result.error = CF::Error::Adopt(error);
    return result;
}

// The regular files below a directory by the file system.
Listing filesBelow(const std::string &root) {
    Listing files;
    for (const auto &item : fs::recursive_directory_iterator(root)) {
        if (fs::is_regular_file(item.path())) {
            files.emplace(item.path().string().substr(root.size() + 1),
                          Listed{static_cast<std::int64_t>(fs::file_size(item.path())), true});
        }
    }
    return files;
}

TEST(SourceFiles, OfADirectoryAreAllThatLieInIt) {
    for (const char *sample : {kEncrypted, kPlain, kBinary}) {
        const ListingResult listed = list(OpenSample(sample));
        EXPECT_TRUE(listed.success);
        EXPECT_EQ(listed.files, filesBelow(SamplePath(sample)));
    }
}

TEST(SourceFiles, OfAZipAreItsRecordsButNotThoseOfDirectories) {
    const BackupCopy copy(kPlain);
    const ListingResult listed = list(OpenPath(copy.Zip())); // zip -r stores directories too
    EXPECT_TRUE(listed.success);
    EXPECT_EQ(listed.files, filesBelow(copy.root()));
}

TEST(SourceFiles, OfAZipAreListedOncePerRecord) {
    const BackupCopy copy(kPlain);
    const std::string zip = copy.Zip();
    const auto result = testing_support::RunPython(
        "import sys, warnings, zipfile\nwarnings.simplefilter('ignore')\n"
        "with zipfile.ZipFile(sys.argv[1], 'a') as archive:\n"
        "    archive.writestr('Info.plist', 'second')\n"
        "    archive.writestr('not a directory/', 'content')\n",
        {zip});
    ASSERT_EQ(result.status, 0) << result.errors;
    const Listing files = list(OpenPath(zip)).files;
    EXPECT_EQ(files.count("Info.plist"), 2U);
    EXPECT_EQ(files.count("not a directory/"), 1U);
}

TEST(SourceFiles, ThatNoEntryNamesAreListed) {
    const BackupCopy copy(kPlain);
    copy.Write("3d/stray", "abc");
    copy.Write("deep/er/and/deeper", "");
    copy.Write("n\xC3\xA4me", "a");
    const Listing files = list(OpenPath(copy.root())).files;
    EXPECT_EQ(files.find("3d/stray")->second, (Listed{3, true}));
    EXPECT_EQ(files.count("deep/er/and/deeper"), 1U);
    EXPECT_EQ(files.count("n\xC3\xA4me"), 1U);
}

TEST(SourceFiles, WhoseNamesAreNotUTF8ReadAsLatin1) {
    const BackupCopy copy(kPlain);
    copy.Write("n\xE4me", "a");
    EXPECT_EQ(list(OpenPath(copy.root())).files.count("n\xC3\xA4me"), 1U);
}

TEST(SourceFiles, ThatAreNoFilesAreListedAsSuch) {
    const BackupCopy copy(kPlain);
    fs::create_symlink("/", copy.file("link out"));
    ASSERT_EQ(mkfifo(copy.file("fifo").c_str(), 0600), 0);
    const Listing files = list(OpenPath(copy.root())).files;
    EXPECT_FALSE(files.find("link out")->second.regular);
    EXPECT_FALSE(files.find("fifo")->second.regular);
    EXPECT_EQ(files.count("link out/etc"), 0U);
}

TEST(SourceFiles, BelowTheDepthLimitAreNamedByTheirDirectory) {
    const BackupCopy copy(kPlain);
    std::string path = "d";
    for (int level = 1; level < 16; ++level) {
        path += "/d";
    }
    copy.Write(path + "/file", "abc");
    copy.Write(path.substr(2) + "/file", "abc");
    const Listing files = list(OpenPath(copy.root())).files;
    EXPECT_FALSE(files.find(path)->second.regular);
    EXPECT_EQ(files.count(path + "/file"), 0U);
    EXPECT_EQ(files.find(path.substr(2) + "/file")->second, (Listed{3, true}));
}

TEST(SourceFiles, AreReachedThroughALinkToTheBackup) {
    const BackupCopy copy(kPlain);
    const std::string link = (copy.directory() / "link").string();
    fs::create_directory_symlink(copy.root(), link);
    EXPECT_EQ(list(OpenPath(link)).files, filesBelow(copy.root()));
}

TEST(SourceFiles, AreListedUntilTheCallbackEndsIt) {
    for (const char *sample : {kPlain, kZip}) {
        const Opened backup = OpenSample(sample);
        int count = 0;
        const auto takeThree = [](const KVBackupSourceFile *, void *context) -> Boolean {
            return ++*static_cast<int *>(context) < 3;
        };
        EXPECT_TRUE(KVBackupContainerListSourceFiles(backup.get(), takeThree, &count, nullptr));
        EXPECT_EQ(count, 3);
    }
}

TEST(SourceFiles, OfADirectoryThatIsGoneCannotBeListed) {
    const BackupCopy copy(kPlain);
    const Opened backup = OpenPath(copy.root());
    fs::remove_all(copy.root());
    const ListingResult listed = list(backup);
    EXPECT_FALSE(listed.success);
    EXPECT_TRUE(IsError(listed.error, kKVErrorFilesystem,
                        "A directory of the backup could not be read (" + copy.root() + ")"));
    EXPECT_EQ(listed.error.GetUnderlying().GetCode(), ENOENT);
}

// Makes the directory of the zip end after its first record.
void cutDirectory(const std::string &zip) {
    const auto result = testing_support::RunPython(
        "import sys\nwith open(sys.argv[1], 'r+b') as file:\n"
        "    data = file.read()\n    first = data.index(b'PK\\x01\\x02')\n"
        "    file.seek(data.index(b'PK\\x01\\x02', first + 4))\n    file.write(b'XXXX')\n",
        {zip});
    ASSERT_EQ(result.status, 0) << result.errors;
}

TEST(SourceFiles, OfADamagedZipCannotBeListed) {
    const BackupCopy copy(kPlain);
    const std::string zip = copy.Zip();
    const Opened backup = OpenPath(zip);
    ASSERT_TRUE(backup.container);
    cutDirectory(zip);
    const ListingResult listed = list(backup);
    EXPECT_FALSE(listed.success);
    EXPECT_TRUE(IsError(listed.error, kKVErrorArchive, "Failed to read file metadata"));
    EXPECT_EQ(CF::String::GetUTF8(listed.error.GetUnderlying().GetDomain()), "ZK.ZipErrorDomain");
}

CopiedFile copySourceManifest(const Opened &backup) {
    CFErrorRef error = nullptr;
    KVFileClass *file = KVBackupContainerCopySourceManifest(backup.get(), &error);
    return {File(CF::adopt, file), CF::Error::Adopt(error)};
}

std::string firstBytes(const CopiedFile &copied, std::size_t count) {
    const std::vector<std::uint8_t> content = ReadContent(copied.file.get());
    return {content.begin(), content.begin() + static_cast<std::ptrdiff_t>(count)};
}

TEST(SourceManifest, OfAPlainBackupIsTheFileItself) {
    for (const auto &[sample, name] :
         {std::pair(kPlain, "/Manifest.db"), std::pair(kBinary, "/Manifest.mbdb")}) {
        const CopiedFile copied = copySourceManifest(OpenSample(sample));
        ASSERT_TRUE(copied.file);
        EXPECT_EQ(ReadContent(copied.file.get()),
                  testing_support::ReadFile(SamplePath(sample) + name));
    }
}

TEST(SourceManifest, OfAnEncryptedBackupComesOutDecrypted) {
    const Opened backup = OpenSample(kEncrypted);
    const CopiedFile copied = copySourceManifest(backup);
    ASSERT_TRUE(copied.file);
    EXPECT_EQ(firstBytes(copied, 15), "SQLite format 3");
    EXPECT_EQ(CF::String::GetUTF8(KVFileGetLocalPath(copied.file.get())),
              SamplePath(kEncrypted) + "/Manifest.db");
}

TEST(SourceManifest, OfAZipComesOutToo) {
    EXPECT_EQ(firstBytes(copySourceManifest(OpenSample(kZip)), 15), "SQLite format 3");
    const BackupCopy copy(kEncrypted);
    const OpenArguments arguments{SamplePassword(), kKVBackupOpenKeepDeviceBoundKeysLocked, {}};
    EXPECT_EQ(firstBytes(copySourceManifest(OpenPath(copy.Zip(), arguments)), 15),
              "SQLite format 3");
}

TEST(SourceManifest, ThatIsGoneIsAnError) {
    const BackupCopy copy(kPlain);
    const Opened backup = OpenPath(copy.root());
    copy.Remove("Manifest.db");
    const CopiedFile copied = copySourceManifest(backup);
    EXPECT_FALSE(copied.file);
    EXPECT_EQ(copied.error.GetCode(), static_cast<CFIndex>(kKVErrorFileNotFound));
}

TEST(SourceManifest, ThatDoesNotDecryptIsAnError) {
    const BackupCopy copy(kEncrypted);
    const Opened backup =
        OpenPath(copy.root(), {SamplePassword(), kKVBackupOpenKeepDeviceBoundKeysLocked, {}});
    copy.Write("Manifest.db", "no whole block");
    const CopiedFile copied = copySourceManifest(backup);
    EXPECT_FALSE(copied.file);
    EXPECT_EQ(copied.error.GetCode(), static_cast<CFIndex>(kKVErrorCrypto));
}

} // namespace
} // namespace container_tests
