// The content of entries, and copies of entries.

#include "Entries.hpp"
#include "manifest/EntryFromMBFile.hpp"

using namespace EntryTest;

namespace {

// An entry that was read from a manifest, with the loader.
Entry readEntry(const KVGetFileFunction &loader, std::uint16_t mode = 0100644) {
    auto entry = Kelvane::AllocateEntry(nullptr);
    Kelvane::SetEntryPath(*entry.get(), CFSTR("D"), CFSTR("p"));
    entry.get()->mode = mode;
    entry.get()->fileID = CFSTR("the file ID");
    entry.get()->lastModified = 1234.5;
    entry.get()->getFileFunc = Kelvane::ShareFileLoader(loader);
    return entry;
}

CFErrorRef loadingError() { return CFErrorCreate(nullptr, CFSTR("Loader"), 77, nullptr); }

} // namespace

TEST(EntryContent, IsLoadedOnceByFileID) {
    int calls = 0;
    std::string asked;
    const Entry entry = readEntry([&](CFStringRef fileID, CFErrorRef *) {
        ++calls;
        asked = textOf(fileID);
        return makeFile("content").detach();
    });
    KVFileClass *const first = KVManifestEntryGetFile(entry.get(), nullptr);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(KVManifestEntryGetFile(entry.get(), nullptr), first);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(asked, "the file ID");
    EXPECT_EQ(entry.get()->getFileFunc, nullptr);
}

TEST(EntryContent, TakesTheEntrysModificationTime) {
    const Entry entry =
        readEntry([](CFStringRef, CFErrorRef *) { return makeFile("dated").detach(); });
    KVFileClass *const file = KVManifestEntryGetFile(entry.get(), nullptr);
    EXPECT_EQ(CFDateGetAbsoluteTime(KVFileGetModifiedDate(file)), 1234.5);
}

TEST(EntryContent, IsNoneForADirectory) {
    int calls = 0;
    const Entry entry = readEntry(
        [&](CFStringRef, CFErrorRef *) {
            ++calls;
            return static_cast<KVFileClass *>(nullptr);
        },
        040755);
    ErrorOut error;
    EXPECT_EQ(KVManifestEntryGetFile(entry.get(), error.out()), nullptr);
    EXPECT_FALSE(error.isSet());
    EXPECT_EQ(calls, 0);
}

TEST(EntryContent, FailsWithoutALoader) {
    const Entry entry = readEntry({});
    ErrorOut error;
    EXPECT_EQ(KVManifestEntryGetFile(entry.get(), error.out()), nullptr);
    const Failure failure = error.get();
    EXPECT_EQ(failure.domain, "Kelvane.ErrorDomain");
    EXPECT_EQ(failure.code, 2);
    EXPECT_EQ(failure.reason, "Tried to get a File ref for entry, but getFileFunc is not set!");
    EXPECT_EQ(KVManifestEntryGetFile(entry.get(), nullptr), nullptr);
}

TEST(EntryContent, HandsOnTheLoadersErrorAndTriesAgain) {
    int calls = 0;
    const Entry entry = readEntry([&](CFStringRef, CFErrorRef *error) -> KVFileClass * {
        if (++calls > 1) {
            return makeFile("second try").detach();
        }
        *error = loadingError();
        return nullptr;
    });
    ErrorOut error;
    EXPECT_EQ(KVManifestEntryGetFile(entry.get(), error.out()), nullptr);
    EXPECT_EQ(error.get().domain, "Loader");
    EXPECT_EQ(error.get().code, 77);
    ErrorOut none;
    EXPECT_NE(KVManifestEntryGetFile(entry.get(), none.out()), nullptr);
    EXPECT_FALSE(none.isSet());
}

TEST(EntryContent, ReportsAnErrorThatTheLoaderThrows) {
    const Entry entry = readEntry(
        [](CFStringRef, CFErrorRef *) -> KVFileClass * { throw CF::Error::Adopt(loadingError()); });
    ErrorOut error;
    EXPECT_EQ(KVManifestEntryGetFile(entry.get(), error.out()), nullptr);
    EXPECT_EQ(error.get().code, 77);
}

TEST(EntryContent, IsReleasedWithTheEntry) {
    const File file = makeFile("counted");
    const CFIndex before = CFGetRetainCount(file.get());
    {
        const Entry entry = readEntry([&](CFStringRef, CFErrorRef *) { return file.copyRef(); });
        ASSERT_EQ(KVManifestEntryGetFile(entry.get(), nullptr), file.get());
        EXPECT_EQ(CFGetRetainCount(file.get()), before + 1);
    }
    EXPECT_EQ(CFGetRetainCount(file.get()), before);
}

TEST(EntryContent, SurvivesALoaderThatUsesTheEntry) {
    Entry entry;
    entry = readEntry([&](CFStringRef, CFErrorRef *) {
        entry.get()->getFileFunc = nullptr;
        return makeFile("reentrant").detach();
    });
    EXPECT_NE(KVManifestEntryGetFile(entry.get(), nullptr), nullptr);
}

TEST(EntryCopy, HasEveryMember) {
    const Entry source = makeSymlink("D", "a/b", "target");
    KVManifestEntryClass &body = *source.get();
    body.uid = 1;
    body.gid = 2;
    body.size = 3;
    body.inode = 4;
    body.birth = 5;
    body.lastModified = 6;
    body.lastStatusChange = 7;
    body.dataHash = CF::Data(std::vector<std::uint8_t>{8}).get();
    body.encryptionData = CF::Data(std::vector<std::uint8_t>{9}).get();
    body.fileID = CFSTR("id");
    body.unlockedFileKey = std::make_unique<ZK::SecretArray<32>>();
    body.unlockedFileKey->get()[0] = 10;
    const auto properties = CF::Dictionary::Mutable();
    body.properties = properties.get();
    const Entry copy = CF::Adopt(KVManifestEntryCreateCopy(nullptr, source.get(), {}));
    ASSERT_NE(copy.get(), source.get());
    EXPECT_EQ(textOf(KVManifestEntryGetDomainPathPair(copy.get())), "D-a/b");
    EXPECT_EQ(textOf(KVManifestEntryGetDeviceFilename(copy.get())), "b");
    EXPECT_EQ(textOf(KVManifestEntryGetTarget(copy.get())), "target");
    EXPECT_EQ(textOf(KVManifestEntryGetFileID(copy.get())), "id");
    EXPECT_EQ(copy.get()->givenPath.get(), body.givenPath.get());
    EXPECT_EQ(copy.get()->mode, body.mode);
    EXPECT_EQ(copy.get()->fileType, 4);
    EXPECT_EQ(copy.get()->uid, 1u);
    EXPECT_EQ(copy.get()->gid, 2u);
    EXPECT_EQ(copy.get()->size, 3);
    EXPECT_EQ(copy.get()->inode, 4u);
    EXPECT_EQ(copy.get()->birth, 5);
    EXPECT_EQ(copy.get()->lastModified, 6);
    EXPECT_EQ(copy.get()->lastStatusChange, 7);
    EXPECT_EQ(copy.get()->dataHash.get(), body.dataHash.get());
    EXPECT_EQ(copy.get()->encryptionData.get(), body.encryptionData.get());
    EXPECT_EQ(copy.get()->properties.get(), properties.get());
    EXPECT_TRUE(KVManifestEntryIsExternal(copy.get()));
    ASSERT_NE(copy.get()->unlockedFileKey, nullptr);
    EXPECT_EQ(copy.get()->unlockedFileKey->get()[0], 10);
}

TEST(EntryCopy, SharesTheResolvedContent) {
    const File file = makeFile("shared");
    const Entry source = CF::Adopt(KVManifestEntryCreateForFile(nullptr, file.get(), CFSTR("D"),
                                                                CFSTR("f"), nullptr, nullptr));
    const Entry copy = CF::Adopt(KVManifestEntryCreateCopy(nullptr, source.get(), {}));
    EXPECT_EQ(KVManifestEntryGetFile(copy.get(), nullptr),
              KVManifestEntryGetFile(source.get(), nullptr));
}

TEST(EntryCopy, LoadsThroughItsOwnFunction) {
    const Entry source = readEntry([](CFStringRef, CFErrorRef *) -> KVFileClass * {
        ADD_FAILURE() << "the source's loader";
        return nullptr;
    });
    int calls = 0;
    const Entry copy =
        CF::Adopt(KVManifestEntryCreateCopy(nullptr, source.get(), [&](CFStringRef, CFErrorRef *) {
            ++calls;
            return makeFile("copy").detach();
        }));
    EXPECT_NE(KVManifestEntryGetFile(copy.get(), nullptr), nullptr);
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(KVManifestEntryIsExternal(copy.get()));
}

TEST(EntryCopy, FailsToLoadWithoutAFunction) {
    const Entry source =
        readEntry([](CFStringRef, CFErrorRef *) { return makeFile("source").detach(); });
    const Entry copy = CF::Adopt(KVManifestEntryCreateCopy(nullptr, source.get(), {}));
    ErrorOut error;
    EXPECT_EQ(KVManifestEntryGetFile(copy.get(), error.out()), nullptr);
    EXPECT_EQ(error.get().code, 2);
}
