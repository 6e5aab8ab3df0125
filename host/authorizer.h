// Authorizer: exchanges the profile's refresh token for access tokens when the module asks.
//
// Threads: every operation may be called from any thread. Exchanges of all authorizers of a profile
// run one after the other.
// Lifetime: one for each protocol object, which it must outlive; what the context names must
// outlive it.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>

#include <json/value.h>

#include "host/boot_clock.h"
#include "host/cancellation.h"
#include "host/failure.h"
#include "host/http_client.h"
#include "host/log.h"
#include "host/profile.h"
#include "host/redaction.h"
#include "host/settings.h"
#include "onedrive4b/interfaces.h"

namespace host {

/// What an Authorizer works with.
struct AuthorizerContext {
  const ServiceSettings& settings;
  const HttpClient& http;
  Profile& profile;
  Log& log;
  Redactor& redactor;
  /// Once raised, no exchange begins. One that runs is finished: the authority may already have
  /// withdrawn the token that was sent, so the new one must be stored.
  Cancellation& cancellation;
};

class Authorizer final : public IProtocolAuth {
 public:
  /// When the newest access token was asked for, and for how long it is good.
  struct TokenLife {
    BootClock::time_point begin;
    std::chrono::seconds length{0};  ///< 0: there is no token
  };

  explicit Authorizer(const AuthorizerContext& context) : context_(context) {}

  char* Authorize(IProtocol_V2* protocol, const char* credential) override;
  void FreeResult(char* text) override;

  /// A token for the host's own requests to `resource`. Throws Failure, or HttpError when there is
  /// no answer.
  std::string AccessToken(const std::string& resource);

  TokenLife token_life() const;

  /// Why the newest Authorize failed; nothing when it did not.
  std::optional<Failure> last_failure() const;
  /// What the proxy did to make it fail, one of SOCK_PROXY_...; SUCCESS for nothing.
  AERROR last_proxy_error() const;

 private:
  std::string Exchange(const Json::Value& credential);
  std::string Tokens(const std::string& resource, const std::string& fallback);
  HttpResponse Request(const std::string& refresh_token, const std::string& resource);
  std::string AcceptTokens(const HttpResponse& response, BootClock::time_point asked);

  AuthorizerContext context_;
  mutable std::mutex mutex_;
  std::optional<Failure> last_failure_;  ///< guarded by mutex_
  AERROR last_proxy_error_ = SUCCESS;    ///< guarded by mutex_
  TokenLife token_life_;                 ///< guarded by mutex_
};

}  // namespace host
