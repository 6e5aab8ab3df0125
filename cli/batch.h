// Batch: the parts of a command that do not depend on each other. A part that fails is reported and
// the others go on.
//
// One thread.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

namespace cli {

class Batch {
 public:
  /// `before_report` is called before a failure is printed; what it throws ends the batch.
  explicit Batch(std::function<void()> before_report = [] {})
      : before_report_(std::move(before_report)) {}

  /// Runs `part`; false when it failed. Throws the Failure on when no other part can do better: the
  /// person interrupts, the sign-in is gone, the proxy does not work.
  bool Try(const std::function<void()>& part);

  /// Throws a kFailed Failure when a part has failed: "3 items were not <done>".
  void Check(const std::string& noun, const std::string& done) const;

 private:
  const std::function<void()> before_report_;
  std::size_t failed_ = 0;
};

}  // namespace cli
