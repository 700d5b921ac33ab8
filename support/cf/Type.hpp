// The base of the value wrappers: one retained reference, or null.
#pragma once

#include "support/cf/Pointer.hpp"

#include <string>
#include <type_traits>

#define CF_WRAPPER_VISIBLE __attribute__((visibility("default")))

namespace CF {

// What every wrapper can do without knowing its type. The order of the virtual
// operations is part of the binary interface.
class CF_WRAPPER_VISIBLE Type {
  public:
    virtual ~Type() = default;
    // The held reference, not retained; null when the wrapper is empty.
    virtual CFTypeRef GetCFObject() const noexcept = 0;

    explicit operator bool() const noexcept { return GetCFObject() != nullptr; }
    bool IsNull() const noexcept { return GetCFObject() == nullptr; }
    // CFHash of the object; 0 for null.
    CFHashCode Hash() const noexcept {
        CFTypeRef object = GetCFObject();
        return object == nullptr ? 0 : CFHash(object);
    }
    // CFEqual; two nulls are equal, null and an object are not.
    bool Equal(const Type &other) const noexcept {
        CFTypeRef a = GetCFObject();
        CFTypeRef b = other.GetCFObject();
        if (a == nullptr || b == nullptr) {
            return a == b;
        }
        return CFEqual(a, b) != 0;
    }

  protected:
    Type() = default;
    Type(const Type &) = default;
    Type(Type &&) = default;
    Type &operator=(const Type &) = default;
    Type &operator=(Type &&) = default;
};

// A wrapper for one CoreFoundation type.
template <class Derived, class RefType, CFTypeID (*TypeIDFunction)()>
class CF_WRAPPER_VISIBLE TypeOf : public Type {
  public:
    using Ref = RefType;

    TypeOf() noexcept = default;
    TypeOf(std::nullptr_t) noexcept {}
    // Retains; the caller keeps its own reference. Null makes an empty wrapper.
    TypeOf(RefType ref) noexcept : reference_(ref) {}
    TypeOf(adopt_t, RefType ref) noexcept : reference_(adopt, ref) {}

    CFTypeRef GetCFObject() const noexcept override { return reference_.get(); }
    RefType get() const noexcept { return reference_.get(); }
    operator RefType() const noexcept { return reference_.get(); }
    explicit operator bool() const noexcept { return reference_.get() != nullptr; }

    // Takes over a reference that the caller owns.
    static Derived Adopt(RefType ref) noexcept { return Derived(adopt, ref); }
    // The object if it is of this type, else an empty wrapper. Null is allowed.
    static Derived Cast(CFTypeRef object) noexcept {
        if (object == nullptr || CFGetTypeID(object) != TypeIDFunction()) {
            return Derived();
        }
        return Derived(static_cast<RefType>(const_cast<void *>(object)));
    }
    static CFTypeID GetTypeID() noexcept { return TypeIDFunction(); }

    // A further reference for the caller to release; null stays null.
    [[nodiscard]] RefType copyRef() const noexcept { return reference_.copyRef(); }
    // Gives the reference to the caller, who releases it.
    [[nodiscard]] RefType detach() noexcept { return reference_.detach(); }

    friend bool operator==(const Derived &a, const Derived &b) noexcept { return a.Equal(b); }
    friend bool operator!=(const Derived &a, const Derived &b) noexcept { return !a.Equal(b); }

  private:
    Pointer<RefType> reference_;
};

struct TypeHash {
    std::size_t operator()(const Type &value) const noexcept { return value.Hash(); }
};

} // namespace CF
