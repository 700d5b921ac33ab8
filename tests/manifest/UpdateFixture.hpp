// A database, the manifest read from it, and a copy of the file that is brought up to date.
#pragma once

#include "manifest/DeviceDatabase.hpp"
#include "manifest/KVManifestClass.hpp"
#include "tests/manifest/DatabaseFixtures.hpp"

#include <map>

namespace manifest_test {

// The rows of Files, in order: number, texts, flags and record in hexadecimal.
inline Lines RowsOf(const std::string &path) {
    const auto result = testing_support::RunPython(R"py(
import sqlite3, sys
database = sqlite3.connect('file:%s?mode=ro' % sys.argv[1], uri=True)
database.text_factory = bytes
for *row, file in database.execute('SELECT rowid, fileID, domain, relativePath, flags, file FROM Files'):
    print(*(v.decode() if isinstance(v, bytes) else v for v in row), file.hex() if file else file)
)py",
                                                   {path});
    EXPECT_EQ(result.status, 0) << result.errors;
    return SplitLines(result.output);
}

// What sqlite3 answers; rows are lines.
inline Lines Ask(const std::string &path, const std::string &sql) {
    const auto result = testing_support::RunCommand({"sqlite3", "-readonly", path, sql});
    EXPECT_EQ(result.status, 0) << result.errors;
    return SplitLines(result.output);
}

// What the script says of the record of a file ID: record and get(NAME) are at hand, and every
// reference must be a UID value.
inline std::string AskRecord(const std::string &path, const std::string &fileID,
                             const std::string &script) {
    const auto result = testing_support::RunPython(R"py(
import plistlib, sqlite3, sys
database = sqlite3.connect('file:%s?mode=ro' % sys.argv[1], uri=True)
blob, = database.execute('SELECT file FROM Files WHERE fileID=?', sys.argv[2:]).fetchone()
archive = plistlib.loads(blob)
objects = archive['$objects']
record = objects[archive['$top']['root'].data]
def get(name): return objects[record[name].data]
)py" + script,
                                                   {path, fileID});
    EXPECT_EQ(result.status, 0) << result.errors;
    return result.output;
}

class Updating {
  public:
    explicit Updating(const OracleDatabase &source)
        : manifest_(ReadDatabase(source.name()).manifest),
          path_(directory_.write("copy", source.Bytes()).string()), before_(source.Bytes()) {
        EXPECT_TRUE(manifest_);
        EXPECT_EQ(::chmod(path_.c_str(), 0600), 0);
    }

    KVManifestClass *manifest() const { return manifest_.get(); }
    const std::string &path() const { return path_; }
    Octets Bytes() const { return testing_support::ReadFile(path_); }
    bool IsUntouched() const { return Bytes() == before_; }
    Lines Companions() const {
        Lines names;
        for (const auto &file : boost::filesystem::directory_iterator(directory_ / ".")) {
            if (file.path().filename() != "copy") {
                names.push_back(file.path().filename().string());
            }
        }
        return names;
    }

    KVManifestEntryClass *Entry(const std::string &fileID) const {
        return KVManifestGetEntryForFileID(manifest(), Text(fileID).get());
    }
    void Remove(const std::string &fileID) const { Change({Entry(fileID)}, {}); }
    void Add(const Kelvane::EntryPointer &entry) const { Change({}, {entry}); }
    // Does what replacing an entry does: another takes its place.
    void Change(const std::vector<Kelvane::EntryPointer> &removed,
                const std::vector<Kelvane::EntryPointer> &added) const {
        std::vector<Kelvane::EntryPointer> entries;
        manifest()->entries.ForEach([&](KVManifestEntryClass *entry) {
            if (std::none_of(removed.begin(), removed.end(),
                             [&](const auto &gone) { return gone.get() == entry; })) {
                entries.emplace_back(entry);
            }
        });
        entries.insert(entries.end(), added.begin(), added.end());
        KVManifestUpdateEntries(manifest(), ArrayOf(entries));
    }
    // The entry, which then counts as changed, to be changed further.
    KVManifestEntryClass &Changed(const std::string &fileID) const {
        KVManifestEntryClass *const entry = Entry(fileID);
        entry->origin.MarkChanged();
        return *entry;
    }

    Kelvane::ManifestUpdate Update(const Kelvane::DeviceRowRules &rules = {}) const {
        return Kelvane::UpdateManifestDatabaseFile(path_, manifest(), rules);
    }
    std::string UpdateError(const Kelvane::DeviceRowRules &rules = {}) const {
        return ThrownError([&] { Update(rules); });
    }

  private:
    testing_support::TemporaryDirectory directory_;
    ManifestPointer manifest_;
    std::string path_;
    Octets before_;
};

} // namespace manifest_test
