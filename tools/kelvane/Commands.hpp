// The commands. Each returns an exit status or throws Failure.
#pragma once

#include "OpenBackup.hpp"
#include "TemporaryArea.hpp"

#include <optional>
#include <string>

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
int RunExtract(const Container &container, const TemporaryArea &area,
               const ExtractOptions &options);

struct VerifyOptions {
    bool json = false;
};
int RunVerify(const Container &container, const TemporaryArea &area, const VerifyOptions &options);

struct CSVOptions {
    std::string output; // empty: standard output
    bool force = false;
};
// The backup may be a Manifest.db.
int RunCSV(const BackupOptions &backup, const TemporaryArea &area, const CSVOptions &options);

} // namespace tool
