// Random edits, written into the database and read back: the entries are those of the manifest.
#include "tests/manifest/UpdateFixture.hpp"

#include <random>
#include <set>
#include <sstream>

using namespace manifest_test;

namespace {

using Random = std::mt19937;

std::string describe(const KVManifestEntryClass &entry) {
    std::ostringstream text;
    text << Plain(entry.fileID.get()) << ' ' << Plain(entry.domain.get()) << ' '
         << Plain(entry.relativePath.get()) << ' ' << Plain(entry.target.get()) << ' '
         << int{entry.fileType} << ' ' << entry.mode << ' ' << entry.uid << ' ' << entry.size << ' '
         << entry.inode << ' ' << entry.protectionClass << ' ' << entry.recordFlags << ' '
         << std::fixed << entry.birth << ' ' << entry.lastModified;
    for (const CFDataRef data : {entry.dataHash.get(), entry.encryptionData.get()}) {
        text << ' ';
        for (const int byte : BytesOf(data)) {
            text << byte << '.';
        }
    }
    return text.str();
}

std::multiset<std::string> describeAll(const KVManifestClass &manifest) {
    std::multiset<std::string> lines;
    manifest.entries.ForEach(
        [&](const KVManifestEntryClass *entry) { lines.insert(describe(*entry)); });
    return lines;
}

CF::Pointer<CFDataRef> randomData(Random &random, std::size_t size) {
    return random() % 3 == 0 ? CF::Pointer<CFDataRef>(Kelvane::EmptyData())
                             : CF::Pointer<CFDataRef>(
                                   DataOf(Octets(size, static_cast<std::uint8_t>(random()))).get());
}

void changeAtRandom(KVManifestEntryClass &entry, Random &random) {
    entry.origin.MarkChanged();
    entry.uid = random() % 2 == 0 ? 501 : 0xFFFFFFFE;
    entry.size = static_cast<std::int64_t>(random()) << random() % 30;
    entry.birth = random() % 2 == 0 ? entry.birth : -static_cast<double>(random() % 900000000);
    entry.recordFlags = random() % 2 == 0 ? 0 : 128;
    entry.dataHash = randomData(random, 20);
    entry.encryptionData = randomData(random, 44);
    entry.target = random() % 2 == 0 ? Text("target").get() : CFSTR("");
}

// Removes some entries, changes some and adds some.
void editAtRandom(const Updating &updating, Random &random) {
    std::vector<Kelvane::EntryPointer> removed;
    updating.manifest()->entries.ForEach([&](KVManifestEntryClass *entry) {
        const auto pick = random() % 10;
        if (pick == 0) {
            removed.emplace_back(entry);
        } else if (pick < 3) {
            changeAtRandom(*entry, random);
        }
    });
    std::vector<Kelvane::EntryPointer> added;
    for (auto count = random() % 8; count > 0; --count) {
        auto entry = MakeEntry("New", "path" + std::to_string(random()));
        entry.get()->fileType = 1;
        changeAtRandom(*entry.get(), random);
        added.push_back(std::move(entry));
    }
    updating.Change(removed, added);
}

class DatabaseUpdateModel : public testing::TestWithParam<unsigned> {};

} // namespace

TEST_P(DatabaseUpdateModel, HasTheEntriesOfTheManifest) {
    Random random(GetParam());
    std::string rows;
    for (int i = 0; i < 60; ++i) {
        const std::string number = std::to_string(i);
        rows += (i == 0 ? "" : ",") + std::string(R"({"fileID": "id)") + number +
                R"(", "domain": "D", "path": "p)" + number +
                R"(", "flags": 1, "file": {"RelativePath": "p)" + number +
                R"(", "Mode": 33188, "UserID": -2, "Size": )" + number +
                R"(, "Digest": "0102", "EncryptionKey": "0304", "Birth": 315532800}})";
    }
    const Updating updating(OracleDatabase::WithRows(rows));
    editAtRandom(updating, random);
    updating.Update();
    const auto read = ReadDatabase(CF::String(updating.path()));
    ASSERT_TRUE(read.manifest) << read.error;
    EXPECT_EQ(describeAll(*read.manifest.get()), describeAll(*updating.manifest()));
    EXPECT_EQ(Ask(updating.path(), "PRAGMA integrity_check"), Lines{"ok"});
}

INSTANTIATE_TEST_SUITE_P(Seeds, DatabaseUpdateModel, testing::Range(0U, 8U));
