// Log: the logger that the module is bound to; the host logs its own lines here, too. It removes
// secrets and passes each line to a sink, which decides where the lines go.
//
// Threads: every operation may be called from any thread.
// Lifetime: must outlive the module's binding to it; redactor and sink must outlive it.
#pragma once

#include <cstdarg>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/redaction.h"
#include "onedrive4b/interfaces.h"

namespace host {

/// Receives the lines. Called from several threads at once, with texts that contain no secrets and
/// no control sequences.
class LogSink {
 public:
  virtual ~LogSink() = default;

  /// Whether lines of this level are wanted; others are not even formatted.
  virtual bool Wants(LOGLEVEL level) = 0;
  virtual void Write(LOGLEVEL level, std::string_view line) = 0;
  /// A warning for the user, independent of the levels that are wanted.
  virtual void Warn(std::string_view text) = 0;
};

/// Collects the error lines that the calling thread logs while the object exists: the module's
/// operations return only a number, and the reason is in these lines. The newest object of a thread
/// receives the lines.
class ErrorLines {
 public:
  ErrorLines() noexcept;
  ~ErrorLines();
  ErrorLines(const ErrorLines&) = delete;
  ErrorLines& operator=(const ErrorLines&) = delete;

  /// Oldest first. Only the newest ones of a long operation.
  const std::vector<std::string>& lines() const noexcept { return lines_; }

 private:
  friend class Log;
  ErrorLines* const outer_;
  std::vector<std::string> lines_;
};

/// Tells each time that an operation of the calling thread is about to wait because the service
/// asked for fewer requests. The newest object of a thread is told.
class ThrottleWatch {
 public:
  /// `told` does not throw.
  explicit ThrottleWatch(std::function<void()> told);
  ~ThrottleWatch();
  ThrottleWatch(const ThrottleWatch&) = delete;
  ThrottleWatch& operator=(const ThrottleWatch&) = delete;

 private:
  friend class Log;
  ThrottleWatch* const outer_;
  const std::function<void()> told_;
};

class Log final : public ILog {
 public:
  Log(LogSink& sink, const Redactor& redactor) : sink_(sink), redactor_(redactor) {}

  void HostReserved() override {}
  bool IsDetailed() override { return sink_.Wants(LOGLEVEL_DETAIL); }
  void Write(LOGLEVEL level, const char* format, std::va_list arguments) override;

  /// A finished line of the host's own.
  void Line(LOGLEVEL level, std::string_view text);

  void Warn(std::string_view text);

 private:
  LogSink& sink_;
  const Redactor& redactor_;
};

}  // namespace host
