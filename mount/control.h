// Control: how the commands status, sync and unmount reach the process that serves a mount: a
// socket in the user's folder for running programs, named by the mount point. One line of JSON
// asks, lines of JSON answer.
//
// Only processes of the same user (or root) are answered.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include <json/value.h>

#include "base/unique_fd.h"

namespace mounted {

/// The socket of the mount at this absolute path.
std::filesystem::path SocketPath(const std::string& mount_point);

class ControlServer {
 public:
  /// Sends one line of an answer. False: the asker has gone.
  using Reply = std::function<bool(const Json::Value& line)>;
  /// Runs in a thread for each asker.
  using Handler = std::function<void(const Json::Value& question, const Reply& reply)>;

  /// Throws host::Failure. A socket that a dead process left is replaced.
  ControlServer(const std::string& mount_point, Handler handler);
  /// Waits for the answers that are being made.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

 private:
  struct Asker {
    base::UniqueFd socket;
    std::atomic<bool> done{false};
    std::thread thread;
  };

  void Accept();
  void Answer(Asker& asker);
  void RemoveDone(bool all);

  std::filesystem::path path_;
  Handler handler_;
  base::UniqueFd listener_;
  std::atomic<bool> ending_{false};
  std::list<Asker> askers_;
  std::thread thread_;
};

/// Asks the process that serves the mount and gives each line of its answer to `take` until the
/// socket is closed. Throws host::Failure, kUsage, when nothing is mounted there by this program.
void AskMount(const std::string& mount_point, const Json::Value& question,
              const std::function<void(const Json::Value&)>& take);

}  // namespace mounted
