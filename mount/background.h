// Background: a process that goes on after the command that started it has returned.
#pragma once

#include <filesystem>

#include "base/unique_fd.h"

namespace mounted {

class Background {
 public:
  /// Forks; call it before any thread exists. The first process waits until the second one says
  /// Ready, or ends, and then ends itself: with 0, or with the second one's exit code. The second
  /// one returns from here, in a session of its own, with the terminal still as its standard error.
  static Background Start();

  Background() = default;  ///< in the foreground

  /// Lets the first process end. Standard error goes to `log` from here on.
  void Ready(const std::filesystem::path& log);

 private:
  base::UniqueFd pipe_;
};

/// Tells systemd, if it started the program: "READY=1", "STOPPING=1".
void TellSystemd(const char* state) noexcept;

}  // namespace mounted
