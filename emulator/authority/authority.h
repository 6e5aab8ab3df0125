// The OAuth 2.0 token endpoint, version 1.0 of the service's identity platform: refresh tokens, the
// device-code flow, and the access tokens both give.
// Threads: callable from any. Lifetime: all tokens die with the object, but for refresh tokens that
// a file keeps.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "emulator/authority/refresh_tokens.h"
#include "emulator/drive/identity.h"
#include "emulator/http/message.h"
#include "emulator/text/encoding.h"
#include "emulator/text/time_text.h"

namespace emulator {

struct AuthorityOptions {
  std::string origin;
  std::string client_id;
  std::vector<std::string> resources;  // tokens are given for these only
  std::chrono::seconds access_token_lifetime{3600};
  std::chrono::seconds device_code_lifetime{900};
  std::chrono::seconds device_poll_interval{5};
  bool revoke_used_refresh_tokens = false;
  std::filesystem::path refresh_token_file;  // empty: they end with the run
};

class Authority {
 public:
  Authority(AuthorityOptions options, Identity user);

  /// POST .../oauth2/token
  Response Token(Request& request);
  /// POST .../oauth2/devicecode
  Response DeviceCode(Request& request);
  /// GET and POST .../oauth2/deviceauth: where a person enters the code.
  Response DevicePage(Request& request);

  /// The user the request's bearer token speaks for. Throws ServiceError (401) when the token is
  /// missing, unknown, expired, or meant for another resource.
  Identity Authenticate(const Request& request, std::string_view resource) const;

  std::string IssueRefreshToken(const Identity& user);
  void ExpireAccessTokens();
  void RevokeRefreshTokens();
  /// Whether that code was waiting for an answer.
  bool AnswerDevice(const std::string& user_code, bool approve);

 private:
  struct AccessToken {
    Identity user;
    std::string resource;
    Seconds expires;
  };
  struct Device {
    std::string user_code;
    std::string resource;
    Seconds expires;
    std::optional<std::chrono::steady_clock::time_point> last_poll;
    std::optional<bool> approved;
  };

  Response TokenByRefresh(const FormFields& form);
  Response TokenByDevice(const FormFields& form);
  /// The refusal of a resource or client; nullopt: both will do.
  std::optional<Response> CheckClient(const FormFields& form) const;
  std::optional<Response> CheckResource(const FormFields& form) const;
  Response Grant(const Identity& user, const std::string& resource);

  const AuthorityOptions options_;
  const Identity user_;  // who signs in on the device page
  mutable std::mutex mutex_;
  RefreshTokens refresh_tokens_;
  std::map<std::string, AccessToken, std::less<>> access_tokens_;
  std::map<std::string, Device, std::less<>> devices_;  // by device code
};

}  // namespace emulator
