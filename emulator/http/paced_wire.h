// A wire that carries no more than so many bytes in a second, in each direction for itself.
// Threads: those of Wire; the limit may change at any time. Lifetime: `bytes_per_second` must
// outlive the wire.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "emulator/http/wire.h"

namespace emulator {

class PacedWire : public Wire {
 public:
  /// `bytes_per_second` counts what TLS carries, not TLS itself; 0: no limit.
  PacedWire(std::unique_ptr<Wire> wire, const std::atomic<std::uint64_t>& bytes_per_second)
      : wire_(std::move(wire)), bytes_per_second_(bytes_per_second) {}

  void Open() override { wire_->Open(); }
  std::size_t Read(std::span<char> into) override;
  void Write(std::string_view bytes) override;
  void Close() override { wire_->Close(); }
  void Reset() override { wire_->Reset(); }
  bool Wait(std::chrono::milliseconds duration) override { return wire_->Wait(duration); }
  void WaitForPeerToGo() override { wire_->WaitForPeerToGo(); }
  void Abort() noexcept override { wire_->Abort(); }
  void Break() noexcept override { wire_->Break(); }

 private:
  using Clock = std::chrono::steady_clock;

  /// Waits until `count` bytes more have had their time. Throws ConnectionLost.
  void Pace(Clock::time_point& free_at, std::size_t count, std::uint64_t rate);

  const std::unique_ptr<Wire> wire_;
  const std::atomic<std::uint64_t>& bytes_per_second_;
  Clock::time_point can_read_at_{};
  Clock::time_point can_write_at_{};
};

}  // namespace emulator
