// Exports as verbs, and what is to be known of their results.
#pragma once

#include "tests/container/EditFixture.hpp"

#include "container/KVBackupContainerClass.hpp"
#include "support/zk/Log.hpp"

#include <csignal>
#include <map>
#include <sstream>

#include <sys/resource.h>

namespace container_tests {

// "CODE REASON", with those of the errors beneath behind " < ".
inline std::string Chain(const CF::Error &error) {
    std::string text = std::to_string(error.GetCode()) + " " + error.GetFailureReason().GetUTF8();
    const CF::Error cause = error.GetUnderlying();
    return cause ? text + " < " + Chain(cause) : text;
}

// The errors that are logged while it lives.
class ErrorLog {
  public:
    ErrorLog() { ZLLogSetSink(&ErrorLog::receive, this, kZLLogLevelError); }
    ErrorLog(const ErrorLog &) = delete;
    ErrorLog &operator=(const ErrorLog &) = delete;
    ~ErrorLog() { ZLLogSetSink(nullptr, nullptr, 0); }
    const std::vector<std::string> &Errors() const { return errors_; }

  private:
    static void receive(CFStringRef domain, int, CFStringRef, CFErrorRef error, void *context) {
        EXPECT_EQ(CF::String::GetUTF8(domain), "Kelvane");
        static_cast<ErrorLog *>(context)->errors_.push_back(Chain(CF::Error(error)));
    }
    std::vector<std::string> errors_;
};

using Texts = std::vector<std::string>;

// How an export went.
struct Exported {
    bool finished = false;
    std::vector<double> progress;
    // As Chain gives them.
    Texts logged;
    // The report's; none without one.
    Texts reported;
    Texts notes;
    bool metadataWritten = false;
    std::int64_t filesWritten = 0;
};

using ProgressFunction = std::function<void(double)>;
using ExportFunction = bool(KVBackupContainerClass *, CFStringRef, ProgressFunction);
using ReportFunction = bool(KVBackupContainerClass *, CFStringRef, ProgressFunction,
                            KVBackupExportReport *);

// Runs an export; also is called with each report of progress.
inline Exported RunExport(ExportFunction *function, KVBackupContainerClass *container,
                          const std::string &path, const ProgressFunction &also = {}) {
    Exported result;
    const ErrorLog log;
    result.finished = function(container, CF::String(path), [&](double fraction) {
        result.progress.push_back(fraction);
        if (also) {
            also(fraction);
        }
    });
    result.logged = log.Errors();
    return result;
}

// The chains of a report's errors, which are released.
inline Texts TakeChains(CFArrayRef reported) {
    const auto errors = CF::Array::Adopt(reported);
    EXPECT_TRUE(errors);
    Texts chains;
    for (CFIndex i = 0; i < errors.GetCount(); ++i) {
        chains.push_back(
            Chain(CF::Error(static_cast<CFErrorRef>(const_cast<void *>(errors.GetAt(i))))));
    }
    return chains;
}

inline Exported RunExport(ReportFunction *function, KVBackupContainerClass *container,
                          const std::string &path, const ProgressFunction &also = {}) {
    Exported result;
    KVBackupExportReport report{};
    const ErrorLog log;
    result.finished = function(
        container, CF::String(path),
        [&](double fraction) {
            result.progress.push_back(fraction);
            if (also) {
                also(fraction);
            }
        },
        &report);
    result.logged = log.Errors();
    result.reported = TakeChains(report.errors);
    result.notes = TakeChains(report.notes);
    result.metadataWritten = report.metadataWritten != 0;
    result.filesWritten = report.filesWritten;
    return result;
}

// All files below a directory with their content.
inline std::map<std::string, std::string> ReadTree(const std::string &root) {
    std::map<std::string, std::string> files;
    for (fs::recursive_directory_iterator at(root), end; at != end; ++at) {
        if (fs::is_regular_file(at->path())) {
            const auto bytes = testing_support::ReadFile(at->path());
            files[fs::relative(at->path(), root).string()] = {bytes.begin(), bytes.end()};
        }
    }
    return files;
}

// Programs that are not ours find nothing wrong with an archive.
inline void ExpectSoundArchive(const std::string &path) {
    const auto unzip = testing_support::RunCommand({"unzip", "-tqq", path});
    EXPECT_EQ(unzip.status, 0) << unzip.output << unzip.errors;
    const auto zip = testing_support::RunCommand({"zip", "-qT", path});
    EXPECT_EQ(zip.status, 0) << zip.output << zip.errors;
    const auto python = testing_support::RunPython(
        "import sys, zipfile\n"
        "archive = zipfile.ZipFile(sys.argv[1])\n"
        "assert archive.testzip() is None\n"
        "assert len(archive.namelist()) == len(set(archive.namelist()))\n",
        {path});
    EXPECT_EQ(python.status, 0) << python.errors;
}

// What Python's zipfile finds in an archive, in its order: a line for each record by that
// expression of its info and content.
inline Texts ReadRecords(const std::string &path, const std::string &expression) {
    const auto python = testing_support::RunPython("import sys, zipfile, hashlib\n"
                                                   "archive = zipfile.ZipFile(sys.argv[1])\n"
                                                   "for info in archive.infolist():\n"
                                                   "    content = archive.read(info)\n"
                                                   "    print(" +
                                                       expression + ")\n",
                                                   {path});
    EXPECT_EQ(python.status, 0) << python.errors;
    Texts lines;
    std::istringstream stream(python.output);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// Files cannot grow past the limit while it lives.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(::rlim_t bytes) {
        ::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &before_);
        const ::rlimit limit{bytes, before_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &before_);
        ::signal(SIGXFSZ, SIG_DFL);
    }

  private:
    ::rlimit before_{};
};

// A container of that version with nothing in it.
inline Editable EmptyOfVersion(KVManifestDataVersion version) {
    const Editable container = Editable::Empty();
    container.get()->loader->version = version;
    return container;
}

// Adds a file entry as a manifest could hold it, with any file ID; the content is what the
// function gives.
inline void AddForged(const Editable &container, const std::string &fileID, const std::string &path,
                      const KVGetFileFunction &getFile) {
    const File any = Editable::FileOf("x");
    const auto model = CF::Adopt(KVManifestEntryCreateForFile(
        nullptr, any.get(), CFSTR("HomeDomain"), CF::String(path), nullptr, nullptr));
    const auto record = CF::Data::Adopt(KVManifestEntryCreateMBFileDataRepresentation(model.get()));
    const auto forged = CF::Adopt(
        KVManifestEntryCreateFromMBFileData(nullptr, CF::String(fileID), CFSTR("HomeDomain"),
                                            CF::String(path), 1, record.get(), getFile));
    ASSERT_TRUE(forged);
    const auto entries = CF::Array::MutableCopy(KVManifestGetEntries(container.manifest()));
    entries.Append(forged.get());
    KVManifestUpdateEntries(container.manifest(), entries.get());
}
inline void AddForged(const Editable &container, const std::string &fileID,
                      const std::string &content) {
    AddForged(container, fileID, fileID,
              [content](CFStringRef, CFErrorRef *) { return Editable::FileOf(content).detach(); });
}
// The same with content that is on the disk before it is asked for.
inline void AddPrepared(const Editable &container, const std::string &fileID,
                        const std::string &content) {
    AddForged(container, fileID, fileID,
              [whole = Editable::FileOf(content)](CFStringRef, CFErrorRef *) {
                  return KVFileCreateCopy(whole.get());
              });
}

} // namespace container_tests
