// The check of a whole backup.
#pragma once

#include "ContentCheck.hpp"
#include "FileIDTable.hpp"
#include "Problem.hpp"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// Checks the entries, their contents, and that the files of the backup are theirs.
class Verification {
  public:
    // The container and the area must outlive the object.
    Verification(const Container &container, const TemporaryArea &area, ProblemSink sink);

    Verification(const Verification &) = delete;
    Verification &operator=(const Verification &) = delete;

    // checked is called with each entry, whatever was found.
    void CheckEntries(const std::function<void(Entry *entry)> &checked);
    // After CheckEntries: file IDs of more than one entry.
    void CheckFileIDs();
    // Whether the metadata files gave what they hold.
    void CheckMetadata();
    // Whether the backup was finished, and how its manifest lies in it.
    void CheckNotes();
    // After CheckFileIDs: files that no entry names, and what lies beside the manifest.
    void CheckSourceFiles();

    // The number of files that the backup's directory or zip holds, after CheckSourceFiles.
    std::size_t SourceFileCount() const noexcept { return sourceFiles_; }

  private:
    void checkEntry(Entry *entry) const;
    void checkRecord(Entry *entry) const;
    std::string fileIDOf(std::string_view storedName) const;
    bool countAsMetadata(const std::string &name);
    void countOnce(std::vector<bool> &met, std::size_t number, const std::string &name);
    bool isBesideDatabase(const std::string &name, std::int64_t size) const;
    void checkSourceFile(const KVBackupSourceFile &file);
    bool countAsContent(const std::string &name, bool regular);
    bool isInPlaceOfFolder(const std::string &name, bool regular) const;
    void reportUnnamed(const std::string &name) const;
    void reportFile(Problem::Severity severity, const char *kind, const std::string &name,
                    const std::string &message) const;

    const Container &container_;
    ProblemSink sink_;
    ContentCheck contentCheck_;
    CF::Array entries_;
    bool usesDatabase_;
    // Of entries whose content is stored, and of all entries.
    FileIDTable contents_;
    FileIDTable all_;
    // By the number of an ID in contents_: its file was met.
    std::vector<bool> met_;
    std::vector<bool> metadata_;
    std::vector<std::string> strays_;
    std::size_t sourceFiles_ = 0;
};

} // namespace tool
