#include "host/session.h"

#include <algorithm>
#include <random>
#include <system_error>
#include <utility>

namespace host {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;

/// The longest sleep of the session's thread: it does not notice that the machine slept.
constexpr milliseconds kLongestSleep = std::chrono::minutes(1);

double DrawBetween(double low, double high) {
  std::random_device device;
  return std::uniform_real_distribution<double>(low, high)(device);
}

}  // namespace

bool Session::Link::TokenIsGood() const {
  const Authorizer::TokenLife life = connection.token_life();
  return BootClock::now() < life.begin + life.length;
}

Session::Lease::~Lease() {
  const std::lock_guard<std::mutex> lock(session_.mutex_);
  if (--link_.calls == 0 && session_.links_.size() > 1) session_.changed_.notify_all();
}

Session::LoggerBinding::LoggerBinding(const ModuleLibrary& module, Log& log) : module_(module) {
  module_.bind_logger(&log);
}

Session::LoggerBinding::~LoggerBinding() { module_.unbind_logger(); }

Session::Session(const SessionContext& context, SessionOptions options, const RenewalTimes& times)
    : context_(context),
      options_(std::move(options)),
      times_(times),
      binding_(context.module, context.authorizer.log),
      retry_pause_(times.first_retry) {}

Session::~Session() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
    changed_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

void Session::Connect() { Use(); }

void Session::Call(const std::string& action, const Operation& operation) {
  std::optional<Failure> failure;
  {
    const Lease lease = Use();
    failure = Try(lease.link(), action, operation);
    if (!failure) return;
    if (failure->kind() != FailureKind::kSignIn) throw *failure;
    ReplaceRefused(lease.link(), *failure);
  }
  const Lease lease = Use();
  failure = Try(lease.link(), action, operation);
  if (!failure) return;
  if (failure->kind() == FailureKind::kSignIn) KeepDespiteRefusals();
  throw *failure;
}

std::optional<Failure> Session::Try(Link& link, const std::string& action,
                                    const Operation& operation) {
  const ErrorLines errors;
  const AERROR result = operation(link.connection.protocol());
  if (result == SUCCESS) return std::nullopt;
  return DescribeFailure(context_.module, result, action, errors);
}

Session::Lease Session::Use() {
  const auto newest = [this]() -> Link* {
    if (links_.empty() || !links_.back()->TokenIsGood()) return nullptr;
    ++links_.back()->calls;
    return links_.back().get();
  };
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Link* link = newest()) return {*this, *link};
  }
  const std::lock_guard<std::mutex> sign_in(sign_in_mutex_);
  {
    // Another thread may have done it meanwhile.
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Link* link = newest()) return {*this, *link};
  }
  SignInUnlessCalm();
  const std::lock_guard<std::mutex> lock(mutex_);
  ++links_.back()->calls;
  return {*this, *links_.back()};
}

/// Sees to it that another link than `refused` is in use. Throws `refusal` when that would not
/// help, or what prevents it.
void Session::ReplaceRefused(const Link& refused, const Failure& refusal) {
  const std::lock_guard<std::mutex> sign_in(sign_in_mutex_);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (links_.back().get() != &refused) return;
  }
  // A token that has just been issued is refused for a reason that another one would not cure.
  const BootClock::time_point now = BootClock::now();
  if (now - refused.made < times_.calm || now < keep_until_) throw refusal;
  SignInUnlessCalm();
}

/// The operation is refused whatever the token, so for a while refusals cost no sign-in.
void Session::KeepDespiteRefusals() {
  const std::lock_guard<std::mutex> sign_in(sign_in_mutex_);
  keep_until_ = BootClock::now() + times_.longest_retry;
}

/// With sign_in_mutex_ held.
void Session::SignInUnlessCalm() {
  if (last_failure_ && BootClock::now() - last_failure_time_ < times_.calm) throw *last_failure_;
  SignIn();
}

/// With sign_in_mutex_ held.
void Session::SignIn() {
  std::unique_ptr<Link> fresh;
  try {
    fresh = std::make_unique<Link>(context_, options_);
  } catch (const Failure& failure) {
    last_failure_ = failure;
    last_failure_time_ = BootClock::now();
    throw;
  }
  last_failure_.reset();
  const std::lock_guard<std::mutex> lock(mutex_);
  links_.push_back(std::move(fresh));
  renewal_share_ = DrawBetween(times_.earliest, times_.latest);
  retry_pause_ = times_.first_retry;
  retry_time_ = {};
  changed_.notify_all();
  try {
    if (!thread_.joinable()) thread_ = std::thread([this] { Run(); });
  } catch (const std::system_error&) {
    // Without the thread, the call that finds the token dead signs in.
  }
}

void Session::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    // These two let go of the lock, so what they were called for is looked at again afterwards.
    if (ReleaseIdle(lock)) continue;
    if (ending_) return;
    const BootClock::time_point now = BootClock::now();
    const BootClock::time_point renewal = RenewalTime();
    if (now < renewal) {
      // Rounded up, or the last millisecond would be spent in a loop.
      const auto left = duration_cast<milliseconds>(renewal - now) + milliseconds(1);
      changed_.wait_for(lock, std::min(left, kLongestSleep));
    } else {
      RenewInBackground(lock);
    }
  }
}

/// When the newest link is to be replaced.
BootClock::time_point Session::RenewalTime() const {
  const Authorizer::TokenLife life = links_.back()->connection.token_life();
  const auto age = duration_cast<BootClock::duration>(life.length * renewal_share_);
  return std::max(life.begin + age, retry_time_);
}

/// Destroys old links without calls, not under the lock, because that may wait for the network.
/// False, with the lock held throughout, when there are none.
bool Session::ReleaseIdle(std::unique_lock<std::mutex>& lock) {
  std::list<std::unique_ptr<Link>> idle;
  for (auto link = links_.begin(); link != std::prev(links_.end());) {
    const auto next = std::next(link);
    if ((*link)->calls == 0) idle.splice(idle.end(), links_, link);
    link = next;
  }
  if (idle.empty()) return false;
  lock.unlock();
  idle.clear();
  lock.lock();
  return true;
}

void Session::RenewInBackground(std::unique_lock<std::mutex>& lock) {
  lock.unlock();
  std::optional<Failure> failure;
  {
    const std::lock_guard<std::mutex> sign_in(sign_in_mutex_);
    lock.lock();
    // A call may have been quicker.
    const bool due = BootClock::now() >= RenewalTime();
    lock.unlock();
    try {
      if (due) SignIn();
    } catch (const Failure& error) {
      failure = error;
    } catch (const std::exception& error) {
      failure = Failure(FailureKind::kFailed, error.what());
    }
  }
  if (failure) {
    context_.authorizer.log.Line(
        LOGLEVEL_ERROR, std::string("[SESSION   ] renewing the sign-in: ") + failure->what());
  }
  lock.lock();
  if (!failure) return;
  retry_time_ = BootClock::now() + retry_pause_;
  retry_pause_ = std::min(retry_pause_ * 2, times_.longest_retry);
}

}  // namespace host
