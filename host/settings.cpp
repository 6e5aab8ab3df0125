#include "host/settings.h"

#include <optional>

#include "base/json_text.h"
#include "host/failure.h"
#include "host/local_files.h"
#include "host/text.h"
#include "host/url.h"

namespace host {
namespace {

constexpr std::size_t kMostServiceFileBytes = 1 << 16;

void CheckAddress(const char* name, const std::string& address) {
  const Url url(address);
  const std::string scheme = url.Part(CURLUPART_SCHEME);
  if (!url.ok() || (scheme != "https" && scheme != "http")) {
    throw Failure(FailureKind::kUsage, std::string(name) + " is not an http or https URL");
  }
  if (scheme == "http" && !IsLoopback(url.Part(CURLUPART_HOST))) {
    throw Failure(FailureKind::kUsage,
                  std::string(name) + " would send tokens unencrypted to another machine",
                  "use an https:// address");
  }
}

}  // namespace

void FillMissing(ServiceSettings& settings, const ServiceSettings& fallback) {
  const bool drive_is_known = !settings.discovery_url.empty() || !settings.service_endpoint.empty();
  for (const ServiceSetting& setting : kServiceSettings) {
    std::string& value = settings.*setting.member;
    if (value.empty() && !(setting.finds_drive && drive_is_known)) {
      value = fallback.*setting.member;
    }
  }
}

void SetAuthority(ServiceSettings& settings, std::string authority) {
  while (authority.ends_with('/')) authority.pop_back();
  if (settings.token_url.empty()) settings.token_url = authority + "/common/oauth2/token";
}

std::string DeviceUrl(const std::string& token_url) {
  constexpr std::string_view kToken = "/token";
  if (!token_url.ends_with(kToken)) return {};
  return token_url.substr(0, token_url.size() - kToken.size()) + "/devicecode";
}

void CheckSettings(const ServiceSettings& settings) {
  if (settings.client_id.empty()) {
    throw Failure(FailureKind::kUsage, "the client id is missing",
                  "give --client-id with the id under which your organisation registered the "
                  "program; the profile remembers it");
  }
  if (settings.service_endpoint.empty() != settings.service_resource.empty()) {
    throw Failure(FailureKind::kUsage, "a preset service needs both its endpoint and its resource",
                  "give --service-endpoint and --service-resource together");
  }
  CheckAddress("the token address", settings.token_url);
  if (!settings.discovery_url.empty()) {
    CheckAddress("the discovery address", settings.discovery_url);
  }
  if (!settings.service_endpoint.empty()) {
    CheckAddress("the service endpoint", settings.service_endpoint);
  }
}

ServiceFile ReadServiceFile(const std::filesystem::path& file) {
  const auto document = base::ParseJsonObject(ReadSmallFile(file, kMostServiceFileBytes));
  if (!document) {
    throw Failure(FailureKind::kUsage,
                  "the service file " + Quoted(file.string()) + " is not a JSON object");
  }
  ServiceFile result;
  for (const ServiceSetting& setting : kServiceSettings) {
    result.settings.*setting.member = base::TextMember(*document, setting.name).value_or("");
  }
  // Such a file tells both ways to the drive; discovery is the one that a real account takes.
  if (!result.settings.discovery_url.empty()) {
    result.settings.service_endpoint.clear();
    result.settings.service_resource.clear();
  }
  result.refresh_token = base::TextMember(*document, "refresh_token").value_or("");
  if (result.settings.token_url.empty() || result.refresh_token.empty()) {
    throw Failure(FailureKind::kUsage, "the service file " + Quoted(file.string()) +
                                           " has no token_url or no refresh_token");
  }
  return result;
}

const std::string& DriveAddress(const ServiceSettings& settings) {
  if (!settings.service_endpoint.empty()) return settings.service_endpoint;
  // Without an address of its own the module asks where the resource's tokens are good.
  return settings.discovery_url.empty() ? settings.discovery_resource : settings.discovery_url;
}

std::string OptionFields(const ProxySettings& proxy, bool show_shared) {
  Json::Value fields(Json::objectValue);
  Json::Value& values = fields["values"];
  values["show_shared"]["value"] = show_shared;
  if (!proxy.type.empty()) {
    Json::Value& value = values["proxy"]["value"];
    value["type"] = proxy.type;
    value["host"] = proxy.host;
    value["port"] = proxy.port;
    value["user"] = proxy.user;
    value["password"] = proxy.password;
  }
  return base::CompactJson(fields);
}

}  // namespace host
