#include "container/ZipError.hpp"

#include "support/cf/CF.hpp"
#include "support/cf/Extensions.hpp"

#include <minizip/unzip.h>

#include <cerrno>

namespace ZK {

const CFStringRef kZipErrorDomain = CFSTR("ZK.ZipErrorDomain");

namespace {

CFStringRef statusText(int status) {
    switch (status) {
    case UNZ_END_OF_LIST_OF_FILE:
        return CFSTR("The archive holds no such record");
    case UNZ_PARAMERROR:
        return CFSTR("The archive was used wrongly");
    case UNZ_BADZIPFILE:
        return CFSTR("The archive is damaged or uses an unsupported method");
    case UNZ_INTERNALERROR:
        return CFSTR("The zip library failed internally");
    case UNZ_CRCERROR:
        return CFSTR("The record's checksum does not match its bytes");
    case UNZ_ERRNO:
        return CFSTR("The archive could not be read");
    case Z_DATA_ERROR:
        return CFSTR("The record's compressed data is damaged");
    case Z_BUF_ERROR:
        return CFSTR("The record's compressed data is cut short");
    case Z_MEM_ERROR:
        return CFSTR("There is not enough memory");
    default:
        return CFSTR("The zip library reported an error");
    }
}

} // namespace

CFErrorRef zipCreateError(int status) {
    // The library takes a header that it cannot read for a bad one.
    if ((status == UNZ_ERRNO || status == UNZ_BADZIPFILE) && errno != 0) {
        return CF::Made(CFErrorCreatePOSIXError(kCFAllocatorDefault, errno, nullptr));
    }
    const auto info = CF::Dictionary::Mutable();
    info.Set(kCFErrorLocalizedDescriptionKey, statusText(status));
    return CF::Made(CFErrorCreate(kCFAllocatorDefault, kZipErrorDomain, status, info.get()));
}

} // namespace ZK
