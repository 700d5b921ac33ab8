#include "corefoundation/plist/Graph.hpp"

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFString.h>
#include <algorithm>
#include <unordered_map>

namespace CFInternal::PropertyList {

namespace {

// What texts and data may take that are to be copied each time that they are shared. Like XML,
// such a copy of a small list may be a thousand times as large.
constexpr std::uint64_t kMaxMutableBytes = std::uint64_t{256} << 20;

std::string TypeName(CFTypeRef object) {
    const Owned<CFStringRef> name(CFCopyTypeIDDescription(typeIDOf(object)));
    char text[128] = "object of an unknown type";
    if (name) {
        (void)CFStringGetCString(name.get(), text, sizeof text, kCFStringEncodingUTF8);
    }
    return text;
}

class GraphCheck {
  public:
    // What a subgraph costs those who walk it. Remembered by container, so that the
    // check itself takes each one once.
    struct Extent {
        std::uint32_t values = 0; // 0 while the container is being walked
        std::uint32_t height = 0; // of containers, itself included
        std::uint64_t bytes = 0;  // of texts and data, shared ones counted each time
    };

    // depth: how many containers are around the object.
    Extent Visit(CFTypeRef object, unsigned depth) {
        if (object == nullptr) {
            ThrowUnwritable("The property list holds a null object");
        }
        switch (typeIDOf(object)) {
        case kStringTypeID:
            return {1, 0,
                    sizeof(UniChar) * static_cast<std::uint64_t>(
                                          CFStringGetLength(static_cast<CFStringRef>(object)))};
        case kDataTypeID:
            return {1, 0,
                    static_cast<std::uint64_t>(CFDataGetLength(static_cast<CFDataRef>(object)))};
        case kBooleanTypeID:
        case kNumberTypeID:
        case kDateTypeID:
        case kKeyedArchiverUIDTypeID:
            return {1, 0, 0};
        case kArrayTypeID:
        case kDictionaryTypeID:
            return VisitContainer(object, depth);
        default:
            ThrowUnwritable("A property list cannot hold a " + TypeName(object));
        }
    }

  private:
    Extent VisitContainer(CFTypeRef container, unsigned depth) {
        const auto [known, isNew] = extents_.try_emplace(container);
        if (!isNew) {
            if (known->second.values == 0) {
                ThrowUnwritable("A container holds itself");
            }
            RequireDepth(depth + known->second.height);
            return known->second;
        }
        RequireDepth(depth + 1);
        const Extent extent = typeIDOf(container) == kArrayTypeID
                                  ? VisitArray(static_cast<CFArrayRef>(container), depth)
                                  : VisitDictionary(static_cast<CFDictionaryRef>(container), depth);
        extents_[container] = extent;
        return extent;
    }

    Extent VisitArray(CFArrayRef array, unsigned depth) {
        Extent total{1, 1, 0};
        const CFIndex count = CFArrayGetCount(array);
        for (CFIndex i = 0; i < count; ++i) {
            Add(total, Visit(CFArrayGetValueAtIndex(array, i), depth + 1));
        }
        return total;
    }

    Extent VisitDictionary(CFDictionaryRef dictionary, unsigned depth) {
        Extent total{1, 1, 0};
        const auto count = static_cast<std::size_t>(CFDictionaryGetCount(dictionary));
        std::vector<const void *> keys(count);
        std::vector<const void *> values(count);
        CFDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
        for (std::size_t i = 0; i < count; ++i) {
            if (keys[i] == nullptr || typeIDOf(keys[i]) != kStringTypeID) {
                ThrowUnwritable("A dictionary key is no string");
            }
            Add(total, {1, 0, 0});
            Add(total, Visit(values[i], depth + 1));
        }
        return total;
    }

    static void Add(Extent &total, const Extent &member) {
        total.values += member.values; // Both are at most kMaxValues.
        total.height = std::max(total.height, member.height + 1);
        // Lengths are below 2^61; beyond a bound that nothing gets near, the sum stays.
        total.bytes = std::min(total.bytes + member.bytes, std::uint64_t{1} << 62);
        if (total.values > kMaxValues) {
            ThrowUnwritable("The property list has more than " + std::to_string(kMaxValues) +
                            " values");
        }
    }

    static void RequireDepth(unsigned depth) {
        if (depth > kMaxDepth) {
            ThrowUnwritable("Containers nest more than " + std::to_string(kMaxDepth) + " deep");
        }
    }

    std::unordered_map<CFTypeRef, Extent> extents_;
};

class GraphCopy {
  public:
    GraphCopy(CFAllocatorRef allocator, Mutability mutability)
        : allocator_(allocator), mutability_(mutability) {}

    // What nobody can change is copied once, however often it is shared: apart from their
    // addresses nothing tells the copies apart.
    Owned<> Copy(CFTypeRef object) {
        if (mutability_.containers) {
            return CopyAnew(object);
        }
        Owned<> &copy = copies_[object];
        if (!copy) {
            copy = CopyAnew(object);
        }
        return Owned<>(CFRetain(copy.get()));
    }

  private:
    Owned<> CopyAnew(CFTypeRef object) {
        switch (typeIDOf(object)) {
        case kArrayTypeID:
            return CopyArray(static_cast<CFArrayRef>(object));
        case kDictionaryTypeID:
            return CopyDictionary(static_cast<CFDictionaryRef>(object));
        case kStringTypeID:
            return CopyString(static_cast<CFStringRef>(object));
        case kDataTypeID:
            return CopyData(static_cast<CFDataRef>(object));
        default:
            return Owned<>(CFRetain(object)); // Never mutable.
        }
    }

    Owned<> CopyString(CFStringRef string) const {
        return MakeString(allocator_, Own(CFStringCreateCopy(allocator_, string)),
                          mutability_.leaves);
    }

    Owned<> CopyData(CFDataRef data) const {
        if (mutability_.leaves) {
            return Own<CFTypeRef>(CFDataCreateMutableCopy(allocator_, 0, data));
        }
        return Own<CFTypeRef>(CFDataCreateCopy(allocator_, data));
    }

    Owned<> CopyArray(CFArrayRef array) {
        auto copy = Own(CFArrayCreateMutable(allocator_, 0, &kCFTypeArrayCallBacks));
        const CFIndex count = CFArrayGetCount(array);
        for (CFIndex i = 0; i < count; ++i) {
            CFArrayAppendValue(copy.get(), Copy(CFArrayGetValueAtIndex(array, i)).get());
        }
        if (mutability_.containers) {
            return Owned<>(copy.release());
        }
        std::vector<const void *> members(static_cast<std::size_t>(count));
        CFArrayGetValues(copy.get(), CFRangeMake(0, count), members.data());
        return MakeArray(allocator_, members, false);
    }

    Owned<> CopyDictionary(CFDictionaryRef dictionary) {
        auto copy = Own(CFDictionaryCreateMutable(allocator_, 0, &kCFTypeDictionaryKeyCallBacks,
                                                  &kCFTypeDictionaryValueCallBacks));
        for (const auto &[key, value] : SortedPairs(dictionary)) {
            // Keys stay immutable: a key that changes is lost in its dictionary.
            const auto newKey = Own(CFStringCreateCopy(allocator_, key));
            CFDictionaryAddValue(copy.get(), newKey.get(), Copy(value).get());
        }
        if (mutability_.containers) {
            return Owned<>(copy.release());
        }
        const auto count = static_cast<std::size_t>(CFDictionaryGetCount(copy.get()));
        std::vector<const void *> keys(count);
        std::vector<const void *> values(count);
        CFDictionaryGetKeysAndValues(copy.get(), keys.data(), values.data());
        return MakeDictionary(allocator_, keys, values, false);
    }

    CFAllocatorRef allocator_;
    Mutability mutability_;
    // By the originals; no copy moves while it is being made.
    std::unordered_map<CFTypeRef, Owned<>> copies_;
};

} // namespace

void CheckGraph(CFTypeRef root) { (void)GraphCheck().Visit(root, 0); }

std::vector<std::pair<CFStringRef, CFTypeRef>> SortedPairs(CFDictionaryRef dictionary) {
    const auto count = static_cast<std::size_t>(CFDictionaryGetCount(dictionary));
    std::vector<const void *> keys(count);
    std::vector<const void *> values(count);
    CFDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
    std::vector<std::pair<CFStringRef, CFTypeRef>> pairs(count);
    for (std::size_t i = 0; i < count; ++i) {
        pairs[i] = {static_cast<CFStringRef>(keys[i]), values[i]};
    }
    std::sort(pairs.begin(), pairs.end(), [](const auto &a, const auto &b) {
        return CFStringCompare(a.first, b.first, 0) == kCFCompareLessThan;
    });
    return pairs;
}

Owned<> CopyGraph(CFAllocatorRef allocator, CFTypeRef object, Mutability mutability) {
    if (mutability.leaves && GraphCheck().Visit(object, 0).bytes > kMaxMutableBytes) {
        ThrowUnwritable("The texts and data would take more than " +
                        std::to_string(kMaxMutableBytes) + " bytes");
    }
    return GraphCopy(allocator, mutability).Copy(object);
}

} // namespace CFInternal::PropertyList
