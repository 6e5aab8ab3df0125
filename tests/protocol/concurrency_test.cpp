// Hunts data races, lost wake-ups and deadlocks: many threads through one object while its tokens
// expire, next to objects that come and go. Meant to run under the thread sanitizer.
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "emulator/service.h"
#include "tests/emulator_tokens.h"
#include "tests/log_recorder.h"
#include "tests/test_host.h"

namespace {

emulator::ServiceOptions PlainHttp() {
  emulator::ServiceOptions options;
  options.tls = false;
  return options;
}

class ConcurrencyTest : public ::testing::Test {
 protected:
  ConcurrencyTest() {
    host.authorize = [this](const std::string& credential) {
      return TokenReply(service, credential);
    };
    second_host.authorize = host.authorize;
  }
  ProtocolPtr Connected(TestHost& to) {
    ProtocolPtr protocol = MakeProtocol(&to);
    protocol->SetOpt("discovery_url", service.DiscoveryUrl().c_str());
    EXPECT_EQ(protocol->Connect(&to, R"({"results":{}})"), SUCCESS);
    return protocol;
  }

  emulator::Service service{PlainHttp()};
  LogRecorder log;
  TestHost host;
  TestHost second_host;
};

void InThreads(int count, const std::function<void(int)>& work) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
}

TEST_F(ConcurrencyTest, BrowsingWhileTokensAreRenewedAndObjectsComeAndGo) {
  const ProtocolPtr protocol = Connected(host);
  std::atomic<int> listed = 0;
  std::atomic<bool> others_done = false;
  std::thread others([&] {
    for (int i = 0; i < 5; ++i) Connected(second_host);
    others_done = true;
  });
  service.ExpireAccessTokens();
  InThreads(8, [&](int thread) {
    for (int round = 0; round < 10 || !others_done; ++round) {
      FileCollector list;
      _FS_FILE_V2 file;
      char name[64];
      int length = 63;
      std::uint64_t bytes = 0;
      const AERROR result = thread % 2 == 0 ? protocol->GetFileList("root", &list, nullptr)
                                            : protocol->GetFileInfo("root", &file, nullptr);
      // A caller whose 401 came after the renewal it missed is refused, as the guard wants it.
      if (result == SUCCESS) ++listed;
      protocol->GetQuota(&bytes, &bytes);
      protocol->GetUserInfo(name, &length);
    }
  });
  others.join();
  EXPECT_GE(listed, 70);
  FileCollector list;
  EXPECT_EQ(protocol->GetFileList("root", &list, nullptr), SUCCESS);
  EXPECT_GT(list.files.size(), 3U);
  EXPECT_EQ(host.replies_out + second_host.replies_out, 0);
}

TEST_F(ConcurrencyTest, ReleaseStraightAfterSignIn) {
  g_interval_refresh_token = 1;
  InThreads(4, [&](int) {
    for (int i = 0; i < 5; ++i) Connected(second_host);
  });
  g_interval_refresh_token = 3600;
}

}  // namespace
