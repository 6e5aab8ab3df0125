// One cell of the matrix: an operation meets a fault, and afterwards finds a service that is well.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/fake_time.h"
#include "tests/log_recorder.h"
#include "tests/reliability/operations.h"
#include "transport/onedrivebiz_curl.h"

namespace faults {

/// In place of a number of calls.
inline constexpr int kNeedsNewObject = 0;

/// What must hold.
struct Outcome {
  AERROR result = SUCCESS;
  std::optional<std::string> reached = {};  ///< of the answer; nothing: whatever it is
  int requests = 1;                         ///< most that arrive at the faulty place
  int before = 0;                           ///< all others, when the operation fails
  std::vector<long> waits = {};             ///< seconds
  bool bearer_may_leave = false;            ///< the other origin is the service's own now
  int heals_after = 1;                      ///< calls until one works again
};

class FaultTest : public ::testing::Test {
 protected:
  void Meet(Rig& rig, const Operation& operation, const Outcome& expected,
            const std::function<void()>& break_service) {
    if (operation.connects) rig.Renew();
    time.Advance(std::chrono::hours(2));  // tokens may be renewed again, and the account fetched
    log_.Clear();
    rig.service.Take();
    const std::size_t pooled = std::max<std::size_t>(cq.free.size(), 1);
    const std::size_t waits = time.waits().size();
    break_service();
    const auto before = std::chrono::steady_clock::now();
    const AERROR result = rig.Run(operation);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(10));
    EXPECT_STREQ(GetAERRORA(result), GetAERRORA(expected.result));
    if (expected.reached) {
      EXPECT_EQ(rig.reached.substr(0, 2000), expected.reached->substr(0, 2000));
    }
    EXPECT_EQ(std::vector<long>(time.waits().begin() + static_cast<std::ptrdiff_t>(waits),
                                time.waits().end()),
              expected.waits);
    CheckWire(rig.service.Take(), operation, expected);
    EXPECT_GE(cq.free.size(), pooled) << "the request object is back in its pool";
    EXPECT_EQ(rig.host.replies_out, 0);
    EXPECT_FALSE(log_.Has("MARKER") || log_.Has("Bearer"));
    time.Advance(std::chrono::hours(2));
    Heal(rig, operation, expected.heals_after);
  }

  FakeTime time;

 private:
  static void CheckWire(const std::vector<Seen>& seen, const Operation& operation,
                        const Outcome& expected) {
    int at_fault = 0;
    int others = 0;
    for (const Seen& request : seen) {
      const bool alone =
          (request.foreign && !expected.bearer_may_leave) || request.key.starts_with("PUT /up");
      EXPECT_EQ(request.authorization.empty(), alone || request.authorization.empty())
          << "a token for " << request.key;
      if (!request.foreign) ++(request.key == operation.key ? at_fault : others);
    }
    if (expected.result != SUCCESS) {
      EXPECT_LE(at_fault, expected.requests);
      EXPECT_EQ(others, expected.before) << "nothing follows a failure";
    }
  }

  // The same object, and the service is well again. Uploads in parts take a while, so it looks.
  static void Heal(Rig& rig, const Operation& met, int calls) {
    rig.service.Heal();
    const Operation& next = met.name.starts_with("Upload: ") ? Find("GetFileInfo") : met;
    if (calls == kNeedsNewObject) rig.Renew();
    for (int call = 1; call < calls; ++call) rig.Run(next);
    EXPECT_STREQ(GetAERRORA(rig.Run(next)), "SUCCESS") << "the next one works";
    EXPECT_EQ(rig.reached, next.whole);
  }

  LogRecorder log_;
};

}  // namespace faults
