// Archives made to exhaust the stack or the processor.

#include "Archives.hpp"

using namespace ArchiveTest;
namespace errors = ZK::archiver_exceptions;
using ZK::extract_keyed_archive;
using ZK::make_keyed_archive;
using ZK::detail::kMaxDecodingDepth;
using ZK::detail::kMaxEncodingDepth;
using ZK::detail::kMaxMembers;

namespace {

// Object n wraps a string that is object n + 1, for all of the given length; the class
// is the last but one, a string the last.
CF::Dictionary chainOfWrappers(std::uint32_t length) {
    std::vector<Value> objects;
    for (std::uint32_t i = 1; i <= length; ++i) {
        const std::uint32_t next = i < length ? i + 1 : length + 2;
        objects.push_back(Dictionary({{"NS.string", UID(next)}, {"$class", UID(length + 1)}}));
    }
    objects.push_back(Class({"NSString", "NSObject"}));
    objects.push_back(String("end"));
    return Archive(objects);
}

// Dictionaries of two pairs each, both values being the next dictionary: as many paths
// to the last one as two to the power of their number.
CF::Dictionary doublingDictionaries(std::uint32_t levels) {
    std::vector<Value> objects;
    for (std::uint32_t i = 1; i <= levels; ++i) {
        const std::uint32_t next = i < levels ? i + 1 : levels + 2;
        objects.push_back(Dictionary({{"NS.keys", UIDs({levels + 2, levels + 3})},
                                      {"NS.objects", UIDs({next, next})},
                                      {"$class", UID(levels + 1)}}));
    }
    objects.push_back(Class({"NSDictionary", "NSObject"}));
    objects.push_back(String("a"));
    objects.push_back(String("b"));
    return Archive(objects);
}

// A record whose attributes are dictionaries in one another.
CF::Dictionary recordOfNested(std::uint32_t depth) {
    std::vector<Value> objects = {Dictionary({{"ExtendedAttributes", UID(5)}, {"$class", UID(2)}}),
                                  Class({"MBFile", "NSObject"}),
                                  Class({"NSDictionary", "NSObject"}), String("name")};
    for (std::uint32_t i = 1; i <= depth; ++i) {
        const Value member = UIDs({i < depth ? 5 + i : 4});
        objects.push_back(
            Dictionary({{"NS.keys", UIDs({4})}, {"NS.objects", member}, {"$class", UID(3)}}));
    }
    return Archive(objects);
}

Value nestedDictionary(std::size_t depth) {
    Value inner = Dictionary({});
    for (std::size_t i = 1; i < depth; ++i) {
        inner = Dictionary({{"d", inner}});
    }
    return inner;
}

} // namespace

TEST(ArchiveLimits, ReadsAChainOfOrdinaryLength) {
    const auto end = extract_keyed_archive<CF::String>(chainOfWrappers(20));
    ASSERT_TRUE(end);
    EXPECT_EQ(end->GetUTF8(), "end");
}

TEST(ArchiveLimits, RefusesALongChainThatIsNoCycle) {
    EXPECT_EQ(MessageOf<errors::limit_exceeded>(
                  [] { (void)extract_keyed_archive<CF::String>(chainOfWrappers(200000)); }),
              "Archive nests its objects too deeply");
}

TEST(ArchiveLimits, RefusesDictionariesThatShareTheirMembersExponentially) {
    EXPECT_TRUE(extract_keyed_archive<CF::Dictionary>(doublingDictionaries(8)));
    EXPECT_EQ(MessageOf<errors::limit_exceeded>(
                  [] { (void)extract_keyed_archive<CF::Dictionary>(doublingDictionaries(60)); }),
              "Archive has too many members in its containers");
}

TEST(ArchiveLimits, EndsEveryLoop) {
    // Loops of every length from 2 on, entered from a tail: whether the middle of the
    // stack or the depth notices first, it ends.
    for (std::uint32_t length = 2; length <= 40; ++length) {
        std::vector<Value> objects;
        for (std::uint32_t i = 1; i <= length + 3; ++i) {
            const std::uint32_t next = i < length + 3 ? i + 1 : 4;
            objects.push_back(Dictionary({{"NS.string", UID(next)}, {"$class", UID(length + 4)}}));
        }
        objects.push_back(Class({"NSString", "NSObject"}));
        EXPECT_THROW((void)extract_keyed_archive<CF::String>(Archive(objects)),
                     errors::archiver_exception)
            << "loop of " << length;
    }
}

TEST(ArchiveLimits, NoticesOnlyTheMiddleOfTheStack) {
    // Root 1 -> 2 -> 1: when 1 is met again, two objects are in progress and the one
    // in the middle is 2, so the loop goes on; 2 is met with three, whose middle is 2.
    const auto archive = Archive({Dictionary({{"NS.string", UID(2)}, {"$class", UID(3)}}),
                                  Dictionary({{"NS.string", UID(1)}, {"$class", UID(3)}}),
                                  Class({"NSString", "NSObject"})});
    EXPECT_THROW((void)extract_keyed_archive<CF::String>(archive), errors::decode_cycle);
}

TEST(ArchiveLimits, NeverRefusesALargeArchiveWithoutSharing) {
    Fields fields;
    for (int i = 0; i < 20000; ++i) {
        fields.emplace_back("key" + std::to_string(i), Data({static_cast<std::uint8_t>(i)}));
    }
    const auto original = CF::Dictionary::Cast(Dictionary(fields).get());
    const auto read = extract_keyed_archive<CF::Dictionary>(make_keyed_archive(original));
    ASSERT_TRUE(read);
    EXPECT_EQ(*read, original);
}

TEST(ArchiveLimits, NeverRefusesManyObjectsOfAClass) {
    Fields fields;
    for (int i = 0; i < 5000; ++i) {
        fields.emplace_back("key" + std::to_string(i),
                            Dictionary({{"inner" + std::to_string(i), Array({Number(i)})}}));
    }
    const auto original = CF::Dictionary::Cast(Dictionary(fields).get());
    const auto read = extract_keyed_archive<CF::Dictionary>(make_keyed_archive(original));
    ASSERT_TRUE(read);
    EXPECT_EQ(*read, original);
}

TEST(ArchiveLimits, CountEveryReferenceThatIsRead) {
    // 500 arrays that share their 5000 references, none of which decodes.
    const Value shared = Array(std::vector<Value>(5000, UID(0)));
    std::vector<Value> objects = {Value(), Class({"NSArray", "NSObject"})};
    std::vector<Value> members;
    for (std::uint32_t i = 0; i < 500; ++i) {
        objects.push_back(Dictionary({{"NS.objects", shared}, {"$class", UID(2)}}));
        members.push_back(UID(3 + i));
    }
    objects[0] = Dictionary({{"NS.objects", Array(members)}, {"$class", UID(2)}});
    EXPECT_EQ(MessageOf<errors::limit_exceeded>(
                  [&] { (void)extract_keyed_archive<CF::Array>(Archive(objects)); }),
              "Archive takes too many steps to decode");
}

TEST(ArchiveLimits, BoundTheNamesOfClasses) {
    const auto archiveOfClass = [](const Value &archivedClass) {
        return Archive(
            {Dictionary({{"NS.string", String("x")}, {"$class", UID(2)}}), archivedClass});
    };
    EXPECT_EQ(MessageOf<errors::limit_exceeded>([&] {
                  (void)extract_keyed_archive<CF::String>(
                      archiveOfClass(Class({std::string(257, 'N'), "NSObject"})));
              }),
              "Archive names a class too long");
    EXPECT_EQ(MessageOf<errors::limit_exceeded>([&] {
                  (void)extract_keyed_archive<CF::String>(
                      archiveOfClass(Class(std::vector<std::string>(65, "NSString"))));
              }),
              "Archive has a class with too many ancestors");
}

TEST(ArchiveLimits, ReadsWhateverTheWriterAccepts) {
    const auto deepest = CF::Dictionary::Cast(nestedDictionary(kMaxEncodingDepth).get());
    const auto read = extract_keyed_archive<CF::Dictionary>(make_keyed_archive(deepest));
    ASSERT_TRUE(read);
    EXPECT_EQ(*read, deepest);
    MB::File record;
    record.ExtendedAttributes = CF::Dictionary::Cast(nestedDictionary(kMaxEncodingDepth - 1).get());
    EXPECT_EQ(extract_keyed_archive<MB::File>(make_keyed_archive(record))->ExtendedAttributes,
              record.ExtendedAttributes);
}

TEST(ArchiveLimits, WritesWhateverTheReaderAccepts) {
    // Of 126 dictionaries in a record the innermost is its 127th container; its class is read
    // as the 128th object in progress.
    const auto deepest = extract_keyed_archive<MB::File>(recordOfNested(126));
    ASSERT_TRUE(deepest);
    const auto again = extract_keyed_archive<MB::File>(make_keyed_archive(*deepest));
    EXPECT_EQ(again->ExtendedAttributes, deepest->ExtendedAttributes);
    EXPECT_EQ(MessageOf<errors::limit_exceeded>(
                  [] { (void)extract_keyed_archive<MB::File>(recordOfNested(127)); }),
              "Archive nests its objects too deeply");
}

TEST(ArchiveLimits, BoundMembersAlikeInBothDirections) {
    const auto arrayOf = [](std::size_t count) {
        return CF::Array::Cast(Array(std::vector<Value>(count, Number(1))).get());
    };
    const auto archive = make_keyed_archive(arrayOf(kMaxMembers));
    EXPECT_EQ(extract_keyed_archive<CF::Array>(archive)->GetCount(),
              static_cast<CFIndex>(kMaxMembers));
    EXPECT_EQ(MessageOf<errors::limit_exceeded>(
                  [&] { (void)make_keyed_archive(arrayOf(kMaxMembers + 1)); }),
              "Objects have too many members to be archived");
    const auto tooMany =
        Archive({Dictionary({{"NS.objects", Array(std::vector<Value>(kMaxMembers + 1, UID(3)))},
                             {"$class", UID(2)}}),
                 Class({"NSArray", "NSObject"}), Number(1)});
    EXPECT_EQ(
        MessageOf<errors::limit_exceeded>([&] { (void)extract_keyed_archive<CF::Array>(tooMany); }),
        "Archive has too many members in its containers");
}

TEST(ArchiveLimits, WriteSharedContainersThatTheReaderAccepts) {
    Value inner = Array(std::vector<Value>(500, Number(1)));
    const auto shared = CF::Array::Cast(Array(std::vector<Value>(500, inner)).get());
    EXPECT_EQ(*extract_keyed_archive<CF::Array>(make_keyed_archive(shared)), shared);
    const auto beyond = CF::Array::Cast(Array(std::vector<Value>(700, inner)).get());
    EXPECT_THROW((void)make_keyed_archive(beyond), errors::limit_exceeded);
}

TEST(ArchiveLimits, CountDepthThroughSharedContainers) {
    const Value deep = nestedDictionary(kMaxEncodingDepth - 1);
    const auto fits = CF::Dictionary::Cast(Dictionary({{"a", deep}, {"b", deep}}).get());
    EXPECT_EQ(*extract_keyed_archive<CF::Dictionary>(make_keyed_archive(fits)), fits);
    const auto beyond =
        CF::Dictionary::Cast(Dictionary({{"a", deep}, {"b", Dictionary({{"c", deep}})}}).get());
    EXPECT_THROW((void)make_keyed_archive(beyond), errors::limit_exceeded);
}

TEST(ArchiveLimits, BoundTheComparingOfContainersAsKeys) {
    // Arrays of one element each, which all hash alike.
    std::vector<Value> objects = {Value(), Class({"NSDictionary", "NSObject"}),
                                  Class({"NSArray", "NSObject"})};
    std::vector<Value> keys;
    for (std::uint32_t i = 0; i < 20000; ++i) {
        objects.push_back(Array({Number(i)}));
        keys.push_back(UID(4 + i));
    }
    objects[0] =
        Dictionary({{"NS.keys", Array(keys)}, {"NS.objects", Array(keys)}, {"$class", UID(2)}});
    EXPECT_EQ(MessageOf<errors::limit_exceeded>(
                  [&] { (void)extract_keyed_archive<CF::Dictionary>(Archive(objects)); }),
              "Archive takes too many steps to decode");
}

TEST(ArchiveLimits, RefusesToWriteWhatNestsTooDeeply) {
    const auto tooDeep = CF::Dictionary::Cast(nestedDictionary(kMaxEncodingDepth + 1).get());
    EXPECT_EQ(MessageOf<errors::limit_exceeded>([&] { (void)make_keyed_archive(tooDeep); }),
              "Objects are nested too deeply to be archived");
}

TEST(ArchiveLimits, CountTheDepthExactly) {
    // A chain of n wrappers and the string at its end: n + 1 objects in progress.
    const auto length = static_cast<std::uint32_t>(kMaxDecodingDepth) - 1;
    EXPECT_TRUE(extract_keyed_archive<CF::String>(chainOfWrappers(length)));
    EXPECT_THROW((void)extract_keyed_archive<CF::String>(chainOfWrappers(length + 1)),
                 errors::limit_exceeded);
}
