// Browser login: the person signs in with the browser of this machine, which brings an
// authorization code to a listener of ours on loopback (RFC 8252, with RFC 7636's proof that the
// code was asked for here).
//
// One thread; the cancellation ends the wait.
#pragma once

#include <functional>
#include <string>

#include "host/login.h"

namespace host {

/// Opens the address in the browser, or shows it.
using OpenBrowser = std::function<void(const std::string& address)>;

/// Returns the refresh token. Throws a kSignIn Failure when the authority refuses, the person
/// declines, or nobody signs in within ten minutes.
std::string LogInByBrowser(const LoginContext& context, const OpenBrowser& open);

}  // namespace host
