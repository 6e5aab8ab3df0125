// Serves one connection: reads HTTP/1.1 requests from a wire until it ends, hands each to a handler
// and sends the answers.
// Threads: the connection's own. Lifetime: returns when the connection is over.
#pragma once

#include <string>

#include "emulator/http/message.h"
#include "emulator/http/wire.h"

namespace emulator {

void ServeConnection(Wire& wire, const std::string& origin, const Handler& handler);

}  // namespace emulator
