#include "host/connection.h"

#include <optional>

#include "base/json_text.h"
#include "host/service_error.h"

namespace host {
namespace {

/// "FAILED (1)"
std::string Named(const ModuleLibrary& module, AERROR result) {
  return std::string(module.error_name(result)) + " (" + std::to_string(static_cast<int>(result)) +
         ")";
}

}  // namespace

Failure DescribeFailure(const ModuleLibrary& module, AERROR result, const std::string& action,
                        const ErrorLines& errors) {
  const ServiceError error = ReadServiceError(errors.lines());
  std::string what = action + " failed: " + Named(module, result);
  if (!error.line.empty()) what += ", " + error.line;
  return {KindOf(result, error), what, AdviceFor(error)};
}

Connection::Connection(const SessionContext& context, const SessionOptions& options)
    : module_(context.module), authorizer_(context.authorizer) {
  IProtocol_V2* created = nullptr;
  if (!module_.get_protocol("onedrive4b", &context.authorizer.profile, &created)) {
    throw Failure(FailureKind::kModule, "the module could not create a protocol object");
  }
  protocol_.reset(created);
  SetOptions(options);
  SignIn();
}

void Connection::SetOptions(const SessionOptions& options) const {
  const auto set = [this](const char* key, const std::string& value) {
    const ErrorLines errors;
    const AERROR result = protocol_->SetOpt(key, value.c_str());
    if (result == SUCCESS) return;
    throw DescribeFailure(module_, result, std::string("setting the option ") + key, errors);
  };
  set("option_fields",
      OptionFields(options.proxy.ForModule(DriveAddress(options.service)), options.show_shared));
  if (options.speed_limit > 0) set("speedlimit", std::to_string(options.speed_limit));
  if (options.guard_uploads) {
    set("upload_if_match", "true");
    set("upload_if_new", "true");
  }
  if (!options.service.discovery_url.empty()) set("discovery_url", options.service.discovery_url);
  if (!options.service.service_endpoint.empty()) {
    set("service_endpoint", options.service.service_endpoint);
    set("service_resource", options.service.service_resource);
  }
}

void Connection::SignIn() {
  Json::Value credential(Json::objectValue);
  credential["args"] = Json::Value(Json::objectValue);
  credential["results"] = Json::Value(Json::objectValue);
  const ErrorLines errors;
  const AERROR result = protocol_->Connect(&authorizer_, base::CompactJson(credential).c_str());
  if (result == SUCCESS) return;
  if (const std::optional<Failure> failure = authorizer_.last_failure()) {
    const AERROR proxy = authorizer_.last_proxy_error();
    throw Failure(failure->kind(),
                  "signing in failed: " + Named(module_, proxy == SUCCESS ? result : proxy) + ": " +
                      failure->what(),
                  failure->advice());
  }
  const Failure failure = DescribeFailure(module_, result, "signing in", errors);
  if (failure.kind() != FailureKind::kNotFound) throw failure;
  // What is missing is the service or the account's drive, not an item.
  throw Failure(FailureKind::kSignIn, failure.what());
}

}  // namespace host
