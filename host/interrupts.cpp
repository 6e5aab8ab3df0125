#include "host/interrupts.h"

#include <cerrno>
#include <csignal>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "host/failure.h"

namespace host {
namespace {

constexpr std::int32_t kStop = 3;

/// The signals that end the program, without those that whoever started it chose to ignore.
sigset_t EndingSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler != SIG_IGN) sigaddset(&set, signal);
  }
  return set;
}

}  // namespace

void StopTransfer(_FS_HANDLE& handle) noexcept {
  std::atomic_ref<std::int32_t>(handle.state).store(kStop, std::memory_order_relaxed);
}

Interrupts::Interrupts() {
  const sigset_t set = EndingSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signals_ = base::UniqueFd(signalfd(-1, &set, SFD_CLOEXEC));
  stop_ = base::UniqueFd(eventfd(0, EFD_CLOEXEC));
  if (!signals_ || !stop_) throw LocalFailure("watch for", "signals", errno);
  thread_ = std::thread([this] { Run(); });
}

Interrupts::~Interrupts() {
  const std::uint64_t one = 1;
  while (::write(stop_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
  thread_.join();
}

void Interrupts::Check() const {
  if (raised_) throw Failure(ExitCode::kInterrupted, "interrupted");
}

void Interrupts::Wait(std::chrono::seconds time) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, time, [this] { return raised_.load(); });
  Check();
}

void Interrupts::Run() {
  pollfd watched[] = {{signals_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}};
  for (;;) {
    if (::poll(watched, std::size(watched), -1) < 0) continue;
    if (watched[1].revents != 0) return;
    signalfd_siginfo signal{};
    if (::read(signals_.get(), &signal, sizeof signal) == sizeof signal) Raise();
  }
}

void Interrupts::Raise() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (scopes_.empty() || raised_) {
    for (const Scope* scope : scopes_) {
      if (!scope->temporary_file_.empty()) ::unlink(scope->temporary_file_.c_str());
    }
    ::_exit(static_cast<int>(ExitCode::kInterrupted));
  }
  raised_ = true;
  for (const Scope* scope : scopes_) {
    for (const auto& handle : scope->handles_) StopTransfer(*handle);
  }
  changed_.notify_all();
}

Interrupts::Scope::Scope(Interrupts& interrupts, std::vector<std::shared_ptr<_FS_HANDLE>> handles,
                         std::string temporary_file)
    : interrupts_(interrupts),
      handles_(std::move(handles)),
      temporary_file_(std::move(temporary_file)) {
  const std::lock_guard<std::mutex> lock(interrupts_.mutex_);
  place_ = interrupts_.scopes_.insert(interrupts_.scopes_.end(), this);
  // A signal between two scopes of one command counts for both.
  if (!interrupts_.raised_) return;
  for (const auto& handle : handles_) StopTransfer(*handle);
}

Interrupts::Scope::~Scope() {
  const std::lock_guard<std::mutex> lock(interrupts_.mutex_);
  interrupts_.scopes_.erase(place_);
}

}  // namespace host
