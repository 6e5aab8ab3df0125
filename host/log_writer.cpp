#include "host/log_writer.h"

#include <cerrno>
#include <chrono>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/files.h"
#include "host/failure.h"
#include "host/text.h"

namespace host {
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
  return std::string(text, length) + Formatted(".%03dZ", static_cast<int>(part.count() % 1000));
}

const char* LevelName(LOGLEVEL level) {
  return level == LOGLEVEL_ERROR ? "error " : level == LOGLEVEL_DETAIL ? "detail" : "info  ";
}

}  // namespace

LogWriter::LogWriter(const LogOptions& options, const Redactor& redactor)
    : verbosity_(options.verbosity), redactor_(redactor) {
  if (options.trace_file.empty()) return;
  const char* name = options.trace_file.c_str();
  trace_ = base::UniqueFd(::open(name, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600));
  if (!trace_ || ::fchmod(trace_.get(), 0600) != 0) {
    throw LocalFailure("write the trace to", options.trace_file, errno);
  }
}

bool LogWriter::Shows(LOGLEVEL level) const noexcept {
  return trace_ || level == LOGLEVEL_ERROR || verbosity_ > (level == LOGLEVEL_DETAIL ? 1 : 0);
}

void LogWriter::Write(LOGLEVEL level, const char* format, std::va_list arguments) {
  if (format != nullptr && Shows(level)) Line(level, FormattedV(format, arguments));
}

void LogWriter::Line(LOGLEVEL level, std::string_view text) {
  if (!Shows(level)) return;
  const std::string safe = EscapeForTerminal(redactor_.Redact(text));
  if (level == LOGLEVEL_ERROR) {
    const std::lock_guard<std::mutex> lock(mutex_);
    last_errors_[std::this_thread::get_id()] = safe;
  }
  Emit(level, safe);
}

void LogWriter::Emit(LOGLEVEL level, std::string_view text) {
  const bool to_terminal = verbosity_ > (level == LOGLEVEL_DETAIL ? 1 : 0);
  if (!to_terminal && !trace_) return;
  std::string line = TimeStamp() + " " + LevelName(level) + " ";
  line.append(text).append("\n");
  if (to_terminal) base::WriteAll(STDERR_FILENO, line);
  if (trace_) base::WriteAll(trace_.get(), line);
}

void LogWriter::Warn(std::string_view text) {
  const std::string safe = redactor_.Redact(text);
  base::WriteAll(STDERR_FILENO, "onedrive4b: warning: " + safe + "\n");
  if (trace_) base::WriteAll(trace_.get(), TimeStamp() + " warning " + safe + "\n");
}

std::string LogWriter::TakeLastError() {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = last_errors_.find(std::this_thread::get_id());
  if (found == last_errors_.end()) return {};
  std::string text = std::move(found->second);
  last_errors_.erase(found);
  return text;
}

}  // namespace host
