#include "host/http_client.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>

#include <curl/curl.h>

#include "base/curl_option.h"

namespace host {
namespace {

constexpr std::size_t kMostAnswerBytes = 1 << 20;
constexpr long kConnectSeconds = 30;

using EasyHandle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;

template <CURLoption option, typename Value>
void Set(CURL* curl, Value value) {
  if (const CURLcode code = base::SetCurlOption<option>(curl, value); code != CURLE_OK) {
    throw HttpError(std::string("libcurl rejected an option: ") + curl_easy_strerror(code));
  }
}

EasyHandle StartedHandle() {
  EasyHandle curl(curl_easy_init(), &curl_easy_cleanup);
  if (!curl) throw HttpError("libcurl could not be started");
  return curl;
}

std::size_t Collect(char* data, std::size_t size, std::size_t count, void* body) noexcept {
  auto& text = *static_cast<std::string*>(body);
  const std::size_t bytes = size * count;
  if (text.size() + bytes > kMostAnswerBytes) return 0;
  try {
    text.append(data, bytes);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  return bytes;
}

int CheckCancelled(void* cancellation, curl_off_t, curl_off_t, curl_off_t, curl_off_t) noexcept {
  return static_cast<const Cancellation*>(cancellation)->raised() ? 1 : 0;
}

std::string Escaped(const std::string& text) {
  const std::unique_ptr<char, decltype(&curl_free)> escaped(
      curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size())), &curl_free);
  if (!escaped) throw std::bad_alloc();
  return escaped.get();
}

void SetProxy(CURL* curl, const ProxySettings& proxy) {
  // Without these two libcurl would read the environment by itself.
  Set<CURLOPT_NOPROXY>(curl, "");
  if (proxy.type.empty()) return Set<CURLOPT_PROXY>(curl, "");
  Set<CURLOPT_PROXY>(curl, proxy.host.c_str());
  Set<CURLOPT_PROXYPORT>(curl, static_cast<long>(proxy.port));
  const long type = proxy.type == "SOCKS4"   ? CURLPROXY_SOCKS4
                    : proxy.type == "SOCKS5" ? CURLPROXY_SOCKS5
                                             : CURLPROXY_HTTP;
  Set<CURLOPT_PROXYTYPE>(curl, type);
  Set<CURLOPT_HTTPPROXYTUNNEL>(curl, proxy.type == "HTTP with TUNNEL" ? 1L : 0L);
  // CURLAUTH_ANY is unsigned; libcurl reads a long.
  Set<CURLOPT_PROXYAUTH>(curl, static_cast<long>(CURLAUTH_ANY));
  if (proxy.user.empty()) return;
  Set<CURLOPT_PROXYUSERNAME>(curl, proxy.user.c_str());
  Set<CURLOPT_PROXYPASSWORD>(curl, proxy.password.c_str());
}

void Configure(CURL* curl, const HttpSettings& settings) {
  Set<CURLOPT_PROTOCOLS_STR>(curl, "http,https");
  Set<CURLOPT_NOSIGNAL>(curl, 1L);
  Set<CURLOPT_CONNECTTIMEOUT>(curl, kConnectSeconds);
  Set<CURLOPT_TIMEOUT>(curl, static_cast<long>(settings.time_limit.count()));
  Set<CURLOPT_ACCEPT_ENCODING>(curl, "");
  if (!settings.certificate_bundle.empty()) {
    Set<CURLOPT_CAINFO>(curl, settings.certificate_bundle.c_str());
  }
}

void AbortWhenRaised(CURL* curl, const Cancellation* cancellation) {
  if (cancellation == nullptr) return;
  Set<CURLOPT_NOPROGRESS>(curl, 0L);
  Set<CURLOPT_XFERINFOFUNCTION>(curl, &CheckCancelled);
  Set<CURLOPT_XFERINFODATA>(curl, cancellation);
}

bool IsAuthentication(long status) { return status == 401 || status == 407; }

/// Throws when a failed request never got past the proxy.
void CheckProxy(CURL* curl, CURLcode code, const std::string& reason) {
  long tunnel = 0;  // what the proxy answered to CONNECT
  long refusal = CURLPX_OK;
  curl_easy_getinfo(curl, CURLINFO_HTTP_CONNECTCODE, &tunnel);
  curl_easy_getinfo(curl, CURLINFO_PROXY_ERROR, &refusal);
  const auto fail = [&](AERROR error, const char* what) {
    throw ProxyError(error, std::string("the proxy ") + what + ": " + reason);
  };
  if (IsAuthentication(tunnel) || refusal == CURLPX_USER_REJECTED || refusal == CURLPX_NO_AUTH) {
    fail(SOCK_PROXY_AUTH_REQUIRED, "rejected the user name or password");
  }
  if (code == CURLE_COULDNT_RESOLVE_PROXY) fail(SOCK_PROXY_NOT_FOUND, "cannot be found");
  if (code == CURLE_COULDNT_CONNECT) fail(SOCK_PROXY_CONNECTION_REFUSED, "cannot be reached");
  if (code == CURLE_PROXY || (tunnel != 0 && tunnel / 100 != 2)) {
    fail(SOCK_PROXY_PROTOCOL_ERROR, "did not forward the request");
  }
}

}  // namespace

std::string EncodeForm(const FormFields& fields) {
  std::string text;
  for (const auto& [name, value] : fields) {
    if (!text.empty()) text += '&';
    text += Escaped(name) + "=" + Escaped(value);
  }
  return text;
}

HttpResponse HttpClient::PostForm(const std::string& url, const FormFields& fields,
                                  const Cancellation* cancellation) const {
  const EasyHandle curl = StartedHandle();
  const std::string form = EncodeForm(fields);
  Set<CURLOPT_POSTFIELDS>(curl.get(), form.c_str());
  Set<CURLOPT_POSTFIELDSIZE>(curl.get(), static_cast<long>(form.size()));
  return Perform(curl.get(), url, cancellation);
}

HttpResponse HttpClient::Get(const std::string& url, const std::string& token,
                             const Cancellation* cancellation) const {
  const auto printable = [](char c) { return c > ' ' && c <= '~'; };
  if (token.empty() || !std::all_of(token.begin(), token.end(), printable)) {
    throw HttpError("the authority's token is no token (RFC 6750, section 2.1)");
  }
  const EasyHandle curl = StartedHandle();
  // CURLAUTH_BEARER is unsigned; libcurl reads a long.
  Set<CURLOPT_HTTPAUTH>(curl.get(), static_cast<long>(CURLAUTH_BEARER));
  Set<CURLOPT_XOAUTH2_BEARER>(curl.get(), token.c_str());
  return Perform(curl.get(), url, cancellation);
}

HttpResponse HttpClient::Perform(void* handle, const std::string& url,
                                 const Cancellation* cancellation) const {
  CURL* const curl = handle;
  Configure(curl, settings_);
  const ProxySettings proxy = settings_.proxy.For(url);
  SetProxy(curl, proxy);
  AbortWhenRaised(curl, cancellation);
  HttpResponse response;
  std::array<char, CURL_ERROR_SIZE> reason{};
  Set<CURLOPT_ERRORBUFFER>(curl, reason.data());
  Set<CURLOPT_URL>(curl, url.c_str());
  Set<CURLOPT_WRITEFUNCTION>(curl, &Collect);
  Set<CURLOPT_WRITEDATA>(curl, static_cast<void*>(&response.body));
  if (const CURLcode code = curl_easy_perform(curl); code != CURLE_OK) {
    if (code == CURLE_WRITE_ERROR) throw HttpError("the answer is too long");
    const std::string text = reason[0] != '\0' ? reason.data() : curl_easy_strerror(code);
    if (!proxy.type.empty()) CheckProxy(curl, code, text);
    throw HttpError(text);
  }
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
  constexpr long kProxyAuthenticationRequired = 407;
  if (response.status == kProxyAuthenticationRequired) {
    throw ProxyError(SOCK_PROXY_AUTH_REQUIRED,
                     "the proxy rejected the user name or password: HTTP 407");
  }
  const char* type = nullptr;
  curl_easy_getinfo(curl, CURLINFO_CONTENT_TYPE, &type);
  if (type != nullptr) response.content_type = type;
  return response;
}

}  // namespace host
