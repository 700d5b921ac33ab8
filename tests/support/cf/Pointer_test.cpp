#include "support/cf/Pointer.hpp"

#include <gtest/gtest.h>

#include <utility>

namespace {

using DataPointer = CF::Pointer<CFDataRef>;

// A fresh object with one reference.
CFDataRef NewData() {
    const UInt8 bytes[] = {1, 2, 3};
    return CFDataCreate(nullptr, bytes, 3);
}

CFIndex Count(const DataPointer &pointer) { return CFGetRetainCount(pointer.get()); }

} // namespace

TEST(Pointer, IsOnePointerLarge) { EXPECT_EQ(sizeof(DataPointer), sizeof(void *)); }

TEST(Pointer, IsNullByDefault) {
    EXPECT_FALSE(DataPointer());
    EXPECT_FALSE(DataPointer(nullptr));
    EXPECT_EQ(DataPointer().get(), nullptr);
    EXPECT_EQ(DataPointer().copyRef(), nullptr);
}

TEST(Pointer, RetainsAReferenceThatTheCallerKeeps) {
    CFDataRef data = NewData();
    {
        const DataPointer pointer(data);
        EXPECT_EQ(CFGetRetainCount(data), 2);
    }
    EXPECT_EQ(CFGetRetainCount(data), 1);
    CFRelease(data);
}

TEST(Pointer, AdoptsAReferenceWithoutRetaining) {
    const auto pointer = CF::Adopt(NewData());
    EXPECT_EQ(Count(pointer), 1);
}

TEST(Pointer, CopyRetainsAndMoveDoesNot) {
    auto pointer = CF::Adopt(NewData());
    const DataPointer copy = pointer;
    EXPECT_EQ(Count(pointer), 2);
    const DataPointer moved = std::move(pointer);
    EXPECT_EQ(Count(moved), 2);
    EXPECT_FALSE(pointer);
}

TEST(Pointer, AssignmentReleasesWhatItHeld) {
    const auto first = CF::Adopt(NewData());
    DataPointer pointer = first;
    pointer = CF::Adopt(NewData());
    EXPECT_EQ(Count(first), 1);
    EXPECT_EQ(Count(pointer), 1);
}

TEST(Pointer, SurvivesAssignmentToItself) {
    auto pointer = CF::Adopt(NewData());
    const DataPointer &same = pointer;
    pointer = same;
    EXPECT_EQ(Count(pointer), 1);
}

TEST(Pointer, DetachGivesItsReferenceAway) {
    auto pointer = CF::Adopt(NewData());
    CFDataRef data = pointer.detach();
    EXPECT_FALSE(pointer);
    EXPECT_EQ(CFGetRetainCount(data), 1);
    CFRelease(data);
}

TEST(Pointer, CopyRefGivesAFurtherReference) {
    const auto pointer = CF::Adopt(NewData());
    CFDataRef data = pointer.copyRef();
    EXPECT_EQ(Count(pointer), 2);
    CFRelease(data);
}
