// Hunts bytes of one file in another, and data races: many threads that read and write through one
// object while its tokens expire. Meant to run under the thread sanitizer.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "emulator/service.h"
#include "support/steady_time.h"
#include "tests/emulator_tokens.h"
#include "tests/log_recorder.h"
#include "tests/test_host.h"
#include "transport/request.h"

namespace {

using onedrive4b::SteadyTime;
using onedrive4b::TimeSource;

/// The module's clock, which any thread may put forward. Does not sleep.
class ShiftedTime {
 public:
  ShiftedTime() : real_(TimeSource()) {
    TimeSource() = {[] { return SteadyTime::Clock::now() + std::chrono::hours(hours_); },
                    [](std::chrono::seconds) {}};
  }
  ShiftedTime(const ShiftedTime&) = delete;
  ShiftedTime& operator=(const ShiftedTime&) = delete;
  ~ShiftedTime() { TimeSource() = real_; }

  void Advance(int hours) { hours_ += hours; }

 private:
  static inline std::atomic<int> hours_ = 0;
  SteadyTime real_;
};

/// One thread's file: what is sent, and what has come back.
class OwnFile final : public ICacheIO, public IFetchCallback {
 public:
  OwnFile(int thread, std::uint64_t size)
      : bytes_(ReadAll(*emulator::PatternContent(size, static_cast<std::uint64_t>(thread) + 1))) {
    record.filename = "file" + std::to_string(thread);
    record.size = static_cast<std::int64_t>(size);
  }

  int ReadCache(_CACHEIO_REQUEST* request) override {
    request->done =
        bytes_.copy(request->buffer, request->length, static_cast<std::size_t>(request->offset));
    return 0;
  }
  AERROR OnFetch(std::int64_t offset, const char* data, std::int64_t length, int) override {
    same =
        same && bytes_.compare(static_cast<std::size_t>(offset), static_cast<std::size_t>(length),
                               data, static_cast<std::size_t>(length)) == 0;
    // A repeated request begins again.
    fetched = offset + length;
    return SUCCESS;
  }

  _FS_FILE_V2 record;
  std::int64_t fetched = 0;
  bool same = true;

 private:
  const std::string bytes_;
};

TEST(TransferConcurrency, EveryThreadGetsItsOwnBytesWhileTokensExpire) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 12;
  emulator::ServiceOptions options;
  options.tls = options.seed = false;
  emulator::Service service(options);
  const LogRecorder log;
  ShiftedTime time;
  TestHost host;
  host.authorize = [&](const std::string& credential) { return TokenReply(service, credential); };
  const ProtocolPtr protocol = MakeProtocol(&host);
  protocol->SetOpt("service_endpoint", service.ServiceEndpoint().c_str());
  protocol->SetOpt("service_resource", service.ServiceResource().c_str());
  ASSERT_EQ(protocol->Connect(&host, R"({"results":{}})"), SUCCESS);

  std::atomic<int> refused = 0;
  // A caller whose 401 came after the renewal it missed is refused, as the guard wants it.
  const auto insist = [&refused](const std::function<AERROR()>& operation) {
    for (int i = 0; i < 20; ++i) {
      if (operation() == SUCCESS) return;
      ++refused;
    }
    ADD_FAILURE() << "refused for good";
  };
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int round = 0; round < kRounds; ++round) {
        const auto handle = std::make_shared<_FS_HANDLE>();
        OwnFile file(thread, 150000 + 1000 * static_cast<std::uint64_t>(thread * kRounds + round));
        const std::int64_t size = file.record.size;
        insist([&] { return protocol->Upload("root", handle, &file, &file.record, {}, nullptr); });
        insist([&] {
          return protocol->Read(file.record.id.c_str(), 0, size, handle, &file, nullptr);
        });
        EXPECT_EQ(file.record.filename, "file" + std::to_string(thread));
        EXPECT_EQ(file.record.size, size);
        EXPECT_EQ(handle->position, size);
        EXPECT_EQ(file.fetched, size);
        EXPECT_TRUE(file.same);
        if (thread == 0 && round % 3 == 1) {
          time.Advance(2);
          service.ExpireAccessTokens();
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_GT(host.CountOf("Authorize"), 2) << "tokens were renewed meanwhile";
  EXPECT_LT(refused, kThreads * kRounds / 2);
}

}  // namespace
