// Which backups open, and with what errors the others do not.
#include "tests/container/BackupFixture.hpp"

#include "KVManifest.h"
#include "support/cf/Extensions.hpp"

#include <gmock/gmock.h>

#include <sys/stat.h>

namespace container_tests {
namespace {

class EverySample : public testing::TestWithParam<const char *> {};

TEST_P(EverySample, Opens) {
    const Opened backup = OpenSample(GetParam());
    ASSERT_TRUE(backup.container) << backup.error.GetFailureReason().GetUTF8();
    EXPECT_FALSE(backup.error);
    KVManifestClass *manifest = KVBackupContainerGetManifest(backup.get());
    EXPECT_EQ(CFArrayGetCount(KVManifestGetEntries(manifest)),
              static_cast<CFIndex>(Expectations(GetParam()).at("entries").size()));
}

INSTANTIATE_TEST_SUITE_P(Samples, EverySample, testing::Values(kEncrypted, kPlain, kBinary, kZip));

class EveryDatabaseVersion : public testing::TestWithParam<const char *> {};

TEST_P(EveryDatabaseVersion, OpensPlain) {
    const BackupCopy copy(kPlain);
    copy.SetVersion(GetParam());
    EXPECT_TRUE(OpenPath(copy.root()).container);
}

INSTANTIATE_TEST_SUITE_P(Versions, EveryDatabaseVersion,
                         testing::Values("3.0", "3.1", "3.2", "3.3"));

class UnknownVersion : public testing::TestWithParam<const char *> {};

TEST_P(UnknownVersion, IsRefused) {
    const BackupCopy copy(kPlain);
    copy.SetVersion(GetParam());
    const Opened backup = OpenPath(copy.root());
    EXPECT_TRUE(IsError(backup.error, kKVErrorUnknownManifestVersion,
                        std::string("Unsupported version '") + GetParam() + "' specified"));
}

INSTANTIATE_TEST_SUITE_P(Versions, UnknownVersion,
                         testing::Values("3.4", "3.3 ", " 3.3", "2.3", "24", "x"));

// What the C form calls back.
struct Calls {
    std::vector<std::uint64_t> derivation;
    std::uint64_t total = 0;
    int entries = 0;
    bool goOn = true;
};

Boolean noteDerivation(uint64_t done, uint64_t total, void *context) {
    auto &calls = *static_cast<Calls *>(context);
    calls.derivation.push_back(done);
    calls.total = total;
    return calls.goOn;
}

void noteEntry(int64_t, int64_t, double, void *context) {
    ++static_cast<Calls *>(context)->entries;
}

Opened openWatched(const std::string &sample, Calls &calls) {
    testing_support::LibraryTemporaryPath();
    const KVBackupOpenCallBacks callBacks = {&noteEntry, &noteDerivation, &calls};
    const CF::String password(sample == kEncrypted ? SamplePassword() : "");
    CFErrorRef error = nullptr;
    KVBackupContainerClass *container =
        KVBackupContainerOpen(nullptr, CF::String(SamplePath(sample)), password,
                              kKVBackupOpenKeepDeviceBoundKeysLocked, &callBacks, &error);
    return {Container(CF::adopt, container), CF::Error::Adopt(error)};
}

TEST(OpeningByPath, TakesDirectoriesAndZips) {
    for (const char *sample : {kPlain, kBinary, kZip}) {
        Calls calls;
        EXPECT_TRUE(openWatched(sample, calls).container) << sample;
        EXPECT_TRUE(calls.derivation.empty());
        EXPECT_EQ(calls.entries > 0, sample != kBinary) << sample;
    }
    const Container container(CF::adopt,
                              KVBackupContainerOpen(nullptr, CF::String(SamplePath(kZip)), nullptr,
                                                    kKVBackupOpenDefault, nullptr, nullptr));
    EXPECT_TRUE(container);
}

TEST(OpeningByPath, TellsHowFarTheDerivationIs) {
    Calls calls;
    EXPECT_TRUE(openWatched(kEncrypted, calls).container);
    ASSERT_FALSE(calls.derivation.empty());
    EXPECT_EQ(calls.derivation.front(), 0u);
    EXPECT_EQ(calls.derivation.back(), calls.total);
}

TEST(OpeningByPath, StopsWhenTheHostSaysSo) {
    Calls calls;
    calls.goOn = false;
    EXPECT_TRUE(IsError(openWatched(kEncrypted, calls).error, kKVErrorUnlockFailed,
                        "The derivation of keys was stopped"));
    EXPECT_EQ(calls.derivation.size(), 1u);
}

TEST(Opening, NeedsAVersion) {
    const BackupCopy copy(kPlain);
    copy.EditPlist("Status.plist",
                   [](const CF::Dictionary &status) { status.Remove(CFSTR("Version")); });
    EXPECT_TRUE(IsError(OpenPath(copy.root()).error, kKVErrorInvalidBackup,
                        "The manifest version is missing"));
    copy.SetVersion("");
    EXPECT_TRUE(IsError(OpenPath(copy.root()).error, kKVErrorInvalidBackup,
                        "The manifest version is missing"));
}

TEST(Opening, TakesAVersionThatIsNoStringForMissing) {
    const BackupCopy copy(kPlain);
    copy.EditPlist("Status.plist", [](const CF::Dictionary &status) {
        status.Set(CFSTR("Version"), CF::Number::FromDouble(3.2).get());
    });
    EXPECT_TRUE(IsError(OpenPath(copy.root()).error, kKVErrorInvalidBackup,
                        "The manifest version is missing"));
}

TEST(Opening, TellsWhyTheVersionIsMissing) {
    const BackupCopy copy(kPlain);
    copy.Write("Status.plist", "");
    const Opened backup = OpenPath(copy.root());
    EXPECT_TRUE(IsError(backup.error, kKVErrorInvalidBackup, "The manifest version is missing"));
    EXPECT_TRUE(IsError(backup.error.GetUnderlying(), kKVErrorInvalidMetadata,
                        "The file is empty (Status.plist)"));
}

TEST(OpeningEncrypted, TellsWhyItIsTakenForPlain) {
    const BackupCopy copy(kEncrypted);
    copy.Write("Manifest.plist", "");
    const OpenArguments arguments{SamplePassword(), kKVBackupOpenDefault, {}};
    const Opened backup = OpenPath(copy.root(), arguments);
    EXPECT_TRUE(IsError(backup.error, kKVErrorNotEncrypted, ""));
    EXPECT_TRUE(IsError(backup.error.GetUnderlying(), kKVErrorInvalidMetadata,
                        "The file is empty (Manifest.plist)"));
}

class RequiredFile : public testing::TestWithParam<const char *> {};

TEST_P(RequiredFile, IsMissedWithItsName) {
    const BackupCopy copy(kPlain);
    copy.Remove(GetParam());
    const Opened backup = OpenPath(copy.root());
    EXPECT_FALSE(backup.container);
    EXPECT_TRUE(IsError(backup.error, kKVErrorInvalidBackup,
                        std::string("Backup metadata file missing. Are you sure this is a valid "
                                    "backup? (") +
                            GetParam() + ")"));
    EXPECT_EQ(backup.error.GetUnderlying().GetCode(), kKVErrorFileNotFound);
}

INSTANTIATE_TEST_SUITE_P(Files, RequiredFile, testing::Values("Manifest.plist", "Status.plist"));

TEST(Opening, DoesWithoutInfo) {
    const BackupCopy copy(kPlain);
    copy.Remove("Info.plist");
    const Opened backup = OpenPath(copy.root());
    ASSERT_TRUE(backup.container);
    const auto info = CF::Dictionary::Adopt(KVBackupContainerCopyInfoDict(backup.get()));
    ASSERT_TRUE(info);
    EXPECT_EQ(info.GetCount(), 0);
    info.Set(CFSTR("key"), CFSTR("it is mutable"));
    EXPECT_EQ(info.GetCount(), 1);
}

TEST(Opening, TakesInfoThatIsNoPropertyListForEmpty) {
    const BackupCopy copy(kPlain);
    copy.Write("Info.plist", "no property list");
    const Opened backup = OpenPath(copy.root());
    ASSERT_TRUE(backup.container);
    EXPECT_EQ(CF::Dictionary::Adopt(KVBackupContainerCopyInfoDict(backup.get())).GetCount(), 0);
}

TEST(Opening, TakesAnEmptyInfoForEmpty) {
    const BackupCopy copy(kPlain);
    copy.Write("Info.plist", "");
    EXPECT_TRUE(OpenPath(copy.root()).container);
}

TEST(Opening, RefusesMetadataOfMoreThan64MiB) {
    const BackupCopy copy(kPlain);
    fs::resize_file(copy.file("Info.plist"), (64u << 20) + 1);
    for (const std::string &path : {copy.root(), copy.Zip()}) {
        const Opened backup = OpenPath(path);
        EXPECT_TRUE(IsError(backup.error, kKVErrorInvalidBackup,
                            "Failed to load backup metadata file (Info.plist)"));
        EXPECT_TRUE(IsError(backup.error.GetUnderlying(), kKVErrorLoadRepresentation,
                            "The file is too large to be read into memory (67108865 bytes)"));
    }
}

TEST(Opening, DoesNotWaitForAFIFOInPlaceOfAMetadataFile) {
    const BackupCopy copy(kPlain);
    copy.Remove("Info.plist");
    ASSERT_EQ(mkfifo(copy.file("Info.plist").c_str(), 0600), 0);
    const Opened backup = OpenPath(copy.root());
    EXPECT_TRUE(IsError(backup.error, kKVErrorInvalidBackup,
                        "Failed to load backup metadata file (Info.plist)"));
    EXPECT_EQ(backup.error.GetUnderlying().GetCode(), kKVErrorUnknown);
}

TEST(Opening, RefusesADirectoryInPlaceOfAMetadataFile) {
    const BackupCopy copy(kPlain);
    copy.Remove("Manifest.plist");
    fs::create_directory(copy.file("Manifest.plist"));
    EXPECT_TRUE(IsError(OpenPath(copy.root()).error, kKVErrorInvalidBackup,
                        "Failed to load backup metadata file (Manifest.plist)"));
}

TEST(Opening, FailsOnAnEmptyDirectory) {
    const testing_support::TemporaryDirectory directory;
    EXPECT_TRUE(IsError(OpenPath(directory.path().string()).error, kKVErrorInvalidBackup,
                        "Backup metadata file missing. Are you sure this is a valid backup? "
                        "(Manifest.plist)"));
}

TEST(Opening, RefusesUnknownOptions) {
    OpenArguments arguments;
    arguments.options = 0x80000001;
    EXPECT_TRUE(IsError(OpenPath(SamplePath(kPlain), arguments).error, kKVErrorInvalidArgument,
                        "Unknown open options 0x80000000"));
}

TEST(Opening, FailsSilentlyWithoutAnErrorPointer) {
    testing_support::LibraryTemporaryPath();
    EXPECT_EQ(KVBackupContainerCreateFromDirectory(nullptr, CFSTR("/nowhere"), {}, nullptr),
              nullptr);
}

// ---- Passwords -------------------------------------------------------------

TEST(OpeningEncrypted, NeedsAPassword) {
    for (const char *password : {"", static_cast<const char *>(nullptr)}) {
        CFErrorRef raised = nullptr;
        testing_support::LibraryTemporaryPath();
        EXPECT_EQ(KVBackupContainerCreateFromDirectory(
                      nullptr, CF::String(SamplePath(kEncrypted)),
                      password == nullptr ? CF::String() : CF::String(password), {}, &raised),
                  nullptr);
        const auto error = CF::Error::Adopt(raised);
        EXPECT_TRUE(IsError(error, kKVErrorPasswordRequired, ""));
        const auto info = CF::Dictionary::Adopt(CFErrorCopyUserInfo(error.get()));
        EXPECT_EQ(info.GetValue(kCFErrorIsFriendlyKey), kCFBooleanTrue);
    }
}

TEST(OpeningEncrypted, TellsAWrongPasswordBeneathTheClassThatFailed) {
    OpenArguments arguments;
    arguments.password = "wrong";
    arguments.options = kKVBackupOpenKeepDeviceBoundKeysLocked;
    const Opened backup = OpenPath(SamplePath(kEncrypted), arguments);
    EXPECT_FALSE(backup.container);
    EXPECT_EQ(backup.error.GetCode(), kKVErrorUnlockFailed);
    EXPECT_EQ(backup.error.GetFailureReason().GetUTF8().rfind("Failed to unlock a key (class ", 0),
              0u);
    EXPECT_EQ(backup.error.GetUnderlying().GetCode(), kKVErrorIncorrectPassword);
}

TEST(OpeningEncrypted, FailsOnDeviceBoundKeysByDefault) {
    OpenArguments arguments;
    arguments.password = SamplePassword();
    const Opened backup = OpenPath(SamplePath(kEncrypted), arguments);
    EXPECT_FALSE(backup.container);
    EXPECT_EQ(backup.error.GetCode(), kKVErrorUnlockFailed);
    EXPECT_THAT(backup.error.GetFailureReason().GetUTF8(),
                testing::MatchesRegex("Failed to unlock a key \\(class (5|9|10|11)\\).*"));
}

TEST(OpeningEncrypted, LeavesDeviceBoundKeysLockedWhenAsked) {
    const Opened backup = OpenSample(kEncrypted);
    ASSERT_TRUE(backup.container);
    EXPECT_TRUE(KVBackupContainerIsEncrypted(backup.get()));
}

TEST(OpeningEncrypted, IsUnsupportedForOldVersionsAfterThePasswordWasTested) {
    const BackupCopy copy(kEncrypted);
    copy.SetVersion("3.1");
    OpenArguments arguments{SamplePassword(), kKVBackupOpenKeepDeviceBoundKeysLocked, {}};
    EXPECT_TRUE(IsError(OpenPath(copy.root(), arguments).error, kKVErrorEncryptionUnsupported,
                        "Encrypted backups are not supported for manifest version '3.1'"));
    arguments.password = "wrong";
    EXPECT_EQ(OpenPath(copy.root(), arguments).error.GetCode(), kKVErrorUnlockFailed);
}

TEST(OpeningEncrypted, IsUnsupportedForBinaryManifests) {
    const BackupCopy copy(kEncrypted);
    copy.SetVersion("2.4");
    const OpenArguments arguments{SamplePassword(), kKVBackupOpenKeepDeviceBoundKeysLocked, {}};
    EXPECT_TRUE(IsError(OpenPath(copy.root(), arguments).error, kKVErrorEncryptionUnsupported,
                        "Encrypted backups are not supported for manifest version '2.4'"));
}

TEST(OpeningPlain, RefusesAPassword) {
    OpenArguments arguments;
    arguments.password = "x";
    EXPECT_TRUE(IsError(OpenPath(SamplePath(kPlain), arguments).error, kKVErrorNotEncrypted, ""));
}

TEST(OpeningPlain, TakesTheEmptyPasswordForNone) {
    EXPECT_TRUE(OpenPath(SamplePath(kPlain), OpenArguments{}).container);
}

TEST(OpeningPlain, IsWhatABackupWithoutTheFlagIs) {
    const BackupCopy copy(kPlain);
    copy.EditPlist("Manifest.plist",
                   [](const CF::Dictionary &manifest) { manifest.Remove(CFSTR("IsEncrypted")); });
    const Opened backup = OpenPath(copy.root());
    ASSERT_TRUE(backup.container);
    EXPECT_FALSE(KVBackupContainerIsEncrypted(backup.get()));
}

TEST(OpeningEncrypted, NeedsTheManifestKey) {
    const BackupCopy copy(kEncrypted);
    copy.EditPlist("Manifest.plist",
                   [](const CF::Dictionary &manifest) { manifest.Remove(CFSTR("ManifestKey")); });
    const OpenArguments arguments{SamplePassword(), kKVBackupOpenKeepDeviceBoundKeysLocked, {}};
    EXPECT_TRUE(IsError(OpenPath(copy.root(), arguments).error, kKVErrorInvalidMetadata,
                        "ManifestKey is missing"));
}

// ---- Manifests ---------------------------------------------------------------

TEST(OpeningManifest, ReportsProgressOncePerRow) {
    std::vector<std::array<double, 3>> reports;
    OpenArguments arguments;
    arguments.progress = [&](std::int64_t done, std::int64_t total, double fraction) {
        reports.push_back({static_cast<double>(done), static_cast<double>(total), fraction});
    };
    ASSERT_TRUE(OpenPath(SamplePath(kPlain), arguments).container);
    ASSERT_GE(reports.size(), Expectations(kPlain).at("entries").size());
    const auto &last = reports.back();
    EXPECT_EQ(last[2], last[0] / last[1]);
}

TEST(OpeningManifest, RefusesADamagedDatabase) {
    const BackupCopy copy(kPlain);
    copy.Write("Manifest.db", std::string(8192, 'x'));
    const Opened backup = OpenPath(copy.root());
    EXPECT_TRUE(IsError(backup.error, kKVErrorInvalidManifestDatabase,
                        "Failed to parse records from manifest database"));
    EXPECT_EQ(backup.error.GetUnderlying().GetCode(), kKVErrorDatabase);
}

TEST(OpeningManifest, RefusesADatabaseWithOneBadRow) {
    const BackupCopy copy(kPlain);
    copy.EditDatabase("UPDATE Files SET file = x'00' WHERE rowid = 3");
    EXPECT_TRUE(IsError(OpenPath(copy.root()).error, kKVErrorInvalidManifestDatabase,
                        "Database contains 1 invalid entries"));
}

TEST(OpeningManifest, ReportsAMissingDatabaseAsAMissingFile) {
    const BackupCopy copy(kPlain);
    copy.Remove("Manifest.db");
    EXPECT_EQ(OpenPath(copy.root()).error.GetCode(), kKVErrorFileNotFound);
}

TEST(OpeningManifest, RefusesABinaryManifestThatIsCutShort) {
    const BackupCopy copy(kBinary);
    fs::resize_file(copy.file("Manifest.mbdb"), fs::file_size(copy.file("Manifest.mbdb")) - 1);
    const Opened backup = OpenPath(copy.root());
    EXPECT_TRUE(IsError(backup.error, kKVErrorLoadRepresentation,
                        "An error ocurred while loading manifest file"));
    EXPECT_TRUE(IsError(backup.error.GetUnderlying(), kKVErrorInvalidBackup,
                        "The backup manifest could not be loaded because it is corrupted."));
}

TEST(OpeningManifest, WrapsAMissingBinaryManifest) {
    const BackupCopy copy(kBinary);
    copy.Remove("Manifest.mbdb");
    const Opened backup = OpenPath(copy.root());
    EXPECT_TRUE(IsError(backup.error, kKVErrorLoadRepresentation,
                        "An error ocurred while loading manifest file"));
    EXPECT_EQ(backup.error.GetUnderlying().GetCode(), kKVErrorFileNotFound);
}

TEST(OpeningManifest, OfAnEncryptedBackupFailsWhenItDoesNotDecrypt) {
    const BackupCopy copy(kEncrypted);
    fs::resize_file(copy.file("Manifest.db"), fs::file_size(copy.file("Manifest.db")) - 1);
    const OpenArguments arguments{SamplePassword(), kKVBackupOpenKeepDeviceBoundKeysLocked, {}};
    EXPECT_EQ(OpenPath(copy.root(), arguments).error.GetCode(), kKVErrorCrypto);
}

void expectPrivate(const fs::path &directory) {
    for (const auto &item : fs::recursive_directory_iterator(directory)) {
        struct stat status;
        ASSERT_EQ(lstat(item.path().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777u, S_ISDIR(status.st_mode) ? 0700u : 0600u) << item.path();
    }
}

TEST(Opening, LeavesOnlyPrivateFilesUnderTheTemporaryPath) {
    const mode_t before = umask(0);
    const Opened encrypted = OpenSample(kEncrypted);
    const Opened zipped = OpenSample(kZip);
    const Opened binary = OpenSample(kBinary);
    umask(before);
    ASSERT_TRUE(encrypted.container && zipped.container && binary.container);
    expectPrivate(testing_support::LibraryTemporaryPath());
}

TEST(Opening, DoesNotTouchTheBackup) {
    const BackupCopy copy(kPlain);
    const auto before = testing_support::ReadFile(copy.file("Manifest.db"));
    ASSERT_TRUE(OpenPath(copy.root()).container);
    EXPECT_EQ(testing_support::ReadFile(copy.file("Manifest.db")), before);
    EXPECT_FALSE(fs::exists(copy.file("Manifest.db-wal")));
    EXPECT_FALSE(fs::exists(copy.file("Manifest.db-shm")));
}

} // namespace
} // namespace container_tests
