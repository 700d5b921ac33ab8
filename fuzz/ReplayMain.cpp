// Runs a driver over files, each once: the corpus as a test, or a crash to look into.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size);

int main(int count, char **files) {
    if (count < 2) {
        std::fprintf(stderr, "usage: %s FILE...\n", files[0]);
        return 2;
    }
    for (int i = 1; i < count; ++i) {
        std::ifstream file(files[i], std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
        if (!file) {
            std::fprintf(stderr, "cannot read %s\n", files[i]);
            return 1;
        }
        // Named first, so that a crash tells its input.
        std::printf("%s (%zu bytes)\n", files[i], bytes.size());
        std::fflush(stdout);
        (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()),
                                     bytes.size());
    }
    return 0;
}
