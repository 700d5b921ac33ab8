// What the built-in types share: the object header, fixed type identifiers, instances
// without the cost of the general path, and constant objects.
#pragma once

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFRuntime.h>

#include <cstddef>
#include <cstdint>

namespace CFInternal {

// Built-in types have fixed identifiers, so that their objects can be constants and
// their checks compare with an immediate. A new one is added here, to the declarations
// below and to the table in CFRuntime.cpp.
enum : CFTypeID {
    kAllocatorTypeID = 1,
    kNullTypeID,
    kStringTypeID,
    kDataTypeID,
    kArrayTypeID,
    kDictionaryTypeID,
    kBooleanTypeID,
    kNumberTypeID,
    kDateTypeID,
    kUUIDTypeID,
    kErrorTypeID,
    kKeyedArchiverUIDTypeID,
    kFirstRegisteredTypeID = 32,
};

// The class records, each defined (constant-initialised) beside its type:
//   constinit const CFRuntimeClass CFInternal::kDataClass = {0, "CFData", ...};
extern const CFRuntimeClass kAllocatorClass;
extern const CFRuntimeClass kNullClass;
extern const CFRuntimeClass kStringClass;
extern const CFRuntimeClass kDataClass;
extern const CFRuntimeClass kArrayClass;
extern const CFRuntimeClass kDictionaryClass;
extern const CFRuntimeClass kBooleanClass;
extern const CFRuntimeClass kNumberClass;
extern const CFRuntimeClass kDateClass;
extern const CFRuntimeClass kUUIDClass;
extern const CFRuntimeClass kErrorClass;
extern const CFRuntimeClass kKeyedArchiverUIDClass;

// The header's second word, from the top: 32 bits of reference count, 8 bits that mark
// a live object (so that most uses of freed memory are noticed), 8 bits for the type's
// own use, 16 bits of type identifier. The first word is the allocator, 0 for malloc.
inline constexpr std::uint64_t kOneReference = std::uint64_t{1} << 32;
inline constexpr std::uint64_t kLiveMark = std::uint64_t{0xCF} << 24;
inline constexpr std::uint64_t kLiveMask = std::uint64_t{0xFF} << 24;
inline constexpr unsigned kFlagsShift = 16;
inline constexpr std::uint64_t kTypeMask = 0xFFFF;
// A count from here up is never changed again: the object is immortal.
inline constexpr std::uint64_t kImmortalCount = std::uint64_t{1} << 31;

constexpr std::uint64_t headerWord(CFTypeID typeID, std::uint8_t flags, std::uint64_t count) {
    return (count << 32) | kLiveMark | (std::uint64_t{flags} << kFlagsShift) | typeID;
}

// The header of a constant object, which is never counted, written or freed:
//   static constexpr __CFBoolean trueObject = {immortalBase(kBooleanTypeID), true};
constexpr CFRuntimeBase immortalBase(CFTypeID typeID, std::uint8_t flags = 0) {
    return {0, headerWord(typeID, flags, kImmortalCount)};
}

inline const CFRuntimeBase *baseOf(CFTypeRef cf) noexcept {
    return static_cast<const CFRuntimeBase *>(cf);
}
// The type identifier of an object known to be one.
inline CFTypeID typeIDOf(CFTypeRef cf) noexcept {
    return __atomic_load_n(&baseOf(cf)->_cfinfoa, __ATOMIC_RELAXED) & kTypeMask;
}
// The 8 bits for the type's own use.
inline std::uint8_t flagsOf(CFTypeRef cf) noexcept {
    return static_cast<std::uint8_t>(__atomic_load_n(&baseOf(cf)->_cfinfoa, __ATOMIC_RELAXED) >>
                                     kFlagsShift);
}

// Makes an object immortal, before it is shared; one that already is stays untouched.
void makeImmortal(CFTypeRef cf) noexcept;

// Ends the process with "function: message" on standard error: a programming error.
[[noreturn]] void fatal(const char *function, const char *message) noexcept;

// Aborts unless cf is an object of the type.
inline void requireType(CFTypeRef cf, CFTypeID typeID, const char *function) noexcept {
    if (cf == nullptr || typeIDOf(cf) != typeID) [[unlikely]] {
        fatal(function, cf == nullptr ? "null object" : "object of another type");
    }
}

// A new instance with one reference whose extraBytes bytes behind the header are NOT
// initialised and whose init callback is NOT called; the caller fills all of it. Null
// when memory is out or extraBytes is negative.
void *allocateInstance(CFAllocatorRef allocator, CFTypeID typeID, CFIndex extraBytes,
                       std::uint8_t flags = 0) noexcept;

// Frees an instance without calling its finaliser, for constructors that fail half-way.
void deallocateInstance(CFTypeRef cf) noexcept;

// The object's text for %@: a string itself (retained), else the formatting description,
// the debug description, "<Class 0x...>". formatOptions may be null. The caller releases.
CFStringRef copyFormattingDescription(CFTypeRef cf, CFDictionaryRef formatOptions);

// Whether memory of this allocator is plain malloc memory.
bool isMallocAllocator(CFAllocatorRef allocator) noexcept;

} // namespace CFInternal
