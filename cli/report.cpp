#include "cli/report.h"

#include <new>
#include <string>

#include <unistd.h>

#include "base/files.h"

namespace cli {

ExitCode ExitCodeOf(host::FailureKind kind) noexcept {
  switch (kind) {
    case host::FailureKind::kUsage:
      return ExitCode::kUsage;
    case host::FailureKind::kModule:
      return ExitCode::kModule;
    case host::FailureKind::kSignIn:
      return ExitCode::kSignIn;
    case host::FailureKind::kNotFound:
      return ExitCode::kNotFound;
    case host::FailureKind::kLocal:
      return ExitCode::kLocal;
    case host::FailureKind::kProxy:
      return ExitCode::kProxy;
    case host::FailureKind::kInterrupted:
      return ExitCode::kInterrupted;
    default:
      return ExitCode::kFailed;
  }
}

void PrintFailure(const host::Failure& failure) noexcept {
  try {
    std::string text = std::string("onedrive4b: ") + failure.what() + "\n";
    if (!failure.advice().empty()) text += "onedrive4b: hint: " + failure.advice() + "\n";
    base::WriteAll(STDERR_FILENO, text);
  } catch (const std::bad_alloc&) {
    base::WriteAll(STDERR_FILENO, failure.what());
  }
}

}  // namespace cli
