// What a manifest that is written as devices write it will say of single entries.
#pragma once

#include "manifest/KVManifestEntryClass.hpp"

#include <cstdint>
#include <functional>

namespace Kelvane {

// What may have to be written of an entry in other words than it has itself. An entry of an
// encrypted backup counts its size as the content will be stored, for instance, and a row that
// of the plaintext.
struct DeviceRow {
    const KVManifestEntryClass &entry;
    std::int64_t size = 0;
    // Null and empty are absent.
    CF::Pointer<CFDataRef> digest;
    CF::Pointer<CFDataRef> encryptionKey;
    EntryProtectionClass protectionClass = kEntryProtectionClassNotSet;

    // As the entry has it.
    explicit DeviceRow(const KVManifestEntryClass &described)
        : entry(described), size(described.size), digest(described.dataHash),
          encryptionKey(described.encryptionData), protectionClass(described.protectionClass) {}
};

// How the entries of a manifest become rows. Empty functions do nothing and say no. They are called
// in no promised order, the two that ask more than once for an entry if need be; what they throw
// ends the writing.
struct DeviceRowRules {
    // Changes what is written of an entry that is new, or changed, or rewritten.
    std::function<void(DeviceRow &)> adjust;
    // Whether the entry is to have no row.
    std::function<bool(const KVManifestEntryClass &)> leavesOut;
    // Whether the row of an entry that nobody changed is to be written all the same: with what
    // adjust makes of it, and every other field as it was.
    std::function<bool(const KVManifestEntryClass &)> rewrites;
};

// What an update of a source's manifest came to.
enum class ManifestUpdate : std::uint8_t {
    Untouched,  // it says what the entries say already
    Updated,    // some rows or records were changed, removed or added
    WrittenAnew // the source had another shape than devices give it; every row was written
};

} // namespace Kelvane
