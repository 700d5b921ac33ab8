#include "tests/corefoundation/Objects.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

using namespace Objects;

namespace {

CF::Pointer<CFMutableArrayRef> Words(std::initializer_list<std::uintptr_t> words) {
    auto array = Adopt(CFArrayCreateMutable(nullptr, 0, nullptr));
    for (const auto word : words) {
        CFArrayAppendValue(array.get(), Word(word));
    }
    return array;
}

CFRange All(CFArrayRef array) { return CFRangeMake(0, CFArrayGetCount(array)); }

std::vector<std::uintptr_t> Contents(CFArrayRef array) {
    std::vector<std::uintptr_t> words;
    for (CFIndex i = 0; i < CFArrayGetCount(array); ++i) {
        words.push_back(reinterpret_cast<std::uintptr_t>(CFArrayGetValueAtIndex(array, i)));
    }
    return words;
}

using Expected = std::vector<std::uintptr_t>;

CFComparisonResult CompareWords(const void *a, const void *b, void *) {
    return a == b ? 0 : (a < b ? -1 : 1);
}

// Orders by tens only, so that units show whether equal values kept their order.
CFComparisonResult CompareTens(const void *a, const void *b, void *) {
    const auto x = reinterpret_cast<std::uintptr_t>(a) / 10;
    const auto y = reinterpret_cast<std::uintptr_t>(b) / 10;
    return x == y ? 0 : (x < y ? -1 : 1);
}

CF::Pointer<CFArrayRef> ArrayOf(CFTypeRef first, CFTypeRef second) {
    const void *values[] = {first, second};
    return Adopt(CFArrayCreate(nullptr, values, 2, &kCFTypeArrayCallBacks));
}

// Callbacks of a client's own, which count.
int retains = 0;
int releases = 0;
const CFArrayCallBacks countingCallBacks = {
    0,
    [](CFAllocatorRef, const void *value) {
        ++retains;
        return value;
    },
    [](CFAllocatorRef, const void *) { ++releases; }, nullptr,
    [](const void *a, const void *b) -> Boolean {
        return reinterpret_cast<std::uintptr_t>(a) % 10 == reinterpret_cast<std::uintptr_t>(b) % 10;
    }};

} // namespace

TEST(CFArray, RetainsItsObjects) {
    const auto object = Data("value");
    const auto array = ArrayOf(object.get(), object.get());
    EXPECT_EQ(CFGetRetainCount(object.get()), 3);
    EXPECT_EQ(CFArrayGetCount(array.get()), 2);
    EXPECT_EQ(CFArrayGetValueAtIndex(array.get(), 1), object.get());
}

TEST(CFArray, ReleasesItsObjectsWhenItGoes) {
    const auto object = Data("value");
    { const auto array = ArrayOf(object.get(), object.get()); }
    EXPECT_EQ(CFGetRetainCount(object.get()), 1);
}

TEST(CFArray, TakesOneAllocationWhenImmutable) {
    CountingAllocator counting;
    const void *values[] = {kCFBooleanTrue, kCFBooleanFalse};
    CFRelease(CFArrayCreate(counting.get(), values, 2, &kCFTypeArrayCallBacks));
    EXPECT_EQ(counting.allocations, 1);
    EXPECT_EQ(counting.live, 0);
}

TEST(CFArray, HoldsPlainWordsWithoutCallBacks) {
    const void *values[] = {Word(1), nullptr, Word(3)};
    const auto array = Adopt(CFArrayCreate(nullptr, values, 3, nullptr));
    EXPECT_EQ(Contents(array.get()), (Expected{1, 0, 3}));
}

TEST(CFArray, CopiesTheCallBackRecord) {
    CFArrayCallBacks callBacks = countingCallBacks;
    const auto array = Adopt(CFArrayCreateMutable(nullptr, 0, &callBacks));
    callBacks = {};
    retains = releases = 0;
    CFArrayAppendValue(array.get(), Word(1));
    CFArrayRemoveAllValues(array.get());
    EXPECT_EQ(retains, 1);
    EXPECT_EQ(releases, 1);
}

TEST(CFArray, ImmutableKeepsACopyOfTheCallBacksBehindItsValues) {
    const void *values[] = {Word(11), Word(12)};
    retains = releases = 0;
    CFArrayRef array = CFArrayCreate(nullptr, values, 2, &countingCallBacks);
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(array, CFRangeMake(0, 2), Word(2)), 1);
    CFRelease(array);
    EXPECT_EQ(retains, 2);
    EXPECT_EQ(releases, 2);
}

TEST(CFArray, CopyOfAnImmutableArrayIsTheSameObject) {
    const auto array = ArrayOf(kCFBooleanTrue, kCFBooleanFalse);
    EXPECT_EQ(Adopt(CFArrayCreateCopy(nullptr, array.get())).get(), array.get());
}

TEST(CFArray, CopyOfAMutableArrayDoesNotChangeWithIt) {
    const auto array = Words({1, 2});
    const auto copy = Adopt(CFArrayCreateCopy(nullptr, array.get()));
    CFArrayAppendValue(array.get(), Word(3));
    EXPECT_EQ(Contents(copy.get()), (Expected{1, 2}));
}

TEST(CFArray, MutableCopyIsApart) {
    const auto array = Words({1, 2});
    const auto copy = Adopt(CFArrayCreateMutableCopy(nullptr, 0, array.get()));
    CFArrayAppendValue(copy.get(), Word(3));
    EXPECT_EQ(Contents(copy.get()), (Expected{1, 2, 3}));
    EXPECT_EQ(Contents(array.get()), (Expected{1, 2}));
}

TEST(CFArray, EmptyMutableCopyWorks) {
    const auto empty = Adopt(CFArrayCreate(nullptr, nullptr, 0, &kCFTypeArrayCallBacks));
    const auto copy = Adopt(CFArrayCreateMutableCopy(nullptr, 5, empty.get()));
    EXPECT_EQ(CFArrayGetCount(copy.get()), 0);
    EXPECT_TRUE(CFEqual(empty.get(), copy.get()));
}

TEST(CFArray, IsEqualWhenItsValuesAre) {
    const auto a = ArrayOf(Data("a").get(), Integer(1).get());
    const auto b = ArrayOf(Data("a").get(), Integer(1).get());
    EXPECT_TRUE(CFEqual(a.get(), b.get()));
    EXPECT_EQ(CFHash(a.get()), CFHash(b.get()));
    EXPECT_FALSE(CFEqual(a.get(), ArrayOf(Data("a").get(), Integer(2).get()).get()));
}

TEST(CFArray, OfWordsIsNotEqualToOneOfObjects) {
    const void *values[] = {kCFBooleanTrue};
    const auto words = Adopt(CFArrayCreate(nullptr, values, 1, nullptr));
    const auto objects = Adopt(CFArrayCreate(nullptr, values, 1, &kCFTypeArrayCallBacks));
    EXPECT_FALSE(CFEqual(words.get(), objects.get()));
}

TEST(CFArray, CountsAndFindsValuesInARange) {
    const auto array = Words({5, 7, 5, 9, 5});
    EXPECT_EQ(CFArrayGetCountOfValue(array.get(), All(array.get()), Word(5)), 3);
    EXPECT_EQ(CFArrayGetCountOfValue(array.get(), CFRangeMake(1, 3), Word(5)), 1);
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(array.get(), CFRangeMake(1, 4), Word(5)), 2);
    EXPECT_EQ(CFArrayGetLastIndexOfValue(array.get(), CFRangeMake(0, 4), Word(5)), 2);
    EXPECT_EQ(CFArrayGetLastIndexOfValue(array.get(), CFRangeMake(0, 0), Word(5)), kCFNotFound);
    EXPECT_TRUE(CFArrayContainsValue(array.get(), All(array.get()), Word(9)));
    EXPECT_FALSE(CFArrayContainsValue(array.get(), CFRangeMake(0, 3), Word(9)));
}

TEST(CFArray, FindsObjectsByEquality) {
    const auto array = ArrayOf(Data("a").get(), Data("b").get());
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(array.get(), All(array.get()), Data("b").get()), 1);
}

TEST(CFArray, CopiesARangeOfValuesOut) {
    const void *values[3] = {Word(77), Word(77), Word(77)};
    CFArrayGetValues(Words({1, 2, 3, 4}).get(), CFRangeMake(1, 2), values);
    EXPECT_EQ(values[0], Word(2));
    EXPECT_EQ(values[1], Word(3));
    EXPECT_EQ(values[2], Word(77));
}

TEST(CFArray, AppliesAFunctionInOrder) {
    Expected seen;
    CFArrayApplyFunction(
        Words({1, 2, 3, 4}).get(), CFRangeMake(1, 3),
        [](const void *value, void *context) {
            static_cast<Expected *>(context)->push_back(reinterpret_cast<std::uintptr_t>(value));
        },
        &seen);
    EXPECT_EQ(seen, (Expected{2, 3, 4}));
}

TEST(CFArray, SearchesASortedRange) {
    const auto array = Words({10, 20, 30, 40});
    const auto search = [&](std::uintptr_t word) {
        return CFArrayBSearchValues(array.get(), All(array.get()), Word(word), CompareWords,
                                    nullptr);
    };
    EXPECT_EQ(search(10), 0);
    EXPECT_EQ(search(30), 2);
    EXPECT_EQ(search(25), 2);
    EXPECT_EQ(search(5), 0);
    EXPECT_EQ(search(50), 4);
}

TEST(CFArray, InsertsSetsRemovesAndSwaps) {
    const auto array = Words({1, 2, 3});
    CFArrayInsertValueAtIndex(array.get(), 0, Word(9));
    CFArrayInsertValueAtIndex(array.get(), 4, Word(8));
    EXPECT_EQ(Contents(array.get()), (Expected{9, 1, 2, 3, 8}));
    CFArraySetValueAtIndex(array.get(), 1, Word(7));
    CFArraySetValueAtIndex(array.get(), 5, Word(6));
    EXPECT_EQ(Contents(array.get()), (Expected{9, 7, 2, 3, 8, 6}));
    CFArrayRemoveValueAtIndex(array.get(), 0);
    CFArrayExchangeValuesAtIndices(array.get(), 0, 4);
    EXPECT_EQ(Contents(array.get()), (Expected{6, 2, 3, 8, 7}));
}

TEST(CFArray, ReplacesARange) {
    const auto array = Words({1, 2, 3, 4});
    const void *values[] = {Word(7), Word(8), Word(9)};
    CFArrayReplaceValues(array.get(), CFRangeMake(1, 2), values, 3);
    EXPECT_EQ(Contents(array.get()), (Expected{1, 7, 8, 9, 4}));
    CFArrayReplaceValues(array.get(), CFRangeMake(0, 4), nullptr, 0);
    EXPECT_EQ(Contents(array.get()), (Expected{4}));
}

TEST(CFArray, SetsAValueToItself) {
    const auto object = Data("only held by the array");
    const auto array = Adopt(CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
    CFArrayAppendValue(array.get(), object.get());
    CFArraySetValueAtIndex(array.get(), 0, CFArrayGetValueAtIndex(array.get(), 0));
    EXPECT_EQ(CFGetRetainCount(object.get()), 2);
}

TEST(CFArray, ReleasesWhatItGivesUp) {
    const auto object = Data("value");
    const auto array = Adopt(CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
    for (int i = 0; i < 4; ++i) {
        CFArrayAppendValue(array.get(), object.get());
    }
    EXPECT_EQ(CFGetRetainCount(object.get()), 5);
    CFArrayRemoveValueAtIndex(array.get(), 1);
    CFArraySetValueAtIndex(array.get(), 0, kCFBooleanTrue);
    EXPECT_EQ(CFGetRetainCount(object.get()), 3);
    CFArrayRemoveAllValues(array.get());
    EXPECT_EQ(CFGetRetainCount(object.get()), 1);
}

TEST(CFArray, AppendsItself) {
    const auto array = Words({1, 2, 3});
    CFArrayAppendArray(array.get(), array.get(), CFRangeMake(1, 2));
    EXPECT_EQ(Contents(array.get()), (Expected{1, 2, 3, 2, 3}));
}

TEST(CFArray, SortsStably) {
    const auto array = Words({31, 11, 32, 12, 21, 13, 5});
    CFArraySortValues(array.get(), All(array.get()), CompareTens, nullptr);
    EXPECT_EQ(Contents(array.get()), (Expected{5, 11, 12, 13, 21, 31, 32}));
}

TEST(CFArray, SortsARangeOnly) {
    const auto array = Words({4, 3, 2, 1});
    CFArraySortValues(array.get(), CFRangeMake(1, 2), CompareWords, nullptr);
    EXPECT_EQ(Contents(array.get()), (Expected{4, 2, 3, 1}));
}

TEST(CFArray, SortsLikeTheStandardLibrary) {
    std::mt19937 random(3);
    for (std::size_t size = 0; size < 70; ++size) {
        const auto array = Words({});
        Expected model;
        for (std::size_t i = 0; i < size; ++i) {
            model.push_back(random() % 50);
            CFArrayAppendValue(array.get(), Word(model.back()));
        }
        std::sort(model.begin(), model.end());
        CFArraySortValues(array.get(), All(array.get()), CompareWords, nullptr);
        ASSERT_EQ(Contents(array.get()), model);
    }
}

TEST(CFArray, SurvivesAComparatorThatContradictsItself) {
    std::mt19937 random(5);
    const auto array = Words({});
    for (std::uintptr_t i = 0; i < 1000; ++i) {
        CFArrayAppendValue(array.get(), Word(i));
    }
    CFArraySortValues(
        array.get(), All(array.get()),
        [](const void *, const void *, void *context) -> CFComparisonResult {
            return static_cast<CFIndex>((*static_cast<std::mt19937 *>(context))() % 3) - 1;
        },
        &random);
    Expected contents = Contents(array.get());
    std::sort(contents.begin(), contents.end());
    for (std::uintptr_t i = 0; i < 1000; ++i) {
        ASSERT_EQ(contents[i], i);
    }
}

TEST(CFArray, DescribesItsValuesOnLines) {
    const auto inner = ArrayOf(CFSTR("two words"), kCFBooleanTrue);
    EXPECT_EQ(Description(ArrayOf(CFSTR("word"), inner.get()).get()),
              "(\n    word,\n    (\n        \"two words\",\n        true\n    )\n)");
    EXPECT_EQ(Description(Words({}).get()), "(\n)");
    EXPECT_EQ(Description(Words({0x1f}).get()), "(\n    <0x1f>\n)");
}

TEST(CFArray, DescribesTextThatCouldBeMisreadEscaped) {
    EXPECT_EQ(Description(ArrayOf(CFSTR("a\nb\t\"\\"), CFSTR("\x01")).get()),
              "(\n    \"a\\nb\\t\\\"\\\\\",\n    \"\\U0001\"\n)");
}

TEST(CFArray, DescribesAnArrayThatHoldsItself) {
    const auto array = Adopt(CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
    CFArrayAppendValue(array.get(), array.get());
    EXPECT_EQ(Description(array.get()), "(\n    (...)\n)");
    CFArrayRemoveAllValues(array.get());
}

TEST(CFArray, BoundsTheDescriptionOfSharedNestedArrays) {
    CF::Pointer<CFArrayRef> array = ArrayOf(kCFBooleanTrue, kCFBooleanTrue);
    for (int depth = 0; depth < 200; ++depth) {
        array = ArrayOf(array.get(), array.get());
    }
    const std::string text = Description(array.get());
    EXPECT_NE(text.find("(...)"), std::string::npos);
    EXPECT_LT(text.size(), 10'000'000U);
}

TEST(CFArray, BehavesLikeAVectorUnderRandomEdits) {
    std::mt19937 random(11);
    Expected model;
    const auto array = Words({});
    for (std::uintptr_t step = 1; step < 3000; ++step) {
        const std::size_t at = random() % (model.size() + 1);
        const std::size_t count = random() % std::min<std::size_t>(model.size() - at + 1, 6);
        const Expected added(random() % 6, step);
        const auto start = model.begin() + static_cast<std::ptrdiff_t>(at);
        model.erase(start, start + static_cast<std::ptrdiff_t>(count));
        model.insert(model.begin() + static_cast<std::ptrdiff_t>(at), added.begin(), added.end());
        std::vector<const void *> values;
        std::transform(added.begin(), added.end(), std::back_inserter(values), Word);
        CFArrayReplaceValues(array.get(),
                             CFRangeMake(static_cast<CFIndex>(at), static_cast<CFIndex>(count)),
                             values.data(), static_cast<CFIndex>(values.size()));
        ASSERT_EQ(Contents(array.get()), model);
    }
}

TEST(CFArrayDeathTest, RefusesIndexesOutside) {
    const auto array = Words({1, 2, 3});
    EXPECT_DEATH(CFArrayGetValueAtIndex(array.get(), 3), "index outside the array");
    EXPECT_DEATH(CFArrayGetValueAtIndex(array.get(), -1), "index outside the array");
    EXPECT_DEATH(CFArraySetValueAtIndex(array.get(), 4, Word(1)), "index outside");
    EXPECT_DEATH(CFArrayInsertValueAtIndex(array.get(), 4, Word(1)), "index outside");
    EXPECT_DEATH(CFArrayRemoveValueAtIndex(array.get(), 3), "index outside");
    EXPECT_DEATH(CFArrayExchangeValuesAtIndices(array.get(), 0, 3), "index outside");
    EXPECT_DEATH(CFArrayContainsValue(array.get(), CFRangeMake(1, 3), nullptr), "range outside");
}

TEST(CFArrayDeathTest, RefusesToChangeAnImmutableArray) {
    const auto array = ArrayOf(kCFBooleanTrue, kCFBooleanTrue);
    auto *changed = const_cast<CFMutableArrayRef>(array.get());
    EXPECT_DEATH(CFArrayAppendValue(changed, kCFBooleanTrue), "immutable array");
}

TEST(CFArrayDeathTest, RefusesNullObjects) {
    const auto array = Adopt(CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
    EXPECT_DEATH(CFArrayAppendValue(array.get(), nullptr), "");
    EXPECT_DEATH(CFArrayGetCount(nullptr), "CFArrayGetCount");
    EXPECT_DEATH(CFArrayCreate(nullptr, nullptr, 1, nullptr), "null values");
}
