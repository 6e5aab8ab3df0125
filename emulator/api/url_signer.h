// Texts that only this run of the service could have made: page tokens and pre-authenticated URLs.
// Threads: callable from any. Lifetime: signatures are void with the object, which holds the key.
#pragma once

#include <string>
#include <string_view>

namespace emulator {

class UrlSigner {
 public:
  UrlSigner();

  /// Ready for a query: base64 with its '+', '/' and '=' escaped in lower case, so that a client
  /// that decodes and encodes anew is found out.
  std::string Sign(std::string_view text) const;
  bool Check(std::string_view text, std::string_view signature) const;

 private:
  std::string key_;
};

}  // namespace emulator
