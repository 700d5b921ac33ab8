#include "tests/corefoundation/TestClass.hpp"

#include "corefoundation/CFInternal.hpp"
#include "tests/corefoundation/Objects.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <thread>

namespace {

using Objects::Adopt;

constexpr CFRuntimeClass kPlainClass = {0,       "TestPlain", nullptr, nullptr, nullptr,
                                        nullptr, nullptr,     nullptr, nullptr};
constexpr CFRuntimeClass kFullClass = {0,
                                       "TestFull",
                                       TestClass::Init,
                                       nullptr,
                                       TestClass::Finalize,
                                       TestClass::Equal,
                                       TestClass::Hash,
                                       TestClass::CopyFormatted,
                                       TestClass::CopyDebug};

CFTypeID plainID() {
    static const CFTypeID typeID = _CFRuntimeRegisterClass(&kPlainClass);
    return typeID;
}

CFTypeID fullID() {
    static const CFTypeID typeID = _CFRuntimeRegisterClass(&kFullClass);
    return typeID;
}

std::string defaultDescription(const char *name, CFTypeRef cf) {
    char text[64];
    std::snprintf(text, sizeof(text), "<%s %p>", name, cf);
    return text;
}

// ---- registration ----

TEST(CFRuntime, GivesEveryRegistrationItsOwnIdentifier) {
    const CFTypeID first = _CFRuntimeRegisterClass(&kPlainClass);
    const CFTypeID second = _CFRuntimeRegisterClass(&kPlainClass);
    EXPECT_NE(first, CFTypeID{_kCFRuntimeNotATypeID});
    EXPECT_NE(second, CFTypeID{_kCFRuntimeNotATypeID});
    EXPECT_NE(first, second);
}

TEST(CFRuntime, RefusesANullClass) {
    EXPECT_EQ(_CFRuntimeRegisterClass(nullptr), CFTypeID{_kCFRuntimeNotATypeID});
}

TEST(CFRuntime, FindsTheRecordOfARegisteredClass) {
    EXPECT_EQ(_CFRuntimeGetClassWithTypeID(plainID()), &kPlainClass);
}

TEST(CFRuntime, FindsTheRecordOfABuiltInClass) {
    EXPECT_STREQ(_CFRuntimeGetClassWithTypeID(CFStringGetTypeID())->className, "CFString");
}

TEST(CFRuntime, HasNoRecordForUnknownIdentifiers) {
    for (const CFTypeID typeID :
         {CFTypeID{0}, CFTypeID{31}, CFTypeID{1000}, CFTypeID{1} << 40, ~CFTypeID{0}}) {
        EXPECT_EQ(_CFRuntimeGetClassWithTypeID(typeID), nullptr) << typeID;
    }
}

TEST(CFRuntime, RegistersFromManyThreadsWithoutLosingOne) {
    constexpr int threads = 8;
    constexpr int perThread = 20;
    std::vector<std::vector<CFTypeID>> found(threads);
    std::vector<std::thread> workers;
    for (auto &own : found) {
        workers.emplace_back([&own] {
            for (int i = 0; i < perThread; ++i) {
                const CFTypeID typeID = _CFRuntimeRegisterClass(&kPlainClass);
                EXPECT_EQ(_CFRuntimeGetClassWithTypeID(typeID), &kPlainClass);
                own.push_back(typeID);
            }
        });
    }
    std::set<CFTypeID> distinct;
    for (int i = 0; i < threads; ++i) {
        workers[static_cast<std::size_t>(i)].join();
        const auto &own = found[static_cast<std::size_t>(i)];
        distinct.insert(own.begin(), own.end());
    }
    EXPECT_EQ(distinct.size(), std::size_t{threads * perThread});
}

// Ends the process with 0 when the table fills up, since that spoils it for other tests.
[[noreturn]] void fillTheTable() {
    constexpr int moreThanFit = 100000;
    for (int i = 0; i < moreThanFit; ++i) {
        if (_CFRuntimeRegisterClass(&kPlainClass) == _kCFRuntimeNotATypeID) {
            std::_Exit(_CFRuntimeRegisterClass(&kPlainClass) == _kCFRuntimeNotATypeID ? 0 : 2);
        }
    }
    std::_Exit(1);
}

TEST(CFRuntimeDeathTest, RefusesClassesWhenTheTableIsFull) {
    EXPECT_EXIT(fillTheTable(), testing::ExitedWithCode(0), "");
}

TEST(CFRuntime, NamesTypes) {
    EXPECT_EQ(Objects::UTF8(Adopt(CFCopyTypeIDDescription(CFStringGetTypeID())).get()), "CFString");
    EXPECT_EQ(Objects::UTF8(Adopt(CFCopyTypeIDDescription(fullID())).get()), "TestFull");
    EXPECT_EQ(CFCopyTypeIDDescription(_kCFRuntimeNotATypeID), nullptr);
}

// ---- instances ----

TEST(CFRuntime, CreatesZeroFilledInstancesWithOneReference) {
    const auto object = Adopt(_CFRuntimeCreateInstance(nullptr, plainID(), 1000, nullptr));
    const auto *bytes = static_cast<const char *>(object.get()) + sizeof(CFRuntimeBase);
    EXPECT_EQ(std::count(bytes, bytes + 1000, '\0'), 1000);
    EXPECT_EQ(CFGetRetainCount(object.get()), 1);
    EXPECT_EQ(CFGetTypeID(object.get()), plainID());
    EXPECT_EQ(CFGetAllocator(object.get()), kCFAllocatorSystemDefault);
}

TEST(CFRuntime, CallsInitOnce) {
    const auto object = Adopt(TestClass::Create(fullID()));
    EXPECT_TRUE(TestClass::Body(object.get())->initialized);
}

TEST(CFRuntime, KeepsAHeaderThatInitWritesBack) {
    static constexpr CFRuntimeClass record = {0,
                                              "TestRebuilt",
                                              [](CFTypeRef cf) {
                                                  auto *body = TestClass::Body(cf);
                                                  const CFRuntimeBase kept = body->base;
                                                  std::memset(static_cast<void *>(body), 0,
                                                              sizeof(TestObject));
                                                  body->base = kept;
                                              },
                                              nullptr,
                                              nullptr,
                                              nullptr,
                                              nullptr,
                                              nullptr,
                                              nullptr};
    const CFTypeID typeID = _CFRuntimeRegisterClass(&record);
    const auto object = Adopt(TestClass::Create(typeID));
    EXPECT_EQ(CFGetTypeID(object.get()), typeID);
    EXPECT_EQ(CFGetRetainCount(object.get()), 1);
}

TEST(CFRuntime, CreatesNothingOfAnUnknownType) {
    EXPECT_EQ(_CFRuntimeCreateInstance(nullptr, 0, 8, nullptr), nullptr);
    EXPECT_EQ(_CFRuntimeCreateInstance(nullptr, 999, 8, nullptr), nullptr);
}

TEST(CFRuntime, CreatesNothingOfAnImpossibleSize) {
    EXPECT_EQ(_CFRuntimeCreateInstance(nullptr, plainID(), -1, nullptr), nullptr);
    EXPECT_EQ(_CFRuntimeCreateInstance(nullptr, plainID(), INT64_MAX, nullptr), nullptr);
    EXPECT_EQ(_CFRuntimeCreateInstance(nullptr, plainID(), INT64_MAX - 16, nullptr), nullptr);
}

TEST(CFRuntime, FinalizesOnTheLastRelease) {
    const int before = TestClass::finalized;
    CFTypeRef object = TestClass::Create(fullID());
    EXPECT_EQ(CFRetain(object), object);
    EXPECT_EQ(CFGetRetainCount(object), 2);
    CFRelease(object);
    EXPECT_EQ(TestClass::finalized, before);
    CFRelease(object);
    EXPECT_EQ(TestClass::finalized, before + 1);
}

TEST(CFRuntime, CountsReferencesFromManyThreads) {
    const int before = TestClass::finalized;
    CFTypeRef object = TestClass::Create(fullID());
    constexpr int rounds = 20000;
    std::vector<std::thread> workers;
    for (int i = 0; i < 4; ++i) {
        CFRetain(object);
        workers.emplace_back([object] {
            for (int k = 0; k < rounds; ++k) {
                CFRetain(object);
                CFRelease(object);
            }
            CFRelease(object);
        });
    }
    for (std::thread &worker : workers) {
        worker.join();
    }
    EXPECT_EQ(CFGetRetainCount(object), 1);
    EXPECT_EQ(TestClass::finalized, before);
    CFRelease(object);
    EXPECT_EQ(TestClass::finalized, before + 1);
}

TEST(CFRuntime, LetsTheLastOfManyThreadsFinalize) {
    const int before = TestClass::finalized;
    for (int round = 0; round < 200; ++round) {
        CFTypeRef object = TestClass::Create(fullID());
        CFRetain(object);
        std::thread other([object] { CFRelease(object); });
        CFRelease(object);
        other.join();
    }
    EXPECT_EQ(TestClass::finalized, before + 200);
}

// ---- saturation and misuse ----

// Sets the count as if so many references had been taken.
void setCount(CFTypeRef object, std::uint64_t count) {
    TestClass::Body(object)->base._cfinfoa = CFInternal::headerWord(CFGetTypeID(object), 0, count);
}

TEST(CFRuntime, MakesAnObjectImmortalWhenItsCountSaturates) {
    CFTypeRef object = TestClass::Create(plainID());
    setCount(object, CFInternal::kImmortalCount - 1);
    CFRetain(object);
    const CFIndex saturated = CFGetRetainCount(object);
    EXPECT_EQ(saturated, static_cast<CFIndex>(CFInternal::kImmortalCount));
    CFRetain(object);
    CFRelease(object);
    CFRelease(object);
    EXPECT_EQ(CFGetRetainCount(object), saturated);
    setCount(object, 1);
    CFRelease(object);
}

TEST(CFRuntime, NeverCountsConstantObjects) {
    const CFIndex before = CFGetRetainCount(kCFNull);
    CFRetain(kCFNull);
    CFRelease(kCFNull);
    CFRelease(kCFNull);
    EXPECT_EQ(CFGetRetainCount(kCFNull), before);
    EXPECT_GT(before, 1000000);
}

TEST(CFRuntimeDeathTest, AbortsOnNull) {
    EXPECT_DEATH(CFRetain(nullptr), "CFRetain: null object");
    EXPECT_DEATH(CFRelease(nullptr), "CFRelease: null object");
    EXPECT_DEATH(CFGetTypeID(nullptr), "CFGetTypeID: null object");
    EXPECT_DEATH(CFGetRetainCount(nullptr), "CFGetRetainCount: null object");
    EXPECT_DEATH(CFEqual(kCFNull, nullptr), "CFEqual: null object");
    EXPECT_DEATH(CFHash(nullptr), "CFHash: null object");
    EXPECT_DEATH(CFCopyDescription(nullptr), "CFCopyDescription: null object");
    EXPECT_DEATH(CFGetAllocator(nullptr), "CFGetAllocator: null object");
}

TEST(CFRuntimeDeathTest, AbortsWhenReleasedMoreOftenThanRetained) {
    CFTypeRef object = TestClass::Create(plainID());
    setCount(object, 0);
    EXPECT_DEATH(CFRelease(object), "CFRelease: released more often than retained");
    setCount(object, 1);
    CFRelease(object);
}

void finalizeWith(void (*finalize)(CFTypeRef)) {
    static CFRuntimeClass record = {0,       "TestFinalizing", nullptr, nullptr, nullptr,
                                    nullptr, nullptr,          nullptr, nullptr};
    record.finalize = finalize;
    CFRelease(TestClass::Create(_CFRuntimeRegisterClass(&record)));
}

TEST(CFRuntimeDeathTest, AbortsWhenAFinalizerCountsItsObject) {
    EXPECT_DEATH(finalizeWith(CFRelease), "released more often than retained");
    EXPECT_DEATH(finalizeWith([](CFTypeRef cf) { CFRetain(cf); }), "object is being finalized");
}

// An allocator that keeps what it is given back, so that freed objects can be looked at.
CFAllocatorRef keepingAllocator() {
    CFAllocatorContext context{};
    context.allocate = [](CFIndex size, CFOptionFlags, void *) {
        return std::malloc(static_cast<std::size_t>(size));
    };
    context.deallocate = [](void *, void *) {};
    return CFAllocatorCreate(nullptr, &context);
}

void useAfterRelease(CFTypeRef (*use)(CFTypeRef)) {
    CFTypeRef object = TestClass::Create(plainID(), 0, keepingAllocator());
    CFRelease(object);
    use(object);
}

TEST(CFRuntimeDeathTest, AbortsOnAFreedObject) {
    EXPECT_DEATH(useAfterRelease(CFRetain), "CFRetain: not a live object");
    EXPECT_DEATH(useAfterRelease([](CFTypeRef cf) {
                     CFRelease(cf);
                     return cf;
                 }),
                 "CFRelease: not a live object");
}

// ---- equality, hash, description ----

TEST(CFRuntime, ComparesByIdentityWithoutACallback) {
    const auto a = Adopt(TestClass::Create(plainID(), 1));
    const auto b = Adopt(TestClass::Create(plainID(), 1));
    EXPECT_TRUE(CFEqual(a.get(), a.get()));
    EXPECT_FALSE(CFEqual(a.get(), b.get()));
    EXPECT_EQ(CFHash(a.get()), CFHash(a.get()));
    EXPECT_NE(CFHash(a.get()), CFHash(b.get()));
}

TEST(CFRuntime, ComparesByTheCallbacksWithinOneType) {
    const auto a = Adopt(TestClass::Create(fullID(), 5));
    const auto b = Adopt(TestClass::Create(fullID(), 5));
    const auto c = Adopt(TestClass::Create(fullID(), 6));
    const auto other = Adopt(TestClass::Create(plainID(), 5));
    EXPECT_TRUE(CFEqual(a.get(), b.get()));
    EXPECT_EQ(CFHash(a.get()), CFHashCode{5});
    EXPECT_FALSE(CFEqual(a.get(), c.get()));
    EXPECT_FALSE(CFEqual(a.get(), other.get()));
}

TEST(CFRuntime, DescribesByTheFormattingCallbackFirst) {
    const auto object = Adopt(TestClass::Create(fullID(), 5));
    EXPECT_EQ(Objects::Description(object.get()), "formatted 5");
}

std::string describeOneOf(const CFRuntimeClass &record, std::string *fallback) {
    const auto object = Adopt(TestClass::Create(_CFRuntimeRegisterClass(&record), 5));
    *fallback = defaultDescription(record.className, object.get());
    return Objects::Description(object.get());
}

TEST(CFRuntime, DescribesByTheDebugCallbackWhenFormattingGivesNothing) {
    static constexpr CFRuntimeClass none = {
        0, "A", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, TestClass::CopyDebug};
    static constexpr CFRuntimeClass null = {0,
                                            "B",
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            TestClass::CopyNoFormatted,
                                            TestClass::CopyDebug};
    std::string fallback;
    EXPECT_EQ(describeOneOf(none, &fallback), "debug 5");
    EXPECT_EQ(describeOneOf(null, &fallback), "debug 5");
}

TEST(CFRuntime, DescribesByNameAndAddressWhenNoCallbackGivesText) {
    static constexpr CFRuntimeClass null = {0,
                                            "TestNull",
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            TestClass::CopyNoFormatted,
                                            TestClass::CopyNoDebug};
    std::string fallback;
    EXPECT_EQ(describeOneOf(null, &fallback), fallback);
    EXPECT_EQ(describeOneOf(kPlainClass, &fallback), fallback);
}

TEST(CFRuntime, DescribesNull) {
    EXPECT_EQ(Objects::Description(kCFNull), "<null>");
    EXPECT_EQ(CFGetTypeID(kCFNull), CFNullGetTypeID());
}

// What CFShow writes to standard error.
std::string shown(CFTypeRef object) {
    testing::internal::CaptureStderr();
    CFShow(object);
    return testing::internal::GetCapturedStderr();
}

TEST(CFRuntime, ShowsTextsAndDescriptions) {
    EXPECT_EQ(shown(nullptr), "(null)\n");
    EXPECT_EQ(shown(CFSTR("h\u00e9")), "h\u00e9\n");
    EXPECT_EQ(shown(kCFNull), "<null>\n");
}

} // namespace
