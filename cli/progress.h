// Progress: shows the progress of a transfer on standard error: a bar on a terminal, otherwise
// lines.
//
// Threads: Add and MoveTo may be called from several threads at once; the rest by the owner.
// Lifetime: one object for one transfer. Destroyed before Finish, it only clears its bar.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

namespace cli {

/// One line: bar, percentage, amount, rate and time left, `width` cells wide at most. Total 0 means
/// an empty file. Bytes per second of 0 or less means unknown.
struct ProgressState {
  std::string label;  ///< escaped
  std::int64_t total = 0;
  std::int64_t done = 0;
  double rate = 0;
};
std::string ProgressLine(const ProgressState& state, std::size_t width);

class Progress {
 public:
  /// `label` names what is transferred.
  Progress(const std::string& label, std::int64_t total, bool quiet);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// `bytes` more are done.
  void Add(std::int64_t bytes);
  /// `done` bytes are done in total; a repeated request may reduce the number.
  void MoveTo(std::int64_t done);

  /// The transfer has succeeded: writes its last line.
  void Finish();

 private:
  using Clock = std::chrono::steady_clock;

  void Show();
  void UpdateRate(Clock::time_point now);

  std::mutex mutex_;
  ProgressState state_;
  const bool quiet_;
  const bool terminal_;
  const Clock::time_point start_;
  Clock::time_point shown_;      ///< when the newest line was written
  std::int64_t shown_done_ = 0;  ///< `done` at that time
  bool bar_is_there_ = false;
};

}  // namespace cli
