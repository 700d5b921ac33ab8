// Where the records of a zip archive lie.
#pragma once

#include <cstdint>
#include <string>

namespace Kelvane {

// What the end of an archive says of its directory. Positions count from where the archive
// begins, which is not where the file begins when something was put before it.
struct ZipDirectoryPlace {
    std::uint64_t start = 0;
    std::uint64_t count = 0;
};

// Checks that the directory holds as many records as the end of the archive says, and that no two
// records, nor one and the directory, share bytes: a file of half a megabyte could otherwise hold
// thirty gigabytes, one stretch of them being every record's. The directory alone is read, not the
// records. What of it cannot be read is left to who reads the records by it.
// found: what minizip reads, so that both mean the same directory.
// Throws CF::Error, code 9: "The zip's directory holds more records than its end record counts
// (more than %llu)", "Two parts of the zip overlap (at byte %llu)", "The zip's directory
// contradicts itself (at byte %llu)", "The zip's directory cannot be found", or, for a file that
// cannot be read, none but the POSIX error underneath.
void CheckZipLayout(const std::string &path, const ZipDirectoryPlace &found);

} // namespace Kelvane
