// A reply of the host's authorisation service, released exactly once.
#pragma once

#include <string>
#include <utility>

#include "onedrive4b/interfaces.h"
#include "support/json_object.h"

namespace onedrive4b {

class AuthorizedReply {
 public:
  /// Asks the host. Exceptions of the host pass through.
  AuthorizedReply(IProtocolAuth& auth, IProtocol_V2& protocol, const std::string& credential)
      : auth_(&auth), text_(auth.Authorize(&protocol, credential.c_str())) {}
  AuthorizedReply(const AuthorizedReply&) = delete;
  AuthorizedReply& operator=(const AuthorizedReply&) = delete;
  ~AuthorizedReply() {
    try {
      if (text_ != nullptr) Free();
    } catch (...) {
      // The host's release threw; there is nothing left to release.
    }
  }

  /// Whether the host returned a reply.
  explicit operator bool() const { return text_ != nullptr; }

  /// The reply; a null document for none. Throws JSON_PARSE_FAILED.
  JsonObject Parse() const { return JsonObject(text_); }

  /// Passes the text back to the host, also when it is null. Later calls do nothing.
  void Free() {
    if (IProtocolAuth* auth = std::exchange(auth_, nullptr)) auth->FreeResult(text_);
  }

 private:
  IProtocolAuth* auth_;
  char* text_;
};

}  // namespace onedrive4b
