#include "mount/session.h"

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include "host/failure.h"
#include "host/text.h"
#include "mount/operations.h"

namespace mounted {
namespace {

/// So many requests may wait for the service before others have to wait as well.
constexpr unsigned kMostThreads = 128;
constexpr unsigned kIdleThreads = 8;

/// Wakes the thread that runs the session: libfuse looks at the end only when a signal interrupts
/// its wait.
constexpr int kWakeSignal = SIGUSR1;

void HandleWakeSignal() {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  ::sigaction(kWakeSignal, &action, nullptr);
}

}  // namespace

Session::Session(FileSystem& system, Notifier& notifier, const SessionOptions& options)
    : system_(system), notifier_(notifier) {
  std::string settings = "fsname=onedrive4b,subtype=onedrive4b";
  if (options.read_only) settings += ",ro";
  // With other users the kernel compares the mode with who asks. For the owner alone that would
  // only cost a request for the folder's mode after each change in it: what cannot be changed is
  // refused by the drive.
  if (options.allow_other) settings += ",allow_other,default_permissions";
  std::vector<std::string> texts = {"onedrive4b", "-o", settings};
  std::vector<char*> arguments;
  arguments.reserve(texts.size());
  for (std::string& text : texts) arguments.push_back(text.data());
  fuse_args args = FUSE_ARGS_INIT(static_cast<int>(arguments.size()), arguments.data());
  const fuse_lowlevel_ops operations = Operations();
  session_.reset(fuse_session_new(&args, &operations, sizeof operations, &system));
  fuse_opt_free_args(&args);
  if (!session_ || fuse_session_mount(session_.get(), options.mount_point.c_str()) != 0) {
    throw host::Failure(host::FailureKind::kLocal,
                        "cannot mount at " + host::Quoted(options.mount_point),
                        "see the message of fusermount3 above; is /dev/fuse there, and fuse3 "
                        "installed?");
  }
  notifier_.Start(session_.get());
}

Session::~Session() {
  notifier_.Stop();
  // Lazily, so that a program that has files open cannot keep the process here. No thread reads
  // from the kernel any more, so its descriptor can be closed.
  fuse_session_unmount(session_.get());
}

void Session::Run() {
  HandleWakeSignal();
  {
    const std::lock_guard lock(mutex_);
    runner_ = ::pthread_self();
  }
  const std::unique_ptr<fuse_loop_config, decltype(&fuse_loop_cfg_destroy)> config(
      fuse_loop_cfg_create(), fuse_loop_cfg_destroy);
  fuse_loop_cfg_set_max_threads(config.get(), kMostThreads);
  fuse_loop_cfg_set_idle_threads(config.get(), kIdleThreads);
  fuse_session_loop_mt(session_.get(), config.get());
  const std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

void Session::End() {
  system_.requests().StopAll();
  // Notes to the kernel may wait for answers: they end while there are some.
  notifier_.Stop();
  fuse_session_exit(session_.get());
  std::unique_lock lock(mutex_);
  // The signal may come just before the wait that it is to interrupt, so one is not enough.
  constexpr std::chrono::milliseconds kPause(20);
  while (runner_ && !ended_) {
    ::pthread_kill(*runner_, kWakeSignal);
    changed_.wait_for(lock, kPause, [this] { return ended_; });
  }
}

}  // namespace mounted
