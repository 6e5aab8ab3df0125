// Device login: the person signs in with a browser on any device, the program waits and gets the
// tokens (RFC 8628, with the authority's parameter names).
//
// One thread; the cancellation ends the wait.
#pragma once

#include <functional>
#include <string>

#include "host/cancellation.h"
#include "host/http_client.h"
#include "host/log.h"
#include "host/redaction.h"
#include "host/settings.h"

namespace host {

struct DeviceLoginContext {
  const ServiceSettings& settings;
  const HttpClient& http;
  Cancellation& cancellation;
  Log& log;
  Redactor& redactor;
};

/// Shows the person where to go and which code to enter, both escaped.
using ShowCode = std::function<void(const std::string& address, const std::string& code)>;

/// Returns the refresh token. Throws a kSignIn Failure when the authority refuses, the person
/// declines or the code expires.
std::string LogInByDevice(const DeviceLoginContext& context, const ShowCode& show);

}  // namespace host
