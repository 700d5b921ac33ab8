// A manifest as a Manifest.db in a file of its own.
#pragma once

#include "KVManifest.h"
#include "manifest/ManifestRowWriter.hpp"

#include <string>

namespace Kelvane {

// Writes the manifest to a new Manifest.db under the temporary path and returns that
// file's path in UTF-8. The file is complete and closed, mode 0600, without a write-ahead
// log beside it, of any size; its bytes are those that
// KVManifestCreateManifestDBRepresentation gives, with the same errors but for those of
// reading back. The caller removes it; after a failure nothing is left to remove.
std::string WriteManifestDatabaseFile(KVManifestClass *manifest, KVManifestDataVersion version);

// Where a new database file may be made: a path of no file in a private directory under the
// temporary path. Throws std::runtime_error when that was not set, and code 3.
std::string NewManifestDatabasePath();

// Adds the rows that stand for a file ID alone, but for those whose file ID an entry has been given
// since: they would take the place of the entry's row.
void AddPlaceholders(KVManifestClass *manifest, ManifestRowWriter &writer);

// Removes the database and whatever SQLite keeps beside it. What is not there or cannot be
// removed stays so.
void RemoveManifestDatabaseFile(const std::string &path) noexcept;

} // namespace Kelvane
