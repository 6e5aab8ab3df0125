// LogWriter: the host's logger, and the place where the program's own diagnostics go.
//
// Threads: every operation may be called from any thread; a line is written with one system call,
// so lines never mix.
// Lifetime: must outlive the module's binding to it. Owns the trace file.
#pragma once

#include <cstdarg>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "base/unique_fd.h"
#include "host/redaction.h"
#include "onedrive4b/interfaces.h"

namespace host {

struct LogOptions {
  int verbosity = 0;       ///< 0: nothing on standard error, 1: progress and errors, 2: all
  std::string trace_file;  ///< all lines go there too; empty for none
};

class LogWriter final : public ILog {
 public:
  /// Throws Failure when the trace file cannot be made. The file gets mode 0600; an old one is
  /// replaced.
  LogWriter(const LogOptions& options, const Redactor& redactor);

  void HostReserved() override {}
  bool IsDetailed() override { return verbosity_ > 1 || trace_; }
  void Write(LOGLEVEL level, const char* format, std::va_list arguments) override;

  /// A finished line of the host's own.
  void Line(LOGLEVEL level, std::string_view text);

  /// "onedrive4b: warning: <text>" on standard error, whatever the verbosity.
  void Warn(std::string_view text);

  /// The newest error line of the calling thread since its last call of this function: the module's
  /// operations report a bare number, and this is where the reason stands. Empty when there is
  /// none.
  std::string TakeLastError();

 private:
  bool Shows(LOGLEVEL level) const noexcept;
  void Emit(LOGLEVEL level, std::string_view text);

  const int verbosity_;
  const Redactor& redactor_;
  base::UniqueFd trace_;
  std::mutex mutex_;
  std::map<std::thread::id, std::string> last_errors_;
};

}  // namespace host
