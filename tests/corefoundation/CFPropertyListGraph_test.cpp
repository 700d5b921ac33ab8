#include "tests/corefoundation/PlistSupport.hpp"

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreFoundation/CFString.h>
#include <gtest/gtest.h>

using namespace PlistTest;

namespace {

constexpr CFPropertyListFormat kBinary = kCFPropertyListBinaryFormat_v1_0;
constexpr CFPropertyListFormat kXML = kCFPropertyListXMLFormat_v1_0;

Held Copy(CFTypeRef root, CFOptionFlags options) {
    return Held(CFPropertyListCreateDeepCopy(nullptr, root, options));
}

Held SampleGraph() {
    const Held key = Text("k");
    const Held text = Text("value");
    const Held data = Data({1, 2});
    const Held number = Integer(-5);
    const Held uid = Uid(3);
    const Held array = Array({text.get(), data.get(), number.get(), uid.get()});
    return Dictionary({{key.get(), array.get()}});
}

template <class Mutable>
Mutable AsMutable(CFTypeRef object) {
    return static_cast<Mutable>(const_cast<void *>(object));
}

} // namespace

TEST(PlistValidity, TakesEveryPropertyListType) {
    EXPECT_TRUE(CFPropertyListIsValid(SampleGraph().get(), kBinary));
    EXPECT_TRUE(CFPropertyListIsValid(SampleGraph().get(), kXML));
    EXPECT_TRUE(CFPropertyListIsValid(kCFBooleanTrue, kXML));
    EXPECT_TRUE(CFPropertyListIsValid(Date(0).get(), kXML));
}

TEST(PlistValidity, RefusesOtherTypesAndFormats) {
    EXPECT_FALSE(CFPropertyListIsValid(nullptr, kBinary));
    EXPECT_FALSE(CFPropertyListIsValid(kCFNull, kBinary));
    EXPECT_FALSE(CFPropertyListIsValid(Array({kCFNull}).get(), kXML));
    const Held one = Integer(1);
    EXPECT_FALSE(CFPropertyListIsValid(Dictionary({{one.get(), one.get()}}).get(), kXML));
    EXPECT_FALSE(CFPropertyListIsValid(one.get(), kCFPropertyListOpenStepFormat));
    EXPECT_FALSE(CFPropertyListIsValid(one.get(), 0));
}

TEST(PlistValidity, RefusesLoopsAndDepth) {
    const Held loop(CFArrayCreateMutable(nullptr, 0, nullptr));
    CFArrayAppendValue(AsMutable<CFMutableArrayRef>(loop.get()), loop.get());
    EXPECT_FALSE(CFPropertyListIsValid(loop.get(), kBinary));
    EXPECT_TRUE(CFPropertyListIsValid(NestedArrays(512).get(), kBinary));
    EXPECT_FALSE(CFPropertyListIsValid(NestedArrays(513).get(), kBinary));
}

TEST(PlistValidity, BoundsDepthThroughSharedContainers) {
    const Held deep = NestedArrays(300);
    Held outer = Array({deep.get()});
    for (int i = 0; i < 300; ++i) {
        outer = Array({outer.get()});
    }
    const Held root = Array({deep.get(), outer.get()});
    EXPECT_FALSE(CFPropertyListIsValid(root.get(), kBinary));
}

TEST(PlistDeepCopy, HasTheSameValues) {
    const Held graph = SampleGraph();
    for (const CFOptionFlags options : {kCFPropertyListImmutable, kCFPropertyListMutableContainers,
                                        kCFPropertyListMutableContainersAndLeaves}) {
        const Held copy = Copy(graph.get(), options);
        ASSERT_TRUE(copy);
        EXPECT_EQ(Dump(copy.get()), Dump(graph.get()));
        EXPECT_TRUE(CFEqual(copy.get(), graph.get()));
    }
}

TEST(PlistDeepCopy, ImmutableCopyDoesNotFollowTheOriginal) {
    const Held text(CFStringCreateMutableCopy(nullptr, 0, CFSTR("before")));
    const Held array = Array({text.get()});
    const Held copy = Copy(array.get(), kCFPropertyListImmutable);
    CFStringAppend(AsMutable<CFMutableStringRef>(text.get()), CFSTR(" after"));
    EXPECT_EQ(Dump(copy.get()), "[s006200650066006f00720065]");
}

TEST(PlistDeepCopy, MutableContainersAreApartEvenWhereTheOriginalShares) {
    const Held shared = Array({});
    const Held root = Array({shared.get(), shared.get()});
    const Held copy = Copy(root.get(), kCFPropertyListMutableContainers);
    const auto *members = static_cast<CFArrayRef>(copy.get());
    CFArrayAppendValue(AsMutable<CFMutableArrayRef>(CFArrayGetValueAtIndex(members, 0)),
                       kCFBooleanTrue);
    EXPECT_EQ(Dump(copy.get()), "[[t],[]]");
}

TEST(PlistDeepCopy, MutableLeavesCanBeChanged) {
    const Held graph = SampleGraph();
    const Held copy = Copy(graph.get(), kCFPropertyListMutableContainersAndLeaves);
    const auto *array = static_cast<CFArrayRef>(
        CFDictionaryGetValue(static_cast<CFDictionaryRef>(copy.get()), CFSTR("k")));
    CFStringAppend(AsMutable<CFMutableStringRef>(CFArrayGetValueAtIndex(array, 0)), CFSTR("!"));
    CFDataSetLength(AsMutable<CFMutableDataRef>(CFArrayGetValueAtIndex(array, 1)), 1);
    EXPECT_EQ(Dump(copy.get()), "{006b=[s00760061006c007500650021,d01,i-5,u3]}");
}

// A list of which levels of arrays name the next one twice: small itself, and large once its
// members are written one by one.
Held Doubling(const Held &innermost, unsigned levels) {
    Held root = Array({innermost.get(), innermost.get()});
    for (unsigned i = 1; i < levels; ++i) {
        root = Array({root.get(), root.get()});
    }
    return root;
}

TEST(PlistSharing, XMLThatWouldOutgrowItsReaderIsNotWritten) {
    const Held large = Doubling(Data(Octets(1000, 0x41)), 20);
    EXPECT_EQ(Write(large.get(), kXML).fault,
              Unwritable("The XML document is longer than 134217728 bytes."));
    const Held text = Doubling(Text(std::u16string(1000, u'\u4e2d')), 20);
    EXPECT_EQ(Write(text.get(), kXML).fault,
              Unwritable("The XML document is longer than 134217728 bytes."));
}

TEST(PlistSharing, BinaryDocumentsStaySmall) {
    const Held large = Doubling(Data(Octets(1000, 0x41)), 20);
    const Octets document = WriteBinary(large.get());
    EXPECT_LT(document.size(), 2000u);
    EXPECT_TRUE(CFEqual(Read(document).root.get(), large.get()));
}

TEST(PlistSharing, XMLWithinTheLimitIsReadAgain) {
    const Held large = Doubling(Data(Octets(1000, 0x41)), 10);
    const Reading reading = Read(WriteXML(large.get()));
    EXPECT_EQ(reading.fault, Fault());
    EXPECT_TRUE(CFEqual(reading.root.get(), large.get()));
}

TEST(PlistSharing, ImmutableCopiesShareAsTheOriginalDoes) {
    const Held text(CFStringCreateMutableCopy(nullptr, 0, CFSTR("text")));
    const Held copy = Copy(Doubling(text, 20).get(), kCFPropertyListImmutable);
    ASSERT_TRUE(copy);
    const auto *members = static_cast<CFArrayRef>(copy.get());
    EXPECT_EQ(CFArrayGetValueAtIndex(members, 0), CFArrayGetValueAtIndex(members, 1));
}

TEST(PlistSharing, MutableCopiesAreBoundedByWhatTheyTake) {
    const Held large = Doubling(Data(Octets(1000, 0x41)), 20);
    EXPECT_FALSE(Copy(large.get(), kCFPropertyListMutableContainersAndLeaves));
    EXPECT_TRUE(Copy(Doubling(Data(Octets(1000, 0x41)), 10).get(),
                     kCFPropertyListMutableContainersAndLeaves));
}

TEST(PlistSharing, ReferencesThatAreDictionariesInXMLCountAsSuch) {
    const Held uid = Uid(1);
    const Held large = Array(std::vector<CFTypeRef>(1400000, uid.get()));
    EXPECT_EQ(Write(large.get(), kXML).fault,
              Unwritable("The property list has more than 4194304 values in XML."));
}

TEST(PlistSharing, DescriptionsAndHashesDoNotFollowIt) {
    const Held large = Doubling(Text("word"), 60);
    EXPECT_EQ(CFHash(large.get()), CFHash(Doubling(Text("other"), 60).get()));
    const Held description(CFCopyDescription(large.get()));
    EXPECT_LT(CFStringGetLength(static_cast<CFStringRef>(description.get())), 10000000);
}

TEST(PlistDeepCopy, RefusesWhatIsNoPropertyList) {
    EXPECT_FALSE(Copy(nullptr, 0));
    EXPECT_FALSE(Copy(kCFNull, 0));
    EXPECT_FALSE(Copy(NestedArrays(513).get(), 0));
}
