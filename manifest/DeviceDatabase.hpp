// A manifest as a Manifest.db in the form in which devices write it.
#pragma once

#include "KVManifest.h"
#include "manifest/DeviceRow.hpp"

#include <string>

namespace Kelvane {

// Whether a manifest was read from a database or a binary manifest, or is a copy of one that was.
bool HasSource(const KVManifestClass &manifest) noexcept;

// Whether the source of the manifest says what is to be written already: no entry was removed,
// added or changed, and the rules leave every row as it is. False without a source. Takes time in
// proportion to the entries, a few nanoseconds each, and reads no file.
bool IsAsRead(const KVManifestClass &manifest, const DeviceRowRules &rules);

// Brings a database up to date with a manifest that was read from it: rows of entries that are
// gone are removed, those of changed ones keep what the change does not concern, and new ones
// follow behind the last. Everything else in the file, rows in their order and further tables,
// columns and indexes, stays as it is. When IsAsRead holds the file is not touched at all.
//
// The path is that of a private plaintext copy of the very file that the manifest was read from;
// its identity is the caller's to know. Rows that turn out not to be those that were read are
// refused with code 11, "The manifest database is not the one that was read". Afterwards the file
// is complete, on disk and closed, without companions; the journal mode in its header is as it
// was. After a failure its content is undefined, and no companions are left.
//
// A database whose rows cannot be written one by one as a device's can (a table without row
// numbers or a unique file ID, with another column that is unique, or with indexes or defaults that
// compute something) is replaced by
// a new one, as WriteDeviceDatabaseFile makes it. Check constraints are not looked at.
//
// Throws code 13 with SQLite's message, code 3 when what was written cannot be kept, code 1
// "Failed to serialize entries %@", and code 2 for texts without a UTF-8 form. Memory does not
// grow by the rows, time by the entries and by the rows that differ.
ManifestUpdate UpdateManifestDatabaseFile(const std::string &path, KVManifestClass *manifest,
                                          const DeviceRowRules &rules);

// Writes all entries and placeholders, in the manifest's order, to a new database under the
// temporary path and returns that file's path in UTF-8; of entries with one file ID the last has
// the row. Otherwise as WriteManifestDatabaseFile: the caller removes the file with
// RemoveManifestDatabaseFile, and a failure leaves none.
std::string WriteDeviceDatabaseFile(KVManifestClass *manifest, const DeviceRowRules &rules);

} // namespace Kelvane
