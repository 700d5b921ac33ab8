#include "container/KVBackupContainerClass.hpp"

#include "Kelvane/Error.hpp"
#include "container/StoredName.hpp"
#include "foundation/Boundary.hpp"
#include "support/cf/Extensions.hpp"

#include <algorithm>
#include <array>
#include <string_view>

namespace Kelvane {

namespace {

struct MetadataFile {
    const char *name;
    bool required;
    CF::Dictionary KVBackupContainerClass::*target;
};

// In loading order.
constexpr std::array<MetadataFile, 3> kMetadataFiles = {{
    {kManifestPlistName, true, &KVBackupContainerClass::manifestDict},
    {kInfoPlistName, false, &KVBackupContainerClass::infoDict},
    {kStatusPlistName, true, &KVBackupContainerClass::statusDict},
}};

struct NamedVersion {
    const char *text;
    KVManifestDataVersion version;
};
constexpr std::array<NamedVersion, 5> kVersions = {{{"2.4", kKVManifestDataVersion24},
                                                    {"3.0", kKVManifestDataVersion30},
                                                    {"3.1", kKVManifestDataVersion31},
                                                    {"3.2", kKVManifestDataVersion32},
                                                    {"3.3", kKVManifestDataVersion33}}};

// Why bytes that gave no dictionary did not; cause is the parser's error, or null.
CF::Error whyUnreadable(const CF::Data &bytes, const CF::Error &cause, const CF::String &name) {
    if (bytes.IsEmpty()) {
        return Error(kKVErrorInvalidMetadata, nullptr, CFSTR("The file is empty (%@)"), name.get());
    }
    if (cause) {
        return Error(kKVErrorInvalidMetadata, cause,
                     CFSTR("The file is no property list that can be read (%@)"), name.get());
    }
    return Error(kKVErrorInvalidMetadata, nullptr,
                 CFSTR("The root of the property list is no dictionary (%@)"), name.get());
}

CFPropertyListFormat formatOf(const CF::Data &bytes) {
    constexpr std::string_view kMagic = "bplist";
    const auto content = bytes.GetBytes();
    return std::equal(kMagic.begin(), kMagic.end(), content.begin(),
                      content.begin() +
                          static_cast<std::ptrdiff_t>(std::min(kMagic.size(), content.size())))
               ? kCFPropertyListBinaryFormat_v1_0
               : kCFPropertyListXMLFormat_v1_0;
}

// A file that is empty, no property list or no dictionary leaves the target empty: what
// the backup lacks then shows in the checks that follow.
void readDictionary(KVBackupContainerClass &container, const MetadataFile &metadata,
                    const CF::String &name) {
    const FileRef file = container.loader->LoadStoredFile(name, kMaxMetadataSize);
    const CF::Data bytes(ReadWhole(file.get(), kMaxMetadataSize));
    const CF::Dictionary &target = container.*metadata.target;
    target.RemoveAll();
    LocalError cause;
    const auto parsed =
        CF::PropertyListType<CF::Dictionary>::FromPropertyListData(bytes, cause.out());
    if (parsed) {
        CFDictionarySetValues(target.mutableRef(), parsed.get());
    }
    container.metadataFormats.insert_or_assign(metadata.name, formatOf(bytes));
    container.sourceMetadata.insert_or_assign(
        metadata.name,
        SourceMetadata{file, parsed ? CF::Error() : whyUnreadable(bytes, cause.get(), name)});
}

void loadMetadataFile(KVBackupContainerClass &container, const MetadataFile &file) {
    const CF::String name(file.name);
    try {
        readDictionary(container, file, name);
    } catch (const CF::Error &error) {
        const bool missing =
            CFErrorDomainAndCodeMatch(error.get(), kKVErrorDomain, kKVErrorFileNotFound);
        if (missing && !file.required) {
            (container.*file.target).RemoveAll();
        } else if (missing) {
            throw Error(kKVErrorInvalidBackup, error,
                        CFSTR("Backup metadata file missing. Are you sure this is a valid "
                              "backup? (%@)"),
                        name.get());
        } else {
            throw Error(kKVErrorInvalidBackup, error,
                        CFSTR("Failed to load backup metadata file (%@)"), name.get());
        }
    }
}

// What a dictionary lacks it may lack because its file could not be read; null otherwise.
CF::Error whyEmpty(const KVBackupContainerClass &container, const char *fileName) {
    const auto found = container.sourceMetadata.find(fileName);
    return found == container.sourceMetadata.end() ? CF::Error() : found->second.unreadable;
}

// Devices write a boolean; a number counts as one too.
bool readBoolean(const CF::Dictionary &dictionary, CFStringRef key) {
    const auto number = dictionary.Get<CF::Number>(key);
    return number ? number.GetInt64() != 0 : dictionary.Get<CF::Boolean>(key).GetValue();
}

bool hasOwnEncryption(const ZK::ios_version &version) {
    return version.major_version == 10 && version.minor_version < 2;
}

// They lack the key of the manifest, and nobody knows for sure what they have instead.
void refuseOwnEncryption(const KVBackupContainerClass &container) {
    const auto lockdown = container.manifestDict.Get<CF::Dictionary>(CFSTR("Lockdown"));
    const auto version = lockdown.Get<CF::String>(CFSTR("ProductVersion"));
    if (!container.manifestDict.Get<CF::Data>(CFSTR("ManifestKey")) &&
        hasOwnEncryption(ZK::ios_version(version.GetUTF8()))) {
        throw Error(kKVErrorEncryptionUnsupported, nullptr,
                    CFSTR("Backups that iOS %@ encrypted are not supported: iOS 10.0 and 10.1 did "
                          "it in a way of their own"),
                    version.get());
    }
}

bool has(KVBackupOpenOptions options, KVBackupOpenOptions bit) { return (options & bit) != 0; }

MB::KeyBagOptions keyBagOptions(KVBackupOpenOptions options,
                                const MB::DerivationProgress &progress) {
    return {has(options, kKVBackupOpenKeepDeviceBoundKeysLocked) ? MB::DeviceBoundKeys::KeepLocked
                                                                 : MB::DeviceBoundKeys::Fail,
            has(options, kKVBackupOpenOldEncryption) ? MB::OldKeyBags::Accept
                                                     : MB::OldKeyBags::Refuse,
            progress};
}

// Whether this is an encrypted backup of the time before databases, to be opened.
bool hasOldEncryption(const KVBackupContainerClass &container, KVBackupOpenOptions options) {
    return has(options, kKVBackupOpenOldEncryption) &&
           container.statusDict.Get<CF::String>(CFSTR("Version")) == CF::String("2.4");
}

void unlock(KVBackupContainerClass &container, KVBackupOpenOptions options,
            const MB::DerivationProgress &progress) {
    const bool encrypted = readBoolean(container.manifestDict, CFSTR("IsEncrypted"));
    const bool havePassword = !container.password.empty();
    const bool old = hasOldEncryption(container, options);
    if (encrypted && !old && has(options, kKVBackupOpenOldEncryption)) {
        refuseOwnEncryption(container);
    }
    if (encrypted && !havePassword) {
        throw Error(kKVErrorPasswordRequired);
    }
    if (!encrypted && havePassword) {
        throw Error(kKVErrorNotEncrypted, whyEmpty(container, kManifestPlistName));
    }
    if (encrypted) {
        container.encryption.reset();
        container.encryption.emplace(container.manifestDict, container.password.get(),
                                     keyBagOptions(options, progress),
                                     old ? MB::ManifestKeys::None : MB::ManifestKeys::Required);
    }
}

CF::String readVersionText(const KVBackupContainerClass &container) {
    const auto text = container.statusDict.Get<CF::String>(CFSTR("Version"));
    if (text.IsEmpty()) {
        throw Error(kKVErrorInvalidBackup, whyEmpty(container, kStatusPlistName),
                    CFSTR("The manifest version is missing"));
    }
    return text;
}

void setVersion(KVBackupContainerClass &container, const CF::String &text) {
    for (const NamedVersion &known : kVersions) {
        if (text == CF::String(known.text)) {
            container.loader->version = known.version;
            return;
        }
    }
}

void refuseEncryption(const KVBackupContainerClass &container, const CF::String &versionText) {
    if (container.encryption) {
        throw Error(kKVErrorEncryptionUnsupported, nullptr,
                    CFSTR("Encrypted backups are not supported for manifest version '%@'"),
                    versionText.get());
    }
}

void loadManifest(KVBackupContainerClass &container, KVBackupOpenOptions options,
                  const KVProgressFunction &progress) {
    const CF::String versionText = readVersionText(container);
    setVersion(container, versionText);
    switch (container.Version()) {
    case kKVManifestDataVersion24:
        if (!has(options, kKVBackupOpenOldEncryption)) {
            refuseEncryption(container, versionText);
        }
        LoadBinaryManifest(container);
        return;
    case kKVManifestDataVersion30:
    case kKVManifestDataVersion31:
        refuseEncryption(container, versionText);
        LoadManifestDatabase(container, versionText, options, progress);
        return;
    case kKVManifestDataVersion32:
    case kKVManifestDataVersion33:
        LoadManifestDatabase(container, versionText, options, progress);
        return;
    default:
        throw Error(kKVErrorUnknownManifestVersion, nullptr,
                    CFSTR("Unsupported version '%@' specified"), versionText.get());
    }
}

} // namespace

std::vector<std::uint8_t> ReadWhole(const KVFileClass *file, std::uint64_t limit) {
    const std::uint64_t size = KVFileGetSize(file);
    RequireSizeWithin(size, limit);
    std::vector<std::uint8_t> bytes;
    bytes.reserve(static_cast<std::size_t>(size));
    bool tooLarge = false;
    KVFileGetData(file, kKVFileDefaultDataChunkSize, [&](const std::vector<std::uint8_t> &chunk) {
        tooLarge = bytes.size() + chunk.size() > limit;
        if (!tooLarge) {
            bytes.insert(bytes.end(), chunk.begin(), chunk.end());
        }
        return !tooLarge;
    });
    // The file may have grown since its size was taken.
    if (tooLarge) {
        throw Error(kKVErrorLoadRepresentation, nullptr,
                    CFSTR("The file is too large to be read into memory (more than %llu bytes)"),
                    static_cast<unsigned long long>(limit));
    }
    return bytes;
}

void LoadMetadata(KVBackupContainerClass &container, KVBackupOpenOptions options,
                  const OpeningProgress &progress) {
    for (const MetadataFile &file : kMetadataFiles) {
        loadMetadataFile(container, file);
    }
    unlock(container, options, progress.derivation);
    loadManifest(container, options, progress.manifest);
}

} // namespace Kelvane
