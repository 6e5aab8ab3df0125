// Policies: on which statuses to slow down, how often, and how long.
//
// A policy belongs to one request on one thread.
#pragma once

#include <cstdint>
#include <deque>
#include <utility>

#include "onedrive4b/aerror.h"
#include "support/steady_time.h"

namespace onedrive4b {

class IBackoff {
 public:
  virtual bool IsBackoffCode(int code) = 0;  ///< whether this HTTP status asks to slow down
  virtual bool IsAvaliable() = 0;            ///< whether a step is left
  virtual int GetLeft() = 0;                 ///< steps left
  /// Uses one step: blocks the thread for the step's time and returns RETRY, or returns FAILED
  /// without waiting if the policy never backs off.
  virtual AERROR Backoff() = 0;
  virtual ~IBackoff() = default;
};

class NoBackoff : public IBackoff {
 public:
  bool IsBackoffCode(int) override { return false; }
  bool IsAvaliable() override { return false; }
  int GetLeft() override { return 0; }
  AERROR Backoff() override { return FAILED; }
};

/// Waits 1, 2, 4, 8 ... seconds.
class ExponentialBackoff : public IBackoff {
 public:
  /// `count` steps, at most 16; a negative count means 5.
  ExponentialBackoff(std::deque<int> backoff_codes, int count);

  /// Once `stop` is true, the current wait ends, and Backoff returns FAILED.
  void StopWith(StopSignal stop) { stop_ = std::move(stop); }

  bool IsBackoffCode(int code) override;
  bool IsAvaliable() override { return left > 0; }
  int GetLeft() override { return left; }
  AERROR Backoff() override;

 private:
  std::deque<int> codes;
  std::int32_t total;
  std::int32_t left;
  StopSignal stop_;
};

}  // namespace onedrive4b
