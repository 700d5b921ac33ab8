// The body of a container object.
#pragma once

#include "KVBackupContainer.h"
#include "MB/ManifestEncryption.hpp"
#include "container/BackupSource.hpp"
#include "container/SourceState.hpp"
#include "container/StoredDatabase.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/IOSVersion.hpp"
#include "support/zk/Secret.hpp"

#include <CoreFoundation/CFRuntime.h>

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Kelvane {

enum class SourceKind : std::uint32_t { Zip = 0, Directory = 1 };

// What reading stored content needs. It is shared with the loaders that the entries hold,
// so that an entry which outlives its container can still load its content.
struct ContentLoader {
    std::shared_ptr<BackupSource> source;
    KVManifestDataVersion version = kKVManifestDataVersionNone;

    // Throws code 2 "No data source type set for backup container" without a source.
    const BackupSource &Source() const;
    // The stored file of that name. Throws what Source and BackupSource::Load do.
    FileRef LoadStoredFile(const CF::String &storedName,
                           std::uint64_t limit = BackupSource::kAnySize) const;
    // The stored content of a file ID. Throws code 8 "Failed to load file (%@)".
    FileRef LoadFileID(const CF::String &fileID) const;
};

// A metadata file as the source holds it. What its dictionary cannot tell, because it could not
// be read or cannot be written, only its bytes carry over into a backup that is written.
struct SourceMetadata {
    FileRef file;
    CF::Error unreadable; // code 20; null when the file gave its dictionary
};

// A password in UTF-8 that wipes itself.
class SecretString {
  public:
    SecretString() = default;
    explicit SecretString(const CF::String &text) : text_(text.GetUTF8()) {}
    SecretString(const SecretString &) = default;
    SecretString &operator=(const SecretString &other) {
        if (this != &other) {
            ZK::Wipe(text_);
            text_ = other.text_;
        }
        return *this;
    }
    ~SecretString() { ZK::Wipe(text_); }
    const std::string &get() const noexcept { return text_; }
    bool empty() const noexcept { return text_.empty(); }

  private:
    std::string text_;
};

} // namespace Kelvane

struct KVBackupContainerClass {
    CFRuntimeBase base;

    Kelvane::SourceKind sourceKind = Kelvane::SourceKind::Zip;
    std::shared_ptr<Kelvane::ContentLoader> loader = std::make_shared<Kelvane::ContentLoader>();
    CF::String sourcePath;
    CF::Pointer<KVManifestClass *> manifest;
    CF::Dictionary manifestDict = CF::Dictionary::Mutable();
    CF::Dictionary infoDict = CF::Dictionary::Mutable();
    CF::Dictionary statusDict = CF::Dictionary::Mutable();
    // By file name, as long as the host has not set the dictionary.
    std::map<std::string, Kelvane::SourceMetadata> sourceMetadata;
    // How the metadata files of the source are written, by file name; those of a missing one lack.
    std::map<std::string, CFPropertyListFormat> metadataFormats;
    // Of files that edits took out of the source's manifest: their content is not to be taken for
    // files that nobody names.
    std::set<std::string> removedFileIDs;
    // The metadata files whose dictionary the host has set.
    std::set<std::string> setMetadata;
    // Of a backup that can be changed in place: what it was like before it was read.
    std::optional<Kelvane::SourceState> openedState;
    // The backup has been changed in place: it is no longer what was read.
    bool saved = false;
    Kelvane::SecretString password;
    std::optional<MB::ManifestEncryption> encryption;
    // How the source's database lies there, of an encrypted backup.
    Kelvane::DatabaseForm databaseForm = Kelvane::DatabaseForm::Padded;
    // The folder of what was opened in which the backup lies; null when it is no folder of it.
    CF::String folder;
    CF::String baseDirectory;
    ZK::ios_version sourceVersion;

    KVBackupContainerClass() { UpdateSourceVersion(); }

    KVManifestDataVersion Version() const noexcept { return loader->version; }
    // Takes the version from the Manifest dictionary's "Lockdown".
    void UpdateSourceVersion();
    // What the manifest's entries load their content through.
    KVGetFileFunction MakeGetFileFunction() const;
};

namespace Kelvane {

using ContainerRef = CF::Pointer<KVBackupContainerClass *>;

// A new instance as its init callback leaves it.
ContainerRef AllocateContainer(CFAllocatorRef allocator);

// The largest metadata file that is read or written. Those of devices take a few hundred bytes to
// several megabytes, icons of hundreds of applications among them; a zip of one megabyte may
// hold a thousand times of that.
inline constexpr std::uint64_t kMaxMetadataSize = 64ULL << 20;

// Who is told how far the opening of a backup is; empty functions are not called.
struct OpeningProgress {
    KVProgressFunction manifest;
    MB::DerivationProgress derivation;
};

// Reads and checks the metadata files and the manifest. Throws CF::Error.
void LoadMetadata(KVBackupContainerClass &container, KVBackupOpenOptions options,
                  const OpeningProgress &progress);

// The manifest step of it for version 24, and for 30 to 33.
void LoadBinaryManifest(KVBackupContainerClass &container);
void LoadManifestDatabase(KVBackupContainerClass &container, const CF::String &versionText,
                          KVBackupOpenOptions options, const KVProgressFunction &progress);

// Writes the plaintext of an encrypted backup's Manifest.db, which is open, to a new file. Not for
// one that lies decrypted.
void DecryptStoredDatabase(const KVBackupContainerClass &container, ZK::file::readable_file &stored,
                           const ZK::filesystem::path &target);

// A file's whole content. Throws code 8 when there is more of it than the limit: no
// backup's metadata is of that size.
std::vector<std::uint8_t> ReadWhole(const KVFileClass *file, std::uint64_t limit);

} // namespace Kelvane
