// quickXorHash, the digest the service gives for files ("Code snippets: QuickXorHash algorithm" in
// its public documentation): each byte is XORed into a 160-bit ring, 11 bits further than the last;
// the length goes into the last eight bytes.
// Threads: one object, one thread. Lifetime: a plain value; a copy goes on separately.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace emulator {

class QuickXorHash {
 public:
  void Add(std::span<const char> bytes);
  std::string Base64() const;

 private:
  // Bytes 160 apart meet at the same bit of the ring (160 * 11 is a multiple of 160), so that they
  // can be gathered byte-wise and turned once at the end.
  static constexpr std::size_t kPeriod = 160;
  std::array<std::uint8_t, kPeriod> columns_{};
  std::uint64_t length_ = 0;
};

}  // namespace emulator
