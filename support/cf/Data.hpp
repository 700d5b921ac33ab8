#pragma once

#include "support/cf/Type.hpp"

#include <cstdint>
#include <span>
#include <vector>

namespace CF {

// A CFDataRef or null.
class CF_WRAPPER_VISIBLE Data : public TypeOf<Data, CFDataRef, CFDataGetTypeID> {
  public:
    using TypeOf::TypeOf;
    // Copies the bytes.
    explicit Data(std::span<const std::uint8_t> bytes)
        : Data(adopt, Made(CFDataCreate(kCFAllocatorDefault, bytes.data(),
                                        static_cast<CFIndex>(bytes.size())))) {}
    explicit Data(const std::vector<std::uint8_t> &bytes)
        : Data(std::span<const std::uint8_t>(bytes)) {}

    // 0 for null.
    CFIndex GetLength() const noexcept { return get() == nullptr ? 0 : CFDataGetLength(get()); }
    bool IsEmpty() const noexcept { return GetLength() == 0; }
    // Borrowed; valid as long as this object. Empty for null.
    std::span<const std::uint8_t> GetBytes() const noexcept {
        if (get() == nullptr) {
            return {};
        }
        return {CFDataGetBytePtr(get()), static_cast<std::size_t>(CFDataGetLength(get()))};
    }
    std::vector<std::uint8_t> GetVector() const {
        const auto bytes = GetBytes();
        return {bytes.begin(), bytes.end()};
    }
};

} // namespace CF
