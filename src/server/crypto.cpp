#include "crypto.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <stdexcept>

namespace server {

namespace {

std::string toHex(const unsigned char* bytes, std::size_t count) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(count * 2);
    for (std::size_t i = 0; i < count; ++i) {
        hex += digits[bytes[i] >> 4];
        hex += digits[bytes[i] & 0x0f];
    }
    return hex;
}

}  // namespace

std::string randomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1) {
        throw std::runtime_error("the system's random generator failed");
    }
    return bytes;
}

std::string newSignInCode() {
    // 4,294 million is the largest multiple of a million below 2^32: values above it are drawn again,
    // so that the remainder favours no code.
    constexpr std::uint32_t limit = 4'294'000'000U;
    for (;;) {
        const std::string bytes = randomBytes(4);
        std::uint32_t value = 0;
        for (const char byte : bytes) {
            value = (value << 8) | static_cast<unsigned char>(byte);
        }
        if (value < limit) {
            std::array<char, 8> code{};
            std::snprintf(code.data(), code.size(), "%06u", static_cast<unsigned>(value % 1'000'000U));
            return code.data();
        }
    }
}

std::string newSessionToken() {
    const std::string bytes = randomBytes(32);
    return toHex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string sha256Hex(std::string_view data) {
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    SHA256(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest.data());
    return toHex(digest.data(), digest.size());
}

bool constantTimeEqual(std::string_view a, std::string_view b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace server
