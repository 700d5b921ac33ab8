// Records of binary manifests, made from choices. The entry says what the record does, and
// is written as the same bytes.
#include "KVManifestEntry.h"
#include "fuzz/Input.hpp"
#include "fuzz/Require.hpp"

namespace {

using Fuzz::Require;
using Octets = std::vector<std::uint8_t>;
using Entry = CF::Pointer<KVManifestEntryClass *>;

void AppendNumber(Octets &record, std::uint64_t value, std::size_t size) {
    for (std::size_t i = size; i > 0; --i) {
        record.push_back(static_cast<std::uint8_t>(value >> (8 * (i - 1))));
    }
}

void Append(Octets &record, std::span<const std::uint8_t> bytes) {
    AppendNumber(record, bytes.size(), 2);
    record.insert(record.end(), bytes.begin(), bytes.end());
}

// ASCII, so that what is written is what is read; the encodings have a driver of their own.
CF::Data AppendText(Octets &record, Fuzz::Input &input) {
    const auto piece = input.Piece();
    Octets text(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(
                                                   std::min<std::size_t>(piece.size(), 65534)));
    for (std::uint8_t &byte : text) {
        byte &= 0x7f;
    }
    Append(record, text);
    return CF::Data(text);
}

bool Is(CFStringRef text, const CF::Data &bytes) {
    const auto expected = bytes.GetBytes();
    return CF::String::GetUTF8(text) == std::string(expected.begin(), expected.end());
}

// One at most: several are written in an order of the entry's own.
void AppendProperties(Octets &record, Fuzz::Input &input) {
    record.push_back(input.Byte() % 2);
    if (record.back() == 1) {
        AppendText(record, input);
        AppendText(record, input);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    Fuzz::Input input(bytes, size);
    Octets record;
    const CF::Data domain = AppendText(record, input);
    const CF::Data path = AppendText(record, input);
    const CF::Data target = AppendText(record, input);
    const CF::Data digest = AppendText(record, input);
    const CF::Data key = AppendText(record, input);
    const auto mode = input.Number<std::uint16_t>();
    AppendNumber(record, mode, 2);
    AppendNumber(record, input.Number<std::uint64_t>(), 8);
    for (int i = 0; i < 5; ++i) { // owner, group and times
        AppendNumber(record, input.Number<std::uint32_t>(), 4);
    }
    const auto fileSize = input.Number<std::uint64_t>();
    AppendNumber(record, fileSize, 8);
    const std::uint8_t protectionClass = input.Byte() % 6;
    record.push_back(protectionClass);
    AppendProperties(record, input);

    CFIndex next = -1;
    const Entry entry = CF::Adopt(
        KVManifestEntryCreateFromManifestData(nullptr, CF::Data(record).get(), 0, &next, {}));
    Require(next == 0 && static_cast<bool>(entry) == (protectionClass <= 4));
    if (entry) {
        Require(Is(KVManifestEntryGetDomain(entry.get()), domain));
        Require(Is(KVManifestEntryGetPath(entry.get()), path));
        Require(Is(KVManifestEntryGetTarget(entry.get()), target));
        Require(CFEqual(KVManifestEntryGetDataHash(entry.get()), digest.get()));
        Require(CFEqual(KVManifestEntryGetEncryptionData(entry.get()), key.get()));
        Require(KVManifestEntryGetFileMode(entry.get()) == mode);
        Require(static_cast<std::uint64_t>(KVManifestEntryGetFileSize(entry.get())) == fileSize);
        const auto written =
            CF::Data::Adopt(KVManifestEntryCreateManifestDataRepresentation(entry.get()));
        Require(written == CF::Data(record));
    }
    return 0;
}
