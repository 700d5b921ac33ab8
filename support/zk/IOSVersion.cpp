#include "support/zk/IOSVersion.hpp"

#include <array>
#include <charconv>

namespace ZK {
namespace {

// Takes one number off the front of the text; false when there is none or it is too
// large for an int.
bool takeNumber(std::string_view &text, int &number) {
    // A sign is no part of a version, though from_chars would read one.
    if (text.empty() || text.front() < '0' || text.front() > '9') {
        return false;
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return error == std::errc();
}

} // namespace

ios_version::ios_version(std::string_view text) noexcept {
    std::array<int, 3> components{};
    if (!takeNumber(text, components[0])) {
        return;
    }
    for (std::size_t i = 1; i < components.size() && text.starts_with('.'); ++i) {
        text.remove_prefix(1);
        if (!takeNumber(text, components[i])) {
            break;
        }
    }
    *this = ios_version(components[0], components[1], components[2]);
}

} // namespace ZK
