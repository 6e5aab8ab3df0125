#include "host/session.h"

#include "base/json_text.h"
#include "host/service_error.h"

namespace host {
Session::LoggerBinding::LoggerBinding(const ModuleLibrary& module, Log& log) : module_(module) {
  module_.bind_logger(&log);
}

Session::LoggerBinding::~LoggerBinding() { module_.unbind_logger(); }

Session::Session(const SessionContext& context, const SessionOptions& options)
    : context_(context), binding_(context.module, context.log) {
  IProtocol_V2* created = nullptr;
  if (!context.module.get_protocol("onedrive4b", &context.profile, &created)) {
    throw Failure(FailureKind::kModule, "the module makes no protocol object");
  }
  protocol_.reset(created);
  SetOptions(options);
  Connect();
}

void Session::SetOptions(const SessionOptions& options) const {
  const auto set = [this](const char* key, const std::string& value) {
    Call(std::string("setting the option ") + key,
         [&](IProtocol_V2& protocol) { return protocol.SetOpt(key, value.c_str()); });
  };
  set("option_fields", OptionFields(options.proxy, options.show_shared));
  if (options.speed_limit > 0) set("speedlimit", std::to_string(options.speed_limit));
  if (!options.service.discovery_url.empty()) set("discovery_url", options.service.discovery_url);
  if (!options.service.service_endpoint.empty()) {
    set("service_endpoint", options.service.service_endpoint);
    set("service_resource", options.service.service_resource);
  }
}

void Session::Connect() const {
  Json::Value credential(Json::objectValue);
  credential["args"] = Json::Value(Json::objectValue);
  credential["results"] = Json::Value(Json::objectValue);
  const ErrorLines errors;
  const AERROR result =
      protocol_->Connect(&context_.authorizer, base::CompactJson(credential).c_str());
  if (result == SUCCESS) return;
  const std::string reason = context_.authorizer.LastError();
  if (reason.empty()) {
    const Failure failure = Describe(result, "signing in", errors);
    // Advice for a missing or changed item would mislead here.
    const bool helps = failure.kind() != FailureKind::kNotFound;
    throw Failure(FailureKind::kSignIn, failure.what(), helps ? failure.advice() : "");
  }
  const auto named = [&](AERROR error) {
    return std::string(context_.module.error_name(error)) + " (" +
           std::to_string(static_cast<int>(error)) + "): ";
  };
  if (const AERROR proxy = context_.authorizer.LastProxyError(); proxy != SUCCESS) {
    throw Failure(FailureKind::kProxy, named(proxy) + reason,
                  "check address, kind, user name and password in --proxy");
  }
  const bool refused = reason.find("refuses") != std::string::npos;
  throw Failure(FailureKind::kSignIn, "signing in failed: " + named(result) + reason,
                refused ? "run 'onedrive4b login' again" : "");
}

void Session::Call(const std::string& action,
                   const std::function<AERROR(IProtocol_V2&)>& operation) const {
  const ErrorLines errors;
  const AERROR result = operation(*protocol_);
  if (result != SUCCESS) throw Describe(result, action, errors);
}

Failure Session::Describe(AERROR result, const std::string& action,
                          const ErrorLines& errors) const {
  const ServiceError error = ReadServiceError(errors.lines());
  std::string what = action + " failed: " + context_.module.error_name(result) + " (" +
                     std::to_string(static_cast<int>(result)) + ")";
  if (!error.line.empty()) what += ", " + error.line;
  return {KindOf(result, error), what, AdviceFor(error)};
}

}  // namespace host
