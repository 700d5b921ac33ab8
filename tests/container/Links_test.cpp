// Links below a backup's directory: what lies behind them is no part of the backup.
#include "tests/container/BackupFixture.hpp"

#include "support/zk/RootDirectory.hpp"

#include <map>
#include <sys/stat.h>

namespace container_tests {
namespace {

constexpr const char *kSecret = "what the owner of the machine keeps to himself";

enum class Way { KernelResolves, StepByStep };

// A copy of a sample whose files can be moved out of it, links taking their places.
class LinkedBackup {
  public:
    explicit LinkedBackup(const char *sample) : copy(sample), sample_(sample) {}

    // A link leads to the file or folder, which lies outside now.
    void Link(const std::string &name) const {
        const auto elsewhere = copy.directory() / fs::path(name).filename().string();
        fs::rename(copy.file(name), elsewhere);
        fs::create_symlink(elsewhere, copy.file(name));
    }
    // A link to the target takes the place of the file.
    void Replace(const std::string &name, const char *target) const {
        copy.Remove(name);
        fs::create_symlink(target, copy.file(name));
    }
    Opened Open(KVBackupOpenOptions options = kKVBackupOpenDefault) const {
        return OpenPath(copy.root(), {sample_ == kEncrypted ? SamplePassword() : "",
                                      options | kKVBackupOpenKeepDeviceBoundKeysLocked,
                                      {}});
    }

    BackupCopy copy;

  private:
    std::string sample_;
};

// A stored file with content, and the entry that names it.
struct StoredFile {
    std::string domain, path, name, sha256;
};

StoredFile storedFile(const char *sample) {
    const nlohmann::json entry = FindExpected(sample, [](const nlohmann::json &candidate) {
        return candidate.at("type") == "file" && candidate.at("size") > 0;
    });
    const std::string fileID = entry.at("fileID");
    const bool flat = std::string(sample) == kBinary;
    return {entry.at("domain"), entry.at("path"),
            flat ? fileID : fileID.substr(0, 2) + "/" + fileID, entry.at("sha256")};
}

testing::AssertionResult isLinkError(const CF::Error &error, const std::string &name) {
    const testing::AssertionResult unsafe =
        IsError(error, kKVErrorInvalidBackup, "Unsafe stored file name (" + name + ")");
    const CF::Error cause = error ? error.GetUnderlying() : CF::Error();
    if (unsafe &&
        (!cause || !CFEqual(cause.GetDomain(), kCFErrorDomainPOSIX) || cause.GetCode() != ELOOP)) {
        return testing::AssertionFailure() << "the cause is not ELOOP";
    }
    return unsafe;
}

testing::AssertionResult isRefused(const CopiedFile &copied, const std::string &name) {
    if (copied.file) {
        return testing::AssertionFailure() << "the file was loaded";
    }
    const testing::AssertionResult outer =
        IsError(copied.error, kKVErrorLoadRepresentation, "Failed to load file (" + name + ")");
    return outer ? isLinkError(copied.error.GetUnderlying(), name) : outer;
}

testing::AssertionResult refuses(const LinkedBackup &backup, const StoredFile &stored) {
    return isRefused(CopyFileForPath(backup.Open(), stored.domain, stored.path), stored.name);
}

class Links : public testing::TestWithParam<Way> {
  protected:
    Links() { ZK::file::let_kernel_resolve(GetParam() == Way::KernelResolves); }
    ~Links() override { ZK::file::let_kernel_resolve(true); }
};

INSTANTIATE_TEST_SUITE_P(Ways, Links, testing::Values(Way::KernelResolves, Way::StepByStep),
                         [](const auto &way) {
                             return way.param == Way::KernelResolves ? "KernelResolves"
                                                                     : "StepByStep";
                         });

TEST_P(Links, InThePlaceOfStoredFilesAreRefused) {
    for (const char *sample : {kPlain, kEncrypted, kBinary}) {
        const LinkedBackup backup(sample);
        const StoredFile stored = storedFile(sample);
        backup.Link(stored.name);
        EXPECT_TRUE(refuses(backup, stored)) << sample;
    }
}

TEST_P(Links, InThePlaceOfFoldersAreRefused) {
    const LinkedBackup backup(kPlain);
    const StoredFile stored = storedFile(kPlain);
    backup.Link(stored.name.substr(0, 2));
    EXPECT_TRUE(refuses(backup, stored));
}

TEST_P(Links, ThatLeadNowhereAreRefusedAndNotTakenForMissingFiles) {
    const LinkedBackup backup(kPlain);
    const StoredFile stored = storedFile(kPlain);
    backup.Replace(stored.name, "nowhere");
    EXPECT_TRUE(refuses(backup, stored));
}

TEST_P(Links, WithinTheBackupAreRefusedToo) {
    const LinkedBackup backup(kPlain);
    const StoredFile stored = storedFile(kPlain);
    backup.Replace(stored.name, "../Info.plist");
    EXPECT_TRUE(refuses(backup, stored));
}

TEST_P(Links, InThePlaceOfMetadataAreRefused) {
    for (const char *name : {"Manifest.plist", "Info.plist", "Status.plist"}) {
        const LinkedBackup backup(kPlain);
        backup.Link(name);
        const Opened opened = backup.Open();
        EXPECT_FALSE(opened.container);
        EXPECT_TRUE(IsError(opened.error, kKVErrorInvalidBackup,
                            std::string("Failed to load backup metadata file (") + name + ")"));
        EXPECT_TRUE(isLinkError(opened.error.GetUnderlying(), name));
    }
}

TEST_P(Links, InThePlaceOfTheManifestAreRefused) {
    for (const char *sample : {kPlain, kEncrypted}) {
        const LinkedBackup backup(sample);
        backup.Link("Manifest.db");
        const Opened opened = backup.Open();
        EXPECT_FALSE(opened.container);
        EXPECT_TRUE(isLinkError(opened.error, "Manifest.db"));
    }
    const LinkedBackup backup(kBinary);
    backup.Link("Manifest.mbdb");
    const Opened opened = backup.Open();
    EXPECT_FALSE(opened.container);
    EXPECT_TRUE(IsError(opened.error, kKVErrorLoadRepresentation,
                        "An error ocurred while loading manifest file"));
    EXPECT_TRUE(isLinkError(opened.error.GetUnderlying(), "Manifest.mbdb"));
}

TEST_P(Links, AreFollowedOnRequest) {
    for (const auto &[sample, manifest] :
         {std::pair(kPlain, "Manifest.db"), std::pair(kEncrypted, "Manifest.db"),
          std::pair(kBinary, "Manifest.mbdb")}) {
        const LinkedBackup backup(sample);
        const StoredFile stored = storedFile(sample);
        for (const char *name : {"Manifest.plist", "Info.plist", "Status.plist", manifest}) {
            backup.Link(name);
        }
        backup.Link(stored.name);
        if (stored.name.find('/') != std::string::npos) {
            backup.Link(stored.name.substr(0, 2));
        }
        const Opened opened = backup.Open(kKVBackupOpenFollowLinks);
        ASSERT_TRUE(opened.container) << sample;
        const CopiedFile copied = CopyFileForPath(opened, stored.domain, stored.path);
        ASSERT_TRUE(copied.file) << sample;
        EXPECT_EQ(SHA256(ReadContent(copied.file.get())), stored.sha256);
    }
}

TEST_P(Links, ThatComeBeforeAFileIsReadAreRefused) {
    const LinkedBackup backup(kPlain);
    const StoredFile stored = storedFile(kPlain);
    backup.copy.directory().write("secret", kSecret);
    const CopiedFile loaded = CopyFileForPath(backup.Open(), stored.domain, stored.path);
    ASSERT_TRUE(loaded.file);
    backup.Replace(stored.name, "../../secret");
    EXPECT_EQ(KVFileGetDataQuickly(loaded.file.get()), std::nullopt);
    try {
        ReadContent(loaded.file.get());
        ADD_FAILURE() << "it was read";
    } catch (const CF::Error &error) {
        EXPECT_TRUE(isLinkError(error, stored.name));
    }
}

TEST_P(Links, ThatComeBeforeAFileIsDecryptedAreRefused) {
    const LinkedBackup backup(kEncrypted);
    const StoredFile stored = storedFile(kEncrypted);
    const Opened opened = backup.Open();
    const CopiedFile loaded = CopyFileForPath(opened, stored.domain, stored.path);
    ASSERT_TRUE(loaded.file);
    backup.Link(stored.name.substr(0, 2));
    const File copy(CF::adopt, KVFileCreateCopy(loaded.file.get()));
    EXPECT_THROW(ReadContent(copy.get()), CF::Error);
    // The entry holds its content already; decrypting it opens the file once more.
    const CopiedFile again = CopyFileForPath(opened, stored.domain, stored.path);
    EXPECT_FALSE(again.file);
}

TEST_P(Links, ThatComeAfterOpeningAreRefusedByCopiesAndEntriesToo) {
    const LinkedBackup backup(kPlain);
    const StoredFile stored = storedFile(kPlain);
    const Opened opened = backup.Open();
    const Container copy(CF::adopt, KVBackupContainerCreateCopy(nullptr, opened.get()));
    backup.Link(stored.name);
    EXPECT_TRUE(isRefused(CopyFileForPath({copy, {}}, stored.domain, stored.path), stored.name));
    const CF::Pointer<KVManifestEntryClass *> entry(KVBackupContainerGetEntryForPath(
        opened.get(), CF::String(stored.domain), CF::String(stored.path)));
    CFErrorRef error = nullptr;
    EXPECT_EQ(KVManifestEntryGetFile(entry.get(), &error), nullptr);
    EXPECT_TRUE(isRefused({File(), CF::Error::Adopt(error)}, stored.name));
}

TEST_P(Links, AreFollowedByTheCopyOfAContainerThatFollowsThem) {
    const LinkedBackup backup(kPlain);
    const StoredFile stored = storedFile(kPlain);
    backup.Link(stored.name);
    const Opened opened = backup.Open(kKVBackupOpenFollowLinks);
    ASSERT_TRUE(opened.container);
    const Container copy(CF::adopt, KVBackupContainerCreateCopy(nullptr, opened.get()));
    EXPECT_TRUE(CopyFileForPath({copy, {}}, stored.domain, stored.path).file);
}

TEST_P(Links, ThatComeBeforeAFileIsStoredInAnotherBackupAreRefused) {
    const LinkedBackup backup(kPlain);
    const StoredFile stored = storedFile(kPlain);
    const CopiedFile loaded = CopyFileForPath(backup.Open(), stored.domain, stored.path);
    const Opened other = OpenSample(kPlain);
    const CF::String domain("HomeDomain");
    ASSERT_TRUE(KVBackupContainerStoreFileForPath(other.get(), domain, CFSTR("taken over"),
                                                  loaded.file.get(), nullptr));
    backup.Link(stored.name);
    EXPECT_THROW(ReadContent(CopyFileForPath(other, "HomeDomain", "taken over").file.get()),
                 CF::Error);
    CFErrorRef error = nullptr;
    EXPECT_FALSE(KVBackupContainerStoreFileForPath(other.get(), domain, CFSTR("too late"),
                                                   loaded.file.get(), &error));
    const CF::Error refused = CF::Error::Adopt(error);
    EXPECT_EQ(refused.GetCode(), static_cast<CFIndex>(kKVErrorCachedFileAccess));
    EXPECT_TRUE(IsError(refused.GetUnderlying(), kKVErrorFileNotInCache, ""));
}

TEST_P(Links, ToTheBackupItselfAreFollowed) {
    const BackupCopy copy(kPlain);
    const StoredFile stored = storedFile(kPlain);
    const std::string link = (copy.directory() / "link").string();
    fs::create_directory_symlink(copy.root(), link);
    const CopiedFile copied = CopyFileForPath(OpenPath(link), stored.domain, stored.path);
    ASSERT_TRUE(copied.file);
    EXPECT_EQ(SHA256(ReadContent(copied.file.get())), stored.sha256);
    EXPECT_EQ(CF::String::GetUTF8(KVFileGetLocalPath(copied.file.get())), link + "/" + stored.name);
}

TEST_P(Links, OfTheHardKindAreFilesLikeOthers) {
    const LinkedBackup backup(kPlain);
    const StoredFile stored = storedFile(kPlain);
    fs::create_hard_link(backup.copy.file(stored.name), backup.copy.directory() / "other name");
    EXPECT_TRUE(CopyFileForPath(backup.Open(), stored.domain, stored.path).file);
}

TEST_P(Links, AreNotTheOnlyThingsThatAreNoFiles) {
    const BackupCopy copy(kPlain);
    const StoredFile stored = storedFile(kPlain);
    copy.Remove(stored.name);
    ASSERT_EQ(mkfifo(copy.file(stored.name).c_str(), 0600), 0);
    const CopiedFile copied = CopyFileForPath(OpenPath(copy.root()), stored.domain, stored.path);
    EXPECT_FALSE(copied.file);
    EXPECT_EQ(copied.error.GetUnderlying().GetCode(), static_cast<CFIndex>(kKVErrorUnknown));
    EXPECT_THAT(copied.error.GetUnderlying().GetFailureReason().GetUTF8(),
                testing::MatchesRegex("Failed to hash file - .*Not a regular file.*"));
}

using Listing = std::map<std::string, bool>;

Listing list(const Opened &backup) {
    Listing files;
    const auto add = [](const KVBackupSourceFile *file, void *context) -> Boolean {
        static_cast<Listing *>(context)->emplace(CF::String::GetUTF8(file->name),
                                                 file->isRegularFile != 0);
        return true;
    };
    EXPECT_TRUE(KVBackupContainerListSourceFiles(backup.get(), add, &files, nullptr));
    return files;
}

TEST_P(Links, AreListedAsWhatIsNoRegularFile) {
    const LinkedBackup backup(kPlain);
    const StoredFile stored = storedFile(kPlain);
    const std::string folder = stored.name.substr(0, 2);
    backup.Link(folder);
    fs::create_symlink("Info.plist", backup.copy.file("link"));
    const Listing files = list(backup.Open());
    EXPECT_FALSE(files.at(folder));
    EXPECT_FALSE(files.contains(stored.name));
    EXPECT_FALSE(files.at("link"));
}

TEST_P(Links, ThatAreFollowedAreListedAsWhatTheyLeadTo) {
    const LinkedBackup backup(kPlain);
    const StoredFile stored = storedFile(kPlain);
    const Listing before = list(backup.Open());
    backup.Link(stored.name.substr(0, 2));
    backup.Link("Info.plist");
    EXPECT_EQ(list(backup.Open(kKVBackupOpenFollowLinks)), before);
    fs::create_symlink("nowhere", backup.copy.file("dangling"));
    EXPECT_FALSE(list(backup.Open(kKVBackupOpenFollowLinks)).at("dangling"));
}

TEST_P(Links, InACircleEndTheListingAllTheSame) {
    const LinkedBackup backup(kPlain);
    const std::size_t before = list(backup.Open()).size();
    for (const char *name : {"here", "there"}) {
        fs::create_directory_symlink(".", backup.copy.file(name));
    }
    const Listing files = list(backup.Open(kKVBackupOpenFollowLinks));
    EXPECT_EQ(files.size(), before + 2 * (before + 2));
    EXPECT_FALSE(files.at("here/there"));
}

} // namespace
} // namespace container_tests
