// Classes that several threads need first at the same moment.
//
// A class is registered once a process; CTest runs each test in a process of its own.
#include "Kelvane.h"
#include "support/cf/CF.hpp"
#include "tests/threads/AtOnce.hpp"
#include <CoreFoundation/CFRuntime.h>

#include <array>
#include <cstring>
#include <set>

namespace {

using threads_tests::AtOnce;
using threads_tests::kThreads;

using TypeIDs = std::array<CFTypeID, 4>;

// In another order on each thread, so that each class is raced for.
TypeIDs typeIDsFrom(int first) {
    constexpr std::array<CFTypeID (*)(), 4> kGetters = {&KVFileGetTypeID, &KVManifestEntryGetTypeID,
                                                        &KVManifestGetTypeID,
                                                        &KVBackupContainerGetTypeID};
    TypeIDs found{};
    for (std::size_t i = 0; i < found.size(); ++i) {
        const std::size_t which = (i + static_cast<std::size_t>(first)) % found.size();
        found[which] = kGetters[which]();
    }
    return found;
}

TEST(TypeRegistration, GivesEveryThreadTheSameIdentifiers) {
    std::array<TypeIDs, kThreads> found{};
    AtOnce([&](int number) { found[static_cast<std::size_t>(number)] = typeIDsFrom(number); });
    for (const TypeIDs &ids : found) {
        EXPECT_EQ(ids, found.front());
    }
    const TypeIDs &ids = found.front();
    EXPECT_EQ(std::set<CFTypeID>(ids.begin(), ids.end()).size(), ids.size());
}

TEST(TypeRegistration, ShowsEveryThreadAWholeClass) {
    AtOnce([](int number) {
        const TypeIDs ids = typeIDsFrom(number);
        constexpr TypeIDs::size_type kContainer = 3;
        EXPECT_STREQ(_CFRuntimeGetClassWithTypeID(ids[0])->className, "KVFile");
        EXPECT_STREQ(_CFRuntimeGetClassWithTypeID(ids[kContainer])->className,
                     "KVBackupContainerRef");
    });
}

TEST(TypeRegistration, MakesInstancesOnAllThreadsAtOnce) {
    AtOnce([](int) {
        const auto manifest = CF::Adopt(KVManifestCreateEmpty(nullptr));
        const auto entry =
            CF::Adopt(KVManifestEntryCreateForDirectory(nullptr, CFSTR("D"), CFSTR("p")));
        const auto file = CF::Adopt(_KVFileAllocInit());
        EXPECT_EQ(CFGetTypeID(manifest.get()), KVManifestGetTypeID());
        EXPECT_EQ(CFGetTypeID(entry.get()), KVManifestEntryGetTypeID());
        EXPECT_EQ(CFGetTypeID(file.get()), KVFileGetTypeID());
    });
}

} // namespace
