// Response bodies as JSON.
#pragma once

#include "support/json_object.h"
#include "transport/transfer_result.h"

namespace onedrive4b {

/// Text of a response body as JSON. Throws JSON_PARSE_FAILED.
inline JsonObject ParseBody(const _CURLRTN& exchange) {
  return JsonObject(exchange.body.get(), exchange.bodylen);
}

}  // namespace onedrive4b
