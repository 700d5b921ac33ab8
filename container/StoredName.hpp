// The names under which a backup stores its files, relative to the backup's root.
#pragma once

#include "KVBase.h"
#include "support/cf/String.hpp"

#include <array>

namespace Kelvane {

inline constexpr const char *kManifestPlistName = "Manifest.plist";
inline constexpr const char *kInfoPlistName = "Info.plist";
inline constexpr const char *kStatusPlistName = "Status.plist";
inline constexpr const char *kManifestMbdbName = "Manifest.mbdb";
inline constexpr const char *kManifestDatabaseName = "Manifest.db";

// Always at the backup's root, whatever the layout of stored files.
inline constexpr std::array<const char *, 5> kMetadataNames = {
    kManifestPlistName, kInfoPlistName, kStatusPlistName, kManifestMbdbName, kManifestDatabaseName};

// True for one of kMetadataNames, compared exactly.
bool IsMetadataName(CFStringRef name);

// True for the versions whose manifest is a database (30 to 33).
bool UsesManifestDatabase(KVManifestDataVersion version) noexcept;

// Where the content of a file ID is stored: flat for version 24 (and 0), in a directory
// named by the first two characters for 30 to 33. Metadata names stand for themselves.
// The empty string for other versions, and for an ID too short for its directory.
CF::String ExternalFilePath(const CF::String &name, KVManifestDataVersion version);

// The inverse: the file ID of a stored name; null for unknown versions.
CF::String FileIDForStoredName(const CF::String &storedName, KVManifestDataVersion version);

// File IDs come from the backup as they are. One that holds "/", ".." or a NUL, or is too
// short to have its directory, could name a file outside the backup or none at all.
bool IsSafeFileID(const CF::String &fileID, KVManifestDataVersion version);

// A stored name is safe when it is relative and has no empty, "." or ".." component and
// no NUL.
bool IsSafeStoredName(const CF::String &storedName);

// Code 10, "Unsafe stored file name (%@)".
[[noreturn]] void ThrowUnsafeStoredName(const CF::String &name);

} // namespace Kelvane
