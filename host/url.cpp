#include "host/url.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>

namespace host {

Url::Url(const std::string& text) : url_(curl_url(), &curl_url_cleanup) {
  ok_ = url_ != nullptr && curl_url_set(url_.get(), CURLUPART_URL, text.c_str(),
                                        CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
}

std::string Url::Part(CURLUPart part, unsigned flags) const {
  char* text = nullptr;
  if (!ok_ || curl_url_get(url_.get(), part, &text, flags) != CURLUE_OK) return {};
  const std::unique_ptr<char, decltype(&curl_free)> owner(text, &curl_free);
  return text;
}

std::string OriginOf(const Url& url) {
  std::string origin = url.Part(CURLUPART_SCHEME) + "://" + url.Part(CURLUPART_HOST);
  if (const std::string port = url.Part(CURLUPART_PORT); !port.empty()) origin += ':' + port;
  return origin;
}

bool IsLoopback(const std::string& host) {
  in_addr v4{};
  if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) return ntohl(v4.s_addr) >> 24U == 127;
  return strcasecmp(host.c_str(), "localhost") == 0 || host == "[::1]";
}

}  // namespace host
