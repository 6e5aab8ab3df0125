// UniqueFd: the owner of one file descriptor.
//
// Threads that share an object need a lock of their own. Closes the descriptor when destroyed.
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

  /// Passes the ownership of the descriptor to the caller.
  int Release() noexcept { return std::exchange(fd_, -1); }

  /// False if the system reports an error; some file systems report a failed write only here.
  bool Close() noexcept { return fd_ < 0 || ::close(std::exchange(fd_, -1)) == 0; }

 private:
  int fd_ = -1;
};

}  // namespace base
