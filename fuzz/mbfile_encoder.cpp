// Takes the input as the fields of a record. The quick encoder must write what the general
// codec writes, and the quick decoder must read it back.
#include "ZK/keyed_archiver.hpp"
#include "archive/FastMBFile.hpp"
#include "archive/FastMBFileEncoder.hpp"
#include "support/cf/CF.hpp"
#include "tests/archive/SameRecord.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>
#include <vector>

namespace {

// Hands out the input piece by piece, and zeros behind its end.
class Input {
  public:
    explicit Input(std::span<const std::uint8_t> bytes) : left_(bytes) {}

    std::uint8_t Byte() {
        const auto piece = Take(1);
        return piece.empty() ? std::uint8_t{0} : piece[0];
    }
    // Of as many bytes as the input says, so that small numbers are not rare.
    template <class Integer>
    Integer Number() {
        std::uint64_t value = 0;
        for (const std::uint8_t byte : Take(Byte() % 9)) {
            value = value << 8 | byte;
        }
        return static_cast<Integer>(value);
    }
    std::span<const std::uint8_t> Piece() { return Take(Number<std::uint16_t>()); }

  private:
    std::span<const std::uint8_t> Take(std::size_t count) {
        const auto piece = left_.first(std::min(count, left_.size()));
        left_ = left_.subspan(piece.size());
        return piece;
    }
    std::span<const std::uint8_t> left_;
};

// Absent, bytes as Latin-1, units, or a name that every archive has.
CF::String Text(Input &input) {
    constexpr const char *kNames[] = {"$null", "root", "MBFile", "CF$UID", "Target", "$classes"};
    const std::uint8_t kind = input.Byte();
    const auto piece = input.Piece();
    switch (kind % 4) {
    case 0:
        return {};
    case 1:
        return CF::String::Adopt(CFStringCreateWithBytes(nullptr, piece.data(),
                                                         static_cast<CFIndex>(piece.size()),
                                                         kCFStringEncodingISOLatin1, false));
    case 2: {
        std::vector<UniChar> units;
        for (std::size_t i = 0; i + 1 < piece.size(); i += 2) {
            units.push_back(static_cast<UniChar>(piece[i] << 8 | piece[i + 1]));
        }
        return CF::String::Adopt(CFStringCreateWithCharacters(nullptr, units.data(),
                                                              static_cast<CFIndex>(units.size())));
    }
    default:
        return kNames[kind / 4 % std::size(kNames)];
    }
}

CF::Data Bytes(Input &input) {
    const bool present = input.Byte() % 2 == 1;
    const auto piece = input.Piece();
    return present ? CF::Data(piece) : CF::Data();
}

MB::File RecordOf(Input input) {
    MB::File record;
    record.RelativePath = Text(input);
    record.Target = input.Byte() % 4 == 0 ? record.RelativePath : Text(input);
    record.Digest = Bytes(input);
    record.EncryptionKey = input.Byte() % 4 == 0 ? record.Digest : Bytes(input);
    record.Mode = input.Number<std::int32_t>();
    record.UserID = input.Number<std::uint32_t>();
    record.GroupID = input.Number<std::uint32_t>();
    record.LastModified = input.Number<std::int64_t>();
    record.LastStatusChange = input.Number<std::int64_t>();
    record.Birth = input.Number<std::int64_t>();
    record.Size = input.Number<std::int64_t>();
    record.InodeNumber = input.Number<std::uint64_t>();
    record.ProtectionClass = input.Number<std::int32_t>();
    return record;
}

Kelvane::MBFileFields FieldsOf(const MB::File &record) {
    return {.RelativePath = record.RelativePath.get(),
            .Target = record.Target.get(),
            .Digest = record.Digest.get(),
            .EncryptionKey = record.EncryptionKey.get(),
            .Mode = record.Mode,
            .UserID = record.UserID,
            .GroupID = record.GroupID,
            .LastModified = record.LastModified,
            .LastStatusChange = record.LastStatusChange,
            .Birth = record.Birth,
            .Size = record.Size,
            .InodeNumber = record.InodeNumber,
            .ProtectionClass = record.ProtectionClass};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    const MB::File record = RecordOf(Input({bytes, size}));
    std::vector<std::uint8_t> archive;
    Kelvane::EncodeMBFile(FieldsOf(record), archive);
    const auto general = CF::PropertyListType<CF::Dictionary>::ToPropertyListData(
        ZK::make_keyed_archive(record), kCFPropertyListBinaryFormat_v1_0);
    if (CF::Data(archive) != general) {
        std::abort();
    }
    // It leaves some to the general codec, such as texts with halves of surrogate pairs.
    Kelvane::MBFileView view;
    if (Kelvane::DecodeMBFile(archive, view) && !ArchiveTest::SameRecord(view, record)) {
        std::abort();
    }
    return 0;
}
