// Whatever is read can be written, and reads back as the same: a backup with one record that
// cannot be written could not be exported at all.

#include "Archives.hpp"

#include <random>

using namespace ArchiveTest;
using ZK::extract_keyed_archive;
using ZK::make_keyed_archive;

namespace {

using PropertyList = CF::PropertyListType<CF::Dictionary>;

// Makes archives of records whose attributes are anything: containers and values in all forms
// that the reader knows and some that it does not, shared, equal, and nested to its limits.
class RandomArchives {
  public:
    explicit RandomArchives(unsigned seed) : random_(seed) {}

    CF::Dictionary Next() {
        objects_ = {Value(),
                    Class({"MBFile", "NSObject"}),
                    Class({"NSMutableDictionary", "NSDictionary", "NSObject"}),
                    Class({"NSArray", "NSObject"}),
                    Class({"NSString", "NSObject"}),
                    Class({"NSData", "NSObject"}),
                    Class({"NSNumber", "NSObject"}),
                    Class({"NSURL", "NSObject"})};
        // Not above the root and its classes, so that most archives have no loops.
        std::uint32_t attributes = Pairs(3);
        const unsigned levels = Below(4) == 0 ? 110 + Below(20) : Below(20);
        for (unsigned i = 0; i < levels; ++i) {
            attributes = Nest(attributes);
        }
        objects_[0] = Dictionary(
            {{"ExtendedAttributes", UID(PairOf(Text(), attributes))}, {"$class", UID(2)}});
        return Archive(objects_);
    }

  private:
    enum : std::uint32_t { kDictionary = 3, kArray, kString, kData, kNumber, kOther, kFirst };

    unsigned Below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
    std::uint32_t Add(const Value &object) {
        objects_.push_back(object);
        return static_cast<std::uint32_t>(objects_.size());
    }
    std::uint32_t Text() { return Add(String("name " + std::to_string(Below(8)))); }
    std::uint32_t Wrap(const char *key, const Value &value, std::uint32_t archivedClass) {
        return Add(Dictionary(
            {{key, Below(2) == 0 ? value : UID(Add(value))}, {"$class", UID(archivedClass)}}));
    }
    std::uint32_t PairOf(std::uint32_t key, std::uint32_t value) {
        return Add(Dictionary({{"NS.keys", UIDs({key})},
                               {"NS.objects", UIDs({value})},
                               {"$class", UID(kDictionary)}}));
    }
    std::uint32_t Nest(std::uint32_t inner) {
        return Below(2) == 0 ? PairOf(Text(), inner)
                             : Add(Dictionary({{"NS.objects", UIDs({inner, Text()})},
                                               {"$class", UID(kArray)}}));
    }

    std::uint32_t Leaf() {
        switch (Below(8)) {
        case 0:
            return Add(Data({1, static_cast<std::uint8_t>(Below(4))}));
        case 1:
            return Add(Number(Below(3)));
        case 2:
            return Add(CF::Number::FromUInt64(UINT64_MAX - Below(3)).get());
        case 3:
            return Wrap("NS.string", String("wrapped"), kString);
        case 4:
            return Wrap("NS.data", Data({7}), kData);
        case 5:
            return Wrap("NS.number", CF::Number::FromDouble(0.5).get(), kNumber);
        case 6:
            return Below(2) == 0 ? Add(kCFBooleanTrue) : Add(Dictionary({{"$class", UID(kOther)}}));
        default:
            return Text();
        }
    }

    // A value that holds its members itself.
    Value Plain(unsigned depth) {
        std::vector<Value> members;
        for (unsigned i = 0; i < Below(4); ++i) {
            members.push_back(Below(2) == 0 ? Number(Below(3)) : Value(kCFBooleanTrue));
        }
        members.push_back(Dictionary({{"key", depth == 0 ? Value(kCFNull) : Plain(depth - 1)}}));
        return Array(members);
    }

    std::uint32_t Any(unsigned depth) {
        const unsigned kind = Below(10);
        if (kind == 0 && objects_.size() > kFirst) {
            return kFirst + Below(static_cast<unsigned>(objects_.size()) - kFirst); // shared
        }
        if (depth == 0 || kind < 5) {
            return Leaf();
        }
        if (kind == 5) {
            return Add(Plain(Below(70)));
        }
        return kind < 8 ? Pairs(depth - 1) : Elements(depth - 1);
    }
    Value References(unsigned count, unsigned depth) {
        std::vector<Value> references;
        for (unsigned i = 0; i < count; ++i) {
            references.push_back(UID(Any(depth)));
        }
        return Array(references);
    }
    std::uint32_t Pairs(unsigned depth) {
        const unsigned count = Below(6);
        const Value keys = References(count, Below(8) == 0 ? depth : 0);
        return Add(Dictionary({{"NS.keys", keys},
                               {"NS.objects", References(count, depth)},
                               {"$class", UID(kDictionary)}}));
    }
    std::uint32_t Elements(unsigned depth) {
        return Add(
            Dictionary({{"NS.objects", References(Below(6), depth)}, {"$class", UID(kArray)}}));
    }

    std::mt19937 random_;
    std::vector<Value> objects_;
};

std::optional<MB::File> read(const CF::Dictionary &archive) {
    try {
        return extract_keyed_archive<MB::File>(archive);
    } catch (const ZK::archiver_exceptions::archiver_exception &) {
        return std::nullopt;
    }
}

// Through the bytes that a row of a database would hold.
std::optional<MB::File> rewritten(const MB::File &record) {
    const auto bytes = PropertyList::ToPropertyListData(make_keyed_archive(record),
                                                        kCFPropertyListBinaryFormat_v1_0);
    return bytes ? read(PropertyList::FromPropertyListData(bytes)) : std::nullopt;
}

int depthOf(CFTypeRef value) {
    int deepest = 0;
    if (const auto array = CF::Array::Cast(value)) {
        for (CFIndex i = 0; i < array.GetCount(); ++i) {
            deepest = std::max(deepest, depthOf(array.GetAt(i)));
        }
    } else if (const auto dictionary = CF::Dictionary::Cast(value)) {
        dictionary.ForEach([&](CFTypeRef key, CFTypeRef member) {
            deepest = std::max({deepest, depthOf(key), depthOf(member)});
        });
    } else {
        return 0;
    }
    return deepest + 1;
}

} // namespace

TEST(ArchiveRoundTrip, WhateverIsReadIsWrittenAndReadAgain) {
    RandomArchives archives(7);
    int readable = 0;
    int deep = 0;
    int refused = 0;
    for (int i = 0; i < 1000; ++i) {
        const auto record = read(archives.Next());
        if (!record || !record->ExtendedAttributes) {
            ++refused;
            continue;
        }
        ++readable;
        deep += depthOf(record->ExtendedAttributes.get()) > 110 ? 1 : 0;
        const auto again = rewritten(*record);
        ASSERT_TRUE(again) << "archive " << i;
        ASSERT_EQ(again->ExtendedAttributes, record->ExtendedAttributes) << "archive " << i;
    }
    EXPECT_GT(readable, 500);
    EXPECT_GT(deep, 25);
    EXPECT_GT(refused, 25);
}

TEST(ArchiveRoundTrip, AttributesNested110DeepAreWritten) {
    CF::Dictionary nested = CF::Dictionary::Mutable();
    for (int i = 1; i < 110; ++i) {
        const auto outer = CF::Dictionary::Mutable();
        outer.Set(CFSTR("d"), nested.get());
        nested = outer;
    }
    MB::File record;
    record.ExtendedAttributes = nested;
    EXPECT_EQ(rewritten(record)->ExtendedAttributes, nested);
}

TEST(ArchiveRoundTrip, ManyEqualValuesCostNoMoreThanDifferentOnes) {
    const auto values = Array(std::vector<Value>(100000, Number(5)));
    const auto attributes = CF::Dictionary::Cast(Dictionary({{"values", values}}).get());
    MB::File record;
    record.ExtendedAttributes = attributes;
    EXPECT_EQ(rewritten(record)->ExtendedAttributes, attributes);
}
