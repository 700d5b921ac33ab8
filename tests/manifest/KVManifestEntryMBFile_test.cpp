// Entries to and from the records of Manifest.db.

#include "Entries.hpp"
#include "MB/File.hpp"
#include "ZK/keyed_archiver.hpp"
#include "ZK/keyed_unarchiver.hpp"
#include "manifest/EntryFromMBFile.hpp"

#include <functional>

using namespace EntryTest;

namespace {

using PropertyList = CF::PropertyListType<CF::Dictionary>;

CF::Data archiveOf(const MB::File &record,
                   CFPropertyListFormat format = kCFPropertyListBinaryFormat_v1_0) {
    return PropertyList::ToPropertyListData(ZK::make_keyed_archive(record), format);
}

Entry read(const CF::Data &data, int flags = 1, const KVGetFileFunction &loader = {}) {
    return CF::Adopt(KVManifestEntryCreateFromMBFileData(
        nullptr, CFSTR("row ID"), CFSTR("Domain"), CFSTR("row/path"), flags, data.get(), loader));
}

MB::File written(const Entry &entry) {
    const auto data = CF::Data::Adopt(KVManifestEntryCreateMBFileDataRepresentation(entry.get()));
    return ZK::extract_keyed_archive<MB::File>(PropertyList::FromPropertyListData(data)).value();
}

MB::File sampleRecord() {
    MB::File record;
    record.RelativePath = "record/path";
    record.Target = "tärget";
    record.Digest = CF::Data(std::vector<std::uint8_t>(20, 3));
    record.EncryptionKey = CF::Data(std::vector<std::uint8_t>(44, 4));
    record.Mode = 0100600;
    record.UserID = 501;
    record.GroupID = 20;
    record.LastModified = 978307201;
    record.LastStatusChange = 978307202;
    record.Birth = 978307203;
    record.Size = 1LL << 35;
    record.InodeNumber = ~std::uint64_t{0};
    record.ProtectionClass = 3;
    return record;
}

MB::File withAttributes(MB::File record) {
    const auto attributes = CF::Dictionary::Mutable();
    attributes.Set(CFSTR("com.example"), CF::Data(std::vector<std::uint8_t>{1}).get());
    record.ExtendedAttributes = attributes;
    return record;
}

// With names that are no texts and values that are no data among them.
MB::File withOddAttributes(const MB::File &record) {
    MB::File odd = withAttributes(record);
    const auto attributes = CF::Dictionary::MutableCopy(odd.ExtendedAttributes.get());
    attributes.Set(CFSTR("text"), CFSTR("value"));
    attributes.Set(CF::Number::FromInt32(7).get(), CF::Data(std::vector<std::uint8_t>{2}).get());
    attributes.Set(CFSTR("dictionary"), CF::Dictionary::MutableCopy(attributes.get()).get());
    odd.ExtendedAttributes = attributes;
    return odd;
}

void expectSample(const Entry &entry) {
    ASSERT_TRUE(entry);
    EXPECT_EQ(textOf(KVManifestEntryGetTarget(entry.get())), "tärget");
    EXPECT_EQ(bytesOf(KVManifestEntryGetDataHash(entry.get())), std::vector<std::uint8_t>(20, 3));
    EXPECT_EQ(bytesOf(KVManifestEntryGetEncryptionData(entry.get())),
              std::vector<std::uint8_t>(44, 4));
    EXPECT_EQ(KVManifestEntryGetFileMode(entry.get()), 0100600);
    EXPECT_EQ(entry.get()->uid, 501u);
    EXPECT_EQ(entry.get()->gid, 20u);
    EXPECT_EQ(entry.get()->lastModified, 1);
    EXPECT_EQ(entry.get()->lastStatusChange, 2);
    EXPECT_EQ(entry.get()->birth, 3);
    EXPECT_EQ(KVManifestEntryGetFileSize(entry.get()), 1LL << 35);
    EXPECT_EQ(entry.get()->inode, ~std::uint64_t{0});
    EXPECT_EQ(KVManifestEntryGetProtectionClass(entry.get()),
              kEntryProtectionClassCompleteUntilUnlocked);
}

// The one message that reading the data gives, which must be about a bad record.
std::string failureOf(const CF::Data &data) {
    const LogCapture log(kZLLogLevelDetail);
    EXPECT_FALSE(read(data));
    EXPECT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(log.messages().at(0).first, kZLLogLevelBadRecord);
    return log.messages().at(0).second;
}

} // namespace

TEST(EntryFromMBFile, TakesTheRecordsFields) { expectSample(read(archiveOf(sampleRecord()))); }

TEST(EntryFromMBFile, ReadsUnusualShapesAlike) {
    // With attributes and in XML the general codec does what the quick decoder else does.
    expectSample(read(archiveOf(withAttributes(sampleRecord()))));
    expectSample(read(archiveOf(sampleRecord(), kCFPropertyListXMLFormat_v1_0)));
}

TEST(EntryFromMBFile, TakesTheRowsNames) {
    const Entry entry = read(archiveOf(sampleRecord()), 4);
    EXPECT_EQ(textOf(KVManifestEntryGetFileID(entry.get())), "row ID");
    EXPECT_EQ(textOf(KVManifestEntryGetDomain(entry.get())), "Domain");
    EXPECT_EQ(textOf(KVManifestEntryGetPath(entry.get())), "row/path");
    EXPECT_EQ(textOf(KVManifestEntryGetDomainPathPair(entry.get())), "Domain-row/path");
    EXPECT_EQ(textOf(KVManifestEntryGetDeviceFilename(entry.get())), "path");
    EXPECT_EQ(KVManifestEntryGetFileType(entry.get()), 4);
    EXPECT_FALSE(KVManifestEntryIsExternal(entry.get()));
}

TEST(EntryFromMBFile, HasEmptyValuesForAbsentOnes) {
    const Entry entry = read(archiveOf(MB::File()));
    ASSERT_TRUE(entry);
    EXPECT_EQ(CFStringGetLength(KVManifestEntryGetTarget(entry.get())), 0);
    EXPECT_EQ(CFDataGetLength(KVManifestEntryGetDataHash(entry.get())), 0);
    EXPECT_EQ(CFDataGetLength(KVManifestEntryGetEncryptionData(entry.get())), 0);
    EXPECT_EQ(CFDictionaryGetCount(KVManifestEntryGetProperties(entry.get())), 0);
}

TEST(EntryFromMBFile, TakesAttributesAsProperties) {
    const Entry entry = read(archiveOf(withAttributes(sampleRecord())));
    const CF::Dictionary properties(KVManifestEntryGetProperties(entry.get()));
    EXPECT_EQ(properties.GetCount(), 1);
    EXPECT_EQ(properties.Get<CF::Data>(CFSTR("com.example")).GetLength(), 1);
}

TEST(EntryFromMBFile, ShowsNamesWithDataAlone) {
    const Entry entry = read(archiveOf(withOddAttributes(sampleRecord())));
    ASSERT_TRUE(entry);
    const CF::Dictionary properties(KVManifestEntryGetProperties(entry.get()));
    EXPECT_EQ(properties.GetCount(), 1);
    EXPECT_EQ(properties.Get<CF::Data>(CFSTR("com.example")).GetLength(), 1);
}

TEST(EntryFromMBFile, IsCopiedWithAttributesThatItDoesNotShow) {
    const Entry entry = read(archiveOf(withOddAttributes(sampleRecord())));
    const auto copy = CF::Adopt(KVManifestEntryCreateCopy(nullptr, entry.get(), nullptr));
    EXPECT_EQ(written(copy).ExtendedAttributes,
              withOddAttributes(sampleRecord()).ExtendedAttributes);
}

TEST(EntryFromMBFile, InstallsTheLoader) {
    const Entry entry = read(archiveOf(sampleRecord()), 1,
                             [](CFStringRef, CFErrorRef *) { return makeFile("loaded").detach(); });
    EXPECT_NE(KVManifestEntryGetFile(entry.get(), nullptr), nullptr);
}

TEST(EntryFromMBFile, SharesLoaderAndStringsInternally) {
    int calls = 0;
    const auto loader = Kelvane::ShareFileLoader([&](CFStringRef, CFErrorRef *) {
        ++calls;
        return makeFile("loaded").detach();
    });
    const CF::Data data = archiveOf(sampleRecord());
    const CF::String domain("SharedDomain-with-some-length");
    const auto a = Kelvane::CreateEntryFromMBFileData(nullptr, CFSTR("a"), domain, CFSTR("p"), 1,
                                                      data.GetBytes(), loader);
    const auto b = Kelvane::CreateEntryFromMBFileData(nullptr, CFSTR("b"), domain, CFSTR("q"), 1,
                                                      data.GetBytes(), loader);
    EXPECT_EQ(KVManifestEntryGetDomain(a.get()), domain.get());
    EXPECT_EQ(KVManifestEntryGetDomain(b.get()), domain.get());
    EXPECT_EQ(loader.use_count(), 3);
    EXPECT_NE(KVManifestEntryGetFile(a.get(), nullptr), nullptr);
    EXPECT_EQ(loader.use_count(), 2);
    EXPECT_EQ(calls, 1);
}

TEST(EntryFromMBFile, LogsWhatItMade) {
    const LogCapture log(kZLLogLevelDetail);
    const Entry entry = read(archiveOf(sampleRecord()));
    ASSERT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(log.messages()[0].first, kZLLogLevelDetail);
    EXPECT_EQ(log.messages()[0].second,
              "Created manifest entry " +
                  CF::String::Adopt(CFCopyDescription(entry.get())).GetUTF8());
}

TEST(EntryFromMBFile, RefusesAnotherProtectionClass) {
    for (const std::int32_t code : {5, 11, -1}) {
        MB::File record = sampleRecord();
        record.ProtectionClass = code;
        EXPECT_EQ(failureOf(archiveOf(record)),
                  "Failed to deserialize MBFile: invalid protection class code");
        EXPECT_EQ(failureOf(archiveOf(withAttributes(record))),
                  "Failed to deserialize MBFile: invalid protection class code");
    }
}

// {"$objects": ..., "$version": ...} as any number may be written.
CF::Data archiveWith(CFStringRef field, const CF::Number &number) {
    auto archive = CF::Dictionary::MutableCopy(ZK::make_keyed_archive(sampleRecord()).get());
    const auto objects = CF::Array::MutableCopy(archive.Get<CF::Array>(CFSTR("$objects")).get());
    const auto record = CF::Dictionary::MutableCopy(CF::Dictionary::Cast(objects.GetAt(1)).get());
    record.Set(field, number.get());
    objects.SetAt(1, record.get());
    archive.Set(CFSTR("$objects"), objects.get());
    return PropertyList::ToPropertyListData(archive, kCFPropertyListBinaryFormat_v1_0);
}

TEST(EntryFromMBFile, RefusesAProtectionClassWhoseLowestBitsAreOne) {
    for (const std::int64_t code : {0x100000000, 0x100000003, -0x100000000, INT64_MAX, INT64_MIN}) {
        EXPECT_EQ(failureOf(archiveWith(CFSTR("ProtectionClass"), CF::Number::FromInt64(code))),
                  "Failed to deserialize MBFile: invalid protection class code")
            << code;
    }
}

TEST(EntryFromMBFile, HasNoTypeWhereFlagsHaveMoreBits) {
    for (const int flags : {257, 260, -1, INT_MAX, INT_MIN}) {
        const Entry entry = read(archiveOf(sampleRecord()), flags);
        EXPECT_EQ(KVManifestEntryGetFileType(entry.get()), 255) << flags;
    }
}

TEST(EntryFromMBFile, RefusesWhatIsNoArchive) {
    const std::string expected =
        "Failed to deserialize MBFile: Archive was not created with a keyed archiver";
    EXPECT_EQ(failureOf(CF::Data()), expected);
    EXPECT_EQ(failureOf(CF::Data(std::vector<std::uint8_t>(500, 0x41))), expected);
    EXPECT_EQ(failureOf(PropertyList::ToPropertyListData(CF::Dictionary::Mutable(),
                                                         kCFPropertyListBinaryFormat_v1_0)),
              expected);
}

TEST(EntryFromMBFile, ReportsTheCodecsErrors) {
    auto archive = CF::Dictionary::MutableCopy(ZK::make_keyed_archive(sampleRecord()).get());
    archive.Set(CFSTR("$version"), CF::Number::FromInt32(7).get());
    EXPECT_EQ(
        failureOf(PropertyList::ToPropertyListData(archive, kCFPropertyListBinaryFormat_v1_0)),
        "Failed to deserialize MBFile: Archive has unknown version 7");
}

TEST(EntryToMBFile, WritesItsFields) {
    const Entry entry = read(archiveOf(withAttributes(sampleRecord())));
    const MB::File record = written(entry);
    const MB::File expected = withAttributes(sampleRecord());
    EXPECT_EQ(record.RelativePath.GetUTF8(), "row/path");
    EXPECT_EQ(record.Target, expected.Target);
    EXPECT_EQ(record.Digest, expected.Digest);
    EXPECT_EQ(record.EncryptionKey, expected.EncryptionKey);
    EXPECT_EQ(record.Mode, expected.Mode);
    EXPECT_EQ(record.UserID, expected.UserID);
    EXPECT_EQ(record.GroupID, expected.GroupID);
    EXPECT_EQ(record.LastModified, expected.LastModified);
    EXPECT_EQ(record.LastStatusChange, expected.LastStatusChange);
    EXPECT_EQ(record.Birth, expected.Birth);
    EXPECT_EQ(record.Size, expected.Size);
    EXPECT_EQ(record.InodeNumber, expected.InodeNumber);
    EXPECT_EQ(record.ProtectionClass, expected.ProtectionClass);
    EXPECT_EQ(record.ExtendedAttributes, expected.ExtendedAttributes);
}

TEST(EntryToMBFile, LeavesOutWhatIsEmpty) {
    const MB::File record = written(makeDirectory("D", ""));
    EXPECT_FALSE(record.RelativePath.IsNull());
    EXPECT_TRUE(record.Target.IsNull());
    EXPECT_TRUE(record.Digest.IsNull());
    EXPECT_TRUE(record.EncryptionKey.IsNull());
    EXPECT_TRUE(record.ExtendedAttributes.IsNull());
}

TEST(EntryToMBFile, WritesAttributesOfADeviceAsTheyWereRead) {
    const CF::Data attributes(std::vector<std::uint8_t>{'b', 'p', 'l', 'i', 's', 't', '0', '0'});
    const Entry made = makeDirectory("D", "p");
    made.get()->keptAttributes = attributes.get();
    const auto data = CF::Data::Adopt(KVManifestEntryCreateMBFileDataRepresentation(made.get()));
    const auto read = CF::Adopt(KVManifestEntryCreateFromMBFileData(
        nullptr, CFSTR("id"), CFSTR("D"), CFSTR("p"), 2, data, nullptr));
    ASSERT_TRUE(read);
    EXPECT_EQ(CFDictionaryGetCount(KVManifestEntryGetProperties(read.get())), 0);
    const auto copy = CF::Adopt(KVManifestEntryCreateCopy(nullptr, read.get(), nullptr));
    EXPECT_EQ(written(copy).ExtendedAttributesData, attributes);
}

TEST(EntryToMBFile, WritesAttributesThatAreNotShown) {
    const Entry entry = read(archiveOf(withOddAttributes(sampleRecord())));
    EXPECT_EQ(written(entry).ExtendedAttributes,
              withOddAttributes(sampleRecord()).ExtendedAttributes);
}

TEST(EntryToMBFile, GivesNoMbdbRecordForAttributesThatItHasNoPlaceFor) {
    const Entry entry = read(archiveOf(withOddAttributes(sampleRecord())));
    EXPECT_EQ(KVManifestEntryCreateManifestDataRepresentation(entry.get()), nullptr);
}

TEST(EntryToMBFile, WritesABinaryPropertyList) {
    const auto data = CF::Data::Adopt(
        KVManifestEntryCreateMBFileDataRepresentation(makeDirectory("D", "p").get()));
    const auto bytes = data.GetVector();
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 8), "bplist00");
}

TEST(EntryToMBFile, MovesTimesBefore2001By32Bits) {
    const Entry entry = makeDirectory("D", "p");
    entry.get()->birth = -86400;
    entry.get()->lastModified = 86400.9;
    EXPECT_EQ(written(entry).Birth, 5273188096);
    EXPECT_EQ(written(entry).LastModified, 978393600);
}

TEST(EntryToMBFile, GivesNothingForPropertiesThatNestTooDeeply) {
    auto nested = CF::Dictionary::Mutable();
    for (int depth = 0; depth < 200; ++depth) {
        const auto outer = CF::Dictionary::Mutable();
        outer.Set(CFSTR("d"), nested.get());
        nested = outer;
    }
    const Entry entry = makeDirectory("D", "p");
    entry.get()->properties = nested.get();
    const LogCapture log(kZLLogLevelBadRecord);
    EXPECT_EQ(KVManifestEntryCreateMBFileDataRepresentation(entry.get()), nullptr);
    ASSERT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(log.messages()[0],
              (LogCapture::Message{4, "Failed to serialize MBFile -- Objects are nested too "
                                      "deeply to be archived"}));
}

TEST(EntryToMBFile, GivesNothingForPropertiesThatNoPropertyListHolds) {
    const auto properties = CF::Dictionary::Mutable();
    properties.Set(CFSTR("uuid"), CF::UUID::Create().get());
    const Entry entry = makeDirectory("D", "p");
    entry.get()->properties = properties.get();
    const LogCapture log(kZLLogLevelBadRecord);
    EXPECT_EQ(KVManifestEntryCreateMBFileDataRepresentation(entry.get()), nullptr);
    ASSERT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(log.messages()[0].second.rfind("Failed to serialize MBFile -- ", 0), 0u);
}
