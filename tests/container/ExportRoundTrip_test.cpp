// What is written out opens again, whole.
#include "tests/container/ExportFixture.hpp"

namespace container_tests {
namespace {

struct Case {
    const char *sample;
    const char *name;
};

class RoundTrip : public testing::TestWithParam<Case> {
  protected:
    std::string sample() const { return GetParam().sample; }
    // Opens with the sample's password, as far as it has one.
    Opened reopen(const std::string &path) const {
        OpenArguments arguments;
        if (sample() == kEncrypted) {
            arguments.password = SamplePassword();
            arguments.options = kKVBackupOpenKeepDeviceBoundKeysLocked;
        }
        return OpenPath(path, arguments);
    }
    void expectComplete(const Exported &result) const {
        EXPECT_TRUE(result.finished);
        EXPECT_EQ(result.logged, Texts{});
        EXPECT_EQ(result.reported, Texts{});
        EXPECT_TRUE(result.metadataWritten);
    }
    // Every entry is there, every file with its content.
    void expectWhole(const std::string &path) const {
        const Opened backup = reopen(path);
        ASSERT_TRUE(backup.container) << Chain(backup.error);
        const nlohmann::json expectations = Expectations(sample());
        for (const auto &entry : expectations.at("entries")) {
            const auto *const found = KVBackupContainerGetEntryForPath(
                backup.get(), CF::String(entry.at("domain").get<std::string>()),
                CF::String(entry.at("path").get<std::string>()));
            ASSERT_NE(found, nullptr) << entry;
            EXPECT_EQ(KVManifestEntryGetFileMode(found), entry.at("mode"));
            if (entry.at("type") == "file") {
                const CopiedFile copied =
                    CopyFileForPath(backup, entry.at("domain"), entry.at("path"));
                ASSERT_TRUE(copied.file) << entry << Chain(copied.error);
                EXPECT_EQ(SHA256(ReadContent(copied.file.get())), entry.at("sha256"));
            }
        }
        EXPECT_EQ(
            CF::Array(KVManifestGetEntries(KVBackupContainerGetManifest(backup.get()))).GetCount(),
            static_cast<CFIndex>(expectations.at("entries").size()));
    }

    const testing_support::TemporaryDirectory directory_;
    const std::string target_ = (directory_ / "out").string();
};

TEST_P(RoundTrip, ThroughADirectory) {
    expectComplete(RunExport(KVBackupContainerExportToDirectoryWithReport,
                             OpenSample(sample()).get(), target_));
    expectWhole(target_);
}

TEST_P(RoundTrip, ThroughAZip) {
    const std::string zip = target_ + ".zip"; // the zip tool takes no other names
    expectComplete(
        RunExport(KVBackupContainerExportToZipWithReport, OpenSample(sample()).get(), zip));
    ExpectSoundArchive(zip);
    expectWhole(zip);
}

TEST_P(RoundTrip, ThroughAZipHoldsWhatADirectoryDoes) {
    RunExport(KVBackupContainerExportToDirectory, OpenSample(sample()).get(), target_);
    const std::string zip = (directory_ / "out.zip").string();
    RunExport(KVBackupContainerExportToZip, OpenSample(sample()).get(), zip);
    const std::string unpacked = (directory_ / "unpacked").string();
    const auto unzip = testing_support::RunCommand({"unzip", "-q", zip, "-d", unpacked});
    EXPECT_EQ(unzip.status, 0) << unzip.errors;
    EXPECT_EQ(ReadTree(unpacked), ReadTree(target_));
}

TEST_P(RoundTrip, ThroughAZipTwiceGivesTheSameBytesButForTimes) {
    const auto content = [](const std::string &path) {
        // The order follows the manifest's, and a database is written sorted.
        Texts records = ReadRecords(path, "info.filename, hashlib.sha256(content).hexdigest()");
        std::sort(records.begin(), records.end());
        return records;
    };
    RunExport(KVBackupContainerExportToZip, OpenSample(sample()).get(), target_);
    const std::string again = (directory_ / "again").string();
    RunExport(KVBackupContainerExportToZip, reopen(target_).get(), again);
    EXPECT_EQ(content(again), content(target_));
}

TEST_P(RoundTrip, KeepsStoredFilesByteForByte) {
    if (fs::is_regular_file(SamplePath(sample()))) {
        const auto result = testing_support::RunCommand(
            {"unzip", "-q", SamplePath(sample()), "-d", (directory_ / "source").string()});
        ASSERT_EQ(result.status, 0) << result.errors;
    } else {
        fs::create_directory_symlink(SamplePath(sample()), directory_ / "source");
    }
    RunExport(KVBackupContainerExportToDirectory, OpenSample(sample()).get(), target_);
    auto expected = ReadTree((directory_ / "source").string() + "/.");
    auto written = ReadTree(target_ + "/.");
    for (const char *name :
         {"Manifest.db", "Manifest.mbdb", "Manifest.plist", "Info.plist", "Status.plist"}) {
        EXPECT_EQ(expected.erase(name), written.erase(name)) << name;
    }
    EXPECT_GT(expected.size(), 20u);
    EXPECT_EQ(written, expected);
}

TEST_P(RoundTrip, TwiceGivesTheSameBytes) {
    RunExport(KVBackupContainerExportToDirectory, OpenSample(sample()).get(), target_);
    const std::string again = (directory_ / "again").string();
    RunExport(KVBackupContainerExportToDirectory, reopen(target_).get(), again);
    EXPECT_EQ(ReadTree(again), ReadTree(target_));
}

TEST_P(RoundTrip, LooksTheSameWithAndWithoutAReport) {
    RunExport(KVBackupContainerExportToDirectory, OpenSample(sample()).get(), target_);
    const std::string again = (directory_ / "again").string();
    RunExport(KVBackupContainerExportToDirectoryWithReport, OpenSample(sample()).get(), again);
    EXPECT_EQ(ReadTree(again), ReadTree(target_));
}

INSTANTIATE_TEST_SUITE_P(Samples, RoundTrip,
                         testing::Values(Case{kEncrypted, "Encrypted"}, Case{kPlain, "Plain"},
                                         Case{kBinary, "Binary"}, Case{kZip, "Zip"}),
                         [](const auto &parameter) { return std::string(parameter.param.name); });

class EditedExport : public testing::TestWithParam<bool> {
  protected:
    static Editable encrypted() { return Editable::Sample(kEncrypted); }
    // Written out and opened again.
    Editable reopened(const Editable &container) const {
        const Exported result = RunExport(GetParam() ? KVBackupContainerExportToZipWithReport
                                                     : KVBackupContainerExportToDirectoryWithReport,
                                          container.get(), target_);
        EXPECT_EQ(result.reported, Texts{});
        EXPECT_TRUE(result.metadataWritten);
        return Editable(
            OpenPath(target_, {SamplePassword(), kKVBackupOpenKeepDeviceBoundKeysLocked, {}}));
    }
    // The bytes that lie in the backup.
    static std::string stored(const Editable &container, const std::string &path) {
        const auto *const entry = container.Entry("HomeDomain", path);
        EXPECT_NE(entry, nullptr);
        const CopiedFile file = CopyFileForName(
            container.opened(), CF::String::GetUTF8(KVManifestEntryGetFileID(entry)));
        EXPECT_TRUE(file.file);
        return Editable::Text(file.file);
    }

    const testing_support::TemporaryDirectory directory_;
    const std::string target_ = (directory_ / "out").string();
};

TEST_P(EditedExport, EncryptsWhatCameFromOutside) {
    const Editable container = encrypted();
    const std::string large(100000, 'k');
    EXPECT_FALSE(container.Store("HomeDomain", "new/small", "plain text"));
    EXPECT_FALSE(container.Store("HomeDomain", "new/large", large));
    const Editable again = reopened(container);
    EXPECT_EQ(again.Content("HomeDomain", "new/small"), "plain text");
    EXPECT_EQ(again.Content("HomeDomain", "new/large"), large);
    EXPECT_EQ(stored(again, "new/small").size(), 16u);
    EXPECT_EQ(stored(again, "new/large").find("kkkk"), std::string::npos);
}

TEST_P(EditedExport, KeepsAnEmptyFileFromOutsideEmpty) {
    const Editable container = encrypted();
    EXPECT_FALSE(container.Store("HomeDomain", "empty", ""));
    const Editable again = reopened(container);
    EXPECT_EQ(again.Content("HomeDomain", "empty"), "");
    EXPECT_EQ(stored(again, "empty"), "");
}

TEST_P(EditedExport, HoldsEditsAndNothingThatWasRemoved) {
    const Editable container = encrypted();
    const auto file = FindFileOfClass(kEncrypted, 3);
    const std::string domain = file.at("domain");
    EXPECT_TRUE(container.Remove(domain, file.at("path")));
    EXPECT_NE(container.MakeDirectory("HomeDomain", "made"), nullptr);
    EXPECT_NE(container.Link("HomeDomain", "linked", "elsewhere"), nullptr);
    const Editable again = reopened(container);
    EXPECT_EQ(again.Entry(domain, file.at("path")), nullptr);
    EXPECT_TRUE(KVManifestEntryIsDirectory(again.Entry("HomeDomain", "made")));
    EXPECT_EQ(CF::String::GetUTF8(KVManifestEntryGetTarget(again.Entry("HomeDomain", "linked"))),
              "elsewhere");
    EXPECT_EQ(again.Entries().size(), container.Entries().size());
}

TEST_P(EditedExport, TakesEntriesOfAnotherBackup) {
    const Editable container = encrypted();
    const Editable other = Editable::Sample(kPlain);
    const auto file = FindFileOfSize(kPlain, 32769);
    const Editable source = EmptyOfVersion(kKVManifestDataVersion33);
    EXPECT_FALSE(
        source.Store("AddedDomain", "added", other.Content(file.at("domain"), file.at("path"))));
    CFErrorRef error = nullptr;
    EXPECT_NE(
        KVBackupContainerAddEntry(container.get(), source.Entry("AddedDomain", "added"), &error),
        nullptr);
    EXPECT_EQ(reopened(container).Content("AddedDomain", "added"),
              other.Content(file.at("domain"), file.at("path")));
}

INSTANTIATE_TEST_SUITE_P(Targets, EditedExport, testing::Bool(), [](const auto &parameter) {
    return std::string(parameter.param ? "Zip" : "Directory");
});

} // namespace
} // namespace container_tests
