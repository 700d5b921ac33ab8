// Takes the input as the fields of a record. The quick encoder must write what the general
// codec writes, and the quick decoder must read it back.
#include "ZK/keyed_archiver.hpp"
#include "archive/FastMBFile.hpp"
#include "archive/FastMBFileEncoder.hpp"
#include "fuzz/Record.hpp"
#include "tests/archive/SameRecord.hpp"

#include <cstdlib>
#include <vector>

namespace {

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
    Fuzz::Input input(bytes, size);
    const MB::File record = Fuzz::RecordOf(input);
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
