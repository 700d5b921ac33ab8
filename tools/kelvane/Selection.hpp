// The entries that a DOMAIN and a PATH of the command line name.
#pragma once

#include "KVManifestEntry.h"
#include "OpenBackup.hpp"
#include "support/cf/Array.hpp"
#include "support/cf/String.hpp"

#include <optional>
#include <string>
#include <vector>

namespace tool {

using Entry = const KVManifestEntryClass;

// Every entry, in the manifest's order. Borrowed from the container.
CF::Array AllEntries(const Container &container);

// The entries at the path and below it; the empty path is the domain's root. Throws
// Failure when there is no such domain, or nothing at or below the path.
CF::Array EntriesAt(const Container &container, const std::string &domain, const std::string &path);

// The value at the index as an entry.
Entry *EntryAt(const CF::Array &entries, CFIndex index);

// The argument as text. Throws Failure when it is not UTF-8.
CF::String ArgumentText(const std::string &argument);

// The path without slashes at its end, which shells add when they complete names.
std::string WithoutTrailingSlashes(std::string path);

} // namespace tool
