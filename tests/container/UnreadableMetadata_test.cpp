// Metadata files that are there and give no dictionary, or one that cannot be written.
#include "tests/container/ExportFixture.hpp"

namespace container_tests {
namespace {

constexpr const char *kNoList = "no property list <&";

CF::Error metadataError(KVBackupContainerClass *container, const char *name) {
    return CF::Error::Adopt(KVBackupContainerCopyMetadataError(container, CF::String(name)));
}

std::string fileText(const fs::path &path) {
    const auto bytes = testing_support::ReadFile(path);
    return {bytes.begin(), bytes.end()};
}

TEST(MetadataError, IsNullForWhatWasReadOrIsMissingOrNoMetadata) {
    const BackupCopy copy(kPlain);
    copy.Remove("Info.plist");
    const Opened backup = OpenPath(copy.root());
    for (const char *name : {"Manifest.plist", "Info.plist", "Status.plist", "Manifest.db", ""}) {
        EXPECT_FALSE(metadataError(backup.get(), name)) << name;
    }
}

// What a backup has to say of a metadata file with that content.
CF::Error metadataErrorOf(const char *name, const char *content) {
    const BackupCopy copy(kPlain);
    copy.Write(name, content);
    return metadataError(OpenPath(copy.root()).get(), name);
}

TEST(MetadataError, HasTheReasonOfTheParser) {
    const CF::Error error = metadataErrorOf("Info.plist", kNoList);
    EXPECT_TRUE(IsError(error, kKVErrorInvalidMetadata,
                        "The file is no property list that can be read (Info.plist)"));
    EXPECT_TRUE(error.GetUnderlying());
}

TEST(MetadataError, TellsOfAnEmptyFile) {
    EXPECT_TRUE(IsError(metadataErrorOf("Info.plist", ""), kKVErrorInvalidMetadata,
                        "The file is empty (Info.plist)"));
}

TEST(MetadataError, TellsOfARootThatIsNoDictionary) {
    EXPECT_TRUE(
        IsError(metadataErrorOf("Manifest.plist", "<plist version=\"1.0\"><array/></plist>"),
                kKVErrorInvalidMetadata,
                "The root of the property list is no dictionary (Manifest.plist)"));
}

TEST(MetadataError, GoesWithTheDictionaryThatTheHostSets) {
    const BackupCopy copy(kPlain);
    copy.Write("Info.plist", kNoList);
    copy.Write("Manifest.plist", kNoList);
    const Opened backup = OpenPath(copy.root());
    KVBackupContainerSetDictionaries(backup.get(), nullptr, nullptr, nullptr);
    EXPECT_TRUE(metadataError(backup.get(), "Info.plist"));
    KVBackupContainerSetDictionaries(backup.get(), CF::Dictionary::Mutable().get(), nullptr,
                                     nullptr);
    EXPECT_FALSE(metadataError(backup.get(), "Info.plist"));
    EXPECT_TRUE(metadataError(backup.get(), "Manifest.plist"));
    KVBackupContainerSetSystemDomainsVersion(backup.get(), CF::Number::FromInt32(24).get());
    EXPECT_FALSE(metadataError(backup.get(), "Manifest.plist"));
}

class CarryingOver : public testing::TestWithParam<bool> {
  protected:
    bool zip() const { return GetParam(); }
    Exported exportReported(KVBackupContainerClass *container) const {
        return RunExport(zip() ? KVBackupContainerExportToZipWithReport
                               : KVBackupContainerExportToDirectoryWithReport,
                         container, target_);
    }
    Exported exportPlainly(KVBackupContainerClass *container) const {
        return RunExport(zip() ? KVBackupContainerExportToZip : KVBackupContainerExportToDirectory,
                         container, target_);
    }
    std::string written(const std::string &name) const {
        if (!zip()) {
            return fileText(target_ + "/" + name);
        }
        return testing_support::RunCommand({"unzip", "-p", target_, name}).output;
    }

    const testing_support::TemporaryDirectory directory_;
    const std::string target_ = (directory_ / "out").string();
};

TEST_P(CarryingOver, CopiesWhatCannotBeReadByteForByteAndSaysSo) {
    const BackupCopy copy(kPlain);
    copy.Write("Info.plist", kNoList);
    const Opened backup = OpenPath(zip() ? copy.Zip() : copy.root());
    const Exported result = exportReported(backup.get());
    EXPECT_TRUE(result.metadataWritten);
    EXPECT_EQ(result.reported, Texts{});
    ASSERT_EQ(result.notes.size(), 1u);
    EXPECT_EQ(result.notes[0].find("20 File Info.plist could not be read and was copied as it is"
                                   " < 20 The file is no property list that can be read "
                                   "(Info.plist) < "),
              0u)
        << result.notes[0];
    EXPECT_EQ(result.logged, result.notes);
    EXPECT_EQ(written("Info.plist"), kNoList);
    EXPECT_TRUE(OpenPath(target_).container);
}

TEST_P(CarryingOver, GoesOnInACopyOfTheContainer) {
    const BackupCopy copy(kPlain);
    copy.Write("Manifest.plist", kNoList);
    const Opened backup = OpenPath(copy.root());
    const Container second(CF::adopt, KVBackupContainerCreateCopy(nullptr, backup.get()));
    EXPECT_EQ(exportReported(second.get()).notes.size(), 1u);
    EXPECT_EQ(written("Manifest.plist"), kNoList);
}

TEST_P(CarryingOver, EndsWithTheDictionaryThatTheHostSets) {
    const BackupCopy copy(kPlain);
    copy.Write("Info.plist", kNoList);
    const Opened backup = OpenPath(copy.root());
    const auto info = CF::Dictionary::Mutable();
    info.Set(CFSTR("Device Name"), CFSTR("set by the host"));
    KVBackupContainerSetDictionaries(backup.get(), info.get(), nullptr, nullptr);
    EXPECT_EQ(exportReported(backup.get()).notes, Texts{});
    EXPECT_NE(written("Info.plist").find("set by the host"), std::string::npos);
}

TEST_P(CarryingOver, IsLoggedWhereThePlainExportWritesAnEmptyDictionary) {
    const BackupCopy copy(kPlain);
    copy.Write("Info.plist", kNoList);
    const Exported result = exportPlainly(OpenPath(copy.root()).get());
    ASSERT_EQ(result.logged.size(), 1u);
    EXPECT_EQ(
        result.logged[0].find("20 File Info.plist could not be read and was written empty < 20 "),
        0u);
    EXPECT_NE(written("Info.plist").find("<dict/>"), std::string::npos);
}

TEST_P(CarryingOver, CopiesADictionaryThatCannotBeWritten) {
    const BackupCopy copy(kPlain);
    const auto made = testing_support::RunPython(
        "import plistlib, sys\n"
        "uid = plistlib.UID(1)\n"
        "plistlib.dump({'UID': uid}, open(sys.argv[1], 'wb'), fmt=plistlib.FMT_BINARY)\n",
        {copy.file("Info.plist")});
    ASSERT_EQ(made.status, 0) << made.errors;
    const Opened backup = OpenPath(copy.root());
    // What no property list in XML takes for a dictionary's key.
    const auto odd = CF::Dictionary::Adopt(KVBackupContainerCopyInfoDict(backup.get()));
    CFDictionarySetValue(const_cast<CFMutableDictionaryRef>(odd.get()),
                         CF::Number::FromInt32(1).get(), CFSTR("x"));
    backup.get()->infoDict = odd;
    const Exported result = exportReported(backup.get());
    ASSERT_EQ(result.notes.size(), 1u);
    EXPECT_EQ(result.notes[0].find("20 File Info.plist could not be written anew and was copied as "
                                   "it is < 1 Failed to create data representation of metadata "
                                   "(Info.plist)"),
              0u)
        << result.notes[0];
    EXPECT_EQ(written("Info.plist"), fileText(copy.file("Info.plist")));
}

TEST_P(CarryingOver, DoesNotHelpADictionaryOfTheHostsThatNobodyCouldRead) {
    const BackupCopy copy(kPlain);
    const Opened backup = OpenPath(copy.root());
    const auto info = CF::Dictionary::Mutable();
    info.Set(CFSTR("Icon"), CF::Data(std::vector<std::uint8_t>(50u << 20)).get());
    KVBackupContainerSetDictionaries(backup.get(), info.get(), nullptr, nullptr);
    const Exported result = exportReported(backup.get());
    EXPECT_FALSE(result.metadataWritten);
    ASSERT_EQ(result.reported.size(), 1u);
    EXPECT_NE(result.reported[0].find(" < 1 Failed to create data representation of metadata "
                                      "(Info.plist) < 8 The file is too large to be read into "
                                      "memory ("),
              std::string::npos)
        << result.reported[0];
}

INSTANTIATE_TEST_SUITE_P(Targets, CarryingOver, testing::Bool(), [](const auto &parameter) {
    return std::string(parameter.param ? "Zip" : "Directory");
});

} // namespace
} // namespace container_tests
