#include "host/authority.h"

#include <algorithm>
#include <array>

#include "host/url.h"

namespace host {
namespace {

constexpr std::array<Cloud, 4> kClouds = {{
    {"global", "https://login.microsoftonline.com", "https://graph.microsoft.com",
     ".sharepoint.com"},
    {"us-gov", "https://login.microsoftonline.us", "https://graph.microsoft.us", ".sharepoint.us"},
    {"us-dod", "https://login.microsoftonline.us", "https://dod-graph.microsoft.us",
     ".sharepoint-mil.us"},
    {"china", "https://login.chinacloudapi.cn", "https://microsoftgraph.chinacloudapi.cn",
     ".sharepoint.cn"},
}};

constexpr std::string_view kToken = "/token";
constexpr std::string_view kOldToken = "/oauth2/token";

template <class Matches>
const Cloud* Find(const Matches& matches) {
  const auto* const found = std::find_if(kClouds.begin(), kClouds.end(), matches);
  return found == kClouds.end() ? nullptr : found;
}

std::string WithoutSlashes(std::string_view address) {
  while (address.ends_with('/')) address.remove_suffix(1);
  return std::string(address);
}

/// Where the tenant begins, "https://login.example/TENANT/oauth2/..."; 0: there is none.
std::size_t TenantAt(const std::string& token_url) {
  const std::size_t end = token_url.find("/oauth2/");
  const std::size_t host = token_url.find("://");
  if (end == std::string::npos || host == std::string::npos) return 0;
  const std::size_t slash = token_url.rfind('/', end - 1);
  return slash < host + 3 ? 0 : slash + 1;
}

/// The address beside the token address.
std::string Beside(const std::string& token_url, const char* name) {
  if (!token_url.ends_with(kToken)) return {};
  return token_url.substr(0, token_url.size() - kToken.size()) + name;
}

}  // namespace

std::span<const Cloud> Clouds() { return kClouds; }

const Cloud* FindCloud(std::string_view name) {
  return Find([&](const Cloud& cloud) { return cloud.name == name; });
}

const Cloud* CloudOfUnifiedApi(std::string_view address) {
  return Find([&](const Cloud& cloud) { return cloud.unified_api == WithoutSlashes(address); });
}

const Cloud* CloudOfAuthority(std::string_view authority) {
  return Find([&](const Cloud& cloud) {
    const std::string_view known = cloud.authority;
    return authority == known || authority.starts_with(std::string(known) + '/');
  });
}

std::string TokenUrl(std::string authority, const std::string& tenant) {
  authority = WithoutSlashes(authority);
  constexpr std::string_view kVersion = "/v2.0";  // of the issuer's name
  if (authority.ends_with(kVersion)) authority.resize(authority.size() - kVersion.size());
  constexpr std::string_view kOauth = "/oauth2";
  if (authority.ends_with(kOauth)) authority.resize(authority.size() - kOauth.size());
  if (Url(authority).Part(CURLUPART_PATH).size() <= 1) {
    authority += '/' + (tenant.empty() ? kDefaultTenant : tenant);
  }
  return authority + "/oauth2/v2.0/token";
}

std::string AuthorityOf(const std::string& token_url) {
  const std::size_t tenant = TenantAt(token_url);
  return tenant == 0 ? std::string() : token_url.substr(0, tenant - 1);
}

std::string TenantOf(const std::string& token_url) {
  const std::size_t tenant = TenantAt(token_url);
  return tenant == 0 ? std::string()
                     : token_url.substr(tenant, token_url.find('/', tenant) - tenant);
}

std::string DeviceUrl(const std::string& token_url) { return Beside(token_url, "/devicecode"); }

std::string AuthorizeUrl(const std::string& token_url) { return Beside(token_url, "/authorize"); }

bool IsOldForm(const std::string& token_url) { return token_url.ends_with(kOldToken); }

std::pair<std::string, std::string> WantedField(const std::string& token_url,
                                                const std::string& resource) {
  if (IsOldForm(token_url)) return {"resource", resource};
  return {"scope", WithoutSlashes(resource) + "/.default offline_access"};
}

}  // namespace host
