// A backup as devices write it.
#pragma once

#include "container/ExportForm.hpp"

namespace Kelvane {

// Carries over what nobody changed and writes the rest as a device would. decrypted: as a plain
// backup, though the container's is encrypted.
std::unique_ptr<ExportForm> MakeDeviceForm(KVBackupContainerClass &container, bool decrypted,
                                           bool intoZip);

} // namespace Kelvane
