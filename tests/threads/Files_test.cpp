// The file store under several threads.
#include "tests/filestore/StoreFixture.hpp"
#include "tests/support/Bytes.hpp"
#include "tests/threads/AtOnce.hpp"

#include "KVFile.h"
#include "Kelvane/FileManager.hpp"

#include <set>
#include <string>
#include <vector>

namespace {

using namespace testing_support;
using threads_tests::AtOnce;
using threads_tests::kThreads;

constexpr int kRounds = 25;

class Files : public Store {};

TEST_F(Files, AreMadeFromDataByAllThreads) {
    AtOnce([](int number) {
        for (int i = 0; i < kRounds; ++i) {
            const Bytes content = Pattern(static_cast<std::size_t>(1000 * number + i));
            const auto file = fileOf(content);
            EXPECT_EQ(Contents(file), content);
        }
    });
}

TEST_F(Files, OfOneContentShareItsCount) {
    const Bytes content = Pattern(5000);
    std::vector<OwnedFile> kept(kThreads);
    AtOnce([&](int number) {
        for (int i = 0; i < kRounds; ++i) {
            const auto file = fileOf(content);
            const auto copy = CF::Adopt(KVFileCreateCopy(file.get()));
            EXPECT_GE(countOf(copy), 2U);
            EXPECT_EQ(KVFileGetHash(copy.get()), KVFileGetHash(file.get()));
            kept[static_cast<std::size_t>(number)] = copy;
        }
    });
    EXPECT_EQ(countOf(kept.front()), static_cast<std::uint32_t>(kThreads));
    const std::vector<std::uint8_t> hash = KVFileGetReferenceHash(kept.front().get());
    kept.clear();
    EXPECT_EQ(Kelvane::FileManager::ReferenceCount(hash), 0U);
}

TEST_F(Files, AtOnePathAreOpenedAndReadByAllThreads) {
    const Bytes content = Pattern(100000);
    const auto path = directory.write("file", content);
    AtOnce([&](int) {
        for (int i = 0; i < kRounds; ++i) {
            const auto file = fileAt(path);
            EXPECT_EQ(Contents(file, 3000), content);
            EXPECT_EQ(KVFileGetSize(file.get()), content.size());
        }
    });
}

TEST_F(Files, AreDecryptedByEachThreadWithItsOwnCopy) {
    const Bytes plain = Pattern(70000);
    const auto encrypted = fileOf(Encrypted(plain, KeyOf(9)));
    AtOnce([&](int) {
        const auto copy = CF::Adopt(KVFileCreateCopy(encrypted.get()));
        KVFileEnableDecryption(copy.get(), KeyOf(9));
        EXPECT_EQ(Contents(copy), plain);
    });
}

TEST_F(Files, AreCopiedIntoTheStoreByAllThreads) {
    // A directory link's target is regular: what is copied is never the same place.
    const auto path = directory.write("file", Pattern(3000));
    AtOnce([&](int) {
        for (int i = 0; i < kRounds; ++i) {
            const auto file = CF::Adopt(
                KVFileCreateFromFileAtPath(CF::String(path.string()).get(), true, nullptr));
            EXPECT_EQ(Contents(file), Pattern(3000));
        }
    });
}

TEST_F(Files, AreAppendedToEachByItsThread) {
    AtOnce([](int number) {
        const auto file = appendable();
        Bytes wanted;
        for (int i = 0; i < kRounds; ++i) {
            const Bytes piece = Pattern(static_cast<std::size_t>(100 + number));
            append(file, piece);
            wanted.insert(wanted.end(), piece.begin(), piece.end());
        }
        EXPECT_TRUE(KVFileFinalizeAppendable(file.get(), nullptr));
        EXPECT_EQ(Contents(file), wanted);
    });
}

TEST_F(Files, GetPlacesOfTheirOwnInTheStore) {
    std::vector<std::set<std::string>> places(kThreads);
    AtOnce([&](int number) {
        for (int i = 0; i < 100; ++i) {
            places[static_cast<std::size_t>(number)].insert(
                Kelvane::FileManager::GetStorageLocationForFile().string());
        }
    });
    std::set<std::string> all;
    for (const auto &some : places) {
        all.insert(some.begin(), some.end());
    }
    EXPECT_EQ(all.size(), static_cast<std::size_t>(kThreads) * 100);
}

TEST_F(Files, AreReadWhileTheLimitOfMemoryChanges) {
    namespace FileManager = Kelvane::FileManager;
    const std::uint64_t before = FileManager::GetMaxMemorySize();
    const auto file = fileOf(Pattern(2000));
    AtOnce([&](int number) {
        for (int i = 0; i < 200; ++i) {
            if (number == 0) {
                FileManager::SetMaxMemorySize(static_cast<unsigned long>(1000 + i % 2 * 2000));
            } else if (const auto quick = KVFileGetDataQuickly(file.get())) {
                EXPECT_EQ(*quick, Pattern(2000));
            }
        }
    });
    FileManager::SetMaxMemorySize(before);
}

} // namespace
