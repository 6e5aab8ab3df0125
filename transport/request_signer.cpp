#include "transport/request_signer.h"

#include <algorithm>
#include <vector>

namespace onedrive4b {

CURLAuth::CURLAuth(JsonObject& auth) { CURLAuth::SetAuth(auth); }

void CURLAuth::SetAuth(JsonObject& auth) {
  const std::lock_guard guard(lock);
  const auto results = auth.FindObject("/results");
  if (!results) return;
  const std::vector<std::string> names = results->GetKeys();
  if (std::find(names.begin(), names.end(), "access_token") == names.end()) return;
  const std::string token = TextAt(*results, "access_token");
  // A header with a line break is never sent, so no 401 would ever renew this token.
  if (token.find_first_of("\r\n") != std::string::npos) return;
  AddHeader("Authorization", ("Bearer " + token).c_str());
}

void CURLAuth::SignAuthentication(CURLImpl& request) { SignAuthentication(&request); }

void CURLAuth::SignAuthentication(std::shared_ptr<CURLImpl> request) {
  SignAuthentication(request.get());
}

void CURLAuth::SignAuthentication(CURLImpl* request) {
  const std::lock_guard guard(lock);
  for (const auto& [name, value] : args) request->AddQuery(name.c_str(), value);
  for (const auto& [name, value] : headers) request->AddHeader(name.c_str(), value);
}

}  // namespace onedrive4b
