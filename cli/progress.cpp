#include "cli/progress.h"

#include <algorithm>
#include <cmath>

#include <sys/ioctl.h>
#include <unistd.h>

#include "base/files.h"
#include "host/text.h"

namespace cli {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kBarPeriod(100);
constexpr milliseconds kLinePeriod(10000);
constexpr std::size_t kDefaultWidth = 80;
constexpr std::size_t kLeastLabel = 8;
/// Share of the newest period in the rate that is shown.
constexpr double kSmoothing = 0.2;

std::size_t TerminalWidth() {
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kDefaultWidth;
  return size.ws_col;
}

std::string Amount(std::int64_t bytes) {
  return host::HumanSize(static_cast<std::uint64_t>(bytes));
}

std::string Bar(int percent) {
  constexpr int kCells = 20;
  const int full = percent * kCells / 100;
  return "[" + std::string(static_cast<std::size_t>(full), '#') +
         std::string(static_cast<std::size_t>(kCells - full), '.') + "]";
}

}  // namespace

std::string ProgressLine(const ProgressState& state, std::size_t width) {
  const double share = state.total > 0 ? static_cast<double>(std::min(state.done, state.total)) /
                                             static_cast<double>(state.total)
                                       : 1.0;
  const int percent = static_cast<int>(share * 100);
  std::string figures = " " + Bar(percent) + host::Formatted(" %3d%% ", percent) +
                        host::Padded(Amount(state.done), 8, true);
  if (state.rate > 0) {
    const auto left =
        static_cast<double>(std::max<std::int64_t>(state.total - state.done, 0)) / state.rate;
    figures += " " + host::Padded(Amount(static_cast<std::int64_t>(state.rate)) + "/s", 10, true);
    // Days are as good as stalled.
    if (left < 360000) figures += " " + host::ClockTime(std::llround(left)) + " left";
  }
  const std::size_t used = host::DisplayWidth(figures);
  const std::size_t label_width = width > used + kLeastLabel ? width - used : kLeastLabel;
  const std::string line = host::Padded(host::Shortened(state.label, label_width),
                                        std::min<std::size_t>(label_width, 30)) +
                           figures;
  return host::Shortened(line, width);
}

Progress::Progress(const std::string& label, std::int64_t total, bool quiet)
    : state_{host::EscapeForTerminal(label), total, 0, 0},
      quiet_(quiet),
      terminal_(::isatty(STDERR_FILENO) == 1),
      start_(Clock::now()),
      shown_(start_) {}

Progress::~Progress() {
  if (bar_is_there_) base::WriteAll(STDERR_FILENO, "\r\x1b[K");
}

void Progress::Add(std::int64_t bytes) {
  const std::lock_guard<std::mutex> lock(mutex_);
  state_.done += bytes;
  Show();
}

void Progress::MoveTo(std::int64_t done) {
  const std::lock_guard<std::mutex> lock(mutex_);
  state_.done = done;
  Show();
}

void Progress::Show() {
  if (quiet_) return;
  const Clock::time_point now = Clock::now();
  if (now - shown_ < (terminal_ ? kBarPeriod : kLinePeriod)) return;
  UpdateRate(now);
  if (terminal_) {
    // One cell is left free: some terminals wrap after the last one.
    base::WriteAll(STDERR_FILENO, "\r" + ProgressLine(state_, TerminalWidth() - 1) + "\x1b[K");
    bar_is_there_ = true;
  } else {
    base::WriteAll(STDERR_FILENO, ProgressLine(state_, 200) + "\n");
  }
}

void Progress::UpdateRate(Clock::time_point now) {
  const double seconds = std::chrono::duration<double>(now - shown_).count();
  const double rate = static_cast<double>(state_.done - shown_done_) / seconds;
  state_.rate = state_.rate <= 0 ? rate : state_.rate + kSmoothing * (rate - state_.rate);
  shown_ = now;
  shown_done_ = state_.done;
}

void Progress::Finish() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (quiet_) return;
  const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  std::string line =
      state_.label + ": " + Amount(state_.total) + " in " + host::Formatted("%.1f s", seconds);
  if (seconds > 0.05 && state_.total > 0) {
    line += " (" + Amount(static_cast<std::int64_t>(static_cast<double>(state_.total) / seconds)) +
            "/s)";
  }
  base::WriteAll(STDERR_FILENO, (bar_is_there_ ? "\r\x1b[K" : "") + line + "\n");
  bar_is_there_ = false;
}

}  // namespace cli
