// Reads the input as a Manifest.db and writes it anew.
#include "fuzz/DatabaseRoundTrip.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    const Fuzz::Workplace work;
    Fuzz::CheckDatabase(work, work.Write("Manifest.db", {bytes, size}));
    return 0;
}
