#include "Archives.hpp"

#include <limits>

using namespace ArchiveTest;
namespace errors = ZK::archiver_exceptions;
using ZK::extract_keyed_archive;
using ZK::make_keyed_archive;

namespace {

MB::File fullRecord() {
    MB::File record;
    record.RelativePath = "Library/Grüße 🌍.txt";
    record.Target = "../elsewhere";
    record.Digest = CF::Data(std::vector<std::uint8_t>(20, 0xD1));
    record.EncryptionKey = CF::Data(std::vector<std::uint8_t>(44, 0x4E));
    record.Mode = 0100644;
    record.UserID = 501;
    record.GroupID = 0xFFFFFFFE;
    record.LastModified = 1700000000;
    record.LastStatusChange = -1;
    record.Birth = std::numeric_limits<std::int64_t>::min();
    record.Size = std::numeric_limits<std::int64_t>::max();
    record.InodeNumber = std::numeric_limits<std::uint64_t>::max();
    record.ProtectionClass = -3;
    record.ExtendedAttributes = CF::Dictionary::Cast(Dictionary({{"name", Data({1})}}).get());
    return record;
}

void expectEqual(const MB::File &a, const MB::File &b) {
    EXPECT_EQ(a.RelativePath, b.RelativePath);
    EXPECT_EQ(a.Target, b.Target);
    EXPECT_EQ(a.Digest, b.Digest);
    EXPECT_EQ(a.EncryptionKey, b.EncryptionKey);
    EXPECT_EQ(a.Mode, b.Mode);
    EXPECT_EQ(a.UserID, b.UserID);
    EXPECT_EQ(a.GroupID, b.GroupID);
    EXPECT_EQ(a.LastModified, b.LastModified);
    EXPECT_EQ(a.LastStatusChange, b.LastStatusChange);
    EXPECT_EQ(a.Birth, b.Birth);
    EXPECT_EQ(a.Size, b.Size);
    EXPECT_EQ(a.InodeNumber, b.InodeNumber);
    EXPECT_EQ(a.ProtectionClass, b.ProtectionClass);
    EXPECT_EQ(a.ExtendedAttributes, b.ExtendedAttributes);
}

// A record with these fields, read back; objects are numbered from 3.
MB::File decode(Fields fields, const std::vector<Value> &objects = {}) {
    fields.emplace_back("$class", UID(2));
    std::vector<Value> table = {Dictionary(fields), Class({"MBFile", "NSObject"})};
    table.insert(table.end(), objects.begin(), objects.end());
    return extract_keyed_archive<MB::File>(Archive(table)).value();
}

} // namespace

TEST(MBFile, IsNamedByItsClass) { EXPECT_EQ(MB::class_name(MB::File()), "MBFile"); }

TEST(MBFile, WritesADefaultRecordAsNineZeros) {
    const auto archive = make_keyed_archive(MB::File());
    EXPECT_EQ(Objects(archive).GetCount(), 3);
    const auto object = ObjectAt(archive, 1);
    EXPECT_EQ(object.GetCount(), 10);
    for (const char *key : {"Mode", "UserID", "GroupID", "LastModified", "LastStatusChange",
                            "Birth", "Size", "InodeNumber", "ProtectionClass"}) {
        const auto number = object.Get<CF::Number>(CF::String(key).get());
        ASSERT_TRUE(number) << key;
        EXPECT_EQ(number.GetInt64(), 0) << key;
    }
    EXPECT_EQ(ReferenceIn(object, "$class"), 2);
    EXPECT_EQ(ObjectAt(archive, 2), CF::Dictionary::Cast(Class({"MBFile", "NSObject"}).get()));
}

TEST(MBFile, SurvivesARoundTrip) {
    expectEqual(extract_keyed_archive<MB::File>(make_keyed_archive(fullRecord())).value(),
                fullRecord());
    expectEqual(extract_keyed_archive<MB::File>(make_keyed_archive(MB::File())).value(),
                MB::File());
}

TEST(MBFile, PutsItsObjectsIntoTheTableInOrder) {
    const auto archive = make_keyed_archive(fullRecord());
    const auto object = ObjectAt(archive, 1);
    EXPECT_EQ(ReferenceIn(object, "RelativePath"), 2);
    EXPECT_EQ(ReferenceIn(object, "Target"), 3);
    EXPECT_EQ(ReferenceIn(object, "Digest"), 4);
    EXPECT_EQ(ReferenceIn(object, "EncryptionKey"), 5);
    EXPECT_EQ(ReferenceIn(object, "ExtendedAttributes"), 6);
    // The attributes' key and value and their class come before the record's class.
    EXPECT_EQ(ReferenceIn(ObjectAt(archive, 6), "$class"), 9);
    EXPECT_EQ(ReferenceIn(object, "$class"), 10);
    EXPECT_EQ(StringAt(archive, 3), "../elsewhere");
}

TEST(MBFile, LeavesOutANullTarget) {
    MB::File record = fullRecord();
    record.Target = nullptr;
    const auto archive = make_keyed_archive(record);
    EXPECT_FALSE(ObjectAt(archive, 1).GetValue(CFSTR("Target")));
    EXPECT_TRUE(extract_keyed_archive<MB::File>(archive)->Target.IsNull());
}

TEST(MBFile, WritesEmptyAttributes) {
    MB::File record;
    record.ExtendedAttributes = CF::Dictionary::Mutable();
    const auto archive = make_keyed_archive(record);
    EXPECT_EQ(ReferenceIn(ObjectAt(archive, 1), "ExtendedAttributes"), 2);
    const auto read = extract_keyed_archive<MB::File>(archive)->ExtendedAttributes;
    EXPECT_FALSE(read.IsNull());
    EXPECT_EQ(read.GetCount(), 0);
}

TEST(MBFile, StoresAPathThatEqualsTheTargetOnce) {
    MB::File record;
    record.RelativePath = "same";
    record.Target = "same";
    const auto archive = make_keyed_archive(record);
    EXPECT_EQ(ReferenceIn(ObjectAt(archive, 1), "RelativePath"), 2);
    EXPECT_EQ(ReferenceIn(ObjectAt(archive, 1), "Target"), 2);
    EXPECT_EQ(Objects(archive).GetCount(), 4);
}

TEST(MBFile, DecodesWithoutAnyKeyAsDefault) {
    expectEqual(decode({}), MB::File());
    expectEqual(extract_keyed_archive<MB::File>(Archive({}, UID(0))).value(), MB::File());
    expectEqual(extract_keyed_archive<MB::File>(Archive({String("x")})).value(), MB::File());
}

TEST(MBFile, AcceptsWrappedNumbers) {
    const std::vector<Value> objects = {
        Dictionary({{"NS.number", Number(123456789012)}, {"$class", UID(4)}}),
        Class({"NSNumber", "NSValue", "NSObject"}), Number(0100755)};
    const MB::File record = decode({{"Size", UID(3)}, {"Mode", UIDDictionary(5)}}, objects);
    EXPECT_EQ(record.Size, 123456789012);
    EXPECT_EQ(record.Mode, 0100755);
}

TEST(MBFile, AcceptsKeysWrappedInMutableData) {
    const MB::File record = decode({{"EncryptionKey", UID(3)}, {"Digest", UID(5)}},
                                   {Dictionary({{"NS.data", Data({4, 4})}, {"$class", UID(4)}}),
                                    Class({"NSMutableData", "NSData", "NSObject"}), Data({7})});
    EXPECT_EQ(record.EncryptionKey.GetVector(), (std::vector<std::uint8_t>{4, 4}));
    EXPECT_EQ(record.Digest.GetVector(), (std::vector<std::uint8_t>{7}));
}

TEST(MBFile, HasNoAttributesWhenTheyAreRawData) {
    const MB::File record = decode({{"ExtendedAttributes", UID(3)}, {"Size", Number(5)}},
                                   {Data({'b', 'p', 'l', 'i', 's', 't'})});
    EXPECT_TRUE(record.ExtendedAttributes.IsNull());
    EXPECT_EQ(record.Size, 5);
}

TEST(MBFile, KeepsAttributesOfRawDataAsTheyAre) {
    const CF::Data data(std::vector<std::uint8_t>{'b', 'p', 'l', 'i', 's', 't'});
    MB::File record;
    record.ExtendedAttributesData = data;
    const auto read = extract_keyed_archive<MB::File>(make_keyed_archive(record));
    EXPECT_EQ(read->ExtendedAttributesData, data);
    EXPECT_TRUE(read->ExtendedAttributes.IsNull());
}

TEST(MBFile, WritesAttributesInOneForm) {
    MB::File record;
    record.ExtendedAttributes = CF::Dictionary::Cast(Dictionary({{"name", Data({1})}}).get());
    record.ExtendedAttributesData = CF::Data(std::vector<std::uint8_t>{1});
    const auto read = extract_keyed_archive<MB::File>(make_keyed_archive(record));
    EXPECT_EQ(read->ExtendedAttributes, record.ExtendedAttributes);
    EXPECT_TRUE(read->ExtendedAttributesData.IsNull());
}

TEST(MBFile, RefusesInlineAttributes) {
    EXPECT_EQ(MessageOf<errors::cant_decode_as_value>([] {
                  (void)decode({{"ExtendedAttributes", Dictionary({})}});
              }),
              std::string("Cant decode type '") + typeid(CF::Dictionary).name() + "' as a value");
}

TEST(MBFile, PassesOverKeysThatItDoesNotKeep) {
    const MB::File record = decode({{"Flags", Number(4)}, {"Unknown", UID(99)}});
    expectEqual(record, MB::File());
}

TEST(MBFile, LeavesFieldsOfAnotherTypeAtTheirDefaults) {
    const MB::File record = decode({{"RelativePath", Number(1)},
                                    {"Target", UID(3)},
                                    {"Digest", String("x")},
                                    {"Mode", String("33188")},
                                    {"Size", kCFBooleanTrue}},
                                   {Data({1})});
    expectEqual(record, MB::File());
}

TEST(MBFile, TakesInlineStringsAndDataAsTheyStand) {
    const MB::File record = decode({{"RelativePath", String("inline")}, {"Digest", Data({1})}});
    EXPECT_EQ(record.RelativePath.GetUTF8(), "inline");
    EXPECT_EQ(record.Digest.GetLength(), 1);
}

TEST(MBFile, TakesNumbersForSignedOrUnsigned) {
    const MB::File record = decode({{"Mode", Number(0xFFFF81A4)}, {"UserID", Number(-2)}});
    EXPECT_EQ(record.Mode, -0x7E5C);
    EXPECT_EQ(record.UserID, 0xFFFFFFFEu);
}

TEST(MBFile, TakesTheNearestNumberThatAFieldHolds) {
    const Value wide = CF::Number::FromUInt64(0x8000000000000000).get();
    const MB::File record = decode({{"Mode", Number(0x1000081A4)},
                                    {"GroupID", Number(0x100000005)},
                                    {"ProtectionClass", Number(-0x100000000)},
                                    {"Size", wide},
                                    {"Birth", wide},
                                    {"InodeNumber", wide}});
    EXPECT_EQ(record.Mode, -1);
    EXPECT_EQ(record.GroupID, 0xFFFFFFFFu);
    EXPECT_EQ(record.ProtectionClass, INT32_MIN);
    EXPECT_EQ(record.Size, INT64_MAX);
    EXPECT_EQ(record.Birth, INT64_MAX);
    EXPECT_EQ(record.InodeNumber, 0x8000000000000000u);
}

TEST(MBFile, WritesInodeNumbersAsTheyAre) {
    for (const std::uint64_t inode : {std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
        MB::File record;
        record.InodeNumber = inode;
        const auto archive = make_keyed_archive(record);
        const auto number = ObjectAt(archive, 1).Get<CF::Number>(CFSTR("InodeNumber"));
        EXPECT_EQ(number.GetWide().high, 0);
        EXPECT_EQ(number.GetWide().low, inode);
        EXPECT_EQ(extract_keyed_archive<MB::File>(archive)->InodeNumber, inode);
    }
}

TEST(MBFile, ReadsInodeNumbersThatWereWrittenAsNegative) {
    EXPECT_EQ(decode({{"InodeNumber", Number(-1)}}).InodeNumber, ~std::uint64_t{0});
}
