#include "tests/manifest/ManifestFixtures.hpp"

#include <random>

using namespace manifest_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

Lines AtOrBelow(const ManifestPointer &manifest, std::string_view path) {
    return PathsOf(
        CF::Array::Adopt(KVManifestCopyEntriesAtPath(manifest.get(), CFSTR("D"), Text(path))));
}

const KVManifestEntryClass *Matching(const ManifestPointer &manifest, std::string_view path) {
    return KVManifestGetEntryMatchingPath(manifest.get(), CFSTR("D"), Text(path));
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

bool BeginsWithComponents(const std::string &path, const std::string &prefix) {
    const Lines wanted = Components(prefix);
    const Lines given = Components(path);
    return given.size() >= wanted.size() && std::equal(wanted.begin(), wanted.end(), given.begin());
}

// Paths that share prefixes and hold every separator oddity.
std::string RandomPath(std::mt19937 &random) {
    static const Lines kPieces = {
        "a", "b", "/", "//", "a!", "a0", ".", "\xC3\xA9", "\xF0\x9F\x98\x80"};
    std::string path;
    for (auto length = random() % 6; length > 0; --length) {
        path += kPieces[random() % kPieces.size()];
    }
    return path;
}

} // namespace

TEST(ManifestPaths, FindThePathAndWhatLiesBelowInManifestOrder) {
    const auto manifest = ManifestOfPaths({"z", "a/b/c", "a/b", "a", "a/bc", "a!", "a/b/d/e"});
    EXPECT_THAT(AtOrBelow(manifest, "a/b"), ElementsAre("a/b/c", "a/b", "a/b/d/e"));
    EXPECT_THAT(AtOrBelow(manifest, "a"), ElementsAre("a/b/c", "a/b", "a", "a/bc", "a/b/d/e"));
    EXPECT_THAT(AtOrBelow(manifest, "a/b/d"), ElementsAre("a/b/d/e"));
    EXPECT_THAT(AtOrBelow(manifest, "A"), IsEmpty());
}

TEST(ManifestPaths, EmptyPathFindsTheWholeDomain) {
    const auto manifest = ManifestOfPaths({"", "b", "a/c"});
    EXPECT_THAT(AtOrBelow(manifest, ""), ElementsAre("", "b", "a/c"));
    const auto all =
        CF::Array::Adopt(KVManifestCopyEntriesAtPath(manifest.get(), CFSTR("D"), nullptr));
    EXPECT_EQ(all.GetCount(), 3);
}

TEST(ManifestPaths, TrailingSlashIsAnEmptyComponent) {
    const auto manifest = ManifestOfPaths({"a", "a/", "a/b", "a//b"});
    EXPECT_THAT(AtOrBelow(manifest, "a/"), ElementsAre("a/", "a//b"));
    EXPECT_THAT(AtOrBelow(manifest, "a"), ElementsAre("a", "a/", "a/b", "a//b"));
}

TEST(ManifestPaths, LeadingSlashIsAnEmptyComponent) {
    const auto manifest = ManifestOfPaths({"/", "/a", "a", "//x"});
    EXPECT_THAT(AtOrBelow(manifest, "/"), ElementsAre("/", "//x"));
}

TEST(ManifestPaths, MatchOnlyTheExactPath) {
    const auto manifest = ManifestOfPaths({"a/b", "a", ""});
    EXPECT_EQ(Matching(manifest, "a"), EntryAt(KVManifestGetEntries(manifest.get()), 1));
    EXPECT_EQ(Matching(manifest, ""), EntryAt(KVManifestGetEntries(manifest.get()), 2));
    EXPECT_EQ(Matching(manifest, "a/"), nullptr);
    EXPECT_EQ(Matching(manifest, "A"), nullptr);
    EXPECT_EQ(KVManifestGetEntryMatchingPath(manifest.get(), CFSTR("E"), CFSTR("a")), nullptr);
    EXPECT_EQ(KVManifestGetEntryMatchingPath(manifest.get(), nullptr, CFSTR("a")), nullptr);
    EXPECT_EQ(KVManifestGetEntryMatchingPath(manifest.get(), CFSTR("D"), nullptr), nullptr);
}

TEST(ManifestPaths, MatchTheFirstOfEqualPaths) {
    const auto manifest = ManifestOfPaths({"b", "a", "a", "a"});
    EXPECT_EQ(Matching(manifest, "a"), EntryAt(KVManifestGetEntries(manifest.get()), 1));
}

TEST(ManifestPaths, ComposedAndDecomposedLettersDiffer) {
    const auto manifest = ManifestOfPaths({"\xC3\xA9", "e\xCC\x81"});
    EXPECT_EQ(Matching(manifest, "e\xCC\x81"), EntryAt(KVManifestGetEntries(manifest.get()), 1));
    EXPECT_THAT(AtOrBelow(manifest, "\xC3\xA9"), ElementsAre("\xC3\xA9"));
}

TEST(ManifestPaths, NulIsACharacterLikeAnother) {
    const std::string path("a\0b", 3);
    const auto manifest = ManifestOfPaths({"a", path, "a/x"});
    EXPECT_EQ(Matching(manifest, path), EntryAt(KVManifestGetEntries(manifest.get()), 1));
    EXPECT_THAT(AtOrBelow(manifest, "a"), ElementsAre("a", "a/x"));
}

TEST(ManifestPaths, LoneSurrogatesAreToldApart) {
    const UniChar high = 0xD800;
    const UniChar higher = 0xD801;
    const auto a = CF::String::Adopt(CFStringCreateWithCharacters(nullptr, &high, 1));
    const auto b = CF::String::Adopt(CFStringCreateWithCharacters(nullptr, &higher, 1));
    auto entry = MakeEntry("D", "");
    Kelvane::SetEntryPath(*entry.get(), CFSTR("D"), b);
    const auto manifest = MakeManifest({entry});
    EXPECT_EQ(KVManifestGetEntryMatchingPath(manifest.get(), CFSTR("D"), a), nullptr);
    EXPECT_EQ(KVManifestGetEntryMatchingPath(manifest.get(), CFSTR("D"), b), entry.get());
}

TEST(ManifestPaths, DomainNameMayChangeAfterTheLookup) {
    const auto manifest = ManifestOfPaths({"a"});
    const auto domain = CF::Adopt(CFStringCreateMutableCopy(nullptr, 0, CFSTR("D")));
    EXPECT_NE(KVManifestGetEntryMatchingPath(manifest.get(), domain.get(), CFSTR("a")), nullptr);
    CFStringAppend(domain.get(), CFSTR("X"));
    EXPECT_NE(Matching(manifest, "a"), nullptr);
}

TEST(ManifestPaths, AgreeWithComparingComponentsOneByOne) {
    std::mt19937 random(20);
    Lines paths;
    for (int i = 0; i < 400; ++i) {
        paths.push_back(RandomPath(random));
    }
    const auto manifest = ManifestOfPaths(paths);
    for (int i = 0; i < 300; ++i) {
        const std::string wanted = RandomPath(random);
        SCOPED_TRACE(wanted);
        Lines below;
        for (const auto &path : paths) {
            if (wanted.empty() || BeginsWithComponents(path, wanted)) {
                below.push_back(path);
            }
        }
        EXPECT_EQ(AtOrBelow(manifest, wanted), below);
        const auto first = std::find(paths.begin(), paths.end(), wanted);
        EXPECT_EQ(Matching(manifest, wanted),
                  first == paths.end()
                      ? nullptr
                      : EntryAt(KVManifestGetEntries(manifest.get()), first - paths.begin()));
    }
}
