#include "host/cancellation.h"

#include <utility>

#include "host/failure.h"

namespace host {
namespace {

/// Any value above 2 stops a transfer.
constexpr std::int32_t kStop = 3;

}  // namespace

void StopTransfer(_FS_HANDLE& handle) noexcept {
  std::atomic_ref<std::int32_t>(handle.state).store(kStop, std::memory_order_relaxed);
}

void Cancellation::Raise() {
  const std::lock_guard<std::mutex> lock(mutex_);
  raised_ = true;
  for (const Transfers* transfers : transfers_) transfers->Stop();
  changed_.notify_all();
}

void Cancellation::Check() const {
  if (raised_) throw Failure(FailureKind::kInterrupted, "interrupted");
}

void Cancellation::Wait(std::chrono::milliseconds time) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, time, [this] { return raised_.load(); });
  Check();
}

Cancellation::Transfers::Transfers(Cancellation& cancellation, Handles handles)
    : cancellation_(cancellation), handles_(std::move(handles)) {
  const std::lock_guard<std::mutex> lock(cancellation_.mutex_);
  place_ = cancellation_.transfers_.insert(cancellation_.transfers_.end(), this);
  if (cancellation_.raised_) Stop();
}

Cancellation::Transfers::~Transfers() {
  const std::lock_guard<std::mutex> lock(cancellation_.mutex_);
  cancellation_.transfers_.erase(place_);
}

void Cancellation::Transfers::Stop() const noexcept {
  for (const auto& handle : handles_) StopTransfer(*handle);
}

Cancellation::Unbroken::Unbroken(Cancellation& cancellation) : cancellation_(cancellation) {
  const std::lock_guard<std::mutex> lock(cancellation_.mutex_);
  cancellation_.Check();
  ++cancellation_.unbroken_;
}

Cancellation::Unbroken::~Unbroken() {
  const std::lock_guard<std::mutex> lock(cancellation_.mutex_);
  --cancellation_.unbroken_;
  cancellation_.changed_.notify_all();
}

bool Cancellation::WaitForUnbroken(std::chrono::milliseconds time) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, time, [this] { return unbroken_ == 0; });
}

}  // namespace host
