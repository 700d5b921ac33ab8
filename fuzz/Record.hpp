// The records of manifest databases, made from choices.
#pragma once

#include "MB/File.hpp"
#include "fuzz/Input.hpp"

namespace Fuzz {

inline MB::File RecordOf(Input &input) {
    MB::File record;
    record.RelativePath = Text(input);
    record.Target = input.Byte() % 4 == 0 ? record.RelativePath : Text(input);
    record.Digest = Bytes(input);
    record.EncryptionKey = input.Byte() % 4 == 0 ? record.Digest : Bytes(input);
    record.Mode = input.Number<std::int32_t>();
    record.UserID = input.Number<std::uint32_t>();
    record.GroupID = input.Number<std::uint32_t>();
    record.LastModified = input.Number<std::int64_t>();
    record.LastStatusChange = input.Number<std::int64_t>();
    record.Birth = input.Number<std::int64_t>();
    record.Size = input.Number<std::int64_t>();
    record.InodeNumber = input.Number<std::uint64_t>();
    record.ProtectionClass = input.Number<std::int32_t>();
    return record;
}

} // namespace Fuzz
