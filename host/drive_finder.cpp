#include "host/drive_finder.h"

#include <optional>

#include <strings.h>

#include "base/json_text.h"
#include "host/authority.h"
#include "host/authority_error.h"
#include "host/text.h"
#include "host/url.h"

namespace host {
namespace {

constexpr const char* kQuestion = "/v1.0/me/drive?$select=id,driveType,webUrl,owner,quota";
constexpr const char* kGiveSite =
    "open the drive in a browser and give the address that it shows with --site";

bool EndsWith(const std::string& host, std::string_view domain) {
  return host.size() > domain.size() &&
         strncasecmp(host.data() + host.size() - domain.size(), domain.data(), domain.size()) == 0;
}

/// The first part of the path that belongs to the site: "/personal/name", "/sites/name", or "" for
/// the host's own site.
std::string SitePath(const std::string& path) {
  for (const std::string_view kind : {"/personal/", "/sites/", "/teams/"}) {
    if (path.size() <= kind.size() || strncasecmp(path.data(), kind.data(), kind.size()) != 0) {
      continue;
    }
    return path.substr(0, path.find('/', kind.size()));
  }
  return {};
}

struct SiteAddress {
  std::string origin;
  std::string host;
  std::string path;
};

/// Nothing when it is not the address of a site, or has something that such an address never has.
std::optional<SiteAddress> ReadAddress(const std::string& address) {
  const Url url(address);
  const std::string scheme = url.Part(CURLUPART_SCHEME);
  SiteAddress site{.origin = {}, .host = url.Part(CURLUPART_HOST), .path = {}};
  const bool safe = scheme == "https" || (scheme == "http" && IsLoopback(site.host));
  if (!url.ok() || !safe || site.host.empty() || !url.Part(CURLUPART_USER).empty() ||
      !url.Part(CURLUPART_PASSWORD).empty()) {
    return std::nullopt;
  }
  site.origin = OriginOf(url);
  site.path = SitePath(url.Part(CURLUPART_PATH));
  return site;
}

void Take(ServiceSettings& settings, const SiteAddress& site, const char* from) {
  settings.service_endpoint = site.origin + site.path + "/_api/v2.0";
  settings.service_resource = site.origin + '/';
  settings.drive_from = from;
}

/// Whether a token may go to this host: the user's cloud owns it, or the user has named it.
bool IsTrusted(const SiteAddress& site, const ServiceSettings& settings) {
  if (const Cloud* cloud = CloudOfUnifiedApi(settings.unified_api)) {
    const bool has_port = site.origin.find(':', site.origin.find("://") + 3) != std::string::npos;
    return !has_port && EndsWith(site.host, cloud->drive_domain);
  }
  const std::string named = Url(settings.unified_api).Part(CURLUPART_HOST);
  return strcasecmp(site.host.c_str(), named.c_str()) == 0 ||
         (IsLoopback(named) && IsLoopback(site.host));
}

HttpResponse Ask(const std::string& url, const AuthorizerContext& context,
                 const std::string& resource) {
  try {
    const std::string token = Authorizer(context).AccessToken(resource);
    context.log.Line(LOGLEVEL_INFO, "[AUTHORITY ] GET " + url);
    HttpResponse response = context.http.Get(url, token, &context.cancellation);
    context.log.Line(LOGLEVEL_INFO, "[AUTHORITY ] HTTP " + std::to_string(response.status));
    return response;
  } catch (const ProxyError& error) {
    throw Failure(FailureKind::kProxy, error.what(),
                  "check the proxy's address, type, user name and password");
  } catch (const HttpError& error) {
    context.cancellation.Check();
    throw Failure(FailureKind::kUnreachable,
                  "the drive cannot be found: " + std::string(error.what()), kGiveSite);
  }
}

/// Throws unless the answer describes a drive.
Json::Value DriveIn(const HttpResponse& response, const Redactor& redactor) {
  const auto fail = [](FailureKind kind, const std::string& what, const char* advice) {
    throw Failure(kind, "the drive cannot be found: " + what, advice);
  };
  if (response.status == 404) {
    fail(FailureKind::kSignIn, "the account has none",
         "ask an administrator for a licence that includes OneDrive, and open the drive once in a "
         "browser");
  }
  if (response.status == 401 || response.status == 403) {
    fail(FailureKind::kSignIn, "the application lacks the permission to ask for it",
         "add the delegated permission Files.ReadWrite.All of the unified API to its registration, "
         "or give the drive's address with --site");
  }
  const auto document = base::ParseJsonObject(response.body);
  if (response.status == 429 || response.status >= 500) {
    fail(FailureKind::kTrouble, "the unified API answered HTTP " + std::to_string(response.status),
         "try again later");
  }
  if (response.status != 200 || !document) {
    fail(FailureKind::kSignIn,
         "the unified API answered HTTP " + std::to_string(response.status) + ' ' +
             EscapeForTerminal(redactor.Redact(response.content_type)),
         kGiveSite);
  }
  if (base::TextMember(*document, "driveType").value_or("") == "personal") {
    fail(FailureKind::kSignIn, "this is a personal account, which has another service",
         "sign in with an account of your organisation");
  }
  return *document;
}

}  // namespace

void SetSite(ServiceSettings& settings, const std::string& address) {
  const auto site = ReadAddress(address);
  if (!site) {
    throw Failure(FailureKind::kUsage, "the site is not an https address", kGiveSite);
  }
  Take(settings, *site, kDriveFromSite);
}

void FindDrive(ServiceSettings& settings, const AuthorizerContext& context) {
  std::string api = settings.unified_api;
  while (api.ends_with('/')) api.pop_back();
  const HttpResponse response = Ask(api + kQuestion, context, api);
  const Json::Value drive = DriveIn(response, context.redactor);
  const std::string address = base::TextMember(drive, "webUrl").value_or("");
  const auto site = ReadAddress(address);
  if (!site || !IsTrusted(*site, settings)) {
    throw Failure(FailureKind::kSignIn,
                  "the drive cannot be found: the unified API names an address outside of the "
                  "cloud that you signed in to: " +
                      Quoted(Shortened(context.redactor.Redact(address), 200)),
                  "if you trust that host, give the address with --site");
  }
  Take(settings, *site, kDriveFromUnifiedApi);
}

}  // namespace host
