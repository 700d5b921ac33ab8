#include "KVManifest.h"
#include "Kelvane/Error.hpp"
#include "Kelvane/SharedState.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/ExtendedAttributes.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/MbdbLimits.hpp"
#include "manifest/MbdbRecord.hpp"
#include "support/cf/Data.hpp"
#include "support/zk/Log.hpp"

#include <algorithm>
#include <array>
#include <concepts>

namespace Kelvane {

namespace {

constexpr std::array<std::uint8_t, 6> kHeader = {'m', 'b', 'd', 'b', 5, 0};

using Output = std::vector<std::uint8_t>;

template <std::unsigned_integral T>
void AppendInteger(Output &output, T value) {
    for (std::size_t i = sizeof(T); i-- > 0;) {
        output.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

bool AppendData(Output &output, CFDataRef data) {
    const auto length = static_cast<std::size_t>(CFDataGetLength(data));
    if (length >= kMbdbByteStringLimit) {
        return false;
    }
    AppendInteger(output, static_cast<std::uint16_t>(length));
    const UInt8 *const bytes = CFDataGetBytePtr(data);
    output.insert(output.end(), bytes, bytes + length);
    return true;
}

bool AppendText(Output &output, CFStringRef text) {
    const CFIndex units = CFStringGetLength(text);
    if (static_cast<std::size_t>(units) >= kMbdbByteStringLimit) {
        return false; // each unit takes a byte at least
    }
    constexpr std::size_t kMaximumBytesPerUnit = 3;
    const std::size_t start = output.size();
    const std::size_t textStart = start + sizeof(std::uint16_t);
    output.resize(textStart + static_cast<std::size_t>(units) * kMaximumBytesPerUnit);
    CFIndex written = 0;
    const CFIndex converted = CFStringGetBytes(
        text, CFRangeMake(0, units), kCFStringEncodingUTF8, 0, false, output.data() + textStart,
        static_cast<CFIndex>(output.size() - textStart), &written);
    const auto length = static_cast<std::size_t>(written);
    if (converted != units || length >= kMbdbByteStringLimit) {
        return false;
    }
    output.resize(textStart + length);
    output[start] = static_cast<std::uint8_t>(length >> 8);
    output[start + 1] = static_cast<std::uint8_t>(length);
    return true;
}

std::uint32_t TimeField(CFAbsoluteTime time) {
    return static_cast<std::uint32_t>(WrittenUnixTime(time));
}

void AppendFixedBlock(Output &output, const KVManifestEntryClass &entry) {
    AppendInteger(output, entry.mode);
    AppendInteger(output, entry.inode);
    AppendInteger(output, entry.uid);
    AppendInteger(output, entry.gid);
    AppendInteger(output, TimeField(entry.lastStatusChange));
    AppendInteger(output, TimeField(entry.lastModified));
    AppendInteger(output, TimeField(entry.birth));
    AppendInteger(output, static_cast<std::uint64_t>(entry.size));
    AppendInteger(output, static_cast<std::uint8_t>(CodeOfProtectionClass(entry.protectionClass)));
}

// The names of the properties, sorted, so that equal entries give equal bytes. Empty
// when a name is no string or a value no data; the flag tells that from no properties.
CF::Array PropertyNames(CFDictionaryRef properties, bool &representable) {
    const auto names = CF::Array::Mutable();
    CF::Dictionary(properties).ForEach([&](CFTypeRef name, CFTypeRef value) {
        representable = representable && CFGetTypeID(name) == CFStringGetTypeID() &&
                        CFGetTypeID(value) == CFDataGetTypeID();
        names.Append(name);
    });
    if (!representable) {
        return CF::Array::Mutable();
    }
    CFArraySortValues(
        const_cast<CFMutableArrayRef>(names.get()), CFRangeMake(0, names.GetCount()),
        [](const void *a, const void *b, void *) {
            return CFStringCompare(static_cast<CFStringRef>(a), static_cast<CFStringRef>(b), 0);
        },
        nullptr);
    return names;
}

bool AppendProperties(Output &output, CFDictionaryRef properties) {
    bool representable = true;
    const CF::Array names = PropertyNames(properties, representable);
    const CFIndex count = names.GetCount();
    output.push_back(static_cast<std::uint8_t>(count));
    for (CFIndex i = 0; representable && i < count; ++i) {
        const auto *const name = static_cast<CFStringRef>(names.GetAt(i));
        representable =
            AppendText(output, name) &&
            AppendData(output, static_cast<CFDataRef>(CFDictionaryGetValue(properties, name)));
    }
    return representable;
}

CF::Data WriteEntries(KVManifestClass *manifest) {
    const CF::Array entries = CopySortedEntries(manifest);
    const auto data = CF::Data::Adopt(CF::Made(CFDataCreateMutable(kCFAllocatorDefault, 0)));
    auto *const bytes = const_cast<CFMutableDataRef>(data.get());
    CFDataAppendBytes(bytes, kHeader.data(), kHeader.size());
    const auto failed = CF::Array::Mutable();
    Output record;
    for (CFIndex i = 0; i < entries.GetCount(); ++i) {
        const auto *const entry = static_cast<const KVManifestEntryClass *>(entries.GetAt(i));
        record.clear();
        if (AppendMbdbRecord(*entry, record)) {
            CFDataAppendBytes(bytes, record.data(), static_cast<CFIndex>(record.size()));
        } else {
            failed.Append(entry);
        }
    }
    if (failed.GetCount() > 0) {
        const CF::Error error =
            Error(kKVErrorUnknown, nullptr, CFSTR("Failed to serialize entries %@"), failed.get());
        ZLLogError(error.get(), GetLogDomain(), nullptr);
        throw error;
    }
    return data;
}

} // namespace

bool AppendMbdbRecord(const KVManifestEntryClass &entry, std::vector<std::uint8_t> &output) {
    if (!AppendText(output, entry.domain.get()) || !AppendText(output, entry.relativePath.get()) ||
        !AppendText(output, entry.target.get()) || !AppendData(output, entry.dataHash.get()) ||
        !AppendData(output, entry.encryptionData.get())) {
        return false;
    }
    AppendFixedBlock(output, entry);
    if (CF::Dictionary::Cast(entry.keptAttributes.get())) {
        return false; // Some are no names with data, which the format has no place for.
    }
    // An entry of a database may hold its attributes as that has them.
    if (entry.keptAttributes && CFDictionaryGetCount(entry.properties.get()) == 0) {
        const CF::Dictionary attributes = DecodeExtendedAttributes(entry.keptAttributes.get());
        return attributes && AppendProperties(output, attributes.get());
    }
    return AppendProperties(output, entry.properties.get());
}

} // namespace Kelvane

CFDataRef KVManifestEntryCreateManifestDataRepresentation(const KVManifestEntryClass *entry) {
    std::vector<std::uint8_t> record;
    return Kelvane::AppendMbdbRecord(*entry, record) ? CF::Data(record).detach() : nullptr;
}

CFDataRef KVManifestCreateManifestDataRepresentation(KVManifestClass *manifest,
                                                     KVManifestDataVersion version,
                                                     CFErrorRef *error) {
    return Kelvane::AtBoundary<CFDataRef>(error, nullptr, [&] {
        if (version != kKVManifestDataVersion24) {
            throw Kelvane::Error(kKVErrorInvalidArgument, nullptr,
                                 CFSTR("Invalid manifest version '%d' for this encoding scheme"),
                                 static_cast<int>(version));
        }
        return Kelvane::WriteEntries(manifest).detach();
    });
}
