// The pages on which a person signs in.
// Threads: pure. Lifetime: results own their text.
#pragma once

#include <string>

#include "emulator/drive/identity.h"
#include "emulator/http/message.h"
#include "emulator/text/encoding.h"

namespace emulator {

Response DeviceCodePage(const std::string& unknown_code);
Response DeviceAnswerPage(const Identity& user, bool approved);

/// Asks whether the application may sign in as `user`; the answer comes as a POST with all fields
/// of `question` and, when it is no, "decline".
Response ConsentPage(const Identity& user, const FormFields& question);

/// A page instead of a redirect, for a request that names no address to be trusted.
Response RefusalPage(const std::string& text);

}  // namespace emulator
