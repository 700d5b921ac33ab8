#include "Commands.hpp"
#include "Diagnostics.hpp"
#include "EntryRecord.hpp"
#include "ExitStatus.hpp"
#include "JSON.hpp"
#include "KVManifest.h"
#include "Output.hpp"
#include "Quoting.hpp"
#include "Selection.hpp"
#include "Units.hpp"
#include "support/cf/CF.hpp"

#include <array>
#include <cstdio>
#include <initializer_list>

namespace tool {

namespace {

struct Counts {
    std::int64_t files = 0;
    std::int64_t directories = 0;
    std::int64_t links = 0;
};

struct Metadata {
    CF::Dictionary info;
    CF::Dictionary status;
    CF::Dictionary manifest;
    CF::Dictionary lockdown;
};

Metadata readMetadata(const Container &container) {
    Metadata metadata;
    metadata.info = CF::Dictionary::Adopt(KVBackupContainerCopyInfoDict(container.get()));
    metadata.status = CF::Dictionary::Adopt(KVBackupContainerCopyStatusDict(container.get()));
    metadata.manifest = CF::Dictionary(KVBackupContainerGetManifestDict(container.get()));
    metadata.lockdown = metadata.manifest.Get<CF::Dictionary>(CFSTR("Lockdown"));
    return metadata;
}

JSON orNull(const CF::String &value) { return value.IsEmpty() ? JSON() : JSON(value.GetUTF8()); }

// Info.plist speaks to users; where it is missing, the device's own record says the same.
JSON text(const Metadata &metadata, CFStringRef infoKey, CFStringRef lockdownKey) {
    const auto value = metadata.info.Get<CF::String>(infoKey);
    return orNull(value ? value : metadata.lockdown.Get<CF::String>(lockdownKey));
}

// Info.plist may have it in capitals, unlike the device itself and the backup's directory.
JSON uniqueIdentifier(const Metadata &metadata) {
    const auto own = metadata.lockdown.Get<CF::String>(CFSTR("UniqueDeviceID"));
    return orNull(own ? own : metadata.info.Get<CF::String>(CFSTR("Unique Identifier")));
}

// Unix seconds.
JSON backupDate(const Metadata &metadata) {
    for (const auto &[dictionary, key] :
         std::initializer_list<std::pair<CF::Dictionary, CFStringRef>>{
             {metadata.info, CFSTR("Last Backup Date")},
             {metadata.manifest, CFSTR("Date")},
             {metadata.status, CFSTR("Date")}}) {
        const auto date = dictionary.Get<CF::Date>(key);
        if (date) {
            return UnixSeconds(date);
        }
    }
    return nullptr;
}

Counts countEntries(const CF::Array &entries) {
    Counts counts;
    for (CFIndex i = 0; i < entries.GetCount(); ++i) {
        const EntryType type = TypeOf(EntryAt(entries, i));
        counts.files += type == EntryType::File;
        counts.directories += type == EntryType::Directory;
        counts.links += type == EntryType::Symlink;
    }
    return counts;
}

JSON gather(const Container &container) {
    const Metadata metadata = readMetadata(container);
    KVManifestClass *manifest = KVBackupContainerGetManifest(container.get());
    const auto domains = CF::Array::Adopt(KVManifestCopyDomainsList(manifest));
    const Counts counts = countEntries(AllEntries(container));
    JSON json;
    json["deviceName"] = text(metadata, CFSTR("Device Name"), CFSTR("DeviceName"));
    json["deviceType"] = text(metadata, CFSTR("Product Type"), CFSTR("ProductType"));
    json["osVersion"] = text(metadata, CFSTR("Product Version"), CFSTR("ProductVersion"));
    json["osBuild"] = text(metadata, CFSTR("Build Version"), CFSTR("BuildVersion"));
    json["serialNumber"] = text(metadata, CFSTR("Serial Number"), CFSTR("SerialNumber"));
    json["uniqueIdentifier"] = uniqueIdentifier(metadata);
    json["date"] = backupDate(metadata);
    json["formatVersion"] = orNull(metadata.status.Get<CF::String>(CFSTR("Version")));
    json["backupState"] = orNull(metadata.status.Get<CF::String>(CFSTR("BackupState")));
    json["snapshotState"] = orNull(metadata.status.Get<CF::String>(CFSTR("SnapshotState")));
    json["encrypted"] = KVBackupContainerIsEncrypted(container.get()) != 0;
    json["domains"] = domains.GetCount();
    json["files"] = counts.files;
    json["directories"] = counts.directories;
    json["links"] = counts.links;
    json["totalSize"] = KVManifestGetTotalFileSize(manifest);
    return json;
}

void warnOfCut(const Container &container) {
    if ((KVBackupContainerGetNotes(container.get()) & kKVBackupNoteUnfinished) != 0) {
        PrintMessage("warning: the backup was cut off: its SnapshotState is '" +
                     SnapshotState(container) + "', not 'finished'");
    }
}

// What it would tell shows as unknown.
void warnOfUnreadableMetadata(const Container &container) {
    for (const char *name : kPropertyLists) {
        const CF::Error error = MetadataError(container, name);
        if (error) {
            Failure(error).PrintFor("warning");
        }
    }
}

constexpr std::array<std::pair<const char *, const char *>, 16> kLabels = {{
    {"deviceName", "Device name"},
    {"deviceType", "Device type"},
    {"osVersion", "OS version"},
    {"osBuild", "OS build"},
    {"serialNumber", "Serial number"},
    {"uniqueIdentifier", "Unique identifier"},
    {"date", "Date"},
    {"formatVersion", "Format version"},
    {"backupState", "Backup state"},
    {"snapshotState", "Snapshot state"},
    {"encrypted", "Encrypted"},
    {"domains", "Domains"},
    {"files", "Files"},
    {"directories", "Directories"},
    {"links", "Links"},
    {"totalSize", "Total size"},
}};

std::string valueText(const std::string &key, const JSON &value) {
    if (value.is_null()) {
        return "unknown";
    }
    if (value.is_string()) {
        return EscapeControls(value.get<std::string>());
    }
    if (value.is_boolean()) {
        return value.get<bool>() ? "yes" : "no";
    }
    const auto number = value.get<std::int64_t>();
    if (key == "date") {
        return DateText(number);
    }
    if (key == "totalSize") {
        return SizeText(number) + " (" + std::to_string(number) + " bytes)";
    }
    return std::to_string(number);
}

} // namespace

int RunInfo(const Container &container, const InfoOptions &options) {
    warnOfUnreadableMetadata(container);
    warnOfCut(container);
    const JSON json = gather(container);
    if (options.json) {
        PrintLine(Serialize(json));
        return kDone;
    }
    for (const auto &[key, label] : kLabels) {
        std::string line = std::string(label) + ":";
        line.resize(20, ' ');
        PrintLine(line + valueText(key, json.at(key)));
    }
    return kDone;
}

} // namespace tool
