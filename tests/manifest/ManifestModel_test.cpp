// Random changes of a manifest against a model that is a plain list of entries.
#include "manifest/DirectoryListing.hpp"
#include "manifest/ManifestChange.hpp"
#include "tests/manifest/ManifestFixtures.hpp"

#include <algorithm>
#include <map>
#include <random>
#include <set>

using namespace manifest_test;
using Kelvane::EntryPointer;

namespace {

using Pointers = std::vector<const KVManifestEntryClass *>;

// Names that sort around the slash, an empty component, letters beyond a byte.
const Lines kNames = {"a", "b", "a!", "a0", "ab", "", ".", "\xC3\xA9", "\xF0\x9F\x98\x80"};
const Lines kDomains = {"D", "E", "D-a", ""};
constexpr std::size_t kMostEntries = 400;

Pointers PointersIn(CFArrayRef array) {
    Pointers pointers;
    for (CFIndex i = 0; array != nullptr && i < CFArrayGetCount(array); ++i) {
        pointers.push_back(EntryAt(array, i));
    }
    return pointers;
}

Lines Components(const std::string &path) {
    Lines components(1);
    for (const char c : path) {
        if (c == '/') {
            components.emplace_back();
        } else {
            components.back() += c;
        }
    }
    return components;
}

struct Known {
    EntryPointer entry;
    std::string domain;
    std::string path;
    std::string fileID;
};

class Model {
  public:
    std::vector<Known> entries;

    template <class Condition>
    Pointers Those(Condition condition) const {
        Pointers pointers;
        for (const Known &known : entries) {
            if (condition(known)) {
                pointers.push_back(known.entry.get());
            }
        }
        return pointers;
    }
    Pointers InDomain(const std::string &domain) const {
        return Those([&](const Known &known) { return !domain.empty() && known.domain == domain; });
    }
    Pointers AtOrBelow(const std::string &domain, const std::string &path) const {
        const Lines wanted = Components(path);
        return Those([&](const Known &known) {
            const Lines given = Components(known.path);
            return !domain.empty() && known.domain == domain &&
                   (path.empty() || (given.size() >= wanted.size() &&
                                     std::equal(wanted.begin(), wanted.end(), given.begin())));
        });
    }
    Pointers Children(const std::string &domain, const std::string &path) const {
        const auto depth = path.empty() ? 0 : std::count(path.begin(), path.end(), '/') + 1;
        Pointers children;
        const Pointers below = AtOrBelow(domain, path);
        std::copy_if(below.begin(), below.end(), std::back_inserter(children),
                     [&](const KVManifestEntryClass *entry) {
                         const std::string own = Plain(KVManifestEntryGetPath(entry));
                         return !own.empty() && std::count(own.begin(), own.end(), '/') == depth;
                     });
        return children;
    }
};

// The manifest and the model, changed together and compared.
class Pair {
  public:
    explicit Pair(unsigned seed) : random_(seed) {}

    void ChangeSomehow();
    void CompareEverything();
    void CompareHeldArrays() const;

  private:
    std::size_t Below(std::size_t limit) { return random_() % limit; }
    std::string RandomPath();
    Known MakeKnown();
    void TakeOut(std::vector<std::size_t> places, Kelvane::ManifestChange &change);
    std::vector<std::size_t> RandomPlaces();
    std::vector<std::size_t> PlacesOfATree();
    void ReplaceAll();
    void CompareWhole() const;
    void CompareFileIDs() const;
    void ComparePaths(const std::string &domain, const std::string &path) const;
    void HoldArrays();

    std::mt19937 random_;
    Model model_;
    ManifestPointer manifest_ = CF::Adopt(KVManifestCreateEmpty(nullptr));
    std::vector<std::pair<CF::Array, Pointers>> held_;
};

std::string Pair::RandomPath() {
    std::string path = kNames[Below(kNames.size())];
    for (auto depth = Below(4); depth > 0; --depth) {
        path += "/" + kNames[Below(kNames.size())];
    }
    return path;
}

Known Pair::MakeKnown() {
    Known known;
    known.domain = kDomains[Below(kDomains.size())];
    known.path = RandomPath();
    constexpr std::uint16_t kModes[] = {kFileMode, kDirectoryMode, kLinkMode, 0};
    known.entry = MakeEntry(known.domain, known.path, kModes[Below(4)],
                            static_cast<std::int64_t>(Below(1000)));
    if (Below(3) == 0) {
        known.entry.get()->fileID = Text("id" + std::to_string(Below(20))).get();
    }
    // As readers do it; an entry may have its hash remembered or not.
    if (Below(2) == 0) {
        Kelvane::SetFileID(*known.entry.get(), known.entry.get()->fileID);
    }
    known.fileID = Plain(known.entry.get()->fileID.get());
    return known;
}

std::vector<std::size_t> Pair::RandomPlaces() {
    std::set<std::size_t> places;
    for (auto count = Below(Below(4) == 0 ? 100 : 4); count > 0 && !model_.entries.empty();
         --count) {
        places.insert(Below(model_.entries.size()));
    }
    return {places.begin(), places.end()};
}

std::vector<std::size_t> Pair::PlacesOfATree() {
    const Pointers tree = model_.AtOrBelow(kDomains[Below(kDomains.size())],
                                           Below(3) == 0 ? "" : kNames[Below(kNames.size())]);
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < model_.entries.size(); ++i) {
        if (std::count(tree.begin(), tree.end(), model_.entries[i].entry.get()) > 0) {
            places.push_back(i);
        }
    }
    return places;
}

// Of an entry that stands in several places the last ones go.
void Pair::TakeOut(std::vector<std::size_t> places, Kelvane::ManifestChange &change) {
    std::map<const void *, std::size_t> counts;
    for (const std::size_t place : places) {
        change.removed.push_back(model_.entries[place].entry);
        ++counts[model_.entries[place].entry.get()];
    }
    std::shuffle(change.removed.begin(), change.removed.end(), random_);
    for (std::size_t i = model_.entries.size(); i > 0; --i) {
        const auto found = counts.find(model_.entries[i - 1].entry.get());
        if (found != counts.end() && found->second > 0) {
            --found->second;
            model_.entries.erase(model_.entries.begin() + static_cast<std::ptrdiff_t>(i - 1));
        }
    }
}

void Pair::ReplaceAll() {
    std::shuffle(model_.entries.begin(), model_.entries.end(), random_);
    auto array = CF::Array::Mutable();
    for (const Known &known : model_.entries) {
        array.Append(known.entry.get());
    }
    KVManifestUpdateEntries(manifest_.get(), array);
}

void Pair::ChangeSomehow() {
    const auto kind = Below(20);
    if (kind == 0) {
        ReplaceAll();
        return;
    }
    Kelvane::ManifestChange change;
    const bool full = model_.entries.size() > kMostEntries;
    if (kind < 10 || full) {
        TakeOut(kind == 1 || full ? PlacesOfATree() : RandomPlaces(), change);
    }
    for (auto count = Below(kind == 2 ? 100 : 6); count > 0 && !full; --count) {
        const bool again = Below(10) == 0 && !model_.entries.empty();
        model_.entries.push_back(again ? model_.entries[Below(model_.entries.size())]
                                       : MakeKnown());
        change.added.push_back(model_.entries.back().entry);
    }
    Kelvane::ApplyChange(manifest_.get(), change);
}

void Pair::CompareWhole() const {
    std::int64_t size = 0;
    std::int64_t files = 0;
    Lines fileIDs;
    std::set<std::string> domains;
    for (const Known &known : model_.entries) {
        const KVManifestEntryClass *const entry = known.entry.get();
        size += KVManifestEntryGetFileSize(entry);
        files += KVManifestEntryIsFile(entry) ? 1 : 0;
        if (!KVManifestEntryIsDirectory(entry) && !KVManifestEntryIsSymlink(entry)) {
            fileIDs.push_back(known.fileID);
        }
        domains.insert(known.domain);
    }
    domains.erase("");
    KVManifestClass *const manifest = manifest_.get();
    EXPECT_EQ(PointersIn(KVManifestGetEntries(manifest)),
              model_.Those([](const Known &) { return true; }));
    EXPECT_EQ(KVManifestGetTotalFileSize(manifest), size);
    EXPECT_EQ(KVManifestGetTotalFileCount(manifest), files);
    EXPECT_EQ(TextsOf(KVManifestGetFileIDs(manifest)), fileIDs);
    EXPECT_EQ(TextsOf(CF::Array::Adopt(KVManifestCopyDomainsList(manifest))),
              Lines(domains.begin(), domains.end()));
}

void Pair::CompareFileIDs() const {
    std::map<std::string, const KVManifestEntryClass *> last;
    for (int i = 0; i < 20; ++i) {
        last["id" + std::to_string(i)] = nullptr;
    }
    for (const Known &known : model_.entries) {
        last[known.fileID] = known.entry.get();
    }
    for (const auto &[fileID, entry] : last) {
        EXPECT_EQ(KVManifestGetEntryForFileID(manifest_.get(), Text(fileID)), entry) << fileID;
    }
}

void Pair::ComparePaths(const std::string &domain, const std::string &path) const {
    SCOPED_TRACE(domain + " " + path);
    KVManifestClass *const manifest = manifest_.get();
    const Pointers exact = model_.Those([&](const Known &known) {
        return !domain.empty() && known.domain == domain && known.path == path;
    });
    EXPECT_EQ(KVManifestGetEntryMatchingPath(manifest, Text(domain), Text(path)),
              exact.empty() ? nullptr : exact.front());
    EXPECT_EQ(PointersIn(CF::Array::Adopt(
                  KVManifestCopyEntriesAtPath(manifest, Text(domain), Text(path)))),
              model_.AtOrBelow(domain, path));
    EXPECT_EQ(PointersIn(Kelvane::CopyChildren(manifest, Text(domain), Text(path))),
              model_.Children(domain, path));
}

void Pair::CompareEverything() {
    CompareWhole();
    CompareFileIDs();
    for (const std::string &domain : kDomains) {
        EXPECT_EQ(PointersIn(CF::Array::Adopt(
                      KVManifestCopyEntriesInDomain(manifest_.get(), Text(domain)))),
                  model_.InDomain(domain));
        ComparePaths(domain, "");
        for (int i = 0; i < 3; ++i) {
            ComparePaths(domain, RandomPath());
        }
    }
    HoldArrays();
}

void Pair::HoldArrays() {
    const CF::Array arrays[] = {
        CF::Array(KVManifestGetEntries(manifest_.get())),
        CF::Array::Adopt(KVManifestCopyEntriesInDomain(manifest_.get(), CFSTR("D"))),
        CF::Array::Adopt(KVManifestCopyEntriesAtPath(manifest_.get(), CFSTR("D"), CFSTR("a")))};
    for (const CF::Array &array : arrays) {
        held_.emplace_back(array, PointersIn(array));
    }
}

void Pair::CompareHeldArrays() const {
    for (const auto &[array, pointers] : held_) {
        EXPECT_EQ(PointersIn(array), pointers);
    }
}

class ManifestModel : public testing::TestWithParam<unsigned> {};

} // namespace

TEST_P(ManifestModel, IsWhatTheManifestLooksLikeAfterEveryChange) {
    Pair pair(GetParam());
    for (int change = 0; change < 60 && !HasFailure(); ++change) {
        SCOPED_TRACE(change);
        pair.ChangeSomehow();
        // Some changes follow each other without a lookup between them.
        if (change % 3 != 1) {
            pair.CompareEverything();
        }
    }
    pair.CompareHeldArrays();
}

INSTANTIATE_TEST_SUITE_P(Seeds, ManifestModel, testing::Range(0U, 20U));
