#include "ZK/keyed_archiver.hpp"

#include "support/zk/Abort.hpp"

#include <algorithm>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace ZK {

namespace {

constexpr std::int32_t kArchiveVersion = 100000;
constexpr const char *kTooDeep = "Objects are nested too deeply to be archived";

template <class T>
constexpr bool kIsPlainValue = std::is_same_v<T, CF::String> || std::is_same_v<T, CF::Data> ||
                               std::is_same_v<T, CF::Number> || std::is_same_v<T, CF::AutoPointer>;

// What tells instances apart and what must be kept for that. A record has no other
// identity than its place; a wrapper may be a temporary, so the object behind it counts.
const void *addressOf(const MB::File &file) { return &file; }
CFTypeRef addressOf(const CF::Type &object) { return object.GetCFObject(); }
CFTypeRef addressOf(const CF::AutoPointer &object) { return object.get(); }
CF::AutoPointer keeperOf(const MB::File &) { return nullptr; }
CF::AutoPointer keeperOf(const CF::Type &container) { return container.GetCFObject(); }

// Outside the class, whose own names would hide the types' encode functions.
template <class T>
void encodeFields(const T &object, keyed_archiver &archiver) {
    encode(object, archiver);
}
template <class T>
std::string classNameOf(const T &object) {
    return class_name(object);
}

} // namespace

std::size_t detail::value_hash::operator()(const CF::AutoPointer &value) const noexcept {
    return CFHash(value.get());
}

bool detail::value_equal::operator()(const CF::AutoPointer &a,
                                     const CF::AutoPointer &b) const noexcept {
    return CFEqual(a.get(), b.get()) != 0;
}

keyed_archiver::keyed_archiver() : objects_(CF::Array::Mutable()) {
    objects_.Append(detail::null_object_reference_name().get());
    contexts_.push_back({CF::Dictionary::Mutable()});
}

keyed_archiver::~keyed_archiver() = default;

template <class T>
void keyed_archiver::_encodeObject(const T &object, const CF::String &key, bool conditional) {
    const auto reference = _encodeObject(object, conditional);
    if (reference) {
        _setObjectInCurrentEncodingContext(reference, key, true);
    }
}

template <class T>
std::optional<keyed_archiver::uid> keyed_archiver::_encodeObject(const T &object,
                                                                 bool conditional) {
    const bool visited = find(object).has_value();
    const auto reference = _referenceObject(object, conditional);
    if (!reference || reference->value == 0) {
        return reference;
    }
    const auto index = static_cast<CFIndex>(reference->value);
    if constexpr (kIsPlainValue<T>) {
        if (!visited) {
            objects_.SetAt(index, addressOf(object));
        }
    } else {
        if (!visited) {
            objects_.SetAt(index, encode_impl(object).get());
        }
        add_container(object);
    }
    return reference;
}

// Readers meet an object wherever it stands, so one that is written already counts again.
template <class T>
void keyed_archiver::add_container(const T &object) {
    const instance &encoded = instances_.at(addressOf(object));
    if (contexts_.size() - 1 + encoded.height > detail::kMaxEncodingDepth) {
        throw archiver_exceptions::limit_exceeded(kTooDeep);
    }
    contexts_.back().height = std::max(contexts_.back().height, encoded.height);
    add_members(encoded.members);
}

void keyed_archiver::add_members(std::size_t count) {
    std::size_t &members = contexts_.back().members;
    if (count > detail::kMaxMembers - members) {
        throw archiver_exceptions::limit_exceeded("Objects have too many members to be archived");
    }
    members += count;
}

template <class T>
std::optional<keyed_archiver::uid> keyed_archiver::_referenceObject(const T &object,
                                                                    bool conditional) {
    if (addressOf(object) == nullptr) {
        return uid{0};
    }
    if (const auto known = find(object)) {
        return known;
    }
    if (conditional) {
        return std::nullopt;
    }
    const uid reference{static_cast<std::uint32_t>(objects_.GetCount())};
    note(object, reference);
    objects_.Append(detail::null_object_reference_name().get());
    return reference;
}

template <class T>
CF::Dictionary keyed_archiver::encode_impl(const T &object) {
    if (contexts_.size() > detail::kMaxEncodingDepth) {
        throw archiver_exceptions::limit_exceeded(kTooDeep);
    }
    contexts_.push_back({CF::Dictionary::Mutable()});
    encodeFields(object, *this);
    _setObjectInCurrentEncodingContext(_classReference(object), CFSTR("$class"), false);
    const detail::encoding_context finished = contexts_.back();
    contexts_.pop_back();
    // Absent when this is called for an object by itself.
    if (const auto known = instances_.find(addressOf(object)); known != instances_.end()) {
        known->second.members = finished.members;
        known->second.height = finished.height + 1;
    }
    return finished.dictionary;
}

template <class T>
std::optional<keyed_archiver::uid> keyed_archiver::_classReference(const T &object) {
    const std::string name = classNameOf(object);
    if (const auto known = classes_.find(name); known != classes_.end()) {
        return known->second;
    }
    const auto reference = _addObject(make_class_dictionary(object));
    classes_.emplace(name, *reference);
    return reference;
}

template <class T>
CF::Dictionary keyed_archiver::make_class_dictionary(const T &object) {
    const CF::String name(classNameOf(object));
    const auto chain = CF::Array::Mutable();
    chain.Append(name.get());
    chain.Append(CFSTR("NSObject"));
    const auto dictionary = CF::Dictionary::Mutable();
    dictionary.Set(CFSTR("$classname"), name.get());
    dictionary.Set(CFSTR("$classes"), chain.get());
    return dictionary;
}

template <class T>
std::optional<keyed_archiver::uid> keyed_archiver::_addObject(const T &object) {
    const auto reference = _referenceObject(object, false);
    if (!reference) {
        throw std::runtime_error("keyed_archiver::_referenceObject did not return a value but "
                                 "conditional was false");
    }
    objects_.SetAt(static_cast<CFIndex>(reference->value), object.get());
    return reference;
}

template <class V>
void keyed_archiver::_setObjectInCurrentEncodingContext(const V &value, const CF::String &key,
                                                        bool escape) {
    const CF::String resolved = resolve_key(key, escape);
    if constexpr (std::is_same_v<V, std::optional<uid>>) {
        set_object_impl(value, resolved);
    } else {
        contexts_.back().dictionary.Set(resolved.get(), value.get());
    }
}

void keyed_archiver::set_object_impl(const std::optional<uid> &reference, const CF::String &key) {
    if (!reference) {
        Abort(std::runtime_error("Attempted to set a key to a nullopt uid"));
    }
    contexts_.back().dictionary.Set(key.get(), reference->to_dict().get());
}

CF::String keyed_archiver::resolve_key(const CF::String &key, bool escape) {
    if (!key.IsEmpty()) {
        return detail::escaped_key(key, escape);
    }
    return CF::String::Format(CFSTR("$%u"), contexts_.back().generated_keys++);
}

template <class T>
bool keyed_archiver::have_visited(const T &value) const {
    return find(value).has_value();
}

template <class T>
void keyed_archiver::store_obj(const T &value, uid reference) {
    values_.emplace(CF::AutoPointer(addressOf(value)), reference);
}

template <class T>
std::optional<keyed_archiver::uid> keyed_archiver::find(const T &object) const {
    if (addressOf(object) == nullptr) {
        return std::nullopt;
    }
    if constexpr (kIsPlainValue<T>) {
        const auto known = values_.find(CF::AutoPointer(addressOf(object)));
        return known == values_.end() ? std::nullopt : std::optional(known->second);
    } else {
        const auto known = instances_.find(addressOf(object));
        return known == instances_.end() ? std::nullopt : std::optional(known->second.reference);
    }
}

template <class T>
void keyed_archiver::note(const T &object, uid reference) {
    if constexpr (kIsPlainValue<T>) {
        store_obj(object, reference);
    } else {
        instances_.emplace(addressOf(object), instance{reference, keeperOf(object)});
    }
}

CF::Dictionary keyed_archiver::finishEncoding() {
    const auto archive = CF::Dictionary::Mutable();
    archive.Set(CFSTR("$archiver"), CFSTR("NSKeyedArchiver"));
    archive.Set(CFSTR("$version"), CF::Number::FromInt32(kArchiveVersion).get());
    archive.Set(CFSTR("$top"), contexts_.front().dictionary.get());
    archive.Set(CFSTR("$objects"), objects_.get());
    return archive;
}

template <class T>
CF::Dictionary make_keyed_archive(const T &object) {
    keyed_archiver archiver;
    archiver._encodeObject(object, detail::root_object_key(), false);
    return archiver.finishEncoding();
}

#define KV_INSTANTIATE_OBJECT(T)                                                                   \
    template KV_VISIBLE void keyed_archiver::_encodeObject(const T &, const CF::String &, bool);   \
    template KV_VISIBLE std::optional<keyed_archiver::uid> keyed_archiver::_encodeObject(          \
        const T &, bool);                                                                          \
    template KV_VISIBLE std::optional<keyed_archiver::uid> keyed_archiver::_referenceObject(       \
        const T &, bool);                                                                          \
    template KV_VISIBLE CF::Dictionary make_keyed_archive(const T &);
#define KV_INSTANTIATE_CLASS(T)                                                                    \
    KV_INSTANTIATE_OBJECT(T)                                                                       \
    template KV_VISIBLE CF::Dictionary keyed_archiver::encode_impl(const T &);                     \
    template KV_VISIBLE std::optional<keyed_archiver::uid> keyed_archiver::_classReference(        \
        const T &);                                                                                \
    template KV_VISIBLE CF::Dictionary keyed_archiver::make_class_dictionary(const T &);
#define KV_INSTANTIATE_SETTER(V)                                                                   \
    template KV_VISIBLE void keyed_archiver::_setObjectInCurrentEncodingContext(                   \
        const V &, const CF::String &, bool);
#define KV_INSTANTIATE_VALUE(T)                                                                    \
    KV_INSTANTIATE_OBJECT(T)                                                                       \
    KV_INSTANTIATE_SETTER(T)                                                                       \
    template KV_VISIBLE bool keyed_archiver::have_visited(const T &) const;                        \
    template KV_VISIBLE void keyed_archiver::store_obj(const T &, keyed_archiver::uid);

KV_INSTANTIATE_VALUE(CF::String)
KV_INSTANTIATE_VALUE(CF::Data)
KV_INSTANTIATE_VALUE(CF::Number)
KV_INSTANTIATE_VALUE(CF::AutoPointer)
KV_INSTANTIATE_CLASS(MB::File)
KV_INSTANTIATE_CLASS(CF::Dictionary)
KV_INSTANTIATE_CLASS(CF::Array)
KV_INSTANTIATE_SETTER(CF::Dictionary)
KV_INSTANTIATE_SETTER(CF::Array)
KV_INSTANTIATE_SETTER(std::optional<keyed_archiver::uid>)
template KV_VISIBLE std::optional<keyed_archiver::uid>
keyed_archiver::_addObject(const CF::Dictionary &);

} // namespace ZK
