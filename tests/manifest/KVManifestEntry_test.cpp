#include "Entries.hpp"
#include "tests/support/RunCommand.hpp"

#include <algorithm>
#include <cstdio>

using namespace EntryTest;

namespace {

std::string fileID(const char *domain, const char *path) {
    const auto id =
        CF::String::Adopt(KVManifestEntryCopyFileIDForPath(CF::String(domain), CF::String(path)));
    return id.GetUTF8();
}

std::string sha1(const std::string &text) {
    return testing_support::RunPython(
               "import hashlib, sys; print(hashlib.sha1(sys.stdin.buffer.read()).hexdigest(), "
               "end='')",
               {}, text)
        .output;
}

Entry entryWithMode(unsigned mode) {
    auto entry = Kelvane::AllocateEntry(nullptr);
    entry.get()->mode = static_cast<std::uint16_t>(mode);
    return entry;
}

std::string deviceFilename(const char *path) {
    return textOf(KVManifestEntryGetDeviceFilename(makeDirectory("D", path).get()));
}

struct Attributes {
    std::uint16_t mode = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    CF::Date birth;
    CF::Date modified;
    CF::Date changed;
};
Attributes attributesOf(const Entry &entry) {
    Attributes a;
    CFDateRef birth = nullptr;
    CFDateRef modified = nullptr;
    CFDateRef changed = nullptr;
    KVManifestEntryCopyFilesystemAttributes(entry.get(), &a.mode, &a.uid, &a.gid, &birth, &modified,
                                            &changed);
    a.birth = CF::Date::Adopt(birth);
    a.modified = CF::Date::Adopt(modified);
    a.changed = CF::Date::Adopt(changed);
    return a;
}

} // namespace

TEST(KVManifestEntry, HasOneTypeOfItsName) {
    const CFTypeID type = KVManifestEntryGetTypeID();
    EXPECT_EQ(KVManifestEntryGetTypeID(), type);
    EXPECT_NE(type, KVFileGetTypeID());
    EXPECT_EQ(CFGetTypeID(makeDirectory("D", "p").get()), type);
    EXPECT_EQ(CF::String::Adopt(CFCopyTypeIDDescription(type)).GetUTF8(), "KVManifestEntry");
}

TEST(KVManifestEntry, IsEqualOnlyToItself) {
    const Entry a = makeDirectory("D", "p");
    const Entry b = makeDirectory("D", "p");
    EXPECT_TRUE(CFEqual(a.get(), a.get()));
    EXPECT_FALSE(CFEqual(a.get(), b.get()));
}

TEST(FileID, IsTheDigestOfDomainHyphenAndPath) {
    EXPECT_EQ(fileID("HomeDomain", "Media/abc"), sha1("HomeDomain-Media/abc"));
    EXPECT_EQ(fileID("HomeDomain", ""), sha1("HomeDomain-"));
    EXPECT_EQ(fileID("", ""), sha1("-"));
    EXPECT_EQ(fileID("AppDomain-ü", "Grüße/🌍"), sha1("AppDomain-ü-Grüße/🌍"));
    EXPECT_EQ(fileID("HomeDomain", "Library/SMS/sms.db"),
              "3d0d7e5fb2ce288813306e4d4636395e047a3d28");
}

TEST(FileID, TakesNullForEmpty) {
    const auto id = CF::String::Adopt(KVManifestEntryCopyFileIDForPath(nullptr, nullptr));
    EXPECT_EQ(id.GetUTF8(), sha1("-"));
}

TEST(EntryType, LooksAtThreeBitsOfTheMode) {
    struct Case {
        unsigned mode;
        bool file, directory, symlink;
    };
    for (const Case &c : {Case{0100644, true, false, false}, Case{0x9000, true, false, false},
                          Case{0040755, false, true, false}, Case{0x5000, false, true, false},
                          Case{0120755, false, false, true}, Case{0xB000, false, false, true},
                          Case{0170000, false, false, false}, Case{0xC000, false, false, false},
                          Case{0, false, false, false}}) {
        const Entry entry = entryWithMode(c.mode);
        EXPECT_EQ(KVManifestEntryIsFile(entry.get()), c.file) << c.mode;
        EXPECT_EQ(KVManifestEntryIsDirectory(entry.get()), c.directory) << c.mode;
        EXPECT_EQ(KVManifestEntryIsSymlink(entry.get()), c.symlink) << c.mode;
    }
}

TEST(ProtectionClass, HasFiveNames) {
    EXPECT_EQ(to_string(kEntryProtectionClassNotSet), "NotSet");
    EXPECT_EQ(to_string(kEntryProtectionClassComplete), "Complete");
    EXPECT_EQ(to_string(kEntryProtectionClassWriteOnly), "WriteOnly");
    EXPECT_EQ(to_string(kEntryProtectionClassCompleteUntilUnlocked), "CompleteUntilUnlocked");
    EXPECT_EQ(to_string(kEntryProtectionClassNone), "None");
}

TEST(ProtectionClassDeathTest, EndsTheProcessForAnyOtherValue) {
    EXPECT_DEATH((void)to_string(static_cast<EntryProtectionClass>(5)), " has invalid value ");
    EXPECT_DEATH((void)Kelvane::CodeOfProtectionClass(static_cast<EntryProtectionClass>(77)),
                 " has invalid value ");
}

TEST(ProtectionClass, RefusesOtherCodesFromOutside) {
    EXPECT_EQ(Kelvane::ProtectionClassFromCode(4), kEntryProtectionClassNone);
    for (const std::uint32_t code : {5u, 255u, 0xFFFFFFFFu}) {
        try {
            (void)Kelvane::ProtectionClassFromCode(code);
            ADD_FAILURE() << code;
        } catch (const std::invalid_argument &error) {
            EXPECT_STREQ(error.what(), "invalid protection class code");
        }
    }
}

TEST(EntryTimes, AreWrittenThroughThirtyTwoBits) {
    EXPECT_EQ(Kelvane::WrittenUnixTime(0), 978307200);
    EXPECT_EQ(Kelvane::WrittenUnixTime(-86400), 5273188096);
    EXPECT_EQ(static_cast<std::uint32_t>(Kelvane::WrittenUnixTime(-86400)), 978220800u);
    EXPECT_EQ(Kelvane::WrittenUnixTime(1.9), 978307201);
    EXPECT_EQ(Kelvane::WrittenUnixTime(-0.9), 978307200);
    EXPECT_EQ(Kelvane::WrittenUnixTime(4294967295.0), 978307200 + 4294967295);
    EXPECT_EQ(Kelvane::WrittenUnixTime(4294967296.0), 978307200);
    EXPECT_EQ(Kelvane::WrittenUnixTime(1e300), 978307200);
    EXPECT_EQ(Kelvane::WrittenUnixTime(-1e300), 978307200);
    EXPECT_EQ(Kelvane::WrittenUnixTime(__builtin_nan("")), 978307200);
}

TEST(EntryTimes, AreReadAsUnixSeconds) {
    EXPECT_EQ(Kelvane::AbsoluteTimeFromUnix(978307200), 0);
    EXPECT_EQ(Kelvane::AbsoluteTimeFromUnix(978220800), -86400);
    EXPECT_EQ(Kelvane::AbsoluteTimeFromUnix(0), -978307200);
    EXPECT_EQ(Kelvane::AbsoluteTimeFromUnix(INT64_MIN), -9223372036854775808.0 - 978307200.0);
}

TEST(DeviceFilename, IsTheLastComponent) {
    EXPECT_EQ(deviceFilename("Library/SMS/sms.db"), "sms.db");
    EXPECT_EQ(deviceFilename("sms.db"), "sms.db");
    EXPECT_EQ(deviceFilename("Library/"), "");
    EXPECT_EQ(deviceFilename("/"), "");
    EXPECT_EQ(deviceFilename("a//b"), "b");
    EXPECT_EQ(deviceFilename(""), "");
    EXPECT_EQ(deviceFilename("Ordner/Grüße 🌍"), "Grüße 🌍");
}

TEST(NewDirectory, HasTheAttributesOfANewDirectory) {
    const double before = CFAbsoluteTimeGetCurrent();
    const Entry entry = makeDirectory("HomeDomain", "Library/Notes");
    const double after = CFAbsoluteTimeGetCurrent();
    EXPECT_EQ(textOf(KVManifestEntryGetDomain(entry.get())), "HomeDomain");
    EXPECT_EQ(textOf(KVManifestEntryGetPath(entry.get())), "Library/Notes");
    EXPECT_EQ(textOf(KVManifestEntryGetDomainPathPair(entry.get())), "HomeDomain-Library/Notes");
    EXPECT_EQ(textOf(KVManifestEntryGetFileID(entry.get())), fileID("HomeDomain", "Library/Notes"));
    EXPECT_EQ(KVManifestEntryGetFileMode(entry.get()), 040755);
    EXPECT_EQ(KVManifestEntryGetFileType(entry.get()), 2);
    EXPECT_EQ(KVManifestEntryGetProtectionClass(entry.get()), kEntryProtectionClassNotSet);
    EXPECT_TRUE(KVManifestEntryIsExternal(entry.get()));
    EXPECT_TRUE(KVManifestEntryIsDirectory(entry.get()));
    const Attributes attributes = attributesOf(entry);
    EXPECT_EQ(attributes.uid, 501u);
    EXPECT_EQ(attributes.gid, 501u);
    EXPECT_GE(attributes.birth.GetAbsoluteTime(), before);
    EXPECT_LE(attributes.birth.GetAbsoluteTime(), after);
    EXPECT_EQ(attributes.birth, attributes.modified);
    EXPECT_EQ(attributes.birth, attributes.changed);
}

TEST(NewDirectory, HasNoContentTargetOrKey) {
    const Entry entry = makeDirectory("D", "p");
    EXPECT_EQ(CFStringGetLength(KVManifestEntryGetTarget(entry.get())), 0);
    EXPECT_EQ(CFDataGetLength(KVManifestEntryGetDataHash(entry.get())), 0);
    EXPECT_EQ(CFDataGetLength(KVManifestEntryGetEncryptionData(entry.get())), 0);
    EXPECT_EQ(CFDictionaryGetCount(KVManifestEntryGetProperties(entry.get())), 0);
    EXPECT_EQ(KVManifestEntryGetFileSize(entry.get()), 0);
}

TEST(NewSymlink, HasItsTarget) {
    const Entry entry = makeSymlink("D", "link", "../target");
    EXPECT_EQ(textOf(KVManifestEntryGetTarget(entry.get())), "../target");
    EXPECT_EQ(KVManifestEntryGetFileMode(entry.get()), 0120755);
    EXPECT_EQ(KVManifestEntryGetFileType(entry.get()), 4);
    EXPECT_TRUE(KVManifestEntryIsSymlink(entry.get()));
    EXPECT_TRUE(KVManifestEntryIsExternal(entry.get()));
    EXPECT_EQ(KVManifestEntryGetProtectionClass(entry.get()), kEntryProtectionClassNotSet);
}

TEST(NewEntry, KeepsItsTextsWhenTheCallersChange) {
    const CF::Pointer<CFMutableStringRef> path(
        CF::adopt, CFStringCreateMutableCopy(nullptr, 0, CFSTR("before")));
    const Entry entry =
        CF::Adopt(KVManifestEntryCreateForDirectory(nullptr, CFSTR("D"), path.get()));
    CFStringAppend(path.get(), CFSTR(" after"));
    EXPECT_EQ(textOf(KVManifestEntryGetPath(entry.get())), "before");
}

TEST(NewFile, RefersToItsContent) {
    const File file = makeFile("hello");
    ErrorOut error;
    const CF::Data key(std::vector<std::uint8_t>{1, 2, 3});
    const Entry entry = CF::Adopt(KVManifestEntryCreateForFile(
        nullptr, file.get(), CFSTR("D"), CFSTR("dir/f"), key.get(), error.out()));
    ASSERT_TRUE(entry);
    EXPECT_FALSE(error.isSet());
    EXPECT_EQ(KVManifestEntryGetFileMode(entry.get()), 0100644);
    EXPECT_EQ(KVManifestEntryGetFileType(entry.get()), 1);
    EXPECT_EQ(KVManifestEntryGetProtectionClass(entry.get()), kEntryProtectionClassNone);
    EXPECT_EQ(KVManifestEntryGetFileSize(entry.get()), 5);
    EXPECT_EQ(bytesOf(KVManifestEntryGetDataHash(entry.get())), KVFileGetHash(file.get()));
    EXPECT_EQ(bytesOf(KVManifestEntryGetEncryptionData(entry.get())),
              (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_EQ(textOf(KVManifestEntryGetDeviceFilename(entry.get())), "f");
    KVFileClass *const content = KVManifestEntryGetFile(entry.get(), nullptr);
    ASSERT_NE(content, nullptr);
    EXPECT_NE(content, file.get());
    EXPECT_TRUE(CFEqual(content, file.get()));
}

TEST(NewFile, FailsWhenItsContentIsGone) {
    const File file = makeFile("vanishing");
    ASSERT_EQ(::remove(textOf(KVFileGetLocalPath(file.get())).c_str()), 0);
    ErrorOut error;
    EXPECT_EQ(KVManifestEntryCreateForFile(nullptr, file.get(), CFSTR("D"), CFSTR("f"), nullptr,
                                           error.out()),
              nullptr);
    const Failure failure = error.get();
    EXPECT_EQ(failure.domain, "Kelvane.ErrorDomain");
    EXPECT_EQ(failure.code, 7);
    EXPECT_EQ(failure.reason,
              "No valid cache reference available for created file (" + sha1("vanishing") + ")");
    EXPECT_EQ(failure.causeCode, 6);
    EXPECT_EQ(
        KVManifestEntryCreateForFile(nullptr, file.get(), CFSTR("D"), CFSTR("f"), nullptr, nullptr),
        nullptr);
}

TEST(FilesystemAttributes, MayBeAskedForSingly) {
    const Entry entry = makeDirectory("D", "p");
    KVManifestEntryCopyFilesystemAttributes(entry.get(), nullptr, nullptr, nullptr, nullptr,
                                            nullptr, nullptr);
    std::uint32_t gid = 0;
    KVManifestEntryCopyFilesystemAttributes(entry.get(), nullptr, nullptr, &gid, nullptr, nullptr,
                                            nullptr);
    EXPECT_EQ(gid, 501u);
}

TEST(ClonedAttributes, AreThoseOfTheSourceAndNoMore) {
    const Entry source = makeSymlink("Source", "s", "target");
    source.get()->uid = 1;
    source.get()->gid = 2;
    source.get()->birth = 3;
    source.get()->lastModified = 4;
    source.get()->lastStatusChange = 5;
    source.get()->inode = 6;
    source.get()->size = 7;
    source.get()->protectionClass = kEntryProtectionClassWriteOnly;
    const Entry destination = makeDirectory("Destination", "d");
    _KVManifestEntryCloneAttributes(destination.get(), source.get());
    const Attributes attributes = attributesOf(destination);
    EXPECT_EQ(attributes.mode, 0120755);
    EXPECT_EQ(attributes.uid, 1u);
    EXPECT_EQ(attributes.gid, 2u);
    EXPECT_EQ(attributes.birth.GetAbsoluteTime(), 3);
    EXPECT_EQ(attributes.modified.GetAbsoluteTime(), 4);
    EXPECT_EQ(attributes.changed.GetAbsoluteTime(), 5);
    EXPECT_EQ(KVManifestEntryGetFileType(destination.get()), 4);
    EXPECT_EQ(destination.get()->inode, 6u);
    EXPECT_EQ(KVManifestEntryGetProtectionClass(destination.get()), kEntryProtectionClassWriteOnly);
    EXPECT_EQ(KVManifestEntryGetFileSize(destination.get()), 0);
    EXPECT_EQ(textOf(KVManifestEntryGetDomain(destination.get())), "Destination");
    EXPECT_EQ(CFStringGetLength(KVManifestEntryGetTarget(destination.get())), 0);
}

TEST(EntryDescription, ShowsTheFields) {
    const Entry entry = makeDirectory("HomeDomain", "Library");
    entry.get()->size = -5;
    entry.get()->inode = 18446744073709551615u;
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<void *>(entry.get()));
    const auto description = CF::String::Adopt(CFCopyDescription(entry.get())).GetUTF8();
    const std::string start = std::string("<KVManifestEntry ") + address +
                              "> HomeDomain-Library size:-5 mode:40755 uid:501 gid:501 type:2 "
                              "inode:18446744073709551615 protection:NotSet external:1 (" +
                              fileID("HomeDomain", "Library") + ") ";
    EXPECT_EQ(description.substr(0, start.size()), start);
    EXPECT_EQ(description.find('\n'), std::string::npos);
}

TEST(EntryDescription, PutsThePropertiesOnOneLine) {
    const Entry entry = makeDirectory("D", "p");
    const auto properties = CF::Dictionary::Mutable();
    properties.Set(CFSTR("name"), CF::Data(std::vector<std::uint8_t>{1}).get());
    entry.get()->properties = properties.get();
    const auto description = CF::String::Adopt(CFCopyDescription(entry.get())).GetUTF8();
    EXPECT_EQ(description.find('\n'), std::string::npos);
    const auto properties_text = CF::String::Adopt(CFCopyDescription(properties.get())).GetUTF8();
    ASSERT_NE(properties_text.find('\n'), std::string::npos);
    std::string expected = properties_text;
    std::replace(expected.begin(), expected.end(), '\n', '\t');
    EXPECT_NE(
        description.find(" (" + textOf(KVManifestEntryGetFileID(entry.get())) + ") " + expected),
        std::string::npos);
}

TEST(EntryMemory, StaysSmall) {
    // Backups have hundreds of thousands of entries.
    EXPECT_LE(sizeof(KVManifestEntryClass), 216u);
    const Entry a = makeDirectory("D", "p");
    const Entry b = makeDirectory("D", "q");
    EXPECT_EQ(KVManifestEntryGetTarget(a.get()), KVManifestEntryGetTarget(b.get()));
    EXPECT_EQ(KVManifestEntryGetProperties(a.get()), KVManifestEntryGetProperties(b.get()));
    EXPECT_EQ(a.get()->givenPath.get(), a.get()->relativePath.get());
}
