// The MBFile record: what a row of Manifest.db keeps of one file.
//
// In the database it is a keyed archive (see ZK/keyed_archiver.hpp) whose root is an
// object of the class "MBFile"; the field names below are its keys.
#pragma once

#include "KVBase.h"
#include "support/cf/Data.hpp"
#include "support/cf/Dictionary.hpp"
#include "support/cf/String.hpp"

#include <cstdint>
#include <string>

namespace ZK {
class keyed_archiver;
class keyed_unarchiver;
} // namespace ZK

namespace MB {

// A plain value. Null strings, data and dictionaries are absent from the archive;
// numbers are always written, but for Flags.
struct KV_VISIBLE File {
    CF::String RelativePath;
    CF::String Target; // of a symbolic link
    CF::Data Digest;   // of the stored content
    CF::Data EncryptionKey;
    std::int32_t Mode = 0; // POSIX st_mode
    std::uint32_t UserID = 0;
    std::uint32_t GroupID = 0;
    std::int64_t LastModified = 0; // this and the next two in Unix seconds
    std::int64_t LastStatusChange = 0;
    std::int64_t Birth = 0;
    std::int64_t Size = 0; // bytes
    std::uint64_t InodeNumber = 0;
    std::int32_t ProtectionClass = 0;
    // Devices' records have it, 0 or seldom 128; archives that encode makes have not.
    std::int32_t Flags = 0;
    CF::Dictionary ExtendedAttributes; // attribute name to value
    // What the same key holds where devices write it as data, a property list of the
    // attributes: kept as it is. Absent when ExtendedAttributes is there.
    CF::Data ExtendedAttributesData;
};

// "MBFile".
KV_VISIBLE std::string class_name(const File &file);

// Writes the fields into the archiver's current object; called by the archiver. To
// archive a record call ZK::make_keyed_archive. Throws ZK::archiver_exceptions::
// limit_exceeded when ExtendedAttributes nests too deeply or has too many members, nothing
// else; what was decoded from an archive never does.
KV_VISIBLE void encode(const File &file, ZK::keyed_archiver &archiver);

// Reads the unarchiver's current object; called by the unarchiver. To read an archive
// call ZK::extract_keyed_archive. A key that is absent or of another type leaves the
// field at its default. Throws the exceptions of ZK/archiver_exceptions.hpp. The
// pointer only selects the overload and is null.
KV_VISIBLE File decode(File *type, ZK::keyed_unarchiver &unarchiver);

} // namespace MB
