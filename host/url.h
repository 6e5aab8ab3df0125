// Url: an address parsed by libcurl's own parser, so that program and libcurl see the same parts.
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

  /// A part; empty if it is missing. The host of an IPv6 address includes its brackets.
  std::string Part(CURLUPart part, unsigned flags = 0) const;

 private:
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url_;
  bool ok_ = false;
};

/// Scheme, host and port, as far as they are there: "https://host:8443".
std::string OriginOf(const Url& url);

/// Whether the host of a URL is certainly this machine: "localhost", 127.0.0.0/8 or [::1], but not
/// a name that only looks similar, such as 127.example.com.
bool IsLoopback(const std::string& host);

}  // namespace host
