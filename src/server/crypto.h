#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace server {

// Bytes from the operating system's cryptographic generator (through OpenSSL); throws std::runtime_error
// when the generator fails, which must never degrade into a predictable value.
std::string randomBytes(std::size_t count);

// A six-digit sign-in code, uniformly distributed over 000000 to 999999.
std::string newSignInCode();

// A session token: 256 random bits as 64 lower-case hexadecimal digits.
std::string newSessionToken();

// SHA-256 of `data` as lower-case hexadecimal: how codes and tokens are kept at rest.
std::string sha256Hex(std::string_view data);

// Comparison whose duration does not depend on where the inputs differ.
bool constantTimeEqual(std::string_view a, std::string_view b);

}  // namespace server
