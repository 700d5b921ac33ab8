// Writes object graphs as keyed archives. The format: ZK/keyed_archive_types.hpp.
//
// Most callers need make_keyed_archive alone. An archiver makes one archive, on one
// thread. The templates are instantiated for the types named with each of them.
#pragma once

#include "MB/File.hpp"
#include "ZK/archiver_exceptions.hpp"
#include "ZK/keyed_archive_types.hpp"
#include "support/cf/Array.hpp"
#include "support/cf/Data.hpp"
#include "support/cf/Dictionary.hpp"
#include "support/cf/Number.hpp"
#include "support/cf/String.hpp"

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace ZK {

namespace detail {

// One object on its way into the table.
struct KV_VISIBLE encoding_context {
    CF::Dictionary dictionary;
    std::uint32_t generated_keys = 0;
    // Of the containers in it: members in all, and how deep they nest.
    std::size_t members = 0;
    std::size_t height = 0;
};

struct KV_VISIBLE value_hash {
    std::size_t operator()(const CF::AutoPointer &value) const noexcept;
};
struct KV_VISIBLE value_equal {
    bool operator()(const CF::AutoPointer &a, const CF::AutoPointer &b) const noexcept;
};

} // namespace detail

// In the templates below, T is a plain value (CF::String, CF::Data, CF::Number, or a
// CF::AutoPointer to any other value of property lists), which the table holds as it is and once,
// however many objects hold an equal one; or a class-based object (MB::File, CF::Dictionary,
// CF::Array), which is written once for each instance: an MB::File is told by its own address, so
// it must stay where it is until the archive is finished, dictionaries and arrays by the
// CoreFoundation object.
class KV_VISIBLE keyed_archiver {
  public:
    using uid = detail::keyed_archiver_uid;

    keyed_archiver();
    ~keyed_archiver();
    keyed_archiver(const keyed_archiver &) = delete;
    keyed_archiver &operator=(const keyed_archiver &) = delete;

    // Encodes the object and stores the reference to it under the key in the current
    // object; an empty or null key takes a generated one. A conditional encoding of an
    // object that is not in the archive yet writes nothing. Throws limit_exceeded.
    template <class T>
    void _encodeObject(const T &object, const CF::String &key, bool conditional);
    // Encodes the object alone; empty when it was conditional and nothing was written.
    template <class T>
    std::optional<uid> _encodeObject(const T &object, bool conditional);

    // The object's number, given out now if it is new: the table then holds "$null" at
    // that place until the object is encoded. Null objects have number 0. Empty when
    // it is new and conditional.
    template <class T>
    std::optional<uid> _referenceObject(const T &object, bool conditional);
    // The dictionary of a class-based object: its fields and its "$class".
    template <class T>
    CF::Dictionary encode_impl(const T &object);
    // The number of the class dictionary of the object's class, written on first use.
    template <class T>
    std::optional<uid> _classReference(const T &object);
    // {"$classname": NAME, "$classes": [NAME, "NSObject"]}.
    template <class T>
    CF::Dictionary make_class_dictionary(const T &object);
    // Puts a finished dictionary into the table. Throws std::runtime_error when that
    // gives no number, which is a fault of the program.
    template <class T>
    std::optional<uid> _addObject(const T &object);

    // Stores a value under the key in the current object, inline: V is one of the CF
    // wrappers above, or std::optional<uid> for a reference. Storing an empty reference
    // is a programming error and ends the process.
    template <class V>
    void _setObjectInCurrentEncodingContext(const V &value, const CF::String &key, bool escape);
    void set_object_impl(const std::optional<uid> &reference, const CF::String &key);

    // Whether an equal plain value has a number already. T is a plain value.
    template <class T>
    bool have_visited(const T &value) const;
    // Notes the number of a plain value; an equal one noted before keeps its own.
    template <class T>
    void store_obj(const T &value, uid reference);

    // Notes members of the current object, before they are encoded. Throws limit_exceeded beyond
    // detail::kMaxMembers.
    [[gnu::visibility("hidden")]] void add_members(std::size_t count);

    // The archive. The archiver is of no further use.
    CF::Dictionary finishEncoding();

  private:
    // Where a class-based object is, and what keeps it there.
    struct instance {
        uid reference;
        CF::AutoPointer keep_alive;
        // As of the context in which it was encoded; the height includes itself.
        std::size_t members = 0;
        std::size_t height = 0;
    };
    template <class T>
    [[gnu::visibility("hidden")]] std::optional<uid> find(const T &object) const;
    template <class T>
    [[gnu::visibility("hidden")]] void note(const T &object, uid reference);
    template <class T>
    [[gnu::visibility("hidden")]] void add_container(const T &object);
    [[gnu::visibility("hidden")]] CF::String resolve_key(const CF::String &key, bool escape);

    CF::Array objects_;
    std::vector<detail::encoding_context> contexts_;
    std::unordered_map<const void *, instance> instances_;
    std::unordered_map<CF::AutoPointer, uid, detail::value_hash, detail::value_equal> values_;
    std::unordered_map<std::string, uid> classes_;
};

// The archive of one object, which is its root. T: as for the archiver. Throws
// limit_exceeded when containers nest deeper than detail::kMaxEncodingDepth, or have more
// members than detail::kMaxMembers.
template <class T>
KV_VISIBLE CF::Dictionary make_keyed_archive(const T &object);

} // namespace ZK

namespace CF {

// "NSDictionary" and "NSArray".
KV_VISIBLE std::string class_name(const Dictionary &dictionary);
KV_VISIBLE std::string class_name(const Array &array);
// Write the members into the archiver's current object: "NS.keys" and "NS.objects" are
// arrays of references, the i-th key belonging to the i-th object; an array has
// "NS.objects" alone. Called by the archiver.
KV_VISIBLE void encode(const Dictionary &dictionary, ZK::keyed_archiver &archiver);
KV_VISIBLE void encode(const Array &array, ZK::keyed_archiver &archiver);

} // namespace CF
