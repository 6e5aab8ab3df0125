#include "emulator/text/random_text.h"

#include <climits>
#include <stdexcept>
#include <string_view>

#include <openssl/rand.h>

#include "emulator/text/encoding.h"

namespace emulator {

std::string RandomBytes(std::size_t count) {
  std::string bytes(count, '\0');
  if (count > INT_MAX ||
      RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1) {
    throw std::runtime_error("no random bytes from the system");
  }
  return bytes;
}

std::string RandomGuid() {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string guid;
  for (const char c : RandomBytes(16)) {
    const auto byte = static_cast<unsigned char>(c);
    if (guid.size() == 8 || guid.size() == 13 || guid.size() == 18 || guid.size() == 23) {
      guid += '-';
    }
    guid += kDigits[byte >> 4U];
    guid += kDigits[byte & 15U];
  }
  return guid;
}

std::string RandomItemId() {
  constexpr std::string_view kBase32 = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
  std::string id = "01";
  for (const char c : RandomBytes(32)) id += kBase32[static_cast<unsigned char>(c) & 31U];
  return id;
}

std::string RandomDriveId() { return "b!" + EncodeBase64Url(RandomBytes(48)); }

std::string RandomToken(std::size_t entropy) { return EncodeBase64Url(RandomBytes(entropy)); }

}  // namespace emulator
