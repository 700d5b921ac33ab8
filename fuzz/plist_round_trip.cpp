// Property lists of any values, made from choices. Each format gives back what was written,
// and one format read and written in the other loses nothing.
#include "fuzz/Input.hpp"
#include "fuzz/PlistRoundTrip.hpp"

namespace {

using Value = CF::AutoPointer;
using Fuzz::Require;

constexpr int kMaxDepth = 6;

Value Number(Fuzz::Input &input) {
    switch (input.Byte() % 3) {
    case 0: {
        const auto integer = input.Number<std::int64_t>();
        return CF::Adopt<CFTypeRef>(CFNumberCreate(nullptr, kCFNumberSInt64Type, &integer));
    }
    case 1: {
        const auto bits = input.Number<std::uint32_t>();
        float real = 0;
        std::memcpy(&real, &bits, sizeof real);
        return CF::Adopt<CFTypeRef>(CFNumberCreate(nullptr, kCFNumberFloat32Type, &real));
    }
    default: {
        const auto bits = input.Number<std::uint64_t>();
        double real = 0;
        std::memcpy(&real, &bits, sizeof real);
        return CF::Adopt<CFTypeRef>(CFNumberCreate(nullptr, kCFNumberFloat64Type, &real));
    }
    }
}

// XML has a dictionary with this key for a reference, and cannot tell it from one.
CF::String TextOf(Fuzz::Input &input) {
    const CF::String text = Fuzz::Text(input);
    return text && text != CF::String("CF$UID") ? text : CF::String("");
}

// Values made before stand in several places.
Value Make(Fuzz::Input &input, int depth, std::vector<Value> &made);

Value Container(Fuzz::Input &input, int depth, std::vector<Value> &made, bool dictionary) {
    const auto array = CF::Array::Mutable();
    const auto pairs = CF::Dictionary::Mutable();
    for (int left = input.Byte() % 20; left > 0 && !input.AtEnd(); --left) {
        if (dictionary) {
            const CF::String key = TextOf(input);
            pairs.Set(key.get(), Make(input, depth + 1, made).get());
        } else {
            array.Append(Make(input, depth + 1, made).get());
        }
    }
    return dictionary ? Value(pairs.get()) : Value(array.get());
}

Value Make(Fuzz::Input &input, int depth, std::vector<Value> &made) {
    const std::uint8_t kind = input.Byte();
    Value value;
    switch (kind % 8) {
    case 0:
        value = Value(kind / 8 % 2 == 0 ? kCFBooleanTrue : kCFBooleanFalse);
        break;
    case 1:
        value = Number(input);
        break;
    case 2:
        value = Value(CF::Data(input.Piece()).get());
        break;
    case 3: // whole seconds between the years 1 and 9999, as XML has them
        value = CF::Adopt<CFTypeRef>(CFDateCreate(
            nullptr,
            static_cast<double>(input.Number<std::uint64_t>() % 315537897600) - 63113904000));
        break;
    case 4:
    case 5:
        value =
            depth < kMaxDepth ? Container(input, depth, made, kind % 8 == 4) : Value(CFSTR("deep"));
        break;
    case 6:
        value = made.empty() ? Value(CFSTR("first")) : made[input.Byte() % made.size()];
        break;
    default:
        value = Value(TextOf(input).get());
    }
    made.push_back(value);
    return value;
}

// Null for a text that XML cannot carry.
Value Again(const Value &value, CFPropertyListFormat format) {
    const auto bytes =
        CF::Data::Adopt(CFPropertyListCreateData(nullptr, value.get(), format, 0, nullptr));
    if (!bytes) {
        Require(format == kCFPropertyListXMLFormat_v1_0);
        return nullptr;
    }
    const auto read = bytes.GetBytes();
    const Value again = CF::Adopt(FuzzPlist::ReadBytes(read.data(), read.size()));
    Require(again && CFEqual(again.get(), value.get()));
    return again;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    Fuzz::Input input(bytes, size);
    std::vector<Value> made;
    const Value value = Make(input, 0, made);
    const Value binary = Again(value, kCFPropertyListBinaryFormat_v1_0);
    const Value xml = Again(value, kCFPropertyListXMLFormat_v1_0);
    Require(!xml || Again(xml, kCFPropertyListBinaryFormat_v1_0));
    Require(!xml || Again(binary, kCFPropertyListXMLFormat_v1_0));
    return 0;
}
