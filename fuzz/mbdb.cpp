// Binary manifests: what is read can be written, and what is written reads back as the
// same. Refusals are reported on standard output; run with -close_fd_mask=1.
#include "KVManifest.h"
#include "fuzz/Require.hpp"
#include "support/cf/Data.hpp"
#include "support/cf/Pointer.hpp"

#include <cstdint>

namespace {

using Fuzz::Require;
using Manifest = CF::Pointer<KVManifestClass *>;

Manifest Read(const CF::Data &bytes) {
    return CF::Adopt(KVManifestCreateFromManifestData(nullptr, bytes.get(), 24, {}, {}));
}

CF::Data Write(const Manifest &manifest) {
    return CF::Data::Adopt(KVManifestCreateManifestDataRepresentation(manifest.get(), 24, nullptr));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    const Manifest first = Read(CF::Data({bytes, size}));
    if (!first) {
        return 0;
    }
    const CF::Data written = Write(first);
    Require(static_cast<bool>(written));
    const Manifest second = Read(written);
    Require(static_cast<bool>(second));
    Require(KVManifestGetTotalFileSize(second.get()) == KVManifestGetTotalFileSize(first.get()));
    Require(KVManifestGetTotalFileCount(second.get()) == KVManifestGetTotalFileCount(first.get()));
    Require(Write(second) == written);
    return 0;
}
