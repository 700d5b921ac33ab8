#include "tests/corefoundation/TestClass.hpp"

#include "tests/corefoundation/Objects.hpp"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Objects::Adopt;
using Objects::CountingAllocator;

TEST(CFAllocator, GivesMemoryByDefault) {
    for (CFAllocatorRef allocator :
         {CFAllocatorRef{}, kCFAllocatorDefault, kCFAllocatorSystemDefault, kCFAllocatorMalloc,
          kCFAllocatorMallocZone}) {
        auto *memory = static_cast<char *>(CFAllocatorAllocate(allocator, 100, 0));
        ASSERT_NE(memory, nullptr);
        std::memset(memory, 7, 100);
        memory = static_cast<char *>(CFAllocatorReallocate(allocator, memory, 10000, 0));
        ASSERT_NE(memory, nullptr);
        EXPECT_EQ(memory[99], 7);
        CFAllocatorDeallocate(allocator, memory);
    }
}

TEST(CFAllocator, GivesMemoryThatFreeTakes) {
    std::free(CFAllocatorAllocate(kCFAllocatorMalloc, 10, 0));
}

TEST(CFAllocator, RefusesSizesBelowOne) {
    EXPECT_EQ(CFAllocatorAllocate(nullptr, 0, 0), nullptr);
    EXPECT_EQ(CFAllocatorAllocate(nullptr, -1, 0), nullptr);
}

TEST(CFAllocator, ReallocatesFromAndToNothing) {
    void *memory = CFAllocatorReallocate(nullptr, nullptr, 10, 0);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(CFAllocatorReallocate(nullptr, memory, 0, 0), nullptr);
    EXPECT_EQ(CFAllocatorReallocate(nullptr, nullptr, 0, 0), nullptr);
}

TEST(CFAllocator, NullAllocatorGivesAndFreesNothing) {
    char byte = 0;
    EXPECT_EQ(CFAllocatorAllocate(kCFAllocatorNull, 10, 0), nullptr);
    EXPECT_EQ(CFAllocatorReallocate(kCFAllocatorNull, &byte, 10, 0), nullptr);
    CFAllocatorDeallocate(kCFAllocatorNull, &byte);
    EXPECT_EQ(CFStringCreateWithCString(kCFAllocatorNull, "text", kCFStringEncodingUTF8), nullptr);
}

TEST(CFAllocator, IgnoresFreeingNull) { CFAllocatorDeallocate(nullptr, nullptr); }

TEST(CFAllocator, HasADefault) {
    EXPECT_EQ(CFAllocatorGetDefault(), kCFAllocatorSystemDefault);
    EXPECT_EQ(CFGetTypeID(kCFAllocatorSystemDefault), CFAllocatorGetTypeID());
}

TEST(CFAllocator, ProvidesTheMemoryOfInstances) {
    CountingAllocator allocator;
    {
        const auto string =
            Adopt(CFStringCreateWithCString(allocator.get(), "text", kCFStringEncodingUTF8));
        EXPECT_EQ(allocator.live, 1);
        EXPECT_EQ(CFGetAllocator(string.get()), allocator.get());
    }
    EXPECT_EQ(allocator.allocations, 1);
    EXPECT_EQ(allocator.live, 0);
}

TEST(CFAllocator, ProvidesTheContentsOfMutableStrings) {
    CountingAllocator allocator;
    {
        const auto string = Adopt(CFStringCreateMutable(allocator.get(), 0));
        CFStringAppend(string.get(), CFSTR("text"));
        EXPECT_EQ(allocator.live, 2);
    }
    EXPECT_EQ(allocator.live, 0);
}

TEST(CFAllocator, LivesAsLongAsItsInstances) {
    CountingAllocator counting;
    CFAllocatorRef allocator = counting.get();
    const CFIndex before = CFGetRetainCount(allocator);
    CFTypeRef string = CFStringCreateWithCString(allocator, "text", kCFStringEncodingUTF8);
    EXPECT_EQ(CFGetRetainCount(allocator), before + 1);
    CFRelease(string);
    EXPECT_EQ(CFGetRetainCount(allocator), before);
}

// A context that counts the references to its info.
struct Info {
    int references = 0;
    int live = 0;
};

CFAllocatorContext contextOf(Info &info) {
    CFAllocatorContext context{};
    context.info = &info;
    context.retain = [](const void *own) {
        ++const_cast<Info *>(static_cast<const Info *>(own))->references;
        return own;
    };
    context.release = [](const void *own) {
        --const_cast<Info *>(static_cast<const Info *>(own))->references;
    };
    context.copyDescription = [](const void *) {
        return static_cast<CFStringRef>(CFRetain(CFSTR("counting")));
    };
    context.allocate = [](CFIndex size, CFOptionFlags, void *own) {
        ++static_cast<Info *>(own)->live;
        return std::malloc(static_cast<std::size_t>(size));
    };
    context.deallocate = [](void *memory, void *own) {
        --static_cast<Info *>(own)->live;
        std::free(memory);
    };
    return context;
}

TEST(CFAllocator, RetainsTheInfoOfItsContext) {
    Info info;
    CFAllocatorContext context = contextOf(info);
    CFAllocatorRef allocator = CFAllocatorCreate(nullptr, &context);
    EXPECT_EQ(info.references, 1);
    EXPECT_EQ(info.live, 0);
    CFRelease(allocator);
    EXPECT_EQ(info.references, 0);
}

TEST(CFAllocator, CanLiveInMemoryOfItsOwnContext) {
    Info info;
    CFAllocatorContext context = contextOf(info);
    CFAllocatorRef allocator = CFAllocatorCreate(kCFAllocatorUseContext, &context);
    EXPECT_EQ(info.live, 1);
    EXPECT_EQ(CFGetAllocator(allocator), allocator);
    void *memory = CFAllocatorAllocate(allocator, 5, 0);
    EXPECT_EQ(info.live, 2);
    CFAllocatorDeallocate(allocator, memory);
    CFRelease(allocator);
    EXPECT_EQ(info.live, 0);
    EXPECT_EQ(info.references, 0);
}

TEST(CFAllocator, IsNotCreatedWithoutMemory) {
    Info info;
    CFAllocatorContext context = contextOf(info);
    context.allocate = nullptr;
    EXPECT_EQ(CFAllocatorCreate(kCFAllocatorUseContext, &context), nullptr);
    EXPECT_EQ(info.references, 0);
    EXPECT_EQ(CFAllocatorCreate(kCFAllocatorNull, &context), nullptr);
    EXPECT_EQ(info.references, 0);
}

TEST(CFAllocator, YieldsNullWithoutCallbacks) {
    CFAllocatorContext context{};
    const auto allocator = Adopt(CFAllocatorCreate(nullptr, &context));
    char byte = 0;
    EXPECT_EQ(CFAllocatorAllocate(allocator.get(), 5, 0), nullptr);
    EXPECT_EQ(CFAllocatorReallocate(allocator.get(), &byte, 5, 0), nullptr);
    CFAllocatorDeallocate(allocator.get(), &byte);
}

TEST(CFAllocator, GivesStringsNullWhenMemoryIsOut) {
    CFAllocatorContext context{};
    const auto allocator = Adopt(CFAllocatorCreate(nullptr, &context));
    EXPECT_EQ(CFStringCreateWithCString(allocator.get(), "a", kCFStringEncodingUTF8), nullptr);
    EXPECT_EQ(CFStringCreateWithCString(allocator.get(), "\u00e9", kCFStringEncodingUTF8), nullptr);
    EXPECT_EQ(CFStringCreateMutable(allocator.get(), 0), nullptr);
    EXPECT_EQ(CFStringCreateWithFormat(allocator.get(), nullptr, CFSTR("%d"), 1), nullptr);
}

TEST(CFAllocator, DescribesItsInfo) {
    Info info;
    CFAllocatorContext context = contextOf(info);
    const auto allocator = Adopt(CFAllocatorCreate(nullptr, &context));
    const std::string text = Objects::Description(allocator.get());
    EXPECT_EQ(text.find("<CFAllocator 0x"), 0U) << text;
    EXPECT_NE(text.find("{info = counting}"), std::string::npos) << text;
}

TEST(CFAllocatorDeathTest, AbortsOnWhatIsNoAllocator) {
    const auto *string = reinterpret_cast<CFAllocatorRef>(CFSTR("text"));
    EXPECT_DEATH(CFAllocatorAllocate(string, 1, 0), "object of another type");
    EXPECT_DEATH(CFAllocatorCreate(nullptr, nullptr), "null context");
}

} // namespace
