#include "emulator/authority/authority.h"

#include <algorithm>
#include <utility>

#include "base/json_text.h"
#include "emulator/authority/oauth_error.h"
#include "emulator/http/request_body.h"
#include "emulator/http/service_error.h"
#include "emulator/text/random_text.h"

namespace emulator {
namespace {

/// Resources are compared as the platform does: a slash at the end makes no other one.
std::string_view WithoutSlash(std::string_view resource) {
  if (resource.ends_with('/')) resource.remove_suffix(1);
  return resource;
}

Response HtmlPage(const std::string& body) {
  Response response;
  response.headers = {{"Content-Type", "text/html; charset=utf-8"}, {"Cache-Control", "no-store"}};
  response.text =
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>Sign in</title>"
      "<meta name=\"viewport\" content=\"width=device-width\"></head>\n<body>" +
      body + "</body></html>\n";
  return response;
}

std::string CodeForm(const std::string& notice) {
  return "<h1>Enter code</h1>" + notice +
         "<form method=\"post\"><label>The code shown on your device: "
         "<input name=\"code\" autocomplete=\"off\" autofocus></label> "
         "<button>Continue</button> "
         "<button name=\"decline\" value=\"1\">That was not me</button></form>";
}

/// Nine letters and digits without those that are easily mistaken for one another.
std::string NewUserCode() {
  constexpr std::string_view kAlphabet = "ABCDEFGHJKLMNPQRSTUVWXYZ23456789";
  std::string code;
  for (const char c : RandomBytes(9)) code += kAlphabet[static_cast<unsigned char>(c) & 31U];
  return code;
}

}  // namespace

Authority::Authority(AuthorityOptions options, Identity user)
    : options_(std::move(options)),
      user_(std::move(user)),
      refresh_tokens_(options_.refresh_token_file) {}

Response Authority::Token(Request& request) {
  if (request.method != "POST") {
    return OAuthError(
        "invalid_request", 900561,
        "The endpoint only accepts POST requests. Received a " + request.method + " request.");
  }
  const FormFields form = ReadForm(request);
  const std::string grant = FieldOr(form, "grant_type", "");
  if (grant.empty()) return MissingParameter("grant_type");
  if (auto refusal = CheckClient(form)) return *refusal;
  if (grant == "refresh_token") return TokenByRefresh(form);
  if (grant == "device_code" || grant == "urn:ietf:params:oauth:grant-type:device_code") {
    return TokenByDevice(form);
  }
  return OAuthError("unsupported_grant_type", 70003,
                    "The app requested an unsupported grant type '" + grant + "'.");
}

Response Authority::TokenByRefresh(const FormFields& form) {
  const auto token = form.find("refresh_token");
  if (token == form.end()) return MissingParameter("refresh_token");
  if (auto refusal = CheckResource(form)) return *refusal;
  const std::lock_guard lock(mutex_);
  const RefreshToken* known = refresh_tokens_.Find(token->second);
  if (known == nullptr) {
    return OAuthError("invalid_grant", 70000,
                      "Authentication failed. The refresh token is not valid.");
  }
  if (known->revoked) {
    return OAuthError("invalid_grant", 50173,
                      "The provided grant has expired due to it being revoked. The user might "
                      "have changed or reset their password.");
  }
  if (options_.revoke_used_refresh_tokens) refresh_tokens_.Revoke(token->second);
  return Grant(known->user, FieldOr(form, "resource", ""));
}

Response Authority::TokenByDevice(const FormFields& form) {
  const std::string code = FieldOr(form, "code", FieldOr(form, "device_code", ""));
  if (code.empty()) return MissingParameter("code");
  const auto now = std::chrono::steady_clock::now();
  const std::lock_guard lock(mutex_);
  const auto found = devices_.find(code);
  if (found == devices_.end()) {
    return OAuthError("bad_verification_code", 70018, "The device code is not known.");
  }
  Device& device = found->second;
  const auto last_poll = std::exchange(device.last_poll, now);
  if (device.expires <= Now()) {
    return OAuthError("expired_token", 70020, "The device code has expired.");
  }
  if (!device.approved) {
    if (last_poll && now - *last_poll < options_.device_poll_interval) {
      return OAuthError("slow_down", 0, "The polling interval is too short.");
    }
    return OAuthError("authorization_pending", 70016,
                      "Authorization is pending. Continue polling.");
  }
  if (!*device.approved) {
    return OAuthError("authorization_declined", 65004, "User declined to consent to the app.");
  }
  const std::string resource = device.resource;
  devices_.erase(found);
  return Grant(user_, resource);
}

std::optional<Response> Authority::CheckClient(const FormFields& form) const {
  const auto client = form.find("client_id");
  if (client == form.end()) return MissingParameter("client_id");
  if (EqualsIgnoringCase(client->second, options_.client_id)) return std::nullopt;
  return OAuthError("unauthorized_client", 700016,
                    "Application with identifier '" + client->second +
                        "' was not found in the directory 'contoso.example'.");
}

std::optional<Response> Authority::CheckResource(const FormFields& form) const {
  const auto resource = form.find("resource");
  if (resource == form.end()) return MissingParameter("resource");
  const bool known = std::any_of(
      options_.resources.begin(), options_.resources.end(),
      [&](const auto& one) { return WithoutSlash(one) == WithoutSlash(resource->second); });
  if (known) return std::nullopt;
  return OAuthError("invalid_resource", 500011,
                    "The resource principal named " + resource->second +
                        " was not found in the tenant named contoso.example.");
}

/// Called with mutex_ held.
Response Authority::Grant(const Identity& user, const std::string& resource) {
  const Seconds now = Now();
  const Seconds expires = now + options_.access_token_lifetime;
  const std::string access_token = "eyJ0eXAi" + RandomToken(96);
  const std::string refresh_token = refresh_tokens_.Issue(user);
  std::erase_if(access_tokens_, [&](const auto& entry) { return entry.second.expires <= now; });
  access_tokens_[access_token] = {user, resource, expires};

  const auto as_text = [](auto number) { return std::to_string(number); };
  Json::Value document;
  document["token_type"] = "Bearer";
  document["scope"] = "MyFiles.Write user_impersonation";
  document["expires_in"] = as_text(options_.access_token_lifetime.count());
  document["ext_expires_in"] = as_text(options_.access_token_lifetime.count());
  document["expires_on"] = as_text(expires.time_since_epoch().count());
  document["not_before"] = as_text(now.time_since_epoch().count());
  document["resource"] = resource;
  document["access_token"] = access_token;
  document["refresh_token"] = refresh_token;
  Response response = JsonResponse(200, base::CompactJson(document));
  response.SetHeader("Cache-Control", "no-store");
  return response;
}

Identity Authority::Authenticate(const Request& request, std::string_view resource) const {
  constexpr std::string_view kScheme = "Bearer ";
  const std::string header = request.Header("Authorization").value_or("");
  if (!EqualsIgnoringCase(std::string_view(header).substr(0, kScheme.size()), kScheme)) {
    throw Unauthenticated("The request has no bearer token.");
  }
  const std::lock_guard lock(mutex_);
  const auto found = access_tokens_.find(std::string_view(header).substr(kScheme.size()));
  if (found == access_tokens_.end()) throw Unauthenticated("The access token is not valid.");
  if (found->second.expires <= Now()) throw Unauthenticated("The access token has expired.");
  if (WithoutSlash(found->second.resource) != WithoutSlash(resource)) {
    throw Unauthenticated("The access token is meant for another resource.");
  }
  return found->second.user;
}

std::string Authority::IssueRefreshToken(const Identity& user) {
  const std::lock_guard lock(mutex_);
  return refresh_tokens_.Issue(user);
}

void Authority::ExpireAccessTokens() {
  const std::lock_guard lock(mutex_);
  for (auto& [token, known] : access_tokens_) known.expires = Seconds();
}

void Authority::RevokeRefreshTokens() {
  const std::lock_guard lock(mutex_);
  refresh_tokens_.RevokeAll();
}

Response Authority::DeviceCode(Request& request) {
  if (request.method != "POST") throw MethodNotAllowed("POST");
  const FormFields form = ReadForm(request);
  if (auto refusal = CheckClient(form)) return *refusal;
  if (auto refusal = CheckResource(form)) return *refusal;
  const std::string device_code = RandomToken(64);
  const std::string user_code = NewUserCode();
  const std::string url = options_.origin + "/common/oauth2/deviceauth";
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(devices_, [](const auto& entry) {
      return entry.second.expires + std::chrono::hours(1) <= Now();
    });
    devices_[device_code] = {.user_code = user_code,
                             .resource = FieldOr(form, "resource", ""),
                             .expires = Now() + options_.device_code_lifetime,
                             .last_poll = std::nullopt,
                             .approved = std::nullopt};
  }
  Json::Value document;
  document["user_code"] = user_code;
  document["device_code"] = device_code;
  document["verification_url"] = url;
  document["expires_in"] = std::to_string(options_.device_code_lifetime.count());
  document["interval"] = std::to_string(options_.device_poll_interval.count());
  document["message"] = "To sign in, use a web browser to open the page " + url +
                        " and enter the code " + user_code + " to authenticate.";
  return JsonResponse(200, base::CompactJson(document));
}

Response Authority::DevicePage(Request& request) {
  if (request.method == "GET" || request.method == "HEAD") return HtmlPage(CodeForm(""));
  if (request.method != "POST") throw MethodNotAllowed("GET, HEAD, POST");
  const FormFields form = ReadForm(request);
  const std::string code = FieldOr(form, "code", "");
  const bool approve = !form.contains("decline");
  if (!AnswerDevice(code, approve)) {
    return HtmlPage(CodeForm("<p>No device waits for the code \u201c" + EscapeHtml(code) +
                             "\u201d. Check it, or ask the device for a new one.</p>"));
  }
  return HtmlPage(approve ? "<h1>Signed in</h1><p>You are signed in on your device as " +
                                EscapeHtml(user_.email) + ". You may close this window.</p>"
                          : "<h1>Declined</h1><p>The device was not signed in.</p>");
}

bool Authority::AnswerDevice(const std::string& user_code, bool approve) {
  std::string wanted = user_code;
  std::erase(wanted, ' ');
  const std::lock_guard lock(mutex_);
  for (auto& [device_code, device] : devices_) {
    if (!EqualsIgnoringCase(device.user_code, wanted)) continue;
    if (device.approved || device.expires <= Now()) return false;
    device.approved = approve;
    return true;
  }
  return false;
}

}  // namespace emulator
