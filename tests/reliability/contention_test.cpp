// Hunts locks held while the network is waited for, renewals that block more than they must,
// wake-ups that get lost, and data races between everything that hosts may do at once. Meant to run
// under the thread sanitizer.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "emulator/service.h"
#include "protocol/about.h"
#include "protocol/onedrivebiz.h"
#include "tests/emulator_tokens.h"
#include "tests/fake_time.h"
#include "tests/log_recorder.h"
#include "tests/reliability/operations.h"

namespace {

using namespace std::chrono_literals;
using faults::Operation;

constexpr auto kGivingUp = 30s;  // of what would otherwise hang for ever

/// Stops one passer-by until it is opened.
class Gate {
 public:
  void Close() {
    const std::lock_guard guard(mutex_);
    closed_ = true;
    held_ = false;
  }
  void Open() {
    const std::lock_guard guard(mutex_);
    closed_ = held_ = false;
    changed_.notify_all();
  }
  void Pass() {
    std::unique_lock lock(mutex_);
    if (!closed_ || held_) return;
    held_ = true;
    changed_.notify_all();
    EXPECT_TRUE(changed_.wait_for(lock, kGivingUp, [this] { return !held_; })) << "never opened";
    closed_ = held_ = false;
  }
  bool WaitUntilHeld() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kGivingUp, [this] { return held_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool closed_ = false;
  bool held_ = false;
};

AERROR Look(IProtocol_V2& drive, const char* id) {
  _FS_FILE_V2 file;
  return drive.GetFileInfo(id, &file, nullptr);
}

class StallTest : public ::testing::Test {
 protected:
  StallTest() {
    rig.service.Put("GET /api/drive/items/guarded", 200, R"({"id":"g","name":"g","size":1})");
    rig.host.authorize = [this, honest = rig.host.authorize](const std::string& credential) {
      renewal.Pass();
      renewed = true;
      return honest(credential);
    };
  }
  AERROR RunAlone(const Operation& operation) {
    faults::Call call{*rig.protocol, rig.host};
    return operation.run(call);
  }
  /// All that needs no renewal, on this object and others that come and go.
  void ExpectTheRestGoesOn() {
    const ProtocolPtr other = rig.Made();
    EXPECT_EQ(other->Connect(&rig.host, faults::kEmptyCredential), SUCCESS);
    for (const Operation& operation : faults::OperationsOfConnected()) {
      EXPECT_EQ(RunAlone(operation), SUCCESS) << operation.name;
    }
    EXPECT_EQ(Look(*other, "i"), SUCCESS);
    char text[64];
    int length = 63;
    EXPECT_EQ(rig.protocol->GetUserInfo(text, &length), SUCCESS);
    length = 63;
    EXPECT_EQ(rig.protocol->GetCredential(text, &length), SUCCESS);
    length = 63;
    EXPECT_EQ(rig.protocol->GetRootID(text, &length), SUCCESS);
  }

  LogRecorder log;
  ShiftedTime time;
  Gate renewal;
  std::atomic<bool> renewed = false;
  faults::Rig rig;
};

TEST_F(StallTest, AStalledOperationDelaysNobody) {
  for (const Operation& operation : faults::Operations()) {
    if (operation.connects) continue;  // no call may run beside it on its object
    SCOPED_TRACE(operation.name);
    time.Advance(1);  // the quota is asked for again
    Gate gate;
    gate.Close();
    rig.service.Break(
        operation.key, [&gate](emulator::Response&) { gate.Pass(); }, 1);
    std::future<AERROR> stalled =
        std::async(std::launch::async, [&] { return RunAlone(operation); });
    ASSERT_TRUE(gate.WaitUntilHeld());
    ExpectTheRestGoesOn();
    EXPECT_EQ(stalled.wait_for(0s), std::future_status::timeout);
    gate.Open();
    EXPECT_EQ(stalled.get(), SUCCESS);
  }
}

TEST_F(StallTest, AStalledRenewalDelaysThoseThatNeedIt) {
  std::atomic<int> refused = 0;
  rig.service.Break("GET /api/drive/items/guarded", [&](emulator::Response& response) {
    if (renewed) return;
    ++refused;
    response = emulator::EmptyResponse(401);
  });
  time.Advance(2);
  rig.host.ClearCalls();
  renewal.Close();
  const auto look = [&] { return Look(*rig.protocol, "guarded"); };
  std::vector<std::future<AERROR>> waiting;
  for (int i = 1; i <= 4; ++i) {
    waiting.push_back(std::async(std::launch::async, look));
    ASSERT_TRUE(renewal.WaitUntilHeld());
    while (refused < i) std::this_thread::sleep_for(1ms);
  }
  std::this_thread::sleep_for(300ms);  // from the refusal to the lock
  const int before = rig.host.CountOf("Authorize");
  ExpectTheRestGoesOn();
  const int others = rig.host.CountOf("Authorize") - before;
  for (std::future<AERROR>& caller : waiting) {
    EXPECT_EQ(caller.wait_for(0s), std::future_status::timeout);
  }
  renewal.Open();
  for (std::future<AERROR>& caller : waiting) EXPECT_EQ(caller.get(), SUCCESS);
  EXPECT_EQ(rig.host.CountOf("Authorize") - others, 2)
      << "one renewal: for discovery, for the service";
}

// A host that signs in again cannot know what the refresh loop of the earlier sign-in is at.
TEST_F(StallTest, SigningInAgainMeetsRenewals) {
  std::atomic<bool> done = false;
  std::thread loop([&] {
    while (!done) {
      time.Advance(2);
      static_cast<onedrive4b::OneDriveBiz&>(*rig.protocol).RefreshAuth();
    }
  });
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(rig.protocol->Connect(&rig.host, R"({"results":{},"longer":"than a short text"})"),
              SUCCESS);
  }
  done = true;
  loop.join();
  EXPECT_EQ(Look(*rig.protocol, "i"), SUCCESS);
  EXPECT_EQ(rig.host.replies_out, 0);
}

TEST(TimerKiller, LosesNoWakeUp) {
  for (int round = 0; round < 2000; ++round) {
    onedrive4b::timer_killer timer;
    std::atomic<bool> waiting = false;
    auto waiter = std::async(std::launch::async, [&] {
      waiting = true;
      return timer.WaitFor(kGivingUp / 1s);
    });
    while (round % 2 == 0 && !waiting) std::this_thread::yield();
    timer.Kill();
    ASSERT_FALSE(waiter.get());
  }
}

/// What one of many threads does with things of its own; each step in turn until it succeeds, since
/// a caller whose 401 came after the renewal that it missed is refused.
class Worker {
 public:
  Worker(IProtocol_V2& protocol, int number, std::atomic<int>& refused)
      : p_(protocol), number_(number), refused_(refused) {}

  void Round(int round) {
    const std::string name = "t" + std::to_string(number_) + "-" + std::to_string(round);
    const std::int64_t size = 70000 + 1000 * (number_ + 16 * round);
    _FS_FILE_V2 folder;
    folder.filename = name;
    Insist([&] { return p_.CreateDirectory("root", &folder, nullptr); });
    const auto handle = std::make_shared<_FS_HANDLE>();
    FilledContent content(static_cast<char>('a' + number_));
    _FS_FILE_V2 file;
    file.filename = "before";
    file.size = size;
    const char* parent = folder.id.c_str();
    Insist([&] { return p_.Upload(parent, handle, &content, &file, {}, nullptr); });
    file.filename = "after " + name;
    Insist([&] { return p_.Rename(file.id.c_str(), "before", &file, nullptr); });
    Insist([&] { return p_.Move(file.id.c_str(), parent, &file, nullptr); });
    Insist([&] {
      content.fetched.clear();
      return p_.Read(file.id.c_str(), 1, size - 1, handle, &content, nullptr);
    });
    EXPECT_TRUE(content.fetched == std::string(static_cast<std::size_t>(size - 1), content.byte));
    EXPECT_EQ(handle->position, size);
    FileCollector list;
    Insist([&] {
      list.files.clear();
      return p_.GetFileList(parent, &list, nullptr);
    });
    EXPECT_EQ(list.Names(), std::vector<std::string>{"after " + name});
    Insist([&] { return p_.GetFileInfo(file.id.c_str(), &file, nullptr); });
    EXPECT_EQ(file.filename, "after " + name);
    std::uint64_t total = 0;
    Insist([&] { return p_.GetQuota(&total, nullptr); });
    EXPECT_GT(total, 0U);
    char text[256];
    int length = 255;
    EXPECT_EQ(p_.GetUserInfo(text, &length), SUCCESS);
    EXPECT_STREQ(text, "Demo User");
    length = 255;
    EXPECT_EQ(p_.GetCredential(text, &length), SUCCESS);
    Insist([&] { return p_.Delete(&file, nullptr); });
    Insist([&] { return p_.DeleteDirectory(&folder, nullptr); });
  }

 private:
  void Insist(const std::function<AERROR()>& operation) {
    for (int i = 0; i < 100; ++i) {
      if (operation() == SUCCESS) return;
      ++refused_;
      std::this_thread::sleep_for(10ms);
    }
    ADD_FAILURE() << "refused for good";
  }

  IProtocol_V2& p_;
  int number_;
  std::atomic<int>& refused_;
};

TEST(Contention, EverythingOnOneObjectWhileTokensExpireAndOthersEnd) {
  constexpr int kThreads = 16;
  constexpr int kRounds = 8;
  emulator::ServiceOptions options;
  options.tls = options.seed = false;
  emulator::Service service(options);
  const LogRecorder log;
  ShiftedTime time;
  TestHost host;
  TestHost others;
  host.authorize = [&](const std::string& credential) { return TokenReply(service, credential); };
  others.authorize = host.authorize;
  const auto connected = [&](TestHost& to) {
    ProtocolPtr p = MakeProtocol(&to);
    p->SetOpt("discovery_url", service.DiscoveryUrl().c_str());
    EXPECT_EQ(p->Connect(&to, R"({"results":{}})"), SUCCESS);
    return p;
  };
  g_interval_refresh_token = 1;  // the refresh loop takes part
  {
    const ProtocolPtr protocol = connected(host);
    std::atomic<int> refused = 0;
    std::atomic<int> left = kThreads;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&, thread] {
        Worker worker(*protocol, thread, refused);
        for (int round = 0; round < kRounds; ++round) worker.Round(round);
        --left;
      });
    }
    for (int round = 0; left > 0; ++round) {
      connected(others);  // and released
      if (round % 4 == 0) {
        // In this order: tokens renewed in between would be refused until the next time.
        service.ExpireAccessTokens();
        time.Advance(2);
      }
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_GT(host.CountOf("Authorize"), 2) << "tokens were renewed meanwhile";
    EXPECT_LT(refused, kThreads * kRounds * 2) << "one request in five";
    EXPECT_EQ(Look(*protocol, "root"), SUCCESS);
  }
  g_interval_refresh_token = 3600;
  EXPECT_EQ(host.replies_out + others.replies_out, 0);
  EXPECT_TRUE(service.UserDrive().IsEmpty());
}

}  // namespace
