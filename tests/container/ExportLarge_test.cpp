// Archives beyond what plain zip fields hold.
#include "filestore/KVFileClass.hpp"
#include "tests/container/ExportFixture.hpp"

#include <cstdlib>

namespace container_tests {
namespace {

constexpr const char *kContent = "content";

// Adds that many files in one step, all with one content: a file on the disk for each would
// take most of the time.
void addMany(const Editable &container, int count) {
    const KVGetFileFunction getFile = [content = Editable::FileOf(kContent)](CFStringRef,
                                                                             CFErrorRef *) {
        return KVFileCreateCopy(content.get());
    };
    AddForged(container, "model", "model", getFile);
    const CF::Array model(KVManifestGetEntries(container.manifest()));
    const auto record = CF::Data::Adopt(KVManifestEntryCreateMBFileDataRepresentation(
        static_cast<const KVManifestEntryClass *>(model.GetAt(0))));
    const auto entries = CF::Array::Mutable();
    for (int i = 0; i < count; ++i) {
        const CF::String name(std::to_string(i));
        entries.Append(CF::Adopt(KVManifestEntryCreateFromMBFileData(
                                     nullptr, name, CFSTR("HomeDomain"), name, 1, record, getFile))
                           .get());
    }
    KVManifestUpdateEntries(container.manifest(), entries.get());
}

class ManyRecords : public testing::TestWithParam<int> {
  protected:
    // What readers find: the number of records and whether the last one is whole.
    std::string found() const {
        const auto python = testing_support::RunPython(
            "import sys, zipfile\n"
            "archive = zipfile.ZipFile(sys.argv[1])\n"
            "print(len(archive.namelist()), archive.testzip(), archive.read(sys.argv[2]))\n",
            {target_, std::to_string(GetParam() - kMetadata - 1)});
        EXPECT_EQ(python.status, 0) << python.errors;
        const auto unzip = testing_support::RunCommand({"unzip", "-tqq", target_});
        EXPECT_EQ(unzip.status, 0) << unzip.output << unzip.errors;
        return python.output;
    }
    std::string expected() const {
        return std::to_string(GetParam()) + " None b'" + kContent + "'\n";
    }
    static constexpr int kMetadata = 4;

    const testing_support::TemporaryDirectory directory_;
    const std::string target_ = (directory_ / "out.zip").string();
    const Editable container_ = EmptyOfVersion(kKVManifestDataVersion24);
};

// 65,535 records in all are the last that a plain end record can count.
TEST_P(ManyRecords, AreAllFound) {
    addMany(container_, GetParam() - kMetadata);
    const Exported result =
        RunExport(KVBackupContainerExportToZipWithReport, container_.get(), target_);
    EXPECT_EQ(result.reported, Texts{});
    EXPECT_EQ(found(), expected());
}

TEST_P(ManyRecords, AreAllFoundButOneThatFailed) {
    addMany(container_, GetParam() - kMetadata);
    AddForged(container_, "gone", "gone", [](CFStringRef, CFErrorRef *) {
        KVFileClass *file = Editable::FileOf("content").detach();
        file->localPath = CF::String("/nonexistent/file");
        return file;
    });
    const Exported result = RunExport(KVBackupContainerExportToZip, container_.get(), target_);
    EXPECT_EQ(result.logged.size(), 1u);
    EXPECT_EQ(found(), expected());
}

INSTANTIATE_TEST_SUITE_P(Counts, ManyRecords, testing::Values(65535, 65536, 70000));

// Some minutes and gigabytes, and therefore only for who asks for them.
class LargeRecords : public testing::Test {
  protected:
    void SetUp() override {
        if (std::getenv("KELVANE_SLOW_TESTS") == nullptr) {
            GTEST_SKIP() << "set KELVANE_SLOW_TESTS to run it";
        }
    }
    // A file of zeros, or of random bytes.
    std::string make(const std::string &name, std::uint64_t size, bool random) const {
        const std::string path = (directory_ / name).string();
        const auto made = testing_support::RunCommand(
            {"sh", "-c", random ? "head -c $2 /dev/urandom > \"$1\"" : "truncate -s $2 \"$1\"",
             "sh", path, std::to_string(size)});
        EXPECT_EQ(made.status, 0) << made.errors;
        return path;
    }
    static void add(const Editable &container, const std::string &name, const std::string &path) {
        AddForged(container, name, name, [path](CFStringRef, CFErrorRef *error) {
            return KVFileCreateFromFileAtPath(CF::String(path), false, error);
        });
    }
    // The sizes and checksums that Python finds, having read everything.
    Texts records() const {
        return testing_support::RunCommand({"unzip", "-tqq", target_}).status == 0
                   ? split(testing_support::RunPython("import sys, zipfile\n"
                                                      "archive = zipfile.ZipFile(sys.argv[1])\n"
                                                      "assert archive.testzip() is None\n"
                                                      "for info in archive.infolist()[:-4]:\n"
                                                      "    print(info.filename, info.file_size)\n",
                                                      {target_})
                               .output)
                   : Texts{"damaged"};
    }
    static Texts split(const std::string &text) {
        Texts lines;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    const testing_support::TemporaryDirectory directory_;
    const std::string target_ = (directory_ / "out.zip").string();
    const Editable container_ = EmptyOfVersion(kKVManifestDataVersion24);
};

TEST_F(LargeRecords, OfMoreThan4GiBComeOutWithAReport) {
    constexpr std::uint64_t kSize = 5ull << 30;
    add(container_, "large", make("large", kSize, false));
    AddForged(container_, "small", "small");
    const Exported result =
        RunExport(KVBackupContainerExportToZipWithReport, container_.get(), target_);
    EXPECT_EQ(result.reported, Texts{});
    EXPECT_EQ(records(), (Texts{"large 5368709120", "small 5"}));
    const auto unzip =
        testing_support::RunCommand({"sh", "-c", "unzip -p \"$1\" large | cmp - \"$2\"", "sh",
                                     target_, (directory_ / "large").string()});
    EXPECT_EQ(unzip.status, 0) << unzip.output << unzip.errors;
}

TEST_F(LargeRecords, ThatTurnOutTooLargeAreTakenBackWithoutAReport) {
    const std::string path = make("grown", 40000, false);
    AddForged(container_, "grown", "grown", [path](CFStringRef, CFErrorRef *error) {
        KVFileClass *file = KVFileCreateFromFileAtPath(CF::String(path), false, error);
        fs::resize_file(path, 0x100000000);
        return file;
    });
    AddForged(container_, "small", "small");
    const Exported result = RunExport(KVBackupContainerExportToZip, container_.get(), target_);
    EXPECT_EQ(result.logged, Texts{"14 File grown could not be written in zip < 9 Too large for a "
                                   "plain zip record (4294967296 bytes)"});
    EXPECT_EQ(records(), Texts{"small 5"});
}

TEST_F(LargeRecords, ThatLieBeyond4GiBComeOutInPlainRecords) {
    constexpr std::uint64_t kSize = 2200000000;
    const std::string path = make("random", kSize, true);
    add(container_, "first", path);
    add(container_, "second", path);
    AddForged(container_, "beyond", "beyond");
    AddForged(container_, "gone", "gone", [](CFStringRef, CFErrorRef *) {
        KVFileClass *file = Editable::FileOf("content").detach();
        file->localPath = CF::String("/nonexistent/file");
        return file;
    });
    const Exported result = RunExport(KVBackupContainerExportToZip, container_.get(), target_);
    EXPECT_EQ(result.logged.size(), 1u);
    EXPECT_GT(fs::file_size(target_), 0x100000000u);
    EXPECT_EQ(records(), (Texts{"first 2200000000", "second 2200000000", "beyond 6"}));
}

} // namespace
} // namespace container_tests
