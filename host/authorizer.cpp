#include "host/authorizer.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "base/json_text.h"
#include "host/failure.h"
#include "host/text.h"

namespace host {
namespace {

constexpr std::size_t kLongestDescription = 300;
constexpr std::size_t kLongestType = 60;
/// What the authority means when it does not say how long a token is good.
constexpr std::chrono::seconds kDefaultLife(3600);

/// What the authority says, fit for a message: its first line, since trace ids for its operator
/// follow. It may quote a token, which is recognised as a whole only, so before anything is cut.
std::string FirstLine(const std::string& text, const Redactor& redactor, std::size_t longest) {
  const std::string redacted = redactor.Redact(text);
  return Shortened(EscapeForTerminal(redacted.substr(0, redacted.find_first_of("\r\n"))), longest);
}

/// Only an error document refuses. Anything else comes from a server that has trouble, or from
/// something in between, such as the login page of a network.
Failure AuthorityFailure(const HttpResponse& response, const Redactor& redactor) {
  const auto document = base::ParseJsonObject(response.body);
  const bool refused = document && base::TextMember(*document, "error") && response.status < 500;
  const std::string what = DescribeAuthorityError(response, redactor);
  if (response.status == 429 || response.status == 503) return {FailureKind::kThrottled, what};
  if (!refused) return {FailureKind::kTrouble, what};
  return {FailureKind::kSignIn, what, "run 'onedrive4b login' again"};
}

}  // namespace

std::string DescribeAuthorityError(const HttpResponse& response, const Redactor& redactor) {
  const std::optional<Json::Value> document = base::ParseJsonObject(response.body);
  const std::string error = document ? base::TextMember(*document, "error").value_or("") : "";
  if (error.empty()) {
    const std::string type =
        response.content_type.empty() ? "no content type" : response.content_type;
    return "the authority answered HTTP " + std::to_string(response.status) + " (" +
           FirstLine(type, redactor, kLongestType) + ") instead of tokens";
  }
  std::string text = "the authority refused: " + FirstLine(error, redactor, kLongestDescription);
  const std::string description = FirstLine(
      base::TextMember(*document, "error_description").value_or(""), redactor, kLongestDescription);
  if (!description.empty()) text += ": " + description;
  return text;
}

std::optional<std::chrono::seconds> SecondsMember(const Json::Value& object, const char* name) {
  std::int64_t value = 0;
  if (object[name].isInt64()) {
    value = object[name].asInt64();
  } else {
    const std::string text = base::TextMember(object, name).value_or("");
    const auto read = std::from_chars(text.data(), text.data() + text.size(), value);
    if (read.ec != std::errc() || read.ptr != text.data() + text.size()) return std::nullopt;
  }
  // A longer time would overflow where it is added to another one.
  constexpr std::int64_t kLongest = 100LL * 365 * 86400;
  return std::chrono::seconds(std::clamp<std::int64_t>(value, 0, kLongest));
}

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
  const ValueStore::Hold hold = context_.profile.HoldStore();
  const Cancellation::Unbroken unbroken(context_.cancellation);
  // The module always starts from the text it was connected with; the profile's token is newer.
  std::string token = context_.profile.RefreshToken();
  if (token.empty()) token = member("results", "refresh_token");
  if (token.empty()) throw Failure(FailureKind::kSignIn, "no refresh token is stored");
  const BootClock::time_point asked = BootClock::now();
  return AcceptTokens(Request(token, resource), asked);
}

HttpResponse Authorizer::Request(const std::string& refresh_token, const std::string& resource) {
  const ServiceSettings& settings = context_.settings;
  context_.redactor.AddToken(refresh_token);
  context_.log.Line(LOGLEVEL_INFO, "[AUTHORITY ] POST " + settings.token_url +
                                       " grant_type=refresh_token resource=" + resource);
  try {
    HttpResponse response =
        context_.http.PostForm(settings.token_url, {{"grant_type", "refresh_token"},
                                                    {"client_id", settings.client_id},
                                                    {"refresh_token", refresh_token},
                                                    {"resource", resource}});
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
