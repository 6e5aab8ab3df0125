#include "emulator/api/url_signer.h"

#include <array>
#include <stdexcept>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "emulator/text/encoding.h"
#include "emulator/text/random_text.h"

namespace emulator {

UrlSigner::UrlSigner() : key_(RandomBytes(32)) {}

std::string UrlSigner::Sign(std::string_view text) const {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned length = 0;
  if (HMAC(EVP_sha256(), key_.data(), static_cast<int>(key_.size()),
           reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data(),
           &length) == nullptr) {
    throw std::runtime_error("cannot sign");
  }
  std::string signature;
  for (const char c : EncodeBase64({reinterpret_cast<const char*>(digest.data()), length})) {
    if (c == '+') {
      signature += "%2b";
    } else if (c == '/') {
      signature += "%2f";
    } else if (c == '=') {
      signature += "%3d";
    } else {
      signature += c;
    }
  }
  return signature;
}

bool UrlSigner::Check(std::string_view text, std::string_view signature) const {
  const std::string right = Sign(text);
  return right.size() == signature.size() &&
         CRYPTO_memcmp(right.data(), signature.data(), right.size()) == 0;
}

}  // namespace emulator
