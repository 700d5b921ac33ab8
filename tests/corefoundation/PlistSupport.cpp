#include "tests/corefoundation/PlistSupport.hpp"

#include "corefoundation/CFNumberInternal.hpp"

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDate.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFKeyedArchiverUID.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreFoundation/CFString.h>
#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <ostream>

namespace PlistTest {

namespace {

std::string Hex(std::uint64_t value, std::size_t width) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 2 * width; i-- > 0;) {
        text += kDigits[value >> (4 * i) & 0xF];
    }
    return text;
}

std::string DoubleHex(double value) {
    return Hex(std::bit_cast<std::uint64_t>(
                   std::isnan(value) ? std::numeric_limits<double>::quiet_NaN() : value),
               8);
}

std::string UnitsHex(CFStringRef string) {
    std::string text;
    for (CFIndex i = 0; i < CFStringGetLength(string); ++i) {
        text += Hex(CFStringGetCharacterAtIndex(string, i), 2);
    }
    return text;
}

std::string DumpNumber(CFNumberRef number) {
    std::int64_t high = 0;
    std::uint64_t low = 0;
    if (!_CFNumberGetInt128(number, &high, &low)) {
        double value = 0;
        CFNumberGetValue(number, kCFNumberFloat64Type, &value);
        return "r" + DoubleHex(value);
    }
    if (high == 0) {
        return "i" + std::to_string(low);
    }
    if (high == -1 && static_cast<std::int64_t>(low) < 0) {
        return "i" + std::to_string(static_cast<std::int64_t>(low));
    }
    return "I" + Hex(static_cast<std::uint64_t>(high), 8) + Hex(low, 8);
}

std::string DumpData(CFDataRef data) {
    std::string text = "d";
    for (CFIndex i = 0; i < CFDataGetLength(data); ++i) {
        text += Hex(CFDataGetBytePtr(data)[i], 1);
    }
    return text;
}

std::string Join(const std::vector<std::string> &parts) {
    std::string text;
    for (const std::string &part : parts) {
        text += (text.empty() ? "" : ",") + part;
    }
    return text;
}

std::string DumpArray(CFArrayRef array) {
    std::vector<std::string> parts;
    for (CFIndex i = 0; i < CFArrayGetCount(array); ++i) {
        parts.push_back(Dump(CFArrayGetValueAtIndex(array, i)));
    }
    return "[" + Join(parts) + "]";
}

std::string DumpDictionary(CFDictionaryRef dictionary) {
    const auto count = static_cast<std::size_t>(CFDictionaryGetCount(dictionary));
    std::vector<const void *> keys(count);
    std::vector<const void *> values(count);
    CFDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
    std::vector<std::pair<std::string, std::string>> pairs;
    for (std::size_t i = 0; i < count; ++i) {
        pairs.emplace_back(UnitsHex(static_cast<CFStringRef>(keys[i])), Dump(values[i]));
    }
    std::sort(pairs.begin(), pairs.end());
    std::vector<std::string> parts;
    for (const auto &[key, value] : pairs) {
        parts.push_back(key + "=" + value);
    }
    return "{" + Join(parts) + "}";
}

std::string Utf8(CFStringRef string) {
    std::string text(static_cast<std::size_t>(4 * CFStringGetLength(string) + 1), '\0');
    CFStringGetCString(string, text.data(), static_cast<CFIndex>(text.size()),
                       kCFStringEncodingUTF8);
    return text.c_str();
}

// Takes the error over.
Fault FaultOf(CFErrorRef error) {
    if (error == nullptr) {
        return {};
    }
    const Held owner(error);
    const Held reason(CFErrorCopyFailureReason(error));
    return {CFErrorGetCode(error),
            reason ? Utf8(static_cast<CFStringRef>(reason.get())) : std::string(),
            CFEqual(CFErrorGetDomain(error), kCFErrorDomainCocoa) != 0};
}

std::string DumpOrReason(const Reading &reading) {
    return reading.root ? Dump(reading.root.get()) : reading.fault.reason;
}

} // namespace

Held Text(std::u16string_view text) {
    return Held(CFStringCreateWithCharacters(nullptr,
                                             reinterpret_cast<const UniChar *>(text.data()),
                                             static_cast<CFIndex>(text.size())));
}
Held Text(std::string_view ascii) {
    return Held(CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8 *>(ascii.data()),
                                        static_cast<CFIndex>(ascii.size()), kCFStringEncodingASCII,
                                        false));
}
Held Integer(std::int64_t value) {
    return Held(CFNumberCreate(nullptr, kCFNumberSInt64Type, &value));
}
Held Unsigned(std::uint64_t value) { return Wide(0, value); }
Held Wide(std::int64_t high, std::uint64_t low) {
    return Held(_CFNumberCreateWithInt128(nullptr, high, low));
}
Held Real(double value) { return Held(CFNumberCreate(nullptr, kCFNumberFloat64Type, &value)); }
Held Float(float value) { return Held(CFNumberCreate(nullptr, kCFNumberFloat32Type, &value)); }
Held Truth(bool value) { return Held(CFRetain(value ? kCFBooleanTrue : kCFBooleanFalse)); }
Held Date(double seconds) { return Held(CFDateCreate(nullptr, seconds)); }
Held Data(const Octets &bytes) {
    return Held(CFDataCreate(nullptr, bytes.data(), static_cast<CFIndex>(bytes.size())));
}
Held Uid(std::uint32_t value) { return Held(_CFKeyedArchiverUIDCreate(nullptr, value)); }

Held Array(const std::vector<CFTypeRef> &members) {
    std::vector<const void *> values(members.begin(), members.end());
    return Held(CFArrayCreate(nullptr, values.data(), static_cast<CFIndex>(values.size()),
                              &kCFTypeArrayCallBacks));
}

Held Dictionary(const std::vector<std::pair<CFTypeRef, CFTypeRef>> &pairs) {
    CFMutableDictionaryRef dictionary = CFDictionaryCreateMutable(
        nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    for (const auto &[key, value] : pairs) {
        CFDictionarySetValue(dictionary, key, value);
    }
    return Held(dictionary);
}

Held NestedArrays(unsigned depth) {
    Held root = Array({});
    for (unsigned i = 1; i < depth; ++i) {
        root = Array({root.get()});
    }
    return root;
}

std::string Dump(CFTypeRef object) {
    const CFTypeID type = CFGetTypeID(object);
    if (type == CFStringGetTypeID()) {
        return "s" + UnitsHex(static_cast<CFStringRef>(object));
    }
    if (type == CFDataGetTypeID()) {
        return DumpData(static_cast<CFDataRef>(object));
    }
    if (type == CFNumberGetTypeID()) {
        return DumpNumber(static_cast<CFNumberRef>(object));
    }
    if (type == CFBooleanGetTypeID()) {
        return object == kCFBooleanTrue ? "t" : "f";
    }
    if (type == CFDateGetTypeID()) {
        return "D" + DoubleHex(CFDateGetAbsoluteTime(static_cast<CFDateRef>(object)));
    }
    if (type == _CFKeyedArchiverUIDGetTypeID()) {
        return "u" + std::to_string(
                         _CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(object)));
    }
    if (type == CFNullGetTypeID()) {
        return "null";
    }
    return type == CFArrayGetTypeID() ? DumpArray(static_cast<CFArrayRef>(object))
                                      : DumpDictionary(static_cast<CFDictionaryRef>(object));
}

std::ostream &operator<<(std::ostream &out, const Fault &fault) {
    return out << fault.code << (fault.isCocoa ? " (Cocoa) " : " (other domain) ") << fault.reason;
}

Fault Corrupt(std::string reason) {
    return {kCFPropertyListReadCorruptError, std::move(reason), true};
}
Fault Unwritable(std::string reason) {
    return {kCFPropertyListWriteStreamError, std::move(reason), true};
}

Reading Read(const Octets &document, CFOptionFlags options) {
    // A buffer of just that size, so that the sanitizers see every byte too many.
    const Octets exact(document.begin(), document.end());
    const Held data(CFDataCreateWithBytesNoCopy(
        nullptr, exact.data(), static_cast<CFIndex>(exact.size()), kCFAllocatorNull));
    Reading reading;
    CFErrorRef error = nullptr;
    reading.root.reset(CFPropertyListCreateWithData(nullptr, static_cast<CFDataRef>(data.get()),
                                                    options, &reading.format, &error));
    reading.fault = FaultOf(error);
    return reading;
}
Reading Read(std::string_view document, CFOptionFlags options) {
    return Read(Octets(document.begin(), document.end()), options);
}

std::string DumpOf(std::string_view document) { return DumpOrReason(Read(document)); }
std::string DumpOf(const Octets &document) { return DumpOrReason(Read(document)); }

Writing Write(CFTypeRef root, CFPropertyListFormat format) {
    Writing writing;
    CFErrorRef error = nullptr;
    const Held data(CFPropertyListCreateData(nullptr, root, format, 0, &error));
    if (data) {
        const auto *bytes = static_cast<CFDataRef>(data.get());
        writing.document.assign(CFDataGetBytePtr(bytes),
                                CFDataGetBytePtr(bytes) + CFDataGetLength(bytes));
    }
    writing.fault = FaultOf(error);
    return writing;
}

std::string WriteXML(CFTypeRef root) {
    const Writing writing = Write(root, kCFPropertyListXMLFormat_v1_0);
    return writing.fault.code == 0 ? std::string(writing.document.begin(), writing.document.end())
                                   : writing.fault.reason;
}

Octets WriteBinary(CFTypeRef root) {
    return Write(root, kCFPropertyListBinaryFormat_v1_0).document;
}

} // namespace PlistTest
