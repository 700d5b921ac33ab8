// A quick way to the archives of records, the counterpart of archive/FastMBFile.hpp.
//
// Writing a Manifest.db encodes a record for every entry, and every archive that the
// general codec (ZK/keyed_archiver.hpp) makes of a record without extended attributes has
// the same objects in the same order. The encoder here writes those bytes straight, the
// very same ones: the general codec alone defines what an archive looks like, and tests
// compare the two.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <vector>

namespace Kelvane {

// MB::File without extended attributes, borrowed. Null is absent.
struct MBFileFields {
    CFStringRef RelativePath = nullptr;
    CFStringRef Target = nullptr;
    CFDataRef Digest = nullptr;
    CFDataRef EncryptionKey = nullptr;
    std::int32_t Mode = 0;
    std::uint32_t UserID = 0;
    std::uint32_t GroupID = 0;
    std::int64_t LastModified = 0;
    std::int64_t LastStatusChange = 0;
    std::int64_t Birth = 0;
    std::int64_t Size = 0;
    std::uint64_t InodeNumber = 0;
    std::int32_t ProtectionClass = 0;
};

// Makes archive the record's archive as a binary property list, whatever it held; its
// memory is used again. Fails only when memory is out (std::bad_alloc). Any thread.
void EncodeMBFile(const MBFileFields &record, std::vector<std::uint8_t> &archive);

} // namespace Kelvane
