// Replacing the generator of random bytes is marked deprecated; a test of its failure has no
// other way.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "KVFile.h"
#include "KVManifestEntry.h"
#include "KeyBagFixture.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <openssl/rand.h>
#include <sys/stat.h>

namespace {

using namespace keybag_fixture;
using Entry = CF::Pointer<KVManifestEntryClass *>;
using File = CF::Pointer<KVFileClass *>;
using MB::ManifestEncryption;

// An out-parameter, and the error that arrived in it.
class ErrorOut {
  public:
    ~ErrorOut() {
        if (error_ != nullptr) {
            CFRelease(error_);
        }
    }
    CFErrorRef *out() { return &error_; }
    CF::Error get() const { return CF::Error(error_); }

  private:
    CFErrorRef error_ = nullptr;
};

// While one lives, libcrypto has no random bytes to give.
class NoRandomBytes {
  public:
    NoRandomBytes() : before_(RAND_get_rand_method()) {
        static const RAND_METHOD method = {nullptr, &refuse, nullptr, nullptr, &refuse, nullptr};
        RAND_set_rand_method(&method);
    }
    NoRandomBytes(const NoRandomBytes &) = delete;
    NoRandomBytes &operator=(const NoRandomBytes &) = delete;
    ~NoRandomBytes() { RAND_set_rand_method(before_); }

  private:
    static int refuse(unsigned char *, int) { return 0; }
    const RAND_METHOD *before_;
};

class EntryKeys : public testing::Test {
  protected:
    static File fileOf(const Bytes &content) {
        testing_support::LibraryTemporaryPath();
        ErrorOut error;
        File file = CF::Adopt(KVFileCreateFromData(content, error.out()));
        EXPECT_TRUE(file);
        return file;
    }
    static Entry entryOf(const File &file, const CF::Data &encryptionData = nullptr) {
        ErrorOut error;
        Entry entry = CF::Adopt(
            KVManifestEntryCreateForFile(kCFAllocatorDefault, file.get(), CFSTR("HomeDomain"),
                                         CFSTR("Library/note"), encryptionData.get(), error.out()));
        EXPECT_TRUE(entry);
        return entry;
    }
    static Entry entryWithKey(const CF::Data &blob) { return entryOf(fileOf({'x'}), blob); }

    CF::Error unlockingError(const Entry &entry) const {
        ErrorOut error;
        EXPECT_FALSE(KVManifestEntryGetUnlockedFileKey(entry.get(), encryption, error.out()));
        expectError(error.get(), kKVErrorUnlockFailed, "Failed to unlock file key for entry");
        return error.get().GetUnderlying();
    }
    CF::Error generatingError(const Entry &entry) const {
        ErrorOut error;
        EXPECT_FALSE(KVManifestEntryGenerateFileKey(entry.get(), encryption, error.out()));
        return error.get();
    }
    void generate(const Entry &entry) const {
        ErrorOut error;
        ASSERT_TRUE(KVManifestEntryGenerateFileKey(entry.get(), encryption, error.out()));
        EXPECT_FALSE(error.get());
    }

    const OracleKeyBag oracle{{"--classes", "3,4"}};
    const ManifestEncryption encryption{oracle.manifestPlist(), kPassword};
};
using GetUnlockedFileKey = EntryKeys;
using GenerateFileKey = EntryKeys;

constexpr const char *kNoFile =
    "Impossible to generate a file key for an entry that doesn't represent a file";
std::string hasKey(const char *protection) {
    return "Impossible to generate a file key for an entry that already has one (protection "
           "class " +
           std::string(protection) + ")";
}

// ---- Getting --------------------------------------------------------------------

TEST_F(GetUnlockedFileKey, UnwrapsTheKeyOfTheEntry) {
    const Entry entry = entryWithKey(oracle.lockedFileKey(3));
    ErrorOut error;
    const auto key = KVManifestEntryGetUnlockedFileKey(entry.get(), encryption, error.out());
    ASSERT_TRUE(key);
    EXPECT_EQ(*key, oracle.key("file"));
    EXPECT_FALSE(error.get());
}

TEST_F(GetUnlockedFileKey, GivesNoKeyAndNoErrorForAnEntryWithoutOne) {
    const Entry entry = entryOf(fileOf({'x'}));
    const auto untouched = reinterpret_cast<CFErrorRef>(0x1);
    CFErrorRef error = untouched;
    EXPECT_FALSE(KVManifestEntryGetUnlockedFileKey(entry.get(), encryption, &error));
    EXPECT_EQ(error, untouched);
}

TEST_F(GetUnlockedFileKey, UnwrapsOnlyOnce) {
    const Entry entry = entryWithKey(oracle.lockedFileKey(4));
    EXPECT_TRUE(KVManifestEntryGetUnlockedFileKey(entry.get(), encryption, nullptr));
    const OracleKeyBag otherOracle({"--seed", "2", "--classes", "1"});
    const ManifestEncryption other(otherOracle.manifestPlist(), kPassword);
    const auto again = KVManifestEntryGetUnlockedFileKey(entry.get(), other, nullptr);
    ASSERT_TRUE(again);
    EXPECT_EQ(*again, oracle.key("file"));
}

TEST_F(GetUnlockedFileKey, DoesNotRememberFailures) {
    const Entry entry = entryWithKey(oracle.lockedFileKey(4));
    const OracleKeyBag otherOracle({"--seed", "2", "--classes", "4"});
    const ManifestEncryption other(otherOracle.manifestPlist(), kPassword);
    EXPECT_FALSE(KVManifestEntryGetUnlockedFileKey(entry.get(), other, nullptr));
    EXPECT_EQ(KVManifestEntryGetUnlockedFileKey(entry.get(), encryption, nullptr),
              oracle.key("file"));
}

TEST_F(GetUnlockedFileKey, ReportsABlobOfTheWrongSize) {
    expectLoneError(unlockingError(entryWithKey(CF::Data(Bytes(43, 4)))), kKVErrorInvalidMetadata,
                    "Key blob is wrong size");
}

TEST_F(GetUnlockedFileKey, ReportsAClassThatTheKeyBagDoesNotHold) {
    Bytes blob = oracle["locked.4"];
    blob[0] = 9;
    expectLoneError(unlockingError(entryWithKey(CF::Data(blob))), kKVErrorInvalidKeyBag,
                    "Missing key class 9");
}

TEST_F(GetUnlockedFileKey, ReportsADamagedBlob) {
    Bytes blob = oracle["locked.4"];
    blob[20] ^= 1;
    const CF::Error cause = unlockingError(entryWithKey(CF::Data(blob)));
    EXPECT_EQ(CF::String(cause.GetDomain()).GetUTF8(), "ZK.EncryptionErrorDomain");
}

TEST_F(GetUnlockedFileKey, FailsAloneForAClassBoundToTheDevice) {
    const OracleKeyBag bound({"--classes", "4", "--device-bound", "9"});
    const ManifestEncryption partly(bound.manifestPlist(), kPassword,
                                    MB::DeviceBoundKeys::KeepLocked);
    ErrorOut error;
    const Entry locked = entryWithKey(bound.lockedFileKey(9));
    EXPECT_FALSE(KVManifestEntryGetUnlockedFileKey(locked.get(), partly, error.out()));
    expectLoneError(error.get().GetUnderlying(), kKVErrorInvalidKeyBag, "Missing key class 9");
    const Entry open = entryWithKey(bound.lockedFileKey(4));
    EXPECT_EQ(KVManifestEntryGetUnlockedFileKey(open.get(), partly, nullptr), bound.key("file"));
}

TEST_F(GetUnlockedFileKey, FailsWithoutAnErrorPointerToo) {
    const Entry entry = entryWithKey(CF::Data(Bytes(43)));
    EXPECT_FALSE(KVManifestEntryGetUnlockedFileKey(entry.get(), encryption, nullptr));
}

// ---- Generating -----------------------------------------------------------------

TEST_F(GenerateFileKey, GivesTheEntryAKeyBlobOfItsClass) {
    const Entry entry = entryOf(fileOf({'x'}));
    generate(entry);
    const CF::Data blob(KVManifestEntryGetEncryptionData(entry.get()));
    ASSERT_EQ(blob.GetLength(), 44);
    EXPECT_EQ(blob.GetBytes()[0], 4);
    EXPECT_EQ(KVManifestEntryGetUnlockedFileKey(entry.get(), encryption, nullptr),
              encryption.UnlockKey(blob));
}

TEST_F(GenerateFileKey, RemembersTheKeyWithoutUnwrapping) {
    const Entry entry = entryOf(fileOf({'x'}));
    generate(entry);
    const OracleKeyBag otherOracle({"--seed", "2", "--classes", "1"});
    const ManifestEncryption other(otherOracle.manifestPlist(), kPassword);
    EXPECT_EQ(KVManifestEntryGetUnlockedFileKey(entry.get(), other, nullptr),
              encryption.UnlockKey(CF::Data(KVManifestEntryGetEncryptionData(entry.get()))));
}

TEST_F(GenerateFileKey, MakesAnotherKeyForEachEntry) {
    const File file = fileOf({'x'});
    const Entry first = entryOf(file), second = entryOf(file);
    generate(first);
    generate(second);
    EXPECT_NE(KVManifestEntryGetUnlockedFileKey(first.get(), encryption, nullptr),
              KVManifestEntryGetUnlockedFileKey(second.get(), encryption, nullptr));
}

// The content as openssl encrypts it with the entry's new key.
Bytes encryptedContent(const Bytes &content, const Key &key) {
    const testing_support::TemporaryDirectory directory;
    oracle::outputOf({"openssl", "enc", "-e", "-aes-256-cbc", "-K", oracle::toHex(key), "-iv",
                      std::string(32, '0'), "-in", directory.write("in", content).string(), "-out",
                      (directory / "out").string()});
    return testing_support::ReadFile(directory / "out");
}

TEST_F(GenerateFileKey, RecordsDigestAndSizeOfTheEncryptedContent) {
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{16}, std::size_t{32768}, std::size_t{100000}}) {
        const Bytes content(size, 'c');
        const Entry entry = entryOf(fileOf(content));
        generate(entry);
        const auto key = KVManifestEntryGetUnlockedFileKey(entry.get(), encryption, nullptr);
        ASSERT_TRUE(key);
        const Bytes encrypted = encryptedContent(content, *key);
        EXPECT_EQ(KVManifestEntryGetFileSize(entry.get()), std::int64_t(encrypted.size()));
        const File stored = fileOf(encrypted);
        EXPECT_EQ(CF::Data(KVManifestEntryGetDataHash(entry.get())).GetVector(),
                  KVFileGetHash(stored.get()));
    }
}

TEST_F(GenerateFileKey, LeavesAnEmptyFileEmpty) {
    const Entry entry = entryOf(fileOf({}));
    generate(entry);
    EXPECT_EQ(KVManifestEntryGetFileSize(entry.get()), 0);
    EXPECT_EQ(oracle::toHex(CF::Data(KVManifestEntryGetDataHash(entry.get())).GetBytes()),
              "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST_F(GenerateFileKey, LeavesTheEntrysOwnContentPlain) {
    const Bytes content(100, 'c');
    const Entry entry = entryOf(fileOf(content));
    generate(entry);
    KVFileClass *file = KVManifestEntryGetFile(entry.get(), nullptr);
    EXPECT_EQ(KVFileGetSize(file), 100U);
    EXPECT_EQ(KVFileGetDataQuickly(file), content);
}

TEST_F(GenerateFileKey, RefusesDirectoriesAndLinks) {
    const Entry directory =
        CF::Adopt(KVManifestEntryCreateForDirectory(kCFAllocatorDefault, CFSTR("D"), CFSTR("p")));
    const Entry link = CF::Adopt(
        KVManifestEntryCreateForSymlink(kCFAllocatorDefault, CFSTR("D"), CFSTR("p"), CFSTR("t")));
    expectLoneError(generatingError(directory), kKVErrorInvalidArgument, kNoFile);
    expectLoneError(generatingError(link), kKVErrorInvalidArgument, kNoFile);
}

TEST_F(GenerateFileKey, RefusesAFileWhoseContentIsNotResolved) {
    const Entry entry = entryOf(fileOf({'x'}));
    entry.get()->file = {};
    expectLoneError(generatingError(entry), kKVErrorInvalidArgument, kNoFile);
}

TEST_F(GenerateFileKey, TellsFilesByThreeBitsOfTheMode) {
    const Entry odd = entryOf(fileOf({'x'}));
    odd.get()->mode = 0x9000;
    generate(odd);
    const Entry none = entryOf(fileOf({'x'}));
    none.get()->mode = 0xF000;
    expectLoneError(generatingError(none), kKVErrorInvalidArgument, kNoFile);
}

TEST_F(GenerateFileKey, RefusesASecondKey) {
    const Entry entry = entryOf(fileOf({'x'}));
    generate(entry);
    const CF::Data blob(KVManifestEntryGetEncryptionData(entry.get()));
    expectLoneError(generatingError(entry), kKVErrorInvalidArgument, hasKey("None"));
    EXPECT_EQ(CF::Data(KVManifestEntryGetEncryptionData(entry.get())), blob);
}

TEST_F(GenerateFileKey, RefusesOtherProtectionClasses) {
    const std::pair<EntryProtectionClass, const char *> classes[] = {
        {kEntryProtectionClassNotSet, "NotSet"},
        {kEntryProtectionClassComplete, "Complete"},
        {kEntryProtectionClassWriteOnly, "WriteOnly"},
        {kEntryProtectionClassCompleteUntilUnlocked, "CompleteUntilUnlocked"}};
    for (const auto &[protection, name] : classes) {
        const Entry entry = entryOf(fileOf({'x'}));
        entry.get()->protectionClass = protection;
        expectLoneError(generatingError(entry), kKVErrorInvalidArgument, hasKey(name));
        EXPECT_EQ(CFDataGetLength(KVManifestEntryGetEncryptionData(entry.get())), 0);
    }
}

TEST_F(GenerateFileKey, StopsTheProcessForAProtectionClassThatDoesNotExist) {
    const Entry entry = entryOf(fileOf({'x'}));
    entry.get()->protectionClass = static_cast<EntryProtectionClass>(5);
    EXPECT_DEATH(KVManifestEntryGenerateFileKey(entry.get(), encryption, nullptr),
                 " has invalid value ");
}

TEST_F(GenerateFileKey, ReportsAClassThatTheKeyBagDoesNotHold) {
    const OracleKeyBag threeOnly({"--classes", "3"});
    const ManifestEncryption without4(threeOnly.manifestPlist(), kPassword);
    const Entry entry = entryOf(fileOf({'x'}));
    ErrorOut error;
    EXPECT_FALSE(KVManifestEntryGenerateFileKey(entry.get(), without4, error.out()));
    expectError(error.get(), kKVErrorCrypto, "Failed to generate a file key for entry");
    expectLoneError(error.get().GetUnderlying(), kKVErrorInvalidKeyBag, "Missing key class 4");
}

TEST_F(GenerateFileKey, ReportsContentThatIsStillAppendedTo) {
    const Entry entry = entryOf(fileOf({'x'}));
    entry.get()->file = CF::Adopt(KVFileCreateAppendable(nullptr));
    const CF::Error error = generatingError(entry);
    expectError(error, kKVErrorCrypto, "Failed to generate a file key for entry");
    expectLoneError(error.GetUnderlying(), kKVErrorInvalidArgument,
                    "File reference is still appendable");
}

TEST_F(GenerateFileKey, ReportsContentThatCannotBeRead) {
    const Entry entry = entryOf(fileOf(Bytes(40, 'y')));
    const std::string path = CF::String::GetUTF8(KVFileGetLocalPath(entry.get()->file.get()));
    ASSERT_EQ(::unlink(path.c_str()), 0);
    const CF::Error error = generatingError(entry);
    expectError(error, kKVErrorCrypto, "Failed to generate a file key for entry");
    EXPECT_TRUE(error.GetUnderlying());
}

TEST_F(GenerateFileKey, ReportsThatThereAreNoRandomBytes) {
    const Entry entry = entryOf(fileOf({'x'}));
    const NoRandomBytes none;
    const CF::Error error = generatingError(entry);
    expectError(error, kKVErrorCrypto, "Failed to generate a file key for entry");
    expectLoneError(error.GetUnderlying(), kKVErrorCrypto, "No random bytes available");
    EXPECT_EQ(CFDataGetLength(entry.get()->encryptionData.get()), 0);
}

TEST_F(GenerateFileKey, FailsWithoutAnErrorPointerToo) {
    const Entry entry = entryOf(fileOf({'x'}));
    entry.get()->protectionClass = kEntryProtectionClassComplete;
    EXPECT_FALSE(KVManifestEntryGenerateFileKey(entry.get(), encryption, nullptr));
}

} // namespace
