// Records of Manifest.db in the form in which devices write them.
//
// The general codec (ZK/keyed_archiver.hpp) writes archives that this library reads; many other
// readers take nothing but what a device writes: references as UID values of the property list,
// the file key in an object of its own, the digest and extended attributes as data. Records of
// that form are made here, and old ones, of whichever form, are brought up to date in it.
#pragma once

#include "archive/PlistBuilder.hpp"

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace Kelvane {

// The fields of a record.
enum class RecordField : std::uint8_t {
    LastModified,
    LastStatusChange,
    Birth,
    Size,
    InodeNumber, // without a sign
    Mode,
    UserID,
    GroupID,
    ProtectionClass,
    Flags,
    RelativePath,
    Target,
    Digest,
    EncryptionKey,
    ExtendedAttributes,
};
inline constexpr std::size_t kRecordNumbers = 10; // the fields up to Flags
inline constexpr std::size_t kRecordFields = 15;

// A set of fields.
class RecordFields {
  public:
    constexpr RecordFields() noexcept = default;

    constexpr void Add(RecordField field) noexcept { bits_ |= bitOf(field); }
    constexpr bool Has(RecordField field) const noexcept { return (bits_ & bitOf(field)) != 0; }
    constexpr bool IsEmpty() const noexcept { return bits_ == 0; }

  private:
    static constexpr std::uint32_t bitOf(RecordField field) noexcept {
        return std::uint32_t{1} << static_cast<unsigned>(field);
    }
    std::uint32_t bits_ = 0;
};

// What a record says; all is borrowed. Null texts and data are absent, but for RelativePath, which
// every record has.
struct DeviceRecord {
    std::array<std::int64_t, kRecordNumbers> numbers{};
    CFStringRef RelativePath = nullptr;
    CFStringRef Target = nullptr;
    CFDataRef Digest = nullptr;
    CFDataRef EncryptionKey = nullptr;
    CFDataRef ExtendedAttributes = nullptr; // a property list of names and data

    std::int64_t &operator[](RecordField number) {
        return numbers[static_cast<std::size_t>(number)];
    }
    std::int64_t operator[](RecordField number) const {
        return numbers[static_cast<std::size_t>(number)];
    }
};

// Encodes one record after another in the same memory. One thread at a time.
class DeviceRecordEncoder {
  public:
    DeviceRecordEncoder();
    ~DeviceRecordEncoder();
    DeviceRecordEncoder(const DeviceRecordEncoder &) = delete;
    DeviceRecordEncoder &operator=(const DeviceRecordEncoder &) = delete;

    // Makes archive the record's archive as a binary property list. Fails only when memory is out.
    void Encode(const DeviceRecord &record, std::vector<std::uint8_t> &archive);

    // Makes archive what old becomes when those of its fields that changed names say what record
    // says. Everything else that is in old stays as it is, with keys, objects and values that this
    // library knows nothing of; but references become UID values, the file key gets an object of
    // its own, and numbers that every record has are added from record where old has none.
    //
    // old is an archive of a record that the general codec reads. Throws std::invalid_argument
    // for what is none, and for one of another format than the binary one.
    void Update(std::span<const std::uint8_t> old, const DeviceRecord &record, RecordFields changed,
                std::vector<std::uint8_t> &archive);

  private:
    class Revision;

    PlistBuilder builder_;
    std::unique_ptr<Revision> revision_;
};

} // namespace Kelvane
