// Dictionaries and arrays as archived objects, in both directions.

#include "ZK/keyed_archiver.hpp"
#include "ZK/keyed_unarchiver.hpp"

#include <utility>

namespace CF {

namespace {

using Reference = ZK::detail::keyed_archiver_uid;
using References = std::vector<Reference>;

// The values of the types that objects can be archived as; whatever else there is (a
// boolean, a date) stands in the table as it is, too.
std::optional<Reference> encodeMember(CFTypeRef value, ZK::keyed_archiver &archiver) {
    if (const auto string = String::Cast(value)) {
        return archiver._encodeObject(string, false);
    }
    if (const auto data = Data::Cast(value)) {
        return archiver._encodeObject(data, false);
    }
    if (const auto number = Number::Cast(value)) {
        return archiver._encodeObject(number, false);
    }
    if (const auto array = Array::Cast(value)) {
        return archiver._encodeObject(array, false);
    }
    if (const auto dictionary = Dictionary::Cast(value)) {
        return archiver._encodeObject(dictionary, false);
    }
    return archiver._encodeObject(AutoPointer(value), false);
}

void appendMember(const Array &references, CFTypeRef value, ZK::keyed_archiver &archiver) {
    // Unconditional, so there always is a number.
    references.Append(encodeMember(value, archiver).value().to_dict().get());
}

struct Pairs {
    std::vector<CFTypeRef> keys;
    std::vector<CFTypeRef> values;
};

// Not by callback: encoding may throw, and callers of callbacks are C.
Pairs pairsOf(const Dictionary &dictionary) {
    const auto count = static_cast<std::size_t>(dictionary.GetCount());
    Pairs pairs{std::vector<CFTypeRef>(count), std::vector<CFTypeRef>(count)};
    if (count > 0) {
        CFDictionaryGetKeysAndValues(dictionary.get(), pairs.keys.data(), pairs.values.data());
    }
    return pairs;
}

bool isContainer(CFTypeRef value) { return Array::Cast(value) || Dictionary::Cast(value); }

} // namespace

std::string class_name(const Dictionary &) { return "NSDictionary"; }
std::string class_name(const Array &) { return "NSArray"; }

void encode(const Dictionary &dictionary, ZK::keyed_archiver &archiver) {
    const auto keys = Array::Mutable();
    const auto objects = Array::Mutable();
    const Pairs pairs = pairsOf(dictionary);
    archiver.add_members(2 * pairs.keys.size());
    for (std::size_t i = 0; i < pairs.keys.size(); ++i) {
        appendMember(keys, pairs.keys[i], archiver);
        appendMember(objects, pairs.values[i], archiver);
    }
    archiver._setObjectInCurrentEncodingContext(keys, CFSTR("NS.keys"), true);
    archiver._setObjectInCurrentEncodingContext(objects, CFSTR("NS.objects"), true);
}

void encode(const Array &array, ZK::keyed_archiver &archiver) {
    const auto objects = Array::Mutable();
    archiver.add_members(static_cast<std::size_t>(array.GetCount()));
    for (CFIndex i = 0; i < array.GetCount(); ++i) {
        appendMember(objects, array.GetAt(i), archiver);
    }
    archiver._setObjectInCurrentEncodingContext(objects, CFSTR("NS.objects"), true);
}

std::optional<Dictionary> decode(Dictionary *, ZK::keyed_unarchiver &unarchiver) {
    const auto archived = unarchiver.get_class();
    if (!archived || !validate_name<Dictionary>(archived->name)) {
        return std::nullopt;
    }
    const auto keys = unarchiver.decode<References>(CFSTR("NS.keys"));
    const auto objects = unarchiver.decode<References>(CFSTR("NS.objects"));
    if (!keys || !objects || keys->size() != objects->size()) {
        return std::nullopt;
    }
    auto dictionary = Dictionary::Mutable();
    std::size_t containerKeys = 0;
    for (std::size_t i = 0; i < keys->size(); ++i) {
        const auto key = unarchiver.get_member((*keys)[i]);
        const auto value = unarchiver.get_member((*objects)[i]);
        if (!key.value || !value.value) {
            continue;
        }
        if (isContainer(key.value.get())) {
            // Containers of one size hash alike, so each key is compared with those before.
            unarchiver.charge(containerKeys++ * (key.members + 1));
        }
        dictionary.Set(key.value.get(), value.value.get());
    }
    return dictionary;
}

std::optional<Array> decode(Array *, ZK::keyed_unarchiver &unarchiver) {
    if (const auto value = Array::Cast(unarchiver.current().get())) {
        return unarchiver.copy_plain_array(value);
    }
    const auto archived = unarchiver.get_class();
    if (!archived || !validate_name<Array>(archived->name)) {
        return std::nullopt;
    }
    const auto objects = unarchiver.decode<References>(CFSTR("NS.objects"));
    if (!objects) {
        return std::nullopt;
    }
    auto array = Array::Mutable();
    for (const Reference reference : *objects) {
        if (const auto member = unarchiver.get_member(reference); member.value) {
            array.Append(member.value.get());
        }
    }
    return array;
}

} // namespace CF
