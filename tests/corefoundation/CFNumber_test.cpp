#include "tests/corefoundation/Objects.hpp"

#include "corefoundation/CFNumberInternal.hpp"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>

using namespace Objects;

namespace {

template <class T>
CF::Pointer<CFNumberRef> Make(CFNumberType type, T value) {
    return Adopt(CFNumberCreate(nullptr, type, &value));
}

CF::Pointer<CFNumberRef> Wide(std::int64_t high, std::uint64_t low) {
    return Adopt(_CFNumberCreateWithInt128(nullptr, high, low));
}

// A conversion's result and whether the number says that it kept the value.
template <class T>
struct Converted {
    T value;
    bool exact;
    bool operator==(const Converted &) const = default;
};

template <class T>
Converted<T> Get(CFNumberRef number, CFNumberType type) {
    T value{};
    const bool exact = CFNumberGetValue(number, type, &value);
    return {value, exact};
}

CFComparisonResult Compare(const CF::Pointer<CFNumberRef> &a, const CF::Pointer<CFNumberRef> &b) {
    return CFNumberCompare(a.get(), b.get(), nullptr);
}

struct TypeCase {
    const char *name;
    CFNumberType type;
    CFNumberType canonical;
    CFIndex size;
    bool isFloat;
};

void PrintTo(const TypeCase &testCase, std::ostream *out) { *out << testCase.name; }

class CFNumberTypes : public testing::TestWithParam<TypeCase> {
  protected:
    // Memory holding 42 as a value of the parameter's type.
    std::string FortyTwo() const {
        const auto fits = [](auto value) {
            return std::string(reinterpret_cast<const char *>(&value), sizeof value);
        };
        switch (GetParam().canonical) {
        case kCFNumberSInt8Type:
            return fits(SInt8{42});
        case kCFNumberSInt16Type:
            return fits(SInt16{42});
        case kCFNumberSInt32Type:
            return fits(SInt32{42});
        case kCFNumberFloat32Type:
            return fits(42.0F);
        case kCFNumberFloat64Type:
            return fits(42.0);
        default:
            return fits(SInt64{42});
        }
    }
};

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

} // namespace

INSTANTIATE_TEST_SUITE_P(
    All, CFNumberTypes,
    testing::Values(TypeCase{"SInt8", kCFNumberSInt8Type, kCFNumberSInt8Type, 1, false},
                    TypeCase{"SInt16", kCFNumberSInt16Type, kCFNumberSInt16Type, 2, false},
                    TypeCase{"SInt32", kCFNumberSInt32Type, kCFNumberSInt32Type, 4, false},
                    TypeCase{"SInt64", kCFNumberSInt64Type, kCFNumberSInt64Type, 8, false},
                    TypeCase{"Float32", kCFNumberFloat32Type, kCFNumberFloat32Type, 4, true},
                    TypeCase{"Float64", kCFNumberFloat64Type, kCFNumberFloat64Type, 8, true},
                    TypeCase{"Char", kCFNumberCharType, kCFNumberSInt8Type, 1, false},
                    TypeCase{"Short", kCFNumberShortType, kCFNumberSInt16Type, 2, false},
                    TypeCase{"Int", kCFNumberIntType, kCFNumberSInt32Type, 4, false},
                    TypeCase{"Long", kCFNumberLongType, kCFNumberSInt64Type, 8, false},
                    TypeCase{"LongLong", kCFNumberLongLongType, kCFNumberSInt64Type, 8, false},
                    TypeCase{"Float", kCFNumberFloatType, kCFNumberFloat32Type, 4, true},
                    TypeCase{"Double", kCFNumberDoubleType, kCFNumberFloat64Type, 8, true},
                    TypeCase{"CFIndex", kCFNumberCFIndexType, kCFNumberSInt64Type, 8, false},
                    TypeCase{"NSInteger", kCFNumberNSIntegerType, kCFNumberSInt64Type, 8, false},
                    TypeCase{"CGFloat", kCFNumberCGFloatType, kCFNumberFloat64Type, 8, true}),
    [](const auto &testCase) { return std::string(testCase.param.name); });

TEST_P(CFNumberTypes, TellsItsTypeOfFixedSize) {
    const auto number = Adopt(CFNumberCreate(nullptr, GetParam().type, FortyTwo().data()));
    EXPECT_EQ(CFNumberGetType(number.get()), GetParam().canonical);
    EXPECT_EQ(CFNumberGetByteSize(number.get()), GetParam().size);
    EXPECT_EQ(CFNumberIsFloatType(number.get()), GetParam().isFloat);
}

TEST_P(CFNumberTypes, GivesItsValueBackWithinItsSize) {
    const std::string bytes = FortyTwo();
    const auto number = Adopt(CFNumberCreate(nullptr, GetParam().type, bytes.data()));
    std::string buffer(16, '#');
    EXPECT_TRUE(CFNumberGetValue(number.get(), GetParam().type, buffer.data()));
    EXPECT_EQ(buffer, bytes + std::string(16 - bytes.size(), '#'));
}

TEST_P(CFNumberTypes, IsEqualToTheSameValueOfAnyType) {
    const auto number = Adopt(CFNumberCreate(nullptr, GetParam().type, FortyTwo().data()));
    EXPECT_TRUE(CFEqual(number.get(), Integer(42).get()));
    EXPECT_TRUE(CFEqual(number.get(), Real(42).get()));
    EXPECT_EQ(CFHash(number.get()), CFHash(Integer(42).get()));
    EXPECT_FALSE(CFEqual(number.get(), Integer(43).get()));
}

TEST_P(CFNumberTypes, ReadsAndWritesUnalignedMemory) {
    std::string buffer = "#" + FortyTwo();
    const auto number = Adopt(CFNumberCreate(nullptr, GetParam().type, buffer.data() + 1));
    std::string copy(buffer.size(), '#');
    CFNumberGetValue(number.get(), GetParam().type, copy.data() + 1);
    EXPECT_EQ(copy, buffer);
}

TEST(CFNumber, KeepsTheLimitsOfItsTypes) {
    for (const std::int64_t value : {INT64_MIN, INT64_MIN + 1, -1L, 0L, INT64_MAX}) {
        EXPECT_EQ(Get<SInt64>(Integer(value).get(), kCFNumberSInt64Type),
                  (Converted<SInt64>{value, true}));
    }
    const auto smallest = Make(kCFNumberSInt8Type, SInt8{-128});
    EXPECT_EQ(Get<SInt8>(smallest.get(), kCFNumberSInt8Type), (Converted<SInt8>{-128, true}));
}

TEST(CFNumber, SharesSmallIntegers) {
    EXPECT_EQ(Integer(0).get(), Integer(0).get());
    EXPECT_EQ(Integer(-1).get(), Integer(-1).get());
    EXPECT_EQ(Make(kCFNumberSInt32Type, SInt32{512}).get(), Make(kCFNumberIntType, 512).get());
    for (std::int64_t value = -3; value < 600; ++value) {
        ASSERT_EQ(Get<SInt64>(Integer(value).get(), kCFNumberSInt64Type).value, value);
        ASSERT_EQ(CFNumberGetType(Integer(value).get()), kCFNumberSInt64Type);
    }
}

TEST(CFNumber, GivesTheLowBitsOfAnIntegerThatDoesNotFit) {
    const auto number = Integer(0x1234567890ABCDEF);
    EXPECT_EQ(Get<UInt32>(number.get(), kCFNumberSInt32Type),
              (Converted<UInt32>{0x90ABCDEF, false}));
    EXPECT_EQ(Get<UInt8>(number.get(), kCFNumberSInt8Type), (Converted<UInt8>{0xEF, false}));
    EXPECT_EQ(Get<SInt16>(Integer(-40000).get(), kCFNumberSInt16Type).exact, false);
    EXPECT_EQ(Get<SInt16>(Integer(-30000).get(), kCFNumberSInt16Type),
              (Converted<SInt16>{-30000, true}));
}

TEST(CFNumber, CutsTheFractionOfAReal) {
    EXPECT_EQ(Get<SInt32>(Real(2.75).get(), kCFNumberSInt32Type), (Converted<SInt32>{2, false}));
    EXPECT_EQ(Get<SInt32>(Real(-2.75).get(), kCFNumberSInt32Type), (Converted<SInt32>{-2, false}));
    EXPECT_EQ(Get<SInt32>(Real(-2).get(), kCFNumberSInt32Type), (Converted<SInt32>{-2, true}));
}

TEST(CFNumber, GivesTheNearestLimitForARealOutOfRange) {
    EXPECT_EQ(Get<SInt64>(Real(0x1p63).get(), kCFNumberSInt64Type),
              (Converted<SInt64>{INT64_MAX, false}));
    EXPECT_EQ(Get<SInt64>(Real(-0x1p63).get(), kCFNumberSInt64Type),
              (Converted<SInt64>{INT64_MIN, true}));
    EXPECT_EQ(Get<SInt64>(Real(-kInfinity).get(), kCFNumberSInt64Type),
              (Converted<SInt64>{INT64_MIN, false}));
    EXPECT_EQ(Get<SInt8>(Real(128).get(), kCFNumberSInt8Type), (Converted<SInt8>{127, false}));
    EXPECT_EQ(Get<SInt8>(Real(-128.5).get(), kCFNumberSInt8Type), (Converted<SInt8>{-128, false}));
    EXPECT_EQ(Get<SInt32>(Real(kNaN).get(), kCFNumberSInt32Type), (Converted<SInt32>{0, false}));
}

TEST(CFNumber, GivesTheNearestRealForAnInteger) {
    EXPECT_EQ(Get<double>(Integer(INT64_MAX).get(), kCFNumberFloat64Type),
              (Converted<double>{0x1p63, false}));
    EXPECT_EQ(Get<double>(Integer(1L << 62).get(), kCFNumberFloat64Type),
              (Converted<double>{0x1p62, true}));
    EXPECT_EQ(Get<float>(Integer(16777217).get(), kCFNumberFloat32Type),
              (Converted<float>{16777216.0F, false}));
}

TEST(CFNumber, GivesTheNearestFloatForADouble) {
    EXPECT_EQ(Get<float>(Real(0.5).get(), kCFNumberFloat32Type), (Converted<float>{0.5F, true}));
    EXPECT_EQ(Get<float>(Real(0.1).get(), kCFNumberFloat32Type), (Converted<float>{0.1F, false}));
    EXPECT_TRUE(std::isinf(Get<float>(Real(DBL_MAX).get(), kCFNumberFloat32Type).value));
    EXPECT_FALSE(Get<float>(Real(DBL_MAX).get(), kCFNumberFloat32Type).exact);
    EXPECT_TRUE(Get<float>(Real(kInfinity).get(), kCFNumberFloat32Type).exact);
}

TEST(CFNumber, ComparesIntegersWithRealsWithoutLoss) {
    // 2^53 + 1 has no double: rounding would make it equal to 2^53.
    const auto integer = Integer((1L << 53) + 1);
    EXPECT_EQ(Compare(integer, Real(0x1p53)), kCFCompareGreaterThan);
    EXPECT_EQ(Compare(Real(0x1p53), integer), kCFCompareLessThan);
    EXPECT_FALSE(CFEqual(integer.get(), Real(0x1p53).get()));
    EXPECT_EQ(Compare(Integer(INT64_MAX), Real(0x1p63)), kCFCompareLessThan);
    EXPECT_EQ(Compare(Integer(INT64_MIN), Real(-0x1p63)), kCFCompareEqualTo);
    EXPECT_EQ(Compare(Integer(-2), Real(-2.5)), kCFCompareGreaterThan);
    EXPECT_EQ(Compare(Integer(2), Real(2.5)), kCFCompareLessThan);
    EXPECT_EQ(Compare(Integer(INT64_MIN), Real(-1e300)), kCFCompareGreaterThan);
}

TEST(CFNumber, ComparesLikeExtendedPrecision) {
    static_assert(LDBL_MANT_DIG >= 64, "long double holds every 64-bit integer and double");
    std::mt19937_64 random(9);
    for (int i = 0; i < 20000; ++i) {
        const auto integer = static_cast<std::int64_t>(random()) >> (random() % 64);
        const double real = std::ldexp(static_cast<double>(static_cast<std::int64_t>(random())),
                                       -static_cast<int>(random() % 80));
        const auto exact = static_cast<long double>(integer);
        const auto wide = static_cast<long double>(real);
        ASSERT_EQ(Compare(Integer(integer), Real(real)), exact == wide ? 0 : exact < wide ? -1 : 1);
        const double rounded = static_cast<double>(integer);
        ASSERT_EQ(Compare(Integer(integer), Real(rounded)) == kCFCompareEqualTo,
                  static_cast<long double>(rounded) == exact);
    }
}

TEST(CFNumber, TreatsBothZerosAsOne) {
    EXPECT_TRUE(CFEqual(Real(-0.0).get(), Integer(0).get()));
    EXPECT_EQ(CFHash(Real(-0.0).get()), CFHash(Integer(0).get()));
}

TEST(CFNumber, PlacesNaNBetweenNegativeNumbersAndZero) {
    const auto nan = Real(kNaN);
    EXPECT_EQ(Compare(nan, Real(-kNaN)), kCFCompareEqualTo);
    EXPECT_TRUE(CFEqual(nan.get(), kCFNumberNaN));
    EXPECT_EQ(CFHash(nan.get()), CFHash(kCFNumberNaN));
    EXPECT_EQ(Compare(nan, Integer(-1)), kCFCompareGreaterThan);
    EXPECT_EQ(Compare(Real(-kInfinity), nan), kCFCompareLessThan);
    EXPECT_EQ(Compare(nan, Integer(0)), kCFCompareLessThan);
    EXPECT_EQ(Compare(Integer(0), nan), kCFCompareGreaterThan);
}

TEST(CFNumber, HasConstantsForValuesWithoutInteger) {
    EXPECT_EQ(Get<double>(kCFNumberPositiveInfinity, kCFNumberDoubleType).value, kInfinity);
    EXPECT_EQ(Get<double>(kCFNumberNegativeInfinity, kCFNumberDoubleType).value, -kInfinity);
    EXPECT_TRUE(std::isnan(Get<double>(kCFNumberNaN, kCFNumberDoubleType).value));
}

TEST(CFNumber, KeepsUnsignedIntegersBeyondTheSignedOnes) {
    const auto number = Wide(0, UINT64_MAX);
    EXPECT_EQ(Get<SInt64>(number.get(), kCFNumberSInt64Type), (Converted<SInt64>{-1, false}));
    EXPECT_EQ(Get<double>(number.get(), kCFNumberFloat64Type), (Converted<double>{0x1p64, false}));
    EXPECT_EQ(CFNumberGetType(number.get()), kCFNumberSInt64Type);
    EXPECT_EQ(CFNumberGetByteSize(number.get()), 8);
    EXPECT_FALSE(CFNumberIsFloatType(number.get()));
    EXPECT_EQ(Compare(number, Integer(INT64_MAX)), kCFCompareGreaterThan);
    EXPECT_FALSE(CFEqual(number.get(), Integer(-1).get()));
}

TEST(CFNumber, GivesTheWordsOfAnyInteger) {
    SInt64 high = 0;
    UInt64 low = 0;
    EXPECT_TRUE(_CFNumberGetInt128(Wide(-5, 7).get(), &high, &low));
    EXPECT_EQ(high, -5);
    EXPECT_EQ(low, 7U);
    EXPECT_TRUE(_CFNumberGetInt128(Integer(-2).get(), &high, &low));
    EXPECT_EQ(high, -1);
    EXPECT_EQ(low, UINT64_MAX - 1);
    EXPECT_FALSE(_CFNumberGetInt128(Real(1).get(), &high, &low));
}

TEST(CFNumber, NarrowsWideIntegersThatFit) {
    EXPECT_EQ(Wide(0, 5).get(), Integer(5).get());
    const auto number = Wide(-1, 0x8000000000000000);
    EXPECT_EQ(Get<SInt64>(number.get(), kCFNumberSInt64Type), (Converted<SInt64>{INT64_MIN, true}));
}

TEST(CFNumber, HasATypeFor128Bits) {
    const CFSInt128 words = {-5, 7};
    const auto number = CF::Adopt(CFNumberCreate(nullptr, kCFNumberSInt128Type, &words));
    EXPECT_TRUE(CFEqual(number.get(), Wide(-5, 7).get()));
    CFSInt128 read{};
    EXPECT_TRUE(CFNumberGetValue(number.get(), kCFNumberSInt128Type, &read));
    EXPECT_EQ(read.high, -5);
    EXPECT_EQ(read.low, 7u);
    EXPECT_TRUE(CFNumberGetValue(Integer(-1).get(), kCFNumberSInt128Type, &read));
    EXPECT_EQ(read.high, -1);
    EXPECT_EQ(read.low, UINT64_MAX);
}

TEST(CFNumber, ConvertsRealsTo128Bits) {
    CFSInt128 read{};
    EXPECT_TRUE(CFNumberGetValue(Real(0x1p64).get(), kCFNumberSInt128Type, &read));
    EXPECT_EQ(read.high, 1);
    EXPECT_EQ(read.low, 0u);
    EXPECT_FALSE(CFNumberGetValue(Real(-1.5).get(), kCFNumberSInt128Type, &read));
    EXPECT_EQ(read.high, -1);
    EXPECT_EQ(read.low, UINT64_MAX);
    EXPECT_FALSE(CFNumberGetValue(Real(1e300).get(), kCFNumberSInt128Type, &read));
    EXPECT_EQ(read.high, INT64_MAX);
    EXPECT_EQ(read.low, UINT64_MAX);
    EXPECT_FALSE(CFNumberGetValue(Real(-1e300).get(), kCFNumberSInt128Type, &read));
    EXPECT_EQ(read.high, INT64_MIN);
    EXPECT_FALSE(CFNumberGetValue(kCFNumberNaN, kCFNumberSInt128Type, &read));
    EXPECT_EQ(read.high, 0);
    EXPECT_EQ(read.low, 0u);
}

TEST(CFNumber, ComparesWideIntegersWithReals) {
    EXPECT_TRUE(CFEqual(Wide(1, 0).get(), Real(0x1p64).get()));
    EXPECT_EQ(CFHash(Wide(1, 0).get()), CFHash(Real(0x1p64).get()));
    EXPECT_TRUE(CFEqual(Wide(INT64_MIN, 0).get(), Real(-0x1p127).get()));
    EXPECT_EQ(Compare(Wide(INT64_MAX, UINT64_MAX), Real(0x1p127)), kCFCompareLessThan);
    EXPECT_EQ(Compare(Wide(1, 1), Real(0x1p64)), kCFCompareGreaterThan);
    EXPECT_EQ(Compare(Wide(INT64_MIN, 0), Real(-kInfinity)), kCFCompareGreaterThan);
}

TEST(CFNumber, DescribesIntegersInDecimal) {
    EXPECT_EQ(Description(Integer(-42).get()), "-42");
    EXPECT_EQ(Description(Wide(0, UINT64_MAX).get()), "18446744073709551615");
    EXPECT_EQ(Description(Wide(INT64_MIN, 0).get()), "-170141183460469231731687303715884105728");
}

TEST(CFNumber, DescribesRealsByTheShortestTextThatReadsBack) {
    EXPECT_EQ(Description(Real(0.1).get()), "0.1");
    EXPECT_EQ(Description(Make(kCFNumberFloat32Type, 0.1F).get()), "0.1");
    EXPECT_EQ(Description(Real(1.0 / 3).get()), "0.3333333333333333");
    EXPECT_EQ(Description(kCFNumberNegativeInfinity), "-inf");
    EXPECT_EQ(Description(kCFNumberNaN), "nan");
}

TEST(CFNumber, TakesOneAllocation) {
    CountingAllocator counting;
    const SInt64 value = 1234567;
    CFRelease(CFNumberCreate(counting.get(), kCFNumberSInt64Type, &value));
    EXPECT_EQ(counting.allocations, 1);
    EXPECT_EQ(counting.live, 0);
}

TEST(CFNumberDeathTest, RefusesBadArguments) {
    const SInt64 value = 1;
    EXPECT_DEATH(CFNumberCreate(nullptr, 0, &value), "unknown number type");
    EXPECT_DEATH(CFNumberCreate(nullptr, 18, &value), "unknown number type");
    EXPECT_DEATH(CFNumberCreate(nullptr, kCFNumberIntType, nullptr), "null value");
    EXPECT_DEATH(CFNumberGetType(nullptr), "CFNumberGetType");
    EXPECT_DEATH(CFNumberGetValue(Integer(1).get(), kCFNumberIntType, nullptr), "null buffer");
}
