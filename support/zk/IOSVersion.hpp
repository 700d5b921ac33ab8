#pragma once

#include <compare>
#include <string_view>

namespace ZK {

// An iOS version of three numeric components.
struct ios_version {
    int major_version = -1;
    int minor_version = -1;
    int patch_version = 0;

    ios_version() = default;
    ios_version(int major, int minor, int patch) noexcept
        : major_version(major), minor_version(minor), patch_version(patch) {}
    // From dotted text such as "14.2.1"; missing components are 0, further ones are
    // ignored. Empty text and text that does not begin with a number give -1, -1, 0;
    // reading stops after the leading digits of a component that goes on otherwise
    // ("15b3" is 15.0.0) and before one that is no number or exceeds 2^31 - 1.
    explicit ios_version(std::string_view text) noexcept;

    friend bool operator==(const ios_version &, const ios_version &) = default;
    friend auto operator<=>(const ios_version &, const ios_version &) = default;
};

} // namespace ZK
