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
#include "tests/reliability/small_drive.h"

namespace {

using namespace std::chrono_literals;
using small_drive::Look;
using small_drive::Operation;
using small_drive::Operations;

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

/// A service with one item, whose answer to one kind of request can be held back.
class GatedService {
 public:
  std::string Endpoint() const { return server_.Url("/api"); }
  void HoldNext(const std::string& method, const std::string& ending) {
    const std::lock_guard guard(mutex_);
    method_ = method;
    ending_ = ending;
    gate.Close();
  }

  Gate gate;
  std::atomic<int> refused = 0;

 private:
  emulator::Response Serve(const Received& request) {
    {
      const std::lock_guard guard(mutex_);
      if (request.method != method_ || !request.target.ends_with(ending_)) {
        return Answer(request);
      }
    }
    gate.Pass();
    return Answer(request);
  }
  emulator::Response Answer(const Received& request) {
    if (request.target.ends_with("/guarded") && request.Header("Authorization") != "Bearer new") {
      ++refused;
      return emulator::JsonResponse(401, "{}");
    }
    return small_drive::Answer(request, server_.Url("/session"));
  }

  std::mutex mutex_;
  std::string method_;
  std::string ending_;
  WebServer server_{[this](const Received& request) { return Serve(request); }};
};

class StallTest : public ::testing::Test {
 protected:
  StallTest() {
    host.authorize = [this](const std::string&) {
      renewal.Pass();
      return R"({"results":{"refresh_token":"R","access_token":")" + std::string(token) + "\"}}";
    };
  }
  ProtocolPtr Connected() {
    ProtocolPtr p = MakeProtocol(&host);
    p->SetOpt("service_endpoint", service.Endpoint().c_str());
    p->SetOpt("service_resource", "r");
    EXPECT_EQ(p->Connect(&host, R"({"results":{}})"), SUCCESS);
    return p;
  }
  /// All that needs no renewal, on this object and others that come and go.
  void ExpectTheRestGoesOn(IProtocol_V2& p) {
    const ProtocolPtr other = Connected();
    for (const Operation& operation : Operations()) {
      EXPECT_EQ(operation.run(p), SUCCESS) << operation.name;
    }
    EXPECT_EQ(Look(*other, "item"), SUCCESS);
    char text[64];
    int length = 63;
    EXPECT_EQ(p.GetUserInfo(text, &length), SUCCESS);
    length = 63;
    EXPECT_EQ(p.GetCredential(text, &length), SUCCESS);
    length = 63;
    EXPECT_EQ(p.GetRootID(text, &length), SUCCESS);
  }

  const char* token = "old";
  Gate renewal;
  GatedService service;
  LogRecorder log;
  ShiftedTime time;
  TestHost host;
};

TEST_F(StallTest, AStalledOperationDelaysNobody) {
  const ProtocolPtr protocol = Connected();
  for (const Operation& operation : Operations()) {
    SCOPED_TRACE(operation.name);
    time.Advance(1);  // the quota is asked for again
    service.HoldNext(operation.method, operation.ending);
    std::future<AERROR> stalled =
        std::async(std::launch::async, operation.run, std::ref(*protocol));
    ASSERT_TRUE(service.gate.WaitUntilHeld());
    ExpectTheRestGoesOn(*protocol);
    EXPECT_EQ(stalled.wait_for(0s), std::future_status::timeout);
    service.gate.Open();
    EXPECT_EQ(stalled.get(), SUCCESS);
  }
}

TEST_F(StallTest, AStalledRenewalDelaysThoseThatNeedIt) {
  const ProtocolPtr protocol = Connected();
  host.ClearCalls();
  token = "new";
  renewal.Close();
  const auto look = [&] { return Look(*protocol, "guarded"); };
  std::vector<std::future<AERROR>> waiting;
  for (int i = 1; i <= 4; ++i) {
    waiting.push_back(std::async(std::launch::async, look));
    ASSERT_TRUE(renewal.WaitUntilHeld());
    while (service.refused < i) std::this_thread::sleep_for(1ms);
  }
  std::this_thread::sleep_for(300ms);  // from the refusal to the lock
  ExpectTheRestGoesOn(*protocol);
  for (std::future<AERROR>& caller : waiting) {
    EXPECT_EQ(caller.wait_for(0s), std::future_status::timeout);
  }
  const int others = host.CountOf("Authorize") - 1;
  renewal.Open();
  for (std::future<AERROR>& caller : waiting) EXPECT_EQ(caller.get(), SUCCESS);
  EXPECT_EQ(host.CountOf("Authorize") - others, 2) << "one renewal: for discovery, for the service";
}

// A host that signs in again cannot know what the refresh loop of the earlier sign-in is at.
TEST_F(StallTest, SigningInAgainMeetsRenewals) {
  const ProtocolPtr protocol = Connected();
  std::atomic<bool> done = false;
  std::thread loop([&] {
    while (!done) {
      time.Advance(2);
      static_cast<onedrive4b::OneDriveBiz&>(*protocol).RefreshAuth();
    }
  });
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(protocol->Connect(&host, R"({"results":{},"longer":"than a short text"})"), SUCCESS);
  }
  done = true;
  loop.join();
  EXPECT_EQ(Look(*protocol, "item"), SUCCESS);
  EXPECT_EQ(host.replies_out, 0);
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
