// Backups written out to zip archives.
#include "tests/container/ExportFixture.hpp"

#include "container/Export.hpp"

#include "filestore/KVFileClass.hpp"

#include <random>
#include <stdexcept>

#include <sys/stat.h>

namespace container_tests {
namespace {

const std::string kMetadataRecords[] = {"Manifest.mbdb", "Manifest.plist", "Info.plist",
                                        "Status.plist"};

std::string randomText(std::size_t size) {
    std::mt19937 generator(1);
    std::string text(size, '\0');
    for (char &character : text) {
        character = static_cast<char>(generator());
    }
    return text;
}

class ZipExport : public testing::Test {
  protected:
    Exported exportTo(const Editable &container, const ProgressFunction &also = {}) const {
        return RunExport(KVBackupContainerExportToZip, container.get(), target_, also);
    }
    Exported exportReported(const Editable &container) const {
        return RunExport(KVBackupContainerExportToZipWithReport, container.get(), target_);
    }
    // The names of the records before those of the manifest and metadata.
    Texts storedNames() const {
        Texts names = ReadRecords(target_, "info.filename");
        EXPECT_GE(names.size(), 4u);
        EXPECT_EQ(Texts(names.end() - 4, names.end()),
                  Texts(std::begin(kMetadataRecords), std::end(kMetadataRecords)));
        return {names.begin(), names.end() - 4};
    }
    std::string content(const std::string &name) const {
        return testing_support::RunCommand({"unzip", "-p", target_, name}).output;
    }

    const testing_support::TemporaryDirectory directory_;
    const std::string target_ = (directory_ / "out.zip").string();
    const Editable container_ = EmptyOfVersion(kKVManifestDataVersion24);
};

TEST_F(ZipExport, OntoSomethingThatIsThereFailsAfterTheFirstReport) {
    for (const char *kind : {"file", "directory", "dangling link"}) {
        SCOPED_TRACE(kind);
        fs::remove_all(target_);
        if (kind == std::string("file")) {
            directory_.write("out.zip", std::string_view("mine"));
        } else if (kind == std::string("directory")) {
            fs::create_directory(target_);
        } else {
            fs::create_symlink("nowhere", target_);
        }
        const Exported result = exportTo(container_);
        EXPECT_FALSE(result.finished);
        EXPECT_EQ(result.progress, std::vector<double>{0.0});
        EXPECT_EQ(result.logged, Texts{"14 File already exists at path " + target_});
        EXPECT_FALSE(fs::exists(directory_ / "nowhere"));
    }
}

TEST_F(ZipExport, WithoutAReportIsTrueEvenForAnUnusablePath) {
    AddForged(container_, "a", "content");
    const std::string path = (directory_ / "missing" / "out.zip").string();
    const Exported result = RunExport(KVBackupContainerExportToZip, container_.get(), path);
    EXPECT_TRUE(result.finished);
    ASSERT_EQ(result.logged.size(), 5u);
    EXPECT_EQ(result.logged[0], "14 File a could not be written in zip < 9 The zip record could "
                                "not be opened (-102) < 2 No such file or directory");
    EXPECT_FALSE(fs::exists(directory_ / "missing"));
}

TEST_F(ZipExport, WithAReportIsFalseForAnUnusablePath) {
    AddForged(container_, "a", "content");
    const std::string path = (directory_ / "missing" / "out.zip").string();
    const Exported result =
        RunExport(KVBackupContainerExportToZipWithReport, container_.get(), path);
    EXPECT_FALSE(result.finished);
    EXPECT_EQ(result.reported, Texts{"9 The archive could not be completed (-102) < 2 No such "
                                     "file or directory"});
    EXPECT_EQ(result.logged, result.reported);
    EXPECT_FALSE(result.metadataWritten);
}

TEST_F(ZipExport, RefusesAPathThatANulCutsShort) {
    AddForged(container_, "a", "content");
    const std::string cut = target_ + std::string("\0x", 2);
    EXPECT_FALSE(RunExport(KVBackupContainerExportToZipWithReport, container_.get(), cut).finished);
    EXPECT_FALSE(fs::exists(target_));
}

TEST_F(ZipExport, IsPrivateWhateverTheUmask) {
    for (const ::mode_t mask : {0u, 0777u}) {
        fs::remove(target_);
        const ::mode_t before = ::umask(mask);
        exportTo(container_);
        ::umask(before);
        struct stat status {};
        ASSERT_EQ(::stat(target_.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777u, 0600u);
    }
}

TEST_F(ZipExport, WritesRecordsInTheManifestsOrder) {
    for (const char *name : {"c", "a", "b"}) {
        AddForged(container_, name, name);
    }
    EXPECT_EQ(exportTo(container_).logged, Texts{});
    EXPECT_EQ(storedNames(), (Texts{"c", "a", "b"}));
    ExpectSoundArchive(target_);
}

TEST_F(ZipExport, DeflatesWithoutExtras) {
    AddForged(container_, "a", std::string(1000, 'a'));
    exportTo(container_);
    for (const std::string &record :
         ReadRecords(target_, "info.compress_type, info.flag_bits, info.create_version, "
                              "info.create_system, info.external_attr, "
                              "len(info.extra), len(info.comment)")) {
        EXPECT_EQ(record, "8 0 0 0 0 0 0");
    }
    EXPECT_LT(fs::file_size(target_), 4000u);
}

TEST_F(ZipExport, DatesRecordsByTheEntryInLocalTime) {
    ::setenv("TZ", "Etc/GMT-3", 1);
    const Editable sample = Editable::Sample(kBinary);
    exportTo(sample);
    const auto file = FindFileOfSize(kBinary, 32769);
    const auto record =
        ReadRecords(target_, "info.filename, int(__import__('calendar').timegm(info.date_time))");
    // Records have no odd seconds.
    const std::int64_t expected = (file.at("modified").get<std::int64_t>() + 3 * 3600) / 2 * 2;
    const std::string line = file.at("fileID").get<std::string>() + " " + std::to_string(expected);
    EXPECT_NE(std::find(record.begin(), record.end(), line), record.end());
}

TEST_F(ZipExport, WritesAnEmptyFileAsAnEmptyRecord) {
    AddForged(container_, "empty", "");
    EXPECT_EQ(exportTo(container_).logged, Texts{});
    EXPECT_EQ(ReadRecords(target_, "info.filename, info.file_size")[0], "empty 0");
    ExpectSoundArchive(target_);
}

TEST_F(ZipExport, WritesEverySizeAroundTheChunk) {
    const std::vector<std::size_t> sizes = {1, 32767, 32768, 32769, 65536, 300000};
    for (const std::size_t size : sizes) {
        AddForged(container_, std::to_string(size), randomText(size));
    }
    EXPECT_EQ(exportTo(container_).logged, Texts{});
    for (const std::size_t size : sizes) {
        EXPECT_EQ(content(std::to_string(size)), randomText(size));
    }
    ExpectSoundArchive(target_);
}

TEST_F(ZipExport, WritesAFileIDThatIsHeldTwiceOnce) {
    AddForged(container_, "twice", "first");
    AddForged(container_, "twice", "second");
    EXPECT_EQ(exportTo(container_).logged, Texts{});
    EXPECT_EQ(storedNames(), Texts{"twice"});
    EXPECT_EQ(content("twice"), "second");
}

TEST_F(ZipExport, NeverWritesUnsafeNames) {
    const Texts names = {"../escaped", "/escaped", ".", "..", "a/../b", "a//b", "a/"};
    Texts expected;
    for (const std::string &name : names) {
        AddForged(container_, name, "evil");
        expected.push_back("14 File " + name +
                           " could not be written in zip < 10 Unsafe stored file name (" + name +
                           ")");
    }
    const Exported result = exportReported(container_);
    EXPECT_TRUE(result.finished);
    EXPECT_EQ(result.reported, expected);
    EXPECT_EQ(result.logged, expected);
    EXPECT_TRUE(result.metadataWritten);
    EXPECT_EQ(storedNames(), Texts{});
}

TEST_F(ZipExport, RefusesANameThatARecordCannotHold) {
    const std::string name(65536, 'n');
    const auto content = [](CFStringRef, CFErrorRef *) { return Editable::FileOf("x").detach(); };
    AddForged(container_, name, "longer", content);
    AddForged(container_, name.substr(1), "longest", content);
    const Exported result = exportTo(container_);
    ASSERT_EQ(result.logged.size(), 1u);
    EXPECT_NE(result.logged[0].find("9 Name too long for a zip record (65536 bytes)"),
              std::string::npos);
    EXPECT_EQ(storedNames(), Texts{name.substr(1)});
}

TEST_F(ZipExport, SkipsAFileThatTheSourceLacks) {
    const BackupCopy copy(kBinary);
    const std::string file = FindFileOfSize(kBinary, 32769).at("fileID");
    copy.Remove(file);
    const Exported result = exportTo(Editable(OpenPath(copy.root())));
    EXPECT_TRUE(result.finished);
    ASSERT_EQ(result.logged.size(), 1u);
    EXPECT_EQ(result.logged[0].find("8 File " + file + " could not be loaded for writing to zip"),
              0u);
    ExpectSoundArchive(target_);
}

// Content that fails after some pieces were delivered: it does not decrypt to its end.
void addFailing(const Editable &container, const std::string &name,
                const testing_support::TemporaryDirectory &directory) {
    const std::string source =
        directory.write("source-" + name, std::string_view(randomText(96 * 1024))).string();
    AddForged(container, name, name, [source](CFStringRef, CFErrorRef *error) {
        KVFileClass *file = KVFileCreateFromFileAtPath(CF::String(source), false, error);
        KVFileEnableEncryption(file, {});
        file->cryptOperation = ZK::Encryption::Operation::Decrypt;
        return file;
    });
}

class FailingRecord : public ZipExport, public testing::WithParamInterface<int> {};

TEST_P(FailingRecord, IsNoPartOfTheArchive) {
    const Texts names = {"first", "middle", "last"};
    Texts expected = names;
    for (int i = 0; i < 3; ++i) {
        const std::string &name = names[static_cast<std::size_t>(i)];
        if (i == GetParam()) {
            addFailing(container_, name, directory_);
            expected.erase(expected.begin() + i);
        } else {
            AddForged(container_, name, randomText(5000));
        }
    }
    const Exported result = exportTo(container_);
    EXPECT_TRUE(result.finished);
    ASSERT_EQ(result.logged.size(), 1u);
    EXPECT_NE(result.logged[0].find("could not be written in zip < 18 Cryptor finalize failed"),
              std::string::npos)
        << result.logged[0];
    EXPECT_EQ(storedNames(), expected);
    EXPECT_LT(fs::file_size(target_), 15000u); // what was written of it is taken back
    ExpectSoundArchive(target_);
}

INSTANTIATE_TEST_SUITE_P(Positions, FailingRecord, testing::Values(0, 1, 2));

TEST_F(ZipExport, SkipsContentThatVanishesBeforeItIsRead) {
    const std::string source = directory_.write("source", std::string_view("content")).string();
    AddForged(container_, "gone", "path", [source](CFStringRef, CFErrorRef *error) {
        KVFileClass *file = KVFileCreateFromFileAtPath(CF::String(source), false, error);
        fs::remove(source);
        return file;
    });
    const Exported result = exportTo(container_);
    ASSERT_EQ(result.logged.size(), 1u);
    EXPECT_EQ(result.logged[0].find("14 File gone could not be written in zip < 3 "), 0u);
    EXPECT_EQ(storedNames(), Texts{});
    ExpectSoundArchive(target_);
}

TEST_F(ZipExport, SkipsWhatDoesNotFitAndKeepsTheRest) {
    for (const std::size_t size : {10000u, 100000u, 700000u, 20000u}) {
        AddPrepared(container_, std::to_string(size), randomText(size));
    }
    Exported result;
    {
        const FileSizeLimit limit(60000);
        result = exportTo(container_);
    }
    EXPECT_TRUE(result.finished);
    EXPECT_EQ(result.logged,
              (Texts{"14 File 100000 could not be written in zip < 9 The zip record could not be "
                     "completed (-1) < 27 File too large",
                     "14 File 700000 could not be written in zip < 9 ZipWriteInFile failed (-1) < "
                     "27 File too large"}));
    EXPECT_EQ(storedNames(), (Texts{"10000", "20000"}));
    EXPECT_EQ(content("20000"), randomText(20000));
    ExpectSoundArchive(target_);
}

class FullDisk : public ZipExport {
  protected:
    FullDisk() {
        for (int i = 0; i < 100; ++i) {
            AddPrepared(container_, "file" + std::to_string(i), randomText(500));
        }
        exportTo(container_);
        const auto start = testing_support::RunPython(
            "import sys, zipfile\nprint(zipfile.ZipFile(sys.argv[1]).start_dir)\n", {target_});
        directoryStart_ = std::stoul(start.output);
        fs::remove(target_);
    }
    ::rlim_t directoryStart_ = 0;
};

TEST_F(FullDisk, WithoutRoomForTheDirectoryLeavesNoArchive) {
    const FileSizeLimit limit(directoryStart_ + 100);
    const Exported result = exportTo(container_);
    EXPECT_TRUE(result.finished);
    EXPECT_EQ(result.logged,
              Texts{"9 The archive could not be completed (-1) < 27 File too large"});
    EXPECT_FALSE(fs::exists(target_));
}

TEST_F(FullDisk, WithoutRoomForTheDirectoryFailsTheReport) {
    const FileSizeLimit limit(directoryStart_ + 100);
    const Exported result = exportReported(container_);
    EXPECT_FALSE(result.finished);
    EXPECT_EQ(result.reported,
              Texts{"9 The archive could not be completed (-1) < 27 File too large"});
    EXPECT_FALSE(result.metadataWritten);
    EXPECT_FALSE(fs::exists(target_));
}

TEST_F(ZipExport, RemovesTheArchiveWhenProgressThrows) {
    AddForged(container_, "a", "content");
    const auto thrower = [](double fraction) {
        if (fraction > 0) {
            throw std::runtime_error("enough");
        }
    };
    EXPECT_THROW(exportTo(container_, thrower), std::runtime_error);
    EXPECT_FALSE(fs::exists(target_));
}

// Content that says to be of that size.
void addOfSize(const Editable &container, const std::string &name, std::uint64_t size) {
    AddForged(container, name, name, [size](CFStringRef, CFErrorRef *) {
        KVFileClass *file = Editable::FileOf(std::string(40000, 'x')).detach();
        file->size = size;
        return file;
    });
}

TEST_F(ZipExport, WithoutAReportRefusesWhatAPlainRecordCannotHold) {
    addOfSize(container_, "large", 0xffffffff);
    const Exported result = exportTo(container_);
    EXPECT_EQ(result.logged, Texts{"14 File large could not be written in zip < 9 Too large for a "
                                   "plain zip record (4294967295 bytes)"});
    EXPECT_EQ(storedNames(), Texts{});
}

TEST_F(ZipExport, WithAReportTakesWhatAPlainRecordCannotHold) {
    addOfSize(container_, "large", 0xffffffff);
    // It is not as large as it says, which shows only when it is written.
    EXPECT_EQ(exportReported(container_).reported,
              Texts{"14 File large could not be written in zip < 3 The file changed while it was "
                    "written (40000 of 4294967295 bytes)"});
    ExpectSoundArchive(target_);
}

TEST(Zip64, IsForSizesThatMayComeTo4GiB) {
    EXPECT_FALSE(Kelvane::MayNeedZip64(4286578688));
    EXPECT_TRUE(Kelvane::MayNeedZip64(0xfffffffe));
    EXPECT_TRUE(Kelvane::MayNeedZip64(0x100000000));
}

} // namespace
} // namespace container_tests
