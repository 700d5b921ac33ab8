// XML property lists: what can be read can be written, and reads back as the same.
#include "fuzz/PlistRoundTrip.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    if (size > 0 && bytes[0] != 'b') {
        FuzzPlist::CheckRoundTrip(bytes, size, kCFPropertyListXMLFormat_v1_0);
    }
    return 0;
}
