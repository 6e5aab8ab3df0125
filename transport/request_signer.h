// Stamps credentials onto requests.
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
/// with the old token or the new one, never with half of each.
class CURLAuth {
 public:
  /// Takes the token as SetAuth does.
  explicit CURLAuth(JsonObject& auth);
  virtual ~CURLAuth() = default;

  /// Takes "results"."access_token" of a token reply. A reply without one, or with one that
  /// cannot stand in a header, changes nothing. Throws the JSON library's error when a member has
  /// the wrong type.
  virtual void SetAuth(JsonObject& auth);

  /// Copies all entries into the request, over entries of the same names.
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
