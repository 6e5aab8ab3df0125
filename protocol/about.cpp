#include "protocol/about.h"

#include <algorithm>
#include <utility>

#include "protocol/host_memory.h"
#include "protocol/onedrivebiz.h"
#include "protocol/response_json.h"
#include "support/edge.h"
#include "support/log.h"

namespace onedrive4b {

namespace {

constexpr std::chrono::seconds kMinimumBetweenFetches{60};
// A century: a longer wait would overflow the clock.
constexpr std::int64_t kLongestWait = 100LL * 365 * 24 * 3600;

}  // namespace

bool timer_killer::WaitFor(std::int64_t seconds) {
  std::unique_lock lock(mutex_);
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(std::min(seconds, kLongestWait));
  return !cv_.wait_until(lock, deadline, [this] { return terminate_; });
}

void timer_killer::Kill() {
  const std::lock_guard guard(mutex_);
  terminate_ = true;
  cv_.notify_all();
}

About::About(OneDriveBiz* owner, std::string endpoint, bool fetch_now)
    : endpoint_(std::move(endpoint)),
      last_update_(TimeSource().now() - std::chrono::hours(24)),
      owner_(owner) {
  if (fetch_now) About::Process(nullptr);
}

// A running task uses members that are declared after the futures, so it must end before them.
About::~About() {
  wait_or_kill_.Kill();
  futures_.clear();
}

void About::Process(void*) {
  constexpr const char* kName = "Process";
  {
    const std::lock_guard guard(lock_);
    if (TimeSource().now() - last_update_ < kMinimumBetweenFetches) return;
  }
  __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s started", kName);
  const std::string url = endpoint_ + "/drive";
  const auto step = [&](const std::shared_ptr<OneDriveBizCURL>& request) {
    owner_->Address(request, url);
    return request->PerformGet(nullptr, nullptr);
  };
  const StatusHandler handler([this](_CURLRTN& exchange) { return TakeAccount(exchange); }, "");
  if (owner_->Query(kName, step, {.by_class = {{200, handler}}}) != SUCCESS) throw ACCESS_VIOLATION;
  {
    const std::lock_guard guard(lock_);
    last_update_ = TimeSource().now();
  }
  __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s finished", kName);
}

AERROR About::TakeAccount(const _CURLRTN& exchange) {
  try {
    const JsonObject account = ParseBody(exchange);
    const std::lock_guard guard(lock_);
    display_name_ = TextAt(account, "/owner/user/displayName");
    // The remaining space of an account over its quota is negative.
    const auto total = static_cast<long long>(account.GetObject("/quota/total"));
    total_ = static_cast<std::uint64_t>(total);
    const auto remaining = static_cast<long long>(account.GetObject("/quota/remaining"));
    used_ = remaining > total ? 0 : total_ - static_cast<std::uint64_t>(remaining);
    return SUCCESS;
  } catch (...) {
    return FAILED;
  }
}

void About::Canceled(void*) {}

AERROR About::GetQuota(std::uint64_t* total, std::uint64_t* used) {
  try {
    Process(nullptr);
  } catch (...) {
    return ACCESS_VIOLATION;
  }
  const std::lock_guard guard(lock_);
  if (total != nullptr) *total = total_;
  if (used != nullptr) *used = used_;
  return SUCCESS;
}

std::string About::GetDisplayName() {
  const std::lock_guard guard(lock_);
  return display_name_;
}

void About::StartRepeatRefreshToken() {
  constexpr const char* kName = "StartRepeatRefreshToken";
  __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s started", kName);
  futures_.push_back(std::async(std::launch::async, [this] {
    // With a period of 0 or less the thread would spin.
    while (wait_or_kill_.WaitFor(std::max<std::int64_t>(g_interval_refresh_token, 1))) {
      owner_->RefreshAuth();
    }
    __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s Token-refreshing stopped", "operator()");
  }));
  __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s finished", kName);
}

void About::StopRepeatRefreshToken() {
  constexpr const char* kName = "StopRepeatRefreshToken";
  __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s started", kName);
  __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s kill wait_or_kill_", kName);
  wait_or_kill_.Kill();
  for (std::future<void>& task : futures_) task.wait();
  futures_.clear();
  __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s finished", kName);
}

}  // namespace onedrive4b
