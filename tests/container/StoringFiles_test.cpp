// Storing and replacing files in a container.
#include "tests/container/EditFixture.hpp"

#include "container/KVBackupContainerClass.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "support/zk/Encryption.hpp"

namespace container_tests {
namespace {

constexpr const char *kDomain = "AppDomain-com.example.new";

std::vector<std::uint8_t> BytesOf(CFDataRef data) {
    const auto bytes = CF::Data(data).GetBytes();
    return {bytes.begin(), bytes.end()};
}

TEST(StoreFile, MakesTheRootAndAllParents) {
    const Editable backup = Editable::Empty();
    EXPECT_FALSE(backup.Store(kDomain, "a/b/c", "text"));
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{"", "a", "a/b", "a/b/c"}));
    EXPECT_TRUE(KVManifestEntryIsDirectory(backup.Entry(kDomain, "")));
    EXPECT_TRUE(KVManifestEntryIsDirectory(backup.Entry(kDomain, "a")));
    EXPECT_TRUE(KVManifestEntryIsDirectory(backup.Entry(kDomain, "a/b")));
    EXPECT_TRUE(KVManifestEntryIsFile(backup.Entry(kDomain, "a/b/c")));
}

TEST(StoreFile, AppendsTheParentsBeforeTheFile) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "a/b", "text");
    EXPECT_EQ(backup.Entries(),
              (std::vector<const void *>{backup.Entry(kDomain, ""), backup.Entry(kDomain, "a"),
                                         backup.Entry(kDomain, "a/b")}));
}

TEST(StoreFile, LeavesParentsThatAreThere) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "a/b", "1");
    const auto *const parent = backup.Entry(kDomain, "a");
    backup.Store(kDomain, "a/c", "2");
    EXPECT_EQ(backup.Entry(kDomain, "a"), parent);
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{"", "a", "a/b", "a/c"}));
}

TEST(StoreFile, GivesTheContentBack) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "note", "some text");
    EXPECT_EQ(backup.Content(kDomain, "note"), "some text");
}

TEST(StoreFile, MakesEntriesOfTheUserFromOutside) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "note", "some text");
    const auto *const entry = backup.Entry(kDomain, "note");
    EXPECT_EQ(KVManifestEntryGetFileMode(entry), 0100644);
    EXPECT_EQ(KVManifestEntryGetFileType(entry), 1);
    EXPECT_EQ(KVManifestEntryGetProtectionClass(entry), kEntryProtectionClassNone);
    EXPECT_TRUE(KVManifestEntryIsExternal(entry));
    EXPECT_EQ(KVManifestEntryGetFileSize(entry), 9);
}

TEST(StoreFile, RefusesNoFile) {
    const Editable backup = Editable::Empty();
    EXPECT_TRUE(IsError(backup.StoreFile(kDomain, "note", nullptr), kKVErrorInvalidArgument,
                        "No file reference"));
    EXPECT_TRUE(backup.Entries().empty());
}

TEST(StoreFile, RefusesContentThatIsGoneAndChangesNothing) {
    const Editable backup = Editable::Empty();
    const File file = Editable::FileOf("soon gone");
    fs::remove(CF::String::GetUTF8(KVFileGetLocalPath(file.get())));
    EXPECT_TRUE(IsError(backup.StoreFile(kDomain, "a/note", file.get()), kKVErrorCachedFileAccess,
                        "No valid cache reference available for created file "
                        "(277daaef9d80b30287d611fb4265745534e9ca11)"));
    EXPECT_TRUE(backup.Entries().empty());
}

TEST(StoreFile, KeepsTheAttributesOfTheFileThatItReplaces) {
    const Editable backup = Editable::Sample(kPlain);
    const auto file = FindFileOfClass(kPlain, 3);
    const std::string domain = file.at("domain");
    const std::string path = file.at("path");
    const auto count = backup.Entries().size();
    ASSERT_FALSE(backup.Store(domain, path, "new content"));
    const auto *const entry = backup.Entry(domain, path);
    EXPECT_EQ(KVManifestEntryGetFileMode(entry), file.at("mode"));
    EXPECT_EQ(entry->uid, file.at("uid"));
    EXPECT_EQ(KVManifestEntryGetProtectionClass(entry), kEntryProtectionClassCompleteUntilUnlocked);
    EXPECT_EQ(static_cast<std::int64_t>(entry->lastModified + kCFAbsoluteTimeIntervalSince1970),
              file.at("modified"));
    EXPECT_EQ(backup.Content(domain, path), "new content");
    EXPECT_EQ(backup.Entries().size(), count);
}

TEST(StoreFile, TakesTheLastPlaceOfTheEntries) {
    const Editable backup = Editable::Sample(kPlain);
    const auto file = FindFileOfClass(kPlain, 4);
    backup.Store(file.at("domain"), file.at("path"), "new content");
    EXPECT_EQ(backup.Entries().back(), backup.Entry(file.at("domain"), file.at("path")));
}

TEST(StoreFile, OverADirectoryRemovesEverythingBelow) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "a/b/c", "1");
    backup.Store(kDomain, "ab", "2");
    EXPECT_FALSE(backup.Store(kDomain, "a", "3"));
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{"", "a", "ab"}));
    EXPECT_EQ(backup.Content(kDomain, "a"), "3");
    EXPECT_EQ(KVManifestEntryGetFileMode(backup.Entry(kDomain, "a")), 0100644);
}

TEST(StoreFile, OverALinkTakesOverTheLinksMode) {
    const Editable backup = Editable::Empty();
    backup.Link(kDomain, "link", "target");
    EXPECT_FALSE(backup.Store(kDomain, "link", "content"));
    EXPECT_TRUE(KVManifestEntryIsSymlink(backup.Entry(kDomain, "link")));
}

TEST(StoreFile, AtTheEmptyPathReplacesTheDomain) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "a/b", "1");
    EXPECT_FALSE(backup.Store(kDomain, "", "root"));
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{""}));
    EXPECT_TRUE(KVManifestEntryIsFile(backup.Entry(kDomain, "")));
}

TEST(StoreFile, TakesEmptyComponentsAsTheyAre) {
    const Editable backup = Editable::Empty();
    EXPECT_FALSE(backup.Store(kDomain, "a//b", "1"));
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{"", "a", "a/", "a//b"}));
}

TEST(StoreFile, CountsInTheTotals) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "a/b", "12345");
    backup.Store(kDomain, "a/c", "12");
    EXPECT_EQ(KVManifestGetTotalFileSize(backup.manifest()), 7);
    EXPECT_EQ(KVManifestGetTotalFileCount(backup.manifest()), 2);
    backup.Store(kDomain, "a/b", "1");
    EXPECT_EQ(KVManifestGetTotalFileSize(backup.manifest()), 3);
    EXPECT_EQ(KVManifestGetTotalFileCount(backup.manifest()), 2);
}

TEST(StoreFile, LeavesArraysGotBeforeAsTheyWere) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "a", "1");
    const CF::Array before(KVManifestGetEntries(backup.manifest()));
    const auto domain = CF::Array::Adopt(
        KVManifestCopyEntriesInDomain(backup.manifest(), CF::String(kDomain).get()));
    backup.Store(kDomain, "b", "2");
    backup.Remove(kDomain, "a");
    EXPECT_EQ(before.GetCount(), 2);
    EXPECT_EQ(domain.GetCount(), 2);
}

// A file that decrypts while it is read holds other bytes on disk than it delivers.
TEST(StoreFile, StoresWhatACryptedFileDelivers) {
    const Editable encrypted = Editable::Sample(kEncrypted);
    const auto expected = FindFileOfSize(kEncrypted, 32769);
    const CopiedFile file =
        CopyFileForPath(encrypted.opened(), expected.at("domain"), expected.at("path"));
    ASSERT_TRUE(file.file);
    const Editable backup = Editable::Empty();
    ASSERT_FALSE(backup.StoreFile(kDomain, "copy", file.file.get()));
    const CopiedFile copy = CopyFileForPath(backup.opened(), kDomain, "copy");
    EXPECT_EQ(SHA256(ReadContent(copy.file.get())), expected.at("sha256"));
    EXPECT_EQ(KVManifestEntryGetFileSize(backup.Entry(kDomain, "copy")), 32769);
}

TEST(StoreFile, RefusesAFileIDThatAnotherEntryHas) {
    const BackupCopy copy(kPlain);
    const auto file = FindFileOfSize(kPlain, 17);
    const auto id = CF::String::Adopt(
        KVManifestEntryCopyFileIDForPath(CF::String(kDomain).get(), CFSTR("note")));
    copy.EditDatabase("UPDATE Files SET fileID='" + id.GetUTF8() + "' WHERE fileID='" +
                      file.at("fileID").get<std::string>() + "'");
    const Editable backup(OpenPath(copy.root()));
    const auto count = backup.Entries().size();
    EXPECT_TRUE(IsError(backup.Store(kDomain, "note", "text"), kKVErrorInvalidArgument,
                        "File ID (" + id.GetUTF8() + ") belongs to another entry (" +
                            file.at("domain").get<std::string>() + "-" +
                            file.at("path").get<std::string>() + ")"));
    EXPECT_EQ(backup.Entries().size(), count);
}

TEST(StoreFile, ReplacesAnEntryWhoseFileIDIsAnother) {
    const BackupCopy copy(kPlain);
    const auto file = FindFileOfSize(kPlain, 17);
    copy.EditDatabase("UPDATE Files SET fileID='" + std::string(40, 'a') + "' WHERE fileID='" +
                      file.at("fileID").get<std::string>() + "'");
    const Editable backup(OpenPath(copy.root()));
    const auto count = backup.Entries().size();
    EXPECT_FALSE(backup.Store(file.at("domain"), file.at("path"), "text"));
    EXPECT_EQ(backup.Entries().size(), count);
    EXPECT_EQ(backup.Content(file.at("domain"), file.at("path")), "text");
}

// ---- Encrypted backups

TEST(StoreFileEncrypted, GivesANewFileAKeyOfItsOwn) {
    const Editable backup = Editable::Sample(kEncrypted);
    ASSERT_FALSE(backup.Store(kDomain, "note", "some text"));
    const auto *const entry = backup.Entry(kDomain, "note");
    EXPECT_EQ(CFDataGetLength(KVManifestEntryGetEncryptionData(entry)), 44);
    EXPECT_EQ(backup.Content(kDomain, "note"), "some text");
}

TEST(StoreFileEncrypted, RecordsSizeAndDigestOfTheStoredContent) {
    const Editable backup = Editable::Sample(kEncrypted);
    backup.Store(kDomain, "note", "some text");
    const auto *const entry = backup.Entry(kDomain, "note");
    EXPECT_EQ(KVManifestEntryGetFileSize(entry), 16);
    const std::string id = CF::String::GetUTF8(KVManifestEntryGetFileID(entry));
    const CopiedFile stored = CopyFileForName(backup.opened(), id.substr(0, 2) + "/" + id);
    ASSERT_TRUE(stored.file);
    const auto bytes = ReadContent(stored.file.get());
    EXPECT_EQ(bytes.size(), 16u);
    EXPECT_EQ(BytesOf(KVManifestEntryGetDataHash(entry)), ZK::Encryption::Hash(bytes));
}

TEST(StoreFileEncrypted, FailsOverAFileOfADevicesClass) {
    const Editable backup = Editable::Sample(kEncrypted);
    const auto file = FindFileOfClass(kEncrypted, 3);
    const auto before = backup.Entries();
    EXPECT_TRUE(IsError(backup.Store(file.at("domain"), file.at("path"), "new"),
                        kKVErrorInvalidArgument,
                        "Impossible to generate a file key for an entry that already has one "
                        "(protection class CompleteUntilUnlocked)"));
    EXPECT_EQ(backup.Entries(), before);
}

TEST(StoreFileEncrypted, FailsOverALinkAndChangesNothing) {
    const Editable backup = Editable::Sample(kEncrypted);
    const auto link = FindOfType(kEncrypted, "symlink");
    const auto before = backup.Entries();
    EXPECT_TRUE(IsError(backup.Store(link.at("domain"), link.at("path"), "new"),
                        kKVErrorInvalidArgument,
                        "Impossible to generate a file key for an entry that doesn't represent a "
                        "file"));
    EXPECT_EQ(backup.Entries(), before);
}

TEST(StoreFileEncrypted, ReplacesAFileOfClassNone) {
    const Editable backup = Editable::Sample(kEncrypted);
    const auto file = FindFileOfClass(kEncrypted, 4);
    EXPECT_FALSE(backup.Store(file.at("domain"), file.at("path"), "new"));
    EXPECT_EQ(backup.Content(file.at("domain"), file.at("path")), "new");
}

// ---- Replacing

class ReplaceFile : public testing::TestWithParam<int> {};

TEST_P(ReplaceFile, KeepsTheClassUnderAFreshKey) {
    const Editable backup = Editable::Sample(kEncrypted);
    const auto file = FindFileOfClass(kEncrypted, GetParam());
    const std::string domain = file.at("domain");
    const std::string path = file.at("path");
    const auto oldKey = BytesOf(KVManifestEntryGetEncryptionData(backup.Entry(domain, path)));
    ASSERT_FALSE(backup.Replace(domain, path, "new content"));
    const auto *const entry = backup.Entry(domain, path);
    EXPECT_EQ(static_cast<int>(KVManifestEntryGetProtectionClass(entry)), GetParam());
    EXPECT_EQ(KVManifestEntryGetFileMode(entry), file.at("mode"));
    const auto newKey = BytesOf(KVManifestEntryGetEncryptionData(entry));
    ASSERT_EQ(newKey.size(), 44u);
    EXPECT_NE(newKey, oldKey);
    EXPECT_EQ(newKey[0], GetParam()) << "the blob begins with its class";
    EXPECT_EQ(backup.Content(domain, path), "new content");
}

TEST_P(ReplaceFile, WrapsTheKeyThatTheContentIsEncryptedWith) {
    const Editable backup = Editable::Sample(kEncrypted);
    const auto file = FindFileOfClass(kEncrypted, GetParam());
    ASSERT_FALSE(backup.Replace(file.at("domain"), file.at("path"), "new content"));
    const auto *const entry = backup.Entry(file.at("domain"), file.at("path"));
    const auto key =
        backup.get()->encryption->UnlockKey(CF::Data(KVManifestEntryGetEncryptionData(entry)));
    EXPECT_EQ(key, KVManifestEntryGetUnlockedFileKey(entry, *backup.get()->encryption, nullptr));
    const std::string id = file.at("fileID");
    const CopiedFile stored = CopyFileForName(backup.opened(), id.substr(0, 2) + "/" + id);
    const File ciphertext(CF::adopt, KVFileCreateFromData(ReadContent(stored.file.get()), nullptr));
    KVFileEnableDecryption(ciphertext.get(), key);
    EXPECT_EQ(Editable::Text(ciphertext), "new content");
}

INSTANTIATE_TEST_SUITE_P(Classes, ReplaceFile, testing::Values(1, 2, 3, 4));

TEST(ReplaceFile, InAPlainBackupKeepsAttributesToo) {
    const Editable backup = Editable::Sample(kPlain);
    const auto file = FindFileOfClass(kPlain, 2);
    ASSERT_FALSE(backup.Replace(file.at("domain"), file.at("path"), "new"));
    const auto *const entry = backup.Entry(file.at("domain"), file.at("path"));
    EXPECT_EQ(KVManifestEntryGetFileMode(entry), file.at("mode"));
    EXPECT_EQ(KVManifestEntryGetProtectionClass(entry), kEntryProtectionClassWriteOnly);
    EXPECT_EQ(backup.Content(file.at("domain"), file.at("path")), "new");
}

TEST(ReplaceFile, KeepsExtendedAttributes) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "note", "old");
    const auto properties = CF::Dictionary::Mutable();
    properties.Set(CFSTR("name"), CF::Data(std::vector<std::uint8_t>{1, 2}).get());
    backup.Entry(kDomain, "note")->properties = CF::Pointer<CFDictionaryRef>(properties.get());
    backup.Replace(kDomain, "note", "new");
    EXPECT_TRUE(
        CFEqual(KVManifestEntryGetProperties(backup.Entry(kDomain, "note")), properties.get()));
}

TEST(ReplaceFile, RemovesALinkFirst) {
    for (const char *const sample : {kPlain, kEncrypted}) {
        const Editable backup = Editable::Sample(sample);
        const auto link = FindOfType(sample, "symlink");
        ASSERT_FALSE(backup.Replace(link.at("domain"), link.at("path"), "new"));
        const auto *const entry = backup.Entry(link.at("domain"), link.at("path"));
        EXPECT_EQ(KVManifestEntryGetFileMode(entry), 0100644);
        EXPECT_EQ(KVManifestEntryGetProtectionClass(entry), kEntryProtectionClassNone);
        EXPECT_EQ(backup.Content(link.at("domain"), link.at("path")), "new");
    }
}

TEST(ReplaceFile, OverNothingStoresANewFile) {
    const Editable backup = Editable::Sample(kEncrypted);
    EXPECT_FALSE(backup.Replace(kDomain, "a/note", "new"));
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{"", "a", "a/note"}));
    EXPECT_EQ(backup.Content(kDomain, "a/note"), "new");
}

TEST(ReplaceFile, OverADirectoryRemovesEverythingBelow) {
    const Editable backup = Editable::Sample(kEncrypted);
    backup.Store(kDomain, "a/b/c", "1");
    EXPECT_FALSE(backup.Replace(kDomain, "a", "2"));
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{"", "a"}));
}

TEST(ReplaceFile, ReplacesItsOwnReplacement) {
    const Editable backup = Editable::Sample(kEncrypted);
    const auto file = FindFileOfClass(kEncrypted, 1);
    EXPECT_FALSE(backup.Replace(file.at("domain"), file.at("path"), "first"));
    EXPECT_FALSE(backup.Replace(file.at("domain"), file.at("path"), "second"));
    EXPECT_EQ(backup.Content(file.at("domain"), file.at("path")), "second");
}

TEST(ReplaceFile, FailsForAClassWithoutAKeyAndChangesNothing) {
    const Editable backup = Editable::Sample(kEncrypted);
    backup.Store(kDomain, "note", "old");
    backup.Entry(kDomain, "note")->protectionClass = kEntryProtectionClassNotSet;
    const auto before = backup.Entries();
    const CF::Error error = backup.Replace(kDomain, "note", "new");
    EXPECT_TRUE(IsError(error, kKVErrorCrypto, "Failed to generate a file key for entry"));
    EXPECT_TRUE(IsError(error.GetUnderlying(), kKVErrorInvalidKeyBag, "Missing key class 0"));
    EXPECT_EQ(backup.Entries(), before);
}

TEST(ReplaceFile, RefusesNoFile) {
    const Editable backup = Editable::Empty();
    CFErrorRef error = nullptr;
    EXPECT_FALSE(
        KVBackupContainerReplaceFileForPath(backup.get(), CFSTR("D"), CFSTR("p"), nullptr, &error));
    EXPECT_TRUE(IsError(CF::Error::Adopt(error), kKVErrorInvalidArgument, "No file reference"));
}

} // namespace
} // namespace container_tests
