// MB::ManifestEncryption: the keys of one encrypted backup, opened with its password.
//
// A key blob, the form of the backup's manifest key and of every file's key, is 44 bytes:
//
//   offset 0   4 bytes  protection class, unsigned, little-endian
//   offset 4  40 bytes  the 32-byte key, wrapped (RFC 3394) under the class key
//
// All failures are thrown CF::Error values of kKVErrorDomain unless said otherwise.
#pragma once

#include "KVBase.h"
#include "MB/KeyBag.hpp"
#include "support/cf/Data.hpp"
#include "support/cf/Dictionary.hpp"
#include "support/zk/Path.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace MB {

// Whether a backup's manifest has a key, which a binary manifest is not encrypted with.
enum class ManifestKeys { Required, None };

// The constructor does the work; afterwards the object does not change, and its const
// functions may run on several threads at once. Copies are independent of each other.
// Keys are overwritten before their memory is given back.
class KV_VISIBLE ManifestEncryption {
  public:
    using Key = KeyBag::Key;
    using Key128 = std::array<std::uint8_t, 16>;

    // A keybag's two iteration counts together must not exceed this. Devices write
    // 10,010,000 and need a second or two for them; this many end after some minutes,
    // where the 8,600,000,000 that the fields can hold would keep the host busy for hours.
    static constexpr std::uint64_t kMaxIterations = 1'000'000'000;

    // Opens the keybag ("BackupKeyBag") and the manifest key ("ManifestKey") of a
    // Manifest.plist dictionary; runs the key derivation, which takes seconds. Throws
    //   code 20, "BackupKeyBag is missing" or "ManifestKey is missing" (absent or no data);
    //   what MB::KeyBag throws, unchanged: a wrong password is code 22 with code 21
    //     underneath;
    //   code 22, "Failed to unlock manifest key", with the error of UnlockKey underneath.
    ManifestEncryption(const CF::Dictionary &manifestPlist, const std::string &password,
                       DeviceBoundKeys deviceBoundKeys = DeviceBoundKeys::Fail);
    // The same, telling how far the derivation is.
    ManifestEncryption(const CF::Dictionary &manifestPlist, const std::string &password,
                       DeviceBoundKeys deviceBoundKeys, const DerivationProgress &progress);
    // The same with all options of the keybag. With ManifestKeys::None the "ManifestKey" is
    // not looked at.
    ManifestEncryption(const CF::Dictionary &manifestPlist, const std::string &password,
                       const KeyBagOptions &options, ManifestKeys manifestKeys);
    ManifestEncryption(const ManifestEncryption &) = default;
    ManifestEncryption &operator=(const ManifestEncryption &) = default;
    ~ManifestEncryption();

    // The key that the backup's manifest database is encrypted with. Borrowed. Zeros, and of
    // no use, with ManifestKeys::None.
    const Key &GetManifestKey() const noexcept { return manifestKey_; }
    const KeyBag &GetKeyBag() const noexcept { return *keyBag_; }

    // Takes the wrap off a key blob. Throws
    //   code 20, "Key blob is wrong size";
    //   code 17, "Missing key class %u": the keybag holds no open key of the blob's class;
    //   the unwrapping's own CF::Error when the integrity check fails;
    //   code 18, "RFC3394Unwrap failed: %s".
    // The caller overwrites the key when done with it.
    Key UnlockKey(const CF::Data &blob) const;
    // Makes a key blob. Throws code 17, "Missing key class %u", code 18, "RFC3394Wrap
    // failed: %s", and code 2, "Blob is wrong size".
    CF::Data LockKey(unsigned int protectionClass, const Key &key) const;

    // The key-encryption key of a keybag: PBKDF2-HMAC-SHA-256 of the password with salt
    // DPSL and DPIC iterations, then PBKDF2-HMAC-SHA-1 of those 32 bytes with salt SALT
    // and ITER iterations; 32 bytes. Of an old keybag (info.onePass) PBKDF2-HMAC-SHA-1 of the
    // password with salt SALT and ITER iterations alone. Throws code 17, "Too many iterations (DPIC
    // %u, ITER %u)", when the two counts exceed kMaxIterations together. The caller overwrites the
    // key when done with it.
    static Key GenerateKEKFromPassword(const std::vector<std::uint8_t> &password,
                                       const KeyBag::ManifestInfo &info);
    // The same, telling how far it is; an iteration of the second pass makes two blocks of digest
    // and counts once all the same.
    static Key GenerateKEKFromPassword(const std::vector<std::uint8_t> &password,
                                       const KeyBag::ManifestInfo &info,
                                       const DerivationProgress &progress);
    // The first 16 bytes of SHA-1 over the password and the salt. Throws
    // std::runtime_error when the digest cannot be computed.
    static Key128 GenerateDataKeyFromPassword(const std::vector<std::uint8_t> &password,
                                              const KeyBag::Salt &salt);

    // Decrypts base64 text: AES-128 in CBC mode, PKCS #7 padding, zero initial value.
    // Throws code 18, "Decrypt failed: %s", also for text that is no base64.
    static std::vector<std::uint8_t> DecryptString(const std::string &text, const Key128 &key);

    // Decrypt or encrypt a file into another, piece by piece, by AES in CBC mode with
    // PKCS #7 padding and zero initial value; the key's size selects AES-128 or AES-256.
    // The source is opened under a shared lock; the destination is created, or truncated
    // when it exists, under an exclusive one. The two paths must differ. Throws
    //   code 3, "Failed to decrypt/encrypt: %s", with the POSIX error underneath;
    //   code 18, "Failed to decrypt/encrypt: %s": length or padding of encrypted content
    //     is wrong, which is how a wrong key shows as a rule.
    // After a failure a destination that was there before may hold a part, which the caller
    // removes; one that was not is gone.
    static void DecryptFile(const ZK::filesystem::path &source,
                            const ZK::filesystem::path &destination, const Key128 &key);
    static void DecryptFile(const ZK::filesystem::path &source,
                            const ZK::filesystem::path &destination, const Key &key);
    static void EncryptFile(const ZK::filesystem::path &source,
                            const ZK::filesystem::path &destination, const Key128 &key);
    static void EncryptFile(const ZK::filesystem::path &source,
                            const ZK::filesystem::path &destination, const Key &key);

  private:
    ManifestEncryption() = default;
    [[gnu::visibility("hidden")]] void unlockManifestKey(const CF::Data &blob);
    // The open key of the class; throws code 17, "Missing key class %u".
    [[gnu::visibility("hidden")]] const Key &classKey(std::uint32_t protectionClass) const;

    std::optional<KeyBag> keyBag_; // engaged once the constructor has opened it
    Key manifestKey_{};
};

} // namespace MB
