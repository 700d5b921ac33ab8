// JSON that keeps the order of its keys.
#pragma once

#include "Output.hpp"

#include <nlohmann/json.hpp>

#include <string>

namespace tool {

using JSON = nlohmann::ordered_json;

// On one line. What is no Unicode text becomes U+FFFD: one odd name must not end a listing.
// On a terminal, which obeys some characters, all but printable ASCII is escaped.
inline std::string Serialize(const JSON &json) {
    return json.dump(-1, ' ', OutputIsTerminal(), JSON::error_handler_t::replace);
}

} // namespace tool
