#include "manifest/PathIndex.hpp"

#include "tests/manifest/ManifestFixtures.hpp"

#include <algorithm>
#include <random>

using namespace manifest_test;
using Kelvane::EntryPosition;
using Kelvane::EntryTable;
using Kelvane::PathIndex;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Positions = std::vector<EntryPosition>;

// A table and the index of all that is in it, changed together.
class Tree {
  public:
    explicit Tree(const Lines &paths) {
        for (const std::string &path : paths) {
            table_.Append(MakeEntry("D", path).get());
        }
        index_.emplace(table_, table_.Positions());
    }

    void Add(const std::string &path) {
        table_.Append(MakeEntry("D", path).get());
        index_->Add(table_, table_.End() - 1);
    }
    void Remove(const Positions &positions) {
        index_->Remove(table_, positions);
        for (const EntryPosition position : positions) {
            table_.Remove(position);
        }
    }
    void Compact() { index_->Renumber(table_.Compact()); }
    Positions AtOrBelow(const std::string &path) const {
        return index_->AtOrBelow(table_, Text(path));
    }
    Positions Children(const std::string &path) const {
        return index_->Children(table_, Text(path));
    }
    const EntryTable &table() const { return table_; }
    std::string PathAt(EntryPosition position) const {
        return Plain(KVManifestEntryGetPath(table_.At(position)));
    }

  private:
    EntryTable table_;
    std::optional<PathIndex> index_;
};

// Some thousand paths, with much in common and many of them twice.
std::string DeepPath(std::mt19937 &random) {
    std::string path = std::to_string(random() % 4);
    for (auto depth = random() % 5; depth > 0; --depth) {
        path += "/" + std::to_string(random() % 12);
    }
    return path;
}

Lines DeepPaths(std::mt19937 &random, int count) {
    Lines paths;
    for (int i = 0; i < count; ++i) {
        paths.push_back(DeepPath(random));
    }
    return paths;
}

void CompareWithWalk(const Tree &tree, const std::string &directory) {
    SCOPED_TRACE(directory);
    const std::string prefix = directory.empty() ? "" : directory + "/";
    Positions below, children;
    for (const EntryPosition position : tree.table().Positions()) {
        const std::string path = tree.PathAt(position);
        const bool inside = path.starts_with(prefix);
        if (inside || path == directory) {
            below.push_back(position);
        }
        if (inside && !path.empty() && path.find('/', prefix.size()) == std::string::npos) {
            children.push_back(position);
        }
    }
    EXPECT_EQ(tree.Children(directory), children);
    if (!directory.empty()) {
        EXPECT_EQ(tree.AtOrBelow(directory), below);
    }
}

void CompareWithWalk(const Tree &tree, std::mt19937 &random) {
    CompareWithWalk(tree, "");
    for (int i = 0; i < 12; ++i) {
        CompareWithWalk(tree, DeepPath(random));
    }
}

Positions Sample(const Tree &tree, std::mt19937 &random, std::size_t count) {
    const Positions all = tree.table().Positions();
    Positions sample;
    std::sample(all.begin(), all.end(), std::back_inserter(sample), count, random);
    return sample;
}

} // namespace

TEST(PathIndex, FindsNothingWhenEmpty) {
    const Tree tree({});
    EXPECT_THAT(tree.AtOrBelow("a"), IsEmpty());
    EXPECT_THAT(tree.Children(""), IsEmpty());
}

TEST(PathIndex, ChildrenAreOneComponentFurther) {
    const Tree tree({"a/c", "a", "a/b/x", "a!", "ab", "a/b", "", "b/y/z", "a/c"});
    EXPECT_THAT(tree.Children("a"), ElementsAre(0U, 5U, 8U));
    EXPECT_THAT(tree.Children(""), ElementsAre(1U, 3U, 4U));
    EXPECT_THAT(tree.Children("b"), IsEmpty());
    EXPECT_THAT(tree.Children("b/y"), ElementsAre(7U));
}

TEST(PathIndex, AnEmptyComponentIsAChild) {
    const Tree tree({"a/", "a//", "/", "/a", "", "//x", "a//y"});
    EXPECT_THAT(tree.Children("a"), ElementsAre(0U));
    EXPECT_THAT(tree.Children("a/"), ElementsAre(1U, 6U));
    EXPECT_THAT(tree.Children(""), IsEmpty());
    EXPECT_THAT(tree.Children("/"), ElementsAre(5U));
}

TEST(PathIndex, TakesThousandsOfPathsOneByOneInAnyOrder) {
    std::mt19937 random(1);
    Tree tree({});
    for (const std::string &path : DeepPaths(random, 4000)) {
        tree.Add(path);
    }
    CompareWithWalk(tree, random);
}

TEST(PathIndex, TakesPathsInOrderOnTopOfThoseItWasMadeOf) {
    std::mt19937 random(2);
    Lines paths = DeepPaths(random, 3000);
    Tree tree(DeepPaths(random, 3000));
    std::sort(paths.begin(), paths.end());
    for (const std::string &path : paths) {
        tree.Add(path);
    }
    CompareWithWalk(tree, random);
}

TEST(PathIndex, GivesUpPositionsOneByOneAndManyAtOnce) {
    std::mt19937 random(3);
    Tree tree(DeepPaths(random, 4000));
    for (int i = 0; i < 500; ++i) {
        tree.Remove(Sample(tree, random, 1));
    }
    CompareWithWalk(tree, random);
    tree.Remove(Sample(tree, random, 3000));
    CompareWithWalk(tree, random);
    tree.Remove(tree.table().Positions());
    CompareWithWalk(tree, random);
    tree.Add("1/2");
    CompareWithWalk(tree, random);
}

TEST(PathIndex, EmptiesBucketsOneByOne) {
    std::mt19937 random(4);
    Tree tree(DeepPaths(random, 1500));
    while (tree.table().Count() > 0) {
        tree.Remove({tree.table().Positions().front()});
        if (tree.table().Count() % 250 == 0) {
            CompareWithWalk(tree, random);
        }
    }
}

TEST(PathIndex, FollowsTheTableWhenItIsCompacted) {
    std::mt19937 random(5);
    Tree tree(DeepPaths(random, 2000));
    tree.Remove(Sample(tree, random, 1200));
    tree.Compact();
    CompareWithWalk(tree, random);
    tree.Add("0/1");
    tree.Remove({0});
    CompareWithWalk(tree, random);
}
