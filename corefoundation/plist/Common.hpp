// What the readers and writers of both formats share: limits, failures, ownership and
// the kinds of object that a property list is made of.
#pragma once

#include "corefoundation/CFInternal.hpp"

#include <CoreFoundation/CFPropertyList.h>
#include <cstddef>
#include <cstdint>
#include <new>
#include <span>
#include <string>
#include <utility>

namespace CFInternal::PropertyList {

using Bytes = std::span<const std::uint8_t>;

// Containers within containers. Readers, writers and the finalisers of the objects
// recurse, and threads may have small stacks; documents in use nest a dozen deep.
inline constexpr unsigned kMaxDepth = 512;
// Values in a property list, a shared one counted wherever it stands: a traversal
// that knows nothing of sharing (comparing, describing, writing XML) takes that many
// steps. The largest lists in use have some hundred thousand.
inline constexpr std::uint32_t kMaxValues = std::uint32_t{1} << 22;
// Bytes of an XML document, read or written. The largest in use have some megabytes. Written
// ones need the bound more: a binary list of a megabyte may name its objects so often that
// gigabytes of XML would come of it, and nobody could read them again.
inline constexpr std::size_t kMaxXMLSize = std::size_t{128} << 20;

// The one exception inside; the exported functions turn it into a CFError.
struct Failure {
    CFIndex code;
    // A sentence without its full stop.
    std::string reason;
};

[[noreturn]] inline void ThrowCorrupt(std::string reason) {
    throw Failure{kCFPropertyListReadCorruptError, std::move(reason)};
}
[[noreturn]] inline void ThrowUnwritable(std::string reason) {
    throw Failure{kCFPropertyListWriteStreamError, std::move(reason)};
}

// The object, unless memory was out.
template <class Ref>
Ref Made(Ref object) {
    if (object == nullptr) {
        throw std::bad_alloc();
    }
    return object;
}

// One reference, released at the end of the scope.
template <class Ref = CFTypeRef>
class Owned {
  public:
    Owned() = default;
    explicit Owned(Ref object) noexcept : object_(object) {}
    Owned(Owned &&other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Owned &operator=(Owned &&other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Owned() {
        if (object_ != nullptr) {
            CFRelease(object_);
        }
    }
    Ref get() const noexcept { return object_; }
    [[nodiscard]] Ref release() noexcept { return std::exchange(object_, nullptr); }
    explicit operator bool() const noexcept { return object_ != nullptr; }

  private:
    Ref object_ = nullptr;
};

template <class Ref>
Owned<Ref> Own(Ref made) {
    return Owned<Ref>(Made(made));
}

struct Mutability {
    bool containers;
    bool leaves;

    static Mutability Of(CFOptionFlags options) noexcept {
        const bool leaves = (options & kCFPropertyListMutableContainersAndLeaves) != 0;
        return {leaves || (options & kCFPropertyListMutableContainers) != 0, leaves};
    }
};

// Objects of borrowed members; pairs are keys[i], values[i], of equal keys the first
// pair stays. All throw bad_alloc.
Owned<> MakeArray(CFAllocatorRef allocator, std::span<const void *> members, bool isMutable);
Owned<> MakeDictionary(CFAllocatorRef allocator, std::span<const void *> keys,
                       std::span<const void *> values, bool isMutable);
Owned<> MakeData(CFAllocatorRef allocator, Bytes bytes, bool isMutable);
// Takes the immutable string over.
Owned<> MakeString(CFAllocatorRef allocator, Owned<CFStringRef> string, bool isMutable);
// high * 2^64 + low.
Owned<> MakeInteger(CFAllocatorRef allocator, std::int64_t high, std::uint64_t low);

// Each returns the root, or throws Failure or bad_alloc.
Owned<> ReadBinary(CFAllocatorRef allocator, Bytes document, Mutability mutability);
Owned<> ReadXML(CFAllocatorRef allocator, Bytes document, Mutability mutability);

// Each returns the document of a graph that CheckGraph has passed.
Owned<CFDataRef> WriteBinary(CFAllocatorRef allocator, CFTypeRef root);
Owned<CFDataRef> WriteXML(CFAllocatorRef allocator, CFTypeRef root);

} // namespace CFInternal::PropertyList
