#include "emulator/authority/oauth_error.h"

#include "base/json_text.h"
#include "emulator/text/random_text.h"
#include "emulator/text/time_text.h"

namespace emulator {

Response OAuthError(const std::string& error, int code, const std::string& description) {
  std::string timestamp = Rfc3339(Now());
  timestamp[10] = ' ';
  const std::string trace_id = RandomGuid();
  const std::string correlation_id = RandomGuid();
  Json::Value document;
  document["error"] = error;
  document["error_description"] =
      (code == 0 ? std::string() : "AADSTS" + std::to_string(code) + ": ") + description +
      "\r\nTrace ID: " + trace_id + "\r\nCorrelation ID: " + correlation_id +
      "\r\nTimestamp: " + timestamp;
  document["error_codes"] = Json::arrayValue;
  if (code != 0) document["error_codes"].append(code);
  document["timestamp"] = timestamp;
  document["trace_id"] = trace_id;
  document["correlation_id"] = correlation_id;
  return JsonResponse(400, base::CompactJson(document));
}

Response MissingParameter(const std::string& name) {
  return OAuthError("invalid_request", 900144,
                    "The request body must contain the following parameter: '" + name + "'.");
}

}  // namespace emulator
