// TerminalLog: log lines on standard error and in a trace file.
//
// Threads: every operation may be called from any thread; a line is written with one system call,
// so lines never mix. Owns the trace file.
#pragma once

#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "host/log.h"

namespace cli {

struct LogOptions {
  int verbosity = 0;       ///< 0: nothing on standard error, 1: progress and errors, 2: all
  std::string trace_file;  ///< also receives all lines; empty for none
};

class TerminalLog final : public host::LogSink {
 public:
  /// Throws a kLocal Failure if the trace file cannot be created. The file gets mode 0600; an old
  /// file is replaced.
  explicit TerminalLog(const LogOptions& options);

  bool Wants(LOGLEVEL level) override { return trace_ || Shows(level); }
  void Write(LOGLEVEL level, std::string_view line) override;
  /// "onedrive4b: warning: <text>".
  void Warn(std::string_view text) override;

 private:
  bool Shows(LOGLEVEL level) const noexcept;

  const int verbosity_;
  base::UniqueFd trace_;
};

}  // namespace cli
