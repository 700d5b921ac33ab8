#include "container/DeviceForm.hpp"

#include "Kelvane/Error.hpp"
#include "container/CopyOut.hpp"
#include "container/DeviceManifest.hpp"
#include "container/EncryptedContent.hpp"
#include "container/StoredName.hpp"
#include "filestore/Reading.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/DeviceDatabase.hpp"
#include "manifest/KVManifestClass.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/WipeStack.hpp"

#include <optional>
#include <unordered_map>
#include <unordered_set>

namespace Kelvane {

namespace {

// What is known of a metadata file.
struct MetadataFacts {
    const char *name;
    CF::Dictionary KVBackupContainerClass::*dictionary;
    // Of a container without a source: that in which devices write it.
    CFPropertyListFormat format;
};
constexpr MetadataFacts kMetadata[] = {
    {kManifestPlistName, &KVBackupContainerClass::manifestDict, kCFPropertyListBinaryFormat_v1_0},
    {kInfoPlistName, &KVBackupContainerClass::infoDict, kCFPropertyListXMLFormat_v1_0},
    {kStatusPlistName, &KVBackupContainerClass::statusDict, kCFPropertyListBinaryFormat_v1_0},
};

template <class Bytes>
CF::Pointer<CFDataRef> dataOf(const Bytes &bytes) {
    return CF::Adopt(CF::Made(
        CFDataCreate(kCFAllocatorDefault, bytes.data(), static_cast<CFIndex>(bytes.size()))));
}

class DeviceForm : public ExportForm {
  public:
    DeviceForm(KVBackupContainerClass &container, bool decrypted, bool intoZip)
        : container_(container), decrypts_(decrypted && container.encryption), intoZip_(intoZip) {}

    ExportPiece Load(CFStringRef name) override;
    void Skipped(const KVManifestEntryClass &entry) override;

  private:
    ExportPiece loadEntry(CFStringRef name);
    ExportPiece loadStored(CFStringRef name, const KVManifestEntryClass &entry);
    ExportPiece loadPlaintext(CFStringRef name, const KVManifestEntryClass &entry);
    ExportPiece loadEncrypted(const KVManifestEntryClass &entry) const;
    ExportPiece loadMetadata(const MetadataFacts &metadata);
    ExportPiece writeMetadata(const MetadataFacts &metadata,
                              const CF::Dictionary &dictionary) const;
    CF::Dictionary plainManifest() const;
    const KVManifestEntryClass &loadedFor(const KVManifestEntryClass &entry) const;
    DeviceRowRules rules();
    void adjust(DeviceRow &row) const;
    void adjustEncrypted(DeviceRow &row) const;
    void adjustDecrypted(DeviceRow &row) const;

    KVBackupContainerClass &container_;
    const bool decrypts_;
    const bool intoZip_;

    // Of files that were decrypted: what their rows say of the plaintext.
    std::unordered_map<const KVManifestEntryClass *, PlainFacts> plain_;
    // Entries whose content could not be decrypted.
    std::unordered_set<const KVManifestEntryClass *> leftOut_;
};

// The entry's own key. Throws what keeps it locked, code 22; empty when the entry has none.
std::optional<ZK::SecretArray<32>> keyOf(const KVBackupContainerClass &container,
                                         const KVManifestEntryClass &entry) {
    LocalError error;
    auto key = KVManifestEntryGetUnlockedFileKey(&entry, *container.encryption, error.out());
    if (!key) {
        if (error.get()) {
            throw error.get();
        }
        return std::nullopt;
    }
    const ZK::WipeOnExit wipe(*key);
    return ZK::SecretArray<32>(*key);
}

ZK::SecretArray<32> requireKey(const KVBackupContainerClass &container,
                               const KVManifestEntryClass &entry) {
    const auto key = keyOf(container, entry);
    if (!key) {
        throw Error(kKVErrorUnlockFailed, nullptr, CFSTR("The file has no key (%@)"),
                    KVManifestEntryGetDomainPathPair(&entry));
    }
    return *key;
}

const KVFileClass &contentOf(const KVManifestEntryClass &entry) {
    LocalError error;
    const KVFileClass *const file = KVManifestEntryGetFile(&entry, error.out());
    if (file == nullptr) {
        throw error.get();
    }
    return *file;
}

// What a reference delivers.
ExportPiece delivered(const KVManifestEntryClass &entry) {
    ExportPiece piece;
    piece.Take(FileRef(const_cast<KVFileClass *>(&contentOf(entry))));
    return piece;
}

ExportPiece DeviceForm::Load(CFStringRef name) {
    const std::string text = CF::String::GetUTF8(name);
    if (text == kManifestDatabaseName || text == kManifestMbdbName) {
        return LoadDeviceManifest(container_, rules(), container_.encryption && !decrypts_);
    }
    for (const MetadataFacts &metadata : kMetadata) {
        if (text == metadata.name) {
            return loadMetadata(metadata);
        }
    }
    return loadEntry(name);
}

// What could not be decrypted would be a row that promises content which is not there.
void DeviceForm::Skipped(const KVManifestEntryClass &entry) {
    if (decrypts_) {
        leftOut_.insert(&entry);
    }
}

// Of entries with one file ID, the content was loaded for the one that a lookup finds.
const KVManifestEntryClass &DeviceForm::loadedFor(const KVManifestEntryClass &entry) const {
    const KVManifestEntryClass *const found =
        KVManifestGetEntryForFileID(container_.manifest.get(), KVManifestEntryGetFileID(&entry));
    return found != nullptr ? *found : entry;
}

ExportPiece DeviceForm::loadEntry(CFStringRef name) {
    const KVManifestEntryClass *const entry =
        KVBackupContainerGetEntryForLocalFilename(&container_, name, nullptr);
    if (entry == nullptr || !KVManifestEntryIsFile(entry)) {
        throw Error(kKVErrorNoSuchItem, nullptr, CFSTR("File not present in backup (%@)"), name);
    }
    if (LiesInSource(container_, *entry)) {
        return loadStored(name, *entry);
    }
    if (container_.encryption && !decrypts_ && KVManifestEntryIsExternal(entry)) {
        return loadEncrypted(*entry);
    }
    return delivered(*entry);
}

// A file of the source, carried over as it lies there or as its plaintext.
ExportPiece DeviceForm::loadStored(CFStringRef name, const KVManifestEntryClass &entry) {
    if (decrypts_) {
        return loadPlaintext(name, entry);
    }
    ExportPiece piece;
    piece.content =
        std::make_unique<StoredContent>(container_.loader->Source().OpenQuickly(CF::String(name)));
    piece.compressible = !container_.encryption;
    return piece;
}

ExportPiece DeviceForm::loadPlaintext(CFStringRef name, const KVManifestEntryClass &entry) {
    const ZK::WipeStackOnExit wipeStack;
    const ZK::SecretArray<32> key = requireKey(container_, entry);
    ExportPiece piece;
    piece.content = std::make_unique<DecryptedContent>(
        container_.loader->Source().OpenQuickly(CF::String(name)), key.get(), plain_[&entry]);
    return piece;
}

// New content lies as plaintext until it is written.
ExportPiece DeviceForm::loadEncrypted(const KVManifestEntryClass &entry) const {
    const ZK::WipeStackOnExit wipeStack;
    const ZK::SecretArray<32> key = requireKey(container_, entry);
    ExportPiece piece;
    piece.file = FileRef(const_cast<KVFileClass *>(&contentOf(entry)));
    piece.content = std::make_unique<EncryptedContent>(OpenContent(*piece.file.get()), key.get());
    piece.compressible = false;
    return piece;
}

ExportPiece DeviceForm::loadMetadata(const MetadataFacts &metadata) {
    const bool changes = decrypts_ && metadata.dictionary == &KVBackupContainerClass::manifestDict;
    const auto source = container_.sourceMetadata.find(metadata.name);
    const bool isSource = source != container_.sourceMetadata.end();
    if (changes) {
        return writeMetadata(metadata, plainManifest());
    }
    if (isSource) {
        ExportPiece piece;
        piece.Take(source->second.file);
        if (source->second.unreadable) {
            piece.note = Error(kKVErrorInvalidMetadata, source->second.unreadable,
                               CFSTR("File %@ could not be read and was copied as it is"),
                               CF::String(metadata.name).get());
        }
        return piece;
    }
    const CF::Dictionary &dictionary = container_.*metadata.dictionary;
    const bool isMissing = HasSource(*container_.manifest.get()) && dictionary.GetCount() == 0;
    return isMissing && !intoZip_ ? ExportPiece() : writeMetadata(metadata, dictionary);
}

// Manifest.plist as that of a plain backup. The keybag stays: systems demand it.
CF::Dictionary DeviceForm::plainManifest() const {
    const auto manifest = CF::Dictionary::MutableCopy(container_.manifestDict.get());
    manifest.Set(CFSTR("IsEncrypted"), kCFBooleanFalse);
    manifest.Remove(CFSTR("ManifestKey"));
    return manifest;
}

ExportPiece DeviceForm::writeMetadata(const MetadataFacts &metadata,
                                      const CF::Dictionary &dictionary) const {
    const auto known = container_.metadataFormats.find(metadata.name);
    ExportPiece piece;
    piece.Take(
        WriteMetadata(dictionary, CF::String(metadata.name).get(),
                      known == container_.metadataFormats.end() ? metadata.format : known->second));
    return piece;
}

DeviceRowRules DeviceForm::rules() {
    DeviceRowRules rules;
    if (container_.encryption) {
        rules.adjust = [this](DeviceRow &row) { adjust(row); };
    }
    if (decrypts_) {
        rules.leavesOut = [this](const KVManifestEntryClass &entry) {
            return leftOut_.contains(&entry) || leftOut_.contains(&loadedFor(entry));
        };
        rules.rewrites = [](const KVManifestEntryClass &entry) {
            return CFDataGetLength(entry.encryptionData.get()) != 0;
        };
    }
    return rules;
}

void DeviceForm::adjust(DeviceRow &row) const {
    if (decrypts_) {
        adjustDecrypted(row);
    } else if (row.entry.external && KVManifestEntryIsFile(&row.entry)) {
        adjustEncrypted(row);
    }
}

// The entry of new content counts what is stored, which is more than the plaintext, but for an
// empty file, of which it knows nothing.
void DeviceForm::adjustEncrypted(DeviceRow &row) const {
    const ZK::WipeStackOnExit wipeStack;
    row.size = static_cast<std::int64_t>(KVFileGetSize(&contentOf(row.entry)));
    const auto key = keyOf(container_, row.entry);
    if (row.size == 0 && key) {
        row.digest = dataOf(DigestOfEncryptedNothing(key->get()));
    }
}

void DeviceForm::adjustDecrypted(DeviceRow &row) const {
    row.encryptionKey = nullptr;
    if (!KVManifestEntryIsFile(&row.entry)) {
        return;
    }
    if (row.entry.external) {
        const KVFileClass &file = contentOf(row.entry);
        row.size = static_cast<std::int64_t>(KVFileGetSize(&file));
        row.digest = dataOf(KVFileGetHash(&file));
        return;
    }
    const auto plain = plain_.find(&loadedFor(row.entry));
    if (plain == plain_.end()) {
        return;
    }
    if (row.digest && CFDataGetLength(row.digest.get()) > 0) {
        row.digest = dataOf(plain->second.digest);
    }
    // A row that counts the ciphertext would promise more than there is.
    if (row.size == static_cast<std::int64_t>(plain->second.storedSize)) {
        row.size = static_cast<std::int64_t>(plain->second.size);
    }
}

} // namespace

bool LiesInSource(const KVBackupContainerClass &container, const KVManifestEntryClass &entry) {
    const auto &source = container.manifest.get()->source;
    return source != nullptr && entry.origin.IsOf(source->Reading()) && !entry.external;
}

std::unique_ptr<ExportForm> MakeDeviceForm(KVBackupContainerClass &container, bool decrypted,
                                           bool intoZip) {
    return std::make_unique<DeviceForm>(container, decrypted, intoZip);
}

} // namespace Kelvane
