// Errors of the zip library as CoreFoundation errors.
#pragma once

#include "support/cf/Error.hpp"

namespace ZK {

// The domain of errors made from a minizip status: "ZK.ZipErrorDomain".
extern const CFStringRef kZipErrorDomain;

// A new error with the status as its code and a text for it; the caller releases it.
// UNZ_ERRNO becomes the POSIX error that errno holds, when it holds one.
CFErrorRef zipCreateError(int status);

} // namespace ZK
