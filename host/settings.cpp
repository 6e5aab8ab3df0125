#include "host/settings.h"

#include <optional>

#include "base/json_text.h"
#include "host/authority.h"
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
  const bool other_cloud =
      !settings.unified_api.empty() && settings.unified_api != fallback.unified_api;
  const bool drive_is_known =
      !settings.discovery_url.empty() || !settings.service_endpoint.empty() || other_cloud;
  for (const ServiceSetting& setting : kServiceSettings) {
    std::string& value = settings.*setting.member;
    if (value.empty() && !(setting.finds_drive && drive_is_known)) {
      value = fallback.*setting.member;
    }
  }
}

void SetAuthority(ServiceSettings& settings, const AuthorityChoice& choice,
                  const ServiceSettings& known) {
  const bool tenant_alone = choice.cloud.empty() && choice.authority.empty();
  if (const std::string authority = AuthorityOf(known.token_url);
      tenant_alone && !choice.tenant.empty() && !authority.empty()) {
    if (settings.token_url.empty()) settings.token_url = TokenUrl(authority, choice.tenant);
    return;
  }
  const std::string address = choice.authority.empty() ? settings.token_url : choice.authority;
  const Cloud* cloud = CloudOfAuthority(address);
  if (!choice.cloud.empty()) cloud = FindCloud(choice.cloud);
  if (!choice.cloud.empty() && cloud == nullptr) {
    throw Failure(FailureKind::kUsage, "there is no cloud " + Quoted(choice.cloud));
  }
  if (address.empty() && cloud == nullptr) cloud = Clouds().data();
  if (settings.token_url.empty()) {
    settings.token_url =
        TokenUrl(choice.authority.empty() ? cloud->authority : choice.authority, choice.tenant);
  }
  if (!settings.unified_api.empty()) return;
  if (cloud != nullptr) {
    settings.unified_api = cloud->unified_api;
  } else {
    // Of an authority that is in no cloud we know of, only its own host can be asked.
    settings.unified_api = OriginOf(Url(settings.token_url));
  }
}

bool NeedsDrive(const ServiceSettings& settings) {
  return settings.service_endpoint.empty() && settings.discovery_url.empty();
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
  if (!settings.unified_api.empty()) CheckAddress("the unified API", settings.unified_api);
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
  // Such a file tells all ways to the drive; the first of these is the one a real account takes.
  const bool is_asked_for = !result.settings.unified_api.empty();
  if (is_asked_for) result.settings.discovery_url.clear();
  if (is_asked_for || !result.settings.discovery_url.empty()) {
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
