// Writing a manifest as a database file.
#include "manifest/ManifestDatabaseFile.hpp"

#include "tests/manifest/DatabaseFixtures.hpp"
#include "tests/support/FailingCalls.hpp"

using namespace manifest_test;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

class ManifestDatabaseFile : public testing::Test {
  protected:
    void SetUp() override {
        directory_ = testing_support::LibraryTemporaryPath() / "KVManifestDB";
        before_ = Files();
    }
    // The files of the working directory that were not there before.
    Lines NewFiles() const {
        Lines added;
        for (const auto &file : Files()) {
            if (std::find(before_.begin(), before_.end(), file) == before_.end()) {
                added.push_back(file);
            }
        }
        return added;
    }

  private:
    Lines Files() const {
        Lines names;
        if (boost::filesystem::exists(directory_)) {
            for (const auto &file : boost::filesystem::directory_iterator(directory_)) {
                names.push_back(file.path().string());
            }
        }
        return names;
    }
    boost::filesystem::path directory_;
    Lines before_;
};

} // namespace

TEST_F(ManifestDatabaseFile, HasTheBytesOfTheRepresentation) {
    const auto manifest = ManifestOfPaths({"b", "a", "c/d"});
    const std::string path = Kelvane::WriteManifestDatabaseFile(manifest.get(), 33);
    const auto data = CF::Data::Adopt(KVManifestCreateManifestDBRepresentation(manifest.get(), 33));
    EXPECT_EQ(testing_support::ReadFile(path), data.GetVector());
}

TEST_F(ManifestDatabaseFile, LeavesTheDatabaseAlone) {
    const std::string path =
        Kelvane::WriteManifestDatabaseFile(ManifestOfPaths({"a", "b"}).get(), 30);
    EXPECT_THAT(NewFiles(), ElementsAre(path));
}

TEST_F(ManifestDatabaseFile, IsForTheOwnerAlone) {
    const std::string path = Kelvane::WriteManifestDatabaseFile(ManifestOfPaths({"a"}).get(), 33);
    EXPECT_EQ(boost::filesystem::status(path).permissions(), 0600);
}

TEST_F(ManifestDatabaseFile, IsRemovedWithItsCompanions) {
    const std::string path = Kelvane::WriteManifestDatabaseFile(ManifestOfPaths({"a"}).get(), 33);
    std::ofstream(path + "-wal") << "rows";
    std::ofstream(path + "-shm") << "index";
    Kelvane::RemoveManifestDatabaseFile(path);
    EXPECT_THAT(NewFiles(), IsEmpty());
}

TEST_F(ManifestDatabaseFile, RemovingWhatIsNotThereDoesNothing) {
    const testing_support::TemporaryDirectory directory;
    const auto other = directory.write("other", Octets{1});
    Kelvane::RemoveManifestDatabaseFile((directory / "none").string());
    EXPECT_TRUE(boost::filesystem::exists(other.string()));
}

TEST_F(ManifestDatabaseFile, FailureLeavesNoFile) {
    const UniChar lone = 0xD83D;
    const auto path = CF::String::Adopt(CFStringCreateWithCharacters(nullptr, &lone, 1));
    auto entry = MakeEntry("D", "a");
    Kelvane::SetEntryPath(*entry.get(), CFSTR("D"), path);
    EXPECT_EQ(
        ThrownError([&] { Kelvane::WriteManifestDatabaseFile(MakeManifest({entry}).get(), 33); }),
        "Kelvane.ErrorDomain 2: Text cannot be encoded as UTF-8");
    EXPECT_THAT(NewFiles(), IsEmpty());
}

// SQLite itself ignores that closing fails.
TEST_F(ManifestDatabaseFile, ThatCannotBeClosedIsAnErrorAndLeavesNoFile) {
    const auto manifest = ManifestOfPaths({"a"});
    const std::string lost = "Kelvane.ErrorDomain 3: Failed to write temporary database: ";
    {
        // The empty file that SQLite then opens is closed before; it takes no part in this.
        const testing_support::FailingCall closing(testing_support::Call::Close, EDQUOT, 1);
        EXPECT_THAT(ThrownError([&] { Kelvane::WriteManifestDatabaseFile(manifest.get(), 33); }),
                    StartsWith(lost));
    }
    EXPECT_THAT(NewFiles(), IsEmpty());
}

TEST_F(ManifestDatabaseFile, ThatCannotBeClosedWhenItIsMadeLeavesNoFile) {
    const auto manifest = ManifestOfPaths({"a"});
    {
        const testing_support::FailingCall closing(testing_support::Call::Close, EDQUOT);
        EXPECT_THAT(ThrownError([&] { Kelvane::WriteManifestDatabaseFile(manifest.get(), 33); }),
                    StartsWith("Kelvane.ErrorDomain 1: Database initialization failed"));
    }
    EXPECT_THAT(NewFiles(), IsEmpty());
}

TEST_F(ManifestDatabaseFile, WithInvalidRowsLeavesNoCopy) {
    const testing_support::TemporaryDirectory directory;
    const std::string source = (directory / "db").string();
    testing_support::RunCommand({"sqlite3", source,
                                 "CREATE TABLE Files (fileID, domain, relativePath, flags, file);"
                                 "INSERT INTO Files VALUES ('a', 'D', 'p', 1, x'00');"});
    ASSERT_TRUE(boost::filesystem::exists(source));
    EXPECT_EQ(KVManifestCreateFromManifestDatabase(nullptr, CF::String(source).get(), 33, {}, {},
                                                   nullptr),
              nullptr);
    EXPECT_THAT(NewFiles(), IsEmpty());
}

TEST_F(ManifestDatabaseFile, RefusesOtherVersionsBeforeAnyFileIsMade) {
    EXPECT_EQ(
        ThrownError([] { Kelvane::WriteManifestDatabaseFile(ManifestOfPaths({"a"}).get(), 24); }),
        "Kelvane.ErrorDomain 2: Invalid manifest version '24' for this encoding scheme");
    EXPECT_THAT(NewFiles(), IsEmpty());
}

TEST_F(ManifestDatabaseFile, DatabaseThatCannotBeReadLeavesNoCopy) {
    const testing_support::TemporaryDirectory directory;
    const auto source = directory.write("db", Octets(8192, 'x'));
    EXPECT_THAT(ThrownError([&] { Kelvane::ManifestDB{CF::String(source.string())}; }),
                StartsWith("Kelvane.ErrorDomain 13: Failed to query user_version ("));
    EXPECT_THAT(NewFiles(), IsEmpty());
}

TEST_F(ManifestDatabaseFile, GoesBeyondTheSizeOfRepresentations) {
    std::vector<Kelvane::EntryPointer> entries;
    const auto digest = DataOf(Octets(8 * 1024 * 1024, 7));
    for (int i = 0; i < 13; ++i) {
        entries.push_back(MakeEntry("D", std::to_string(i)));
        entries.back().get()->dataHash = digest.get();
    }
    const std::string path = Kelvane::WriteManifestDatabaseFile(MakeManifest(entries).get(), 33);
    EXPECT_GT(boost::filesystem::file_size(path), 104857600U);
    EXPECT_THAT(
        testing_support::RunCommand({"sqlite3", path, "SELECT COUNT(*) FROM Files;"}).output,
        EndsWith("13\n"));
    Kelvane::RemoveManifestDatabaseFile(path);
}
