// Which entries of an edited container still stand for a row of its source.
#include "tests/container/EditFixture.hpp"

#include "manifest/KVManifestClass.hpp"
#include "manifest/KVManifestEntryClass.hpp"

namespace container_tests {
namespace {

enum class Standing { None, AsRead, Changed };

Standing StandingOf(const Editable &backup, const std::string &domain, const std::string &path) {
    const auto *const entry = backup.Entry(domain, path);
    if (entry == nullptr || backup.manifest()->source == nullptr ||
        !entry->origin.IsOf(backup.manifest()->source->Reading())) {
        return Standing::None;
    }
    return entry->origin.IsChanged() ? Standing::Changed : Standing::AsRead;
}

struct Place {
    std::string domain;
    std::string path;
    explicit Place(const nlohmann::json &entry)
        : domain(entry.at("domain")), path(entry.at("path")) {}
};

std::uint32_t OrdinalOf(const Editable &backup, const Place &place) {
    return backup.Entry(place.domain, place.path)->origin.Ordinal();
}

TEST(EntryOrigin, StaysWhenContentIsRead) {
    const Editable backup = Editable::Sample(kEncrypted);
    const Place place(FindFileOfClass(kEncrypted, 3));
    backup.Content(place.domain, place.path);
    EXPECT_EQ(StandingOf(backup, place.domain, place.path), Standing::AsRead);
}

TEST(EntryOrigin, IsTakenOverByAReplacedFile) {
    for (const auto store : {&Editable::Replace, &Editable::Store}) {
        const Editable backup = Editable::Sample(kPlain);
        const Place place(FindFileOfClass(kPlain, 3));
        const std::uint32_t ordinal = OrdinalOf(backup, place);
        backup.Entry(place.domain, place.path)->recordFlags = 128;
        EXPECT_FALSE((backup.*store)(place.domain, place.path, "new"));
        EXPECT_EQ(StandingOf(backup, place.domain, place.path), Standing::Changed);
        EXPECT_EQ(OrdinalOf(backup, place), ordinal);
        EXPECT_EQ(backup.Entry(place.domain, place.path)->recordFlags, 128);
    }
}

TEST(EntryOrigin, IsTakenOverByAReplacedLink) {
    const Editable backup = Editable::Sample(kPlain);
    const Place place(FindOfType(kPlain, "symlink"));
    const std::uint32_t ordinal = OrdinalOf(backup, place);
    EXPECT_NE(backup.Link(place.domain, place.path, "elsewhere"), nullptr);
    EXPECT_EQ(StandingOf(backup, place.domain, place.path), Standing::Changed);
    EXPECT_EQ(OrdinalOf(backup, place), ordinal);
}

TEST(EntryOrigin, IsNotOfWhatIsNew) {
    const Editable backup = Editable::Sample(kPlain);
    EXPECT_FALSE(backup.Store("D", "a/b", "new"));
    EXPECT_EQ(StandingOf(backup, "D", "a/b"), Standing::None);
    EXPECT_EQ(StandingOf(backup, "D", "a"), Standing::None);
}

TEST(EntryOrigin, IsNotOfAnotherBackup) {
    const Editable from = Editable::Sample(kPlain);
    const Editable to = Editable::Sample(kBinary);
    const Place place(FindFileOfClass(kPlain, 3));
    const auto *const entry =
        KVBackupContainerAddEntry(to.get(), from.Entry(place.domain, place.path), nullptr);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->origin.Ordinal(), 0U);
    EXPECT_FALSE(entry->origin.IsOf(from.manifest()->source->Reading()));
}

TEST(EntryOrigin, IsMarkedByANewKey) {
    const Editable backup = Editable::Sample(kEncrypted);
    const Place place(FindFileOfClass(kEncrypted, 3));
    const CF::Error error = backup.Replace(place.domain, place.path, "new");
    EXPECT_FALSE(error);
    const auto *const entry = backup.Entry(place.domain, place.path);
    EXPECT_TRUE(entry->origin.IsChanged());
    EXPECT_EQ(CFDataGetLength(entry->encryptionData.get()), 44);
}

TEST(EntryOrigin, IsKeptByTheCopyOfAContainer) {
    const Editable backup = Editable::Sample(kPlain);
    const auto copy = CF::Adopt(KVBackupContainerCreateCopy(kCFAllocatorDefault, backup.get()));
    EXPECT_EQ(KVBackupContainerGetManifest(copy.get())->source, backup.manifest()->source);
}

} // namespace
} // namespace container_tests
