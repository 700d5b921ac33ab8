// Encrypted backups of old systems, and backups as other programs leave them.
#include "BackupFixture.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace container_tests;

constexpr const char *kFolder = "backup of a device";
constexpr const char *kDomain = "HomeDomain";
constexpr const char *kPath = "Library/SMS/sms.txt";
constexpr KVBackupOpenOptions kLocked = kKVBackupOpenKeepDeviceBoundKeysLocked;

// A small backup, encrypted with the password of the samples, with its expectations beside it.
class MadeBackup {
  public:
    explicit MadeBackup(std::vector<std::string> options, const std::string &name = "backup")
        : root_((directory_ / name).string()) {
        std::vector<std::string> command = {"/usr/bin/python3",
                                            "-B",
                                            std::string(KELVANE_SOURCE_DIR) +
                                                "/tests/tools/make_backup.py",
                                            root_,
                                            "--tree",
                                            "small",
                                            "--encrypted",
                                            "--password-file",
                                            SamplePath("password.txt"),
                                            "--iterations",
                                            "10",
                                            "--dp-iterations",
                                            "20"};
        command.insert(command.end(), options.begin(), options.end());
        const auto result = testing_support::RunCommand(command);
        EXPECT_EQ(result.status, 0) << result.errors;
    }
    const std::string &root() const { return root_; }
    std::string above() const { return fs::path(root_).parent_path().string(); }
    Opened Open(KVBackupOpenOptions options) const {
        return OpenPath(root_, {SamplePassword(), options, {}});
    }

  private:
    testing_support::TemporaryDirectory directory_;
    std::string root_;
};

std::string textOf(const Opened &backup) {
    CFErrorRef error = nullptr;
    const File file(CF::adopt, KVBackupContainerCopyFileForPath(backup.get(), CF::String(kDomain),
                                                                CF::String(kPath), &error));
    if (!file) {
        return CF::Error::Adopt(error).GetFailureReason().GetUTF8();
    }
    std::string text;
    KVFileGetData(file.get(), 0, [&](const std::vector<std::uint8_t> &bytes) {
        text.append(bytes.begin(), bytes.end());
        return true;
    });
    return text;
}

CF::String folderOf(const Opened &backup) {
    return CF::String::Adopt(KVBackupContainerCopyFolder(backup.get()));
}

TEST(OldEncryption, OfBinaryManifestsOpensWhenAsked) {
    const MadeBackup made({"--version", "2.4"});
    const Opened backup = made.Open(kKVBackupOpenOldEncryption);
    ASSERT_TRUE(backup.container) << backup.error.GetFailureReason().GetUTF8();
    EXPECT_TRUE(KVBackupContainerIsEncrypted(backup.get()));
    EXPECT_EQ(textOf(backup), "See you at nine?\n");
}

TEST(OldEncryption, OfBinaryManifestsIsRefusedByDefault) {
    const MadeBackup made({"--version", "2.4"});
    EXPECT_TRUE(
        IsError(made.Open(kLocked).error, kKVErrorInvalidMetadata, "ManifestKey is missing"));
}

TEST(OldEncryption, OfBinaryManifestsTellsAWrongPassword) {
    const MadeBackup made({"--version", "2.4"});
    const CF::Error error = OpenPath(made.root(), {"wrong", kKVBackupOpenOldEncryption, {}}).error;
    EXPECT_EQ(error.GetCode(), kKVErrorUnlockFailed);
    EXPECT_EQ(error.GetUnderlying().GetCode(), kKVErrorIncorrectPassword);
}

TEST(OldEncryption, WithAnOldKeyBagOpensWhenAsked) {
    for (const char *option : {"--old-keybag", "--without-dpwt"}) {
        const MadeBackup made({option});
        EXPECT_EQ(textOf(made.Open(kKVBackupOpenOldEncryption)), "See you at nine?\n") << option;
        EXPECT_TRUE(IsError(made.Open(kLocked).error, kKVErrorInvalidKeyBag, "Missing DPWT field"));
    }
}

TEST(OldEncryption, NeedsTheManifestKeyOfADatabase) {
    const BackupCopy copy(kEncrypted);
    copy.EditPlist("Manifest.plist",
                   [](const CF::Dictionary &manifest) { manifest.Remove(CFSTR("ManifestKey")); });
    const OpenArguments arguments{SamplePassword(), kLocked | kKVBackupOpenOldEncryption, {}};
    EXPECT_TRUE(IsError(OpenPath(copy.root(), arguments).error, kKVErrorInvalidMetadata,
                        "ManifestKey is missing"));
}

TEST(OldEncryption, OfTwoSystemsIsRefusedByName) {
    for (const char *version : {"10.0", "10.0.2", "10.1.1"}) {
        const BackupCopy copy(kEncrypted);
        copy.EditPlist("Manifest.plist", [&](const CF::Dictionary &manifest) {
            manifest.Remove(CFSTR("ManifestKey"));
            const auto lockdown = CF::Dictionary::Mutable();
            lockdown.Set(CFSTR("ProductVersion"), CF::String(version).get());
            manifest.Set(CFSTR("Lockdown"), lockdown.get());
        });
        // Before a password is asked for.
        EXPECT_TRUE(IsError(OpenPath(copy.root(), {"", kKVBackupOpenOldEncryption, {}}).error,
                            kKVErrorEncryptionUnsupported,
                            "Backups that iOS " + std::string(version) +
                                " encrypted are not supported: iOS 10.0 and 10.1 did it in a way "
                                "of their own"));
        EXPECT_TRUE(IsError(OpenPath(copy.root(), {SamplePassword(), kLocked, {}}).error,
                            kKVErrorInvalidMetadata, "ManifestKey is missing"));
    }
}

TEST(OddManifest, ThatLiesDecryptedIsUsedAsItIs) {
    const MadeBackup made({"--manifest-form", "decrypted"});
    const Opened backup = made.Open(kKVBackupOpenUnusualManifests);
    ASSERT_TRUE(backup.container);
    EXPECT_EQ(KVBackupContainerGetNotes(backup.get()), kKVBackupNoteManifestDecrypted);
    EXPECT_EQ(textOf(backup), "See you at nine?\n");
    EXPECT_EQ(made.Open(kLocked).error.GetCode(), kKVErrorCrypto);
}

TEST(OddManifest, WithoutPaddingIsDecrypted) {
    const MadeBackup made({"--manifest-form", "unpadded"});
    const Opened backup = made.Open(kKVBackupOpenUnusualManifests);
    ASSERT_TRUE(backup.container);
    EXPECT_EQ(KVBackupContainerGetNotes(backup.get()), kKVBackupNoteManifestWithoutPadding);
    EXPECT_EQ(textOf(backup), "See you at nine?\n");
    EXPECT_EQ(made.Open(kLocked).error.GetCode(), kKVErrorCrypto);
}

TEST(OddManifest, WithoutPaddingHasAWholeNumberOfPages) {
    const MadeBackup made({"--manifest-form", "unpadded"});
    const std::string path = made.root() + "/Manifest.db";
    fs::resize_file(path, fs::file_size(path) - 512);
    EXPECT_EQ(made.Open(kKVBackupOpenUnusualManifests).error.GetCode(), kKVErrorCrypto);
}

TEST(OddManifest, AsDevicesLeaveItIsNoted) {
    const Opened backup = MadeBackup({}).Open(kKVBackupOpenUnusualManifests);
    ASSERT_TRUE(backup.container);
    EXPECT_EQ(KVBackupContainerGetNotes(backup.get()), 0U);
}

TEST(OddManifest, IsTheSourceManifestInReadableForm) {
    for (const char *form : {"padded", "unpadded", "decrypted"}) {
        const MadeBackup made({"--manifest-form", form});
        const Opened backup = made.Open(kKVBackupOpenUnusualManifests);
        ASSERT_TRUE(backup.container) << form;
        const Container copy(CF::adopt, KVBackupContainerCreateCopy(nullptr, backup.get()));
        for (const KVBackupContainerClass *container : {backup.get(), copy.get()}) {
            const File file(CF::adopt, KVBackupContainerCopySourceManifest(container, nullptr));
            ASSERT_TRUE(file) << form;
            std::string begin;
            KVFileGetData(file.get(), 4096, [&](const std::vector<std::uint8_t> &bytes) {
                begin.assign(bytes.begin(), bytes.begin() + 15);
                return false;
            });
            EXPECT_EQ(begin, "SQLite format 3") << form;
        }
    }
}

TEST(CutOff, IsNotedByTheStateOfTheSnapshot) {
    const BackupCopy copy(kPlain);
    EXPECT_EQ(KVBackupContainerGetNotes(OpenPath(copy.root()).get()), 0U);
    copy.EditPlist("Status.plist", [](const CF::Dictionary &status) {
        status.Set(CFSTR("SnapshotState"), CFSTR("uploading"));
    });
    EXPECT_EQ(KVBackupContainerGetNotes(OpenPath(copy.root()).get()), kKVBackupNoteUnfinished);
    copy.EditPlist("Status.plist",
                   [](const CF::Dictionary &status) { status.Remove(CFSTR("SnapshotState")); });
    EXPECT_EQ(KVBackupContainerGetNotes(OpenPath(copy.root()).get()), 0U);
}

TEST(BackupInAFolder, OpensWhenAsked) {
    const MadeBackup made({}, kFolder);
    const OpenArguments arguments{SamplePassword(), kKVBackupOpenSearchFolder, {}};
    const Opened backup = OpenPath(made.above(), arguments);
    ASSERT_TRUE(backup.container) << backup.error.GetFailureReason().GetUTF8();
    EXPECT_EQ(folderOf(backup), CF::String(kFolder));
    EXPECT_EQ(textOf(backup), "See you at nine?\n");
    EXPECT_TRUE(IsError(OpenPath(made.above(), {SamplePassword(), kLocked, {}}).error,
                        kKVErrorInvalidBackup,
                        "Backup metadata file missing. Are you sure this is a valid backup? "
                        "(Manifest.plist)"));
}

TEST(BackupInAFolder, IsNotLookedForWhereThereIsOne) {
    const BackupCopy copy(kPlain);
    fs::create_directory(copy.file("other"));
    fs::copy_file(copy.file("Manifest.plist"), copy.file("other/Manifest.plist"));
    const Opened backup = OpenPath(copy.root(), {"", kKVBackupOpenSearchFolder, {}});
    ASSERT_TRUE(backup.container);
    EXPECT_FALSE(folderOf(backup));
}

TEST(BackupInAFolder, IsTheOnlyOne) {
    const BackupCopy copy(kPlain);
    fs::create_directory(copy.directory() / "second");
    fs::copy_file(copy.file("Manifest.plist"), copy.directory() / "second/Manifest.plist");
    const std::string above = fs::path(copy.root()).parent_path().string();
    EXPECT_TRUE(IsError(OpenPath(above, {"", kKVBackupOpenSearchFolder, {}}).error,
                        kKVErrorInvalidBackup,
                        "More than one backup lies in " + above + ": backup, second"));
}

TEST(BackupInAFolder, IsNoLinkUnlessLinksAreFollowed) {
    const BackupCopy copy(kPlain);
    const testing_support::TemporaryDirectory above;
    fs::create_directory_symlink(copy.root(), above / "link");
    const std::string path = (above / ".").string();
    EXPECT_FALSE(OpenPath(path, {"", kKVBackupOpenSearchFolder, {}}).container);
    EXPECT_TRUE(
        OpenPath(path, {"", kKVBackupOpenSearchFolder | kKVBackupOpenFollowLinks, {}}).container);
}

// A zip of the directory in which the backup lies, with what one system's archiver adds.
std::string zipOf(const MadeBackup &made) {
    const std::string path = made.above() + "/archive.zip";
    const auto result = testing_support::RunCommand(
        {"sh", "-c",
         "cd \"$1\" && mkdir __MACOSX && echo x > \"__MACOSX/._$2\" && echo x > .DS_Store && "
         "zip -q -r -X \"$3\" . -x '*.json'",
         "zip", made.above(), kFolder, path});
    EXPECT_EQ(result.status, 0) << result.errors;
    return path;
}

TEST(BackupInAFolderOfAZip, OpensWhenAsked) {
    const MadeBackup made({}, kFolder);
    const std::string zip = zipOf(made);
    const Opened backup = OpenPath(zip, {SamplePassword(), kKVBackupOpenSearchFolder, {}});
    ASSERT_TRUE(backup.container) << backup.error.GetFailureReason().GetUTF8();
    EXPECT_EQ(folderOf(backup), CF::String(kFolder));
    EXPECT_EQ(textOf(backup), "See you at nine?\n");
    EXPECT_EQ(OpenPath(zip, {SamplePassword(), kLocked, {}}).error.GetCode(),
              kKVErrorInvalidBackup);
}

TEST(BackupInAFolderOfAZip, ShowsWhatLiesInTheFolderAlone) {
    const MadeBackup made({}, kFolder);
    const Opened backup = OpenPath(zipOf(made), {SamplePassword(), kKVBackupOpenSearchFolder, {}});
    std::vector<std::string> names;
    const auto visit = [](const KVBackupSourceFile *file, void *context) -> Boolean {
        static_cast<std::vector<std::string> *>(context)->push_back(
            CF::String::GetUTF8(file->name));
        return true;
    };
    ASSERT_TRUE(KVBackupContainerListSourceFiles(backup.get(), visit, &names, nullptr));
    EXPECT_THAT(names, testing::IsSupersetOf({"Manifest.plist", "Manifest.db", "Status.plist"}));
    EXPECT_THAT(names, testing::Not(testing::Contains(testing::HasSubstr("__MACOSX"))));
    EXPECT_THAT(names, testing::Not(testing::Contains(".DS_Store")));
}

TEST(BackupInAFolderOfAZip, IsFoundByACopyToo) {
    const MadeBackup made({}, kFolder);
    const Opened backup = OpenPath(zipOf(made), {SamplePassword(), kKVBackupOpenSearchFolder, {}});
    Opened copy;
    copy.container = Container(CF::adopt, KVBackupContainerCreateCopy(nullptr, backup.get()));
    ASSERT_TRUE(copy.container);
    EXPECT_EQ(textOf(copy), "See you at nine?\n");
    EXPECT_EQ(folderOf(copy), CF::String(kFolder));
}

} // namespace
