#pragma once

#include "support/cf/Type.hpp"

namespace CF {

// A CFArrayRef of objects, or null. Append and SetAt need an array from Mutable.
class CF_WRAPPER_VISIBLE Array : public TypeOf<Array, CFArrayRef, CFArrayGetTypeID> {
  public:
    using TypeOf::TypeOf;

    // A new empty mutable array that retains its values.
    static Array Mutable() {
        return Adopt(Made(CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks)));
    }
    // A new mutable array with the values of the given one; null gives an empty one.
    static Array MutableCopy(CFArrayRef source) {
        return source == nullptr
                   ? Mutable()
                   : Adopt(Made(CFArrayCreateMutableCopy(kCFAllocatorDefault, 0, source)));
    }

    CFIndex GetCount() const noexcept { return get() == nullptr ? 0 : CFArrayGetCount(get()); }
    // Borrowed; null when the index is outside the array.
    CFTypeRef GetAt(CFIndex index) const noexcept {
        return index < 0 || index >= GetCount() ? nullptr : CFArrayGetValueAtIndex(get(), index);
    }
    void Append(CFTypeRef value) const { CFArrayAppendValue(mutableRef(), value); }
    void SetAt(CFIndex index, CFTypeRef value) const {
        CFArraySetValueAtIndex(mutableRef(), index, value);
    }

  private:
    CFMutableArrayRef mutableRef() const noexcept { return const_cast<CFMutableArrayRef>(get()); }
};

} // namespace CF
