#include "filestore/Storage.hpp"

#include "filestore/KVFileClass.hpp"
#include "foundation/Boundary.hpp"
#include "support/cf/Data.hpp"

#include <boost/filesystem/operations.hpp>

namespace Kelvane {

namespace {

void appendContent(const KVFileClass &source, KVFileClass *destination) {
    LocalError error;
    KVFileGetData(
        &source, kKVFileDefaultDataChunkSize, [&](const std::vector<std::uint8_t> &bytes) {
            const auto length = static_cast<long>(bytes.size());
            if (length > 0 && !KVFileAppendBytes(destination, bytes.data(), length, error.out())) {
                throw error.get();
            }
            return true;
        });
    if (!KVFileFinalizeAppendable(destination, error.out())) {
        throw error.get();
    }
}

} // namespace

OwnedFile CopyAsDelivered(const KVFileClass &file) {
    LocalError error;
    auto copy = CF::Adopt(KVFileCreateAppendable(error.out()));
    if (!copy) {
        throw error.get();
    }
    const ZK::filesystem::path scratch = copy.get()->localPath.GetUTF8();
    try {
        appendContent(file, copy.get());
    } catch (...) {
        boost::system::error_code ignored;
        boost::filesystem::remove(scratch, ignored);
        throw;
    }
    return copy;
}

} // namespace Kelvane
