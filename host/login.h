// What the ways to sign a person in have in common.
//
// One thread. What the context names must outlive it.
#pragma once

#include <string>

#include "host/cancellation.h"
#include "host/failure.h"
#include "host/http_client.h"
#include "host/log.h"
#include "host/redaction.h"
#include "host/settings.h"

namespace host {

struct LoginContext {
  const ServiceSettings& settings;
  const std::string& resource;  ///< what the first token is for; the sign-in is good for others too
  const HttpClient& http;
  Cancellation& cancellation;
  Log& log;
  Redactor& redactor;
};

Failure LoginFailure(const std::string& reason);
/// With the reason's advice.
Failure LoginFailure(const Failure& reason);

/// Throws a kProxy or a kUnreachable Failure when there is no answer.
HttpResponse PostToAuthority(const LoginContext& context, const std::string& url,
                             const FormFields& fields);

/// The refresh token of an answer with status 200.
std::string RefreshTokenIn(const LoginContext& context, const HttpResponse& response);

}  // namespace host
