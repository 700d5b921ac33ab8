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

} // namespace
} // namespace container_tests
