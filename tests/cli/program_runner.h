// ProgramRunner: the host program as a process of its own, in front of an emulator in this process.
#pragma once

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <json/json.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/json_text.h"
#include "emulator/service.h"
#include "tests/host/folder_test.h"

namespace cli {

struct Outcome {
  int code = -1;
  std::string out;
  std::string err;
};

inline void PrintTo(const Outcome& outcome, std::ostream* to) {
  *to << "exit code " << outcome.code << "\n" << outcome.out << outcome.err;
}

/// The service speaks plain HTTP, so no certificate has to be trusted; it kills each refresh token
/// once it was used.
class ProgramTest : public host::FolderTest {
 protected:
  using Arguments = std::vector<std::string>;

  static emulator::ServiceOptions Options() {
    emulator::ServiceOptions options;
    options.tls = false;
    options.seed = false;
    options.revoke_used_refresh_tokens = true;
    options.device_poll_interval = std::chrono::seconds(1);
    return options;
  }

  /// Signs the profile "p" in.
  void SetUp() override {
    Json::Value file(Json::objectValue);
    file["token_url"] = service_.TokenUrl();
    file["client_id"] = service_.ClientId();
    file["discovery_url"] = service_.DiscoveryUrl();
    file["discovery_resource"] = service_.DiscoveryResource();
    file["refresh_token"] = service_.IssueRefreshToken();
    service_file_ = Write("service.json", base::CompactJson(file)).string();
    const Outcome outcome = Run({"--service-file", service_file_, "whoami"});
    ASSERT_EQ(outcome.code, 0) << outcome.err;
    std::filesystem::create_directory(work_);
  }

  static bool NamesProxy(std::string_view entry) {
    const std::string_view name = entry.substr(0, entry.find('='));
    return name.ends_with("_proxy") || name.ends_with("_PROXY");
  }

  pid_t Start(const Arguments& arguments) const {
    std::vector<std::string> words = {HOST_PROGRAM, "--profile", "p"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const std::string state = "XDG_STATE_HOME=" + (folder_ / "state").string();
    std::vector<char*> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      if (!NamesProxy(*entry)) env.push_back(*entry);
    }
    env.push_back(const_cast<char*>(state.c_str()));
    for (const auto& entry : environment_) env.push_back(const_cast<char*>(entry.c_str()));
    env.push_back(nullptr);
    const std::string out = (folder_ / "out").string();
    const std::string err = (folder_ / "err").string();
    const pid_t child = fork();
    if (child != 0) return child;
    const int flags = O_WRONLY | O_CREAT | O_TRUNC;
    if (dup2(open("/dev/null", O_RDONLY), 0) == 0 && dup2(open(out.c_str(), flags, 0600), 1) == 1 &&
        dup2(open(err.c_str(), flags, 0600), 2) == 2 && setpgid(0, 0) == 0) {
      execve(HOST_PROGRAM, argv.data(), env.data());
    }
    _exit(99);
  }

  Outcome Wait(pid_t child) const {
    int status = 0;
    waitpid(child, &status, 0);
    Outcome outcome;
    outcome.code = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    outcome.out = Read(folder_ / "out");
    outcome.err = Read(folder_ / "err");
    return outcome;
  }

  Outcome Run(const Arguments& arguments) const { return Wait(Start(arguments)); }

  /// Waits for what the program brings about.
  template <typename Condition>
  static bool Eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
  }

  std::size_t CountRequests(const std::string& method, const std::string& part) const {
    const auto requests = service_.Requests();
    return static_cast<std::size_t>(
        std::count_if(requests.begin(), requests.end(), [&](const auto& request) {
          return request.method == method && request.target.find(part) != std::string::npos;
        }));
  }

  /// All that lies below a folder: path and content; folders have none.
  static std::map<std::string, std::string> Tree(const std::filesystem::path& folder) {
    std::map<std::string, std::string> tree;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
      const std::string name = std::filesystem::relative(entry.path(), folder).string();
      tree[name] = entry.is_directory() ? "/" : Read(entry.path());
    }
    return tree;
  }

  emulator::Service service_{Options()};
  std::string service_file_;
  const std::filesystem::path work_ = folder_ / "work";
  std::vector<std::string> environment_;  ///< NAME=VALUE, besides this process's without proxies
};

}  // namespace cli
