// Builders of the library's error objects.
//
// Inside the library a failure travels as a thrown CF::Error. Exported functions with
// a CFErrorRef * parameter catch it; see foundation/Boundary.hpp.
#pragma once

#include "KVError.h"
#include "support/cf/Error.hpp"
#include "support/cf/String.hpp"
#include "support/zk/Path.hpp"

#include <exception>
#include <type_traits>

namespace Kelvane {

// An error of kKVErrorDomain. Null underlying and null or empty reason are left out of
// the user info. Throws nothing but std::bad_alloc.
KV_VISIBLE CF::Error Error(KVError code, const CF::Error &underlying = nullptr,
                           const CF::String &reason = nullptr);

// The same with a reason formatted as CFStringCreateWithFormat does: %@ takes
// CoreFoundation references, %s C strings, %d, %u and so on integers. A null format
// gives no reason. Pass references and scalars, not wrappers.
template <class First, class... Rest>
CF::Error Error(KVError code, const CF::Error &underlying, const CF::String &format, First first,
                Rest... rest) {
    static_assert((std::is_scalar_v<First> && ... && std::is_scalar_v<Rest>),
                  "variadic formatting takes references and scalars");
    return Error(code, underlying,
                 format ? CF::String::Format(format.get(), first, rest...) : CF::String());
}

// Code 3 with the reason "WHAT (PATH)".
KV_VISIBLE CF::Error MakeFSError(const std::exception &exception, const ZK::filesystem::path &path);
// Code 3 with the format applied to the argument as the reason, and the POSIX error
// underneath when errnum is not 0.
KV_VISIBLE CF::Error MakeFSError(int errnum, const CF::String &format, const char *argument);

} // namespace Kelvane
