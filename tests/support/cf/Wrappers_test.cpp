#include "support/cf/CF.hpp"

#include <gtest/gtest.h>

#include <map>
#include <unordered_map>

// ---- What all wrappers share -------------------------------------------------

template <class T>
class AnyWrapper : public testing::Test {};
using Wrappers = testing::Types<CF::Array, CF::Boolean, CF::Data, CF::Date, CF::Dictionary,
                                CF::Error, CF::Number, CF::String, CF::UUID>;
TYPED_TEST_SUITE(AnyWrapper, Wrappers);

TYPED_TEST(AnyWrapper, IsNullByDefault) {
    const TypeParam empty;
    EXPECT_TRUE(empty.IsNull());
    EXPECT_FALSE(static_cast<bool>(empty));
    EXPECT_EQ(empty.get(), nullptr);
    EXPECT_EQ(empty.GetCFObject(), nullptr);
    EXPECT_EQ(empty.copyRef(), nullptr);
    EXPECT_EQ(empty.Hash(), 0U);
}

TYPED_TEST(AnyWrapper, NullIsEqualToNullOnly) {
    const TypeParam empty;
    EXPECT_TRUE(empty == TypeParam(nullptr));
    EXPECT_FALSE(empty.Equal(CF::Boolean(true)));
    EXPECT_FALSE(CF::Boolean(true).Equal(empty));
}

TYPED_TEST(AnyWrapper, CastsNoObjectOfAnotherType) {
    EXPECT_TRUE(TypeParam::Cast(kCFNull).IsNull());
    EXPECT_TRUE(TypeParam::Cast(nullptr).IsNull());
}

TEST(Wrapper, CastRetainsAnObjectOfItsType) {
    const CF::Data data(std::vector<std::uint8_t>{1, 2});
    {
        const auto cast = CF::Data::Cast(data.GetCFObject());
        EXPECT_EQ(cast.get(), data.get());
        EXPECT_EQ(CFGetRetainCount(data.get()), 2);
    }
    EXPECT_EQ(CFGetRetainCount(data.get()), 1);
}

TEST(Wrapper, ComparesAndHashesByValue) {
    const CF::String a("text");
    const auto b = CF::String::Adopt(CFStringCreateMutableCopy(nullptr, 0, a.get()));
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a != b);
    EXPECT_EQ(a.Hash(), b.Hash());
    EXPECT_TRUE(a != CF::String("other"));
}

TEST(Wrapper, IsAKeyOfHashTables) {
    std::unordered_map<CF::String, int, CF::TypeHash> table;
    table[CF::String("a")] = 1;
    table[CF::String(std::string("a"))] = 2;
    EXPECT_EQ(table.size(), 1U);
    EXPECT_EQ(table.at("a"), 2);
}

TEST(Wrapper, DetachLeavesItEmpty) {
    CF::Data data(std::vector<std::uint8_t>{1});
    CFDataRef reference = data.detach();
    EXPECT_TRUE(data.IsNull());
    EXPECT_EQ(CFGetRetainCount(reference), 1);
    CFRelease(reference);
}

// ---- Strings -------------------------------------------------------------------

TEST(StringWrapper, GoesThroughUTF8) {
    const std::string text = "gr\u00FC\u00DFe \U0001F600 \u65E5";
    EXPECT_EQ(CF::String(text).GetUTF8(), text);
    EXPECT_EQ(CF::String(text).GetLength(), 10);
    EXPECT_EQ(CF::String::GetUTF8(CFSTR("constant")), "constant");
}

TEST(StringWrapper, KeepsNulsInside) {
    const std::string text("a\0b", 3);
    EXPECT_EQ(CF::String(text).GetUTF8(), text);
}

TEST(StringWrapper, IsNullForBytesThatAreNotUTF8) {
    EXPECT_TRUE(CF::String("\xC3(").IsNull());
    EXPECT_TRUE(CF::String(static_cast<const char *>(nullptr)).IsNull());
    EXPECT_FALSE(CF::String("").IsNull());
}

TEST(StringWrapper, IsEmptyWhenNullOrWithoutText) {
    EXPECT_TRUE(CF::String().IsEmpty());
    EXPECT_TRUE(CF::String("").IsEmpty());
    EXPECT_FALSE(CF::String("a").IsEmpty());
    EXPECT_EQ(CF::String().GetUTF8(), "");
}

TEST(StringWrapper, WritesLoneSurrogatesAsReplacement) {
    const UniChar units[] = {'a', 0xD83D, 'b'};
    EXPECT_EQ(CF::String::Adopt(CFStringCreateWithCharacters(nullptr, units, 3)).GetUTF8(),
              "a\uFFFDb");
}

TEST(StringWrapper, Formats) {
    EXPECT_EQ(CF::String::Format(CFSTR("%@ %d %s"), CFSTR("object"), 5, "text").GetUTF8(),
              "object 5 text");
}

// ---- Data ------------------------------------------------------------------------

TEST(DataWrapper, CopiesBytesInAndOut) {
    std::vector<std::uint8_t> bytes = {0, 1, 255};
    const CF::Data data(bytes);
    bytes[0] = 9;
    EXPECT_EQ(data.GetVector(), (std::vector<std::uint8_t>{0, 1, 255}));
    EXPECT_EQ(data.GetLength(), 3);
    EXPECT_FALSE(data.IsEmpty());
}

TEST(DataWrapper, HasNoBytesWhenNull) {
    EXPECT_TRUE(CF::Data().GetBytes().empty());
    EXPECT_TRUE(CF::Data().GetVector().empty());
    EXPECT_TRUE(CF::Data().IsEmpty());
    EXPECT_TRUE(CF::Data(std::vector<std::uint8_t>()).IsEmpty());
    EXPECT_FALSE(CF::Data(std::vector<std::uint8_t>()).IsNull());
}

// ---- Numbers, truth values, dates, UUIDs --------------------------------------------

TEST(NumberWrapper, KeepsIntegersOfEachWidth) {
    EXPECT_EQ(CF::Number::FromInt32(INT32_MIN).GetInt32(), INT32_MIN);
    EXPECT_EQ(CF::Number::FromUInt32(UINT32_MAX).GetUInt32(), UINT32_MAX);
    EXPECT_EQ(CF::Number::FromUInt32(UINT32_MAX).GetInt64(), 4294967295);
    EXPECT_EQ(CF::Number::FromInt64(INT64_MIN).GetInt64(), INT64_MIN);
    EXPECT_EQ(CF::Number::FromUInt64(UINT64_MAX).GetUInt64(), UINT64_MAX);
}

TEST(NumberWrapper, ConvertsReals) {
    EXPECT_EQ(CF::Number::FromDouble(-2.75).GetDouble(), -2.75);
    EXPECT_EQ(CF::Number::FromDouble(-2.75).GetInt32(), -2);
    EXPECT_EQ(CF::Number::FromInt32(7).GetDouble(), 7.0);
}

TEST(NumberWrapper, IsZeroWhenNull) {
    EXPECT_EQ(CF::Number().GetInt64(), 0);
    EXPECT_EQ(CF::Number().GetDouble(), 0.0);
}

TEST(BooleanWrapper, HoldsATruthValue) {
    EXPECT_EQ(CF::Boolean(true).get(), kCFBooleanTrue);
    EXPECT_TRUE(CF::Boolean(true).GetValue());
    EXPECT_FALSE(CF::Boolean(false).GetValue());
    EXPECT_FALSE(CF::Boolean().GetValue());
}

TEST(DateWrapper, HoldsATime) {
    EXPECT_EQ(CF::Date::FromAbsoluteTime(-5.5).GetAbsoluteTime(), -5.5);
    EXPECT_EQ(CF::Date().GetAbsoluteTime(), 0.0);
    EXPECT_GT(CF::Date::Now().GetAbsoluteTime(), 0.0);
}

TEST(UUIDWrapper, WritesItsText) {
    EXPECT_EQ(CF::UUID::Create().GetString().GetLength(), 36);
    EXPECT_TRUE(CF::UUID().GetString().IsNull());
    EXPECT_TRUE(CF::UUID::Create() != CF::UUID::Create());
}

// ---- Containers -----------------------------------------------------------------------

TEST(ArrayWrapper, AppendsAndReplaces) {
    const auto array = CF::Array::Mutable();
    array.Append(kCFBooleanTrue);
    array.Append(kCFBooleanTrue);
    array.SetAt(1, kCFBooleanFalse);
    EXPECT_EQ(array.GetCount(), 2);
    EXPECT_EQ(array.GetAt(0), kCFBooleanTrue);
    EXPECT_EQ(array.GetAt(1), kCFBooleanFalse);
}

TEST(ArrayWrapper, HasNullOutsideItsBounds) {
    EXPECT_EQ(CF::Array().GetCount(), 0);
    EXPECT_EQ(CF::Array().GetAt(0), nullptr);
    EXPECT_EQ(CF::Array::Mutable().GetAt(0), nullptr);
    EXPECT_EQ(CF::Array::Mutable().GetAt(-1), nullptr);
}

TEST(ArrayWrapper, MutableCopyIsApart) {
    const auto array = CF::Array::Mutable();
    const auto copy = CF::Array::MutableCopy(array.get());
    copy.Append(kCFBooleanTrue);
    EXPECT_EQ(array.GetCount(), 0);
    EXPECT_EQ(CF::Array::MutableCopy(nullptr).GetCount(), 0);
}

TEST(DictionaryWrapper, SetsGetsAndRemoves) {
    const auto dictionary = CF::Dictionary::Mutable();
    dictionary.Set(CFSTR("key"), CFSTR("value"));
    EXPECT_EQ(dictionary.GetValue(CFSTR("key")), CFSTR("value"));
    EXPECT_EQ(dictionary.GetCount(), 1);
    dictionary.Remove(CFSTR("key"));
    EXPECT_EQ(dictionary.GetValue(CFSTR("key")), nullptr);
    dictionary.Set(CFSTR("key"), CFSTR("value"));
    dictionary.RemoveAll();
    EXPECT_EQ(dictionary.GetCount(), 0);
}

TEST(DictionaryWrapper, GivesValuesOfTheWantedTypeOnly) {
    const auto dictionary = CF::Dictionary::Mutable();
    dictionary.Set(CFSTR("key"), CFSTR("value"));
    EXPECT_EQ(dictionary.Get<CF::String>(CFSTR("key")).GetUTF8(), "value");
    EXPECT_TRUE(dictionary.Get<CF::Number>(CFSTR("key")).IsNull());
    EXPECT_TRUE(dictionary.Get<CF::String>(CFSTR("absent")).IsNull());
}

TEST(DictionaryWrapper, IsEmptyWhenNull) {
    const CF::Dictionary empty;
    EXPECT_EQ(empty.GetCount(), 0);
    EXPECT_EQ(empty.GetValue(CFSTR("key")), nullptr);
    EXPECT_EQ(CF::Dictionary::Mutable().GetValue(nullptr), nullptr);
    int visits = 0;
    empty.ForEach([&](CFTypeRef, CFTypeRef) { ++visits; });
    EXPECT_EQ(visits, 0);
    EXPECT_EQ(CF::Dictionary::MutableCopy(nullptr).GetCount(), 0);
}

TEST(DictionaryWrapper, VisitsEachPairOnce) {
    const auto dictionary = CF::Dictionary::Mutable();
    dictionary.Set(CFSTR("a"), CF::Number::FromInt32(1).get());
    dictionary.Set(CFSTR("b"), CF::Number::FromInt32(2).get());
    std::map<std::string, int> seen;
    CF::Dictionary::MutableCopy(dictionary.get()).ForEach([&](CFTypeRef key, CFTypeRef value) {
        seen[CF::String::Cast(key).GetUTF8()] += CF::Number::Cast(value).GetInt32();
    });
    EXPECT_EQ(seen, (std::map<std::string, int>{{"a", 1}, {"b", 2}}));
}

// ---- Errors ------------------------------------------------------------------------------

namespace {

CF::Error MakeError(CFIndex code, const CF::Dictionary &info) {
    return CF::Error::Adopt(CFErrorCreate(nullptr, CFSTR("domain"), code, info.get()));
}

} // namespace

TEST(ErrorWrapper, GivesDomainCodeAndTexts) {
    const auto info = CF::Dictionary::Mutable();
    info.Set(kCFErrorLocalizedDescriptionKey, CFSTR("Description"));
    info.Set(kCFErrorLocalizedFailureReasonKey, CFSTR("Reason"));
    const auto error = MakeError(7, info);
    EXPECT_EQ(error.GetCode(), 7);
    EXPECT_EQ(CF::String::GetUTF8(error.GetDomain()), "domain");
    EXPECT_EQ(error.GetDescription().GetUTF8(), "Description");
    EXPECT_EQ(error.GetFailureReason().GetUTF8(), "Reason");
}

TEST(ErrorWrapper, GivesTheErrorBeneath) {
    const auto cause = MakeError(1, nullptr);
    const auto info = CF::Dictionary::Mutable();
    info.Set(kCFErrorUnderlyingErrorKey, cause.get());
    EXPECT_EQ(MakeError(2, info).GetUnderlying().get(), cause.get());
    EXPECT_TRUE(cause.GetUnderlying().IsNull());
}

TEST(ErrorWrapper, HasNothingWhenNull) {
    const CF::Error none;
    EXPECT_EQ(none.GetCode(), 0);
    EXPECT_EQ(none.GetDomain(), nullptr);
    EXPECT_TRUE(none.GetDescription().IsNull());
    EXPECT_TRUE(none.GetFailureReason().IsNull());
    EXPECT_TRUE(none.GetUnderlying().IsNull());
}

TEST(ErrorWrapper, TravelsAsAnException) {
    try {
        throw MakeError(9, nullptr);
    } catch (const CF::Error &error) {
        EXPECT_EQ(error.GetCode(), 9);
    }
}

// ---- Property lists -------------------------------------------------------------------------

TEST(PropertyListWrapper, WritesAndReadsEachFormat) {
    using DictionaryList = CF::PropertyListType<CF::Dictionary>;
    const auto dictionary = CF::Dictionary::Mutable();
    dictionary.Set(CFSTR("key"), CFSTR("value"));
    for (const auto format : {kCFPropertyListXMLFormat_v1_0, kCFPropertyListBinaryFormat_v1_0}) {
        const auto data = DictionaryList::ToPropertyListData(dictionary, format);
        ASSERT_FALSE(data.IsNull());
        EXPECT_TRUE(DictionaryList::FromPropertyListData(data) == dictionary);
    }
}

TEST(PropertyListWrapper, IsEmptyForARootOfAnotherType) {
    const auto data = CF::PropertyListType<CF::String>::ToPropertyListData(
        "text", kCFPropertyListBinaryFormat_v1_0);
    EXPECT_TRUE(CF::PropertyListType<CF::Dictionary>::FromPropertyListData(data).IsNull());
    EXPECT_EQ(CF::PropertyListType<CF::String>::FromPropertyListData(data).GetUTF8(), "text");
}

TEST(PropertyListWrapper, IsEmptyForNoDataAndReportsDataThatDoesNotParse) {
    using StringList = CF::PropertyListType<CF::String>;
    EXPECT_TRUE(StringList::FromPropertyListData(CF::Data()).IsNull());
    CFErrorRef error = nullptr;
    const CF::Data broken(std::vector<std::uint8_t>{'b', 'p', 'l', 'i', 's', 't', '0', '0', 1});
    EXPECT_TRUE(StringList::FromPropertyListData(broken, &error).IsNull());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(CF::String::GetUTF8(CFErrorGetDomain(error)), "NSCocoaErrorDomain");
    CFRelease(error);
}
