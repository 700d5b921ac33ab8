// Listings of directories in random trees, against a walk of the whole domain.
#include "KVManifest.h"
#include "manifest/KVManifestEntryClass.hpp"
#include "tests/container/EditFixture.hpp"

#include <algorithm>
#include <random>

namespace container_tests {
namespace {

using Paths = std::vector<std::string>;

Paths componentsOf(const std::string &path) {
    Paths components(1);
    for (const char c : path) {
        if (c == '/') {
            components.emplace_back();
        } else {
            components.back() += c;
        }
    }
    return components;
}

auto slashesIn(const std::string &path) { return std::count(path.begin(), path.end(), '/'); }

// An empty container whose entries are set, with the same entries beside it.
class ListedTree {
  public:
    void Add(const std::string &path, bool isDirectory) {
        const auto entry = CF::Adopt(
            isDirectory ? KVManifestEntryCreateForDirectory(nullptr, CFSTR("D"), CF::String(path))
                        : KVManifestEntryCreateForSymlink(nullptr, CFSTR("D"), CF::String(path),
                                                          CFSTR("t")));
        entries_.push_back({path, isDirectory, entry.get()});
        array_.Append(entry.get());
    }
    void Apply() { KVManifestUpdateEntries(container_.manifest(), array_); }

    std::vector<const void *> List(const std::string &directory) const {
        const auto children =
            CF::Array::Adopt(KVBackupContainerCopyEntriesContainedInDirectoryAtPath(
                container_.get(), CFSTR("D"), CF::String(directory)));
        std::vector<const void *> result;
        for (CFIndex i = 0; i < children.GetCount(); ++i) {
            result.push_back(children.GetAt(i));
        }
        return result;
    }

    // As a listing is defined: of all at or under the path, those one level down.
    std::vector<const void *> Walk(const std::string &directory) const {
        const auto own = std::find_if(entries_.begin(), entries_.end(),
                                      [&](const Listed &entry) { return entry.path == directory; });
        const auto below = atOrBelow(directory);
        std::vector<const void *> children;
        if (own == entries_.end() || !own->isDirectory || below.size() < 2) {
            return children;
        }
        const auto depth = directory.empty() ? 0 : slashesIn(directory) + 1;
        for (const Listed &entry : below) {
            if (!entry.path.empty() && slashesIn(entry.path) == depth) {
                children.push_back(entry.entry);
            }
        }
        return children;
    }

    Paths Directories() const {
        Paths paths;
        for (const Listed &entry : entries_) {
            paths.push_back(entry.path);
        }
        return paths;
    }

  private:
    struct Listed {
        std::string path;
        bool isDirectory;
        const void *entry;
    };

    std::vector<Listed> atOrBelow(const std::string &path) const {
        const Paths wanted = componentsOf(path);
        std::vector<Listed> below;
        std::copy_if(
            entries_.begin(), entries_.end(), std::back_inserter(below), [&](const Listed &entry) {
                const Paths given = componentsOf(entry.path);
                return path.empty() || (given.size() >= wanted.size() &&
                                        std::equal(wanted.begin(), wanted.end(), given.begin()));
            });
        return below;
    }

    Editable container_ = Editable::Empty();
    std::vector<Listed> entries_;
    CF::Array array_ = CF::Array::Mutable();
};

// Slashes where they should not be, names on both sides of the slash, paths twice, and
// children whose directory has no entry.
std::string nastyPath(std::mt19937 &random) {
    static const Paths kPieces = {"a", "b", "/", "//", "a!", "a0", ".", "a/b", "\xC3\xA9"};
    std::string path;
    for (auto length = random() % 6; length > 0; --length) {
        path += kPieces[random() % kPieces.size()];
        path += random() % 2 == 0 ? "/" : "";
    }
    return path;
}

class RandomListing : public testing::TestWithParam<unsigned> {};

TEST_P(RandomListing, IsWhatAWalkOfTheDomainGives) {
    std::mt19937 random(GetParam());
    ListedTree tree;
    tree.Add("", true);
    for (int i = 0; i < 250; ++i) {
        tree.Add(nastyPath(random), random() % 3 != 0);
    }
    tree.Apply();
    std::size_t listed = 0;
    for (const std::string &path : tree.Directories()) {
        const auto children = tree.List(path);
        EXPECT_EQ(children, tree.Walk(path)) << path;
        listed += children.size();
    }
    EXPECT_GT(listed, 50U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomListing, testing::Range(0U, 10U));

TEST(DirectoryListing, FindsChildrenOfADirectoryAmongManyDeepOnes) {
    ListedTree tree;
    tree.Add("", true);
    for (int i = 0; i < 20; ++i) {
        const std::string name = "d" + std::to_string(i);
        tree.Add(name, true);
        for (int k = 0; k < 100; ++k) {
            tree.Add(name + "/x/" + std::to_string(k), false);
        }
    }
    tree.Apply();
    EXPECT_EQ(tree.List("").size(), 20U);
    EXPECT_TRUE(tree.List("d7").empty());
    EXPECT_TRUE(tree.List("d7/x").empty());
}

TEST(DirectoryListing, OfNothingIsAnEmptyArray) {
    ListedTree tree;
    tree.Add("empty", true);
    tree.Add("", true);
    tree.Apply();
    const auto container = Editable::Empty();
    const auto children = CF::Array::Adopt(KVBackupContainerCopyEntriesContainedInDirectoryAtPath(
        container.get(), CFSTR("D"), CFSTR("")));
    EXPECT_TRUE(children);
    EXPECT_TRUE(tree.List("empty").empty());
    EXPECT_EQ(tree.List("").size(), 1U);
}

} // namespace
} // namespace container_tests
