#include "cli/interrupts.h"

#include <cerrno>
#include <chrono>
#include <csignal>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "base/files.h"
#include "cli/report.h"
#include "host/failure.h"

namespace cli {
namespace {

/// How long a person waits for the end of the program without being told why.
constexpr std::chrono::milliseconds kPatience(300);

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
    if (::read(signals_.get(), &signal, sizeof signal) == sizeof signal) TakeSignal();
  }
}

void Interrupts::TakeSignal() {
  bool end = cancellation_.raised();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    end = end || scopes_ == 0;
  }
  cancellation_.Raise();
  if (end) EndProgram();
}

void Interrupts::EndProgram() {
  if (!cancellation_.WaitForUnbroken(kPatience)) {
    base::WriteAll(STDERR_FILENO,
                   "onedrive4b: waiting for the authority's answer; ending now could lose the "
                   "sign-in\n");
    // No request to the authority lasts longer than its time limit.
    while (!cancellation_.WaitForUnbroken(std::chrono::seconds(1))) {
    }
  }
  temporary_files_.RemoveAll();
  ::_exit(static_cast<int>(ExitCode::kInterrupted));
}

Interrupts::Scope::Scope(Interrupts& interrupts) : interrupts_(interrupts) {
  const std::lock_guard<std::mutex> lock(interrupts_.mutex_);
  ++interrupts_.scopes_;
}

Interrupts::Scope::~Scope() {
  const std::lock_guard<std::mutex> lock(interrupts_.mutex_);
  --interrupts_.scopes_;
}

}  // namespace cli
