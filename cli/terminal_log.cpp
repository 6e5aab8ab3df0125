#include "cli/terminal_log.h"

#include <cerrno>
#include <chrono>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/files.h"
#include "host/failure.h"
#include "host/text.h"

namespace cli {
namespace {

/// UTC with milliseconds.
std::string TimeStamp() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto part = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[32];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  return std::string(text, length) +
         host::Formatted(".%03dZ", static_cast<int>(part.count() % 1000));
}

const char* LevelName(LOGLEVEL level) {
  return level == LOGLEVEL_ERROR ? "error " : level == LOGLEVEL_DETAIL ? "detail" : "info  ";
}

}  // namespace

TerminalLog::TerminalLog(const LogOptions& options) : verbosity_(options.verbosity) {
  if (options.trace_file.empty()) return;
  const char* name = options.trace_file.c_str();
  trace_ = base::UniqueFd(::open(name, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600));
  if (!trace_ || ::fchmod(trace_.get(), 0600) != 0) {
    throw host::LocalFailure("write the trace to", options.trace_file, errno);
  }
}

bool TerminalLog::Shows(LOGLEVEL level) const noexcept {
  return verbosity_ > (level == LOGLEVEL_DETAIL ? 1 : 0);
}

void TerminalLog::Write(LOGLEVEL level, std::string_view line) {
  std::string text = TimeStamp() + " " + LevelName(level) + " ";
  text.append(line).append("\n");
  if (Shows(level)) base::WriteAll(STDERR_FILENO, text);
  if (trace_) base::WriteAll(trace_.get(), text);
}

void TerminalLog::Warn(std::string_view text) {
  const std::string warning = std::string("warning: ").append(text).append("\n");
  base::WriteAll(STDERR_FILENO, "onedrive4b: " + warning);
  if (trace_) base::WriteAll(trace_.get(), TimeStamp() + " " + warning);
}

}  // namespace cli
