#include "KVFile.h"

#include "Kelvane/FileManager.hpp"
#include "Kelvane/SharedState.hpp"
#include "filestore/KVFileClass.hpp"
#include "foundation/RuntimeClass.hpp"
#include "support/cf/Error.hpp"
#include "support/zk/Log.hpp"
#include "support/zk/Math.hpp"

#include <new>

const unsigned long kKVFileDefaultDataChunkSize = 32768;

namespace {

constexpr const char *kClassName = "KVFile";

const KVFileClass *asFile(CFTypeRef object) { return static_cast<const KVFileClass *>(object); }

Boolean equal(CFTypeRef a, CFTypeRef b) {
    if (a == b) {
        return true;
    }
    if (KVFileIsAppendable(asFile(a)) || KVFileIsAppendable(asFile(b))) {
        return false;
    }
    return asFile(a)->hash == asFile(b)->hash;
}

CF::String describe(const KVFileClass &file) {
    const auto *const address = static_cast<const void *>(&file);
    const auto size = static_cast<unsigned long long>(file.size);
    if (KVFileIsAppendable(&file)) {
        return CF::String::Format(CFSTR("<%s %p> (Appendable) path:%@ size:%llu"), kClassName,
                                  address, file.localPath.get(), size);
    }
    const std::string hash = file.hash.empty() ? "Empty" : ZK::Math::hex_encode(file.hash);
    return CF::String::Format(CFSTR("<%s %p> path:%@ size:%llu hash:%s mdate:%@"), kClassName,
                              address, file.localPath.get(), size, hash.c_str(),
                              file.modifiedDate.get());
}

void logFailure(const CF::Error &error) noexcept {
    try {
        ZLLogError(error.get(), Kelvane::GetLogDomain(), nullptr);
    } catch (const std::bad_alloc &) {
        // Without memory there is no log.
    }
}

CFStringRef copyDebugDescription(CFTypeRef object) { return describe(*asFile(object)).detach(); }

CFStringRef copyFormattingDescription(CFTypeRef object, CFDictionaryRef) {
    return copyDebugDescription(object);
}

using Body = Kelvane::RuntimeBody<KVFileClass>;
const CFRuntimeClass kRuntimeClass =
    Body::Record(kClassName, {&equal, &copyFormattingDescription, &copyDebugDescription});

} // namespace

KVFileClass::~KVFileClass() {
    if (referenceHash.empty()) {
        return;
    }
    try {
        Kelvane::FileManager::DeregisterReferenceForFile(this);
    } catch (const CF::Error &error) {
        logFailure(error);
    } catch (const std::bad_alloc &) {
        // Nobody registered it, and there is no memory to say so.
    }
}

CFTypeID KVFileGetTypeID(void) {
    static const CFTypeID typeID =
        Kelvane::RegisterRuntimeClass(&kRuntimeClass, "Kelvane/KVFile.cpp", 143);
    return typeID;
}

KVFileClass *_KVFileAllocInit(void) { return Body::Create(kCFAllocatorDefault, KVFileGetTypeID()); }

uint64_t KVFileGetSize(const KVFileClass *file) { return file->size; }

std::vector<std::uint8_t> KVFileGetHash(const KVFileClass *file) { return file->hash; }

std::vector<std::uint8_t> KVFileGetReferenceHash(const KVFileClass *file) {
    return file->referenceHash;
}

CFDateRef KVFileGetModifiedDate(const KVFileClass *file) { return file->modifiedDate.get(); }

void _KVFileSetModifiedDate(KVFileClass *file, CFDateRef date) { file->modifiedDate = date; }

CFStringRef KVFileGetLocalPath(const KVFileClass *file) { return file->localPath.get(); }
