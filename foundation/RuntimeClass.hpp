// How our object types become CoreFoundation classes: a C++ body laid over the
// object header, constructed and destroyed in place by the runtime's callbacks.
#pragma once

#include "support/cf/Pointer.hpp"
#include "support/zk/Abort.hpp"

#include <CoreFoundation/CFRuntime.h>
#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

namespace Kelvane {

// The callbacks in which the types differ; null means the runtime's default.
struct RuntimeCallbacks {
    Boolean (*equal)(CFTypeRef, CFTypeRef) = nullptr;
    CFStringRef (*copyFormattingDescription)(CFTypeRef, CFDictionaryRef) = nullptr;
    CFStringRef (*copyDebugDescription)(CFTypeRef) = nullptr;
};

// Construction and destruction of the body Body, whose first member must be
// `CFRuntimeBase base`. Body must be default-constructible without throwing.
template <class Body>
struct RuntimeBody {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
    static_assert(std::is_same_v<decltype(Body::base), CFRuntimeBase> &&
                      offsetof(Body, base) == 0 && !std::is_polymorphic_v<Body>,
                  "the body must begin with the object header");
#pragma GCC diagnostic pop
    static_assert(alignof(Body) <= alignof(std::max_align_t),
                  "instances are aligned as malloc aligns");

    // The runtime owns the header and has filled it in already, so it is put back
    // after the constructor, which knows nothing of it.
    static void Init(CFTypeRef object) {
        void *const memory = const_cast<void *>(object);
        CFRuntimeBase header;
        std::memcpy(&header, memory, sizeof header);
        std::memset(memory, 0, sizeof(Body));
        Body *const body = ::new (memory) Body();
        body->base = header;
    }

    // Memory is the runtime's to free.
    static void Finalize(CFTypeRef object) {
        static_cast<Body *>(const_cast<void *>(object))->~Body();
    }

    // The class record. className is kept by the runtime: pass a literal.
    static constexpr CFRuntimeClass Record(const char *className,
                                           const RuntimeCallbacks &callbacks) {
        CFRuntimeClass record{};
        record.version = 0;
        record.className = className;
        record.init = &Init;
        record.finalize = &Finalize;
        record.equal = callbacks.equal;
        record.copyFormattingDesc = callbacks.copyFormattingDescription;
        record.copyDebugDesc = callbacks.copyDebugDescription;
        return record;
    }

    // A new instance that the caller owns. Throws std::bad_alloc.
    static Body *Create(CFAllocatorRef allocator, CFTypeID typeID) {
        constexpr auto extra = static_cast<CFIndex>(sizeof(Body) - sizeof(CFRuntimeBase));
        CFTypeRef object = CF::Made(_CFRuntimeCreateInstance(allocator, typeID, extra, nullptr));
        return static_cast<Body *>(const_cast<void *>(object));
    }
};

// Registers the class and returns its identifier; without one nothing can work, so a
// refusal ends the process with an assertion at the given position. Call it from the
// initialiser of a function-local static, which makes it happen once:
//   static const CFTypeID typeID = RegisterRuntimeClass(&record, "Kelvane/KVFile.cpp", 143);
inline CFTypeID RegisterRuntimeClass(const CFRuntimeClass *record, const char *file,
                                     int line) noexcept {
    const CFTypeID typeID = _CFRuntimeRegisterClass(record);
    if (typeID == _kCFRuntimeNotATypeID) {
        ZK::AssertionFailed(file, line, "operator()", "typeID != _kCFRuntimeNotATypeID");
    }
    return typeID;
}

} // namespace Kelvane
