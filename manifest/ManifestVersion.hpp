// Which manifest versions are databases.
#pragma once

#include "Kelvane/Error.hpp"

namespace Kelvane {

// Throws code 2 unless the version is one of 30 to 33.
inline void RequireDatabaseVersion(KVManifestDataVersion version) {
    if (version < kKVManifestDataVersion30 || version > kKVManifestDataVersion33) {
        throw Error(kKVErrorInvalidArgument, nullptr,
                    CFSTR("Invalid manifest version '%d' for this encoding scheme"),
                    static_cast<int>(version));
    }
}

} // namespace Kelvane
