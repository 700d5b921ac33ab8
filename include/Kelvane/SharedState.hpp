// What the whole library shares: the log domain, one mutex, the temporary path, and the
// byte-string encoding of the binary manifest.
#pragma once

#include "KVTemporaryPath.h"
#include "support/cf/Data.hpp"
#include "support/cf/String.hpp"
#include "support/zk/Path.hpp"

#include <cstdint>
#include <mutex>

namespace Kelvane {

// Identifies the library's domain, "Kelvane", to the log functions.
using LogDomainID = std::uint32_t;
KV_VISIBLE LogDomainID GetLogDomain();

// Guards all process-wide mutable state: the temporary path and the file manager's
// counts and limit. Not recursive; held for short sections only, never while calling
// the host, and never while calling GetTemporaryPath or what may call it.
KV_VISIBLE std::mutex &SharedMutex();

// The directory for temporary files, as the host set it. Throws std::runtime_error
// "Temporary storage path not set" when it has not. Takes the shared mutex.
KV_VISIBLE CF::String GetTemporaryPathString();
KV_VISIBLE ZK::filesystem::path GetTemporaryPath();

// Reads a byte string of the binary manifest: a 16-bit big-endian length, then that many
// bytes; length 0xFFFF stands for "absent" and reads like an empty string.
// bytes, length: the whole input. offset: where to start, moved past what was read;
//   null means 0.
// Returns the bytes, or a null object when the input ends too soon (or the offset lies
//   outside it); the offset is then left alone. Throws nothing but std::bad_alloc.
KV_VISIBLE CF::Data CreateDataFromDeviceRepresentation(const std::uint8_t *bytes, long length,
                                                       long *offset);
// The same encoding written. Null for 65535 bytes and more, which it cannot express.
// A null object is written as an empty string.
KV_VISIBLE CF::Data CopyDeviceRepresentation(const CF::Data &data);

} // namespace Kelvane
