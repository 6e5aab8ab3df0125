#include "host/session.h"

#include <charconv>

#include "base/json_text.h"

namespace host {
namespace {

/// What a person can do about an HTTP status of the service.
const char* AdviceFor(int status) {
  switch (status) {
    case 400:
      return "the service does not accept this name or request";
    case 401:
      return "run 'onedrive4b login' again";
    case 403:
      return "the account may not do this here";
    case 404:
      return "the item is gone; list the folder again";
    case 409:
      return "an item of this name is there already, or another change is running";
    case 412:
      return "the item was changed by someone else in between; look at it again";
    case 416:
      return "the file is shorter now; list the folder again";
    case 423:
      return "the item is locked, perhaps because it is open somewhere; try later";
    case 429:
    case 503:
      return "the service asks for fewer requests; try later";
    case 507:
      return "the drive is full";
    default:
      return status >= 500 ? "the service has trouble; try later" : "";
  }
}

std::string WithoutTag(const std::string& line) {
  const std::size_t end = line.find("] ");
  return line.starts_with('[') && end != std::string::npos ? line.substr(end + 2) : line;
}

}  // namespace

int HttpStatusIn(const std::string& line) {
  // ">> HTTP 404", ">> ON HTTP 404 : ...", ">> ON HTTP(for any code) 404 : ...",
  // ">> ON HTTP RANGE 200(206) : ..."
  std::size_t at = line.rfind(">> ");
  if (at == std::string::npos) return 0;
  at = line.find("HTTP", at);
  if (at == std::string::npos) return 0;
  const bool range = line.compare(at, 10, "HTTP RANGE") == 0;
  if (range) {
    at = line.find('(', at);
  } else if (line.compare(at, 5, "HTTP(") == 0) {
    at = line.find(')', at);
  } else {
    at += 4;
  }
  if (at == std::string::npos) return 0;
  at = line.find_first_of("0123456789", at);
  int status = 0;
  if (at != std::string::npos) std::from_chars(line.data() + at, line.data() + line.size(), status);
  return status;
}

Session::LoggerBinding::LoggerBinding(const ModuleLibrary& module, LogWriter& log)
    : module_(module) {
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
    Check(protocol_->SetOpt(key, value.c_str()), std::string("setting the option ") + key);
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
  const AERROR result =
      protocol_->Connect(&context_.authorizer, base::CompactJson(credential).c_str());
  if (result == SUCCESS) return;
  const std::string reason = context_.authorizer.LastError();
  if (reason.empty()) {
    const Failure failure = Describe(result, "signing in");
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

void Session::Check(AERROR result, const std::string& action) const {
  if (result != SUCCESS) throw Describe(result, action);
  context_.log.TakeLastError();  // of a repeated request, or of nothing that matters
}

Failure Session::Describe(AERROR result, const std::string& action) const {
  const std::string line = context_.log.TakeLastError();
  std::string what = action + " failed: " + context_.module.error_name(result) + " (" +
                     std::to_string(static_cast<int>(result)) + ")";
  if (!line.empty()) what += ", " + WithoutTag(line);
  const int status = HttpStatusIn(line);
  const FailureKind kind =
      status == 404 || result == FILE_NOT_FOUND ? FailureKind::kNotFound : FailureKind::kFailed;
  return Failure(kind, what, AdviceFor(status));
}

}  // namespace host
