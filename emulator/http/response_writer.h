// Puts an answer on a wire, in HTTP/1.1, or as its Delivery would have it.
// Threads: the connection's own. Lifetime: nothing is kept.
#pragma once

#include "emulator/http/message.h"
#include "emulator/http/wire.h"

namespace emulator {

struct SendOptions {
  bool head = false;        // the request was HEAD: no body
  bool keep_alive = false;  // what the request allows
};

/// Whether the connection can take another request. Throws ConnectionLost.
bool SendResponse(Wire& wire, const Response& response, const SendOptions& options);

}  // namespace emulator
