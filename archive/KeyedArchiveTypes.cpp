#include "ZK/keyed_archive_types.hpp"

#include "support/cf/Number.hpp"

// The platform has this type but no public header for it; the stand-in's header
// declares what both have.
#ifdef __APPLE__
extern "C" {
typedef const struct __CFKeyedArchiverUID *CFKeyedArchiverUIDRef;
CFTypeID _CFKeyedArchiverUIDGetTypeID(void);
uint32_t _CFKeyedArchiverUIDGetValue(CFKeyedArchiverUIDRef uid);
}
#else
#include <CoreFoundation/CFKeyedArchiverUID.h>
#endif

#include <limits>

namespace ZK::detail {

namespace {

const CFStringRef kUIDKey = CFSTR("CF$UID");

std::optional<keyed_archiver_uid> uidOfDictionary(const CF::Dictionary &dictionary) {
    if (dictionary.GetCount() != 1) {
        return std::nullopt;
    }
    const auto number = dictionary.Get<CF::Number>(kUIDKey);
    if (!number || CFNumberIsFloatType(number.get())) {
        return std::nullopt;
    }
    const auto [high, low] = number.GetWide();
    if (high != 0 || low > std::numeric_limits<std::int32_t>::max()) {
        return std::nullopt;
    }
    return keyed_archiver_uid{static_cast<std::uint32_t>(low)};
}

} // namespace

CF::Dictionary keyed_archiver_uid::to_dict() const {
    const auto dictionary = CF::Dictionary::Mutable();
    dictionary.Set(kUIDKey, CF::Number::FromInt32(static_cast<std::int32_t>(value)).get());
    return dictionary;
}

std::optional<keyed_archiver_uid> extract_uid(CFTypeRef value) {
    if (value == nullptr) {
        return std::nullopt;
    }
    if (CFGetTypeID(value) == _CFKeyedArchiverUIDGetTypeID()) {
        return keyed_archiver_uid{
            _CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(value))};
    }
    return uidOfDictionary(CF::Dictionary::Cast(value));
}

CF::String root_object_key() { return CFSTR("root"); }

CF::String null_object_reference_name() { return CFSTR("$null"); }

CF::String escaped_key(const CF::String &key, bool escape) {
    if (!escape || key.IsEmpty() || CFStringGetCharacterAtIndex(key.get(), 0) != '$') {
        return key;
    }
    return CF::String::Format(CFSTR("$%@"), key.get());
}

} // namespace ZK::detail
