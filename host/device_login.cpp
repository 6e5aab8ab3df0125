#include "host/device_login.h"

#include <algorithm>
#include <chrono>
#include <optional>

#include "base/json_text.h"
#include "host/authorizer.h"
#include "host/failure.h"
#include "host/text.h"

namespace host {
namespace {

using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

// RFC 8628, section 3.5: five seconds unless the authority says otherwise, and five more each time
// it asks to slow down.
constexpr seconds kDefaultInterval(5);
constexpr seconds kSlowDown(5);
constexpr seconds kLongestInterval(60);
constexpr seconds kDefaultLife(900);
constexpr seconds kLongestLife(86400);

struct DeviceCode {
  std::string device_code;
  std::string user_code;
  std::string address;
  seconds interval{};
  seconds life{};
};

seconds Limited(std::optional<seconds> time, seconds fallback, seconds most) {
  return std::clamp(time.value_or(fallback), seconds(1), most);
}

Failure LoginFailure(const std::string& reason) {
  return Failure(FailureKind::kSignIn, "the login failed: " + reason);
}

class DeviceLogin {
 public:
  explicit DeviceLogin(const DeviceLoginContext& context) : context_(context) {}

  DeviceCode RequestCode() const {
    const ServiceSettings& settings = context_.settings;
    const std::string url = DeviceUrl(settings.token_url);
    if (url.empty()) throw LoginFailure("no device login is known for this token address");
    HttpResponse response;
    try {
      response = Post(url, {{"client_id", settings.client_id}, {"resource", Resource()}});
    } catch (const HttpError& error) {
      throw LoginFailure("the authority at " + url + " cannot be reached: " + error.what());
    }
    const std::optional<Json::Value> document = base::ParseJsonObject(response.body);
    DeviceCode code;
    if (document) {
      code.device_code = base::TextMember(*document, "device_code").value_or("");
      code.user_code = base::TextMember(*document, "user_code").value_or("");
      code.address = base::TextMember(*document, "verification_url").value_or("");
      if (code.address.empty())
        code.address = base::TextMember(*document, "verification_uri").value_or("");
    }
    if (response.status != 200 || code.device_code.empty() || code.user_code.empty() ||
        code.address.empty()) {
      throw LoginFailure(DescribeAuthorityError(response, context_.redactor));
    }
    code.interval =
        Limited(SecondsMember(*document, "interval"), kDefaultInterval, kLongestInterval);
    code.life = Limited(SecondsMember(*document, "expires_in"), kDefaultLife, kLongestLife);
    context_.redactor.AddSecret(code.device_code);
    return code;
  }

  std::string WaitForToken(const DeviceCode& code) const {
    const Clock::time_point end = Clock::now() + code.life;
    seconds interval = code.interval;
    while (Clock::now() < end) {
      context_.cancellation.Wait(interval);
      HttpResponse response;
      try {
        response = Post(context_.settings.token_url, {{"grant_type", "device_code"},
                                                      {"client_id", context_.settings.client_id},
                                                      {"resource", Resource()},
                                                      {"code", code.device_code}});
      } catch (const HttpError& error) {
        context_.cancellation.Check();
        context_.log.Line(LOGLEVEL_ERROR, std::string("[AUTHORITY ] ") + error.what());
        interval = std::min(interval * 2, kLongestInterval);
        continue;
      }
      if (response.status == 200) return RefreshToken(response);
      const auto document = base::ParseJsonObject(response.body);
      const std::string error = document ? base::TextMember(*document, "error").value_or("") : "";
      if (error == "slow_down") {
        interval = std::min(interval + kSlowDown, kLongestInterval);
      } else if (error != "authorization_pending") {
        throw Refusal(error, response);
      }
    }
    throw LoginFailure("the code expired before it was entered");
  }

 private:
  std::string Resource() const {
    const ServiceSettings& settings = context_.settings;
    return settings.service_resource.empty() ? settings.discovery_resource
                                             : settings.service_resource;
  }

  HttpResponse Post(const std::string& url, const FormFields& fields) const {
    context_.log.Line(LOGLEVEL_INFO, "[AUTHORITY ] POST " + url);
    HttpResponse response = context_.http.PostForm(url, fields, &context_.cancellation);
    context_.log.Line(LOGLEVEL_INFO, "[AUTHORITY ] HTTP " + std::to_string(response.status));
    return response;
  }

  std::string RefreshToken(const HttpResponse& response) const {
    const auto document = base::ParseJsonObject(response.body);
    std::string token = document ? base::TextMember(*document, "refresh_token").value_or("") : "";
    if (token.empty()) throw LoginFailure("the authority's answer has no refresh token");
    context_.redactor.AddToken(token);
    return token;
  }

  Failure Refusal(const std::string& error, const HttpResponse& response) const {
    if (error == "authorization_declined" || error == "access_denied") {
      return LoginFailure("it was declined in the browser");
    }
    if (error == "expired_token" || error == "code_expired") {
      return LoginFailure("the code expired before it was entered");
    }
    return LoginFailure(DescribeAuthorityError(response, context_.redactor));
  }

  const DeviceLoginContext& context_;
};

}  // namespace

std::string LogInByDevice(const DeviceLoginContext& context, const ShowCode& show) {
  const DeviceLogin login(context);
  const DeviceCode code = login.RequestCode();
  show(EscapeForTerminal(code.address), EscapeForTerminal(code.user_code));
  return login.WaitForToken(code);
}

}  // namespace host
