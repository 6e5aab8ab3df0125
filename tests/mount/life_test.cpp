// Hunts what a mounted drive loses or hangs in when it ends, when its service does not answer, and
// when others change what it shows.
#include <functional>

#include "tests/mount/mount_runner.h"

namespace mounted {
namespace {

namespace fs = std::filesystem;
using emulator::Fault;
using namespace std::chrono_literals;

class LifeTest : public MountTest {
 protected:
  using Clock = std::chrono::steady_clock;

  /// The service gives no answer at all.
  void CutOff() {
    service_.AddFault(Fault::Reset(emulator::Place::kBeforeAnswer).Times(Fault::kAlways));
  }

  static bool IsDead(pid_t process) { return ::kill(process, 0) != 0; }
};

TEST_F(LifeTest, WhatCannotBeMountedIsRefused) {
  Write("drive/inside", "");
  const cli::Outcome full = Run(MountArguments());
  EXPECT_NE(full.code, 0);
  EXPECT_NE(full.err.find("empty"), std::string::npos) << full.err;
  fs::remove(mount_ / "inside");
  EXPECT_NE(Run({"status", mount_.string()}).code, 0);
  EXPECT_NE(Run({"mount", (folder_ / "none").string()}).code, 0);

  Mount();
  fs::create_directory(folder_ / "second");
  const cli::Outcome used = Run({"--no-shared", "mount", (folder_ / "second").string()});
  EXPECT_NE(used.code, 0);
  EXPECT_NE(used.err.find("in use"), std::string::npos) << used.err;
  EXPECT_NE(Run(MountArguments()).code, 0);
  EXPECT_TRUE(IsMounted());

  // Nor is it unmounted under a program that uses it, unless that is wanted.
  base::UniqueFd file(::open((mount_ / "file").c_str(), O_WRONLY | O_CREAT, 0644));
  const cli::Outcome busy = Run({"unmount", mount_.string()});
  EXPECT_NE(busy.code, 0);
  EXPECT_NE(busy.err.find("in use"), std::string::npos) << busy.err;
  EXPECT_TRUE(IsMounted());
  file.Close();
  EXPECT_EQ(Status()["pending"], 0);
}

// Its unsent changes would end up in the wrong drive.
TEST_F(LifeTest, TheStateOfAnotherDriveIsRefused) {
  Mount();
  Unmount();
  emulator::Service other(Options());
  Json::Value file = *base::ParseJson(Read(service_file_));
  file["token_url"] = other.TokenUrl();
  file["discovery_url"] = other.DiscoveryUrl();
  file["discovery_resource"] = other.DiscoveryResource();
  file["refresh_token"] = other.IssueRefreshToken();
  const std::string named = Write("other.json", base::CompactJson(file)).string();
  const cli::Outcome outcome =
      Run({"--service-file", named, "--no-shared", "mount", mount_.string()});
  EXPECT_EQ(outcome.code, 6) << outcome.err;
  EXPECT_NE(outcome.err.find("belongs to the account"), std::string::npos) << outcome.err;
  EXPECT_FALSE(IsMounted());
}

TEST_F(LifeTest, DeadMountsAreCleanedUp) {
  for (const bool again : {false, true}) {
    Mount();
    ::kill(Server(), SIGKILL);
    EXPECT_TRUE(Eventually([&] { return Server() == 0; }));
    again ? Mount() : Unmount();
    EXPECT_EQ(fs::exists(mount_), true);
  }
}

// However it ends, the program is gone within seconds, also when files are open and when requests
// wait for the service; the next mount has all, and sends it.
TEST_F(LifeTest, EveryEndKeepsWhatWasWritten) {
  drive().WriteFile("/far", std::string(100'000, 'f'));
  const auto signal = [&](int number) { return [this, number] { ::kill(Server(), number); }; };
  const auto unmount = [&] {
    EXPECT_EQ(std::system(("fusermount3 -u " + mount_.string()).c_str()), 0);
  };
  struct Case {
    const char* name;
    std::function<void()> end;
    bool in_use = true;  ///< whether it ends while programs use it
  };
  for (const Case& c : std::vector<Case>{{"term", signal(SIGTERM)},
                                         {"kill", signal(SIGKILL)},
                                         {"fusermount3", unmount, false},
                                         {"now", [&] { Unmount({"--now"}); }}}) {
    SCOPED_TRACE(c.name);
    upload_delay_ = "1000";
    Mount();
    const pid_t server = Server();
    ASSERT_GT(server, 0);
    const std::string closed = std::string(c.name) + " closed";
    const std::string open = std::string(c.name) + " open";
    std::ofstream(mount_ / closed) << "closed";
    base::UniqueFd file(::open((mount_ / open).c_str(), O_WRONLY | O_CREAT, 0644));
    ASSERT_EQ(::write(file.get(), "open", 4), 4);
    // Somebody waits for the service.
    service_.AddFault(Fault::Stall(emulator::Place::kBeforeAnswer).Times(Fault::kAlways));
    const pid_t reader = ::fork();
    if (reader == 0) {
      char byte = 0;
      const int far = ::open((mount_ / "far").c_str(), O_RDONLY);
      _exit(::read(far, &byte, 1) == 1 ? 0 : 1);
    }
    std::this_thread::sleep_for(300ms);
    const auto leave = [&] {
      file.Close();
      ::kill(reader, SIGKILL);
      ::waitpid(reader, nullptr, 0);
    };
    if (!c.in_use) leave();
    const Clock::time_point began = Clock::now();
    c.end();
    EXPECT_TRUE(Eventually([&] { return IsDead(server); }));
    EXPECT_LT(Clock::now() - began, 9s);
    if (c.in_use) leave();
    service_.ClearFaults();
    if (std::string(c.name) == "kill") {
      // An error, never an empty folder.
      std::error_code error;
      EXPECT_FALSE(fs::exists(mount_ / closed, error));
      EXPECT_EQ(error.value(), ENOTCONN);
    }
    Mount();
    EXPECT_EQ(Read(mount_ / closed), "closed");
    EXPECT_EQ(Read(mount_ / open), "open");
    Sync();
    EXPECT_EQ(Sent(), Tree(mount_));
    Unmount();
    EXPECT_FALSE(IsMounted());
  }
}

TEST_F(LifeTest, WithoutNetworkWhatIsHereWorks) {
  drive().WriteFile("/here", "here");
  drive().WriteFile("/far", std::string(100'000, 'f'));
  Mount();
  EXPECT_EQ(Read(mount_ / "here"), "here");
  Unmount();
  CutOff();
  Mount();
  EXPECT_EQ(Read(mount_ / "here"), "here");
  std::ofstream(mount_ / "new") << "new";
  EXPECT_EQ(Read(mount_ / "new"), "new");
  const Clock::time_point began = Clock::now();
  const base::UniqueFd far(::open((mount_ / "far").c_str(), O_RDONLY));
  char byte = 0;
  EXPECT_EQ(::read(far.get(), &byte, 1), -1);
  EXPECT_EQ(errno, EHOSTUNREACH);
  EXPECT_LT(Clock::now() - began, 30s);
  const Json::Value status = Status();
  EXPECT_FALSE(status["online"].asBool());
  EXPECT_EQ(status["pending"], 1);
  EXPECT_EQ(Run({"sync", "--timeout", "1", mount_.string()}).code, 1);
  EXPECT_EQ(Run({"unmount", "--timeout", "1", mount_.string()}).code, 1);
  EXPECT_TRUE(IsMounted());
  service_.ClearFaults();
  Sync();
  EXPECT_EQ(drive().ReadFile("/new"), "new");
  EXPECT_TRUE(Status()["online"].asBool());
}

TEST_F(LifeTest, WaitingProgramsCanBeKilled) {
  drive().WriteFile("/far", std::string(100'000, 'f'));
  Mount();
  EXPECT_TRUE(fs::exists(mount_ / "far"));
  service_.AddFault(Fault::Stall(emulator::Place::kInBody, 10).Times(Fault::kAlways));
  const pid_t reader = ::fork();
  if (reader == 0) {
    char byte = 0;
    _exit(static_cast<int>(::read(::open((mount_ / "far").c_str(), O_RDONLY), &byte, 1)));
  }
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(::waitpid(reader, nullptr, WNOHANG), 0);
  const Clock::time_point began = Clock::now();
  ::kill(reader, SIGTERM);
  EXPECT_EQ(::waitpid(reader, nullptr, 0), reader);
  EXPECT_LT(Clock::now() - began, 2s);
  // Others go on meanwhile.
  std::ofstream(mount_ / "new") << "new";
  EXPECT_EQ(Read(mount_ / "new"), "new");
}

TEST_F(LifeTest, WhatOthersChangeIsSeen) {
  drive().WriteFile("/file", "one");
  drive().WriteFile("/folder/gone", "x");
  Mount();
  const base::UniqueFd old(::open((mount_ / "file").c_str(), O_RDONLY));
  const auto old_content = [&] {
    char data[64] = {};
    const ssize_t got = ::pread(old.get(), data, sizeof data, 0);
    return std::string(data, got < 0 ? 0 : static_cast<std::size_t>(got));
  };
  EXPECT_EQ(old_content(), "one");
  EXPECT_TRUE(fs::exists(mount_ / "folder/gone"));
  drive().WriteFile("/file", "two!");
  drive().WriteFile("/folder/made", "made");
  drive().Remove("/folder/gone");
  EXPECT_TRUE(Eventually([&] { return fs::exists(mount_ / "folder/made"); }));
  EXPECT_TRUE(Eventually([&] { return !fs::exists(mount_ / "folder/gone"); }));
  EXPECT_TRUE(Eventually([&] { return Read(mount_ / "file") == "two!"; }));
  EXPECT_EQ(fs::file_size(mount_ / "file"), 4U);
  // Never two versions in one open file.
  EXPECT_EQ(old_content(), "one");
}

TEST_F(LifeTest, BothVersionsAreKeptAndListed) {
  drive().WriteFile("/file.txt", "base");
  upload_delay_ = "1000";
  Mount();
  EXPECT_EQ(Read(mount_ / "file.txt"), "base");
  std::ofstream(mount_ / "file.txt") << "ours";
  drive().WriteFile("/file.txt", "theirs");
  EXPECT_EQ(Run({"sync", "--timeout", "60", mount_.string()}).code, 0);
  const Json::Value conflicts = Status()["conflicts"];
  ASSERT_EQ(conflicts.size(), 1U);
  EXPECT_EQ(conflicts[0]["path"], "/file.txt");
  const std::string kept = conflicts[0]["kept_as"].asString();
  EXPECT_NE(kept.find("/file (conflict "), std::string::npos) << kept;
  EXPECT_TRUE(Eventually([&] { return Read(mount_ / "file.txt") == "theirs"; }));
  EXPECT_EQ(Read(mount_.string() + kept), "ours");
  EXPECT_EQ(Sent(), Tree(mount_));
}

TEST_F(LifeTest, WhatIsRefusedIsListed) {
  Mount();
  service_.AddFault(Fault::Status(403).On("PUT", "").Times(Fault::kAlways));
  std::ofstream(mount_ / "file") << "text";
  const cli::Outcome outcome = Run({"sync", "--timeout", "60", mount_.string()});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_NE(outcome.err.find("/file"), std::string::npos) << outcome.err;
  const Json::Value status = Status();
  ASSERT_EQ(status["refused"].size(), 1U);
  EXPECT_EQ(status["refused"][0]["path"], "/file");
  EXPECT_NE(status["refused"][0]["reason"].asString(), "");
  EXPECT_EQ(Read(mount_ / "file"), "text");
  service_.ClearFaults();
  Sync();
  EXPECT_EQ(Status()["refused"].size(), 0U);
}

}  // namespace
}  // namespace mounted
