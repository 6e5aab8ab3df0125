// Identifiers and secrets in the forms the service gives them, from the system's generator.
// Threads: callable from any. Lifetime: results own their text. Throws std::runtime_error when the
// system has no randomness to give.
#pragma once

#include <cstddef>
#include <string>

namespace emulator {

std::string RandomBytes(std::size_t count);

/// Lower case, as in client ids and trace ids: "0f8fad5b-d9cb-469f-a165-70867728950e".
std::string RandomGuid();

/// "01" and 32 characters of base32.
std::string RandomItemId();

/// "b!" and 64 characters of base64url.
std::string RandomDriveId();

/// An opaque token with `entropy` random bytes.
std::string RandomToken(std::size_t entropy);

}  // namespace emulator
