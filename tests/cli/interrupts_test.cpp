// Hunts what a signal at the wrong moment leaves behind: half-written files, and a sign-in whose
// only token was spent.
#include "cli/interrupts.h"

#include <atomic>
#include <csignal>

#include "cli/download_target.h"
#include "tests/cli/program_runner.h"

namespace cli {
namespace {

using std::chrono::milliseconds;

using SignalTest = host::FolderTest;

/// What a process does that gets a signal when `prepare` has run.
template <typename Prepare>
[[noreturn]] void Signalled(Prepare prepare) {
  Interrupts interrupts;
  const auto kept = prepare(interrupts);
  kill(getpid(), SIGTERM);
  for (;;) pause();
}

TEST_F(SignalTest, AFileThatWasJustMadeIsRemoved) {
  EXPECT_EXIT(Signalled([&](Interrupts& interrupts) {
                return std::make_unique<DownloadTarget>(interrupts.temporary_files(),
                                                        folder_ / "target", 1 << 20);
              }),
              testing::ExitedWithCode(130), "");
  EXPECT_EQ(Names(), std::set<std::string>{});
}

TEST_F(SignalTest, WorkThatMustNotBeCutShortIsFinished) {
  EXPECT_EXIT(Signalled([&](Interrupts& interrupts) {
                auto begun = std::make_unique<std::atomic<bool>>(false);
                std::thread([&, begun = begun.get()] {
                  const host::Cancellation::Unbroken unbroken(interrupts.cancellation());
                  *begun = true;
                  std::this_thread::sleep_for(milliseconds(500));
                  Write("done", "");
                }).detach();
                while (!*begun) std::this_thread::yield();
                return begun;
              }),
              testing::ExitedWithCode(130), "could lose the sign-in");
  EXPECT_EQ(Names(), std::set<std::string>{"done"});
}

using InterruptedProgramTest = ProgramTest;

TEST_F(InterruptedProgramTest, TransfersEndAndLeaveNothingBehind) {
  service_.UserDrive().WriteFile("/big.bin", std::string(20'000'000, 'x'));
  Write("work/local.bin", std::string(20'000'000, 'x'));
  struct Case {
    Arguments arguments;
    const char* method;
    const char* part;  // of the address of the request that is interrupted
  };
  const std::string here = work_.string();
  for (const Case& c : {
           Case{{"get", "/My Drive/big.bin", here}, "GET", "download"},
           {{"get", "--parallel", "3", "/My Drive/big.bin", here}, "GET", "download"},
           {{"get", "-r", "/My Drive", here}, "GET", "download"},
           {{"cat", "/My Drive/big.bin"}, "GET", "download"},
           {{"put", here + "/local.bin"}, "PUT", ""},
       }) {
    service_.ClearRequests();
    Arguments arguments = c.arguments;
    arguments.insert(arguments.end(), {"--limit-rate", "500k"});
    SCOPED_TRACE(testing::PrintToString(arguments));
    const pid_t child = Start(arguments);
    EXPECT_TRUE(Eventually([&] { return CountRequests(c.method, c.part) > 0; }));
    kill(child, SIGINT);
    const Outcome outcome = Wait(child);
    EXPECT_EQ(outcome.code, 130) << outcome.err;
    std::filesystem::remove(work_ / "My Drive");
    EXPECT_EQ(Tree(work_).size(), 1U) << "only the file that was there before";
  }
  const Outcome list = Run({"ls", "/My Drive"});
  EXPECT_EQ(list.out, "big.bin\n");
}

TEST_F(InterruptedProgramTest, ASignInOutlivesItsExchangeOfTokens) {
  for (const int exchange : {1, 2}) {
    for (const int signals : {1, 2}) {
      SCOPED_TRACE(std::to_string(signals) + " in exchange " + std::to_string(exchange));
      service_.ClearRequests();
      emulator::Fault slow = emulator::Fault::None().On("POST", "/token").Nth(exchange);
      slow.delay = milliseconds(500);
      service_.AddFault(slow);
      const pid_t child = Start({"whoami"});
      const auto asked = static_cast<std::size_t>(exchange);
      EXPECT_TRUE(Eventually([&] { return CountRequests("POST", "/token") == asked; }));
      for (int i = 0; i < signals; ++i) {
        kill(child, SIGINT);
        std::this_thread::sleep_for(milliseconds(50));  // two pending signals would be one
      }
      EXPECT_EQ(Wait(child).code, 130);
      service_.ClearFaults();
      const Outcome next = Run({"whoami"});
      ASSERT_EQ(next.code, 0) << next.err;
    }
  }
}

}  // namespace
}  // namespace cli
