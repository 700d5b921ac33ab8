// Reads a Manifest.db whose schema and rows the input chooses, and writes it anew.
#include "fuzz/DatabaseRoundTrip.hpp"
#include "fuzz/DatabaseRows.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    const Fuzz::Workplace work;
    Fuzz::Input input(bytes, size);
    const std::string path = (work / "Manifest.db").string();
    Fuzz::WriteDatabase(path, input);
    Fuzz::CheckDatabase(work, path);
    return 0;
}
