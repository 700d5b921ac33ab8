// The manifest of a backup that is written as devices write it.
#pragma once

#include "container/ExportForm.hpp"
#include "manifest/DeviceRow.hpp"

namespace Kelvane {

// Manifest.db or Manifest.mbdb, by the container's version: the very file of the source when it
// says what is to be written already, else one that differs from it in what has changed.
// encrypted: the database is encrypted as the container's is. Throws CF::Error.
ExportPiece LoadDeviceManifest(KVBackupContainerClass &container, const DeviceRowRules &rules,
                               bool encrypted);

} // namespace Kelvane
