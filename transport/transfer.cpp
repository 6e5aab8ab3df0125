// The transfer operations of CURLImpl.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string_view>

#include <event2/buffer.h>

#include "transport/request.h"

namespace onedrive4b {

namespace {

struct FreeEvbuffer {
  void operator()(evbuffer* buffer) const { evbuffer_free(buffer); }
};
using Evbuffer = std::unique_ptr<evbuffer, FreeEvbuffer>;

Evbuffer NewEvbuffer() {
  Evbuffer buffer(evbuffer_new());
  if (!buffer) throw std::bad_alloc();
  return buffer;
}

struct FreeHeaderList {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, FreeHeaderList>;

std::shared_ptr<char[]> AllocateBlock(std::size_t size) {
  void* block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return {static_cast<char*>(block), std::free};
}

bool CanStandInHeader(std::string_view text) {
  // One search for each: for a set of characters the library compares one by one.
  constexpr std::string_view kForbidden("\r\n\0", 3);
  return std::ranges::none_of(
      kForbidden, [&](char character) { return text.find(character) != std::string_view::npos; });
}

_CURLRTN WithoutHandle() {
  _CURLRTN result;
  result.curlcode = CURLE_FAILED_INIT;
  return result;
}

// Receives the lines of libcurl's header function: the lines of a header block, which begins with a
// status line and ends with an empty line, and trailer lines.
class HeaderLines {
 public:
  /// Appends the blocks, but not the trailers, to `kept`, which may be null.
  explicit HeaderLines(evbuffer* kept) : kept_(kept) {}

  static std::size_t Take(char* data, std::size_t size, std::size_t count, void* to) {
    auto* lines = static_cast<HeaderLines*>(to);
    const std::string_view line(data, size * count);
    lines->answered_ = true;
    if (line.starts_with("HTTP/")) lines->in_block_ = true;
    if (!lines->in_block_) return line.size();
    if (line == "\r\n" || line == "\n") lines->in_block_ = false;
    if (lines->kept_ == nullptr) return line.size();
    lines->kept_length_ += line.size();
    return write_callback_ev_func(data, size, count, lines->kept_);
  }

  std::size_t kept_length() const { return kept_length_; }

  /// Whether any part of an answer has arrived.
  bool answered() const { return answered_; }

  /// Whether the answer ended inside a header block. libcurl treats it as an answer without a body.
  bool broken_off() const { return in_block_; }

 private:
  evbuffer* kept_;
  std::size_t kept_length_ = 0;
  bool in_block_ = false;
  bool answered_ = false;
};

// Whether a transfer failed because the server, or a router on the way, had closed the kept
// connection. libcurl repeats such a request by itself, but not after it has begun to send a body.
bool MetClosedConnection(CURL* curl, CURLcode code, const HeaderLines& lines) {
  const bool broke =
      code == CURLE_SEND_ERROR || code == CURLE_RECV_ERROR || code == CURLE_GOT_NOTHING;
  return broke && !lines.answered() && GetInfo(curl, CURLINFO_NUM_CONNECTS, 0L) == 0;
}

// Cuts a response into its header blocks, `header_length` bytes, and the body behind them.
void Split(evbuffer* response, std::size_t header_length, _CURLRTN& result) {
  result.headerlen = static_cast<std::uint32_t>(header_length);
  result.bodylen = static_cast<std::uint32_t>(evbuffer_get_length(response) - header_length);
  if (result.headerlen != 0) {
    result.header = AllocateBlock(result.headerlen + 1);
    result.header[result.headerlen] = '\0';
    evbuffer_remove(response, result.header.get(), result.headerlen);
  }
  if (result.bodylen != 0) {
    result.body = AllocateBlock(result.bodylen);
    evbuffer_remove(response, result.body.get(), result.bodylen);
  }
}

}  // namespace

bool CURLImpl::HeadersCanBeSent() const {
  return std::all_of(headers.begin(), headers.end(), [](const auto& header) {
    return CanStandInHeader(header.first) && CanStandInHeader(header.second);
  });
}

std::string CURLImpl::BuildURL() const {
  const std::string parameters = BuildQueryString(true);
  if (parameters.empty()) return url;
  return url + (url.find('?') == std::string::npos ? '?' : '&') + parameters;
}

bool CURLImpl::RewindBody() const {
  if (!body_is_read) return true;
  constexpr curl_off_t kBegin = 0;
  return body_seek.seek != nullptr &&
         body_seek.seek(body_seek.body, kBegin, SEEK_SET) == CURL_SEEKFUNC_OK;
}

// The common part of all transfers, after URL, body source and stream functions are set.
// `collected` receives the header blocks and, after them, the body; it is null when the caller
// streams the body.
//
// libcurl could write the header lines there itself (CURLOPT_HEADER), but versions differ in
// whether they also write the trailer lines of a chunked body, which belong to neither part.
_CURLRTN CURLImpl::Run(const char* natural_method, evbuffer* collected) {
  _CURLRTN result;
  errorbuffer.fill('\0');
  if (request.empty()) {
    lastrequest = natural_method;
  } else {
    Set(CURLOPT_CUSTOMREQUEST, request.c_str());
  }
  // A custom method is kept across a redirect, so the body must be kept as well: a PUT without it
  // would store an empty file.
  Set(CURLOPT_POSTREDIR, request.empty() ? 0L : long{CURL_REDIR_POST_ALL});
  const HeaderList header_list(BuildHeader());
  Set(CURLOPT_HTTPHEADER, header_list.get());
  HeaderLines header_lines(collected);
  Set(CURLOPT_HEADERFUNCTION, &HeaderLines::Take);
  Set(CURLOPT_HEADERDATA, &header_lines);
  if (collected != nullptr) {
    Set(CURLOPT_WRITEFUNCTION, &write_callback_ev_func);
    Set(CURLOPT_WRITEDATA, collected);
  }
  result.curlcode =
      HeadersCanBeSent() ? curl_easy_perform(curl.get()) : CURLE_BAD_FUNCTION_ARGUMENT;
  if (MetClosedConnection(curl.get(), static_cast<CURLcode>(result.curlcode), header_lines) &&
      RewindBody()) {
    Set(CURLOPT_FRESH_CONNECT, 1L);
    result.curlcode = curl_easy_perform(curl.get());
    Set(CURLOPT_FRESH_CONNECT, 0L);
  }
  if (result.curlcode == CURLE_OK && header_lines.broken_off())
    result.curlcode = CURLE_PARTIAL_FILE;
  Set(CURLOPT_HTTPHEADER, nullptr);
  Set(CURLOPT_HEADERFUNCTION, nullptr);
  Set(CURLOPT_HEADERDATA, nullptr);
  result.errmsg = errorbuffer.data();
  CURL* handle = curl.get();
  // A new connection may have replaced one that the server had closed, which libcurl counts. A
  // handle whose transfer failed, for example inside the headers of an answer, is not used again.
  handle_is_used_up = result.curlcode != CURLE_OK || GetInfo(handle, CURLINFO_NUM_CONNECTS, 0L) > 0;
  if (result.curlcode != CURLE_OK) return result;

  result.httpcode = static_cast<std::int32_t>(GetInfo(handle, CURLINFO_RESPONSE_CODE, 0L));
  result.downspeed = static_cast<double>(GetInfo(handle, CURLINFO_SPEED_DOWNLOAD_T, curl_off_t{0}));
  result.upspeed = static_cast<double>(GetInfo(handle, CURLINFO_SPEED_UPLOAD_T, curl_off_t{0}));
  if (collected != nullptr) Split(collected, header_lines.kept_length(), result);
  return result;
}

_CURLRTN CURLImpl::PerformGet(void* writeFunction, void* writeData) {
  if (!curl) return WithoutHandle();
  Set(CURLOPT_URL, query.empty() ? url.c_str() : BuildURL().c_str());
  Set(CURLOPT_HTTPGET, 1L);
  body_is_read = false;
  if (writeFunction == nullptr) {
    return Run("GET", NewEvbuffer().get());
  }
  Set(CURLOPT_WRITEFUNCTION, writeFunction);
  Set(CURLOPT_WRITEDATA, writeData);
  return Run("GET", nullptr);
}

_CURLRTN CURLImpl::PerformPost(std::string body) {
  BodyCursor cursor{body.data(), 0, static_cast<std::int64_t>(body.size())};
  return PerformPost(reinterpret_cast<void*>(&read_callback_buf_func), &cursor, -1);
}

_CURLRTN CURLImpl::PerformPost(void* readFunction, void* readData, long long size) {
  if (!curl) return WithoutHandle();
  const bool reads = readFunction != nullptr;
  body_is_read = reads;
  const std::string form = reads ? std::string() : BuildQueryString(true);
  Set(CURLOPT_URL, (reads ? BuildURL() : url).c_str());
  Set(CURLOPT_POST, 1L);
  if (reads) {
    Set(CURLOPT_POSTFIELDS, nullptr);
    if (size == -1 && readData != nullptr) {
      size = static_cast<const BodyCursor*>(readData)->length;
      SetBodySeek(&read_callback_buf_seek_func, readData);
    }
    Set(CURLOPT_READFUNCTION, readFunction);
    if (readData != nullptr) Set(CURLOPT_READDATA, readData);
  } else {
    // libcurl reads exactly this many bytes, so never announce more than there are.
    const auto length = static_cast<long long>(form.size());
    size = size < 0 ? length : std::min(size, length);
    Set(CURLOPT_POSTFIELDS, form.c_str());
  }
  if (post != nullptr) {
    CURL_IGNORE_DEPRECATION(Set(CURLOPT_HTTPPOST, post);)
  } else {
    Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(std::max(size, 0LL)));
  }
  return Run("POST", NewEvbuffer().get());
}

}  // namespace onedrive4b
