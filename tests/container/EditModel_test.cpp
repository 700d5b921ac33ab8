// Random sequences of edits, held against a simple model of them after every edit, and the
// backup that is written out and opened again at the end.
#include "tests/container/EditFixture.hpp"
#include "tests/container/EditModel.hpp"

#include <random>

namespace container_tests {
namespace {

// Names that sort oddly, differ by case or normalisation only, or begin alike.
constexpr const char *kNames[] = {"a",   "b",      "ab",      "a!", "A",
                                  "a b", "\u00e9", "e\u0301", "0",  "\U0001F4F1"};
constexpr const char *kDomains[] = {"HomeDomain", "AppDomain-com.example.new", "AppDomain"};

// Larger files of the sample are left out: they are written out for every seed.
constexpr std::int64_t kLargest = 40000;

struct Case {
    const char *sample;
    unsigned firstSeed;
    unsigned seeds;
    std::size_t entries; // to begin with
    int edits;
    bool zip;
};

ModelEntry ModelOf(const KVManifestEntryClass *entry) {
    return {CF::String::GetUTF8(KVManifestEntryGetDomain(entry)),
            CF::String::GetUTF8(KVManifestEntryGetPath(entry)),
            KVManifestEntryGetFileMode(entry),
            static_cast<int>(KVManifestEntryGetProtectionClass(entry)),
            CF::String::GetUTF8(KVManifestEntryGetTarget(entry)),
            {},
            KVManifestEntryGetFileSize(entry)};
}

class Session {
  public:
    Session(const Case &setup, unsigned seed)
        : setup_(setup), random_(seed), backup_(Editable::Sample(setup.sample)),
          model_({}, KVBackupContainerIsEncrypted(backup_.get())) {
        shrinkToOneDomain();
        growTo(setup.entries);
    }

    void Run() {
        for (int i = 0; i < setup_.edits; ++i) {
            edit();
            compareEntries();
            compareLookups();
        }
        compareWritten();
    }

  private:
    std::size_t pick(std::size_t count) {
        return std::uniform_int_distribution<std::size_t>(0, count - 1)(random_);
    }
    std::string domain() { return kDomains[pick(std::size(kDomains))]; }
    std::string freshPath() {
        std::string path = kNames[pick(std::size(kNames))];
        for (std::size_t depth = pick(4); depth > 0; --depth) {
            path += std::string("/") + kNames[pick(std::size(kNames))];
        }
        return path;
    }
    // Mostly one that is there, or below one.
    std::string path(const std::string &inDomain) {
        const auto there = model_.AtOrBelow(inDomain, "");
        if (there.empty() || pick(10) < 4) {
            return freshPath();
        }
        const std::string &found = there[pick(there.size())];
        const bool below = pick(4) == 0 && !found.empty();
        return below ? found + "/" + kNames[pick(std::size(kNames))] : found;
    }
    std::string content() { return std::string(pick(70), static_cast<char>('a' + pick(26))); }

    void shrinkToOneDomain();
    void growTo(std::size_t count);
    void edit();
    void addFile(const std::string &domain, const std::string &path);
    void compareEntries() const;
    void compareLookups();
    void comparePath(const std::string &domain, const std::string &path) const;
    void compareWritten();
    void compareReopened(const Editable &reopened) const;

    Case setup_;
    std::mt19937 random_;
    Editable backup_;
    EditModel model_;
};

// Keeps one domain of the sample, with its links, files of all kinds and directories.
void Session::shrinkToOneDomain() {
    const std::string kept = FindOfType(setup_.sample, "symlink").at("domain");
    std::vector<ModelEntry> entries;
    const auto domains = CF::Array::Adopt(KVManifestCopyDomainsList(backup_.manifest()));
    for (CFIndex i = 0; i < domains.GetCount(); ++i) {
        const std::string name = CF::String::Cast(domains.GetAt(i)).GetUTF8();
        if (name != kept) {
            EXPECT_TRUE(backup_.Remove(name, ""));
        }
    }
    for (const void *const value : backup_.Entries()) {
        entries.push_back(ModelOf(static_cast<const KVManifestEntryClass *>(value)));
        if (entries.back().size > kLargest) {
            EXPECT_TRUE(backup_.Remove(entries.back().domain, entries.back().path));
            entries.pop_back();
        } else if (entries.back().IsFile()) {
            entries.back().content = backup_.Content(entries.back().domain, entries.back().path);
        }
    }
    model_ = EditModel(std::move(entries), KVBackupContainerIsEncrypted(backup_.get()));
}

void Session::growTo(std::size_t count) {
    while (model_.Entries().size() < count) {
        const std::string inDomain = domain();
        const std::string at = freshPath();
        EXPECT_EQ(backup_.MakeDirectory(inDomain, at) != nullptr,
                  model_.MakeDirectory(inDomain, at));
        if (pick(3) == 0) {
            addFile(inDomain, at + "/" + std::to_string(pick(1000)));
        } else {
            const std::string below = at + "/" + std::to_string(pick(1000));
            EXPECT_EQ(backup_.Link(inDomain, below, "../x") != nullptr,
                      model_.Link(inDomain, below, "../x"));
        }
    }
    compareEntries();
}

void Session::addFile(const std::string &inDomain, const std::string &at) {
    const std::string text = content();
    const File file = Editable::FileOf(text);
    const auto entry = CF::Adopt(KVManifestEntryCreateForFile(
        nullptr, file.get(), CF::String(inDomain).get(), CF::String(at).get(), nullptr, nullptr));
    EXPECT_NE(KVBackupContainerAddEntry(backup_.get(), entry.get(), nullptr), nullptr);
    model_.AddFile(inDomain, at, text);
}

void Session::edit() {
    const std::string inDomain = domain();
    const std::string at = path(inDomain);
    const std::size_t which = pick(20);
    if (which < 6) {
        const std::string text = content();
        EXPECT_EQ(!backup_.Store(inDomain, at, text), model_.Store(inDomain, at, text));
    } else if (which < 10) {
        const std::string text = content();
        EXPECT_EQ(!backup_.Replace(inDomain, at, text), model_.Replace(inDomain, at, text));
    } else if (which < 13) {
        EXPECT_EQ(backup_.MakeDirectory(inDomain, at) != nullptr,
                  model_.MakeDirectory(inDomain, at));
    } else if (which < 15) {
        EXPECT_EQ(backup_.Link(inDomain, at, "../t") != nullptr, model_.Link(inDomain, at, "../t"));
    } else if (which < 19) {
        EXPECT_TRUE(backup_.Remove(inDomain, at));
        model_.Remove(inDomain, at);
    } else {
        addFile(inDomain, at);
    }
}

void Session::compareEntries() const {
    const auto entries = backup_.Entries();
    ASSERT_EQ(entries.size(), model_.Entries().size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        ModelEntry found = ModelOf(static_cast<const KVManifestEntryClass *>(entries[i]));
        found.content = model_.Entries()[i].content;
        ASSERT_EQ(found, model_.Entries()[i])
            << i << ": " << found.path << " / " << model_.Entries()[i].path;
    }
    ASSERT_EQ(KVManifestGetTotalFileSize(backup_.manifest()), model_.TotalSize());
    ASSERT_EQ(KVManifestGetTotalFileCount(backup_.manifest()), model_.TotalFiles());
}

std::vector<std::string> PathsOf(const CF::Array &entries) {
    std::vector<std::string> paths;
    for (CFIndex i = 0; i < entries.GetCount(); ++i) {
        paths.push_back(CF::String::GetUTF8(
            KVManifestEntryGetPath(static_cast<const KVManifestEntryClass *>(entries.GetAt(i)))));
    }
    return paths;
}

void Session::comparePath(const std::string &inDomain, const std::string &at) const {
    const auto *const newest = backup_.Entry(inDomain, at);
    const ModelEntry *const expected = model_.Newest(inDomain, at);
    ASSERT_EQ(newest != nullptr, expected != nullptr) << at;
    if (expected != nullptr) {
        ASSERT_EQ(KVManifestEntryGetFileMode(newest), expected->mode);
        ASSERT_EQ(KVManifestEntryGetFileSize(newest), expected->size);
    }
    const CF::String domainText(inDomain);
    const CF::String pathText(at);
    ASSERT_EQ(KVManifestGetEntryMatchingPath(backup_.manifest(), domainText, pathText) != nullptr,
              model_.First(inDomain, at) != nullptr);
    ASSERT_EQ(PathsOf(CF::Array::Adopt(KVBackupContainerCopyEntriesContainedInDirectoryAtPath(
                  backup_.get(), domainText, pathText))),
              model_.Children(inDomain, at))
        << at;
    ASSERT_EQ(PathsOf(CF::Array::Adopt(
                  KVManifestCopyEntriesAtPath(backup_.manifest(), domainText, pathText))),
              model_.AtOrBelow(inDomain, at))
        << at;
}

void Session::compareLookups() {
    for (const char *const each : kDomains) {
        comparePath(each, "");
        comparePath(each, path(each));
        comparePath(each, freshPath());
    }
    const auto domains = CF::Array::Adopt(KVManifestCopyDomainsList(backup_.manifest()));
    ASSERT_EQ(static_cast<std::size_t>(domains.GetCount()), model_.Domains().size());
}

void Session::compareReopened(const Editable &reopened) const {
    std::map<std::string, ModelEntry> found;
    for (const void *const value : reopened.Entries()) {
        ModelEntry entry = ModelOf(static_cast<const KVManifestEntryClass *>(value));
        if (entry.IsFile()) {
            entry.content = reopened.Content(entry.domain, entry.path);
        }
        found.insert_or_assign(entry.domain + "-" + entry.path, entry);
    }
    auto expected = model_.ByPair();
    for (auto &[pair, entry] : expected) {
        if (!entry.IsFile()) {
            entry.content.clear();
        }
    }
    ASSERT_EQ(found.size(), expected.size());
    for (const auto &[pair, entry] : expected) {
        ASSERT_EQ(found[pair], entry) << pair;
    }
}

void Session::compareWritten() {
    const testing_support::TemporaryDirectory directory;
    const std::string target = (directory / (setup_.zip ? "out.zip" : "out")).string();
    KVBackupExportReport report{};
    const auto write = setup_.zip ? KVBackupContainerExportToZipWithReport
                                  : KVBackupContainerExportToDirectoryWithReport;
    ASSERT_TRUE(write(backup_.get(), CF::String(target), {}, &report));
    const auto errors = CF::Array::Adopt(report.errors);
    const auto notes = CF::Array::Adopt(report.notes);
    EXPECT_EQ(notes.GetCount(), 0);
    ASSERT_EQ(errors.GetCount(), 0);
    ASSERT_TRUE(report.metadataWritten);
    OpenArguments arguments;
    if (KVBackupContainerIsEncrypted(backup_.get())) {
        arguments.password = SamplePassword();
        arguments.options = kKVBackupOpenKeepDeviceBoundKeysLocked;
    }
    compareReopened(Editable(OpenPath(target, arguments)));
}

class EditModelTest : public testing::TestWithParam<Case> {};

TEST_P(EditModelTest, AgreesAfterEveryEditAndWhenOpenedAgain) {
    const Case &setup = GetParam();
    for (unsigned seed = setup.firstSeed; seed < setup.firstSeed + setup.seeds; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        ASSERT_NO_FATAL_FAILURE(Session(setup, seed).Run());
        ASSERT_FALSE(HasFailure());
    }
}

std::vector<Case> Cases() {
    std::vector<Case> cases;
    for (const char *const sample : {kEncrypted, kPlain, kBinary, kZip}) {
        for (unsigned block = 0; block < 8; ++block) {
            cases.push_back({sample, block * 10, 10, 0, 40, block % 2 == 1});
        }
        cases.push_back({sample, 1000, 2, 500, 60, false});
        cases.push_back({sample, 2000, 1, 2000, 60, true});
    }
    return cases;
}

std::string NameOf(const testing::TestParamInfo<Case> &info) {
    std::string name =
        std::string(info.param.sample) + "_from" + std::to_string(info.param.firstSeed);
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0 && c != '_'; },
        '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Seeds, EditModelTest, testing::ValuesIn(Cases()), NameOf);

} // namespace
} // namespace container_tests
