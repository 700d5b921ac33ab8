// The container's class and its metadata accessors.
#include "container/KVBackupContainerClass.hpp"

#include "container/StoredName.hpp"
#include "foundation/RuntimeClass.hpp"
#include "support/zk/Abort.hpp"

namespace {

constexpr const char *kSourceName = "Kelvane/KVBackupContainer.cpp";
constexpr const char *kClassName = "KVBackupContainerRef";
// Positions that the assertion texts name.
constexpr int kRegistrationLine = 145;
constexpr int kManifestDictLine = 932;

using Body = Kelvane::RuntimeBody<KVBackupContainerClass>;

// Only a container read from a zip has a description of its own.
CFStringRef copyDescription(CFTypeRef object, CFDictionaryRef) {
    const auto *container = static_cast<const KVBackupContainerClass *>(object);
    if (container->sourceKind != Kelvane::SourceKind::Zip) {
        return nullptr;
    }
    return CF::String::Format(CFSTR("<%s %p> (Zip) path:%@ base_dir:%@"), kClassName, object,
                              container->sourcePath.get(), container->baseDirectory.get())
        .detach();
}

CFStringRef copyDebugDescription(CFTypeRef object) { return copyDescription(object, nullptr); }

constexpr CFRuntimeClass kClass =
    Body::Record(kClassName, {nullptr, &copyDescription, &copyDebugDescription});

CFMutableDictionaryRef copyMutable(const CF::Dictionary &dictionary) {
    return dictionary
               ? CF::Made(CFDictionaryCreateMutableCopy(kCFAllocatorDefault, 0, dictionary.get()))
               : nullptr;
}

// A dictionary of the host's takes the place of all that was known of the file.
void replace(KVBackupContainerClass &container, CF::Dictionary KVBackupContainerClass::*stored,
             const char *fileName, CFDictionaryRef replacement) {
    if (replacement != nullptr) {
        container.*stored = CF::Dictionary(replacement);
        container.sourceMetadata.erase(fileName);
        container.setMetadata.insert(fileName);
    }
}

} // namespace

Kelvane::ContainerRef Kelvane::AllocateContainer(CFAllocatorRef allocator) {
    return CF::Adopt(Body::Create(allocator, KVBackupContainerGetTypeID()));
}

void KVBackupContainerClass::UpdateSourceVersion() {
    const auto lockdown = manifestDict.Get<CF::Dictionary>(CFSTR("Lockdown"));
    const auto version = lockdown.Get<CF::String>(CFSTR("ProductVersion"));
    sourceVersion = ZK::ios_version(version.GetUTF8());
}

CFTypeID KVBackupContainerGetTypeID(void) {
    static const CFTypeID typeID =
        Kelvane::RegisterRuntimeClass(&kClass, kSourceName, kRegistrationLine);
    return typeID;
}

CFMutableDictionaryRef KVBackupContainerCopyInfoDict(const KVBackupContainerClass *container) {
    return copyMutable(container->infoDict);
}

CFMutableDictionaryRef KVBackupContainerCopyStatusDict(const KVBackupContainerClass *container) {
    return copyMutable(container->statusDict);
}

CFMutableDictionaryRef KVBackupContainerCopyManifestDict(const KVBackupContainerClass *container) {
    return copyMutable(container->manifestDict);
}

CFDictionaryRef KVBackupContainerGetManifestDict(const KVBackupContainerClass *backup) {
    if (backup == nullptr) {
        ZK::AssertionFailed(kSourceName, kManifestDictLine, "KVBackupContainerGetManifestDict",
                            "backup");
    }
    return backup->manifestDict.get();
}

void KVBackupContainerSetDictionaries(KVBackupContainerClass *container, CFDictionaryRef info,
                                      CFDictionaryRef status, CFDictionaryRef manifest) {
    replace(*container, &KVBackupContainerClass::infoDict, Kelvane::kInfoPlistName, info);
    replace(*container, &KVBackupContainerClass::statusDict, Kelvane::kStatusPlistName, status);
    replace(*container, &KVBackupContainerClass::manifestDict, Kelvane::kManifestPlistName,
            manifest);
    if (manifest != nullptr) {
        container->UpdateSourceVersion();
    }
}

Boolean KVBackupContainerIsEncrypted(const KVBackupContainerClass *container) {
    return container->encryption.has_value();
}

KVBackupNotes KVBackupContainerGetNotes(const KVBackupContainerClass *container) {
    KVBackupNotes notes = 0;
    if (container->databaseForm == Kelvane::DatabaseForm::Decrypted) {
        notes |= kKVBackupNoteManifestDecrypted;
    } else if (container->databaseForm == Kelvane::DatabaseForm::Unpadded) {
        notes |= kKVBackupNoteManifestWithoutPadding;
    }
    const auto snapshot = container->statusDict.Get<CF::String>(CFSTR("SnapshotState"));
    if (snapshot && !CFEqual(snapshot.get(), CFSTR("finished"))) {
        notes |= kKVBackupNoteUnfinished;
    }
    return notes;
}

CFStringRef KVBackupContainerCopyFolder(const KVBackupContainerClass *container) {
    return container->folder ? CF::String(container->folder).detach() : nullptr;
}

CFStringRef KVBackupContainerGetBaseDirectory(const KVBackupContainerClass *container) {
    return container->baseDirectory.get();
}

void KVBackupContainerSetBaseDirectory(KVBackupContainerClass *container,
                                       CFStringRef baseDirectory) {
    container->baseDirectory = CF::String(baseDirectory);
}

CFNumberRef KVBackupContainerCopySystemDomainsVersion(const KVBackupContainerClass *container) {
    CF::Number version = container->manifestDict.Get<CF::Number>(CFSTR("SystemDomainsVersion"));
    return version ? version.detach() : CF::Number::FromInt32(0).detach();
}

void KVBackupContainerSetSystemDomainsVersion(KVBackupContainerClass *container,
                                              CFNumberRef version) {
    if (version != nullptr) {
        // A dictionary that the host has set is the host's, and may be immutable.
        container->manifestDict = CF::Dictionary::MutableCopy(container->manifestDict.get());
        container->manifestDict.Set(CFSTR("SystemDomainsVersion"), version);
        container->sourceMetadata.erase(Kelvane::kManifestPlistName);
        container->setMetadata.insert(Kelvane::kManifestPlistName);
    }
}

CFErrorRef KVBackupContainerCopyMetadataError(const KVBackupContainerClass *container,
                                              CFStringRef fileName) {
    const auto found = container->sourceMetadata.find(CF::String::GetUTF8(fileName));
    return found == container->sourceMetadata.end() ? nullptr : found->second.unreadable.copyRef();
}
