// Hunts what only a session that lasts can lose: calls that fail while tokens are renewed, sign-ins
// that nobody renews any more, objects and threads that pile up, and a storm of sign-ins.
#include "host/session.h"

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <malloc.h>

#include "emulator/service.h"
#include "host/item_client.h"
#include "tests/host/folder_test.h"
#include "tests/host/quiet_sink.h"

namespace host {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

std::size_t Threads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

/// Waits for what other threads bring about; false when it takes too long.
template <typename Condition>
bool Eventually(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(milliseconds(2));
  }
  return true;
}

/// The module that is shipped, in front of a service whose tokens live for `life`. The module's own
/// guard of 3660 seconds stays: compared with it each of these tokens is gone at once.
class SessionTest : public testing::Test {
 protected:
  explicit SessionTest(seconds life = seconds(3)) : service_(Options(life)) {
    settings_.token_url = service_.TokenUrl();
    settings_.client_id = service_.ClientId();
    settings_.discovery_url = service_.DiscoveryUrl();
    settings_.discovery_resource = service_.DiscoveryResource();
    profile_.KeepRefreshToken(service_.IssueRefreshToken());
  }

  emulator::ServiceOptions Options(seconds life) {
    emulator::ServiceOptions options;
    options.tls = false;
    options.access_token_lifetime = life;
    options.revoke_used_refresh_tokens = true;
    options.recorded_requests = 100;
    options.observer = [this](const emulator::RecordedRequest& request) {
      if (request.target.find("/token") != std::string::npos) ++exchanges_;
      if (request.status == 401) ++refusals_;
    };
    return options;
  }

  std::unique_ptr<Session> Start(const RenewalTimes& times) {
    return std::make_unique<Session>(
        SessionContext{module_, {settings_, http_, profile_, log_, redactor_, cancellation_}},
        SessionOptions{settings_, {}, true, 0}, times);
  }

  /// A sign-in is two exchanges.
  int sign_ins() const { return exchanges_ / 2; }

  std::atomic<int> exchanges_{0};
  std::atomic<int> refusals_{0};
  emulator::Service service_;
  ServiceSettings settings_;
  HttpClient http_{HttpSettings{}};
  Redactor redactor_;
  QuietSink sink_;
  Log log_{sink_, redactor_};
  Cancellation cancellation_;
  ValueStore store_;
  Profile profile_{store_, "p"};
  ModuleLibrary module_{MODULE_PATH};
};

/// Calls from two threads, and what failed last.
class Callers {
 public:
  explicit Callers(Session& session) : items_(session) {
    for (int i = 0; i < 2; ++i) threads_.emplace_back([this] { Work(); });
  }
  ~Callers() { Join(); }

  void Join() {
    done_ = true;
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
  }
  int calls() const { return calls_; }
  std::string failure() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return failure_;
  }

 private:
  void Work() {
    while (!done_) {
      try {
        items_.List(kDriveId, "/");
        ++calls_;
      } catch (const Failure& failure) {
        const std::lock_guard<std::mutex> lock(mutex_);
        failure_ = failure.what();
      }
    }
  }

  ItemClient items_;
  std::atomic<bool> done_{false};
  std::atomic<int> calls_{0};
  std::mutex mutex_;
  std::string failure_;
  std::vector<std::thread> threads_;
};

TEST_F(SessionTest, EightLivesOfATokenPassWithoutARefusal) {
  // The service drops fractions of a second, so a token of three seconds may live for two.
  const auto session = Start({.earliest = 0.3, .latest = 0.4});
  Callers callers(*session);
  EXPECT_TRUE(Eventually([&] { return sign_ins() >= 9 || !callers.failure().empty(); }));
  callers.Join();
  EXPECT_EQ(callers.failure(), "");
  EXPECT_GT(callers.calls(), 100);
  EXPECT_EQ(refusals_, 0);
}

TEST_F(SessionTest, HundredsOfSignInsLeaveNothingBehind) {
  const auto session = Start({.earliest = 0.001, .latest = 0.002});
  struct Use {
    std::size_t threads;
    std::size_t memory;
  };
  const auto after = [&](int count) -> Use {
    Callers callers(*session);
    EXPECT_TRUE(Eventually([&] { return sign_ins() >= count || !callers.failure().empty(); }));
    callers.Join();
    EXPECT_EQ(callers.failure(), "");
    return {Threads(), mallinfo2().uordblks};
  };
  const Use early = after(50);
  const Use late = after(300);
  EXPECT_LE(late.threads, early.threads + 4) << "objects that are being made have threads";
  EXPECT_LT(late.memory, early.memory + (std::size_t{1} << 20)) << "4 KiB for each sign-in";
}

TEST_F(SessionTest, ACallKeepsItsObjectWhileOthersGetFreshOnes) {
  const auto session = Start({.earliest = 0.01, .latest = 0.02});
  session->Call("waiting", [&](IProtocol_V2& protocol) {
    const int before = sign_ins();
    EXPECT_TRUE(Eventually([&] { return sign_ins() >= before + 3; }));
    _FS_FILE_V2 record;
    return protocol.GetFileInfo(kDriveId, &record, nullptr);
  });
}

class LongTokenTest : public SessionTest {
 protected:
  LongTokenTest() : SessionTest(seconds(3600)) {}
};

TEST_F(LongTokenTest, TokensThatAreWithdrawnEarlyAreReplacedByTheCallThatMeetsThat) {
  const auto session = Start({.calm = milliseconds(0)});
  const ItemClient items(*session);
  for (int i = 0; i < 5; ++i) {
    items.List(kDriveId, "/");
    service_.ExpireAccessTokens();
  }
  EXPECT_NO_THROW(items.List(kDriveId, "/"));
}

TEST_F(LongTokenTest, RefusalsThatNoTokenCuresCauseNoStormOfSignIns) {
  const auto session = Start({.calm = milliseconds(0)});
  const ItemClient items(*session);
  session->Connect();
  service_.AddFault(
      emulator::Fault::ExpiredToken().On("GET", "/children").Times(emulator::Fault::kAlways));
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(KindOf([&] { items.List(kDriveId, "/"); }), FailureKind::kSignIn);
  }
  // The first, the module's own renewals in two objects, and one more object.
  EXPECT_LE(sign_ins(), 4);
}

TEST_F(SessionTest, AnOutageOfTheAuthorityPasses) {
  const auto session = Start({.earliest = 0.3,
                              .latest = 0.4,
                              .first_retry = milliseconds(50),
                              .longest_retry = milliseconds(100),
                              .calm = milliseconds(200)});
  const ItemClient items(*session);
  items.List(kDriveId, "/");
  service_.AddFault(
      emulator::Fault::Status(503).On("POST", "/token").Times(emulator::Fault::kAlways));
  std::optional<FailureKind> kind;
  Eventually([&] {
    kind = KindOf([&] { items.List(kDriveId, "/"); });
    return kind.has_value();
  });
  EXPECT_EQ(kind, FailureKind::kThrottled) << "once the last token has ended";
  const int asked = exchanges_;
  for (int i = 0; i < 50; ++i) KindOf([&] { items.List(kDriveId, "/"); });
  EXPECT_LT(exchanges_, asked + 20) << "calls do not ask an authority that has just failed";
  service_.ClearFaults();
  EXPECT_TRUE(Eventually([&] { return !KindOf([&] { items.List(kDriveId, "/"); }); }));
}

}  // namespace
}  // namespace host
