#include "host/report.h"

#include <new>
#include <string>

#include <unistd.h>

#include "base/files.h"

namespace host {

ExitCode ExitCodeOf(FailureKind kind) noexcept {
  switch (kind) {
    case FailureKind::kUsage:
      return ExitCode::kUsage;
    case FailureKind::kModule:
      return ExitCode::kModule;
    case FailureKind::kSignIn:
      return ExitCode::kSignIn;
    case FailureKind::kNotFound:
      return ExitCode::kNotFound;
    case FailureKind::kLocal:
      return ExitCode::kLocal;
    case FailureKind::kProxy:
      return ExitCode::kProxy;
    case FailureKind::kInterrupted:
      return ExitCode::kInterrupted;
    default:
      return ExitCode::kFailed;
  }
}

void PrintFailure(const Failure& failure) noexcept {
  try {
    std::string text = std::string("onedrive4b: ") + failure.what() + "\n";
    if (!failure.advice().empty()) text += "onedrive4b: hint: " + failure.advice() + "\n";
    base::WriteAll(STDERR_FILENO, text);
  } catch (const std::bad_alloc&) {
    base::WriteAll(STDERR_FILENO, failure.what());
  }
}

}  // namespace host
