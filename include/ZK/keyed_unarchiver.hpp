// Reads keyed archives. The format: ZK/keyed_archive_types.hpp.
//
// Most callers need extract_keyed_archive alone. An unarchiver reads one archive, on
// one thread. Data errors are the exceptions of ZK/archiver_exceptions.hpp; an object
// of another type than asked for is no error but an empty result.
#pragma once

#include "MB/File.hpp"
#include "ZK/archiver_exceptions.hpp"
#include "ZK/keyed_archive_types.hpp"
#include "support/cf/Array.hpp"
#include "support/cf/Data.hpp"
#include "support/cf/Dictionary.hpp"
#include "support/cf/Number.hpp"
#include "support/cf/String.hpp"

#include <cstddef>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace ZK {

// In the templates below, T is MB::File, CF::String, CF::Data, CF::Number,
// CF::Dictionary, CF::Array, CF::AutoPointer (whichever value type decodes), int,
// unsigned int, long long, unsigned long long, detail::archived_class or a vector of
// detail::keyed_archiver_uid.
class KV_VISIBLE keyed_unarchiver {
  public:
    using uid = detail::keyed_archiver_uid;

    // Over the table of objects, "$objects".
    explicit keyed_unarchiver(CF::Array objects);
    ~keyed_unarchiver();
    keyed_unarchiver(const keyed_unarchiver &) = delete;
    keyed_unarchiver &operator=(const keyed_unarchiver &) = delete;

    // The entry of the table as it stands; null for 0. Throws missing_uid for an entry
    // that is null or beyond the end.
    CF::AutoPointer get_raw(uid reference) const;
    // The field of the current object under the key. A reference is followed, an
    // inline value taken as it stands. Empty when the key is absent or the value no T.
    // Throws cant_decode_as_value for an inline value where T is always an object.
    template <class T>
    std::optional<T> decode(const CF::String &key, bool escape = true);
    // The object with that number, which is the current object meanwhile. Throws
    // decode_cycle when it is the object in the middle of those being decoded, and
    // limit_exceeded.
    template <class T>
    std::optional<T> get(uid reference);
    // The class of the current object; empty when it has none.
    std::optional<detail::archived_class> get_class();
    // A member of a container, and how many members that has itself, those of members included.
    // Null when it does not decode or is the null object, which no container can hold. Each
    // object is decoded once, however many containers share it, but counts in all of them.
    struct member {
        CF::AutoPointer value;
        std::size_t members = 0;
        std::size_t height = 0; // containers in one another
    };
    [[gnu::visibility("hidden")]] member get_member(uid reference);
    // A copy of the current object, an array that stands in the table as a value, with the members
    // that containers can have.
    [[gnu::visibility("hidden")]] CF::Array copy_plain_array(const CF::Array &array);
    // Takes steps off the archive's share. Throws limit_exceeded when it is used up.
    [[gnu::visibility("hidden")]] void charge(std::size_t steps);
    // The entry of the current object in the table; null when there is no current
    // object or it is the null object.
    CF::AutoPointer current() const;

  private:
    class [[gnu::visibility("hidden")]] frame;
    [[gnu::visibility("hidden")]] void enter(uid reference);
    template <class T>
    [[gnu::visibility("hidden")]] std::optional<T> decode_current();
    template <class T>
    [[gnu::visibility("hidden")]] std::optional<T> from_inline_value(CFTypeRef value);
    [[gnu::visibility("hidden")]] std::optional<std::vector<uid>> references_of(CFTypeRef value);
    [[gnu::visibility("hidden")]] void refuse_own_class() const;
    [[gnu::visibility("hidden")]] CF::AutoPointer plain_value(CFTypeRef value, std::size_t depth);
    [[gnu::visibility("hidden")]] CF::Array plain_array(const CF::Array &array, std::size_t depth);
    [[gnu::visibility("hidden")]] CF::Dictionary plain_dictionary(const CF::Dictionary &dictionary,
                                                                  std::size_t depth);
    [[gnu::visibility("hidden")]] void enter_plain(std::size_t depth, std::size_t members);
    [[gnu::visibility("hidden")]] void add_members(std::size_t count);

    CF::Array objects_;
    std::vector<uid> stack_;
    std::size_t steps_left_;
    // By number.
    std::unordered_map<std::uint32_t, member> members_;
    // Of the container that is being decoded, so far.
    std::size_t member_count_ = 0;
    std::size_t height_ = 0;
};

// The root object of an archive as a T; empty when it is none. Throws the exceptions of
// ZK/archiver_exceptions.hpp; a null archive counts as one without any key.
template <class T>
KV_VISIBLE std::optional<T> extract_keyed_archive(const CF::Dictionary &archive);

} // namespace ZK

namespace CF {

// Whether an archived class of that name stands for T (String, Data, Number, Array or
// Dictionary): the Foundation class or its mutable subclass.
template <class T>
KV_VISIBLE bool validate_name(const std::string &name);

// The current object as a String, Data or Number: an object of such a class keeps the
// value under the key; a value in the table is taken as it stands, the null object is
// a null T. Empty when it is neither.
template <class T>
KV_VISIBLE std::optional<T> raw_cftype_decode(ZK::keyed_unarchiver &unarchiver, const String &key);

// The current object as whichever of String, Number, Data, Array and Dictionary it
// decodes as first, in that order.
KV_VISIBLE std::optional<AutoPointer> try_decode(ZK::keyed_unarchiver &unarchiver);

// The current object as a dictionary object. A pair of which either side does not
// decode is left out; of equal keys the last one holds. Empty when the class is not a
// dictionary's or the numbers of keys and objects differ. The pointer is null.
KV_VISIBLE std::optional<Dictionary> decode(Dictionary *type, ZK::keyed_unarchiver &unarchiver);
// The same for an array object; members that do not decode are left out. An array that
// stands in the table as a value is taken as it stands.
KV_VISIBLE std::optional<Array> decode(Array *type, ZK::keyed_unarchiver &unarchiver);

} // namespace CF
