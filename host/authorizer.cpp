#include "host/authorizer.h"

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

/// What the authority says, fit for a message: its first line, since trace ids for its operator
/// follow. It may quote a token, which is recognised as a whole only, so before anything is cut.
std::string FirstLine(const std::string& text, const Redactor& redactor, std::size_t longest) {
  const std::string redacted = redactor.Redact(text);
  return Shortened(EscapeForTerminal(redacted.substr(0, redacted.find_first_of("\r\n"))), longest);
}

}  // namespace

std::string DescribeAuthorityError(const HttpResponse& response, const Redactor& redactor) {
  const std::optional<Json::Value> document = base::ParseJsonObject(response.body);
  const std::string error = document ? base::TextMember(*document, "error").value_or("") : "";
  if (error.empty()) {
    const std::string type = response.content_type.empty() ? "no type" : response.content_type;
    return "the authority answered HTTP " + std::to_string(response.status) + " (" +
           FirstLine(type, redactor, kLongestType) + ") instead of tokens";
  }
  std::string text = "the authority refuses: " + FirstLine(error, redactor, kLongestDescription);
  const std::string description = FirstLine(
      base::TextMember(*document, "error_description").value_or(""), redactor, kLongestDescription);
  if (!description.empty()) text += ": " + description;
  return text;
}

char* Authorizer::Authorize(IProtocol_V2* /*protocol*/, const char* credential) {
  const std::lock_guard<std::mutex> lock(mutex_);
  last_error_.clear();
  proxy_error_ = SUCCESS;
  try {
    const auto document = base::ParseJsonObject(credential == nullptr ? "" : credential);
    if (!document) throw HttpError("the module asked with a credential that is no JSON object");
    // The module gives the text back to FreeResult, which frees it.
    return strdup(Exchange(*document).c_str());
  } catch (const std::exception& error) {
    if (const auto* proxy = dynamic_cast<const ProxyError*>(&error)) proxy_error_ = proxy->code();
    last_error_ = error.what();
    context_.log.Line(LOGLEVEL_ERROR, "[AUTHORITY ] " + last_error_);
    return nullptr;
  }
}

void Authorizer::FreeResult(char* text) { std::free(text); }

std::string Authorizer::LastError() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return last_error_;
}

AERROR Authorizer::LastProxyError() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return proxy_error_;
}

std::string Authorizer::Exchange(const Json::Value& credential) {
  const ServiceSettings& settings = context_.settings;
  std::string resource =
      base::TextMember(base::ObjectMember(credential, "args"), "resource").value_or("");
  // With a preset service there is no discovery, and its resource is the only one there is.
  if (resource.empty()) resource = settings.service_resource;
  if (resource.empty()) resource = settings.discovery_resource;
  const ValueStore::Hold hold = context_.profile.HoldStore();
  // The module always starts from the text it was connected with; the profile's token is newer.
  std::string token = context_.profile.RefreshToken();
  if (token.empty())
    token =
        base::TextMember(base::ObjectMember(credential, "results"), "refresh_token").value_or("");
  if (token.empty()) throw HttpError("there is no refresh token");
  return AcceptTokens(Request(token, resource));
}

HttpResponse Authorizer::Request(const std::string& refresh_token, const std::string& resource) {
  const ServiceSettings& settings = context_.settings;
  context_.redactor.AddSecret(refresh_token);
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

std::string Authorizer::AcceptTokens(const HttpResponse& response) {
  const std::optional<Json::Value> tokens = base::ParseJsonObject(response.body);
  const std::string access = tokens ? base::TextMember(*tokens, "access_token").value_or("") : "";
  if (response.status != 200 || access.empty()) {
    throw HttpError(DescribeAuthorityError(response, context_.redactor));
  }
  const std::string refresh = base::TextMember(*tokens, "refresh_token").value_or("");
  context_.redactor.AddSecret(access);
  context_.redactor.AddSecret(refresh);
  if (!refresh.empty()) {
    try {
      context_.profile.KeepRefreshToken(refresh);
    } catch (const Failure& failure) {
      context_.log.Warn(std::string("the renewed sign-in could not be saved: ") + failure.what());
    }
  }
  Json::Value reply(Json::objectValue);
  reply["results"] = *tokens;
  return base::CompactJson(reply);
}

}  // namespace host
