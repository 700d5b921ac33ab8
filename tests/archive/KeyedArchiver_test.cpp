#include "Archives.hpp"

using namespace ArchiveTest;
using ZK::keyed_archiver;
using ZK::make_keyed_archive;
using ZK::detail::keyed_archiver_uid;

namespace {

MB::File recordWithPath(const char *path) {
    MB::File record;
    record.RelativePath = path;
    return record;
}

// The object that the archiver is filling at the top.
CF::Dictionary topOf(keyed_archiver &archiver) {
    return archiver.finishEncoding().Get<CF::Dictionary>(CFSTR("$top"));
}

} // namespace

TEST(KeyedArchiver, StartsWithTheNullObjectAlone) {
    const auto archive = keyed_archiver().finishEncoding();
    EXPECT_EQ(archive.GetCount(), 4);
    EXPECT_EQ(archive.Get<CF::String>(CFSTR("$archiver")).GetUTF8(), "NSKeyedArchiver");
    EXPECT_EQ(archive.Get<CF::Number>(CFSTR("$version")).GetInt64(), 100000);
    EXPECT_EQ(archive.Get<CF::Dictionary>(CFSTR("$top")).GetCount(), 0);
    EXPECT_EQ(Objects(archive).GetCount(), 1);
    EXPECT_EQ(StringAt(archive, 0), "$null");
}

TEST(KeyedArchiver, RefersToTheRootFromTheTop) {
    const auto archive = make_keyed_archive(CF::String("value"));
    EXPECT_EQ(ReferenceIn(archive.Get<CF::Dictionary>(CFSTR("$top")), "root"), 1);
    EXPECT_EQ(StringAt(archive, 1), "value");
}

TEST(KeyedArchiver, StoresEqualValuesOnce) {
    keyed_archiver archiver;
    archiver._encodeObject(CF::String("same"), CFSTR("a"), false);
    archiver._encodeObject(CF::String("same"), CFSTR("b"), false);
    archiver._encodeObject(CF::String("other"), CFSTR("c"), false);
    const auto top = topOf(archiver);
    EXPECT_EQ(ReferenceIn(top, "a"), 1);
    EXPECT_EQ(ReferenceIn(top, "b"), 1);
    EXPECT_EQ(ReferenceIn(top, "c"), 2);
}

TEST(KeyedArchiver, KeepsStringsAndDataApart) {
    keyed_archiver archiver;
    EXPECT_EQ(archiver._encodeObject(CF::String("1"), false), keyed_archiver_uid{1});
    EXPECT_EQ(archiver._encodeObject(CF::Data(std::vector<std::uint8_t>{'1'}), false),
              keyed_archiver_uid{2});
}

TEST(KeyedArchiver, WritesAClassDictionaryOnce) {
    keyed_archiver archiver;
    const MB::File first = recordWithPath("a");
    const MB::File second = recordWithPath("b");
    archiver._encodeObject(first, CFSTR("first"), false);
    archiver._encodeObject(second, CFSTR("second"), false);
    const auto archive = archiver.finishEncoding();
    // $null, first, "a", the class, second, "b".
    EXPECT_EQ(Objects(archive).GetCount(), 6);
    EXPECT_EQ(ReferenceIn(ObjectAt(archive, 1), "$class"), 3);
    EXPECT_EQ(ReferenceIn(ObjectAt(archive, 4), "$class"), 3);
    EXPECT_EQ(ObjectAt(archive, 3), CF::Dictionary::Cast(Class({"MBFile", "NSObject"}).get()));
}

TEST(KeyedArchiver, StoresOneRecordOnce) {
    keyed_archiver archiver;
    const MB::File record = recordWithPath("a");
    EXPECT_EQ(archiver._encodeObject(record, false), keyed_archiver_uid{1});
    EXPECT_EQ(archiver._encodeObject(record, false), keyed_archiver_uid{1});
    EXPECT_EQ(Objects(archiver.finishEncoding()).GetCount(), 4);
}

TEST(KeyedArchiver, GivesNullValuesTheNullObject) {
    keyed_archiver archiver;
    archiver._encodeObject(CF::String(), CFSTR("nothing"), true);
    const auto archive = archiver.finishEncoding();
    EXPECT_EQ(ReferenceIn(archive.Get<CF::Dictionary>(CFSTR("$top")), "nothing"), 0);
    EXPECT_EQ(Objects(archive).GetCount(), 1);
}

TEST(KeyedArchiver, WritesNothingForAConditionalNewObject) {
    keyed_archiver archiver;
    archiver._encodeObject(CF::String("new"), CFSTR("key"), true);
    EXPECT_FALSE(archiver._encodeObject(recordWithPath("x"), true));
    const auto archive = archiver.finishEncoding();
    EXPECT_EQ(archive.Get<CF::Dictionary>(CFSTR("$top")).GetCount(), 0);
    EXPECT_EQ(Objects(archive).GetCount(), 1);
}

TEST(KeyedArchiver, RefersToAConditionalKnownObject) {
    keyed_archiver archiver;
    archiver._encodeObject(CF::String("known"), CFSTR("a"), false);
    archiver._encodeObject(CF::String("known"), CFSTR("b"), true);
    EXPECT_EQ(ReferenceIn(topOf(archiver), "b"), 1);
}

TEST(KeyedArchiver, DoublesTheDollarOfUserKeys) {
    keyed_archiver archiver;
    archiver._encodeObject(CF::String("v"), CFSTR("$class"), false);
    archiver._setObjectInCurrentEncodingContext(CF::Number::FromInt32(1), CFSTR("$n"), true);
    archiver._setObjectInCurrentEncodingContext(CF::Number::FromInt32(2), CFSTR("$raw"), false);
    const auto top = topOf(archiver);
    EXPECT_EQ(ReferenceIn(top, "$$class"), 1);
    EXPECT_TRUE(top.Get<CF::Number>(CFSTR("$$n")));
    EXPECT_TRUE(top.Get<CF::Number>(CFSTR("$raw")));
    EXPECT_EQ(top.GetCount(), 3);
}

TEST(KeyedArchiver, FindsAnEscapedKeyAgain) {
    const Value object = Dictionary(
        {{"$$field", String("found")}, {"NS.string", UIDDictionary(2)}, {"$class", UID(3)}});
    EXPECT_EQ(ZK::detail::escaped_key(CFSTR("$field"), true).GetUTF8(), "$$field");
    EXPECT_EQ(ZK::detail::escaped_key(CFSTR("$field"), false).GetUTF8(), "$field");
    EXPECT_EQ(ZK::detail::escaped_key(CFSTR("field$"), true).GetUTF8(), "field$");
    EXPECT_TRUE(CF::Dictionary::Cast(object.get())
                    .Get<CF::String>(ZK::detail::escaped_key(CFSTR("$field"), true).get()));
}

TEST(KeyedArchiver, NumbersKeysThatAreEmpty) {
    keyed_archiver archiver;
    archiver._encodeObject(CF::String("a"), CFSTR(""), false);
    archiver._encodeObject(CF::String("b"), CF::String(), false);
    const auto top = topOf(archiver);
    EXPECT_EQ(ReferenceIn(top, "$0"), 1);
    EXPECT_EQ(ReferenceIn(top, "$1"), 2);
}

TEST(KeyedArchiver, ReservesAPlaceForAReferencedObject) {
    keyed_archiver archiver;
    EXPECT_EQ(archiver._referenceObject(recordWithPath("later"), false), keyed_archiver_uid{1});
    EXPECT_EQ(StringAt(archiver.finishEncoding(), 1), "$null");
}

TEST(KeyedArchiver, RemembersValuesByEquality) {
    keyed_archiver archiver;
    EXPECT_FALSE(archiver.have_visited(CF::String("x")));
    archiver.store_obj(CF::String("x"), {5});
    archiver.store_obj(CF::String("x"), {6});
    EXPECT_TRUE(archiver.have_visited(CF::String("x")));
    EXPECT_EQ(archiver._referenceObject(CF::String("x"), true), keyed_archiver_uid{5});
    EXPECT_FALSE(archiver.have_visited(CF::String()));
}

TEST(KeyedArchiverDeathTest, EndsTheProcessForAnEmptyReference) {
    keyed_archiver archiver;
    EXPECT_DEATH(archiver.set_object_impl(std::nullopt, CFSTR("key")),
                 "Attempted to set a key to a nullopt uid");
}
