#include "emulator/http/service_error.h"

#include "base/json_text.h"

namespace emulator {

ServiceError ServiceError::WithInnerCode(std::string inner_code) && {
  inner_code_ = std::move(inner_code);
  return std::move(*this);
}

ServiceError ServiceError::WithHeader(std::string name, std::string value) && {
  headers_.emplace_back(std::move(name), std::move(value));
  return std::move(*this);
}

ServiceError InvalidRequest(const std::string& message) { return {400, "invalidRequest", message}; }

ServiceError Unauthenticated(const std::string& message) {
  // RFC 6750 section 3: a refusal of a token names the scheme and says what is wrong with it.
  return ServiceError(401, "unauthenticated", message)
      .WithHeader(
          "WWW-Authenticate",
          "Bearer realm=\"\", error=\"invalid_token\", error_description=\"" + message + "\"");
}

ServiceError AccessDenied() {
  return {403, "accessDenied", "The caller doesn't have permission to perform the action."};
}

ServiceError ItemNotFound() { return {404, "itemNotFound", "The resource could not be found."}; }

ServiceError MethodNotAllowed(const std::string& allowed) {
  return ServiceError(405, "invalidRequest", "The HTTP method is not allowed on this resource.")
      .WithHeader("Allow", allowed);
}

ServiceError NameAlreadyExists() {
  return {409, "nameAlreadyExists", "The specified item name already exists."};
}

ServiceError ResourceModified() {
  return {412, "resourceModified",
          "The resource being updated has changed since the caller last read it."};
}

ServiceError ResourceLocked() {
  return {423, "resourceLocked", "The resource you are attempting to access is locked."};
}

ServiceError QuotaLimitReached() {
  return {507, "quotaLimitReached", "The user has reached their quota limit."};
}

ServiceError TooManyRequests(std::chrono::seconds retry_after) {
  return ServiceError(429, "activityLimitReached", "The app or user has been throttled.")
      .WithHeader("Retry-After", std::to_string(retry_after.count()));
}

std::string ErrorText(const std::string& code, const std::string& message,
                      const std::string& inner_code) {
  Json::Value document;
  Json::Value& error = document["error"];
  error["code"] = code;
  error["message"] = message;
  if (!inner_code.empty()) error["innererror"]["code"] = inner_code;
  return base::CompactJson(document);
}

Response ErrorResponse(const ServiceError& error) {
  Response response =
      JsonResponse(error.Status(), ErrorText(error.Code(), error.what(), error.InnerCode()));
  for (const auto& [name, value] : error.Headers()) response.SetHeader(name, value);
  return response;
}

}  // namespace emulator
