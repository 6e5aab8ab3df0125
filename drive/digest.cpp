#include "drive/digest.h"

#include <array>
#include <cerrno>
#include <vector>

#include <unistd.h>

#include "drive/copy_store.h"
#include "drive/error.h"

namespace drive {

Digest::Digest() : context_(EVP_MD_CTX_new()) {
  if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) {
    throw Error(Reason::kBroken, "SHA-256 is not available");
  }
}

void Digest::Add(std::span<const char> bytes) {
  EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size());
  size_ += std::ssize(bytes);
}

std::string Digest::Text() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
  unsigned int length = 0;
  EVP_DigestFinal_ex(context_.get(), hash.data(), &length);
  std::string text = std::to_string(size_) + ':';
  for (unsigned int i = 0; i < length; ++i) {
    constexpr char kDigits[] = "0123456789abcdef";
    text += kDigits[hash[i] >> 4U];
    text += kDigits[hash[i] & 0xFU];
  }
  return text;
}

std::string Digest::OfFile(int fd) {
  Digest digest;
  std::vector<char> buffer(std::size_t{256} << 10U);
  for (std::int64_t offset = 0;;) {
    const ssize_t got = ::pread(fd, buffer.data(), buffer.size(), offset);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) ThrowLocalError("read", errno);
    if (got == 0) return digest.Text();
    digest.Add({buffer.data(), static_cast<std::size_t>(got)});
    offset += got;
  }
}

}  // namespace drive
