#pragma once

#include "support/cf/Data.hpp"
#include "support/cf/Type.hpp"

namespace CF {

// Reads and writes property lists whose root is of the wrapper type T.
template <class T>
class PropertyListType {
  public:
    // Parses any property-list format into immutable objects. Empty data, data
    // that does not parse and a root of another type give an empty wrapper; the
    // parser's error then goes to *error when that is given (caller releases). Throws
    // std::bad_alloc when memory is out, for such a document may be a valid one.
    static T FromPropertyListData(const Data &data, CFErrorRef *error = nullptr) {
        if (data.IsEmpty()) {
            return T();
        }
        CFErrorRef cause = nullptr;
        const AutoPointer root(adopt, CFPropertyListCreateWithData(kCFAllocatorDefault, data.get(),
                                                                   kCFPropertyListImmutable,
                                                                   nullptr, &cause));
        const Pointer<CFErrorRef> owned(adopt, cause);
        if (!root && IsOutOfMemory(cause)) {
            throw std::bad_alloc();
        }
        if (error != nullptr && cause != nullptr) {
            *error = owned.copyRef();
        }
        return T::Cast(root.get());
    }
    // Null when the value cannot be written in that format.
    static Data ToPropertyListData(const T &value, CFPropertyListFormat format,
                                   CFErrorRef *error = nullptr) {
        return Data::Adopt(
            CFPropertyListCreateData(kCFAllocatorDefault, value.get(), format, 0, error));
    }

  private:
    // There is data, so that no other failure has this code.
    static bool IsOutOfMemory(CFErrorRef error) noexcept {
        return error == nullptr || CFErrorGetCode(error) == kCFPropertyListReadStreamError;
    }
};

} // namespace CF
