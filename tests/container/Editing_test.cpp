// Adding entries, making directories and links, removing.
#include "tests/container/EditFixture.hpp"

#include "manifest/KVManifestEntryClass.hpp"

namespace container_tests {
namespace {

constexpr const char *kDomain = "AppDomain-com.example.new";

using Entry = CF::Pointer<KVManifestEntryClass *>;

Entry FileEntry(const std::string &path, const std::string &content) {
    const File file = Editable::FileOf(content);
    return CF::Adopt(KVManifestEntryCreateForFile(nullptr, file.get(), CF::String(kDomain).get(),
                                                  CF::String(path).get(), nullptr, nullptr));
}

TEST(AddEntry, AddsACopy) {
    const Editable backup = Editable::Empty();
    const Entry entry = FileEntry("note", "text");
    const auto *const added = KVBackupContainerAddEntry(backup.get(), entry.get(), nullptr);
    ASSERT_NE(added, nullptr);
    EXPECT_NE(added, entry.get());
    EXPECT_EQ(backup.Entries(), (std::vector<const void *>{added}));
    EXPECT_EQ(backup.Content(kDomain, "note"), "text");
}

TEST(AddEntry, LeavesTheManifestTheOnlyOwner) {
    const Editable backup = Editable::Empty();
    const Entry entry = FileEntry("note", "text");
    KVManifestEntryClass *const added =
        KVBackupContainerAddEntry(backup.get(), entry.get(), nullptr);
    EXPECT_EQ(CFGetRetainCount(added), 1);
}

TEST(AddEntry, FailsForAFileWithoutContent) {
    const Editable backup = Editable::Empty();
    const Editable sample = Editable::Sample(kPlain);
    const auto file = FindFileOfSize(kPlain, 17);
    const Entry orphan = CF::Adopt(KVManifestEntryCreateCopy(
        nullptr, sample.Entry(file.at("domain"), file.at("path")), nullptr));
    CFErrorRef error = nullptr;
    EXPECT_EQ(KVBackupContainerAddEntry(backup.get(), orphan.get(), &error), nullptr);
    const CF::Error caught = CF::Error::Adopt(error);
    EXPECT_TRUE(IsError(caught, kKVErrorFileNotInCache,
                        "A file reference could not be loaded for an entry that represents a "
                        "file"));
    EXPECT_TRUE(IsError(caught.GetUnderlying(), kKVErrorInvalidArgument,
                        "Tried to get a File ref for entry, but getFileFunc is not set!"));
    EXPECT_TRUE(backup.Entries().empty());
}

TEST(AddEntry, TakesDirectoriesAndLinksWithoutContent) {
    const Editable backup = Editable::Sample(kEncrypted);
    const Entry directory = CF::Adopt(
        KVManifestEntryCreateForDirectory(nullptr, CF::String(kDomain).get(), CFSTR("d")));
    const Entry link = CF::Adopt(KVManifestEntryCreateForSymlink(nullptr, CF::String(kDomain).get(),
                                                                 CFSTR("l"), CFSTR("d")));
    EXPECT_NE(KVBackupContainerAddEntry(backup.get(), directory.get(), nullptr), nullptr);
    EXPECT_NE(KVBackupContainerAddEntry(backup.get(), link.get(), nullptr), nullptr);
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{"d", "l"}));
}

TEST(AddEntry, KeepsAnEntryOfTheSamePath) {
    const Editable backup = Editable::Empty();
    KVBackupContainerAddEntry(backup.get(), FileEntry("note", "first").get(), nullptr);
    KVBackupContainerAddEntry(backup.get(), FileEntry("note", "second").get(), nullptr);
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{"note", "note"}));
    EXPECT_EQ(backup.Content(kDomain, "note"), "second");
}

TEST(AddEntry, GivesAFileOfAnEncryptedBackupAKey) {
    const Editable backup = Editable::Sample(kEncrypted);
    const Entry entry = FileEntry("note", "text");
    const auto *const added = KVBackupContainerAddEntry(backup.get(), entry.get(), nullptr);
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(CFDataGetLength(KVManifestEntryGetEncryptionData(added)), 44);
    EXPECT_EQ(CFDataGetLength(KVManifestEntryGetEncryptionData(entry.get())), 0);
    EXPECT_EQ(backup.Content(kDomain, "note"), "text");
}

// The content of another backup's file lies plain, and must not be written so.
TEST(AddEntry, EncryptsAFileOfAPlainBackupOnItsWayOut) {
    const Editable plain = Editable::Sample(kPlain);
    const auto file = FindExpected(kPlain, [](const nlohmann::json &entry) {
        return entry.at("type") == "file" && entry.at("protectionClass") == 4 &&
               entry.at("size") > 0 && !entry.at("hasKey");
    });
    const Editable backup = Editable::Sample(kEncrypted);
    backup.Remove(file.at("domain"), file.at("path"));
    CFErrorRef error = nullptr;
    ASSERT_NE(KVBackupContainerAddEntry(backup.get(),
                                        plain.Entry(file.at("domain"), file.at("path")), &error),
              nullptr)
        << Editable::ReasonOf(CF::Error::Adopt(error));
    const std::string id = file.at("fileID");
    const CopiedFile stored = CopyFileForName(backup.opened(), id.substr(0, 2) + "/" + id);
    EXPECT_EQ(ReadContent(stored.file.get()).size() % 16, 0u);
    EXPECT_NE(SHA256(ReadContent(stored.file.get())), file.at("sha256"));
    const CopiedFile readable =
        CopyFileForPath(backup.opened(), file.at("domain"), file.at("path"));
    EXPECT_EQ(SHA256(ReadContent(readable.file.get())), file.at("sha256"));
}

TEST(AddEntry, FailsInAnEncryptedBackupForAnEntryThatHasAKey) {
    const Editable backup = Editable::Sample(kEncrypted);
    const auto file = FindFileOfClass(kEncrypted, 3);
    const auto before = backup.Entries();
    CFErrorRef error = nullptr;
    EXPECT_EQ(KVBackupContainerAddEntry(backup.get(),
                                        backup.Entry(file.at("domain"), file.at("path")), &error),
              nullptr);
    EXPECT_TRUE(IsError(CF::Error::Adopt(error), kKVErrorInvalidArgument,
                        "Impossible to generate a file key for an entry that already has one "
                        "(protection class CompleteUntilUnlocked)"));
    EXPECT_EQ(backup.Entries(), before);
}

// ---- Directories

TEST(CreateDirectory, MakesTheRootFirst) {
    const Editable backup = Editable::Empty();
    const auto *const directory = backup.MakeDirectory(kDomain, "a");
    ASSERT_NE(directory, nullptr);
    EXPECT_EQ(backup.Entries(), (std::vector<const void *>{backup.Entry(kDomain, ""), directory}));
    EXPECT_EQ(KVManifestEntryGetFileMode(directory), 040755);
}

TEST(CreateDirectory, DoesNotMakeWhatLiesBetween) {
    const Editable backup = Editable::Empty();
    backup.MakeDirectory(kDomain, "a/b/c");
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{"", "a/b/c"}));
}

TEST(CreateDirectory, MakesTheRootAlone) {
    const Editable backup = Editable::Empty();
    EXPECT_NE(backup.MakeDirectory(kDomain, ""), nullptr);
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{""}));
}

TEST(CreateDirectory, ReturnsTheOneThatIsThere) {
    const Editable backup = Editable::Empty();
    const auto *const directory = backup.MakeDirectory(kDomain, "a");
    EXPECT_EQ(backup.MakeDirectory(kDomain, "a"), directory);
    EXPECT_EQ(backup.Entries().size(), 2u);
}

TEST(CreateDirectory, ChangesNothingWhereAFileIs) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "a", "text");
    const auto before = backup.Entries();
    EXPECT_EQ(backup.MakeDirectory(kDomain, "a"), nullptr);
    EXPECT_EQ(backup.Entries(), before);
}

TEST(CreateDirectory, ChangesNothingWhereALinkIs) {
    const Editable backup = Editable::Empty();
    backup.Link(kDomain, "a", "b");
    const auto before = backup.Entries();
    EXPECT_EQ(backup.MakeDirectory(kDomain, "a"), nullptr);
    EXPECT_EQ(backup.Entries(), before);
}

// ---- Links

TEST(CreateSymlink, MakesTheRootFirst) {
    const Editable backup = Editable::Empty();
    const auto *const link = backup.Link(kDomain, "a", "../target");
    ASSERT_NE(link, nullptr);
    EXPECT_EQ(backup.Entries(), (std::vector<const void *>{backup.Entry(kDomain, ""), link}));
    EXPECT_EQ(KVManifestEntryGetFileMode(link), 0120755);
    EXPECT_EQ(CF::String::GetUTF8(KVManifestEntryGetTarget(link)), "../target");
}

TEST(CreateSymlink, ReplacesALink) {
    const Editable backup = Editable::Empty();
    backup.Link(kDomain, "a", "first");
    const auto *const link = backup.Link(kDomain, "a", "second");
    EXPECT_EQ(backup.Entry(kDomain, "a"), link);
    EXPECT_EQ(CF::String::GetUTF8(KVManifestEntryGetTarget(link)), "second");
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{"", "a"}));
}

TEST(CreateSymlink, ChangesNothingWhereAFileIs) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "a", "text");
    const auto before = backup.Entries();
    EXPECT_EQ(backup.Link(kDomain, "a", "b"), nullptr);
    EXPECT_EQ(backup.Entries(), before);
}

TEST(CreateSymlink, ChangesNothingWhereADirectoryIs) {
    const Editable backup = Editable::Empty();
    backup.MakeDirectory(kDomain, "a");
    const auto before = backup.Entries();
    EXPECT_EQ(backup.Link(kDomain, "a", "b"), nullptr);
    EXPECT_EQ(backup.Entries(), before);
}

// ---- Removing

TEST(RemovePath, RemovesAFileAlone) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "a/b", "1");
    backup.Store(kDomain, "a/bc", "2");
    EXPECT_TRUE(backup.Remove(kDomain, "a/b"));
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{"", "a", "a/bc"}));
    EXPECT_EQ(backup.Entry(kDomain, "a/b"), nullptr);
}

TEST(RemovePath, RemovesADirectoryWithAllBelow) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "a/b/c", "1");
    backup.Store(kDomain, "a!", "2");
    EXPECT_TRUE(backup.Remove(kDomain, "a"));
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{"", "a!"}));
}

TEST(RemovePath, RemovesWhatLiesBelowADirectoryWithoutAnEntry) {
    const Editable backup = Editable::Empty();
    backup.MakeDirectory(kDomain, "a/b");
    EXPECT_TRUE(backup.Remove(kDomain, "a"));
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{""}));
}

TEST(RemovePath, OfTheEmptyPathDropsTheDomain) {
    const Editable backup = Editable::Sample(kPlain);
    const auto file = FindFileOfSize(kPlain, 17);
    const std::string domain = file.at("domain");
    EXPECT_TRUE(backup.Remove(domain, ""));
    EXPECT_TRUE(backup.Paths(domain).empty());
    EXPECT_EQ(
        CF::Array::Adopt(KVManifestCopyEntriesInDomain(backup.manifest(), CF::String(domain).get()))
            .get(),
        nullptr);
    EXPECT_FALSE(backup.Entries().empty());
}

TEST(RemovePath, OfNothingSucceedsAndChangesNothing) {
    const Editable backup = Editable::Sample(kPlain);
    const auto before = backup.Entries();
    EXPECT_TRUE(backup.Remove(kDomain, "nothing"));
    EXPECT_EQ(backup.Entries(), before);
}

TEST(RemovePath, UncoversTheEarlierOfTwoEntries) {
    const Editable backup = Editable::Empty();
    KVBackupContainerAddEntry(backup.get(), FileEntry("note", "first").get(), nullptr);
    KVBackupContainerAddEntry(backup.get(), FileEntry("note", "second").get(), nullptr);
    EXPECT_TRUE(backup.Remove(kDomain, "note"));
    EXPECT_EQ(backup.Content(kDomain, "note"), "first");
}

TEST(RemovePath, SparesAnotherEntryThatHasTheFileID) {
    const BackupCopy copy(kPlain);
    const auto file = FindFileOfSize(kPlain, 17);
    const auto id = CF::String::Adopt(
        KVManifestEntryCopyFileIDForPath(CF::String(kDomain).get(), CFSTR("note")));
    copy.EditDatabase("UPDATE Files SET fileID='" + id.GetUTF8() + "' WHERE fileID='" +
                      file.at("fileID").get<std::string>() + "'");
    const Editable backup(OpenPath(copy.root()));
    const auto before = backup.Entries();
    EXPECT_TRUE(backup.Remove(kDomain, "note"));
    EXPECT_EQ(backup.Entries(), before);
}

// ---- Copies

TEST(CreateCopy, IsEditedByItself) {
    const Editable backup = Editable::Sample(kPlain);
    const Editable copy(
        Opened{Container(CF::adopt, KVBackupContainerCreateCopy(nullptr, backup.get())), {}});
    const auto before = backup.Entries();
    copy.Store(kDomain, "note", "text");
    EXPECT_EQ(backup.Entries(), before);
    EXPECT_EQ(copy.Content(kDomain, "note"), "text");
}

TEST(CreateCopy, OfAnEditedContainerHoldsTheEdits) {
    const Editable backup = Editable::Sample(kEncrypted);
    backup.Store(kDomain, "note", "text");
    const Editable copy(
        Opened{Container(CF::adopt, KVBackupContainerCreateCopy(nullptr, backup.get())), {}});
    EXPECT_EQ(copy.Content(kDomain, "note"), "text");
    EXPECT_TRUE(KVBackupContainerIsEncrypted(copy.get()));
}

TEST(CreateCopy, StoresEncryptedWithoutThePassword) {
    const Editable backup = Editable::Sample(kEncrypted);
    const Editable copy(
        Opened{Container(CF::adopt, KVBackupContainerCreateCopy(nullptr, backup.get())), {}});
    EXPECT_FALSE(copy.Store(kDomain, "note", "text"));
    EXPECT_EQ(KVManifestEntryGetFileSize(copy.Entry(kDomain, "note")), 16);
}

} // namespace
} // namespace container_tests
