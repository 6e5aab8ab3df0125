#include "emulator/http/paced_wire.h"

#include <algorithm>

#include "emulator/http/message.h"

namespace emulator {
namespace {

/// Bytes that go together: small enough to flow evenly.
std::size_t PieceSize(std::uint64_t rate) {
  constexpr std::uint64_t kPiecesPerSecond = 20;
  constexpr std::uint64_t kLargest = std::uint64_t{64} * 1024;
  return static_cast<std::size_t>(std::clamp<std::uint64_t>(rate / kPiecesPerSecond, 1, kLargest));
}

}  // namespace

std::size_t PacedWire::Read(std::span<char> into) {
  const std::uint64_t rate = bytes_per_second_;
  if (rate == 0) return wire_->Read(into);
  const std::size_t count = wire_->Read(into.first(std::min(into.size(), PieceSize(rate))));
  Pace(can_read_at_, count, rate);
  return count;
}

void PacedWire::Write(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::uint64_t rate = bytes_per_second_;
    const std::size_t count = rate == 0 ? bytes.size() : std::min(bytes.size(), PieceSize(rate));
    if (rate != 0) Pace(can_write_at_, count, rate);
    wire_->Write(bytes.substr(0, count));
    bytes.remove_prefix(count);
  }
}

void PacedWire::Pace(Clock::time_point& free_at, std::size_t count, std::uint64_t rate) {
  const auto now = Clock::now();
  const std::chrono::duration<double> time(static_cast<double>(count) / static_cast<double>(rate));
  free_at = std::max(now, free_at) + std::chrono::duration_cast<Clock::duration>(time);
  // Less than a millisecond is left for the next piece.
  const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(free_at - now);
  if (wait.count() > 0 && !wire_->Wait(wait)) throw ConnectionLost("the peer is gone");
}

}  // namespace emulator
