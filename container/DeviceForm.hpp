// A backup as devices write it.
#pragma once

#include "container/ExportForm.hpp"

namespace Kelvane {

// Carries over what nobody changed and writes the rest as a device would. decrypted: as a plain
// backup, though the container's is encrypted.
std::unique_ptr<ExportForm> MakeDeviceForm(KVBackupContainerClass &container, bool decrypted,
                                           bool intoZip);

// Whether the stored content of an entry lies in the container's source, as it is to be written.
bool LiesInSource(const KVBackupContainerClass &container, const KVManifestEntryClass &entry);

} // namespace Kelvane
