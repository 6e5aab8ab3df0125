// Digest: what a content is known by after it was sent and no answer came. SHA-256.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include <openssl/evp.h>

namespace drive {

class Digest {
 public:
  Digest();

  void Add(std::span<const char> bytes);
  /// The size and the hash as text, without a blank. Ends the use.
  std::string Text();

  /// Of a whole file. Throws Error.
  static std::string OfFile(int fd);

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
  };
  std::unique_ptr<EVP_MD_CTX, Free> context_;
  std::int64_t size_ = 0;
};

}  // namespace drive
