#include "mount/session.h"

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/mount.h>

#include "host/failure.h"
#include "host/text.h"

namespace mounted {

std::string CheckMountPoint(const std::string& path) {
  using host::Failure;
  using host::FailureKind;
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::canonical(path, error);
  if (error.value() == ENOTCONN) {
    throw Failure(FailureKind::kUsage, host::Quoted(path) + " holds a mount that has died",
                  "run 'fusermount3 -u " + path + "' first");
  }
  if (error)
    throw Failure(FailureKind::kUsage,
                  "the mount point " + host::Quoted(path) + " cannot be used: " + error.message());
  if (!std::filesystem::is_directory(absolute, error)) {
    throw Failure(FailureKind::kUsage,
                  "the mount point " + host::Quoted(path) + " is not a folder");
  }
  if (!std::filesystem::is_empty(absolute, error) || error) {
    throw Failure(FailureKind::kUsage,
                  "the mount point " + host::Quoted(path) + " is not an empty folder");
  }
  return absolute;
}

Session::Session(FileSystem& system, Notifier& notifier, const SessionOptions& options)
    : notifier_(notifier), mount_point_(options.mount_point) {
  std::string settings = "fsname=onedrive4b,subtype=onedrive4b,default_permissions";
  if (options.read_only) settings += ",ro";
  if (options.allow_other) settings += ",allow_other";
  std::vector<std::string> texts = {"onedrive4b", "-o", settings};
  std::vector<char*> arguments;
  arguments.reserve(texts.size());
  for (std::string& text : texts) arguments.push_back(text.data());
  fuse_args args = FUSE_ARGS_INIT(static_cast<int>(arguments.size()), arguments.data());
  session_.reset(
      fuse_session_new(&args, &FileSystem::Operations(), sizeof(fuse_lowlevel_ops), &system));
  fuse_opt_free_args(&args);
  const auto fail = [&] {
    throw host::Failure(host::FailureKind::kLocal, "cannot mount at " + host::Quoted(mount_point_),
                        "see the message of fusermount3 above; is /dev/fuse there, and fuse3 "
                        "installed?");
  };
  if (!session_) fail();
  if (fuse_session_mount(session_.get(), mount_point_.c_str()) != 0) fail();
  mounted_ = true;
  notifier_.Start(session_.get());
}

Session::~Session() {
  End();
  notifier_.Stop();
}

void Session::Run() {
  fuse_loop_config* config = fuse_loop_cfg_create();
  fuse_loop_cfg_set_max_threads(config, 32);
  fuse_loop_cfg_set_clone_fd(config, 0);
  fuse_session_loop_mt(session_.get(), config);
  fuse_loop_cfg_destroy(config);
}

void Session::End() {
  if (!mounted_.exchange(false)) return;
  // Notes to the kernel wait for a kernel that answers: they end first.
  notifier_.Stop();
  fuse_session_exit(session_.get());
  // Lazily, so that a program that has files open cannot keep the process here.
  ::umount2(mount_point_.c_str(), MNT_DETACH);
  fuse_session_unmount(session_.get());
}

}  // namespace mounted
