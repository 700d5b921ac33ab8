// Edits that would make a backup which cannot be written, or would lose something, and what
// the log says of edits.
#include "tests/container/EditFixture.hpp"

#include "container/KVBackupContainerClass.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "support/zk/Log.hpp"

namespace container_tests {
namespace {

constexpr const char *kDomain = "AppDomain-com.example.new";

// Everything that is logged while it lives, "LEVEL TEXT".
class LogCapture {
  public:
    LogCapture() { ZLLogSetSink(&LogCapture::receive, this, kZLLogLevelDetail); }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    ~LogCapture() { ZLLogSetSink(nullptr, nullptr, 0); }

    bool Has(const std::string &text) const {
        return std::any_of(lines_.begin(), lines_.end(), [&](const std::string &line) {
            return line.find(text) != std::string::npos;
        });
    }

  private:
    static void receive(CFStringRef, int level, CFStringRef text, CFErrorRef, void *context) {
        static_cast<LogCapture *>(context)->lines_.push_back(std::to_string(level) + " " +
                                                             CF::String::GetUTF8(text));
    }
    std::vector<std::string> lines_;
};

// Ends in half of a surrogate pair, which no UTF-8 can say.
CF::String LoneSurrogate() {
    const UniChar units[] = {'a', 0xD800};
    return CF::String::Adopt(CFStringCreateWithCharacters(nullptr, units, 2));
}

CF::Error StoreAt(const Editable &backup, const CF::String &domain, const CF::String &path) {
    CFErrorRef error = nullptr;
    const File file = Editable::FileOf("text");
    EXPECT_FALSE(KVBackupContainerStoreFileForPath(backup.get(), domain, path, file.get(), &error));
    return CF::Error::Adopt(error);
}

std::unique_ptr<Editable> Reopened(const Editable &backup,
                                   const testing_support::TemporaryDirectory &directory,
                                   const OpenArguments &arguments = {}) {
    const std::string target = (directory / "out").string();
    KVBackupExportReport report{};
    EXPECT_TRUE(KVBackupContainerExportToDirectoryWithReport(backup.get(), CF::String(target), {},
                                                             &report));
    EXPECT_EQ(CF::Array::Adopt(report.errors).GetCount(), 0);
    EXPECT_EQ(CF::Array::Adopt(report.notes).GetCount(), 0);
    return std::make_unique<Editable>(OpenPath(target, arguments));
}

TEST(EditGuards, AnEntryTakesThePlaceOfAPlaceholder) {
    const BackupCopy copy(kPlain);
    const auto id = CF::String::Adopt(
        KVManifestEntryCopyFileIDForPath(CF::String(kDomain).get(), CFSTR("note")));
    copy.EditDatabase("INSERT INTO Files VALUES ('" + id.GetUTF8() + "', NULL, NULL, 16, NULL)");
    const Editable backup(OpenPath(copy.root()));
    ASSERT_FALSE(backup.Store(kDomain, "note", "text"));
    const testing_support::TemporaryDirectory directory;
    EXPECT_EQ(Reopened(backup, directory)->Content(kDomain, "note"), "text");
}

TEST(EditGuards, RefuseAFileThatIsStillAppendable) {
    for (const char *const sample : {kPlain, kEncrypted}) {
        const Editable backup = Editable::Sample(sample);
        const auto before = backup.Entries();
        const File file(CF::adopt, KVFileCreateAppendable(nullptr));
        const CF::Error error = backup.StoreFile(kDomain, "note", file.get());
        EXPECT_TRUE(IsError(error, kKVErrorCachedFileAccess,
                            "No valid cache reference available for created file ()"));
        EXPECT_TRUE(IsError(error.GetUnderlying(), kKVErrorInvalidArgument,
                            "File reference is still appendable"));
        EXPECT_EQ(backup.Entries(), before);
    }
}

TEST(EditGuards, RefuseTextsWithoutAnEncoding) {
    const Editable backup = Editable::Empty();
    const CF::String domain(kDomain);
    const CF::String bad = LoneSurrogate();
    const char *const reason = "Text cannot be encoded as UTF-8";
    EXPECT_TRUE(IsError(StoreAt(backup, domain, bad), kKVErrorInvalidArgument, reason));
    EXPECT_TRUE(IsError(StoreAt(backup, bad, domain), kKVErrorInvalidArgument, reason));
    EXPECT_EQ(KVBackupContainerCreateDirectoryAtPath(backup.get(), domain, bad), nullptr);
    EXPECT_EQ(KVBackupContainerCreateSymlinkAtPath(backup.get(), domain, bad, domain), nullptr);
    EXPECT_EQ(KVBackupContainerCreateSymlinkAtPath(backup.get(), domain, domain, bad), nullptr);
    EXPECT_TRUE(backup.Entries().empty());
}

// A reader takes a row without a domain for a bad one, and refuses the whole manifest.
TEST(EditGuards, RefuseTheEmptyDomain) {
    const Editable backup = Editable::Empty();
    EXPECT_TRUE(IsError(backup.Store("", "note", "text"), kKVErrorInvalidArgument,
                        "An entry must have a domain"));
    EXPECT_EQ(backup.MakeDirectory("", "note"), nullptr);
    EXPECT_EQ(backup.Link("", "note", "target"), nullptr);
    EXPECT_TRUE(backup.Entries().empty());
}

TEST(EditGuards, RemoveAnEntryWithoutADomain) {
    const Editable backup = Editable::Empty();
    auto entries = CF::Array::Mutable();
    entries.Append(
        CF::Adopt(KVManifestEntryCreateForDirectory(nullptr, CFSTR(""), CFSTR("a"))).get());
    KVManifestUpdateEntries(backup.manifest(), entries);
    EXPECT_TRUE(backup.Remove("", "a"));
    EXPECT_TRUE(backup.Entries().empty());
}

TEST(EditGuards, RefusePathsOfTooManyLevels) {
    const Editable backup = Editable::Empty();
    std::string path = "a";
    for (int level = 1; level < 1024; ++level) {
        path += "/a";
    }
    EXPECT_FALSE(backup.Store(kDomain, path, "text"));
    const auto before = backup.Entries();
    EXPECT_TRUE(IsError(backup.Store(kDomain, path + "/a", "text"), kKVErrorInvalidArgument,
                        "Path is too long or too deep (1025 levels)"));
    EXPECT_TRUE(IsError(backup.Store(kDomain, std::string(16385, 'a'), "text"),
                        kKVErrorInvalidArgument, "Path is too long or too deep (1 levels)"));
    EXPECT_EQ(backup.Entries(), before);
}

// "A-B" and "C" make the same file ID as "A" and "B-C".
TEST(EditGuards, RefuseASecondPathForAFileID) {
    const Editable backup = Editable::Empty();
    backup.Store("A-B", "C", "text");
    const auto other =
        CF::Adopt(KVManifestEntryCreateForDirectory(nullptr, CFSTR("A"), CFSTR("B-C")));
    CFErrorRef error = nullptr;
    EXPECT_EQ(KVBackupContainerAddEntry(backup.get(), other.get(), &error), nullptr);
    EXPECT_TRUE(IsError(CF::Error::Adopt(error), kKVErrorInvalidArgument,
                        "File ID (" + CF::String::GetUTF8(KVManifestEntryGetFileID(other.get())) +
                            ") belongs to another entry (A-B-C)"));
    EXPECT_FALSE(backup.MakeDirectory("A", "B-C"));
    EXPECT_EQ(backup.Entries().size(), 2u);
}

TEST(EditGuards, AFileAtTheRootTakesThePlaceOfADomainWithoutARoot) {
    const Editable backup = Editable::Empty();
    const auto entry =
        CF::Adopt(KVManifestEntryCreateForDirectory(nullptr, CF::String(kDomain), CFSTR("d")));
    KVBackupContainerAddEntry(backup.get(), entry.get(), nullptr);
    EXPECT_FALSE(backup.Store(kDomain, "", "root"));
    EXPECT_EQ(backup.Paths(kDomain), (std::multiset<std::string>{""}));
}

// The content from outside lies plain; size and digest were those of its encrypted form.
TEST(EditGuards, AnEntryFromOutsideLosesItsKeyInAPlainContainer) {
    const Editable encrypted = Editable::Sample(kEncrypted);
    encrypted.Store(kDomain, "note", "t");
    const Editable plain = Editable::Empty();
    const auto *const added =
        KVBackupContainerAddEntry(plain.get(), encrypted.Entry(kDomain, "note"), nullptr);
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(KVManifestEntryGetFileSize(added), 1);
    EXPECT_EQ(CFDataGetLength(KVManifestEntryGetEncryptionData(added)), 0);
    EXPECT_EQ(plain.Content(kDomain, "note"), "t");
    EXPECT_EQ(KVManifestEntryGetFileSize(encrypted.Entry(kDomain, "note")), 16);
}

TEST(EditGuards, ACopyIsWrittenEncryptedWithoutThePassword) {
    const Editable backup = Editable::Sample(kEncrypted);
    const Editable copy(
        Opened{Container(CF::adopt, KVBackupContainerCreateCopy(nullptr, backup.get())), {}});
    copy.Store(kDomain, "note", "text");
    const testing_support::TemporaryDirectory directory;
    const OpenArguments arguments{SamplePassword(), kKVBackupOpenKeepDeviceBoundKeysLocked, {}};
    EXPECT_EQ(Reopened(copy, directory, arguments)->Content(kDomain, "note"), "text");
}

TEST(EditLog, NamesANewEntry) {
    const Editable backup = Editable::Empty();
    const LogCapture log;
    backup.Store(kDomain, "note", "text");
    EXPECT_TRUE(log.Has("1 KVBackupContainerStoreFileForPath: Generated new entry "
                        "<KVManifestEntry "));
    EXPECT_FALSE(log.Has("(replacing"));
}

TEST(EditLog, NamesAReplacedFile) {
    const Editable backup = Editable::Empty();
    backup.Store(kDomain, "note", "text");
    const LogCapture log;
    backup.Replace(kDomain, "note", "new");
    EXPECT_TRUE(log.Has("1 KVBackupContainerReplaceFileForPath: Generated new entry "));
    EXPECT_TRUE(log.Has(" (replacing FILE <KVManifestEntry "));
}

TEST(EditLog, NamesAReplacedDirectory) {
    const Editable backup = Editable::Empty();
    backup.MakeDirectory(kDomain, "note");
    const LogCapture log;
    backup.Store(kDomain, "note", "new");
    EXPECT_TRUE(log.Has(" (replacing DIRECTORY <KVManifestEntry "));
}

TEST(EditLog, NamesAFileWithoutAnEntry) {
    const Editable backup = Editable::Empty();
    const File file = Editable::FileOf("soon gone");
    fs::remove(CF::String::GetUTF8(KVFileGetLocalPath(file.get())));
    const LogCapture log;
    backup.StoreFile(kDomain, "note", file.get());
    EXPECT_TRUE(log.Has("8 KVBackupContainerStoreFileForPath: Failed to generate entry for "
                        "AppDomain-com.example.new:note"));
}

} // namespace
} // namespace container_tests
