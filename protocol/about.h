// The account information that a host shows, and the thread that renews tokens.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <list>
#include <mutex>
#include <string>

#include "onedrive4b/interfaces.h"
#include "support/steady_time.h"
#include "transport/transfer_result.h"

namespace onedrive4b {

class OneDriveBiz;

/// A sleep that another thread can end. After Kill it never waits again.
class timer_killer {
 public:
  /// True when the time has passed, false at once when killed.
  bool WaitFor(std::int64_t seconds);
  void Kill();

 private:
  std::condition_variable cv_;
  std::mutex mutex_;
  bool terminate_ = false;
};

class About : public IAsyncObj {
 public:
  /// Throws ACCESS_VIOLATION when `fetch_now` is set and the fetch fails. The owner outlives it.
  About(OneDriveBiz* owner, std::string endpoint, bool fetch_now);
  About(const About&) = delete;
  About& operator=(const About&) = delete;

  /// Fetches the account information, unless that succeeded less than 60 s ago. Throws
  /// ACCESS_VIOLATION when it fails. Any thread.
  void Process(void* context) override;
  void Canceled(void* context) override;

  /// Waits for a refresh loop that still runs.
  ~About() override;

  /// Bytes; either pointer may be null. ACCESS_VIOLATION when a fetch was due and failed.
  virtual AERROR GetQuota(std::uint64_t* total, std::uint64_t* used);

  std::string GetDisplayName();

  /// Starts the thread that renews the owner's tokens every `g_interval_refresh_token` seconds,
  /// first after one period. Throws std::system_error if no thread can be started.
  void StartRepeatRefreshToken();
  bool HasRefreshLoop() const { return !futures_.empty(); }
  /// Stops the thread and waits for it; a running renewal finishes first.
  void StopRepeatRefreshToken();

 private:
  AERROR TakeAccount(const _CURLRTN& exchange);

  std::string endpoint_;
  std::string display_name_ = "OneDrive for Business";
  std::uint64_t total_ = 0;
  std::uint64_t used_ = 0;
  std::mutex lock_;  // guards the account's values and last_update_
  SteadyTime::Clock::time_point last_update_;
  std::list<std::future<void>> futures_;
  timer_killer wait_or_kill_;
  OneDriveBiz* owner_;
};

}  // namespace onedrive4b
