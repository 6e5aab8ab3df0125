// Batch: the independent parts of a command. A failed part is reported, and the others continue.
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
  /// Calls `before_report` before it prints a failure; an exception from it ends the batch.
  explicit Batch(std::function<void()> before_report = [] {})
      : before_report_(std::move(before_report)) {}

  /// Runs `part`; false if it failed. Rethrows the Failure if the other parts would fail, too:
  /// after Ctrl-C, without a sign-in, without a working proxy.
  bool Try(const std::function<void()>& part);

  /// Throws a kFailed Failure if a part has failed: "3 items were not <done>".
  void Check(const std::string& noun, const std::string& done) const;

 private:
  const std::function<void()> before_report_;
  std::size_t failed_ = 0;
};

}  // namespace cli
