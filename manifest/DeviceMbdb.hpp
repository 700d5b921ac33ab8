// A manifest as a Manifest.mbdb in the form in which devices write it.
#pragma once

#include "KVManifest.h"
#include "manifest/DeviceRow.hpp"

#include <cstdint>
#include <functional>
#include <span>

namespace Kelvane {

// Takes the file's bytes, piece after piece; the bytes are lent. What it throws ends the writing.
using ByteSink = std::function<void(std::span<const std::uint8_t>)>;

// Writes the manifest with the records of its source. Those of entries that nobody changed stay
// as they are, byte for byte and in their order; changed ones keep their place and every field
// that the change does not concern; new ones follow behind them, sorted by domain and path.
//
// source is the whole Manifest.mbdb that the manifest was read from. Without one (an empty span)
// all records are written, in the manifest's order. Whether anything differs at all IsAsRead
// tells beforehand; if nothing does, the bytes written are those of the source.
//
// Throws code 11, "The manifest is not the one that was read", when the source is another one,
// code 1 "Failed to serialize entries %@" for entries that have no record, before anything is
// written, and what the sink throws. Memory grows by what is new, not by the source.
ManifestUpdate WriteDeviceMbdb(KVManifestClass *manifest, std::span<const std::uint8_t> source,
                               const DeviceRowRules &rules, const ByteSink &sink);

} // namespace Kelvane
