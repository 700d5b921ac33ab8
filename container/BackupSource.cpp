#include "container/BackupSource.hpp"

#include "container/StoredName.hpp"

namespace Kelvane {

FileRef BackupSource::Load(const CF::String &name) const {
    if (!IsSafeStoredName(name)) {
        ThrowUnsafeStoredName(name);
    }
    return LoadNamed(name);
}

CF::String SourceFileName(std::string_view bytes) {
    const CF::String name = CF::String::FromUTF8(bytes);
    if (name) {
        return name;
    }
    return CF::String::Adopt(CFStringCreateWithBytes(
        kCFAllocatorDefault, reinterpret_cast<const UInt8 *>(bytes.data()),
        static_cast<CFIndex>(bytes.size()), kCFStringEncodingISOLatin1, false));
}

} // namespace Kelvane
