// Strings from UTF-8 bytes, one object for equal ones where that pays.
#pragma once

#include "support/cf/Pointer.hpp"

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Kelvane {

using StringPointer = CF::Pointer<CFStringRef>;

// The text, a shared object when it is empty. Null when the bytes are not UTF-8, which
// must never be repaired: a repaired name would be another file's.
StringPointer TextFromUTF8(std::string_view bytes);

// Domains: a manifest has a few hundred, each on thousands of consecutive entries.
class TextCache {
  public:
    // The text; the result of an earlier call for most of the bytes seen before. Null
    // when they are not UTF-8.
    StringPointer Get(std::string_view bytes);

  private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view bytes) const noexcept {
            return std::hash<std::string_view>()(bytes);
        }
    };
    std::string lastBytes_;
    StringPointer last_;
    std::unordered_map<std::string, StringPointer, Hash, std::equal_to<>> texts_;
};

} // namespace Kelvane
