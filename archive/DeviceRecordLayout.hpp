// What the encoding of new records and the updating of old ones have in common.
#pragma once

#include "archive/DeviceRecord.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace Kelvane::RecordLayout {

inline constexpr std::int64_t kArchiveVersion = 100000;
inline constexpr std::string_view kArchiver = "NSKeyedArchiver";
// Of the null object in the table, and of the record in a new one.
inline constexpr std::uint32_t kNullEntry = 0;
inline constexpr std::uint32_t kRecordEntry = 1;

// Names of classes, the class itself first.
inline constexpr std::array<std::string_view, 2> kRecordClass = {"MBFile", "NSObject"};
inline constexpr std::array<std::string_view, 3> kDataClass = {"NSMutableData", "NSData",
                                                               "NSObject"};

// A key of the record. Class is no field: what it leads to never changes.
inline constexpr std::size_t kClassKey = kRecordFields;
inline constexpr std::size_t kKeyCount = kRecordFields + 1;
// By the field's number, kClassKey last.
extern const std::array<std::string_view, kKeyCount> kKeyNames;

// The keys of a record in a device's order.
class KeyOrder {
  public:
    // present tells which texts and data the record has; the numbers and the class it always has.
    explicit KeyOrder(RecordFields present);
    std::span<const std::uint8_t> Keys() const noexcept { return {keys_.data(), count_}; }

  private:
    std::array<std::uint8_t, kKeyCount> keys_{};
    std::size_t count_ = 0;
};

// {"$classname": NAME, "$classes": [NAME, PARENT...]}
PlistBuilder::Number AddClass(PlistBuilder &builder, std::span<const std::string_view> chain);
// {"NS.data": DATA, "$class": the class with that number in the table}
PlistBuilder::Number AddWrappedData(PlistBuilder &builder, CFDataRef data,
                                    std::uint32_t classEntry);
PlistBuilder::Bytes BytesOf(CFDataRef data);
// The number of a record as it is written.
PlistBuilder::Number AddNumber(PlistBuilder &builder, const DeviceRecord &record,
                               std::size_t field);

} // namespace Kelvane::RecordLayout
