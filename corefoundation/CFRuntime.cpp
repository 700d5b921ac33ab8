// Class table and instances.
#include "corefoundation/CFInternal.hpp"

#include <CoreFoundation/CFString.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using namespace CFInternal;

// No object is larger than this many bytes: a bigger size is a length that went wrong, and
// is refused before the allocator sees it.
constexpr CFIndex kMaxExtraBytes = CFIndex{1} << 39;

// A process registers a handful of classes; the bound keeps lookup one indexed load.
constexpr std::size_t kMaxClasses = 1024;
using Slot = std::atomic<const CFRuntimeClass *>;

constexpr std::array<const CFRuntimeClass *, kFirstRegisteredTypeID> kBuiltinClasses = {
    nullptr,
    &kAllocatorClass,
    &kNullClass,
    &kStringClass,
    &kDataClass,
    &kArrayClass,
    &kDictionaryClass,
    &kBooleanClass,
    &kNumberClass,
    &kDateClass,
    &kUUIDClass,
    &kErrorClass,
    &kKeyedArchiverUIDClass,
};

// Classes registered at run time, from kFirstRegisteredTypeID on.
constinit std::array<Slot, kMaxClasses - kFirstRegisteredTypeID> registeredClasses{};
constinit std::atomic<std::size_t> registeredCount{0};

} // namespace

namespace CFInternal {

void fatal(const char *function, const char *message) noexcept {
    std::fprintf(stderr, "%s: %s\n", function, message);
    std::abort();
}

void *allocateInstance(CFAllocatorRef allocator, CFTypeID typeID, CFIndex extraBytes,
                       std::uint8_t flags) noexcept {
    constexpr auto header = static_cast<CFIndex>(sizeof(CFRuntimeBase));
    if (extraBytes < 0 || extraBytes > kMaxExtraBytes) {
        return nullptr;
    }
    const bool plain = isMallocAllocator(allocator);
    void *memory = plain ? std::malloc(static_cast<std::size_t>(header + extraBytes))
                         : CFAllocatorAllocate(allocator, header + extraBytes, 0);
    if (memory == nullptr) {
        return nullptr;
    }
    auto *base = static_cast<CFRuntimeBase *>(memory);
    // A foreign allocator must outlive what it is to free.
    base->_cfisa = plain ? 0 : reinterpret_cast<std::uintptr_t>(CFRetain(allocator));
    base->_cfinfoa = headerWord(typeID, flags, 1);
    return memory;
}

} // namespace CFInternal

CFTypeID _CFRuntimeRegisterClass(const CFRuntimeClass *cls) {
    if (cls == nullptr) {
        return _kCFRuntimeNotATypeID;
    }
    std::size_t index = registeredCount.load(std::memory_order_relaxed);
    do {
        if (index >= registeredClasses.size()) {
            return _kCFRuntimeNotATypeID;
        }
    } while (!registeredCount.compare_exchange_weak(index, index + 1, std::memory_order_relaxed));
    registeredClasses[index].store(cls, std::memory_order_release);
    return kFirstRegisteredTypeID + index;
}

const CFRuntimeClass *_CFRuntimeGetClassWithTypeID(CFTypeID typeID) {
    if (typeID < kFirstRegisteredTypeID) {
        return kBuiltinClasses[typeID];
    }
    const std::size_t index = typeID - kFirstRegisteredTypeID;
    return index < registeredClasses.size()
               ? registeredClasses[index].load(std::memory_order_acquire)
               : nullptr;
}

CFTypeRef _CFRuntimeCreateInstance(CFAllocatorRef allocator, CFTypeID typeID, CFIndex extraBytes,
                                   unsigned char * /*category*/) {
    const CFRuntimeClass *cls = _CFRuntimeGetClassWithTypeID(typeID);
    if (cls == nullptr) {
        return nullptr;
    }
    void *instance = allocateInstance(allocator, typeID, extraBytes);
    if (instance == nullptr) {
        return nullptr;
    }
    std::memset(static_cast<char *>(instance) + sizeof(CFRuntimeBase), 0,
                static_cast<std::size_t>(extraBytes));
    if (cls->init != nullptr) {
        cls->init(instance);
    }
    return instance;
}

CFStringRef CFCopyTypeIDDescription(CFTypeID typeID) {
    const CFRuntimeClass *cls = _CFRuntimeGetClassWithTypeID(typeID);
    return cls == nullptr ? nullptr
                          : CFStringCreateWithCString(kCFAllocatorDefault, cls->className,
                                                      kCFStringEncodingUTF8);
}
