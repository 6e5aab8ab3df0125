#include "transport/url.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>
#include <string_view>

#include <curl/curl.h>
#include <strings.h>

namespace onedrive4b {

namespace {

struct FreeUrl {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

struct FreeCurlText {
  void operator()(char* text) const { curl_free(text); }
};

// How libcurl itself reads the URL of a transfer.
constexpr unsigned int kAsTransfersDo = CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME;

class ParsedUrl {
 public:
  explicit ParsedUrl(const std::string& text) : url_(curl_url()) {
    valid_ =
        url_ && curl_url_set(url_.get(), CURLUPART_URL, text.c_str(), kAsTransfersDo) == CURLUE_OK;
  }

  // "" when the URL did not parse or has no such part.
  std::string Part(CURLUPart part) const {
    char* text = nullptr;
    if (!valid_ || curl_url_get(url_.get(), part, &text, CURLU_DEFAULT_PORT) != CURLUE_OK)
      return {};
    return std::unique_ptr<char, FreeCurlText>(text).get();
  }

 private:
  std::unique_ptr<CURLU, FreeUrl> url_;
  bool valid_;
};

// Whether `a` begins with the scheme and authority of `b`, letter by letter, and both are plain.
bool BeginsWithOriginOf(std::string_view a, std::string_view b) {
  const std::size_t scheme = b.starts_with("https://") ? 8 : b.starts_with("http://") ? 7 : 0;
  if (scheme == 0) return false;
  const std::string_view origin = b.substr(0, b.find('/', scheme));
  const auto plain = [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '.'; };
  const std::string_view host = origin.substr(scheme, origin.find(':', scheme) - scheme);
  if (host.empty() || !std::ranges::all_of(host, plain)) return false;
  return a.starts_with(origin) &&
         (a.size() == origin.size() ||
          std::string_view("/?#").find(a[origin.size()]) != std::string_view::npos);
}

}  // namespace

bool SameOrigin(const std::string& a, const std::string& b) {
  // Nearly every URL is made of the endpoint itself; parsing both would cost more than all the rest
  // of a request's preparation.
  if (BeginsWithOriginOf(a, b)) return true;
  const ParsedUrl left(a);
  const ParsedUrl right(b);
  constexpr std::array kOrigin = {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT};
  return std::ranges::all_of(kOrigin, [&](CURLUPart part) {
    const std::string text = left.Part(part);
    return !text.empty() && strcasecmp(text.c_str(), right.Part(part).c_str()) == 0;
  });
}

}  // namespace onedrive4b
