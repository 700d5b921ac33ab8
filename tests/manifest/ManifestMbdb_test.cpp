// Reading Manifest.mbdb.
#include "tests/manifest/ManifestFixtures.hpp"

#include <tuple>

using namespace manifest_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr CFAbsoluteTime kEpochOffset = 978307200;
constexpr std::string_view kSource = "KVManifestCreateFromManifestData";

// A file that the oracle writes from a document.
Octets WriteMbdb(const std::string &document) {
    const testing_support::TemporaryDirectory directory;
    const auto path = directory / "Manifest.mbdb";
    Oracle("write-mbdb", path, document);
    return testing_support::ReadFile(path);
}

ManifestPointer Read(const Octets &bytes, const KVProgressFunction &progress = {}) {
    return CF::Adopt(KVManifestCreateFromManifestData(nullptr, DataOf(bytes), 24, {}, progress));
}

// What is printed while the bytes are refused.
std::string Refusal(const Octets &bytes, KVManifestDataVersion version = 24) {
    return Printed([&] {
        const auto manifest =
            CF::Adopt(KVManifestCreateFromManifestData(nullptr, DataOf(bytes), version, {}, {}));
        EXPECT_FALSE(manifest);
    });
}

const KVManifestEntryClass *Only(const ManifestPointer &manifest) {
    EXPECT_EQ(CFArrayGetCount(KVManifestGetEntries(manifest.get())), 1);
    return EntryAt(KVManifestGetEntries(manifest.get()), 0);
}

const std::string kFullRecord =
    R"({"records": [{"domain": "AppDomain-x", "path": "a/b.txt", "target": "t/u",
    "digest": "00ff10", "key": "0badcafe", "mode": 41471, "inode": 18446744073709551615,
    "uid": 501, "gid": 4294967295, "changed": 1600000003, "modified": 1600000002,
    "birth": 1600000001, "size": 5000000000, "protection": 3,
    "properties": [["com.example.a", "0102"], ["com.example.b", ""]]}]})";

} // namespace

TEST(ManifestMbdb, ReadsNamesOfARecord) {
    const auto manifest = Read(WriteMbdb(kFullRecord));
    ASSERT_TRUE(manifest);
    const auto *const entry = Only(manifest);
    EXPECT_EQ(Plain(KVManifestEntryGetDomain(entry)), "AppDomain-x");
    EXPECT_EQ(Plain(KVManifestEntryGetPath(entry)), "a/b.txt");
    EXPECT_EQ(Plain(entry->givenPath.get()), "a/b.txt");
    EXPECT_EQ(Plain(KVManifestEntryGetTarget(entry)), "t/u");
    EXPECT_EQ(Plain(KVManifestEntryGetDeviceFilename(entry)), "b.txt");
    EXPECT_EQ(Plain(KVManifestEntryGetDomainPathPair(entry)), "AppDomain-x-a/b.txt");
    const auto hash = testing_support::RunPython(
        "import hashlib; print(hashlib.sha1(b'AppDomain-x-a/b.txt').hexdigest(), end='')");
    EXPECT_EQ(Plain(KVManifestEntryGetFileID(entry)), hash.output);
}

TEST(ManifestMbdb, ReadsAttributesOfARecord) {
    const auto manifest = Read(WriteMbdb(kFullRecord));
    ASSERT_TRUE(manifest);
    const auto *const entry = Only(manifest);
    EXPECT_THAT(BytesOf(KVManifestEntryGetDataHash(entry)), ElementsAre(0, 0xFF, 0x10));
    EXPECT_THAT(BytesOf(KVManifestEntryGetEncryptionData(entry)),
                ElementsAre(0x0B, 0xAD, 0xCA, 0xFE));
    EXPECT_EQ(entry->mode, 41471);
    EXPECT_EQ(entry->inode, 18446744073709551615U);
    EXPECT_EQ(entry->uid, 501U);
    EXPECT_EQ(entry->gid, 4294967295U);
    EXPECT_EQ(entry->lastStatusChange, 1600000003 - kEpochOffset);
    EXPECT_EQ(entry->lastModified, 1600000002 - kEpochOffset);
    EXPECT_EQ(entry->birth, 1600000001 - kEpochOffset);
    EXPECT_EQ(KVManifestEntryGetFileSize(entry), 5000000000);
    EXPECT_EQ(KVManifestEntryGetProtectionClass(entry), kEntryProtectionClassCompleteUntilUnlocked);
    EXPECT_EQ(KVManifestEntryGetFileType(entry), 0);
    EXPECT_FALSE(KVManifestEntryIsExternal(entry));
    EXPECT_TRUE(KVManifestEntryIsSymlink(entry));
}

TEST(ManifestMbdb, ReadsProperties) {
    const auto manifest = Read(WriteMbdb(kFullRecord));
    ASSERT_TRUE(manifest);
    const CF::Dictionary properties(KVManifestEntryGetProperties(Only(manifest)));
    EXPECT_EQ(properties.GetCount(), 2);
    EXPECT_THAT(properties.Get<CF::Data>(CFSTR("com.example.a")).GetVector(), ElementsAre(1, 2));
    EXPECT_TRUE(properties.Get<CF::Data>(CFSTR("com.example.b")));
}

TEST(ManifestMbdb, LaterEqualPropertyReplacesTheEarlierOne) {
    const auto manifest = Read(
        WriteMbdb(R"({"records": [{"domain": "D", "properties": [["n", "01"], ["n", "02"]]}]})"));
    ASSERT_TRUE(manifest);
    const CF::Dictionary properties(KVManifestEntryGetProperties(Only(manifest)));
    EXPECT_EQ(properties.GetCount(), 1);
    EXPECT_THAT(properties.Get<CF::Data>(CFSTR("n")).GetVector(), ElementsAre(2));
}

TEST(ManifestMbdb, AbsentValuesReadAsEmpty) {
    const auto manifest =
        Read(WriteMbdb(R"({"records": [{"domain": null, "path": null, "target": null}]})"));
    ASSERT_TRUE(manifest);
    const auto *const entry = Only(manifest);
    EXPECT_EQ(Plain(KVManifestEntryGetDomain(entry)), "");
    EXPECT_EQ(Plain(KVManifestEntryGetPath(entry)), "");
    EXPECT_EQ(Plain(KVManifestEntryGetTarget(entry)), "");
    EXPECT_EQ(CFDataGetLength(KVManifestEntryGetDataHash(entry)), 0);
    EXPECT_EQ(CFDictionaryGetCount(KVManifestEntryGetProperties(entry)), 0);
}

TEST(ManifestMbdb, KeepsFileOrderAndCountsTotals) {
    const auto manifest = Read(WriteMbdb(R"({"records": [
        {"domain": "D", "path": "z", "mode": 33188, "size": 5},
        {"domain": "D", "path": "a", "mode": 16877, "size": 70},
        {"domain": "C", "path": "b", "mode": 41453, "size": 900}]})"));
    ASSERT_TRUE(manifest);
    EXPECT_THAT(PathsOf(KVManifestGetEntries(manifest.get())), ElementsAre("z", "a", "b"));
    EXPECT_EQ(KVManifestGetTotalFileSize(manifest.get()), 975);
    EXPECT_EQ(KVManifestGetTotalFileCount(manifest.get()), 1);
    EXPECT_EQ(manifest.get()->dataVersion, kKVManifestDataVersion24);
}

TEST(ManifestMbdb, SharesTheDomainBetweenEntries) {
    const auto manifest = Read(WriteMbdb(
        R"({"records": [{"domain": "Dé"}, {"domain": "E"}, {"domain": "Dé", "path": "x"}]})"));
    ASSERT_TRUE(manifest);
    CFArrayRef entries = KVManifestGetEntries(manifest.get());
    EXPECT_EQ(KVManifestEntryGetDomain(EntryAt(entries, 0)),
              KVManifestEntryGetDomain(EntryAt(entries, 2)));
}

TEST(ManifestMbdb, IgnoresTheVersionBytes) {
    EXPECT_TRUE(Read(WriteMbdb(R"({"header": "6d6264620600", "records": [{"domain": "D"}]})")));
}

TEST(ManifestMbdb, ReportsProgressPerRecord) {
    const Octets bytes = WriteMbdb(R"({"records": [{"domain": "D"}, {"domain": "D"}]})");
    const auto total = static_cast<std::int64_t>(bytes.size());
    const std::int64_t middle = 6 + (total - 6) / 2;
    std::vector<std::tuple<std::int64_t, std::int64_t, double>> reports;
    EXPECT_TRUE(Read(bytes, [&](std::int64_t done, std::int64_t all, double fraction) {
        reports.emplace_back(done, all, fraction);
    }));
    EXPECT_THAT(reports,
                ElementsAre(std::tuple(0, total, 0.0),
                            std::tuple(middle, total,
                                       static_cast<double>(middle) / static_cast<double>(total)),
                            std::tuple(total, total, 1.0)));
}

TEST(ManifestMbdb, EntriesShareTheLoader) {
    int calls = 0;
    const KVGetFileFunction loader = [&](CFStringRef, CFErrorRef *) -> KVFileClass * {
        ++calls;
        return nullptr;
    };
    const Octets bytes = WriteMbdb(R"({"records": [{"domain": "D", "mode": 33188}]})");
    const auto manifest =
        CF::Adopt(KVManifestCreateFromManifestData(nullptr, DataOf(bytes), 24, loader, {}));
    ASSERT_TRUE(manifest);
    EXPECT_EQ(KVManifestEntryGetFile(Only(manifest), nullptr), nullptr);
    EXPECT_EQ(calls, 1);
}

TEST(ManifestMbdb, RefusesOtherVersions) {
    const Octets bytes = WriteMbdb(R"({"records": [{"domain": "D"}]})");
    EXPECT_EQ(Refusal(bytes, 30),
              std::string(kSource) + ": Invalid manifest version '30' for this encoding scheme");
    EXPECT_EQ(Refusal({}, 0),
              std::string(kSource) + ": Invalid manifest version '0' for this encoding scheme");
}

TEST(ManifestMbdb, RefusesShortFiles) {
    EXPECT_EQ(Refusal({}), std::string(kSource) + ": Invalid file\n");
    EXPECT_EQ(Refusal({'m', 'b', 'd', 'b', 5}), std::string(kSource) + ": Invalid file\n");
    EXPECT_EQ(Printed([] {
                  EXPECT_EQ(KVManifestCreateFromManifestData(nullptr, nullptr, 24, {}, {}),
                            nullptr);
              }),
              std::string(kSource) + ": Invalid file\n");
}

TEST(ManifestMbdb, RefusesOtherMagic) {
    EXPECT_EQ(Refusal({'m', 'b', 'd', 'B', 5, 0, 0}),
              std::string(kSource) + ": Invalid file header\n");
}

TEST(ManifestMbdb, RefusesAFileWithoutRecords) {
    EXPECT_EQ(Refusal({'m', 'b', 'd', 'b', 5, 0}),
              std::string(kSource) + ": Invalid manifest entry\n");
}

TEST(ManifestMbdb, RefusesTrailingBytes) {
    EXPECT_EQ(Refusal(WriteMbdb(R"({"records": [{"domain": "D"}], "trailer": "00"})")),
              std::string(kSource) + ": Invalid manifest entry\n");
}

TEST(ManifestMbdb, RefusesEveryTruncation) {
    const Octets whole = WriteMbdb(kFullRecord);
    for (std::size_t length = 6; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        const auto end = whole.begin() + static_cast<std::ptrdiff_t>(length);
        EXPECT_EQ(Refusal(Octets(whole.begin(), end)),
                  std::string(kSource) + ": Invalid manifest entry\n");
    }
}

TEST(ManifestMbdb, SurvivesEveryBitFlip) {
    const Octets whole = WriteMbdb(kFullRecord);
    for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
        Octets flipped = whole;
        flipped[bit / 8] = static_cast<std::uint8_t>(flipped[bit / 8] ^ (1U << bit % 8));
        Printed([&] {
            const auto manifest = Read(flipped);
            if (manifest) {
                EXPECT_EQ(CFArrayGetCount(KVManifestGetEntries(manifest.get())), 1);
            }
        });
    }
}

TEST(ManifestMbdb, RefusesTextThatIsNotUTF8) {
    for (const char *const field : {"domain", "path", "target"}) {
        SCOPED_TRACE(field);
        const std::string document =
            std::string(R"({"records": [{")") + field + R"(": {"hex": "61ff"}}]})";
        EXPECT_EQ(Refusal(WriteMbdb(document)),
                  std::string(kSource) + ": Invalid manifest entry\n");
    }
    EXPECT_EQ(Refusal(WriteMbdb(R"({"records": [{"properties": [[{"hex": "c3"}, ""]]}]})")),
              std::string(kSource) + ": Invalid manifest entry\n");
}

TEST(ManifestMbdb, RefusesUnknownProtectionClasses) {
    for (const int code : {5, 255}) {
        const std::string document =
            R"({"records": [{"domain": "D"}, {"protection": )" + std::to_string(code) + "}]}";
        EXPECT_EQ(Refusal(WriteMbdb(document)),
                  std::string(kSource) + ": Invalid manifest entry\n");
    }
}

TEST(ManifestMbdb, KeepsNulAndEmojiInNames) {
    const auto manifest =
        Read(WriteMbdb(R"({"records": [{"domain": "D", "path": "a\u0000b/\ud83d\ude00"}]})"));
    ASSERT_TRUE(manifest);
    EXPECT_EQ(Plain(KVManifestEntryGetPath(Only(manifest))),
              std::string("a\0b/\xF0\x9F\x98\x80", 8));
}

TEST(ManifestMbdbEntry, SaysWhereTheNextRecordBegins) {
    const Octets bytes = WriteMbdb(R"({"records": [{"path": "a"}, {"path": "b"}]})");
    CFIndex next = -1;
    const auto first =
        CF::Adopt(KVManifestEntryCreateFromManifestData(nullptr, DataOf(bytes), 6, &next, {}));
    ASSERT_TRUE(first);
    EXPECT_EQ(next, static_cast<CFIndex>(6 + (bytes.size() - 6) / 2));
    const auto second =
        CF::Adopt(KVManifestEntryCreateFromManifestData(nullptr, DataOf(bytes), next, &next, {}));
    ASSERT_TRUE(second);
    EXPECT_EQ(Plain(KVManifestEntryGetPath(second.get())), "b");
    EXPECT_EQ(next, 0);
}

TEST(ManifestMbdbEntry, FailsOutsideTheData) {
    const Octets bytes = WriteMbdb(R"({"records": [{"path": "a"}]})");
    for (const CFIndex offset :
         {CFIndex{-1}, static_cast<CFIndex>(bytes.size()), std::numeric_limits<CFIndex>::max()}) {
        CFIndex next = -1;
        EXPECT_EQ(KVManifestEntryCreateFromManifestData(nullptr, DataOf(bytes), offset, &next, {}),
                  nullptr);
        EXPECT_EQ(next, 0);
    }
    EXPECT_EQ(KVManifestEntryCreateFromManifestData(nullptr, nullptr, 0, nullptr, {}), nullptr);
}
