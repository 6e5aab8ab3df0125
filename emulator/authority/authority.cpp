#include "emulator/authority/authority.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <openssl/evp.h>

#include "base/json_text.h"
#include "emulator/authority/oauth_error.h"
#include "emulator/authority/sign_in_pages.h"
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

/// Nine letters and digits without those that are easily mistaken for one another.
std::string NewUserCode() {
  constexpr std::string_view kAlphabet = "ABCDEFGHJKLMNPQRSTUVWXYZ23456789";
  std::string code;
  for (const char c : RandomBytes(9)) code += kAlphabet[static_cast<unsigned char>(c) & 31U];
  return code;
}

constexpr std::chrono::minutes kCodeLifetime{10};
constexpr std::string_view kEverything = "/.default";

struct Address {
  std::string_view tenant;
  std::string_view operation;
  bool v2 = false;
};

std::optional<Address> ReadAddress(std::string_view path) {
  constexpr std::string_view kOauth = "/oauth2/";
  constexpr std::string_view kVersion = "v2.0/";
  const std::size_t at = path.find(kOauth);
  if (!path.starts_with('/') || at == std::string_view::npos || at < 2) return std::nullopt;
  Address address{.tenant = path.substr(1, at - 1), .operation = path.substr(at + kOauth.size())};
  if (address.tenant.find('/') != std::string_view::npos) return std::nullopt;
  address.v2 = address.operation.starts_with(kVersion);
  if (address.v2) address.operation.remove_prefix(kVersion.size());
  return address;
}

/// The names under which the platform knows the user's organisation.
bool IsTenant(std::string_view name) {
  return name == "common" || name == "organizations" || name == "contoso.example" ||
         name == "5d2f0a1c-6f0e-4a3d-9a51-0c1f7e2b9d10";
}

/// Native applications are redirected to loopback, to any port (RFC 8252, section 7.3).
bool IsLoopbackRedirect(std::string_view uri) {
  constexpr std::array<std::string_view, 2> kHosts = {"http://localhost", "http://127.0.0.1"};
  return std::any_of(kHosts.begin(), kHosts.end(), [&](std::string_view host) {
    const std::string_view rest = uri.substr(std::min(host.size(), uri.size()));
    return uri.starts_with(host) && (rest.empty() || rest.front() == ':' || rest.front() == '/');
  });
}

/// RFC 7636, section 4.6.
std::string ChallengeFor(const std::string& verifier) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (EVP_Digest(verifier.data(), verifier.size(), digest.data(), &size, EVP_sha256(), nullptr) !=
      1) {
    throw std::runtime_error("cannot compute a digest");
  }
  return EncodeBase64Url({reinterpret_cast<const char*>(digest.data()), size});
}

}  // namespace

Authority::Authority(AuthorityOptions options, Identity user)
    : options_(std::move(options)),
      user_(std::move(user)),
      refresh_tokens_(options_.refresh_token_file) {}

bool Authority::IsMine(std::string_view path) { return ReadAddress(path).has_value(); }

Response Authority::Handle(Request& request) {
  const auto address = ReadAddress(request.Path());
  if (!address) throw ItemNotFound();
  Call call{.request = request, .v2 = address->v2};
  if (!IsTenant(address->tenant)) {
    return OAuthError("invalid_request", 90002,
                      "Tenant '" + std::string(address->tenant) + "' not found.");
  }
  if (address->operation == "token") return Token(call);
  if (address->operation == "devicecode") return DeviceCode(call);
  if (address->operation == "deviceauth") return DevicePage(call);
  if (address->operation == "authorize") return Authorize(call);
  throw ItemNotFound();
}

Response Authority::Token(Call& call) {
  if (call.request.method != "POST") {
    return OAuthError(
        "invalid_request", 900561,
        "The endpoint only accepts POST requests. Received a " + call.request.method + " request.");
  }
  call.form = ReadForm(call.request);
  const std::string grant = FieldOr(call.form, "grant_type", "");
  if (grant.empty()) return MissingParameter("grant_type");
  if (auto refusal = CheckClient(call.form)) return *refusal;
  if (grant == "refresh_token") return TokenByRefresh(call);
  if (grant == "authorization_code") return TokenByCode(call);
  const bool device = grant == "urn:ietf:params:oauth:grant-type:device_code" ||
                      (grant == "device_code" && !call.v2);
  if (device) return TokenByDevice(call);
  return OAuthError("unsupported_grant_type", 70003,
                    "The app requested an unsupported grant type '" + grant + "'.");
}

Response Authority::TokenByRefresh(Call& call) {
  const auto token = call.form.find("refresh_token");
  if (token == call.form.end()) return MissingParameter("refresh_token");
  if (auto refusal = ReadWanted(call)) return *refusal;
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
  return Grant(known->user, call, call.resource);
}

Response Authority::TokenByDevice(const Call& call) {
  const char* const name = call.v2 ? "device_code" : "code";
  const std::string code = FieldOr(call.form, name, "");
  if (code.empty()) return MissingParameter(name);
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
  return Grant(user_, call, resource);
}

Response Authority::TokenByCode(const Call& call) {
  const std::string text = FieldOr(call.form, "code", "");
  if (text.empty()) return MissingParameter("code");
  const std::lock_guard lock(mutex_);
  const auto found = codes_.find(text);
  if (found == codes_.end() || found->second.expires <= Now()) {
    return OAuthError("invalid_grant", 70008,
                      "The provided authorization code or refresh token has expired.");
  }
  Code& code = found->second;
  if (code.redeemed) {
    return OAuthError("invalid_grant", 54005,
                      "OAuth2 Authorization code was already redeemed, please retry with a new "
                      "valid code or use an existing refresh token.");
  }
  code.redeemed = true;
  if (FieldOr(call.form, "redirect_uri", "") != code.redirect_uri) {
    return OAuthError("invalid_grant", 500112,
                      "The reply address does not match the reply address provided when "
                      "requesting Authorization code.");
  }
  const std::string verifier = FieldOr(call.form, "code_verifier", "");
  if (!code.challenge.empty() && ChallengeFor(verifier) != code.challenge) {
    return OAuthError("invalid_grant", 501481,
                      "The Code_Verifier does not match the code_challenge supplied in the "
                      "authorization request.");
  }
  return Grant(user_, call, code.resource);
}

std::optional<Response> Authority::CheckClient(const FormFields& form) const {
  const auto client = form.find("client_id");
  if (client == form.end()) return MissingParameter("client_id");
  if (EqualsIgnoringCase(client->second, options_.client_id)) return std::nullopt;
  return OAuthError("unauthorized_client", 700016,
                    "Application with identifier '" + client->second +
                        "' was not found in the directory 'contoso.example'.");
}

std::optional<Response> Authority::ReadWanted(Call& call) const {
  if (!call.v2) {
    const auto resource = call.form.find("resource");
    if (resource == call.form.end()) return MissingParameter("resource");
    call.resource = resource->second;
  } else {
    const std::string scopes = FieldOr(call.form, "scope", "");
    if (scopes.empty()) return MissingParameter("scope");
    call.renewable = false;
    std::istringstream words(scopes);
    for (std::string word; words >> word;) {
      if (word == "offline_access") call.renewable = true;
      if (word.ends_with(kEverything)) {
        call.resource = word.substr(0, word.size() - kEverything.size());
      }
    }
    if (call.resource.empty()) {
      return OAuthError("invalid_scope", 70011,
                        "The provided value for the input parameter 'scope' is not valid. The "
                        "scope " +
                            scopes + " is not valid.");
    }
  }
  const bool known = std::any_of(
      options_.resources.begin(), options_.resources.end(),
      [&](const auto& one) { return WithoutSlash(one) == WithoutSlash(call.resource); });
  if (known) return std::nullopt;
  return OAuthError("invalid_resource", 500011,
                    "The resource principal named " + call.resource +
                        " was not found in the tenant named contoso.example.");
}

/// Called with mutex_ held.
Response Authority::Grant(const Identity& user, const Call& call, const std::string& resource) {
  const Seconds now = Now();
  const Seconds expires = now + options_.access_token_lifetime;
  const std::string access_token = "eyJ0eXAi" + RandomToken(96);
  std::erase_if(access_tokens_, [&](const auto& entry) { return entry.second.expires <= now; });
  access_tokens_[access_token] = {user, resource, expires};

  const auto life = options_.access_token_lifetime.count();
  Json::Value document;
  document["token_type"] = "Bearer";
  document["access_token"] = access_token;
  if (call.renewable) document["refresh_token"] = refresh_tokens_.Issue(user);
  if (call.v2) {
    document["scope"] = std::string(WithoutSlash(resource)) + std::string(kEverything);
    document["expires_in"] = Json::Int64{life};
    document["ext_expires_in"] = Json::Int64{life};
  } else {
    document["scope"] = "MyFiles.Write user_impersonation";
    document["expires_in"] = std::to_string(life);
    document["ext_expires_in"] = std::to_string(life);
    document["expires_on"] = std::to_string(expires.time_since_epoch().count());
    document["not_before"] = std::to_string(now.time_since_epoch().count());
    document["resource"] = resource;
  }
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

Response Authority::DeviceCode(Call& call) {
  if (call.request.method != "POST") throw MethodNotAllowed("POST");
  call.form = ReadForm(call.request);
  if (auto refusal = CheckClient(call.form)) return *refusal;
  if (auto refusal = ReadWanted(call)) return *refusal;
  const std::string device_code = RandomToken(64);
  const std::string user_code = NewUserCode();
  const std::string url = options_.origin + "/common/oauth2/deviceauth";
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(devices_, [](const auto& entry) {
      return entry.second.expires + std::chrono::hours(1) <= Now();
    });
    devices_[device_code] = {.user_code = user_code,
                             .resource = call.resource,
                             .expires = Now() + options_.device_code_lifetime,
                             .last_poll = std::nullopt,
                             .approved = std::nullopt};
  }
  const auto seconds = [&](std::chrono::seconds time) {
    return call.v2 ? Json::Value(Json::Int64{time.count()})
                   : Json::Value(std::to_string(time.count()));
  };
  Json::Value document;
  document["user_code"] = user_code;
  document["device_code"] = device_code;
  document[call.v2 ? "verification_uri" : "verification_url"] = url;
  document["expires_in"] = seconds(options_.device_code_lifetime);
  document["interval"] = seconds(options_.device_poll_interval);
  document["message"] = "To sign in, use a web browser to open the page " + url +
                        " and enter the code " + user_code + " to authenticate.";
  return JsonResponse(200, base::CompactJson(document));
}

Response Authority::DevicePage(Call& call) {
  if (call.request.method == "GET" || call.request.method == "HEAD") return DeviceCodePage("");
  if (call.request.method != "POST") throw MethodNotAllowed("GET, HEAD, POST");
  const FormFields form = ReadForm(call.request);
  const std::string code = FieldOr(form, "code", "");
  const bool approve = !form.contains("decline");
  if (!AnswerDevice(code, approve)) return DeviceCodePage(code.empty() ? " " : code);
  return DeviceAnswerPage(user_, approve);
}

Response Authority::Authorize(Call& call) {
  const bool asks = call.request.method == "GET" || call.request.method == "HEAD";
  if (!asks && call.request.method != "POST") throw MethodNotAllowed("GET, HEAD, POST");
  call.form = asks ? ParseForm(call.request.Query()) : ReadForm(call.request);
  if (CheckClient(call.form)) {
    return RefusalPage("AADSTS700016: Application with identifier '" +
                       FieldOr(call.form, "client_id", "") + "' was not found in the directory.");
  }
  const std::string redirect = FieldOr(call.form, "redirect_uri", "");
  if (!IsLoopbackRedirect(redirect)) {
    return RefusalPage(
        "AADSTS50011: The redirect URI specified in the request does not match the redirect URIs "
        "configured for the application.");
  }
  const auto back = [&](const std::string& answer) {
    Response response = EmptyResponse(302);
    response.SetHeader("Location",
                       redirect + (redirect.find('?') == std::string::npos ? '?' : '&') + answer +
                           "&state=" + PercentEncode(FieldOr(call.form, "state", "")));
    return response;
  };
  const auto refuse = [&](const std::string& error, const std::string& description) {
    return back("error=" + error + "&error_description=" + PercentEncode(description));
  };
  if (FieldOr(call.form, "response_type", "") != "code") {
    return refuse("unsupported_response_type", "AADSTS70005: response_type is not supported.");
  }
  const std::string method = FieldOr(call.form, "code_challenge_method", "");
  if (call.form.contains("code_challenge") && method != "S256") {
    return refuse("invalid_request", "AADSTS501491: Invalid code_challenge_method.");
  }
  if (ReadWanted(call)) {
    return refuse("invalid_scope", "AADSTS70011: The scope or resource is not valid.");
  }
  if (asks) return ConsentPage(user_, call.form);
  if (call.form.contains("decline")) {
    return refuse("access_denied", "AADSTS65004: User declined to consent to access the app.");
  }
  return back("code=" + NewCode(call));
}

std::string Authority::NewCode(const Call& call) {
  std::string code = "0.AAAA" + RandomToken(48);
  const std::lock_guard lock(mutex_);
  std::erase_if(codes_, [](const auto& entry) { return entry.second.expires <= Now(); });
  codes_[code] = {.redirect_uri = FieldOr(call.form, "redirect_uri", ""),
                  .challenge = FieldOr(call.form, "code_challenge", ""),
                  .resource = call.resource,
                  .expires = Now() + kCodeLifetime};
  return code;
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
