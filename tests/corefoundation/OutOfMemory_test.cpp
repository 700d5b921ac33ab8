// What happens when memory runs out at any one point.
#include <CoreFoundation/CoreFoundation.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <new>
#include <string>

namespace {

// Allocations until one fails; negative: none does. Of the allocator below and of operator new.
thread_local long allocationsLeft = -1;
thread_local long blocksInUse = 0;

bool takeAllocation() {
    if (allocationsLeft < 0) {
        return true;
    }
    return allocationsLeft-- > 0;
}

void *allocate(CFIndex size, CFOptionFlags, void *) {
    if (!takeAllocation()) {
        return nullptr;
    }
    ++blocksInUse;
    return std::malloc(static_cast<std::size_t>(size));
}

void *reallocate(void *memory, CFIndex size, CFOptionFlags, void *) {
    return takeAllocation() ? std::realloc(memory, static_cast<std::size_t>(size)) : nullptr;
}

void deallocate(void *memory, void *) {
    --blocksInUse;
    std::free(memory);
}

CFAllocatorRef FailingAllocator() {
    static CFAllocatorContext context = {0,        nullptr,    nullptr,    nullptr, nullptr,
                                         allocate, reallocate, deallocate, nullptr};
    static const CFAllocatorRef allocator = CFAllocatorCreate(nullptr, &context);
    return allocator;
}

using Create = std::function<CFTypeRef(CFAllocatorRef)>;

// Constant strings take memory when they are first used, so a function under test has them from
// outside. Lets each allocation of the function fail once: null, or what it makes all the same, and
// nothing is left behind.
void ExpectNullWheneverMemoryIsOut(const Create &create) {
    CFAllocatorRef allocator = FailingAllocator();
    const long before = blocksInUse;
    for (long n = 0;; ++n) {
        allocationsLeft = n;
        const CFTypeRef object = create(allocator);
        const bool failed = allocationsLeft < 0;
        allocationsLeft = -1;
        // Some can do without, as sorting can without its buffer.
        if (object != nullptr) {
            CFRelease(object);
        }
        EXPECT_EQ(blocksInUse, before) << "allocation " << n;
        EXPECT_TRUE(failed || object != nullptr) << "allocation " << n;
        if (!failed) {
            EXPECT_GT(n, 0);
            return;
        }
        ASSERT_LT(n, 1000);
    }
}

// Lets each allocation of the change fail once: bad_alloc, and the object is as it was.
template <class Ref>
void ExpectUnchangedWheneverMemoryIsOut(const std::function<Ref()> &make,
                                        const std::function<void(Ref)> &change) {
    for (long n = 0;; ++n) {
        const Ref object = make();
        const Ref untouched = make();
        bool thrown = false;
        allocationsLeft = n;
        try {
            change(object);
        } catch (const std::bad_alloc &) {
            thrown = true;
        }
        allocationsLeft = -1;
        if (thrown) {
            EXPECT_TRUE(CFEqual(object, untouched)) << "allocation " << n;
        }
        CFRelease(object);
        CFRelease(untouched);
        if (!thrown) {
            EXPECT_GT(n, 0);
            return;
        }
        ASSERT_LT(n, 1000);
    }
}

CFMutableArrayRef ArrayOfEight() {
    CFMutableArrayRef array = CFArrayCreateMutable(FailingAllocator(), 0, &kCFTypeArrayCallBacks);
    for (int i = 0; i < 8; ++i) {
        CFArrayAppendValue(array, CFSTR("a"));
    }
    return array;
}

CFMutableDictionaryRef DictionaryOfEight() {
    CFMutableDictionaryRef dictionary = CFDictionaryCreateMutable(
        FailingAllocator(), 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    for (int i = 0; i < 8; ++i) {
        CFNumberRef key = CFNumberCreate(nullptr, kCFNumberIntType, &i);
        CFDictionarySetValue(dictionary, key, CFSTR("value"));
        CFRelease(key);
    }
    return dictionary;
}

CFMutableStringRef LongString() {
    CFMutableStringRef text = CFStringCreateMutable(FailingAllocator(), 0);
    for (int i = 0; i < 64; ++i) {
        CFStringAppend(text, CFSTR("x"));
    }
    return text;
}

CFMutableDataRef LongData() {
    CFMutableDataRef data = CFDataCreateMutable(FailingAllocator(), 0);
    CFDataSetLength(data, 32);
    return data;
}

} // namespace

// In place of the library's, for the whole program: containers of the stand-in use it too.
void *operator new(std::size_t size) {
    void *const memory = takeAllocation() ? std::malloc(size == 0 ? 1 : size) : nullptr;
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void operator delete(void *memory) noexcept { std::free(memory); }
void operator delete(void *memory, std::size_t) noexcept { std::free(memory); }

TEST(OutOfMemory, CopyOfAnArrayIsNull) {
    CFMutableArrayRef source = ArrayOfEight();
    ExpectNullWheneverMemoryIsOut(
        [&](CFAllocatorRef allocator) { return CFArrayCreateMutableCopy(allocator, 0, source); });
    ExpectNullWheneverMemoryIsOut(
        [&](CFAllocatorRef allocator) { return CFArrayCreateCopy(allocator, source); });
    CFRelease(source);
}

TEST(OutOfMemory, DictionaryIsNull) {
    CFMutableDictionaryRef source = DictionaryOfEight();
    ExpectNullWheneverMemoryIsOut([&](CFAllocatorRef allocator) {
        return CFDictionaryCreateMutableCopy(allocator, 0, source);
    });
    ExpectNullWheneverMemoryIsOut(
        [&](CFAllocatorRef allocator) { return CFDictionaryCreateCopy(allocator, source); });
    CFRelease(source);
}

TEST(OutOfMemory, DictionaryThatCopiesItsKeysIsNull) {
    CFMutableStringRef key = LongString();
    const void *keys[] = {key};
    const void *values[] = {kCFBooleanTrue};
    ExpectNullWheneverMemoryIsOut([&](CFAllocatorRef allocator) {
        return CFDictionaryCreate(allocator, keys, values, 1, &kCFCopyStringDictionaryKeyCallBacks,
                                  &kCFTypeDictionaryValueCallBacks);
    });
    CFRelease(key);
}

TEST(OutOfMemory, EmptyContainersNeedNone) {
    allocationsLeft = 0;
    CFDictionaryRef dictionary =
        CFDictionaryCreate(nullptr, nullptr, nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                           &kCFTypeDictionaryValueCallBacks);
    CFArrayRef array = CFArrayCreate(nullptr, nullptr, 0, &kCFTypeArrayCallBacks);
    CFStringRef text = CFSTR("");
    allocationsLeft = -1;
    ASSERT_NE(dictionary, nullptr);
    ASSERT_NE(array, nullptr);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(CFDictionaryGetCount(dictionary), 0);
    EXPECT_EQ(CFDictionaryGetValue(dictionary, text), nullptr);
    CFRelease(dictionary);
    CFRelease(array);
}

TEST(OutOfMemory, FormattedStringIsNull) {
    CFMutableArrayRef argument = ArrayOfEight();
    CFStringRef format = CFSTR("%s %@ %600d %.3f");
    ExpectNullWheneverMemoryIsOut([&](CFAllocatorRef allocator) {
        return CFStringCreateWithFormat(allocator, nullptr, format, "text", argument, 5, 1.5);
    });
    CFRelease(argument);
}

TEST(OutOfMemory, StringsMadeOfOthersAreNull) {
    CFMutableStringRef text = LongString();
    ExpectNullWheneverMemoryIsOut(
        [&](CFAllocatorRef allocator) { return CFStringCreateMutableCopy(allocator, 0, text); });
    ExpectNullWheneverMemoryIsOut([&](CFAllocatorRef allocator) {
        return CFStringCreateExternalRepresentation(allocator, text, kCFStringEncodingUTF16, 0);
    });
    CFStringRef path = CFSTR("a/bc/d");
    CFStringRef slash = CFSTR("/");
    ExpectNullWheneverMemoryIsOut([&](CFAllocatorRef allocator) {
        return CFStringCreateArrayBySeparatingStrings(allocator, path, slash);
    });
    CFRelease(text);
}

TEST(OutOfMemory, ErrorsAreNull) {
    CFMutableDictionaryRef info = DictionaryOfEight();
    ExpectNullWheneverMemoryIsOut([&](CFAllocatorRef allocator) {
        return CFErrorCreate(allocator, kCFErrorDomainPOSIX, 2, info);
    });
    CFRelease(info);
}

TEST(OutOfMemory, PropertyListIsNull) {
    const std::string document = "<plist><dict><key>a</key><array><string>b</string>"
                                 "<integer>1234567</integer></array></dict></plist>";
    CFDataRef data = CFDataCreate(nullptr, reinterpret_cast<const UInt8 *>(document.data()),
                                  static_cast<CFIndex>(document.size()));
    ExpectNullWheneverMemoryIsOut([&](CFAllocatorRef allocator) {
        return CFPropertyListCreateWithData(allocator, data, 0, nullptr, nullptr);
    });
    CFRelease(data);
}

TEST(OutOfMemory, FailingPropertyListTellsWhy) {
    const std::string document = "<plist><dict/></plist>";
    CFDataRef data = CFDataCreate(nullptr, reinterpret_cast<const UInt8 *>(document.data()),
                                  static_cast<CFIndex>(document.size()));
    CFErrorRef error = nullptr;
    allocationsLeft = 0;
    EXPECT_EQ(CFPropertyListCreateWithData(FailingAllocator(), data, 0, nullptr, &error), nullptr);
    allocationsLeft = -1;
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(CFErrorGetCode(error), kCFPropertyListReadStreamError);
    CFRelease(error);
    CFRelease(data);
}

TEST(OutOfMemory, ChangedArrayStaysAsItWas) {
    ExpectUnchangedWheneverMemoryIsOut<CFMutableArrayRef>(
        ArrayOfEight, [](CFMutableArrayRef array) { CFArrayAppendValue(array, kCFBooleanTrue); });
    ExpectUnchangedWheneverMemoryIsOut<CFMutableArrayRef>(
        ArrayOfEight,
        [](CFMutableArrayRef array) { CFArrayAppendArray(array, array, CFRangeMake(0, 8)); });
}

TEST(OutOfMemory, ChangedDictionaryStaysAsItWas) {
    ExpectUnchangedWheneverMemoryIsOut<CFMutableDictionaryRef>(
        DictionaryOfEight, [](CFMutableDictionaryRef dictionary) {
            CFDictionarySetValue(dictionary, kCFBooleanTrue, kCFBooleanTrue);
        });
}

TEST(OutOfMemory, ChangedTextAndDataStayAsTheyWere) {
    ExpectUnchangedWheneverMemoryIsOut<CFMutableStringRef>(
        LongString, [](CFMutableStringRef text) { CFStringAppend(text, text); });
    CFStringRef format = CFSTR("%600d");
    ExpectUnchangedWheneverMemoryIsOut<CFMutableStringRef>(
        LongString,
        [&](CFMutableStringRef text) { CFStringAppendFormat(text, nullptr, format, 7); });
    ExpectUnchangedWheneverMemoryIsOut<CFMutableDataRef>(LongData, [](CFMutableDataRef data) {
        CFDataAppendBytes(data, CFDataGetBytePtr(data), 20);
    });
}
