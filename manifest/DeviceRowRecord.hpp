// The records of entries in the form in which devices write them.
#pragma once

#include "archive/DeviceRecord.hpp"
#include "manifest/DeviceRow.hpp"

#include <cstdint>
#include <span>
#include <vector>

namespace Kelvane {

// Encodes the records of many rows in the same memory. One thread at a time.
class DeviceRowEncoder {
  public:
    using Bytes = std::vector<std::uint8_t>;

    // Makes record that of a new row. False, with a line in the log, when it has none (one of more
    // than 64 MiB).
    bool Encode(const DeviceRow &row, Bytes &record);

    enum class Outcome : std::uint8_t {
        Same,      // old says what the row says; record is not set
        Different, // record is old with the fields in which they differ
        Failed     // as Encode
    };
    // The record of a row whose old one is given. With pathToo the record's own path is changed
    // too; it is not compared, for rows are found by their columns. Throws std::invalid_argument
    // when old is no record.
    Outcome Update(std::span<const std::uint8_t> old, const DeviceRow &row, bool pathToo,
                   Bytes &record);

  private:
    void EncodeAny(const DeviceRow &row, Bytes &record);
    void EncodeGenerally(const DeviceRow &row, const DeviceRecord &fields, Bytes &record);
    void UpdateRecord(std::span<const std::uint8_t> old, const DeviceRow &row, RecordFields changed,
                      Bytes &record);

    DeviceRecordEncoder encoder_;
    Bytes general_;
};

// The Unix seconds of a time: the whole ones before it, the nearest number for those beyond 64
// bits, and those of 2001-01-01 for what is no number.
std::int64_t UnixSeconds(CFAbsoluteTime time) noexcept;

// The flags of an entry's row. Entries of binary manifests, which have none, get those of their
// mode.
int RowFlags(const KVManifestEntryClass &entry) noexcept;

} // namespace Kelvane
