// The protocol object itself: construction, options, and what all requests share.
#include "protocol/onedrivebiz.h"

#include <array>
#include <cstdlib>
#include <cstring>

#include <strings.h>

#include "protocol/about.h"
#include "protocol/host_memory.h"
#include "retry/backoff.h"
#include "support/edge.h"
#include "support/log.h"
#include "transport/url.h"

namespace onedrive4b {

namespace {

constexpr const char* kModuleKey = "onedrivebiz.dll_1.0.0.0";
constexpr int kPidBuffer = 256;
constexpr int kUnauthorized = 401;

// The worldwide service. Its operator has retired it and national clouds have others, so the option
// "discovery_url" replaces it.
constexpr const char* kDiscoveryUrl = "https://api.office.com/discovery/v2.0/me/services";

std::string ReadPid(IProtocolManager* manager) {
  if (manager == nullptr) return {};
  std::array<char, kPidBuffer + 1> buffer{};
  int length = kPidBuffer;
  manager->GetPID(kModuleKey, buffer.data(), &length);
  return buffer.data();
}

// Each member is stored as soon as it has been read.
void StoreProxy(const JsonObject& value) {
  const std::lock_guard guard(cq.mutex);
  cq.proxy.type = TextAt(value, "type");
  cq.proxy.host = TextAt(value, "host");
  cq.proxy.port = std::to_string(static_cast<int>(value.GetObject("port")));
  cq.proxy.user = TextAt(value, "user");
  cq.proxy.password = TextAt(value, "password");
}

}  // namespace

OneDriveBiz::OneDriveBiz(const char* name, IProtocolManager* manager)
    : name_(TextOrEmpty(name)),
      pid_(ReadPid(manager)),
      manager_(manager),
      on_unauthorized_([this](_CURLRTN&) { return RefreshAuth(); }),
      last_refresh_(TimeSource().now() - std::chrono::hours(24)),
      discovery_url_(kDiscoveryUrl) {
  top_.attr = kSynthesisedFolder;
  SetTimes(top_, LocalTimeText());
  shared_.id = "shared";
  shared_.filename = "Shared with me";
  shared_.attr = kSynthesisedFolder;
  SetTimes(shared_, top_.accesstime);
}

OneDriveBiz::~OneDriveBiz() = default;

void OneDriveBiz::Release() {
  constexpr const char* kName = "Release";
  __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s started", kName);
  if (about_) about_->StopRepeatRefreshToken();
  delete this;
  __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s finished", kName);
}

void OneDriveBiz::FreeMsg(char* message) { std::free(message); }

AERROR OneDriveBiz::Query(const char* name, StepFunction step, Answers answers) {
  answers.by_status.insert_or_assign(kUnauthorized, StatusHandler(on_unauthorized_, ""));
  return QueryWithBackoff<ExponentialBackoff, CURLQueue<OneDriveBizCURL>>(
      cq, Step<OneDriveBizCURL>(std::move(step), name), std::move(answers.by_class),
      std::move(answers.by_status), std::move(answers.curl_errors), std::move(answers.stop));
}

void OneDriveBiz::Address(const std::shared_ptr<OneDriveBizCURL>& request, const std::string& url) {
  request->SetURL(url.c_str());
  if (SameOrigin(url, service_endpoint_)) service_auth_->SignAuthentication(request);
}

AERROR OneDriveBiz::SetOpt(const char* key, const char* value) {
  return AtEdge([&] {
    if (key == nullptr) return INVALID_PARAMETER;
    const auto is = [key](const char* option) { return strcasecmp(key, option) == 0; };
    if (is("option_fields")) {
      SetOptionFields(value);
    } else if (is("speedlimit")) {
      speedlimit_ = std::strtoll(TextOrEmpty(value), nullptr, 10);
    } else if (is("pid")) {
      pid_ = TextOrEmpty(value);
    } else if (is("discovery_url")) {
      discovery_url_ = TextOrEmpty(value);
    } else if (is("service_endpoint")) {
      service_endpoint_ = endpoint_uri_ = TextOrEmpty(value);
    } else if (is("service_resource")) {
      resource_id_ = TextOrEmpty(value);
    } else if (is("upload_if_match")) {
      upload_if_match_ = std::strcmp(TextOrEmpty(value), "true") == 0;
    } else if (is("upload_if_new")) {
      upload_if_new_ = std::strcmp(TextOrEmpty(value), "true") == 0;
    }
    return SUCCESS;
  });
}

void OneDriveBiz::SetOptionFields(const char* text) {
  const JsonObject document(text);
  JsonObject values = document.GetObject("values");
  for (const std::string& name : values.GetKeys()) {
    if (name == "proxy") {
      StoreProxy(values[name.c_str()].GetObject("value"));
    } else if (name == "show_shared") {
      show_shared_ = static_cast<bool>(values[name.c_str()].GetObject("value"));
    }
  }
}

}  // namespace onedrive4b
