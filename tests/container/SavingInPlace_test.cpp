// KVBackupContainerSaveInPlace as hosts call it; the tool's tests interrupt it at every operation.
#include "KVBackupWriting.h"
#include "tests/container/ExportFixture.hpp"

#include <sys/stat.h>

namespace container_tests {
namespace {

class SavingInPlace : public testing::TestWithParam<const char *> {
  protected:
    SavingInPlace() : copy_(GetParam()) { report_.size = sizeof report_; }

    Editable open() const {
        return Editable(
            OpenPath(copy_.root(), {GetParam() == std::string(kEncrypted) ? SamplePassword() : "",
                                    kKVBackupOpenKeepDeviceBoundKeysLocked,
                                    {}}));
    }
    CF::Error save(const Editable &backup) {
        CFErrorRef error = nullptr;
        const bool saved = KVBackupContainerSaveInPlace(backup.get(), &report_, &error) != 0;
        EXPECT_EQ(saved, error == nullptr);
        return CF::Error::Adopt(error);
    }

    const BackupCopy copy_;
    KVBackupSaveReport report_{};
};

INSTANTIATE_TEST_SUITE_P(Samples, SavingInPlace, testing::Values(kPlain, kEncrypted, kBinary),
                         [](const auto &sample) {
                             return sample.param == kPlain       ? "Plain"
                                    : sample.param == kEncrypted ? "Encrypted"
                                                                 : "Binary";
                         });

TEST_P(SavingInPlace, KeepsWhatWasStored) {
    const Editable backup = open();
    ASSERT_FALSE(backup.Store("HomeDomain", "Library/new", "content"));
    EXPECT_FALSE(save(backup));
    EXPECT_EQ(report_.filesWritten, 2); // the manifest too
    EXPECT_GT(report_.bytesWritten, 7);
    EXPECT_FALSE(report_.needsRecovery);
    EXPECT_EQ(open().Content("HomeDomain", "Library/new"), "content");
}

TEST_P(SavingInPlace, KeepsTheContentOfEntriesOfAnotherBackup) {
    const Editable other = Editable::Sample(kPlain);
    const nlohmann::json known = FindExpected(kPlain, [](const nlohmann::json &candidate) {
        return candidate.at("type") == "file" && candidate.at("size") > 0;
    });
    const std::string path = known.at("path");
    const Editable backup = open();
    backup.Remove(known.at("domain"), path);
    CFErrorRef error = nullptr;
    ASSERT_NE(
        KVBackupContainerAddEntry(backup.get(), other.Entry(known.at("domain"), path), &error),
        nullptr);
    EXPECT_FALSE(save(backup));
    const CopiedFile copied = CopyFileForPath(open().opened(), known.at("domain"), path);
    ASSERT_TRUE(copied.file);
    EXPECT_EQ(SHA256(ReadContent(copied.file.get())), known.at("sha256"));
}

TEST_P(SavingInPlace, WithoutAChangeWritesNothing) {
    const auto before = ReadTree(copy_.root());
    EXPECT_FALSE(save(open()));
    EXPECT_EQ(report_.filesWritten, 0);
    EXPECT_EQ(ReadTree(copy_.root()), before);
}

TEST_P(SavingInPlace, WritesMetadataThatWasSet) {
    const Editable backup = open();
    const auto info = CF::Dictionary::Adopt(KVBackupContainerCopyInfoDict(backup.get()));
    info.Set(CFSTR("Device Name"), CFSTR("renamed"));
    KVBackupContainerSetDictionaries(backup.get(), info.get(), nullptr, nullptr);
    EXPECT_FALSE(save(backup));
    EXPECT_EQ(report_.filesWritten, 1);
    const auto again = CF::Dictionary::Adopt(KVBackupContainerCopyInfoDict(open().get()));
    EXPECT_EQ(again.Get<CF::String>(CFSTR("Device Name")).GetUTF8(), "renamed");
}

TEST_P(SavingInPlace, HappensOnce) {
    const Editable backup = open();
    ASSERT_FALSE(backup.Store("HomeDomain", "Library/new", "content"));
    EXPECT_FALSE(save(backup));
    EXPECT_TRUE(IsError(save(backup), kKVErrorInvalidArgument,
                        "The backup was saved already; open it again"));
}

TEST_P(SavingInPlace, RefusesABackupThatWasChangedSince) {
    const Editable first = open();
    const Editable second = open();
    ASSERT_FALSE(first.Store("HomeDomain", "Library/one", "1"));
    ASSERT_FALSE(second.Store("HomeDomain", "Library/two", "2"));
    EXPECT_FALSE(save(first));
    const auto after = ReadTree(copy_.root());
    EXPECT_TRUE(IsError(save(second), kKVErrorInvalidBackup,
                        std::string("The backup was changed since it was opened (") +
                            (GetParam() == std::string(kBinary) ? "Manifest.mbdb" : "Manifest.db") +
                            ")"));
    EXPECT_EQ(ReadTree(copy_.root()), after);
}

TEST_P(SavingInPlace, RefusesAReportOfAnotherSize) {
    report_.size = 1;
    EXPECT_TRUE(IsError(save(open()), kKVErrorInvalidArgument, "Unknown write options"));
}

TEST(SavingInPlace, IsForDirectoriesAlone) {
    const BackupCopy copy(kPlain);
    for (const Opened &backup : {OpenPath(copy.Zip()), Editable::Empty().opened()}) {
        CFErrorRef error = nullptr;
        EXPECT_FALSE(KVBackupContainerSaveInPlace(backup.get(), nullptr, &error));
        EXPECT_TRUE(IsError(CF::Error::Adopt(error), kKVErrorInvalidArgument,
                            "Only a backup that was opened from a directory can be changed in "
                            "place"));
    }
}

TEST(Recovering, TellsWhetherThereIsAnythingToDo) {
    const BackupCopy copy(kPlain);
    const CF::String root(copy.root());
    EXPECT_FALSE(KVBackupNeedsRecovery(root.get()));
    copy.Write(".kelvane-journal/new-0", "content");
    EXPECT_TRUE(KVBackupNeedsRecovery(root.get()));
    KVBackupRecovery outcome = kKVBackupRecoveryNone;
    EXPECT_TRUE(KVBackupRecover(root.get(), &outcome, nullptr));
    EXPECT_EQ(outcome, kKVBackupRecoveryTakenBack);
    EXPECT_TRUE(KVBackupRecover(root.get(), &outcome, nullptr));
    EXPECT_EQ(outcome, kKVBackupRecoveryNone);
    EXPECT_FALSE(KVBackupNeedsRecovery(CFSTR("/nonexistent")));
}

} // namespace
} // namespace container_tests
