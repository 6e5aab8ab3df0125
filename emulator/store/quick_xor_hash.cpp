#include "emulator/store/quick_xor_hash.h"

#include <algorithm>
#include <string_view>

#include "emulator/text/encoding.h"

namespace emulator {

void QuickXorHash::Add(std::span<const char> bytes) {
  std::size_t column = length_ % kPeriod;
  length_ += bytes.size();
  while (!bytes.empty()) {
    const std::size_t count = std::min(bytes.size(), kPeriod - column);
    for (std::size_t i = 0; i < count; ++i) {
      std::uint8_t& place = columns_[column + i];
      place = static_cast<std::uint8_t>(place ^ static_cast<std::uint8_t>(bytes[i]));
    }
    bytes = bytes.subspan(count);
    column = 0;
  }
}

std::string QuickXorHash::Base64() const {
  constexpr std::size_t kShift = 11;
  constexpr std::size_t kRingBytes = 20;
  std::array<unsigned char, kRingBytes> ring{};
  for (std::size_t i = 0; i < kPeriod; ++i) {
    const std::size_t bit = i * kShift % kPeriod;
    const unsigned turned = unsigned{columns_[i]} << (bit % 8);
    ring[bit / 8] ^= static_cast<unsigned char>(turned & 0xFFU);
    ring[(bit / 8 + 1) % kRingBytes] ^= static_cast<unsigned char>(turned >> 8U);
  }
  for (std::size_t i = 0; i < 8; ++i) {
    ring[kRingBytes - 8 + i] ^= static_cast<unsigned char>(length_ >> (8 * i));
  }
  return EncodeBase64({reinterpret_cast<const char*>(ring.data()), ring.size()});
}

}  // namespace emulator
