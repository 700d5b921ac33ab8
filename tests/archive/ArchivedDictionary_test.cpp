#include "Archives.hpp"

using namespace ArchiveTest;
namespace errors = ZK::archiver_exceptions;
using ZK::extract_keyed_archive;
using ZK::make_keyed_archive;

namespace {

// A dictionary object with these references, its class, and further objects from 3 on.
CF::Dictionary dictionaryArchive(const Value &keys, const Value &objects,
                                 const std::vector<Value> &further,
                                 const std::string &className = "NSDictionary") {
    std::vector<Value> table = {
        Dictionary({{"NS.keys", keys}, {"NS.objects", objects}, {"$class", UID(2)}}),
        Class({className, "NSObject"})};
    table.insert(table.end(), further.begin(), further.end());
    return Archive(table);
}

std::optional<CF::Dictionary> extract(const CF::Dictionary &archive) {
    return extract_keyed_archive<CF::Dictionary>(archive);
}

CF::Dictionary roundTrip(const Value &dictionary) {
    return extract(make_keyed_archive(CF::Dictionary::Cast(dictionary.get())))
        .value_or(CF::Dictionary());
}

} // namespace

TEST(ArchivedDictionary, PairsKeysWithObjects) {
    const auto archive = dictionaryArchive(UIDs({3, 5}), UIDs({4, 6}),
                                           {String("a"), Data({1}), String("b"), Number(2)});
    const auto dictionary = extract(archive);
    ASSERT_TRUE(dictionary);
    EXPECT_EQ(*dictionary,
              CF::Dictionary::Cast(Dictionary({{"a", Data({1})}, {"b", Number(2)}}).get()));
}

TEST(ArchivedDictionary, MayBeOfTheMutableClass) {
    EXPECT_TRUE(extract(dictionaryArchive(UIDs({}), UIDs({}), {}, "NSMutableDictionary")));
}

TEST(ArchivedDictionary, IsAbsentWhenCountsDiffer) {
    EXPECT_FALSE(extract(
        dictionaryArchive(UIDs({3, 4, 5}), UIDs({3, 4}), {String("a"), String("b"), String("c")})));
}

TEST(ArchivedDictionary, IsAbsentForAnotherClassOrNone) {
    EXPECT_FALSE(extract(dictionaryArchive(UIDs({}), UIDs({}), {}, "NSSet")));
    EXPECT_FALSE(extract(Archive({Dictionary({{"NS.keys", UIDs({})}, {"NS.objects", UIDs({})}})})));
    EXPECT_FALSE(extract(Archive({Data({1})})));
    EXPECT_FALSE(extract(Archive({}, UID(0))));
}

TEST(ArchivedDictionary, IsAbsentWithoutKeysOrObjects) {
    const auto withOnly = [](const std::string &key) {
        return Archive({Dictionary({{key, UIDs({})}, {"$class", UID(2)}}),
                        Class({"NSDictionary", "NSObject"})});
    };
    EXPECT_FALSE(extract(withOnly("NS.keys")));
    EXPECT_FALSE(extract(withOnly("NS.objects")));
}

TEST(ArchivedDictionary, KeepsTheLastOfEqualKeys) {
    const auto dictionary = extract(dictionaryArchive(
        UIDs({3, 3}), UIDs({4, 5}), {String("k"), String("first"), String("last")}));
    ASSERT_TRUE(dictionary);
    EXPECT_EQ(dictionary->GetCount(), 1);
    EXPECT_EQ(dictionary->Get<CF::String>(CFSTR("k")).GetUTF8(), "last");
}

TEST(ArchivedDictionary, SkipsPairsThatDoNotDecode) {
    const Value unknown = Dictionary({{"$class", UID(4)}});
    const auto dictionary = extract(dictionaryArchive(
        UIDs({3, 6, 7}), UIDs({5, 3, 0}),
        {String("k"), Class({"NSURL", "NSObject"}), unknown, String("kept"), String("null")}));
    ASSERT_TRUE(dictionary);
    EXPECT_EQ(dictionary->GetCount(), 1);
    EXPECT_EQ(dictionary->Get<CF::String>(CFSTR("kept")).GetUTF8(), "k");
}

TEST(ArchivedDictionary, ReportsAMissingMember) {
    EXPECT_EQ(MessageOf<errors::missing_uid>(
                  [&] { (void)extract(dictionaryArchive(UIDs({3}), UIDs({9}), {String("k")})); }),
              "uid 9 was missing or null");
}

TEST(ArchivedDictionary, IsWrittenWithParallelReferences) {
    const auto archive =
        make_keyed_archive(CF::Dictionary::Cast(Dictionary({{"name", Data({7})}}).get()));
    const auto object = ObjectAt(archive, 1);
    EXPECT_EQ(object.GetCount(), 3);
    const auto keys = object.Get<CF::Array>(CFSTR("NS.keys"));
    const auto values = object.Get<CF::Array>(CFSTR("NS.objects"));
    ASSERT_EQ(keys.GetCount(), 1);
    ASSERT_EQ(values.GetCount(), 1);
    EXPECT_EQ(ZK::detail::extract_uid(keys.GetAt(0))->value, 2u);
    EXPECT_EQ(ZK::detail::extract_uid(values.GetAt(0))->value, 3u);
    EXPECT_EQ(StringAt(archive, 2), "name");
    EXPECT_EQ(ReferenceIn(object, "$class"), 4);
    EXPECT_EQ(ObjectAt(archive, 4),
              CF::Dictionary::Cast(Class({"NSDictionary", "NSObject"}).get()));
}

TEST(ArchivedDictionary, SurvivesARoundTrip) {
    const Value original = Dictionary(
        {{"string", String("s")},
         {"data", Data({1, 2})},
         {"number", Number(1LL << 40)},
         {"array", Array({String("s"), Number(1), Array({})})},
         {"dictionary", Dictionary({{"inner", Dictionary({})}, {"string", String("s")}})}});
    EXPECT_EQ(roundTrip(original), CF::Dictionary::Cast(original.get()));
}

TEST(ArchivedDictionary, StoresOneInstanceOnce) {
    const Value shared = Dictionary({{"x", Number(1)}});
    const auto archive =
        make_keyed_archive(CF::Dictionary::Cast(Dictionary({{"a", shared}, {"b", shared}}).get()));
    // $null, the root, two keys, the shared dictionary with its key and value, and
    // one class for both.
    EXPECT_EQ(Objects(archive).GetCount(), 8);
}

TEST(ArchivedDictionary, KeepsBooleansInTheTable) {
    const auto archive =
        make_keyed_archive(CF::Dictionary::Cast(Dictionary({{"flag", kCFBooleanTrue}}).get()));
    EXPECT_EQ(Objects(archive).GetAt(3), kCFBooleanTrue);
}

TEST(ArchivedArray, MayStandInTheTableAsAValue) {
    const auto array = extract_keyed_archive<CF::Array>(Archive({Array({Number(1)})}));
    ASSERT_TRUE(array);
    EXPECT_EQ(array->GetCount(), 1);
    EXPECT_FALSE(extract_keyed_archive<CF::Array>(Archive({String("x")})));
}

TEST(ArchivedArray, AsAValueHasTheMembersThatOthersCanHave) {
    const auto archive = Archive({Array({Number(1), kCFNull, kCFBooleanTrue, UID(1), Data({2}),
                                         Array({String("x"), kCFBooleanFalse}),
                                         Dictionary({{"k", String("v")}, {"null", kCFNull}})})});
    const auto expected =
        Array({Number(1), Data({2}), Array({String("x")}), Dictionary({{"k", String("v")}})});
    const auto array = extract_keyed_archive<CF::Array>(archive);
    ASSERT_TRUE(array);
    EXPECT_TRUE(CFEqual(array->get(), expected.get()));
    EXPECT_EQ(*extract_keyed_archive<CF::Array>(make_keyed_archive(*array)), *array);
}

TEST(ArchivedArray, AsAValueNestsNoDeeperThanOthers) {
    const auto nested = [](std::size_t depth) {
        Value array = Array({});
        for (std::size_t i = 1; i < depth; ++i) {
            array = Array({array});
        }
        return Archive({array});
    };
    const auto deepest = extract_keyed_archive<CF::Array>(nested(ZK::detail::kMaxEncodingDepth));
    ASSERT_TRUE(deepest);
    EXPECT_EQ(*extract_keyed_archive<CF::Array>(make_keyed_archive(*deepest)), *deepest);
    EXPECT_EQ(MessageOf<ZK::archiver_exceptions::limit_exceeded>([&] {
                  (void)extract_keyed_archive<CF::Array>(nested(ZK::detail::kMaxEncodingDepth + 1));
              }),
              "Archive nests its objects too deeply");
}
