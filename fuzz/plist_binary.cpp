// Binary property lists: what can be read can be written, and reads back as the same.
#include "fuzz/PlistRoundTrip.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    static constexpr std::uint8_t kMagic[] = {'b', 'p', 'l', 'i', 's', 't'};
    if (size >= sizeof kMagic && std::memcmp(bytes, kMagic, sizeof kMagic) == 0) {
        FuzzPlist::CheckRoundTrip(bytes, size, kCFPropertyListBinaryFormat_v1_0);
    }
    return 0;
}
