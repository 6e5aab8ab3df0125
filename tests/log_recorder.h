// The host's logger in tests: keeps every line as the host would show it.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "onedrive4b/entry_points.h"

/// Bound to the module for its lifetime. Any thread.
class LogRecorder final : public ILog {
 public:
  LogRecorder() { BindLogger(this); }
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;
  ~LogRecorder() { UnbindLogger(); }

  void HostReserved() override {}
  bool IsDetailed() override { return detailed; }
  void Write(LOGLEVEL level, const char* format, std::va_list arguments) override {
    char line[4096];
    std::vsnprintf(line, sizeof line, format, arguments);
    const std::lock_guard guard(mutex_);
    lines_.push_back(std::to_string(level) + " " + line);
  }

  /// "level line", in order.
  std::vector<std::string> Lines() const {
    const std::lock_guard guard(mutex_);
    return lines_;
  }
  bool Has(const std::string& part) const {
    for (const std::string& line : Lines()) {
      if (line.find(part) != std::string::npos) return true;
    }
    return false;
  }
  void Clear() {
    const std::lock_guard guard(mutex_);
    lines_.clear();
  }

  bool detailed = false;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};
