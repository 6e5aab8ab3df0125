// Adds credentials to requests.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "support/json_object.h"
#include "transport/request.h"

namespace onedrive4b {

/// Query arguments and headers that every signed request carries; in practice the bearer token
/// (RFC 6750, section 2.1). One signer serves all threads of a protocol object: a request is signed
/// either with the old token or with the new one.
class CURLAuth {
 public:
  /// Sets the token like SetAuth.
  explicit CURLAuth(JsonObject& auth);
  virtual ~CURLAuth() = default;

  /// Uses "results"."access_token" of a token reply. A reply without a token, or with a token that
  /// is not valid in a header, changes nothing. Throws the JSON library's error if a member has the
  /// wrong type.
  virtual void SetAuth(JsonObject& auth);

  /// Copies all entries into the request; they replace entries with the same names.
  virtual void SignAuthentication(CURLImpl& request);
  virtual void SignAuthentication(std::shared_ptr<CURLImpl> request);
  virtual void SignAuthentication(CURLImpl* request);

  /// Not locked: on a shared signer the caller holds its lock.
  void AddHeader(const char* name, const char* value) { headers[name] = value; }
  void AddArg(const char* name, const char* value) { args[name] = value; }
  void ClearHeaders() { headers.clear(); }
  void ClearArgs() { args.clear(); }

 private:
  std::mutex lock;
  std::unordered_map<std::string, std::string> args;
  std::unordered_map<std::string, std::string> headers;
};

}  // namespace onedrive4b
