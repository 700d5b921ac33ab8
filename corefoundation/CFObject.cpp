// The functions that work on an object of any type by asking its class.
#include "corefoundation/CFInternal.hpp"
#include "corefoundation/Checks.hpp"
#include "corefoundation/Description.hpp"

#include <CoreFoundation/CFString.h>

#include <cstdio>
#include <string>

namespace {

using namespace CFInternal;

const CFRuntimeClass &classOf(CFTypeRef cf, const char *function) {
    const CFRuntimeClass *cls =
        cf == nullptr ? nullptr : _CFRuntimeGetClassWithTypeID(typeIDOf(cf));
    if (cls == nullptr) {
        fatal(function, cf == nullptr ? "null object" : "not an object");
    }
    return *cls;
}

CFStringRef copyDefaultDescription(CFTypeRef cf, const CFRuntimeClass &cls) {
    return CFStringCreateWithFormat(kCFAllocatorDefault, nullptr, CFSTR("<%s %p>"), cls.className,
                                    cf);
}

// The class's own description, or null when it has none to give.
CFStringRef copyClassDescription(CFTypeRef cf, const CFRuntimeClass &cls, CFDictionaryRef options) {
    CFStringRef text = nullptr;
    if (cls.copyFormattingDesc != nullptr) {
        text = cls.copyFormattingDesc(cf, options);
    }
    if (text == nullptr && cls.copyDebugDesc != nullptr) {
        text = cls.copyDebugDesc(cf);
    }
    return text;
}

CFStringRef copyDescription(CFTypeRef cf, CFDictionaryRef options, const char *function) {
    const CFRuntimeClass &cls = classOf(cf, function);
    return nullWhenOutOfMemory([&] {
        CFStringRef text = copyClassDescription(cf, cls, options);
        return text != nullptr ? text : copyDefaultDescription(cf, cls);
    });
}

} // namespace

CFTypeID CFGetTypeID(CFTypeRef cf) {
    if (cf == nullptr) {
        fatal(__func__, "null object");
    }
    return typeIDOf(cf);
}

CFAllocatorRef CFGetAllocator(CFTypeRef cf) {
    if (cf == nullptr) {
        fatal(__func__, "null object");
    }
    const std::uintptr_t isa = baseOf(cf)->_cfisa;
    return isa == 0 ? kCFAllocatorSystemDefault : reinterpret_cast<CFAllocatorRef>(isa);
}

Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2) {
    if (cf1 == nullptr || cf2 == nullptr) {
        fatal(__func__, "null object");
    }
    if (cf1 == cf2) {
        return true;
    }
    if (typeIDOf(cf1) != typeIDOf(cf2)) {
        return false;
    }
    const CFRuntimeClass &cls = classOf(cf1, __func__);
    return cls.equal != nullptr && cls.equal(cf1, cf2) != 0;
}

CFHashCode CFHash(CFTypeRef cf) {
    const CFRuntimeClass &cls = classOf(cf, __func__);
    // Objects are 16-byte aligned: the low bits of an address say nothing.
    return cls.hash != nullptr ? cls.hash(cf) : reinterpret_cast<std::uintptr_t>(cf) >> 4;
}

CFStringRef CFCopyDescription(CFTypeRef cf) { return copyDescription(cf, nullptr, __func__); }

CFStringRef CFInternal::copyFormattingDescription(CFTypeRef cf, CFDictionaryRef formatOptions) {
    if (cf != nullptr && typeIDOf(cf) == kStringTypeID) {
        return static_cast<CFStringRef>(CFRetain(cf));
    }
    return copyDescription(cf, formatOptions, __func__);
}

void CFShow(CFTypeRef obj) {
    const Owner text(obj == nullptr ? static_cast<CFStringRef>(CFRetain(CFSTR("(null)")))
                                    : copyFormattingDescription(obj, nullptr));
    requireMemory(text.get() != nullptr);
    const std::string line = utf8Of(text.get()) + '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}
