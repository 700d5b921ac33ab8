// Backups written out to directories.
#include "tests/container/ExportFixture.hpp"

#include <sys/stat.h>

namespace container_tests {
namespace {

constexpr const char *kIDs[] = {"0000000000000000000000000000000000000000",
                                "1111111111111111111111111111111111111111",
                                "2222222222222222222222222222222222222222"};

class DirectoryExport : public testing::Test {
  protected:
    Exported exportTo(const Editable &container, const ProgressFunction &also = {}) const {
        return RunExport(KVBackupContainerExportToDirectory, container.get(), target_, also);
    }
    bool has(const std::string &name) const { return fs::exists(target_ + "/" + name); }
    std::string content(const std::string &name) const {
        const auto bytes = testing_support::ReadFile(target_ + "/" + name);
        return {bytes.begin(), bytes.end()};
    }
    ::mode_t mode(const std::string &name) const {
        struct stat status {};
        EXPECT_EQ(::lstat((target_ + "/" + name).c_str(), &status), 0) << name;
        return status.st_mode & 07777u;
    }

    const testing_support::TemporaryDirectory directory_;
    const std::string target_ = (directory_ / "out").string();
};

TEST_F(DirectoryExport, OfSomethingThatIsThereFailsAfterTheFirstReport) {
    const Editable container = Editable::Sample(kPlain);
    for (const char *kind : {"file", "directory", "dangling link"}) {
        SCOPED_TRACE(kind);
        fs::remove_all(target_);
        if (kind == std::string("file")) {
            directory_.write("out", std::string_view("mine"));
        } else if (kind == std::string("directory")) {
            fs::create_directory(target_);
        } else {
            fs::create_symlink("nowhere", target_);
        }
        const Exported result = exportTo(container);
        EXPECT_FALSE(result.finished);
        EXPECT_EQ(result.progress, std::vector<double>{0.0});
        EXPECT_EQ(result.logged, Texts{"14 File already exists at path " + target_});
        EXPECT_FALSE(has("Manifest.plist"));
    }
}

TEST_F(DirectoryExport, MakesMissingParents) {
    const std::string deep = target_ + "/a/b/";
    const Exported result =
        RunExport(KVBackupContainerExportToDirectory, Editable::Sample(kPlain).get(), deep);
    EXPECT_TRUE(result.finished);
    EXPECT_TRUE(has("a/b/Manifest.db"));
    EXPECT_EQ(mode("a"), 0700u);
}

TEST_F(DirectoryExport, FailsWhenTheDirectoryCannotBeMade) {
    directory_.write("out", std::string_view("a file"));
    const std::string below = target_ + "/below";
    const Exported result =
        RunExport(KVBackupContainerExportToDirectory, Editable::Sample(kPlain).get(), below);
    EXPECT_FALSE(result.finished);
    EXPECT_EQ(result.progress, std::vector<double>{0.0});
    EXPECT_EQ(result.logged, Texts{"3 Failed to create containing directory " + below +
                                   " - Not a directory (20)"});
}

TEST_F(DirectoryExport, RefusesAPathThatANulCutsShort) {
    const std::string cut = target_ + std::string("\0x", 2);
    const Exported result =
        RunExport(KVBackupContainerExportToDirectory, Editable::Sample(kPlain).get(), cut);
    EXPECT_FALSE(result.finished);
    EXPECT_FALSE(fs::exists(target_));
}

TEST_F(DirectoryExport, IsPrivateWhateverTheUmask) {
    for (const ::mode_t mask : {0u, 0777u}) {
        fs::remove_all(target_);
        const ::mode_t before = ::umask(mask);
        const Exported result = exportTo(Editable::Sample(kPlain));
        ::umask(before);
        EXPECT_EQ(result.logged, Texts{});
        EXPECT_EQ(mode(""), 0700u);
        EXPECT_EQ(mode("Manifest.db"), 0600u);
        const std::string file = FindFileOfSize(kPlain, 32769).at("fileID");
        EXPECT_EQ(mode(file.substr(0, 2)), 0700u);
        EXPECT_EQ(mode(file.substr(0, 2) + "/" + file), 0600u);
    }
}

TEST_F(DirectoryExport, SkipsAFileThatTheSourceLacksAndWritesTheOthers) {
    const BackupCopy copy(kPlain);
    const std::string file = FindFileOfSize(kPlain, 32769).at("fileID");
    const std::string name = file.substr(0, 2) + "/" + file;
    copy.Remove(name);
    const Exported result = exportTo(Editable(OpenPath(copy.root())));
    EXPECT_TRUE(result.finished);
    ASSERT_EQ(result.logged.size(), 1u);
    EXPECT_EQ(result.logged[0], "8 File " + name +
                                    " could not be loaded for writing to directory < 2 Found "
                                    "file entry but no file ref is present (" +
                                    name + ") < 8 Failed to load file (" + name +
                                    ") < 16 File does not exist at path '" + copy.file(name) + "'");
    auto expected = ReadTree(copy.root());
    auto written = ReadTree(target_);
    EXPECT_EQ(written.size(), expected.size());
    EXPECT_FALSE(has(name));
}

TEST_F(DirectoryExport, WritesAnEmptyFile) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion24);
    AddForged(container, kIDs[0], "");
    EXPECT_EQ(exportTo(container).logged, Texts{});
    EXPECT_EQ(content(kIDs[0]), "");
}

TEST_F(DirectoryExport, WritesEverySizeAroundTheChunk) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion24);
    const std::vector<std::size_t> sizes = {1, 32767, 32768, 32769, 65536, 100000};
    for (const std::size_t size : sizes) {
        AddForged(container, "size" + std::to_string(size), std::string(size, 'k'));
    }
    EXPECT_EQ(exportTo(container).logged, Texts{});
    for (const std::size_t size : sizes) {
        EXPECT_EQ(content("size" + std::to_string(size)), std::string(size, 'k'));
    }
}

TEST_F(DirectoryExport, WritesAFileIDThatIsHeldTwiceOnce) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion24);
    AddForged(container, kIDs[0], "first");
    AddForged(container, kIDs[0], "second");
    const Exported result = exportTo(container);
    EXPECT_EQ(result.logged, Texts{});
    EXPECT_EQ(content(kIDs[0]), "second"); // the one that a lookup finds
}

TEST_F(DirectoryExport, PassesOverAnEntryWithTheFileIDOfMetadata) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion33);
    AddForged(container, "Manifest.plist", "no property list");
    EXPECT_EQ(exportTo(container).logged, Texts{});
    EXPECT_EQ(content("Manifest.plist").substr(0, 5), "<?xml");
}

TEST_F(DirectoryExport, NeverWritesUnsafeNames) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion24);
    const std::vector<std::string> names = {
        "../escaped", "/tmp/kelvane-escaped", ".", "..", "a/../b", "a//b", "a/",
        "./a",        std::string("a\0b", 3)};
    Texts expected;
    for (const std::string &name : names) {
        AddForged(container, name, "evil");
        expected.push_back("14 File " + name +
                           " could not be written < 10 Unsafe stored file name (" + name + ")");
    }
    AddForged(container, "good", "good");
    const Exported result = exportTo(container);
    EXPECT_TRUE(result.finished);
    EXPECT_EQ(result.logged, expected);
    EXPECT_EQ(ReadTree(directory_.path().string()).size(), 5u); // one good, manifest, metadata
    EXPECT_FALSE(fs::exists("/tmp/kelvane-escaped"));
}

TEST_F(DirectoryExport, ReportsEachFileIDThatIsTooShortForItsDirectory) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion33);
    AddForged(container, "a", "lost");
    AddForged(container, "b", "lost");
    const std::string error = "14 File  could not be written < 10 Unsafe stored file name ()";
    EXPECT_EQ(exportTo(container).logged, (Texts{error, error}));
}

TEST_F(DirectoryExport, ReportsAFileInThePlaceOfADirectory) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion24);
    AddForged(container, "a", "file");
    AddForged(container, "a/b", "below");
    const Exported result = exportTo(container);
    EXPECT_EQ(result.logged, Texts{"14 File a/b could not be written < 3 The file could not be "
                                   "opened for writing: Not a directory < 20 Not a directory"});
    EXPECT_EQ(content("a"), "file");
}

TEST_F(DirectoryExport, ReportsANameThatIsTooLong) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion24);
    const std::string name(300, 'n');
    AddForged(container, name, "content");
    const Exported result = exportTo(container);
    ASSERT_EQ(result.logged.size(), 1u);
    EXPECT_NE(result.logged[0].find("3 The file could not be opened for writing: File name too "
                                    "long"),
              std::string::npos);
}

TEST_F(DirectoryExport, NeverAppendsToWhatItDidNotMake) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion24);
    AddForged(container, kIDs[0], "first");
    AddForged(container, kIDs[1], "second");
    const Exported result = exportTo(container, [&](double fraction) {
        if (fraction > 0 && !has(kIDs[1])) {
            directory_.write(std::string("out/") + kIDs[1], std::string_view("somebody's"));
        }
    });
    EXPECT_TRUE(result.finished);
    EXPECT_EQ(result.logged, Texts{std::string("14 File ") + kIDs[1] +
                                   " could not be written < 3 The file could "
                                   "not be opened for writing: File exists < 17 File exists"});
    EXPECT_EQ(content(kIDs[1]), "somebody's");
}

TEST_F(DirectoryExport, FollowsNoLinkBelowTheTarget) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion33);
    AddForged(container, kIDs[0], "first");
    AddForged(container, kIDs[1], "second");
    AddForged(container, kIDs[2], "third");
    fs::create_directory(directory_ / "outside");
    const Exported result = exportTo(container, [&](double fraction) {
        if (fraction > 0 && !has("11")) {
            fs::create_symlink("../outside", target_ + "/11");
            fs::create_directory(target_ + "/22");
            fs::create_symlink("../../outside/file", target_ + "/22/" + kIDs[2]);
        }
    });
    ASSERT_EQ(result.logged.size(), 2u);
    EXPECT_NE(result.logged[0].find("The file could not be opened for writing: Not a directory"),
              std::string::npos);
    EXPECT_NE(result.logged[1].find("The file could not be opened for writing: File exists"),
              std::string::npos);
    EXPECT_TRUE(fs::is_empty(directory_ / "outside"));
}

TEST_F(DirectoryExport, LeavesNoPartOfAFileThatVanishesBeforeItIsRead) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion24);
    const std::string source = directory_.write("source", std::string_view("content")).string();
    AddForged(container, kIDs[0], "path", [source](CFStringRef, CFErrorRef *error) {
        KVFileClass *file = KVFileCreateFromFileAtPath(CF::String(source), false, error);
        fs::remove(source);
        return file;
    });
    const Exported result = exportTo(container);
    EXPECT_TRUE(result.finished);
    ASSERT_EQ(result.logged.size(), 1u);
    EXPECT_NE(result.logged[0].find("could not be written < 3 "), std::string::npos)
        << result.logged[0];
    EXPECT_FALSE(has(kIDs[0]));
    EXPECT_TRUE(has("Status.plist"));
}

TEST_F(DirectoryExport, LeavesNoPartOfAFileThatDoesNotFit) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion24);
    AddForged(container, kIDs[0], "fits");
    AddPrepared(container, kIDs[1], std::string(100000, 'x'));
    const FileSizeLimit limit(50000);
    const Exported result = exportTo(container);
    EXPECT_TRUE(result.finished);
    EXPECT_EQ(result.logged, Texts{std::string("14 File ") + kIDs[1] +
                                   " could not be written < 3 The file could "
                                   "not be written - File too large < 27 File too large"});
    EXPECT_EQ(content(kIDs[0]), "fits");
    EXPECT_FALSE(has(kIDs[1]));
}

TEST_F(DirectoryExport, ReportsContentThatDoesNotLoadAsWhatItIs) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion24);
    AddForged(container, kIDs[0], "path",
              [](CFStringRef, CFErrorRef *) -> KVFileClass * { throw std::runtime_error("boom"); });
    const Exported result = exportTo(container);
    EXPECT_TRUE(result.finished);
    EXPECT_EQ(result.logged, Texts{std::string("8 File ") + kIDs[0] +
                                   " could not be loaded for writing to directory < 1 boom"});
}

TEST_F(DirectoryExport, WritesAManifestOfVersion24OnlyForIt) {
    EXPECT_EQ(exportTo(EmptyOfVersion(kKVManifestDataVersion24)).logged, Texts{});
    EXPECT_TRUE(has("Manifest.mbdb"));
    EXPECT_FALSE(has("Manifest.db"));
    EXPECT_TRUE(has("Info.plist"));
}

TEST_F(DirectoryExport, SkipsADatabaseOfMoreThan100MiB) {
    const Editable container = EmptyOfVersion(kKVManifestDataVersion33);
    const std::string target(1024 * 1024, 't');
    for (int i = 0; i < 110; ++i) {
        container.Link("HomeDomain", "link" + std::to_string(i), target);
    }
    const Exported result = exportTo(container);
    EXPECT_TRUE(result.finished);
    ASSERT_EQ(result.logged.size(), 1u);
    EXPECT_EQ(result.logged[0].find(
                  "8 File Manifest.db could not be loaded for writing to directory < 1 Failed to "
                  "create data representation of Manifest DB < 3 Failed to read from temporary DB "
                  "location: "),
              0u)
        << result.logged[0];
    EXPECT_FALSE(has("Manifest.db"));
    EXPECT_TRUE(has("Manifest.plist"));
}

} // namespace
} // namespace container_tests
