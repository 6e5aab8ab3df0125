#include "cli/interrupts.h"

#include <cerrno>
#include <csignal>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "cli/report.h"
#include "host/failure.h"

namespace cli {
namespace {

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

Interrupts::Interrupts() {
  const sigset_t set = EndingSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signals_ = base::UniqueFd(signalfd(-1, &set, SFD_CLOEXEC));
  stop_ = base::UniqueFd(eventfd(0, EFD_CLOEXEC));
  if (!signals_ || !stop_) throw host::LocalFailure("watch for", "signals", errno);
  thread_ = std::thread([this] { Run(); });
}

Interrupts::~Interrupts() {
  const std::uint64_t one = 1;
  while (::write(stop_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
  thread_.join();
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
  if (scopes_.empty() || cancellation_.raised()) {
    for (const Scope* scope : scopes_) {
      if (!scope->temporary_file_.empty()) ::unlink(scope->temporary_file_.c_str());
    }
    ::_exit(static_cast<int>(ExitCode::kInterrupted));
  }
  cancellation_.Raise();
}

Interrupts::Scope::Scope(Interrupts& interrupts, std::string temporary_file)
    : interrupts_(interrupts), temporary_file_(std::move(temporary_file)) {
  const std::lock_guard<std::mutex> lock(interrupts_.mutex_);
  place_ = interrupts_.scopes_.insert(interrupts_.scopes_.end(), this);
}

Interrupts::Scope::~Scope() {
  const std::lock_guard<std::mutex> lock(interrupts_.mutex_);
  interrupts_.scopes_.erase(place_);
}

}  // namespace cli
