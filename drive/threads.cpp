#include "drive/threads.h"

#include <algorithm>
#include <utility>

namespace drive {
namespace {

constexpr int kAskThreads = 3;
constexpr int kReadThreads = 4;
constexpr int kSendThreads = 3;
/// Waits are cut into pieces, because the time of files may be set back while somebody waits.
constexpr std::chrono::seconds kLongestWait{1};

}  // namespace

void Threads::Start() {
  const std::lock_guard lock(mutex_);
  const auto run = [this](Queue& queue, int count) {
    for (int i = 0; i < count; ++i) {
      threads_.emplace_back([this, &queue](std::stop_token stop) { RunTasks(queue, stop); });
    }
  };
  run(ask_, kAskThreads);
  run(read_, kReadThreads);
  run(send_, kSendThreads);
  threads_.emplace_back([this](std::stop_token stop) { KeepTime(stop); });
}

Threads::Queue& Threads::QueueOf(Lane lane) {
  switch (lane) {
    case Lane::kAsk:
      return ask_;
    case Lane::kRead:
      return read_;
    case Lane::kSend:
      break;
  }
  return send_;
}

void Threads::Submit(Lane lane, std::function<void(std::stop_token)> task) {
  const std::lock_guard lock(mutex_);
  if (ended_) return;
  Queue& queue = QueueOf(lane);
  queue.tasks.push_back(std::move(task));
  queue.filled.notify_one();
}

void Threads::RunTasks(Queue& queue, std::stop_token stop) {
  std::unique_lock lock(mutex_);
  for (;;) {
    queue.filled.wait(lock, stop, [&] { return !queue.tasks.empty(); });
    if (stop.stop_requested()) return;
    {
      const auto task = std::move(queue.tasks.front());
      queue.tasks.pop_front();
      lock.unlock();
      task(stop);
    }
    lock.lock();
  }
}

void Threads::WakeAt(FileTime time) {
  const std::lock_guard lock(mutex_);
  if (wake_ && *wake_ <= time) return;
  wake_ = time;
  wake_changed_.notify_all();
}

void Threads::OnTick(std::function<void()> tick) {
  const std::lock_guard lock(mutex_);
  tick_ = std::move(tick);
}

void Threads::KeepTime(std::stop_token stop) {
  // One tick for all that comes within a few milliseconds.
  constexpr std::chrono::milliseconds kPause{5};
  std::unique_lock lock(mutex_);
  while (!stop.stop_requested()) {
    const FileTime now = clock_.Now();
    if (wake_ && *wake_ <= now) {
      wake_.reset();
      const auto tick = tick_;
      lock.unlock();
      if (tick) tick();
      lock.lock();
      wake_changed_.wait_for(lock, stop, kPause, [] { return false; });
      continue;
    }
    const auto wait =
        wake_ ? std::min<FileTime::duration>(*wake_ - now, kLongestWait) : kLongestWait;
    wake_changed_.wait_for(lock, stop, wait, [&, wake = wake_] { return wake_ != wake; });
  }
}

void Threads::Wait(std::unique_lock<std::mutex>& lock, FileTime until, std::stop_token stop) {
  // Woken without a reason as well: the callers look again. A stop that is requested from now on
  // wakes the wait through the callback, which needs no lock.
  const std::stop_callback wake(stop, [this] { changed_.notify_all(); });
  if (stop.stop_requested()) return;
  const auto wait =
      std::clamp<FileTime::duration>(until - clock_.Now(), FileTime::duration(1), kLongestWait);
  changed_.wait_for(lock, wait);
}

void Threads::Changed() { changed_.notify_all(); }

void Threads::End() {
  std::vector<std::jthread> threads;
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    ask_.tasks.clear();
    read_.tasks.clear();
    send_.tasks.clear();
    threads.swap(threads_);
  }
  for (std::jthread& thread : threads) thread.request_stop();
  threads.clear();
}

}  // namespace drive
