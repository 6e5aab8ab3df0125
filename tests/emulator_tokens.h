// Tokens of the emulated authority, as hosts obtain them.
#pragma once

#include <optional>
#include <string>

#include "emulator/service.h"
#include "support/json_object.h"
#include "transport/request.h"

/// The reply to the module's request for tokens: for the resource that the credential names, else
/// for discovery. Nothing when the authority refuses. Any thread.
inline std::optional<std::string> TokenReply(emulator::Service& service,
                                             const std::string& credential) {
  const onedrive4b::JsonObject document(credential.c_str());
  const std::string resource = document.HasObject("args/resource")
                                   ? onedrive4b::TextAt(document, "args/resource")
                                   : service.DiscoveryResource();
  onedrive4b::CURLImpl request;
  request.SetURL(service.TokenUrl().c_str());
  request.AddQuery("grant_type", "refresh_token");
  request.AddQuery("client_id", service.ClientId());
  request.AddQuery("refresh_token", service.IssueRefreshToken());
  request.AddQuery("resource", resource);
  const onedrive4b::_CURLRTN reply = request.PerformPost(nullptr, nullptr, -1);
  if (reply.httpcode != 200) return std::nullopt;
  return "{\"results\":" + std::string(reply.body.get(), reply.bodylen) + "}";
}
