// MB::KeyBag: the backup keybag, opened with the backup's password.
//
// The blob is a sequence of records packed without padding, all integers big-endian:
//
//   offset 0   4 bytes  tag, four ASCII characters
//   offset 4   4 bytes  length n of the value, unsigned
//   offset 8   n bytes  value
//
// "VERS" (3 or 5) comes first, "TYPE" (below 4) second. Then every "UUID" record opens a
// block that reaches to the next "UUID". The first block is the header with the
// parameters of the key derivation (ManifestInfo); each further block holds the wrapped
// key of one data-protection class (LockedKey), in any order. Records with other tags
// are kept and passed over.
//
// The class keys are wrapped (RFC 3394) under a key-encryption key that two rounds of
// PBKDF2 derive from the password; see MB::ManifestEncryption::GenerateKEKFromPassword.
#pragma once

#include "KVBase.h"
#include "support/cf/Data.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace MB {

// What becomes of class keys that are wrapped under a key of the device as well as under
// the password's. That device key never leaves the device, so they cannot be unwrapped.
// Most encrypted backups hold such classes (5, 9, 10, 11).
enum class DeviceBoundKeys {
    // The keybag does not open: code 22, "Failed to unlock a key (class N): Cannot decode
    // without deviceKey".
    Fail,
    // They stay locked: the class is left out of the keybag's class keys, all others open.
    // Content of such a class then fails alone, with code 17, "Missing key class N".
    KeepLocked,
};

// Called while a key is derived from a password, first with done 0, before anything is, and then
// many times a second: the number of iterations done, and in total, by which a host may tell
// beforehand how long it will take (a second or so for ten million). False stops the derivation:
// code 22, "The derivation of keys was stopped". Empty: no calls.
using DerivationProgress = std::function<bool(std::uint64_t done, std::uint64_t total)>;

// What becomes of keybags in older forms, as encrypted backups of iOS 4 to 9 hold them: those
// without DPSL and DPIC, whose key-encryption key is derived in one pass, and those that lack
// DPWT, which plays no part.
enum class OldKeyBags {
    // Code 17, "Missing %s field".
    Refuse,
    Accept,
};

// How a keybag is opened.
struct KeyBagOptions {
    DeviceBoundKeys deviceBound = DeviceBoundKeys::Fail;
    OldKeyBags old = OldKeyBags::Refuse;
    DerivationProgress progress; // empty: no calls
};

// An opened keybag. All work is done by the constructor; afterwards the object does not
// change and may be read from any thread. Copies are independent of each other. Keys are
// overwritten before their memory is given back, and so is the password, which is not
// kept longer than the constructor runs.
class KV_VISIBLE KeyBag {
  public:
    // Tag and value.
    using Record = std::pair<std::string, std::vector<std::uint8_t>>;
    using RecordPosition = std::vector<Record>::const_iterator;
    // The records of one block by tag; of records with the same tag the first.
    using Block = std::unordered_map<std::string, std::vector<std::uint8_t>>;

    using UUIDBytes = std::array<std::uint8_t, 16>;
    using Salt = std::array<std::uint8_t, 20>;
    using Key = std::array<std::uint8_t, 32>;
    using WrappedKey = std::array<std::uint8_t, 40>;
    using DeviceKey = std::array<std::uint8_t, 16>;

    // Bits of LockedKey::wrap.
    static constexpr std::uint32_t kWrappedUnderDeviceKey = 1;
    static constexpr std::uint32_t kWrappedUnderPassword = 2;
    // The value of GetType() before a keybag was parsed.
    static constexpr std::uint32_t kTypeNotParsed = 0xFFFFFFFF;
    // Devices write about 90 records; more than this is no keybag but an attempt to
    // exhaust memory with empty ones.
    static constexpr std::size_t kMaxRecords = 4096;

    // The header block. From a block: every field is mandatory; code 17 with "Missing %s
    // field" or "Invalid %s field" (wrong size), naming the tag. Where old keybags are
    // accepted DPWT may be missing, and DPIC together with DPSL.
    struct KV_VISIBLE ManifestInfo {
        ManifestInfo() = default;
        explicit ManifestInfo(const Block &block);
        ManifestInfo(const Block &block, OldKeyBags old);

        UUIDBytes uuid{};             // UUID
        WrappedKey hmck{};            // HMCK, kept only
        std::uint32_t wrap = 0;       // WRAP, kept only
        Salt salt{};                  // SALT of the second derivation pass
        std::uint32_t iterations = 0; // ITER of the second derivation pass
        std::uint32_t dpwt = 0;       // DPWT, kept only
        std::uint32_t dpic = 0;       // DPIC, iterations of the first derivation pass
        Salt dpsl{};                  // DPSL, salt of the first derivation pass
        // An old keybag: SALT and ITER are those of the only pass, which starts from the password.
        bool onePass = false;
    };

    // A class block. Failures as for ManifestInfo.
    struct KV_VISIBLE LockedKey {
        LockedKey() = default;
        explicit LockedKey(const Block &block);

        UUIDBytes uuid{};                  // UUID
        std::uint32_t protectionClass = 0; // CLAS
        std::uint32_t wrap = 0;            // WRAP, the bits above
        std::uint32_t keyType = 0;         // KTYP
        WrappedKey wrappedKey{};           // WPKY
    };

    // A class key in the clear, overwritten on destruction.
    struct KV_VISIBLE UnlockedKey {
        // Takes the wraps off: first the password's, when its bit is set, then the
        // device's, when its bit is set. Throws
        //   CF::Error code 21 with the cause's text as the reason and the cause
        //     underneath: integrity check failed, so the password is wrong;
        //   CF::Error code 18, "RFC3394Unwrap failed: %s" or "Decrypt failed: %s": other
        //     faults of the two steps;
        //   std::invalid_argument "Cannot decode without deviceKey";
        //   CF::Error code 17, "Unwrapped bad key length": the result is not 32 bytes.
        // The device's wrap is taken off with AES-128 in CBC mode, zero initial value, no
        // padding.
        UnlockedKey(const LockedKey &locked, const Key &kek,
                    const std::optional<DeviceKey> &deviceKey);
        UnlockedKey(const UnlockedKey &) = default;
        UnlockedKey &operator=(const UnlockedKey &) = default;
        ~UnlockedKey();

        UUIDBytes uuid;
        std::uint32_t keyType;
        Key key;
    };

    // By protection class; of class blocks with the same number the first.
    using ClassKeys = std::unordered_map<std::uint32_t, UnlockedKey>;

    // Opens a keybag. The password is UTF-8 as the user gave it. Runs the key derivation,
    // which takes seconds with the iteration counts that devices write. Throws CF::Error:
    //   code 17 for a malformed blob: "Incomplete header" (too few records, or a record
    //     longer than the blob), "Too many records (limit %u)", "Missing %s field",
    //     "Invalid %s field", "Unknown version '%u'", "Unknown type '%u'", "Expected one
    //     ManifestKey block", and the limit on iteration counts of
    //     ManifestEncryption::GenerateKEKFromPassword;
    //   code 22, "Failed to unlock a key (class %u)", with the cause underneath: code 21
    //     when the password is wrong, 17 or 18 when the key is damaged;
    //   code 22, "Failed to unlock a key (class %u): %s" for a class bound to the device.
    // A wrong password is noticed through the class keys: a keybag without any opens with
    // every password. When all class keys that the password could open are bound to the
    // device and stay locked, the password is tried on one of them.
    KeyBag(const CF::Data &blob, const std::string &password,
           DeviceBoundKeys deviceBoundKeys = DeviceBoundKeys::Fail);
    // The same, telling how far the derivation is.
    KeyBag(const CF::Data &blob, const std::string &password, DeviceBoundKeys deviceBoundKeys,
           const DerivationProgress &progress);
    // The same with all options.
    KeyBag(const CF::Data &blob, const std::string &password, const KeyBagOptions &options);
    KeyBag(const KeyBag &) = default;
    KeyBag &operator=(const KeyBag &) = default;
    ~KeyBag();

    // 3 or 5.
    std::uint32_t GetVersion() const noexcept { return version_; }
    // 0 to 3; backups have 1.
    std::uint32_t GetType() const noexcept { return type_; }
    const ManifestInfo &GetManifestInfo() const noexcept { return info_; }
    // All records in the blob's order; what is secret in them is wrapped.
    const std::vector<Record> &GetRecords() const noexcept { return records_; }
    const ClassKeys &GetClassKeys() const noexcept { return classKeys_; }
    // Borrowed; null when the keybag has no open key of the class.
    const UnlockedKey *FindClassKey(std::uint32_t protectionClass) const noexcept;

    // The steps of the constructor, in the open for tests and tools.

    // Reads the records, derives the key-encryption key and opens the class keys. The
    // constructor has called it: a call from outside fails with code 2,
    // "parseFromRaw: Already called".
    void parseFromRaw();
    // Appends the block that the UUID record before the position opens, and all blocks
    // that follow it, up to the end.
    void parseNextBlock(const UUIDBytes &uuid, RecordPosition position, RecordPosition end,
                        std::vector<Block> &blocks) const;
    // The value of the UUID record at the position among GetRecords(). Code 17: "Missing UUID
    // field" when the record has another tag or the position is the end, "Invalid UUID field" when
    // the value is not 16 bytes.
    UUIDBytes getUUID(RecordPosition position) const;
    // A field of N bytes (16, 20 or 40). Code 17: "Missing %s field", "Invalid %s field".
    template <std::size_t N>
    static std::array<std::uint8_t, N> getSequence(const Block &block, const char *tag);
    // A big-endian number; exists for unsigned int (4 bytes). Failures as getSequence.
    template <class Integer>
    static Integer getScalar(const Block &block, const char *tag);

  private:
    KeyBag() = default;
    [[gnu::visibility("hidden")]] void readHeader();
    [[gnu::visibility("hidden")]] std::vector<LockedKey> readBlocks();
    [[gnu::visibility("hidden")]] void unlockClassKeys(const std::vector<LockedKey> &lockedKeys,
                                                       const Key &kek);

    std::vector<std::uint8_t> password_; // empty once parsed
    std::uint32_t version_ = 0;
    std::uint32_t type_ = kTypeNotParsed;
    std::vector<Record> records_;
    ManifestInfo info_;
    ClassKeys classKeys_;
    KeyBagOptions options_; // its progress is empty once parsed
};

} // namespace MB
