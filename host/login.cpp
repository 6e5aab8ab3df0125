#include "host/login.h"

#include "base/json_text.h"

namespace host {

Failure LoginFailure(const std::string& reason) {
  return {FailureKind::kSignIn, "the login failed: " + reason};
}

Failure LoginFailure(const Failure& reason) {
  return {FailureKind::kSignIn, std::string("the login failed: ") + reason.what(), reason.advice()};
}

HttpResponse PostToAuthority(const LoginContext& context, const std::string& url,
                             const FormFields& fields) {
  context.log.Line(LOGLEVEL_INFO, "[AUTHORITY ] POST " + url);
  try {
    HttpResponse response = context.http.PostForm(url, fields, &context.cancellation);
    context.log.Line(LOGLEVEL_INFO, "[AUTHORITY ] HTTP " + std::to_string(response.status));
    return response;
  } catch (const ProxyError& error) {
    throw Failure(FailureKind::kProxy, std::string("the login failed: ") + error.what(),
                  "check the proxy's address, type, user name and password");
  } catch (const HttpError& error) {
    context.cancellation.Check();
    throw LoginFailure("the authority at " + url + " cannot be reached: " + error.what());
  }
}

std::string RefreshTokenIn(const LoginContext& context, const HttpResponse& response) {
  const auto document = base::ParseJsonObject(response.body);
  std::string token = document ? base::TextMember(*document, "refresh_token").value_or("") : "";
  if (token.empty()) throw LoginFailure("the authority's answer has no refresh token");
  context.redactor.AddToken(token);
  return token;
}

}  // namespace host
