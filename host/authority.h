// Authority: the OAuth 2.0 authority that signs people in, its addresses, the two forms of its
// requests, and the national clouds.
//
// The identity platform's documents: "Microsoft identity platform and OAuth 2.0 ..." (v2.0) and
// "National clouds". Form v2 names scopes and is RFC 6749's; the older form v1 names a resource.
//
// Plain values and pure functions; callable from any thread.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "host/http_client.h"

namespace host {

/// One of the clouds that the service runs in. Tokens of one are good in no other.
struct Cloud {
  const char* name;          ///< for --cloud
  const char* authority;     ///< without a path
  const char* unified_api;   ///< without a path
  const char* drive_domain;  ///< every drive's host ends in it, the dot included
};

std::span<const Cloud> Clouds();
/// nullptr: there is none.
const Cloud* FindCloud(std::string_view name);
const Cloud* CloudOfUnifiedApi(std::string_view address);
const Cloud* CloudOfAuthority(std::string_view authority);

inline constexpr const char* kDefaultTenant = "organizations";

/// Where tokens are issued. `authority`: "https://login.example", or with the tenant as its path,
/// which then counts instead of `tenant`.
std::string TokenUrl(std::string authority, const std::string& tenant);

/// The authority of a token address, without its tenant; empty when that has another form.
std::string AuthorityOf(const std::string& token_url);

/// The organisation that the token address names: a domain, an id, or "organizations".
std::string TenantOf(const std::string& token_url);

/// Where a device login starts, and where a browser goes: beside the token address. Empty when that
/// has another form.
std::string DeviceUrl(const std::string& token_url);
std::string AuthorizeUrl(const std::string& token_url);

/// Whether the authority is asked in its older form, as ".../oauth2/token" is.
bool IsOldForm(const std::string& token_url);

/// What a request says it wants tokens for: `resource`, or the scope of all permissions that the
/// application was given there, with one for renewing the sign-in.
std::pair<std::string, std::string> WantedField(const std::string& token_url,
                                                const std::string& resource);

}  // namespace host
