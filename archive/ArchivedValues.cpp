// Values (strings, data, numbers) and class dictionaries as they are read from archives.

#include "ZK/keyed_unarchiver.hpp"

#include <string_view>
#include <type_traits>

namespace {

// The Foundation classes of a type: its own and the mutable subclass, which numbers lack.
struct ClassNames {
    std::string_view immutable;
    std::string_view mutableSubclass;
};

template <class T>
constexpr ClassNames classNames() {
    if constexpr (std::is_same_v<T, CF::String>) {
        return {"NSString", "NSMutableString"};
    } else if constexpr (std::is_same_v<T, CF::Data>) {
        return {"NSData", "NSMutableData"};
    } else if constexpr (std::is_same_v<T, CF::Number>) {
        return {"NSNumber", "NSNumber"};
    } else if constexpr (std::is_same_v<T, CF::Array>) {
        return {"NSArray", "NSMutableArray"};
    } else {
        return {"NSDictionary", "NSMutableDictionary"};
    }
}

// Whether the current object is a dictionary of fields that has a class.
bool hasClass(const ZK::keyed_unarchiver &unarchiver) {
    const auto object = CF::Dictionary::Cast(unarchiver.current().get());
    return object.GetValue(CFSTR("$class")) != nullptr;
}

template <class T>
std::optional<CF::AutoPointer> attempt(std::optional<T> decoded) {
    return decoded ? std::optional(CF::AutoPointer(decoded->GetCFObject())) : std::nullopt;
}

} // namespace

namespace CF {

template <class T>
bool validate_name(const std::string &name) {
    constexpr ClassNames kNames = classNames<T>();
    return name == kNames.immutable || name == kNames.mutableSubclass;
}

template <class T>
std::optional<T> raw_cftype_decode(ZK::keyed_unarchiver &unarchiver, const String &key) {
    if (hasClass(unarchiver)) {
        const auto archived = unarchiver.get_class();
        if (!archived || !validate_name<T>(archived->name)) {
            return std::nullopt;
        }
        return unarchiver.decode<T>(key);
    }
    const AutoPointer entry = unarchiver.current();
    const T value = T::Cast(entry.get());
    return value || !entry ? std::optional<T>(value) : std::nullopt;
}

std::optional<AutoPointer> try_decode(ZK::keyed_unarchiver &unarchiver) {
    if (auto string = attempt(raw_cftype_decode<String>(unarchiver, CFSTR("NS.string")))) {
        return string;
    }
    if (auto number = attempt(raw_cftype_decode<Number>(unarchiver, CFSTR("NS.number")))) {
        return number;
    }
    if (auto data = attempt(raw_cftype_decode<Data>(unarchiver, CFSTR("NS.data")))) {
        return data;
    }
    if (auto array = attempt(decode(static_cast<Array *>(nullptr), unarchiver))) {
        return array;
    }
    return attempt(decode(static_cast<Dictionary *>(nullptr), unarchiver));
}

template KV_VISIBLE bool validate_name<String>(const std::string &);
template KV_VISIBLE bool validate_name<Data>(const std::string &);
template KV_VISIBLE bool validate_name<Number>(const std::string &);
template KV_VISIBLE bool validate_name<Array>(const std::string &);
template KV_VISIBLE bool validate_name<Dictionary>(const std::string &);
template KV_VISIBLE std::optional<String> raw_cftype_decode(ZK::keyed_unarchiver &, const String &);
template KV_VISIBLE std::optional<Data> raw_cftype_decode(ZK::keyed_unarchiver &, const String &);
template KV_VISIBLE std::optional<Number> raw_cftype_decode(ZK::keyed_unarchiver &, const String &);

} // namespace CF

namespace ZK::detail {

namespace {

std::string classNameOf(const CF::String &name) {
    if (name.GetLength() > kMaxClassNameLength) {
        throw archiver_exceptions::limit_exceeded("Archive names a class too long");
    }
    return name.GetUTF8();
}

} // namespace

std::optional<archived_class> decode(archived_class *, keyed_unarchiver &unarchiver) {
    const auto object = CF::Dictionary::Cast(unarchiver.current().get());
    const auto name = object.Get<CF::String>(CFSTR("$classname"));
    if (!name) {
        return std::nullopt;
    }
    archived_class archived{classNameOf(name), {}};
    const auto chain = object.Get<CF::Array>(CFSTR("$classes"));
    if (chain.GetCount() > kMaxClassChainLength) {
        throw archiver_exceptions::limit_exceeded("Archive has a class with too many ancestors");
    }
    for (CFIndex i = 0; i < chain.GetCount(); ++i) {
        if (const auto ancestor = CF::String::Cast(chain.GetAt(i))) {
            archived.chain.push_back(classNameOf(ancestor));
        }
    }
    return archived;
}

} // namespace ZK::detail
