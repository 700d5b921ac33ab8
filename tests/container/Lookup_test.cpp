// Finding entries, listing directories and stored names.
#include "tests/container/BackupFixture.hpp"

#include "KVManifest.h"

#include <set>

namespace container_tests {
namespace {

std::string pathOf(const KVManifestEntryClass *entry) {
    return CF::String::GetUTF8(KVManifestEntryGetPath(entry));
}

std::vector<std::string> listDirectory(const Opened &backup, const std::string &domain,
                                       const std::string &path) {
    const auto children = CF::Array::Adopt(KVBackupContainerCopyEntriesContainedInDirectoryAtPath(
        backup.get(), CF::String(domain), CF::String(path)));
    EXPECT_TRUE(children);
    std::vector<std::string> paths;
    for (CFIndex i = 0; i < children.GetCount(); ++i) {
        paths.push_back(pathOf(static_cast<const KVManifestEntryClass *>(children.GetAt(i))));
    }
    return paths;
}

// What the expectations say lies directly in the directory.
std::vector<std::string> expectedChildren(const nlohmann::json &expectations,
                                          const std::string &domain, const std::string &path) {
    std::vector<std::string> paths;
    const std::string prefix = path.empty() ? "" : path + "/";
    for (const auto &entry : expectations.at("entries")) {
        const std::string candidate = entry.at("path");
        if (entry.at("domain") == domain && candidate.size() > prefix.size() &&
            candidate.compare(0, prefix.size(), prefix) == 0 &&
            candidate.find('/', prefix.size()) == std::string::npos) {
            paths.push_back(candidate);
        }
    }
    return paths;
}

class Listing : public testing::TestWithParam<const char *> {};

TEST_P(Listing, OfEveryDirectoryIsItsChildrenInManifestOrder) {
    const Opened backup = OpenSample(GetParam());
    const nlohmann::json expectations = Expectations(GetParam());
    int listed = 0;
    for (const auto &entry : expectations.at("entries")) {
        if (entry.at("type") == "directory") {
            const std::string domain = entry.at("domain");
            const std::string path = entry.at("path");
            EXPECT_EQ(listDirectory(backup, domain, path),
                      expectedChildren(expectations, domain, path))
                << domain << " " << path;
            ++listed;
        }
    }
    EXPECT_GT(listed, 10);
}

INSTANTIATE_TEST_SUITE_P(Samples, Listing, testing::Values(kEncrypted, kPlain));

TEST(Lookup, ListsNothingForAFileAnUnknownPathAndAnUnknownDomain) {
    const Opened backup = OpenSample(kPlain);
    const auto file = FindFileOfSize(kPlain, 32769);
    EXPECT_TRUE(listDirectory(backup, file.at("domain"), file.at("path")).empty());
    EXPECT_TRUE(listDirectory(backup, file.at("domain"), "no such directory").empty());
    EXPECT_TRUE(listDirectory(backup, "NoDomain", "").empty());
}

TEST(Lookup, FindsEntriesByPath) {
    const Opened backup = OpenSample(kPlain);
    const auto wanted = FindFileOfSize(kPlain, 100000);
    const KVManifestEntryClass *entry = KVBackupContainerGetEntryForPath(
        backup.get(), CF::String(wanted.at("domain").get<std::string>()),
        CF::String(wanted.at("path").get<std::string>()));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(CF::String::GetUTF8(KVManifestEntryGetFileID(entry)), wanted.at("fileID"));
}

TEST(Lookup, FindsNoEntryForAnUnknownPath) {
    const Opened backup = OpenSample(kPlain);
    EXPECT_EQ(KVBackupContainerGetEntryForPath(backup.get(), CFSTR("HomeDomain"), CFSTR("no")),
              nullptr);
}

TEST(Lookup, FindsEntriesByStoredName) {
    const Opened backup = OpenSample(kPlain);
    const std::string id = FindFileOfSize(kPlain, 16).at("fileID");
    const auto *bare =
        KVBackupContainerGetEntryForLocalFilename(backup.get(), CF::String(id), nullptr);
    Boolean isMetadata = true;
    const auto *stored = KVBackupContainerGetEntryForLocalFilename(
        backup.get(), CF::String(id.substr(0, 2) + "/" + id), &isMetadata);
    EXPECT_NE(bare, nullptr);
    EXPECT_EQ(bare, stored);
    EXPECT_FALSE(isMetadata);
}

TEST(Lookup, TakesStoredNamesWholeInTheFlatLayout) {
    const Opened backup = OpenSample(kBinary);
    const std::string id = FindFileOfSize(kBinary, 16).at("fileID");
    EXPECT_NE(KVBackupContainerGetEntryForLocalFilename(backup.get(), CF::String(id), nullptr),
              nullptr);
    EXPECT_EQ(KVBackupContainerGetEntryForLocalFilename(
                  backup.get(), CF::String(id.substr(0, 2) + "/" + id), nullptr),
              nullptr);
}

TEST(Lookup, TellsMetadataNamesFromUnknownOnes) {
    const Opened backup = OpenSample(kPlain);
    Boolean isMetadata = false;
    EXPECT_EQ(
        KVBackupContainerGetEntryForLocalFilename(backup.get(), CFSTR("Status.plist"), &isMetadata),
        nullptr);
    EXPECT_TRUE(isMetadata);
    EXPECT_EQ(
        KVBackupContainerGetEntryForLocalFilename(backup.get(), CFSTR("unknown"), &isMetadata),
        nullptr);
    EXPECT_FALSE(isMetadata);
    EXPECT_EQ(
        KVBackupContainerGetEntryForLocalFilename(backup.get(), CFSTR("Status.plist"), nullptr),
        nullptr);
}

TEST(Lookup, CountsFourFilesBesideTheManifests) {
    const Opened backup = OpenSample(kPlain);
    std::int64_t files = 0;
    const nlohmann::json expectations = Expectations(kPlain);
    for (const auto &entry : expectations.at("entries")) {
        files += entry.at("type") == "file";
    }
    EXPECT_EQ(KVBackupContainerGetTotalFileCount(backup.get()), files + 4);
}

std::vector<std::string> storedNames(const Opened &backup, Boolean flag) {
    const auto list =
        CF::Array::Adopt(KVBackupContainerCopyFilesystemPathsList(backup.get(), flag));
    std::vector<std::string> names;
    for (CFIndex i = 0; i < list.GetCount(); ++i) {
        names.push_back(CF::String::Cast(list.GetAt(i)).GetUTF8());
    }
    return names;
}

std::vector<std::string> expectedNames(const std::string &sample, bool flat,
                                       const std::string &manifest) {
    std::vector<std::string> names;
    const nlohmann::json expectations = Expectations(sample);
    for (const auto &entry : expectations.at("entries")) {
        const std::string id = entry.at("fileID");
        if (entry.at("type") == "file") {
            names.push_back(flat ? id : id.substr(0, 2) + "/" + id);
        }
    }
    names.insert(names.end(), {manifest, "Manifest.plist", "Info.plist", "Status.plist"});
    return names;
}

TEST(Lookup, ListsStoredNamesThenTheManifestThenMetadata) {
    const Opened database = OpenSample(kPlain);
    EXPECT_EQ(storedNames(database, false), expectedNames(kPlain, false, "Manifest.db"));
    EXPECT_EQ(storedNames(database, true), storedNames(database, false));
    EXPECT_EQ(storedNames(OpenSample(kBinary), false),
              expectedNames(kBinary, true, "Manifest.mbdb"));
}

TEST(Lookup, ListsMetadataAloneForAnEmptyContainer) {
    testing_support::LibraryTemporaryPath();
    const Opened backup{Container(CF::adopt, KVBackupContainerCreateEmpty(nullptr, nullptr)), {}};
    EXPECT_EQ(storedNames(backup, false),
              (std::vector<std::string>{"Manifest.plist", "Info.plist", "Status.plist"}));
}

} // namespace
} // namespace container_tests
