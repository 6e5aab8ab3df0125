// Errors in the service's form ("Error responses" in its public documentation): a status and a
// document {"error": {"code": ..., "message": ...}}.
// Threads: plain values. Lifetime: values own their text.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

#include "emulator/http/message.h"

namespace emulator {

class ServiceError : public std::runtime_error {
 public:
  ServiceError(int status, std::string code, const std::string& message)
      : std::runtime_error(message), status_(status), code_(std::move(code)) {}

  /// For the document's "innererror".
  ServiceError WithInnerCode(std::string inner_code) &&;
  ServiceError WithHeader(std::string name, std::string value) &&;

  int Status() const { return status_; }
  const std::string& Code() const { return code_; }
  const std::string& InnerCode() const { return inner_code_; }
  const HeaderList& Headers() const { return headers_; }

 private:
  int status_;
  std::string code_;
  std::string inner_code_;
  HeaderList headers_;
};

ServiceError InvalidRequest(const std::string& message);
ServiceError Unauthenticated(const std::string& message);
ServiceError AccessDenied();
ServiceError ItemNotFound();
/// `allowed`: the methods, with commas.
ServiceError MethodNotAllowed(const std::string& allowed);
ServiceError NameAlreadyExists();
ServiceError ResourceModified();
ServiceError ResourceLocked();
ServiceError QuotaLimitReached();
ServiceError TooManyRequests(std::chrono::seconds retry_after);

std::string ErrorText(const std::string& code, const std::string& message,
                      const std::string& inner_code = {});
Response ErrorResponse(const ServiceError& error);

}  // namespace emulator
