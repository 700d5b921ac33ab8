// Read, write, read: what was written once is written the same again.
#pragma once

#include "KVManifest.h"
#include "foundation/Boundary.hpp"
#include "fuzz/Workplace.hpp"
#include "support/cf/CF.hpp"

namespace Fuzz {

using Manifest = CF::Pointer<KVManifestClass *>;

// A manifest or an error, never both nor neither.
inline Manifest ReadDatabase(const std::string &path) {
    Kelvane::LocalError error;
    Manifest manifest = CF::Adopt(KVManifestCreateFromManifestDatabase(
        nullptr, CF::String(path).get(), kKVManifestDataVersion33, {}, {}, error.out()));
    Require(static_cast<bool>(manifest) != static_cast<bool>(error.get()));
    return manifest;
}

// Null when an entry has no such form.
inline CF::Data WriteDatabase(const Manifest &manifest) try {
    return CF::Data::Adopt(
        KVManifestCreateManifestDBRepresentation(manifest.get(), kKVManifestDataVersion33));
} catch (const CF::Error &) {
    return {};
}

inline CFIndex CountEntries(const Manifest &manifest) {
    return CFArrayGetCount(KVManifestGetEntries(manifest.get()));
}

inline void CheckDatabase(const Workplace &work, const std::string &path) {
    const Manifest first = ReadDatabase(path);
    const CF::Data written = first ? WriteDatabase(first) : CF::Data();
    if (!written) {
        return;
    }
    const Manifest second = ReadDatabase(work.Write("again.db", written.GetBytes()));
    Require(static_cast<bool>(second));
    Require(KVManifestGetTotalFileCount(second.get()) <= KVManifestGetTotalFileCount(first.get()));
    const CF::Data again = WriteDatabase(second);
    Require(static_cast<bool>(again));
    // Of entries with one file ID the last has the row. Where one had taken another's, the pages
    // are filled in another way, though not with other rows.
    if (CountEntries(second) == CountEntries(first)) {
        Require(again == written);
    } else {
        Require(WriteDatabase(ReadDatabase(work.Write("more.db", again.GetBytes()))) == again);
    }
}

} // namespace Fuzz
