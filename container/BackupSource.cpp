#include "container/BackupSource.hpp"

#include "Kelvane/Error.hpp"
#include "container/StoredName.hpp"
#include "filestore/Reading.hpp"

#include <boost/system/error_code.hpp>

#include <cerrno>
#include <string>

#include <fcntl.h>

namespace Kelvane {

FileRef BackupSource::Load(const CF::String &name, std::uint64_t limit) const {
    if (!IsSafeStoredName(name)) {
        ThrowUnsafeStoredName(name);
    }
    return LoadNamed(name, limit);
}

ZK::file::readable_file BackupSource::Open(const CF::String &name) const {
    if (!IsSafeStoredName(name)) {
        ThrowUnsafeStoredName(name);
    }
    return OpenNamed(name);
}

ZK::file::readable_file BackupSource::OpenNamed(const CF::String &name) const {
    return OpenContent(*LoadNamed(name, kAnySize).get());
}

ZK::file::unique_descriptor BackupSource::OpenQuickly(const CF::String &name) const {
    if (!IsSafeStoredName(name)) {
        ThrowUnsafeStoredName(name);
    }
    return OpenNamedQuickly(name);
}

ZK::file::unique_descriptor BackupSource::OpenNamedQuickly(const CF::String &name) const {
    const ZK::file::readable_file file = OpenNamed(name);
    ZK::file::unique_descriptor copy(::fcntl(file.native_handle(), F_DUPFD_CLOEXEC, 0));
    if (copy.get() < 0) {
        const int number = errno;
        const std::string reason = boost::system::system_category().message(number);
        throw MakeFSError(number, CFSTR("The stored file could not be read - %s"), reason.c_str());
    }
    return copy;
}

void RequireSizeWithin(std::uint64_t size, std::uint64_t limit) {
    if (size > limit) {
        throw Error(kKVErrorLoadRepresentation, nullptr,
                    CFSTR("The file is too large to be read into memory (%llu bytes)"),
                    static_cast<unsigned long long>(size));
    }
}

CF::String SourceFileName(std::string_view bytes) {
    const CF::String name = CF::String::FromUTF8(bytes);
    if (name) {
        return name;
    }
    return CF::String::Adopt(CF::Made(CFStringCreateWithBytes(
        kCFAllocatorDefault, reinterpret_cast<const UInt8 *>(bytes.data()),
        static_cast<CFIndex>(bytes.size()), kCFStringEncodingISOLatin1, false)));
}

} // namespace Kelvane
