#include "host/authorizer.h"

#include <cstdlib>
#include <cstring>
#include <optional>

#include "base/json_text.h"
#include "host/authority.h"
#include "host/authority_error.h"
#include "host/failure.h"
#include "host/text.h"

namespace host {
namespace {

/// What the authority means when it does not say how long a token is good.
constexpr std::chrono::seconds kDefaultLife(3600);

}  // namespace

char* Authorizer::Authorize(IProtocol_V2* /*protocol*/, const char* credential) {
  std::optional<Failure> failure;
  AERROR proxy_error = SUCCESS;
  char* reply = nullptr;
  try {
    const auto document = base::ParseJsonObject(credential == nullptr ? "" : credential);
    if (!document) throw HttpError("the module asked with a credential that is not a JSON object");
    // The module gives the text back to FreeResult, which frees it.
    reply = strdup(Exchange(*document).c_str());
  } catch (const Failure& error) {
    failure = error;
  } catch (const ProxyError& error) {
    proxy_error = error.code();
    failure = Failure(FailureKind::kProxy, error.what(),
                      "check the proxy's address, type, user name and password");
  } catch (const HttpError& error) {
    failure = Failure(FailureKind::kUnreachable, error.what());
  } catch (const std::exception& error) {
    failure = Failure(FailureKind::kFailed, error.what());
  }
  if (failure) context_.log.Line(LOGLEVEL_ERROR, std::string("[AUTHORITY ] ") + failure->what());
  const std::lock_guard<std::mutex> lock(mutex_);
  last_failure_ = std::move(failure);
  last_proxy_error_ = proxy_error;
  return reply;
}

void Authorizer::FreeResult(char* text) { std::free(text); }

Authorizer::TokenLife Authorizer::token_life() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return token_life_;
}

std::optional<Failure> Authorizer::last_failure() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return last_failure_;
}

AERROR Authorizer::last_proxy_error() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return last_proxy_error_;
}

std::string Authorizer::Exchange(const Json::Value& credential) {
  const ServiceSettings& settings = context_.settings;
  const auto member = [&](const char* object, const char* name) {
    return base::TextMember(base::ObjectMember(credential, object), name).value_or("");
  };
  std::string resource = member("args", "resource");
  // With a preset service there is no discovery, and its resource is the only one there is.
  if (resource.empty()) resource = settings.service_resource;
  if (resource.empty()) resource = settings.discovery_resource;
  return Tokens(resource, member("results", "refresh_token"));
}

std::string Authorizer::AccessToken(const std::string& resource) {
  const auto reply = base::ParseJsonObject(Tokens(resource, ""));
  return base::TextMember(base::ObjectMember(*reply, "results"), "access_token").value_or("");
}

/// The module's reply. `fallback`: a refresh token, for when none is stored.
std::string Authorizer::Tokens(const std::string& resource, const std::string& fallback) {
  const ValueStore::Hold hold = context_.profile.HoldStore();
  const Cancellation::Unbroken unbroken(context_.cancellation);
  // The module always starts from the text it was connected with; the profile's token is newer.
  std::string token = context_.profile.RefreshToken();
  if (token.empty()) token = fallback;
  if (token.empty()) throw Failure(FailureKind::kSignIn, "no refresh token is stored");
  const BootClock::time_point asked = BootClock::now();
  return AcceptTokens(Request(token, resource), asked);
}

HttpResponse Authorizer::Request(const std::string& refresh_token, const std::string& resource) {
  const ServiceSettings& settings = context_.settings;
  context_.redactor.AddToken(refresh_token);
  const auto wanted = WantedField(settings.token_url, resource);
  context_.log.Line(LOGLEVEL_INFO, "[AUTHORITY ] POST " + settings.token_url +
                                       " grant_type=refresh_token " + wanted.first + '=' +
                                       wanted.second);
  try {
    HttpResponse response =
        context_.http.PostForm(settings.token_url, {{"grant_type", "refresh_token"},
                                                    {"client_id", settings.client_id},
                                                    {"refresh_token", refresh_token},
                                                    wanted});
    context_.log.Line(LOGLEVEL_INFO, "[AUTHORITY ] HTTP " + std::to_string(response.status));
    return response;
  } catch (const ProxyError&) {
    throw;
  } catch (const HttpError& error) {
    throw HttpError("the authority at " + settings.token_url +
                    " cannot be reached: " + error.what());
  }
}

std::string Authorizer::AcceptTokens(const HttpResponse& response, BootClock::time_point asked) {
  const std::optional<Json::Value> tokens = base::ParseJsonObject(response.body);
  const std::string access =
      tokens ? base::TextMember(*tokens, "access_token").value_or("") : std::string();
  if (response.status != 200 || access.empty()) {
    throw AuthorityFailure(response, context_.redactor);
  }
  const std::string refresh = base::TextMember(*tokens, "refresh_token").value_or("");
  context_.redactor.AddToken(access);
  context_.redactor.AddToken(refresh);
  if (!refresh.empty()) {
    try {
      context_.profile.KeepRefreshToken(refresh);
    } catch (const Failure& failure) {
      context_.log.Warn(std::string("the renewed sign-in could not be saved: ") + failure.what());
    }
  }
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::chrono::seconds life = SecondsMember(*tokens, "expires_in").value_or(kDefaultLife);
    token_life_ = {asked, life > std::chrono::seconds::zero() ? life : kDefaultLife};
  }
  Json::Value reply(Json::objectValue);
  reply["results"] = *tokens;
  return base::CompactJson(reply);
}

}  // namespace host
