// HttpClient: the host's own requests to the authority, with forms and small answers.
//
// Threads: Post may be called from any thread; each call has its own libcurl handle.
// Lifetime: the settings are copied.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/cancellation.h"
#include "host/proxy.h"
#include "onedrive4b/aerror.h"

namespace host {

struct HttpSettings {
  std::string certificate_bundle;  ///< PEM file to verify servers against; empty: libcurl's own
  ProxyRule proxy = ProxyRule::None();
  std::chrono::seconds time_limit{60};  ///< of a whole request
};

struct HttpResponse {
  long status = 0;
  std::string content_type;
  std::string body;  ///< bounded; a longer answer is an HttpError
};

/// There was no answer: the text says why and contains neither an address nor a secret.
class HttpError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The proxy failed, not the server behind it.
class ProxyError : public HttpError {
 public:
  ProxyError(AERROR code, const std::string& text) : HttpError(text), code_(code) {}

  AERROR code() const noexcept { return code_; }  ///< one of SOCK_PROXY_...

 private:
  AERROR code_;
};

using FormFields = std::vector<std::pair<std::string, std::string>>;

/// The fields as a query or as the body of a form.
std::string EncodeForm(const FormFields& fields);

class HttpClient {
 public:
  explicit HttpClient(HttpSettings settings) : settings_(std::move(settings)) {}

  /// POSTs `fields` as application/x-www-form-urlencoded. Follows no redirects, which would hand
  /// the fields to another address. Throws HttpError, or ProxyError if the proxy failed. Raising
  /// `cancellation` aborts the request.
  HttpResponse PostForm(const std::string& url, const FormFields& fields,
                        const Cancellation* cancellation = nullptr) const;

  /// GETs with a bearer token, on the same terms.
  HttpResponse Get(const std::string& url, const std::string& token,
                   const Cancellation* cancellation = nullptr) const;

 private:
  HttpResponse Perform(void* handle, const std::string& url,
                       const Cancellation* cancellation) const;

  HttpSettings settings_;
};

}  // namespace host
