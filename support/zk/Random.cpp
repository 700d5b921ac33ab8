#include "support/zk/Encryption.hpp"
#include "support/zk/OpenSSL.hpp"

#include <openssl/rand.h>

namespace ZK::Encryption {

std::vector<std::uint8_t> RandomBytes(std::size_t count) {
    std::vector<std::uint8_t> bytes(count);
    // The generator for secrets: its output goes into keys.
    if (RAND_priv_bytes_ex(nullptr, bytes.data(), bytes.size(), 0) != 1) {
        detail::Fail("No random bytes available");
    }
    return bytes;
}

} // namespace ZK::Encryption
