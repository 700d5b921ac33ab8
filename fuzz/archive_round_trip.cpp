// Keyed archives: what is read can be archived, and reads back as the same.
#include "ZK/keyed_archiver.hpp"
#include "ZK/keyed_unarchiver.hpp"
#include "fuzz/Require.hpp"
#include "support/cf/CF.hpp"

#include <CoreFoundation/CFKeyedArchiverUID.h>

#include <algorithm>
#include <vector>

namespace {

using Fuzz::Require;

template <class T>
std::optional<T> Extract(const CF::Dictionary &archive) try {
    return ZK::extract_keyed_archive<T>(archive);
} catch (const ZK::archiver_exceptions::archiver_exception &) {
    return std::nullopt;
}

// References that stand in a value, where no archiver puts them, have no archived form.
bool HoldsReferences(CFTypeRef value) {
    std::vector<CFTypeRef> members;
    if (value == nullptr || CFGetTypeID(value) == _CFKeyedArchiverUIDGetTypeID()) {
        return value != nullptr;
    }
    if (CFGetTypeID(value) == CFArrayGetTypeID()) {
        const auto array = static_cast<CFArrayRef>(value);
        members.resize(static_cast<std::size_t>(CFArrayGetCount(array)));
        CFArrayGetValues(array, CFRangeMake(0, CFArrayGetCount(array)), members.data());
    } else if (CFGetTypeID(value) == CFDictionaryGetTypeID()) {
        const auto dictionary = static_cast<CFDictionaryRef>(value);
        const auto count = static_cast<std::size_t>(CFDictionaryGetCount(dictionary));
        members.resize(2 * count);
        CFDictionaryGetKeysAndValues(dictionary, members.data(), members.data() + count);
    }
    return std::ranges::any_of(members, HoldsReferences);
}

// By way of the bytes, as archives are kept.
template <class T>
CF::Dictionary ArchiveOf(const T &object) {
    const auto bytes = CF::PropertyListType<CF::Dictionary>::ToPropertyListData(
        ZK::make_keyed_archive(object), kCFPropertyListBinaryFormat_v1_0);
    Require(static_cast<bool>(bytes));
    const auto archive = CF::PropertyListType<CF::Dictionary>::FromPropertyListData(bytes);
    Require(archive.GetCount() > 0);
    return archive;
}

template <class T>
void CheckRoundTrip(const CF::Dictionary &archive) {
    const std::optional<T> first = Extract<T>(archive);
    if (first && first->get() != nullptr && !HoldsReferences(first->get())) {
        const std::optional<T> second = Extract<T>(ArchiveOf(*first));
        Require(second && second->get() != nullptr && CFEqual(first->get(), second->get()));
    }
}

bool SameValues(CFTypeRef a, CFTypeRef b) {
    return a == nullptr || b == nullptr ? a == b : CFEqual(a, b) != 0;
}

// The pairs of a dictionary are archived in no particular order.
CF::Dictionary WithoutAttributes(MB::File record) {
    record.ExtendedAttributes = {};
    return ArchiveOf(record);
}

void CheckRecord(const CF::Dictionary &archive) {
    const auto first = Extract<MB::File>(archive);
    if (first && !HoldsReferences(first->ExtendedAttributes.get())) {
        const auto second = Extract<MB::File>(ArchiveOf(*first));
        Require(second.has_value());
        Require(SameValues(first->ExtendedAttributes.get(), second->ExtendedAttributes.get()));
        Require(CFEqual(WithoutAttributes(*first).get(), WithoutAttributes(*second).get()));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    const auto archive =
        CF::PropertyListType<CF::Dictionary>::FromPropertyListData(CF::Data({bytes, size}));
    if (archive.GetCount() > 0) {
        CheckRoundTrip<CF::Dictionary>(archive);
        CheckRoundTrip<CF::Array>(archive);
        CheckRoundTrip<CF::String>(archive);
        CheckRoundTrip<CF::Data>(archive);
        CheckRoundTrip<CF::Number>(archive);
        CheckRecord(archive);
    }
    return 0;
}
