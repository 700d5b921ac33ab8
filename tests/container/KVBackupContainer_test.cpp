// The container as an object: class, dictionaries, copies, the wrapper.
#include "KVBackupContainer.hpp"

#include "container/KVBackupContainerClass.hpp"
#include "tests/container/BackupFixture.hpp"

#include "KVManifest.h"

#include <sys/stat.h>
#include <utility>

namespace container_tests {
namespace {

Container makeEmpty() {
    testing_support::LibraryTemporaryPath();
    return Container(CF::adopt, KVBackupContainerCreateEmpty(nullptr, nullptr));
}

TEST(KVBackupContainer, HasOneTypeIdentifierOfItsOwn) {
    const CFTypeID type = KVBackupContainerGetTypeID();
    EXPECT_EQ(KVBackupContainerGetTypeID(), type);
    EXPECT_EQ(CFGetTypeID(makeEmpty().get()), type);
    for (const CFTypeID other :
         {KVFileGetTypeID(), KVManifestGetTypeID(), KVManifestEntryGetTypeID()}) {
        EXPECT_NE(other, type);
    }
}

TEST(KVBackupContainer, HasTheDefaultDescriptionUnlessItIsAZip) {
    for (const Container &container : {makeEmpty(), OpenSample(kPlain).container}) {
        const auto text = CF::String::Adopt(CFCopyDescription(container.get())).GetUTF8();
        EXPECT_NE(text.find("KVBackupContainerRef"), std::string::npos) << text;
        EXPECT_EQ(text.find("(Zip)"), std::string::npos) << text;
    }
}

TEST(KVBackupContainer, EqualsOnlyItself) {
    const Opened one = OpenSample(kPlain);
    const Opened other = OpenSample(kPlain);
    EXPECT_TRUE(CFEqual(one.get(), one.get()));
    EXPECT_FALSE(CFEqual(one.get(), other.get()));
}

TEST(EmptyContainer, HoldsNothingAndIsNotEncrypted) {
    const Container container = makeEmpty();
    KVManifestClass *manifest = KVBackupContainerGetManifest(container.get());
    ASSERT_NE(manifest, nullptr);
    EXPECT_EQ(CFArrayGetCount(KVManifestGetEntries(manifest)), 0);
    EXPECT_FALSE(KVBackupContainerIsEncrypted(container.get()));
    EXPECT_EQ(CFDictionaryGetCount(KVBackupContainerGetManifestDict(container.get())), 0);
    EXPECT_EQ(KVBackupContainerGetBaseDirectory(container.get()), nullptr);
    EXPECT_EQ(KVBackupContainerGetTotalFileCount(container.get()), 4);
}

TEST(EmptyContainer, HasAPrivateWorkingDirectory) {
    const Container container = makeEmpty();
    struct stat status;
    ASSERT_EQ(stat(container.get()->sourcePath.GetUTF8().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0700u);
    const auto name = CF::String::Format(CFSTR("KVBackupContainer/%p"),
                                         static_cast<const void *>(container.get()));
    EXPECT_EQ(container.get()->sourcePath.GetUTF8(),
              testing_support::LibraryTemporaryPath().string() + "/" + name.GetUTF8());
}

TEST(EmptyContainer, FailsWhenItsWorkingDirectoryCannotBeMade) {
    testing_support::LibraryTemporaryPath();
    const fs::path blocker = testing_support::LibraryTemporaryPath() / "KVBackupContainer";
    fs::remove_all(blocker);
    std::ofstream(blocker.string()) << "in the way";
    CFErrorRef raised = nullptr;
    EXPECT_EQ(KVBackupContainerCreateEmpty(nullptr, &raised), nullptr);
    EXPECT_EQ(CF::Error::Adopt(raised).GetCode(), kKVErrorFilesystem);
    fs::remove(blocker);
}

TEST(KVBackupContainer, CopiesItsDictionaries) {
    const Opened backup = OpenSample(kPlain);
    const auto status = CF::Dictionary::Adopt(KVBackupContainerCopyStatusDict(backup.get()));
    EXPECT_EQ(status.Get<CF::String>(CFSTR("Version")).GetUTF8(), "3.2");
    status.Set(CFSTR("Version"), CFSTR("changed"));
    const auto again = CF::Dictionary::Adopt(KVBackupContainerCopyStatusDict(backup.get()));
    EXPECT_EQ(again.Get<CF::String>(CFSTR("Version")).GetUTF8(), "3.2");
    const auto manifest = CF::Dictionary::Adopt(KVBackupContainerCopyManifestDict(backup.get()));
    EXPECT_TRUE(CFEqual(manifest.get(), KVBackupContainerGetManifestDict(backup.get())));
}

TEST(KVBackupContainer, ReplacesOnlyTheDictionariesGiven) {
    const Opened backup = OpenSample(kPlain);
    const auto info = CF::Dictionary::Mutable();
    info.Set(CFSTR("Device Name"), CFSTR("new"));
    KVBackupContainerSetDictionaries(backup.get(), info, nullptr, nullptr);
    const auto copy = CF::Dictionary::Adopt(KVBackupContainerCopyInfoDict(backup.get()));
    EXPECT_TRUE(copy == info);
    EXPECT_GT(CFDictionaryGetCount(KVBackupContainerGetManifestDict(backup.get())), 0);
}

TEST(KVBackupContainer, HandsOutTheVeryManifestDictionaryThatWasSet) {
    const Container container = makeEmpty();
    const auto manifest = CF::Dictionary::Mutable();
    KVBackupContainerSetDictionaries(container.get(), nullptr, nullptr, manifest);
    EXPECT_EQ(KVBackupContainerGetManifestDict(container.get()), manifest.get());
}

TEST(KVBackupContainer, KeepsTheBaseDirectoryItIsGiven) {
    const Container container = makeEmpty();
    KVBackupContainerSetBaseDirectory(container.get(), CFSTR("/base"));
    EXPECT_EQ(CF::String::GetUTF8(KVBackupContainerGetBaseDirectory(container.get())), "/base");
    KVBackupContainerSetBaseDirectory(container.get(), nullptr);
    EXPECT_EQ(KVBackupContainerGetBaseDirectory(container.get()), nullptr);
}

std::int64_t systemDomainsVersion(const Container &container) {
    return CF::Number::Adopt(KVBackupContainerCopySystemDomainsVersion(container.get())).GetInt64();
}

TEST(SystemDomainsVersion, IsZeroWhenItIsMissing) {
    EXPECT_EQ(systemDomainsVersion(makeEmpty()), 0);
}

TEST(SystemDomainsVersion, IsZeroWhenItIsAString) {
    const Opened backup = OpenSample(kPlain);
    ASSERT_EQ(CFGetTypeID(CFDictionaryGetValue(KVBackupContainerGetManifestDict(backup.get()),
                                               CFSTR("SystemDomainsVersion"))),
              CFStringGetTypeID());
    EXPECT_EQ(systemDomainsVersion(backup.container), 0);
}

TEST(SystemDomainsVersion, CanBeSetAndReadBack) {
    const Container container = makeEmpty();
    KVBackupContainerSetSystemDomainsVersion(container.get(), CF::Number::FromInt32(24));
    EXPECT_EQ(systemDomainsVersion(container), 24);
    KVBackupContainerSetSystemDomainsVersion(container.get(), nullptr);
    EXPECT_EQ(systemDomainsVersion(container), 24);
}

TEST(SystemDomainsVersion, CanBeSetOverAnImmutableDictionaryOfTheHost) {
    const Container container = makeEmpty();
    const auto immutable = CF::Dictionary::Adopt(
        CFDictionaryCreate(nullptr, nullptr, nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                           &kCFTypeDictionaryValueCallBacks));
    KVBackupContainerSetDictionaries(container.get(), nullptr, nullptr, immutable);
    KVBackupContainerSetSystemDomainsVersion(container.get(), CF::Number::FromInt32(24));
    EXPECT_EQ(systemDomainsVersion(container), 24);
    EXPECT_EQ(immutable.GetCount(), 0);
}

using KVBackupContainerDeathTest = testing::Test;

TEST(KVBackupContainerDeathTest, EndsTheProcessOnANullContainer) {
    EXPECT_DEATH(KVBackupContainerGetManifestDict(nullptr),
                 "Kelvane/KVBackupContainer.*:932:  KVBackupContainerGetManifestDict Assertion "
                 "backup failed.");
}

// ---- The wrapper and copies ------------------------------------------------------

TEST(Wrapper, IsEmptyByDefault) {
    const KVBackupContainer wrapper;
    EXPECT_EQ(wrapper.GetCFObject(), nullptr);
    EXPECT_EQ(wrapper.Copy().GetCFObject(), nullptr);
    EXPECT_EQ(wrapper.get_source_ios_version(), ZK::ios_version(-1, -1, 0));
}

TEST(Wrapper, HoldsAReference) {
    const Container container = makeEmpty();
    const CFIndex before = CFGetRetainCount(container.get());
    {
        const KVBackupContainer wrapper(container.get());
        const KVBackupContainer second = wrapper;
        EXPECT_EQ(CFGetRetainCount(container.get()), before + 2);
        EXPECT_EQ(second.GetCFObject(), container.get());
    }
    EXPECT_EQ(CFGetRetainCount(container.get()), before);
}

TEST(Wrapper, HandsItsReferenceOnWhenItIsMoved) {
    const Container container = makeEmpty();
    const CFIndex before = CFGetRetainCount(container.get());
    KVBackupContainer first(container.get());
    KVBackupContainer second = std::move(first);
    EXPECT_EQ(second.get(), container.get());
    EXPECT_EQ(CFGetRetainCount(container.get()), before + 1);
    KVBackupContainer third;
    third = std::move(second);
    EXPECT_EQ(third.get(), container.get());
    third = KVBackupContainer();
    EXPECT_EQ(third.get(), nullptr);
    EXPECT_EQ(CFGetRetainCount(container.get()), before);
}

TEST(Wrapper, KnowsTheVersionOnlyOnceTheDictionaryIsSetOrCopied) {
    const Opened backup = OpenSample(kPlain);
    const KVBackupContainer wrapper(backup.get());
    EXPECT_EQ(wrapper.get_source_ios_version(), ZK::ios_version(-1, -1, 0));
    const KVBackupContainer copy = wrapper.Copy();
    EXPECT_GT(copy.get_source_ios_version().major_version, 0);
    const auto manifest = CF::Dictionary::Adopt(KVBackupContainerCopyManifestDict(backup.get()));
    KVBackupContainerSetDictionaries(backup.get(), nullptr, nullptr, manifest);
    EXPECT_EQ(wrapper.get_source_ios_version(), copy.get_source_ios_version());
}

class CopyOfSample : public testing::TestWithParam<const char *> {};

TEST_P(CopyOfSample, ReadsTheSameContentsByItself) {
    Opened original = OpenSample(GetParam());
    const Opened copy{Container(CF::adopt, KVBackupContainerCreateCopy(nullptr, original.get())),
                      {}};
    ASSERT_TRUE(copy.container);
    EXPECT_EQ(KVBackupContainerIsEncrypted(copy.get()),
              KVBackupContainerIsEncrypted(original.get()));
    original = {};
    const auto file = FindFileOfSize(GetParam(), 32769);
    const CopiedFile copied = CopyFileForPath(copy, file.at("domain"), file.at("path"));
    ASSERT_TRUE(copied.file);
    EXPECT_EQ(SHA256(ReadContent(copied.file.get())), file.at("sha256"));
}

INSTANTIATE_TEST_SUITE_P(Samples, CopyOfSample, testing::Values(kEncrypted, kPlain, kBinary, kZip));

TEST(CopyOfContainer, HasMetadataOfItsOwn) {
    const Opened original = OpenSample(kPlain);
    KVBackupContainerSetBaseDirectory(original.get(), CFSTR("/base"));
    const Container copy(CF::adopt, KVBackupContainerCreateCopy(nullptr, original.get()));
    KVBackupContainerSetSystemDomainsVersion(copy.get(), CF::Number::FromInt32(7));
    EXPECT_EQ(systemDomainsVersion(original.container), 0);
    EXPECT_EQ(CF::String::GetUTF8(KVBackupContainerGetBaseDirectory(copy.get())), "/base");
}

TEST(CopyOfContainer, FailsWhenTheZipHasVanished) {
    const testing_support::TemporaryDirectory directory;
    const fs::path path = directory / "backup.zip";
    fs::copy_file(SamplePath(kZip), path);
    const Opened original = OpenPath(path.string());
    ASSERT_TRUE(original.container);
    fs::remove(path);
    EXPECT_EQ(KVBackupContainerCreateCopy(nullptr, original.get()), nullptr);
}

} // namespace
} // namespace container_tests
