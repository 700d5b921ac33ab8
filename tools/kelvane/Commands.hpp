// The commands. Each returns an exit status or throws Failure.
#pragma once

#include "BackupOutput.hpp"
#include "OpenBackup.hpp"
#include "Operation.hpp"
#include "TemporaryArea.hpp"

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace tool {

struct InfoOptions {
    bool json = false;
};
int RunInfo(const Container &container, const InfoOptions &options);

struct ListOptions {
    std::optional<std::string> domain;
    std::string path;
    bool all = false;
    bool recursive = false;
    bool detailed = false;
    bool json = false;
};
int RunList(const Container &container, const ListOptions &options);

struct CatOptions {
    std::string domain;
    std::string path;
};
int RunCat(const Container &container, const TemporaryArea &area, const CatOptions &options);

struct ExtractOptions {
    std::optional<std::string> domain;
    std::string path;
    std::string output;
    bool force = false;
};
int RunExtract(const BackupOptions &backup, const TemporaryArea &area,
               const ExtractOptions &options);

struct VerifyOptions {
    bool json = false;
};
int RunVerify(const BackupOptions &backup, const TemporaryArea &area, const VerifyOptions &options);

struct ExportOptions {
    BackupOutputOptions output;
};
int RunExport(const BackupOptions &backup, const ExportOptions &options);

struct DecryptOptions {
    BackupOutputOptions output;
    std::vector<std::string> domains; // none: all
};
int RunDecrypt(const BackupOptions &backup, const DecryptOptions &options);

struct EditScriptFile {
    std::string path; // "-": standard input
};
using EditStep = std::variant<Operation, EditScriptFile>;
struct EditOptions {
    BackupOutputOptions output;
    bool inPlace = false; // the backup itself is changed, and there is no output
    // In the order of the command line.
    std::vector<EditStep> steps;
};
int RunEdit(const BackupOptions &backup, const EditOptions &options);

struct RecoverOptions {};
int RunRecover(const BackupOptions &backup);

struct CSVOptions {
    std::string output; // empty: standard output
    bool force = false;
};
// The backup may be a Manifest.db.
int RunCSV(const BackupOptions &backup, const TemporaryArea &area, const CSVOptions &options);

} // namespace tool
