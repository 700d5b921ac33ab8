// What fails leaves nothing under the temporary path: nobody would look for it there, and it may
// be the plaintext of what lies encrypted in the backup.
#include "BackupFixture.hpp"
#include "ExportFixture.hpp"
#include "tests/support/FailingCalls.hpp"

#include <set>

namespace {

using namespace container_tests;
using testing_support::Call;
using testing_support::FailingCall;

class LeftBehind : public testing::Test {
  protected:
    // Opens once, so that the library's directories are there, and remembers what they hold.
    void SetUp() override {
        ASSERT_TRUE(OpenSample(kEncrypted).get());
        ASSERT_TRUE(OpenSample(kZip).get());
        before_ = files();
    }
    static std::set<std::string> files() {
        std::set<std::string> found;
        for (const auto &entry :
             fs::recursive_directory_iterator(testing_support::LibraryTemporaryPath())) {
            if (fs::is_regular_file(entry.path())) {
                found.insert(entry.path().string());
            }
        }
        return found;
    }
    void expectNothingNew() const {
        for (const std::string &file : files()) {
            EXPECT_EQ(before_.count(file), 1U) << file;
        }
    }
    static Opened openEncrypted(const std::string &path) {
        return OpenPath(path, {SamplePassword(), kKVBackupOpenKeepDeviceBoundKeysLocked, {}});
    }
    static std::string database(const BackupCopy &backup) {
        const auto bytes = testing_support::ReadFile(backup.file("Manifest.db"));
        return {bytes.begin(), bytes.end()};
    }

  private:
    std::set<std::string> before_;
};

TEST_F(LeftBehind, IsNothingOfADatabaseThatDoesNotDecrypt) {
    const BackupCopy backup(kEncrypted);
    const std::string whole = database(backup);
    for (const std::size_t size : {whole.size() - 1, whole.size() - 16}) {
        backup.Write("Manifest.db", whole.substr(0, size));
        const Opened opened = openEncrypted(backup.root());
        EXPECT_EQ(opened.error.GetCode(), static_cast<CFIndex>(kKVErrorCrypto)) << size;
        expectNothingNew();
    }
}

TEST_F(LeftBehind, IsNothingOfADatabaseForWhichTheDiskHasNoRoom) {
    Opened opened;
    {
        const FileSizeLimit limit(4096);
        opened = openEncrypted(SamplePath(kEncrypted));
    }
    EXPECT_EQ(opened.error.GetCode(), static_cast<CFIndex>(kKVErrorFilesystem));
    EXPECT_EQ(opened.error.GetUnderlying().GetCode(), EFBIG);
    expectNothingNew();
}

TEST_F(LeftBehind, IsNothingOfADatabaseWhoseCopyCannotBeClosed) {
    for (const int spared : {0, 1}) { // the decrypted database, and the copy that is opened
        Opened opened;
        {
            const FailingCall closing(Call::Close, EDQUOT, spared);
            opened = openEncrypted(SamplePath(kEncrypted));
        }
        EXPECT_FALSE(opened.get()) << spared;
        expectNothingNew();
    }
}

TEST_F(LeftBehind, IsNothingOfADecryptedFileThatIsNoDatabase) {
    const BackupCopy backup(kEncrypted);
    std::string damaged = database(backup);
    damaged[0] ^= 1; // spoils the first block and flips a bit of the second
    backup.Write("Manifest.db", damaged);
    const Opened opened = openEncrypted(backup.root());
    EXPECT_EQ(opened.error.GetCode(), static_cast<CFIndex>(kKVErrorInvalidManifestDatabase));
    expectNothingNew();
}

TEST_F(LeftBehind, IsNothingOfADatabaseWithABadRow) {
    const BackupCopy backup(kPlain);
    backup.EditDatabase("INSERT INTO Files VALUES ('bad', 'D', 'p', 1, x'00');");
    const Opened opened = OpenPath(backup.root());
    EXPECT_TRUE(IsError(opened.error, kKVErrorInvalidManifestDatabase,
                        "Database contains 1 invalid entries"));
    expectNothingNew();
}

TEST_F(LeftBehind, IsNothingOfARecordOfAZipThatCannotBeUnpacked) {
    const BackupCopy backup(kPlain);
    const std::string path = backup.Zip();
    auto bytes = testing_support::ReadFile(path);
    for (std::size_t i = 100; i < bytes.size() / 2; ++i) {
        bytes[i] ^= 0x55;
    }
    backup.directory().write("backup.zip", bytes);
    EXPECT_FALSE(OpenPath(path).get());
    expectNothingNew();
}

TEST_F(LeftBehind, IsNothingOfARecordOfAZipThatCannotBeClosed) {
    Opened opened;
    {
        const FailingCall closing(Call::Close, EDQUOT);
        opened = OpenSample(kZip);
    }
    EXPECT_EQ(opened.error.GetUnderlying().GetCode(), static_cast<CFIndex>(kKVErrorFilesystem));
    expectNothingNew();
}

} // namespace
