#include "container/ExportReport.hpp"

#include "Kelvane/SharedState.hpp"
#include "container/StoredName.hpp"
#include "foundation/Boundary.hpp"
#include "support/zk/Log.hpp"

#include <new>

namespace Kelvane {

namespace {

// Stands for the manifest of a version that has none: it is never written.
constexpr const char *kNoManifestName = "";

CF::Array copyOf(const CF::Array &array) {
    return CF::Array::Adopt(CF::Made(CFArrayCreateCopy(kCFAllocatorDefault, array.get())));
}

CF::Array arrayOf(const CF::Error &error) {
    const void *value = error.get();
    return CF::Array::Adopt(
        CF::Made(CFArrayCreate(kCFAllocatorDefault, &value, 1, &kCFTypeArrayCallBacks)));
}

struct PreparedArrays {
    CF::Array none = copyOf(CF::Array::Mutable());
    CF::Array outOfMemory = arrayOf(OutOfMemoryError());
};

// Never destroyed, as a host may call while the process exits.
const PreparedArrays &preparedArrays() {
    static const auto *const arrays = new PreparedArrays;
    return *arrays;
}

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
    unlistedFiles_ = 0;
    missing_.insert(kNoManifestName);
    Skipped(error);
}

void ExportReport::Written(const std::string &name) {
    missing_.erase(name);
    ++filesWritten_;
}

void ExportReport::FillIn(KVBackupExportReport *report) const {
    if (report != nullptr) {
        // Both first: the copying of one may fail.
        CF::Array errors = copyOf(errors_);
        CF::Array notes = copyOf(notes_);
        report->errors = errors.detach();
        report->notes = notes.detach();
        report->metadataWritten = missing_.empty();
        report->filesWritten = filesWritten_;
    }
}

void PrepareReports() { preparedArrays(); }

void FillInFailure(KVBackupExportReport *report, const CF::Error &error) noexcept {
    if (report == nullptr) {
        return;
    }
    CF::Array errors;
    try {
        errors = arrayOf(error);
    } catch (const std::bad_alloc &) {
        errors = nullptr;
    }
    *report = {errors ? errors.detach() : preparedArrays().outOfMemory.copyRef(),
               preparedArrays().none.copyRef(), false, 0};
}

} // namespace Kelvane
