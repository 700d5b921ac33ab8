// The plaintext of a file of the backup.
#pragma once

#include "KVFile.h"
#include "OpenBackup.hpp"
#include "Selection.hpp"
#include "support/cf/Error.hpp"

#include <cstdint>
#include <functional>
#include <span>

namespace tool {

using FileReference = CF::Pointer<KVFileClass *>;

// The file at the path, to be read as plaintext. Throws Failure.
FileReference OpenContent(const Container &container, CFStringRef domain, CFStringRef path);

// Hands the content on piece by piece. Throws Failure.
void ReadContent(const FileReference &file,
                 const std::function<void(std::span<const std::uint8_t>)> &consumer);

} // namespace tool
