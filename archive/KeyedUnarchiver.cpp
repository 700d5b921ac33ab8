#include "ZK/keyed_unarchiver.hpp"

#include <algorithm>
#include <limits>
#include <type_traits>
#include <unordered_set>
#include <utility>

namespace ZK {

namespace {

constexpr std::int64_t kArchiveVersion = 100000;
constexpr const char *kTooDeep = "Archive nests its objects too deeply";

using References = std::vector<keyed_unarchiver::uid>;

template <class T>
constexpr bool kIsScalar = std::is_integral_v<T>;
template <class T>
constexpr bool kIsWrapper = std::is_base_of_v<CF::Type, T>;
// The types that exist as objects only.
template <class T>
constexpr bool kNeedsReference = std::is_same_v<T, MB::File> || std::is_same_v<T, CF::Dictionary> ||
                                 std::is_same_v<T, detail::archived_class>;

// The key under which a wrapped value keeps it.
template <class T>
CFStringRef wrappedValueKey() {
    if constexpr (std::is_same_v<T, CF::String>) {
        return CFSTR("NS.string");
    } else if constexpr (std::is_same_v<T, CF::Data>) {
        return CFSTR("NS.data");
    } else {
        return CFSTR("NS.number");
    }
}

__extension__ typedef __int128 Int128;

// A number beyond the type becomes the nearest that it has: cut to the type's bits, it would
// turn into another one that may well pass for valid. Some writers take a field for signed
// that others take for unsigned (the user nobody is -2 or 4294967294), so both are read,
// but for times and sizes, whose numbers never reach where the two differ.
template <class T>
T scalarOf(const CF::Number &number) {
    constexpr Int128 kLowest = std::numeric_limits<std::make_signed_t<T>>::min();
    constexpr Int128 kHighest = std::is_same_v<T, long long>
                                    ? Int128{std::numeric_limits<T>::max()}
                                    : Int128{std::numeric_limits<std::make_unsigned_t<T>>::max()};
    const auto [high, low] = number.GetWide();
    const Int128 value = Int128{high} * (Int128{1} << 64) + Int128{low};
    return static_cast<T>(std::clamp(value, kLowest, kHighest));
}

// Of the whole value: neither 2^64 + 100000 nor 100000.5 is the version.
bool isArchiveVersion(const CF::Number &number) {
    const auto [high, low] = number.GetWide();
    return high == 0 && low == kArchiveVersion && number.GetDouble() == kArchiveVersion;
}

template <class T>
std::optional<T> ifPresent(T value) {
    return value ? std::optional<T>(std::move(value)) : std::nullopt;
}

// Outside the class, whose own names would hide the types' decode functions.
template <class T>
std::optional<T> decodeObject(keyed_unarchiver &unarchiver) {
    return decode(static_cast<T *>(nullptr), unarchiver);
}

// Not by callback: a limit may be exceeded on the way, and callers of callbacks are C.
std::vector<std::pair<CFTypeRef, CFTypeRef>> pairsOf(const CF::Dictionary &dictionary) {
    const auto count = static_cast<std::size_t>(dictionary.GetCount());
    std::vector<CFTypeRef> keys(count);
    std::vector<CFTypeRef> values(count);
    if (count > 0) {
        CFDictionaryGetKeysAndValues(dictionary.get(), keys.data(), values.data());
    }
    std::vector<std::pair<CFTypeRef, CFTypeRef>> pairs;
    for (std::size_t i = 0; i < count; ++i) {
        pairs.emplace_back(keys[i], values[i]);
    }
    return pairs;
}

// In the arrays of all containers. An array that several share, which only hostile archives
// have, counts once.
std::size_t countReferences(const CF::Array &objects) {
    std::unordered_set<CFTypeRef> known;
    std::size_t count = 0;
    const auto add = [&](const CF::Array &array) {
        if (array && known.insert(array.get()).second) {
            count += static_cast<std::size_t>(array.GetCount());
        }
    };
    for (CFIndex i = 0; i < objects.GetCount(); ++i) {
        add(CF::Array::Cast(objects.GetAt(i)));
        const auto object = CF::Dictionary::Cast(objects.GetAt(i));
        add(object.Get<CF::Array>(CFSTR("NS.keys")));
        add(object.Get<CF::Array>(CFSTR("NS.objects")));
    }
    return count;
}

bool isNull(CFTypeRef value) { return value == nullptr || value == kCFNull; }

} // namespace

// One object being decoded.
class keyed_unarchiver::frame {
  public:
    frame(keyed_unarchiver &unarchiver, uid reference) : unarchiver_(unarchiver) {
        unarchiver_.enter(reference);
    }
    ~frame() { unarchiver_.stack_.pop_back(); }
    frame(const frame &) = delete;
    frame &operator=(const frame &) = delete;

  private:
    keyed_unarchiver &unarchiver_;
};

keyed_unarchiver::keyed_unarchiver(CF::Array objects)
    : objects_(std::move(objects)),
      steps_left_(detail::kFreeDecodingSteps +
                  detail::kMaxDecodingStepsPerObject *
                      static_cast<std::size_t>(objects_.GetCount()) +
                  detail::kMaxDecodingStepsPerReference * countReferences(objects_)) {}

keyed_unarchiver::~keyed_unarchiver() = default;

CF::AutoPointer keyed_unarchiver::get_raw(uid reference) const {
    if (reference.value == 0) {
        return nullptr;
    }
    const CFTypeRef entry = objects_.GetAt(static_cast<CFIndex>(reference.value));
    if (isNull(entry)) {
        throw archiver_exceptions::missing_uid(reference.value);
    }
    return entry;
}

CF::AutoPointer keyed_unarchiver::current() const {
    return stack_.empty() ? nullptr : get_raw(stack_.back());
}

void keyed_unarchiver::enter(uid reference) {
    // Only the object in the middle is compared: cheap at any depth, and whatever
    // loop it lets pass comes round to the middle before the depth runs out.
    if (!stack_.empty() && stack_[stack_.size() / 2] == reference) {
        throw archiver_exceptions::decode_cycle();
    }
    if (stack_.size() >= detail::kMaxDecodingDepth) {
        throw archiver_exceptions::limit_exceeded(kTooDeep);
    }
    charge(1);
    stack_.push_back(reference);
}

void keyed_unarchiver::charge(std::size_t steps) {
    if (steps > steps_left_) {
        throw archiver_exceptions::limit_exceeded("Archive takes too many steps to decode");
    }
    steps_left_ -= steps;
}

void keyed_unarchiver::add_members(std::size_t count) {
    if (count > detail::kMaxMembers - member_count_) {
        throw archiver_exceptions::limit_exceeded("Archive has too many members in its containers");
    }
    member_count_ += count;
}

keyed_unarchiver::member keyed_unarchiver::get_member(uid reference) {
    charge(1);
    add_members(1);
    auto known = members_.find(reference.value);
    if (known == members_.end()) {
        const std::size_t outerCount = std::exchange(member_count_, 0);
        const std::size_t outerHeight = std::exchange(height_, 0);
        member decoded{get<CF::AutoPointer>(reference).value_or(nullptr), member_count_, height_};
        const bool isContainer =
            CF::Array::Cast(decoded.value.get()) || CF::Dictionary::Cast(decoded.value.get());
        decoded.height += isContainer ? 1 : 0;
        member_count_ = outerCount;
        height_ = outerHeight;
        known = members_.emplace(reference.value, std::move(decoded)).first;
    }
    if (stack_.size() + known->second.height > detail::kMaxEncodingDepth) {
        throw archiver_exceptions::limit_exceeded(kTooDeep);
    }
    add_members(known->second.members);
    height_ = std::max(height_, known->second.height);
    return known->second;
}

CF::Array keyed_unarchiver::copy_plain_array(const CF::Array &array) {
    return plain_array(array, stack_.size());
}

// Null for values that are read from no table either.
CF::AutoPointer keyed_unarchiver::plain_value(CFTypeRef value, std::size_t depth) {
    if (const auto array = CF::Array::Cast(value)) {
        return plain_array(array, depth + 1).get();
    }
    if (const auto dictionary = CF::Dictionary::Cast(value)) {
        return plain_dictionary(dictionary, depth + 1).get();
    }
    const bool isPlain =
        CF::String::Cast(value) || CF::Data::Cast(value) || CF::Number::Cast(value);
    return isPlain ? CF::AutoPointer(value) : CF::AutoPointer();
}

CF::Array keyed_unarchiver::plain_array(const CF::Array &array, std::size_t depth) {
    enter_plain(depth, static_cast<std::size_t>(array.GetCount()));
    auto copy = CF::Array::Mutable();
    for (CFIndex i = 0; i < array.GetCount(); ++i) {
        if (const CF::AutoPointer value = plain_value(array.GetAt(i), depth)) {
            copy.Append(value.get());
        }
    }
    return copy;
}

CF::Dictionary keyed_unarchiver::plain_dictionary(const CF::Dictionary &dictionary,
                                                  std::size_t depth) {
    enter_plain(depth, 2 * static_cast<std::size_t>(dictionary.GetCount()));
    auto copy = CF::Dictionary::Mutable();
    for (const auto &[key, value] : pairsOf(dictionary)) {
        if (const CF::AutoPointer plain = plain_value(value, depth)) {
            copy.Set(key, plain.get());
        }
    }
    return copy;
}

// Containers that hold their members themselves count as if they had been archived.
void keyed_unarchiver::enter_plain(std::size_t depth, std::size_t members) {
    if (depth > detail::kMaxEncodingDepth) {
        throw archiver_exceptions::limit_exceeded(kTooDeep);
    }
    height_ = std::max(height_, depth - stack_.size());
    charge(members);
    add_members(members);
}

template <class T>
std::optional<T> keyed_unarchiver::decode(const CF::String &key, bool escape) {
    const auto object = CF::Dictionary::Cast(current().get());
    const CFTypeRef value = object.GetValue(detail::escaped_key(key, escape).get());
    if (value == nullptr) {
        return std::nullopt;
    }
    if (const auto reference = detail::extract_uid(value)) {
        return get<T>(*reference);
    }
    return from_inline_value<T>(value);
}

template <class T>
std::optional<T> keyed_unarchiver::get(uid reference) {
    const frame entered(*this, reference);
    return decode_current<T>();
}

template <class T>
std::optional<T> keyed_unarchiver::decode_current() {
    if constexpr (std::is_same_v<T, MB::File>) {
        refuse_own_class();
        return decodeObject<T>(*this);
    } else if constexpr (kNeedsReference<T> || std::is_same_v<T, CF::Array>) {
        return decodeObject<T>(*this);
    } else if constexpr (kIsScalar<T>) {
        const auto number = CF::raw_cftype_decode<CF::Number>(*this, CFSTR("NS.number"));
        return number && *number ? std::optional<T>(scalarOf<T>(*number)) : std::nullopt;
    } else if constexpr (kIsWrapper<T>) {
        return CF::raw_cftype_decode<T>(*this, wrappedValueKey<T>());
    } else if constexpr (std::is_same_v<T, References>) {
        return references_of(current().get());
    } else {
        return CF::try_decode(*this);
    }
}

// A value that stands where it is needed, not behind a reference.
template <class T>
std::optional<T> keyed_unarchiver::from_inline_value(CFTypeRef value) {
    if constexpr (kNeedsReference<T>) {
        throw archiver_exceptions::cant_decode_as_value(typeid(T));
    } else if constexpr (kIsScalar<T>) {
        const auto number = CF::Number::Cast(value);
        return number ? std::optional<T>(scalarOf<T>(number)) : std::nullopt;
    } else if constexpr (kIsWrapper<T>) {
        return ifPresent(T::Cast(value));
    } else if constexpr (std::is_same_v<T, References>) {
        return references_of(value);
    } else {
        return CF::AutoPointer(value);
    }
}

// The references of an array; empty when it is none or holds anything else.
std::optional<References> keyed_unarchiver::references_of(CFTypeRef value) {
    const auto array = CF::Array::Cast(value);
    if (!array) {
        return std::nullopt;
    }
    charge(static_cast<std::size_t>(array.GetCount()));
    References references;
    references.reserve(static_cast<std::size_t>(array.GetCount()));
    for (CFIndex i = 0; i < array.GetCount(); ++i) {
        const auto reference = detail::extract_uid(array.GetAt(i));
        if (!reference) {
            return std::nullopt;
        }
        references.push_back(*reference);
    }
    return references;
}

std::optional<detail::archived_class> keyed_unarchiver::get_class() {
    return decode<detail::archived_class>(CFSTR("$class"), false);
}

// Records do not read their class, so an object that is its own class would go
// unnoticed in them.
void keyed_unarchiver::refuse_own_class() const {
    const auto object = CF::Dictionary::Cast(current().get());
    if (detail::extract_uid(object.GetValue(CFSTR("$class"))) == stack_.back()) {
        throw archiver_exceptions::decode_cycle();
    }
}

template <class T>
std::optional<T> extract_keyed_archive(const CF::Dictionary &archive) {
    if (archive.Get<CF::String>(CFSTR("$archiver")) != CF::String(CFSTR("NSKeyedArchiver"))) {
        throw archiver_exceptions::invalid_creator();
    }
    const auto version = archive.Get<CF::Number>(CFSTR("$version"));
    if (!version) {
        throw archiver_exceptions::missing_version();
    }
    if (!isArchiveVersion(version)) {
        throw archiver_exceptions::unknown_version(scalarOf<long long>(version));
    }
    const auto top = archive.Get<CF::Dictionary>(CFSTR("$top"));
    if (!top) {
        throw archiver_exceptions::missing_top();
    }
    const auto objects = archive.Get<CF::Array>(CFSTR("$objects"));
    if (!objects) {
        throw archiver_exceptions::missing_objects();
    }
    const auto root = detail::extract_uid(top.GetValue(detail::root_object_key().get()));
    if (!root) {
        throw archiver_exceptions::missing_root();
    }
    return keyed_unarchiver(objects).get<T>(*root);
}

#define KV_INSTANTIATE_DECODER(T)                                                                  \
    template KV_VISIBLE std::optional<T> keyed_unarchiver::decode(const CF::String &, bool);       \
    template KV_VISIBLE std::optional<T> keyed_unarchiver::get(keyed_unarchiver::uid);
#define KV_INSTANTIATE_ROOT(T)                                                                     \
    KV_INSTANTIATE_DECODER(T)                                                                      \
    template KV_VISIBLE std::optional<T> extract_keyed_archive(const CF::Dictionary &);

KV_INSTANTIATE_ROOT(MB::File)
KV_INSTANTIATE_ROOT(CF::String)
KV_INSTANTIATE_ROOT(CF::Data)
KV_INSTANTIATE_ROOT(CF::Number)
KV_INSTANTIATE_ROOT(CF::Dictionary)
KV_INSTANTIATE_ROOT(CF::Array)
KV_INSTANTIATE_DECODER(int)
KV_INSTANTIATE_DECODER(unsigned int)
KV_INSTANTIATE_DECODER(long long)
KV_INSTANTIATE_DECODER(unsigned long long)
KV_INSTANTIATE_DECODER(detail::archived_class)
KV_INSTANTIATE_DECODER(CF::AutoPointer)
KV_INSTANTIATE_DECODER(References)

} // namespace ZK
