// Backups read out of zip archives.
#include "tests/container/BackupFixture.hpp"

#include "KVManifest.h"
#include "container/BackupSource.hpp"

#include <sys/stat.h>

namespace container_tests {
namespace {

// Writes a zip record by record with Python's zipfile; the script sees `archive`.
std::string MakeZip(const testing_support::TemporaryDirectory &directory,
                    const std::string &script) {
    // Records are unpacked there.
    testing_support::LibraryTemporaryPath();
    const std::string path = (directory / "made.zip").string();
    const auto result = testing_support::RunPython(
        "import sys, zipfile\narchive = zipfile.ZipFile(sys.argv[1], 'w')\n"
        "root = sys.argv[2]\n" +
            script + "\narchive.close()\n",
        {path, SamplePath(kPlain)});
    EXPECT_EQ(result.status, 0) << result.errors;
    return path;
}

constexpr const char *kAddAll = R"(
import os
for folder, _, names in os.walk(root):
    for name in names:
        path = os.path.join(folder, name)
        archive.write(path, os.path.relpath(path, root), METHOD)
)";

std::string addAll(const std::string &method) {
    std::string script = kAddAll;
    script.replace(script.find("METHOD"), 6, method);
    return script;
}

void expectAllFiles(const Opened &backup, const std::string &sample) {
    const nlohmann::json expectations = Expectations(sample);
    for (const auto &entry : expectations.at("entries")) {
        if (entry.at("type") != "file") {
            continue;
        }
        const CopiedFile copied = CopyFileForPath(backup, entry.at("domain"), entry.at("path"));
        ASSERT_TRUE(copied.file) << entry.at("path");
        EXPECT_EQ(SHA256(ReadContent(copied.file.get())), entry.at("sha256")) << entry.at("path");
    }
}

TEST(Zip, GivesEveryFileOfTheSample) { expectAllFiles(OpenSample(kZip), kZip); }

TEST(Zip, GivesEveryFileWhenDeflated) {
    const testing_support::TemporaryDirectory directory;
    const Opened backup = OpenPath(MakeZip(directory, addAll("zipfile.ZIP_DEFLATED")));
    ASSERT_TRUE(backup.container);
    expectAllFiles(backup, kPlain);
}

TEST(Zip, GivesEveryFileOfAnEncryptedBackup) {
    const BackupCopy copy(kEncrypted);
    const OpenArguments arguments{SamplePassword(), kKVBackupOpenKeepDeviceBoundKeysLocked, {}};
    const Opened backup = OpenPath(copy.Zip(), arguments);
    ASSERT_TRUE(backup.container);
    expectAllFiles(backup, kEncrypted);
}

TEST(Zip, OpensABinaryManifest) {
    const Opened backup = OpenPath(BackupCopy(kBinary).Zip());
    ASSERT_TRUE(backup.container);
    EXPECT_GT(KVManifestGetTotalFileCount(KVBackupContainerGetManifest(backup.get())), 0);
}

TEST(Zip, DoesNotDoWithoutInfo) {
    const BackupCopy copy(kPlain);
    copy.Remove("Info.plist");
    const Opened backup = OpenPath(copy.Zip());
    EXPECT_FALSE(backup.container);
    EXPECT_TRUE(IsError(backup.error, kKVErrorInvalidBackup,
                        "Failed to load backup metadata file (Info.plist)"));
    const CF::Error missing = backup.error.GetUnderlying();
    EXPECT_TRUE(IsError(missing, kKVErrorInvalidBackup, "Could not locate file record in zip"));
    EXPECT_EQ(CF::String::GetUTF8(missing.GetUnderlying().GetDomain()), "ZK.ZipErrorDomain");
}

TEST(Zip, ThatIsNoneIsRefusedWithItsPath) {
    const testing_support::TemporaryDirectory directory;
    const auto path = directory.write("no.zip", std::string_view("no zip at all"));
    const Opened backup = OpenPath(path.string());
    EXPECT_TRUE(IsError(backup.error, kKVErrorInvalidBackup,
                        "Failed to open zip file (" + path.string() + ")"));
}

Opened openAsZip(const std::string &path) {
    testing_support::LibraryTemporaryPath();
    CFErrorRef error = nullptr;
    KVBackupContainerClass *container =
        KVBackupContainerCreateFromZipFile(nullptr, CF::String(path), {}, &error);
    return {Container(CF::adopt, container), CF::Error::Adopt(error)};
}

TEST(Zip, ThatIsAFIFOIsRefusedWithoutWaiting) {
    const testing_support::TemporaryDirectory directory;
    const std::string path = (directory / "fifo.zip").string();
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_TRUE(IsError(openAsZip(path).error, kKVErrorInvalidBackup,
                        "Failed to open zip file (" + path + ")"));
}

TEST(Zip, ThatIsMissingOrADirectoryIsRefused) {
    const testing_support::TemporaryDirectory directory;
    EXPECT_EQ(openAsZip((directory / "missing").string()).error.GetCode(), kKVErrorInvalidBackup);
    EXPECT_EQ(openAsZip(directory.path().string()).error.GetCode(), kKVErrorInvalidBackup);
}

TEST(Zip, FindsRecordsByTheirExactName) {
    const testing_support::TemporaryDirectory directory;
    const std::string path =
        MakeZip(directory, addAll("zipfile.ZIP_STORED") +
                               "\narchive.writestr('status.plist', 'the small one')\n");
    const auto source = Kelvane::OpenZipSource(path);
    const auto small = source->Load("status.plist");
    EXPECT_EQ(KVFileGetSize(small.get()), 13u);
    EXPECT_NE(KVFileGetSize(source->Load("Status.plist").get()), 13u);
}

TEST(Zip, TakesTheFirstOfTwoRecordsOfOneName) {
    const testing_support::TemporaryDirectory directory;
    const std::string path = MakeZip(directory, "import warnings\nwarnings.simplefilter('ignore')\n"
                                                "archive.writestr('a', 'first')\n"
                                                "archive.writestr('a', 'the second')\n");
    EXPECT_EQ(KVFileGetSize(Kelvane::OpenZipSource(path)->Load("a").get()), 5u);
}

class RecordSize : public testing::TestWithParam<int> {};

TEST_P(RecordSize, ComesOutWhole) {
    testing_support::LibraryTemporaryPath();
    const testing_support::TemporaryDirectory directory;
    const std::string path =
        MakeZip(directory, "archive.writestr('a', b'x' * " + std::to_string(GetParam()) +
                               ", zipfile.ZIP_DEFLATED)\n");
    const auto file = Kelvane::OpenZipSource(path)->Load("a");
    EXPECT_FALSE(KVFileIsAppendable(file.get()));
    EXPECT_EQ(KVFileGetSize(file.get()), static_cast<std::uint64_t>(GetParam()));
    EXPECT_EQ(ReadContent(file.get()),
              std::vector<std::uint8_t>(static_cast<std::size_t>(GetParam()), 'x'));
}

INSTANTIATE_TEST_SUITE_P(Sizes, RecordSize, testing::Values(0, 1, 32767, 32768, 32769, 100000));

// The error of loading the record "a" from a zip that the script made and spoiled.
CF::Error errorOfDamaged(const std::string &script) {
    testing_support::LibraryTemporaryPath();
    const testing_support::TemporaryDirectory directory;
    const std::string path = MakeZip(directory, script);
    try {
        Kelvane::OpenZipSource(path)->Load("a");
    } catch (const CF::Error &error) {
        return error;
    }
    return {};
}

// After closing, the bytes of the archive are changed.
std::string spoil(const std::string &method, const std::string &change) {
    return "archive.writestr('a', b'0123456789' * 5000, " + method +
           ")\narchive.close()\n"
           "data = bytearray(open(sys.argv[1], 'rb').read())\n" +
           change + "\nopen(sys.argv[1], 'wb').write(data)\n";
}

TEST(Zip, RefusesARecordWhoseChecksumDoesNotFit) {
    const CF::Error error =
        errorOfDamaged(spoil("zipfile.ZIP_STORED", "i = data.index(b'0123456789')\ndata[i] ^= 1"));
    EXPECT_TRUE(IsError(error, kKVErrorArchive, "Failed to extract file data"));
    EXPECT_EQ(error.GetUnderlying().GetCode(), -105);
}

TEST(Zip, RefusesARecordWhoseDataIsDamaged) {
    const CF::Error error =
        errorOfDamaged(spoil("zipfile.ZIP_DEFLATED", "data[40] ^= 0xff\ndata[45] ^= 0xff"));
    EXPECT_TRUE(IsError(error, kKVErrorArchive, "Failed to extract file data"));
}

TEST(Zip, RefusesARecordThatIsShorterThanItSays) {
    // The size in the central directory and in the local header, one byte more.
    const CF::Error error = errorOfDamaged(spoil("zipfile.ZIP_DEFLATED",
                                                 "import struct\nsize = struct.pack('<I', 50000)\n"
                                                 "for _ in range(2):\n"
                                                 "    i = data.index(size)\n"
                                                 "    data[i:i+4] = struct.pack('<I', 50001)\n"));
    EXPECT_TRUE(IsError(error, kKVErrorArchive, "Failed to extract file data"));
}

// Both headers of the record claim that size.
std::string claim(const std::string &method, const std::string &size) {
    return spoil(method, "import struct\n"
                         "archive = zipfile.ZipFile(sys.argv[1])\n"
                         "packed = archive.getinfo('a').compress_size\n"
                         "size = struct.pack('<I', " +
                             size +
                             ")\n"
                             "data[22:26] = size\n"
                             "i = data.rindex(b'PK\\x01\\x02')\n"
                             "data[i+24:i+28] = size\n");
}

class ImpossibleSize : public testing::TestWithParam<std::pair<const char *, const char *>> {};

TEST_P(ImpossibleSize, IsRefusedBeforeAnythingIsUnpacked) {
    const auto store = testing_support::LibraryTemporaryPath() / "KVFileManager";
    const auto files = [&] {
        fs::create_directories(store);
        return std::distance(fs::directory_iterator(store), fs::directory_iterator());
    };
    const auto before = files();
    const CF::Error error = errorOfDamaged(claim(GetParam().first, GetParam().second));
    EXPECT_TRUE(IsError(error, kKVErrorArchive, "Failed to extract file data"));
    const std::string cause = error.GetUnderlying().GetFailureReason().GetUTF8();
    EXPECT_EQ(cause.find("The zip record claims "), 0u) << cause;
    EXPECT_EQ(files(), before);
}

INSTANTIATE_TEST_SUITE_P(Claims, ImpossibleSize,
                         testing::Values(std::pair("zipfile.ZIP_STORED", "50001"),
                                         std::pair("zipfile.ZIP_DEFLATED", "packed * 1032 + 1"),
                                         std::pair("zipfile.ZIP_DEFLATED", "0xfffffffe")));

TEST(Zip, TakesThePossibleForPossible) {
    const CF::Error error = errorOfDamaged(claim("zipfile.ZIP_DEFLATED", "packed * 1032"));
    // It has fewer bytes all the same, which shows when they are unpacked.
    EXPECT_TRUE(IsError(error, kKVErrorArchive, "Failed to extract file data"));
    EXPECT_EQ(CF::String::GetUTF8(error.GetUnderlying().GetDomain()), "ZK.ZipErrorDomain");
}

TEST(Zip, UnpacksWhatCompressesAsWellAsAnythingCan) {
    testing_support::LibraryTemporaryPath();
    const testing_support::TemporaryDirectory directory;
    const std::string path =
        MakeZip(directory, "archive.writestr(zipfile.ZipInfo('a'), bytes(32 << 20), "
                           "zipfile.ZIP_DEFLATED, 9)\n");
    EXPECT_EQ(KVFileGetSize(Kelvane::OpenZipSource(path)->Load("a").get()), 32u << 20);
}

TEST(Zip, RefusesARecordWithoutItsHeader) {
    const CF::Error error = errorOfDamaged(spoil("zipfile.ZIP_STORED", "data[0:4] = b'xxxx'"));
    EXPECT_TRUE(IsError(error, kKVErrorArchive, "Failed to open file record"));
}

TEST(Zip, RefusesAnUnknownCompressionMethod) {
    const CF::Error error = errorOfDamaged(spoil(
        "zipfile.ZIP_STORED", "data[8] = 93\ni = data.rindex(b'PK\\x01\\x02')\ndata[i + 10] = 93"));
    EXPECT_EQ(error.GetCode(), kKVErrorArchive);
}

TEST(Zip, SurvivesTruncationAnywhere) {
    testing_support::LibraryTemporaryPath();
    const testing_support::TemporaryDirectory directory;
    const std::string path = MakeZip(directory, "archive.writestr('a', b'0123456789')\n");
    const auto whole = testing_support::ReadFile(path);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const auto cut =
            directory.write("cut.zip", std::span<const std::uint8_t>(whole).first(length));
        const Opened backup = openAsZip(cut.string());
        EXPECT_FALSE(backup.container) << length;
        EXPECT_TRUE(backup.error) << length;
    }
}

TEST(Zip, SurvivesEveryChangedByte) {
    testing_support::LibraryTemporaryPath();
    const testing_support::TemporaryDirectory directory;
    const std::string path = MakeZip(directory, "archive.writestr('a', b'0123456789')\n");
    const auto whole = testing_support::ReadFile(path);
    for (std::size_t i = 0; i < whole.size(); ++i) {
        auto changed = whole;
        changed[i] ^= 0xFF;
        const auto spoiled = directory.write("spoiled.zip", changed);
        try {
            const auto file = Kelvane::OpenZipSource(spoiled.string())->Load("a");
            // A change that goes unnoticed changes nothing of the content.
            EXPECT_EQ(ReadContent(file.get()),
                      (std::vector<std::uint8_t>{'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'}))
                << i;
        } catch (const CF::Error &error) {
            EXPECT_TRUE(error);
        }
    }
}

TEST(Zip, DescribesItsContainer) {
    const Opened backup = OpenSample(kZip);
    KVBackupContainerSetBaseDirectory(backup.get(), CFSTR("/base"));
    const auto text = CF::String::Adopt(CFCopyDescription(backup.get()));
    const auto wanted = CF::String::Format(
        CFSTR("<KVBackupContainerRef %p> (Zip) path:%@ base_dir:/base"),
        static_cast<const void *>(backup.get()), CF::String(SamplePath(kZip)).get());
    EXPECT_EQ(text.GetUTF8(), wanted.GetUTF8());
}

} // namespace
} // namespace container_tests
