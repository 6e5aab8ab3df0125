// The OAuth 2.0 authority in both forms of the service's identity platform: v1.0, which is asked
// for resources, and v2.0, which is asked for scopes. Refresh tokens, the device-code flow, the
// authorization code flow with PKCE, and the access tokens that all three give.
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

  /// Whether the path is one of the authority's: "/{tenant}/oauth2/..." or
  /// "/{tenant}/oauth2/v2.0/...".
  static bool IsMine(std::string_view path);
  Response Handle(Request& request);

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
  struct Code {
    std::string redirect_uri;
    std::string challenge;  // empty: the request came without one
    std::string resource;
    Seconds expires;
    bool redeemed = false;
  };
  /// A request, read: its form, and what it asks tokens for.
  struct Call {
    Request& request;
    bool v2 = false;
    FormFields form = {};
    std::string resource = {};
    bool renewable = true;  // v2 gives a refresh token only when "offline_access" is asked for
  };

  /// POST .../token
  Response Token(Call& call);
  Response TokenByRefresh(Call& call);
  Response TokenByDevice(const Call& call);
  Response TokenByCode(const Call& call);
  /// POST .../devicecode
  Response DeviceCode(Call& call);
  /// GET and POST .../deviceauth: where a person enters the code.
  Response DevicePage(Call& call);
  /// GET and POST .../authorize: where a browser asks a person for consent.
  Response Authorize(Call& call);
  std::string NewCode(const Call& call);
  /// The refusal of a client; nullopt: it will do.
  std::optional<Response> CheckClient(const FormFields& form) const;
  /// Reads what is asked for into the call; the refusal when that cannot be given.
  std::optional<Response> ReadWanted(Call& call) const;
  Response Grant(const Identity& user, const Call& call, const std::string& resource);

  const AuthorityOptions options_;
  const Identity user_;  // who signs in on the device page
  mutable std::mutex mutex_;
  RefreshTokens refresh_tokens_;
  std::map<std::string, AccessToken, std::less<>> access_tokens_;
  std::map<std::string, Device, std::less<>> devices_;  // by device code
  std::map<std::string, Code, std::less<>> codes_;
};

}  // namespace emulator
