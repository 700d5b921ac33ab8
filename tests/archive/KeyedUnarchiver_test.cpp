#include "Archives.hpp"
#include "corefoundation/CFNumberInternal.hpp"

using namespace ArchiveTest;
namespace errors = ZK::archiver_exceptions;
using ZK::extract_keyed_archive;
using ZK::detail::extract_uid;
using ZK::detail::keyed_archiver_uid;

namespace {

CF::Dictionary validArchive() { return Archive({String("root object")}); }

std::string extractFailure(const CF::Dictionary &archive) {
    return MessageOf<errors::archiver_exception>(
        [&] { (void)extract_keyed_archive<CF::String>(archive); });
}

template <class T>
std::string nameOf() {
    return typeid(T).name();
}

} // namespace

TEST(ArchiveValidation, ReadsTheRootObject) {
    const auto root = extract_keyed_archive<CF::String>(validArchive());
    ASSERT_TRUE(root);
    EXPECT_EQ(root->GetUTF8(), "root object");
}

TEST(ArchiveValidation, RefusesAnotherArchiver) {
    for (const Value &creator :
         {String("NSArchiver"), String("nskeyedarchiver"), Number(1), Value()}) {
        const auto archive = With(validArchive(), "$archiver", creator);
        EXPECT_EQ(MessageOf<errors::invalid_creator>(
                      [&] { (void)extract_keyed_archive<CF::String>(archive); }),
                  "Archive was not created with a keyed archiver");
    }
}

TEST(ArchiveValidation, RefusesAMissingVersion) {
    for (const Value &version : {String("100000"), Value()}) {
        const auto archive = With(validArchive(), "$version", version);
        EXPECT_EQ(MessageOf<errors::missing_version>(
                      [&] { (void)extract_keyed_archive<CF::String>(archive); }),
                  "Archive has no version");
    }
}

TEST(ArchiveValidation, RefusesAnUnknownVersionAndKeepsIt) {
    const auto archive = With(validArchive(), "$version", Number(99999));
    try {
        (void)extract_keyed_archive<CF::String>(archive);
        FAIL();
    } catch (const errors::unknown_version &error) {
        EXPECT_STREQ(error.what(), "Archive has unknown version 99999");
        EXPECT_EQ(error.version, 99999);
    }
    EXPECT_EQ(extractFailure(With(validArchive(), "$version", Number(-5000000000))),
              "Archive has unknown version -5000000000");
}

TEST(ArchiveValidation, RefusesVersionsThatAreNearlyTheKnownOne) {
    const Value beyond64Bits = CF::Adopt<CFTypeRef>(_CFNumberCreateWithInt128(nullptr, 1, 100000));
    EXPECT_EQ(extractFailure(With(validArchive(), "$version", beyond64Bits)),
              "Archive has unknown version 9223372036854775807");
    EXPECT_EQ(
        extractFailure(With(validArchive(), "$version", CF::Number::FromDouble(100000.5).get())),
        "Archive has unknown version 100000");
    EXPECT_TRUE(extract_keyed_archive<CF::String>(
        With(validArchive(), "$version", CF::Number::FromDouble(100000).get())));
}

TEST(ArchiveValidation, RefusesAMissingTop) {
    for (const Value &top : {String("root"), Value()}) {
        EXPECT_EQ(MessageOf<errors::missing_top>([&] {
                      (void)extract_keyed_archive<CF::String>(With(validArchive(), "$top", top));
                  }),
                  "Archive is missing the $top key");
    }
}

TEST(ArchiveValidation, RefusesMissingObjects) {
    for (const Value &objects : {Dictionary({}), Value()}) {
        EXPECT_EQ(MessageOf<errors::missing_objects>([&] {
                      (void)extract_keyed_archive<CF::String>(
                          With(validArchive(), "$objects", objects));
                  }),
                  "Archive is missing the $objects key");
    }
}

TEST(ArchiveValidation, RefusesARootThatIsNoReference) {
    for (const Value &top : {Dictionary({}), Dictionary({{"root", Number(1)}}),
                             Dictionary({{"root", UIDDictionary(-1)}})}) {
        EXPECT_EQ(MessageOf<errors::missing_root>([&] {
                      (void)extract_keyed_archive<CF::String>(With(validArchive(), "$top", top));
                  }),
                  "Archive does not have a root object");
    }
}

TEST(ArchiveValidation, ChecksInOrder) {
    auto archive = CF::Dictionary();
    EXPECT_EQ(extractFailure(archive), "Archive was not created with a keyed archiver");
    archive = With(CF::Dictionary::Mutable(), "$archiver", String("NSKeyedArchiver"));
    EXPECT_EQ(extractFailure(archive), "Archive has no version");
    archive = With(archive, "$version", Number(100000));
    EXPECT_EQ(extractFailure(archive), "Archive is missing the $top key");
    archive = With(archive, "$top", Dictionary({}));
    EXPECT_EQ(extractFailure(archive), "Archive is missing the $objects key");
    archive = With(archive, "$objects", Array({}));
    EXPECT_EQ(extractFailure(archive), "Archive does not have a root object");
}

TEST(ArchiveExceptions, AreInvalidArguments) {
    EXPECT_THROW((void)extract_keyed_archive<CF::String>(CF::Dictionary()), std::invalid_argument);
}

TEST(ArchiveReference, IsRecognisedInBothForms) {
    EXPECT_EQ(extract_uid(UID(7).get()), keyed_archiver_uid{7});
    EXPECT_EQ(extract_uid(UID(0xFFFFFFFF).get()), keyed_archiver_uid{0xFFFFFFFF});
    EXPECT_EQ(extract_uid(UIDDictionary(7).get()), keyed_archiver_uid{7});
    EXPECT_EQ(extract_uid(UIDDictionary(0x7FFFFFFF).get()), keyed_archiver_uid{0x7FFFFFFF});
}

TEST(ArchiveReference, IsNothingElse) {
    EXPECT_FALSE(extract_uid(nullptr));
    EXPECT_FALSE(extract_uid(Number(7).get()));
    EXPECT_FALSE(extract_uid(String("CF$UID").get()));
    EXPECT_FALSE(extract_uid(Dictionary({}).get()));
    EXPECT_FALSE(extract_uid(Dictionary({{"CF$UID", String("7")}}).get()));
    EXPECT_FALSE(extract_uid(Dictionary({{"CF$UID", Number(7)}, {"x", Number(1)}}).get()));
    EXPECT_FALSE(extract_uid(UIDDictionary(-1).get()));
    EXPECT_FALSE(extract_uid(UIDDictionary(0x80000000).get()));
    const Value beyond64Bits = CF::Adopt<CFTypeRef>(_CFNumberCreateWithInt128(nullptr, 1, 7));
    EXPECT_FALSE(extract_uid(Dictionary({{"CF$UID", beyond64Bits}}).get()));
    EXPECT_FALSE(extract_uid(Dictionary({{"CF$UID", CF::Number::FromDouble(7.5).get()}}).get()));
}

TEST(ArchiveReference, IsWrittenAsADictionary) {
    const auto dictionary = keyed_archiver_uid{9}.to_dict();
    EXPECT_EQ(dictionary.GetCount(), 1);
    EXPECT_EQ(dictionary.Get<CF::Number>(CFSTR("CF$UID")).GetInt64(), 9);
}

TEST(Unarchiver, DecodesTheNullObjectAsNull) {
    const auto root = extract_keyed_archive<CF::String>(Archive({}, UID(0)));
    ASSERT_TRUE(root);
    EXPECT_TRUE(root->IsNull());
}

TEST(Unarchiver, ReportsAnEntryThatIsNull) {
    const auto archive =
        Archive({String("a"), String("b"), String("c"), String("d"), kCFNull}, UID(5));
    try {
        (void)extract_keyed_archive<CF::String>(archive);
        FAIL();
    } catch (const errors::missing_uid &error) {
        EXPECT_STREQ(error.what(), "uid 5 was missing or null");
        EXPECT_EQ(error.uid, 5u);
    }
}

TEST(Unarchiver, ReportsAnEntryBeyondTheTable) {
    EXPECT_EQ(extractFailure(Archive({String("a")}, UID(2))), "uid 2 was missing or null");
    EXPECT_EQ(extractFailure(Archive({String("a")}, UID(0xFFFFFFFF))),
              "uid 4294967295 was missing or null");
}

TEST(Unarchiver, TakesPlainValuesAsTheyStand) {
    EXPECT_EQ(extract_keyed_archive<CF::Data>(Archive({Data({1, 2})}))->GetVector(),
              (std::vector<std::uint8_t>{1, 2}));
    EXPECT_EQ(extract_keyed_archive<CF::Number>(Archive({Number(-3)}))->GetInt64(), -3);
    EXPECT_FALSE(extract_keyed_archive<CF::String>(Archive({Number(1)})));
    EXPECT_FALSE(extract_keyed_archive<CF::Number>(Archive({String("1")})));
}

TEST(Unarchiver, UnwrapsValuesOfTheirClasses) {
    const auto wrapped = [](const std::string &key, const Value &value, const std::string &name) {
        return Archive({Dictionary({{key, value}, {"$class", UID(2)}}), Class({name, "NSObject"})});
    };
    for (const std::string name : {"NSString", "NSMutableString"}) {
        EXPECT_EQ(
            extract_keyed_archive<CF::String>(wrapped("NS.string", String("x"), name))->GetUTF8(),
            "x");
    }
    for (const std::string name : {"NSData", "NSMutableData"}) {
        EXPECT_EQ(extract_keyed_archive<CF::Data>(wrapped("NS.data", Data({9}), name))->GetLength(),
                  1);
    }
    EXPECT_EQ(
        extract_keyed_archive<CF::Number>(wrapped("NS.number", Number(4), "NSNumber"))->GetInt64(),
        4);
    EXPECT_FALSE(extract_keyed_archive<CF::String>(wrapped("NS.string", String("x"), "NSURL")));
    EXPECT_FALSE(extract_keyed_archive<CF::Data>(wrapped("NS.data", Data({9}), "NSString")));
}

TEST(Unarchiver, FindsNoValueInAWrapperWithoutIt) {
    const auto archive =
        Archive({Dictionary({{"$class", UID(2)}}), Class({"NSString", "NSObject"})});
    EXPECT_FALSE(extract_keyed_archive<CF::String>(archive));
}

TEST(Unarchiver, FollowsAReferenceInsideAWrapper) {
    const auto archive = Archive({Dictionary({{"NS.data", UID(3)}, {"$class", UID(2)}}),
                                  Class({"NSMutableData", "NSData", "NSObject"}), Data({5, 6})});
    EXPECT_EQ(extract_keyed_archive<CF::Data>(archive)->GetVector(),
              (std::vector<std::uint8_t>{5, 6}));
}

TEST(Unarchiver, ReportsAnObjectThatIsItsOwnClass) {
    const auto archive = Archive({Dictionary({{"NS.string", String("x")}, {"$class", UID(1)}})});
    EXPECT_EQ(
        MessageOf<errors::decode_cycle>([&] { (void)extract_keyed_archive<CF::String>(archive); }),
        "A cycle was detected when decoding the archive");
    const auto record = Archive({Dictionary({{"Mode", Number(1)}, {"$class", UID(1)}})});
    EXPECT_EQ(
        MessageOf<errors::decode_cycle>([&] { (void)extract_keyed_archive<MB::File>(record); }),
        "A cycle was detected when decoding the archive");
}

TEST(Unarchiver, ReportsAnObjectThatHoldsItself) {
    const auto archive = Archive({Dictionary({{"RelativePath", UID(1)}, {"$class", UID(2)}}),
                                  Class({"MBFile", "NSObject"})});
    EXPECT_THROW((void)extract_keyed_archive<MB::File>(archive), errors::decode_cycle);
}

TEST(Unarchiver, RefusesAnInlineClass) {
    const auto archive = Archive({Dictionary({{"$class", String("NSString")}})});
    EXPECT_EQ(MessageOf<errors::cant_decode_as_value>(
                  [&] { (void)extract_keyed_archive<CF::String>(archive); }),
              "Cant decode type '" + nameOf<ZK::detail::archived_class>() + "' as a value");
}

TEST(Unarchiver, ReadsNameAndChainOfAClass) {
    ZK::keyed_unarchiver unarchiver(CF::Array::Cast(
        Array({String("$null"), Class({"NSMutableData", "NSData", "NSObject"})}).get()));
    const auto archived = unarchiver.get<ZK::detail::archived_class>({1});
    ASSERT_TRUE(archived);
    EXPECT_EQ(archived->name, "NSMutableData");
    EXPECT_EQ(archived->chain, (std::vector<std::string>{"NSMutableData", "NSData", "NSObject"}));
    EXPECT_FALSE(unarchiver.get<ZK::detail::archived_class>({0}));
}

TEST(Unarchiver, HasNoFieldsOutsideAnObject) {
    ZK::keyed_unarchiver unarchiver(CF::Array::Cast(Array({String("$null")}).get()));
    EXPECT_FALSE(unarchiver.decode<CF::String>(CFSTR("Key")));
    EXPECT_FALSE(unarchiver.get_class());
    EXPECT_FALSE(unarchiver.current());
}

TEST(Unarchiver, ConvertsNumbersToScalars) {
    ZK::keyed_unarchiver unarchiver(
        CF::Array::Cast(Array({String("$null"), Number(-1), String("no number")}).get()));
    EXPECT_EQ(unarchiver.get<int>({1}), -1);
    EXPECT_EQ(unarchiver.get<unsigned int>({1}), 0xFFFFFFFFu);
    EXPECT_EQ(unarchiver.get<long long>({1}), -1);
    EXPECT_EQ(unarchiver.get<unsigned long long>({1}), 0xFFFFFFFFFFFFFFFFu);
    EXPECT_FALSE(unarchiver.get<int>({2}));
    EXPECT_FALSE(unarchiver.get<long long>({0}));
}

TEST(Unarchiver, ReadsReferencesOnlyFromArraysOfThem) {
    using References = std::vector<keyed_archiver_uid>;
    ZK::keyed_unarchiver unarchiver(CF::Array::Cast(
        Array({String("$null"), UIDs({3, 1}), Array({UID(1), Number(2)}), String("x")}).get()));
    EXPECT_EQ(unarchiver.get<References>({1}), (References{{3}, {1}}));
    EXPECT_FALSE(unarchiver.get<References>({2}));
    EXPECT_FALSE(unarchiver.get<References>({3}));
}

TEST(ClassNames, StandForTheirTypesAndNoOthers) {
    EXPECT_TRUE(CF::validate_name<CF::String>("NSString"));
    EXPECT_TRUE(CF::validate_name<CF::String>("NSMutableString"));
    EXPECT_TRUE(CF::validate_name<CF::Data>("NSMutableData"));
    EXPECT_TRUE(CF::validate_name<CF::Number>("NSNumber"));
    EXPECT_TRUE(CF::validate_name<CF::Array>("NSMutableArray"));
    EXPECT_TRUE(CF::validate_name<CF::Dictionary>("NSMutableDictionary"));
    EXPECT_FALSE(CF::validate_name<CF::Dictionary>("NSArray"));
    EXPECT_FALSE(CF::validate_name<CF::String>("nsstring"));
    EXPECT_FALSE(CF::validate_name<CF::Number>(""));
}
