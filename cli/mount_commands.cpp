#include "cli/mount_commands.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

#include "base/json_text.h"
#include "base/utf8.h"
#include "cli/output.h"
#include "drive/drive.h"
#include "drive/module_remote.h"
#include "drive/threads.h"
#include "host/failure.h"
#include "host/profile.h"
#include "host/text.h"
#include "mount/control.h"
#include "mount/file_system.h"
#include "mount/mount_point.h"
#include "mount/notifier.h"

namespace cli {
namespace {

using host::Failure;
using host::FailureKind;

constexpr std::chrono::hours kNoLimit{24 * 365};
/// What still runs at the service when the drive ends is given so long.
constexpr std::chrono::seconds kLongestEnd{4};

// The state folder. ---------------------------------------------------------------------------

/// A folder for a demo drive, which ends with the program.
class TemporaryState {
 public:
  TemporaryState() {
    std::string path = (std::filesystem::temp_directory_path() / "onedrive4b-XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr) throw host::LocalFailure("make", path, errno);
    folder_ = path;
  }
  ~TemporaryState() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  TemporaryState(const TemporaryState&) = delete;
  TemporaryState& operator=(const TemporaryState&) = delete;

  const std::filesystem::path& folder() const { return folder_; }

 private:
  std::filesystem::path folder_;
};

std::filesystem::path StateFolder(const Options& options) {
  if (!options.mount.state.empty()) return std::filesystem::absolute(options.mount.state);
  std::filesystem::path folder = host::ProfileFile(options.profile.value_or("default"));
  return folder.replace_extension(".drive");
}

Failure ToFailure(const drive::Error& error) {
  switch (error.reason()) {
    case drive::Reason::kUnreachable:
      return {FailureKind::kUnreachable, error.what()};
    case drive::Reason::kSignedOut:
      return {FailureKind::kSignIn, error.what()};
    case drive::Reason::kExists:
      return {FailureKind::kUsage, error.what()};
    default:
      return {FailureKind::kLocal, error.what()};
  }
}

std::string HostName() {
  std::array<char, 256> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0) return "this computer";
  return name.data();
}

/// Whose drive it is, and with which top. Names of people are not unique, drives are.
std::string AccountOf(const MountContext& context) {
  const std::string shown = context.options.hide_shared ? ", without what is shared" : "";
  const std::string drive = context.items.Describe("root", "the drive").id;
  return context.items.UserName() + " (drive " + drive + shown + ")";
}

mode_t CurrentUmask() {
  const mode_t mask = ::umask(077);
  return mask;  // files of the state folder are nobody else's business from here on
}

// Status. -------------------------------------------------------------------------------------

std::string TimeText(drive::FileTime time) {
  const std::time_t seconds =
      std::chrono::floor<std::chrono::seconds>(time).time_since_epoch().count();
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 32> text{};
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

Json::Value StatusJson(const drive::Status& status, const std::string& mount_point) {
  Json::Value document(Json::objectValue);
  document["mountpoint"] = mount_point;
  document["online"] = status.online;
  document["signed_in"] = !status.signed_out;
  document["pending"] = Json::Int64{status.pending};
  document["pending_bytes"] = Json::Int64{status.pending_bytes};
  document["active"] = Json::Value(Json::arrayValue);
  for (const drive::ActiveTransfer& transfer : status.active) {
    Json::Value& entry = document["active"].append(Json::objectValue);
    entry["path"] = base::ValidUtf8(transfer.path);
    entry["direction"] = transfer.upload ? "up" : "down";
    entry["done"] = Json::Int64{transfer.done};
    entry["total"] = Json::Int64{transfer.total};
  }
  document["refused"] = Json::Value(Json::arrayValue);
  for (const drive::RefusedChange& change : status.refused) {
    Json::Value& entry = document["refused"].append(Json::objectValue);
    entry["path"] = base::ValidUtf8(change.path);
    entry["reason"] = base::ValidUtf8(change.reason);
    entry["since"] = TimeText(change.since);
  }
  document["conflicts"] = Json::Value(Json::arrayValue);
  for (const drive::Conflict& conflict : status.conflicts) {
    Json::Value& entry = document["conflicts"].append(Json::objectValue);
    entry["path"] = base::ValidUtf8(conflict.path);
    entry["kept_as"] = base::ValidUtf8(conflict.kept_as);
    entry["since"] = TimeText(conflict.since);
  }
  document["cache_bytes"] = Json::Int64{status.cache_bytes};
  document["cache_limit"] = Json::Int64{status.cache_limit};
  document["known_items"] = Json::Int64{status.known_items};
  return document;
}

std::string Size(const Json::Value& bytes) { return host::HumanSize(bytes.asUInt64()); }

std::string Shown(const Json::Value& text) { return host::EscapeForTerminal(text.asString()); }

std::string StatusText(const Json::Value& status) {
  std::string text = Shown(status["mountpoint"]) + ": ";
  if (!status["signed_in"].asBool()) {
    text += "signed out; run 'onedrive4b login', what is not sent is kept\n";
  } else {
    text += status["online"].asBool() ? "online\n" : "offline, what is not sent is kept\n";
  }
  text += status["pending"].asInt64() == 0
              ? "  everything is sent\n"
              : "  " + status["pending"].asString() + " changes to send, " +
                    Size(status["pending_bytes"]) + "\n";
  for (const Json::Value& transfer : status["active"]) {
    const double total = std::max(1.0, transfer["total"].asDouble());
    const auto marks = static_cast<std::size_t>(20 * transfer["done"].asDouble() / total);
    text += std::string("  ") + (transfer["direction"] == "up" ? "up   [" : "down [") +
            std::string(std::min<std::size_t>(marks, 20), '#') +
            std::string(20 - std::min<std::size_t>(marks, 20), '.') + "] " +
            Size(transfer["total"]) + "  " + Shown(transfer["path"]) + "\n";
  }
  for (const Json::Value& change : status["refused"]) {
    text += "  refused: " + Shown(change["path"]) + "\n    " + Shown(change["reason"]) +
            "\n    it is tried again by itself, and at once by 'onedrive4b sync'\n";
  }
  for (const Json::Value& conflict : status["conflicts"]) {
    text += "  changed here and elsewhere: " + Shown(conflict["path"]) + "\n    ours is kept as " +
            Shown(conflict["kept_as"]) + "\n";
  }
  return text + "  local copies: " + Size(status["cache_bytes"]) + " of " +
         Size(status["cache_limit"]) + ", " + status["known_items"].asString() + " items known\n";
}

// The serving process. ------------------------------------------------------------------------

/// Answers the other commands, in threads of the control socket.
class Desk {
 public:
  Desk(drive::Drive& drive, mounted::Session& session, const std::string& mount_point)
      : drive_(drive), session_(session), mount_point_(mount_point) {}

  void Answer(const Json::Value& question, const mounted::ControlServer::Reply& reply) {
    const std::string command = base::TextMember(question, "command").value_or("");
    const Json::Value& limit = question["timeout"];
    const std::chrono::milliseconds time =
        limit.isUInt() ? std::chrono::seconds(limit.asUInt()) : std::chrono::milliseconds(kNoLimit);
    if (command == "status") reply(Status());
    if (command == "sync") Sync(time, reply);
    if (command == "unmount") Unmount(question["now"] == true, time, reply);
  }

  void Stop() { stop_.request_stop(); }

 private:
  Json::Value Status() const { return StatusJson(drive_.GetStatus(), mount_point_); }

  /// In pieces, so that it ends when nobody waits for it any more.
  bool Sync(std::chrono::milliseconds time, const mounted::ControlServer::Reply& reply) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + time;
    bool done = false;
    while (!done && !stop_.stop_requested()) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
      if (left.count() <= 0) break;
      const auto piece = std::min<std::chrono::milliseconds>(left, std::chrono::seconds(2));
      const Clock::time_point began = Clock::now();
      done = drive_.Sync(piece, stop_.get_token());
      Json::Value line = Status();
      const bool stuck = !done && Clock::now() - began < piece && !line["refused"].empty();
      line["done"] = done;
      line["final"] = done || stuck;
      if (!reply(line)) return false;
      if (stuck) return false;
    }
    Json::Value line = Status();
    line["done"] = done;
    line["final"] = true;
    return reply(line) && done;
  }

  void Unmount(bool now, std::chrono::milliseconds time,
               const mounted::ControlServer::Reply& reply) {
    if (!now && !Sync(time, reply)) return;
    if (now) session_.End();
    Json::Value line(Json::objectValue);
    line["sent"] = true;
    line["pid"] = Json::Int64{::getpid()};
    reply(line);
  }

  drive::Drive& drive_;
  mounted::Session& session_;
  const std::string& mount_point_;
  std::stop_source stop_;
};

/// Ends the session when a signal comes.
class SignalWatch {
 public:
  SignalWatch(host::Cancellation& cancellation, mounted::Session& session)
      : cancellation_(cancellation), thread_([this, &session] { Run(session); }) {}
  ~SignalWatch() {
    cancellation_.Raise();
    thread_.join();
  }
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;

 private:
  void Run(mounted::Session& session) {
    try {
      for (;;) cancellation_.Wait(std::chrono::hours(1));
    } catch (const Failure&) {
      session.End();
    }
  }

  host::Cancellation& cancellation_;
  std::thread thread_;
};

/// What is recorded is safe at any end: the process does not wait for requests that get no answer.
void EndSoon(host::Cancellation& cancellation) {
  std::thread([&cancellation] {
    std::this_thread::sleep_for(kLongestEnd);
    cancellation.WaitForUnbroken(kLongestEnd);  // a token that is being exchanged
    ::_exit(0);
  }).detach();
}

void Serve(const MountContext& context, const mounted::FileSystemParts& parts,
           const std::filesystem::path& state, mode_t umask) {
  const Options& options = context.options;
  drive::Drive& drive = parts.drive;
  const Interrupts::Scope scope(context.interrupts);
  mounted::FileSystem system(parts, {.owner = ::getuid(),
                                     .group = ::getgid(),
                                     .umask = umask,
                                     .timeout = std::chrono::seconds(options.mount.refresh)});
  mounted::Session session(system, parts.notifier,
                           {.mount_point = options.local,
                            .read_only = options.mount.read_only,
                            .allow_other = options.mount.allow_other});
  Desk desk(drive, session, options.local);
  const mounted::ControlServer control(
      options.local, [&](const Json::Value& question, const mounted::ControlServer::Reply& reply) {
        desk.Answer(question, reply);
      });
  const SignalWatch watch(context.interrupts.cancellation(), session);
  context.background.Ready(state / "log");
  session.Run();
  mounted::TellSystemd("STOPPING=1");
  drive.StopSending();
  drive.SyncNames();
  EndSoon(context.interrupts.cancellation());
  desk.Stop();
}

// The asking commands. ------------------------------------------------------------------------

Json::Value Question(const Options& options, const char* command) {
  Json::Value question(Json::objectValue);
  question["command"] = command;
  if (options.mount.timeout) question["timeout"] = Json::UInt{*options.mount.timeout};
  question["now"] = options.mount.now;
  return question;
}

std::string MountPointOf(const Options& options) { return mounted::MountPointOf(options.local); }

void ShowStatus(const Options& options) {
  Json::Value status;
  mounted::AskMount(MountPointOf(options), Question(options, "status"),
                    [&](const Json::Value& line) { status = line; });
  if (!status.isObject()) throw Failure(FailureKind::kFailed, "the drive gave no answer");
  Output out(STDOUT_FILENO);
  out.Write(options.json ? base::PrettyJson(status) : StatusText(status));
  out.Flush();
}

[[noreturn]] void FailWithRest(const Json::Value& last) {
  if (!last.isObject()) throw Failure(FailureKind::kFailed, "the drive ended before it was done");
  Output out(STDERR_FILENO);
  out.Write(StatusText(last));
  out.Flush();
  throw Failure(FailureKind::kFailed, "not everything was sent",
                "what is left is kept, and sent when that is possible");
}

void SyncDrive(const Options& options) {
  Json::Value last;
  mounted::AskMount(MountPointOf(options), Question(options, "sync"),
                    [&](const Json::Value& line) { last = line; });
  if (!last.isObject() || !last["done"].asBool()) FailWithRest(last);
}

/// False when nobody serves the mount any more.
bool AskToEnd(const Options& options, Json::Value& last) {
  try {
    mounted::AskMount(MountPointOf(options), Question(options, "unmount"),
                      [&](const Json::Value& line) { last = line; });
    return true;
  } catch (const Failure&) {
    if (!mounted::IsMounted(MountPointOf(options))) throw;
    return false;
  }
}

void UnmountDrive(const Options& options) {
  Json::Value last;
  // What a process left that has died is in the list for the next mount.
  if (!AskToEnd(options, last)) return mounted::Unmount(MountPointOf(options));
  if (!last.isObject() || !last["sent"].asBool()) FailWithRest(last);
  if (!options.mount.now) mounted::Unmount(MountPointOf(options));
  // The state folder is free for the next mount only when the process has ended.
  const auto process = static_cast<pid_t>(last["pid"].asInt64());
  for (int i = 0; i < 1000 && ::kill(process, 0) == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace

bool IsDriveKnown(const Options& options) {
  return !options.emulator && std::filesystem::exists(StateFolder(options) / "catalog.db");
}

void MountDrive(const MountContext& context) {
  const Options& options = context.options;
  const mode_t umask = CurrentUmask();
  std::optional<TemporaryState> temporary;
  std::filesystem::path state;
  if (options.emulator && options.mount.state.empty()) {
    temporary.emplace();
    state = temporary->folder() / "state";
  } else {
    state = StateFolder(options);
  }
  try {
    drive::DriveOptions settings;
    settings.state = state;
    if (context.online) settings.account = AccountOf(context);
    settings.host = HostName();
    settings.read_only = options.mount.read_only;
    settings.cache_limit = options.mount.cache_limit;
    settings.refresh = std::chrono::seconds(options.mount.refresh);
    settings.upload_delay = std::chrono::seconds(options.mount.upload_delay);
    const drive::SystemClock clock;
    drive::ModuleRemote remote(context.items);
    mounted::Inodes inodes;
    mounted::Notifier notifier(inodes);
    drive::Threads threads(clock);
    drive::Drive drive(std::move(settings),
                       {.remote = remote, .work = threads, .clock = clock, .watcher = notifier});
    threads.Start();
    drive.Start();
    Serve(context, {.drive = drive, .inodes = inodes, .notifier = notifier}, state, umask);
  } catch (const drive::Error& error) {
    throw ToFailure(error);
  }
}

bool RunMountCommand(const Options& options) {
  switch (options.command) {
    case Command::kStatus:
      ShowStatus(options);
      return true;
    case Command::kSync:
      SyncDrive(options);
      return true;
    case Command::kUnmount:
      UnmountDrive(options);
      return true;
    default:
      return false;
  }
}

}  // namespace cli
