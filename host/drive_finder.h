// Finding the user's drive: asked of the unified API, or given by the address of a site.
//
// "Get Drive" and "Use the OneDrive API" of the service's public documents: the drive's service is
// at "_api/v2.0" below the site that the drive belongs to.
//
// Callable from any thread. What the context names must outlive the call.
#pragma once

#include <string>

#include "host/authorizer.h"
#include "host/settings.h"

namespace host {

/// Sets endpoint and resource from the address of the user's site, as the browser's address bar
/// shows it: "https://contoso-my.sharepoint.com/personal/name/...". Throws a kUsage Failure.
void SetSite(ServiceSettings& settings, const std::string& address);

/// Asks the unified API for the drive of the account that the context's profile is signed in with,
/// and sets endpoint and resource. The address is taken only in the user's own cloud, or at a host
/// that the user has named. Throws Failure: kSignIn when the account has no such drive, may not
/// ask, or the answer is not to be trusted.
void FindDrive(ServiceSettings& settings, const AuthorizerContext& context);

}  // namespace host
