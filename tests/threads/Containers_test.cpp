// A backup a thread, all at once, over what the process shares: the store, the log, the classes.
#include "tests/container/BackupFixture.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/threads/AtOnce.hpp"

#include <array>
#include <atomic>

namespace {

using namespace container_tests;
using threads_tests::AtOnce;

constexpr std::array<const char *, 4> kSamples = {kEncrypted, kPlain, kBinary, kZip};

const char *sampleOf(int number) {
    return kSamples[static_cast<std::size_t>(number) % kSamples.size()];
}

// Every file of the backup has the content that its generator wrote down.
void checkContents(const Opened &backup, const nlohmann::json &expected) {
    int files = 0;
    for (const auto &entry : expected.at("entries")) {
        if (entry.at("type") != "file" || entry.at("damaged")) {
            continue;
        }
        const CopiedFile copied = CopyFileForPath(backup, entry.at("domain"), entry.at("path"));
        ASSERT_TRUE(copied.file) << entry;
        EXPECT_EQ(SHA256(ReadContent(copied.file.get())), entry.at("sha256")) << entry;
        ++files;
    }
    EXPECT_GT(files, 0);
}

TEST(Containers, AreOpenedAndReadEachByItsThread) {
    testing_support::LibraryTemporaryPath();
    AtOnce([](int number) {
        const Opened backup = OpenSample(sampleOf(number));
        ASSERT_TRUE(backup.container) << sampleOf(number);
        checkContents(backup, Expectations(sampleOf(number)));
    });
}

TEST(Containers, OfOneBackupDoNotDisturbEachOther) {
    testing_support::LibraryTemporaryPath();
    AtOnce([](int) {
        const Opened backup = OpenSample(kEncrypted);
        ASSERT_TRUE(backup.container);
        checkContents(backup, Expectations(kEncrypted));
    });
}

void edit(KVBackupContainerClass *backup, const std::string &text) {
    CFErrorRef error = nullptr;
    const std::vector<std::uint8_t> bytes(text.begin(), text.end());
    const File file(CF::adopt, KVFileCreateFromData(bytes, &error));
    ASSERT_TRUE(file) << CF::Error::Adopt(error).GetDescription().GetUTF8();
    EXPECT_TRUE(KVBackupContainerStoreFileForPath(backup, CFSTR("HomeDomain"), CFSTR("New/file"),
                                                  file.get(), &error));
    EXPECT_NE(KVBackupContainerCreateSymlinkAtPath(backup, CFSTR("HomeDomain"), CFSTR("New/link"),
                                                   CFSTR("file")),
              nullptr);
}

TEST(Containers, AreEditedAndWrittenEachByItsThread) {
    testing_support::LibraryTemporaryPath();
    const testing_support::TemporaryDirectory directory;
    AtOnce([&](int number) {
        const Opened backup = OpenSample(sampleOf(number));
        ASSERT_TRUE(backup.container);
        const std::string text = "written by thread " + std::to_string(number);
        edit(backup.get(), text);
        const bool zip = number % 2 == 1;
        const std::string path =
            (directory / std::to_string(number)).string() + (zip ? ".zip" : "");
        const CF::String name(path);
        ASSERT_TRUE(zip ? KVBackupContainerExportToZip(backup.get(), name, nullptr)
                        : KVBackupContainerExportToDirectory(backup.get(), name, nullptr));
        OpenArguments arguments;
        if (KVBackupContainerIsEncrypted(backup.get())) {
            arguments = {SamplePassword(), kKVBackupOpenKeepDeviceBoundKeysLocked, {}};
        }
        const Opened again = OpenPath(path, arguments);
        ASSERT_TRUE(again.container) << path;
        const CopiedFile copied = CopyFileForPath(again, "HomeDomain", "New/file");
        ASSERT_TRUE(copied.file);
        const auto content = ReadContent(copied.file.get());
        EXPECT_EQ(std::string(content.begin(), content.end()), text);
    });
}

TEST(Containers, AreCopiedAndTheCopiesUsedByOtherThreads) {
    const Opened backup = OpenSample(kPlain);
    ASSERT_TRUE(backup.container);
    std::vector<Container> copies;
    for (int i = 0; i < threads_tests::kThreads; ++i) {
        copies.emplace_back(CF::adopt, KVBackupContainerCreateCopy(nullptr, backup.get()));
    }
    AtOnce([&](int number) {
        const Opened copy{copies[static_cast<std::size_t>(number)], {}};
        checkContents(copy, Expectations(kPlain));
    });
}

TEST(Containers, FailToOpenOnAllThreadsAlike) {
    AtOnce([](int number) {
        for (int i = 0; i < 10; ++i) {
            const Opened backup = OpenPath("/nonexistent/" + std::to_string(number));
            EXPECT_FALSE(backup.container);
            ASSERT_TRUE(backup.error);
            EXPECT_FALSE(backup.error.GetDescription().GetUTF8().empty());
        }
    });
}

} // namespace
