// MountTest: the drive of an emulator in this process, mounted for real by the host program.
//
// Where the system lets nobody mount, the tests are skipped and say so.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "mount/fuse.h"
#include "tests/cli/program_runner.h"

namespace mounted {

/// Why nothing can be mounted here; empty when it can.
inline std::string ReasonNotToMount(const std::filesystem::path& folder) {
  const base::UniqueFd device(::open("/dev/fuse", O_RDWR | O_CLOEXEC));
  if (!device) return std::string("/dev/fuse: ") + std::strerror(errno);
  std::string name = "probe";
  std::vector<char*> words = {name.data()};
  fuse_args args = FUSE_ARGS_INIT(1, words.data());
  const fuse_lowlevel_ops nothing = {};
  fuse_session* session = fuse_session_new(&args, &nothing, sizeof nothing, nullptr);
  const bool mounted = session != nullptr && fuse_session_mount(session, folder.c_str()) == 0;
  if (mounted) fuse_session_unmount(session);
  if (session != nullptr) fuse_session_destroy(session);
  fuse_opt_free_args(&args);
  return mounted ? "" : "mounting is not allowed here";
}

class MountTest : public cli::ProgramTest {
 protected:
  using Files = std::map<std::string, std::string>;  ///< path to content; folders have "/"

  void SetUp() override {
    std::filesystem::create_directories(mount_);
    std::filesystem::create_directories(folder_ / "run");
    if (const std::string reason = ReasonNotToMount(mount_); !reason.empty()) {
      GTEST_SKIP() << "not mounted, so not tested: " << reason;
    }
    environment_.push_back("XDG_RUNTIME_DIR=" + (folder_ / "run").string());
    ProgramTest::SetUp();
  }

  void TearDown() override {
    const pid_t server = Server();
    service_.ClearFaults();
    if (server > 0) ::kill(server, SIGKILL);
    ::umount2(mount_.c_str(), MNT_DETACH);
    EXPECT_TRUE(Eventually([&] { return Server() == 0; }));
  }

  /// Files are sent after `upload_delay_` seconds; what others change is seen after a second.
  Arguments MountArguments(const Arguments& more = {}) const {
    Arguments all = {"--no-shared", "mount", "--refresh", "1", "--upload-delay", upload_delay_};
    all.insert(all.end(), more.begin(), more.end());
    all.push_back(mount_.string());
    return all;
  }

  void Mount(const Arguments& more = {}) {
    const cli::Outcome outcome = Run(MountArguments(more));
    ASSERT_EQ(outcome.code, 0) << outcome.err;
  }

  void Unmount(const Arguments& more = {}) {
    Arguments all = {"unmount", mount_.string()};
    all.insert(all.end(), more.begin(), more.end());
    const cli::Outcome outcome = Run(all);
    ASSERT_EQ(outcome.code, 0) << outcome.err;
    ASSERT_EQ(Server(), 0);
  }

  void Sync() {
    const cli::Outcome outcome = Run({"sync", "--timeout", "120", mount_.string()});
    ASSERT_EQ(outcome.code, 0) << outcome.out << outcome.err;
  }

  Json::Value Status() {
    const cli::Outcome outcome = Run({"status", "--json", mount_.string()});
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    return base::ParseJson(outcome.out).value_or(Json::Value());
  }

  /// Runs a script in the mounted folder; what it prints is shown when it fails.
  void Script(const std::string& script) {
    const std::string file = Write("script", "set -euo pipefail\n" + script).string();
    const std::string log = (folder_ / "log").string();
    const std::string command = "cd '" + mount_.string() + "' && W='" + work_.string() +
                                "' timeout 120 bash '" + file + "' >'" + log + "' 2>&1 </dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0) << Read(log);
  }

  /// The process that serves the mount; 0: there is none.
  pid_t Server() const {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      const pid_t process = std::atoi(entry.path().filename().c_str());
      if (process <= 0) continue;
      std::string words = Read(entry.path() / "cmdline");
      if (words.starts_with(HOST_PROGRAM) && words.find(std::string("mount\0", 6)) < words.size() &&
          words.find(mount_.string()) != std::string::npos) {
        return process;
      }
    }
    return 0;
  }

  bool IsMounted() const {
    struct stat inside = {};
    struct stat outside = {};
    return ::stat(mount_.c_str(), &inside) != 0 ||
           (::stat(folder_.c_str(), &outside) == 0 && inside.st_dev != outside.st_dev);
  }

  /// What the service has.
  Files Sent(const std::string& folder_id = "", const std::string& path = "") {
    Files files;
    std::string from;
    do {
      const auto page =
          drive().Children(folder_id.empty() ? drive().RootId() : folder_id, from, 200);
      for (const emulator::Item& item : page.items) {
        const std::string name = path + item.name;
        files[name] = item.folder ? "/" : drive().ReadFile("/" + name).value_or("?");
        if (item.folder) files.merge(Sent(item.id, name + "/"));
      }
      from = page.next;
    } while (!from.empty());
    return files;
  }

  emulator::Drive& drive() { return service_.UserDrive(); }

  const std::filesystem::path mount_ = folder_ / "drive";
  std::string upload_delay_ = "0";
};

}  // namespace mounted
