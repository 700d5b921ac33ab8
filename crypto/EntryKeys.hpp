// File keys beyond what the public interface offers.
#pragma once

#include "KVManifestEntry.h"
#include "MB/ManifestEncryption.hpp"

namespace Kelvane {

// Gives the entry of a file, whose content must be resolved and plain, a fresh random key
// wrapped under its protection class, whichever that is, in the place of the key that it
// may have. Digest and size become those of the content as it will be stored, encrypted.
// Throws code 2, "Impossible to generate a file key for an entry that doesn't represent a
// file", and code 18, "Failed to generate a file key for entry", over the cause; the entry
// may then be partly updated.
void RenewFileKey(const KVManifestEntryClass &entry, const MB::ManifestEncryption &encryption);

} // namespace Kelvane
