#include "transport/url.h"

#include <algorithm>
#include <array>
#include <memory>

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

}  // namespace

bool SameOrigin(const std::string& a, const std::string& b) {
  const ParsedUrl left(a);
  const ParsedUrl right(b);
  constexpr std::array kOrigin = {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT};
  return std::ranges::all_of(kOrigin, [&](CURLUPart part) {
    const std::string text = left.Part(part);
    return !text.empty() && strcasecmp(text.c_str(), right.Part(part).c_str()) == 0;
  });
}

}  // namespace onedrive4b
