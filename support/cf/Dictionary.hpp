#pragma once

#include "support/cf/String.hpp"
#include "support/cf/Type.hpp"

namespace CF {

// A CFDictionaryRef of objects, or null. Set and Remove need one from Mutable.
class CF_WRAPPER_VISIBLE Dictionary
    : public TypeOf<Dictionary, CFDictionaryRef, CFDictionaryGetTypeID> {
  public:
    using TypeOf::TypeOf;

    // A new empty mutable dictionary that retains its keys and values.
    static Dictionary Mutable() {
        return Adopt(
            Made(CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                           &kCFTypeDictionaryValueCallBacks)));
    }
    // A new mutable dictionary with the pairs of the given one; null gives an empty one.
    static Dictionary MutableCopy(CFDictionaryRef source) {
        return source == nullptr
                   ? Mutable()
                   : Adopt(Made(CFDictionaryCreateMutableCopy(kCFAllocatorDefault, 0, source)));
    }

    CFIndex GetCount() const noexcept { return get() == nullptr ? 0 : CFDictionaryGetCount(get()); }
    // Borrowed; null when the key is absent or this wrapper is empty.
    CFTypeRef GetValue(CFTypeRef key) const noexcept {
        return get() == nullptr || key == nullptr ? nullptr : CFDictionaryGetValue(get(), key);
    }
    // The value if it is present and of the wrapper's type, else an empty wrapper.
    template <class T>
    T Get(CFTypeRef key) const noexcept {
        return T::Cast(GetValue(key));
    }
    void Set(CFTypeRef key, CFTypeRef value) const {
        CFDictionarySetValue(mutableRef(), key, value);
    }
    void Remove(CFTypeRef key) const { CFDictionaryRemoveValue(mutableRef(), key); }
    void RemoveAll() const { CFDictionaryRemoveAllValues(mutableRef()); }

    // Calls visit(key, value) for each pair, in no particular order.
    template <class Visitor>
    void ForEach(Visitor visit) const {
        if (get() == nullptr) {
            return;
        }
        CFDictionaryApplyFunction(
            get(),
            [](const void *key, const void *value, void *context) {
                (*static_cast<Visitor *>(context))(key, value);
            },
            &visit);
    }

    CFMutableDictionaryRef mutableRef() const noexcept {
        return const_cast<CFMutableDictionaryRef>(get());
    }
};

} // namespace CF
