// What a zip's directory says of a record, held to what the record can be.
#pragma once

#include <minizip/unzip.h>

namespace Kelvane {

// A directory may claim any size for a record; unpacking would fill the disk to find out. Throws
// code 9 "The zip record claims %llu bytes, and its %llu compressed bytes cannot hold them".
void RequirePossibleSize(const unz_file_info64 &record);

} // namespace Kelvane
