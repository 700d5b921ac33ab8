#include "ZK/archiver_exceptions.hpp"

#include <string>

namespace ZK::archiver_exceptions {

// The destructors stand here so that the classes' type information has one home, in
// the library that throws them, and hosts can catch them by type.
archiver_exception::~archiver_exception() = default;
invalid_creator::~invalid_creator() = default;
missing_version::~missing_version() = default;
unknown_version::~unknown_version() = default;
missing_top::~missing_top() = default;
missing_objects::~missing_objects() = default;
missing_root::~missing_root() = default;
decode_cycle::~decode_cycle() = default;
missing_uid::~missing_uid() = default;
cant_decode_as_value::~cant_decode_as_value() = default;
limit_exceeded::~limit_exceeded() = default;

invalid_creator::invalid_creator()
    : archiver_exception("Archive was not created with a keyed archiver") {}

missing_version::missing_version() : archiver_exception("Archive has no version") {}

unknown_version::unknown_version(std::int64_t found)
    : archiver_exception("Archive has unknown version " + std::to_string(found)), version(found) {}

missing_top::missing_top() : archiver_exception("Archive is missing the $top key") {}

missing_objects::missing_objects() : archiver_exception("Archive is missing the $objects key") {}

missing_root::missing_root() : archiver_exception("Archive does not have a root object") {}

decode_cycle::decode_cycle()
    : archiver_exception("A cycle was detected when decoding the archive") {}

missing_uid::missing_uid(std::uint32_t missing)
    : archiver_exception("uid " + std::to_string(missing) + " was missing or null"), uid(missing) {}

cant_decode_as_value::cant_decode_as_value(const std::type_info &type)
    : archiver_exception(std::string("Cant decode type '") + type.name() + "' as a value") {}

limit_exceeded::limit_exceeded(const char *message) : archiver_exception(message) {}

} // namespace ZK::archiver_exceptions
