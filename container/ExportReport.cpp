#include "container/ExportReport.hpp"

#include "Kelvane/SharedState.hpp"
#include "container/StoredName.hpp"
#include "support/zk/Log.hpp"

namespace Kelvane {

namespace {

// Stands for the manifest of a version that has none: it is never written.
constexpr const char *kNoManifestName = "";

const char *manifestName(KVManifestDataVersion version) {
    if (version == kKVManifestDataVersion24) {
        return kManifestMbdbName;
    }
    return UsesManifestDatabase(version) ? kManifestDatabaseName : kNoManifestName;
}

} // namespace

ExportReport::ExportReport(bool keepErrors, KVManifestDataVersion version)
    : keepErrors_(keepErrors), missing_{manifestName(version), kManifestPlistName, kInfoPlistName,
                                        kStatusPlistName} {}

void ExportReport::Log(const CF::Error &error) const {
    ZLLogError(error.get(), GetLogDomain(), nullptr);
}

void ExportReport::Skipped(const CF::Error &error) {
    Log(error);
    if (keepErrors_) {
        errors_.Append(error.get());
    }
}

void ExportReport::Noted(const CF::Error &error) {
    Log(error);
    if (keepErrors_) {
        notes_.Append(error.get());
    }
}

void ExportReport::Failed(const CF::Error &error) {
    errors_ = CF::Array::Mutable();
    notes_ = CF::Array::Mutable();
    filesWritten_ = 0;
    missing_.insert(kNoManifestName);
    Skipped(error);
}

void ExportReport::Written(const std::string &name) {
    missing_.erase(name);
    ++filesWritten_;
}

void ExportReport::FillIn(KVBackupExportReport *report) const {
    if (report != nullptr) {
        report->errors = CFArrayCreateCopy(kCFAllocatorDefault, errors_.get());
        report->notes = CFArrayCreateCopy(kCFAllocatorDefault, notes_.get());
        report->metadataWritten = missing_.empty();
        report->filesWritten = filesWritten_;
    }
}

} // namespace Kelvane
