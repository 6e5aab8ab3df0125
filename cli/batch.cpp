#include "cli/batch.h"

#include "cli/report.h"
#include "host/failure.h"

namespace cli {

bool Batch::Try(const std::function<void()>& part) {
  try {
    part();
    return true;
  } catch (const host::Failure& failure) {
    switch (failure.kind()) {
      case host::FailureKind::kInterrupted:
      case host::FailureKind::kSignIn:
      case host::FailureKind::kProxy:
        throw;
      default:
        break;
    }
    before_report_();
    PrintFailure(failure);
    ++failed_;
    return false;
  }
}

void Batch::Check(const std::string& noun, const std::string& done) const {
  if (failed_ == 0) return;
  throw host::Failure(
      host::FailureKind::kFailed,
      std::to_string(failed_) + " " + noun + (failed_ == 1 ? " was not " : "s were not ") + done);
}

}  // namespace cli
