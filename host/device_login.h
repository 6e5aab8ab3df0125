// Device login: the person signs in with a browser on any device, the program waits and gets the
// tokens (RFC 8628; in the authority's older form, with its names).
//
// One thread; the cancellation ends the wait.
#pragma once

#include <functional>
#include <string>

#include "host/login.h"

namespace host {

/// Shows the person where to go and which code to enter, both escaped.
using ShowCode = std::function<void(const std::string& address, const std::string& code)>;

/// Returns the refresh token. Throws a kSignIn Failure when the authority refuses, the person
/// declines or the code expires; while it waits, an authority that has trouble is asked again.
std::string LogInByDevice(const LoginContext& context, const ShowCode& show);

}  // namespace host
