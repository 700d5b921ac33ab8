// Decodes the input as a record of Manifest.db. Whatever the quick decoder accepts, the
// general codec must read the same; neither may do anything worse than refuse.
#include "ZK/keyed_unarchiver.hpp"
#include "archive/FastMBFile.hpp"
#include "support/cf/CF.hpp"
#include "tests/archive/SameRecord.hpp"

#include <cstdlib>
#include <optional>

namespace {

std::optional<MB::File> decodeGenerally(std::span<const std::uint8_t> bytes) {
    const auto archive =
        CF::PropertyListType<CF::Dictionary>::FromPropertyListData(CF::Data(bytes));
    try {
        return ZK::extract_keyed_archive<MB::File>(archive);
    } catch (const ZK::archiver_exceptions::archiver_exception &) {
        return std::nullopt;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    Kelvane::MBFileView view;
    const bool handled = Kelvane::DecodeMBFile({bytes, size}, view);
    const auto file = decodeGenerally({bytes, size});
    if (handled && (!file || !ArchiveTest::SameRecord(view, *file))) {
        std::abort();
    }
    return 0;
}
