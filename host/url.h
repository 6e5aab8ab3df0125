// Url: an address taken apart by libcurl's own parser, so that both see the same parts.
//
// Used by one thread at a time; the functions may be called from any.
#pragma once

#include <memory>
#include <string>

#include <curl/curl.h>

namespace host {

class Url {
 public:
  explicit Url(const std::string& text);

  bool ok() const noexcept { return ok_; }

  /// A part; empty when there is none. The host of an IPv6 address has its brackets.
  std::string Part(CURLUPart part, unsigned flags = 0) const;

 private:
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url_;
  bool ok_ = false;
};

/// Whether the host of a URL is this machine for certain: "localhost", 127.0.0.0/8 or [::1]. Names
/// that only look alike, such as 127.example.com, are not.
bool IsLoopback(const std::string& host);

}  // namespace host
