// Archives made to exhaust the stack or the processor.

#include "Archives.hpp"

using namespace ArchiveTest;
namespace errors = ZK::archiver_exceptions;
using ZK::extract_keyed_archive;
using ZK::make_keyed_archive;
using ZK::detail::kMaxDecodingDepth;
using ZK::detail::kMaxEncodingDepth;

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
              "Archive takes too many steps to decode");
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
    // 500 values that are one dictionary of 5000 keys and no object, which is absent.
    const std::vector<Value> wide(5000, UID(5));
    const std::vector<Value> again(500, UID(3));
    const auto archive = Archive(
        {Dictionary({{"NS.keys", Array(std::vector<Value>(500, UID(5)))},
                     {"NS.objects", Array(again)},
                     {"$class", UID(2)}}),
         Class({"NSDictionary", "NSObject"}),
         Dictionary({{"NS.keys", Array(wide)}, {"NS.objects", UIDs({})}, {"$class", UID(4)}}),
         Class({"NSDictionary", "NSObject"}), String("key")});
    EXPECT_EQ(MessageOf<errors::limit_exceeded>(
                  [&] { (void)extract_keyed_archive<CF::Dictionary>(archive); }),
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
