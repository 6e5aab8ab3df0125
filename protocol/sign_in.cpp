// Sign-in, discovery of the service, and renewal of tokens.
//
// The host performs the OAuth 2.0 exchange. This file decides when to ask the host, with which
// credential text, and which parts of its replies to keep.
#include <array>
#include <chrono>
#include <utility>

#include "protocol/about.h"
#include "protocol/authorized_reply.h"
#include "protocol/host_memory.h"
#include "protocol/onedrivebiz.h"
#include "protocol/response_json.h"
#include "support/edge.h"
#include "support/log.h"

namespace onedrive4b {

namespace {

constexpr const char* kStoredToken = "refresh_token";
constexpr int kStoredTokenBuffer = 1024;
constexpr const char* kTokenPath = "/results/refresh_token";

// An access token lives for an hour; an earlier 401 after a renewal has another reason.
constexpr std::chrono::seconds kMinimumBetweenRenewals{3660};

// Marks the calling thread as the renewing one, and records the time of the attempt.
class Renewal {
 public:
  Renewal(std::atomic<std::thread::id>& thread, SteadyTime::Clock::time_point& last)
      : thread_(thread), last_(last) {
    thread_ = std::this_thread::get_id();
  }
  Renewal(const Renewal&) = delete;
  Renewal& operator=(const Renewal&) = delete;
  ~Renewal() {
    last_ = TimeSource().now();
    thread_ = std::thread::id();
  }

 private:
  std::atomic<std::thread::id>& thread_;
  SteadyTime::Clock::time_point& last_;
};

// The last entry that serves the user's files; false for none.
bool FindFilesService(JsonObject& services, std::string& resource, std::string& endpoint) {
  for (auto index = static_cast<int>(services.GetArraySize()); index-- > 0;) {
    const JsonObject entry = services[index];
    const std::string capability = TextAt(entry, "capability");
    const std::string version = TextAt(entry, "serviceApiVersion");
    if (capability != "MyFiles" || (version != "v2.0" && version != "v5.0")) continue;
    if (version == "v2.0") resource = TextAt(entry, "serviceResourceId");
    endpoint = TextAt(entry, "serviceEndpointUri");
    return true;
  }
  return false;
}

AERROR TakeFilesService(const _CURLRTN& exchange, std::string& resource, std::string& endpoint) {
  // The name under which the host knows the lines of this handler.
  constexpr const char* kName = "operator()";
  try {
    const JsonObject document = ParseBody(exchange);
    JsonObject services = document.GetObject("/value");
    if (FindFilesService(services, resource, endpoint)) {
      __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s Resource id [%s], Service endpoint [%s]",
               kName, resource.c_str(), endpoint.c_str());
      return SUCCESS;
    }
  } catch (...) {
    // An unreadable list has no entry.
  }
  __LOG__A(logger, LOGLEVEL_ERROR,
           "[PROTOCOL  ] %s Failed find serviceResourceId and serviceEndpointUri", kName);
  return FAILED;
}

}  // namespace

AERROR OneDriveBiz::Connect(IProtocolAuth* auth, const char* credential) {
  constexpr const char* kName = "Connect";
  return AtEdge([&] {
    if (auth == nullptr || credential == nullptr || manager_ == nullptr) return INVALID_PARAMETER;
    __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s called", kName);
    {
      const auto lock = LockTokens();
      protocol_auth_ = auth;
      credential_ = credential;
    }
    const std::string updated = TakeStoredToken(credential);
    __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s Use updated credential", kName);
    try {
      AuthorizedReply reply(*protocol_auth_, *this, updated);
      return reply ? FinishConnect(reply) : AUTH_FAILED;
    } catch (...) {
      return AUTH_FAILED;
    }
  });
}

std::string OneDriveBiz::TakeStoredToken(const char* credential) {
  constexpr const char* kName = "Connect";
  std::string updated = credential;
  try {
    JsonObject document(credential);
    std::array<char, kStoredTokenBuffer + 1> buffer{};
    int length = kStoredTokenBuffer;
    manager_->GetValue(pid_.c_str(), kStoredToken, buffer.data(), &length);
    const std::string stored = buffer.data();
    {
      const auto lock = LockTokens();
      refresh_token_ = stored;
    }
    if (stored.empty()) {
      __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s No stored refresh token found", kName);
      return updated;
    }
    document.GetObject("/results")[kStoredToken] = stored;
    updated = document.ToText();
    __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s Remove stored refresh token", kName);
    manager_->SetValue(pid_.c_str(), kStoredToken, "");
  } catch (...) {
    __LOG__A(logger, LOGLEVEL_ERROR, "[PROTOCOL  ] %s Failed to update refresh token", kName);
  }
  return updated;
}

AERROR OneDriveBiz::FinishConnect(AuthorizedReply& authorized) {
  JsonObject reply = authorized.Parse();
  authorized.Free();
  KeepRefreshToken(reply, "Connect");
  {
    const auto lock = LockTokens();
    auth_ = std::make_shared<CURLAuth>(reply);
  }
  if (GetAuthForService<About>(reply, endpoint_uri_) != SUCCESS) return AUTH_FAILED;
  if (about_ && about_->HasRefreshLoop()) about_->StopRepeatRefreshToken();
  about_ = std::make_shared<About>(this, service_endpoint_, true);
  about_->StartRepeatRefreshToken();
  root_.id = "root";
  root_.attr = kFolder;
  root_.size = 0;
  root_.filename = "My Drive";
  SetTimes(root_, LocalTimeText());
  return SUCCESS;
}

void OneDriveBiz::KeepRefreshToken(const JsonObject& reply, const char* operation) {
  if (!reply.HasObject(kTokenPath)) {
    __LOG__A(logger, LOGLEVEL_ERROR, "[PROTOCOL  ] %s No refresh token found after refresh auth",
             operation);
    return;
  }
  const std::string token = TextAt(reply, kTokenPath);
  {
    const auto lock = LockTokens();
    refresh_token_ = token;
  }
  manager_->SetValue(pid_.c_str(), kStoredToken, token.c_str());
}

std::unique_lock<std::mutex> OneDriveBiz::LockTokens() {
  return RenewsHere() ? std::unique_lock<std::mutex>() : std::unique_lock(refresh_mutex_);
}

AuthorizedReply OneDriveBiz::AuthorizeForService() {
  JsonObject credential(credential_.c_str());
  credential["args"]["resource"] = resource_id_;
  return {*protocol_auth_, *this, credential.ToText()};
}

template <typename Account>
AERROR OneDriveBiz::GetAuthForService(JsonObject&, std::string) {
  const bool renewal = service_auth_ != nullptr;
  if (!renewal && service_endpoint_.empty()) {
    const AERROR result = GetServiceEndpoint(resource_id_, endpoint_uri_);
    if (result != SUCCESS) {
      __LOG__A(logger, LOGLEVEL_ERROR, "[PROTOCOL  ] %s Failed to find service end point",
               "GetAuthForService");
      return result;
    }
    service_endpoint_ = endpoint_uri_;
  }
  AuthorizedReply authorized = AuthorizeForService();
  JsonObject reply = authorized.Parse();
  authorized.Free();
  if (renewal) {
    service_auth_->SetAuth(reply);
    return SUCCESS;
  }
  service_auth_ = std::make_shared<CURLAuth>(reply);
  return AddAbout<Account>(endpoint_uri_);
}

template <typename Account>
AERROR OneDriveBiz::AddAbout(std::string endpoint) {
  if (!service_auth_) return FS_NEED_AUTHORIZE;
  if (about_) return FS_ALREADY_AUTHORIZED;
  try {
    about_ = std::make_shared<Account>(this, std::move(endpoint), true);
    return SUCCESS;
  } catch (AERROR error) {
    return error;
  }
}

AERROR OneDriveBiz::GetServiceEndpoint(std::string& resource, std::string& endpoint) {
  constexpr const char* kName = "GetServiceEndpoint";
  __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s Discover service..", kName);
  const auto step = [this](const std::shared_ptr<OneDriveBizCURL>& request) {
    request->SetURL(discovery_url_.c_str());
    auth_->SignAuthentication(request);
    return request->PerformPost(nullptr, nullptr, -1);
  };
  const StatusHandler handler(
      [&](_CURLRTN& exchange) { return TakeFilesService(exchange, resource, endpoint); }, "");
  const AERROR result = Query(kName, step, {.by_class = {{200, handler}}});
  // An answer below 400 that no handler sees counts as success.
  return result == SUCCESS && endpoint.empty() ? FAILED : result;
}

AERROR OneDriveBiz::RefreshAuth() {
  // A request of the renewal itself was refused: a second renewal would not help.
  if (RenewsHere()) return FAILED;
  std::unique_lock lock(refresh_mutex_, std::try_to_lock);
  if (!lock) {
    lock.lock();
    return RETRY;
  }
  if (TimeSource().now() - last_refresh_ < kMinimumBetweenRenewals) return FAILED;
  const Renewal renewal(renewing_thread_, last_refresh_);
  try {
    return RenewTokens();
  } catch (...) {
    return FAILED;
  }
}

AERROR OneDriveBiz::RenewTokens() {
  JsonObject credential(credential_.c_str());
  credential["results"][kStoredToken] = refresh_token_;
  AuthorizedReply authorized(*protocol_auth_, *this, credential.ToText());
  if (!authorized) return FAILED;
  JsonObject reply = authorized.Parse();
  auth_->SetAuth(reply);
  try {
    GetAuthForService<About>(reply, endpoint_uri_);
    authorized.Free();
  } catch (...) {
    // The authority may have withdrawn the refresh token that the new one replaces.
    KeepRefreshToken(reply, "RefreshAuth");
    throw;
  }
  KeepRefreshToken(reply, "RefreshAuth");
  return RETRY;
}

}  // namespace onedrive4b
