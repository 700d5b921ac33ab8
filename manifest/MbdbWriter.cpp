#include "KVManifest.h"
#include "Kelvane/Error.hpp"
#include "Kelvane/SharedState.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/ExtendedAttributes.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/MbdbFields.hpp"
#include "manifest/MbdbRecord.hpp"
#include "support/cf/Data.hpp"
#include "support/zk/Log.hpp"

namespace Kelvane {

namespace {

using MbdbFields::AppendInteger;
using MbdbFields::Output;

constexpr auto kEmpty = MbdbFields::Empty::AsLengthZero;

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

bool AppendText(Output &output, CFStringRef text) {
    return MbdbFields::AppendText(output, text, kEmpty);
}

bool AppendData(Output &output, CFDataRef data) {
    return MbdbFields::AppendData(output, data, kEmpty);
}

bool AppendProperties(Output &output, CFDictionaryRef properties) {
    return MbdbFields::AppendProperties(output, properties, kEmpty);
}

CF::Data WriteEntries(KVManifestClass *manifest) {
    const CF::Array entries = CopySortedEntries(manifest);
    const auto data = CF::Data::Adopt(CF::Made(CFDataCreateMutable(kCFAllocatorDefault, 0)));
    auto *const bytes = const_cast<CFMutableDataRef>(data.get());
    CFDataAppendBytes(bytes, MbdbFields::kHeader.data(), MbdbFields::kHeader.size());
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
