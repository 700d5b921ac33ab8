// Getting contents out, readable or as stored.
#include "tests/container/BackupFixture.hpp"

#include "KVManifest.h"
#include "container/KVBackupContainerClass.hpp"
#include "support/zk/Encryption.hpp"

#include <sys/stat.h>

namespace container_tests {
namespace {

class Content : public testing::TestWithParam<const char *> {};

TEST_P(Content, OfEveryFileIsItsPlaintext) {
    const Opened backup = OpenSample(GetParam());
    const nlohmann::json expectations = Expectations(GetParam());
    int files = 0;
    for (const auto &entry : expectations.at("entries")) {
        if (entry.at("type") == "file") {
            const CopiedFile copied = CopyFileForPath(backup, entry.at("domain"), entry.at("path"));
            ASSERT_TRUE(copied.file) << entry.at("path");
            EXPECT_EQ(SHA256(ReadContent(copied.file.get())), entry.at("sha256"));
            EXPECT_EQ(KVFileGetSize(copied.file.get()), entry.at("size").get<std::uint64_t>());
            ++files;
        }
    }
    EXPECT_GT(files, 20);
}

INSTANTIATE_TEST_SUITE_P(Samples, Content, testing::Values(kEncrypted, kPlain, kBinary));

TEST(CopyOut, ByPathFailsForAnUnknownPath) {
    EXPECT_TRUE(IsError(CopyFileForPath(OpenSample(kPlain), "HomeDomain", "no").error,
                        kKVErrorNoSuchItem, "File not in backup"));
}

TEST(CopyOut, ByPathGivesNeitherFileNorErrorForADirectory) {
    const auto directory = FindExpected(
        kPlain, [](const nlohmann::json &entry) { return entry.at("type") == "directory"; });
    const CopiedFile copied =
        CopyFileForPath(OpenSample(kPlain), directory.at("domain"), directory.at("path"));
    EXPECT_FALSE(copied.file);
    EXPECT_FALSE(copied.error);
}

TEST(CopyOut, ByPathGivesNeitherFileNorErrorWithoutAKey) {
    const auto file = FindFileOfSize(kEncrypted, 32769);
    const Opened backup = OpenSample(kEncrypted);
    // An entry of the same path that holds no key takes the place of the backup's.
    KVManifestClass *manifest = KVBackupContainerGetManifest(backup.get());
    const auto data = testing_support::RunPython(
        "import plistlib, sys\n"
        "U = plistlib.UID\n"
        "objects = ['$null', {'$class': U(2), 'Mode': 0o100644, 'Size': 1, 'ProtectionClass': 3},"
        " {'$classname': 'MBFile', '$classes': ['MBFile', 'NSObject']}]\n"
        "sys.stdout.buffer.write(plistlib.dumps({'$archiver': 'NSKeyedArchiver',"
        " '$version': 100000, '$top': {'root': U(1)}, '$objects': objects},"
        " fmt=plistlib.FMT_BINARY))");
    const CF::Data blob(std::vector<std::uint8_t>(data.output.begin(), data.output.end()));
    const CF::Pointer<KVManifestEntryClass *> entry(
        CF::adopt, KVManifestEntryCreateFromMBFileData(
                       nullptr, CF::String(file.at("fileID").get<std::string>()),
                       CF::String(file.at("domain").get<std::string>()),
                       CF::String(file.at("path").get<std::string>()), 1, blob,
                       backup.get()->MakeGetFileFunction()));
    ASSERT_TRUE(entry);
    auto entries = CF::Array::MutableCopy(KVManifestGetEntries(manifest));
    entries.Append(entry.get());
    KVManifestUpdateEntries(manifest, entries);
    const CopiedFile copied = CopyFileForPath(backup, file.at("domain"), file.at("path"));
    EXPECT_FALSE(copied.file);
    EXPECT_FALSE(copied.error);
}

TEST(CopyOut, ByPathReportsAMissingStoredFile) {
    const BackupCopy copy(kPlain);
    const auto file = FindFileOfSize(kPlain, 17);
    const std::string id = file.at("fileID");
    const std::string name = id.substr(0, 2) + "/" + id;
    copy.Remove(name);
    const CopiedFile copied =
        CopyFileForPath(OpenPath(copy.root()), file.at("domain"), file.at("path"));
    EXPECT_FALSE(copied.file);
    EXPECT_TRUE(
        IsError(copied.error, kKVErrorLoadRepresentation, "Failed to load file (" + name + ")"));
    EXPECT_TRUE(IsError(copied.error.GetUnderlying(), kKVErrorFileNotFound,
                        "File does not exist at path '" + copy.file(name) + "'"));
}

TEST(CopyOut, DoesNotWaitForAFIFOInPlaceOfAStoredFile) {
    const BackupCopy copy(kPlain);
    const auto file = FindFileOfSize(kPlain, 17);
    const std::string id = file.at("fileID");
    const std::string name = id.substr(0, 2) + "/" + id;
    copy.Remove(name);
    ASSERT_EQ(mkfifo(copy.file(name).c_str(), 0600), 0);
    const CopiedFile copied =
        CopyFileForPath(OpenPath(copy.root()), file.at("domain"), file.at("path"));
    EXPECT_TRUE(
        IsError(copied.error, kKVErrorLoadRepresentation, "Failed to load file (" + name + ")"));
}

TEST(CopyOut, ReportsContentThatDoesNotDecrypt) {
    const BackupCopy copy(kEncrypted);
    const auto file = FindFileOfSize(kEncrypted, 32768);
    const std::string id = file.at("fileID");
    fs::resize_file(copy.file(id.substr(0, 2) + "/" + id), 32761);
    const OpenArguments arguments{SamplePassword(), kKVBackupOpenKeepDeviceBoundKeysLocked, {}};
    const CopiedFile copied =
        CopyFileForPath(OpenPath(copy.root(), arguments), file.at("domain"), file.at("path"));
    EXPECT_FALSE(copied.file);
    EXPECT_EQ(copied.error.GetCode(), kKVErrorCrypto);
}

TEST(CopyOut, TakesAnEmptyStoredFileForAnEmptyFile) {
    const BackupCopy copy(kEncrypted);
    const auto file = FindFileOfSize(kEncrypted, 32768);
    const std::string id = file.at("fileID");
    fs::resize_file(copy.file(id.substr(0, 2) + "/" + id), 0);
    const OpenArguments arguments{SamplePassword(), kKVBackupOpenKeepDeviceBoundKeysLocked, {}};
    const CopiedFile copied =
        CopyFileForPath(OpenPath(copy.root(), arguments), file.at("domain"), file.at("path"));
    ASSERT_TRUE(copied.file);
    EXPECT_TRUE(ReadContent(copied.file.get()).empty());
}

// An entry that differs from one of the sample in its path only.
CF::Pointer<KVManifestEntryClass *> MoveEntry(const Opened &backup, CFStringRef newPath) {
    const auto file = FindFileOfSize(kPlain, 32769);
    const KVManifestEntryClass *entry = KVBackupContainerGetEntryForPath(
        backup.get(), CF::String(file.at("domain").get<std::string>()),
        CF::String(file.at("path").get<std::string>()));
    const auto blob = CF::Data::Adopt(KVManifestEntryCreateMBFileDataRepresentation(entry));
    return {CF::adopt,
            KVManifestEntryCreateFromMBFileData(nullptr, KVManifestEntryGetFileID(entry),
                                                KVManifestEntryGetDomain(entry), newPath, 1, blob,
                                                backup.get()->MakeGetFileFunction())};
}

TEST(CopyOut, ByEntryReachesAFileWhoseIDIsNotThatOfItsPath) {
    const Opened backup = OpenSample(kPlain);
    const auto entry = MoveEntry(backup, CFSTR("moved"));
    ASSERT_TRUE(entry);
    CFErrorRef error = nullptr;
    const File file(CF::adopt,
                    KVBackupContainerCopyFileForEntry(backup.get(), entry.get(), &error));
    ASSERT_TRUE(file);
    EXPECT_EQ(SHA256(ReadContent(file.get())), FindFileOfSize(kPlain, 32769).at("sha256"));
}

TEST(CopyOut, ByEntryDecrypts) {
    const Opened backup = OpenSample(kEncrypted);
    const auto expected = FindFileOfSize(kEncrypted, 32769);
    const KVManifestEntryClass *entry = KVBackupContainerGetEntryForPath(
        backup.get(), CF::String(expected.at("domain").get<std::string>()),
        CF::String(expected.at("path").get<std::string>()));
    const File file(CF::adopt, KVBackupContainerCopyFileForEntry(backup.get(), entry, nullptr));
    ASSERT_TRUE(file);
    EXPECT_EQ(SHA256(ReadContent(file.get())), expected.at("sha256"));
}

class UnsafeFileID : public testing::TestWithParam<const char *> {};

TEST_P(UnsafeFileID, IsNeverOpened) {
    const std::string fileID = GetParam();
    Kelvane::ContentLoader loader;
    loader.source = Kelvane::OpenDirectorySource(SamplePath(kPlain));
    loader.version = 33;
    try {
        loader.LoadFileID(fileID);
        FAIL() << "it was opened";
    } catch (const CF::Error &error) {
        EXPECT_EQ(error.GetCode(), kKVErrorLoadRepresentation);
        const CF::Error cause = error.GetUnderlying();
        EXPECT_EQ(cause.GetCode(), kKVErrorInvalidBackup);
        const std::string reason = cause.GetFailureReason().GetUTF8();
        EXPECT_EQ(reason.rfind("Unsafe stored file name (", 0), 0u) << reason;
        EXPECT_NE(reason.find(fileID), std::string::npos) << reason;
    }
}

INSTANTIATE_TEST_SUITE_P(IDs, UnsafeFileID,
                         testing::Values("", "a", "..", "../Manifest.plist", "/etc/passwd",
                                         "ab/../../x", "ab/cd"));

TEST(CopyOut, LoadsNothingWithoutASource) {
    const Kelvane::ContentLoader loader;
    try {
        loader.LoadStoredFile("name");
        FAIL() << "it was loaded";
    } catch (const CF::Error &error) {
        EXPECT_TRUE(IsError(error, kKVErrorInvalidArgument,
                            "No data source type set for backup container"));
    }
}

TEST(CopyOut, WorksForAnEntryThatOutlivesItsContainer) {
    const auto file = FindFileOfSize(kPlain, 17);
    CF::Pointer<KVManifestEntryClass *> entry;
    {
        const Opened backup = OpenSample(kPlain);
        entry = CF::Pointer<KVManifestEntryClass *>(KVBackupContainerGetEntryForPath(
            backup.get(), CF::String(file.at("domain").get<std::string>()),
            CF::String(file.at("path").get<std::string>())));
    }
    const KVFileClass *content = KVManifestEntryGetFile(entry.get(), nullptr);
    ASSERT_NE(content, nullptr);
    EXPECT_EQ(KVFileGetSize(content), 17u);
}

// ---- By stored name ------------------------------------------------------------

TEST(CopyOut, ByStoredNameLeavesEncryptedContentAsItLies) {
    const Opened backup = OpenSample(kEncrypted);
    const std::string id = FindFileOfSize(kEncrypted, 32769).at("fileID");
    const std::string name = id.substr(0, 2) + "/" + id;
    const CopiedFile copied = CopyFileForName(backup, name);
    ASSERT_TRUE(copied.file);
    EXPECT_EQ(ReadContent(copied.file.get()),
              testing_support::ReadFile(SamplePath(kEncrypted) + "/" + name));
}

TEST(CopyOut, ByStoredNameFailsForAnUnknownName) {
    EXPECT_TRUE(IsError(CopyFileForName(OpenSample(kPlain), "ab/abcd").error, kKVErrorNoSuchItem,
                        "File not present in backup (ab/abcd)"));
}

TEST(CopyOut, ByStoredNameRefusesANonFile) {
    const std::string id = FindExpected(kPlain, [](const nlohmann::json &entry) {
                               return entry.at("type") == "directory";
                           }).at("fileID");
    EXPECT_TRUE(IsError(CopyFileForName(OpenSample(kPlain), id).error, kKVErrorNoSuchItem,
                        "Found entry referencing a non-file (" + id + ")"));
}

TEST(CopyOut, ByStoredNameReportsMissingContent) {
    const BackupCopy copy(kPlain);
    const std::string id = FindFileOfSize(kPlain, 17).at("fileID");
    copy.Remove(id.substr(0, 2) + "/" + id);
    const CopiedFile copied = CopyFileForName(OpenPath(copy.root()), id);
    EXPECT_TRUE(IsError(copied.error, kKVErrorInvalidArgument,
                        "Found file entry but no file ref is present (" + id + ")"));
    EXPECT_EQ(copied.error.GetUnderlying().GetCode(), kKVErrorLoadRepresentation);
}

// What another program makes of the written bytes.
std::string readWritten(const CopiedFile &copied, const std::string &script) {
    const auto content = ReadContent(copied.file.get());
    const testing_support::TemporaryDirectory directory;
    const auto path = directory.write("written", content);
    const auto result = testing_support::RunPython(script, {path.string()});
    EXPECT_EQ(result.status, 0) << result.errors;
    return result.output;
}

TEST(CopyOut, WritesMetadataAnewAsXML) {
    const Opened backup = OpenSample(kPlain);
    for (const char *name : {"Manifest.plist", "Info.plist", "Status.plist"}) {
        const CopiedFile copied = CopyFileForName(backup, name);
        ASSERT_TRUE(copied.file) << name;
        EXPECT_EQ(
            readWritten(copied, "import plistlib, sys\n"
                                "text = open(sys.argv[1], 'rb').read()\n"
                                "assert text.startswith(b'<?xml')\n"
                                "original = open('" +
                                    SamplePath(kPlain) + "/" + name +
                                    "', 'rb').read()\n"
                                    "print(plistlib.loads(text) == plistlib.loads(original))"),
            "True\n")
            << name;
    }
}

constexpr const char *kCountRows =
    "import sqlite3, sys\n"
    "database = sqlite3.connect(sys.argv[1])\n"
    "assert database.execute('PRAGMA integrity_check').fetchone()[0] == 'ok'\n"
    "print(database.execute('SELECT COUNT(*) FROM Files WHERE flags != 16').fetchone()[0])";

TEST(CopyOut, WritesTheManifestDatabaseAnew) {
    const Opened backup = OpenSample(kPlain);
    const CopiedFile copied = CopyFileForName(backup, "Manifest.db");
    ASSERT_TRUE(copied.file);
    EXPECT_EQ(readWritten(copied, kCountRows),
              std::to_string(Expectations(kPlain).at("entries").size()) + "\n");
}

TEST(CopyOut, EncryptsTheManifestDatabaseOfAnEncryptedBackup) {
    const Opened backup = OpenSample(kEncrypted);
    const CopiedFile copied = CopyFileForName(backup, "Manifest.db");
    ASSERT_TRUE(copied.file);
    const auto encrypted = ReadContent(copied.file.get());
    const testing_support::TemporaryDirectory directory;
    const auto stored = directory.write("stored", encrypted);
    const auto plain = directory / "plain";
    MB::ManifestEncryption::DecryptFile(stored, plain, backup.get()->encryption->GetManifestKey());
    const auto result = testing_support::RunPython(kCountRows, {plain.string()});
    EXPECT_EQ(result.output, std::to_string(Expectations(kEncrypted).at("entries").size()) + "\n")
        << result.errors;
}

TEST(CopyOut, WritesTheBinaryManifestAnew) {
    const Opened backup = OpenSample(kBinary);
    const CopiedFile copied = CopyFileForName(backup, "Manifest.mbdb");
    ASSERT_TRUE(copied.file);
    const auto written = ReadContent(copied.file.get());
    const BackupCopy copy(kBinary);
    copy.directory().write("backup/Manifest.mbdb", written);
    const Opened again = OpenPath(copy.root());
    ASSERT_TRUE(again.container);
    EXPECT_EQ(KVBackupContainerGetTotalFileCount(again.get()),
              KVBackupContainerGetTotalFileCount(backup.get()));
}

TEST(CopyOut, CannotWriteTheManifestOfTheOtherFormat) {
    const CopiedFile database = CopyFileForName(OpenSample(kBinary), "Manifest.db");
    EXPECT_TRUE(IsError(database.error, kKVErrorUnknown,
                        "Failed to create data representation of Manifest DB"));
    EXPECT_EQ(database.error.GetUnderlying().GetCode(), kKVErrorInvalidArgument);
    const CopiedFile binary = CopyFileForName(OpenSample(kPlain), "Manifest.mbdb");
    EXPECT_TRUE(
        IsError(binary.error, kKVErrorUnknown, "Failed to create data representation of Manifest"));
    EXPECT_EQ(binary.error.GetUnderlying().GetCode(), kKVErrorInvalidArgument);
}

TEST(CopyOut, CannotWriteMetadataThatIsNoPropertyList) {
    const Opened backup = OpenSample(kPlain);
    const auto info = CF::Dictionary::Mutable();
    info.Set(CFSTR("null is no property list"), kCFNull);
    KVBackupContainerSetDictionaries(backup.get(), info, nullptr, nullptr);
    EXPECT_TRUE(IsError(CopyFileForName(backup, "Info.plist").error, kKVErrorUnknown,
                        "Failed to create data representation of metadata (Info.plist)"));
}

// ---- Content from outside ----------------------------------------------------------

// Adds a new file's entry to the manifest, with a key of its own in an encrypted backup.
CF::Pointer<KVManifestEntryClass *> addExternal(const Opened &backup,
                                                const std::vector<std::uint8_t> &content) {
    const File file(CF::adopt, KVFileCreateFromData(content, nullptr));
    CF::Pointer<KVManifestEntryClass *> entry(
        CF::adopt, KVManifestEntryCreateForFile(nullptr, file.get(), CFSTR("HomeDomain"),
                                                CFSTR("added"), nullptr, nullptr));
    if (backup.get()->encryption) {
        EXPECT_TRUE(
            KVManifestEntryGenerateFileKey(entry.get(), *backup.get()->encryption, nullptr));
    }
    KVManifestClass *manifest = KVBackupContainerGetManifest(backup.get());
    auto entries = CF::Array::MutableCopy(KVManifestGetEntries(manifest));
    entries.Append(entry.get());
    KVManifestUpdateEntries(manifest, entries);
    return entry;
}

TEST(CopyOut, GivesContentFromOutsideAsItIsByPath) {
    const Opened backup = OpenSample(kEncrypted);
    const std::vector<std::uint8_t> content(40000, 7);
    addExternal(backup, content);
    const CopiedFile copied = CopyFileForPath(backup, "HomeDomain", "added");
    ASSERT_TRUE(copied.file);
    EXPECT_EQ(ReadContent(copied.file.get()), content);
}

TEST(CopyOut, EncryptsContentFromOutsideByStoredName) {
    const Opened backup = OpenSample(kEncrypted);
    const std::vector<std::uint8_t> content(40000, 7);
    const auto entry = addExternal(backup, content);
    const CopiedFile copied =
        CopyFileForName(backup, CF::String::GetUTF8(KVManifestEntryGetFileID(entry.get())));
    ASSERT_TRUE(copied.file);
    const auto stored = ReadContent(copied.file.get());
    EXPECT_EQ(stored.size(), 40016u);
    const auto key =
        KVManifestEntryGetUnlockedFileKey(entry.get(), *backup.get()->encryption, nullptr);
    ASSERT_TRUE(key);
    EXPECT_EQ(ZK::Encryption::Cryptor::Decrypt(ZK::Encryption::Algorithm::AES256, *key, {}, stored),
              content);
}

TEST(CopyOut, LeavesContentFromOutsidePlainInAPlainBackup) {
    const Opened backup = OpenSample(kPlain);
    const std::vector<std::uint8_t> content(100, 7);
    const auto entry = addExternal(backup, content);
    const CopiedFile copied =
        CopyFileForName(backup, CF::String::GetUTF8(KVManifestEntryGetFileID(entry.get())));
    ASSERT_TRUE(copied.file);
    EXPECT_EQ(ReadContent(copied.file.get()), content);
}

} // namespace
} // namespace container_tests
