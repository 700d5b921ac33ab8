#include "manifest/MbdbFields.hpp"

#include "manifest/MbdbLimits.hpp"
#include "support/cf/CF.hpp"

namespace Kelvane::MbdbFields {

namespace {

// The mark of an absent value.
constexpr auto kAbsent = static_cast<std::uint16_t>(kMbdbByteStringLimit);

std::uint16_t LengthField(std::size_t length, Empty empty) {
    return length == 0 && empty == Empty::AsAbsent ? kAbsent : static_cast<std::uint16_t>(length);
}

// Empty when a name is no string or a value no data; the flag tells that from no properties.
CF::Array PropertyNames(CFDictionaryRef properties, bool &representable) {
    const auto names = CF::Array::Mutable();
    CF::Dictionary(properties).ForEach([&](CFTypeRef name, CFTypeRef value) {
        representable = representable && CFGetTypeID(name) == CFStringGetTypeID() &&
                        CFGetTypeID(value) == CFDataGetTypeID();
        names.Append(name);
    });
    if (!representable) {
        return CF::Array::Mutable();
    }
    CFArraySortValues(
        const_cast<CFMutableArrayRef>(names.get()), CFRangeMake(0, names.GetCount()),
        [](const void *a, const void *b, void *) {
            return CFStringCompare(static_cast<CFStringRef>(a), static_cast<CFStringRef>(b), 0);
        },
        nullptr);
    return names;
}

} // namespace

bool AppendData(Output &output, CFDataRef data, Empty empty) {
    const auto length = static_cast<std::size_t>(CFDataGetLength(data));
    if (length >= kMbdbByteStringLimit) {
        return false;
    }
    AppendInteger(output, LengthField(length, empty));
    const UInt8 *const bytes = CFDataGetBytePtr(data);
    output.insert(output.end(), bytes, bytes + length);
    return true;
}

bool AppendText(Output &output, CFStringRef text, Empty empty) {
    const CFIndex units = CFStringGetLength(text);
    if (static_cast<std::size_t>(units) >= kMbdbByteStringLimit) {
        return false; // each unit takes a byte at least
    }
    constexpr std::size_t kMaximumBytesPerUnit = 3;
    const std::size_t start = output.size();
    const std::size_t textStart = start + sizeof(std::uint16_t);
    output.resize(textStart + static_cast<std::size_t>(units) * kMaximumBytesPerUnit);
    CFIndex written = 0;
    const CFIndex converted = CFStringGetBytes(
        text, CFRangeMake(0, units), kCFStringEncodingUTF8, 0, false, output.data() + textStart,
        static_cast<CFIndex>(output.size() - textStart), &written);
    const auto length = static_cast<std::size_t>(written);
    if (converted != units || length >= kMbdbByteStringLimit) {
        return false;
    }
    output.resize(textStart + length);
    const std::uint16_t field = LengthField(length, empty);
    output[start] = static_cast<std::uint8_t>(field >> 8);
    output[start + 1] = static_cast<std::uint8_t>(field);
    return true;
}

bool AppendProperties(Output &output, CFDictionaryRef properties, Empty empty) {
    bool representable = true;
    const CF::Array names = PropertyNames(properties, representable);
    const CFIndex count = names.GetCount();
    output.push_back(static_cast<std::uint8_t>(count));
    for (CFIndex i = 0; representable && i < count; ++i) {
        const auto *const name = static_cast<CFStringRef>(names.GetAt(i));
        const auto *const value = static_cast<CFDataRef>(CFDictionaryGetValue(properties, name));
        representable = AppendText(output, name, empty) && AppendData(output, value, empty);
    }
    return representable;
}

} // namespace Kelvane::MbdbFields
