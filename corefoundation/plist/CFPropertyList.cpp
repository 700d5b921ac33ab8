#include <CoreFoundation/CFPropertyList.h>

#include "corefoundation/plist/Common.hpp"
#include "corefoundation/plist/Graph.hpp"
#include "support/zk/BinaryPlist.hpp"

#include <CoreFoundation/CFString.h>
#include <exception>

using namespace CFInternal::PropertyList;

namespace {

// Made before memory can be out.
const CFStringRef kSentence = CFSTR("%.*s.");

// Without the reason, or as a null error, when there is no memory even for these.
void Report(CFIndex code, std::string_view why, CFErrorRef *error) noexcept {
    if (error == nullptr) {
        return;
    }
    const Owned<CFStringRef> reason(CFStringCreateWithFormat(
        nullptr, nullptr, kSentence, static_cast<int>(why.size()), why.data()));
    const void *key = kCFErrorLocalizedFailureReasonKey;
    const void *value = reason.get();
    *error = CFErrorCreateWithUserInfoKeysAndValues(nullptr, kCFErrorDomainCocoa, code, &key,
                                                    &value, value == nullptr ? 0 : 1);
}

// The object that work makes, or null with an error. No exception leaves a C function.
template <class Work>
auto OrError(CFIndex memoryCode, CFErrorRef *error, Work work) noexcept
    -> decltype(work().release()) {
    try {
        return work().release();
    } catch (const Failure &failure) {
        Report(failure.code, failure.reason, error);
    } catch (const std::exception &) {
        Report(memoryCode, "There is not enough memory", error);
    }
    return nullptr;
}

Bytes BytesOf(CFDataRef data) {
    const auto length = data == nullptr ? 0 : static_cast<std::size_t>(CFDataGetLength(data));
    if (length == 0) {
        throw Failure{kCFPropertyListReadStreamError, "There is no data to read"};
    }
    return {CFDataGetBytePtr(data), length};
}

bool IsWritable(CFPropertyListFormat format) {
    return format == kCFPropertyListXMLFormat_v1_0 || format == kCFPropertyListBinaryFormat_v1_0;
}

} // namespace

CFPropertyListRef CFPropertyListCreateWithData(CFAllocatorRef allocator, CFDataRef data,
                                               CFOptionFlags options, CFPropertyListFormat *format,
                                               CFErrorRef *error) {
    return OrError(kCFPropertyListReadStreamError, error, [&] {
        const Bytes document = BytesOf(data);
        const Mutability mutability = Mutability::Of(options);
        const bool isBinary = ZK::bplist::LooksBinary(document);
        Owned<> root = isBinary ? ReadBinary(allocator, document, mutability)
                                : ReadXML(allocator, document, mutability);
        if (format != nullptr) {
            *format = isBinary ? kCFPropertyListBinaryFormat_v1_0 : kCFPropertyListXMLFormat_v1_0;
        }
        return root;
    });
}

CFDataRef CFPropertyListCreateData(CFAllocatorRef allocator, CFPropertyListRef propertyList,
                                   CFPropertyListFormat format, CFOptionFlags, CFErrorRef *error) {
    return OrError(kCFPropertyListWriteStreamError, error, [&] {
        if (!IsWritable(format)) {
            ThrowUnwritable("Property lists are written in the XML and binary formats only");
        }
        CheckGraph(propertyList);
        return format == kCFPropertyListBinaryFormat_v1_0 ? WriteBinary(allocator, propertyList)
                                                          : WriteXML(allocator, propertyList);
    });
}

CFPropertyListRef CFPropertyListCreateDeepCopy(CFAllocatorRef allocator,
                                               CFPropertyListRef propertyList,
                                               CFOptionFlags mutabilityOption) {
    return OrError(kCFPropertyListWriteStreamError, nullptr, [&] {
        CheckGraph(propertyList);
        return CopyGraph(allocator, propertyList, Mutability::Of(mutabilityOption));
    });
}

Boolean CFPropertyListIsValid(CFPropertyListRef plist, CFPropertyListFormat format) {
    if (!IsWritable(format)) {
        return false;
    }
    try {
        CheckGraph(plist);
        return true;
    } catch (const Failure &) {
        return false;
    } catch (const std::exception &) { // Memory was out.
        return false;
    }
}
