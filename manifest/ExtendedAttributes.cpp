#include "manifest/ExtendedAttributes.hpp"

#include "support/cf/CF.hpp"

namespace Kelvane {

CF::Dictionary DecodeExtendedAttributes(CFTypeRef kept) {
    const CF::Data data = CF::Data::Cast(kept);
    if (!data) {
        return {};
    }
    const auto attributes = CF::PropertyListType<CF::Dictionary>::FromPropertyListData(data);
    bool textsAndData = true;
    attributes.ForEach([&](CFTypeRef name, CFTypeRef value) {
        textsAndData = textsAndData && CFGetTypeID(name) == CFStringGetTypeID() &&
                       CFGetTypeID(value) == CFDataGetTypeID();
    });
    return textsAndData ? attributes : CF::Dictionary();
}

} // namespace Kelvane
