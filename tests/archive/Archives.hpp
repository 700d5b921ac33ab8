// Archives put together by hand, well-formed or not.
#pragma once

#include "ZK/archiver_exceptions.hpp"
#include "ZK/keyed_archiver.hpp"
#include "ZK/keyed_unarchiver.hpp"
#include "support/cf/CF.hpp"

#include <CoreFoundation/CFKeyedArchiverUID.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace ArchiveTest {

using Value = CF::AutoPointer;
using Fields = std::vector<std::pair<std::string, Value>>;

inline Value String(const std::string &text) { return CF::String(text).get(); }
inline Value Number(std::int64_t number) { return CF::Number::FromInt64(number).get(); }
inline Value Data(const std::vector<std::uint8_t> &bytes) { return CF::Data(bytes).get(); }
inline Value Array(const std::vector<Value> &values) {
    const auto array = CF::Array::Mutable();
    for (const Value &value : values) {
        array.Append(value.get());
    }
    return array.get();
}
inline Value Dictionary(const Fields &fields) {
    const auto dictionary = CF::Dictionary::Mutable();
    for (const auto &[key, value] : fields) {
        dictionary.Set(CF::String(key).get(), value.get());
    }
    return dictionary.get();
}

// The two forms of a reference.
inline Value UID(std::uint32_t number) {
    return CF::Adopt<CFTypeRef>(_CFKeyedArchiverUIDCreate(kCFAllocatorDefault, number));
}
inline Value UIDDictionary(std::int64_t number) { return Dictionary({{"CF$UID", Number(number)}}); }
inline Value UIDs(std::initializer_list<std::uint32_t> numbers) {
    std::vector<Value> values;
    for (const std::uint32_t number : numbers) {
        values.push_back(UID(number));
    }
    return Array(values);
}

// {"$classname": first, "$classes": chain}.
inline Value Class(const std::vector<std::string> &chain) {
    std::vector<Value> names;
    for (const std::string &name : chain) {
        names.push_back(String(name));
    }
    return Dictionary({{"$classname", String(chain.front())}, {"$classes", Array(names)}});
}

// An archive whose object table is "$null" and the given objects, numbered from 1. The
// root is number 1 unless said otherwise.
inline CF::Dictionary Archive(const std::vector<Value> &objects, const Value &root = UID(1)) {
    std::vector<Value> table = {String("$null")};
    table.insert(table.end(), objects.begin(), objects.end());
    return CF::Dictionary::Cast(Dictionary({{"$archiver", String("NSKeyedArchiver")},
                                            {"$version", Number(100000)},
                                            {"$top", Dictionary({{"root", root}})},
                                            {"$objects", Array(table)}})
                                    .get());
}

// The same archive with one of its keys replaced, or left out for a null value.
inline CF::Dictionary With(const CF::Dictionary &archive, const std::string &key,
                           const Value &value) {
    const auto changed = CF::Dictionary::MutableCopy(archive.get());
    if (value) {
        changed.Set(CF::String(key).get(), value.get());
    } else {
        changed.Remove(CF::String(key).get());
    }
    return changed;
}

// What an exception of exactly this kind says; a failure when another or none comes.
template <class Exception, class Body>
std::string MessageOf(Body body) {
    try {
        body();
    } catch (const Exception &exception) {
        return exception.what();
    } catch (const std::exception &exception) {
        ADD_FAILURE() << "another exception: " << exception.what();
        return {};
    }
    ADD_FAILURE() << "no exception";
    return {};
}

// Parts of a finished archive.
inline CF::Array Objects(const CF::Dictionary &archive) {
    return archive.Get<CF::Array>(CFSTR("$objects"));
}
inline CF::Dictionary ObjectAt(const CF::Dictionary &archive, CFIndex index) {
    return CF::Dictionary::Cast(Objects(archive).GetAt(index));
}
// The number under a key that must hold a {"CF$UID": number} dictionary; -1 otherwise.
inline std::int64_t ReferenceIn(const CF::Dictionary &object, const std::string &key) {
    const auto reference = object.Get<CF::Dictionary>(CF::String(key).get());
    const auto number = reference.Get<CF::Number>(CFSTR("CF$UID"));
    return reference.GetCount() == 1 && number ? number.GetInt64() : -1;
}
inline std::string StringAt(const CF::Dictionary &archive, CFIndex index) {
    return CF::String::Cast(Objects(archive).GetAt(index)).GetUTF8();
}

} // namespace ArchiveTest
