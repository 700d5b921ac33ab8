#include "tests/corefoundation/PlistSupport.hpp"

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreFoundation/CFString.h>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>

using namespace PlistTest;

namespace {

// A document whose root is the one object with these bytes.
Octets SingleObject(const Octets &object) {
    BinaryPlistBuilder builder;
    builder.Raw(object);
    return builder.Build();
}

// Arrays of two references to the next one each; the last is empty.
Octets DoublingArrays(std::uint64_t levels) {
    BinaryPlistBuilder builder(2, 2);
    for (std::uint64_t i = 1; i < levels; ++i) {
        builder.Array({i, i});
    }
    builder.Array({});
    return builder.Build();
}

Octets ChainOfArrays(std::uint64_t depth) {
    BinaryPlistBuilder builder(4, 4);
    for (std::uint64_t i = 1; i < depth; ++i) {
        builder.Array({i});
    }
    builder.Array({});
    return builder.Build();
}

// One of each type, each in the order of the letters of Dump.
Octets SampleDocument() {
    BinaryPlistBuilder builder;
    builder.Dictionary({1, 2, 3, 4, 5, 6});
    builder.Ascii("a");
    builder.Ascii("b");
    builder.Utf16(u"\u00fc");
    builder.Array({7, 8, 9, 10, 7});
    builder.Data({1, 2, 3});
    builder.Raw({0x33, 0x41, 0, 0, 0, 0, 0, 0, 0});
    builder.Raw({0x10, 42});
    builder.Raw({0x22, 0x3F, 0x80, 0, 0});
    builder.Raw({0x81, 0x01, 0x00});
    builder.Raw({0x09});
    return builder.Build();
}

Octets LongSample() {
    const Held text = Text(u"a key with some more letters \u00e9");
    const Held data = Data(Octets(300, 7));
    const Held inner = Array({text.get(), data.get(), text.get()});
    const Held root = Dictionary({{text.get(), inner.get()}});
    return WriteBinary(root.get());
}

// The bytes of the one object of a written document.
Octets WrittenObject(CFTypeRef root) {
    const Octets document = WriteBinary(root);
    return {document.begin() + 8, document.end() - 33};
}

} // namespace

TEST(BinaryRead, EveryType) {
    EXPECT_EQ(DumpOf(SampleDocument()), "{0061=[i42,r3ff0000000000000,u256,t,i42],0062=d010203,"
                                        "00fc=D4100000000000000}");
}

TEST(BinaryRead, TellsTheFormat) {
    EXPECT_EQ(Read(SampleDocument()).format, kCFPropertyListBinaryFormat_v1_0);
    const Octets document = SampleDocument();
    const Held data = Data(document);
    const Held root(CFPropertyListCreateWithData(nullptr, static_cast<CFDataRef>(data.get()),
                                                 kCFPropertyListImmutable, nullptr, nullptr));
    EXPECT_TRUE(root);
}

TEST(BinaryRead, IntegersOfEveryWidth) {
    EXPECT_EQ(DumpOf(SingleObject({0x10, 0xFF})), "i255");
    EXPECT_EQ(DumpOf(SingleObject({0x11, 0xFF, 0xFF})), "i65535");
    EXPECT_EQ(DumpOf(SingleObject({0x12, 0xFF, 0xFF, 0xFF, 0xFF})), "i4294967295");
    EXPECT_EQ(DumpOf(SingleObject({0x13, 0x80, 0, 0, 0, 0, 0, 0, 0})), "i-9223372036854775808");
    Octets wide = {0x14};
    AppendBigEndian(wide, 0, 8);
    AppendBigEndian(wide, UINT64_MAX, 8);
    EXPECT_EQ(DumpOf(SingleObject(wide)), "i18446744073709551615");
    wide[1] = 0x40;
    EXPECT_EQ(DumpOf(SingleObject(wide)), "I4000000000000000ffffffffffffffff");
}

TEST(BinaryRead, KeepsUnpairedSurrogates) {
    EXPECT_EQ(DumpOf(SingleObject({0x62, 0xD8, 0x00, 0x00, 0x41})), "sd8000041");
}

TEST(BinaryRead, RefusesAsciiStringsBeyondAscii) {
    EXPECT_EQ(Read(SingleObject({0x52, 'a', 0x80})).fault,
              Corrupt("An ASCII string has bytes beyond ASCII (offset 8)."));
}

TEST(BinaryRead, RefusesDatesThatAreNotFinite) {
    EXPECT_EQ(Read(SingleObject({0x33, 0x7F, 0xF0, 0, 0, 0, 0, 0, 0})).fault,
              Corrupt("A date is not a finite number (offset 8)."));
    EXPECT_EQ(Read(SingleObject({0x33, 0x7F, 0xF8, 0, 0, 0, 0, 0, 0})).fault,
              Corrupt("A date is not a finite number (offset 8)."));
}

TEST(BinaryRead, RefusesUidsBeyond32Bits) {
    EXPECT_EQ(Read(SingleObject({0x84, 1, 0, 0, 0, 0})).fault,
              Corrupt("A UID does not fit in 32 bits (offset 8)."));
    EXPECT_EQ(DumpOf(SingleObject({0x84, 0, 0xFF, 0xFF, 0xFF, 0xFF})), "u4294967295");
}

TEST(BinaryRead, RefusesSetsAndFill) {
    EXPECT_EQ(Read(SingleObject({0xC0})).fault, Corrupt("Sets are not supported (offset 8)."));
    EXPECT_EQ(Read(SingleObject({0x0F})).fault, Corrupt("An object is a fill byte (offset 8)."));
}

TEST(BinaryRead, TakesNullInsideButNotAsRoot) {
    BinaryPlistBuilder builder;
    builder.Array({1});
    builder.Raw({0x00});
    EXPECT_EQ(DumpOf(builder.Build()), "[null]");
    EXPECT_EQ(Read(SingleObject({0x00})).fault, Corrupt("The root object is null."));
}

TEST(BinaryRead, RefusesKeysThatAreNoStrings) {
    BinaryPlistBuilder builder;
    builder.Dictionary({1, 1});
    builder.Raw({0x10, 1});
    EXPECT_EQ(Read(builder.Build()).fault, Corrupt("A dictionary key is no string (offset 8)."));
}

TEST(BinaryRead, KeepsTheFirstOfEqualKeys) {
    BinaryPlistBuilder builder;
    builder.Dictionary({1, 2, 3, 4});
    builder.Ascii("k");
    builder.Utf16(u"k");
    builder.Raw({0x10, 1});
    builder.Raw({0x10, 2});
    const Octets document = builder.Build();
    EXPECT_EQ(DumpOf(document), "{006b=i1}");
    EXPECT_EQ(Dump(Read(document, kCFPropertyListMutableContainers).root.get()), "{006b=i1}");
}

TEST(BinaryRead, RefusesNoData) {
    const Fault nothing{kCFPropertyListReadStreamError, "There is no data to read.", true};
    EXPECT_EQ(Read(Octets()).fault, nothing);
    CFErrorRef error = nullptr;
    EXPECT_EQ(CFPropertyListCreateWithData(nullptr, nullptr, 0, nullptr, &error), nullptr);
    ASSERT_NE(error, nullptr);
    const Held owner(error);
    EXPECT_EQ(CFErrorGetCode(error), kCFPropertyListReadStreamError);
}

TEST(BinaryRead, RefusesOtherVersions) {
    Octets document = SampleDocument();
    document[6] = '1';
    const Fault unknown{kCFPropertyListReadUnknownVersionError,
                        "The version of the binary property list is not supported.", true};
    EXPECT_EQ(Read(document).fault, unknown);
}

TEST(BinaryRead, LeavesOutputsAloneOnFailureWithoutErrorPointer) {
    const Held data = Data({'b', 'p', 'l', 'i', 's', 't', '0', '0'});
    CFPropertyListFormat format = 77;
    EXPECT_EQ(CFPropertyListCreateWithData(nullptr, static_cast<CFDataRef>(data.get()), 0, &format,
                                           nullptr),
              nullptr);
    EXPECT_EQ(format, 77);
}

TEST(BinaryRead, MakesASharedObjectOnce) {
    BinaryPlistBuilder builder;
    builder.Array({1, 1});
    builder.Array({2});
    builder.Ascii("shared");
    const Reading reading = Read(builder.Build());
    const auto *root = static_cast<CFArrayRef>(reading.root.get());
    EXPECT_EQ(CFArrayGetValueAtIndex(root, 0), CFArrayGetValueAtIndex(root, 1));
}

TEST(BinaryRead, MutableContainersCanBeChanged) {
    const Reading reading = Read(SampleDocument(), kCFPropertyListMutableContainers);
    auto *root = static_cast<CFMutableDictionaryRef>(const_cast<void *>(reading.root.get()));
    const Held key = Text("b");
    CFDictionaryRemoveValue(root, key.get());
    auto *array = static_cast<CFMutableArrayRef>(
        const_cast<void *>(CFDictionaryGetValue(root, Held(Text("a")).get())));
    CFArrayRemoveAllValues(array);
    EXPECT_EQ(Dump(root), "{0061=[],00fc=D4100000000000000}");
}

TEST(BinaryRead, MutableLeavesCanBeChangedAndKeysStay) {
    BinaryPlistBuilder builder;
    builder.Dictionary({1, 1});
    builder.Ascii("both");
    const Reading reading = Read(builder.Build(), kCFPropertyListMutableContainersAndLeaves);
    const Held key = Text("both");
    auto *root = static_cast<CFDictionaryRef>(reading.root.get());
    auto *value =
        static_cast<CFMutableStringRef>(const_cast<void *>(CFDictionaryGetValue(root, key.get())));
    CFStringAppend(value, static_cast<CFStringRef>(key.get()));
    EXPECT_EQ(Dump(root), "{0062006f00740068=s0062006f007400680062006f00740068}");
    EXPECT_TRUE(CFDictionaryContainsKey(root, key.get()));
}

TEST(BinaryHostile, RefusesEveryTruncation) {
    for (const Octets &whole : {SampleDocument(), LongSample()}) {
        for (std::size_t length = 0; length < whole.size(); ++length) {
            const Reading reading =
                Read(Octets(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
            EXPECT_FALSE(reading.root) << length;
            EXPECT_FALSE(reading.fault.reason.empty()) << length;
        }
    }
}

TEST(BinaryHostile, EveryByteMayHaveEveryValue) {
    const Octets whole = SampleDocument();
    std::size_t readable = 0;
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (unsigned value = 0; value < 256; ++value) {
            Octets changed = whole;
            changed[at] = static_cast<std::uint8_t>(value);
            const Reading reading = Read(changed);
            // Either an object or a reason, never both nor neither.
            ASSERT_NE(reading.root == nullptr, reading.fault.code == 0) << at << ' ' << value;
            readable += reading.root ? Dump(reading.root.get()).size() : 0;
        }
    }
    EXPECT_GT(readable, 0u);
}

TEST(BinaryHostile, RefusesLoops) {
    BinaryPlistBuilder itself;
    itself.Array({0});
    EXPECT_EQ(Read(itself.Build()).fault, Corrupt("A container holds itself (offset 8)."));
    BinaryPlistBuilder around;
    around.Array({1});
    around.Dictionary({2, 0});
    around.Ascii("back");
    EXPECT_EQ(Read(around.Build()).fault, Corrupt("A container holds itself (offset 8)."));
    BinaryPlistBuilder key;
    key.Dictionary({0, 0});
    EXPECT_EQ(Read(key.Build()).fault, Corrupt("A container holds itself (offset 8)."));
}

TEST(BinaryHostile, BoundsDepth) {
    EXPECT_TRUE(Read(ChainOfArrays(512)).root);
    EXPECT_EQ(Read(ChainOfArrays(513)).fault,
              Corrupt("Containers nest more than 512 deep (offset 2568)."));
    EXPECT_EQ(Read(ChainOfArrays(100000)).fault,
              Corrupt("Containers nest more than 512 deep (offset 2568)."));
}

TEST(BinaryHostile, BoundsDepthThroughSharedContainers) {
    // The second member of the root leads to the first by another 300 arrays.
    BinaryPlistBuilder builder(4, 4);
    builder.Array({1, 301});
    for (std::uint64_t i = 1; i < 300; ++i) {
        builder.Array({i + 1});
    }
    builder.Array({});
    for (std::uint64_t i = 301; i < 600; ++i) {
        builder.Array({i + 1});
    }
    builder.Array({1});
    EXPECT_EQ(Read(builder.Build()).fault,
              Corrupt("Containers nest more than 512 deep (offset 17)."));
}

TEST(BinaryHostile, BoundsWhatSharedContainersExpandTo) {
    EXPECT_TRUE(Read(DoublingArrays(20)).root);
    EXPECT_EQ(Read(DoublingArrays(60)).fault,
              Corrupt("Shared objects make more than 4194304 values (offset 193)."));
}

TEST(BinaryHostile, RefusesOverlappingObjects) {
    // A hundred table entries that name the same data.
    BinaryPlistBuilder builder(2, 1);
    std::vector<std::uint64_t> members;
    for (std::uint64_t i = 1; i <= 100; ++i) {
        members.push_back(i);
    }
    builder.Array(members);
    for (std::uint64_t i = 1; i <= 100; ++i) {
        builder.Data(i == 1 ? Octets(1000, 1) : Octets());
        builder.MoveObject(i, 8 + 10 + 100);
    }
    EXPECT_EQ(Read(builder.Build()).fault, Corrupt("Objects overlap (offset 118)."));
}

TEST(BinaryHostile, RefusesMoreObjectsThanTheLimit) {
    const std::uint64_t tooMany = (std::uint64_t{1} << 22) + 1;
    Octets document = SingleObject({0x09});
    const Octets trailer(document.end() - 32, document.end());
    document.resize(9);
    document.resize(9 + tooMany, 8);
    document.insert(document.end(), trailer.begin(), trailer.end());
    document[document.size() - 32 + 13] = 0x40;
    document[document.size() - 32 + 15] = 1;
    EXPECT_EQ(Read(document).fault,
              Corrupt("The document has more than 4194304 objects (offset 4194322)."));
}

TEST(BinaryWrite, SmallestIntegers) {
    EXPECT_EQ(WrittenObject(Integer(0).get()), (Octets{0x10, 0}));
    EXPECT_EQ(WrittenObject(Integer(255).get()), (Octets{0x10, 0xFF}));
    EXPECT_EQ(WrittenObject(Integer(256).get()), (Octets{0x11, 1, 0}));
    EXPECT_EQ(WrittenObject(Integer(65536).get()), (Octets{0x12, 0, 1, 0, 0}));
    EXPECT_EQ(WrittenObject(Integer(std::int64_t{1} << 32).get()),
              (Octets{0x13, 0, 0, 0, 1, 0, 0, 0, 0}));
    EXPECT_EQ(WrittenObject(Integer(-1).get()),
              (Octets{0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(WrittenObject(Unsigned(std::uint64_t{1} << 63).get()),
              (Octets{0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(BinaryWrite, SmallestUids) {
    EXPECT_EQ(WrittenObject(Uid(255).get()), (Octets{0x80, 0xFF}));
    EXPECT_EQ(WrittenObject(Uid(256).get()), (Octets{0x81, 1, 0}));
    EXPECT_EQ(WrittenObject(Uid(65536).get()), (Octets{0x83, 0, 1, 0, 0}));
}

TEST(BinaryWrite, RealsKeepTheirWidth) {
    EXPECT_EQ(WrittenObject(Float(1.5F).get()), (Octets{0x22, 0x3F, 0xC0, 0, 0}));
    EXPECT_EQ(WrittenObject(Real(1.5).get()), (Octets{0x23, 0x3F, 0xF8, 0, 0, 0, 0, 0, 0}));
}

TEST(BinaryWrite, CountsFromFifteenFollowTheMarker) {
    EXPECT_EQ(WrittenObject(Data(Octets(14, 1)).get()).front(), 0x4E);
    Octets expected = {0x4F, 0x10, 15};
    expected.insert(expected.end(), 15, 1);
    EXPECT_EQ(WrittenObject(Data(Octets(15, 1)).get()), expected);
}

TEST(BinaryWrite, StringsAreAsciiWhereTheyCanBe) {
    EXPECT_EQ(WrittenObject(Text(u"ab").get()), (Octets{0x52, 'a', 'b'}));
    EXPECT_EQ(WrittenObject(Text(u"a\u00e9").get()), (Octets{0x62, 0, 'a', 0, 0xE9}));
    EXPECT_EQ(WrittenObject(Text(u"").get()), (Octets{0x50}));
}

TEST(BinaryWrite, StoresEqualLeavesOnce) {
    const Held first = Text("same");
    const Held second = Text("same");
    const Held one = Integer(1);
    const Held root = Array({first.get(), second.get(), one.get(), one.get()});
    const Octets document = WriteBinary(root.get());
    EXPECT_EQ(document[document.size() - 32 + 15], 3); // The array, the string, the number.
    EXPECT_EQ(DumpOf(document), Dump(root.get()));
}

TEST(BinaryWrite, KeepsApartWhatOnlyComparesEqual) {
    const Held integer = Integer(1);
    const Held real = Real(1);
    const Held single = Float(1);
    const Held yes = Truth(true);
    const Held zero = Real(0.0);
    const Held minusZero = Real(-0.0);
    const Held root =
        Array({integer.get(), real.get(), yes.get(), zero.get(), minusZero.get(), single.get()});
    EXPECT_EQ(DumpOf(WriteBinary(root.get())),
              "[i1,r3ff0000000000000,t,r0000000000000000,r8000000000000000,r3ff0000000000000]");
}

TEST(BinaryWrite, StoresASharedContainerOnce) {
    Held shared = Array({});
    for (int i = 0; i < 20; ++i) {
        shared = Array({shared.get(), shared.get()});
    }
    const Octets document = WriteBinary(shared.get());
    EXPECT_EQ(document[document.size() - 32 + 15], 21);
    EXPECT_TRUE(Read(document).root);
}

TEST(BinaryWrite, EqualDictionariesGiveEqualDocuments) {
    const Held a = Text("a");
    const Held b = Text("b");
    const Held one = Dictionary({{a.get(), b.get()}, {b.get(), a.get()}});
    const Held other = Dictionary({{b.get(), a.get()}, {a.get(), b.get()}});
    EXPECT_EQ(WriteBinary(one.get()), WriteBinary(other.get()));
}

TEST(BinaryWrite, WidthsGrowWithTheDocument) {
    for (const std::int64_t count : {10, 255, 256, 70000}) {
        std::vector<Held> members;
        std::vector<CFTypeRef> references;
        for (std::int64_t i = 0; i < count; ++i) {
            members.push_back(Integer(i));
            references.push_back(members.back().get());
        }
        const Held root = Array(references);
        const Octets document = WriteBinary(root.get());
        const std::uint8_t referenceWidth = document[document.size() - 32 + 7];
        EXPECT_EQ(referenceWidth, count < 256 ? 1 : count < 65536 ? 2 : 4);
        EXPECT_EQ(DumpOf(document), Dump(root.get()));
    }
}

TEST(BinaryWrite, RefusesWhatIsNoPropertyList) {
    const CFPropertyListFormat binary = kCFPropertyListBinaryFormat_v1_0;
    const Held null = Array({kCFNull});
    EXPECT_EQ(Write(null.get(), binary).fault, Unwritable("A property list cannot hold a CFNull."));
    const Held one = Integer(1);
    const Held numberKey = Dictionary({{one.get(), one.get()}});
    EXPECT_EQ(Write(numberKey.get(), binary).fault, Unwritable("A dictionary key is no string."));
    EXPECT_EQ(Write(nullptr, binary).fault, Unwritable("The property list holds a null object."));
    const Held never = Date(std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(Write(never.get(), binary).fault, Unwritable("A date is not a finite number."));
}

TEST(BinaryWrite, RefusesLoopsAndDepth) {
    const Held loop(CFArrayCreateMutable(nullptr, 0, nullptr));
    CFArrayAppendValue(static_cast<CFMutableArrayRef>(const_cast<void *>(loop.get())), loop.get());
    const CFPropertyListFormat binary = kCFPropertyListBinaryFormat_v1_0;
    EXPECT_EQ(Write(loop.get(), binary).fault, Unwritable("A container holds itself."));
    EXPECT_EQ(Write(NestedArrays(512).get(), binary).fault, Fault());
    EXPECT_EQ(Write(NestedArrays(513).get(), binary).fault,
              Unwritable("Containers nest more than 512 deep."));
}

TEST(BinaryWrite, BoundsWhatSharedContainersExpandTo) {
    Held shared = Array({});
    for (int i = 0; i < 60; ++i) {
        shared = Array({shared.get(), shared.get()});
    }
    EXPECT_EQ(Write(shared.get(), kCFPropertyListBinaryFormat_v1_0).fault,
              Unwritable("The property list has more than 4194304 values."));
}

TEST(BinaryWrite, RefusesTheOldTextFormatAndUnknownOnes) {
    const Held root = Integer(1);
    for (const CFPropertyListFormat format :
         {CFPropertyListFormat{kCFPropertyListOpenStepFormat}, CFPropertyListFormat{0}}) {
        EXPECT_EQ(Write(root.get(), format).fault,
                  Unwritable("Property lists are written in the XML and binary formats only."));
    }
}
