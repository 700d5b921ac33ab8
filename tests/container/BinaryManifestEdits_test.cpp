// What edits refuse because a binary manifest has no room for it.
#include "tests/container/ExportFixture.hpp"

#include "manifest/KVManifestEntryClass.hpp"

namespace container_tests {
namespace {

constexpr const char *kDomain = "AppDomain-com.example.new";
constexpr std::size_t kLongest = 65534;

using Entry = CF::Pointer<KVManifestEntryClass *>;

Entry directoryEntry() {
    return CF::Adopt(
        KVManifestEntryCreateForDirectory(nullptr, CF::String(kDomain).get(), CFSTR("folder")));
}

struct Added {
    KVManifestEntryClass *entry; // borrowed
    CF::Error error;
};

Added add(const Editable &backup, const Entry &entry) {
    CFErrorRef error = nullptr;
    KVManifestEntryClass *added = KVBackupContainerAddEntry(backup.get(), entry.get(), &error);
    return {added, CF::Error::Adopt(error)};
}

// What the manifest of the container reads as, written and opened again.
Editable reopened(const Editable &backup, const testing_support::TemporaryDirectory &directory) {
    const std::string target = (directory / "out").string();
    const Exported result =
        RunExport(KVBackupContainerExportToDirectoryWithReport, backup.get(), target);
    EXPECT_EQ(result.reported, Texts{});
    return Editable(OpenPath(target));
}

TEST(BinaryManifestEdits, TakeTheLongestTextsAndNoLonger) {
    const Editable backup = Editable::Sample(kBinary);
    EXPECT_NE(backup.Link(kDomain, "long", std::string(kLongest, 't')), nullptr);
    const auto before = backup.Entries();
    const std::string tooLong(kLongest + 1, 't');
    EXPECT_EQ(backup.Link(kDomain, "longer", tooLong), nullptr);
    EXPECT_EQ(backup.Link(kDomain, tooLong, "target"), nullptr);
    EXPECT_EQ(backup.MakeDirectory(kDomain, tooLong), nullptr);
    EXPECT_EQ(backup.MakeDirectory(tooLong, ""), nullptr);
    EXPECT_TRUE(IsError(backup.Store(tooLong, "a", "text"), kKVErrorInvalidArgument,
                        "Text is too long for a binary manifest (65535 bytes)"));
    EXPECT_TRUE(IsError(backup.Replace(tooLong, "a", "text"), kKVErrorInvalidArgument,
                        "Text is too long for a binary manifest (65535 bytes)"));
    EXPECT_EQ(backup.Entries(), before);
    const testing_support::TemporaryDirectory directory;
    EXPECT_NE(reopened(backup, directory).Entry(kDomain, "long"), nullptr);
}

TEST(BinaryManifestEdits, CountBytesOfUTF8) {
    const Editable backup = Editable::Sample(kBinary);
    std::string target;
    while (target.size() <= kLongest) {
        target += "\u00e4";
    }
    EXPECT_EQ(backup.Link(kDomain, "long", target), nullptr);
    target.resize(kLongest);
    EXPECT_NE(backup.Link(kDomain, "long", target), nullptr);
}

TEST(BinaryManifestEdits, LeaveDatabasesTheirLongTexts) {
    const Editable backup = Editable::Sample(kPlain);
    EXPECT_NE(backup.Link(kDomain, "long", std::string(kLongest + 1, 't')), nullptr);
}

TEST(BinaryManifestEdits, RefuseEntriesOfLongTextsAndData) {
    const Editable backup = Editable::Sample(kBinary);
    const Entry entry = directoryEntry();
    entry.get()->dataHash =
        CF::Pointer<CFDataRef>(CF::Data(std::vector<std::uint8_t>(kLongest + 1)).get());
    EXPECT_TRUE(IsError(add(backup, entry).error, kKVErrorInvalidArgument,
                        "Data is too long for a binary manifest (65535 bytes)"));
    const auto link = CF::Adopt(
        KVManifestEntryCreateForSymlink(nullptr, CF::String(kDomain).get(), CFSTR("link"),
                                        CF::String(std::string(kLongest + 1, 't')).get()));
    EXPECT_TRUE(IsError(add(backup, link).error, kKVErrorInvalidArgument,
                        "Text is too long for a binary manifest (65535 bytes)"));
}

// An entry with that many attributes, the value of each of that size.
Entry entryWithAttributes(int count, std::size_t size) {
    const Entry entry = directoryEntry();
    const auto properties = CF::Dictionary::Mutable();
    for (int i = 0; i < count; ++i) {
        properties.Set(CF::String("name" + std::to_string(i)).get(),
                       CF::Data(std::vector<std::uint8_t>(size)).get());
    }
    entry.get()->properties = CF::Pointer<CFDictionaryRef>(properties.get());
    return entry;
}

TEST(BinaryManifestEdits, RefuseAttributesThatTheRecordCannotHold) {
    const Editable backup = Editable::Sample(kBinary);
    EXPECT_TRUE(IsError(add(backup, entryWithAttributes(256, 1)).error, kKVErrorInvalidArgument,
                        "Too many extended attributes for a binary manifest (256)"));
    EXPECT_TRUE(IsError(add(backup, entryWithAttributes(1, kLongest + 1)).error,
                        kKVErrorInvalidArgument,
                        "Data is too long for a binary manifest (65535 bytes)"));
    const Entry odd = directoryEntry();
    const auto properties = CF::Dictionary::Mutable();
    properties.Set(CFSTR("name"), CFSTR("no data"));
    odd.get()->properties = CF::Pointer<CFDictionaryRef>(properties.get());
    EXPECT_TRUE(
        IsError(add(backup, odd).error, kKVErrorInvalidArgument,
                "Extended attributes of a binary manifest are named by text and hold data"));
    ASSERT_NE(add(backup, entryWithAttributes(255, 10)).entry, nullptr);
    const testing_support::TemporaryDirectory directory;
    const Editable read = reopened(backup, directory);
    ASSERT_NE(read.Entry(kDomain, "folder"), nullptr);
    EXPECT_EQ(CFDictionaryGetCount(KVManifestEntryGetProperties(read.Entry(kDomain, "folder"))),
              255);
}

// Attributes as a device writes them into a database: a property list as plain data.
Entry entryWithRawAttributes(const CF::Data &attributes) {
    const Entry entry = directoryEntry();
    entry.get()->keptAttributes = attributes.get();
    return entry;
}

TEST(BinaryManifestEdits, TurnTheAttributesOfADatabaseIntoProperties) {
    const auto attributes = CF::Dictionary::Mutable();
    attributes.Set(CFSTR("com.example.flag"), CF::Data(std::vector<std::uint8_t>{1, 2, 3}).get());
    const Entry entry =
        entryWithRawAttributes(CF::PropertyListType<CF::Dictionary>::ToPropertyListData(
            attributes, kCFPropertyListBinaryFormat_v1_0));
    const Editable backup = Editable::Sample(kBinary);
    ASSERT_NE(add(backup, entry).entry, nullptr);
    const testing_support::TemporaryDirectory directory;
    const Editable read = reopened(backup, directory);
    ASSERT_NE(read.Entry(kDomain, "folder"), nullptr);
    EXPECT_TRUE(
        CFEqual(KVManifestEntryGetProperties(read.Entry(kDomain, "folder")), attributes.get()));
    EXPECT_EQ(CFDictionaryGetCount(KVManifestEntryGetProperties(entry.get())), 0);
}

TEST(BinaryManifestEdits, RefuseAttributesOfADatabaseThatNobodyUnderstands) {
    const Editable backup = Editable::Sample(kBinary);
    const auto before = backup.Entries();
    const Entry entry = entryWithRawAttributes(CF::Data(std::vector<std::uint8_t>{'x'}));
    EXPECT_TRUE(IsError(add(backup, entry).error, kKVErrorInvalidArgument,
                        "The entry's extended attributes cannot be put into a binary manifest"));
    EXPECT_EQ(backup.Entries(), before);
    const Added added = add(Editable::Sample(kPlain), entry);
    EXPECT_FALSE(added.error);
}

class WithoutEntries : public testing::TestWithParam<bool> {
  protected:
    const testing_support::TemporaryDirectory directory_;
    const std::string target_ = (directory_ / "out").string();
};

TEST_P(WithoutEntries, ABinaryManifestIsNotWritten) {
    const Exported result = RunExport(GetParam() ? KVBackupContainerExportToZipWithReport
                                                 : KVBackupContainerExportToDirectoryWithReport,
                                      EmptyOfVersion(kKVManifestDataVersion24).get(), target_);
    EXPECT_FALSE(result.finished);
    EXPECT_EQ(result.reported,
              Texts{"14 A backup of version 2.4 needs an entry: its manifest could not be read "
                    "again without any"});
    EXPECT_FALSE(fs::exists(target_));
}

TEST_P(WithoutEntries, ADatabaseIsWritten) {
    const Exported result = RunExport(GetParam() ? KVBackupContainerExportToZipWithReport
                                                 : KVBackupContainerExportToDirectoryWithReport,
                                      EmptyOfVersion(kKVManifestDataVersion33).get(), target_);
    EXPECT_TRUE(result.finished);
    EXPECT_TRUE(result.metadataWritten);
}

INSTANTIATE_TEST_SUITE_P(Targets, WithoutEntries, testing::Bool(), [](const auto &parameter) {
    return std::string(parameter.param ? "Zip" : "Directory");
});

} // namespace
} // namespace container_tests
