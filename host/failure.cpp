#include "host/failure.h"

#include <system_error>

#include "host/text.h"

namespace host {

bool MayPass(FailureKind kind) noexcept {
  switch (kind) {
    case FailureKind::kLocked:
    case FailureKind::kThrottled:
    case FailureKind::kTrouble:
    case FailureKind::kUnreachable:
    case FailureKind::kProxy:
      return true;
    default:
      return false;
  }
}

Failure LocalFailure(const std::string& action, const std::string& path, int error_number) {
  return {
      FailureKind::kLocal,
      "cannot " + action + " " + Quoted(path) + ": " + std::system_category().message(error_number),
      "", error_number};
}

}  // namespace host
