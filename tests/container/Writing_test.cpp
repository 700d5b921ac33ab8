// KVBackupContainerWrite: what its options and reports say. What it writes, the tool's tests hold
// to an independent reader.
#include "KVBackupWriting.h"
#include "tests/container/ExportFixture.hpp"

namespace container_tests {
namespace {

class Writing : public testing::Test {
  protected:
    Writing() { options_.size = sizeof options_; }

    Exported write(KVBackupContainerClass *container) {
        Exported result;
        KVBackupWriteReport report{};
        report.size = sizeof report;
        const ErrorLog log;
        result.finished =
            KVBackupContainerWrite(container, CF::String(target_), &options_, &report) != 0;
        EXPECT_EQ(report.size, sizeof report);
        result.logged = log.Errors();
        result.reported = TakeChains(report.errors);
        result.notes = TakeChains(report.notes);
        result.metadataWritten = report.metadataWritten != 0;
        result.filesWritten = report.filesWritten;
        unlisted_ = report.unlistedFiles;
        return result;
    }
    void expectRefused() {
        const Exported result = write(OpenSample(kPlain).get());
        EXPECT_FALSE(result.finished);
        EXPECT_EQ(result.reported, Texts{"2 Unknown write options"});
        EXPECT_FALSE(fs::exists(target_));
    }

    const testing_support::TemporaryDirectory directory_;
    // Zip programs look for that ending.
    const std::string target_ = (directory_ / "out.zip").string();
    KVBackupWriteOptions options_{};
    std::int64_t unlisted_ = -1;
};

TEST_F(Writing, WithoutAChangeGivesBackWhatWasRead) {
    for (const char *sample : {kPlain, kEncrypted, kBinary}) {
        const BackupCopy copy(sample);
        const Opened backup =
            OpenPath(copy.root(), {sample == std::string(kEncrypted) ? SamplePassword() : "",
                                   kKVBackupOpenKeepDeviceBoundKeysLocked,
                                   {}});
        ASSERT_TRUE(backup.container) << sample;
        const Exported result = write(backup.get());
        EXPECT_TRUE(result.finished);
        EXPECT_EQ(result.reported, Texts{});
        EXPECT_EQ(ReadTree(target_), ReadTree(copy.root())) << sample;
        EXPECT_EQ(unlisted_, 0);
        fs::remove_all(target_);
    }
}

TEST_F(Writing, WithoutOptionsIsToADirectory) {
    EXPECT_TRUE(
        KVBackupContainerWrite(OpenSample(kPlain).get(), CF::String(target_), nullptr, nullptr));
    EXPECT_TRUE(fs::is_directory(target_));
}

TEST_F(Writing, ToAZipIsWhatOthersRead) {
    options_.target = kKVBackupTargetZip;
    const BackupCopy copy(kPlain);
    EXPECT_EQ(write(OpenPath(copy.root()).get()).reported, Texts{});
    ExpectSoundArchive(target_);
    const testing_support::TemporaryDirectory unpacked;
    ASSERT_EQ(testing_support::RunCommand({"unzip", "-qq", target_, "-d", unpacked.path().string()})
                  .status,
              0);
    EXPECT_EQ(ReadTree(unpacked.path().string()), ReadTree(copy.root()));
}

TEST_F(Writing, OfCiphertextIntoAZipIsStored) {
    options_.target = kKVBackupTargetZip;
    EXPECT_EQ(write(OpenSample(kEncrypted).get()).reported, Texts{});
    const Texts methods = ReadRecords(
        target_, "info.compress_type if '/' in info.filename or info.filename == 'Manifest.db' "
                 "else 'metadata'");
    EXPECT_TRUE(std::ranges::all_of(
        methods, [](const std::string &method) { return method == "0" || method == "metadata"; }));
    EXPECT_EQ(std::ranges::count(methods, "metadata"), 3);
}

TEST_F(Writing, InTheLegacyFormIsThatOfTheOlderFunction) {
    options_.form = kKVBackupFormLegacy;
    const Opened backup = OpenSample(kPlain);
    EXPECT_EQ(write(backup.get()).reported, Texts{});
    const std::string older = (directory_ / "older").string();
    EXPECT_TRUE(RunExport(KVBackupContainerExportToDirectoryWithReport, backup.get(), older)
                    .metadataWritten);
    EXPECT_EQ(ReadTree(target_), ReadTree(older));
}

TEST_F(Writing, KeepsTheFormatOfMetadataThatWasSet) {
    const BackupCopy copy(kPlain);
    const Opened backup = OpenPath(copy.root());
    for (const char *name : {"Manifest.plist", "Status.plist", "Info.plist"}) {
        ASSERT_FALSE(testing_support::ReadFile(copy.file(name)).empty());
    }
    const auto manifest = CF::Dictionary::Adopt(KVBackupContainerCopyManifestDict(backup.get()));
    manifest.Set(CFSTR("Added"), CFSTR("by the host"));
    const auto info = CF::Dictionary::Adopt(KVBackupContainerCopyInfoDict(backup.get()));
    info.Set(CFSTR("Added"), CFSTR("by the host"));
    KVBackupContainerSetDictionaries(backup.get(), info.get(), nullptr, manifest.get());
    EXPECT_EQ(write(backup.get()).reported, Texts{});
    const auto before = ReadTree(copy.root());
    const auto after = ReadTree(target_);
    for (const char *name : {"Manifest.plist", "Info.plist"}) {
        EXPECT_EQ(after.at(name).substr(0, 6), before.at(name).substr(0, 6)) << name;
        EXPECT_NE(after.at(name).find("by the host"), std::string::npos) << name;
    }
    EXPECT_EQ(after.at("Status.plist"), before.at("Status.plist"));
}

TEST_F(Writing, OfANewContainerIsInTheFormatsOfDevices) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion33);
    EXPECT_FALSE(container.Store("HomeDomain", "Library/file", "content"));
    const auto status = CF::Dictionary::Mutable();
    status.Set(CFSTR("Version"), CFSTR("3.3"));
    KVBackupContainerSetDictionaries(container.get(), nullptr, status.get(), nullptr);
    EXPECT_EQ(write(container.get()).reported, Texts{});
    const auto written = ReadTree(target_);
    EXPECT_TRUE(written.at("Manifest.plist").starts_with("bplist00"));
    EXPECT_TRUE(written.at("Status.plist").starts_with("bplist00"));
    EXPECT_TRUE(written.at("Info.plist").starts_with("<?xml"));
    EXPECT_EQ(Editable(OpenPath(target_)).Content("HomeDomain", "Library/file"), "content");
}

TEST_F(Writing, CountsWhatNobodyNames) {
    const BackupCopy copy(kPlain);
    copy.Write("unnamed", "content");
    copy.Write("Manifest.db-journal", "");
    EXPECT_EQ(write(OpenPath(copy.root()).get()).reported, Texts{});
    EXPECT_EQ(unlisted_, 1);
    EXPECT_FALSE(fs::exists(target_ + "/unnamed"));
}

TEST_F(Writing, TakesAlongWhatNobodyNamesOnRequest) {
    options_.flags = kKVBackupWriteKeepUnlisted;
    const BackupCopy copy(kPlain);
    copy.Write("unnamed", "content");
    EXPECT_EQ(write(OpenPath(copy.root()).get()).reported, Texts{});
    EXPECT_EQ(unlisted_, 1);
    EXPECT_EQ(ReadTree(target_), ReadTree(copy.root()));
}

TEST_F(Writing, ReportsProgress) {
    std::vector<double> fractions;
    options_.context = &fractions;
    options_.progress = [](double fraction, void *context) {
        static_cast<std::vector<double> *>(context)->push_back(fraction);
    };
    write(OpenSample(kPlain).get());
    ASSERT_GT(fractions.size(), 2u);
    EXPECT_EQ(fractions.front(), 0.0);
    EXPECT_TRUE(std::ranges::is_sorted(fractions));
}

TEST_F(Writing, RefusesUnknownTargets) {
    options_.target = 2;
    expectRefused();
}

TEST_F(Writing, RefusesUnknownForms) {
    options_.form = 2;
    expectRefused();
}

TEST_F(Writing, RefusesUnknownFlags) {
    options_.flags = 1u << 31;
    expectRefused();
}

TEST_F(Writing, RefusesOptionsOfAnotherSize) {
    options_.size = 3;
    expectRefused();
}

TEST_F(Writing, RefusesToDecryptInTheLegacyForm) {
    options_.form = kKVBackupFormLegacy;
    options_.flags = kKVBackupWriteDecrypted;
    expectRefused();
}

TEST_F(Writing, WritesIntoNoReportOfAnotherSize) {
    KVBackupWriteReport report{};
    report.size = sizeof report - 1;
    report.filesWritten = 77;
    EXPECT_FALSE(
        KVBackupContainerWrite(OpenSample(kPlain).get(), CF::String(target_), nullptr, &report));
    EXPECT_EQ(report.filesWritten, 77);
    EXPECT_FALSE(fs::exists(target_));
}

} // namespace
} // namespace container_tests
