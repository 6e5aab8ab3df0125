// Authorizer: exchanges the profile's refresh token for access tokens when the module asks.
//
// Threads: Authorize may be called from any thread; calls run one after the other.
// Lifetime: everything handed to the constructor must outlive it, and it must outlive the protocol
// objects connected with it.
#pragma once

#include <mutex>
#include <string>

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
};

/// What the authority said, in one line for people: "invalid_grant: ...", or what came instead of
/// an error document. Holds no secret.
std::string DescribeAuthorityError(const HttpResponse& response, const Redactor& redactor);

class Authorizer final : public IProtocolAuth {
 public:
  explicit Authorizer(const AuthorizerContext& context) : context_(context) {}

  char* Authorize(IProtocol_V2* protocol, const char* credential) override;
  void FreeResult(char* text) override;

  /// Why the newest Authorize failed; empty when it did not.
  std::string LastError() const;
  /// What of the proxy's doing made the last one fail; SUCCESS when nothing of it did.
  AERROR LastProxyError() const;

 private:
  std::string Exchange(const Json::Value& credential);
  HttpResponse Request(const std::string& refresh_token, const std::string& resource);
  std::string AcceptTokens(const HttpResponse& response);

  AuthorizerContext context_;
  mutable std::mutex mutex_;
  std::string last_error_;
  AERROR proxy_error_ = SUCCESS;
};

}  // namespace host
