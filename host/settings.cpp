#include "host/settings.h"

#include <cstdlib>
#include <memory>
#include <optional>

#include <curl/curl.h>

#include "host/failure.h"
#include "host/local_files.h"
#include "host/text.h"

namespace host {
namespace {

constexpr std::size_t kMostServiceFileBytes = 1 << 16;
constexpr std::uint16_t kDefaultProxyPort = 1080;

/// A parsed address, by libcurl's own parser so that both see the same parts.
class Url {
 public:
  explicit Url(const std::string& text) : url_(curl_url(), &curl_url_cleanup) {
    ok_ = url_ != nullptr && curl_url_set(url_.get(), CURLUPART_URL, text.c_str(),
                                          CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
  }

  bool ok() const noexcept { return ok_; }

  std::string Part(CURLUPart part, unsigned flags = 0) const {
    char* text = nullptr;
    if (!ok_ || curl_url_get(url_.get(), part, &text, flags) != CURLUE_OK) return {};
    const std::unique_ptr<char, decltype(&curl_free)> owner(text, &curl_free);
    return text;
  }

 private:
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url_;
  bool ok_ = false;
};

bool IsLoopback(const std::string& name) {
  return name == "localhost" || name == "[::1]" || name.starts_with("127.");
}

void CheckAddress(const char* name, const std::string& address) {
  const Url url(address);
  const std::string scheme = url.Part(CURLUPART_SCHEME);
  if (!url.ok() || (scheme != "https" && scheme != "http")) {
    throw Failure(FailureKind::kUsage, std::string(name) + " is no http(s) address");
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
    throw Failure(FailureKind::kUsage, "no client id is known",
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
                  "the service file " + Quoted(file.string()) + " is no JSON object");
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
                                           " lacks token_url or refresh_token");
  }
  return result;
}

ProxySettings ParseProxy(const std::string& url, bool tunnel) {
  constexpr const char* kForms = "use socks4://, socks5:// or http://[user:password@]host[:port]";
  const Url parsed(url);
  const std::string scheme = parsed.Part(CURLUPART_SCHEME);
  ProxySettings proxy;
  if (scheme == "socks4") {
    proxy.type = "SOCKS4";
  } else if (scheme == "socks5") {
    proxy.type = "SOCKS5";
  } else if (scheme == "http") {
    proxy.type = tunnel ? "HTTP with TUNNEL" : "HTTP without TUNNEL";
  } else {
    throw Failure(FailureKind::kUsage, "the proxy address is not understood", kForms);
  }
  if (!tunnel && scheme != "http") {
    throw Failure(FailureKind::kUsage, "--proxy-no-tunnel needs an http:// proxy");
  }
  proxy.host = parsed.Part(CURLUPART_HOST);
  const std::string path = parsed.Part(CURLUPART_PATH);
  if (proxy.host.empty() || (path != "/" && !path.empty()) ||
      !parsed.Part(CURLUPART_QUERY).empty()) {
    throw Failure(FailureKind::kUsage, "the proxy address is not understood", kForms);
  }
  const std::string port = parsed.Part(CURLUPART_PORT);
  proxy.port = port.empty() ? kDefaultProxyPort
                            : static_cast<std::uint16_t>(std::strtoul(port.c_str(), nullptr, 10));
  proxy.user = parsed.Part(CURLUPART_USER, CURLU_URLDECODE);
  proxy.password = parsed.Part(CURLUPART_PASSWORD, CURLU_URLDECODE);
  return proxy;
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
