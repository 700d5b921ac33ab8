#include "support/zk/BinaryPlist.hpp"

#include "tests/support/BinaryPlistBuilder.hpp"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <string>

using namespace ZK::bplist;
using PlistTest::AppendBigEndian;
using PlistTest::BinaryPlistBuilder;
using PlistTest::Octets;

namespace {

Fault OpenFault(const Octets &bytes) { return Document().Open(bytes).fault; }

// A document whose root is the one object with these bytes.
Octets SingleObject(const Octets &object) {
    BinaryPlistBuilder builder;
    builder.Raw(object);
    return builder.Build();
}

// Sees the root of a document; the fault of opening or of decoding it.
struct RootOf {
    explicit RootOf(const Octets &document) : bytes(document) {
        status = view.Open(bytes);
        if (status) {
            status = view.ObjectAt(view.RootIndex(), object);
        }
    }
    Octets bytes;
    Document view;
    Object object;
    Status status;
};

Octets Concatenate(std::initializer_list<Octets> parts) {
    Octets all;
    for (const Octets &part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// Overwrites 8 bytes of the trailer, counted from its start.
Octets WithTrailerField(Octets document, std::size_t field, std::uint64_t value) {
    Octets bytes;
    AppendBigEndian(bytes, value, 8);
    std::copy(bytes.begin(), bytes.end(),
              document.end() - static_cast<std::ptrdiff_t>(kTrailerSize - field));
    return document;
}

constexpr std::size_t kObjectCountField = 8;
constexpr std::size_t kRootField = 16;
constexpr std::size_t kTableField = 24;

} // namespace

TEST(BinaryPlistTrailer, OpensTheSmallestDocument) {
    const RootOf root(SingleObject({0x09}));
    ASSERT_TRUE(root.status);
    EXPECT_EQ(root.object.type, Type::True);
    EXPECT_EQ(root.object.offset, 8u);
    EXPECT_EQ(root.view.ObjectCount(), 1u);
    EXPECT_EQ(root.view.RootIndex(), 0u);
    EXPECT_EQ(root.bytes.size(), kMinDocumentSize);
}

TEST(BinaryPlistTrailer, RefusesEveryTruncation) {
    BinaryPlistBuilder builder;
    builder.Dictionary({1, 2});
    builder.Ascii("name");
    builder.Data(Octets(40, 0xAB));
    const Octets whole = builder.Build();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const Octets cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_NE(OpenFault(cut), Fault::None) << length;
    }
}

TEST(BinaryPlistTrailer, RefusesAnotherMagic) {
    Octets document = SingleObject({0x09});
    document[0] = 'B';
    EXPECT_EQ(OpenFault(document), Fault::NotBinary);
    EXPECT_EQ(OpenFault({}), Fault::NotBinary);
}

TEST(BinaryPlistTrailer, RefusesADocumentThatIsOnlyAHeader) {
    const Octets header = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    EXPECT_EQ(OpenFault(header), Fault::TooShort);
}

TEST(BinaryPlistTrailer, AcceptsAnyMinorVersionButNoOtherMajorVersion) {
    Octets document = SingleObject({0x09});
    document[7] = '1';
    EXPECT_EQ(OpenFault(document), Fault::None);
    document[6] = '1';
    EXPECT_EQ(OpenFault(document), Fault::UnknownVersion);
}

TEST(BinaryPlistTrailer, RefusesWidthsOutsideOneToEight) {
    for (const std::uint8_t width : Octets{0, 9, 255}) {
        Octets document = SingleObject({0x09});
        document[document.size() - kTrailerSize + 6] = width;
        EXPECT_EQ(OpenFault(document), Fault::BadOffsetWidth);
        document = SingleObject({0x09});
        document[document.size() - kTrailerSize + 7] = width;
        EXPECT_EQ(OpenFault(document), Fault::BadReferenceWidth);
    }
}

TEST(BinaryPlistTrailer, RefusesADocumentOfNoObjects) {
    EXPECT_EQ(OpenFault(WithTrailerField(SingleObject({0x09}), kObjectCountField, 0)),
              Fault::NoObjects);
}

TEST(BinaryPlistTrailer, RefusesMoreObjectsThanTheTableHolds) {
    const Octets document = SingleObject({0x09});
    for (const std::uint64_t count : {std::uint64_t{2}, UINT64_MAX / 2, UINT64_MAX}) {
        EXPECT_EQ(OpenFault(WithTrailerField(document, kObjectCountField, count)),
                  Fault::OffsetTableTooLong);
    }
}

TEST(BinaryPlistTrailer, RefusesARootBeyondTheObjects) {
    const Octets document = SingleObject({0x09});
    EXPECT_EQ(OpenFault(WithTrailerField(document, kRootField, 1)), Fault::RootOutOfRange);
    EXPECT_EQ(OpenFault(WithTrailerField(document, kRootField, UINT64_MAX)), Fault::RootOutOfRange);
}

TEST(BinaryPlistTrailer, RefusesAnOffsetTableOutsideTheDocument) {
    const Octets document = SingleObject({0x09});
    for (const std::uint64_t table :
         {std::uint64_t{0}, std::uint64_t{8}, std::uint64_t{10}, std::uint64_t{42}, UINT64_MAX}) {
        EXPECT_EQ(OpenFault(WithTrailerField(document, kTableField, table)),
                  Fault::OffsetTableOutOfRange)
            << table;
    }
}

TEST(BinaryPlistTrailer, FaultsSayWhereInTheTrailer) {
    const Octets document = WithTrailerField(SingleObject({0x09}), kRootField, 7);
    EXPECT_EQ(Document().Open(document).offset, 10u + kRootField);
}

TEST(BinaryPlistObject, DecodesSimpleValues) {
    EXPECT_EQ(RootOf(SingleObject({0x00})).object.type, Type::Null);
    EXPECT_EQ(RootOf(SingleObject({0x08})).object.type, Type::False);
    EXPECT_EQ(RootOf(SingleObject({0x09})).object.type, Type::True);
    EXPECT_EQ(RootOf(SingleObject({0x0F})).object.type, Type::Fill);
}

TEST(BinaryPlistObject, RefusesUnknownMarkers) {
    // Followed by enough bytes, so that nothing but the marker can be wrong.
    const auto known = [](unsigned marker) {
        switch (marker >> 4) {
        case 0x0:
            return marker == 0x00 || marker == 0x08 || marker == 0x09 || marker == 0x0F;
        case 0x1:
            return marker <= 0x14;
        case 0x2:
            return marker == 0x22 || marker == 0x23;
        case 0x3:
            return marker == 0x33;
        default:
            return marker >> 4 == 0x4 || marker >> 4 == 0x5 || marker >> 4 == 0x6 ||
                   marker >> 4 == 0x8 || marker >> 4 == 0xA || marker >> 4 == 0xC ||
                   marker >> 4 == 0xD;
        }
    };
    for (unsigned marker = 0; marker < 256; ++marker) {
        Octets object(1 + 64, 0x10);
        object[0] = static_cast<std::uint8_t>(marker);
        const Status status = RootOf(SingleObject(object)).status;
        EXPECT_EQ(status.fault, known(marker) ? Fault::None : Fault::UnknownMarker) << marker;
    }
}

TEST(BinaryPlistObject, ReadsShortIntegersAsUnsigned) {
    EXPECT_EQ(RootOf(SingleObject({0x10, 0xFF})).object.Integer(), (Int128{0, 0xFF}));
    EXPECT_EQ(RootOf(SingleObject({0x11, 0xFF, 0xFE})).object.Integer(), (Int128{0, 0xFFFE}));
    EXPECT_EQ(RootOf(SingleObject({0x12, 0xFF, 0, 0, 1})).object.Integer(),
              (Int128{0, 0xFF000001}));
}

TEST(BinaryPlistObject, ReadsEightByteIntegersAsSigned) {
    const Int128 minusTwo =
        RootOf(SingleObject({0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}))
            .object.Integer();
    EXPECT_EQ(minusTwo, (Int128{-1, static_cast<std::uint64_t>(-2)}));
    EXPECT_TRUE(minusTwo.FitsInt64());
    EXPECT_FALSE(minusTwo.FitsUInt64());
}

TEST(BinaryPlistObject, ReadsSixteenByteIntegers) {
    Octets object = {0x14};
    AppendBigEndian(object, 0, 8);
    AppendBigEndian(object, UINT64_MAX, 8);
    const Int128 value = RootOf(SingleObject(object)).object.Integer();
    EXPECT_EQ(value, (Int128{0, UINT64_MAX}));
    EXPECT_TRUE(value.FitsUInt64());
    EXPECT_FALSE(value.FitsInt64());
}

TEST(BinaryPlistObject, ReadsRealsAndDates) {
    EXPECT_EQ(RootOf(SingleObject({0x22, 0x3F, 0xC0, 0, 0})).object.Real(), 1.5);
    EXPECT_EQ(RootOf(SingleObject({0x23, 0xC0, 0x04, 0, 0, 0, 0, 0, 0})).object.Real(), -2.5);
    const RootOf date(SingleObject({0x33, 0x7F, 0xF0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(date.object.type, Type::Date);
    EXPECT_TRUE(std::isinf(date.object.Real()));
}

TEST(BinaryPlistObject, ReadsUidsOfEveryWidth) {
    for (std::size_t width = 1; width <= 16; ++width) {
        Octets object = {static_cast<std::uint8_t>(0x80 + width - 1)};
        AppendBigEndian(object, 200, width);
        const RootOf root(SingleObject(object));
        std::uint32_t uid = 0;
        ASSERT_TRUE(root.status) << width;
        ASSERT_TRUE(root.object.Uid(uid)) << width;
        EXPECT_EQ(uid, 200u);
    }
}

TEST(BinaryPlistObject, RefusesUidsBeyond32Bits) {
    std::uint32_t uid = 0;
    const RootOf largest(SingleObject({0x84, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}));
    ASSERT_TRUE(largest.object.Uid(uid));
    EXPECT_EQ(uid, UINT32_MAX);
    const RootOf larger(SingleObject({0x84, 0x01, 0, 0, 0, 0}));
    EXPECT_EQ(larger.object.Uid(uid).fault, Fault::UidTooLarge);
    Octets huge(17, 0);
    huge[0] = 0x8F;
    huge[1] = 0x80;
    EXPECT_EQ(RootOf(SingleObject(huge)).object.Uid(uid).fault, Fault::UidTooLarge);
}

TEST(BinaryPlistObject, ReadsStringsAndData) {
    BinaryPlistBuilder builder;
    builder.Array({1, 2, 3});
    builder.Ascii("plain");
    builder.Utf16(u"gr\u00fcn");
    builder.Data({1, 2, 3});
    const RootOf root(builder.Build());
    Object member;
    ASSERT_TRUE(root.view.MemberObject(root.object, 0, member));
    EXPECT_EQ(member.Text(), "plain");
    ASSERT_TRUE(root.view.MemberObject(root.object, 1, member));
    ASSERT_EQ(member.count, 4u);
    EXPECT_EQ(member.Unit(2), u'\u00fc');
    ASSERT_TRUE(root.view.MemberObject(root.object, 2, member));
    EXPECT_EQ(Octets(member.payload.begin(), member.payload.end()), (Octets{1, 2, 3}));
}

TEST(BinaryPlistObject, ReadsCountsOfEveryLegalWidth) {
    for (std::size_t exponent = 0; exponent <= 4; ++exponent) {
        Octets object = {0x4F, static_cast<std::uint8_t>(0x10 + exponent)};
        const std::size_t width = std::size_t{1} << exponent;
        AppendBigEndian(object, 0, width - 1);
        object.push_back(20);
        object.insert(object.end(), 20, 0x55);
        const RootOf root(SingleObject(object));
        ASSERT_TRUE(root.status) << width;
        EXPECT_EQ(root.object.payload.size(), 20u) << width;
    }
}

TEST(BinaryPlistObject, RefusesCountsThatAreNoInteger) {
    for (const std::uint8_t marker : Octets{0x09, 0x15, 0x1F, 0x23, 0x51, 0xFF}) {
        const Octets object = Concatenate({{0x4F, marker}, Octets(64, 0)});
        EXPECT_EQ(RootOf(SingleObject(object)).status.fault, Fault::BadCount) << int{marker};
    }
    Octets upperHalfSet = Concatenate({{0x4F, 0x14}, Octets(16, 0)});
    upperHalfSet[9] = 1;
    EXPECT_EQ(RootOf(SingleObject(upperHalfSet)).status.fault, Fault::BadCount);
}

TEST(BinaryPlistObject, RefusesHugeCounts) {
    for (const unsigned high : {0x4u, 0x5u, 0x6u, 0xAu, 0xCu, 0xDu}) {
        for (const std::uint64_t count :
             {std::uint64_t{65}, UINT64_MAX / 16, UINT64_MAX / 2, UINT64_MAX}) {
            Octets object = {static_cast<std::uint8_t>(high << 4 | 0xF), 0x13};
            AppendBigEndian(object, count, 8);
            object.insert(object.end(), 64, 0);
            EXPECT_EQ(RootOf(SingleObject(object)).status.fault, Fault::ObjectTooLong);
        }
    }
}

TEST(BinaryPlistObject, RefusesObjectsThatReachIntoTheOffsetTable) {
    for (const Octets &object :
         {Octets{0x13}, Octets{0x22, 0}, Octets{0x33, 1, 2}, Octets{0x42, 1}, Octets{0x52, 'a'},
          Octets{0x61, 0}, Octets{0x81, 0}, Octets{0xA1}, Octets{0xD1, 0}}) {
        EXPECT_EQ(RootOf(SingleObject(object)).status.fault, Fault::ObjectTooLong)
            << int{object[0]};
    }
    EXPECT_EQ(RootOf(SingleObject({0x4F})).status.fault, Fault::BadCount);
    EXPECT_EQ(RootOf(SingleObject({0x4F, 0x13, 0})).status.fault, Fault::BadCount);
}

TEST(BinaryPlistObject, RefusesOffsetsOutsideTheObjects) {
    for (const std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{7}, std::uint64_t{9},
                                       std::uint64_t{1} << 40, UINT64_MAX}) {
        BinaryPlistBuilder builder(8);
        builder.Raw({0x09});
        builder.MoveObject(0, offset);
        EXPECT_EQ(RootOf(builder.Build()).status.fault, Fault::OffsetOutOfRange) << offset;
    }
}

TEST(BinaryPlistObject, FaultsSayWhichObject) {
    BinaryPlistBuilder builder;
    builder.Array({1});
    builder.Raw({0x77});
    const RootOf root(builder.Build());
    Object member;
    const Status status = root.view.MemberObject(root.object, 0, member);
    EXPECT_EQ(status.fault, Fault::UnknownMarker);
    EXPECT_EQ(status.offset, 10u);
}

TEST(BinaryPlistContainer, ReadsEveryOffsetAndReferenceWidth) {
    for (std::size_t offsetWidth = 1; offsetWidth <= 8; ++offsetWidth) {
        for (std::size_t referenceWidth = 1; referenceWidth <= 8; ++referenceWidth) {
            BinaryPlistBuilder builder(offsetWidth, referenceWidth);
            builder.Array({2, 1});
            builder.Ascii("one");
            builder.Ascii("two");
            const RootOf root(builder.Build());
            Object member;
            ASSERT_TRUE(root.status);
            ASSERT_TRUE(root.view.MemberObject(root.object, 0, member));
            EXPECT_EQ(member.Text(), "two") << offsetWidth << ' ' << referenceWidth;
        }
    }
}

TEST(BinaryPlistContainer, RefusesReferencesBeyondTheObjects) {
    BinaryPlistBuilder builder;
    builder.Array({0, 1});
    const RootOf root(builder.Build());
    std::uint64_t index = 0;
    EXPECT_TRUE(root.view.Member(root.object, 0, index));
    EXPECT_EQ(root.view.Member(root.object, 1, index).fault, Fault::ReferenceOutOfRange);
}

TEST(BinaryPlistContainer, RefusesPositionsBeyondTheMembers) {
    BinaryPlistBuilder builder(1, 2);
    builder.Array({0, 0});
    const RootOf root(builder.Build());
    std::uint64_t index = 0;
    EXPECT_EQ(root.view.Member(root.object, 2, index).fault, Fault::PositionOutOfRange);
    EXPECT_EQ(root.view.Member(root.object, UINT64_MAX, index).fault, Fault::PositionOutOfRange);
}

TEST(BinaryPlistContainer, OnlyContainersHaveMembers) {
    const RootOf root(SingleObject({0x41, 0x00}));
    std::uint64_t index = 0;
    EXPECT_EQ(root.view.Member(root.object, 0, index).fault, Fault::PositionOutOfRange);
    Object value;
    bool found = false;
    EXPECT_EQ(root.view.Find(root.object, "key", found, value).fault, Fault::PositionOutOfRange);
}

TEST(BinaryPlistContainer, FindsKeysInEitherEncoding) {
    BinaryPlistBuilder builder;
    builder.Dictionary({1, 2, 3, 4});
    builder.Ascii("Mode");
    builder.Utf16(u"Size");
    builder.Raw({0x10, 7});
    builder.Raw({0x10, 9});
    const RootOf root(builder.Build());
    Object value;
    bool found = false;
    ASSERT_TRUE(root.view.Find(root.object, "Mode", found, value));
    ASSERT_TRUE(found);
    EXPECT_EQ(value.Integer().low, 7u);
    ASSERT_TRUE(root.view.Find(root.object, "Size", found, value));
    ASSERT_TRUE(found);
    EXPECT_EQ(value.Integer().low, 9u);
    ASSERT_TRUE(root.view.Find(root.object, "Sizes", found, value));
    EXPECT_FALSE(found);
}

TEST(BinaryPlistContainer, FindReportsABrokenKey) {
    BinaryPlistBuilder builder;
    builder.Dictionary({1, 1});
    builder.Raw({0x77});
    const RootOf root(builder.Build());
    Object value;
    bool found = true;
    EXPECT_EQ(root.view.Find(root.object, "key", found, value).fault, Fault::UnknownMarker);
    EXPECT_FALSE(found);
}

TEST(BinaryPlistText, ComparesWholeText) {
    const RootOf ascii(SingleObject({0x52, 'a', 'b'}));
    EXPECT_TRUE(ascii.object.TextEquals("ab"));
    EXPECT_FALSE(ascii.object.TextEquals("a"));
    const RootOf wide(SingleObject({0x61, 0x01, 'a'}));
    EXPECT_FALSE(wide.object.TextEquals("a"));
    EXPECT_FALSE(RootOf(SingleObject({0x42, 'a', 'b'})).object.TextEquals("ab"));
}

TEST(BinaryPlistText, FindsAHighByteAtEveryPosition) {
    for (std::size_t length = 0; length < 20; ++length) {
        Octets bytes(length, 0x7F);
        EXPECT_TRUE(IsAscii(bytes));
        for (std::size_t i = 0; i < length; ++i) {
            bytes[i] = 0x80;
            EXPECT_FALSE(IsAscii(bytes)) << length << ' ' << i;
            bytes[i] = 0x7F;
        }
    }
}

TEST(BinaryPlistReason, EveryFaultHasItsOwnSentence) {
    for (int a = 0; a <= static_cast<int>(Fault::PositionOutOfRange); ++a) {
        ASSERT_NE(Reason(static_cast<Fault>(a)), nullptr);
        for (int b = 0; b < a; ++b) {
            EXPECT_STRNE(Reason(static_cast<Fault>(a)), Reason(static_cast<Fault>(b)));
        }
    }
}

namespace {

// Walks every object and member, whatever the bytes say.
std::uint64_t VisitEverything(const Octets &bytes) {
    Document document;
    if (!document.Open(bytes)) {
        return 0;
    }
    std::uint64_t visited = 0;
    for (std::uint64_t i = 0; i < document.ObjectCount(); ++i) {
        Object object;
        if (!document.ObjectAt(i, object)) {
            continue;
        }
        std::uint64_t member = 0;
        for (std::uint64_t at = 0; document.Member(object, at, member); ++at) {
            ++visited;
        }
        visited += object.payload.empty() ? 1u : 1u + (object.payload.back() & 1u);
    }
    return visited;
}

} // namespace

TEST(BinaryPlistHostile, EveryByteMayHaveEveryValue) {
    BinaryPlistBuilder builder;
    builder.Dictionary({1, 2, 3, 4});
    builder.Ascii("key");
    builder.Data(Octets(20, 1));
    builder.Utf16(u"wide");
    builder.Array({1, 2, 3});
    const Octets whole = builder.Build();
    ASSERT_GT(VisitEverything(whole), 0u);
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (unsigned value = 0; value < 256; ++value) {
            Octets changed = whole;
            changed[at] = static_cast<std::uint8_t>(value);
            const std::uint64_t visited = VisitEverything(changed);
            EXPECT_LE(visited, 256u * whole.size()) << at;
        }
    }
}
