// Memory that held a key or a password is overwritten before it is given back.
#pragma once

#include <openssl/crypto.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ZK {

// Overwrites the bytes in a way that the compiler does not remove.
inline void Wipe(void *bytes, std::size_t length) noexcept { OPENSSL_cleanse(bytes, length); }
template <std::size_t N>
void Wipe(std::array<std::uint8_t, N> &bytes) noexcept {
    Wipe(bytes.data(), bytes.size());
}
inline void Wipe(std::vector<std::uint8_t> &bytes) noexcept { Wipe(bytes.data(), bytes.size()); }
inline void Wipe(std::string &text) noexcept { Wipe(text.data(), text.size()); }

// Wipes a variable of the enclosing scope when the scope is left, however it is left.
template <class T>
class WipeOnExit {
  public:
    explicit WipeOnExit(T &value) noexcept : value_(value) {}
    WipeOnExit(const WipeOnExit &) = delete;
    WipeOnExit &operator=(const WipeOnExit &) = delete;
    ~WipeOnExit() { Wipe(value_); }

  private:
    T &value_;
};

// A key that wipes itself. Copies are keys of their own, each wiped in turn.
template <std::size_t N>
class SecretArray {
  public:
    SecretArray() noexcept = default;
    SecretArray(const std::array<std::uint8_t, N> &bytes) noexcept : bytes_(bytes) {}
    SecretArray(const SecretArray &) noexcept = default;
    SecretArray &operator=(const SecretArray &) noexcept = default;
    ~SecretArray() { Wipe(bytes_); }

    const std::array<std::uint8_t, N> &get() const noexcept { return bytes_; }
    std::array<std::uint8_t, N> &get() noexcept { return bytes_; }

  private:
    std::array<std::uint8_t, N> bytes_{};
};

} // namespace ZK
