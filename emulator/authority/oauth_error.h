// Error documents of the token endpoint: {"error", "error_description", "error_codes", ...}.
// Threads: pure. Lifetime: the result owns its text.
#pragma once

#include <string>

#include "emulator/http/message.h"

namespace emulator {

/// `code` is the number behind "AADSTS" in the public list of error codes; 0: none is listed.
Response OAuthError(const std::string& error, int code, const std::string& description);

/// AADSTS900144
Response MissingParameter(const std::string& name);

}  // namespace emulator
