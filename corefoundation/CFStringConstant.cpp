// Interned constant strings.
#include "corefoundation/Checks.hpp"
#include "corefoundation/StringStorage.hpp"
#include "corefoundation/TextEncoding.hpp"

#include <mutex>
#include <string_view>
#include <unordered_map>

namespace {

using namespace CFInternal;

struct Table {
    std::mutex mutex;
    // Keys are copies: a literal goes away when its library is unloaded.
    std::unordered_map<std::string, CFStringRef> strings;
};

// Never destroyed, since other libraries use constants in their static destructors.
Table &table() {
    static Table &instance = *new Table;
    return instance;
}

CFStringRef createImmortal(std::string_view utf8) {
    alignas(UniChar) char scratch[256];
    TextBuffer text(nullptr, scratch);
    decodeUTF8Lossy(Bytes(reinterpret_cast<const std::uint8_t *>(utf8.data()), utf8.size()),
                    [&](UniChar unit) { text.appendUnit(unit); });
    CFStringRef string = createString(kCFAllocatorDefault, text.view());
    requireMemory(string != nullptr);
    makeImmortal(string);
    return string;
}

} // namespace

CFStringRef __CFStringMakeConstantString(const char *utf8) {
    if (utf8 == nullptr) {
        fatal("CFSTR", "null text");
    }
    if (*utf8 == '\0') {
        return retainedEmptyString(); // without memory, for those who cannot do without it
    }
    Table &constants = table();
    const std::scoped_lock lock(constants.mutex);
    CFStringRef &slot = constants.strings[utf8];
    if (slot == nullptr) {
        slot = createImmortal(utf8);
    }
    return slot;
}
