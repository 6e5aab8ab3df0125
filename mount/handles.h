// Handles: what the kernel has open, by the numbers that it knows them by.
//
// Threads: every operation may be called from any thread; what a number stands for lives until
// Take, which the kernel asks for once, after the last use.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace mounted {

template <class Handle>
class Handles {
 public:
  std::uint64_t Add(std::unique_ptr<Handle> handle) {
    const std::lock_guard lock(mutex_);
    handles_.emplace(++last_, std::move(handle));
    return last_;
  }

  Handle& At(std::uint64_t number) {
    const std::lock_guard lock(mutex_);
    return *handles_.at(number);
  }

  std::unique_ptr<Handle> Take(std::uint64_t number) {
    const std::lock_guard lock(mutex_);
    auto taken = handles_.extract(number);
    return taken ? std::move(taken.mapped()) : nullptr;
  }

  /// One of those that are left; null when there is none.
  std::unique_ptr<Handle> TakeAny() {
    const std::lock_guard lock(mutex_);
    const auto first = handles_.begin();
    if (first == handles_.end()) return nullptr;
    std::unique_ptr<Handle> taken = std::move(first->second);
    handles_.erase(first);
    return taken;
  }

 private:
  std::mutex mutex_;
  std::uint64_t last_ = 0;
  std::map<std::uint64_t, std::unique_ptr<Handle>> handles_;
};

}  // namespace mounted
