#include "host/device_login.h"

#include <algorithm>
#include <chrono>
#include <optional>

#include "base/json_text.h"
#include "host/authority.h"
#include "host/authority_error.h"
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

Failure Expired() { return LoginFailure("the code expired before it was entered"); }

class DeviceLogin {
 public:
  explicit DeviceLogin(const LoginContext& context) : context_(context) {}

  DeviceCode RequestCode() const {
    const ServiceSettings& settings = context_.settings;
    const std::string url = DeviceUrl(settings.token_url);
    if (url.empty()) throw LoginFailure("no device login is known for this token address");
    const HttpResponse response = PostToAuthority(
        context_, url,
        {{"client_id", settings.client_id}, WantedField(settings.token_url, context_.resource)});
    const std::optional<Json::Value> document = base::ParseJsonObject(response.body);
    const auto text = [&](const char* name) {
      return document ? base::TextMember(*document, name).value_or("") : std::string();
    };
    DeviceCode code;
    code.device_code = text("device_code");
    code.user_code = text("user_code");
    code.address = text("verification_uri");
    if (code.address.empty()) code.address = text("verification_url");  // the older form's name
    if (response.status != 200 || code.device_code.empty() || code.user_code.empty() ||
        code.address.empty()) {
      throw LoginFailure(AuthorityFailure(response, context_.redactor));
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
        response = context_.http.PostForm(context_.settings.token_url, PollFields(code),
                                          &context_.cancellation);
      } catch (const HttpError& error) {
        context_.cancellation.Check();
        context_.log.Line(LOGLEVEL_ERROR, std::string("[AUTHORITY ] ") + error.what());
        interval = std::min(interval * 2, kLongestInterval);
        continue;
      }
      context_.log.Line(LOGLEVEL_INFO, "[AUTHORITY ] HTTP " + std::to_string(response.status));
      if (response.status == 200) return RefreshTokenIn(context_, response);
      const std::string error = AuthorityError(response);
      if (error == "slow_down") {
        interval = std::min(interval + kSlowDown, kLongestInterval);
      } else if (error.empty() || response.status == 429) {
        interval = std::min(interval * 2, kLongestInterval);  // a server that has trouble
      } else if (error != "authorization_pending") {
        throw Refusal(error, response);
      }
    }
    throw Expired();
  }

 private:
  FormFields PollFields(const DeviceCode& code) const {
    const ServiceSettings& settings = context_.settings;
    if (IsOldForm(settings.token_url)) {
      return {{"grant_type", "device_code"},
              {"client_id", settings.client_id},
              {"resource", context_.resource},
              {"code", code.device_code}};
    }
    return {{"grant_type", "urn:ietf:params:oauth:grant-type:device_code"},
            {"client_id", settings.client_id},
            {"device_code", code.device_code}};
  }

  Failure Refusal(const std::string& error, const HttpResponse& response) const {
    if (error == "authorization_declined") return LoginFailure("it was declined in the browser");
    if (error == "expired_token" || error == "code_expired") return Expired();
    return LoginFailure(AuthorityFailure(response, context_.redactor));
  }

  const LoginContext& context_;
};

}  // namespace

std::string LogInByDevice(const LoginContext& context, const ShowCode& show) {
  const DeviceLogin login(context);
  const DeviceCode code = login.RequestCode();
  show(EscapeForTerminal(code.address), EscapeForTerminal(code.user_code));
  return login.WaitForToken(code);
}

}  // namespace host
