#include "Commands.hpp"
#include "Diagnostics.hpp"
#include "EntryRecord.hpp"
#include "ExitStatus.hpp"
#include "JSON.hpp"
#include "KVBackupWriting.h"
#include "KVManifest.h"
#include "Output.hpp"
#include "ProgressBar.hpp"
#include "Quoting.hpp"
#include "Selection.hpp"
#include "Verification.hpp"

#include <array>

namespace tool {

namespace {

struct SeverityName {
    const char *json;
    const char *text; // before the line
};

SeverityName nameOf(Problem::Severity severity) {
    switch (severity) {
    case Problem::Severity::Problem:
        break;
    case Problem::Severity::Warning:
        return {"warning", "warning: "};
    case Problem::Severity::Remark:
        return {"remark", "remark: "};
    }
    return {"problem", ""};
}

// One line, and one for each cause.
std::string textOf(const Problem &problem) {
    std::string line = nameOf(problem.severity).text;
    if (problem.entry != nullptr) {
        line += FullPath(problem.entry) + ": ";
    } else if (!problem.storedName.empty()) {
        line += "file " + problem.storedName + ": ";
    }
    std::string text = EscapeControls(line + problem.message);
    for (const std::string &cause : DescribeChain(problem.cause)) {
        text += "\n  caused by: " + EscapeControls(cause);
    }
    return text;
}

std::string jsonOf(const Problem &problem) {
    JSON json;
    json["severity"] = nameOf(problem.severity).json;
    json["kind"] = problem.kind;
    if (problem.entry != nullptr) {
        json["domain"] = CF::String::GetUTF8(KVManifestEntryGetDomain(problem.entry));
        json["path"] = CF::String::GetUTF8(KVManifestEntryGetPath(problem.entry));
        json["fileID"] = CF::String::GetUTF8(KVManifestEntryGetFileID(problem.entry));
    } else if (!problem.storedName.empty()) {
        json["storedName"] = problem.storedName;
    }
    json["message"] = problem.message;
    json["causes"] = DescribeChain(problem.cause);
    return Serialize(json);
}

std::string count(std::int64_t number, const std::string &what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

class Report {
  public:
    Report(const Container &container, const VerifyOptions &options)
        : options_(options),
          bar_(KVManifestGetTotalFileSize(KVBackupContainerGetManifest(container.get()))) {}

    void Add(const Problem &problem) {
        ++counts_[static_cast<std::size_t>(problem.severity)];
        // Both may be on one terminal.
        bar_.Hide();
        PrintLine(options_.json ? jsonOf(problem) : textOf(problem));
    }

    void CountEntry(Entry *entry) {
        ++entries_;
        if (TypeOf(entry) == EntryType::File) {
            ++files_;
            bar_.Advance(std::max<std::int64_t>(KVManifestEntryGetFileSize(entry), 0));
        }
    }

    int Finish(std::size_t sourceFiles) {
        bar_.Hide();
        if (options_.json) {
            JSON json;
            json["severity"] = "summary";
            json["entries"] = entries_;
            json["files"] = files_;
            json["sourceFiles"] = sourceFiles;
            json["problems"] = countOf(Problem::Severity::Problem);
            json["warnings"] = countOf(Problem::Severity::Warning);
            json["remarks"] = countOf(Problem::Severity::Remark);
            PrintLine(Serialize(json));
        } else {
            PrintLine(std::to_string(entries_) + " entries, " + count(files_, "file") +
                      " checked: " + count(countOf(Problem::Severity::Problem), "problem") +
                      further(Problem::Severity::Warning) + further(Problem::Severity::Remark));
        }
        return countOf(Problem::Severity::Problem) == 0 ? kDone : kFailed;
    }

  private:
    std::int64_t countOf(Problem::Severity severity) const {
        return counts_[static_cast<std::size_t>(severity)];
    }

    std::string further(Problem::Severity severity) const {
        const std::int64_t number = countOf(severity);
        return number > 0 ? ", " + count(number, nameOf(severity).json) : "";
    }

    const VerifyOptions &options_;
    ProgressBar bar_;
    std::int64_t entries_ = 0;
    std::int64_t files_ = 0;
    std::array<std::int64_t, 3> counts_{}; // by severity
};

} // namespace

namespace {

void checkForUnfinishedChange(const BackupOptions &backup, Report &report) {
    if (KVBackupNeedsRecovery(ArgumentText(backup.backup).get())) {
        Problem problem;
        problem.kind = "unfinished-change";
        problem.message =
            "a change of the backup was not brought to its end; see 'kelvane recover'";
        report.Add(problem);
    }
}

} // namespace

int RunVerify(const BackupOptions &backup, const TemporaryArea &area,
              const VerifyOptions &options) {
    const Container container = OpenBackup(backup);
    Report report(container, options);
    Verification verification(container, area,
                              [&](const Problem &problem) { report.Add(problem); });
    checkForUnfinishedChange(backup, report);
    verification.CheckEntries([&](Entry *entry) { report.CountEntry(entry); });
    verification.CheckFileIDs();
    verification.CheckMetadata();
    verification.CheckNotes();
    verification.CheckSourceFiles();
    return report.Finish(verification.SourceFileCount());
}

} // namespace tool
