#include "tests/corefoundation/Objects.hpp"

#include <gtest/gtest.h>

#include <map>
#include <random>

using namespace Objects;

namespace {

using MutableDictionary = CF::Pointer<CFMutableDictionaryRef>;

MutableDictionary Words() { return Adopt(CFDictionaryCreateMutable(nullptr, 0, nullptr, nullptr)); }

MutableDictionary
ObjectsByKey(const CFDictionaryKeyCallBacks *keyCallBacks = &kCFTypeDictionaryKeyCallBacks) {
    return Adopt(
        CFDictionaryCreateMutable(nullptr, 0, keyCallBacks, &kCFTypeDictionaryValueCallBacks));
}

CF::Pointer<CFDictionaryRef> Pair(CFTypeRef key, CFTypeRef value) {
    return Adopt(CFDictionaryCreate(nullptr, &key, &value, 1, &kCFTypeDictionaryKeyCallBacks,
                                    &kCFTypeDictionaryValueCallBacks));
}

std::uintptr_t Number(const void *word) { return reinterpret_cast<std::uintptr_t>(word); }

using Model = std::map<std::uintptr_t, std::uintptr_t>;

Model Contents(CFDictionaryRef dictionary) {
    Model model;
    CFDictionaryApplyFunction(
        dictionary,
        [](const void *key, const void *value, void *context) {
            (*static_cast<Model *>(context))[Number(key)] = Number(value);
        },
        &model);
    return model;
}

// Words as keys under a client's own rules: equal by remainder, all with one hash.
const CFDictionaryKeyCallBacks collidingKeys = {
    0,
    nullptr,
    nullptr,
    nullptr,
    [](const void *a, const void *b) -> Boolean { return Number(a) % 1000 == Number(b) % 1000; },
    [](const void *) -> CFHashCode { return 42; }};

// One random step on both; keys are few, so that all cases come up.
void RandomStep(std::mt19937 &random, CFMutableDictionaryRef dictionary, Model &model,
                std::uintptr_t keyCount) {
    const std::uintptr_t key = random() % keyCount;
    const std::uintptr_t value = random() % 100;
    switch (random() % 6) {
    case 0:
        model.emplace(key, value);
        CFDictionaryAddValue(dictionary, Word(key), Word(value));
        break;
    case 1:
    case 2:
        model[key] = value;
        CFDictionarySetValue(dictionary, Word(key), Word(value));
        break;
    case 3:
        if (model.contains(key)) {
            model[key] = value;
        }
        CFDictionaryReplaceValue(dictionary, Word(key), Word(value));
        break;
    default:
        model.erase(key);
        CFDictionaryRemoveValue(dictionary, Word(key));
    }
}

void ExpectLookupsLike(CFDictionaryRef dictionary, const Model &model, std::uintptr_t keyCount) {
    for (std::uintptr_t key = 0; key < keyCount; ++key) {
        const void *value = Word(12345);
        const auto found = model.find(key);
        ASSERT_EQ(CFDictionaryGetValueIfPresent(dictionary, Word(key), &value),
                  found != model.end());
        ASSERT_EQ(Number(value), found == model.end() ? 12345 : found->second);
    }
}

void RunRandomModel(const CFDictionaryKeyCallBacks *callBacks, std::uintptr_t keyCount, int steps) {
    std::mt19937 random(17);
    Model model;
    const auto dictionary = Adopt(CFDictionaryCreateMutable(nullptr, 0, callBacks, nullptr));
    for (int step = 0; step < steps; ++step) {
        RandomStep(random, dictionary.get(), model, keyCount);
        ASSERT_EQ(CFDictionaryGetCount(dictionary.get()), static_cast<CFIndex>(model.size()));
        if (step % 50 == 0) {
            ASSERT_EQ(Contents(dictionary.get()), model);
            ExpectLookupsLike(dictionary.get(), model, keyCount);
        }
    }
}

} // namespace

TEST(CFDictionary, FindsValuesByEqualKeys) {
    const auto dictionary = Pair(CFSTR("key"), CFSTR("value"));
    const auto key = Adopt(CFStringCreateMutableCopy(nullptr, 0, CFSTR("key")));
    EXPECT_EQ(CFDictionaryGetValue(dictionary.get(), key.get()), CFSTR("value"));
    EXPECT_EQ(CFDictionaryGetValue(dictionary.get(), CFSTR("other")), nullptr);
    EXPECT_EQ(CFGetTypeID(dictionary.get()), CFDictionaryGetTypeID());
}

TEST(CFDictionary, RetainsKeysAndValues) {
    const auto key = Data("key");
    const auto value = Data("value");
    {
        const auto dictionary = Pair(key.get(), value.get());
        EXPECT_EQ(CFGetRetainCount(key.get()), 2);
        EXPECT_EQ(CFGetRetainCount(value.get()), 2);
    }
    EXPECT_EQ(CFGetRetainCount(key.get()), 1);
    EXPECT_EQ(CFGetRetainCount(value.get()), 1);
}

TEST(CFDictionary, TakesOneAllocationWhenImmutable) {
    CountingAllocator counting;
    std::vector<const void *> words;
    for (std::uintptr_t i = 0; i < 100; ++i) {
        words.push_back(Word(i));
    }
    CFRelease(
        CFDictionaryCreate(counting.get(), words.data(), words.data(), 100, nullptr, nullptr));
    EXPECT_EQ(counting.allocations, 1);
    EXPECT_EQ(counting.live, 0);
}

TEST(CFDictionary, FreesItsTables) {
    CountingAllocator counting;
    {
        const auto dictionary =
            Adopt(CFDictionaryCreateMutable(counting.get(), 0, nullptr, nullptr));
        for (std::uintptr_t i = 0; i < 1000; ++i) {
            CFDictionarySetValue(dictionary.get(), Word(i), Word(i));
        }
        CFDictionaryRemoveAllValues(dictionary.get());
        CFDictionarySetValue(dictionary.get(), Word(1), Word(1));
    }
    EXPECT_EQ(counting.live, 0);
}

TEST(CFDictionary, KeepsTheFirstOfEqualKeys) {
    const void *keys[] = {CFSTR("a"), CFSTR("b"), CFSTR("a")};
    const void *values[] = {CFSTR("1"), CFSTR("2"), CFSTR("3")};
    const auto dictionary =
        Adopt(CFDictionaryCreate(nullptr, keys, values, 3, &kCFTypeDictionaryKeyCallBacks,
                                 &kCFTypeDictionaryValueCallBacks));
    EXPECT_EQ(CFDictionaryGetCount(dictionary.get()), 2);
    EXPECT_EQ(CFDictionaryGetValue(dictionary.get(), CFSTR("a")), CFSTR("1"));
}

TEST(CFDictionary, EmptyFindsNothing) {
    const auto dictionary =
        Adopt(CFDictionaryCreate(nullptr, nullptr, nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                 &kCFTypeDictionaryValueCallBacks));
    EXPECT_EQ(CFDictionaryGetCount(dictionary.get()), 0);
    EXPECT_FALSE(CFDictionaryContainsKey(dictionary.get(), CFSTR("key")));
    EXPECT_TRUE(CFEqual(dictionary.get(), ObjectsByKey().get()));
}

TEST(CFDictionary, TellsAStoredNullFromAnAbsentKey) {
    const auto dictionary = Words();
    CFDictionarySetValue(dictionary.get(), Word(1), nullptr);
    const void *value = Word(9);
    EXPECT_TRUE(CFDictionaryGetValueIfPresent(dictionary.get(), Word(1), &value));
    EXPECT_EQ(value, nullptr);
    EXPECT_FALSE(CFDictionaryGetValueIfPresent(dictionary.get(), Word(2), nullptr));
}

TEST(CFDictionary, AddKeepsSetReplacesReplaceNeedsTheKey) {
    const auto dictionary = Words();
    CFDictionaryAddValue(dictionary.get(), Word(1), Word(10));
    CFDictionaryAddValue(dictionary.get(), Word(1), Word(11));
    EXPECT_EQ(Contents(dictionary.get()), (Model{{1, 10}}));
    CFDictionarySetValue(dictionary.get(), Word(1), Word(12));
    CFDictionaryReplaceValue(dictionary.get(), Word(2), Word(20));
    EXPECT_EQ(Contents(dictionary.get()), (Model{{1, 12}}));
    CFDictionaryReplaceValue(dictionary.get(), Word(1), Word(13));
    CFDictionaryRemoveValue(dictionary.get(), Word(7));
    EXPECT_EQ(Contents(dictionary.get()), (Model{{1, 13}}));
}

TEST(CFDictionary, SetKeepsTheStoredKey) {
    const auto first = Data("key");
    const auto second = Data("key");
    const auto dictionary = ObjectsByKey();
    CFDictionarySetValue(dictionary.get(), first.get(), kCFBooleanTrue);
    CFDictionarySetValue(dictionary.get(), second.get(), kCFBooleanFalse);
    const void *stored = nullptr;
    EXPECT_TRUE(CFDictionaryGetKeyIfPresent(dictionary.get(), second.get(), &stored));
    EXPECT_EQ(stored, first.get());
    EXPECT_EQ(CFGetRetainCount(second.get()), 1);
}

TEST(CFDictionary, SetsAValueToItself) {
    const auto value = Data("value");
    const auto dictionary = ObjectsByKey();
    CFDictionarySetValue(dictionary.get(), CFSTR("k"), value.get());
    CFDictionarySetValue(dictionary.get(), CFSTR("k"),
                         CFDictionaryGetValue(dictionary.get(), CFSTR("k")));
    EXPECT_EQ(CFGetRetainCount(value.get()), 2);
}

TEST(CFDictionary, ReleasesWhatItGivesUp) {
    const auto key = Data("key");
    const auto value = Data("value");
    const auto dictionary = ObjectsByKey();
    CFDictionarySetValue(dictionary.get(), key.get(), value.get());
    CFDictionarySetValue(dictionary.get(), key.get(), kCFBooleanTrue);
    EXPECT_EQ(CFGetRetainCount(value.get()), 1);
    CFDictionaryRemoveValue(dictionary.get(), key.get());
    EXPECT_EQ(CFGetRetainCount(key.get()), 1);
    CFDictionarySetValue(dictionary.get(), key.get(), value.get());
    CFDictionaryRemoveAllValues(dictionary.get());
    EXPECT_EQ(CFGetRetainCount(key.get()) + CFGetRetainCount(value.get()), 2);
}

TEST(CFDictionary, CopiesStringKeysThatMayChange) {
    const auto key = Adopt(CFStringCreateMutableCopy(nullptr, 0, CFSTR("key")));
    const auto dictionary = ObjectsByKey(&kCFCopyStringDictionaryKeyCallBacks);
    CFDictionarySetValue(dictionary.get(), key.get(), kCFBooleanTrue);
    CFStringAppend(key.get(), CFSTR(" changed"));
    EXPECT_TRUE(CFDictionaryContainsKey(dictionary.get(), CFSTR("key")));
}

TEST(CFDictionary, CopiesTheCallBackRecords) {
    CFDictionaryKeyCallBacks keyCallBacks = collidingKeys;
    const auto dictionary = Adopt(CFDictionaryCreateMutable(nullptr, 0, &keyCallBacks, nullptr));
    keyCallBacks = {};
    CFDictionarySetValue(dictionary.get(), Word(1), Word(10));
    CFDictionarySetValue(dictionary.get(), Word(1001), Word(11));
    EXPECT_EQ(Contents(dictionary.get()), (Model{{1, 11}}));
}

TEST(CFDictionary, CountsValuesByEquality) {
    const auto dictionary = ObjectsByKey();
    CFDictionarySetValue(dictionary.get(), CFSTR("a"), Data("x").get());
    CFDictionarySetValue(dictionary.get(), CFSTR("b"), Data("x").get());
    EXPECT_EQ(CFDictionaryGetCountOfValue(dictionary.get(), Data("x").get()), 2);
    EXPECT_EQ(CFDictionaryGetCountOfKey(dictionary.get(), CFSTR("a")), 1);
    EXPECT_TRUE(CFDictionaryContainsValue(dictionary.get(), Data("x").get()));
    EXPECT_FALSE(CFDictionaryContainsValue(dictionary.get(), Data("y").get()));
}

TEST(CFDictionary, GivesKeysAndValuesInMatchingOrder) {
    const auto dictionary = Words();
    for (std::uintptr_t i = 0; i < 40; ++i) {
        CFDictionarySetValue(dictionary.get(), Word(i), Word(i + 100));
    }
    std::vector<const void *> keys(40);
    std::vector<const void *> values(40);
    CFDictionaryGetKeysAndValues(dictionary.get(), keys.data(), values.data());
    for (std::size_t i = 0; i < 40; ++i) {
        EXPECT_EQ(Number(values[i]), Number(keys[i]) + 100);
    }
    CFDictionaryGetKeysAndValues(dictionary.get(), nullptr, nullptr);
}

TEST(CFDictionary, CopyOfAnImmutableDictionaryIsTheSameObject) {
    const auto dictionary = Pair(CFSTR("k"), CFSTR("v"));
    EXPECT_EQ(Adopt(CFDictionaryCreateCopy(nullptr, dictionary.get())).get(), dictionary.get());
}

TEST(CFDictionary, CopiesDoNotChangeWithTheOriginal) {
    const auto dictionary = Words();
    for (std::uintptr_t i = 0; i < 100; ++i) {
        CFDictionarySetValue(dictionary.get(), Word(i), Word(i));
    }
    const Model before = Contents(dictionary.get());
    const auto copy = Adopt(CFDictionaryCreateCopy(nullptr, dictionary.get()));
    const auto mutableCopy = Adopt(CFDictionaryCreateMutableCopy(nullptr, 3, dictionary.get()));
    CFDictionaryRemoveAllValues(dictionary.get());
    EXPECT_EQ(Contents(copy.get()), before);
    EXPECT_EQ(Contents(mutableCopy.get()), before);
    CFDictionarySetValue(mutableCopy.get(), Word(1000), Word(1));
    EXPECT_EQ(CFDictionaryGetCount(copy.get()), 100);
}

TEST(CFDictionary, IsEqualWhenItsPairsAreWhateverTheirOrder) {
    const auto a = ObjectsByKey();
    const auto b = ObjectsByKey();
    for (int i = 0; i < 20; ++i) {
        CFDictionarySetValue(a.get(), Integer(i).get(), Data("x").get());
        CFDictionarySetValue(b.get(), Integer(19 - i).get(), Data("x").get());
    }
    EXPECT_TRUE(CFEqual(a.get(), b.get()));
    EXPECT_EQ(CFHash(a.get()), CFHash(b.get()));
    CFDictionarySetValue(b.get(), Integer(3).get(), Data("y").get());
    EXPECT_FALSE(CFEqual(a.get(), b.get()));
}

TEST(CFDictionary, IsNotEqualWithOtherKeysOfTheSameNumber) {
    EXPECT_FALSE(CFEqual(Pair(CFSTR("a"), CFSTR("v")).get(), Pair(CFSTR("b"), CFSTR("v")).get()));
}

TEST(CFDictionary, TakesAnyCapacityAsAHint) {
    const auto dictionary = Adopt(CFDictionaryCreateMutable(nullptr, INT64_MAX, nullptr, nullptr));
    for (std::uintptr_t i = 0; i < 100; ++i) {
        CFDictionarySetValue(dictionary.get(), Word(i), Word(i));
    }
    EXPECT_EQ(CFDictionaryGetCount(dictionary.get()), 100);
}

TEST(CFDictionary, BehavesLikeAMapWhenSmall) { RunRandomModel(nullptr, 7, 3000); }

TEST(CFDictionary, BehavesLikeAMapWhenLarge) { RunRandomModel(nullptr, 500, 20000); }

TEST(CFDictionary, BehavesLikeAMapWhenAllKeysCollide) { RunRandomModel(&collidingKeys, 60, 5000); }

TEST(CFDictionary, FindsAddressesThatDifferInHighBitsOnly) {
    const auto dictionary = Words();
    for (std::uintptr_t i = 0; i < 200; ++i) {
        CFDictionarySetValue(dictionary.get(), Word(i << 40), Word(i));
    }
    for (std::uintptr_t i = 0; i < 200; ++i) {
        EXPECT_EQ(Number(CFDictionaryGetValue(dictionary.get(), Word(i << 40))), i);
    }
}

TEST(CFDictionary, HoldsAHundredThousandStrings) {
    const auto dictionary = ObjectsByKey();
    for (int i = 0; i < 100000; ++i) {
        CFDictionarySetValue(dictionary.get(), String("key " + std::to_string(i)).get(),
                             Integer(i).get());
    }
    ASSERT_EQ(CFDictionaryGetCount(dictionary.get()), 100000);
    for (int i = 0; i < 100000; i += 997) {
        const void *value =
            CFDictionaryGetValue(dictionary.get(), String("key " + std::to_string(i)).get());
        EXPECT_TRUE(value != nullptr && CFEqual(value, Integer(i).get()));
    }
}

TEST(CFDictionary, DescribesItsPairsOnLines) {
    const auto inner = Pair(CFSTR("inner key"), Integer(5).get());
    EXPECT_EQ(Description(Pair(CFSTR("outer"), inner.get()).get()),
              "{\n    outer = {\n        \"inner key\" = 5;\n    };\n}");
    EXPECT_EQ(Description(ObjectsByKey().get()), "{\n}");
}

TEST(CFDictionary, DescribesADictionaryThatHoldsItself) {
    const auto dictionary = ObjectsByKey();
    CFDictionarySetValue(dictionary.get(), CFSTR("self"), dictionary.get());
    EXPECT_EQ(Description(dictionary.get()), "{\n    self = {...};\n}");
    CFDictionaryRemoveAllValues(dictionary.get());
}

TEST(CFDictionary, DescriptionDoesNotRepeatALongTextWithoutEnd) {
    constexpr std::size_t kLength = 1 << 16;
    const auto text = String(std::string(kLength, 'x'));
    const auto dictionary = ObjectsByKey();
    for (int i = 0; i < 100; ++i) {
        CFDictionarySetValue(dictionary.get(), String(std::to_string(i)).get(), text.get());
    }
    const std::string description = Description(dictionary.get());
    EXPECT_GT(description.size(), 10 * kLength);
    EXPECT_LT(description.size(), 20 * kLength);
}

TEST(CFDictionaryDeathTest, RefusesToChangeAnImmutableDictionary) {
    const auto dictionary = Pair(CFSTR("k"), CFSTR("v"));
    auto *changed = const_cast<CFMutableDictionaryRef>(dictionary.get());
    EXPECT_DEATH(CFDictionarySetValue(changed, CFSTR("k"), CFSTR("w")), "immutable dictionary");
    EXPECT_DEATH(CFDictionaryRemoveAllValues(changed), "immutable dictionary");
}

TEST(CFDictionaryDeathTest, RefusesBadArguments) {
    EXPECT_DEATH(CFDictionaryGetCount(nullptr), "CFDictionaryGetCount");
    EXPECT_DEATH(CFDictionaryCreate(nullptr, nullptr, nullptr, 1, nullptr, nullptr),
                 "null keys or values");
    EXPECT_DEATH(CFDictionaryCreate(nullptr, nullptr, nullptr, -1, nullptr, nullptr),
                 "negative count");
    EXPECT_DEATH(CFDictionarySetValue(ObjectsByKey().get(), nullptr, kCFBooleanTrue), "");
    EXPECT_DEATH(CFDictionarySetValue(ObjectsByKey().get(), kCFBooleanTrue, nullptr), "");
}
