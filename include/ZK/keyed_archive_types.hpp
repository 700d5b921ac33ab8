// Parts that both directions of the keyed-archive codec share.
//
// The format. An archive is a property-list dictionary: "$archiver" is
// "NSKeyedArchiver", "$version" 100000, "$objects" the table of all objects, whose
// entry 0 is the string "$null", and "$top" maps "root" to a reference to the root
// object. A reference is the number of an object in the table. Strings, data and
// numbers stand in the table as they are; other objects are dictionaries of keyed
// values with a reference to their class dictionary under "$class".
#pragma once

#include "KVBase.h"
#include "support/cf/Dictionary.hpp"
#include "support/cf/String.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ZK {

class keyed_unarchiver;

namespace detail {

// What is read can be written, and read again: the limits of both directions are the same.
//
// The most objects that may be in progress when an archive is read, each inside the one
// before. The codec recurses once a level; archives of the real world nest less than ten
// deep.
inline constexpr std::size_t kMaxDecodingDepth = 128;
// The most containers, a record included, that may be nested in one another. To read the
// class or a member of the innermost takes a level more.
inline constexpr std::size_t kMaxEncodingDepth = kMaxDecodingDepth - 1;
// The most keys, values and elements that the containers of one archive may have, those of a
// container counted wherever it stands: whoever compares or copies the result takes that
// many steps. Written, a member is twelve values of a property list at most (a dictionary, its
// keys, arrays and class, and the reference to it), so that the archive stays below the four
// million that a list may have.
inline constexpr std::size_t kMaxMembers = 300000;
// The most steps that reading one archive may take for each of its objects and for each
// reference in the arrays of these; following a reference is a step, and so is reading one
// from an array. An archive as it should be needs at most 10 an object (a member tries five
// types for its value, each looking up the class) and 2 a reference, so it is never refused
// for them, however large. But a few objects may be made that lead through one another again
// and again.
inline constexpr std::size_t kMaxDecodingStepsPerObject = 16;
inline constexpr std::size_t kMaxDecodingStepsPerReference = 4;
// What archives may use on top of that. Together the three keep a hostile archive of a few
// kilobytes to about a millisecond.
inline constexpr std::size_t kFreeDecodingSteps = 4096;
// Bounds of class dictionaries, which are read again for every object of the class. The
// classes of real archives have names of some dozen characters and a handful of
// ancestors.
inline constexpr CFIndex kMaxClassNameLength = 256;
inline constexpr CFIndex kMaxClassChainLength = 64;

// A reference to an object of the table; 0 is the null object.
struct KV_VISIBLE keyed_archiver_uid {
    std::uint32_t value = 0;

    // {"CF$UID": value}, with the value as a signed 32-bit number.
    CF::Dictionary to_dict() const;
    friend bool operator==(const keyed_archiver_uid &, const keyed_archiver_uid &) = default;
};

// The reference that a property-list value stands for: the format's own UID value, or
// a dictionary of the one entry "CF$UID" with a number from 0 to 2^31 - 1. Anything
// else, null included, is no reference.
KV_VISIBLE std::optional<keyed_archiver_uid> extract_uid(CFTypeRef value);

// "root", the key of the root object in "$top".
KV_VISIBLE CF::String root_object_key();
// "$null", the entry 0 of the object table.
KV_VISIBLE CF::String null_object_reference_name();
// The key under which an object's dictionary keeps a field: user keys that begin with
// "$" get one more, so that they cannot collide with the format's own.
KV_VISIBLE CF::String escaped_key(const CF::String &key, bool escape);

// A class dictionary of an archive.
struct KV_VISIBLE archived_class {
    std::string name;
    std::vector<std::string> chain; // the class, its superclass and so on
};

// Reads the unarchiver's current object as a class dictionary; empty when it names no
// class. Throws limit_exceeded beyond the two bounds above. The pointer only selects the
// overload and is null.
KV_VISIBLE std::optional<archived_class> decode(archived_class *type, keyed_unarchiver &unarchiver);

} // namespace detail
} // namespace ZK
