// What exports tell: progress, reports, and the C forms.
#include "manifest/KVManifestEntryClass.hpp"
#include "tests/container/ExportFixture.hpp"

#include <cmath>
#include <stdexcept>

namespace container_tests {
namespace {

const bool kBoth[] = {false, true};

class Telling : public testing::TestWithParam<bool> {
  protected:
    bool zip() const { return GetParam(); }
    Exported exportTo(const Editable &container) const {
        return RunExport(zip() ? KVBackupContainerExportToZip : KVBackupContainerExportToDirectory,
                         container.get(), target_);
    }
    Exported exportReported(const Editable &container) const {
        return RunExport(zip() ? KVBackupContainerExportToZipWithReport
                               : KVBackupContainerExportToDirectoryWithReport,
                         container.get(), target_);
    }
    // A container of those files whose manifest says that total.
    static Editable containerOf(const std::vector<std::size_t> &sizes, std::int64_t total) {
        const Editable container = EmptyOfVersion(kKVManifestDataVersion24);
        for (const std::size_t size : sizes) {
            AddForged(container, "f" + std::to_string(size), std::string(size, 'x'));
        }
        const CF::Array entries(KVManifestGetEntries(container.manifest()));
        for (CFIndex i = 0; i < entries.GetCount(); ++i) {
            const auto *const entry = static_cast<const KVManifestEntryClass *>(entries.GetAt(i));
            entry->size = i == 0 ? total : 0;
        }
        KVManifestUpdateEntries(container.manifest(), CF::Array::MutableCopy(entries.get()).get());
        EXPECT_EQ(KVManifestGetTotalFileSize(container.manifest()), total);
        return container;
    }

    const testing_support::TemporaryDirectory directory_;
    const std::string target_ = (directory_ / "out").string();
};

TEST_P(Telling, ReportsProgressAfterEveryFileOnceAThousandthIsWritten) {
    // Threshold 100: neither 40 nor 40 + 59 bytes are enough.
    const Exported result = exportTo(containerOf({40, 59, 1, 900}, 100000));
    ASSERT_EQ(result.progress.size(), 1u + 2u + 4u);
    EXPECT_EQ(result.progress[0], 0.0);
    EXPECT_EQ(result.progress[1], 0.001);
    EXPECT_EQ(result.progress[2], 0.01);
}

TEST_P(Telling, ProgressIsNeitherCutNorClosed) {
    const Exported result = exportTo(containerOf({1000}, 100));
    ASSERT_EQ(result.progress.size(), 6u);
    EXPECT_EQ(result.progress[1], 10.0);
    EXPECT_GT(result.progress[5], 10.0);
}

TEST_P(Telling, ThresholdIsAtLeastThreeBytes) {
    const Exported result = exportTo(containerOf({2, 1}, 2999));
    ASSERT_EQ(result.progress.size(), 6u);
    EXPECT_EQ(result.progress[1], 3.0 / 2999.0);
}

TEST_P(Telling, ProgressOfATotalOfZeroIsInfinite) {
    const Exported result = exportTo(containerOf({2, 1}, 0));
    ASSERT_EQ(result.progress.size(), 6u);
    for (std::size_t i = 1; i < result.progress.size(); ++i) {
        EXPECT_TRUE(std::isinf(result.progress[i]) && result.progress[i] > 0);
    }
}

TEST_P(Telling, ProgressGoesOnAfterAFileThatFails) {
    const Editable container = containerOf({100}, 100);
    AddForged(container, "gone", "gone",
              [](CFStringRef, CFErrorRef *) -> KVFileClass * { return nullptr; });
    const Exported result = exportTo(container);
    EXPECT_EQ(result.logged.size(), 1u);
    EXPECT_EQ(result.progress.size(), 7u);
}

TEST_P(Telling, WithoutAProgressCallbackWorksAsWell) {
    const Editable container = containerOf({10}, 10);
    const bool finished =
        zip() ? KVBackupContainerExportToZip(container.get(), CF::String(target_), {})
              : KVBackupContainerExportToDirectory(container.get(), CF::String(target_), {});
    EXPECT_TRUE(finished);
    EXPECT_TRUE(fs::exists(target_));
}

TEST_P(Telling, ReportHoldsEverySkippedNameInOrder) {
    const Editable container = containerOf({10}, 10);
    const auto fail = [](CFStringRef, CFErrorRef *) -> KVFileClass * { return nullptr; };
    AddForged(container, "second", "2", fail);
    AddForged(container, "..", "unsafe");
    AddForged(container, "first", "1", fail);
    const Exported result = exportReported(container);
    EXPECT_TRUE(result.finished);
    EXPECT_TRUE(result.metadataWritten);
    const std::string target = zip() ? "zip" : "directory";
    const std::string end = " could not be loaded for writing to " + target +
                            " < 2 Found file entry but no file ref is present (";
    EXPECT_EQ(result.reported,
              (Texts{"8 File second" + end + "second)",
                     std::string("14 File .. could not be written") + (zip() ? " in zip" : "") +
                         " < 10 Unsafe stored file name (..)",
                     "8 File first" + end + "first)"}));
    EXPECT_EQ(result.logged, result.reported);
}

TEST_P(Telling, ReportOfAnExportThatDidNotStartHoldsOneError) {
    directory_.write("out", std::string_view("mine"));
    const Exported result = exportReported(containerOf({10}, 10));
    EXPECT_FALSE(result.finished);
    EXPECT_FALSE(result.metadataWritten);
    EXPECT_EQ(result.progress, std::vector<double>{0.0});
    EXPECT_EQ(result.reported, Texts{"14 File already exists at path " + target_});
}

TEST_P(Telling, MetadataIsNotWrittenWithoutAManifest) {
    const Exported result = exportReported(EmptyOfVersion(kKVManifestDataVersionNone));
    EXPECT_TRUE(result.finished);
    EXPECT_EQ(result.reported, Texts{});
    EXPECT_FALSE(result.metadataWritten);
}

TEST_P(Telling, ReportOfADatabaseThatCannotBeWrittenSaysSo) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion33);
    container.Link("HomeDomain", "link", "target");
    const CF::Array entries(KVManifestGetEntries(container.manifest()));
    // A lone surrogate has no form in UTF-8, so its row cannot be written.
    const UniChar lone = 0xd800;
    const auto text = CF::String::Adopt(CFStringCreateWithCharacters(nullptr, &lone, 1));
    Kelvane::SetEntryPath(
        *static_cast<KVManifestEntryClass *>(const_cast<void *>(entries.GetAt(0))),
        CFSTR("HomeDomain"), text.get());
    const Exported result = exportReported(container);
    EXPECT_TRUE(result.finished);
    EXPECT_FALSE(result.metadataWritten);
    ASSERT_EQ(result.reported.size(), 1u);
    EXPECT_EQ(result.reported[0].find(std::string("8 File Manifest.db could not be loaded for "
                                                  "writing to ") +
                                      (zip() ? "zip" : "directory") +
                                      " < 1 Failed to create data representation of Manifest DB"),
              0u)
        << result.reported[0];
}

TEST_P(Telling, ReportNamesFilesThatHaveNoStoredName) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion33);
    const auto text = [](CFStringRef, CFErrorRef *) { return Editable::FileOf("text").detach(); };
    AddForged(container, "", "nameless", text);
    AddForged(container, "x", "short", text);
    const Exported result = exportReported(container);
    EXPECT_TRUE(result.finished);
    const std::string ending = zip() ? " could not be written in zip" : " could not be written";
    EXPECT_EQ(result.reported,
              (Texts{"14 File HomeDomain-nameless" + ending + " < 10 Unsafe stored file name ()",
                     "14 File HomeDomain-short" + ending + " < 10 Unsafe stored file name (x)"}));
    EXPECT_EQ(result.filesWritten, 4);
}

TEST_P(Telling, FileThatGrowsMeanwhileIsSkipped) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion33);
    const std::string path = directory_.write("grows", "text").string();
    AddForged(container, "grows", "grows", [path](CFStringRef, CFErrorRef *error) {
        KVFileClass *const file = KVFileCreateFromFileAtPath(CF::String(path), false, error);
        std::ofstream(path, std::ios::app) << " and more";
        return file;
    });
    const Exported result = exportReported(container);
    ASSERT_EQ(result.reported.size(), 1u);
    EXPECT_NE(result.reported[0].find(" < 3 The file changed while it was written (13 of 4 bytes)"),
              std::string::npos)
        << result.reported[0];
    EXPECT_EQ(result.filesWritten, 4);
}

TEST_P(Telling, ReportedExportWritesADatabaseOfAnySize) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion33);
    const std::string target(1024 * 1024, 't');
    for (int i = 0; i < 110; ++i) {
        container.Link("HomeDomain", "link" + std::to_string(i), target);
    }
    const auto workingFiles = [] {
        const auto directory = testing_support::LibraryTemporaryPath() / "KVManifestDB";
        fs::create_directories(directory); // made with the first database
        return std::distance(fs::directory_iterator(directory), fs::directory_iterator());
    };
    const auto before = workingFiles();
    const Exported result = exportReported(container);
    EXPECT_EQ(result.reported, Texts{});
    EXPECT_TRUE(result.metadataWritten);
    EXPECT_EQ(workingFiles(), before);
    const std::string rows = "select count(*), min(length(file)) > 1000 from Files where flags = 4";
    const auto counted = testing_support::RunCommand(
        {"sh", "-c",
         zip() ? "unzip -p \"$1\" Manifest.db > \"$1.db\" && sqlite3 \"$1.db\" \"$2\""
               : "sqlite3 \"$1/Manifest.db\" \"$2\"",
         "sh", target_, rows});
    EXPECT_EQ(counted.output, "110|1\n") << counted.errors;
}

struct Calls {
    std::vector<double> fractions;
};

void countCall(double fraction, void *context) {
    static_cast<Calls *>(context)->fractions.push_back(fraction);
}

TEST_P(Telling, TheCFormDoesTheSame) {
    auto *const function = zip() ? KVBackupContainerWriteZipFile : KVBackupContainerWriteDirectory;
    const Editable container = containerOf({1000}, 100);
    AddForged(container, "gone", "gone",
              [](CFStringRef, CFErrorRef *) -> KVFileClass * { return nullptr; });
    Calls calls;
    KVBackupExportReport report{};
    EXPECT_TRUE(function(container.get(), CF::String(target_), countCall, &calls, &report));
    EXPECT_EQ(calls.fractions.size(), 7u);
    EXPECT_TRUE(report.metadataWritten);
    EXPECT_EQ(TakeChains(report.errors).size(), 1u);
    EXPECT_EQ(TakeChains(report.notes), Texts{});
}

void throwOnce(double, void *) { throw std::runtime_error("from the host"); }

TEST_P(Telling, TheCFormLetsNoExceptionPass) {
    auto *const function = zip() ? KVBackupContainerWriteZipFile : KVBackupContainerWriteDirectory;
    KVBackupExportReport report{};
    EXPECT_FALSE(
        function(containerOf({10}, 10).get(), CF::String(target_), throwOnce, nullptr, &report));
    EXPECT_EQ(TakeChains(report.errors), Texts{"1 from the host"});
    EXPECT_EQ(TakeChains(report.notes), Texts{});
    EXPECT_FALSE(report.metadataWritten);
    EXPECT_EQ(report.filesWritten, 0);
    EXPECT_FALSE(function(containerOf({10}, 10).get(), CF::String(target_ + "2"), throwOnce,
                          nullptr, nullptr));
}

TEST_P(Telling, TheCFormNeedsNeitherCallbackNorReport) {
    auto *const function = zip() ? KVBackupContainerWriteZipFile : KVBackupContainerWriteDirectory;
    const Editable container = containerOf({10}, 10);
    EXPECT_TRUE(function(container.get(), CF::String(target_), nullptr, nullptr, nullptr));
    EXPECT_FALSE(function(container.get(), CF::String(target_), nullptr, nullptr, nullptr));
}

TEST_P(Telling, LeavesTheContainerAsItWas) {
    const Editable sample = Editable::Sample(kPlain);
    const auto entries = sample.Entries();
    const auto first = ReadTree(SamplePath(kPlain));
    exportTo(sample);
    EXPECT_EQ(sample.Entries(), entries);
    EXPECT_EQ(ReadTree(SamplePath(kPlain)), first);
}

TEST_P(Telling, LeavesNoContentLoadedThatWasNot) {
    const Editable sample = Editable::Sample(kPlain);
    const auto loaded = FindFileOfSize(kPlain, 32769);
    const auto other = FindFileOfSize(kPlain, 32768);
    const auto fileOf = [&](const nlohmann::json &entry) {
        return sample.Entry(entry.at("domain"), entry.at("path"))->file.get();
    };
    const KVFileClass *const before =
        KVManifestEntryGetFile(sample.Entry(loaded.at("domain"), loaded.at("path")), nullptr);
    exportTo(sample);
    EXPECT_EQ(fileOf(loaded), before);
    EXPECT_EQ(fileOf(other), nullptr);
    const CopiedFile copied =
        CopyFileForPath(sample.opened(), other.at("domain"), other.at("path"));
    ASSERT_TRUE(copied.file);
    EXPECT_EQ(SHA256(ReadContent(copied.file.get())), other.at("sha256"));
}

INSTANTIATE_TEST_SUITE_P(Targets, Telling, testing::ValuesIn(kBoth), [](const auto &parameter) {
    return std::string(parameter.param ? "Zip" : "Directory");
});

} // namespace
} // namespace container_tests
