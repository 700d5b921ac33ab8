#include "Kelvane/SharedState.hpp"

#include "support/zk/Log.hpp"
#include "tests/support/FreshProcess.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>

#include <sys/stat.h>

namespace {

using testing_support::TemporaryDirectory;

bool set(const std::string &path) { return KelvaneSetTemporaryPath(CF::String(path).get()) != 0; }

std::string copied() { return CF::String::Adopt(KelvaneCopyTemporaryPath()).GetUTF8(); }

::mode_t modeOf(const ZK::filesystem::path &path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 0777;
}

void expectNotSet() {
    EXPECT_EQ(KelvaneCopyTemporaryPath(), nullptr);
    try {
        Kelvane::GetTemporaryPath();
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ(error.what(), "Temporary storage path not set");
    }
    try {
        Kelvane::GetTemporaryPathString();
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ(error.what(), "Temporary storage path not set");
    }
}

TEST(TemporaryPath, IsNotSetAtFirst) { EXPECT_PASSES_IN_FRESH_PROCESS(expectNotSet()); }

void refuseEmptyPaths() {
    EXPECT_FALSE(set(""));
    EXPECT_FALSE(KelvaneSetTemporaryPath(nullptr));
    expectNotSet();
}

TEST(TemporaryPath, RefusesAnEmptyOne) { EXPECT_PASSES_IN_FRESH_PROCESS(refuseEmptyPaths()); }

void setOnce() {
    const TemporaryDirectory directory;
    const std::string first = (directory / "first").string();
    EXPECT_TRUE(set(first));
    EXPECT_TRUE(set(first));
    EXPECT_FALSE(set((directory / "second").string()));
    EXPECT_FALSE(set(""));
    EXPECT_FALSE(boost::filesystem::exists(directory / "second"));
    EXPECT_EQ(copied(), first);
    EXPECT_EQ(Kelvane::GetTemporaryPath(), first);
    EXPECT_EQ(Kelvane::GetTemporaryPathString().GetUTF8(), first);
}

TEST(TemporaryPath, IsSetOnceAndStays) { EXPECT_PASSES_IN_FRESH_PROCESS(setOnce()); }

void createPrivately() {
    const TemporaryDirectory directory;
    ::umask(0);
    EXPECT_TRUE(set((directory / "a/b/c").string()));
    for (const char *made : {"a", "a/b", "a/b/c"}) {
        EXPECT_EQ(modeOf(directory / made), 0700U) << made;
    }
}

TEST(TemporaryPath, IsCreatedPrivatelyWithItsParents) {
    EXPECT_PASSES_IN_FRESH_PROCESS(createPrivately());
}

void leaveExistingAlone() {
    const TemporaryDirectory directory;
    const auto path = directory / "there";
    boost::filesystem::create_directory(path);
    EXPECT_EQ(::chmod(path.c_str(), 0750), 0);
    EXPECT_TRUE(set(path.string()));
    EXPECT_EQ(modeOf(path), 0750U);
}

TEST(TemporaryPath, LeavesAnExistingDirectoryAlone) {
    EXPECT_PASSES_IN_FRESH_PROCESS(leaveExistingAlone());
}

void failAndTryAgain() {
    const TemporaryDirectory directory;
    directory.write("file", "in the way");
    EXPECT_FALSE(set((directory / "file/below").string()));
    EXPECT_FALSE(set((directory / "file").string()));
    expectNotSet();
    EXPECT_TRUE(set((directory / "good").string()));
}

TEST(TemporaryPath, IsNotSetWhenItCannotBeCreated) {
    EXPECT_PASSES_IN_FRESH_PROCESS(failAndTryAgain());
}

void refuseNul() {
    const TemporaryDirectory directory;
    EXPECT_FALSE(set((directory / "a").string() + std::string("\0b", 2)));
    EXPECT_FALSE(boost::filesystem::exists(directory / "a"));
    expectNotSet();
}

TEST(TemporaryPath, RefusesANulCharacter) { EXPECT_PASSES_IN_FRESH_PROCESS(refuseNul()); }

void copyMutableStrings() {
    const TemporaryDirectory directory;
    const CF::String given(directory.path().string());
    CFMutableStringRef text = CFStringCreateMutableCopy(kCFAllocatorDefault, 0, given.get());
    EXPECT_TRUE(KelvaneSetTemporaryPath(text));
    CFStringAppend(text, CFSTR("/changed"));
    CFRelease(text);
    EXPECT_EQ(copied(), directory.path().string());
}

TEST(TemporaryPath, DoesNotChangeWithTheCallersString) {
    EXPECT_PASSES_IN_FRESH_PROCESS(copyMutableStrings());
}

TEST(TemporaryPath, TheCopyIsTheCallersToChange) {
    const std::string path = testing_support::LibraryTemporaryPath().string();
    CFMutableStringRef copy = KelvaneCopyTemporaryPath();
    CFStringAppend(copy, CFSTR("/more"));
    EXPECT_EQ(CF::String::GetUTF8(copy), path + "/more");
    CFRelease(copy);
    EXPECT_EQ(copied(), path);
}

TEST(TemporaryPath, NonASCIIPathsAreUTF8OnDisk) {
    EXPECT_PASSES_IN_FRESH_PROCESS({
        const TemporaryDirectory directory;
        const std::string path = (directory / "gr\xC3\xBC\xC3\x9F\x65 \xF0\x9F\x93\xB1").string();
        EXPECT_TRUE(set(path));
        EXPECT_TRUE(boost::filesystem::is_directory(path));
        EXPECT_EQ(copied(), path);
    });
}

TEST(SharedMutex, IsOneAndFreeAfterEveryCall) {
    testing_support::LibraryTemporaryPath();
    Kelvane::GetTemporaryPath();
    EXPECT_EQ(&Kelvane::SharedMutex(), &Kelvane::SharedMutex());
    std::thread([] {
        ASSERT_TRUE(Kelvane::SharedMutex().try_lock());
        Kelvane::SharedMutex().unlock();
    }).join();
}

TEST(LogDomain, IsThatOfTheLibrary) {
    EXPECT_EQ(Kelvane::GetLogDomain(), ZLLogGetIdentifierForDomain(CFSTR("Kelvane")));
}

} // namespace
