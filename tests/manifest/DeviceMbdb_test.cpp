// Binary manifests that are written over their source.
#include "manifest/DeviceMbdb.hpp"

#include "manifest/DeviceDatabase.hpp"
#include "tests/manifest/ManifestFixtures.hpp"

#include <functional>
#include <numeric>

using namespace manifest_test;
using Kelvane::DeviceRow;
using Kelvane::DeviceRowRules;
using Kelvane::ManifestUpdate;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

// Three records, in no order, with absent and empty byte strings and an unusual version.
constexpr const char *kRecords = R"({"header": "6d6264620501", "records": [
    {"domain": "D", "path": "b", "target": null, "digest": "", "mode": 33188, "size": 5, "uid": 501,
     "modified": 315532800, "properties": [["z", "01"], ["a", "02"]]},
    {"domain": "D", "path": "k", "digest": "0101", "key": "0505", "mode": 33188, "size": 9,
     "protection": 3, "inode": 77, "uid": 4294967294},
    {"domain": "C", "path": "", "mode": 16877}]})";

class Rewriting {
  public:
    explicit Rewriting(const std::string &document = kRecords) {
        Oracle("write-mbdb", path_, document);
        source_ = testing_support::ReadFile(path_);
        manifest_ =
            CF::Adopt(KVManifestCreateFromManifestData(nullptr, DataOf(source_).get(), 24, {}, {}));
        EXPECT_TRUE(manifest_);
    }
    KVManifestClass *manifest() const { return manifest_.get(); }
    const Octets &source() const { return source_; }

    KVManifestEntryClass *At(CFIndex index) const {
        return const_cast<KVManifestEntryClass *>(EntryAt(KVManifestGetEntries(manifest()), index));
    }
    KVManifestEntryClass &Changed(CFIndex index) const {
        At(index)->origin.MarkChanged();
        return *At(index);
    }
    void Replace(std::vector<Kelvane::EntryPointer> entries) const {
        KVManifestUpdateEntries(manifest(), ArrayOf(entries));
    }

    ManifestUpdate Write(const DeviceRowRules &rules = {}) { return WriteOver(source_, rules); }
    ManifestUpdate WriteOver(const Octets &source, const DeviceRowRules &rules = {}) {
        written_.clear();
        return Kelvane::WriteDeviceMbdb(
            manifest(), source, rules, [&](std::span<const std::uint8_t> bytes) {
                written_.insert(written_.end(), bytes.begin(), bytes.end());
            });
    }
    std::string WriteError() {
        return ThrownError([&] { Write(); });
    }
    const Octets &written() const { return written_; }
    // As another reader understands it.
    Lines Records() const {
        const testing_support::TemporaryDirectory directory;
        return Oracle("read-mbdb", directory.write("Manifest.mbdb", written_));
    }

  private:
    testing_support::TemporaryDirectory directory_;
    ZK::filesystem::path path_ = directory_ / "Manifest.mbdb";
    Octets source_;
    ManifestPointer manifest_;
    Octets written_;
};

constexpr const char *kFirst = R"(record "D" "b" "" - - 33188 0 501 0 0 315532800 0 5 0 z:01 a:02)";
constexpr const char *kSecond = R"(record "D" "k" "" 0101 0505 33188 77 4294967294 0 0 0 0 9 3)";
constexpr const char *kThird = R"(record "C" "" "" - - 16877 0 0 0 0 0 0 0 0)";

} // namespace

TEST(MbdbUpdate, OfNothingGivesTheSourceBack) {
    Rewriting rewriting;
    EXPECT_TRUE(Kelvane::IsAsRead(*rewriting.manifest(), {}));
    EXPECT_EQ(rewriting.Write(), ManifestUpdate::Untouched);
    EXPECT_EQ(rewriting.written(), rewriting.source());
}

TEST(MbdbUpdate, OfAChangeThatChangesNothingGivesTheSourceBack) {
    Rewriting rewriting;
    for (CFIndex i = 0; i < 3; ++i) {
        rewriting.Changed(i);
    }
    EXPECT_EQ(rewriting.Write(), ManifestUpdate::Untouched);
    EXPECT_EQ(rewriting.written(), rewriting.source());
}

TEST(MbdbUpdate, TakesRecordsAway) {
    Rewriting rewriting;
    rewriting.Replace({rewriting.At(0), rewriting.At(2)});
    EXPECT_EQ(rewriting.Write(), ManifestUpdate::Updated);
    EXPECT_THAT(rewriting.Records(), ElementsAre("header 6d6264620501", kFirst, kThird));
}

TEST(MbdbUpdate, AppendsNewRecordsSorted) {
    Rewriting rewriting;
    rewriting.Replace({rewriting.At(0), rewriting.At(1), rewriting.At(2), MakeEntry("E", "z"),
                       MakeEntry("E", "c")});
    EXPECT_EQ(rewriting.Write(), ManifestUpdate::Updated);
    EXPECT_TRUE(std::equal(rewriting.source().begin(), rewriting.source().end(),
                           rewriting.written().begin()));
    EXPECT_THAT(rewriting.Records(),
                ElementsAre("header 6d6264620501", kFirst, kSecond, kThird,
                            StartsWith(R"(record "E" "c" )"), StartsWith(R"(record "E" "z" )")));
}

TEST(MbdbUpdate, ChangesRecordsInTheirPlace) {
    Rewriting rewriting;
    rewriting.Changed(0).size = 6;
    rewriting.Replace({rewriting.At(1), rewriting.At(2), rewriting.At(0)});
    EXPECT_EQ(rewriting.Write(), ManifestUpdate::Updated);
    EXPECT_THAT(rewriting.Records(),
                ElementsAre("header 6d6264620501", HasSubstr(" 315532800 0 6 0 z:01 a:02"), kSecond,
                            kThird));
    // Nothing but the size differs: absent strings stay absent.
    const Octets &source = rewriting.source();
    ASSERT_EQ(rewriting.written().size(), source.size());
    const auto differences =
        std::inner_product(source.begin(), source.end(), rewriting.written().begin(), 0,
                           std::plus<>(), std::not_equal_to<>());
    EXPECT_EQ(differences, 1);
}

TEST(MbdbUpdate, ChangesEveryFieldThatDiffers) {
    Rewriting rewriting;
    KVManifestEntryClass &entry = rewriting.Changed(0);
    Kelvane::SetEntryPath(entry, CFSTR("X"), CFSTR("y"));
    entry.target = Text("t").get();
    entry.dataHash = DataOf({1}).get();
    entry.encryptionData = DataOf({2}).get();
    entry.mode = 0100600;
    entry.gid = 7;
    entry.birth = -978307200.0 + 8;
    entry.protectionClass = kEntryProtectionClassNone;
    const auto properties = CF::Dictionary::Mutable();
    properties.Set(CFSTR("n"), DataOf({3}).get());
    entry.properties = properties.get();
    EXPECT_EQ(rewriting.Write(), ManifestUpdate::Updated);
    EXPECT_THAT(rewriting.Records(),
                ElementsAre("header 6d6264620501",
                            R"(record "X" "y" "t" 01 02 33152 0 501 7 0 315532800 8 5 4 n:03)",
                            kSecond, kThird));
}

TEST(MbdbUpdate, FollowsTheRules) {
    Rewriting rewriting;
    DeviceRowRules rules;
    rules.leavesOut = [](const KVManifestEntryClass &entry) {
        return KVManifestEntryIsDirectory(&entry);
    };
    rules.rewrites = [](const KVManifestEntryClass &entry) {
        return CFDataGetLength(entry.encryptionData.get()) > 0;
    };
    rules.adjust = [](DeviceRow &row) {
        row.encryptionKey = nullptr;
        row.digest = DataOf({0xDD}).get();
        row.size = 70;
    };
    EXPECT_EQ(rewriting.Write(rules), ManifestUpdate::Updated);
    EXPECT_THAT(rewriting.Records(),
                ElementsAre("header 6d6264620501", kFirst,
                            R"(record "D" "k" "" dd - 33188 77 4294967294 0 0 0 0 70 3)"));
}

TEST(MbdbUpdate, WithoutASourceWritesAllRecordsAsDevicesDo) {
    Rewriting rewriting;
    EXPECT_EQ(rewriting.WriteOver({}), ManifestUpdate::WrittenAnew);
    EXPECT_THAT(rewriting.Records(),
                ElementsAre("header 6d6264620500", HasSubstr("315532800 0 5 0 a:02 z:01"), kSecond,
                            kThird));
    const Octets absent = {0, 1, 'D', 0, 1, 'b', 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_TRUE(std::equal(absent.begin(), absent.end(), rewriting.written().begin() + 6));
}

TEST(MbdbUpdate, RefusesAnotherManifest) {
    const std::string refusal = "Kelvane.ErrorDomain 11: The manifest is not the one that was read";
    Rewriting rewriting;
    Octets longer = rewriting.source();
    longer.insert(longer.end(), rewriting.source().begin() + 6, rewriting.source().end());
    Octets shorter(rewriting.source().begin(), rewriting.source().end() - 1);
    for (const Octets &other : {longer, shorter, Octets(6, 'x'), Octets{'m', 'b', 'd', 'b'}}) {
        EXPECT_EQ(ThrownError([&] { rewriting.WriteOver(other); }), refusal);
        EXPECT_THAT(rewriting.written(), IsEmpty());
    }
}

TEST(MbdbUpdate, NamesEntriesThatHaveNoRecordBeforeAnythingIsWritten) {
    const auto tooLong = MakeEntry("D", std::string(65535, 'p'));
    const auto tooMany = MakeEntry("D", "m");
    const auto properties = CF::Dictionary::Mutable();
    for (int i = 0; i < 256; ++i) {
        properties.Set(Text(std::to_string(i)).get(), DataOf({1}).get());
    }
    tooMany.get()->properties = properties.get();
    for (const auto &entry : {tooLong, tooMany}) {
        Rewriting rewriting;
        rewriting.Replace({rewriting.At(0), entry});
        EXPECT_THAT(rewriting.WriteError(),
                    StartsWith("Kelvane.ErrorDomain 1: Failed to serialize entries "));
        EXPECT_THAT(rewriting.written(), IsEmpty());
    }
}

TEST(MbdbUpdate, IsReadBackAsItWasMeant) {
    Rewriting rewriting;
    rewriting.Changed(1).size = 10;
    rewriting.Replace({rewriting.At(1), rewriting.At(2), MakeEntry("N", "new", kLinkMode, 3)});
    rewriting.Write();
    const auto read = CF::Adopt(
        KVManifestCreateFromManifestData(nullptr, DataOf(rewriting.written()).get(), 24, {}, {}));
    ASSERT_TRUE(read);
    EXPECT_THAT(PathsOf(KVManifestGetEntries(read.get())), ElementsAre("k", "", "new"));
    EXPECT_EQ(EntryAt(KVManifestGetEntries(read.get()), 0)->size, 10);
}
