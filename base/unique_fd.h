// UniqueFd: the owner of one file descriptor.
//
// Not shared between threads without the owner's own lock. Closes the descriptor when destroyed.
#pragma once

#include <utility>

#include <unistd.h>

namespace base {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) noexcept : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Close(); }

  int get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }

  /// Hands the descriptor over to the caller.
  int Release() noexcept { return std::exchange(fd_, -1); }

  /// False when the system reports an error, which for some file systems is where a failed write
  /// shows first.
  bool Close() noexcept { return fd_ < 0 || ::close(std::exchange(fd_, -1)) == 0; }

 private:
  int fd_ = -1;
};

}  // namespace base
