// Format strings. A conversion is written as printf writes it, where printf has it; any
// text at all may be a format, takes its arguments as they come and gives the same twice.
#include "fuzz/Input.hpp"
#include "fuzz/Require.hpp"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <utility>

namespace {

using Fuzz::Require;

// Enough for fields and digits up to here, whatever the number.
constexpr int kMaxField = 200;
constexpr std::size_t kMaxText = 8192;

template <class Argument>
void Compare(const std::string &format, Argument argument) {
    char expected[kMaxText];
    const int size = std::snprintf(expected, sizeof expected, format.c_str(), argument);
    Require(size >= 0 && size < static_cast<int>(sizeof expected));
    const auto text = CF::String::Adopt(
        CFStringCreateWithFormat(nullptr, nullptr, CF::String(format).get(), argument));
    Require(text.GetUTF8() == std::string(expected, static_cast<std::size_t>(size)));
}

// Only flags that the standard defines for the conversion.
std::string FieldOf(Fuzz::Input &input, const char *flags) {
    std::string field = "%";
    const std::uint8_t chosen = input.Byte();
    for (std::size_t i = 0; i < std::strlen(flags); ++i) {
        field += (chosen >> i & 1) != 0 ? std::string(1, flags[i]) : "";
    }
    const std::uint8_t sizes = input.Byte();
    field += sizes % 2 == 1 ? std::to_string(1 + input.Byte() % kMaxField) : "";
    field += sizes / 2 % 2 == 1 ? "." : "";
    return field + (sizes / 4 % 2 == 1 && sizes / 2 % 2 == 1
                        ? std::to_string(input.Byte() % kMaxField)
                        : "");
}

template <class Integer>
void CompareInteger(Fuzz::Input &input, const char *modifier) {
    const char conversion = "diuxXo"[input.Byte() % 6];
    const char *const flags = std::strchr("di", conversion) != nullptr ? "-0+ '"
                              : conversion == 'u'                      ? "-0'"
                                                                       : "-0#";
    const std::string field = FieldOf(input, flags);
    Compare(field + modifier + conversion, input.Number<Integer>());
}

template <class Real>
void CompareReal(Fuzz::Input &input, const char *modifier) {
    const char conversion = "fFeEgGaA"[input.Byte() % 8];
    const std::string field = FieldOf(input, "-0+ #");
    double value = 0;
    const auto bits = input.Number<std::uint64_t>();
    std::memcpy(&value, &bits, sizeof value);
    Compare(field + modifier + conversion, static_cast<Real>(value));
}

void CompareText(Fuzz::Input &input) {
    const std::string field = FieldOf(input, "-");
    std::string text = input.PieceAsText().substr(0, kMaxText / 2);
    for (char &c : text) {
        c = static_cast<char>(c & 0x7f);
    }
    Compare(field + "s", text.c_str());
}

void CompareOne(Fuzz::Input &input) {
    switch (input.Byte() % 10) {
    case 0:
        return CompareInteger<int>(input, "hh");
    case 1:
        return CompareInteger<int>(input, "h");
    case 2:
        return CompareInteger<int>(input, "");
    case 3:
        return CompareInteger<long>(input, "l");
    case 4:
        return CompareInteger<long long>(input, "ll");
    case 5:
        return CompareInteger<std::size_t>(input, "z");
    case 6:
        return CompareInteger<std::intmax_t>(input, "j");
    case 7:
        return CompareReal<long double>(input, "L");
    case 8:
        return CompareReal<double>(input, "");
    default:
        return CompareText(input);
    }
}

// More arguments than a format can name, all one object that lies in memory for good, so
// that any conversion may take it for what it wants.
template <std::size_t... Index>
CF::String FormatAnything(const CF::String &format, std::index_sequence<Index...>) {
    const CFStringRef argument = CFSTR("argument");
    return CF::String::Adopt(CFStringCreateWithFormat(nullptr, nullptr, format.get(),
                                                      (static_cast<void>(Index), argument)...));
}

void FormatText(std::span<const std::uint8_t> bytes) {
    const auto format = CF::String::Adopt(
        CFStringCreateWithBytes(nullptr, bytes.data(), static_cast<CFIndex>(bytes.size()),
                                kCFStringEncodingISOLatin1, false));
    // Each conversion may fill a million columns.
    const auto conversions = std::count(bytes.begin(), bytes.end(), '%');
    constexpr std::ptrdiff_t kMaxConversions = 4;
    if (conversions > kMaxConversions) {
        return;
    }
    constexpr std::make_index_sequence<600> kArguments;
    const CF::String text = FormatAnything(format, kArguments);
    Require(static_cast<bool>(text) && FormatAnything(format, kArguments) == text);
    Require(conversions > 0 || text == format);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    Fuzz::Input input(bytes, size);
    if (input.Byte() % 2 == 0) {
        FormatText(input.Rest());
    }
    while (!input.AtEnd()) {
        CompareOne(input);
    }
    return 0;
}
