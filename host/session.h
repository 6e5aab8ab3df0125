// Session: the drive of one account, through the module, for as long as the program runs.
//
// The module renews a token when the service refuses it, but not twice within 3660 seconds, and
// tokens live for 3600: an object that stays signed in fails for a minute of every hour. So a
// session uses several protocol objects in turn. Its own thread signs in a fresh object before the
// token of the current one expires; new calls use the fresh object, and the old one is released
// when its calls have ended. A token that is withdrawn earlier is replaced after the first refused
// call.
//
// Threads: Call and Connect may be called from any thread, the rest by the owner.
// Lifetime: the objects in the context must outlive it. No call may be running when it is
// destroyed. At most one session of a module at a time: it binds the module's logger.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "host/boot_clock.h"
#include "host/connection.h"

namespace host {

/// When a session signs in again.
struct RenewalTimes {
  /// Shares of a token's lifetime between which it is replaced; the moment is random, so that hosts
  /// that were started together do not all renew at the same time.
  double earliest = 0.65;
  double latest = 0.75;
  /// A failed background renewal is repeated after this time, which doubles up to the longest.
  std::chrono::milliseconds first_retry{std::chrono::seconds(30)};
  std::chrono::milliseconds longest_retry{std::chrono::minutes(5)};
  /// For this time after a failed sign-in, calls that need a sign-in fail at once.
  std::chrono::milliseconds calm{std::chrono::seconds(5)};
};

class Session {
 public:
  using Operation = std::function<AERROR(IProtocol_V2&)>;

  /// Does not sign in.
  Session(const SessionContext& context, SessionOptions options, const RenewalTimes& times = {});
  /// Waits for a running sign-in.
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Signs in, unless there is a valid token. Throws Failure.
  void Connect();

  /// Runs `operation` with a signed-in protocol object; signs in before that when there is none.
  /// Throws a Failure that says that `action` failed, with the result's name and what the module
  /// logged about it on this thread, unless the result is SUCCESS. If the service
  /// refuses the token, the operation is run a second time with a new one.
  void Call(const std::string& action, const Operation& operation);

 private:
  /// One protocol object and the calls that use it.
  struct Link {
    Link(const SessionContext& context, const SessionOptions& options)
        : connection(context, options), made(BootClock::now()) {}

    bool TokenIsGood() const;

    Connection connection;
    const BootClock::time_point made;
    std::size_t calls = 0;  ///< guarded by mutex_
  };

  /// Keeps a link from being released.
  class Lease {
   public:
    Lease(Session& session, Link& link) : session_(session), link_(link) {}
    ~Lease();
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    Link& link() const noexcept { return link_; }

   private:
    Session& session_;
    Link& link_;
  };

  class LoggerBinding {
   public:
    LoggerBinding(const ModuleLibrary& module, Log& log);
    ~LoggerBinding();
    LoggerBinding(const LoggerBinding&) = delete;
    LoggerBinding& operator=(const LoggerBinding&) = delete;

   private:
    const ModuleLibrary& module_;
  };

  Lease Use();
  std::optional<Failure> Try(Link& link, const std::string& action, const Operation& operation);
  void ReplaceRefused(const Link& refused, const Failure& refusal);
  void KeepDespiteRefusals();
  void SignIn();
  void SignInUnlessCalm();
  void Run();
  bool ReleaseIdle(std::unique_lock<std::mutex>& lock);
  void RenewInBackground(std::unique_lock<std::mutex>& lock);
  BootClock::time_point RenewalTime() const;

  const SessionContext context_;
  const SessionOptions options_;
  const RenewalTimes times_;
  const LoggerBinding binding_;

  // Taken before mutex_ and held during a sign-in, so that there is one at a time.
  std::mutex sign_in_mutex_;
  std::optional<Failure> last_failure_;      ///< of a sign-in; guarded by sign_in_mutex_
  BootClock::time_point last_failure_time_;  ///< guarded by sign_in_mutex_
  BootClock::time_point keep_until_;         ///< guarded by sign_in_mutex_

  std::mutex mutex_;
  std::condition_variable changed_;
  std::list<std::unique_ptr<Link>> links_;  ///< the newest is in use; guarded by mutex_
  double renewal_share_ = 0;                ///< of the newest link's token; guarded by mutex_
  BootClock::time_point retry_time_;        ///< guarded by mutex_
  std::chrono::milliseconds retry_pause_;   ///< guarded by mutex_
  bool ending_ = false;                     ///< guarded by mutex_
  std::thread thread_;                      ///< started with the first sign-in; guarded by mutex_
};

}  // namespace host
