// A quick way through the records of Manifest.db.
//
// Opening a backup decodes one record for every file of it, hundreds of thousands in
// all, nearly every one of the same shape. The decoder here reads that shape straight
// from the bytes of the binary property list, without making an object. It knows the
// archives that devices write and those that we write, and nothing else: whatever
// differs in any way it leaves to the general codec (ZK/keyed_unarchiver.hpp), which
// alone defines what an archive means. Where the decoder does answer, the codec would
// have read the same.
#pragma once

#include <cstdint>
#include <span>

namespace Kelvane {

// MB::File as a view of the archive's bytes; numbers as there.
struct MBFileView {
    // UTF-16 (big-endian, well-formed) or ASCII. Absent and empty texts look alike.
    struct Text {
        std::span<const std::uint8_t> bytes;
        bool utf16 = false;
    };
    Text RelativePath;
    Text Target;
    std::span<const std::uint8_t> Digest;
    std::span<const std::uint8_t> EncryptionKey;
    std::int32_t Mode = 0;
    std::uint32_t UserID = 0;
    std::uint32_t GroupID = 0;
    std::int64_t LastModified = 0;
    std::int64_t LastStatusChange = 0;
    std::int64_t Birth = 0;
    std::int64_t Size = 0;
    std::uint64_t InodeNumber = 0;
    std::int32_t ProtectionClass = 0;
    std::int32_t Flags = 0;
    // As devices write them. Where the view is used there are no others.
    std::span<const std::uint8_t> ExtendedAttributesData;
};

// Reads the archive of a record. False when it is not of the usual shape; it may be
// valid all the same, and view is then not to be used. The view borrows the bytes.
// Takes time in proportion to the archive's size and no memory; any thread.
bool DecodeMBFile(std::span<const std::uint8_t> archive, MBFileView &view) noexcept;

} // namespace Kelvane
